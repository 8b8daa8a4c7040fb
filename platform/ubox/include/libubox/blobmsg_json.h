/* blobmsg_json.h - JSON text (through json-c) to blobmsg and back. */
#ifndef LIBUBOX_BLOBMSG_JSON_H
#define LIBUBOX_BLOBMSG_JSON_H

#include <stdbool.h>

#include "blobmsg.h"

/* As upstream's, this header has no extern "C" block of its own, and libubus.h (which has one)
 * does not include it: C++ includes it inside one, or links against mangled names that
 * upstream's library does not have. */

struct json_object;

/* JSON to blobmsg. Members are appended to buf's current container in the
 * object's order: objects become TABLE, arrays ARRAY, strings STRING,
 * booleans INT8, integers INT32 (INT64 outside the 32-bit range), other
 * numbers DOUBLE, null an empty UNSPEC. False when the input is not a JSON
 * object (or does not parse); what was appended before the failure stays. */
bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj) UBOX_NOEXCEPT;
bool blobmsg_add_json_element(struct blob_buf *b, const char *name,
			      struct json_object *obj) UBOX_NOEXCEPT;
bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str) UBOX_NOEXCEPT;
bool blobmsg_add_json_from_file(struct blob_buf *b, const char *file) UBOX_NOEXCEPT;

/* Returns a replacement text for attr, or NULL to format it normally. */
typedef const char *(*blobmsg_json_format_t)(void *priv, struct blob_attr *attr);

/* blobmsg to JSON text, malloc'd (caller frees), NULL when memory runs out.
 * list = true prints attr's children as an object (an array if attr is an
 * ARRAY); list = false prints attr as one member ("name": value, or the bare
 * value when it has no name). indent < 0 is compact; indent >= 0 puts each
 * element on its own line behind one tab per nesting level, starting at
 * indent. */
char *blobmsg_format_json_with_cb(struct blob_attr *attr, bool list,
				  blobmsg_json_format_t cb, void *priv, int indent) UBOX_NOEXCEPT;
char *blobmsg_format_json_value_with_cb(struct blob_attr *attr, blobmsg_json_format_t cb,
					void *priv, int indent) UBOX_NOEXCEPT;

static inline char *blobmsg_format_json(struct blob_attr *attr, bool list)
{
	return blobmsg_format_json_with_cb(attr, list, NULL, NULL, -1);
}

static inline char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent)
{
	return blobmsg_format_json_with_cb(attr, list, NULL, NULL, indent);
}

static inline char *blobmsg_format_json_value(struct blob_attr *attr)
{
	return blobmsg_format_json_value_with_cb(attr, NULL, NULL, -1);
}

static inline char *blobmsg_format_json_value_indent(struct blob_attr *attr, int indent)
{
	return blobmsg_format_json_value_with_cb(attr, NULL, NULL, indent);
}

#endif /* LIBUBOX_BLOBMSG_JSON_H */
