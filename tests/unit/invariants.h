// invariants.h: the structural rules of the trees and of the user database, checked from outside through
// their public data. A check returns an empty text, or says which rule is broken.
#ifndef INVARIANTS_H
#define INVARIANTS_H

#include <string>
#include <vector>

#include "avl.h"
#include "userdb.h"

// Order, balance factors and count.
std::string check_avl(const avl_table *table);

// Everything userdb.h and rbtree.h say of the slots, rings, counters, lists and stations. Callable whenever
// no handler runs.
std::string check_invariants();

int slot_of(const user_list *session);

// The slots on a list or ring in its order, without its head; {-1} when two links disagree, or it has no end.
std::vector<int> slots_on(const list_head *head, user_list *(*entry)(list_head *));

// The slots of an index: keys ascending, each key's in the order of its ring.
std::vector<int> slots_of(const user_index &index);

#endif
