// blobmsg_json_test.cpp - JSON to blobmsg and back: the type mapping, the
// compact and indented texts, and random trees that must survive the trip.
extern "C" {
#include <libubox/blobmsg_json.h>
}

#include <gtest/gtest.h>

#include <json-c/json.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>

namespace {

struct Buf {
	blob_buf b {};
	Buf() { blobmsg_buf_init(&b); }
	~Buf() { blob_buf_free(&b); }
	Buf(const Buf &) = delete;
	Buf &operator=(const Buf &) = delete;
};

struct FreeDeleter {
	void operator()(char *p) const noexcept { free(p); }
};

std::string take(char *s)
{
	std::unique_ptr<char, FreeDeleter> hold(s);
	return s ? std::string(s) : std::string("<null>");
}

std::string json_of(Buf &m, int indent = -1)
{
	return take(blobmsg_format_json_indent(m.b.head, true, indent));
}

blob_attr *first(Buf &m)
{
	return static_cast<blob_attr *>(blob_data(m.b.head));
}

TEST(BlobmsgJson, MapsJsonTypesToBlobmsgTypes)
{
	Buf m;
	ASSERT_TRUE(blobmsg_add_json_from_string(&m.b,
		R"({"i":2147483647,"j":2147483648,"k":-2147483648,"l":-2147483649,)"
		R"("d":1.5,"t":true,"f":false,"n":null,"s":"x","a":[1,"y"],"o":{"p":0}})"));
	const struct {
		const char *name;
		int type;
	} want[] = {
		{"i", BLOBMSG_TYPE_INT32}, {"j", BLOBMSG_TYPE_INT64}, {"k", BLOBMSG_TYPE_INT32},
		{"l", BLOBMSG_TYPE_INT64}, {"d", BLOBMSG_TYPE_DOUBLE}, {"t", BLOBMSG_TYPE_BOOL},
		{"f", BLOBMSG_TYPE_BOOL}, {"n", BLOBMSG_TYPE_UNSPEC}, {"s", BLOBMSG_TYPE_STRING},
		{"a", BLOBMSG_TYPE_ARRAY}, {"o", BLOBMSG_TYPE_TABLE},
	};
	size_t i = 0;
	blob_attr *cur;
	size_t rem;
	blobmsg_for_each_attr(cur, m.b.head, rem) {
		ASSERT_LT(i, ARRAY_SIZE(want));
		EXPECT_STREQ(want[i].name, blobmsg_name(cur));  // object order is kept
		EXPECT_EQ(want[i].type, blobmsg_type(cur)) << want[i].name;
		i++;
	}
	EXPECT_EQ(ARRAY_SIZE(want), i);
	EXPECT_EQ(R"({"i":2147483647,"j":2147483648,"k":-2147483648,"l":-2147483649,)"
		  R"("d":1.500000,"t":true,"f":false,"n":null,"s":"x","a":[1,"y"],"o":{"p":0}})",
		  json_of(m));

	SCOPED_TRACE("only a JSON object is a message");
	for (const char *bad : {"[1,2]", "\"s\"", "3", "{\"a\":", "", "nul"}) {
		Buf b;
		EXPECT_FALSE(blobmsg_add_json_from_string(&b.b, bad)) << bad;
		EXPECT_EQ(4u, blob_raw_len(b.b.head)) << bad;
	}
	EXPECT_FALSE(blobmsg_add_json_from_file(&m.b, "/nonexistent/ubox-test.json"));
}

TEST(BlobmsgJson, FormatsCompactAndIndented)
{
	Buf m;
	blobmsg_add_u8(&m.b, "up", 1);
	void *l = blobmsg_open_array(&m.b, "l");
	blobmsg_add_u32(&m.b, nullptr, 1);
	blobmsg_close_array(&m.b, l);
	EXPECT_EQ("{\"up\":true,\"l\":[1]}", json_of(m));
	EXPECT_EQ("{\n\t\"up\": true,\n\t\"l\": [\n\t\t1\n\t]\n}", json_of(m, 0));
	EXPECT_EQ("{\n\t\t\"up\": true,\n\t\t\"l\": [\n\t\t\t1\n\t\t]\n\t}", json_of(m, 1));

	Buf empty;
	EXPECT_EQ("{}", json_of(empty));
	EXPECT_EQ("{\n\t\n}", json_of(empty, 0));

	Buf v;
	blobmsg_add_u32(&v.b, "neg", 0xffffffffu);
	blobmsg_add_u16(&v.b, "s16", 0x8000);
	blobmsg_add_u64(&v.b, "big", 0xffffffffffffffffULL);
	blobmsg_add_double(&v.b, "d", 1.5);
	blobmsg_add_string(&v.b, "esc", "q\"b\\\b\n\t\r\x01\x1f/\xc3\xa9");
	EXPECT_EQ(R"({"neg":-1,"s16":-32768,"big":-1,"d":1.500000,)"
		  R"("esc":"q\"b\\\b\n\t\r\u0001\u001f/)" "\xc3\xa9\"}",
		  json_of(v));

	SCOPED_TRACE("single elements, values and arrays at the root");
	blob_attr *neg = first(v);
	EXPECT_EQ("\"neg\":-1", take(blobmsg_format_json(neg, false)));
	EXPECT_EQ("\"neg\": -1", take(blobmsg_format_json_indent(neg, false, 0)));
	EXPECT_EQ("-1", take(blobmsg_format_json_value(neg)));
	blob_attr *arr = blob_next(first(m));
	EXPECT_EQ("[1]", take(blobmsg_format_json(arr, true)));
	EXPECT_EQ("\"l\":[1]", take(blobmsg_format_json(arr, false)));
	EXPECT_EQ("[1]", take(blobmsg_format_json_value(arr)));
	EXPECT_EQ(nullptr, blobmsg_format_json(nullptr, true));
}

const char *type_name(void *priv, blob_attr *attr)
{
	++*static_cast<int *>(priv);
	return blobmsg_type(attr) == BLOBMSG_TYPE_INT32 ? "\"Integer\"" : nullptr;
}

TEST(BlobmsgJson, CallbackReplacesElementsAndBadOnesAreSkipped)
{
	Buf m;
	void *t = blobmsg_open_table(&m.b, "method");
	blobmsg_add_u32(&m.b, "id", 5);
	blobmsg_add_string(&m.b, "name", "s");
	blobmsg_close_table(&m.b, t);
	int calls = 0;
	EXPECT_EQ("{\"method\":{\"id\":\"Integer\",\"name\":\"s\"}}",
		  take(blobmsg_format_json_with_cb(m.b.head, true, type_name, &calls, -1)));
	EXPECT_EQ(3, calls);  // every element below the root

	// An INT32 whose payload lost a byte is left out, its neighbours stay.
	Buf bad;
	blobmsg_add_u32(&bad.b, "a", 1);
	uint8_t three[3] = {0, 0, 2};
	blobmsg_add_field(&bad.b, BLOBMSG_TYPE_INT32, "b", three, 3);
	blobmsg_add_u32(&bad.b, "c", 3);
	EXPECT_EQ("{\"a\":1,\"c\":3}", json_of(bad));
}

// Seeded random trees: blobmsg -> JSON -> blobmsg must give the same bytes.
// Only what JSON can carry back unchanged is generated: INT32, INT64 outside
// the 32-bit range, booleans as 0/1, doubles with few binary digits (they
// print exactly with six decimals), strings with escapes and UTF-8, null.
class TreeGen {
public:
	explicit TreeGen(unsigned seed) : rng_(seed) {}

	void table(blob_buf *b, int depth)
	{
		int n = pick(6);
		for (int i = 0; i < n; i++)
			element(b, ("k" + std::to_string(i) + text(3)).c_str(), depth);
	}

private:
	int pick(int n) { return static_cast<int>(rng_() % static_cast<unsigned>(n)); }

	std::string text(int max)
	{
		static const char *pieces[] = {"a", "Z", "9", " ", "\"", "\\", "/", "\n", "\t", "\x01",
					       "\x1f", "\xc3\xa9", "\xe2\x82\xac", "{", ":"};
		std::string s;
		int n = pick(max + 1);
		for (int i = 0; i < n; i++)
			s += pieces[pick(ARRAY_SIZE(pieces))];
		return s;
	}

	void element(blob_buf *b, const char *name, int depth)
	{
		switch (pick(depth < 5 ? 9 : 7)) {
		case 0: blobmsg_add_u32(b, name, static_cast<uint32_t>(rng_())); break;
		case 1: {
			uint64_t v = (static_cast<uint64_t>(rng_()) << 32) | rng_();
			if (static_cast<int64_t>(v) >= INT32_MIN && static_cast<int64_t>(v) <= INT32_MAX)
				v |= 1ULL << 40;
			blobmsg_add_u64(b, name, v);
			break;
		}
		case 2: blobmsg_add_u8(b, name, static_cast<uint8_t>(pick(2))); break;
		case 3: blobmsg_add_double(b, name, (pick(200000) - 100000) / 16.0 + 1.0 / 64); break;
		case 4: blobmsg_add_string(b, name, text(12).c_str()); break;
		case 5: blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0); break;
		case 6: blobmsg_add_string(b, name, ""); break;
		case 7: {
			void *c = blobmsg_open_table(b, name);
			table(b, depth + 1);
			blobmsg_close_table(b, c);
			break;
		}
		default: {
			void *c = blobmsg_open_array(b, name);
			int n = pick(5);
			for (int i = 0; i < n; i++)
				element(b, nullptr, depth + 1);
			blobmsg_close_array(b, c);
		}
		}
	}

	std::mt19937 rng_;
};

TEST(BlobmsgJson, RandomTreesSurviveTheRoundTrip)
{
	for (unsigned seed = 1; seed <= 300; seed++) {
		SCOPED_TRACE("seed " + std::to_string(seed));
		Buf orig;
		TreeGen(seed).table(&orig.b, 0);
		ASSERT_TRUE(blobmsg_check_attr(orig.b.head, false));
		for (int indent : {-1, 0}) {
			std::string text = json_of(orig, indent);
			// What we print is JSON that json-c itself accepts.
			json_object *parsed = json_tokener_parse(text.c_str());
			ASSERT_NE(nullptr, parsed) << text;
			json_object_put(parsed);

			Buf back;
			ASSERT_TRUE(blobmsg_add_json_from_string(&back.b, text.c_str())) << text;
			ASSERT_TRUE(blob_attr_equal(orig.b.head, back.b.head)) << text << "\n" << json_of(back);
		}
	}
}

} // namespace
