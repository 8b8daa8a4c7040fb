// blob.cpp - blob attribute buffers: building, nesting, comparing and parsing
// with bounds checks.
//
// A blob_buf holds one root attribute at offset 0. `head` is the innermost
// open container, always the last attribute in the buffer, so adding means
// writing at head's padded end and growing head's length. Enclosing
// containers are brought up to date when a nest is closed. Pointers into
// the buffer die when it grows; nesting cookies are offsets and survive.
#include <libubox/blob.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Growth step of the default grow function: small messages need one step.
constexpr size_t kGrowStep = 256;

constexpr size_t pad4(size_t len)
{
	return (len + BLOB_ATTR_ALIGN - 1) & ~static_cast<size_t>(BLOB_ATTR_ALIGN - 1);
}

size_t offset_of(const blob_buf *buf, const void *p)
{
	return static_cast<size_t>(static_cast<const char *>(p) - static_cast<const char *>(buf->buf));
}

blob_attr *attr_at(blob_buf *buf, size_t offset)
{
	return reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + offset);
}

void set_header(blob_attr *attr, unsigned int id, size_t raw_len)
{
	uint32_t word = ((id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK) |
			(static_cast<uint32_t>(raw_len) & BLOB_ATTR_LEN_MASK);
	attr->id_len = cpu_to_be32(word);
}

// realloc in whole steps; the new memory is zeroed.
bool default_grow(blob_buf *buf, int minlen)
{
	if (minlen <= 0)
		return true;
	size_t delta = (static_cast<size_t>(minlen) / kGrowStep + 1) * kGrowStep;
	size_t old_len = static_cast<size_t>(buf->buflen);
	if (old_len + delta > BLOB_ATTR_LEN_MASK)
		return false;
	void *p = realloc(buf->buf, old_len + delta);
	if (!p)
		return false;
	memset(static_cast<char *>(p) + old_len, 0, delta);
	buf->buf = p;
	buf->buflen = static_cast<int>(old_len + delta);
	return true;
}

// Makes sure the buffer holds at least `end` bytes; head is kept valid.
bool ensure(blob_buf *buf, size_t end)
{
	if (end <= static_cast<size_t>(buf->buflen))
		return true;
	return blob_buf_grow(buf, static_cast<int>(end - static_cast<size_t>(buf->buflen)));
}

// Reserves `len` bytes (zeroed, padded) at head's end and counts them in head.
// Returns the start of the region or nullptr, leaving the buffer unchanged.
char *reserve(blob_buf *buf, size_t len)
{
	if (!buf->head)
		return nullptr;
	size_t head_off = offset_of(buf, buf->head);
	size_t pos = head_off + blob_pad_len(buf->head);
	size_t padded = pad4(len);
	size_t new_head_len = pos + padded - head_off;
	if (len > BLOB_ATTR_LEN_MASK || new_head_len > BLOB_ATTR_LEN_MASK)
		return nullptr;
	if (!ensure(buf, pos + padded))
		return nullptr;
	char *region = reinterpret_cast<char *>(attr_at(buf, pos));
	memset(region, 0, padded);
	blob_set_raw_len(buf->head, static_cast<unsigned int>(new_head_len));
	return region;
}

uintptr_t cookie_of(size_t offset)
{
	return static_cast<uintptr_t>(offset) + BLOB_COOKIE;
}

// Whether the payload of attr passes one entry of a parse table.
bool passes(const blob_attr_info *info, blob_attr *attr)
{
	size_t len = blob_len(attr);
	if (info->type != BLOB_ATTR_UNSPEC &&
	    !blob_check_type(blob_data(attr), static_cast<unsigned int>(len), static_cast<int>(info->type)))
		return false;
	if (info->minlen && len < info->minlen)
		return false;
	if (info->maxlen && len > info->maxlen)
		return false;
	if (info->validate && !info->validate(info, attr))
		return false;
	return true;
}

} // namespace

extern "C" {

bool blob_buf_grow(blob_buf *buf, int required) noexcept
{
	if (required <= 0)
		return true;
	if (static_cast<size_t>(buf->buflen) + static_cast<size_t>(required) > BLOB_ATTR_LEN_MASK)
		return false;
	bool had_head = buf->head && buf->buf;
	size_t head_off = had_head ? offset_of(buf, buf->head) : 0;
	if (!buf->grow || !buf->grow(buf, required))
		return false;
	if (had_head)
		buf->head = attr_at(buf, head_off);
	return true;
}

int blob_buf_init(blob_buf *buf, int id) noexcept
{
	if (!buf->grow)
		buf->grow = default_grow;
	buf->head = nullptr;
	if (!ensure(buf, sizeof(blob_attr)))
		return -ENOMEM;
	buf->head = static_cast<blob_attr *>(buf->buf);
	set_header(buf->head, static_cast<unsigned int>(id), sizeof(blob_attr));
	return 0;
}

void blob_buf_free(blob_buf *buf) noexcept
{
	free(buf->buf);
	buf->buf = nullptr;
	buf->head = nullptr;
	buf->buflen = 0;
}

void blob_fill_pad(blob_attr *attr) noexcept
{
	size_t raw = blob_raw_len(attr);
	size_t padded = blob_pad_len(attr);
	if (padded > raw)
		memset(reinterpret_cast<char *>(attr) + raw, 0, padded - raw);
}

void blob_set_raw_len(blob_attr *attr, unsigned int len) noexcept
{
	uint32_t word = be32_to_cpu(attr->id_len) & ~static_cast<uint32_t>(BLOB_ATTR_LEN_MASK);
	attr->id_len = cpu_to_be32(word | (len & BLOB_ATTR_LEN_MASK));
}

bool blob_attr_equal(const blob_attr *a1, const blob_attr *a2) noexcept
{
	if (!a1 || !a2)
		return a1 == a2;
	if (blob_raw_len(a1) != blob_raw_len(a2))
		return false;
	return memcmp(a1, a2, blob_raw_len(a1)) == 0;
}

blob_attr *blob_memdup(const blob_attr *attr) noexcept
{
	size_t len = blob_pad_len(attr);
	if (len < sizeof(blob_attr))
		return nullptr;
	auto *copy = static_cast<blob_attr *>(malloc(len));
	if (copy)
		memcpy(copy, attr, len);
	return copy;
}

blob_attr *blob_new(blob_buf *buf, int id, int payload) noexcept
{
	if (payload < 0)
		return nullptr;
	size_t raw = sizeof(blob_attr) + static_cast<size_t>(payload);
	char *region = reserve(buf, raw);
	if (!region)
		return nullptr;
	auto *attr = reinterpret_cast<blob_attr *>(region);
	set_header(attr, static_cast<unsigned int>(id), raw);
	return attr;
}

blob_attr *blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len) noexcept
{
	if (len > BLOB_ATTR_LEN_MASK)
		return nullptr;
	blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
	if (attr && len)
		memcpy(blob_data(attr), ptr, len);
	return attr;
}

blob_attr *blob_put_raw(blob_buf *buf, const void *ptr, unsigned int len) noexcept
{
	if (!len)
		return nullptr;
	char *region = reserve(buf, len);
	if (!region)
		return nullptr;
	memcpy(region, ptr, len);
	return reinterpret_cast<blob_attr *>(region);
}

void *blob_nest_start(blob_buf *buf, int id) noexcept
{
	if (!buf->head)
		return nullptr;
	size_t parent = offset_of(buf, buf->head);
	blob_attr *attr = blob_new(buf, id, 0);
	if (!attr)
		return nullptr;
	buf->head = attr;
	return reinterpret_cast<void *>(cookie_of(parent));
}

void blob_nest_end(blob_buf *buf, void *cookie) noexcept
{
	uintptr_t c = reinterpret_cast<uintptr_t>(cookie);
	if (!buf->head || c < BLOB_COOKIE)
		return;
	size_t parent_off = static_cast<size_t>(c - BLOB_COOKIE);
	size_t nested_off = offset_of(buf, buf->head);
	if (parent_off >= nested_off)
		return;
	// The closed container is the parent's last child: the parent now ends
	// where it ends.
	size_t end = nested_off + blob_pad_len(buf->head);
	blob_attr *parent = attr_at(buf, parent_off);
	blob_set_raw_len(parent, static_cast<unsigned int>(end - parent_off));
	buf->head = parent;
}

bool blob_check_type(const void *ptr, unsigned int len, int type) noexcept
{
	const char *data = static_cast<const char *>(ptr);
	switch (type) {
	case BLOB_ATTR_INT8:
		return len == 1;
	case BLOB_ATTR_INT16:
		return len == 2;
	case BLOB_ATTR_INT32:
		return len == 4;
	case BLOB_ATTR_INT64:
		return len == 8;
	case BLOB_ATTR_DOUBLE:
		return len >= 8;
	case BLOB_ATTR_STRING:
		return len >= 1 && data[len - 1] == '\0';
	default:
		return true;
	}
}

int blob_parse(blob_attr *attr, blob_attr **data, const blob_attr_info *info, int max) noexcept
{
	if (max <= 0)
		return 0;
	memset(data, 0, sizeof(*data) * static_cast<size_t>(max));
	if (!attr)
		return 0;
	int found = 0;
	blob_attr *pos;
	size_t rem;
	blob_for_each_attr(pos, attr, rem) {
		unsigned int id = blob_id(pos);
		if (id >= static_cast<unsigned int>(max))
			continue;
		if (info && !passes(&info[id], pos))
			continue;
		if (!data[id])
			found++;
		data[id] = pos;
	}
	return found;
}

int blob_parse_untrusted(blob_attr *attr, size_t attr_len, blob_attr **data,
			 const blob_attr_info *info, int max) noexcept
{
	if (max <= 0)
		return 0;
	memset(data, 0, sizeof(*data) * static_cast<size_t>(max));
	if (!attr || attr_len < sizeof(blob_attr) || blob_raw_len(attr) < sizeof(blob_attr) ||
	    blob_raw_len(attr) > attr_len)
		return 0;
	return blob_parse(attr, data, info, max);
}

} // extern "C"
