// Tests of the envelope's space accounting and the JSON utilities (no device identity needed).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "nms_log.h"

#include "cloud_report.h"

namespace {

// A zeroed report-sized buffer holding start.
std::vector<char> report_buffer(const std::string &start) {
    std::vector<char> buf(261120, '\0');
    std::memcpy(buf.data(), start.data(), start.size());
    return buf;
}

TEST(CloudFormat, EventsAreAppendedWhileTheirSpaceLasts) {
    auto buf = report_buffer("H,\"eventList\":[");
    int32_t remaining = 1000;
    int32_t added = -1;
    ASSERT_EQ(format_event_report_event(buf.data(), 7, 1234567890123ULL, "{\"a\":1}", 1,
                                        &remaining, &added),
              0);
    const std::string one = "{\"typeId\":\"7\",\"time\":\"1234567890123\",\"params\":{\"a\":1}}";
    EXPECT_EQ(added, 1);
    EXPECT_EQ(std::string(buf.data()), "H,\"eventList\":[" + one);
    EXPECT_EQ(remaining, 1000 - static_cast<int32_t>(one.size()));

    ASSERT_EQ(format_event_report_event(buf.data(), -3, 0, "[]", 0, &remaining, &added), 0);
    const std::string two = ",{\"typeId\":\"-3\",\"time\":\"0\",\"params\":[]}";
    EXPECT_EQ(std::string(buf.data()), "H,\"eventList\":[" + one + two);
    EXPECT_EQ(remaining, 1000 - static_cast<int32_t>(one.size() + two.size()));

    int32_t before = remaining;
    ASSERT_EQ(format_event_report_tail(buf.data(), &remaining), 0);
    EXPECT_EQ(std::string(buf.data()), "H,\"eventList\":[" + one + two + "]}]}}");
    EXPECT_EQ(remaining, before + 251);
}

// The end of the text is remembered between events; a text started again in the same buffer,
// shorter or longer than the last one, is measured instead.
TEST(CloudFormat, ABufferUsedAgainIsMeasuredAgain) {
    auto buf = report_buffer("H[");
    int32_t remaining = 100000, added = -1;
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(format_event_report_event(buf.data(), 1, 1, "{}", i == 0, &remaining, &added), 0);
    const std::string ev = "{\"typeId\":\"1\",\"time\":\"1\",\"params\":{}}";
    EXPECT_EQ(std::string(buf.data()), "H[" + ev + "," + ev + "," + ev);
    const std::string longer = "a head longer than the three events[" + ev + ev + ev;
    for (const std::string &start : {std::string("G["), longer}) {
        std::fill(buf.begin(), buf.end(), '\0');
        std::memcpy(buf.data(), start.data(), start.size());
        ASSERT_EQ(format_event_report_event(buf.data(), 1, 1, "{}", 0, &remaining, &added), 0);
        EXPECT_EQ(std::string(buf.data()), start + "," + ev);
    }
}

TEST(CloudFormat, AnEventThatDoesNotFitEndsOrAbandonsTheBatch) {
    auto buf = report_buffer("H[");
    const std::string p72(72, '1');  // 72 + 129 = 201 > 200
    int32_t remaining = 200, added = -1;
    EXPECT_EQ(format_event_report_event(buf.data(), 1, 1, p72.c_str(), 0, &remaining, &added), 0);
    EXPECT_EQ(added, 0);
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(std::string(buf.data()), "H[");
    remaining = 200;
    EXPECT_EQ(format_event_report_event(buf.data(), 1, 1, p72.c_str(), 1, &remaining, &added), -1);

    SCOPED_TRACE("\"{}\" needs 131 bytes");
    remaining = 130;
    EXPECT_EQ(format_event_report_event(buf.data(), 1, 1, "{}", 0, &remaining, &added), 0);
    EXPECT_EQ(added, 0);
    remaining = 131;
    EXPECT_EQ(format_event_report_event(buf.data(), 1, 1, "{}", 0, &remaining, &added), 0);
    EXPECT_EQ(added, 1);

    SCOPED_TRACE("null arguments and a tail without room");
    EXPECT_EQ(format_event_report_event(nullptr, 1, 1, "{}", 0, &remaining, &added), -1);
    EXPECT_EQ(format_event_report_event(buf.data(), 1, 1, nullptr, 0, &remaining, &added), -1);
    EXPECT_EQ(format_event_report_event(buf.data(), 1, 1, "{}", 0, nullptr, &added), -1);
    EXPECT_EQ(format_event_report_event(buf.data(), 1, 1, "{}", 0, &remaining, nullptr), -1);
    remaining = -252;
    EXPECT_EQ(format_event_report_tail(buf.data(), &remaining), -1);
    remaining = -251;
    EXPECT_EQ(format_event_report_tail(buf.data(), &remaining), 0);
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(format_event_report_tail(nullptr, &remaining), -1);
    EXPECT_EQ(cloud_report_formate_head(nullptr, &remaining), -1);
    int32_t result = 0;
    EXPECT_EQ(cloud_report_send_info(nullptr, 3, &result), -1);
}

TEST(JsonUtil, ParsesAnyCompleteValueAndRefusesTheRest) {
    struct Case {
        const char *text;
        bool parses;
    } cases[] = {
        {"{}", true},          {"{\"a\":1}", true},  {"123", true},     {"\"s\"", true},
        {"{\"a\":1}junk", true}, {"null", false},    {"abc", false},    {"{\"a\":", false},
        {"", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        json_object *o = jsonParseStr(c.text);
        EXPECT_EQ(o != nullptr, c.parses);
        json_object_put(o);
    }
    EXPECT_EQ(jsonParseStr(nullptr), nullptr);
}

TEST(CloudFormat, AFullBatchKeepsTextAndCountInStep) {
    // Events are appended until the space ends the batch; the count must follow the text's
    // real length all the way, and the text must hold every event in order.
    const std::string start = "H,\"eventList\":[";
    auto buf = report_buffer(start);
    int32_t remaining = 260850 - static_cast<int32_t>(start.size());
    std::string expect = start;
    const std::string params = "{\"p\":\"" + std::string(300, 'x') + "\"}";
    int32_t added = 1;
    for (int i = 0; added == 1; i++) {
        ASSERT_EQ(format_event_report_event(buf.data(), i, 1000 + i, params.c_str(), i == 0,
                                            &remaining, &added),
                  0);
        if (added) {
            expect += (i ? "," : "") + std::string("{\"typeId\":\"") + std::to_string(i) +
                      "\",\"time\":\"" + std::to_string(1000 + i) + "\",\"params\":" + params +
                      "}";
            ASSERT_EQ(remaining + std::strlen(buf.data()), 260850u) << i;
        }
    }
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(std::string(buf.data()), expect);
}

TEST(JsonUtil, EachTextIsParsedOnItsOwn) {
    SCOPED_TRACE("what a broken or incomplete text left behind does not reach the next one");
    const char *seq[][2] = {{"{\"a\":[1,{\"b\":", "{\"c\":2}"},
                            {"[1,2", "3"},
                            {"{\"a\":tru", "\"s\""},
                            {"{]", "{}"}};
    for (auto &pair : seq) {
        SCOPED_TRACE(pair[0]);
        EXPECT_EQ(jsonParseStr(pair[0]), nullptr);
        json_object *o = jsonParseStr(pair[1]);
        ASSERT_NE(o, nullptr);
        EXPECT_STREQ(json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN), pair[1]);
        json_object_put(o);
    }

    SCOPED_TRACE("every failure says so");
    log_error_on.store(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(jsonParseStr("{\"a\":"), nullptr);
    EXPECT_EQ(jsonParseStr("{\"a\":"), nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    log_error_on.store(0);
    size_t first = out.find(".Parse buf failed,{\"a\":.\n\n");
    ASSERT_NE(first, std::string::npos) << out;
    EXPECT_NE(out.find(".Parse buf failed,{\"a\":.\n\n", first + 1), std::string::npos) << out;

    SCOPED_TRACE("several threads at once");
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t, &wrong] {
            for (int i = 0; i < 200; i++) {
                std::string text = "{\"t\":" + std::to_string(t) + ",\"i\":" + std::to_string(i);
                if (jsonParseStr(text.c_str()) != nullptr)
                    wrong[t]++;
                json_object *o = jsonParseStr((text + "}").c_str());
                if (!o || std::string(getValueFromJsonObj(o, "i")) != std::to_string(i))
                    wrong[t]++;
                json_object_put(o);
            }
        });
    }
    for (std::thread &th : threads)
        th.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

TEST(JsonUtil, MemberValuesAsText) {
    json_object *o = jsonParseStr("{\"s\":\"x-y\",\"n\":null,\"i\":17,\"o\":{\"k\":[1,2]}}");
    ASSERT_NE(o, nullptr);
    EXPECT_STREQ(getValueFromJsonObj(o, "s"), "x-y");
    EXPECT_STREQ(getValueFromJsonObj(o, "n"), "null");
    EXPECT_STREQ(getValueFromJsonObj(o, "i"), "17");
    EXPECT_STREQ(getValueFromJsonObj(o, "o"), "{ \"k\": [ 1, 2 ] }");
    EXPECT_EQ(getValueFromJsonObj(o, "missing"), nullptr);
    EXPECT_EQ(getValueFromJsonObj(o, nullptr), nullptr);
    EXPECT_EQ(getValueFromJsonObj(nullptr, "s"), nullptr);
    json_object_put(o);
}

}  // namespace

TEST(StrictJson, TakesStandardJsonAndRefusesTheParsersExtensions) {
    const char *good[] = {"{}", "17", "-0.5e+3", "\"a\\u00e9\\n\"", " [1, {\"a\":[true,null]}] ",
                          "{\"k\":\"a/b\"}", "0", "[]"};
    for (const char *t : good)
        EXPECT_TRUE(json_text_is_strict(t, std::strlen(t))) << t;
    const char *bad[] = {"{\"a\":1 /*c*/}", "1//x", "{'a':1}", "[1,]", "NaN", "{a:1}", "01",
                         "1.", "\"tab\there\"", "\"\\x\"", "{}}", "", "[", "\"\\u12\""};
    for (const char *t : bad)
        EXPECT_FALSE(json_text_is_strict(t, std::strlen(t))) << t;
}

// Texts taken without the JSON library's parse must be texts the library takes too, ending
// where it ends: the agreement is what lets the daemon skip the parse.
TEST(StrictJson, PlainValuesNeedNoParseAndTheLibraryAgrees) {
    auto nested = [](int depth) {
        return std::string(depth, '[') + "1" + std::string(depth, ']');
    };
    struct Case {
        std::string text;
        size_t plain;  // expected length, 0: left to the library
    } cases[] = {
        {"{\"xx\":\"xx\"}", 11},
        {"  {\"a\":[1,2.25,-3,true,false,null,\"s\"]}\n", 39},
        {"\"just a string\"", 15},
        {"-123456789012345678", 19},     // 18 digits: an int64 holds it
        {"1234567890123456789", 0},      // 19 digits: the library's range decides
        {"1e5", 0},                      // exponents: the library's range decides
        {"null", 0},                     // null: refused on the library's path
        {" null ", 0},
        {"{}]}]}},{\"x\":1", 0},          // a value and more: the library's path cuts it
        {"1//x", 0},                     // extensions: rewritten on the library's path
        {nested(16), 33},
        {nested(17), 0},                 // deep nesting: the library's limit decides
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        size_t plain = json_plain_value_length(c.text.c_str(), c.text.size());
        EXPECT_EQ(plain, c.plain);
        if (plain == 0)
            continue;
        size_t end = 0;
        json_object *o = json_parse_value(c.text.c_str(), &end);
        ASSERT_NE(o, nullptr);
        EXPECT_EQ(end, plain);
        EXPECT_NE(json_object_get_type(o), json_type_null);
        json_object_put(o);
    }
}

// Strings are skipped 16 bytes or a word at a time: a character that ends or breaks the
// string is found at every position of a block, bytes above 0x7f pass, and the fast skip
// starts again after each escape.
TEST(StrictJson, LongStringsAreReadAtEveryPosition) {
    // 80 characters: the 32-byte, the 8-byte and the byte-wise parts of the scan each meet
    // the marked character somewhere.
    for (size_t at = 0; at < 79; at++) {
        SCOPED_TRACE(at);
        std::string body(80, 'a');
        body[at] = '\xc3';
        EXPECT_TRUE(json_text_is_strict(("\"" + body + "\"").c_str(), body.size() + 2));
        for (char bad : {'\t', '\x01', '\x1f'}) {
            body[at] = bad;
            EXPECT_FALSE(json_text_is_strict(("\"" + body + "\"").c_str(), body.size() + 2));
        }
        body[at] = '"';  // ends the string early: text follows the value
        EXPECT_FALSE(json_text_is_strict(("\"" + body + "\"").c_str(), body.size() + 2));
        EXPECT_EQ(json_plain_value_length(("\"" + body.substr(0, at) + "\"").c_str(), at + 2), at + 2);
        body[at] = '\\';
        body[at + 1] = 'n';
        EXPECT_TRUE(json_text_is_strict(("\"" + body + "\"").c_str(), body.size() + 2));
    }
    for (char edge : {'\x20', '\x7f', '\x80', '\xff'}) {
        std::string body(40, edge);
        EXPECT_TRUE(json_text_is_strict(("\"" + body + "\"").c_str(), body.size() + 2)) << int(edge);
    }
    // After an escape the rest is read as fast as the start: what follows is still checked.
    for (size_t at = 0; at < 40; at++) {
        SCOPED_TRACE(at);
        std::string body = "\\u00e9" + std::string(40, 'a') + "\\\"" + std::string(40, 'b');
        EXPECT_TRUE(json_text_is_strict(("\"" + body + "\"").c_str(), body.size() + 2));
        body[body.size() - 1 - at] = '\x1f';
        EXPECT_FALSE(json_text_is_strict(("\"" + body + "\"").c_str(), body.size() + 2));
        body[body.size() - 1 - at] = '"';
        EXPECT_FALSE(json_text_is_strict(("\"" + body + "\"").c_str(), body.size() + 2));
    }
}
