// uid_allocator.cpp - constant-time id allocator: a ring of free ids plus a bitmap of ids out.
#include "uid_allocator.h"

#include <stdio.h>
#include <string.h>

#include <climits>

#include "uac_mem.h"
#include "uac_thread.h"

namespace {

constexpr int32_t kPerfDefaultCount = 100000;

int32_t bitmap_words(int32_t n) { return static_cast<int32_t>((static_cast<int64_t>(n) + 31) / 32); }

// A block of `count` 32-bit words from the counting allocator, or null when it is too
// large for it (its size argument is a signed 32-bit byte count) or memory is short.
uint32_t *alloc_words(int64_t count) {
    if (count < 1 || count > INT32_MAX / static_cast<int64_t>(sizeof(uint32_t)))
        return nullptr;
    return static_cast<uint32_t *>(uac_malloc(static_cast<int32_t>(count * sizeof(uint32_t))));
}

// Callers have checked 0 <= id < size, so the unsigned forms are exact (and cheaper).
uint32_t word_of(int32_t id) { return static_cast<uint32_t>(id) >> 5; }
uint32_t mask_of(int32_t id) { return 1u << (static_cast<uint32_t>(id) & 31u); }
bool bit_is_set(const uid_allocator *a, int32_t id) { return a->bitmap[word_of(id)] & mask_of(id); }
void bit_set(uid_allocator *a, int32_t id) { a->bitmap[word_of(id)] |= mask_of(id); }
void bit_clear(uid_allocator *a, int32_t id) { a->bitmap[word_of(id)] &= ~mask_of(id); }

int32_t ring_next(const uid_allocator *a, int32_t i) { return i + 1 == a->size ? 0 : i + 1; }
int32_t ring_prev(const uid_allocator *a, int32_t i) { return i == 0 ? a->size - 1 : i - 1; }

// Ring index holding the free id, or -1. A fresh allocator keeps id at index id, which
// is checked first; elsewhere the free part of the ring is searched.
int32_t find_free_entry(const uid_allocator *a, int32_t id) {
    if (a->ring[id] == static_cast<uint32_t>(id))
        return id;
    int32_t i = a->get;
    for (int32_t n = a->size - a->allocated; n > 0; --n, i = ring_next(a, i)) {
        if (a->ring[i] == static_cast<uint32_t>(id))
            return i;
    }
    return -1;
}

}  // namespace

extern "C" {

uid_allocator *uid_create(int32_t n) noexcept {
    if (n < 1)
        return nullptr;
    auto *a = static_cast<uid_allocator *>(uac_calloc(1, sizeof(uid_allocator)));
    if (!a)
        return nullptr;
    a->ring = alloc_words(n);
    a->bitmap = alloc_words(bitmap_words(n));
    if (!a->ring || !a->bitmap) {
        uac_free(a->ring);
        uac_free(a->bitmap);
        uac_free(a);
        return nullptr;
    }
    for (int32_t i = 0; i < n; ++i)
        a->ring[i] = static_cast<uint32_t>(i);
    memset(a->bitmap, 0, static_cast<size_t>(bitmap_words(n)) * sizeof(uint32_t));
    a->size = n;
    return a;
}

void uid_destroy(uid_allocator *a) noexcept {
    if (!a)
        return;
    uac_free(a->bitmap);
    uac_free(a->ring);
    uac_free(a);
}

int32_t uid_get(uid_allocator *a) noexcept {
    if (!a || a->allocated >= a->size)
        return -1;
    auto id = static_cast<int32_t>(a->ring[a->get]);
    a->ring[a->get] = UID_TAKEN;
    a->get = ring_next(a, a->get);
    bit_set(a, id);
    a->allocated += 1;
    return id;
}

void uid_put(uid_allocator *a, int32_t id) noexcept {
    if (!a || id < 0 || id >= a->size || !bit_is_set(a, id))
        return;
    a->ring[a->put] = static_cast<uint32_t>(id);
    a->put = ring_next(a, a->put);
    bit_clear(a, id);
    a->allocated -= 1;
}

void uid_reserve(uid_allocator *a, int32_t id) noexcept {
    if (!a || id < 0 || id >= a->size || bit_is_set(a, id))
        return;
    int32_t k = find_free_entry(a, id);
    if (k < 0)
        return;  // cannot happen while the invariants hold
    // Take the entry out of the free run without a hole: the free ids in front of it
    // move up by one and the run starts one later. A hole would later be read by
    // uid_get as an id, and let uid_put overwrite a free id once the run wraps.
    for (int32_t p = k; p != a->get; p = ring_prev(a, p))
        a->ring[p] = a->ring[ring_prev(a, p)];
    a->ring[a->get] = UID_TAKEN;
    a->get = ring_next(a, a->get);
    bit_set(a, id);
    a->allocated += 1;
}

int32_t uid_expand(uid_allocator *a, int32_t n) noexcept {
    if (!a || !(n > 0 || n == -1) || a->allocated != a->size)
        return -1;
    int64_t grow = n == -1 ? a->size : n;
    int64_t new_size = a->size + grow;
    if (new_size > INT32_MAX)
        return -1;
    uint32_t *ring = alloc_words(new_size);
    if (!ring)
        return -1;
    auto new_words = bitmap_words(static_cast<int32_t>(new_size));
    uint32_t *bitmap = a->bitmap ? alloc_words(new_words) : nullptr;
    if (!bitmap) {
        uac_free(ring);
        return -1;
    }
    memcpy(ring, a->ring, static_cast<size_t>(a->size) * sizeof(uint32_t));
    for (int64_t i = a->size; i < new_size; ++i)
        ring[i] = static_cast<uint32_t>(i);
    memset(bitmap, 0, static_cast<size_t>(new_words) * sizeof(uint32_t));
    memcpy(bitmap, a->bitmap, static_cast<size_t>(bitmap_words(a->size)) * sizeof(uint32_t));
    uac_free(a->ring);
    uac_free(a->bitmap);
    a->ring = ring;
    a->bitmap = bitmap;
    a->get = a->size;  // the first new id comes next
    a->put = 0;
    a->size = static_cast<int32_t>(new_size);
    return 0;
}

void uid_compact(uid_allocator *a) noexcept {
    if (!a || a->allocated == 0)
        return;
    int32_t i = 0;
    int32_t j = a->size - 1;
    while (i < j) {
        if (a->ring[i] == UID_TAKEN) {
            ++i;
        } else if (a->ring[j] == UID_TAKEN) {
            a->ring[j] = a->ring[i];
            a->ring[i] = UID_TAKEN;
        } else {
            --j;
        }
    }
    a->get = a->allocated % a->size;
    a->put = 0;
}

void uid_copy(uid_allocator *dst, const uid_allocator *src) noexcept {
    if (!dst || !src)
        return;
    if (dst->size != src->size) {
        puts("uid_dst's size is not equal to uid_src's size");
        return;
    }
    dst->get = src->get;
    dst->put = src->put;
    dst->allocated = src->allocated;
    memcpy(dst->ring, src->ring, static_cast<size_t>(src->size) * sizeof(uint32_t));
    memcpy(dst->bitmap, src->bitmap, static_cast<size_t>(bitmap_words(src->size)) * sizeof(uint32_t));
}

void uid_dump(const uid_allocator *a) noexcept {
    if (!a)
        return;
    puts("=======================ID dump==============================");
    printf("put=%d,get=%d,allocated=%d\n", a->put, a->get, a->allocated);
    printf("bitmap: ");
    for (int32_t w = 0; w < bitmap_words(a->size); ++w)
        printf("0x%x ", a->bitmap[w]);
    printf("\n");
    printf("array data: ");
    for (int32_t i = 0; i < a->size; ++i)
        printf("%d ", static_cast<int32_t>(a->ring[i]));
    printf("\n");
    puts("=======================Dump End=============================\n");
}

int32_t uid_perf_test(int32_t count) noexcept {
    if (count < 1)
        count = kPerfDefaultCount;
    uid_allocator *a = uid_create(count);
    if (!a)
        return -1;
    uint64_t start = uac_uptime_us();
    for (int32_t i = 0; i < count; ++i)
        uid_get(a);
    uint64_t mid = uac_uptime_us();
    for (int32_t i = 0; i < count; ++i)
        uid_put(a, i);
    uint64_t end = uac_uptime_us();
    printf("Alloc %d times cost: %llu us\n", count, static_cast<unsigned long long>(mid - start));
    printf("Free %d times cost: %llu us\n", count, static_cast<unsigned long long>(end - mid));
    uid_destroy(a);
    return 0;
}

}  // extern "C"
