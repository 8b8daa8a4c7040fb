// uac_list.h - intrusive, circular, doubly linked list whose entries know their list.
#ifndef UAC_LIST_H
#define UAC_LIST_H

#include <stddef.h>
#include <stdint.h>

#include "uac_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

struct uac_list_head;

// Embedded in the listed record. next/prev point at the neighbouring entries, or at
// the head at either end of the ring; list is null while the entry is in no list.
typedef struct uac_list_entry {
    struct uac_list_entry *next;
    struct uac_list_entry *prev;
    struct uac_list_head *list;
} uac_list_entry;

// first/last sit where an entry keeps next/prev, so the head closes the ring.
// An empty list has first == last == the head itself.
typedef struct uac_list_head {
    struct uac_list_entry *first;
    struct uac_list_entry *last;
    uint32_t count;
} uac_list_head;

// The record that embeds `ptr` as its member `member` (the record must be standard-layout).
#define uac_container_of(ptr, type, member) \
    ((type *)(void *)((char *)(ptr) - offsetof(type, member)))

// Walk a list: `e` is a uac_list_entry *. Not safe against removing `e`; for that
// fetch uac_list_next(e) before removing it.
#define uac_list_for_each(e, head) \
    for ((e) = uac_list_first(head); (e) != NULL; (e) = uac_list_next(e))

// Every operation checks its pointers; a null argument prints a "[UAC_LIST_ERROR]"
// line (while the list debug switch is on, as it is at start) and changes nothing.

void uac_list_init(uac_list_head *head) UAC_NOEXCEPT;
uac_list_entry *uac_list_first(uac_list_head *head) UAC_NOEXCEPT;   // null when empty
uac_list_entry *uac_list_last(uac_list_head *head) UAC_NOEXCEPT;    // null when empty
uac_list_entry *uac_list_next(uac_list_entry *entry) UAC_NOEXCEPT;  // null after the last entry
uac_list_entry *uac_list_prev(uac_list_entry *entry) UAC_NOEXCEPT;  // null before the first entry
void uac_list_insert_first(uac_list_head *head, uac_list_entry *entry) UAC_NOEXCEPT;
void uac_list_insert_last(uac_list_head *head, uac_list_entry *entry) UAC_NOEXCEPT;
void uac_list_insert_before(uac_list_entry *inlist, uac_list_entry *entry) UAC_NOEXCEPT;
void uac_list_insert_after(uac_list_entry *inlist, uac_list_entry *entry) UAC_NOEXCEPT;
// Unlinks entry; its next, prev and list become null. An entry in no list is left alone.
void uac_list_remove(uac_list_entry *entry) UAC_NOEXCEPT;
uint32_t uac_list_size(uac_list_head *head) UAC_NOEXCEPT;            // 0 on a null head
// Appends every entry of src, in order, to the tail of dst; src ends empty.
void uac_list_move(uac_list_head *dst, uac_list_head *src) UAC_NOEXCEPT;

// The list debug switch (1 at start): 0 silences the null-argument messages.
void uac_list_debug_set(int32_t on) UAC_NOEXCEPT;
int32_t uac_list_debug_get(void) UAC_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif // UAC_LIST_H
