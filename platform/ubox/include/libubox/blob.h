/* blob.h - type-length-value attributes: a 32-bit big-endian header word
 * (extended flag, 7-bit id, 24-bit length of header plus payload) followed by
 * the payload, each attribute padded to 4 bytes. blob_buf builds them. */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <stddef.h>
#include <stdint.h>
#include <stdbool.h>
#include <string.h>

#include "utils.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BLOB_COOKIE 0x01234567

enum {
	BLOB_ATTR_UNSPEC,
	BLOB_ATTR_NESTED,
	BLOB_ATTR_BINARY,
	BLOB_ATTR_STRING,
	BLOB_ATTR_INT8,
	BLOB_ATTR_INT16,
	BLOB_ATTR_INT32,
	BLOB_ATTR_INT64,
	BLOB_ATTR_DOUBLE,
	BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK  0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN    4
#define BLOB_ATTR_EXTENDED 0x80000000

struct blob_attr {
	uint32_t id_len;       /* big-endian */
	char data[];
} __packed;

struct blob_attr_info {
	unsigned int type;     /* BLOB_ATTR_*; BLOB_ATTR_UNSPEC accepts any */
	unsigned int minlen;   /* payload bounds, 0 = none */
	unsigned int maxlen;
	bool (*validate)(const struct blob_attr_info *, struct blob_attr *);
};

struct blob_buf {
	struct blob_attr *head;                  /* container that adds go into */
	bool (*grow)(struct blob_buf *buf, int minlen);
	int buflen;
	void *buf;
};

/* ---- accessors ------------------------------------------------------------ */

static inline void *blob_data(const struct blob_attr *attr)
{
	return (void *)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr)
{
	uint32_t id = (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
	return id;
}

static inline bool blob_is_extended(const struct blob_attr *attr)
{
	return !!(attr->id_len & cpu_to_be32(BLOB_ATTR_EXTENDED));
}

/* Header plus payload, without padding. */
static inline size_t blob_raw_len(const struct blob_attr *attr)
{
	return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/* Payload bytes; 0 for a corrupt header shorter than itself. */
static inline size_t blob_len(const struct blob_attr *attr)
{
	size_t raw = blob_raw_len(attr);
	return raw >= sizeof(struct blob_attr) ? raw - sizeof(struct blob_attr) : 0;
}

/* Footprint in the buffer: raw length rounded up to BLOB_ATTR_ALIGN. */
static inline size_t blob_pad_len(const struct blob_attr *attr)
{
	size_t len = blob_raw_len(attr);
	return (len + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr)
{
	return *(const uint8_t *)attr->data;
}

static inline uint16_t blob_get_u16(const struct blob_attr *attr)
{
	uint16_t v;
	memcpy(&v, attr->data, sizeof(v));
	return be16_to_cpu(v);
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr)
{
	uint32_t v;
	memcpy(&v, attr->data, sizeof(v));
	return be32_to_cpu(v);
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr)
{
	uint64_t v;
	memcpy(&v, attr->data, sizeof(v));
	return be64_to_cpu(v);
}

static inline int8_t blob_get_int8(const struct blob_attr *attr)
{
	return (int8_t)blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr *attr)
{
	return (int16_t)blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr)
{
	return (int32_t)blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr *attr)
{
	return (int64_t)blob_get_u64(attr);
}

static inline const char *blob_get_string(const struct blob_attr *attr)
{
	return attr->data;
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
	return (struct blob_attr *)((char *)attr + blob_pad_len(attr));
}

/* ---- building ------------------------------------------------------------- */

/* buf must be zeroed before its first init; init reuses its memory afterwards.
 * Returns 0 or -ENOMEM. */
int blob_buf_init(struct blob_buf *buf, int id) UBOX_NOEXCEPT;
void blob_buf_free(struct blob_buf *buf) UBOX_NOEXCEPT;
/* Makes room for `required` more bytes; pointers into the buffer move. */
bool blob_buf_grow(struct blob_buf *buf, int required) UBOX_NOEXCEPT;
void blob_fill_pad(struct blob_attr *attr) UBOX_NOEXCEPT;
void blob_set_raw_len(struct blob_attr *attr, unsigned int len) UBOX_NOEXCEPT;
bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2) UBOX_NOEXCEPT;
/* malloc'd copy of the whole padded attribute; NULL on failure. */
struct blob_attr *blob_memdup(const struct blob_attr *attr) UBOX_NOEXCEPT;

/* Appends an attribute with a zeroed payload of that size; NULL on failure. */
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload) UBOX_NOEXCEPT;
/* Opens a nested attribute; everything added until blob_nest_end goes inside.
 * The cookie is an offset, so it survives the buffer moving. */
void *blob_nest_start(struct blob_buf *buf, int id) UBOX_NOEXCEPT;
void blob_nest_end(struct blob_buf *buf, void *cookie) UBOX_NOEXCEPT;

struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len) UBOX_NOEXCEPT;
/* Appends already encoded attributes (len bytes) to the current container. */
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len) UBOX_NOEXCEPT;

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str)
{
	return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t val)
{
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t val)
{
	val = cpu_to_be16(val);
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val)
{
	val = cpu_to_be32(val);
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t val)
{
	val = cpu_to_be64(val);
	return blob_put(buf, id, &val, sizeof(val));
}

#define blob_put_int8  blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

/* ---- checking and parsing ------------------------------------------------- */

/* Payload of len bytes is acceptable for the type: integers of exact width,
 * strings non-empty and NUL-terminated, doubles 8 bytes or more. */
bool blob_check_type(const void *ptr, unsigned int len, int type) UBOX_NOEXCEPT;
/* Zeroes data[0..max-1], then stores each child of attr whose id < max and
 * passes info[id] (type, payload bounds, validate); the last occurrence wins.
 * Children are walked with bounds checks, stopping at the first whose length
 * is impossible. Returns the number of distinct ids stored. */
int blob_parse(struct blob_attr *attr, struct blob_attr **data,
	       const struct blob_attr_info *info, int max) UBOX_NOEXCEPT;
/* As blob_parse, for an attribute received from outside: attr_len is the
 * number of bytes actually available at attr; a header claiming more is
 * rejected (returns 0, data cleared). */
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
			 const struct blob_attr_info *info, int max) UBOX_NOEXCEPT;

/* ---- iteration ------------------------------------------------------------ */

/* Walks a raw run of attributes of rem bytes starting at first; stops before a
 * child whose padded length is below a header or beyond what remains. */
#define __blob_for_each_attr(pos, first, rem) \
	for (pos = (struct blob_attr *)(first); \
	     (size_t)(rem) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) <= (size_t)(rem); \
	     rem -= blob_pad_len(pos), pos = blob_next(pos))

#define blob_for_each_attr(pos, attr, rem) \
	for (rem = (attr) ? blob_len(attr) : 0, \
	     pos = (struct blob_attr *)((attr) ? blob_data(attr) : NULL); \
	     (size_t)(rem) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) <= (size_t)(rem); \
	     rem -= blob_pad_len(pos), pos = blob_next(pos))

/* As blob_for_each_attr, for an attribute of which only attr_len bytes are
 * known to exist (no iterations if its header claims more). */
#define blob_for_each_attr_len(pos, attr, attr_len, rem) \
	for (rem = ((attr) && (size_t)(attr_len) >= sizeof(struct blob_attr) && \
		    blob_raw_len(attr) <= (size_t)(attr_len)) ? blob_len(attr) : 0, \
	     pos = (struct blob_attr *)((attr) ? blob_data(attr) : NULL); \
	     (size_t)(rem) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) <= (size_t)(rem); \
	     rem -= blob_pad_len(pos), pos = blob_next(pos))

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_BLOB_H */
