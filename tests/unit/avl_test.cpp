// avl_test.cpp: the ordered table against std::map, every invariant after every step; traversers across
// changes; copies that fail at every point; the conditions that stop the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "avl.h"
#include "invariants.h"

namespace {

struct item {
	int key;
	bool stored = false;
};

int param_mark;

int compare(const void *a, const void *b, void *param)
{
	EXPECT_EQ(&param_mark, param);
	EXPECT_TRUE(static_cast<const item *>(b)->stored) << "the second argument is no item of the table";
	const int x = static_cast<const item *>(a)->key, y = static_cast<const item *>(b)->key;
	return x < y ? -5 : x > y;
}

struct counting_allocator : libavl_allocator {
	long live = 0, left = -1; // allocations left before one fails; negative: all succeed

	counting_allocator()
	{
		libavl_malloc = [](libavl_allocator *self, std::size_t size) -> void * {
			auto &us = static_cast<counting_allocator &>(*self);
			if (us.left == 0)
				return nullptr;
			us.left -= us.left > 0;
			++us.live;
			return std::malloc(size);
		};
		libavl_free = [](libavl_allocator *self, void *block) {
			EXPECT_NE(nullptr, block);
			--static_cast<counting_allocator &>(*self).live;
			std::free(block);
		};
	}
};

// The whole shape: items and null links in pre-order. A fresh leaf can be left out, as the null link it was.
std::vector<const void *> preorder(const avl_node *node, const item *fresh = nullptr)
{
	if (node == nullptr || (fresh != nullptr && node->avl_data == fresh))
		return {nullptr};
	std::vector<const void *> all{node->avl_data};
	for (const avl_node *child : node->avl_link)
		for (const void *data : preorder(child, fresh))
			all.push_back(data);
	return all;
}

struct Avl : testing::Test {
	counting_allocator allocator;
	avl_table *table = avl_create(compare, &param_mark, &allocator);
	std::vector<std::unique_ptr<item>> items;
	std::map<int, item *> model;

	item *make(int key)
	{
		items.push_back(std::make_unique<item>(key));
		return items.back().get();
	}
	void fill(std::initializer_list<int> keys)
	{
		for (int key : keys) {
			model[key] = make(key);
			model[key]->stored = true;
			EXPECT_EQ(nullptr, avl_insert(table, model[key]));
		}
	}
	void TearDown() override
	{
		if (table != nullptr)
			avl_destroy(table, nullptr);
		EXPECT_EQ(0, allocator.live);
	}
};

// A traverser and where it must stand.
struct walker {
	avl_traverser trav;
	item *at = nullptr;
};

TEST_F(Avl, AgreesWithAMapThroughRandomChanges)
{
	const unsigned seed = 20240917;
	std::mt19937 random(seed);
	walker walkers[4];
	for (walker &w : walkers)
		avl_t_init(&w.trav, table);

	for (int step = 0; step < 15000; ++step) {
		SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
		// The table grows to some 250 items and shrinks to none, again and again.
		const bool growing = step / 1500 % 2 == 0;
		const int key = static_cast<int>(random() % 300);
		item *there = model.contains(key) ? model[key] : nullptr;
		item *fresh = make(key);
		const std::vector<const void *> before = preorder(table->avl_root);
		const unsigned long generation = table->avl_generation;
		const bool full = random() % 8 == 0;
		allocator.left = full ? 0 : -1;
		item *stored = there != nullptr || full ? there : fresh; // what then is under the key
		const unsigned what = random() % 10;
		const bool deletes =
		    what < (growing ? 2u : 7u) && std::ranges::none_of(walkers, [=](const walker &w) {
			    return w.at != nullptr && w.at == there;
		    });
		if (deletes) {
			EXPECT_EQ(there, avl_delete(table, fresh));
			stored = nullptr;
		} else if (what == 7) {
			EXPECT_EQ(there, avl_replace(table, fresh));
			stored = there != nullptr ? fresh : stored;
			for (walker &w : walkers)
				w.at = w.at != nullptr && w.at == there ? fresh : w.at;
		} else if (what == 8) {
			void **slot = avl_probe(table, fresh);
			EXPECT_EQ(stored, slot != nullptr ? *slot : nullptr);
		} else if (what == 9) {
			walker &w = walkers[random() % 4];
			w.at = static_cast<item *>(avl_t_insert(&w.trav, table, fresh));
			EXPECT_EQ(stored, w.at);
		} else {
			EXPECT_EQ(there, avl_insert(table, fresh));
		}
		allocator.left = -1;
		model.erase(key);
		if (stored != nullptr)
			model[key] = stored;
		if (stored == fresh)
			fresh->stored = true;
		else
			items.pop_back();

		ASSERT_EQ("", check_avl(table));
		ASSERT_EQ(model.size(), avl_count(table));
		const bool rotated = there == nullptr && stored != nullptr &&
				     preorder(table->avl_root, fresh) != before,
			   deleted = deletes && there != nullptr;
		ASSERT_EQ(generation + (rotated || deleted), table->avl_generation);
		item key_of{static_cast<int>(random() % 300)};
		auto found = model.find(key_of.key);
		ASSERT_EQ(found != model.end() ? found->second : nullptr, avl_find(table, &key_of));

		// One walker moves.
		walker &w = walkers[random() % 4], &other = walkers[random() % 4];
		ASSERT_EQ(w.at, avl_t_cur(&w.trav));
		const auto place_of = [&](const walker &one) {
			return one.at != nullptr ? model.find(one.at->key) : model.end();
		};
		auto place = place_of(w);
		void *got = nullptr;
		switch (random() % 8) {
		case 0: place = found, got = avl_t_find(&w.trav, table, &key_of); break;
		case 1: place = model.begin(), got = avl_t_first(&w.trav, table); break;
		case 2:
			place = model.empty() ? model.end() : std::prev(model.end());
			got = avl_t_last(&w.trav, table);
			break;
		case 3: place = place_of(other), got = avl_t_copy(&w.trav, &other.trav); break;
		case 4:
		case 5:
			place = model.empty() || place == model.begin() ? model.end() : std::prev(place);
			got = avl_t_prev(&w.trav);
			break;
		default:
			place = w.at == nullptr ? model.begin() : std::next(place);
			got = avl_t_next(&w.trav);
		}
		w.at = place == model.end() ? nullptr : place->second;
		ASSERT_EQ(w.at, got);
		ASSERT_EQ(w.at, avl_t_cur(&w.trav));
	}
	EXPECT_GT(items.size(), 2500u);
}

TEST_F(Avl, TReplaceKeepsTheNode)
{
	fill({1, 2, 3});
	avl_traverser trav;
	item key{2}, other{2, true};
	ASSERT_EQ(model[2], avl_t_find(&trav, table, &key));
	const unsigned long generation = table->avl_generation;
	EXPECT_EQ(model[2], avl_t_replace(&trav, &other));
	EXPECT_EQ(&other, avl_find(table, &key));
	EXPECT_EQ(generation, table->avl_generation);
}

// What avl_copy does with items, and with which failure.
std::vector<std::unique_ptr<item>> copies;
int copies_left, destroyed;
void *copy_item(void *original, void *param)
{
	EXPECT_EQ(&param_mark, param);
	if (copies_left-- == 0)
		return nullptr;
	copies.push_back(std::make_unique<item>(*static_cast<item *>(original)));
	return copies.back().get();
}
void destroy_item(void *copy, void *param)
{
	EXPECT_EQ(&param_mark, param);
	EXPECT_EQ(1u, std::erase_if(copies, [&](auto &one) { return one.get() == copy; }))
	    << "destroyed twice";
	++destroyed;
}

TEST_F(Avl, CopyIsExactOrNothing)
{
	fill({50, 20, 80, 10, 30, 70, 90, 5, 15, 25, 35, 65, 3, 60, 95, 62});
	const int count = static_cast<int>(model.size());
	counting_allocator other;
	for (bool memory : {true, false})
		for (int n = 0; n < count + memory; ++n) { // the header and every node, or every item
			other.left = memory ? n : -1;
			copies_left = memory ? -1 : n;
			destroyed = 0;
			EXPECT_EQ(nullptr, avl_copy(table, copy_item, destroy_item, &other)) << n;
			EXPECT_EQ(memory ? 0 : -1, other.left) << "the failure fired";
			EXPECT_TRUE(memory || destroyed == n) << "exactly what was copied";
			EXPECT_EQ(0, other.live) << n;
			EXPECT_EQ(0u, copies.size()) << n;
		}
	other.left = copies_left = -1;
	avl_table *copy = avl_copy(table, copy_item, nullptr, &other);
	ASSERT_NE(nullptr, copy);
	EXPECT_EQ("", check_avl(copy));
	EXPECT_NE(table->avl_root->avl_data, copy->avl_root->avl_data);
	EXPECT_EQ(count + 1, other.live);
	*avl_probe(copy, model[35]) = nullptr; // destroy skips it
	destroyed = 0;
	avl_destroy(copy, destroy_item);
	EXPECT_EQ(count - 1, destroyed);
	EXPECT_EQ(0, other.live);
	copies.clear();

	const long before = allocator.live;
	avl_table *shared = avl_copy(table, nullptr, nullptr, nullptr);
	EXPECT_EQ(preorder(table->avl_root), preorder(shared->avl_root));
	EXPECT_EQ(before + count + 1, allocator.live) << "from its own allocator";
	avl_destroy(shared, nullptr);
	avl_table *empty = avl_create(compare, &param_mark, &other);
	avl_table *none = avl_copy(empty, copy_item, destroy_item, nullptr);
	EXPECT_EQ(0u, avl_count(none));
	avl_destroy(none, destroy_item);
	avl_destroy(empty, nullptr);
	other.left = 0;
	EXPECT_EQ(nullptr, avl_create(compare, nullptr, &other));
}

TEST_F(Avl, ViolatedConditionsStopTheProgram)
{
	fill({1, 2, 3});
	item one{1}, nine{9};
	avl_traverser trav, at_null;
	avl_t_init(&at_null, table);
	const std::pair<const char *, std::function<void()>> cases[] = {
	    {"allocator != NULL && size > 0", [&] { avl_malloc(&avl_allocator_default, 0); }},
	    {"tree != NULL && item != NULL", [&] { avl_find(nullptr, &one); }},
	    {"trav != NULL && trav->avl_node != NULL && new != NULL", [&] { avl_t_replace(&at_null, &one); }},
	    {"p != NULL && *p == item", [&] { avl_assert_insert(table, &one); }},
	    {"p != NULL", [&] { avl_assert_delete(table, &nine); }},
	    {"i != NULL", // a current item that the table does not hold
	     [&] {
		     avl_t_first(&trav, table);
		     trav.avl_table = avl_create(compare, &param_mark, nullptr);
		     trav.avl_generation = 99;
		     avl_t_next(&trav);
	     }},
	    {"trav->avl_height < AVL_MAX_HEIGHT", // a tree that no balance was kept in
	     [&] {
		     std::vector<avl_node> chain(40);
		     for (std::size_t i = 0; i + 1 < chain.size(); ++i)
			     chain[i] = {{&chain[i + 1], nullptr}, &one, 0};
		     table->avl_root = &chain[0];
		     avl_t_first(&trav, table);
	     }},
	};
	for (const auto &[condition, violate] : cases) {
		std::string pattern;
		for (const char *c = condition; *c != '\0'; ++c)
			pattern += (std::strchr("*+.", *c) != nullptr ? "\\" : "") + std::string(1, *c);
		EXPECT_EXIT(violate(), testing::KilledBySignal(SIGABRT), pattern);
	}
}

} // namespace
