// uid_allocator.h - constant-time allocator of small integer ids 0 .. n-1.
#ifndef UID_ALLOCATOR_H
#define UID_ALLOCATOR_H

#include <stdint.h>

#include "uac_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

// Ring entry of an id that is out.
#define UID_TAKEN 0xFFFFFFFFu

// Free ids wait in a circular queue (ring), so get and put never search and an id
// comes back in the order it was freed; the bitmap only guards against double frees.
// Invariants: allocated == number of set bits; the size - allocated free ids sit in
// the ring from `get` onwards (cyclically), each once; every other entry is UID_TAKEN.
typedef struct uid_allocator {
    uint32_t *ring;     // size entries: a free id or UID_TAKEN
    uint32_t *bitmap;   // (size + 31) / 32 words; bit id%32 of word id/32 set while id is out
    int32_t get;        // ring index the next uid_get takes from
    int32_t put;        // ring index the next uid_put fills
    int32_t size;       // number of ids
    int32_t allocated;  // ids that are out
} uid_allocator;

// An allocator of ids 0 .. n-1, all free; null when n < 1 or memory is short.
uid_allocator *uid_create(int32_t n) UAC_NOEXCEPT;
void uid_destroy(uid_allocator *a) UAC_NOEXCEPT;   // null is ignored

// The next free id, or -1 when a is null or every id is out.
int32_t uid_get(uid_allocator *a) UAC_NOEXCEPT;
// Gives id back. A null allocator, an id out of range or an id that is not out is
// ignored silently, so double frees do no harm.
void uid_put(uid_allocator *a, int32_t id) UAC_NOEXCEPT;
// Marks a free id as out without handing it out (an id that is already out or out of
// range is ignored). The other free ids keep their order.
void uid_reserve(uid_allocator *a, int32_t id) UAC_NOEXCEPT;
// Grows a full allocator by n ids (n = -1: doubles it); the new ids come next.
// 0, or -1 (nothing changed) when a is null, n is not positive (or -1), some id is
// still free, or memory is short.
int32_t uid_expand(uid_allocator *a, int32_t n) UAC_NOEXCEPT;
// Packs the ring: taken entries to the front, free ids to the back.
void uid_compact(uid_allocator *a) UAC_NOEXCEPT;
// Copies the whole state of src into dst when both have the same size; otherwise
// prints a message and changes nothing. Null arguments are ignored.
void uid_copy(uid_allocator *dst, const uid_allocator *src) UAC_NOEXCEPT;
void uid_dump(const uid_allocator *a) UAC_NOEXCEPT;   // state on standard output

// Times `count` gets and then `count` puts (100000 when count < 1) on a fresh
// allocator and prints both durations. 0, or -1 when memory is short.
int32_t uid_perf_test(int32_t count) UAC_NOEXCEPT;

#ifdef __cplusplus
}  // extern "C"
static_assert(sizeof(uid_allocator) == 2 * sizeof(void *) + 16, "uid_allocator: two pointers, four int32");
static_assert(__builtin_offsetof(uid_allocator, get) == 2 * sizeof(void *), "indices follow the arrays");
#endif

#endif  // UID_ALLOCATOR_H
