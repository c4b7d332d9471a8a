// portal.cpp: the portal clean-up, for a login that finds the table of a cloud-managed device full: asks the device's
// station database which stations are still there, and logs out the oldest one that is not.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "child.h"
#include "daemon.h"
#include "misc.h"
#include "rbtree.h"
#include "rrm.h"
#include "userdb.h"
#include "vek_event.h"

// Of the walk; the choice stays until the next one.
static int count;                      // cursor into the station list
static int flag;                       // a station has been chosen
static login_user_info_s del_usr_info; // its record
static std::int32_t del_usr_from;

namespace {

constexpr int DATABASE_LIMIT_MS = 3000; // of both of its commands, which run at once
constinit vek_backoff database_stalled;

const char *service_of_method(const char *method)
{
	static constexpr struct {
		const char *method, *service;
	} services[] = {
	    {AUTH_METHOD_CAPTIVE_PORTAL_SOCIAL_LOGIN_FB, SERVICE_NAME_SOCIAL_LOGIN_FB},
	    {AUTH_METHOD_CAPTIVE_PORTAL_FB_WIFI_LOGIN, SERVICE_NAME_FB_WIFI_LOGIN},
	    {AUTH_METHOD_CAPTIVE_PORTAL_GOOGLE_AUTHENTICATOR_1X, SERVICE_NAME_GOOGLE_AUTHENTICATOR},
	    {AUTH_METHOD_CAPTIVE_PORTAL_EMAIL_VERIFICATION_DPPSK, SERVICE_NAME_EMAIL_VERIFICATION},
	};
	for (const auto &known : services)
		if (std::strcmp(known.method, method) == 0)
			return known.service;
	return SERVICE_NAME_CAPTIVE_PORTAL;
}

// The list counts from its start, one entry per station of the tree that lines up, and is empty past its end.
bool lines_up(const login_user_info_s *sta, const char list[][STATION_LIST_MAC])
{
	const char *entry = count < STATION_LIST_ENTRIES ? list[count] : "";
	return list[0][0] != '\0' && std::strncmp(sta->mac_addr, entry, STATION_LIST_MAC) == 0;
}

vek_event logout_of_chosen()
{
	vek_event event = vek_new_event(VEK_EVENT_USER_LOGOUT);
	copy_text(event.service, service_of_method(del_usr_info.portal_method));
	copy_text(event.username, del_usr_info.username);
	copy_text(event.real_username, del_usr_info.username);
	copy_text(event.sta_mac, del_usr_info.mac_addr);
	copy_text(event.ssid_name, del_usr_info.ssid_name);
	copy_text(event.ssid_profile_name, del_usr_info.ssid_profile_name);
	event.notify_cc = DO_NOT_NOTIFY_CC;
	event.type = USER_TYPE;
	event.event_flag = VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE;
	event.usr_from = del_usr_from;
	return event;
}

bool is_in_tree(const struct rb_root *root, const rb_node_t *wanted)
{
	rb_node_t *node = rb_first(root);
	while (node && node != wanted)
		node = rb_next(node);
	return node != nullptr;
}

} // namespace

void find_earlist_portal_user(struct rb_root *root, const char redis_mac[][STATION_LIST_MAC])
{
	if (!root)
		return;
	count = 0;
	flag = 0;
	del_usr_info = {};
	rb_node_t *chosen = nullptr;
	for (rb_node_t *node = rb_first(root); node && !flag; node = rb_next(node)) {
		if (lines_up(node->user_info, redis_mac)) {
			count++;
			continue;
		}
		flag = 1;
		chosen = node;
		del_usr_info = *node->user_info;
		del_usr_from = node->usr_from;
	}
	if (!flag)
		return;

	vek_event event = logout_of_chosen();
	user_list *session = userdb_session_of(chosen);
	// A logout may not find the session: its MAC or profile is empty, or its service and method disagree. It
	// would then end another of the account, or nobody, and the clean-up choose the same station for ever.
	if (session && !userdb_logout_would_end(&event, session))
		return userdb_log_out(session, &event);
	vek_dispatch_event(&event, nullptr);
	const std::lock_guard lock(userdb_lock);
	if (is_in_tree(root, chosen))
		rb_delete_station(root, chosen);
}

bool portal_clean_up()
{
	if (database_stalled.active())
		return false;
	char device_mac[32]{}, table[64];
	rrm_get_common_mac(device_mac, sizeof device_mac);
	device_mac[sizeof device_mac - 1] = '\0';
	// It becomes part of a command line.
	if (device_mac[std::strspn(device_mac, "0123456789abcdefABCDEF:.-")] != '\0')
		return false;
	std::snprintf(table, sizeof table, "%s-%s", STA_STATISTIC_TABLE_PREFIX, device_mac);

	char mac_command[512], time_command[512];
	std::snprintf(mac_command, sizeof mac_command,
		      "/usr/local/bin/dbctl -t %s -b AUTH_TIME -o | awk '{print $2}'", table);
	std::snprintf(time_command, sizeof time_command,
		      "/usr/local/bin/dbctl -t %s -b AUTH_TIME -f AUTH_TIME -o | awk '{print $2}'", table);
	vek_pipe macs, times;
	if (!macs.start(mac_command, DATABASE_LIMIT_MS) || !times.start(time_command, DATABASE_LIMIT_MS))
		return false;

	char list[STATION_LIST_ENTRIES][STATION_LIST_MAC]{};
	char mac[32]{}, auth_time[32]{};
	int entries = 0;
	while (entries < STATION_LIST_ENTRIES && macs.read_line(mac, sizeof mac)) {
		times.read_line(auth_time, sizeof auth_time); // at its end the last line stands
		if (check_is_mac(mac) == 0 && std::strcmp(auth_time, "\n") != 0)
			copy_text(list[entries++], mac);
	}
	const bool whole = !macs.timed_out() && !times.timed_out();
	macs.close();
	times.close();
	if (macs.timed_out() || times.timed_out())
		database_stalled.start();
	// Half an answer would name a station that is still there.
	if (whole)
		find_earlist_portal_user(rb_root, list);
	return whole;
}

void kickout_not_in_redis_portal_user() { portal_clean_up(); }
