// model.cpp: `vek_model [--seed N] [--steps N]`: random events against the daemon's core and, beside it, a
// plain second telling of its rules: sessions in an array, every search a loop over all of them, no index.
// After each step everything that can be seen of the two is compared. First the telling, then the comparison,
// then the choice of events. The seed is printed and replays the run.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <ranges>
#include <string_view>
#include <tuple>
#include <vector>

#include "core.h"
#include "vek_fields.h"

namespace {

using std::string;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

template <std::size_t N> void put(char (&field)[N], const string &text)
{
	std::memset(field, 0, N);
	text.copy(field, N - 1);
}

const vek_field &field_of(const vek_event &, std::string_view name)
{
	return *std::ranges::find(vek_event_fields, name, &vek_field::name);
}
const vek_field &field_of(const user_info &, std::string_view name)
{
	return *std::ranges::find(user_info_fields, name, &vek_field::name);
}
template <class Record> auto at(Record &record, std::string_view name)
{
	using byte = std::conditional_t<std::is_const_v<Record>, const char, char>;
	return reinterpret_cast<byte *>(&record) + field_of(record, name).offset;
}
// Copies the fields of these names.
template <class To, class From>
void share(To &to, const From &from, std::initializer_list<const char *> names)
{
	for (const char *name : names) {
		const vek_field &target = field_of(to, name);
		const char *with = at(from, name);
		std::memset(at(to, name), 0, target.size);
		std::memcpy(at(to, name), with,
			    target.kind == field_kind::text ? strnlen(with, target.size - 1u) : target.size);
	}
}

bool is(const char *text, const char *other) { return std::strcmp(text, other) == 0; }
// A portal's methods and services.
const char *const METHODS[][2] = {{"sns-facebook", "social login fb"},
				  {"fb-wifi-login", "fb wi-fi login"},
				  {"google-authenticator-1x", "google authenticator"},
				  {"email-verification-dppsk", "email verification"}};
bool is_portal(const char *service)
{
	return is(service, "captive portal") ||
	       std::ranges::any_of(METHODS, [=](auto &method) { return is(service, method[1]); });
}
bool is_dot1x(const char *service) { return is(service, "802.1x") || is(service, "mac-auth"); }

bool contains_mac(string text)
{
	for (char &c : text)
		c = isxdigit(static_cast<unsigned char>(c)) ? 'h' : c == ':' ? ':' : ' ';
	return text.find("hh:hh:hh:hh:hh:hh") != text.npos;
}

template <class Address> string text_of(const Address &ip)
{
	char text[INET6_ADDRSTRLEN];
	return inet_ntop(sizeof(ip) == sizeof(u32) ? AF_INET : AF_INET6, &ip, text, sizeof(text));
}

bool same(const in6_addr &a, const in6_addr &b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }
bool any(const in6_addr &a) { return !same(a, in6_addr{}); }
bool is6(const vek_event &event) { return (event.event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR) != 0; }

enum { NAME, IP, IP6 };
enum { REAUTH, LEASE, IDLE, SESSION };
constexpr u64 user_info::*deadline_of[] = {&user_info::reauth_time, &user_info::lease_time,
					   &user_info::idle_time, &user_info::session_timeout};

// What one dispatch must show.
struct outcome {
	std::vector<vek_event> announced, copies;
	std::vector<fake_log> logs;
	string answer, asked; // of the platform
};

struct telling {
	struct session {
		bool used = false, station = false;
		u64 seq[3]{}, station_seq = 0; // when it joined its key's others: name, IPv4, IPv6, time
		int station_key = 0;
		vek_event login{}; // as it was when the station was made
	};
	user_info records[VEK_MAX_USERS]{}; // of free slots: of their last session
	session slots[VEK_MAX_USERS];
	std::vector<int> unused, order; // next to be taken first; oldest login first
	std::vector<int> lists[4];
	u64 seq = 0;
	int cloud = 0, log_cloud = 0, subscriptions = 0;
	u32 idle_enabled = 0, idle_minutes = DEFAULT_MAX_IDLE_MINUTE;
	outcome out;
	std::map<string, unsigned> met;

	telling()
	{
		for (int i = 0; i < VEK_MAX_USERS; ++i)
			unused.push_back(i);
	}

	u64 now() const { return seconds_since_boot; }
	static void refresh(int &flag)
	{
		if (fake.mode == WHOPMODE_CLOUD)
			flag = 1;
		if (fake.mode == WHOPMODE_STANDALONE || fake.mode == WHOPMODE_MANAGED)
			flag = 0;
	}

	// ---- searches ----

	// As an index holds them: keys ascending, each key's in the order of their joining.
	std::vector<int> sorted(int index, std::vector<int> all) const
	{
		std::ranges::sort(all, [&](int a, int b) {
			const user_info &x = records[a], &y = records[b];
			const int less = index == NAME ? std::strcmp(x.username, y.username)
					 : index == IP ? (x.ip > y.ip) - (x.ip < y.ip)
						       : std::memcmp(&x.ip6, &y.ip6, sizeof(x.ip6));
			return less != 0 ? less < 0 : slots[a].seq[index] < slots[b].seq[index];
		});
		return all;
	}
	// In the order of the answer. With ip6, by IPv6 address.
	std::vector<int> find(const char *service, const char *name, u32 ip, const in6_addr *ip6,
			      const char *unique) const
	{
		const int by = ip6 != nullptr ? IP6 : ip != 0 ? IP : NAME;
		const bool by_mac = by == NAME && *name == '\0' && contains_mac(unique);
		std::vector<int> found;
		for (int slot : order) {
			const user_info &s = records[slot];
			if ((by != IP6 || same(s.ip6, *ip6)) && (by != IP || s.ip == ip) &&
			    (*name == '\0' || is(s.username, name)) &&
			    (*service == '\0' || is(s.service, service)) &&
			    (*unique == '\0' || is(by_mac ? s.sta_mac : s.unique, unique)))
				found.push_back(slot);
		}
		return sorted(by, found);
	}
	std::vector<int> find(const vek_event &e) const
	{
		return find(e.service, e.username, is6(e) ? 0 : e.ip, is6(e) ? &e.ip6 : nullptr, e.unique);
	}
	std::vector<int> stations() const
	{
		std::vector<int> all;
		std::ranges::copy_if(order, std::back_inserter(all),
				     [&](int slot) { return slots[slot].station; });
		std::ranges::sort(all, {}, [&](int slot) {
			return std::tuple(slots[slot].station_key, slots[slot].station_seq);
		});
		return all;
	}

	template <class Change> int each(const std::vector<int> &found, Change change)
	{
		for (int slot : found)
			change(records[slot], slot);
		return found.empty();
	}

	// ---- lists ----

	void place(int list, int slot)
	{
		std::vector<int> &all = lists[list];
		std::erase(all, slot);
		const u64 deadline = records[slot].*deadline_of[list];
		if (deadline == 0)
			return;
		auto at = all.end();
		while (at != all.begin() && records[at[-1]].*deadline_of[list] > deadline)
			--at;
		all.insert(at, slot);
	}
	void arm(int slot, int list, u32 minutes)
	{
		records[slot].*deadline_of[list] = minutes != 0 ? now() + minutes * 60 : 0;
		place(list, slot);
	}
	void end(int slot)
	{
		std::erase(order, slot);
		for (std::vector<int> &list : lists)
			std::erase(list, slot);
		unused.insert(unused.begin(), slot);
		slots[slot].used = slots[slot].station = false;
	}
	static bool exempt(const user_info &s) { return (s.type & ~4) == 0 || is_dot1x(s.service); }

	// ---- what the others see ----

	void log(int priority, const vek_event &e, bool v6, u32 src, u32 dst, const string &text)
	{
		fake_log log{};
		qzlog_entry &entry = log.entry;
		std::memset(&entry, 0, sizeof(entry));
		entry.source = entry.facility = 5;
		entry.priority = static_cast<std::uint8_t>(priority);
		put(entry.username, e.real_username);
		put(entry.note, string("Account: ") + e.real_username);
		put(entry.message, text);
		if (v6) {
			entry.srcip6 = e.ip6;
			entry.dstip6 = e.dst_ip6;
			entry.flags = static_cast<u32>(log.flags = 4);
		} else {
			entry.srcip = src;
			entry.dstip = dst;
		}
		out.logs.push_back(log);
	}
	void log(const vek_event &e)
	{
		refresh(log_cloud);
		if (log_cloud && e.usr_from == FOREIGN_AUTHENTICATED_USER)
			return;
		const char *types[] = {"Administrator", "User", "Guest", "Ext-User", "Limited-Admin"};
		const bool timeout = e.event >= 6, login = e.event == 1 || e.event == 3, v6 = is6(e);
		const u32 src = e.ip == ~0u ? 0 : e.ip, dst = e.dst_ip == ~0u ? 0 : e.dst_ip;
		string text = string(e.type < 5 ? types[e.type] : "User") + " ";
		text += log_cloud && !timeout && is(e.real_username, "undefined") ? "N/A" : e.real_username;
		const string mac = *e.sta_mac ? e.sta_mac : "N/A";
		if (v6 && e.event <= 5 && !login)
			text += " (IP: " + (any(e.ip6) ? " [" + text_of(e.ip6) + "] " : "") + ")";
		else if (v6 && login && log_cloud)
			text += " (MAC: " + mac + ")";
		else if (!v6 && log_cloud)
			text += " (MAC: " + mac + ", IP: " + text_of(src) + ")";
		const string service = is(e.service, "802.1x")     ? "802.1X"
				       : is(e.service, "mac-auth") ? "MAC auth"
								   : e.service;
		const std::map<int, string> reasons = {{18, " (force-logout)"},
						       {33, " (config change)"},
						       {9, " (sessoin timeout)"}},
					    timeouts = {{6, "re-auth"}, {7, "lease"}, {8, "idle"}};
		text += " " + service + (login ? " login." : " logout");
		if (timeout)
			text += " (" + timeouts.at(e.event) + " timeout).";
		else if (!login)
			text +=
			    (reasons.contains(e.sub_event) ? reasons.at(e.sub_event) : "") + (v6 ? "." : "");
		log(5, e, v6, src, dst, text);
	}
	// An event that got past the user database.
	void announce(const vek_event &e)
	{
		out.announced.push_back(e);
		const auto copy_to_all = [&](vek_event copy, int number) {
			copy.event = number;
			out.copies.insert(out.copies.end(), static_cast<std::size_t>(subscriptions), copy);
		};
		if (e.event <= 8) {
			copy_to_all(e, e.event);
			log(e);
		}
		const bool tunnel_too = e.event == 4 || (e.event >= 6 && e.event <= 8) || e.event >= 15;
		if (tunnel_too && e.tunnel_ip != 0)
			copy_to_all(e, e.event <= 8 ? VEK_EVENT_USER_TUNNEL_DOWN : e.event);
	}

	// ---- login ----

	int login(vek_event &e)
	{
		refresh(cloud);
		if (order.size() == VEK_MAX_USERS) {
			if (is(e.real_username, "admin")) {
				const int oldest = order.front();
				const user_info &o = records[oldest];
				vek_event logout{};
				logout.event = VEK_EVENT_USER_LOGOUT;
				logout.event_flag = o.usr_flags;
				share(logout, o,
				      {"service", "username", "unique", is6(logout) ? "ip6" : "ip"});
				handle(logout);
				++met["displaced"];
				if (unused.empty()) {
					++met["ended directly"];
					end(oldest);
				}
			} else if (cloud == 1 && is_portal(e.service)) {
				clean_up();
			} else {
				char host[255] = "";
				gethostname(host, sizeof(host));
				log(1, e, false, e.ip, e.dst_ip,
				    string("Failed login attempt to ") + host + " from " + e.service +
					" (reach the maximum number of user)");
				++met["refused"];
			}
			if (unused.empty())
				return 1;
		}
		const int slot = unused.front();
		user_info &s = records[slot];
		std::memset(&s, 0, sizeof(s));
		if (e.usr_from != FOREIGN_AUTHENTICATED_USER)
			put(e.auth_time, std::to_string(fake.wall_clock));
		share(s, e, {"service", "unique", "auth_time", "type"});
		put(s.username, e.real_username);
		put(s.virtual_username, e.username);
		if (is6(e))
			share(s, e, {"ip6", "dst_ip6"});
		else
			share(s, e, {"ip", is_dot1x(e.service) ? "ip" : "dst_ip"});
		s.login_time = now();
		const bool dot1x = is_dot1x(e.service), portal = cloud && is_portal(e.service);
		if (portal || (dot1x && cloud))
			share(s, e, {"ssid_name", "ssid_vap_iface", "sta_mac"});
		if (portal)
			share(s, e, {"method", "locale", "gender", "age", "ssid_profile_name", "usr_from"});
		if (dot1x) {
			s.access = s.visibility = 80;
			s.attribute = VEK_USER_ATTRIBUTE_ACCESS;
			if (cloud)
				share(s, e, {"accounting_status", "ga_acct_status", "ga_binding_token"});
		} else {
			const bool by_type = *e.define_name == '\0';
			out.asked = std::to_string(s.type) + " " +
				    std::to_string(by_type ? 0 : e.match_flag & 0xff) + " " +
				    (by_type ? "" : e.username);
			if (by_type && fake.profile_result < 0)
				return 1;
		}
		if (!dot1x || cloud) {
			const auto minutes = [&](std::int32_t m) {
				return m ? now() + static_cast<u64>(std::int64_t{m} * 60) : 0;
			};
			s.reauth_time = minutes(e.default_reauth_time);
			s.lease_time = minutes(e.default_lease_time);
			s.reauth_minute = static_cast<u32>(e.default_reauth_time);
			s.lease_minute = static_cast<u32>(e.default_lease_time);
			share(s, e, {"radius_profile_name"});
		}
		if (!dot1x) {
			if (!exempt(s) && idle_enabled)
				s.idle_time = now() + idle_minutes * 60;
			if (e.idle_timeout_form_acct_flag == 1) {
				s.idle_timeout_form_acct_flag = 1;
				s.idle_timeout = e.idle_timeout;
				s.idle_time = now() + e.idle_timeout;
			}
			s.session_timeout = e.session_timeout ? now() + e.session_timeout : 0;
			s.access = static_cast<u32>(fake.profile.access);
			s.visibility = static_cast<u32>(fake.profile.visibility);
			s.attribute = static_cast<std::uint8_t>((fake.profile.remote_admin ? 1 : 0) +
								(fake.profile.remote_access ? 2 : 0));
		}
		e.attribute = s.attribute;

		unused.erase(unused.begin());
		order.push_back(slot);
		session &own = slots[slot];
		own.used = true;
		own.seq[NAME] = own.seq[IP] = own.seq[IP6] = own.station_seq = ++seq;
		for (int list : {REAUTH, LEASE, IDLE, SESSION})
			place(list, slot);
		own.station = is_portal(e.service);
		own.station_key = atoi(e.auth_time);
		own.login = e;
		return e.event == VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1;
	}

	void clean_up()
	{
		std::vector<string> list;
		for (std::size_t i = 0; i < fake.station_macs.size() && list.size() < 1025; ++i)
			if (contains_mac(fake.station_macs[i]) && fake.station_times[i] != "\n")
				list.push_back(fake.station_macs[i].substr(0, 17));
		std::size_t cursor = 0;
		for (int slot : stations()) {
			const vek_event &sta = slots[slot].login;
			// A station without a MAC lines up with the list's empty end.
			if (!list.empty() && (cursor < list.size() ? list[cursor] : "") == sta.sta_mac) {
				++cursor;
				continue;
			}
			const auto *method =
			    std::ranges::find_if(METHODS, [&](auto &m) { return is(sta.method, m[0]); });
			const char *service = method == std::end(METHODS) ? "captive portal" : (*method)[1];
			vek_event logout = make_event(VEK_EVENT_USER_LOGOUT, {service, sta.real_username});
			share(logout, sta, {"sta_mac", "ssid_name", "ssid_profile_name", "usr_from"});
			logout.notify_cc = DO_NOT_NOTIFY_CC;
			logout.event_flag = VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE;
			const u64 which = slots[slot].station_seq;
			handle(logout);
			++met["cleaned up"];
			if (slots[slot].station && slots[slot].station_seq == which) {
				++met["ended directly"];
				end(slot);
			}
			return;
		}
	}

	// ---- logout ----

	bool passes(const vek_event &e, const user_info &s, bool web) const
	{
		const auto profile = [&] {
			return *s.ssid_profile_name && is(e.ssid_profile_name, s.ssid_profile_name);
		};
		if (!cloud)
			return true;
		if (e.event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE)
			return *s.sta_mac && is(e.sta_mac, s.sta_mac) && profile();
		if (e.event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_SSIDPROFILE)
			return profile();
		return !(web && (e.event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC)) ||
		       is(e.sta_mac, s.sta_mac);
	}
	void copy_back(vek_event &e, const user_info &s, bool web) const
	{
		if (is6(e))
			share(e, s, {"dst_ip6", "tunnel_ip6", web ? "dst_ip6" : "ip6"});
		if (web || !is6(e))
			e.ip = s.ip;
		share(e, s, {"dst_ip", "tunnel_ip", "service", "unique", "attribute", "type"});
		put(e.real_username, s.username);
		put(e.username, s.virtual_username);
		if (is(s.service, "ssh"))
			share(e, s, {"ssh_tty"});
		if (cloud)
			share(e, s, {"sta_mac"});
		if (cloud && web)
			copy_portal(e, s, true);
	}
	static void copy_portal(vek_event &e, const user_info &s, bool social)
	{
		if (social)
			share(e, s, {"method", "locale", "gender", "age", "ssid_name"});
		share(e, s, {"ssid_profile_name", "ssid_vap_iface", "sta_mac", "usr_from"});
	}
	int logout(vek_event &e)
	{
		refresh(cloud);
		if (e.event_flag & VEK_EVENT_FLAG_SKIP_USER_LOGOUT)
			return 0;
		const std::vector<int> found = find(e);
		for (int slot : found)
			if (passes(e, records[slot], false)) {
				end(slot);
				copy_back(e, records[slot], false);
			}
		return found.empty();
	}
	int web_logout(vek_event &e)
	{
		refresh(cloud);
		for (int slot : find(e)) {
			e.event_flag |= VEK_EVENT_FLAG_SKIP_USER_LOGOUT;
			e.event = cloud ? 5 : 4;
			if (!passes(e, records[slot], true))
				continue;
			end(slot);
			copy_back(e, records[slot], true);
			announce(e);
		}
		return 1;
	}

	// ---- time ----

	void expire(int list, int number)
	{
		const bool with_cloud = list == LEASE || list == SESSION;
		if (with_cloud)
			refresh(cloud);
		while (!lists[list].empty() && records[lists[list].front()].*deadline_of[list] <= now()) {
			const int slot = lists[list].front();
			end(slot);
			const user_info &s = records[slot];
			vek_event e{};
			e.event = number;
			share(e, s, {"service", "unique", "ip", "dst_ip", "attribute", "type"});
			put(e.username, s.virtual_username);
			put(e.real_username, s.username);
			(list == SESSION ? e.sub_event = 9 : e.event_flag = s.usr_flags);
			if (is6(e))
				share(e, s, {"ip6", "dst_ip6"});
			if (with_cloud && cloud) {
				copy_portal(e, s, list == LEASE);
				e.notify_cc = s.usr_from == FOREIGN_AUTHENTICATED_USER ? DO_NOT_NOTIFY_CC : 0;
			}
			announce(e);
		}
	}
	int update_lease(vek_event &e)
	{
		return each(find(e), [&](user_info &s, int slot) {
			if (cloud && (e.event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE) &&
			    !passes(e, s, false))
				return;
			if (static_cast<std::int32_t>(e.update.lease_time) < 0)
				e.update.lease_time = s.lease_minute;
			if (e.update.lease_time != 0 || s.lease_minute != 0)
				arm(slot, LEASE, s.lease_minute = e.update.lease_time);
		});
	}
	int traffic(const vek_event &e)
	{
		const bool console = !is6(e) && e.ip == ADDR_NAME_CONSOLE;
		const std::vector<int> found = find("", "", is6(e) || console ? 0 : e.ip,
						    is6(e) ? &e.ip6 : nullptr, console ? "console" : "");
		return each(found, [&](user_info &s, int slot) {
			if (s.idle_time == 0 || exempt(s))
				return;
			s.idle_time = s.idle_timeout_form_acct_flag == 1 ? now() + s.idle_timeout
				      : idle_enabled                     ? now() + idle_minutes * 60
									 : 0;
			place(IDLE, slot);
		});
	}
	void config_change()
	{
		for (int slot : lists[IDLE])
			records[slot].idle_time = 0;
		lists[IDLE].clear();
		for (auto slot = order.rbegin(); slot != order.rend(); ++slot) {
			user_info &s = records[*slot];
			if (exempt(s) || (s.idle_timeout_form_acct_flag != 1 && idle_enabled != 1))
				continue;
			s.idle_time =
			    now() + (s.idle_timeout_form_acct_flag == 1 ? s.idle_timeout : idle_minutes * 60);
			lists[IDLE].push_back(*slot);
		}
	}

	// ---- the rest ----

	void roam(const vek_event &e)
	{
		if (std::ranges::none_of(records, [&](const user_info &s) {
			    return is(s.sta_mac, e.sta_mac) && is(s.username, e.username);
		    }))
			return;
		for (int slot : sorted(IP, order)) {
			user_info &s = records[slot];
			if (is(s.username, e.username) && string(e.sta_mac).starts_with(s.sta_mac) &&
			    is(s.ssid_profile_name, e.ssid_profile_name)) {
				s.ip = e.ip;
				slots[slot].seq[IP] = ++seq;
				return;
			}
		}
	}
	void answer(const vek_event &e)
	{
		vek_event header{};
		header.event = VEK_EVENT_QUERY_RESULT;
		const bool from =
		    e.event == VEK_EVENT_APP_QUERY_FROM || e.event == VEK_EVENT_APP_QUERY_FROM_FIRST;
		if (e.event == VEK_EVENT_APP_QUERY_NAME)
			share(header, e, {"username"});
		else if (from)
			share(header, e, {is6(e) ? "ip6" : "ip"});
		header.event_flag = from ? e.event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR : 0;
		std::vector<int> found =
		    find("", header.username, header.ip, is6(header) ? &header.ip6 : nullptr, "");
		if (e.event == VEK_EVENT_APP_QUERY_FROM_FIRST && !found.empty())
			found.resize(1);
		header.count = static_cast<int>(found.size());
		out.answer.assign(reinterpret_cast<const char *>(&header), sizeof(header));
		if (e.event == VEK_EVENT_APP_QUERY_TOTAL_USER_NUM) {
			out.answer.append(reinterpret_cast<const char *>(&header.count),
					  sizeof(header.count));
			return;
		}
		for (int slot : found) {
			user_info &s = records[slot];
			if (any(s.ip6))
				s.usr_flags |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
			out.answer.append(reinterpret_cast<const char *>(&s), sizeof(s));
		}
	}

	int handle(vek_event &e)
	{
		int stopped = 0;
		const auto update = [&](auto change) {
			stopped = each(find(e.service, e.username, e.ip, nullptr, e.unique), change);
		};
		switch (e.event) {
		case 1:
		case 2: stopped = login(e); break;
		case 4: stopped = logout(e); break;
		case 12: stopped = traffic(e); break;
		case 17: stopped = web_logout(e); break;
		case 19: stopped = update_lease(e); break;
		case 20: {
			vek_event notice{};
			share(notice, e, {"ip", e.ip == 0 ? "ip6" : "ip"});
			notice.event_flag = e.ip == 0 && any(e.ip6) ? VEK_EVENT_FLAG_USED_IPV6_ADDR : 0;
			traffic(notice);
			break;
		}
		case 21:
			stopped = each(find(e), [&](user_info &s, int slot) {
				if (e.update.reauth_time != 0 || s.reauth_minute != 0)
					arm(slot, REAUTH, s.reauth_minute = e.update.reauth_time);
			});
			break;
		case 22: roam(e); break;
		case 23:
			stopped = each(find(e), [&](user_info &s, int slot) {
				if (s.lease_minute != 0)
					arm(slot, LEASE, s.lease_minute);
			});
			break;
		case 24:
		case 25:
		case 26:
		case 27:
		case 28: answer(e); break;
		case 29:
			stopped = subscriptions == 8;
			subscriptions += !stopped;
			break;
		case 30: subscriptions -= subscriptions > 0; break;
		case 31: expire(LEASE, 7), expire(SESSION, 5); break;
		case 32: expire(REAUTH, 6), expire(IDLE, 8); break;
		case 33: config_change(); break;
		case 36: update([&](user_info &s, int) { s.accounting_status = e.accounting_status; }); break;
		case 37:
			update([&](user_info &s, int) {
				if (is(s.radius_profile_name, e.old_radius_profile_name))
					share(s, e, {"radius_profile_name"});
			});
			break;
		case 38: update([&](user_info &s, int) { share(s, e, {"ssh_tty"}); }); break;
		default: break;
		}
		const bool goes_on =
		    e.event == 1 || (e.event >= 3 && e.event <= 8) || e.event == 15 || e.event == 16;
		if (!stopped && goes_on)
			announce(e);
		return stopped;
	}
};

// ---- the comparison ----

template <class Record> string first_difference(const Record &a, const Record &b)
{
	if (std::memcmp(&a, &b, sizeof(a)) == 0)
		return "";
	const char *got = reinterpret_cast<const char *>(&a), *want = reinterpret_cast<const char *>(&b);
	return " differs at byte " + std::to_string(std::mismatch(got, got + sizeof(a), want).first - got);
}

const fake_log &plain(const fake_log &log) { return log; }

template <class Record>
string differ(const char *what, const std::vector<Record> &got, const std::vector<Record> &want)
{
	const string where = string(what) + " ";
	if (got.size() != want.size())
		return where + std::to_string(got.size()) + " instead of " + std::to_string(want.size());
	for (std::size_t i = 0; i < got.size(); ++i)
		if (string error = first_difference(plain(got[i]), plain(want[i])); !error.empty())
			return where + std::to_string(i) + error;
	return "";
}

int slot_of(const user_list *session) { return static_cast<int>(session - userdb_ulist); }

// Appends the sessions on a list or a ring, without its head.
void append(std::vector<int> &all, const list_head *head, user_list *(*entry)(list_head *))
{
	for (list_head *link = head->next; link != head; link = link->next)
		all.push_back(slot_of(entry(link)));
}

// Each index's sessions: keys ascending, each key's in ring order.
template <auto Ring> std::vector<int> slots_of(avl_table *tree)
{
	std::vector<int> all;
	avl_traverser walk;
	for (void *item = avl_t_first(&walk, tree); item != nullptr; item = avl_t_next(&walk)) {
		all.push_back(slot_of(static_cast<user_list *>(item)));
		append(all, &(static_cast<user_list *>(item)->*Ring), list_entry<Ring>);
	}
	return all;
}

// Thorough: the order on every ring and the records of free slots, too.
string compare_state(const telling &told, bool thorough)
{
	if (string error = check_invariants(); !error.empty())
		return error;
	if (is_cloud != told.cloud)
		return "is_cloud";
	std::vector<int> unused, order, due[4];
	append(unused, userdb_unuse_list.head(), list_entry<&user_list::use_list>);
	append(order, userdb_use_list.head(), list_entry<&user_list::use_list>);
	if (unused != told.unused || !std::ranges::equal(order, told.order | std::views::reverse))
		return "free list or use list";
	for (int list : {REAUTH, LEASE, IDLE, SESSION}) {
		append(due[list], userdb_deadline_lists[list].head, userdb_deadline_lists[list].entry);
		if (due[list] != told.lists[list])
			return "deadline list " + std::to_string(list);
	}
	for (int slot = 0; slot < VEK_MAX_USERS; ++slot)
		if (thorough || told.slots[slot].used)
			if (string error = first_difference(userdb_uinfo[slot], told.records[slot]);
			    !error.empty())
				return "slot " + std::to_string(slot) + error;
	rb_node_t *node = rb_first(rb_root);
	for (int slot : told.stations()) {
		const vek_event &login = told.slots[slot].login;
		login_user_info_s info{};
		rb_get_sta_from_vek_event(&info, &login);
		if (node == nullptr || node->session != &userdb_ulist[slot])
			return "order of the stations";
		if (node->usr_from != login.usr_from ||
		    std::memcmp(&info, node->user_info, sizeof(info)) != 0)
			return "a station's record";
		node = rb_next(node);
	}
	if (node != nullptr)
		return "a station too many";
	if (!thorough)
		return "";
	if (slots_of<&user_list::same_name_list>(avl_username_tree) != told.sorted(NAME, told.order) ||
	    slots_of<&user_list::same_ip_list>(avl_ip_tree) != told.sorted(IP, told.order) ||
	    slots_of<&user_list::same_ip6_list>(avl_ip6_tree) != told.sorted(IP6, told.order))
		return "order of the names, or of the IPv4 or IPv6 addresses";
	return "";
}

// ---- random events ----

class generator {
public:
	explicit generator(unsigned long seed) : random_(seed) {}

	u32 below(u32 n) { return static_cast<u32>(random_() % n); }
	bool chance(u32 percent) { return below(100) < percent; }
	template <class T> T pick(std::initializer_list<T> list)
	{
		return list.begin()[below(static_cast<u32>(list.size()))];
	}
	template <class T> T pick(const std::vector<T> &list)
	{
		return list[below(static_cast<u32>(list.size()))];
	}

	// The pool grows to full, stays there for a while, shrinks to empty, and lives a while with few.
	enum { FILL, FULL, DRAIN, FEW } phase = FEW;
	unsigned left = 1500;
	void next(telling &told)
	{
		const bool over = phase == FILL    ? told.order.size() == VEK_MAX_USERS
				  : phase == DRAIN ? told.order.empty()
						   : left-- == 0;
		if (!over)
			return;
		told.met["full"] += phase == FILL;
		told.met["empty"] += phase == DRAIN;
		left = phase == FILL ? 250 : 1500;
		phase = static_cast<decltype(phase)>((phase + 1) % 4);
	}

	vek_event event(const telling &told)
	{
		const u32 login = phase == FILL ? 92 : phase == FULL ? 40 : phase == DRAIN ? 5 : 30;
		vek_event e{};
		e.event = chance(login) ? pick({1, 1, 1, 1, 2})
					: pick({3,  4,  4,  4,  5,  6,  7,  8,  12, 13, 14, 15, 16, 17, 17,
						19, 19, 20, 20, 21, 22, 22, 23, 24, 25, 26, 27, 28, 29, 30,
						31, 31, 31, 32, 32, 33, 34, 35, 36, 37, 38, 39, -1});
		fill(e);
		if (e.event > 2 && !told.order.empty() && (chance(70) || phase == FILL))
			aim(e, told.records[told.order[below(static_cast<u32>(told.order.size()))]]);
		return e;
	}

	void surroundings(telling &told)
	{
		if (chance(3))
			fake.mode = pick({1, 3, 5, 5, 5, 2, 0, 4, 77});
		if (chance(2)) {
			told.idle_enabled = pick({0u, 1u, 1u, 2u});
			told.idle_minutes = pick({3u, 1u, 0u, 600u, 0xffffffffu});
			uconf->enable_idle_detection = static_cast<std::uint8_t>(told.idle_enabled);
			uconf->max_idle_minute = told.idle_minutes;
		}
		if (chance(30))
			seconds_since_boot += phase == DRAIN ? below(3000) : below(3);
		if (chance(10))
			++fake.wall_clock;
		fake.profile_result = chance(5) ? -1 : 0;
		fake.profile.access = pick({1, 15, 80, -1});
		fake.profile.visibility = pick({0, 80});
		fake.profile.remote_admin = pick({0, 1, 2});
		fake.profile.remote_access = pick({0, 1, -1});

		// The station database: the stations in order up to some point, and what is no station.
		fake.station_macs.clear();
		fake.station_times.clear();
		if (told.order.size() < VEK_MAX_USERS)
			return;
		const std::vector<int> all = told.stations();
		const u32 known = below(static_cast<u32>(all.size()) + 1);
		for (u32 i = 0; i < known; ++i) {
			fake.station_macs.push_back(string(told.slots[all[i]].login.sta_mac) + "\n");
			fake.station_times.emplace_back(chance(1) ? "\n" : "17\n");
		}
		if (chance(50)) {
			fake.station_macs.emplace_back("no address\n");
			fake.station_times.emplace_back("18\n");
		}
	}

private:
	void fill(vek_event &e)
	{
		using names = std::vector<const char *>;
		const names users = {"admin",
				     "alice",
				     "bob",
				     "Alice",
				     "undefined",
				     "",
				     "a-name-of-exactly-sixty-three-characters-which-fills-its-field-."},
			    profiles = {"", "radius-1", "radius-2", "a longer name"};
		static const std::pair<const char *, names> texts[] = {
		    {"service",
		     {"console", "telnet", "ssh", "http/https", "ftp", "802.1x", "mac-auth", "captive portal",
		      "captive portal", "social login fb", "fb wi-fi login", "google authenticator",
		      "email verification", "xauth", "802.1X"}},
		    {"username", users},
		    {"define_name", {"", "", "", "", "", "", "", "", "", "template"}},
		    {"unique",
		     {"", "console", "pts/1", "pts/2", "AA:BB:CC:DD:EE:01", "tty-aa:bb:cc:dd:ee:02", "7",
		      "a-key-of-exactly-sixty-four-characters-which-fills-its-field-..."}},
		    {"radius_profile_name", profiles},
		    {"old_radius_profile_name", profiles},
		    {"locale", {"", "en_GB"}},
		    {"gender", {"", "f"}},
		    {"age", {"", "42"}},
		    {"ssid_name", {"", "guests"}},
		    {"ssid_vap_iface", {"", "wlan-1-1"}},
		    {"ga_binding_token", {"", "token"}},
		    {"ssh_tty", {"", "/dev/pts/7", "3"}},
		    {"ssid_profile_name", {"", "SSID1", "SSID1", "SSID2"}},
		    {"auth_time", {"", "100", "99", "-5", "1700000003", "nonsense"}},
		    {"sta_mac",
		     {"", "aa:bb:cc:dd:ee:01", "aa:bb:cc:dd:ee:01", "aa:bb:cc:dd:ee:02", "AA:BB:CC:DD:EE:01",
		      "aa:bb", "tty-aa:bb:cc:dd:ee:02"}}};
		const std::vector<std::int64_t> minutes = {0,     0,  1,   30,        30000,
							   30000, -1, -20, INT32_MAX, INT32_MIN};
		static const std::pair<const char *, std::vector<std::int64_t>> numbers[] = {
		    {"ip", {ip4("10.0.0.1"), ip4("10.0.0.1"), ip4("11.0.0.1"), ip4("10.0.0.2"), 0, -1}},
		    {"dst_ip", {0, -1, ip4("192.0.2.1")}},
		    {"tunnel_ip", {0, 0, ip4("10.9.9.9")}},
		    {"attribute", {0, 1, 2, 3}},
		    {"type", {0, 1, 1, 1, 2, 3, 4, 5, 200}},
		    {"sub_event", {0, 9, 18, 33, 5}},
		    {"update", {0, 1, 5, 60, -1, INT32_MIN, 1 << 30}},
		    {"match_flag", {0, 52, 999}},
		    {"default_lease_time", minutes},
		    {"default_reauth_time", minutes},
		    {"idle_timeout", {0, 10, 600, -1}},
		    {"idle_timeout_form_acct_flag", {0, 0, 1, 2}},
		    {"session_timeout", {0, 0, 30, 4000, -1}},
		    {"accounting_status", {0, 1, -1}},
		    {"notify_cc", {0, 1, 2}},
		    {"usr_from", {0, 1, 2}},
		    {"ga_acct_status", {0, 3}}};
		for (const auto &[name, values] : texts) {
			const string value = pick(values);
			value.copy(at(e, name), field_of(e, name).size - 1u);
		}
		for (const auto &[name, values] : numbers) {
			const std::int64_t value = pick(values);
			std::memcpy(at(e, name), &value, field_of(e, name).size);
		}
		put(e.real_username, chance(80) ? e.username : pick(users));
		for (u32 flag :
		     {VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE,
		      VEK_EVENT_FLAG_USER_LOGOUT_MATCH_SSIDPROFILE, VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC,
		      VEK_EVENT_FLAG_RUM, VEK_EVENT_FLAG_8021x_logout})
			e.event_flag |= chance(15) ? flag : 0;
		e.event_flag |= chance(3) ? VEK_EVENT_FLAG_SKIP_USER_LOGOUT : 0;
		if (chance(25))
			set_ip6(e, pick({"::", "2001:db8::1", "2001:db8::1", "2001:db8::2", "fe80::1"}));
		e.tunnel_ip6 = ip6(pick({"::", "2001:db8::77"}));
		e.dst_ip6 = ip6(pick({"::", "2001:db8::99"}));
		const u32 method = below(2 * std::size(METHODS));
		put(e.method, method < std::size(METHODS) ? METHODS[method][0] : "");
		for (auto &[own, service] : METHODS)
			if (is(e.service, service) && chance(50))
				put(e.method, own);
		if (phase != FILL && phase != FULL)
			return;
		// Many sessions, which stay.
		if (chance(70))
			put(e.real_username, "user" + std::to_string(below(300)));
		if (chance(70))
			put(e.unique, "key" + std::to_string(below(5000)));
		if (chance(70))
			e.ip = htonl(0x0a000000 + below(2000));
		e.default_lease_time = static_cast<int>(below(2) * 90000);
		e.default_reauth_time = static_cast<int>(below(2) * 90000);
		e.idle_timeout = 2000000;
		e.session_timeout = 0;
	}

	// The event means this session: all of its keys, or some.
	void aim(vek_event &e, const user_info &s)
	{
		share(e, s, {"service", "username", "unique", "sta_mac", "ssid_profile_name"});
		e.event_flag &= ~VEK_EVENT_FLAG_USED_IPV6_ADDR;
		e.ip6 = in6_addr{};
		const bool roams = e.event == VEK_EVENT_UPDATE_ROAMING_STA_IP;
		if (!roams)
			e.ip = s.ip;
		if (any(s.ip6) && !roams) {
			e.ip6 = s.ip6;
			e.event_flag |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
		}
		if (phase == FILL || chance(30))
			return;
		const u32 dropped = below(phase == FULL ? 8 : 32);
		if (dropped & 1)
			*e.service = '\0';
		if (dropped & 2)
			*e.unique = '\0';
		if (roams)
			return;
		if (dropped & 4)
			e.event_flag &= ~VEK_EVENT_FLAG_USED_IPV6_ADDR;
		if (dropped & 8)
			*e.username = '\0';
		if (dropped & 16)
			e.ip = 0;
	}

	std::mt19937_64 random_;
};

// What the daemon did differently in this step, if anything.
string step(telling &told, generator &random, connection &asker, connection &subscriber, bool thorough)
{
	random.next(told);
	random.surroundings(told);
	vek_event event = random.event(told), expected = event;
	const string where =
	    "event " + std::to_string(event.event) + ", " + std::to_string(told.order.size()) + " sessions: ";
	told.out = {};
	const int status = told.handle(expected);
	const outcome &out = told.out;
	asker.expect(out.answer.size());
	subscriber.expect(out.copies.size() * sizeof(vek_event));
	announced.clear();
	fake.logs.clear();
	fake.commands.clear();
	fake.asked.clear();
	vek_begin_pass();
	const bool subscribes = event.event == 29 || event.event == 30;
	const int got = vek_dispatch_event(&event, (subscribes ? subscriber : asker).sock());
	const string answer = asker.take(), copies = subscriber.take();

	if (got != status)
		return where + "result " + std::to_string(got) + " instead of " + std::to_string(status);
	std::vector<vek_event> received(copies.size() / sizeof(vek_event));
	copies.copy(reinterpret_cast<char *>(received.data()), received.size() * sizeof(vek_event));
	for (const string &error :
	     {differ("announcement", announced, out.announced),
	      differ<vek_event>("record", {event}, {expected}), differ("copy", received, out.copies),
	      string(answer == out.answer && fake.asked == out.asked ? "" : "another answer or question"),
	      differ("log record", fake.logs, out.logs),
	      compare_state(told, thorough || told.order.size() < 64)})
		if (!error.empty())
			return where + error;
	for (const vek_event &one : out.announced)
		++told.met[std::to_string(one.event)];
	return "";
}

} // namespace

int main(int argc, char **argv)
{
	unsigned long seed = 1, steps = 20000, done = 0;
	for (int i = 1; i + 1 < argc; i += 2)
		(is(argv[i], "--seed") ? seed : steps) = std::strtoul(argv[i + 1], nullptr, 10);
	if (argc % 2 == 0 || (argc > 1 && !string(argv[1]).starts_with("--s"))) {
		std::fputs("usage: vek_model [--seed N] [--steps N]\n", stderr);
		return 2;
	}
	auto *running = new core; // which a run that failed leaves alone
	const auto told = std::make_unique<telling>();
	generator random(seed);
	string difference;
	{
		connection asker, subscriber;
		while (difference.empty() && done < steps) {
			++done;
			difference = step(*told, random, asker, subscriber, done % 16 == 0);
		}
	}
	std::printf("vek_model --seed %lu --steps %lu: %s\n", seed, done,
		    difference.empty() ? "agrees" : difference.c_str());
	if (!difference.empty())
		return 1;
	delete running;
	for (const char *what : {"full", "empty", "refused", "displaced", "cleaned up", "ended directly", "1",
				 "3", "4", "5", "6", "7", "8", "15", "16"}) {
		std::printf("%s: %u  ", what, told->met[what]);
		if (told->met[what] == 0 && steps >= 20000) {
			std::puts("\nthe run missed something that it should meet");
			return 1;
		}
	}
	std::puts("");
	return 0;
}
