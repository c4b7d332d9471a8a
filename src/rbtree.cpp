// rbtree.cpp: the portal station tree, its dump for debugging, and the portal clean-up.
//
// A red-black tree with parent pointers, keyed by the time of authentication. Rotations and fix-ups are
// written once for both mirror images: a `side` is a pointer to one of the two child members. Who enters and
// leaves the tree, and when, is the user database's business; running the station database's tool is
// child.cpp's.
#include "rbtree.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <utility>

#include "child.h"
#include "daemon.h"
#include "misc.h"
#include "rrm.h"
#include "userdb.h"
#include "vek_event.h"

struct rb_root *rb_root;

// Of the clean-up's walk; the choice stays until the next one.
static int count;                      // cursor into the station list
static int flag;                       // a station has been chosen
static login_user_info_s del_usr_info; // its record
static std::int32_t del_usr_from;

namespace {

// ---- stations: a node with its record, one allocation ----

struct station {
	rb_node_t node; // first: a node of the tree is the station it begins
	login_user_info_s info;
	std::uint64_t serial; // never the same twice, though the memory may be
};

station *station_of(rb_node_t *node) { return reinterpret_cast<station *>(node); }

// Released stations, chained through their parent pointers, so that a device at work allocates nothing.
rb_node_t *spare;
int spares;

station *take_station()
{
	static std::uint64_t serial;
	station *sta;
	if (spare) {
		sta = station_of(spare);
		spare = spare->parent;
		spares--;
	} else {
		sta = static_cast<station *>(vek_malloc(sizeof(station)));
		if (!sta)
			return nullptr;
	}
	*sta = {};
	sta->node.color = BLACK;
	sta->node.user_info = &sta->info;
	sta->serial = ++serial;
	return sta;
}

void release_station(rb_node_t *node)
{
	if (spares == VEK_MAX_USERS) {
		vek_free(station_of(node));
		return;
	}
	node->parent = spare;
	spare = node;
	spares++;
}

// The station of that serial while it is in the tree, whatever became of its memory.
rb_node_t *find_by_serial(const struct rb_root *root, std::uint64_t serial)
{
	for (rb_node_t *node = rb_first(root); node; node = rb_next(node))
		if (station_of(node)->serial == serial)
			return node;
	return nullptr;
}

// ---- the shape of the tree ----

using side = rb_node_t *rb_node_t::*;
constexpr side LEFT = &rb_node_t::rb_left, RIGHT = &rb_node_t::rb_right;

constexpr side other(side s) { return s == LEFT ? RIGHT : LEFT; }
side side_of(const rb_node_t *child, const rb_node_t *parent)
{
	return parent->rb_left == child ? LEFT : RIGHT;
}
bool is_red(const rb_node_t *node) { return node && node->color == RED; }

rb_node_t *end_of(rb_node_t *node, side s)
{
	while (node && node->*s)
		node = node->*s;
	return node;
}

// Hangs `node` (or nothing) where `old` hangs; `old` keeps its own pointers.
void replace(rb_node_t *old, rb_node_t *node, struct rb_root *root)
{
	if (!old->parent)
		root->rb_node = node;
	else
		old->parent->*side_of(old, old->parent) = node;
	if (node)
		node->parent = old->parent;
}

void hang(rb_node_t *parent, side s, rb_node_t *child)
{
	parent->*s = child;
	if (child)
		child->parent = parent;
}

// Moves `node` down to side s; its other child takes its place.
void rotate(rb_node_t *node, side s, struct rb_root *root)
{
	rb_node_t *up = node->*other(s);
	replace(node, up, root);
	hang(node, other(s), up->*s);
	hang(up, s, node);
}

// The ways through `node`, which may be null, lack one black node; its parent is given for that case.
void fix_missing_black(rb_node_t *node, rb_node_t *parent, struct rb_root *root)
{
	while (node != root->rb_node && !is_red(node)) {
		const side near = side_of(node, parent), far = other(near);
		rb_node_t *sibling = parent->*far;
		if (is_red(sibling)) {
			sibling->color = BLACK;
			parent->color = RED;
			rotate(parent, near, root);
			sibling = parent->*far;
		}
		if (!is_red(sibling->*near) && !is_red(sibling->*far)) {
			sibling->color = RED;
			node = parent;
			parent = node->parent;
			continue;
		}
		if (!is_red(sibling->*far)) {
			(sibling->*near)->color = BLACK;
			sibling->color = RED;
			rotate(sibling, far, root);
			sibling = parent->*far;
		}
		sibling->color = parent->color;
		parent->color = BLACK;
		(sibling->*far)->color = BLACK;
		rotate(parent, near, root);
		node = root->rb_node;
	}
	if (node)
		node->color = BLACK;
}

// The tree's key. Text that is no number counts as 0, one out of range as the nearest in it.
int key_of(const rb_node_t *node)
{
	return static_cast<int>(
	    std::clamp<long>(std::strtol(node->user_info->auth_time, nullptr, 10), INT_MIN, INT_MAX));
}

// ---- walks in the order node, left, right ----

// The next node of the subtree `top`, or null.
rb_node_t *next_in_preorder(rb_node_t *node, const rb_node_t *top)
{
	if (node->rb_left)
		return node->rb_left;
	if (node->rb_right)
		return node->rb_right;
	for (; node != top; node = node->parent)
		if (node == node->parent->rb_left && node->parent->rb_right)
			return node->parent->rb_right;
	return nullptr;
}

using ssid_field = char (login_user_info_s::*)[64];

rb_node_t *search(RBTree tree, const char *mac, ssid_field field, const char *name)
{
	if (!mac || !name)
		return nullptr;
	for (rb_node_t *node = tree; node; node = next_in_preorder(node, tree))
		if (std::strcmp(node->user_info->mac_addr, mac) == 0 &&
		    std::strcmp(node->user_info->*field, name) == 0)
			return node;
	return nullptr;
}

} // namespace

struct rb_root *create_rbtree() { return static_cast<struct rb_root *>(vek_malloc(sizeof(struct rb_root))); }

void rb_get_sta_from_vek_event(login_user_info_s *rb_sta, const vek_event *event)
{
	copy_text(rb_sta->mac_addr, event->sta_mac);
	std::snprintf(rb_sta->sta_ip, sizeof rb_sta->sta_ip, "%u", event->ip);
	copy_text(rb_sta->username, event->real_username);
	copy_text(rb_sta->auth_time, event->auth_time);
	std::snprintf(rb_sta->logout_time, sizeof rb_sta->logout_time, "%d", event->default_lease_time);
	copy_text(rb_sta->portal_method, event->method);
	copy_text(rb_sta->locale, event->locale);
	copy_text(rb_sta->gender, event->gender);
	copy_text(rb_sta->age, event->age);
	copy_text(rb_sta->ssid_name, event->ssid_name);
	copy_text(rb_sta->ssid_profile_name, event->ssid_profile_name);
}

void rb_insert_color(rb_node_t *node, struct rb_root *root)
{
	while (is_red(node->parent)) {
		rb_node_t *parent = node->parent;
		rb_node_t *grandparent = parent->parent; // there is one: the root is black
		const side near = side_of(parent, grandparent), far = other(near);
		rb_node_t *uncle = grandparent->*far;
		if (is_red(uncle)) {
			parent->color = uncle->color = BLACK;
			grandparent->color = RED;
			node = grandparent;
			continue;
		}
		if (node == parent->*far) {
			rotate(parent, near, root);
			std::swap(node, parent);
		}
		parent->color = BLACK;
		grandparent->color = RED;
		rotate(grandparent, far, root);
	}
	root->rb_node->color = BLACK;
}

void rb_erase(rb_node_t *node, struct rb_root *root)
{
	rb_node_t *child, *parent; // what moves up, and where it then hangs
	std::uint8_t removed;
	if (!node->rb_left || !node->rb_right) {
		child = node->rb_left ? node->rb_left : node->rb_right;
		parent = node->parent;
		removed = node->color;
		replace(node, child, root);
	} else {
		rb_node_t *successor = end_of(node->rb_right, LEFT);
		child = successor->rb_right;
		parent = successor->parent;
		removed = successor->color;
		if (parent == node) {
			parent = successor;
		} else {
			hang(parent, LEFT, child);
			hang(successor, RIGHT, node->rb_right);
		}
		hang(successor, LEFT, node->rb_left);
		replace(node, successor, root);
		successor->color = node->color;
	}
	if (removed == BLACK)
		fix_missing_black(child, parent, root);
}

rb_node_t *rb_insert_station(struct rb_root *root, const vek_event *event)
{
	station *sta = root ? take_station() : nullptr;
	if (!sta)
		return nullptr;
	rb_get_sta_from_vek_event(&sta->info, event);
	rb_node_t *node = &sta->node;
	node->usr_from = event->usr_from;

	const int key = key_of(node);
	rb_node_t *parent = nullptr;
	side s = LEFT;
	for (rb_node_t *p = root->rb_node; p; p = p->*s) {
		parent = p;
		s = key < key_of(p) ? LEFT : RIGHT;
	}
	if (parent)
		hang(parent, s, node);
	else
		root->rb_node = node;
	node->color = RED;
	rb_insert_color(node, root);
	return node;
}

void rb_insert(struct rb_root *root, const vek_event *event) { rb_insert_station(root, event); }

void rb_delete_station(struct rb_root *root, rb_node_t *node)
{
	if (node->session)
		node->session->station = nullptr; // which may be another's record soon
	rb_erase(node, root);
	release_station(node);
}

void delete_rbtree(struct rb_root *root, const char *mac, const char *ssid_profile_name)
{
	if (rb_node_t *node = search_rbnode(root, mac, ssid_profile_name, SEARCH_BY_MAC_SSIDPROFILE))
		rb_delete_station(root, node);
}

rb_node_t *search_rbnode(struct rb_root *root, const char *mac, const char *name, int type)
{
	if (!root)
		return nullptr;
	switch (type) {
	case SEARCH_BY_MAC_SSIDPROFILE: return search_by_mac_ssidprofile(root->rb_node, mac, name);
	case SEARCH_BY_MAC_SSID: return search_by_mac_ssid(root->rb_node, mac, name);
	default: return nullptr;
	}
}

rb_node_t *search_by_mac_ssidprofile(RBTree tree, const char *mac, const char *ssid_profile_name)
{
	return search(tree, mac, &login_user_info_s::ssid_profile_name, ssid_profile_name);
}

rb_node_t *search_by_mac_ssid(RBTree tree, const char *mac, const char *ssid_name)
{
	return search(tree, mac, &login_user_info_s::ssid_name, ssid_name);
}

rb_node_t *rb_first(const struct rb_root *root) { return root ? end_of(root->rb_node, LEFT) : nullptr; }

rb_node_t *rb_last(const struct rb_root *root) { return root ? end_of(root->rb_node, RIGHT) : nullptr; }

rb_node_t *rb_next(rb_node_t *node)
{
	if (node->rb_right)
		return end_of(node->rb_right, LEFT);
	while (node->parent && node == node->parent->rb_right)
		node = node->parent;
	return node->parent;
}

int rb_get_vap_number(const login_user_info_s *rb_sta)
{
	if (!rb_sta || strnlen(rb_sta->ssid_profile_name, 5) < 5)
		return -1;
	const char digit = rb_sta->ssid_profile_name[4];
	return digit >= '1' && digit <= '8' ? digit - '0' : -1;
}

// ---- the portal clean-up ----

namespace {

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

} // namespace

void find_earlist_portal_user(struct rb_root *root, const char redis_mac[][STATION_LIST_MAC])
{
	if (!root)
		return;
	count = 0;
	flag = 0;
	del_usr_info = {};
	std::uint64_t serial = 0;
	for (rb_node_t *node = rb_first(root); node && !flag; node = rb_next(node)) {
		if (lines_up(node->user_info, redis_mac)) {
			count++;
			continue;
		}
		flag = 1;
		del_usr_info = *node->user_info;
		del_usr_from = node->usr_from;
		serial = station_of(node)->serial;
	}
	if (!flag)
		return;

	vek_event event = logout_of_chosen();
	const bool nobody_heard = vek_dispatch_event(&event, nullptr) == VEK_STOP_DISPATCH;

	// The logout may have ended nobody: a session whose MAC or profile is empty, or whose service and
	// method disagree. It ends here, or the clean-up would choose the same station for ever.
	rb_node_t *left = find_by_serial(root, serial);
	if (!left)
		return;
	if (left->session) {
		if (nobody_heard)
			userdb_log_out(left->session, &event);
		else
			userdb_end_session(left->session);
		return;
	}
	const std::lock_guard lock(userdb_lock);
	rb_delete_station(root, left);
}

void kickout_not_in_redis_portal_user()
{
	static constinit vek_backoff tool_stalled;
	if (tool_stalled.active())
		return;
	char device_mac[32]{}, table[64];
	rrm_get_common_mac(device_mac, sizeof device_mac);
	device_mac[sizeof device_mac - 1] = '\0';
	// It becomes part of a command line.
	if (device_mac[std::strspn(device_mac, "0123456789abcdefABCDEF:.-")] != '\0')
		return;
	std::snprintf(table, sizeof table, "%s-%s", STA_STATISTIC_TABLE_PREFIX, device_mac);

	char mac_command[512], time_command[512];
	std::snprintf(mac_command, sizeof mac_command,
		      "/usr/local/bin/dbctl -t %s -b AUTH_TIME -o | awk '{print $2}'", table);
	std::snprintf(time_command, sizeof time_command,
		      "/usr/local/bin/dbctl -t %s -b AUTH_TIME -f AUTH_TIME -o | awk '{print $2}'", table);
	vek_pipe macs, times;
	if (!macs.start(mac_command) || !times.start(time_command))
		return;

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
		tool_stalled.start();
	// Half an answer would name a station that is still there.
	if (whole)
		find_earlist_portal_user(rb_root, list);
}

// ---- the dump ----

namespace {

volatile std::sig_atomic_t dump_asked;

// Text of users in a line of the dump, which it must neither end nor forge.
struct printable {
	explicit printable(const char *source)
	{
		copy_text(text, source);
		mask_controls(text);
	}
	char text[64];
};

void print_node(rb_node_t *node)
{
	const printable username(node->user_info->username), mac(node->user_info->mac_addr);
	if (!node->parent) {
		rbtree_debug("%s-%s(Black) is root\n", username.text, mac.text);
		return;
	}
	rbtree_debug("%s-%s-%s-%p is %s's %s\n", username.text, mac.text,
		     printable(node->user_info->auth_time).text, static_cast<void *>(node),
		     printable(node->parent->user_info->mac_addr).text,
		     side_of(node, node->parent) == LEFT ? "left child" : "right child");
}

} // namespace

void rbtree_debug(const char *format, ...)
{
	char now[32] = "";
	const std::time_t seconds = std::time(nullptr);
	if (ctime_r(&seconds, now))
		now[std::strcspn(now, "\n")] = '\0';

	const int fd = vek_open_planted(VEK_RBTREE_DUMP, O_WRONLY | O_APPEND | O_CREAT, 0644);
	if (fd < 0)
		return;
	// Whoever else holds the lock could keep it: not waited for.
	if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
		std::fprintf(stderr, "Error flock log file %s\n", VEK_RBTREE_DUMP);
	} else {
		va_list arguments;
		va_start(arguments, format);
		dprintf(fd, "[%s]", now);
		vdprintf(fd, format, arguments);
		va_end(arguments);
		flock(fd, LOCK_UN);
	}
	close(fd);
}

void DEBUG_print_tree(const struct rb_root *root)
{
	// The numbers belong to the format, for the sake of whoever reads old dumps.
	unlink(VEK_RBTREE_DUMP);
	rbtree_debug("=== %s-%d : print start ===\n", __func__, 117);
	rb_node_t *top = root ? root->rb_node : nullptr;
	for (rb_node_t *node = top; node; node = next_in_preorder(node, top))
		print_node(node);
	rbtree_debug("=== %s-%d : print end ===\n", __func__, 121);
}

// In signal context: the lock may be held by the very code that was interrupted.
void print_rb_tree(int) { dump_asked = 1; }

void print_rb_tree_if_asked()
{
	if (!dump_asked)
		return;
	dump_asked = 0;
	const std::lock_guard lock(userdb_lock);
	DEBUG_print_tree(rb_root);
}
