// timers.cpp: sessions end because a deadline passed, and what moves deadlines: lease, re-authentication and
// idle updates, traffic, keep-alives, and a change of the shared configuration.
#include <cstring>

#include "daemon.h"
#include "misc.h"
#include "qzkit.h"
#include "userdb.h"
#include "vek_event.h"

namespace {

const deadline_list &reauth_deadlines = userdb_deadline_lists[DEADLINE_REAUTH];
const deadline_list &lease_deadlines = userdb_deadline_lists[DEADLINE_LEASE];
const deadline_list &idle_deadlines = userdb_deadline_lists[DEADLINE_IDLE];
const deadline_list &session_deadlines = userdb_deadline_lists[DEADLINE_SESSION];

std::uint64_t in_minutes(std::uint32_t minutes) { return seconds_since_boot + minutes * 60U; }

// ---- expiry ----

// What the announcement of an expired session carries beside its identity.
enum carried : unsigned {
	CARRY_NOTHING = 0,
	CARRY_ADDRESS_FAMILY = 1, // the session's flags and IPv6 addresses
	CARRY_PORTAL = 2,         // cloud: the portal user
	CARRY_STATION = 4,        // cloud: the station, and who need not be notified
};

struct expiry {
	const deadline_list &list;
	int event;
	int sub_event;
	unsigned carries;
};

void announce(const user_info *uinfo, const expiry &kind)
{
	vek_event event = vek_new_event(kind.event);
	event.sub_event = kind.sub_event;
	copy_text(event.service, uinfo->service);
	copy_text(event.unique, uinfo->unique);
	copy_text(event.real_username, uinfo->username);
	copy_text(event.username, uinfo->virtual_username);
	event.ip = uinfo->ip;
	event.dst_ip = uinfo->dst_ip;
	event.tunnel_ip = uinfo->tunnel_ip;
	event.attribute = uinfo->attribute;
	event.type = uinfo->type;
	if (kind.carries & CARRY_ADDRESS_FAMILY) {
		event.event_flag = uinfo->usr_flags;
		if (uinfo->usr_flags & VEK_EVENT_FLAG_USED_IPV6_ADDR) {
			event.ip6 = uinfo->ip6;
			event.dst_ip6 = uinfo->dst_ip6;
		}
	}
	if (is_cloud && kind.carries & CARRY_PORTAL)
		copy_portal_user(&event, uinfo);
	if (is_cloud && kind.carries & CARRY_STATION) {
		copy_station(&event, uinfo);
		if (uinfo->usr_from == FOREIGN_AUTHENTICATED_USER)
			event.notify_cc = DO_NOT_NOTIFY_CC;
	}
	vek_dispatch_event(&event, nullptr);
}

// Ends every session at the front of the list whose deadline has come. Each leaves the list before it is
// announced, so the front is always the next.
int expire(const expiry &kind)
{
	const deadline_list &list = kind.list;
	while (list.head->next != list.head) {
		user_list *ulist = list.entry(list.head->next);
		if (ulist->uinfo->*list.deadline > seconds_since_boot)
			break;
		userdb_end_session(ulist);
		announce(ulist->uinfo, kind);
	}
	return VEK_CONTINUE_DISPATCH;
}

// ---- updates ----

void update_lease(user_list *ulist, vek_event *event)
{
	user_info *uinfo = ulist->uinfo;
	// Negative: the session's own length, which then holds for the event's other sessions too.
	if (static_cast<std::int32_t>(event->update.lease_time) < 0)
		event->update.lease_time = uinfo->lease_minute;
	const std::uint32_t minutes = event->update.lease_time;
	if (minutes == 0 && uinfo->lease_minute == 0)
		return;
	uinfo->lease_time = minutes != 0 ? in_minutes(minutes) : 0;
	uinfo->lease_minute = minutes;
	userdb_place_deadline(lease_deadlines, ulist);
}

void update_reauth(user_list *ulist, std::uint32_t minutes)
{
	user_info *uinfo = ulist->uinfo;
	if (minutes == 0 && uinfo->reauth_minute == 0)
		return;
	uinfo->reauth_time = minutes != 0 ? in_minutes(minutes) : 0;
	uinfo->reauth_minute = minutes;
	userdb_place_deadline(reauth_deadlines, ulist);
}

// The idle deadline that a session has from now on; 0 when nothing asks for one.
std::uint64_t idle_deadline(const user_info *uinfo, bool detection)
{
	if (uinfo->idle_timeout_form_acct_flag == 1)
		return seconds_since_boot + uinfo->idle_timeout;
	return detection ? in_minutes(uconf->max_idle_minute) : 0;
}

int find_by_address(const vek_event *event)
{
	if (event->event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR)
		return find_user_list(nullptr, nullptr, 0, &event->ip6, nullptr, VEK_HANDLE_FLAG_IPV6_ADDR);
	if (event->ip == ADDR_NAME_CONSOLE)
		return find_user_list(nullptr, nullptr, 0, nullptr, "console", 0);
	return find_user_list(nullptr, nullptr, event->ip, nullptr, nullptr, 0);
}

} // namespace

int userdb_handle_lease_timeout(vek_event *, vek_socket *)
{
	vek_refresh_cloud(is_cloud);
	return expire({lease_deadlines, VEK_EVENT_USER_LEASE_TIMEOUT, 0,
		       CARRY_ADDRESS_FAMILY | CARRY_PORTAL | CARRY_STATION});
}

int userdb_handle_session_timeout(vek_event *, vek_socket *)
{
	vek_refresh_cloud(is_cloud);
	return expire(
	    {session_deadlines, VEK_EVENT_USER_LOGOUT2, VEK_EVENT_USER_SESSION_TIMEOUT, CARRY_STATION});
}

int userdb_handle_reauth_timeout(vek_event *, vek_socket *)
{
	return expire({reauth_deadlines, VEK_EVENT_USER_REAUTH_TIMEOUT, 0, CARRY_ADDRESS_FAMILY});
}

int userdb_handle_idle_timeout(vek_event *, vek_socket *)
{
	return expire({idle_deadlines, VEK_EVENT_USER_IDLE_TIMEOUT, 0, CARRY_ADDRESS_FAMILY});
}

int userdb_handle_update_lease_timeout(vek_event *event, vek_socket *)
{
	const int found = find_user_list_of_event(event);
	for (int i = 0; i < found; i++) {
		const user_info *uinfo = ulist_array[i]->uinfo;
		if (is_cloud && event->event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE &&
		    !userdb_handle_match_mac_and_ssidprofile(
			event->sta_mac, uinfo->sta_mac, event->ssid_profile_name, uinfo->ssid_profile_name))
			continue;
		update_lease(ulist_array[i], event);
	}
	return found > 0 ? VEK_CONTINUE_DISPATCH : VEK_STOP_DISPATCH;
}

int userdb_handle_update_reauth_timeout(vek_event *event, vek_socket *)
{
	const int found = find_user_list_of_event(event);
	for (int i = 0; i < found; i++)
		update_reauth(ulist_array[i], event->update.reauth_time);
	return found > 0 ? VEK_CONTINUE_DISPATCH : VEK_STOP_DISPATCH;
}

int userdb_handle_update_idle_timeout(vek_event *event, vek_socket *)
{
	vek_event traffic = vek_new_event(VEK_EVENT_USER_TRAFFIC);
	if (event->ip != 0) {
		traffic.ip = event->ip;
	} else if (!IN6_IS_ADDR_UNSPECIFIED(&event->ip6)) {
		traffic.event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
		traffic.ip6 = event->ip6;
	}
	vek_dispatch_event(&traffic, nullptr);
	return VEK_CONTINUE_DISPATCH;
}

int userdb_handle_user_traffic(vek_event *event, vek_socket *)
{
	const bool detection = uconf != nullptr && uconf->enable_idle_detection != 0;
	const int found = find_by_address(event);
	for (int i = 0; i < found; i++) {
		user_list *ulist = ulist_array[i];
		if (!list_linked(&ulist->idle_list) || skip_idle_detection(ulist->uinfo))
			continue;
		// 0 when detection was switched off and the signal is still to come: the session leaves the
		// list.
		ulist->uinfo->idle_time = idle_deadline(ulist->uinfo, detection);
		userdb_place_deadline(idle_deadlines, ulist);
	}
	return found > 0 ? VEK_CONTINUE_DISPATCH : VEK_STOP_DISPATCH;
}

int userdb_handle_alive(vek_event *event, vek_socket *)
{
	const int found = find_user_list_of_event(event);
	for (int i = 0; i < found; i++) {
		user_list *ulist = ulist_array[i];
		if (ulist->uinfo->lease_minute == 0)
			continue;
		ulist->uinfo->lease_time = in_minutes(ulist->uinfo->lease_minute);
		userdb_place_deadline(lease_deadlines, ulist);
	}
	return found > 0 ? VEK_CONTINUE_DISPATCH : VEK_STOP_DISPATCH;
}

int userdb_handle_config_change(vek_event *, vek_socket *)
{
	while (user_list *ulist = userdb_idle_list.front()) {
		ulist->uinfo->idle_time = 0;
		list_del(&ulist->idle_list);
	}
	// Here only 1 means on; other programs may write anything.
	const bool detection = uconf != nullptr && uconf->enable_idle_detection == 1;
	for (user_list *ulist : userdb_use_list) {
		if (skip_idle_detection(ulist->uinfo))
			continue;
		ulist->uinfo->idle_time = idle_deadline(ulist->uinfo, detection);
		// In session order, which is not the order of own time-outs; traffic sorts a session in
		// again.
		if (ulist->uinfo->idle_time != 0)
			userdb_idle_list.push_back(ulist);
	}
	return VEK_CONTINUE_DISPATCH;
}
