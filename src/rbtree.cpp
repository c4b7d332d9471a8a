// rbtree.cpp: the portal station tree and its dump for debugging.
//
// A red-black tree with parent pointers, keyed by the time of authentication. Rotations and fix-ups are
// written once for both mirror images: a `side` is a pointer to one of the two child members. Who enters and
// leaves the tree, and when, is the user database's business.
#include "rbtree.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "misc.h"
#include "text.h"
#include "veklog.h"

struct rb_root *rb_root;

namespace {

// ---- stations: a node with its record, one allocation ----

struct station {
	rb_node_t node; // first: a node of the tree is the station it begins
	login_user_info_s info;
};

station *station_of(rb_node_t *node) { return reinterpret_cast<station *>(node); }

// Released stations, chained through their parent pointers, so that a device at work allocates nothing.
rb_node_t *spare;
int spares;

station *take_station()
{
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
	if (node->holder)
		*node->holder = nullptr; // the memory may be another's record soon
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
	fchmod(fd, 0644); // whatever the umask: other programs read it
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

bool rb_tree_dump_asked() { return std::exchange(dump_asked, 0) != 0; }
