// sessions.cpp: who is logged in: list, show, count and stats. Names and addresses are asked of the daemon,
// which has indexes for them; every other choice is made among its answer.
#include <array>
#include <map>

#include "vekctl.h"

namespace {

const vek_field &field_named(const char *name) { return *find_field(user_info_fields, name); }

void print_json(const sessions &found, const std::vector<column> &columns = {})
{
	json result = json_result();
	result["uptime"] = uptime_now();
	result["sessions"] = sessions_json(found, columns);
	put_json(result);
}

// A service's name that nobody has may be misspelt.
void warn_of_nobody(const selection &wanted, bool nobody)
{
	if (nobody && !wanted.hint().empty())
		warn(wanted.hint());
}

// ---- list ----

struct list_options {
	selection wanted;
	bool first = false;
	std::vector<std::string> sort;
	std::vector<std::string> columns;
};

void list(const settings &set, const list_options &options)
{
	const std::vector<std::string> &names = options.columns;
	static const std::vector<std::string> usual = {"username", "service", "type",   "address",
						       "client",   "since",   "expires"};
	const std::vector<column> columns(names.begin(), names.end());
	if (options.first && (!options.wanted.from || !options.wanted.from->is_host()))
		throw failure{status_usage, "--first needs --ip with an address"};
	sessions found = selected(set, options.wanted, options.first);
	sort_sessions(found, options.sort);
	warn_of_nobody(options.wanted, found.empty());
	if (set.json)
		return print_json(found, columns);
	print_sessions(set, found, names.empty() ? std::vector<column>(usual.begin(), usual.end()) : columns,
		       set.when());
}

// ---- show ----

// A field's value with its unit, and in brackets what it means.
std::string with_unit(const vek_field &field, const user_info &session, const times &when)
{
	std::string shown = display(field, &session, when);
	if (field.kind == field_kind::u64 && !shown.empty())
		shown = field.name == std::string_view("login_time") ? when.ago(session.login_time)
								     : when.ahead(number_of(field, &session));
	if (field.kind == field_kind::text || field.kind == field_kind::ip4 || field.kind == field_kind::ip6)
		return shown;
	std::string value = json_text(field_json(field, &session));
	if (value != "0" && *field.unit)
		value += std::string(" ") + field.unit;
	return shown.empty() || value.starts_with(shown) ? value : value + " (" + shown + ")";
}

void show(const settings &set, const std::string &what)
{
	if (what.empty())
		throw failure{status_usage, "show needs a user's name or an address"};
	selection wanted;
	if (const auto address = parse_address(what))
		wanted.from = {*address, address->is_ip6 ? 128U : 32U};
	else
		wanted.user = what;
	const sessions found = selected(set, wanted);
	if (set.json)
		print_json(found);
	if (found.empty())
		throw failure{status_refused, "nobody is logged in as or from \"" + escaped(what) + "\""};
	if (set.json)
		return;
	const times when = set.when();
	for (std::size_t i = 0; i < found.size(); i++) {
		if (i > 0)
			put("\n");
		table lines({{"FIELD", cutting::exact}, {"VALUE"}});
		for (const vek_field &field : user_info_fields)
			lines.row({field.name, with_unit(field, found[i], when)});
		lines.print(set);
	}
}

// ---- count ----

void count(const settings &set, const selection &wanted)
{
	std::size_t number;
	if (wanted.is_empty())
		number = static_cast<std::size_t>(
		    checked(vek_client_count(connect_request(set).get()), "cannot count the sessions"));
	else
		number = selected(set, wanted).size();
	warn_of_nobody(wanted, number == 0);
	if (!set.json)
		return put_line(std::to_string(number));
	json result = json_result();
	result["count"] = number;
	put_json(result);
}

// ---- stats ----

constexpr const char *deadline_names[] = {"lease_time", "reauth_time", "idle_time", "session_timeout"};

struct statistics {
	using key = std::array<std::string, 3>; // service, type, family
	std::size_t total;
	times when;
	std::map<key, std::size_t> groups;
	std::map<std::string, std::size_t> by[std::tuple_size_v<key>];
	std::map<std::string, const user_info *> next; // by the deadline's name; none where nobody has one
};
constexpr const char *dimensions[] = {"service", "type", "family"};

statistics gather(const settings &set, const sessions &found)
{
	statistics result = {found.size(), set.when(), {}, {}, {}};
	for (const user_info &session : found) {
		const statistics::key key = {session.service, type_name(session.type),
					     IN6_IS_ADDR_UNSPECIFIED(&session.ip6) ? "ipv4" : "ipv6"};
		result.groups[key]++;
		for (std::size_t i = 0; i < key.size(); i++)
			result.by[i][key[i]]++;
		for (const char *name : deadline_names) {
			const vek_field &field = field_named(name);
			const user_info *&next = result.next[name];
			if (number_of(field, &session) != 0 && (!next || compare(field, &session, next) < 0))
				next = &session;
		}
	}
	return result;
}

std::uint64_t seconds_left(const user_info &session, const char *deadline, std::uint64_t uptime)
{
	const std::uint64_t at = number_of(field_named(deadline), &session);
	return at > uptime ? at - uptime : 0;
}

void print_table(const settings &set, const statistics &stats)
{
	table lines({{"WHAT"}, {"OF"}, {"VALUE", cutting::exact}});
	lines.row({"sessions", "", std::to_string(stats.total)});
	const std::string slots = std::to_string(VEK_MAX_USERS);
	lines.row({"table", slots + " slots", std::to_string(stats.total * 100 / VEK_MAX_USERS) + "% used"});
	for (std::size_t i = 0; i < std::size(dimensions); i++)
		for (const auto &[of, number] : stats.by[i])
			lines.row({dimensions[i], escaped(of), std::to_string(number)});
	for (const auto &[name, session] : stats.next)
		if (session != nullptr)
			lines.row({name, escaped(session->username),
				   stats.when.ahead(number_of(field_named(name.c_str()), session))});
	lines.print(set);
}

void print_stats_json(const statistics &stats)
{
	json result = json_result();
	result["uptime"] = stats.when.uptime;
	result["sessions"] = stats.total;
	result["table_size"] = VEK_MAX_USERS;
	for (std::size_t i = 0; i < std::size(dimensions); i++) {
		json &groups = result[std::string("by_") + dimensions[i]] = json::array();
		for (const auto &[of, number] : stats.by[i])
			groups.push_back({{dimensions[i], of}, {"sessions", number}});
	}
	result["next_deadlines"] = json::array();
	for (const auto &[name, session] : stats.next)
		if (session != nullptr)
			result["next_deadlines"].push_back(
			    {{"deadline", name},
			     {"username", session->username},
			     {"service", session->service},
			     {"seconds", seconds_left(*session, name.c_str(), stats.when.uptime)}});
	put_json(result);
}

// A label's value: what is no UTF-8 is written as \xNN first, so that two such services stay two series.
std::string label(const std::string &value)
{
	std::string out;
	for (const char c : escaped(value))
		out += (c == '\\' || c == '"' ? std::string("\\") : "") + c;
	return '"' + out + '"';
}

void print_prometheus(const statistics &stats)
{
	std::string out;
	const auto metric = [&](const char *name, const char *help) {
		out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " gauge\n";
	};
	metric("vekd_sessions", "Sessions logged in.");
	for (const auto &[key, number] : stats.groups) {
		out += "vekd_sessions{";
		for (std::size_t i = 0; i < key.size(); i++)
			out += std::string(i ? "," : "") + dimensions[i] + "=" + label(key[i]);
		out += "} " + std::to_string(number) + "\n";
	}
	metric("vekd_session_slots", "Sessions that the table has room for.");
	out += "vekd_session_slots " + std::to_string(VEK_MAX_USERS) + "\n";
	metric("vekd_session_slots_used", "Slots of the session table in use.");
	out += "vekd_session_slots_used " + std::to_string(stats.total) + "\n";
	metric("vekd_next_deadline_seconds", "Seconds until the first session ends by this deadline.");
	for (const auto &[name, session] : stats.next)
		if (session != nullptr)
			out += "vekd_next_deadline_seconds{deadline=" + label(name) + "} " +
			       std::to_string(seconds_left(*session, name.c_str(), stats.when.uptime)) + "\n";
	put(out);
}

void stats(const settings &set, bool prometheus)
{
	if (prometheus && set.json)
		throw failure{status_usage, "--prometheus and --json exclude each other"};
	const sessions found = selected(set, {});
	const statistics result = gather(set, found);
	if (prometheus)
		print_prometheus(result);
	else if (set.json)
		print_stats_json(result);
	else
		print_table(set, result);
}

} // namespace

sessions selected(const settings &set, const selection &wanted, bool first)
{
	const connection client = connect_request(set);
	sessions found;
	int result;
	if (wanted.from && wanted.from->is_host()) {
		const address &from = wanted.from->base;
		const auto by_ip6 = first ? vek_client_query_ip6_first : vek_client_query_ip6;
		const auto by_ip = first ? vek_client_query_ip_first : vek_client_query_ip;
		result = from.is_ip6 ? by_ip6(client.get(), &from.ip6, collect, &found)
				     : by_ip(client.get(), from.ip, collect, &found);
	} else if (wanted.user) {
		result = vek_client_query_name(client.get(), wanted.user->c_str(), collect, &found);
	} else {
		result = vek_client_query_all(client.get(), collect, &found);
	}
	checked(result, "cannot list the sessions");
	std::erase_if(found, [&](const user_info &session) { return !wanted.matches(session); });
	return found;
}

void add_session_commands(CLI::App &app, settings &set)
{
	auto options = std::make_shared<list_options>();
	CLI::App *command = add_command(app, set, "list", "Who is logged in",
					"vekctl list --service ssh --sort type,-login_time",
					[&set, options] { list(set, *options); });
	options->wanted.add_options(*command);
	command->add_flag("--first", options->first, "only the first session of the address");
	command->add_option("--sort", options->sort, "order by these columns; - before one turns its order")
	    ->type_name("COLUMN,...")
	    ->delimiter(',');
	command
	    ->add_option("--columns", options->columns,
			 "what to show: fields of the session, or address, client, since, expires")
	    ->type_name("COLUMN,...")
	    ->delimiter(',');

	auto what = std::make_shared<std::string>();
	add_command(app, set, "show", "Every field of a user's or an address's sessions",
		    "vekctl show 192.0.2.7", [&set, what] { show(set, *what); })
	    ->add_option("what", *what, "a user's name or an address")
	    ->required();

	auto counted = std::make_shared<selection>();
	counted->add_options(*add_command(app, set, "count", "The number of sessions",
					  "vekctl count --type guest",
					  [&set, counted] { count(set, *counted); }));

	auto prometheus = std::make_shared<bool>(false);
	add_command(app, set, "stats",
		    "Sessions by service, type and address family; next deadlines; table use",
		    "vekctl stats --prometheus > vekd.prom", [&set, prometheus] { stats(set, *prometheus); })
	    ->add_flag("--prometheus", *prometheus, "print the text format that a file collector reads");
}
