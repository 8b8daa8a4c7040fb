// report_store_test.cpp - cloudsim's record and fault orders, driven without HTTP.
#include "report_store.h"

#include <json-c/json.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using cloudsim::Answer;
using cloudsim::FaultOrder;
using cloudsim::Record;
using cloudsim::ReportStore;

namespace {

struct JsonPut {
    void operator()(json_object *o) const { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

std::vector<int64_t> seqs(const std::string &reports)
{
    JsonPtr arr(json_tokener_parse(reports.c_str()));
    std::vector<int64_t> out;
    if (!arr || !json_object_is_type(arr.get(), json_type_array))
        return {-1};
    for (size_t i = 0; i < json_object_array_length(arr.get()); i++) {
        json_object *seq;
        json_object_object_get_ex(json_object_array_get_idx(arr.get(), i), "seq", &seq);
        out.push_back(json_object_get_int64(seq));
    }
    return out;
}

FaultOrder order(const std::string &text)
{
    bool clear = false, has = false;
    FaultOrder f;
    std::string error;
    EXPECT_TRUE(cloudsim::parse_fault_order(text, clear, has, f, error)) << text << ": " << error;
    return f;
}

}  // namespace

TEST(ReportStore, FaultOrdersApplyToTheNextPostsOldestOrderFirst)
{
    ReportStore store(100, 1 << 20);
    std::string error;
    ASSERT_TRUE(store.add_fault(order(R"({"status":500,"count":2})"), error));
    ASSERT_TRUE(store.add_fault(order(R"({"hang_ms":1500})"), error));
    ASSERT_TRUE(store.add_fault(order(R"({"drop":true,"hang_ms":10,"count":1})"), error));
    EXPECT_EQ(store.faults_json(),
              R"({"pending":[{"status":500,"hang_ms":0,"drop":false,"count":2},)"
              R"({"status":200,"hang_ms":1500,"drop":false,"count":1},)"
              R"({"status":200,"hang_ms":10,"drop":true,"count":1}]})");

    struct Expect {
        int status;
        int hang_ms;
        bool drop;
        int recorded_status;
        const char *fault;
    };
    const Expect expected[] = {
        {500, 0, false, 500, "status"}, {500, 0, false, 500, "status"},
        {200, 1500, false, 200, "hang"}, {200, 10, true, 0, "drop"},
        {200, 0, false, 200, ""},  // orders used up: a plain success
    };
    uint64_t seq = 1;
    for (const Expect &e : expected) {
        SCOPED_TRACE("POST #" + std::to_string(seq));
        Record r;
        Answer a = store.receive("/p", "application/json", "{}", 1000, &r);
        EXPECT_EQ(a.seq, seq);
        EXPECT_EQ(r.seq, seq++);
        EXPECT_EQ(a.status, e.status);
        EXPECT_EQ(a.hang_ms, e.hang_ms);
        EXPECT_EQ(a.drop, e.drop);
        EXPECT_EQ(r.status, e.recorded_status);
        EXPECT_EQ(r.fault, e.fault);
    }
    EXPECT_EQ(store.faults_json(), R"({"pending":[]})");

    SCOPED_TRACE("clear empties the queue; clear with an order replaces it");
    store.add_fault(order(R"({"status":503,"count":9})"), error);
    bool clear = false, has = false;
    FaultOrder f;
    ASSERT_TRUE(cloudsim::parse_fault_order(R"({"clear":true,"status":404})", clear, has, f,
                                            error));
    EXPECT_TRUE(clear);
    EXPECT_TRUE(has);
    store.clear_faults();
    store.add_fault(f, error);
    EXPECT_EQ(store.receive("/p", "", "", 0).status, 404);
    EXPECT_EQ(store.receive("/p", "", "", 0).status, 200);
}

TEST(ReportStore, BadFaultOrdersAreRefusedWithAReason)
{
    const std::pair<const char *, const char *> bad[] = {
        {"", "one JSON object"},
        {"[1]", "one JSON object"},
        {R"({"status":500} x)", "one JSON object"},
        {R"({"count":3})", "needs"},
        {R"({"status":99})", "\"status\" must be between 100 and 599"},
        {R"({"status":"500"})", "\"status\" must be an integer"},
        {R"({"status":500,"count":0})", "\"count\" must be between"},
        {R"({"hang_ms":-1})", "\"hang_ms\" must be between"},
        {R"({"hang_ms":600001})", "\"hang_ms\" must be between"},
        {R"({"drop":1})", "\"drop\" must be true or false"},
        {R"({"status":500,"when":"now"})", "unknown member \"when\""},
    };
    for (const auto &b : bad) {
        SCOPED_TRACE(b.first);
        bool clear = true, has = true;
        FaultOrder f;
        f.status = 123;
        std::string error;
        EXPECT_FALSE(cloudsim::parse_fault_order(b.first, clear, has, f, error));
        EXPECT_NE(error.find(b.second), std::string::npos) << error;
        EXPECT_EQ(f.status, 123);  // nothing filled in
    }

    SCOPED_TRACE("the queue has a bound");
    ReportStore store(10, 1000);
    std::string error;
    for (size_t i = 0; i < ReportStore::kMaxPendingOrders; i++)
        ASSERT_TRUE(store.add_fault(FaultOrder{}, error));
    EXPECT_FALSE(store.add_fault(FaultOrder{}, error));
    EXPECT_NE(error.find("too many"), std::string::npos);
}

TEST(ReportStore, KeepsTheNewestWithinItsBoundsAndCountsEverything)
{
    ReportStore store(3, 10);  // three records, ten body bytes
    for (int i = 1; i <= 5; i++)
        store.receive(i % 2 ? "/a" : "/b", "", "xy", i);
    EXPECT_EQ(seqs(store.reports_json("", 0, 100)), (std::vector<int64_t>{3, 4, 5}));
    EXPECT_EQ(store.stats_json(),
              R"({"total":5,"bytes":10,"kept":3,"last_seq":5,)"
              R"("paths":{"/a":{"count":3,"bytes":6},"/b":{"count":2,"bytes":4}},)"
              R"("pending_faults":0})");

    SCOPED_TRACE("the byte bound evicts too, but the newest record always stays");
    store.receive("/a", "", "123456789", 6);
    EXPECT_EQ(seqs(store.reports_json("", 0, 100)), (std::vector<int64_t>{6}));
    store.receive("/a", "", std::string(50, 'z'), 7);
    EXPECT_EQ(seqs(store.reports_json("", 0, 100)), (std::vector<int64_t>{7}));

    SCOPED_TRACE("clear forgets records and counts; sequence numbers go on");
    store.clear();
    EXPECT_EQ(store.reports_json("", 0, 100), "[]");
    EXPECT_EQ(store.receive("/a", "", "", 8).seq, 8u);
    EXPECT_EQ(store.stats_json(),
              R"({"total":1,"bytes":0,"kept":1,"last_seq":8,)"
              R"("paths":{"/a":{"count":1,"bytes":0}},"pending_faults":0})");
}

TEST(ReportStore, ListsBySinceAndPathKeepingTheNewestWithinALimit)
{
    ReportStore store(100, 1 << 20);
    for (int i = 1; i <= 6; i++)
        store.receive(i <= 3 ? "/a" : "/b", "", "{}", i);
    EXPECT_EQ(seqs(store.reports_json("", 4, 100)), (std::vector<int64_t>{5, 6}));
    EXPECT_EQ(seqs(store.reports_json("/a", 0, 100)), (std::vector<int64_t>{1, 2, 3}));
    EXPECT_EQ(seqs(store.reports_json("/a", 2, 100)), (std::vector<int64_t>{3}));
    EXPECT_EQ(seqs(store.reports_json("", 0, 2)), (std::vector<int64_t>{5, 6}));
    EXPECT_EQ(seqs(store.reports_json("/a", 0, 2)), (std::vector<int64_t>{2, 3}));
    EXPECT_EQ(seqs(store.reports_json("/c", 0, 100)), (std::vector<int64_t>{}));
    EXPECT_EQ(seqs(store.reports_json("", 6, 100)), (std::vector<int64_t>{}));
}

TEST(ReportStore, ShowsBodiesAsTextAndDecodesTheirLeadingJson)
{
    ReportStore store(100, 1 << 20);
    // The event envelope closes one brace more than it opens.
    const std::string envelope =
        R"({"projectId":"s","devEventList":[{"devMac":"m","eventList":[)"
        R"({"typeId":"7","time":"1","params":{"a":"b\/c"}}]}]}})";
    Record r;
    store.receive("/nexo/devmsg/v1/reportDevEventMsg", "application/json", envelope, 42, &r);
    EXPECT_FALSE(r.json_ok);
    store.receive("/x", "text/plain", "not json", 43);
    store.receive("/y", "application/json", " {\"k\":[1,2]}\n", 44);
    store.receive("/z", "", std::string("a\0b\"\n", 5), 45);

    JsonPtr arr(json_tokener_parse(store.reports_json("", 0, 100).c_str()));
    ASSERT_TRUE(arr);
    ASSERT_EQ(json_object_array_length(arr.get()), 4u);
    auto member = [&](size_t i, const char *key) -> json_object * {
        json_object *v = nullptr;
        json_object_object_get_ex(json_object_array_get_idx(arr.get(), i), key, &v);
        return v;
    };
    auto text = [](json_object *v) {
        return std::string(json_object_get_string(v), json_object_get_string_len(v));
    };

    SCOPED_TRACE("the envelope: body byte for byte, decoded value, the extra brace");
    EXPECT_EQ(text(member(0, "body")), envelope);
    EXPECT_EQ(text(member(0, "path")), "/nexo/devmsg/v1/reportDevEventMsg");
    EXPECT_EQ(json_object_get_int64(member(0, "time_ms")), 42);
    EXPECT_EQ(json_object_get_int(member(0, "bytes")), static_cast<int>(envelope.size()));
    EXPECT_FALSE(json_object_get_boolean(member(0, "json_ok")));
    EXPECT_EQ(text(member(0, "trailing")), "}");
    json_object *list = json_object_array_get_idx(
        json_object_object_get(
            json_object_array_get_idx(json_object_object_get(member(0, "json"), "devEventList"),
                                      0),
            "eventList"),
        0);
    ASSERT_TRUE(list);
    EXPECT_STREQ(json_object_get_string(json_object_object_get(list, "typeId")), "7");

    SCOPED_TRACE("plain text: no json member; whole JSON with blanks around: json_ok");
    EXPECT_EQ(member(1, "json"), nullptr);
    EXPECT_FALSE(json_object_get_boolean(member(1, "json_ok")));
    EXPECT_TRUE(json_object_get_boolean(member(2, "json_ok")));
    EXPECT_EQ(member(2, "trailing"), nullptr);

    SCOPED_TRACE("any bytes survive the trip, NUL and quotes included");
    EXPECT_EQ(text(member(3, "body")), std::string("a\0b\"\n", 5));
    EXPECT_EQ(ReportStore::record_line(r),
              R"({"seq":1,"time_ms":42,"path":"/nexo/devmsg/v1/reportDevEventMsg","status":200,)"
              R"("body":")" +
                  std::string(R"({\"projectId\":\"s\",\"devEventList\":[{\"devMac\":\"m\",)"
                              R"(\"eventList\":[{\"typeId\":\"7\",\"time\":\"1\",)"
                              R"(\"params\":{\"a\":\"b\\/c\"}}]}]}})") +
                  "\"}\n");
}
