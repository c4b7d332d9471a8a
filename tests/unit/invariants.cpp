// invariants.cpp: see invariants.h. Written against the headers only.
#include "invariants.h"

#include <bitset>
#include <cstdlib>

#include "userdb.h"

namespace {

struct avl_walk {
	const avl_table *table;
	const void *previous = nullptr;
	std::size_t count = 0;
	std::string error;

	int height(const avl_node *node)
	{
		if (node == nullptr || !error.empty())
			return 0;
		const int left = height(node->avl_link[0]);
		if (previous != nullptr &&
		    table->avl_compare(previous, node->avl_data, table->avl_param) >= 0)
			error = "avl: items out of order";
		previous = node->avl_data;
		++count;
		const int right = height(node->avl_link[1]);
		if (right - left != node->avl_balance || abs(right - left) > 1)
			error = "avl: balance";
		return 1 + (left > right ? left : right);
	}
};

int station_key(const rb_node_s *node) { return atoi(node->user_info->auth_time); }

// Black height; -1 when a rule is broken.
int black_height(const rb_node_s *node, const rb_node_s *parent)
{
	if (node == nullptr)
		return 1;
	if (node->parent != parent || node->user_info == nullptr || node->color > BLACK)
		return -1;
	if (node->color == RED && (parent == nullptr || parent->color == RED))
		return -1;
	const int left = black_height(node->rb_left, node);
	if (left < 0 || left != black_height(node->rb_right, node))
		return -1;
	return left + node->color;
}

// Length of a list whose links all agree, or -1. `limit` bounds a list that has lost its end.
int list_length(const list_head *head, int limit)
{
	int length = 0;
	for (const list_head *link = head;; link = link->next) {
		if (link->next == nullptr || link->next->prev != link)
			return -1;
		if (link->next == head)
			return length;
		if (++length > limit)
			return -1;
	}
}

using slot_set = std::bitset<VEK_MAX_USERS>;
std::size_t slot_of(const user_list *session) { return static_cast<std::size_t>(session - userdb_ulist); }

template <auto Ring, auto Counter>
std::string check_index(const std::string &where, avl_table *tree, const slot_set &in_use)
{
	if (std::string error = check_avl(tree); !error.empty())
		return where + error;
	slot_set seen;
	avl_traverser walk;
	for (void *item = avl_t_first(&walk, tree); item != nullptr; item = avl_t_next(&walk)) {
		auto *representative = static_cast<user_list *>(item);
		list_head *head = &(representative->*Ring), *link = head;
		if (list_length(head, VEK_MAX_USERS) + 1 != representative->*Counter)
			return where + "broken ring, or not of its counter's length";
		do {
			const user_list *session = list_entry<Ring>(link);
			if (tree->avl_compare(session, representative, nullptr) != 0)
				return where + "different keys on one ring";
			if (!in_use.test(slot_of(session)) || seen.test(slot_of(session)))
				return where + "a session that is free or twice there";
			seen.set(slot_of(session));
			link = link->next;
		} while (link != head);
	}
	return seen == in_use ? "" : where + "a session is missing";
}

} // namespace

std::string check_avl(const avl_table *table)
{
	avl_walk walk{.table = table, .error = {}};
	walk.height(table->avl_root);
	return walk.error.empty() && walk.count != avl_count(table) ? "avl: count" : walk.error;
}

std::string check_rbtree(const struct rb_root *root)
{
	if (root->rb_node != nullptr && (root->rb_node->color != BLACK || root->rb_node->parent != nullptr))
		return "rbtree: the root is red or has a parent";
	if (black_height(root->rb_node, nullptr) < 0)
		return "rbtree: colours or parent links";
	const rb_node_s *previous = nullptr;
	for (rb_node_t *node = rb_first(root); node != nullptr; previous = node, node = rb_next(node))
		if (previous != nullptr && station_key(previous) > station_key(node))
			return "rbtree: out of order";
	return rb_last(root) == previous ? "" : "rbtree: the walk does not end at the last node";
}

std::string check_invariants()
{
	slot_set in_use;
	if (list_length(userdb_use_list.head(), VEK_MAX_USERS) != vek_users)
		return "use list: broken, or not of vek_users' length";
	if (list_length(userdb_unuse_list.head(), VEK_MAX_USERS) != VEK_MAX_USERS - vek_users)
		return "free list: broken, or not of the rest's length";
	for (const user_list *session : userdb_use_list)
		in_use.set(slot_of(session));
	for (const user_list *slot : userdb_unuse_list)
		if (in_use.test(slot_of(slot)))
			return "a slot is free and in use";

	for (const std::string &error : {check_index<&user_list::same_name_list, &user_list::same_name_users>(
					     "index by name: ", avl_username_tree, in_use),
					 check_index<&user_list::same_ip_list, &user_list::same_ip_users>(
					     "index by IPv4: ", avl_ip_tree, in_use),
					 check_index<&user_list::same_ip6_list, &user_list::same_ip6_users>(
					     "index by IPv6: ", avl_ip6_tree, in_use)})
		if (!error.empty())
			return error;

	for (int i = 0; i < 4; ++i) {
		const deadline_list &rules = userdb_deadline_lists[i];
		const std::string where = "deadline list " + std::to_string(i) + ": ";
		const int length = list_length(rules.head, VEK_MAX_USERS);
		int due = 0;
		for (const user_list &slot : userdb_ulist) {
			const bool linked = list_linked(&(slot.*rules.link));
			if (linked != (in_use.test(slot_of(&slot)) && slot.uinfo->*rules.deadline != 0))
				return where + (linked ? "linked without a deadline"
						       : "a deadline that is not linked");
			due += linked;
		}
		if (length != due)
			return where + "broken, or not of its sessions' number";
		// A configuration change leaves the idle list in session order.
		for (list_head *link = rules.head->next; i != DEADLINE_IDLE && link->next != rules.head;
		     link = link->next)
			if (rules.entry(link)->uinfo->*rules.deadline >
			    rules.entry(link->next)->uinfo->*rules.deadline)
				return where + "not ascending";
	}

	if (std::string error = check_rbtree(rb_root); !error.empty())
		return error;
	std::size_t stations = 0;
	for (rb_node_t *node = rb_first(rb_root); node != nullptr; node = rb_next(node), ++stations)
		if (node->session == nullptr || node->session->station != node)
			return "a station without its session";
	for (std::size_t i = 0; i < VEK_MAX_USERS; ++i) {
		const user_list &slot = userdb_ulist[i];
		if (slot.uinfo != &userdb_uinfo[i])
			return "a slot lost its record";
		if (slot.station == nullptr)
			continue;
		stations--;
		if (!in_use.test(i) || !IsWebAuth(slot.uinfo->service))
			return "a station of a free slot, or of a session that is none of the portal's";
	}
	return stations == 0 ? "" : "a session whose station is not in the tree";
}
