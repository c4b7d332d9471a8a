// avl.h: an ordered table of opaque items, kept as a height-balanced binary tree without parent pointers,
// with in-order traversers that stay usable while the table changes.
//
// The table stores item pointers and orders them by its comparison function; it never copies or frees an item
// unless a function given by the caller does. No two items compare equal. Violated preconditions stop the
// program with a report, in every build.
#ifndef AVL_H
#define AVL_H

#include <cstddef>

// Negative, zero or positive as a orders before, equal to or after b. `a` is always the item or key given by
// the caller, `b` an item of the table, `param` the table's parameter.
using avl_comparison_func = int(const void *a, const void *b, void *param);
using avl_item_func = void(void *item, void *param);
using avl_copy_func = void *(void *item, void *param); // null on failure

// What a table allocates through. Each function receives the allocator itself.
struct libavl_allocator {
	void *(*libavl_malloc)(libavl_allocator *allocator, std::size_t size); // null on failure
	void (*libavl_free)(libavl_allocator *allocator, void *block);
};
extern libavl_allocator avl_allocator_default; // the heap
void *avl_malloc(libavl_allocator *allocator, std::size_t size);
void avl_free(libavl_allocator *allocator, void *block);

constexpr std::size_t AVL_MAX_HEIGHT = 32; // bounds every stack in the module

struct avl_node {
	avl_node *avl_link[2]; // subtrees ordering before and after
	void *avl_data;
	signed char avl_balance; // height after minus height before
};

struct avl_table {
	avl_node *avl_root;
	avl_comparison_func *avl_compare;
	void *avl_param;
	libavl_allocator *avl_alloc;
	std::size_t avl_count;
	unsigned long avl_generation; // changes when a traverser's stack may have become wrong
};
#define avl_count(table) (static_cast<std::size_t>((table)->avl_count))

struct avl_traverser {
	struct avl_table *avl_table;
	struct avl_node *avl_node; // null: before the first and after the last item
	struct avl_node *avl_stack[AVL_MAX_HEIGHT];
	std::size_t avl_height;
	unsigned long avl_generation;
};

// A null allocator means the default. Null without memory.
avl_table *avl_create(avl_comparison_func *compare, void *param, libavl_allocator *allocator);

// The stored item equal to `item`, or null.
void *avl_find(const avl_table *tree, const void *item);

// The slot of the stored item equal to `item`, which is inserted when there is none; null without memory (the
// table is then unchanged). Only an item that compares equal may be stored through the slot.
void **avl_probe(avl_table *tree, void *item);

// Null when inserted (or without memory), otherwise the equal item, which stays.
void *avl_insert(avl_table *tree, void *item);

// As avl_insert, but an equal item is replaced and returned.
void *avl_replace(avl_table *tree, void *item);

// Removes the stored item equal to `item` and returns it; null when there is none.
void *avl_delete(avl_table *tree, const void *item);

// A new table of the same shape; items through `copy`, or shared when it is null. On failure everything
// already copied goes to `destroy` (unless null) and the result is null. A null allocator means `org`'s.
avl_table *avl_copy(const avl_table *org, avl_copy_func *copy, avl_item_func *destroy,
		    libavl_allocator *allocator);

// Frees the table, giving every non-null item to `destroy` (unless null) first.
void avl_destroy(avl_table *tree, avl_item_func *destroy);

// Stop the program unless `item` itself is now stored / was found.
void avl_assert_insert(avl_table *tree, void *item);
void *avl_assert_delete(avl_table *tree, void *item);

// Traversers. Each returns the item at the new position, null at the null position. A traverser survives any
// change of the table except the removal of its current item.
void avl_t_init(avl_traverser *trav, avl_table *tree); // null position
void *avl_t_first(avl_traverser *trav, avl_table *tree);
void *avl_t_last(avl_traverser *trav, avl_table *tree);
void *avl_t_find(avl_traverser *trav, avl_table *tree, void *item);
void *avl_t_insert(avl_traverser *trav, avl_table *tree, void *item);
void *avl_t_copy(avl_traverser *trav, const avl_traverser *src);
void *avl_t_next(avl_traverser *trav);
void *avl_t_prev(avl_traverser *trav);
void *avl_t_cur(avl_traverser *trav);
// Stores another item in the current node, the order being the caller's care; returns the old one.
void *avl_t_replace(avl_traverser *trav, void *new_item);

#endif
