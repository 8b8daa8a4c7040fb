/* list.h - circular doubly linked list with a sentinel head, embedded in the
 * records it links (reach the record with container_of / list_entry).
 * A removed entry (list_del) has poisoned links and must be re-initialised or
 * re-added before use; list_del_init leaves it as an empty, re-insertable list. */
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

#include <stddef.h>
#include <stdbool.h>

#include "utils.h"

#ifdef __cplusplus
extern "C" {
#endif

struct list_head {
	struct list_head *next;
	struct list_head *prev;
};

#define LIST_HEAD_INIT(name) { &(name), &(name) }
#undef LIST_HEAD
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

static inline void INIT_LIST_HEAD(struct list_head *list)
{
	list->next = list;
	list->prev = list;
}

static inline bool list_empty(const struct list_head *head)
{
	return head->next == head;
}

static inline bool list_is_first(const struct list_head *list, const struct list_head *head)
{
	return list->prev == head;
}

static inline bool list_is_last(const struct list_head *list, const struct list_head *head)
{
	return list->next == head;
}

/* Links entry between two known neighbours; every insertion goes through here. */
static inline void list_link_between(struct list_head *entry, struct list_head *prev,
				     struct list_head *next)
{
	next->prev = entry;
	entry->next = next;
	entry->prev = prev;
	prev->next = entry;
}

static inline void list_add(struct list_head *entry, struct list_head *head)
{
	list_link_between(entry, head, head->next);
}

static inline void list_add_tail(struct list_head *entry, struct list_head *head)
{
	list_link_between(entry, head->prev, head);
}

static inline void list_unlink(struct list_head *entry)
{
	entry->next->prev = entry->prev;
	entry->prev->next = entry->next;
}

static inline void list_del(struct list_head *entry)
{
	list_unlink(entry);
	entry->next = entry->prev = NULL;
}

static inline void list_del_init(struct list_head *entry)
{
	list_unlink(entry);
	INIT_LIST_HEAD(entry);
}

static inline void list_move(struct list_head *entry, struct list_head *head)
{
	list_unlink(entry);
	list_add(entry, head);
}

static inline void list_move_tail(struct list_head *entry, struct list_head *head)
{
	list_unlink(entry);
	list_add_tail(entry, head);
}

/* Moves every entry of list (which is left in an undefined state unless the
 * _init variant is used) between prev and next. */
static inline void list_splice_between(const struct list_head *list, struct list_head *prev,
				       struct list_head *next)
{
	if (list_empty(list))
		return;
	list->next->prev = prev;
	prev->next = list->next;
	list->prev->next = next;
	next->prev = list->prev;
}

static inline void list_splice(const struct list_head *list, struct list_head *head)
{
	list_splice_between(list, head, head->next);
}

static inline void list_splice_tail(struct list_head *list, struct list_head *head)
{
	list_splice_between(list, head->prev, head);
}

static inline void list_splice_init(struct list_head *list, struct list_head *head)
{
	list_splice_between(list, head, head->next);
	INIT_LIST_HEAD(list);
}

static inline void list_splice_tail_init(struct list_head *list, struct list_head *head)
{
	list_splice_between(list, head->prev, head);
	INIT_LIST_HEAD(list);
}

#define list_entry(ptr, type, field) container_of(ptr, type, field)
#define list_first_entry(ptr, type, field) list_entry((ptr)->next, type, field)
#define list_last_entry(ptr, type, field) list_entry((ptr)->prev, type, field)

#define list_for_each(p, head) \
	for (p = (head)->next; p != (head); p = p->next)

#define list_for_each_safe(p, n, head) \
	for (p = (head)->next, n = p->next; p != (head); p = n, n = p->next)

#define list_for_each_prev(p, head) \
	for (p = (head)->prev; p != (head); p = p->prev)

#define list_for_each_prev_safe(p, n, head) \
	for (p = (head)->prev, n = p->prev; p != (head); p = n, n = p->prev)

#define list_for_each_entry(p, h, field) \
	for (p = list_first_entry(h, __typeof__(*p), field); &p->field != (h); \
	     p = list_entry(p->field.next, __typeof__(*p), field))

#define list_for_each_entry_safe(p, n, h, field) \
	for (p = list_first_entry(h, __typeof__(*p), field), \
	     n = list_entry(p->field.next, __typeof__(*p), field); &p->field != (h); \
	     p = n, n = list_entry(n->field.next, __typeof__(*n), field))

#define list_for_each_entry_reverse(p, h, field) \
	for (p = list_last_entry(h, __typeof__(*p), field); &p->field != (h); \
	     p = list_entry(p->field.prev, __typeof__(*p), field))

#define list_for_each_entry_continue_reverse(p, h, field) \
	for (p = list_entry(p->field.prev, __typeof__(*p), field); &p->field != (h); \
	     p = list_entry(p->field.prev, __typeof__(*p), field))

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_LIST_H */
