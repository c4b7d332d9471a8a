// sessions.cpp: who is logged in: list, show, count and stats. Names and addresses are asked of the daemon,
// which has indexes for them; every other filter works on its answer.
#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <optional>

#include "fields.h"

namespace {

// ---- columns: the record's fields, and a few made of several ----

const vek_field &field_named(const char *name) { return *find_field(user_info_fields, name); }

// The deadline that comes first, 0 for none.
std::uint64_t nearest_deadline(const user_info &session)
{
	std::uint64_t nearest = 0;
	for (const std::uint64_t deadline :
	     {session.lease_time, session.reauth_time, session.idle_time, session.session_timeout})
		if (deadline != 0 && (nearest == 0 || deadline < nearest))
			nearest = deadline;
	return nearest;
}

int compare_addresses(const user_info &a, const user_info &b)
{
	const int order = compare(field_named("ip6"), &a, &b);
	return order != 0 ? order : compare(field_named("ip"), &a, &b);
}

int compare_deadlines(const user_info &a, const user_info &b)
{
	const std::uint64_t one = nearest_deadline(a) - 1; // no deadline comes last
	const std::uint64_t other = nearest_deadline(b) - 1;
	return one < other ? -1 : one != other;
}

const vek_field &client_field(const user_info &session)
{
	return field_named(*session.sta_mac ? "sta_mac" : "unique");
}

int compare_clients(const user_info &a, const user_info &b)
{
	return text_of(client_field(a), &a).compare(text_of(client_field(b), &b));
}

struct made_column {
	std::string_view name;
	std::string (*text)(const user_info &session, std::uint64_t uptime);
	int (*compare)(const user_info &a, const user_info &b);
};

constexpr made_column made_columns[] = {
    {"address", [](const user_info &session, std::uint64_t) { return address_text(session.ip, session.ip6); },
     compare_addresses},
    {"client",
     [](const user_info &session, std::uint64_t uptime) {
	     return display(client_field(session), &session, uptime);
     },
     compare_clients},
    {"since", [](const user_info &session, std::uint64_t uptime) { return ago(session.login_time, uptime); },
     [](const user_info &a, const user_info &b) { return compare(field_named("login_time"), &a, &b); }},
    {"expires",
     [](const user_info &session, std::uint64_t uptime) {
	     return expires(nearest_deadline(session), uptime);
     },
     compare_deadlines},
};

class column {
public:
	explicit column(const std::string &name) : name_(name), field_(find_field(user_info_fields, name))
	{
		for (const made_column &made : made_columns)
			if (made.name == name)
				made_ = &made;
		if (field_ == nullptr && made_ == nullptr)
			throw failure{status_usage,
				      "there is no field \"" + escaped(name) +
					  "\" (a field of the session, or address, client, since, expires)"};
	}

	const std::string &name() const { return name_; }

	std::string text(const user_info &session, std::uint64_t uptime) const
	{
		return made_ ? made_->text(session, uptime) : display(*field_, &session, uptime);
	}

	int order(const user_info &a, const user_info &b) const
	{
		return made_ ? made_->compare(a, b) : compare(*field_, &a, &b);
	}

private:
	std::string name_;
	const vek_field *field_;
	const made_column *made_ = nullptr;
};

// ---- asking ----

struct selection {
	std::optional<std::string> user;
	std::optional<std::string> ip;
	bool first = false;
	std::optional<std::string> service;
	std::optional<std::string> type;
};

address valid_address(const std::string &text)
{
	const std::optional<address> parsed = parse_address(text);
	if (!parsed)
		throw failure{status_usage, "\"" + escaped(text) + "\" is no IPv4 or IPv6 address"};
	return *parsed;
}

int query_address(vek_client *client, const address &from, bool first, sessions *found)
{
	if (from.is_ip6)
		return (first ? vek_client_query_ip6_first : vek_client_query_ip6)(client, &from.ip6, collect,
										   found);
	return (first ? vek_client_query_ip_first : vek_client_query_ip)(client, from.ip, collect, found);
}

sessions select_sessions(const settings &set, const selection &wanted)
{
	const std::optional<address> from =
	    wanted.ip ? std::optional(valid_address(*wanted.ip)) : std::nullopt;
	const std::optional<unsigned> type = wanted.type ? type_number(*wanted.type) : std::nullopt;
	if (wanted.type && !type)
		throw failure{status_usage, "there is no user type \"" + escaped(*wanted.type) + "\""};

	const connection client = connect_request(set);
	sessions found;
	int result;
	if (from)
		result = query_address(client.get(), *from, wanted.first, &found);
	else if (wanted.user)
		result = vek_client_query_name(client.get(), wanted.user->c_str(), collect, &found);
	else
		result = vek_client_query_all(client.get(), collect, &found);
	checked(result, "cannot list the sessions");
	std::erase_if(found, [&](const user_info &session) {
		return (wanted.user && *wanted.user != session.username) ||
		       (wanted.service && *wanted.service != session.service) ||
		       (type && *type != session.type);
	});
	return found;
}

void print_json(const sessions &found)
{
	json result = json_result();
	result["uptime"] = uptime_now();
	result["sessions"] = json::array();
	for (const user_info &session : found)
		result["sessions"].push_back(record_json(user_info_fields, &session));
	put_json(result);
}

// ---- list ----

struct list_options {
	selection wanted;
	std::string sort;
	std::vector<std::string> columns = {"username", "service", "type",   "address",
					    "client",   "since",   "expires"};
};

std::string upper_case(std::string text)
{
	std::transform(text.begin(), text.end(), text.begin(),
		       [](unsigned char c) { return std::toupper(c); });
	return text;
}

void list(const settings &set, const list_options &options)
{
	std::vector<column> columns(options.columns.begin(), options.columns.end());
	const bool descending = options.sort.starts_with('-');
	std::optional<column> key;
	if (!options.sort.empty())
		key.emplace(options.sort.substr(descending ? 1 : 0));

	sessions found = select_sessions(set, options.wanted);
	if (key)
		std::stable_sort(found.begin(), found.end(), [&](const user_info &a, const user_info &b) {
			return (descending ? key->order(b, a) : key->order(a, b)) < 0;
		});
	if (set.json)
		return print_json(found);

	std::vector<std::string> header;
	header.reserve(columns.size());
	for (const column &shown : columns)
		header.push_back(upper_case(shown.name()));
	table lines(header);
	const std::uint64_t uptime = uptime_now();
	for (const user_info &session : found) {
		std::vector<std::string> cells;
		cells.reserve(columns.size());
		for (const column &shown : columns)
			cells.push_back(shown.text(session, uptime));
		lines.row(std::move(cells));
	}
	lines.print(!set.no_header);
}

// ---- show ----

// A field's value with its unit, and in brackets what it means.
std::string with_unit(const vek_field &field, const user_info &session, std::uint64_t uptime)
{
	std::string shown = display(field, &session, uptime);
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
	(parse_address(what) ? wanted.ip : wanted.user) = what;
	const sessions found = select_sessions(set, wanted);
	if (set.json)
		print_json(found);
	if (found.empty())
		throw failure{status_refused, "nobody is logged in as or from \"" + escaped(what) + "\""};
	if (set.json)
		return;
	const std::uint64_t uptime = uptime_now();
	for (std::size_t i = 0; i < found.size(); i++) {
		if (i > 0)
			put("\n");
		table lines({"FIELD", "VALUE"});
		for (const vek_field &field : user_info_fields)
			lines.row({field.name, with_unit(field, found[i], uptime)});
		lines.print(!set.no_header);
	}
}

// ---- count ----

void count(const settings &set)
{
	const connection client = connect_request(set);
	const int number = checked(vek_client_count(client.get()), "cannot count the sessions");
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
	std::uint64_t uptime;
	std::map<key, std::size_t> groups;
	std::map<std::string, std::size_t> by[std::tuple_size_v<key>];
	std::map<std::string, const user_info *> next; // by the deadline's name; none where nobody has one
};
constexpr const char *dimensions[] = {"service", "type", "family"};

statistics gather(const sessions &found)
{
	statistics result = {found.size(), uptime_now(), {}, {}, {}};
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
	table lines({"WHAT", "OF", "VALUE"});
	lines.row({"sessions", "", std::to_string(stats.total)});
	const std::string slots = std::to_string(VEK_MAX_USERS);
	lines.row({"table", slots + " slots", std::to_string(stats.total * 100 / VEK_MAX_USERS) + "% used"});
	for (std::size_t i = 0; i < std::size(dimensions); i++)
		for (const auto &[of, number] : stats.by[i])
			lines.row({dimensions[i], escaped(of), std::to_string(number)});
	for (const auto &[name, session] : stats.next)
		if (session != nullptr)
			lines.row({name, escaped(session->username),
				   display(field_named(name.c_str()), session, stats.uptime)});
	lines.print(!set.no_header);
}

void print_stats_json(const statistics &stats)
{
	json result = json_result();
	result["uptime"] = stats.uptime;
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
			     {"seconds", seconds_left(*session, name.c_str(), stats.uptime)}});
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
			       std::to_string(seconds_left(*session, name.c_str(), stats.uptime)) + "\n";
	put(out);
}

void stats(const settings &set, bool prometheus)
{
	if (prometheus && set.json)
		throw failure{status_usage, "--prometheus and --json exclude each other"};
	const sessions found = select_sessions(set, {});
	const statistics result = gather(found);
	if (prometheus)
		print_prometheus(result);
	else if (set.json)
		print_stats_json(result);
	else
		print_table(set, result);
}

} // namespace

void add_session_commands(CLI::App &app, settings &set)
{
	auto options = std::make_shared<list_options>();
	CLI::App *command =
	    add_command(app, set, "list", "Who is logged in", "vekctl list --service ssh --sort -login_time",
			[&set, options] { list(set, *options); });
	command->add_option("--user", options->wanted.user, "sessions of this account");
	CLI::Option *ip =
	    command->add_option("--ip", options->wanted.ip, "sessions from this IPv4 or IPv6 address");
	command->add_flag("--first", options->wanted.first, "only the first session of the address")
	    ->needs(ip);
	command->add_option("--service", options->wanted.service, "sessions of this service");
	command->add_option("--type", options->wanted.type,
			    "admin, user, guest, ext, limited, ext-group or a number");
	command->add_option("--sort", options->sort, "order by this field; with - before it, backwards");
	command->add_option("--columns", options->columns, "fields of the table, with commas between them")
	    ->delimiter(',');

	auto what = std::make_shared<std::string>();
	add_command(app, set, "show", "Every field of a user's or an address's sessions",
		    "vekctl show 192.0.2.7", [&set, what] { show(set, *what); })
	    ->add_option("what", *what, "a user's name or an address")
	    ->required();

	add_command(app, set, "count", "The number of sessions", "vekctl count", [&set] { count(set); });

	auto prometheus = std::make_shared<bool>(false);
	add_command(app, set, "stats",
		    "Sessions by service, type and address family; next deadlines; table use",
		    "vekctl stats --prometheus > vekd.prom", [&set, prometheus] { stats(set, *prometheus); })
	    ->add_flag("--prometheus", *prometheus, "print the text format that a file collector reads");
}
