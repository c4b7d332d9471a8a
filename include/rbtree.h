// rbtree.h: the portal station tree: the stations of web-authenticated sessions in a red-black tree, oldest
// authentication first; and the portal clean-up (portal.cpp) that makes room on a full cloud-managed device.
//
// The user database keeps the tree in step with its sessions: a station enters with its session's login and
// leaves with its session, however that ends. Callers hold userdb_lock around changes.
#ifndef RBTREE_H
#define RBTREE_H

#include <cstdint>

#include "vek.h"

struct login_user_info_s {
	char mac_addr[32];
	char sta_ip[16]; // the 32-bit address as stored, in decimal
	char username[64];
	char auth_time[16];   // the tree's key
	char logout_time[16]; // lease length
	char portal_method[32];
	char locale[16];
	char gender[16];
	char age[16];
	char ssid_name[64];
	char ssid_profile_name[64];
	char ssid_vap_iface[32];
};

enum : std::uint8_t { RED = 0, BLACK = 1 };

struct rb_node_s {
	std::uint8_t color;
	rb_node_s *parent;
	rb_node_s *rb_left;
	rb_node_s *rb_right;
	std::int32_t usr_from;
	login_user_info_s *user_info;
	rb_node_s **holder; // the session's pointer to this, cleared when the node goes; null without a session
};
using rb_node_t = rb_node_s;
using RBTree = rb_node_s *;

struct rb_root {
	rb_node_s *rb_node;
};

extern struct rb_root *rb_root; // the daemon's tree, made at start-up

enum { SEARCH_BY_MAC_SSIDPROFILE = 1, SEARCH_BY_MAC_SSID = 2 };

constexpr int STATION_LIST_ENTRIES = 1025;
constexpr int STATION_LIST_MAC = 18;
#define STA_STATISTIC_TABLE_PREFIX "STA_STATISTIC"

// An empty tree; null without memory.
struct rb_root *create_rbtree();

// Adds one station built from a login event. The node, which the tree owns, or null without memory (rb_insert
// then adds nothing).
rb_node_t *rb_insert_station(struct rb_root *root, const vek_event *event);
void rb_insert(struct rb_root *root, const vek_event *event);
void rb_get_sta_from_vek_event(login_user_info_s *rb_sta, const vek_event *event);

// Takes one station out of its tree, and from its holder if it has one, and releases it.
void rb_delete_station(struct rb_root *root, rb_node_t *node);
// The same for the first station of that MAC and SSID profile; nothing when there is none.
void delete_rbtree(struct rb_root *root, const char *mac, const char *ssid_profile_name);

// The fix-up after linking a red node, and unlinking with rebalancing (which frees nothing).
void rb_insert_color(rb_node_t *node, struct rb_root *root);
void rb_erase(rb_node_t *node, struct rb_root *root);

// First match in the order node, left, right; exact comparison. Null when there is none, an argument is
// null or the type is neither.
rb_node_t *search_rbnode(struct rb_root *root, const char *mac, const char *name, int type);
rb_node_t *search_by_mac_ssidprofile(RBTree tree, const char *mac, const char *ssid_profile_name);
rb_node_t *search_by_mac_ssid(RBTree tree, const char *mac, const char *ssid_name);

rb_node_t *rb_first(const struct rb_root *root); // oldest authentication; null when empty
rb_node_t *rb_last(const struct rb_root *root);
rb_node_t *rb_next(rb_node_t *node); // in-order successor or null

// The digit 1 to 8 that is the fifth character of the SSID profile's name, else -1.
int rb_get_vap_number(const login_user_info_s *rb_sta);

// Logs out the first station, oldest first, that does not line up with the list (empty entries follow its
// last). Dispatches; userdb_lock must not be held.
void find_earlist_portal_user(struct rb_root *root, const char redis_mac[][STATION_LIST_MAC]);

// The portal clean-up: asks the device's station database and logs out at most one station. Dispatches;
// userdb_lock must not be held. Waits for the database's tool within a limit. The second name says whether it was
// done at all: false when the database could not be asked.
void kickout_not_in_redis_portal_user();
bool portal_clean_up();

// Writes the tree to VEK_RBTREE_DUMP. The caller holds userdb_lock.
void DEBUG_print_tree(const struct rb_root *root);
// Handler of user signal 1: asks the main loop for a dump. rb_tree_dump_asked says so once.
void print_rb_tree(int dummy);
bool rb_tree_dump_asked();
void rbtree_debug(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
