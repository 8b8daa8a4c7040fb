// blob_test.cpp - blob and blobmsg: wire layout, builders, getters, policy
// parsing, and validation of truncated, lying and corrupted input.
#include <libubox/blobmsg.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

extern "C" int ubox_headers_c_probe(void);

namespace {

// A blob_buf that is zeroed before use and freed after, as callers must.
struct Buf {
	blob_buf b {};
	Buf() { blobmsg_buf_init(&b); }
	~Buf() { blob_buf_free(&b); }
	Buf(const Buf &) = delete;
	Buf &operator=(const Buf &) = delete;
};

std::vector<uint8_t> bytes_of(const blob_attr *a, size_t len)
{
	auto *p = reinterpret_cast<const uint8_t *>(a);
	return std::vector<uint8_t>(p, p + len);
}

// Copy of a region into an exactly sized heap block, so reading one byte past
// it is an AddressSanitizer report.
struct Exact {
	std::vector<uint8_t> v;
	explicit Exact(const void *p, size_t len)
		: v(static_cast<const uint8_t *>(p), static_cast<const uint8_t *>(p) + len) {}
	void *data() { return v.empty() ? nullptr : v.data(); }
	unsigned int size() const { return static_cast<unsigned int>(v.size()); }
};

enum { P_NAME, P_COUNT, P_FLAG, P_ANY, P_COUNT_OF_POLICY };
const blobmsg_policy kPolicy[] = {
	/* P_NAME  */ {"name", BLOBMSG_TYPE_STRING},
	/* P_COUNT */ {"count", BLOBMSG_TYPE_INT32},
	/* P_FLAG  */ {"flag", BLOBMSG_TYPE_BOOL},
	/* P_ANY   */ {"any", BLOBMSG_TYPE_UNSPEC},
};
static_assert(ARRAY_SIZE(kPolicy) == P_COUNT_OF_POLICY, "one entry per attribute");

int parse(Buf &m, blob_attr **tb)
{
	return blobmsg_parse(kPolicy, P_COUNT_OF_POLICY, tb, blob_data(m.b.head), blob_len(m.b.head));
}

TEST(Blobmsg, EncodesTheDocumentedLayout)
{
	Buf m;
	ASSERT_EQ(0, blobmsg_add_u32(&m.b, "id", 7));
	blob_attr *a = static_cast<blob_attr *>(blob_data(m.b.head));
	EXPECT_EQ(bytes_of(a, 16), (std::vector<uint8_t> {0x85, 0, 0, 0x10, 0, 2, 'i', 'd', 0, 0, 0, 0,
							  0, 0, 0, 7}));

	ASSERT_EQ(0, blobmsg_add_string(&m.b, "msg", "hi"));
	a = blob_next(a);
	// length 15 = 4 + 8 + 3, one zero pad byte
	EXPECT_EQ(bytes_of(a, 16), (std::vector<uint8_t> {0x83, 0, 0, 0x0f, 0, 3, 'm', 's', 'g', 0, 0,
							  0, 'h', 'i', 0, 0}));
	// The root is not extended; its length counts the padded children.
	EXPECT_FALSE(blob_is_extended(m.b.head));
	EXPECT_EQ(static_cast<unsigned int>(BLOBMSG_TYPE_TABLE), blob_id(m.b.head));
	EXPECT_EQ(4u + 16 + 16, blob_raw_len(m.b.head));
	EXPECT_EQ(blob_data(m.b.head), blobmsg_data(m.b.head));
	EXPECT_EQ(blob_len(m.b.head), blobmsg_len(m.b.head));
	EXPECT_EQ(2, ubox_headers_c_probe());  // the C build agrees
}

// The JSON round trip covers the common scalars; these are the widths and
// casts it cannot reach, and the NULL-safe getters.
TEST(Blobmsg, ScalarsOnlyJsonCannotCarry)
{
	Buf m;
	blobmsg_add_u8(&m.b, "u8", 0xfe);
	blobmsg_add_u16(&m.b, "u16", 0xbeef);
	blobmsg_add_u32(&m.b, "neg", static_cast<uint32_t>(-5));
	blobmsg_add_string(&m.b, "str", "text");
	blob_attr *u8 = static_cast<blob_attr *>(blob_data(m.b.head)), *u16 = blob_next(u8),
		  *neg = blob_next(u16), *str = blob_next(neg);
	EXPECT_EQ(0xbeef, blobmsg_get_u16(u16));
	EXPECT_EQ(-5, blobmsg_cast_s64(neg));
	EXPECT_EQ(0xfeu, blobmsg_cast_u64(u8));
	EXPECT_EQ(5u, blobmsg_data_len(str));  // the NUL counts
	EXPECT_EQ(nullptr, blobmsg_get_string(nullptr));
	EXPECT_EQ(0u, blobmsg_data_len(nullptr));
}

TEST(Blobmsg, NestingSurvivesTheBufferGrowing)
{
	Buf m;
	void *outer = blobmsg_open_table(&m.b, "outer");
	void *arr = blobmsg_open_array(&m.b, "list");
	for (int i = 0; i < 500; i++)  // many reallocations while two nests are open
		blobmsg_printf(&m.b, nullptr, "item-%d", i);
	blobmsg_close_array(&m.b, arr);
	blobmsg_add_u32(&m.b, "after", 1);
	blobmsg_close_table(&m.b, outer);
	blobmsg_add_string(&m.b, "tail", "t");

	blob_attr *tb[2];
	const blobmsg_policy top[] = {{"outer", BLOBMSG_TYPE_TABLE}, {"tail", BLOBMSG_TYPE_STRING}};
	ASSERT_EQ(0, blobmsg_parse(top, 2, tb, blob_data(m.b.head), blob_len(m.b.head)));
	ASSERT_TRUE(tb[0] && tb[1]);
	EXPECT_STREQ("t", blobmsg_get_string(tb[1]));
	const blobmsg_policy inner[] = {{"list", BLOBMSG_TYPE_ARRAY}, {"after", BLOBMSG_TYPE_INT32}};
	blob_attr *in[2];
	ASSERT_EQ(0, blobmsg_parse_attr(inner, 2, in, tb[0]));
	ASSERT_TRUE(in[0] && in[1]);
	EXPECT_EQ(500, blobmsg_check_array(in[0], BLOBMSG_TYPE_STRING));
	EXPECT_EQ(-1, blobmsg_check_array(in[0], BLOBMSG_TYPE_INT32));
	EXPECT_EQ(2, blobmsg_check_array(tb[0], BLOBMSG_TYPE_UNSPEC));
	int i = 0;
	blob_attr *cur;
	size_t rem;
	blobmsg_for_each_attr(cur, in[0], rem) {
		EXPECT_STREQ("", blobmsg_name(cur));
		EXPECT_EQ("item-" + std::to_string(i++), blobmsg_get_string(cur));
	}
	EXPECT_EQ(500, i);

	// Re-initialising reuses the memory and starts an empty message.
	void *mem = m.b.buf;
	ASSERT_EQ(0, blob_buf_init(&m.b, 0));
	EXPECT_EQ(mem, m.b.buf);
	EXPECT_EQ(4u, blob_raw_len(m.b.head));
}

TEST(Blobmsg, StringBufferAndAddBlob)
{
	Buf m;
	char *s = static_cast<char *>(blobmsg_alloc_string_buffer(&m.b, "s", 4));
	strcpy(s, "ab");
	s = static_cast<char *>(blobmsg_realloc_string_buffer(&m.b, 300));
	EXPECT_STREQ("ab", s);
	memset(s + 2, 'x', 298);
	s[300] = 0;
	blobmsg_add_string_buffer(&m.b);
	blobmsg_add_u32(&m.b, "n", 9);

	blob_attr *first = static_cast<blob_attr *>(blob_data(m.b.head));
	EXPECT_EQ(301u, blobmsg_data_len(first));
	EXPECT_TRUE(blobmsg_check_attr(first, true));

	Buf copy;
	blob_attr *cur;
	size_t rem;
	blobmsg_for_each_attr(cur, m.b.head, rem)
		blobmsg_add_blob(&copy.b, cur);
	EXPECT_TRUE(blob_attr_equal(m.b.head, copy.b.head));
	blob_attr *dup = blob_memdup(copy.b.head);
	ASSERT_NE(nullptr, dup);
	EXPECT_TRUE(blob_attr_equal(dup, m.b.head));
	free(dup);
}

TEST(BlobmsgParse, MatchesByNameAndType)
{
	blob_attr *tb[P_COUNT_OF_POLICY];
	{
		SCOPED_TRACE("all present, first occurrence wins");
		Buf m;
		blobmsg_add_string(&m.b, "name", "first");
		blobmsg_add_u32(&m.b, "count", 3);
		blobmsg_add_u8(&m.b, "flag", 1);
		blobmsg_add_string(&m.b, "any", "x");
		blobmsg_add_string(&m.b, "name", "second");
		ASSERT_EQ(0, parse(m, tb));
		EXPECT_STREQ("first", blobmsg_get_string(tb[P_NAME]));
		EXPECT_EQ(3u, blobmsg_get_u32(tb[P_COUNT]));
		EXPECT_TRUE(blobmsg_get_bool(tb[P_FLAG]));
		EXPECT_NE(nullptr, tb[P_ANY]);
	}
	{
		SCOPED_TRACE("missing and wrongly typed attributes stay NULL");
		Buf m;
		blobmsg_add_u32(&m.b, "name", 1);        // wrong type
		blobmsg_add_string(&m.b, "count", "3");  // wrong type
		blobmsg_add_u32(&m.b, "Flag", 1);        // names are case-sensitive
		blobmsg_add_u64(&m.b, "any", 5);         // UNSPEC takes any type
		ASSERT_EQ(0, parse(m, tb));
		EXPECT_EQ(nullptr, tb[P_NAME]);
		EXPECT_EQ(nullptr, tb[P_COUNT]);
		EXPECT_EQ(nullptr, tb[P_FLAG]);
		ASSERT_NE(nullptr, tb[P_ANY]);
		EXPECT_EQ(5u, blobmsg_get_u64(tb[P_ANY]));
	}
	{
		SCOPED_TRACE("empty input clears tb and says so");
		Buf m;
		tb[P_NAME] = reinterpret_cast<blob_attr *>(&m);
		EXPECT_EQ(-EINVAL, parse(m, tb));
		for (blob_attr *a : tb)
			EXPECT_EQ(nullptr, a);
		EXPECT_EQ(-EINVAL, blobmsg_parse(kPolicy, P_COUNT_OF_POLICY, tb, nullptr, 0));
	}
	{
		SCOPED_TRACE("unnamed attributes and unnamed policy entries are ignored");
		Buf m;
		blob_put_u32(&m.b, BLOBMSG_TYPE_INT32, 4);  // a raw, non-extended attribute
		blobmsg_add_u32(&m.b, "count", 8);
		const blobmsg_policy p[] = {{nullptr, BLOBMSG_TYPE_INT32}, {"count", BLOBMSG_CAST_INT64}};
		blob_attr *t[2];
		ASSERT_EQ(0, blobmsg_parse(p, 2, t, blob_data(m.b.head), blob_len(m.b.head)));
		EXPECT_EQ(nullptr, t[0]);
		ASSERT_NE(nullptr, t[1]);
		EXPECT_EQ(8, blobmsg_cast_s64(t[1]));
	}
	{
		SCOPED_TRACE("positional parsing of an array");
		Buf m;
		void *c = blobmsg_open_array(&m.b, "a");
		blobmsg_add_string(&m.b, nullptr, "s");
		blobmsg_add_string(&m.b, nullptr, "not an int");
		blobmsg_add_u32(&m.b, nullptr, 3);
		blobmsg_close_array(&m.b, c);
		blob_attr *arr = static_cast<blob_attr *>(blob_data(m.b.head));
		const blobmsg_policy p[] = {{"", BLOBMSG_TYPE_STRING},
					    {"", BLOBMSG_TYPE_INT32},
					    {"", BLOBMSG_TYPE_UNSPEC},
					    {"", BLOBMSG_TYPE_UNSPEC}};
		blob_attr *t[4];
		ASSERT_EQ(0, blobmsg_parse_array_attr(p, 4, t, arr));
		EXPECT_STREQ("s", blobmsg_get_string(t[0]));
		EXPECT_EQ(nullptr, t[1]);
		EXPECT_EQ(3u, blobmsg_get_u32(t[2]));
		EXPECT_EQ(nullptr, t[3]);
	}
}

TEST(BlobmsgValidation, RejectsTruncatedAndLyingLengths)
{
	Buf m;
	blobmsg_add_string(&m.b, "name", "value");
	void *c = blobmsg_open_table(&m.b, "t");
	blobmsg_add_u32(&m.b, "count", 1);
	blobmsg_close_table(&m.b, c);
	blobmsg_add_u32(&m.b, "count", 2);
	const size_t full = blob_len(m.b.head);

	{
		SCOPED_TRACE("every truncation: never read past, never a partial match");
		std::vector<size_t> ends;  // cuts between attributes leave a valid run
		blob_attr *cur;
		size_t rem;
		blob_for_each_attr(cur, m.b.head, rem)
			ends.push_back(full - rem + blob_pad_len(cur));
		for (size_t len = 1; len < full; len++) {
			bool boundary = std::find(ends.begin(), ends.end(), len) != ends.end();
			Exact e(blob_data(m.b.head), len);
			blob_attr *tb[P_COUNT_OF_POLICY];
			int r = blobmsg_parse(kPolicy, P_COUNT_OF_POLICY, tb, e.data(), e.size());
			EXPECT_EQ(boundary ? 0 : -1, r) << len;
			for (blob_attr *a : tb) {
				if (a) {
					EXPECT_LE(reinterpret_cast<uint8_t *>(a) + blob_pad_len(a),
						  e.v.data() + len);
				}
			}
			auto *first = static_cast<blob_attr *>(e.data());
			if (len >= sizeof(blob_attr) && len < blob_raw_len(first)) {
				EXPECT_FALSE(blobmsg_check_attr_len(first, true, len)) << len;
			}
		}
	}
	{
		SCOPED_TRACE("an inner length larger than its container");
		Exact e(m.b.head, blob_raw_len(m.b.head));
		auto *root = static_cast<blob_attr *>(e.data());
		auto *table = blob_next(static_cast<blob_attr *>(blob_data(root)));
		auto *inner = static_cast<blob_attr *>(blobmsg_data(table));
		blob_set_raw_len(inner, static_cast<unsigned int>(blob_raw_len(inner) + 8));
		EXPECT_FALSE(blobmsg_check_attr(table, true));
		EXPECT_FALSE(blobmsg_check_attr(root, false));
		EXPECT_EQ(-1, blobmsg_check_array(table, BLOBMSG_TYPE_UNSPEC));
		const blobmsg_policy p[] = {{"t", BLOBMSG_TYPE_TABLE}};
		blob_attr *tb[1];
		EXPECT_EQ(-1, blobmsg_parse(p, 1, tb, blob_data(root), blob_len(root)));
		EXPECT_EQ(nullptr, tb[0]);
		// A header claiming more than the bytes received.
		EXPECT_FALSE(blobmsg_check_attr_len(root, false, blob_raw_len(root) - 4));
	}
	{
		SCOPED_TRACE("payloads of the wrong size or without their NUL");
		Buf bad;
		uint8_t three[3] = {1, 2, 3};
		blobmsg_add_field(&bad.b, BLOBMSG_TYPE_INT32, "count", three, 3);
		blobmsg_add_field(&bad.b, BLOBMSG_TYPE_STRING, "name", "abc", 3);
		blobmsg_add_field(&bad.b, BLOBMSG_TYPE_INT8, "flag", three, 2);
		auto *a = static_cast<blob_attr *>(blob_data(bad.b.head));
		EXPECT_FALSE(blobmsg_check_attr(a, true));
		EXPECT_FALSE(blobmsg_check_attr(blob_next(a), true));
		EXPECT_FALSE(blobmsg_check_attr(blob_next(blob_next(a)), true));
		blob_attr *tb[P_COUNT_OF_POLICY];
		EXPECT_EQ(-1, parse(bad, tb));
		EXPECT_EQ(nullptr, tb[P_COUNT]);
	}
	{
		SCOPED_TRACE("a name without its NUL, and a name longer than the attribute");
		Exact e(m.b.head, blob_raw_len(m.b.head));
		auto *first = static_cast<blob_attr *>(blob_data(static_cast<blob_attr *>(e.data())));
		auto *hdr = static_cast<blobmsg_hdr *>(blob_data(first));
		hdr->name[4] = 'X';  // "name\0" -> "nameX"
		EXPECT_FALSE(blobmsg_check_attr(first, false));
		hdr->name[4] = 0;
		hdr->namelen = cpu_to_be16(200);
		EXPECT_FALSE(blobmsg_check_attr(first, false));
		blob_attr *tb[P_COUNT_OF_POLICY];
		EXPECT_EQ(-1, blobmsg_parse(kPolicy, P_COUNT_OF_POLICY, tb, first,
					    static_cast<unsigned int>(full)));
	}
}

TEST(BlobmsgValidation, SurvivesRandomCorruption)
{
	// Seeded: a failure names the round, which reproduces it.
	std::mt19937 rng(20240611);
	Buf m;
	blobmsg_add_string(&m.b, "name", "value");
	void *t = blobmsg_open_table(&m.b, "t");
	void *a = blobmsg_open_array(&m.b, "a");
	blobmsg_add_u64(&m.b, nullptr, 1);
	blobmsg_add_string(&m.b, nullptr, "x");
	blobmsg_close_array(&m.b, a);
	blobmsg_add_double(&m.b, "d", 1.0);
	blobmsg_close_table(&m.b, t);
	blobmsg_add_u32(&m.b, "count", 2);
	const size_t len = blob_raw_len(m.b.head);

	for (int round = 0; round < 3000; round++) {
		Exact e(m.b.head, len);
		int flips = 1 + static_cast<int>(rng() % 4);
		for (int i = 0; i < flips; i++)
			e.v[rng() % len] = static_cast<uint8_t>(rng());
		auto *root = static_cast<blob_attr *>(e.data());
		bool valid = blobmsg_check_attr_len(root, false, len);
		blob_attr *tb[P_COUNT_OF_POLICY];
		size_t body = len - sizeof(blob_attr);
		blobmsg_parse(kPolicy, P_COUNT_OF_POLICY, tb, blob_data(root), static_cast<unsigned int>(body));
		for (blob_attr *x : tb) {
			if (!x)
				continue;
			// Whatever parse hands out is whole and inside the buffer.
			ASSERT_LE(reinterpret_cast<uint8_t *>(x) + blob_raw_len(x), e.v.data() + len) << round;
			ASSERT_TRUE(blobmsg_check_attr_len(x, false, blob_raw_len(x))) << round;
		}
		if (valid) {
			// A message that passes the check can be walked everywhere.
			blob_attr *cur;
			size_t rem;
			blob_for_each_attr_len(cur, root, len, rem)
				blobmsg_check_array(cur, BLOBMSG_TYPE_UNSPEC);
		}
	}
}

TEST(BlobmsgValidation, BoundsNestingDepth)
{
	Buf m;
	std::vector<void *> cookies;
	for (int i = 0; i < 100; i++)
		cookies.push_back(blobmsg_open_table(&m.b, "n"));
	for (auto it = cookies.rbegin(); it != cookies.rend(); ++it)
		blobmsg_close_table(&m.b, *it);
	auto *outer = static_cast<blob_attr *>(blob_data(m.b.head));
	EXPECT_FALSE(blobmsg_check_attr(outer, true));  // deeper than any real message

	Buf ok;
	cookies.clear();
	for (int i = 0; i < 32; i++)
		cookies.push_back(blobmsg_open_array(&ok.b, "n"));
	for (auto it = cookies.rbegin(); it != cookies.rend(); ++it)
		blobmsg_close_array(&ok.b, *it);
	EXPECT_TRUE(blobmsg_check_attr(static_cast<blob_attr *>(blob_data(ok.b.head)), true));
}

bool even_only(const blob_attr_info *, blob_attr *attr)
{
	return blob_get_u32(attr) % 2 == 0;
}

TEST(Blob, RawAttributesNestAndParseWithInfo)
{
	enum { A_UNSPEC, A_NAME, A_NUM, A_NEST, A_BIN, A_MAX };
	const blob_attr_info info[A_MAX] = {
		{BLOB_ATTR_UNSPEC, 0, 0, nullptr},
		{BLOB_ATTR_STRING, 0, 0, nullptr},
		{BLOB_ATTR_INT32, 0, 0, even_only},
		{BLOB_ATTR_NESTED, 0, 0, nullptr},
		{BLOB_ATTR_BINARY, 2, 4, nullptr},
	};
	blob_buf b {};
	ASSERT_EQ(0, blob_buf_init(&b, 0));
	blob_put_string(&b, A_NAME, "first");
	blob_put_u32(&b, A_NUM, 3);  // rejected by validate
	void *c = blob_nest_start(&b, A_NEST);
	blob_put_u8(&b, A_NAME, 1);
	blob_put_u64(&b, A_NUM, 9);
	blob_nest_end(&b, c);
	blob_put_string(&b, A_NAME, "last");  // the last occurrence wins
	blob_put(&b, A_BIN, "xxxxx", 5);      // longer than maxlen
	blob_put_u16(&b, 9, 1);              // id beyond the table
	blob_attr *tb[A_MAX];
	EXPECT_EQ(2, blob_parse(b.head, tb, info, A_MAX));
	EXPECT_STREQ("last", blob_get_string(tb[A_NAME]));
	EXPECT_EQ(nullptr, tb[A_NUM]);
	ASSERT_NE(nullptr, tb[A_NEST]);
	EXPECT_EQ(nullptr, tb[A_BIN]);

	// The nested attribute holds its two children and nothing else.
	blob_attr *in[A_MAX];
	EXPECT_EQ(2, blob_parse(tb[A_NEST], in, nullptr, A_MAX));
	EXPECT_EQ(1, blob_get_u8(in[A_NAME]));
	EXPECT_EQ(9u, blob_get_u64(in[A_NUM]));

	// Already encoded attributes appended as they are.
	blob_buf r {};
	blob_buf_init(&r, 0);
	blob_put_raw(&r, blob_data(b.head), static_cast<unsigned int>(blob_len(b.head)));
	EXPECT_TRUE(blob_attr_equal(b.head, r.head));
	blob_buf_free(&r);

	// An attribute whose header claims more than arrived is not parsed.
	Exact e(b.head, blob_raw_len(b.head));
	EXPECT_EQ(0, blob_parse_untrusted(static_cast<blob_attr *>(e.data()), e.size() - 1, tb, info, A_MAX));
	EXPECT_EQ(nullptr, tb[A_NAME]);
	EXPECT_EQ(2, blob_parse_untrusted(static_cast<blob_attr *>(e.data()), e.size(), tb, info, A_MAX));
	blob_buf_free(&b);
	EXPECT_EQ(nullptr, b.buf);
}

} // namespace
