// selection.cpp: choosing sessions.
#include "selection.h"

#include <algorithm>
#include <cstring>
#include <regex>
#include <strings.h>

namespace {

// What a text option must be; what it may not be is the parser's to say.
const CLI::Validator not_empty([](std::string &text) { return text.empty() ? "must not be empty" : ""; },
			       "TEXT");

network parse_network(const std::string &text)
{
	const std::size_t slash = text.find('/');
	const auto base = parse_address(text.substr(0, slash));
	if (!base)
		throw CLI::ValidationError("--ip", "\"" + text + "\" is no IPv4 or IPv6 address or network");
	const unsigned most = base->is_ip6 ? 128 : 32;
	const auto bits = slash == std::string::npos ? std::optional<long long>(most)
						     : whole_number(text.substr(slash + 1));
	if (!bits || *bits < 0 || *bits > most)
		throw CLI::ValidationError("--ip", "\"" + text + "\" has no prefix length from 0 to " +
						       std::to_string(most));
	// Which sessions carry that have no address of that kind, and which restricts nothing as a key.
	if (*bits == most && base->ip == 0 && IN6_IS_ADDR_UNSPECIFIED(&base->ip6))
		throw CLI::ValidationError("--ip", text + " is nobody's address");
	return {*base, static_cast<unsigned>(*bits)};
}

bool begin_alike(const void *one, const void *other, unsigned bits)
{
	const auto *a = static_cast<const unsigned char *>(one),
		   *b = static_cast<const unsigned char *>(other);
	return std::memcmp(a, b, bits / 8) == 0 &&
	       (bits % 8 == 0 || (a[bits / 8] ^ b[bits / 8]) >> (8 - bits % 8) == 0);
}

bool is(const std::optional<std::string> &wanted, const char *value) { return !wanted || *wanted == value; }

bool is_alike(const std::optional<std::string> &wanted, const char *value)
{
	return !wanted || strcasecmp(wanted->c_str(), value) == 0;
}

} // namespace

bool network::contains(std::uint32_t ip, const in6_addr &ip6) const
{
	if (base.is_ip6)
		return !IN6_IS_ADDR_UNSPECIFIED(&ip6) && begin_alike(&base.ip6, &ip6, bits);
	return ip != 0 && begin_alike(&base.ip, &ip, bits);
}

void selection::add_options(CLI::App &command)
{
	const auto add = [&](const char *names, std::optional<std::string> &into, const char *description) {
		command.add_option(names, into, description)->check(not_empty)->group("Which sessions");
	};
	const auto add_parsed = [&](const char *names, const char *description, const char *kind,
				    const auto &parse) {
		command.add_option_function<std::string>(names, parse, description)
		    ->type_name(kind)
		    ->group("Which sessions");
	};
	add("--user,--username", user, "of this account");
	add("--user-part", user_part, "of accounts that have this in their name");
	add("--service", service, "of this service");
	add("--client", client, "of this client, as list shows it");
	add("--unique", unique, "with this key of their service");
	add_parsed("--ip,--ip6", "from this IPv4 or IPv6 address, or from this network", "ADDRESS[/BITS]",
		   [this](const std::string &text) { from = parse_network(text); });
	add("--sta-mac,--station", station, "of this station");
	add("--ssid,--ssid-name", ssid, "in this wireless network");
	add_parsed("--type", "admin, user, guest, ext, limited, ext-group or a number", "TYPE",
		   [this](const std::string &text) {
			   type = type_number(text);
			   if (!type)
				   throw CLI::ValidationError("--type",
							      "there is no user type \"" + text + "\"" +
								  did_you_mean(text, all_type_names()));
		   });
}

bool selection::is_empty() const
{
	return !user && !user_part && !service && !client && !unique && !station && !ssid && !from && !type;
}

bool selection::matches(const user_info &session) const
{
	return is(user, session.username) &&
	       (!user_part || std::strstr(session.username, user_part->c_str())) &&
	       is(service, session.service) && is(unique, session.unique) &&
	       is_alike(client, *session.sta_mac ? session.sta_mac : session.unique) &&
	       is_alike(station, session.sta_mac) && is(ssid, session.ssid_name) &&
	       (!from || from->contains(session.ip, session.ip6)) && (!type || *type == session.type);
}

std::string selection::hint() const
{
	const std::vector<std::string> known = service_names();
	if (!service || std::find(known.begin(), known.end(), *service) != known.end())
		return "";
	return "no service is called \"" + escaped(*service) + "\"" + did_you_mean(*service, known);
}

vek_event selection::keys() const
{
	if (user_part || client || station || ssid || type || (from && !from->is_host()))
		throw failure{status_usage,
			      "vekd finds sessions by --user, --service, --unique and --ip alone, which "
			      "this needs"};
	vek_event event = {};
	for (const auto &[name, value] :
	     {std::pair("username", &user), {"service", &service}, {"unique", &unique}})
		if (*value)
			if (const auto problem =
				set_field(*find_field(vek_event_fields, name), &event, **value))
				throw failure{status_usage, "\"" + escaped(**value) + "\" " + *problem};
	if (from) {
		event.ip = from->base.ip;
		event.ip6 = from->base.ip6;
		event.event_flag = from->base.is_ip6 ? VEK_EVENT_FLAG_USED_IPV6_ADDR : 0;
	}
	return event;
}

std::vector<std::string> service_names()
{
	return {SERVICE_NAME_CONSOLE,
		SERVICE_NAME_TELNET,
		SERVICE_NAME_SSH,
		SERVICE_NAME_HTTP_HTTPS,
		SERVICE_NAME_FTP,
		SERVICE_NAME_DIALIN,
		SERVICE_NAME_UNKNOWN,
		SERVICE_NAME_DOT1X,
		SERVICE_NAME_XAUTH,
		SERVICE_NAME_MAC_AUTH,
		SERVICE_NAME_CAPTIVE_PORTAL,
		SERVICE_NAME_SOCIAL_LOGIN_FB,
		SERVICE_NAME_FB_WIFI_LOGIN,
		SERVICE_NAME_GOOGLE_AUTHENTICATOR,
		SERVICE_NAME_EMAIL_VERIFICATION};
}

user_info session_of(const vek_event &event)
{
	user_info session = {};
	std::memcpy(session.service, event.service, sizeof(session.service));
	std::memcpy(session.username, *event.real_username ? event.real_username : event.username,
		    sizeof(session.username));
	std::memcpy(session.virtual_username, event.username, sizeof(session.virtual_username));
	std::memcpy(session.unique, event.unique, sizeof(session.unique));
	std::memcpy(session.sta_mac, event.sta_mac, sizeof(session.sta_mac));
	std::memcpy(session.ssid_name, event.ssid_name, sizeof(session.ssid_name));
	if (uses_ip6(event))
		session.ip6 = event.ip6;
	else
		session.ip = event.ip;
	session.type = event.type;
	return session;
}

// A key that is not there restricts nothing, and a unique key that holds a MAC address means the station when
// neither a name nor an address goes with it.
bool is_found_by(const vek_event &event, const user_info &session)
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
