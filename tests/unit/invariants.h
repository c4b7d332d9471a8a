// invariants.h: the structural rules of the trees and of the user database, checked from outside through
// their public data. Each check returns an empty text, or says which rule is broken.
#ifndef INVARIANTS_H
#define INVARIANTS_H

#include <string>

#include "avl.h"
#include "rbtree.h"

// Order, balance factors and count.
std::string check_avl(const avl_table *table);

// Red-black rules, parent links and order by authentication time.
std::string check_rbtree(const struct rb_root *root);

// Everything userdb.h and rbtree.h say of the slots, rings, counters, lists and stations. Callable whenever
// no handler runs.
std::string check_invariants();

#endif
