// events.cpp: reporting logins and logouts as a service would. A logout first asks who would be concerned,
// and afterwards who is still there, so that what it prints is what happened.
#include "events.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

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
		return "admin, user, guest, ext, limited, ext-group or a number";
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

bool is_same_session(const user_info &a, const user_info &b)
{
	return std::strcmp(a.service, b.service) == 0 && std::strcmp(a.username, b.username) == 0 &&
	       std::strcmp(a.unique, b.unique) == 0 && std::strcmp(a.sta_mac, b.sta_mac) == 0 &&
	       a.type == b.type && a.ip == b.ip && IN6_ARE_ADDR_EQUAL(&a.ip6, &b.ip6) &&
	       a.login_time == b.login_time;
}

sessions without(const sessions &all, const sessions &some)
{
	sessions rest = all;
	std::erase_if(rest, [&](const user_info &session) {
		return std::any_of(some.begin(), some.end(),
				   [&](auto &other) { return is_same_session(session, other); });
	});
	return rest;
}

// A session's own keys. As IPv6 "no address" is a key too; without it and without a name, a unique key that
// holds a MAC address would mean a station.
vek_event logout_of(const user_info &session, int number, int sub_event)
{
	vek_event event = {};
	event.event = number;
	event.sub_event = sub_event;
	std::memcpy(event.service, session.service, sizeof(event.service));
	std::memcpy(event.username, session.username, sizeof(event.username));
	std::memcpy(event.unique, session.unique, sizeof(event.unique));
	event.ip = session.ip;
	event.ip6 = session.ip6;
	if (!IN6_IS_ADDR_UNSPECIFIED(&session.ip6) || (session.ip == 0 && !*session.username))
		event.event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
	return event;
}

// ---- logout ----

struct logout_options {
	selection wanted;
	bool all = false;
	bool dry_run = false;
	bool revocable = false;
	int cause = 0;
};

void print_concerned(const settings &set, const sessions &concerned, const std::string &words, bool dry_run)
{
	if (set.json) {
		json result = json_result();
		result["dry_run"] = dry_run;
		result["sessions"] = sessions_json(concerned);
		return put_json(result);
	}
	for (const user_info &session : concerned)
		put_line(cut(words + " " + describe(session), terminal_width(set)));
}

void require_choice(const logout_options &options)
{
	if (options.wanted.is_empty() == options.all)
		return;
	throw failure{status_usage, options.all
					? "--all goes with no other choice"
					: "say whose: --user, --service, --ip or another of the options that "
					  "choose sessions; --all for everybody's"};
}

std::string nobody(const selection &wanted)
{
	return "no session matches" + (wanted.hint().empty() ? "" : ": " + wanted.hint());
}

// One logout a session: what follows in the daemon (copies, log, ending its shell) happens once an event, and
// with the address only that the event has. Nobody is ended along with somebody else.
void end_each(const settings &set, const sessions &found, const sessions &others, int number, int cause)
{
	std::vector<vek_event> logouts;
	for (const user_info &session : found) {
		logouts.push_back(logout_of(session, number, cause));
		for (const user_info &other : others)
			if (is_found_by(logouts.back(), other))
				throw failure{status_refused, "nothing was ended: vekd cannot end " +
								  describe(session) + " without " +
								  describe(other)};
	}
	const connection notify = connect_notify(set);
	for (std::size_t i = 0; i < logouts.size(); i++) {
		try {
			report(notify.get(), logouts[i]);
		} catch (failure &why) {
			why.message += " (after " + std::to_string(i) + " of " +
				       std::to_string(logouts.size()) + " logouts)";
			throw;
		}
	}
}

void logout(const settings &set, const logout_options &options, int number)
{
	require_choice(options);
	vek_event parked = {};
	if (options.revocable) {
		parked = options.wanted.keys();
		parked.sub_event = options.cause;
		parked.event = VEK_EVENT_USER_LOGOUT_REVOCABLE;
	}
	sessions found, others;
	for (const user_info &session : selected(set, {}))
		((options.revocable ? is_found_by(parked, session) : options.wanted.matches(session))
		     ? found
		     : others)
		    .push_back(session);
	if (options.dry_run || found.empty())
		print_concerned(set, found, "would end", options.dry_run);
	if (found.empty() && !options.all)
		throw failure{status_refused, nobody(options.wanted)};
	if (options.dry_run || found.empty())
		return;
	if (options.revocable) {
		report(connect_notify(set).get(),
		       parked); // as it was given: a revoke has to name the same keys
		return print_concerned(set, found, "will end, unless revoked,", false);
	}
	end_each(set, found, others, number, options.cause);

	const sessions ended = without(found, selected(set, {}));
	print_concerned(set, ended, "ended", false);
	if (ended.size() < found.size())
		throw failure{status_refused, std::to_string(found.size() - ended.size()) + " of " +
						  std::to_string(found.size()) +
						  " sessions are still logged in"};
}

// ---- login ----

// Vekd says no more than that. A full table and an unknown type are all that it refuses for, but that a web
// login to a cloud-managed device may find the table full for another moment.
std::string why_refused(const settings &set, const user_info &who)
{
	const int number = checked(vek_client_count(connect_request(set).get()), "cannot count the sessions");
	const std::string of = std::to_string(number) + " of " + std::to_string(VEK_MAX_USERS) + " sessions";
	return "vekd refused the login of " + describe(who) + ": " +
	       (number >= VEK_MAX_USERS
		    ? "the table is full, " + of
		    : "there is room, " + of + ", so its platform has no rights for the type " +
			  type_name(who.type));
}

// The account is the name unless both are given; the type has no default, since it decides the rights.
void complete_login(draft &event)
{
	vek_event &record = event.record;
	if (!event.has("type"))
		throw failure{status_usage,
			      "a login needs --type: admin, user, guest, ext, limited or ext-group"};
	if (!event.has("real_username"))
		std::memcpy(record.real_username, record.username, sizeof(record.real_username));
	if (!event.has("username"))
		std::memcpy(record.username, record.real_username, sizeof(record.username));
}

void login(const settings &set, draft &event)
{
	vek_event &record = event.record;
	if (!*record.username && !*record.real_username)
		throw failure{status_usage, "login needs --username"};
	complete_login(event);
	if (!*record.real_username)
		throw failure{status_usage,
			      "--real-username must not be empty: nobody could end the session by name"};
	const user_info who = session_of(record);
	report_one(set, record, VEK_EVENT_USER_LOGIN, "");
	if (!set.json)
		put_line(cut("logged in " + describe(who), terminal_width(set)));
}

// ---- report ----

// Whom the daemon ends by this very record.
void report_logout(const settings &set, draft &event, int number)
{
	const sessions found = matching(set, event.record);
	report_one(set, event.record, number, "no session matches");
	if (set.json)
		return;
	if (number == VEK_EVENT_USER_LOGOUT_REVOCABLE)
		return print_concerned(set, found, "will end, unless revoked,", false);
	print_concerned(set, without(found, matching(set, event.record)), "ended", false);
}

void report_any(const settings &set, draft &event, const std::string &which)
{
	const auto number = event_number_of(which);
	if (!number || !vek_event_is_reported(*number))
		throw failure{status_usage,
			      std::string(number ? "vekd takes no event \"" : "there is no event \"") +
				  escaped(which) + "\"" + did_you_mean(which, reported_event_names())};
	switch (*number) {
	case VEK_EVENT_USER_LOGIN:
	case VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1: complete_login(event); break;
	case VEK_EVENT_USER_LOGOUT:
	case VEK_EVENT_WEB_USER_LOGOUT:
	case VEK_EVENT_USER_LOGOUT_REVOCABLE: require_key(event); return report_logout(set, event, *number);
	case VEK_EVENT_UPDATE_LEASE_TIME:
	case VEK_EVENT_UPDATE_IDLE_TIME:
	case VEK_EVENT_UPDATE_REAUTH_TIME:
	case VEK_EVENT_UPDATE_ACCOUNTING_STATUS:
	case VEK_EVENT_UPDATE_SSH_TTY: require_key(event); break;
	default: break;
	}
	report_one(set, event.record, *number, "vekd found nobody whom this concerns");
}

} // namespace

std::pair<CLI::App *, std::shared_ptr<draft>>
add_event_command(CLI::App &parent, settings &set, const std::string &name, const std::string &description,
		  const std::string &example, const draft_run &run,
		  std::initializer_list<std::string_view> fields)
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
		if (field_name == "event" || field_name == "count" ||
		    (fields.size() > 0 &&
		     std::find(fields.begin(), fields.end(), field_name) == fields.end()))
			continue;
		const std::string option = field_name == "update" ? "--minutes" : option_name(field_name);
		const std::string also = field_name == "update"     ? ",--update"
					 : field_name == "username" ? ",--user"
								    : "";
		const auto set_from_text = [event, &field, option](const std::string &text) {
			if (const auto problem = set_field(field, &event->record, text))
				throw CLI::ValidationError(option, *problem);
			event->given.insert(field.name);
		};
		command
		    ->add_option_function<std::string>(option + also, set_from_text,
						       option_description(field))
		    ->group("Fields of the record");
	}
	return {command, event};
}

void add_all_option(CLI::App *command, bool &all)
{
	command->add_flag("--all", all, "everybody, without any key");
}

void require_key(const draft &event)
{
	const vek_event &record = event.record;
	const bool has_key = *record.service || *record.username || *record.unique || record.ip != 0 ||
			     (uses_ip6(record) && !IN6_IS_ADDR_UNSPECIFIED(&record.ip6));
	if (has_key == event.all)
		throw failure{status_usage,
			      has_key ? "--all goes with no key"
				      : "say whom: --username, --service, --unique, --ip or --ip6 (but "
					"::, which is everybody with an IPv4 address); --all for everybody"};
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
	std::erase_if(found, [&](const user_info &session) { return !is_found_by(event, session); });
	return found;
}

int report(vek_client *notify, const vek_event &event)
{
	return checked(vek_client_report_raw(notify, &event), "cannot report the event");
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
		throw failure{status_refused,
			      number == VEK_EVENT_USER_LOGIN ? why_refused(set, session_of(event)) : refusal};
}

void add_event_commands(CLI::App &app, settings &set)
{
	add_event_command(
	    app, set, "login", "Report a login",
	    "vekctl login --service ssh --username alice --type user --ip 192.0.2.7 --unique s1",
	    [&set](draft &event) { login(set, event); });

	const auto add_ending = [&](const std::string &name, const std::string &description,
				    const std::string &example, int number) {
		auto options = std::make_shared<logout_options>();
		CLI::App *command = add_command(app, set, name, description, example,
						[&set, options, number] { logout(set, *options, number); });
		options->wanted.add_options(*command);
		add_all_option(command, options->all);
		command->add_flag("--dry-run", options->dry_run, "only show whose session would end");
		command->add_option("--sub-event", options->cause,
				    "the cause that the log gives, an event number");
		return std::pair(command, options);
	};
	const auto [command, options] = add_ending(
	    "logout", "End sessions", "vekctl logout --user alice --dry-run", VEK_EVENT_USER_LOGOUT);
	command->add_flag("--revocable", options->revocable, "after the daemon's delay, unless revoked");
	add_ending("web-logout", "End sessions as the web interface does, one announcement for each",
		   "vekctl web-logout --service 'captive portal' --user alice", VEK_EVENT_WEB_USER_LOGOUT);

	auto revoked = std::make_shared<logout_options>();
	CLI::App *revoke =
	    add_command(app, set, "revoke", "Take back revocable logouts that had exactly these keys",
			"vekctl revoke --user alice --service http/https", [&set, revoked] {
				require_choice(*revoked);
				vek_event event = revoked->wanted.keys();
				report_one(set, event, VEK_EVENT_USER_LOGOUT_REVOKE, "");
			});
	revoked->wanted.add_options(*revoke);
	add_all_option(revoke, revoked->all);

	auto which = std::make_shared<std::string>();
	const auto [any, event] = add_event_command(
	    app, set, "report", "Report any event by its name or number, as the record says",
	    "vekctl report user-tunnel-up --username alice --tunnel-ip 198.51.100.5",
	    [&set, which](draft &draft) { report_any(set, draft, *which); });
	any->add_option("event", *which, "login, logout2, USER_TUNNEL_UP, ... or a number")->required();
	add_all_option(any, event->all);
}
