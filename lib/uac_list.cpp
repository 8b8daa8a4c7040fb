// uac_list.cpp - intrusive, circular, doubly linked list whose entries know their list.
#include "uac_list.h"

#include <atomic>
#include <cstdio>

namespace {

// Null-argument messages are on from the start; the daemon never turns them off.
std::atomic<int32_t> g_list_debug{1};

// Source lines the null-argument messages carry; tools that read the console match them.
constexpr int kLineInit = 79;
constexpr int kLineFirst = 174;
constexpr int kLineLast = 200;
constexpr int kLineNext = 227;
constexpr int kLinePrev = 253;
constexpr int kLineInsertFirst = 278;
constexpr int kLineInsertLast = 314;
constexpr int kLineInsertBefore = 352;
constexpr int kLineInsertAfter = 392;
constexpr int kLineRemove = 429;
constexpr int kLineSize = 463;
constexpr int kLineMove = 491;

void list_error(const char *func, int line, const char *text) {
    if (g_list_debug.load(std::memory_order_relaxed)) {
        printf("[UAC_LIST_ERROR]%s()/line %d : %s\n", func, line, text);
        fflush(stdout);
    }
}

// The head stands in the ring as a position only: links that point at it are compared,
// never followed as entries. Writing through the head goes to first/last explicitly.
uac_list_entry *ring_end(uac_list_head *head) {
    return reinterpret_cast<uac_list_entry *>(head);
}

// Forward link of position p (an entry or the head) of head's ring.
void set_next(uac_list_head *head, uac_list_entry *p, uac_list_entry *v) {
    if (p == ring_end(head))
        head->first = v;
    else
        p->next = v;
}

// Backward link of position p of head's ring.
void set_prev(uac_list_head *head, uac_list_entry *p, uac_list_entry *v) {
    if (p == ring_end(head))
        head->last = v;
    else
        p->prev = v;
}

// Links entry between two neighbouring positions of head's ring.
void link_between(uac_list_head *head, uac_list_entry *entry, uac_list_entry *prev,
                  uac_list_entry *next) {
    entry->next = next;
    entry->prev = prev;
    set_prev(head, next, entry);
    set_next(head, prev, entry);
    entry->list = head;
    head->count += 1;
}

// Unlinks an entry that is in a list and leaves it re-insertable (all links null).
void unlink_entry(uac_list_entry *entry) {
    uac_list_head *head = entry->list;
    set_prev(head, entry->next, entry->prev);
    set_next(head, entry->prev, entry->next);
    head->count -= 1;
    entry->next = nullptr;
    entry->prev = nullptr;
    entry->list = nullptr;
}

}  // namespace

extern "C" {

void uac_list_init(uac_list_head *head) noexcept {
    if (!head) {
        list_error(__func__, kLineInit, "Input head invalid.");
        return;
    }
    head->first = ring_end(head);
    head->last = ring_end(head);
    head->count = 0;
}

uac_list_entry *uac_list_first(uac_list_head *head) noexcept {
    if (!head) {
        list_error(__func__, kLineFirst, "Input head invalid.");
        return nullptr;
    }
    return head->first == ring_end(head) ? nullptr : head->first;
}

uac_list_entry *uac_list_last(uac_list_head *head) noexcept {
    if (!head) {
        list_error(__func__, kLineLast, "Input head invalid.");
        return nullptr;
    }
    return head->last == ring_end(head) ? nullptr : head->last;
}

uac_list_entry *uac_list_next(uac_list_entry *entry) noexcept {
    if (!entry) {
        list_error(__func__, kLineNext, "Input entry invalid.");
        return nullptr;
    }
    return entry->next == ring_end(entry->list) ? nullptr : entry->next;
}

uac_list_entry *uac_list_prev(uac_list_entry *entry) noexcept {
    if (!entry) {
        list_error(__func__, kLinePrev, "Input entry invalid.");
        return nullptr;
    }
    return entry->prev == ring_end(entry->list) ? nullptr : entry->prev;
}

void uac_list_insert_first(uac_list_head *head, uac_list_entry *entry) noexcept {
    if (!head || !entry) {
        list_error(__func__, kLineInsertFirst, "Input head or entry invalid.");
        return;
    }
    link_between(head, entry, ring_end(head), head->first);
}

void uac_list_insert_last(uac_list_head *head, uac_list_entry *entry) noexcept {
    if (!head || !entry) {
        list_error(__func__, kLineInsertLast, "Input head or entry invalid.");
        return;
    }
    link_between(head, entry, head->last, ring_end(head));
}

// An anchor that is in no list has no ring to join: it is refused like a null one.
void uac_list_insert_before(uac_list_entry *inlist, uac_list_entry *entry) noexcept {
    if (!inlist || !entry || !inlist->list) {
        list_error(__func__, kLineInsertBefore, "Input inlist or entry invalid.");
        return;
    }
    link_between(inlist->list, entry, inlist->prev, inlist);
}

void uac_list_insert_after(uac_list_entry *inlist, uac_list_entry *entry) noexcept {
    if (!inlist || !entry || !inlist->list) {
        list_error(__func__, kLineInsertAfter, "Input inlist or entry invalid.");
        return;
    }
    link_between(inlist->list, entry, inlist, inlist->next);
}

void uac_list_remove(uac_list_entry *entry) noexcept {
    if (!entry) {
        list_error(__func__, kLineRemove, "Input entry invalid.");
        return;
    }
    if (entry->list)  // removing an unlisted entry is quietly nothing
        unlink_entry(entry);
}

uint32_t uac_list_size(uac_list_head *head) noexcept {
    if (!head) {
        list_error(__func__, kLineSize, "Input head invalid.");
        return 0;
    }
    return head->count;
}

void uac_list_move(uac_list_head *dst, uac_list_head *src) noexcept {
    if (!dst || !src) {
        list_error(__func__, kLineMove, "Input inlist or outlist invalid.");
        return;
    }
    if (dst == src)  // appending a list to itself would never empty it
        return;
    while (src->first != ring_end(src)) {
        uac_list_entry *e = src->first;
        unlink_entry(e);
        link_between(dst, e, dst->last, ring_end(dst));
    }
}

void uac_list_debug_set(int32_t on) noexcept { g_list_debug.store(on, std::memory_order_relaxed); }

int32_t uac_list_debug_get(void) noexcept { return g_list_debug.load(std::memory_order_relaxed); }

}  // extern "C"
