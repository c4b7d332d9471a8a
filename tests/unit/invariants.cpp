// invariants.cpp: see invariants.h. Written against the headers only.
#include "invariants.h"

#include <algorithm>
#include <bitset>
#include <cstdlib>
#include <stdexcept>

namespace {

void require(bool holds, const char *what, const char *broken)
{
	if (!holds)
		throw std::logic_error(std::string(what) + ": " + broken);
}

template <class Check> std::string said_by(Check check)
{
	try {
		check();
		return "";
	} catch (const std::logic_error &error) {
		return error.what();
	}
}

// The height of a subtree, whose items are counted and come after `previous`.
int height(const avl_table *table, const avl_node *node, const void *&previous, std::size_t &count)
{
	if (node == nullptr)
		return 0;
	const int left = height(table, node->avl_link[0], previous, count);
	require(previous == nullptr || table->avl_compare(previous, node->avl_data, table->avl_param) < 0,
		"ordered table", "order");
	previous = node->avl_data;
	++count;
	const int right = height(table, node->avl_link[1], previous, count);
	require(right - left == node->avl_balance && abs(right - left) <= 1, "ordered table", "balance");
	return 1 + std::max(left, right);
}

void balanced(const avl_table *table)
{
	const void *previous = nullptr;
	std::size_t count = 0;
	height(table, table->avl_root, previous, count);
	require(count == avl_count(table), "ordered table", "count");
}

int black_height(const rb_node_s *node, const rb_node_s *parent)
{
	if (node == nullptr)
		return 1;
	require(node->parent == parent && node->user_info != nullptr, "station tree", "links");
	require(node->color == BLACK || (node->color == RED && parent != nullptr && parent->color == BLACK),
		"station tree", "red nodes");
	const int left = black_height(node->rb_left, node), right = black_height(node->rb_right, node);
	require(left == right, "station tree", "black nodes");
	return left + node->color;
}

using slot_set = std::bitset<VEK_MAX_USERS>;
slot_set set_of(const std::vector<int> &slots, const char *what)
{
	slot_set set;
	for (const int slot : slots) {
		require(slot >= 0 && !set.test(static_cast<std::size_t>(slot)), what, "links");
		set.set(static_cast<std::size_t>(slot));
	}
	return set;
}

void agree()
{
	const auto entry = list_entry<&user_list::use_list>;
	const slot_set in_use = set_of(slots_on(userdb_use_list.head(), entry), "use list");
	require(in_use.count() == static_cast<std::size_t>(vek_users), "use list", "number");
	require(set_of(slots_on(userdb_unuse_list.head(), entry), "free list") == ~in_use, "free list",
		"slots");

	for (const user_index &index : userdb_indexes) {
		balanced(*index.tree);
		const std::vector<int> all = slots_of(index);
		require(set_of(all, "index") == in_use, "index", "sessions");
		std::size_t keys = 0;
		for (auto at = all.begin(); at != all.end(); ++keys) {
			const user_list *first = &userdb_ulist[*at];
			const auto end = std::find_if(at, all.end(), [&](int slot) {
				return index.compare(&userdb_ulist[slot], first, nullptr) != 0;
			});
			require(first->*index.users == end - at, "index", "counter");
			at = end;
		}
		require(keys == avl_count(*index.tree), "index", "different keys on a ring");
	}

	for (const deadline_list &list : userdb_deadline_lists) {
		const auto deadline = [&](std::size_t slot) { return userdb_uinfo[slot].*list.deadline; };
		slot_set due = in_use;
		for (std::size_t slot = 0; slot < due.size(); ++slot)
			if (deadline(slot) == 0)
				due.reset(slot);
		const std::vector<int> all = slots_on(list.head, list.entry);
		require(set_of(all, "deadline list") == due, "deadline list", "sessions");
		// A configuration change leaves the idle list in session order.
		require(list.link == &user_list::idle_list || std::ranges::is_sorted(all, {}, deadline),
			"deadline list", "order");
	}

	black_height(rb_root->rb_node, nullptr);
	std::size_t stations = 0;
	const rb_node_t *last = nullptr;
	const auto key = [](const rb_node_t *node) { return atoi(node->user_info->auth_time); };
	for (rb_node_t *node = rb_first(rb_root); node != nullptr; last = node, node = rb_next(node)) {
		require(last == nullptr || key(last) <= key(node), "station tree", "order");
		require(node->holder != nullptr && *node->holder == node, "station tree",
			"sessions");
		++stations;
	}
	require(last == rb_last(rb_root), "station tree", "walk");
	for (const user_list &slot : userdb_ulist)
		if (slot.station != nullptr) {
			require(in_use[slot_of(&slot)] && IsWebAuth(slot.uinfo->service), "station", "whose");
			--stations;
		}
	require(stations == 0, "station tree", "number");
}

} // namespace

int slot_of(const user_list *session) { return static_cast<int>(session - userdb_ulist); }

std::vector<int> slots_on(const list_head *head, user_list *(*entry)(list_head *))
{
	std::vector<int> all;
	for (const list_head *at = head; all.size() <= VEK_MAX_USERS; at = at->next) {
		if (at->next == nullptr || at->next->prev != at)
			break;
		if (at->next == head)
			return all;
		all.push_back(slot_of(entry(at->next)));
	}
	return {-1};
}

std::vector<int> slots_of(const user_index &index)
{
	std::vector<int> all;
	avl_traverser walk;
	for (void *item = avl_t_first(&walk, *index.tree); item != nullptr; item = avl_t_next(&walk)) {
		const auto *first = static_cast<user_list *>(item);
		all.push_back(slot_of(first));
		std::ranges::copy(slots_on(&(first->*index.ring), index.entry), std::back_inserter(all));
	}
	return all;
}

std::string check_avl(const avl_table *table)
{
	return said_by([=] { balanced(table); });
}
std::string check_invariants() { return said_by(agree); }
