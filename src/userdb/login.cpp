// login.cpp: a login event becomes a session: a slot is found, filled from the event and the user's profile,
// and entered everywhere. When the table is full, room is made for "admin" and, on a cloud-managed device,
// for portal users; everybody else is refused with an alert.
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "daemon.h"
#include "misc.h"
#include "qzkit.h"
#include "user_profile.h"
#include "userdb.h"
#include "vek_event.h"
#include "veklog.h"

namespace {

// Minutes count from now; a negative number is in the past, or wraps to never.
std::uint64_t deadline_in_minutes(std::int32_t minutes)
{
	return minutes == 0 ? 0 : seconds_since_boot + static_cast<std::uint64_t>(std::int64_t{minutes} * 60);
}

void refuse(const vek_event *event, const char *function)
{
	char hostname[255];
	if (gethostname(hostname, sizeof(hostname)) != 0)
		copy_text(hostname, "device");
	hostname[sizeof(hostname) - 1] = '\0';
	vek_log(QZLOG_PRI_ALERT, function, event->ip, event->dst_ip, event->real_username,
		"Failed login attempt to %s from %s (reach the maximum number of user)", hostname,
		event->service);
}

// The slot for a login that found the table full, or null.
user_list *make_room(const vek_event *event, const char *function)
{
	if (is_cloud == 1 && IsWebAuth(event->service)) {
		if (portal_clean_up())
			return userdb_unuse_list.front();
	}
	refuse(event, function);
	return nullptr;
}

void fill_identity(user_info *uinfo, vek_event *event, std::time_t wall_clock)
{
	std::memset(uinfo, 0, sizeof(*uinfo));
	copy_text(uinfo->service, event->service);
	copy_text(uinfo->username, event->real_username);
	copy_text(uinfo->unique, event->unique);
	copy_text(uinfo->virtual_username, event->username);
	if (event->usr_from == FOREIGN_AUTHENTICATED_USER) {
		copy_text(uinfo->auth_time, event->auth_time);
	} else {
		// Into zeros: whatever fits is terminated.
		std::to_chars(uinfo->auth_time, uinfo->auth_time + sizeof(uinfo->auth_time) - 1,
			      static_cast<long long>(wall_clock));
		copy_text(event->auth_time, uinfo->auth_time);
	}
	if (event->event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR) {
		uinfo->ip6 = event->ip6;
		uinfo->dst_ip6 = event->dst_ip6;
	} else {
		uinfo->ip = event->ip;
		uinfo->dst_ip = event->dst_ip;
	}
	uinfo->type = event->type;
	uinfo->login_time = seconds_since_boot;
}

void fill_terms(user_info *uinfo, const vek_event *event)
{
	uinfo->reauth_time = deadline_in_minutes(event->default_reauth_time);
	uinfo->lease_time = deadline_in_minutes(event->default_lease_time);
	uinfo->reauth_minute = static_cast<std::uint32_t>(event->default_reauth_time);
	uinfo->lease_minute = static_cast<std::uint32_t>(event->default_lease_time);
	copy_text(uinfo->radius_profile_name, event->radius_profile_name);
}

void fill_dot1x(user_info *uinfo, const vek_event *event)
{
	uinfo->dst_ip = 0;
	uinfo->access = uinfo->visibility = USER_PRIV;
	uinfo->attribute = VEK_USER_ATTRIBUTE_ACCESS;
	if (!is_cloud)
		return;
	fill_terms(uinfo, event);
	uinfo->accounting_status = event->accounting_status;
	copy_text(uinfo->ssid_name, event->ssid_name);
	copy_text(uinfo->ssid_vap_iface, event->ssid_vap_iface);
	copy_text(uinfo->sta_mac, event->sta_mac);
	uinfo->ga_acct_status = event->ga_acct_status;
	copy_text(uinfo->ga_binding_token, event->ga_binding_token);
}

bool fill_profile(user_info *uinfo, const vek_event *event)
{
	if (is_cloud && IsWebAuth(uinfo->service)) {
		copy_portal_user(uinfo, event);
		copy_station(uinfo, event);
	}

	user_profile_t profile;
	std::memset(&profile, 0, sizeof(profile));
	if (event->define_name[0] == '\0') {
		if (get_user_privilege_by_type_id(&profile, uinfo->type) < 0)
			return false;
	} else {
		profile.flag = static_cast<std::uint8_t>(event->match_flag);
		get_info_from_local(&profile, event->username, uinfo->type);
	}

	fill_terms(uinfo, event);
	if (!skip_idle_detection(uinfo) && uconf != nullptr && uconf->enable_idle_detection)
		uinfo->idle_time = seconds_since_boot + uconf->max_idle_minute * 60U;
	if (event->idle_timeout_form_acct_flag == 1) {
		uinfo->idle_timeout_form_acct_flag = 1;
		uinfo->idle_timeout = event->idle_timeout;
		uinfo->idle_time = seconds_since_boot + event->idle_timeout;
	}
	uinfo->access = static_cast<std::uint32_t>(profile.access);
	uinfo->visibility = static_cast<std::uint32_t>(profile.visibility);
	uinfo->attribute =
	    static_cast<std::uint8_t>((profile.remote_admin ? VEK_USER_ATTRIBUTE_MANAGEMENT : 0) |
				      (profile.remote_access ? VEK_USER_ATTRIBUTE_ACCESS : 0));
	if (event->session_timeout != 0)
		uinfo->session_timeout = seconds_since_boot + event->session_timeout;
	return true;
}

// The logout that ends the oldest session as if its service had reported it.
void displace(user_list *oldest)
{
	const user_info &uinfo = *oldest->uinfo;
	vek_event event = vek_new_event(VEK_EVENT_USER_LOGOUT);
	copy_text(event.service, uinfo.service);
	copy_text(event.username, uinfo.username);
	copy_text(event.unique, uinfo.unique);
	event.event_flag = uinfo.usr_flags;
	if (uinfo.usr_flags & VEK_EVENT_FLAG_USED_IPV6_ADDR)
		event.ip6 = uinfo.ip6;
	else
		event.ip = uinfo.ip;
	const bool names_somebody = *event.username != '\0' || *event.unique != '\0' || event.ip != 0 ||
				    event.event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR;
	if (names_somebody)
		vek_dispatch_event(&event, nullptr);
	else // that would end every session of the service
		userdb_log_out(oldest, &event);
}

} // namespace

user_list *resolve_user_list(const char *username)
{
	if (vek_users >= VEK_MAX_USERS) {
		if (std::strcmp(username, "admin") != 0)
			return nullptr;
		user_list *oldest = userdb_use_list.back();
		displace(oldest);
		if (userdb_unuse_list.empty())
			userdb_end_session(oldest);
	}
	return userdb_unuse_list.front();
}

int userdb_handle_login(vek_event *event, vek_socket *)
{
	const std::time_t wall_clock = std::time(nullptr);
	vek_refresh_cloud(is_cloud);

	user_list *ulist = resolve_user_list(event->real_username);
	if (ulist == nullptr)
		ulist = make_room(event, __func__);
	if (ulist == nullptr)
		return VEK_STOP_DISPATCH;

	user_info *uinfo = ulist->uinfo;
	fill_identity(uinfo, event, wall_clock);
	if (is_dot1x(uinfo->service))
		fill_dot1x(uinfo, event);
	else if (!fill_profile(uinfo, event))
		return VEK_STOP_DISPATCH;
	event->attribute = uinfo->attribute;

	ulist->terminal_since = seconds_since_boot;
	{
		const std::lock_guard hold(userdb_lock);
		if (userdb_insert(ulist) < 0)
			return VEK_STOP_DISPATCH;
		ulist->station = IsWebAuth(event->service) ? rb_insert_station(rb_root, event) : nullptr;
		if (ulist->station != nullptr)
			ulist->station->holder = &ulist->station;
		vek_users++;
	}
	return event->event == VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1 ? VEK_STOP_DISPATCH : VEK_CONTINUE_DISPATCH;
}
