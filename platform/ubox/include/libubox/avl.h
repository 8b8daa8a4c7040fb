/* avl.h - ordered map of embedded nodes: a height-balanced (AVL) binary search
 * tree for lookups, plus a list threading every node in key order for
 * iteration. Keys are compared with the tree's comparison function; with
 * allow_dups, equal keys are kept in insertion order and a lookup finds the
 * earliest. All operations are O(log n) except iteration. */
#ifndef LIBUBOX_AVL_H
#define LIBUBOX_AVL_H

#include <stddef.h>
#include <stdbool.h>

#include "list.h"

#ifdef __cplusplus
extern "C" {
#endif

struct avl_node {
	struct list_head list;         /* position in key order */
	struct avl_node *parent;
	struct avl_node *left;
	struct avl_node *right;
	const void *key;               /* set by the caller before avl_insert */
	/* The device's libubox keeps the balance factor here; this one keeps the height of the
	 * subtree rooted here (leaf 1, at most 45 for 2^32 nodes). Only the library reads it;
	 * what must agree is the type: the node is embedded in callers' objects
	 * (struct ubus_object), and an int here moved every later field on 32-bit targets. */
	signed char balance;
	bool leader;                   /* first node of a run of equal keys */
};

typedef int (*avl_tree_comp)(const void *k1, const void *k2, void *ptr);

struct avl_tree {
	struct list_head list_head;    /* every node, in key order */
	struct avl_node *root;
	unsigned int count;
	bool allow_dups;
	avl_tree_comp comp;
	void *cmp_ptr;                 /* passed to comp as its third argument */
};

enum avl_find_mode {
	AVL_FIND_EQUAL,
	AVL_FIND_LESSEQUAL,
	AVL_FIND_GREATEREQUAL,
};

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr) UBOX_NOEXCEPT;
/* NULL when absent; with duplicates the earliest inserted of the equal nodes. */
struct avl_node *avl_find(const struct avl_tree *tree, const void *key) UBOX_NOEXCEPT;
struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key) UBOX_NOEXCEPT;
struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key) UBOX_NOEXCEPT;
/* 0, or -1 (tree unchanged) when the key exists and duplicates are not allowed. */
int avl_insert(struct avl_tree *tree, struct avl_node *node) UBOX_NOEXCEPT;
/* node must be in tree. */
void avl_delete(struct avl_tree *tree, struct avl_node *node) UBOX_NOEXCEPT;
/* strcmp on the keys, for trees keyed by strings. */
int avl_strcmp(const void *k1, const void *k2, void *ptr) UBOX_NOEXCEPT;
/* The record holding the node found in mode, reached by offset; NULL if none. */
void *avl_find_container(const struct avl_tree *tree, const void *key, size_t offset,
			 enum avl_find_mode mode) UBOX_NOEXCEPT;

static inline bool avl_is_empty(const struct avl_tree *tree)
{
	return tree->count == 0;
}

static inline bool avl_is_first(const struct avl_tree *tree, const struct avl_node *node)
{
	return tree->list_head.next == &node->list;
}

static inline bool avl_is_last(const struct avl_tree *tree, const struct avl_node *node)
{
	return tree->list_head.prev == &node->list;
}

#define AVL_TREE_INIT(name, cmp, dups, ptr) \
	{ LIST_HEAD_INIT((name).list_head), NULL, 0, dups, cmp, ptr }
#define AVL_TREE(name, cmp, dups, ptr) \
	struct avl_tree name = AVL_TREE_INIT(name, cmp, dups, ptr)

#define avl_find_element(tree, key, element, node_member) \
	((__typeof__(element))avl_find_container(tree, key, \
		offsetof(__typeof__(*(element)), node_member), AVL_FIND_EQUAL))
#define avl_find_ge_element(tree, key, element, node_member) \
	((__typeof__(element))avl_find_container(tree, key, \
		offsetof(__typeof__(*(element)), node_member), AVL_FIND_GREATEREQUAL))
#define avl_find_le_element(tree, key, element, node_member) \
	((__typeof__(element))avl_find_container(tree, key, \
		offsetof(__typeof__(*(element)), node_member), AVL_FIND_LESSEQUAL))

#define avl_first_element(tree, element, node_member) \
	container_of((tree)->list_head.next, __typeof__(*(element)), node_member.list)
#define avl_last_element(tree, element, node_member) \
	container_of((tree)->list_head.prev, __typeof__(*(element)), node_member.list)
#define avl_next_element(element, node_member) \
	container_of((&(element)->node_member.list)->next, __typeof__(*(element)), node_member.list)
#define avl_prev_element(element, node_member) \
	container_of((&(element)->node_member.list)->prev, __typeof__(*(element)), node_member.list)

#define avl_for_each_element(tree, element, node_member) \
	for (element = avl_first_element(tree, element, node_member); \
	     &(element)->node_member.list != &(tree)->list_head; \
	     element = avl_next_element(element, node_member))

#define avl_for_each_element_reverse(tree, element, node_member) \
	for (element = avl_last_element(tree, element, node_member); \
	     &(element)->node_member.list != &(tree)->list_head; \
	     element = avl_prev_element(element, node_member))

/* Safe against deleting (and freeing) element inside the loop. */
#define avl_for_each_element_safe(tree, element, node_member, ptr) \
	for (element = avl_first_element(tree, element, node_member), \
	     ptr = avl_next_element(element, node_member); \
	     &(element)->node_member.list != &(tree)->list_head; \
	     element = ptr, ptr = avl_next_element(ptr, node_member))

/* Deletes every node from the tree as it walks; the body may free element. */
#define avl_remove_all_elements(tree, element, node_member, ptr) \
	for (element = avl_first_element(tree, element, node_member), \
	     ptr = avl_next_element(element, node_member); \
	     &(element)->node_member.list != &(tree)->list_head && \
	     (avl_delete(tree, &(element)->node_member), 1); \
	     element = ptr, ptr = avl_next_element(ptr, node_member))

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_AVL_H */
