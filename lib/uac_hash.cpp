// uac_hash.cpp - chained hash table with optional automatic resize, and the string hash.
#include "uac_hash.h"

#include <climits>

#include "uac_mem.h"

namespace {

// Resizing keeps the load between about 10% and 100%.
constexpr uint32_t kGrowAbovePercent = 100;
constexpr uint32_t kShrinkAtPercent = 9;
constexpr uint32_t kShrinkMinBuckets = 30;

uint32_t load_words(const unsigned char *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uac_hash_node *node_of(uac_list_entry *e) { return uac_container_of(e, uac_hash_node, entry); }

// A bucket array of n empty lists, or null (n is bounded by the allocator's signed size).
uac_list_head *new_buckets(uint32_t n) {
    if (n == 0 || n > INT32_MAX / sizeof(uac_list_head))
        return nullptr;
    auto *b = static_cast<uac_list_head *>(
        uac_calloc(static_cast<int32_t>(n), static_cast<int32_t>(sizeof(uac_list_head))));
    if (!b)
        return nullptr;
    for (uint32_t i = 0; i < n; ++i)
        uac_list_init(&b[i]);
    return b;
}

uac_list_head *bucket_of(uac_hash *h, uint32_t hash) { return &h->bucket[hash % h->buckets]; }

uac_hash_node *find_node(uac_list_head *bucket, const void *obj) {
    uac_list_entry *e;
    uac_list_for_each(e, bucket) {
        if (node_of(e)->obj == obj)
            return node_of(e);
    }
    return nullptr;
}

// Rehashes every object into `n` buckets, keeping bucket-by-bucket, chain order.
// The nodes move over rather than being allocated again, so a resize needs only the
// new array and cannot lose an object half-way. False (table unchanged) when the
// array cannot be had.
bool resize(uac_hash *h, uint32_t n) {
    uac_list_head *fresh = new_buckets(n);
    if (!fresh)
        return false;
    uac_list_head *old = h->bucket;
    uint32_t old_n = h->buckets;
    h->bucket = fresh;
    h->buckets = n;
    for (uint32_t b = 0; b < old_n; ++b) {
        while (uac_list_entry *e = uac_list_first(&old[b])) {
            uac_list_remove(e);
            uac_list_insert_last(bucket_of(h, h->obj_func(node_of(e)->obj)), e);
        }
    }
    uac_free(old);
    return true;
}

}  // namespace

extern "C" {

uac_hash *uac_hash_create(uac_hash_obj_func obj_func, uac_hash_key_func key_func,
                          uac_hash_cmp_func cmp_func, uint32_t auto_resize,
                          uint32_t buckets) noexcept {
    if (!obj_func || !key_func || !cmp_func)
        return nullptr;
    auto *h = static_cast<uac_hash *>(uac_calloc(1, sizeof(uac_hash)));
    if (!h)
        return nullptr;
    h->bucket = new_buckets(buckets);
    if (!h->bucket) {
        uac_free(h);
        return nullptr;
    }
    h->obj_func = obj_func;
    h->key_func = key_func;
    h->cmp_func = cmp_func;
    h->buckets = buckets;
    h->auto_resize = auto_resize;
    return h;
}

uac_hash *uac_hash_create_fixed(uac_hash_obj_func obj_func, uac_hash_key_func key_func,
                                uac_hash_cmp_func cmp_func, uint32_t buckets) noexcept {
    return uac_hash_create(obj_func, key_func, cmp_func, 0, buckets);
}

void uac_hash_destroy(uac_hash *h) noexcept {
    if (!h)
        return;
    for (uint32_t b = 0; b < h->buckets; ++b) {
        while (uac_list_entry *e = uac_list_first(&h->bucket[b])) {
            uac_list_remove(e);
            uac_free(node_of(e));
        }
    }
    uac_free(h->bucket);
    uac_free(h);
}

int32_t uac_hash_add(uac_hash *h, void *obj) noexcept {
    if (!h || !obj || h->buckets == 0)
        return UAC_HASH_ERR_ARG;
    if (h->auto_resize == 1 &&
        (static_cast<uint64_t>(h->count) * 100 + 100) / h->buckets > kGrowAbovePercent) {
        uint64_t n = static_cast<uint64_t>(h->buckets) * 2 + 3;
        if (n > UINT32_MAX || !resize(h, static_cast<uint32_t>(n)))
            return UAC_HASH_ERR_NOMEM;
    }
    uac_list_head *bucket = bucket_of(h, h->obj_func(obj));
    if (find_node(bucket, obj))
        return UAC_HASH_ERR_EXISTS;
    auto *node = static_cast<uac_hash_node *>(uac_malloc(sizeof(uac_hash_node)));
    if (!node)
        return UAC_HASH_ERR_NOMEM;
    node->entry.next = node->entry.prev = nullptr;
    node->entry.list = nullptr;
    node->obj = obj;
    uac_list_insert_last(bucket, &node->entry);
    h->count += 1;
    return 0;
}

int32_t uac_hash_del(uac_hash *h, void *obj) noexcept {
    if (!h || !obj || h->buckets == 0)
        return UAC_HASH_ERR_ARG;
    uac_hash_node *node = find_node(bucket_of(h, h->obj_func(obj)), obj);
    if (!node)
        return UAC_HASH_ERR_NOT_FOUND;
    uac_list_remove(&node->entry);
    uac_free(node);
    h->count -= 1;
    // A failed shrink keeps the larger table, which is still correct.
    if (h->auto_resize == 1 && h->buckets >= kShrinkMinBuckets &&
        static_cast<uint64_t>(h->count) * 100 / h->buckets <= kShrinkAtPercent)
        resize(h, h->buckets / 2 - 1);
    return 0;
}

void *uac_hash_find(uac_hash *h, const void *key) noexcept {
    if (!h || !key || h->buckets == 0)
        return nullptr;
    uac_list_entry *e;
    uac_list_for_each(e, bucket_of(h, h->key_func(key))) {
        if (h->cmp_func(node_of(e)->obj, key))
            return node_of(e)->obj;
    }
    return nullptr;
}

void uac_hash_foreach(uac_hash *h, uac_hash_foreach_func fn, void *arg) noexcept {
    if (!h || h->count == 0)
        return;
    uint32_t b = 0;
    while (b < h->buckets) {
        uint32_t seen = h->buckets;
        bool restart = false;
        uac_list_entry *e = uac_list_first(&h->bucket[b]);
        while (e) {
            // fn may free this node by deleting its object; step before calling.
            uac_list_entry *next = uac_list_next(e);
            if (fn)
                fn(node_of(e)->obj, arg);
            if (h->buckets != seen) {
                restart = true;  // the chains were rebuilt: start over
                break;
            }
            e = next;
        }
        b = restart ? 0 : b + 1;
    }
}

uint32_t uac_hash_count(const uac_hash *h) noexcept { return h ? h->count : 0xFFFFFFFFu; }

uint32_t uac_hash_string(const void *data, uint32_t len, uint32_t seed) noexcept {
    if (!data)
        len = 0;
    const auto *p = static_cast<const unsigned char *>(data);
    uint32_t h = len + seed;
    for (uint32_t words = len / 4; words > 0; --words, p += 4) {
        h += load_words(p);
        h += ~(h << 15);
        h ^= h >> 10;
        h += h << 3;
        h ^= h >> 6;
        h += ~(h << 11);
        h ^= h >> 16;
    }
    switch (len % 4) {
    case 3:
        h += static_cast<uint32_t>(p[2]) << 16;
        [[fallthrough]];
    case 2:
        h ^= static_cast<uint32_t>(p[1]) << 8;
        [[fallthrough]];
    case 1:
        h += p[0];
        break;
    default:
        break;
    }
    return h;
}

}  // extern "C"
