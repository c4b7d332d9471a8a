// userdb.cpp: the pool of session slots, the three indexes with their same-key rings, the four deadline
// lists, and the shared logon configuration block. Who logs in or out, and when, is for the files beside this
// one.
#include "userdb.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

#include "init.h"
#include "misc.h"
#include "vek_event.h"

user_info userdb_uinfo[VEK_MAX_USERS];
user_list userdb_ulist[VEK_MAX_USERS];
constinit list_of<&user_list::use_list> userdb_unuse_list;
constinit list_of<&user_list::use_list> userdb_use_list;
constinit list_of<&user_list::reauth_list> userdb_reauth_list;
constinit list_of<&user_list::lease_list> userdb_lease_list;
constinit list_of<&user_list::idle_list> userdb_idle_list;
constinit list_of<&user_list::session_timeout_list> userdb_session_timeout_list;
avl_table *avl_username_tree, *avl_ip_tree, *avl_ip6_tree;
user_list *ulist_array[VEK_MAX_USERS];
int vek_users;
int is_cloud;
user_config *uconf;
constinit std::mutex userdb_lock;

constinit const deadline_list userdb_deadline_lists[4] = {
    {&user_info::reauth_time, &user_list::reauth_list, userdb_reauth_list.head(),
     list_entry<&user_list::reauth_list>},
    {&user_info::lease_time, &user_list::lease_list, userdb_lease_list.head(),
     list_entry<&user_list::lease_list>},
    {&user_info::idle_time, &user_list::idle_list, userdb_idle_list.head(),
     list_entry<&user_list::idle_list>},
    {&user_info::session_timeout, &user_list::session_timeout_list, userdb_session_timeout_list.head(),
     list_entry<&user_list::session_timeout_list>},
};

constexpr user_index userdb_indexes[3] = {
    {&avl_username_tree, avl_compare_username, &user_list::same_name_users, &user_list::same_name_list,
     list_entry<&user_list::same_name_list>, "Can't create internal user database for username!\n"},
    {&avl_ip_tree, avl_compare_ip, &user_list::same_ip_users, &user_list::same_ip_list,
     list_entry<&user_list::same_ip_list>, "Can't create internal user database for ip!\n"},
    {&avl_ip6_tree, avl_compare_ip6, &user_list::same_ip6_users, &user_list::same_ip6_list,
     list_entry<&user_list::same_ip6_list>, "Can't create internal user database for ipv6!\n"},
};

namespace {

int uconf_id = -1; // the segment that this process created or took over

const user_info &record_of(const void *item) { return *static_cast<const user_list *>(item)->uinfo; }

constexpr const user_index &ip_index = userdb_indexes[1];

// Enters a session through the slot that a probe with its key gave.
void index_enter(const user_index &index, user_list *ulist, void **slot, bool first_of_key)
{
	if (first_of_key) {
		*slot = ulist;
		ulist->*index.users = 1;
		list_init(&(ulist->*index.ring));
		return;
	}
	auto *representative = static_cast<user_list *>(*slot);
	representative->*index.users += 1;
	list_add_tail(&(ulist->*index.ring), &(representative->*index.ring));
}

bool index_add(const user_index &index, user_list *ulist)
{
	void **slot = avl_probe(*index.tree, ulist);
	if (slot == nullptr)
		return false;
	index_enter(index, ulist, slot, *slot == ulist);
	return true;
}

void index_remove(const user_index &index, user_list *ulist)
{
	auto *representative = static_cast<user_list *>(avl_find(*index.tree, ulist));
	list_head &link = ulist->*index.ring;
	if (representative != ulist) {
		representative->*index.users -= 1;
	} else if (ulist->*index.users == 1) {
		avl_delete(*index.tree, ulist);
	} else {
		// The next on the ring takes over the node: the key is the same.
		user_list *successor = index.entry(link.next);
		successor->*index.users = ulist->*index.users - 1;
		avl_replace(*index.tree, successor);
	}
	list_del(&link);
}

void leave_deadline_lists(user_list *ulist)
{
	for (const deadline_list &list : userdb_deadline_lists)
		if (list_linked(&(ulist->*list.link)))
			list_del(&(ulist->*list.link));
}

const vek_registration registrations[] = {
    {VEK_EVENT_USER_LOGIN, VEK_PRI_LOGIN_USERDB, userdb_handle_login},
    {VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1, VEK_PRI_LOGIN_USERDB, userdb_handle_login},
    {VEK_EVENT_USER_LOGOUT, VEK_PRI_LOGOUT_USERDB, userdb_handle_logout},
    {VEK_EVENT_WEB_USER_LOGOUT, VEK_PRI_LOGOUT_USERDB, userdb_handle_web_logout},
    {VEK_EVENT_UPDATE_LEASE_TIME, VEK_PRI_UPDATE_LEASE_TIME_USERDB, userdb_handle_update_lease_timeout},
    {VEK_EVENT_UPDATE_IDLE_TIME, VEK_PRI_UPDATE_IDLE_TIME_USERDB, userdb_handle_update_idle_timeout},
    {VEK_EVENT_UPDATE_REAUTH_TIME, VEK_PRI_UPDATE_REAUTH_TIME_USERDB, userdb_handle_update_reauth_timeout},
    {VEK_EVENT_UPDATE_ACCOUNTING_STATUS, VEK_PRI_UPDATE_ACCOUNTING_STATUS_USERDB,
     userdb_handle_update_accounting_status},
    {VEK_EVENT_RENAME_RADIUS_PROFILE_NAME, VEK_PRI_RENAME_RADIUS_PROFILE_NAME_USERDB,
     userdb_handle_renew_radius_profile_name},
    {VEK_EVENT_USER_ALIVE, VEK_PRI_ALIVE_USERDB, userdb_handle_alive},
    {VEK_EVENT_TIMER_SECOND, VEK_PRI_TIMER_SECOND_USERDB, userdb_handle_lease_timeout},
    {VEK_EVENT_TIMER_10SECONDS, VEK_PRI_TIMER_10SECONDS_USERDB, userdb_handle_reauth_timeout},
    {VEK_EVENT_TIMER_SECOND, VEK_PRI_TIMER_SECOND_USERDB, userdb_handle_session_timeout},
    {VEK_EVENT_USER_TRAFFIC, VEK_PRI_USER_TRAFFIC_USERDB, userdb_handle_user_traffic},
    {VEK_EVENT_TIMER_10SECONDS, VEK_PRI_TIMER_10SECONDS_USERDB, userdb_handle_idle_timeout},
    {VEK_EVENT_UPDATE_ROAMING_STA_IP, VEK_PRI_UPDATE_ROAMING_STA_IP, userdb_handle_update_roaming_sta_ip},
    {VEK_EVENT_UPDATE_SSH_TTY, VEK_PRI_UPDATE_SSH_TTY_USERDB, userdb_handle_update_ssh_tty},
    {VEK_EVENT_CONFIG_CHANGE, VEK_PRI_CONFIG_CHANGE_USERDB, userdb_handle_config_change},
};

void show_name(const user_list *ulist) { std::fprintf(stderr, "%s, ", ulist->uinfo->unique); }

void show_node(const avl_node *node, int level)
{
	constexpr int LEVELS = 17;
	if (level == LEVELS) {
		std::fputs("[...]", stderr);
		return;
	}
	if (node == nullptr)
		return;
	auto *representative = static_cast<user_list *>(node->avl_data);
	std::fprintf(stderr, "%s*%d(", representative->uinfo->username, representative->same_name_users);
	show_name(representative);
	list_head *const own = &representative->same_name_list;
	if (representative->same_name_users > 1)
		for (list_head *link = own->next; link != own; link = link->next)
			show_name(list_entry<&user_list::same_name_list>(link));
	std::fputc(')', stderr);
	if (node->avl_link[0] == nullptr && node->avl_link[1] == nullptr)
		return;
	std::fputc('(', stderr);
	show_node(node->avl_link[0], level + 1);
	if (node->avl_link[1] != nullptr) {
		std::fputc(',', stderr);
		show_node(node->avl_link[1], level + 1);
	}
	std::fputc(')', stderr);
}

} // namespace

int avl_compare_username(const void *a, const void *b, void *)
{
	return std::strcmp(record_of(a).username, record_of(b).username);
}

int avl_compare_ip(const void *a, const void *b, void *)
{
	const std::uint32_t x = record_of(a).ip, y = record_of(b).ip;
	return (x > y) - (x < y);
}

int avl_compare_ip6(const void *a, const void *b, void *)
{
	return std::memcmp(&record_of(a).ip6, &record_of(b).ip6, sizeof(in6_addr));
}

int userdb_init()
{
	vek_users = 0;
	std::memset(userdb_uinfo, 0, sizeof(userdb_uinfo));
	std::memset(userdb_ulist, 0, sizeof(userdb_ulist));
	userdb_unuse_list.clear();
	userdb_use_list.clear();
	for (const deadline_list &list : userdb_deadline_lists)
		list_init(list.head);
	for (int i = 0; i < VEK_MAX_USERS; i++) {
		userdb_ulist[i].uinfo = &userdb_uinfo[i];
		userdb_unuse_list.push_back(&userdb_ulist[i]);
	}
	for (const user_index &index : userdb_indexes) {
		if (*index.tree != nullptr)
			avl_destroy(*index.tree, nullptr); // of an earlier start in this process
		*index.tree = avl_create(index.compare, nullptr, nullptr);
		if (*index.tree == nullptr) {
			std::fputs(index.failure, stderr);
			return -1;
		}
	}

	uconf = static_cast<user_config *>(vek_create_shm(
	    USER_CONFIG_IPC_KEY, sizeof(user_config), "Previous user config buffer exists. Try to init it\n",
	    "Can't create config buffer", &uconf_id));
	if (uconf == nullptr)
		return -1;
	uconf->max_admin_logon_count = DEFAULT_MAX_ADMIN_LOGON_COUNT;
	uconf->max_access_logon_count = DEFAULT_MAX_ACCESS_LOGON_COUNT;
	uconf->max_idle_minute = DEFAULT_MAX_IDLE_MINUTE;
	return vek_register_events(registrations, "Can't register event for user database!\n");
}

int userdb_exit()
{
	if (uconf_id >= 0)
		shmctl(uconf_id, IPC_RMID, nullptr);
	uconf_id = -1;
	return 0;
}

int userdb_query_total_user_num() { return vek_users; }

void free_user_list(user_list *ulist)
{
	vek_users--;
	list_move(&ulist->use_list, userdb_unuse_list.head());
}

int userdb_insert(user_list *ulist)
{
	list_move(&ulist->use_list, userdb_use_list.head());
	std::size_t entered = 0;
	while (entered < std::size(userdb_indexes) && index_add(userdb_indexes[entered], ulist))
		entered++;
	if (entered < std::size(userdb_indexes)) {
		while (entered > 0)
			index_remove(userdb_indexes[--entered], ulist);
		list_move(&ulist->use_list, userdb_unuse_list.head());
		return -1;
	}
	for (const deadline_list &list : userdb_deadline_lists)
		userdb_place_deadline(list, ulist);
	return 0;
}

int userdb_remove(user_list *ulist)
{
	for (const user_index &index : userdb_indexes)
		index_remove(index, ulist);
	leave_deadline_lists(ulist);
	return 0;
}

void userdb_end_session(user_list *ulist)
{
	const std::lock_guard hold(userdb_lock);
	userdb_remove(ulist);
	if (ulist->station != nullptr)
		rb_delete_station(rb_root, ulist->station);
	free_user_list(ulist);
}

int userdb_move_ip(user_list *ulist, std::uint32_t ip)
{
	// Alone at this address already: nothing to move.
	if (ip == ulist->uinfo->ip && avl_find(*ip_index.tree, ulist) == ulist && ulist->same_ip_users == 1)
		return 0;
	// The new place is made first, held by a stand-in with the new key, so that a lack of memory costs
	// nothing.
	user_info key;
	user_list stand_in{};
	stand_in.uinfo = &key;
	key.ip = ip;
	void **slot = avl_probe(*ip_index.tree, &stand_in);
	if (slot == nullptr)
		return -1;
	const bool first_of_key = *slot == &stand_in;
	index_remove(ip_index, ulist);
	ulist->uinfo->ip = ip;
	index_enter(ip_index, ulist, slot, first_of_key);
	return 0;
}

void userdb_place_deadline(const deadline_list &list, user_list *ulist)
{
	list_head *link = &(ulist->*list.link);
	if (list_linked(link))
		list_del(link);
	const std::uint64_t deadline = ulist->uinfo->*list.deadline;
	if (deadline == 0)
		return;
	list_head *place = list.head->prev;
	while (place != list.head && list.entry(place)->uinfo->*list.deadline > deadline)
		place = place->prev;
	list_add(link, place);
}

int IsWebAuth(const char *service)
{
	for (const char *web :
	     {SERVICE_NAME_CAPTIVE_PORTAL, SERVICE_NAME_SOCIAL_LOGIN_FB, SERVICE_NAME_FB_WIFI_LOGIN,
	      SERVICE_NAME_EMAIL_VERIFICATION, SERVICE_NAME_GOOGLE_AUTHENTICATOR})
		if (std::strcmp(service, web) == 0)
			return 1;
	return 0;
}

bool is_dot1x(const char *service)
{
	return std::strcmp(service, SERVICE_NAME_DOT1X) == 0 ||
	       std::strcmp(service, SERVICE_NAME_MAC_AUTH) == 0;
}

int skip_idle_detection(const user_info *uinfo)
{
	return uinfo->type == ADMIN_TYPE || uinfo->type == LIMIT_TYPE || is_dot1x(uinfo->service);
}

void show_users_name(avl_table *tree, const char *title)
{
	std::fprintf(stderr, "###%s: ", title);
	show_node(tree->avl_root, 0);
	std::fputc('\n', stderr);
}
