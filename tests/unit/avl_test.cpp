// avl_test.cpp: the ordered table's whole interface, of which the daemon uses a part: random changes against
// std::map under traversers that stay; copies that fail at every point; the conditions that stop the program.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>

#include "avl.h"
#include "fake_platform.h"
#include "invariants.h"

namespace {

long live; // blocks
void *take(libavl_allocator *, std::size_t size)
{
	void *block = std::malloc(size);
	live += block != nullptr;
	return block;
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

	int *at(int key) const { return model.contains(key) ? model.at(key) : nullptr; }
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
	void TearDown() override
	{
		avl_destroy(table, nullptr);
		EXPECT_EQ(0, live);
	}
};

TEST_F(Avl, AgreesWithAMapThroughRandomChanges)
{
	std::mt19937 random(20240917);
	struct {
		avl_traverser trav;
		int *at = nullptr; // where it must stand
	} walkers[2];
	for (auto &walker : walkers)
		avl_t_init(&walker.trav, table);
	for (int step = 0; step < 20000; ++step) {
		// The table grows to some 250 items and shrinks to none, again and again.
		const unsigned deletions = step / 2000 % 2 == 0 ? 2 : 7, what = random() % 10;
		int *fresh = &items.emplace_back(random() % 300), *there = at(*fresh);
		auto &[trav, stand] = walkers[step % 2];
		auto &[other_trav, other] = walkers[1 - step % 2];
		if (what < deletions && (there == nullptr || (there != stand && there != other))) {
			EXPECT_EQ(there, avl_delete(table, fresh));
			model.erase(*fresh);
		} else if (what == 7 && stand != nullptr) { // by an equal item
			*fresh = *stand;
			EXPECT_EQ(stand,
				  random() % 2 ? avl_t_replace(&trav, fresh) : avl_replace(table, fresh));
			other = other == stand ? fresh : other;
			stand = model[*fresh] = fresh;
		} else if (what == 8) {
			stand = model.try_emplace(*fresh, fresh).first->second;
			EXPECT_EQ(stand, avl_t_insert(&trav, table, fresh));
		} else {
			model.try_emplace(*fresh, fresh);
			EXPECT_EQ(there, avl_insert(table, fresh));
		}
		ASSERT_EQ("", check_avl(table)) << step;
		ASSERT_EQ(model.size(), avl_count(table)) << step;

		int key = static_cast<int>(random() % 300);
		ASSERT_EQ(at(key), avl_find(table, &key)) << step;
		void *got = nullptr;
		switch (random() % 8) {
		case 0: stand = at(key), got = avl_t_find(&trav, table, &key); break;
		case 1: stand = after(nullptr), got = avl_t_first(&trav, table); break;
		case 2: stand = before(nullptr), got = avl_t_last(&trav, table); break;
		case 3: stand = other, got = avl_t_copy(&trav, &other_trav); break;
		case 4:
		case 5: stand = before(stand), got = avl_t_prev(&trav); break;
		default: stand = after(stand), got = avl_t_next(&trav);
		}
		ASSERT_EQ(stand, got) << step;
	}
}

void *copy_item(void *original, void *)
{
	void *copy = take(nullptr, sizeof(int));
	return copy != nullptr ? std::memcpy(copy, original, sizeof(int)) : nullptr;
}
void destroy_item(void *copy, void *param)
{
	EXPECT_EQ(&live, param);
	give(nullptr, copy);
}

TEST_F(Avl, ACopyIsExactOrNothing)
{
	for (int key : {50, 20, 80, 10, 30, 70, 90, 5, 15, 25, 35, 65, 3, 60, 95, 62})
		avl_insert(table, &items.emplace_back(key));
	const long count = static_cast<long>(avl_count(table)), before = live;
	avl_table *copy = nullptr;
	for (int n = 0; n <= 2 * count + 1; ++n) { // the header, and each node with its item
		EXPECT_EQ(before, live) << n;
		EXPECT_EQ(nullptr, copy) << n;
		fake.allocations_left = n;
		copy = avl_copy(table, copy_item, destroy_item, nullptr);
	}
	fake.allocations_left = -1;
	ASSERT_NE(nullptr, copy);
	EXPECT_EQ("", check_avl(copy)); // order and number of the items, too
	EXPECT_EQ(before + 2 * count + 1, live);
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
