// logout.cpp: sessions end because a service says so: the logout and the web logout, with the station filters
// of cloud-managed devices. After a removal the event is completed with what the session was, because the
// handlers behind the user database never look into it. Also here: moving a session to another IPv4 address.
#include <algorithm>
#include <cstring>

#include "misc.h"
#include "qzkit.h"
#include "userdb.h"
#include "vek_event.h"

namespace {

bool same_text(const char *a, const char *b) { return std::strcmp(a, b) == 0; }

// The two filters that both logouts know.
bool passes_profile_filters(const vek_event *event, const user_info *uinfo)
{
	if (event->event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE)
		return userdb_handle_match_mac_and_ssidprofile(
		    event->sta_mac, uinfo->sta_mac, event->ssid_profile_name, uinfo->ssid_profile_name);
	if (event->event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_SSIDPROFILE)
		return userdb_handle_match_ssidprofile(event->ssid_profile_name, uinfo->ssid_profile_name);
	return true;
}

bool passes_web_filters(const vek_event *event, const user_info *uinfo)
{
	constexpr std::uint32_t profile_filters =
	    VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE | VEK_EVENT_FLAG_USER_LOGOUT_MATCH_SSIDPROFILE;
	if (!(event->event_flag & profile_filters) &&
	    event->event_flag & VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC)
		return same_text(event->sta_mac, uinfo->sta_mac);
	return passes_profile_filters(event, uinfo);
}

// What both logouts tell the later handlers of the session that was removed.
void copy_back(vek_event *event, const user_info *uinfo)
{
	event->dst_ip = uinfo->dst_ip;
	event->tunnel_ip = uinfo->tunnel_ip;
	if (event->event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR) {
		event->dst_ip6 = uinfo->dst_ip6;
		event->tunnel_ip6 = uinfo->tunnel_ip6;
	}
	copy_text(event->service, uinfo->service);
	copy_text(event->real_username, uinfo->username);
	copy_text(event->username, uinfo->virtual_username);
	copy_text(event->unique, uinfo->unique);
	event->attribute = uinfo->attribute;
	event->type = uinfo->type;
	if (same_text(event->service, SERVICE_NAME_SSH))
		copy_text(event->ssh_tty, uinfo->ssh_tty);
	if (is_cloud)
		copy_text(event->sta_mac, uinfo->sta_mac);
}

void copy_back_logout(vek_event *event, const user_info *uinfo)
{
	copy_back(event, uinfo);
	if (event->event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR)
		event->ip6 = uinfo->ip6;
	else
		event->ip = uinfo->ip;
}

void copy_back_web_logout(vek_event *event, const user_info *uinfo)
{
	copy_back(event, uinfo);
	event->ip = uinfo->ip;
	if (!is_cloud)
		return;
	copy_portal_user(event, uinfo);
	copy_station(event, uinfo);
}

// A session without a station belongs to whatever station the event names.
bool is_roaming_session(const vek_event *event, const user_info *uinfo)
{
	return same_text(uinfo->username, event->username) &&
	       std::strncmp(event->sta_mac, uinfo->sta_mac, std::strlen(uinfo->sta_mac)) == 0 &&
	       same_text(uinfo->ssid_profile_name, event->ssid_profile_name);
}

} // namespace

int userdb_handle_match_mac_and_ssidprofile(const char *event_mac, const char *session_mac,
					    const char *event_profile, const char *session_profile)
{
	return session_mac != nullptr && session_profile != nullptr && *event_mac != '\0' &&
	       *session_mac != '\0' && same_text(event_mac, session_mac) &&
	       userdb_handle_match_ssidprofile(event_profile, session_profile);
}

int userdb_handle_match_ssidprofile(const char *event_profile, const char *session_profile)
{
	return session_profile != nullptr && *event_profile != '\0' && *session_profile != '\0' &&
	       same_text(event_profile, session_profile);
}

int userdb_handle_logout(vek_event *event, vek_socket *)
{
	vek_refresh_cloud(is_cloud);
	if (event->event_flag & VEK_EVENT_FLAG_SKIP_USER_LOGOUT)
		return VEK_CONTINUE_DISPATCH;
	const int found = find_user_list_of_event(event);
	if (found <= 0)
		return VEK_STOP_DISPATCH;
	for (int i = 0; i < found; i++) {
		user_list *ulist = ulist_array[i];
		if (is_cloud && !passes_profile_filters(event, ulist->uinfo))
			continue;
		userdb_end_session(ulist);
		copy_back_logout(event, ulist->uinfo);
	}
	return VEK_CONTINUE_DISPATCH;
}

int userdb_handle_web_logout(vek_event *event, vek_socket *)
{
	vek_refresh_cloud(is_cloud);
	const int found = find_user_list_of_event(event);
	for (int i = 0; i < found; i++) {
		user_list *ulist = ulist_array[i];
		event->event_flag |= VEK_EVENT_FLAG_SKIP_USER_LOGOUT;
		event->event = is_cloud ? VEK_EVENT_USER_LOGOUT2 : VEK_EVENT_USER_LOGOUT;
		if (is_cloud && !passes_web_filters(event, ulist->uinfo))
			continue;
		userdb_end_session(ulist);
		copy_back_web_logout(event, ulist->uinfo);
		vek_dispatch_event(event, nullptr);
	}
	return VEK_STOP_DISPATCH;
}

bool userdb_logout_would_end(const vek_event *event, const user_list *ulist)
{
	vek_refresh_cloud(is_cloud);
	if (is_cloud && !passes_profile_filters(event, ulist->uinfo))
		return false;
	const int found = find_user_list_of_event(event);
	return std::find(ulist_array, ulist_array + found, ulist) != ulist_array + found;
}

void userdb_log_out(user_list *ulist, vek_event *event)
{
	const user_info *uinfo = ulist->uinfo;
	event->event_flag = VEK_EVENT_FLAG_SKIP_USER_LOGOUT;
	if (!IN6_IS_ADDR_UNSPECIFIED(&uinfo->ip6)) {
		event->event_flag |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
		event->ip6 = uinfo->ip6;
	}
	userdb_end_session(ulist);
	copy_back_web_logout(event, uinfo);
	vek_dispatch_event(event, nullptr);
}

int userdb_handle_adjust_avl_tree_and_sameip_list(vek_event *event, avl_table *tree)
{
	if (event == nullptr || tree == nullptr)
		return 0;
	avl_traverser trav;
	for (void *item = avl_t_first(&trav, tree); item != nullptr; item = avl_t_next(&trav)) {
		auto *representative = static_cast<user_list *>(item);
		list_head *const own = &representative->same_ip_list;
		list_head *link = own;
		do {
			auto *ulist = list_entry<&user_list::same_ip_list>(link);
			if (is_roaming_session(event, ulist->uinfo))
				return userdb_move_ip(ulist, event->ip) == 0;
			link = link->next;
		} while (link != own);
	}
	return 0;
}
