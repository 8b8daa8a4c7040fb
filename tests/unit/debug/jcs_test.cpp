// jcs_test.cpp - the JSON command socket's registration and request handling, one
// datagram text at a time through jcs_handle_request (the sockets themselves are
// exercised in the sandbox).
#include "jcs.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <regex>
#include <string>
#include <utility>

namespace {

struct Seen {
    int calls = 0;
    std::string data;   // compact text of the data the callback got
};
Seen g_first, g_second;

int record(Seen *s, json_object *data, json_object *reply)
{
    s->calls++;
    s->data = data ? json_object_to_json_string_ext(data, JSON_C_TO_STRING_PLAIN) : "null";
    json_object_object_add(reply, "ok", json_object_new_int(s->calls));
    return 0;
}
int first_cb(json_object *d, json_object *r) { return record(&g_first, d, r); }
int second_cb(json_object *d, json_object *r) { return record(&g_second, d, r); }

struct Outcome {
    int result;
    std::string path, reply, printed;
};

Outcome handle(const std::string &text)
{
    Outcome o;
    testing::internal::CaptureStdout();
    static char path[JCS_PATH_LEN], reply[JCS_MSG_MAX + 1];
    path[0] = reply[0] = '\0';
    o.result = jcs_handle_request(text.c_str(), path, reply);
    o.path = path;
    o.reply = reply;
    o.printed = testing::internal::GetCapturedStdout();
    return o;
}

// "[JCS_ERR]jcs_work_task()/<line> <text>\n"
bool printed(const Outcome &o, const std::string &text)
{
    std::string::size_type at = o.printed.find(text);
    if (at == std::string::npos)
        return false;
    std::string head = o.printed.substr(0, at);
    return std::regex_search(head, std::regex("\\[JCS_ERR\\]jcs_work_task\\(\\)/[0-9]+ $"));
}

class Jcs : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(jcs_init(), 0);
        ASSERT_EQ(jcs_callback_register("svc", JCS_OP_ADD, first_cb), 0);
    }
    void SetUp() override
    {
        g_first = Seen();
        g_second = Seen();
    }
};

}  // namespace

TEST_F(Jcs, RequestWithReplyAddressRunsTheCallbackAndReplies)
{
    Outcome o = handle(R"({"name":"svc","op":0,"clt_path":"/tmp/x.cclt","data":{"a":[1,2]}})");
    EXPECT_EQ(o.result, JCS_REQ_REPLY);
    EXPECT_EQ(o.path, "/tmp/x.cclt");
    EXPECT_EQ(o.reply, R"({"ok":1})");
    EXPECT_EQ(g_first.data, R"({"a":[1,2]})");
    EXPECT_EQ(o.printed, "");

    SCOPED_TRACE("without clt_path the callback runs but nothing is sent back");
    o = handle(R"({"name":"svc","op":0,"data":7})");
    EXPECT_EQ(o.result, JCS_REQ_DONE);
    EXPECT_EQ(g_first.calls, 2);
    EXPECT_EQ(g_first.data, "7");

    SCOPED_TRACE("a data member that is null is still present");
    o = handle(R"({"name":"svc","op":0,"clt_path":"p","data":null})");
    EXPECT_EQ(o.result, JCS_REQ_REPLY);
    EXPECT_EQ(g_first.data, "null");
}

TEST_F(Jcs, OperationsOutsideTheRangeAreRefusedWithoutReply)
{
    const struct {
        const char *op;
        const char *msg;
    } refused[] = {
        {"4", "Operation wrong, op=4.\n"},
        {"-1", "Operation wrong, op=-1.\n"},
        {"4294967296", "Operation wrong, op=2147483647.\n"},
        {"1e300", "Operation wrong, op=-1.\n"},
        {"\"0\"", "Warning: Get int with error obj or value type is unmatch.\n"},
        {"true", "Warning: Get int with error obj or value type is unmatch.\n"},
    };
    for (const auto &c : refused) {
        SCOPED_TRACE(c.op);
        Outcome o = handle(std::string(R"({"name":"svc","clt_path":"p","data":{},"op":)") + c.op + "}");
        EXPECT_EQ(o.result, JCS_REQ_DONE);
        EXPECT_TRUE(printed(o, c.msg)) << o.printed;
    }
    EXPECT_EQ(g_first.calls, 0);

    SCOPED_TRACE("a floating-point op is truncated: 2.9 is 2, an empty slot of a known service");
    Outcome o = handle(R"({"name":"svc","op":2.9,"clt_path":"p","data":{}})");
    EXPECT_EQ(o.result, JCS_REQ_REPLY);
    EXPECT_EQ(o.reply, "{}");
    EXPECT_TRUE(printed(o, "No callback operation [name=svc,t=2] registered.\n")) << o.printed;
    o = handle(R"({"name":"svc","op":0.5,"data":{}})");
    EXPECT_EQ(g_first.calls, 1);
}

TEST_F(Jcs, MalformedRequestsAreSkipped)
{
    Outcome o = handle("{\"name\":");
    EXPECT_EQ(o.result, JCS_REQ_INVALID);
    EXPECT_TRUE(printed(o, "Invalid json string: {\"name\":\n")) << o.printed;
    for (const char *text : {R"({"op":0,"clt_path":"p","data":{}})",
                             R"({"name":"svc","clt_path":"p","data":{}})",
                             R"({"name":"svc","op":0,"clt_path":"p"})", R"([1,2,3])", R"("svc")"}) {
        SCOPED_TRACE(text);
        o = handle(text);
        EXPECT_EQ(o.result, JCS_REQ_DONE);
        EXPECT_TRUE(printed(o, "Parse json string failed, no expected field.\n")) << o.printed;
    }
    EXPECT_EQ(g_first.calls, 0);

    SCOPED_TRACE("clt_path of another type: callback runs, reply goes to the empty path");
    o = handle(R"({"name":"svc","op":0,"clt_path":5,"data":{}})");
    EXPECT_EQ(o.result, JCS_REQ_REPLY);
    EXPECT_EQ(o.path, "");
    EXPECT_EQ(g_first.calls, 1);
    EXPECT_TRUE(printed(o, "Warning: Get string with error obj or value type is unmatch.\n"));

    SCOPED_TRACE("name of another type, or unknown: an empty reply");
    for (const auto &c : {std::make_pair(R"({"name":["svc"],"op":0,"clt_path":"p","data":{}})",
                                         "No callback operation [name=,t=0] registered.\n"),
                          std::make_pair(R"({"name":"nobody","op":3,"clt_path":"p","data":{}})",
                                         "No callback operation [name=nobody,t=3] registered.\n")}) {
        o = handle(c.first);
        EXPECT_EQ(o.result, JCS_REQ_REPLY);
        EXPECT_EQ(o.reply, "{}");
        EXPECT_TRUE(printed(o, c.second)) << o.printed;
    }
    EXPECT_EQ(g_first.calls, 1);
}

TEST_F(Jcs, RegistrationRules)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(jcs_callback_register(nullptr, 0, first_cb), -1);
    EXPECT_EQ(jcs_callback_register("x", 4, first_cb), -1);
    EXPECT_EQ(jcs_callback_register("x", 0, nullptr), -1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_match(out, std::regex("(\\[JCS_ERR\\]jcs_callback_register\\(\\)/[0-9]+ "
                                                 "Invalid parameters.\n){3}")))
        << out;

    SCOPED_TRACE("a later registration of the same slot replaces the earlier");
    ASSERT_EQ(jcs_callback_register("twice", JCS_OP_GET, first_cb), 0);
    ASSERT_EQ(jcs_callback_register("twice", JCS_OP_GET, second_cb), 0);
    handle(R"({"name":"twice","op":3,"data":{}})");
    EXPECT_EQ(g_first.calls, 0);
    EXPECT_EQ(g_second.calls, 1);

    SCOPED_TRACE("only the first 64 characters of a name count");
    const std::string name70 = std::string(64, 'n') + "tail70";
    ASSERT_EQ(jcs_callback_register(name70.c_str(), JCS_OP_DEL, first_cb), 0);
    handle(R"({"name":")" + name70 + R"(","op":1,"data":{}})");
    handle(R"({"name":")" + name70.substr(0, 64) + R"(","op":1,"data":{}})");
    EXPECT_EQ(g_first.calls, 2);

    SCOPED_TRACE("a second init changes nothing");
    jcs_dbg_on.store(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(jcs_init(), 0);
    out = testing::internal::GetCapturedStdout();
    jcs_dbg_on.store(0);
    EXPECT_TRUE(std::regex_match(out, std::regex("\\[JCS_DBG\\]jcs_init\\(\\)/[0-9]+ jcs has been "
                                                 "inited already!\n")))
        << out;
    handle(R"({"name":"twice","op":3,"data":{}})");
    EXPECT_EQ(g_second.calls, 2);
}

TEST_F(Jcs, ExampleServiceReadsATypedRequest)
{
    ASSERT_EQ(jcs_callback_register("example", JCS_OP_ADD, jcs_test_callback_add), 0);
    ASSERT_EQ(jcs_callback_register("example", JCS_OP_DEL, jcs_test_callback_del), 0);
    Outcome o = handle(R"({"name":"example","op":0,"clt_path":"p","data":{"enable":true,"count":3,)"
                       R"("label":"ap","ints":[1,2],"flags":[true],"ratios":[0.5],"names":["a"],)"
                       R"("nested":{"id":7,"desc":"x","list":[1]}}})");
    EXPECT_EQ(o.reply, R"({"result":0,"read":8})");

    jcs_dbg_on.store(1);
    o = handle(R"({"name":"example","op":1,"clt_path":"p","data":{}})");
    jcs_dbg_on.store(0);
    EXPECT_TRUE(std::regex_search(o.printed, std::regex("\\[JCS_DBG\\]jcs_test_callback_del\\(\\)/"
                                                        "[0-9]+ in call DEL back\n")));
    EXPECT_EQ(o.reply, "{}");
}
