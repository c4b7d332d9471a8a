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
#include <numeric>
#include <random>
#include <ranges>
#include <span>
#include <string_view>
#include <vector>

#include "core.h"
#include "vek_fields.h"

namespace {

using std::string;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

// The bytes of a field.
template <class Record> std::span<char> at(Record &record, std::string_view name)
{
	std::span<const vek_field> fields = user_info_fields;
	if constexpr (std::is_same_v<Record, vek_event>)
		fields = vek_event_fields;
	const vek_field &field = *std::ranges::find(fields, name, &vek_field::name);
	return {reinterpret_cast<char *>(&record) + field.offset, field.size};
}
// Copies the fields of these names, which are as long in both.
template <class To, class From> void share(To &to, From from, std::initializer_list<const char *> names)
{
	if constexpr (std::is_same_v<From, vek_event>)
		from = plain(from);
	for (const char *name : names)
		std::ranges::copy(at(from, name), at(to, name).begin());
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
bool any(const in6_addr &ip6) { return !IN6_IS_ADDR_UNSPECIFIED(&ip6); }
bool is6(const vek_event &event) { return (event.event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR) != 0; }

enum { NAME, IP, IP6 };                // indexes
enum { REAUTH, LEASE, IDLE, SESSION }; // deadlines
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
		bool station = false;
		u64 seq[3]{};      // when it joined its key's others: name, IPv4, IPv6
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

	telling() : unused(VEK_MAX_USERS) { std::iota(unused.begin(), unused.end(), 0); }

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
	// By the keys that a query or an event names, in the order of the answer.
	std::vector<int> find(const vek_event &q) const
	{
		const int by = is6(q) ? IP6 : q.ip != 0 ? IP : NAME;
		const bool by_mac = by == NAME && *q.username == '\0' && contains_mac(q.unique);
		std::vector<int> found;
		std::ranges::copy_if(order, std::back_inserter(found), [&](int slot) {
			const user_info &s = records[slot];
			return (by != IP6 || IN6_ARE_ADDR_EQUAL(&s.ip6, &q.ip6)) &&
			       (by != IP || s.ip == q.ip) &&
			       (*q.username == '\0' || is(s.username, q.username)) &&
			       (*q.service == '\0' || is(s.service, q.service)) &&
			       (*q.unique == '\0' || is(by_mac ? s.sta_mac : s.unique, q.unique));
		});
		return sorted(by, found);
	}
	std::vector<int> stations() const
	{
		std::vector<int> all;
		std::ranges::copy_if(order, std::back_inserter(all),
				     [&](int slot) { return slots[slot].station; });
		std::ranges::sort(all, {}, [&](int slot) {
			return std::pair(atoi(slots[slot].login.auth_time), slots[slot].seq[NAME]);
		});
		return all;
	}

	// ---- lists ----

	// Behind the last that is due no later; a list need not ascend.
	void place(int list, int slot)
	{
		std::vector<int> &all = lists[list];
		std::erase(all, slot);
		const u64 deadline = records[slot].*deadline_of[list];
		const auto earlier = std::find_if(all.rbegin(), all.rend(), [&](int other) {
			return records[other].*deadline_of[list] <= deadline;
		});
		if (deadline != 0)
			all.insert(earlier.base(), slot);
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
		slots[slot].station = false;
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
		copy_text(entry.username, e.real_username);
		copy_text(entry.note, (string("Account: ") + e.real_username).c_str());
		copy_text(entry.message, text.c_str());
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
		const bool timeout = e.event >= 6, login = e.event == 1 || e.event == 3, v6 = is6(e);
		const u32 src = e.ip == ~0u ? 0 : e.ip, dst = e.dst_ip == ~0u ? 0 : e.dst_ip;
		const char *const types[] = {"Administrator", "User", "Guest", "Ext-User", "Limited-Admin"};
		const string who =
		    log_cloud && !timeout && is(e.real_username, "undefined") ? "N/A" : e.real_username;
		string from;
		if (v6 && !login && !timeout)
			from = " (IP: " + (any(e.ip6) ? " [" + text_of(e.ip6) + "] " : "") + ")";
		else if (log_cloud && (login || !v6))
			from = string(" (MAC: ") + (*e.sta_mac ? e.sta_mac : "N/A") +
			       (v6 ? "" : ", IP: " + text_of(src)) + ")";
		const string service = is(e.service, "802.1x")     ? "802.1X"
				       : is(e.service, "mac-auth") ? "MAC auth"
								   : e.service;
		const char *const timeouts[] = {"re-auth", "lease", "idle"};
		const string what = login     ? " login."
				    : timeout ? string(" logout (") + timeouts[e.event - 6] + " timeout)."
					      : string(" logout") +
						    (e.sub_event == 18   ? " (force-logout)"
						     : e.sub_event == 33 ? " (config change)"
						     : e.sub_event == 9  ? " (sessoin timeout)"
									 : "") +
						    (v6 ? "." : "");
		log(5, e, v6, src, dst,
		    string(e.type < 5 ? types[e.type] : "User") + " " + who + from + " " + service + what);
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
				vek_event logout = vek_new_event(VEK_EVENT_USER_LOGOUT);
				logout.event_flag = o.usr_flags;
				share(logout, o,
				      {"service", "username", "unique", is6(logout) ? "ip6" : "ip"});
				if (*logout.username || *logout.unique || logout.ip != 0 || is6(logout))
					handle(logout);
				else {
					logout.event_flag = VEK_EVENT_FLAG_SKIP_USER_LOGOUT;
					log_out(logout, oldest, true);
					announce(logout);
				}
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
			copy_text(e.auth_time, std::to_string(fake.wall_clock).c_str());
		share(s, e, {"service", "unique", "auth_time", "type"});
		copy_text(s.username, e.real_username);
		copy_text(s.virtual_username, e.username);
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
			std::memcpy(&s.reauth_minute, &e.default_reauth_time, sizeof(u32));
			std::memcpy(&s.lease_minute, &e.default_lease_time, sizeof(u32));
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
		std::ranges::fill(own.seq, ++seq);
		for (int list : {REAUTH, LEASE, IDLE, SESSION})
			place(list, slot);
		own.station = is_portal(e.service);
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
			++met["cleaned up"];
			refresh(cloud);
			if (passes(logout, records[slot], false) && std::ranges::count(find(logout), slot)) {
				handle(logout);
				return;
			}
			++met["ended directly"];
			logout.event_flag = VEK_EVENT_FLAG_SKIP_USER_LOGOUT;
			if (any(records[slot].ip6))
				logout.event_flag |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
			share(logout, records[slot], {"ip6"});
			log_out(logout, slot, true);
			announce(logout);
			return;
		}
	}

	// ---- logout ----

	bool passes(const vek_event &e, const user_info &s, bool web) const
	{
		const u32 flags = cloud ? e.event_flag : 0;
		const bool mac = is(e.sta_mac, s.sta_mac),
			   profile = *s.ssid_profile_name && is(e.ssid_profile_name, s.ssid_profile_name);
		if (flags & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE)
			return *s.sta_mac && mac && profile;
		if (flags & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_SSIDPROFILE)
			return profile;
		return mac || !web || !(flags & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC);
	}
	// Into an event about a session's end: who it was.
	static void copy_user(vek_event &e, const user_info &s)
	{
		share(e, s, {"service", "unique", "dst_ip", "attribute", "type"});
		copy_text(e.real_username, s.username);
		copy_text(e.username, s.virtual_username);
	}
	static void copy_portal(vek_event &e, const user_info &s, bool social)
	{
		if (social)
			share(e, s, {"method", "locale", "gender", "age", "ssid_name"});
		share(e, s, {"ssid_profile_name", "ssid_vap_iface", "sta_mac", "usr_from"});
	}
	void log_out(vek_event &e, int slot, bool web)
	{
		const user_info &s = records[slot];
		end(slot);
		if (is6(e))
			share(e, s, {"dst_ip6", "tunnel_ip6", web ? "dst_ip6" : "ip6"});
		if (web || !is6(e))
			e.ip = s.ip;
		e.tunnel_ip = s.tunnel_ip;
		copy_user(e, s);
		if (is(s.service, "ssh"))
			share(e, s, {"ssh_tty"});
		if (cloud)
			share(e, s, {"sta_mac"});
		if (cloud && web)
			copy_portal(e, s, true);
	}
	int logout(vek_event &e)
	{
		refresh(cloud);
		if (e.event_flag & VEK_EVENT_FLAG_SKIP_USER_LOGOUT)
			return 0;
		const std::vector<int> found = find(e);
		for (int slot : found)
			if (passes(e, records[slot], false))
				log_out(e, slot, false);
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
			log_out(e, slot, true);
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
			const user_info &s = records[slot];
			end(slot);
			vek_event e = vek_new_event(number);
			copy_user(e, s);
			e.ip = s.ip;
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
	u64 idle_from_now(const user_info &s) const
	{
		return s.idle_timeout_form_acct_flag == 1 ? now() + s.idle_timeout
		       : idle_enabled                     ? now() + idle_minutes * 60
							  : 0;
	}
	int traffic(const vek_event &e)
	{
		vek_event query = vek_new_event(0);
		if (!is6(e) && e.ip == ADDR_NAME_CONSOLE)
			copy_text(query.unique, "console");
		else
			share(query, e, {"ip", "ip6", "event_flag"});
		return update(find(query), [&](user_info &s, int slot) {
			if (s.idle_time == 0 || exempt(s))
				return;
			s.idle_time = idle_from_now(s);
			place(IDLE, slot);
		});
	}
	void config_change()
	{
		for (int slot : lists[IDLE])
			records[slot].idle_time = 0;
		lists[IDLE].clear();
		for (int slot : order | std::views::reverse) {
			user_info &s = records[slot];
			if (exempt(s) || (s.idle_timeout_form_acct_flag != 1 && idle_enabled != 1))
				continue;
			s.idle_time = idle_from_now(s);
			lists[IDLE].push_back(slot);
		}
	}

	// ---- the rest ----

	// 1 when there is none to be changed.
	template <class Change> int update(const std::vector<int> &found, Change change)
	{
		for (int slot : found)
			change(records[slot], slot);
		return found.empty();
	}
	int update_lease(vek_event &e)
	{
		return update(find(e), [&](user_info &s, int slot) {
			if (cloud && (e.event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE) &&
			    !passes(e, s, false))
				return;
			if (static_cast<std::int32_t>(e.update.lease_time) < 0)
				e.update.lease_time = s.lease_minute;
			if (e.update.lease_time != 0 || s.lease_minute != 0)
				arm(slot, LEASE, s.lease_minute = e.update.lease_time);
		});
	}
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
		vek_event header = vek_new_event(VEK_EVENT_QUERY_RESULT);
		const bool first = e.event == VEK_EVENT_APP_QUERY_FROM_FIRST;
		if (e.event == VEK_EVENT_APP_QUERY_NAME)
			share(header, e, {"username"});
		if (first || e.event == VEK_EVENT_APP_QUERY_FROM) {
			share(header, e, {is6(e) ? "ip6" : "ip"});
			header.event_flag = e.event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR;
		}
		std::vector<int> found = find(header);
		if (first && !found.empty())
			found.resize(1);
		header.count = static_cast<int>(found.size());
		const auto append = [&](const auto &record) {
			out.answer.append(reinterpret_cast<const char *>(&record), sizeof(record));
		};
		append(header);
		if (e.event == VEK_EVENT_APP_QUERY_TOTAL_USER_NUM)
			return append(header.count);
		for (int slot : found) {
			user_info &s = records[slot];
			if (any(s.ip6))
				s.usr_flags |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
			append(s);
		}
	}

	int handle(vek_event &e)
	{
		int stopped = 0;
		const auto update_by_ip = [&](auto change) {
			vek_event query = e;
			query.event_flag = 0;
			stopped = update(find(query), change);
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
			notice.event_flag = any(notice.ip6) ? VEK_EVENT_FLAG_USED_IPV6_ADDR : 0;
			traffic(notice);
			break;
		}
		case 21:
			stopped = update(find(e), [&](user_info &s, int slot) {
				if (e.update.reauth_time != 0 || s.reauth_minute != 0)
					arm(slot, REAUTH, s.reauth_minute = e.update.reauth_time);
			});
			break;
		case 22: roam(e); break;
		case 23:
			stopped = update(find(e), [&](user_info &s, int slot) {
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
			subscriptions++;
			break;
		case 30: subscriptions -= subscriptions > 0; break;
		case 31: expire(LEASE, 7), expire(SESSION, 5); break;
		case 32: expire(REAUTH, 6), expire(IDLE, 8); break;
		case 33: config_change(); break;
		case 36: update_by_ip([&](user_info &s, int) { share(s, e, {"accounting_status"}); }); break;
		case 37:
			update_by_ip([&](user_info &s, int) {
				if (is(s.radius_profile_name, e.old_radius_profile_name))
					share(s, e, {"radius_profile_name"});
			});
			break;
		case 38: update_by_ip([&](user_info &s, int) { share(s, e, {"ssh_tty"}); }); break;
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

// The first of the records that are not the same, if any. Of events only what is plain counts.
template <class Record>
string differ(const char *what, const std::vector<Record> &got, const std::vector<Record> &want)
{
	for (std::size_t i = 0; i < std::max(got.size(), want.size()); ++i) {
		if (i == got.size() || i == want.size())
			return string(what) + ": " + std::to_string(got.size()) + " instead of " +
			       std::to_string(want.size());
		Record a = got[i], b = want[i];
		if constexpr (std::is_same_v<Record, vek_event>)
			a = plain(a), b = plain(b);
		const char *x = reinterpret_cast<const char *>(&a), *y = reinterpret_cast<const char *>(&b);
		if (const auto at = std::mismatch(x, x + sizeof(a), y).first - x; at != sizeof(a))
			return string(what) + " " + std::to_string(i) + " differs at byte " +
			       std::to_string(at);
	}
	return "";
}

// Thorough: the order on every ring and the records of free slots, too.
string compare_state(const telling &told, bool thorough)
{
	if (string error = check_invariants(); !error.empty())
		return error;
	if (is_cloud != told.cloud)
		return "is_cloud";
	const auto entry = list_entry<&user_list::use_list>;
	if (slots_on(userdb_unuse_list.head(), entry) != told.unused ||
	    !std::ranges::equal(slots_on(userdb_use_list.head(), entry), told.order | std::views::reverse))
		return "free list or use list";
	for (int list : {REAUTH, LEASE, IDLE, SESSION})
		if (slots_on(userdb_deadline_lists[list].head, userdb_deadline_lists[list].entry) !=
		    told.lists[list])
			return "deadline list " + std::to_string(list);
	std::vector<int> stations;
	for (rb_node_t *node = rb_first(rb_root); node != nullptr; node = rb_next(node))
		stations.push_back(slot_of(userdb_session_of(node)));
	if (stations != told.stations())
		return "stations";
	for (int slot : told.order)
		if (std::memcmp(&userdb_uinfo[slot], &told.records[slot], sizeof(user_info)) != 0)
			return "session in slot " + std::to_string(slot);
	if (!thorough)
		return "";
	for (int slot : stations) {
		const vek_event &login = told.slots[slot].login;
		const rb_node_t &station = *userdb_ulist[slot].station;
		login_user_info_s info{};
		rb_get_sta_from_vek_event(&info, &login);
		if (station.usr_from != login.usr_from ||
		    std::memcmp(&info, station.user_info, sizeof(info)) != 0)
			return "station of slot " + std::to_string(slot);
	}
	for (int index : {NAME, IP, IP6})
		if (slots_of(userdb_indexes[index]) != told.sorted(index, told.order))
			return "order of index " + std::to_string(index);
	return std::memcmp(userdb_uinfo, told.records, sizeof(userdb_uinfo)) != 0 ? "a free slot's record"
										  : "";
}

// ---- random events ----

#define USERS                                                                                                \
	"admin|alice|bob|Alice|undefined||a-name-of-exactly-sixty-three-characters-which-fills-its-field-"
// Fields, and what is picked for each of them; "=" is its own name.
constexpr const char *CHOICES[][2] = {
    {"service",
     "console|telnet|ssh|http/https|ftp|802.1x|mac-auth|captive portal|captive portal|social login fb|"
     "fb wi-fi login|google authenticator|email verification|xauth|802.1X"},
    {"username", USERS},
    {"define_name", "|||||||||template"},
    {"unique", "|console|pts/1|pts/2|AA:BB:CC:DD:EE:01|tty-aa:bb:cc:dd:ee:02|7|"
	       "a-key-of-exactly-sixty-four-characters-which-fills-its-field-..."},
    {"radius_profile_name|old_radius_profile_name", "|radius-1|radius-2|a longer name"},
    {"locale|gender|age|ssid_name|ssid_vap_iface|ga_binding_token", "|="},
    {"ssh_tty", "|/dev/pts/7|3"},
    {"ssid_profile_name", "|SSID1|SSID1|SSID2"},
    {"auth_time", "|100|99|-5|1700000003|nonsense"},
    {"sta_mac", "|aa:bb:cc:dd:ee:01|aa:bb:cc:dd:ee:01|aa:bb:cc:dd:ee:02|AA:BB:CC:DD:EE:01|aa:bb|"
		"tty-aa:bb:cc:dd:ee:02"},
    {"ip", "10.0.0.1|10.0.0.1|11.0.0.1|10.0.0.2|0|-1"},
    {"dst_ip", "0|-1|192.0.2.1"},
    {"tunnel_ip", "0|0|10.9.9.9"},
    {"attribute", "0|1|2|3"},
    {"type", "0|1|1|1|2|3|4|5|200"},
    {"sub_event", "0|9|18|33|5"},
    {"update", "0|1|5|60|-1|-2147483648|1073741824"},
    {"match_flag", "0|52|999"},
    {"default_lease_time|default_reauth_time", "0|0|1|30|30000|30000|-1|-20|2147483647|-2147483648"},
    {"idle_timeout", "0|10|600|-1"},
    {"idle_timeout_form_acct_flag", "0|0|1|2"},
    {"session_timeout", "0|0|30|4000|-1"},
    {"accounting_status", "0|1|-1"},
    {"notify_cc|usr_from", "0|1|2"},
    {"ga_acct_status", "0|3"}};

std::vector<string> split(string list)
{
	std::vector<string> all;
	for (auto word : std::views::split(list, '|'))
		all.emplace_back(word.begin(), word.end());
	return all;
}

class generator {
public:
	explicit generator(unsigned long seed) : random_(seed)
	{
		for (auto &[fields, values] : CHOICES)
			for (const string &field : split(fields))
				choices_.emplace_back(field, split(values));
	}

	u32 below(std::size_t n) { return static_cast<u32>(random_() % n); }
	bool chance(u32 percent) { return below(100) < percent; }
	template <class T> T pick(std::initializer_list<T> list) { return list.begin()[below(list.size())]; }
	template <class T> const T &pick(const std::vector<T> &list) { return list[below(list.size())]; }

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
		if (e.event == 29 && told.subscriptions == 3) // each costs a copy of everything
			e.event = 30;
		fill(e);
		if (e.event > 2 && !told.order.empty() && (chance(70) || phase == FILL))
			aim(e, told.records[pick(told.order)]);
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
		for (int slot : all | std::views::take(below(all.size() + 1))) {
			fake.station_macs.push_back(string(told.slots[slot].login.sta_mac) + "\n");
			fake.station_times.emplace_back(chance(1) ? "\n" : "17\n");
		}
		if (chance(50)) {
			fake.station_macs.emplace_back("no address\n");
			fake.station_times.emplace_back("18\n");
		}
	}

private:
	static void set(vek_event &e, const string &name, const string &value)
	{
		const std::span<char> field = at(e, name);
		const std::int64_t number =
		    value.find('.') != value.npos ? ip4(value.c_str()) : atoll(value.c_str());
		if (field.size() <= sizeof(number))
			std::memcpy(field.data(), &number, field.size());
		else
			(value == "=" ? name : value).copy(field.data(), field.size() - 1);
	}

	void fill(vek_event &e)
	{
		for (const auto &[field, values] : choices_)
			set(e, field, pick(values));
		copy_text(e.real_username, chance(80) ? e.username : pick(split(USERS)).c_str());
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
		copy_text(e.method, method < std::size(METHODS) ? METHODS[method][0] : "");
		for (auto &[own, service] : METHODS)
			if (is(e.service, service) && chance(50))
				copy_text(e.method, own);
		if (chance(3)) { // nobody in particular
			*e.real_username = *e.unique = '\0';
			e.ip = 0;
		}
		if (phase != FILL && phase != FULL)
			return;
		// Many sessions, which stay.
		if (chance(70))
			copy_text(e.real_username, ("user" + std::to_string(below(300))).c_str());
		if (chance(70))
			copy_text(e.unique, ("key" + std::to_string(below(5000))).c_str());
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
		if (!roams) {
			share(e, s, {"ip", "ip6"});
			e.event_flag |= any(s.ip6) ? VEK_EVENT_FLAG_USED_IPV6_ADDR : 0;
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
	std::vector<std::pair<string, std::vector<string>>> choices_;
};

// What the daemon did differently in this step, if anything.
string step(telling &told, generator &random, client &asker, client &subscriber, bool thorough)
{
	random.next(told);
	random.surroundings(told);
	vek_event event = random.event(told), expected = event;
	const string where =
	    "event " + std::to_string(event.event) + ", " + std::to_string(told.order.size()) + " sessions: ";
	told.out = {};
	const int status = told.handle(expected);
	const outcome &out = told.out;
	announced.clear();
	fake.logs.clear();
	fake.commands.clear();
	fake.asked.clear();
	vek_begin_pass();
	const bool subscribes = event.event == 29 || event.event == 30;
	const int got = vek_dispatch_event(&event, (subscribes ? subscriber : asker).sock());
	const string answer = asker.take(), copies = subscriber.take();

	std::vector<vek_event> received(copies.size() / sizeof(vek_event));
	copies.copy(reinterpret_cast<char *>(received.data()), received.size() * sizeof(vek_event));
	for (const string &error :
	     {string(got == status ? "" : "result " + std::to_string(got)),
	      differ("announcement", announced, out.announced),
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
	core running;
	const auto told = std::make_unique<telling>();
	generator random(seed);
	client asker, subscriber;
	string difference;
	while (difference.empty() && done < steps) {
		++done;
		difference = step(*told, random, asker, subscriber, done % 16 == 0);
	}
	std::printf("vek_model --seed %lu --steps %lu: %s\n", seed, done,
		    difference.empty() ? "agrees" : difference.c_str());
	std::fflush(stdout);
	if (!difference.empty())
		std::_Exit(1); // what is broken cannot be ended
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
