// view.cpp: what is shown of sessions and of events.
#include "view.h"

#include <algorithm>
#include <cctype>

#include "selection.h"

// ---- columns: the record's fields, and a few made of several ----

namespace {

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

} // namespace

struct made_column {
	std::string_view name;
	cutting gives;
	std::string (*text)(const user_info &session, const times &when);
	json (*value)(const user_info &session);
	int (*compare)(const user_info &a, const user_info &b);
};

namespace {

constexpr made_column made_columns[] = {
    {"address", cutting::address,
     [](const user_info &session, const times &) { return address_text(session.ip, session.ip6); },
     [](const user_info &session) { return json(address_text(session.ip, session.ip6)); }, compare_addresses},
    {"client", cutting::key,
     [](const user_info &session, const times &when) {
	     return display(client_field(session), &session, when);
     },
     [](const user_info &session) { return field_json(client_field(session), &session); }, compare_clients},
    {"since", cutting::exact,
     [](const user_info &session, const times &when) { return when.since(session.login_time); },
     [](const user_info &session) { return json(session.login_time); },
     [](const user_info &a, const user_info &b) { return compare(field_named("login_time"), &a, &b); }},
    {"expires", cutting::exact,
     [](const user_info &session, const times &when) { return when.until(nearest_deadline(session)); },
     [](const user_info &session) { return json(nearest_deadline(session)); }, compare_deadlines},
};

// ---- events in words ----

struct wording {
	int event;
	int sub_event;
	const char *words;
	const char *colour;
};

constexpr char green[] = "\033[32m", yellow[] = "\033[33m", red[] = "\033[31m", cyan[] = "\033[36m";

constexpr wording wordings[] = {
    {VEK_EVENT_USER_LOGIN, 0, "logged in", green},
    {VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2, 0, "finished the social login", green},
    {VEK_EVENT_USER_LOGOUT, VEK_EVENT_USER_FORCE_LOGOUT, "was logged out by force", red},
    {VEK_EVENT_USER_LOGOUT, VEK_EVENT_CONFIG_CHANGE, "was logged out by a new configuration", red},
    {VEK_EVENT_USER_LOGOUT, 0, "logged out", yellow},
    {VEK_EVENT_USER_LOGOUT2, VEK_EVENT_USER_SESSION_TIMEOUT, "reached the end of the session's time", red},
    {VEK_EVENT_USER_LOGOUT2, VEK_EVENT_USER_FORCE_LOGOUT, "was logged out by force", red},
    {VEK_EVENT_USER_LOGOUT2, VEK_EVENT_CONFIG_CHANGE, "was logged out by a new configuration", red},
    {VEK_EVENT_USER_LOGOUT2, 0, "logged out", yellow},
    {VEK_EVENT_USER_REAUTH_TIMEOUT, 0, "had to authenticate again", red},
    {VEK_EVENT_USER_LEASE_TIMEOUT, 0, "reached the end of the lease", red},
    {VEK_EVENT_USER_IDLE_TIMEOUT, 0, "was idle for too long", red},
    {VEK_EVENT_USER_TUNNEL_UP, 0, "has a tunnel", cyan},
    {VEK_EVENT_USER_TUNNEL_DOWN, 0, "has no tunnel any more", cyan},
};

// The row of the event's cause, else the event's own.
const wording *words_for(const vek_event &event)
{
	for (const int cause : {event.sub_event, 0})
		for (const wording &row : wordings)
			if (row.event == event.event && row.sub_event == cause)
				return &row;
	return nullptr;
}

} // namespace

column::column(const std::string &name)
    : name_(name), field_(find_field(user_info_fields, name)), made_(nullptr)
{
	for (const made_column &made : made_columns)
		if (made.name == name)
			made_ = &made;
	if (field_ == nullptr && made_ == nullptr)
		throw failure{status_usage, "there is no column \"" + escaped(name) + "\"" +
						did_you_mean(name, column_names())};
}

heading column::head() const
{
	std::string title = name_;
	std::transform(title.begin(), title.end(), title.begin(),
		       [](unsigned char c) { return std::toupper(c); });
	if (made_ != nullptr)
		return {title, made_->gives};
	switch (field_->kind) {
	case field_kind::text: return {title, name_ == "unique" ? cutting::key : cutting::text};
	case field_kind::ip4:
	case field_kind::ip6: return {title, cutting::address};
	default: return {title, cutting::exact};
	}
}

std::string column::text(const user_info &session, const times &when) const
{
	return made_ != nullptr ? made_->text(session, when) : display(*field_, &session, when);
}

void column::add_json(json &object, const user_info &session) const
{
	if (made_ != nullptr)
		object[name_] = made_->value(session);
	else
		::add_json(object, *field_, &session);
}

int column::order(const user_info &a, const user_info &b) const
{
	return made_ != nullptr ? made_->compare(a, b) : compare(*field_, &a, &b);
}

std::vector<std::string> column_names()
{
	std::vector<std::string> names;
	for (const made_column &made : made_columns)
		names.emplace_back(made.name);
	for (const vek_field &field : user_info_fields)
		names.emplace_back(field.name);
	return names;
}

void sort_sessions(sessions &found, const std::vector<std::string> &by)
{
	struct key {
		column what;
		bool descending;
	};
	std::vector<key> keys;
	for (const std::string &name : by) {
		const bool descending = name.starts_with('-');
		keys.push_back({column(name.substr(descending ? 1 : 0)), descending});
	}
	std::stable_sort(found.begin(), found.end(), [&](const user_info &a, const user_info &b) {
		for (const auto &[what, descending] : keys)
			if (const int order = what.order(a, b))
				return descending ? order > 0 : order < 0;
		return false;
	});
}

void print_sessions(const style &look, const sessions &found, const std::vector<column> &columns,
		    const times &when)
{
	std::vector<heading> header;
	header.reserve(columns.size());
	for (const column &shown : columns)
		header.push_back(shown.head());
	table lines(header);
	for (const user_info &session : found) {
		std::vector<std::string> cells;
		cells.reserve(columns.size());
		for (const column &shown : columns)
			cells.push_back(shown.text(session, when));
		lines.row(std::move(cells));
	}
	lines.print(look);
}

json sessions_json(const sessions &found, const std::vector<column> &columns)
{
	json list = json::array();
	for (const user_info &session : found) {
		if (columns.empty())
			list.push_back(record_json(user_info_fields, &session));
		else
			list.push_back(json::object());
		for (const column &shown : columns)
			shown.add_json(list.back(), session);
	}
	return list;
}

std::string describe(const user_info &session)
{
	const std::string address = address_text(session.ip, session.ip6);
	return escaped(session.username) + " (" + (*session.service ? escaped(session.service) + ", " : "") +
	       type_name(session.type) + ")" + (address.empty() ? "" : " from " + address);
}

std::string event_text(const vek_event &event)
{
	const wording *row = words_for(event);
	return (row != nullptr ? row->words : event_name(event.event)) + ": " + describe(session_of(event));
}

const char *event_colour(const vek_event &event)
{
	const wording *row = words_for(event);
	return row != nullptr ? row->colour : "";
}

json event_json(const vek_event &event, const std::string &time)
{
	json line = json_result();
	line["time"] = time;
	line["event"] = event.event;
	line["event_name"] = event_name(event.event);
	line.update(record_json(vek_event_fields, &event));
	return line;
}
