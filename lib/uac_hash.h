// uac_hash.h - chained hash table of caller-owned objects, keyed through callbacks.
#ifndef UAC_HASH_H
#define UAC_HASH_H

#include <stdint.h>

#include "uac_defs.h"
#include "uac_list.h"

#ifdef __cplusplus
extern "C" {
#endif

// Results of uac_hash_add / uac_hash_del besides 0.
#define UAC_HASH_ERR_ARG (-1)        // null argument or no buckets
#define UAC_HASH_ERR_NOMEM (-2)      // memory short (nothing was added)
#define UAC_HASH_ERR_EXISTS (-4)     // this very object is already stored
#define UAC_HASH_ERR_NOT_FOUND (-5)  // this object is not stored

// Hash of a stored object and hash of a lookup key: an object and its key must hash
// alike. cmp is nonzero when obj has that key.
typedef uint32_t (*uac_hash_obj_func)(const void *obj);
typedef uint32_t (*uac_hash_key_func)(const void *key);
typedef int32_t (*uac_hash_cmp_func)(const void *obj, const void *key);
// Called for each object by uac_hash_foreach; its result is ignored.
typedef int32_t (*uac_hash_foreach_func)(void *obj, void *arg);

// The table stores object pointers only: it never copies, frees or compares objects
// except through the callbacks. Not thread-safe: the owner guards it with its own lock.
typedef struct uac_hash {
    uac_hash_obj_func obj_func;
    uac_hash_key_func key_func;
    uac_hash_cmp_func cmp_func;
    uint32_t count;         // stored objects
    uint32_t buckets;       // number of bucket lists
    uint32_t auto_resize;   // 1: grow above 100% load, shrink at 9% and below
    uac_list_head *bucket;  // `buckets` chains of uac_hash_node, in insertion order
} uac_hash;

// One chain node per stored object, allocated by the table.
typedef struct uac_hash_node {
    uac_list_entry entry;
    void *obj;
} uac_hash_node;

// An empty table, or null when a callback is null, buckets is 0 or memory is short.
uac_hash *uac_hash_create(uac_hash_obj_func obj_func, uac_hash_key_func key_func,
                          uac_hash_cmp_func cmp_func, uint32_t auto_resize,
                          uint32_t buckets) UAC_NOEXCEPT;
// The same without resizing: the form the daemon uses.
uac_hash *uac_hash_create_fixed(uac_hash_obj_func obj_func, uac_hash_key_func key_func,
                                uac_hash_cmp_func cmp_func, uint32_t buckets) UAC_NOEXCEPT;
// Frees the chain nodes, the buckets and the table; the objects stay the caller's.
void uac_hash_destroy(uac_hash *h) UAC_NOEXCEPT;
// Stores obj at the tail of its bucket. 0, or one of the UAC_HASH_ERR_* results with
// nothing changed. Keys are not checked for uniqueness: callers find before they add.
int32_t uac_hash_add(uac_hash *h, void *obj) UAC_NOEXCEPT;
// Removes obj (compared by pointer). 0, UAC_HASH_ERR_ARG or UAC_HASH_ERR_NOT_FOUND.
int32_t uac_hash_del(uac_hash *h, void *obj) UAC_NOEXCEPT;
// The oldest object of the key's bucket that cmp accepts, or null.
void *uac_hash_find(uac_hash *h, const void *key) UAC_NOEXCEPT;
// Calls fn(obj, arg) for every object, bucket by bucket. fn may delete the object it
// is given (not others of its chain); when fn makes the table resize, the walk starts
// over, so objects may be visited again. A null fn walks without calling.
void uac_hash_foreach(uac_hash *h, uac_hash_foreach_func fn, void *arg) UAC_NOEXCEPT;
uint32_t uac_hash_count(const uac_hash *h) UAC_NOEXCEPT;  // 0xFFFFFFFF for null
// 32-bit hash of len bytes (a per-word integer mix); 0 bytes with seed 0 hash to 0.
uint32_t uac_hash_string(const void *data, uint32_t len, uint32_t seed) UAC_NOEXCEPT;

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // UAC_HASH_H
