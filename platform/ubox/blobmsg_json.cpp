// blobmsg_json.cpp - JSON text to blobmsg and back, through json-c.
extern "C" {
#include <libubox/blobmsg_json.h>
}

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <json-c/json.h>

namespace {

// json-c ownership: parsers return a reference we own (held in JsonPtr);
// object and array accessors lend theirs (kept raw).
struct JsonPut {
	void operator()(json_object *o) const noexcept { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

// Same bound as the validators: deeper containers are treated as malformed,
// which keeps the recursion within small thread stacks.
constexpr int kMaxDepth = 64;
// Pretty output never indents more than this many tabs.
constexpr int kMaxTabs = 16;

bool add_element(blob_buf *b, const char *name, json_object *obj, int depth);

bool add_members(blob_buf *b, json_object *obj, int depth)
{
	json_object_iterator it = json_object_iter_begin(obj);
	json_object_iterator end = json_object_iter_end(obj);
	for (; !json_object_iter_equal(&it, &end); json_object_iter_next(&it)) {
		if (!add_element(b, json_object_iter_peek_name(&it), json_object_iter_peek_value(&it),
				 depth))
			return false;
	}
	return true;
}

bool add_element(blob_buf *b, const char *name, json_object *obj, int depth)
{
	if (depth > kMaxDepth)
		return false;
	switch (json_object_get_type(obj)) {
	case json_type_object: {
		void *c = blobmsg_open_table(b, name);
		if (!c)
			return false;
		bool ok = add_members(b, obj, depth + 1);
		blobmsg_close_table(b, c);
		return ok;
	}
	case json_type_array: {
		void *c = blobmsg_open_array(b, name);
		if (!c)
			return false;
		bool ok = true;
		size_t n = json_object_array_length(obj);
		for (size_t i = 0; ok && i < n; i++)
			ok = add_element(b, nullptr, json_object_array_get_idx(obj, i), depth + 1);
		blobmsg_close_array(b, c);
		return ok;
	}
	case json_type_string:
		return blobmsg_add_string(b, name, json_object_get_string(obj)) == 0;
	case json_type_boolean:
		return blobmsg_add_u8(b, name, json_object_get_boolean(obj) ? 1 : 0) == 0;
	case json_type_int: {
		int64_t v = json_object_get_int64(obj);
		if (v >= INT32_MIN && v <= INT32_MAX)
			return blobmsg_add_u32(b, name, static_cast<uint32_t>(static_cast<int32_t>(v))) == 0;
		return blobmsg_add_u64(b, name, static_cast<uint64_t>(v)) == 0;
	}
	case json_type_double:
		return blobmsg_add_double(b, name, json_object_get_double(obj)) == 0;
	case json_type_null:
		return blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
	}
	return false;
}

// ---- blobmsg to text -------------------------------------------------------

// Header, name and payload size of one attribute of which len bytes exist.
// Container children are checked one level at a time as they are printed,
// so a malformed one is skipped where it sits and the work stays linear.
bool sound(const blob_attr *attr, size_t len)
{
	size_t raw = blob_raw_len(attr);
	if (raw < sizeof(blob_attr) || raw > len)
		return false;
	size_t body = raw - sizeof(blob_attr);
	if (blob_is_extended(attr)) {
		auto *hdr = static_cast<const blobmsg_hdr *>(blob_data(attr));
		if (body < sizeof(blobmsg_hdr))
			return false;
		uint16_t namelen = blobmsg_namelen(hdr);
		if (static_cast<size_t>(blobmsg_hdrlen(namelen)) > body || hdr->name[namelen] != '\0')
			return false;
	}
	auto *data = static_cast<const char *>(blobmsg_data(attr));
	size_t data_len = blobmsg_data_len(attr);
	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_INT8: return data_len == 1;
	case BLOBMSG_TYPE_INT16: return data_len == 2;
	case BLOBMSG_TYPE_INT32: return data_len == 4;
	case BLOBMSG_TYPE_INT64:
	case BLOBMSG_TYPE_DOUBLE: return data_len == 8;
	case BLOBMSG_TYPE_STRING: return data_len >= 1 && data[data_len - 1] == '\0';
	case BLOBMSG_TYPE_UNSPEC:
	case BLOBMSG_TYPE_ARRAY:
	case BLOBMSG_TYPE_TABLE: return true;
	default: return false;
	}
}

struct Writer {
	std::string out;
	blobmsg_json_format_t cb;
	void *priv;
	bool pretty;
	int level;  // tabs in front of the current container's elements

	void newline_indent(int tabs)
	{
		if (!pretty)
			return;
		out += '\n';
		out.append(static_cast<size_t>(tabs < kMaxTabs ? tabs : kMaxTabs), '\t');
	}

	void string(const char *s, size_t len)
	{
		static const char hex[] = "0123456789abcdef";
		out += '"';
		for (size_t i = 0; i < len; i++) {
			auto c = static_cast<unsigned char>(s[i]);
			switch (c) {
			case '"': out += "\\\""; break;
			case '\\': out += "\\\\"; break;
			case '\b': out += "\\b"; break;
			case '\n': out += "\\n"; break;
			case '\t': out += "\\t"; break;
			case '\r': out += "\\r"; break;
			default:
				if (c < 0x20) {
					out += "\\u00";
					out += hex[c >> 4];
					out += hex[c & 0xf];
				} else {
					out += static_cast<char>(c);
				}
			}
		}
		out += '"';
	}

	// The children of a container payload, as {...} or [...].
	void list(blob_attr *first, size_t len, bool array, int depth)
	{
		out += array ? '[' : '{';
		level++;
		newline_indent(level);
		bool any = false;
		auto *p = reinterpret_cast<char *>(first);
		while (len >= sizeof(blob_attr)) {
			auto *child = reinterpret_cast<blob_attr *>(p);
			size_t padded = blob_pad_len(child);
			if (padded < sizeof(blob_attr) || padded > len)
				break;  // the rest cannot be walked
			p += padded;
			len -= padded;
			if (!sound(child, padded))
				continue;
			if (any) {
				out += ',';
				newline_indent(level);
			}
			any = true;
			element(child, array, depth);
		}
		level--;
		newline_indent(level);
		out += array ? ']' : '}';
	}


	void element(blob_attr *attr, bool no_name, int depth)
	{
		if (!no_name && blob_is_extended(attr) && blobmsg_name(attr)[0]) {
			string(blobmsg_name(attr), strlen(blobmsg_name(attr)));
			out += pretty ? ": " : ":";
		}
		value(attr, depth, true);
	}

	void value(blob_attr *attr, int depth, bool use_cb)
	{
		if (use_cb && cb) {
			if (const char *text = cb(priv, attr)) {
				out += text;
				return;
			}
		}
		auto *data = static_cast<char *>(blobmsg_data(attr));
		size_t len = blobmsg_data_len(attr);
		char num[64];
		switch (blobmsg_type(attr)) {
		case BLOBMSG_TYPE_UNSPEC:
			out += "null";
			break;
		case BLOBMSG_TYPE_INT8:
			out += (len && data[0]) ? "true" : "false";
			break;
		case BLOBMSG_TYPE_INT16:
			snprintf(num, sizeof(num), "%d", static_cast<int16_t>(blobmsg_get_u16(attr)));
			out += num;
			break;
		case BLOBMSG_TYPE_INT32:
			snprintf(num, sizeof(num), "%" PRId32, static_cast<int32_t>(blobmsg_get_u32(attr)));
			out += num;
			break;
		case BLOBMSG_TYPE_INT64:
			snprintf(num, sizeof(num), "%" PRId64, static_cast<int64_t>(blobmsg_get_u64(attr)));
			out += num;
			break;
		case BLOBMSG_TYPE_DOUBLE:
			snprintf(num, sizeof(num), "%lf", blobmsg_get_double(attr));
			out += num;
			break;
		case BLOBMSG_TYPE_STRING:
			string(data, strnlen(data, len));
			break;
		case BLOBMSG_TYPE_ARRAY:
		case BLOBMSG_TYPE_TABLE:
			if (depth >= kMaxDepth) {
				out += "null";
				break;
			}
			list(reinterpret_cast<blob_attr *>(data), len,
			     blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY, depth + 1);
			break;
		default:
			out += "null";
		}
	}
};

char *finish(const std::string &s)
{
	char *r = static_cast<char *>(malloc(s.size() + 1));
	if (r)
		memcpy(r, s.c_str(), s.size() + 1);
	return r;
}

} // namespace

extern "C" {

bool blobmsg_add_object(blob_buf *b, json_object *obj) noexcept
{
	if (!obj || json_object_get_type(obj) != json_type_object)
		return false;
	return add_members(b, obj, 1);
}

bool blobmsg_add_json_element(blob_buf *b, const char *name, json_object *obj) noexcept
{
	return add_element(b, name, obj, 0);
}

bool blobmsg_add_json_from_string(blob_buf *b, const char *str) noexcept
{
	if (!str)
		return false;
	JsonPtr obj(json_tokener_parse(str));
	return blobmsg_add_object(b, obj.get());
}

bool blobmsg_add_json_from_file(blob_buf *b, const char *file) noexcept
{
	if (!file)
		return false;
	JsonPtr obj(json_object_from_file(file));
	return blobmsg_add_object(b, obj.get());
}

char *blobmsg_format_json_with_cb(blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv,
				  int indent) noexcept
{
	if (!attr)
		return nullptr;
	try {
		Writer w {std::string(), cb, priv, indent >= 0, indent >= 0 ? indent : 0};
		if (list) {
			bool array = blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY;
			w.list(static_cast<blob_attr *>(blobmsg_data(attr)), blobmsg_data_len(attr), array, 1);
		} else {
			w.element(attr, false, 0);
		}
		return finish(w.out);
	} catch (const std::bad_alloc &) {
		return nullptr;
	}
}

char *blobmsg_format_json_value_with_cb(blob_attr *attr, blobmsg_json_format_t cb, void *priv,
					int indent) noexcept
{
	if (!attr)
		return nullptr;
	try {
		Writer w {std::string(), cb, priv, indent >= 0, indent >= 0 ? indent : 0};
		w.value(attr, 0, true);
		return finish(w.out);
	} catch (const std::bad_alloc &) {
		return nullptr;
	}
}

} // extern "C"
