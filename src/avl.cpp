// avl.cpp: the ordered table: a height-balanced binary tree without parent pointers, and its traversers.
//
// Insertion and deletion are written once for both mirror images: `d` is the side (an index into avl_link) on
// which something happens, `!d` the other one, and leaning(d) the balance of a node whose side d is the
// higher. Nothing recurses; every stack is bounded by AVL_MAX_HEIGHT. What the items are is left to the
// callers, who are held to the stated conditions in every build: a broken one means that the table can no
// longer be trusted.
#include "avl.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <span>

libavl_allocator avl_allocator_default = {avl_malloc, avl_free};

namespace {

[[noreturn, gnu::cold]] void violated(const char *condition, const char *operation)
{
	std::fprintf(stderr, "%s: condition \"%s\" does not hold\n", operation, condition);
	std::abort();
}

// Unless told otherwise, the operation is the function that calls.
void require(bool holds, const char *condition, const char *operation = __builtin_FUNCTION())
{
	if (!holds) [[unlikely]]
		violated(condition, operation);
}

int leaning(int d) { return d == 0 ? -1 : +1; }

int compare(const avl_table *tree, const void *probe, const avl_node *node)
{
	return tree->avl_compare(probe, node->avl_data, tree->avl_param);
}

// An unlinked node without an item; null without memory.
avl_node *new_node(avl_table *tree)
{
	auto *node =
	    static_cast<avl_node *>(tree->avl_alloc->libavl_malloc(tree->avl_alloc, sizeof(avl_node)));
	if (node)
		*node = {};
	return node;
}

// Lifts y's child on side d above y and returns it. Balances are the caller's.
avl_node *rotate(avl_node *y, int d)
{
	avl_node *x = y->avl_link[d];
	y->avl_link[d] = x->avl_link[!d];
	x->avl_link[!d] = y;
	return x;
}

// For a y too high on side d, whose child there leans the other way: lifts that child's inner child above
// both and returns it.
avl_node *rotate_twice(avl_node *y, int d)
{
	avl_node *x = y->avl_link[d];
	avl_node *w = y->avl_link[d] = rotate(x, !d);
	rotate(y, d);
	x->avl_balance = w->avl_balance == -leaning(d) ? leaning(d) : 0;
	y->avl_balance = w->avl_balance == leaning(d) ? -leaning(d) : 0;
	w->avl_balance = 0;
	return w;
}

struct probed {
	avl_node *node; // with the equal item; null without memory
	bool inserted;
};

probed probe(avl_table *tree, void *item)
{
	require(tree && item, "tree != NULL && item != NULL", "avl_probe");

	// Everything that changes lies below y, the deepest node on the way that is not in balance: the
	// higher side of y takes the growth of the nodes below it, or y is rotated back to the height it had.
	avl_node **link = &tree->avl_root;
	avl_node **y_link = link;
	unsigned char directions[AVL_MAX_HEIGHT]; // taken from y downwards
	std::size_t steps = 0;
	while (avl_node *p = *link) {
		const int order = compare(tree, item, p);
		if (order == 0)
			return {p, false};
		if (p->avl_balance != 0) {
			y_link = link;
			steps = 0;
		}
		require(steps < AVL_MAX_HEIGHT, "steps < AVL_MAX_HEIGHT", "avl_probe");
		directions[steps++] = order > 0;
		link = &p->avl_link[order > 0];
	}

	avl_node *n = new_node(tree);
	if (!n)
		return {nullptr, false};
	avl_node *y = *y_link;
	*link = n;
	n->avl_data = item;
	tree->avl_count++;
	if (!y)
		return {n, true};

	avl_node *p = y;
	for (const unsigned char d : std::span(directions, steps)) {
		p->avl_balance += leaning(d);
		p = p->avl_link[d];
	}
	if (y->avl_balance != -2 && y->avl_balance != +2)
		return {n, true};

	const int d = y->avl_balance > 0;
	avl_node *x = y->avl_link[d];
	if (x->avl_balance == leaning(d)) {
		*y_link = rotate(y, d);
		x->avl_balance = y->avl_balance = 0;
	} else {
		require(x->avl_balance == -leaning(d),
			d == 0 ? "x->avl_balance == +1" : "x->avl_balance == -1", "avl_probe");
		*y_link = rotate_twice(y, d);
	}
	tree->avl_generation++;
	return {n, true};
}

// The way from the root's anchor to a node: each node passed with the side taken.
struct step {
	avl_node *node;
	int d;
	avl_node *&link() const { return node->avl_link[d]; }
};

class path {
public:
	void push(avl_node *node, int d)
	{
		require(height_ < AVL_MAX_HEIGHT, "height < AVL_MAX_HEIGHT", "avl_delete");
		steps_[height_++] = {node, d};
	}
	step pop() { return steps_[--height_]; }
	step &top() { return steps_[height_ - 1]; }
	bool at_anchor() const { return height_ == 1; }

private:
	step steps_[AVL_MAX_HEIGHT];
	std::size_t height_ = 0;
};

// Takes p, which hangs below the top of the path, out of the tree; the path then leads to where a side got
// lower.
void unlink_node(path &way, avl_node *p)
{
	avl_node *&place = way.top().link();
	avl_node *r = p->avl_link[1];
	if (!r) {
		place = p->avl_link[0];
		return;
	}
	if (!r->avl_link[0]) {
		r->avl_link[0] = p->avl_link[0];
		r->avl_balance = p->avl_balance;
		place = r;
		way.push(r, 1);
		return;
	}
	way.push(p, 1);
	step &replaced = way.top(); // of p, until its successor is known
	for (; r->avl_link[0]; r = r->avl_link[0])
		way.push(r, 0);
	avl_node *s = r;
	way.top().link() = s->avl_link[1];
	s->avl_link[0] = p->avl_link[0];
	s->avl_link[1] = p->avl_link[1];
	s->avl_balance = p->avl_balance;
	place = s;
	replaced.node = s;
}

// Restores the balance from the end of the path upwards, as far as heights changed.
void rebalance_lower(path &way)
{
	while (!way.at_anchor()) {
		auto [y, shrunk] = way.pop();
		const int d = !shrunk;
		y->avl_balance += leaning(d);
		if (y->avl_balance == leaning(d))
			return;
		if (y->avl_balance == 0)
			continue;

		avl_node *x = y->avl_link[d];
		if (x->avl_balance == -leaning(d)) {
			way.top().link() = rotate_twice(y, d);
			continue;
		}
		way.top().link() = rotate(y, d);
		if (x->avl_balance == 0) {
			x->avl_balance = -leaning(d);
			y->avl_balance = leaning(d);
			return;
		}
		x->avl_balance = y->avl_balance = 0;
	}
}

void push(avl_traverser *trav, avl_node *node, const char *operation)
{
	require(trav->avl_height < AVL_MAX_HEIGHT, "trav->avl_height < AVL_MAX_HEIGHT", operation);
	trav->avl_stack[trav->avl_height++] = node;
}

void *stand_on(avl_traverser *trav, avl_node *node)
{
	trav->avl_node = node;
	return node ? node->avl_data : nullptr;
}

// From `node` down side d to the end.
void *go_to_end(avl_traverser *trav, avl_node *node, int d, const char *operation)
{
	for (; node && node->avl_link[d]; node = node->avl_link[d])
		push(trav, node, operation);
	return stand_on(trav, node);
}

void *go_to_edge(avl_traverser *trav, avl_table *tree, int d, const char *operation)
{
	require(tree && trav, "tree != NULL && trav != NULL", operation);
	avl_t_init(trav, tree);
	return go_to_end(trav, tree->avl_root, d, operation);
}

} // namespace

// Makes the ancestor stack right again after the table changed.
static void trav_refresh(avl_traverser *trav)
{
	require(trav, "trav != NULL");
	const avl_table *tree = trav->avl_table;
	trav->avl_generation = tree->avl_generation;
	if (!trav->avl_node)
		return;
	trav->avl_height = 0;
	for (avl_node *i = tree->avl_root; i != trav->avl_node;) {
		require(i, "i != NULL");
		push(trav, i, __func__);
		i = i->avl_link[compare(tree, trav->avl_node->avl_data, i) > 0];
	}
}

namespace {

// To the neighbour on side d.
void *move(avl_traverser *trav, int d, const char *operation)
{
	require(trav, "trav != NULL", operation);
	if (trav->avl_generation != trav->avl_table->avl_generation)
		trav_refresh(trav);

	avl_node *node = trav->avl_node;
	if (!node)
		return go_to_edge(trav, trav->avl_table, !d, operation);
	if (node->avl_link[d]) {
		push(trav, node, operation);
		return go_to_end(trav, node->avl_link[d], !d, operation);
	}
	while (trav->avl_height > 0) {
		avl_node *left = node;
		node = trav->avl_stack[--trav->avl_height];
		if (node->avl_link[d] != left)
			return stand_on(trav, node);
	}
	return stand_on(trav, nullptr);
}

} // namespace

// Gives up a copy: what has its item already goes to `destroy`.
static avl_table *copy_error_recovery(avl_table *tree, avl_item_func *destroy)
{
	avl_destroy(tree, destroy);
	return nullptr;
}

void *avl_malloc(libavl_allocator *allocator, std::size_t size)
{
	require(allocator && size > 0, "allocator != NULL && size > 0");
	return std::malloc(size);
}

void avl_free(libavl_allocator *allocator, void *block)
{
	require(allocator && block, "allocator != NULL && block != NULL");
	std::free(block);
}

avl_table *avl_create(avl_comparison_func *compare, void *param, libavl_allocator *allocator)
{
	require(compare, "compare != NULL");
	if (!allocator)
		allocator = &avl_allocator_default;
	auto *tree = static_cast<avl_table *>(allocator->libavl_malloc(allocator, sizeof(avl_table)));
	if (tree)
		*tree = {nullptr, compare, param, allocator, 0, 0};
	return tree;
}

void *avl_find(const avl_table *tree, const void *item)
{
	require(tree && item, "tree != NULL && item != NULL");
	for (const avl_node *p = tree->avl_root; p;) {
		const int order = compare(tree, item, p);
		if (order == 0)
			return p->avl_data;
		p = p->avl_link[order > 0];
	}
	return nullptr;
}

void **avl_probe(avl_table *tree, void *item)
{
	avl_node *node = probe(tree, item).node;
	return node ? &node->avl_data : nullptr;
}

void *avl_insert(avl_table *tree, void *item)
{
	const auto [node, inserted] = probe(tree, item);
	return node && !inserted ? node->avl_data : nullptr;
}

void *avl_replace(avl_table *tree, void *item)
{
	const auto [node, inserted] = probe(tree, item);
	if (!node || inserted)
		return nullptr;
	void *old = node->avl_data;
	node->avl_data = item;
	return old;
}

void *avl_delete(avl_table *tree, const void *item)
{
	require(tree && item, "tree != NULL && item != NULL");

	// So that the root hangs on a link like any other node.
	avl_node anchor = {{tree->avl_root, nullptr}, nullptr, 0};
	path way;
	way.push(&anchor, 0);
	avl_node *p;
	for (;;) {
		p = way.top().link();
		if (!p)
			return nullptr;
		const int order = compare(tree, item, p);
		if (order == 0)
			break;
		way.push(p, order > 0);
	}

	unlink_node(way, p);
	void *found = p->avl_data;
	tree->avl_alloc->libavl_free(tree->avl_alloc, p);
	rebalance_lower(way);
	tree->avl_root = anchor.avl_link[0];
	tree->avl_count--;
	tree->avl_generation++;
	return found;
}

avl_table *avl_copy(const avl_table *org, avl_copy_func *copy, avl_item_func *destroy,
		    libavl_allocator *allocator)
{
	require(org, "org != NULL");
	avl_table *tree =
	    avl_create(org->avl_compare, org->avl_param, allocator ? allocator : org->avl_alloc);
	if (!tree)
		return nullptr;
	tree->avl_count = org->avl_count;

	// In order, each node made on the way down and given its item on the way up: until then it holds
	// neither item nor children, so that whatever exists at a failure is a tree that can be destroyed.
	struct {
		const avl_node *source;
		avl_node *made;
	} stack[AVL_MAX_HEIGHT + 1];
	std::size_t height = 0; // in pairs
	const avl_node *source = org->avl_root;
	avl_node **link = &tree->avl_root;
	while (source || height > 0) {
		for (; source; source = source->avl_link[0]) {
			require(height < AVL_MAX_HEIGHT + 1, "height < 2 * (AVL_MAX_HEIGHT + 1)");
			avl_node *made = *link = new_node(tree);
			if (!made)
				return copy_error_recovery(tree, destroy);
			made->avl_balance = source->avl_balance;
			stack[height++] = {source, made};
			link = &made->avl_link[0];
		}
		const auto [from, to] = stack[--height];
		to->avl_data = copy ? copy(from->avl_data, org->avl_param) : from->avl_data;
		if (copy && !to->avl_data)
			return copy_error_recovery(tree, destroy);
		source = from->avl_link[1];
		link = &to->avl_link[1];
	}
	return tree;
}

void avl_destroy(avl_table *tree, avl_item_func *destroy)
{
	require(tree, "tree != NULL");
	for (avl_node *p = tree->avl_root; p;) {
		if (p->avl_link[0]) {
			p = rotate(p, 0);
			continue;
		}
		avl_node *next = p->avl_link[1];
		if (destroy && p->avl_data)
			destroy(p->avl_data, tree->avl_param);
		tree->avl_alloc->libavl_free(tree->avl_alloc, p);
		p = next;
	}
	tree->avl_alloc->libavl_free(tree->avl_alloc, tree);
}

void avl_assert_insert(avl_table *tree, void *item)
{
	void **p = avl_probe(tree, item);
	require(p && *p == item, "p != NULL && *p == item");
}

void *avl_assert_delete(avl_table *tree, void *item)
{
	void *p = avl_delete(tree, item);
	require(p, "p != NULL");
	return p;
}

void avl_t_init(avl_traverser *trav, avl_table *tree)
{
	trav->avl_table = tree;
	trav->avl_node = nullptr;
	trav->avl_height = 0;
	trav->avl_generation = tree->avl_generation;
}

void *avl_t_first(avl_traverser *trav, avl_table *tree) { return go_to_edge(trav, tree, 0, __func__); }

void *avl_t_last(avl_traverser *trav, avl_table *tree) { return go_to_edge(trav, tree, 1, __func__); }

void *avl_t_find(avl_traverser *trav, avl_table *tree, void *item)
{
	require(trav && tree && item, "trav != NULL && tree != NULL && item != NULL");
	avl_t_init(trav, tree);
	for (avl_node *p = tree->avl_root; p;) {
		const int order = compare(tree, item, p);
		if (order == 0)
			return stand_on(trav, p);
		push(trav, p, __func__);
		p = p->avl_link[order > 0];
	}
	trav->avl_height = 0;
	return nullptr;
}

void *avl_t_insert(avl_traverser *trav, avl_table *tree, void *item)
{
	require(trav && tree && item, "trav != NULL && tree != NULL && item != NULL");
	avl_node *node = probe(tree, item).node;
	avl_t_init(trav, tree);
	if (node)
		trav->avl_generation--; // the stack is not known: the first move builds it
	return stand_on(trav, node);
}

void *avl_t_copy(avl_traverser *trav, const avl_traverser *src)
{
	require(trav && src, "trav != NULL && src != NULL");
	if (trav != src) {
		trav->avl_table = src->avl_table;
		trav->avl_node = src->avl_node;
		trav->avl_generation = src->avl_generation;
		if (src->avl_generation == src->avl_table->avl_generation) {
			trav->avl_height = src->avl_height;
			std::copy_n(src->avl_stack, src->avl_height, trav->avl_stack);
		}
	}
	return avl_t_cur(trav);
}

void *avl_t_next(avl_traverser *trav) { return move(trav, 1, __func__); }

void *avl_t_prev(avl_traverser *trav) { return move(trav, 0, __func__); }

void *avl_t_cur(avl_traverser *trav)
{
	require(trav, "trav != NULL");
	return trav->avl_node ? trav->avl_node->avl_data : nullptr;
}

void *avl_t_replace(avl_traverser *trav, void *new_item)
{
	require(trav && trav->avl_node && new_item, "trav != NULL && trav->avl_node != NULL && new != NULL");
	void *old = trav->avl_node->avl_data;
	trav->avl_node->avl_data = new_item;
	return old;
}
