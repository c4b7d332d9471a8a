// updates.cpp: attributes of running sessions that change in place: accounting status, RADIUS profile name,
// ssh terminal, and the IPv4 address of a station that roamed.
#include <cstring>

#include "daemon.h"
#include "misc.h"
#include "userdb.h"
#include "vek_event.h"

namespace {

// These notices name their sessions in IPv4 terms, whatever their flags.
template <class Update> int update_sessions(const vek_event *event, Update update)
{
	const int found =
	    find_user_list(event->service, event->username, event->ip, nullptr, event->unique, 0);
	for (int i = 0; i < found; i++)
		update(ulist_array[i]);
	return found > 0 ? VEK_CONTINUE_DISPATCH : VEK_STOP_DISPATCH;
}

} // namespace

int userdb_handle_update_accounting_status(vek_event *event, vek_socket *)
{
	return update_sessions(
	    event, [=](user_list *ulist) { ulist->uinfo->accounting_status = event->accounting_status; });
}

int userdb_handle_renew_radius_profile_name(vek_event *event, vek_socket *)
{
	return update_sessions(event, [=](user_list *ulist) {
		user_info *uinfo = ulist->uinfo;
		if (std::strcmp(uinfo->radius_profile_name, event->old_radius_profile_name) == 0)
			copy_text(uinfo->radius_profile_name, event->radius_profile_name);
	});
}

int userdb_handle_update_ssh_tty(vek_event *event, vek_socket *)
{
	return update_sessions(event, [=](user_list *ulist) {
		copy_text(ulist->uinfo->ssh_tty, event->ssh_tty);
		ulist->terminal_since = seconds_since_boot;
	});
}

int userdb_handle_update_roaming_sta_ip(vek_event *event, vek_socket *)
{
	if (event == nullptr)
		return VEK_CONTINUE_DISPATCH;
	for (const user_info &uinfo : userdb_uinfo)
		if (std::strcmp(uinfo.sta_mac, event->sta_mac) == 0 &&
		    std::strcmp(uinfo.username, event->username) == 0) {
			userdb_handle_adjust_avl_tree_and_sameip_list(event, avl_ip_tree);
			break;
		}
	return VEK_CONTINUE_DISPATCH;
}
