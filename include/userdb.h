// userdb.h: the user database: the pool of session slots, its three indexes and four deadline lists, and what
// the rest of the daemon may ask of it.
//
// A slot is free (on userdb_unuse_list, nowhere else) or in use (on userdb_use_list, in all three indexes,
// and on each deadline list whose deadline is not 0). userdb_insert is the one way in, userdb_remove followed
// by free_user_list the one way out; a key changes by out, change, in.
#ifndef USERDB_H
#define USERDB_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>

#include "avl.h"
#include "list.h"
#include "rbtree.h"
#include "text.h"
#include "vek.h"

struct vek_socket;

// Links one slot into every list. The sessions that share a key form a ring through their ring links. One of
// them, the representative, is the item of the key's index entry and counts them all; the counters of the
// others mean nothing.
struct user_list {
	list_head use_list;
	std::int32_t same_name_users, same_ip_users, same_ip6_users;
	list_head same_name_list, same_ip_list, same_ip6_list;
	list_head reauth_list, lease_list, idle_list, session_timeout_list;
	user_info *uinfo;
	std::uint64_t terminal_since; // uptime second at which it was last said where it sits: login or event 38
	rb_node_t *station; // of a web-authenticated session: its station in the portal tree, or null
};

extern user_info userdb_uinfo[VEK_MAX_USERS];
extern user_list userdb_ulist[VEK_MAX_USERS];
extern list_of<&user_list::use_list> userdb_unuse_list; // free slots; the front is taken next
extern list_of<&user_list::use_list> userdb_use_list;   // newest login first
extern list_of<&user_list::reauth_list> userdb_reauth_list;
extern list_of<&user_list::lease_list> userdb_lease_list;
extern list_of<&user_list::idle_list> userdb_idle_list;
extern list_of<&user_list::session_timeout_list> userdb_session_timeout_list;
extern avl_table *avl_username_tree, *avl_ip_tree, *avl_ip6_tree;
extern user_list *ulist_array[VEK_MAX_USERS]; // result of the latest find_user_list
extern int vek_users;                         // slots in use
extern int is_cloud;                          // the device is cloud-managed
extern user_config *uconf;                    // the shared block, null until attached
extern std::mutex userdb_lock;                // held while sessions come and go, never across a dispatch

int avl_compare_username(const void *a, const void *b, void *param);
int avl_compare_ip(const void *a, const void *b, void *param);
int avl_compare_ip6(const void *a, const void *b, void *param);

// ---- slots, indexes, deadline lists (userdb.cpp) ----

int userdb_query_total_user_num();

// Returns a removed slot to the front of the free list.
void free_user_list(user_list *ulist);

// Enters a filled slot into the use list, the indexes and the deadline lists. 0; or -1 when an index has no
// memory, everything then being as before. The caller holds userdb_lock.
int userdb_insert(user_list *ulist);

// Takes a session out of the indexes and deadline lists. Allocates nothing. 0. The caller holds userdb_lock.
int userdb_remove(user_list *ulist);

// Ends a session as far as the database goes: out of everything, its station out of the tree, its slot free
// (its record stays readable until the next login). Takes userdb_lock; announces nothing.
void userdb_end_session(user_list *ulist);

// Ends a session whatever its keys are, and sends a logout event on its way for it, completed with who it
// was.
void userdb_log_out(user_list *ulist, vek_event *event);

// Is this session one of those that a logout event would end?
bool userdb_logout_would_end(const vek_event *event, const user_list *ulist);

// Whose station a node of the portal tree is; null when nobody said.
inline user_list *userdb_session_of(const rb_node_t *station)
{
	auto *const holder = reinterpret_cast<char *>(station->holder);
	return holder == nullptr ? nullptr
				 : reinterpret_cast<user_list *>(holder - offsetof(user_list, station));
}

// Moves an indexed session to another IPv4 address. 0; or -1 without memory, nothing then being changed.
int userdb_move_ip(user_list *ulist, std::uint32_t ip);

// An index as data: where its tree is, and which member counts and links the sessions that share a key.
struct user_index {
	avl_table **tree;
	avl_comparison_func *compare;
	std::int32_t user_list::*users;
	list_head user_list::*ring;
	user_list *(*entry)(list_head *link);
	const char *failure; // to make it
};
extern const user_index userdb_indexes[3]; // by name, IPv4 and IPv6 address

// A deadline list as data: which member is the deadline, which the link, and the list.
struct deadline_list {
	std::uint64_t user_info::*deadline;
	list_head user_list::*link;
	list_head *head;
	user_list *(*entry)(list_head *link);
};
extern const deadline_list userdb_deadline_lists[4]; // in the order below
enum { DEADLINE_REAUTH, DEADLINE_LEASE, DEADLINE_IDLE, DEADLINE_SESSION };

// Puts a session, linked there or not, in its place: ascending, after all with the same deadline. With
// deadline 0 it leaves the list.
void userdb_place_deadline(const deadline_list &list, user_list *ulist);

int IsWebAuth(const char *service);
bool is_dot1x(const char *service); // 802.1X or MAC authentication
int skip_idle_detection(const user_info *uinfo);
void show_users_name(avl_table *tree, const char *title);

// ---- matching (match.cpp) ----

enum {
	MATCH_NONE = 0,
	MATCH_SERVICE = 1,
	MATCH_USERNAME = 2,
	MATCH_IP = 4,
	MATCH_UNIQUE = 8,
	MATCH_IP6 = 16,
	MATCH_SERVICE_USERNAME = MATCH_SERVICE | MATCH_USERNAME,
	MATCH_SERVICE_IP = MATCH_SERVICE | MATCH_IP,
	MATCH_USERNAME_IP = MATCH_USERNAME | MATCH_IP,
	MATCH_SERVICE_USERNAME_IP = MATCH_SERVICE | MATCH_USERNAME | MATCH_IP,
	MATCH_SERVICE_UNIQUE = MATCH_SERVICE | MATCH_UNIQUE,
	MATCH_USERNAME_UNIQUE = MATCH_USERNAME | MATCH_UNIQUE,
	MATCH_SERVICE_USERNAME_UNIQUE = MATCH_SERVICE | MATCH_USERNAME | MATCH_UNIQUE,
	MATCH_IP_UNIQUE = MATCH_IP | MATCH_UNIQUE,
	MATCH_SERVICE_IP_UNIQUE = MATCH_SERVICE | MATCH_IP | MATCH_UNIQUE,
	MATCH_USERNAME_IP_UNIQUE = MATCH_USERNAME | MATCH_IP | MATCH_UNIQUE,
	MATCH_ALL = MATCH_SERVICE | MATCH_USERNAME | MATCH_IP | MATCH_UNIQUE,
	MATCH_SERVICE_IP6 = MATCH_SERVICE | MATCH_IP6,
	MATCH_USERNAME_IP6 = MATCH_USERNAME | MATCH_IP6,
	MATCH_SERVICE_USERNAME_IP6 = MATCH_SERVICE | MATCH_USERNAME | MATCH_IP6,
	MATCH_IP6_UNIQUE = MATCH_IP6 | MATCH_UNIQUE,
	MATCH_SERVICE_IP6_UNIQUE = MATCH_SERVICE | MATCH_IP6 | MATCH_UNIQUE,
	MATCH_USERNAME_IP6_UNIQUE = MATCH_USERNAME | MATCH_IP6 | MATCH_UNIQUE,
	MATCH_ALL6 = MATCH_SERVICE | MATCH_USERNAME | MATCH_IP6 | MATCH_UNIQUE
};

// The match functions: combination of keys, name, and the fields compared. Through the IPv6 index every
// candidate has the address already, which match_ip6_unique counts on.
#define MATCH_FUNCTIONS(X)                                                                                   \
	X(MATCH_NONE, match_none, MATCH_NONE)                                                                \
	X(MATCH_SERVICE, match_service, MATCH_SERVICE)                                                       \
	X(MATCH_USERNAME, match_username, MATCH_USERNAME)                                                    \
	X(MATCH_SERVICE_USERNAME, match_service_username, MATCH_SERVICE_USERNAME)                            \
	X(MATCH_IP, match_ip, MATCH_IP)                                                                      \
	X(MATCH_SERVICE_IP, match_service_ip, MATCH_SERVICE_IP)                                              \
	X(MATCH_USERNAME_IP, match_username_ip, MATCH_USERNAME_IP)                                           \
	X(MATCH_SERVICE_USERNAME_IP, match_service_username_ip, MATCH_SERVICE_USERNAME_IP)                   \
	X(MATCH_UNIQUE, match_unique, MATCH_UNIQUE)                                                          \
	X(MATCH_SERVICE_UNIQUE, match_service_unique, MATCH_SERVICE_UNIQUE)                                  \
	X(MATCH_USERNAME_UNIQUE, match_username_unique, MATCH_USERNAME_UNIQUE)                               \
	X(MATCH_SERVICE_USERNAME_UNIQUE, match_service_username_unique, MATCH_SERVICE_USERNAME_UNIQUE)       \
	X(MATCH_IP_UNIQUE, match_ip_unique, MATCH_IP_UNIQUE)                                                 \
	X(MATCH_SERVICE_IP_UNIQUE, match_service_ip_unique, MATCH_SERVICE_IP_UNIQUE)                         \
	X(MATCH_USERNAME_IP_UNIQUE, match_username_ip_unique, MATCH_USERNAME_IP_UNIQUE)                      \
	X(MATCH_ALL, match_all, MATCH_ALL)                                                                   \
	X(MATCH_IP6, match_ip6, MATCH_IP6)                                                                   \
	X(MATCH_SERVICE_IP6, match_service_ip6, MATCH_SERVICE_IP6)                                           \
	X(MATCH_USERNAME_IP6, match_username_ip6, MATCH_USERNAME_IP6)                                        \
	X(MATCH_SERVICE_USERNAME_IP6, match_service_username_ip6, MATCH_SERVICE_USERNAME_IP6)                \
	X(MATCH_IP6_UNIQUE, match_ip6_unique, MATCH_UNIQUE)                                                  \
	X(MATCH_SERVICE_IP6_UNIQUE, match_service_ip6_unique, MATCH_SERVICE_IP6_UNIQUE)                      \
	X(MATCH_USERNAME_IP6_UNIQUE, match_username_ip6_unique, MATCH_USERNAME_IP6_UNIQUE)                   \
	X(MATCH_ALL6, match_all6, MATCH_ALL6)

// 1 when every field compared is equal, else 0. First the query's values, then the session's. Fields that a
// function does not compare are not looked at.
using match_func = int(const char *service, const char *username, std::uint32_t ip, const in6_addr *ip6,
		       const char *unique, const char *session_service, const char *session_username,
		       std::uint32_t session_ip, const in6_addr *session_ip6, const char *session_unique);
#define MATCH_DECLARE(bits, name, compared) match_func name;
MATCH_FUNCTIONS(MATCH_DECLARE)
#undef MATCH_DECLARE

// Writes the sessions that carry all given keys to ulist_array and returns their number. Null or empty text,
// ip 0 and a null ip6 do not restrict. qflags: 0, or VEK_HANDLE_FLAG_IPV6_ADDR to search by `ip6`, which then
// must not be null when any text is given.
int find_user_list(const char *service, const char *username, std::uint32_t ip, const in6_addr *ip6,
		   const char *unique, unsigned qflags);

// The search of most event handlers: by service, user name, unique key and the address the event's flags
// name.
int find_user_list_of_event(const vek_event *event);

// 0 when the text contains a MAC address, otherwise not.
int check_is_mac(const char *str);

// The queries: pointers to the live records into an array of VEK_MAX_USERS; their number.
int userdb_query_by_name(const char *username, user_info **uinfo_array);
int userdb_query_by_ip(std::uint32_t ip, user_info **uinfo_array);
int userdb_query_by_ip6(const in6_addr *ip6, user_info **uinfo_array);
int userdb_query_all(user_info **uinfo_array);

// What an event and a session both carry of a portal user and of its station, copied either way.
template <class To, class From> void copy_portal_user(To *to, const From *from)
{
	copy_text(to->method, from->method);
	copy_text(to->locale, from->locale);
	copy_text(to->gender, from->gender);
	copy_text(to->age, from->age);
	copy_text(to->ssid_name, from->ssid_name);
}
template <class To, class From> void copy_station(To *to, const From *from)
{
	copy_text(to->ssid_profile_name, from->ssid_profile_name);
	copy_text(to->ssid_vap_iface, from->ssid_vap_iface);
	copy_text(to->sta_mac, from->sta_mac);
	to->usr_from = from->usr_from;
}

// ---- handlers ----

user_list *resolve_user_list(const char *username);
int userdb_handle_login(vek_event *event, vek_socket *sock);

int userdb_handle_logout(vek_event *event, vek_socket *sock);
int userdb_handle_web_logout(vek_event *event, vek_socket *sock);
// 1 when the texts are given and equal, else 0.
int userdb_handle_match_mac_and_ssidprofile(const char *event_mac, const char *session_mac,
					    const char *event_profile, const char *session_profile);
int userdb_handle_match_ssidprofile(const char *event_profile, const char *session_profile);
// Moves the session that the event names to the event's IPv4 address. 1 when one was moved, else 0.
int userdb_handle_adjust_avl_tree_and_sameip_list(vek_event *event, avl_table *tree);

int userdb_handle_lease_timeout(vek_event *event, vek_socket *sock);
int userdb_handle_session_timeout(vek_event *event, vek_socket *sock);
int userdb_handle_reauth_timeout(vek_event *event, vek_socket *sock);
int userdb_handle_idle_timeout(vek_event *event, vek_socket *sock);
int userdb_handle_update_lease_timeout(vek_event *event, vek_socket *sock);
int userdb_handle_update_idle_timeout(vek_event *event, vek_socket *sock);
int userdb_handle_update_reauth_timeout(vek_event *event, vek_socket *sock);
int userdb_handle_user_traffic(vek_event *event, vek_socket *sock);
int userdb_handle_alive(vek_event *event, vek_socket *sock);
int userdb_handle_config_change(vek_event *event, vek_socket *sock);

int userdb_handle_update_accounting_status(vek_event *event, vek_socket *sock);
int userdb_handle_renew_radius_profile_name(vek_event *event, vek_socket *sock);
int userdb_handle_update_ssh_tty(vek_event *event, vek_socket *sock);
int userdb_handle_update_roaming_sta_ip(vek_event *event, vek_socket *sock);

#endif
