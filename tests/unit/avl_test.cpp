// avl_test.cpp: the ordered table's whole interface, of which the daemon uses a part: random changes against
// std::map under traversers that stay; copies that fail at every point; a condition that stops the program.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>

#include "avl.h"
#include "faults.h"
#include "invariants.h"

namespace {

int parameter; // of every comparison
int compare(const void *a, const void *b, void *param)
{
	EXPECT_EQ(&parameter, param);
	const int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
	return x < y ? -5 : x > y;
}

struct Avl : testing::Test {
	avl_table *table = avl_create(compare, &parameter, nullptr);
	std::deque<int> items;

	~Avl() override { avl_destroy(table, nullptr); }
};

TEST_F(Avl, AgreesWithAMapThroughRandomChanges)
{
	std::map<int, int *> model; // the item under each key
	const auto item = [&](auto place) { return place != model.end() ? place->second : nullptr; };
	struct {
		avl_traverser trav;
		std::map<int, int *>::iterator at; // where it must stand
	} walkers[2];
	for (auto &[trav, at] : walkers) {
		avl_t_init(&trav, table);
		at = model.end();
	}
	std::mt19937 random(20240917);
	for (int step = 0; step < 20000; ++step) {
		// The table grows to some 250 items and shrinks to none, again and again.
		const unsigned deletions = step / 2000 % 2 == 0 ? 2 : 7, what = random() % 10;
		int *fresh = &items.emplace_back(random() % 300);
		const auto there = model.find(*fresh);
		auto &[trav, at] = walkers[step % 2];
		const auto &[other_trav, other] = walkers[1 - step % 2];
		if (what < deletions && (there == model.end() || (there != at && there != other))) {
			EXPECT_EQ(item(there), avl_delete(table, fresh));
			model.erase(*fresh);
		} else if (what == 7 && at != model.end()) { // by an equal item
			*fresh = at->first;
			EXPECT_EQ(at->second,
				  random() % 2 ? avl_t_replace(&trav, fresh) : avl_replace(table, fresh));
			at->second = fresh;
		} else if (what == 8) {
			at = model.try_emplace(*fresh, fresh).first;
			EXPECT_EQ(at->second, avl_t_insert(&trav, table, fresh));
		} else {
			EXPECT_EQ(item(there), avl_insert(table, fresh));
			model.try_emplace(*fresh, fresh);
		}
		ASSERT_EQ("", check_avl(table)) << step;
		ASSERT_EQ(model.size(), avl_count(table)) << step;

		int key = static_cast<int>(random() % 300);
		ASSERT_EQ(item(model.find(key)), avl_find(table, &key)) << step;
		// A map's iterators stay as the traversers do, and its end is between its last and its first.
		void *got = nullptr;
		switch (random() % 8) {
		case 0: at = model.find(key), got = avl_t_find(&trav, table, &key); break;
		case 1: at = model.begin(), got = avl_t_first(&trav, table); break;
		case 2: at = model.empty() ? at : --model.end(), got = avl_t_last(&trav, table); break;
		case 3: at = other, got = avl_t_copy(&trav, &other_trav); break;
		case 4:
		case 5: at = at == model.begin() ? model.end() : --at, got = avl_t_prev(&trav); break;
		default: at = at == model.end() ? model.begin() : ++at, got = avl_t_next(&trav);
		}
		ASSERT_EQ(item(at), got) << step;
	}
}

TEST_F(Avl, ACopyIsExactOrNothing) // and leaks nothing, as the sanitizer build sees
{
	for (int key = 1; key < 23; ++key)
		avl_insert(table, &items.emplace_back(key * 7 % 23));
	const auto copy_item = [](void *original, void *) {
		void *copy = std::malloc(sizeof(int));
		return copy != nullptr ? std::memcpy(copy, original, sizeof(int)) : nullptr;
	};
	const auto destroy_item = [](void *copy, void *param) {
		EXPECT_EQ(&parameter, param);
		std::free(copy);
	};
	avl_table *copy = nullptr;
	const auto check = [&](bool failed) {
		ASSERT_EQ(failed, copy == nullptr);
		if (failed)
			return;
		EXPECT_EQ("", check_avl(copy)); // order and number of the items, too
		avl_destroy(copy, destroy_item);
	};
	exhaust(
	    {"alloc", ENOMEM}, [] {}, [&] { copy = avl_copy(table, copy_item, destroy_item, nullptr); },
	    check);
}

TEST_F(Avl, AViolatedConditionStopsTheProgram)
{
	int one = 1;
	avl_insert(table, &items.emplace_back(1));
	EXPECT_EXIT(avl_assert_insert(table, &one), testing::KilledBySignal(SIGABRT),
		    "avl_assert_insert: condition \"p != NULL && .p == item\" does not hold");
}

} // namespace
