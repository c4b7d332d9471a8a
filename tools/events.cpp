// events.cpp: reporting logins and logouts as a service would. A logout first asks who would be concerned,
// and afterwards who is still there, so that what it prints is what happened.
#include "events.h"

#include <algorithm>
#include <cstring>
#include <regex>

namespace {

std::string option_name(std::string_view field)
{
	std::string name = "--" + std::string(field);
	std::replace(name.begin(), name.end(), '_', '-');
	return name;
}

std::string option_description(const vek_field &field)
{
	if (std::string_view(field.name) == "type")
		return "admin (when not given), user, guest, ext, limited, ext-group or a number";
	switch (field.kind) {
	case field_kind::text: return "at most " + std::to_string(field.size - 1) + " bytes";
	case field_kind::ip4: return "IPv4 address";
	case field_kind::ip6: return "IPv6 address";
	default: return *field.unit ? field.unit : "number";
	}
}

bool is_always_refused(int event)
{
	return event == VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1 || event == VEK_EVENT_WEB_USER_LOGOUT ||
	       event == VEK_EVENT_USER_LOGOUT_REVOCABLE || event == VEK_EVENT_USER_LOGOUT_REVOKE;
}

bool uses_ip6(const vek_event &event) { return (event.event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR) != 0; }

// The daemon's rules: a key that is not there restricts nothing, and a unique key that holds a MAC address
// means the station when neither a name nor an address goes with it.
bool matches(const vek_event &event, const user_info &session)
{
	static const std::regex mac("([0-9a-fA-F]{2}:){5}[0-9a-fA-F]{2}");
	const auto differs = [](const char *key, const char *value) {
		return *key && std::strcmp(key, value) != 0;
	};
	if (differs(event.service, session.service) || differs(event.username, session.username))
		return false;
	if (uses_ip6(event) ? !IN6_ARE_ADDR_EQUAL(&event.ip6, &session.ip6)
			    : event.ip != 0 && event.ip != session.ip)
		return false;
	const bool is_station =
	    !uses_ip6(event) && event.ip == 0 && !*event.username && std::regex_search(event.unique, mac);
	return !differs(event.unique, is_station ? session.sta_mac : session.unique);
}

bool is_same_session(const user_info &a, const user_info &b)
{
	return std::strcmp(a.service, b.service) == 0 && std::strcmp(a.username, b.username) == 0 &&
	       std::strcmp(a.unique, b.unique) == 0 && std::strcmp(a.sta_mac, b.sta_mac) == 0 &&
	       a.ip == b.ip && IN6_ARE_ADDR_EQUAL(&a.ip6, &b.ip6) && a.login_time == b.login_time;
}

// One session's own keys in place of the search's. As IPv6 "no address" is a key too; without it and without
// a name, a unique key that holds a MAC address would mean a station.
vek_event logout_of(const user_info &session, vek_event event)
{
	std::memcpy(event.service, session.service, sizeof(event.service));
	std::memcpy(event.username, session.username, sizeof(event.username));
	std::memcpy(event.unique, session.unique, sizeof(event.unique));
	event.ip = session.ip;
	event.ip6 = session.ip6;
	event.event_flag &= ~VEK_EVENT_FLAG_USED_IPV6_ADDR;
	if (!IN6_IS_ADDR_UNSPECIFIED(&session.ip6) || (session.ip == 0 && !*session.username))
		event.event_flag |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
	return event;
}

// ---- logout ----

struct logout_options {
	bool dry_run = false;
	bool revocable = false;
};

void print_sessions(const settings &set, const sessions &concerned, const std::string &words, bool dry_run)
{
	if (set.json) {
		json result = json_result();
		result["dry_run"] = dry_run;
		result["sessions"] = json::array();
		for (const user_info &session : concerned)
			result["sessions"].push_back(record_json(user_info_fields, &session));
		return put_json(result);
	}
	for (const user_info &session : concerned)
		put_line(cut(words + " " +
				 describe(session.username, session.service, session.type,
					  address_text(session.ip, session.ip6)),
			     terminal_width()));
}

// One logout a session: what follows in the daemon (copies, log, ending its shell) happens once an event, and
// with the address only that the event has.
void report_logouts(vek_client *notify, const sessions &found, const vek_event &search)
{
	for (std::size_t i = 0; i < found.size(); i++) {
		try {
			report(notify, logout_of(found[i], search));
		} catch (failure &why) {
			why.message += " (after " + std::to_string(i) + " of " +
				       std::to_string(found.size()) + " logouts)";
			throw;
		}
	}
}

void logout(const settings &set, draft &event, const logout_options &options, int number)
{
	require_key(event);
	event.record.event = number;
	const sessions found = matching(set, event.record);
	if (options.dry_run || found.empty())
		print_sessions(set, found, "would end", options.dry_run);
	if (found.empty() && !event.all)
		throw failure{status_refused, "no session matches"};
	if (options.dry_run || found.empty())
		return;

	const connection notify = connect_notify(set);
	if (number == VEK_EVENT_USER_LOGOUT_REVOCABLE) {
		report(notify.get(), event.record); // as it was given: a revoke has to name the same keys
		return print_sessions(set, found, "will end, unless revoked,", false);
	}
	report_logouts(notify.get(), found, event.record);

	sessions ended = found;
	const sessions left = matching(set, event.record);
	std::erase_if(ended, [&](const user_info &session) {
		return std::any_of(left.begin(), left.end(),
				   [&](auto &other) { return is_same_session(session, other); });
	});
	print_sessions(set, ended, "ended", false);
	if (ended.size() < found.size())
		throw failure{status_refused, std::to_string(found.size() - ended.size()) + " of " +
						  std::to_string(found.size()) +
						  " sessions are still logged in"};
}

void login(const settings &set, draft &event)
{
	vek_event &record = event.record;
	if (!*record.username && !*record.real_username)
		throw failure{status_usage, "login needs --username"};
	if (!event.has("real_username"))
		std::memcpy(record.real_username, record.username, sizeof(record.real_username));
	if (!event.has("username"))
		std::memcpy(record.username, record.real_username, sizeof(record.username));
	const std::string who =
	    describe(record.real_username, record.service, record.type, address_text(record.ip, record.ip6));
	report_one(set, record, VEK_EVENT_USER_LOGIN, "vekd refused the login of " + who);
	if (!set.json)
		put_line(cut("logged in " + who, terminal_width()));
}

} // namespace

std::pair<CLI::App *, std::shared_ptr<draft>>
add_event_command(CLI::App &parent, settings &set, const std::string &name, const std::string &description,
		  const std::string &example, const draft_run &run)
{
	auto event = std::make_shared<draft>();
	CLI::App *command = add_command(parent, set, name, description, example, [event, run] {
		if (event->has("ip") && event->has("ip6"))
			throw failure{status_usage, "--ip and --ip6 exclude each other"};
		if (event->has("ip6"))
			event->record.event_flag |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
		run(*event);
	});
	for (const vek_field &field : vek_event_fields) {
		const std::string_view field_name = field.name;
		if (field_name == "event" || field_name == "count")
			continue;
		const bool is_minutes = field_name == "update";
		const std::string option = is_minutes ? "--minutes" : option_name(field_name);
		const auto set_from_text = [event, &field, option](const std::string &text) {
			if (const auto problem = set_field(field, &event->record, text))
				throw CLI::ValidationError(option, *problem);
			event->given.insert(field.name);
		};
		command
		    ->add_option_function<std::string>(is_minutes ? option + ",--update" : option,
						       set_from_text, option_description(field))
		    ->group("Fields of the record");
	}
	return {command, event};
}

void add_all_option(CLI::App *command, draft &event)
{
	command->add_flag("--all", event.all, "everybody, without any key");
}

void require_key(const draft &event)
{
	const vek_event &record = event.record;
	const bool has_key =
	    *record.service || *record.username || *record.unique || record.ip != 0 || uses_ip6(record);
	if (has_key == event.all)
		throw failure{status_usage, has_key
						? "--all goes with no key"
						: "say whom: --username, --service, --unique, --ip or --ip6; "
						  "--all for everybody"};
}

sessions matching(const settings &set, const vek_event &event)
{
	const connection client = connect_request(set);
	sessions found;
	int result;
	if (uses_ip6(event))
		result = vek_client_query_ip6(client.get(), &event.ip6, collect, &found);
	else if (event.ip != 0)
		result = vek_client_query_ip(client.get(), event.ip, collect, &found);
	else if (*event.username)
		result = vek_client_query_name(client.get(), event.username, collect, &found);
	else
		result = vek_client_query_all(client.get(), collect, &found);
	checked(result, "cannot find the sessions");
	std::erase_if(found, [&](const user_info &session) { return !matches(event, session); });
	return found;
}

int report(vek_client *notify, const vek_event &event)
{
	return checked(vek_client_report(notify, &event), "cannot report the event");
}

void report_one(const settings &set, vek_event &event, int number, const std::string &refusal)
{
	event.event = number;
	const int status = report(connect_notify(set).get(), event);
	if (set.json) {
		json result = json_result();
		result["event"] = number;
		result["event_name"] = event_name(number);
		result["status"] = status;
		put_json(result);
	}
	if (status != VEK_RESPONSE_SUCCESS && !is_always_refused(number))
		throw failure{status_refused, refusal};
}

std::string describe(const std::string &username, const std::string &service, unsigned type,
		     const std::string &address)
{
	return escaped(username) + " (" + (service.empty() ? "" : escaped(service) + ", ") + type_name(type) +
	       ")" + (address.empty() ? "" : " from " + address);
}

void add_event_commands(CLI::App &app, settings &set)
{
	add_event_command(app, set, "login", "Report a login",
			  "vekctl login --service ssh --username alice --ip 192.0.2.7 --unique s1",
			  [&set](draft &event) { login(set, event); });

	auto options = std::make_shared<logout_options>();
	const auto [command, ending] = add_event_command(
	    app, set, "logout", "End sessions; the options are the keys that they must have",
	    "vekctl logout --username alice --dry-run", [&set, options](draft &event) {
		    logout(set, event, *options,
			   options->revocable ? VEK_EVENT_USER_LOGOUT_REVOCABLE : VEK_EVENT_USER_LOGOUT);
	    });
	add_all_option(command, *ending);
	command->add_flag("--dry-run", options->dry_run, "only show who would be logged out");
	command->add_flag("--revocable", options->revocable, "after the daemon's delay, unless revoked");

	auto web_options = std::make_shared<logout_options>();
	const auto [web, web_ending] = add_event_command(
	    app, set, "web-logout", "End sessions as the web interface does, one announcement for each",
	    "vekctl web-logout --service 'captive portal' --username alice",
	    [&set, web_options](draft &event) {
		    logout(set, event, *web_options, VEK_EVENT_WEB_USER_LOGOUT);
	    });
	add_all_option(web, *web_ending);
	web->add_flag("--dry-run", web_options->dry_run, "only show who would be logged out");

	add_event_command(app, set, "revoke", "Take back revocable logouts that had exactly these keys",
			  "vekctl revoke --username alice --service http/https", [&set](draft &event) {
				  require_key(event);
				  report_one(set, event.record, VEK_EVENT_USER_LOGOUT_REVOKE, "");
			  });

	auto which = std::make_shared<std::string>();
	const auto reported = add_event_command(
	    app, set, "report", "Report any event by its name or number",
	    "vekctl report user-tunnel-up --username alice --tunnel-ip 198.51.100.5",
	    [&set, which](draft &event) {
		    const auto number = event_number_of(*which);
		    if (!number)
			    throw failure{status_usage, "there is no event \"" + escaped(*which) + "\""};
		    try {
			    report_one(set, event.record, *number, "vekd found nobody whom this concerns");
		    } catch (const failure &) {
			    if (errno == EINVAL)
				    throw failure{status_usage,
						  "vekd takes no event \"" + escaped(*which) + "\""};
			    throw;
		    }
	    });
	reported.first->add_option("event", *which, "login, logout2, user-tunnel-up, ... or a number")
	    ->required();
}
