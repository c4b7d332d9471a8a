// avl_test.cpp: the ordered table's whole interface, of which the daemon uses a part: random changes against
// std::map under traversers that stay; copies that fail at every point; the conditions that stop the program.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>

#include "avl.h"
#include "invariants.h"

namespace {

long live;      // blocks
long left = -1; // allocations before one fails
void *take(libavl_allocator *, std::size_t size)
{
	if (left-- == 0)
		return nullptr;
	++live;
	return std::malloc(size);
}
void give(libavl_allocator *, void *block)
{
	--live;
	std::free(block);
}
libavl_allocator counting = {take, give};

int compare(const void *a, const void *b, void *param)
{
	EXPECT_EQ(&live, param);
	const int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
	return x < y ? -5 : x > y;
}

struct Avl : testing::Test {
	avl_table *table = avl_create(compare, &live, &counting);
	std::deque<int> items;
	std::map<int, int *> model; // the item under each key

	// The item's neighbours; of none, the first and the last.
	int *after(const int *item) const
	{
		const auto place = item != nullptr ? model.upper_bound(*item) : model.begin();
		return place != model.end() ? place->second : nullptr;
	}
	int *before(const int *item) const
	{
		const auto place = item != nullptr ? model.find(*item) : model.end();
		return place != model.begin() ? std::prev(place)->second : nullptr;
	}
	int *put(int *item) { return model.try_emplace(*item, item).first->second; }
	void TearDown() override
	{
		avl_destroy(table, nullptr);
		EXPECT_EQ(0, live);
	}
};

TEST_F(Avl, AgreesWithAMapThroughRandomChanges)
{
	std::mt19937 random(20240917);
	avl_traverser walker, twin;
	int *stand = nullptr; // where the walker is, if anywhere
	avl_t_init(&walker, table);
	for (int step = 0; step < 40000; ++step) {
		// The table grows to some 250 items and shrinks to a few, again and again.
		const unsigned insertions = step / 4000 % 2 == 0 ? 9 : 1;
		int *item = &items.emplace_back(random() % 300);
		int *const there = model.contains(*item) ? model[*item] : nullptr, *want = there;
		void *got = there;
		switch (random() % 20) {
		case 0: got = avl_find(table, item); break;
		case 1: want = stand = there, got = avl_t_find(&walker, table, item); break;
		case 2: want = stand = after(nullptr), got = avl_t_first(&walker, table); break;
		case 3: want = stand = before(nullptr), got = avl_t_last(&walker, table); break;
		case 4: want = stand = before(stand), got = avl_t_prev(&walker); break;
		case 5: want = stand = after(stand), got = avl_t_next(&walker); break;
		case 6: want = stand = put(item), got = avl_t_insert(&walker, table, item); break;
		case 7:
			want = stand, got = avl_t_copy(&twin, &walker);
			std::swap(twin, walker);
			break;
		case 8: // by an equal item
			if (stand == nullptr)
				break;
			*item = *stand, want = stand, stand = model[*item] = item;
			got = random() % 2 ? avl_t_replace(&walker, item) : avl_replace(table, item);
			break;
		default:
			if (random() % 10 < insertions)
				put(item), got = avl_insert(table, item);
			else if (there == nullptr || there != stand)
				model.erase(*item), got = avl_delete(table, item);
		}
		ASSERT_EQ(want, got) << step;
		ASSERT_EQ("", check_avl(table)) << step;
		ASSERT_EQ(model.size(), avl_count(table)) << step;
	}
}

TEST_F(Avl, ACopyIsExactOrNothing)
{
	for (int key : {50, 20, 80, 10, 30, 70, 90, 5, 15, 25, 35, 65, 3, 60, 95, 62})
		avl_insert(table, &items.emplace_back(key));
	const auto copy_item = [](void *item, void *) {
		void *copy = take(nullptr, sizeof(int));
		return copy != nullptr ? std::memcpy(copy, item, sizeof(int)) : nullptr;
	};
	const auto destroy_item = [](void *item, void *) { give(nullptr, item); };
	const long before = live;
	avl_table *copy = nullptr;
	for (long n = 0; n < 2 * before; ++n) { // the header, and each node with its item
		ASSERT_EQ(nullptr, copy) << n;
		ASSERT_EQ(before, live) << n;
		left = n;
		copy = avl_copy(table, copy_item, destroy_item, nullptr);
	}
	left = -1;
	ASSERT_NE(nullptr, copy);
	EXPECT_EQ("", check_avl(copy)); // order and number of the items, too
	EXPECT_EQ(avl_count(table), avl_count(copy));
	avl_destroy(copy, destroy_item);
	EXPECT_EQ(before, live);
}

TEST_F(Avl, ViolatedConditionsStopTheProgram)
{
	int one = 1;
	avl_insert(table, &items.emplace_back(1));
	EXPECT_EXIT(avl_find(nullptr, &one), testing::KilledBySignal(SIGABRT),
		    "tree != NULL && item != NULL");
	EXPECT_EXIT(avl_assert_insert(table, &one), testing::KilledBySignal(SIGABRT),
		    "p != NULL && .p == item");
}

} // namespace
