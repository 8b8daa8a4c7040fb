/* utils.h - small helpers the libubox API relies on: array sizes, byte order,
 * attribute shorthands and calloc_a (one allocation carved into several pieces). */
#ifndef LIBUBOX_UTILS_H
#define LIBUBOX_UTILS_H

#include <stddef.h>
#include <stdint.h>
#include <stdbool.h>

/* Functions of this library never throw; C++ callers see that in the type. */
#ifdef __cplusplus
#define UBOX_NOEXCEPT noexcept
extern "C" {
#else
#define UBOX_NOEXCEPT
#endif

/* Stays a constant expression: method tables use it in static initialisers. */
#ifndef ARRAY_SIZE
#define ARRAY_SIZE(arr) (sizeof(arr) / sizeof((arr)[0]))
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif
#ifndef __hidden
#define __hidden __attribute__((visibility("hidden")))
#endif

#ifndef container_of
#define container_of(ptr, type, member) \
	((type *)(void *)((char *)(ptr) - offsetof(type, member)))
#endif

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define cpu_to_be16(x) __builtin_bswap16((uint16_t)(x))
#define cpu_to_be32(x) __builtin_bswap32((uint32_t)(x))
#define cpu_to_be64(x) __builtin_bswap64((uint64_t)(x))
#define cpu_to_le16(x) ((uint16_t)(x))
#define cpu_to_le32(x) ((uint32_t)(x))
#define cpu_to_le64(x) ((uint64_t)(x))
#else
#define cpu_to_be16(x) ((uint16_t)(x))
#define cpu_to_be32(x) ((uint32_t)(x))
#define cpu_to_be64(x) ((uint64_t)(x))
#define cpu_to_le16(x) __builtin_bswap16((uint16_t)(x))
#define cpu_to_le32(x) __builtin_bswap32((uint32_t)(x))
#define cpu_to_le64(x) __builtin_bswap64((uint64_t)(x))
#endif
#define be16_to_cpu(x) cpu_to_be16(x)
#define be32_to_cpu(x) cpu_to_be32(x)
#define be64_to_cpu(x) cpu_to_be64(x)
#define le16_to_cpu(x) cpu_to_le16(x)
#define le32_to_cpu(x) cpu_to_le32(x)
#define le64_to_cpu(x) cpu_to_le64(x)

/* calloc_a(len, &ptr2, len2, &ptr3, len3, ..., NULL): one zeroed allocation of
 * len bytes followed by the further pieces; each *ptrN is set to its piece.
 * Every piece starts on an 8-byte boundary. Returns the first piece (free() it
 * alone releases all) or NULL, in which case no *ptrN is written. */
void *__calloc_a(size_t len, ...) UBOX_NOEXCEPT;
#define calloc_a(len, ...) __calloc_a(len, ##__VA_ARGS__, NULL)

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_UTILS_H */
