// blobmsg.cpp - named blob attributes: validation of untrusted input, policy
// parsing, and the builders (fields, nested tables and arrays, strings
// written in place).
#include <libubox/blobmsg.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

// Deepest nesting accepted from outside. JSON input stops at 32 levels;
// the limit keeps recursive checks within the 64 KiB stacks of the daemon's
// threads however deep a hostile message nests.
constexpr int kMaxDepth = 64;
// Depth argument of check_attr asking for the attribute itself only.
constexpr int kShallow = -1;

uintptr_t cookie_of(size_t offset)
{
	return static_cast<uintptr_t>(offset) + BLOB_COOKIE;
}

// Payload size rules per type: integers of exact width, strings non-empty
// and NUL-terminated, doubles 8 bytes.
bool payload_ok(int type, const char *data, size_t len)
{
	switch (type) {
	case BLOBMSG_TYPE_INT8:
		return len == 1;
	case BLOBMSG_TYPE_INT16:
		return len == 2;
	case BLOBMSG_TYPE_INT32:
		return len == 4;
	case BLOBMSG_TYPE_INT64:
	case BLOBMSG_TYPE_DOUBLE:
		return len == 8;
	case BLOBMSG_TYPE_STRING:
		return len >= 1 && data[len - 1] == '\0';
	default:
		return true;
	}
}

// Checks one attribute of which `len` bytes exist: header, name header and
// payload size; its children too, down to `depth` more levels of containers
// (kShallow: the attribute alone).
bool check_attr(const blob_attr *attr, bool name, size_t len, int depth);

// Checks the children of a container payload; `named` = TABLE children.
// Returns their count, or -1. A container must be filled exactly by its
// padded children.
int check_children(const char *data, size_t len, bool named, int type, int depth)
{
	int count = 0;
	while (len > 0) {
		if (len < sizeof(blob_attr))
			return -1;
		auto *child = reinterpret_cast<const blob_attr *>(data);
		size_t padded = blob_pad_len(child);
		if (padded > len || !check_attr(child, named, len, depth))
			return -1;
		if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(child) != type)
			return -1;
		count++;
		data += padded;
		len -= padded;
	}
	return count;
}

bool check_attr(const blob_attr *attr, bool name, size_t len, int depth)
{
	if (!attr || len < sizeof(blob_attr))
		return false;
	size_t raw = blob_raw_len(attr);
	if (raw < sizeof(blob_attr) || raw > len)
		return false;
	size_t body = raw - sizeof(blob_attr);
	auto *hdr = static_cast<const blobmsg_hdr *>(blob_data(attr));
	if (blob_is_extended(attr)) {
		if (body < sizeof(blobmsg_hdr))
			return false;
		size_t namelen = blobmsg_namelen(hdr);
		size_t hdrlen = static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned int>(namelen)));
		if (hdrlen > body || hdr->name[namelen] != '\0')
			return false;
		if (name && namelen == 0)
			return false;
	} else if (name) {
		return false;
	}
	int type = blobmsg_type(attr);
	if (type > BLOBMSG_TYPE_LAST)
		return false;
	auto *data = static_cast<const char *>(blobmsg_data(attr));
	size_t data_len = blobmsg_data_len(attr);
	if (!payload_ok(type, data, data_len))
		return false;
	if (type != BLOBMSG_TYPE_TABLE && type != BLOBMSG_TYPE_ARRAY)
		return true;
	if (depth == kShallow)
		return true;
	if (depth == 0)
		return false;  // nested deeper than any real message
	return check_children(data, data_len, type == BLOBMSG_TYPE_TABLE, BLOBMSG_TYPE_UNSPEC,
			      depth - 1) >= 0;
}

// Only the header and name of an attribute of which len bytes exist.
bool name_ok(const blob_attr *attr, size_t len)
{
	size_t raw = blob_raw_len(attr);
	if (raw < sizeof(blob_attr) || raw > len)
		return false;
	if (!blob_is_extended(attr))
		return true;
	size_t body = raw - sizeof(blob_attr);
	if (body < sizeof(blobmsg_hdr))
		return false;
	auto *hdr = static_cast<const blobmsg_hdr *>(blob_data(attr));
	size_t namelen = blobmsg_namelen(hdr);
	return static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned int>(namelen))) <= body &&
	       hdr->name[namelen] == '\0';
}

bool type_matches(int policy_type, int type)
{
	if (policy_type == BLOBMSG_TYPE_UNSPEC || policy_type == type)
		return true;
	return policy_type == BLOBMSG_CAST_INT64 &&
	       (type == BLOBMSG_TYPE_INT8 || type == BLOBMSG_TYPE_INT16 ||
		type == BLOBMSG_TYPE_INT32 || type == BLOBMSG_TYPE_INT64);
}

// Walks the raw run data/len calling fn(attr, remaining) for each attribute.
// Returns false when the run holds something that is not an attribute.
template <typename Fn>
bool walk_run(void *data, unsigned int len, Fn fn)
{
	auto *p = static_cast<char *>(data);
	size_t rem = len;
	while (rem > 0) {
		if (rem < sizeof(blob_attr))
			return false;
		auto *attr = reinterpret_cast<blob_attr *>(p);
		size_t padded = blob_pad_len(attr);
		if (blob_raw_len(attr) < sizeof(blob_attr) || padded > rem || !name_ok(attr, rem))
			return false;
		if (!fn(attr, rem))
			return false;
		p += padded;
		rem -= padded;
	}
	return true;
}

// Appends a blobmsg attribute with its name header and a zeroed payload of
// payload_len bytes; *data points at the payload.
blob_attr *blobmsg_new(blob_buf *buf, int type, const char *name, size_t payload_len, void **data)
{
	if (!name)
		name = "";
	size_t namelen = strlen(name);
	if (namelen > UINT16_MAX)
		return nullptr;
	size_t hdrlen = static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned int>(namelen)));
	if (payload_len > BLOB_ATTR_LEN_MASK)
		return nullptr;
	blob_attr *attr = blob_new(buf, type, static_cast<int>(hdrlen + payload_len));
	if (!attr)
		return nullptr;
	attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
	auto *hdr = static_cast<blobmsg_hdr *>(blob_data(attr));
	uint16_t be_len = cpu_to_be16(static_cast<uint16_t>(namelen));
	memcpy(&hdr->namelen, &be_len, sizeof(be_len));
	memcpy(hdr->name, name, namelen);
	if (data)
		*data = static_cast<char *>(blob_data(attr)) + hdrlen;
	return attr;
}

size_t offset_of(const blob_buf *buf, const void *p)
{
	return static_cast<size_t>(static_cast<const char *>(p) - static_cast<const char *>(buf->buf));
}

} // namespace

extern "C" {

bool blobmsg_check_attr_len(const blob_attr *attr, bool name, size_t len) noexcept
{
	return check_attr(attr, name, len, kMaxDepth);
}

bool blobmsg_check_attr(const blob_attr *attr, bool name) noexcept
{
	return attr && check_attr(attr, name, blob_raw_len(attr), kMaxDepth);
}

int blobmsg_check_array_len(const blob_attr *attr, int type, size_t len) noexcept
{
	if (!check_attr(attr, false, len, kShallow))
		return -1;
	int own = blobmsg_type(attr);
	if (own != BLOBMSG_TYPE_TABLE && own != BLOBMSG_TYPE_ARRAY)
		return -1;
	return check_children(static_cast<const char *>(blobmsg_data(attr)), blobmsg_data_len(attr),
			      own == BLOBMSG_TYPE_TABLE, type, kMaxDepth - 1);
}

int blobmsg_check_array(const blob_attr *attr, int type) noexcept
{
	if (!attr)
		return -1;
	return blobmsg_check_array_len(attr, type, blob_raw_len(attr));
}

bool blobmsg_check_attr_list_len(const blob_attr *attr, int type, size_t len) noexcept
{
	return blobmsg_check_array_len(attr, type, len) >= 0;
}

bool blobmsg_check_attr_list(const blob_attr *attr, int type) noexcept
{
	return blobmsg_check_array(attr, type) >= 0;
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data,
		  unsigned int len) noexcept
{
	if (policy_len > 0)
		memset(tb, 0, sizeof(*tb) * static_cast<size_t>(policy_len));
	if (!data || !len)
		return -EINVAL;
	bool ok = walk_run(data, len, [&](blob_attr *attr, size_t rem) {
		if (!blob_is_extended(attr))
			return true;  // unnamed: nothing to match
		const char *name = blobmsg_name(attr);
		int type = blobmsg_type(attr);
		for (int i = 0; i < policy_len; i++) {
			if (!policy[i].name || !type_matches(policy[i].type, type) ||
			    strcmp(policy[i].name, name) != 0)
				continue;
			if (!check_attr(attr, false, rem, kMaxDepth))
				return false;
			if (!tb[i])
				tb[i] = attr;
		}
		return true;
	});
	return ok ? 0 : -1;
}

int blobmsg_parse_array(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data,
			unsigned int len) noexcept
{
	if (policy_len > 0)
		memset(tb, 0, sizeof(*tb) * static_cast<size_t>(policy_len));
	if (!data || !len)
		return -EINVAL;
	int i = 0;
	bool ok = walk_run(data, len, [&](blob_attr *attr, size_t rem) {
		if (i >= policy_len)
			return true;
		int slot = i++;
		if (!type_matches(policy[slot].type, blobmsg_type(attr)))
			return true;
		if (!check_attr(attr, false, rem, kMaxDepth))
			return false;
		tb[slot] = attr;
		return true;
	});
	return ok ? 0 : -1;
}

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data,
		      unsigned int len) noexcept
{
	void *payload;
	blob_attr *attr = blobmsg_new(buf, type, name, len, &payload);
	if (!attr)
		return -1;
	if (len)
		memcpy(payload, data, len);
	return 0;
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array) noexcept
{
	if (!buf->head)
		return nullptr;
	size_t parent = offset_of(buf, buf->head);
	blob_attr *attr = blobmsg_new(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0,
				      nullptr);
	if (!attr)
		return nullptr;
	buf->head = attr;
	return reinterpret_cast<void *>(cookie_of(parent));
}

// The pending string lives just past head's end and is not counted in head
// until blobmsg_add_string_buffer fixes its length.
void *blobmsg_alloc_string_buffer(blob_buf *buf, const char *name, unsigned int maxlen) noexcept
{
	void *data;
	blob_attr *attr = blobmsg_new(buf, BLOBMSG_TYPE_STRING, name, static_cast<size_t>(maxlen) + 1,
				      &data);
	if (!attr)
		return nullptr;
	blob_set_raw_len(buf->head, static_cast<unsigned int>(offset_of(buf, attr) -
							       offset_of(buf, buf->head)));
	return data;
}

void *blobmsg_realloc_string_buffer(blob_buf *buf, unsigned int maxlen) noexcept
{
	blob_attr *attr = blob_next(buf->head);
	size_t cap = blobmsg_data_len(attr);
	if (static_cast<size_t>(maxlen) + 1 <= cap)
		return blobmsg_data(attr);
	size_t attr_off = offset_of(buf, attr);
	size_t old_raw = blob_raw_len(attr);
	size_t new_raw = old_raw + (static_cast<size_t>(maxlen) + 1 - cap);
	size_t end = attr_off + ((new_raw + 3) & ~static_cast<size_t>(3));
	if (new_raw > BLOB_ATTR_LEN_MASK)
		return nullptr;
	if (end > static_cast<size_t>(buf->buflen) &&
	    !blob_buf_grow(buf, static_cast<int>(end - static_cast<size_t>(buf->buflen))))
		return nullptr;
	attr = blob_next(buf->head);
	memset(reinterpret_cast<char *>(attr) + old_raw, 0, end - attr_off - old_raw);
	blob_set_raw_len(attr, static_cast<unsigned int>(new_raw));
	return blobmsg_data(attr);
}

void blobmsg_add_string_buffer(blob_buf *buf) noexcept
{
	blob_attr *attr = blob_next(buf->head);
	auto *data = static_cast<char *>(blobmsg_data(attr));
	size_t cap = blobmsg_data_len(attr);
	size_t len = cap ? strnlen(data, cap - 1) : 0;
	data[len] = '\0';
	size_t hdr = static_cast<size_t>(data - static_cast<char *>(blob_data(attr)));
	blob_set_raw_len(attr, static_cast<unsigned int>(sizeof(blob_attr) + hdr + len + 1));
	blob_fill_pad(attr);
	blob_set_raw_len(buf->head, static_cast<unsigned int>(blob_raw_len(buf->head) +
							       blob_pad_len(attr)));
}

int blobmsg_vprintf(blob_buf *buf, const char *name, const char *format, va_list arg) noexcept
{
	va_list copy;
	va_copy(copy, arg);
	int len = vsnprintf(nullptr, 0, format, copy);
	va_end(copy);
	if (len < 0)
		return -1;
	auto *s = static_cast<char *>(blobmsg_alloc_string_buffer(buf, name, static_cast<unsigned int>(len)));
	if (!s)
		return -1;
	vsnprintf(s, static_cast<size_t>(len) + 1, format, arg);
	blobmsg_add_string_buffer(buf);
	return len;
}

int blobmsg_printf(blob_buf *buf, const char *name, const char *format, ...) noexcept
{
	va_list ap;
	va_start(ap, format);
	int ret = blobmsg_vprintf(buf, name, format, ap);
	va_end(ap);
	return ret;
}

} // extern "C"
