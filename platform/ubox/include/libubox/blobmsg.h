/* blobmsg.h - named, typed attributes on top of blob: every attribute carries
 * the extended flag and a name header (big-endian 16-bit name length, the name,
 * a NUL, zero padding to 4 bytes) in front of its payload. Tables and arrays
 * nest; integers are big-endian. */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdbool.h>
#include <string.h>

#include "blob.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BLOBMSG_ALIGN 2
#define BLOBMSG_PADDING(len) (((len) + (1 << BLOBMSG_ALIGN) - 1) & ~((1 << BLOBMSG_ALIGN) - 1))

enum blobmsg_type {
	BLOBMSG_TYPE_UNSPEC,
	BLOBMSG_TYPE_ARRAY,
	BLOBMSG_TYPE_TABLE,
	BLOBMSG_TYPE_STRING,
	BLOBMSG_TYPE_INT64,
	BLOBMSG_TYPE_INT32,
	BLOBMSG_TYPE_INT16,
	BLOBMSG_TYPE_INT8,
	BLOBMSG_TYPE_DOUBLE,
	__BLOBMSG_TYPE_LAST,
	BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
	BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
	BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST,
};

struct blobmsg_hdr {
	uint16_t namelen;      /* big-endian, without the NUL */
	uint8_t name[];
} __packed;

struct blobmsg_policy {
	const char *name;
	enum blobmsg_type type;
};

/* ---- layout accessors ----------------------------------------------------- */

static inline int blobmsg_hdrlen(unsigned int namelen)
{
	return (int)BLOBMSG_PADDING(sizeof(struct blobmsg_hdr) + namelen + 1);
}

static inline void blobmsg_clear_name(struct blob_attr *attr)
{
	struct blobmsg_hdr *hdr = (struct blobmsg_hdr *)blob_data(attr);
	hdr->name[0] = 0;
}

static inline const char *blobmsg_name(const struct blob_attr *attr)
{
	const struct blobmsg_hdr *hdr = (const struct blobmsg_hdr *)blob_data(attr);
	return (const char *)hdr->name;
}

static inline int blobmsg_type(const struct blob_attr *attr)
{
	return (int)blob_id(attr);
}

static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr *hdr)
{
	uint16_t v;
	memcpy(&v, &hdr->namelen, sizeof(v));
	return be16_to_cpu(v);
}

/* Payload after the name header; a non-extended attribute (a message root)
 * has no name header. NULL for NULL. */
static inline void *blobmsg_data(const struct blob_attr *attr)
{
	const struct blobmsg_hdr *hdr;
	char *data;

	if (!attr)
		return NULL;
	hdr = (const struct blobmsg_hdr *)blob_data(attr);
	data = (char *)blob_data(attr);
	if (blob_is_extended(attr))
		data += blobmsg_hdrlen(blobmsg_namelen(hdr));
	return data;
}

static inline size_t blobmsg_data_len(const struct blob_attr *attr)
{
	uint8_t *start, *end;

	if (!attr)
		return 0;
	start = (uint8_t *)blob_data(attr);
	end = (uint8_t *)blobmsg_data(attr);
	if ((size_t)(end - start) > blob_len(attr))
		return 0;
	return blob_len(attr) - (size_t)(end - start);
}

static inline size_t blobmsg_len(const struct blob_attr *attr)
{
	return blobmsg_data_len(attr);
}

/* ---- validation ----------------------------------------------------------- */

/* attr is a well-formed blobmsg attribute (extended, NUL-terminated name,
 * non-empty if name is true, known type, right payload size, children valid). */
bool blobmsg_check_attr(const struct blob_attr *attr, bool name) UBOX_NOEXCEPT;
/* As blobmsg_check_attr, with only len bytes known to exist at attr. */
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len) UBOX_NOEXCEPT;
/* attr is a TABLE/ARRAY whose children are all valid and of type (UNSPEC = any). */
bool blobmsg_check_attr_list(const struct blob_attr *attr, int type) UBOX_NOEXCEPT;
bool blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len) UBOX_NOEXCEPT;
/* Number of children of a valid TABLE/ARRAY whose children all have type
 * (UNSPEC = any), else -1. */
int blobmsg_check_array(const struct blob_attr *attr, int type) UBOX_NOEXCEPT;
int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len) UBOX_NOEXCEPT;

/* ---- parsing -------------------------------------------------------------- */

/* Clears tb[0..policy_len-1]; then for each named attribute of the run
 * data/len, the first policy entry of equal name and matching type (UNSPEC =
 * any) gets it unless already set. -EINVAL for empty input, -1 on a malformed
 * attribute (earlier matches stay), 0 otherwise. */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len,
		  struct blob_attr **tb, void *data, unsigned int len) UBOX_NOEXCEPT;
/* Positional: the i-th attribute goes to tb[i] if its type matches policy[i]. */
int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len,
			struct blob_attr **tb, void *data, unsigned int len) UBOX_NOEXCEPT;

static inline int blobmsg_parse_attr(const struct blobmsg_policy *policy, int policy_len,
				     struct blob_attr **tb, struct blob_attr *data)
{
	return blobmsg_parse(policy, policy_len, tb, blobmsg_data(data),
			     (unsigned int)blobmsg_len(data));
}

static inline int blobmsg_parse_array_attr(const struct blobmsg_policy *policy, int policy_len,
					   struct blob_attr **tb, struct blob_attr *data)
{
	return blobmsg_parse_array(policy, policy_len, tb, blobmsg_data(data),
				   (unsigned int)blobmsg_len(data));
}

/* ---- building ------------------------------------------------------------- */

static inline int blobmsg_buf_init(struct blob_buf *buf)
{
	return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

/* All adders return 0, or -1 when memory runs out (buffer unchanged). A NULL
 * name is the empty name (array elements). */
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name,
		      const void *data, unsigned int len) UBOX_NOEXCEPT;

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string)
{
	return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string,
				 (unsigned int)strlen(string) + 1);
}

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val)
{
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &val, 1);
}

static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t val)
{
	val = cpu_to_be16(val);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &val, 2);
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val)
{
	val = cpu_to_be32(val);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &val, 4);
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val)
{
	val = cpu_to_be64(val);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &val, 8);
}

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double val)
{
	uint64_t bits;
	memcpy(&bits, &val, sizeof(bits));
	bits = cpu_to_be64(bits);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, 8);
}

/* Re-adds an existing blobmsg attribute: same type, name and payload. */
static inline int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr)
{
	return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr),
				 blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr));
}

/* Cookie for blobmsg_close_*, NULL when memory runs out. */
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array) UBOX_NOEXCEPT;

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name)
{
	return blobmsg_open_nested(buf, name, true);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name)
{
	return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie)
{
	blob_nest_end(buf, cookie);
}

static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie)
{
	blob_nest_end(buf, cookie);
}

/* A string attribute written in place: alloc returns room for maxlen bytes
 * (plus the NUL), realloc enlarges it keeping its content, add_string_buffer
 * fixes its length at strlen + 1 and appends it. */
void *blobmsg_alloc_string_buffer(struct blob_buf *buf, const char *name,
				  unsigned int maxlen) UBOX_NOEXCEPT;
void *blobmsg_realloc_string_buffer(struct blob_buf *buf, unsigned int maxlen) UBOX_NOEXCEPT;
void blobmsg_add_string_buffer(struct blob_buf *buf) UBOX_NOEXCEPT;

int blobmsg_vprintf(struct blob_buf *buf, const char *name, const char *format,
		    va_list arg) UBOX_NOEXCEPT __attribute__((format(printf, 3, 0)));
int blobmsg_printf(struct blob_buf *buf, const char *name, const char *format,
		   ...) UBOX_NOEXCEPT __attribute__((format(printf, 3, 4)));

/* ---- getters: no type checks, gate them on the policy type ---------------- */

static inline uint8_t blobmsg_get_u8(struct blob_attr *attr)
{
	return *(uint8_t *)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(struct blob_attr *attr)
{
	return *(uint8_t *)blobmsg_data(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(struct blob_attr *attr)
{
	uint16_t v;
	memcpy(&v, blobmsg_data(attr), sizeof(v));
	return be16_to_cpu(v);
}

static inline uint32_t blobmsg_get_u32(struct blob_attr *attr)
{
	uint32_t v;
	memcpy(&v, blobmsg_data(attr), sizeof(v));
	return be32_to_cpu(v);
}

static inline uint64_t blobmsg_get_u64(struct blob_attr *attr)
{
	uint32_t hi, lo;
	const char *p = (const char *)blobmsg_data(attr);
	memcpy(&hi, p, sizeof(hi));
	memcpy(&lo, p + 4, sizeof(lo));
	return ((uint64_t)be32_to_cpu(hi) << 32) | be32_to_cpu(lo);
}

static inline double blobmsg_get_double(struct blob_attr *attr)
{
	uint64_t bits = blobmsg_get_u64(attr);
	double d;
	memcpy(&d, &bits, sizeof(d));
	return d;
}

static inline char *blobmsg_get_string(struct blob_attr *attr)
{
	if (!attr)
		return NULL;
	return (char *)blobmsg_data(attr);
}

/* Any integer width, sign-extended (cast_s64) or zero-extended (cast_u64);
 * 0 for other types. */
static inline uint64_t blobmsg_cast_u64(struct blob_attr *attr)
{
	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_INT8:  return blobmsg_get_u8(attr);
	case BLOBMSG_TYPE_INT16: return blobmsg_get_u16(attr);
	case BLOBMSG_TYPE_INT32: return blobmsg_get_u32(attr);
	case BLOBMSG_TYPE_INT64: return blobmsg_get_u64(attr);
	default: return 0;
	}
}

static inline int64_t blobmsg_cast_s64(struct blob_attr *attr)
{
	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_INT8:  return (int8_t)blobmsg_get_u8(attr);
	case BLOBMSG_TYPE_INT16: return (int16_t)blobmsg_get_u16(attr);
	case BLOBMSG_TYPE_INT32: return (int32_t)blobmsg_get_u32(attr);
	case BLOBMSG_TYPE_INT64: return (int64_t)blobmsg_get_u64(attr);
	default: return 0;
	}
}

/* ---- iteration ------------------------------------------------------------ */

#define __blobmsg_for_each_attr(pos, attr, rem) \
	for (pos = (struct blob_attr *)(attr); \
	     (size_t)(rem) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) <= (size_t)(rem); \
	     rem -= blob_pad_len(pos), pos = blob_next(pos))

#define blobmsg_for_each_attr(pos, attr, rem) \
	for (rem = (attr) ? blobmsg_data_len(attr) : 0, \
	     pos = (struct blob_attr *)((attr) ? blobmsg_data(attr) : NULL); \
	     (size_t)(rem) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) <= (size_t)(rem); \
	     rem -= blob_pad_len(pos), pos = blob_next(pos))

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_BLOBMSG_H */
