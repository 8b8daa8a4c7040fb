// avl.cpp - height-balanced binary search tree of embedded nodes, threaded by
// a list in key order.
//
// Each node stores the height of its subtree, in the field the device's library calls
// balance. After an insert or delete the
// path from the lowest changed node to the root is walked once, fixing
// heights and rotating where the two sides differ by more than one; that
// walk is O(log n) and keeps the code to one rebalancing routine. The key
// order list makes iteration and neighbour lookups free: a new node is
// linked next to the parent it hangs from, which is its in-order neighbour.
#include <libubox/avl.h>

#include <cstring>

namespace {

int height(const avl_node *n)
{
	return n ? n->balance : 0;
}

void update_height(avl_node *n)
{
	int l = height(n->left);
	int r = height(n->right);
	n->balance = static_cast<signed char>(1 + (l > r ? l : r));
}

void replace_child(avl_tree *tree, avl_node *parent, avl_node *old_child, avl_node *new_child)
{
	if (!parent)
		tree->root = new_child;
	else if (parent->left == old_child)
		parent->left = new_child;
	else
		parent->right = new_child;
	if (new_child)
		new_child->parent = parent;
}

//     x              y
//    / \            / \         (rotate_left; rotate_right is the mirror)
//   a   y    ->    x   c
//      / \        / \ .
//     b   c      a   b
avl_node *rotate_left(avl_tree *tree, avl_node *x)
{
	avl_node *y = x->right;
	replace_child(tree, x->parent, x, y);
	x->right = y->left;
	if (y->left)
		y->left->parent = x;
	y->left = x;
	x->parent = y;
	update_height(x);
	update_height(y);
	return y;
}

avl_node *rotate_right(avl_tree *tree, avl_node *x)
{
	avl_node *y = x->left;
	replace_child(tree, x->parent, x, y);
	x->left = y->right;
	if (y->right)
		y->right->parent = x;
	y->right = x;
	x->parent = y;
	update_height(x);
	update_height(y);
	return y;
}

void rebalance(avl_tree *tree, avl_node *n)
{
	while (n) {
		update_height(n);
		int balance = height(n->left) - height(n->right);
		if (balance > 1) {
			if (height(n->left->left) < height(n->left->right))
				rotate_left(tree, n->left);
			n = rotate_right(tree, n);
		} else if (balance < -1) {
			if (height(n->right->right) < height(n->right->left))
				rotate_right(tree, n->right);
			n = rotate_left(tree, n);
		}
		n = n->parent;
	}
}

avl_node *node_of(const list_head *l)
{
	return container_of(const_cast<list_head *>(l), avl_node, list);
}

int compare(const avl_tree *tree, const void *a, const void *b)
{
	return tree->comp(a, b, tree->cmp_ptr);
}

// Steps back to the earliest of a run of equal keys.
avl_node *first_of_equals(const avl_tree *tree, avl_node *n)
{
	while (n && n->list.prev != &tree->list_head) {
		avl_node *prev = node_of(n->list.prev);
		if (compare(tree, prev->key, n->key) != 0)
			break;
		n = prev;
	}
	return n;
}

avl_node *find(const avl_tree *tree, const void *key, avl_find_mode mode)
{
	avl_node *best = nullptr;
	avl_node *cur = tree->root;
	while (cur) {
		int c = compare(tree, key, cur->key);
		if (c == 0)
			return first_of_equals(tree, cur);
		if (c < 0) {
			if (mode == AVL_FIND_GREATEREQUAL)
				best = cur;
			cur = cur->left;
		} else {
			if (mode == AVL_FIND_LESSEQUAL)
				best = cur;
			cur = cur->right;
		}
	}
	return first_of_equals(tree, best);
}

} // namespace

extern "C" {

void avl_init(avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr) noexcept
{
	INIT_LIST_HEAD(&tree->list_head);
	tree->root = nullptr;
	tree->count = 0;
	tree->allow_dups = allow_dups;
	tree->comp = comp;
	tree->cmp_ptr = ptr;
}

avl_node *avl_find(const avl_tree *tree, const void *key) noexcept
{
	return find(tree, key, AVL_FIND_EQUAL);
}

avl_node *avl_find_greaterequal(const avl_tree *tree, const void *key) noexcept
{
	return find(tree, key, AVL_FIND_GREATEREQUAL);
}

avl_node *avl_find_lessequal(const avl_tree *tree, const void *key) noexcept
{
	return find(tree, key, AVL_FIND_LESSEQUAL);
}

void *avl_find_container(const avl_tree *tree, const void *key, size_t offset,
			 avl_find_mode mode) noexcept
{
	avl_node *n = find(tree, key, mode);
	return n ? reinterpret_cast<char *>(n) - offset : nullptr;
}

int avl_insert(avl_tree *tree, avl_node *node) noexcept
{
	node->left = node->right = nullptr;
	node->balance = 1;
	avl_node *parent = nullptr;
	avl_node *cur = tree->root;
	int c = 0;
	while (cur) {
		c = compare(tree, node->key, cur->key);
		if (c == 0 && !tree->allow_dups)
			return -1;
		parent = cur;
		// Equal keys go right: after the ones already there.
		cur = c < 0 ? cur->left : cur->right;
	}
	node->parent = parent;
	if (!parent) {
		tree->root = node;
		list_add(&node->list, &tree->list_head);
	} else if (c < 0) {
		parent->left = node;
		list_add_tail(&node->list, &parent->list);
	} else {
		parent->right = node;
		list_add(&node->list, &parent->list);
	}
	node->leader = node->list.prev == &tree->list_head ||
		       compare(tree, node_of(node->list.prev)->key, node->key) != 0;
	tree->count++;
	rebalance(tree, parent);
	return 0;
}

void avl_delete(avl_tree *tree, avl_node *node) noexcept
{
	if (node->leader && node->list.next != &tree->list_head) {
		avl_node *next = node_of(node->list.next);
		if (compare(tree, next->key, node->key) == 0)
			next->leader = true;
	}

	avl_node *fix_from;
	if (node->left && node->right) {
		// The in-order successor (leftmost of the right subtree, no left
		// child) takes the node's place in the tree.
		avl_node *succ = node_of(node->list.next);
		if (succ->parent == node) {
			fix_from = succ;
		} else {
			fix_from = succ->parent;
			fix_from->left = succ->right;
			if (succ->right)
				succ->right->parent = fix_from;
			succ->right = node->right;
			succ->right->parent = succ;
		}
		succ->left = node->left;
		succ->left->parent = succ;
		replace_child(tree, node->parent, node, succ);
	} else {
		avl_node *child = node->left ? node->left : node->right;
		fix_from = node->parent;
		replace_child(tree, node->parent, node, child);
	}
	list_del(&node->list);
	node->parent = node->left = node->right = nullptr;
	tree->count--;
	rebalance(tree, fix_from);
}

int avl_strcmp(const void *k1, const void *k2, void *) noexcept
{
	return strcmp(static_cast<const char *>(k1), static_cast<const char *>(k2));
}

} // extern "C"
