// sim_test.cpp - the cloud stand-in and the simulated device as the sandbox starts them:
// reports posted and read back, fault orders, the page; the device's bus objects through the
// installed ubus tool, as the daemon and other services call them.
#include "itest.h"
#include "itest_json.h"

#include <httplib.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

using itest::at;
using itest::JsonPtr;
using itest::parse;
using itest::run;

namespace {

constexpr const char *kEventPath = "/nexo/devmsg/v1/reportDevEventMsg";
constexpr const char *kParamPath = "/nexo/devmsg/v1/reportParamsMsg";

std::string str(json_object *o) { return o ? json_object_get_string(o) : "<absent>"; }

httplib::Client cloud()
{
    httplib::Client c("127.0.0.1", 8480);
    c.set_read_timeout(10, 0);
    return c;
}

// Status of a POST, or -1 when no response came back.
int post(httplib::Client &c, const std::string &path, const std::string &body,
         const char *type = "application/json")
{
    auto r = c.Post(path.c_str(), body, type);
    return r ? r->status : -1;
}

std::string get(const std::string &path)
{
    auto c = cloud();
    auto r = c.Get(path.c_str());
    return r ? r->body : "<no response>";
}

}  // namespace

TEST(Cloudsim, RecordsEveryReportAndListsItBack)
{
    auto c = cloud();
    const std::string event =
        R"({"projectId":"site","deviceMac":"00-11-22-33-44-55","deviceType":"AP",)"
        R"("devEventList":[{"devMac":"00-11-22-33-44-55","devType":"AP","devName":"ap",)"
        R"("eventList":[{"typeId":"5","time":"1700000000000","params":{"k":"v"}}]}]}})";
    const std::string param = R"({"projectId":"site","deviceMac":"m","deviceType":"AP","cpu":7})";

    SCOPED_TRACE("reports are answered 200 {\"errorCode\":0}");
    auto r = c.Post(kEventPath, event, "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_EQ(r->body, "{\"errorCode\":0}");
    EXPECT_EQ(post(c, kParamPath, param), 200);
    EXPECT_EQ(post(c, "/somewhere/else", "plain words", "text/plain"), 200);

    SCOPED_TRACE("one path: the body byte for byte, and decoded");
    JsonPtr list = parse(get(std::string("/api/reports?path=") + kEventPath));
    ASSERT_TRUE(list);
    ASSERT_EQ(json_object_array_length(list.get()), 1u);
    json_object *rec = at(list.get(), {"0"});
    EXPECT_EQ(str(at(rec, {"body"})), event);
    EXPECT_EQ(str(at(rec, {"content_type"})), "application/json");
    EXPECT_EQ(json_object_get_int(at(rec, {"status"})), 200);
    EXPECT_EQ(str(at(rec, {"json", "devEventList", "0", "eventList", "0", "typeId"})), "5");
    EXPECT_EQ(str(at(rec, {"trailing"})), "}");

    SCOPED_TRACE("since: only what came later");
    list = parse(get("/api/reports?since=1"));
    ASSERT_EQ(json_object_array_length(list.get()), 2u);
    EXPECT_EQ(str(at(list.get(), {"0", "json", "cpu"})), "7");
    EXPECT_TRUE(json_object_get_boolean(at(list.get(), {"0", "json_ok"})));
    EXPECT_EQ(str(at(list.get(), {"1", "body"})), "plain words");
    EXPECT_EQ(at(list.get(), {"1", "json"}), nullptr);
    EXPECT_EQ(get("/api/reports?since=x"), "{\"error\":\"since must be a sequence number\"}");

    SCOPED_TRACE("the API itself is not recorded; stats count per path");
    EXPECT_EQ(post(c, "/api/nothing", "{}"), 404);
    JsonPtr stats = parse(get("/api/stats"));
    EXPECT_EQ(json_object_get_int(at(stats.get(), {"total"})), 3);
    EXPECT_EQ(json_object_get_int(at(stats.get(), {"paths", kEventPath, "count"})), 1);
    EXPECT_EQ(json_object_get_int(at(stats.get(), {"paths", kParamPath, "bytes"})),
              static_cast<int>(param.size()));
    std::string lines = get("/_cloudsim/messages");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 3);
    EXPECT_NE(lines.find("\"path\":\"/somewhere/else\""), std::string::npos);

    SCOPED_TRACE("DELETE clears; numbering goes on");
    EXPECT_EQ(c.Delete("/api/reports")->status, 200);
    EXPECT_EQ(get("/api/reports"), "[]");
    EXPECT_EQ(post(c, kEventPath, "{}"), 200);
    list = parse(get("/api/reports"));
    EXPECT_EQ(json_object_get_int(at(list.get(), {"0", "seq"})), 4);
}

TEST(Cloudsim, FaultOrdersFailTheNextReportsThenItAnswersAgain)
{
    auto c = cloud();
    SCOPED_TRACE("status 500 for the next three, then success");
    auto r = c.Post("/api/faults", R"({"status":500,"count":3})", "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->body, R"({"pending":[{"status":500,"hang_ms":0,"drop":false,"count":3}]})");
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(post(c, kEventPath, "{}"), 500);
    EXPECT_EQ(post(c, kEventPath, "{}"), 200);
    JsonPtr list = parse(get("/api/reports"));
    ASSERT_EQ(json_object_array_length(list.get()), 4u);
    EXPECT_EQ(json_object_get_int(at(list.get(), {"2", "status"})), 500);
    EXPECT_EQ(str(at(list.get(), {"2", "fault"})), "status");
    EXPECT_EQ(json_object_get_int(at(list.get(), {"3", "status"})), 200);

    SCOPED_TRACE("a bad order is refused and changes nothing");
    r = c.Post("/api/faults", R"({"status":"soon"})", "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 400);
    EXPECT_EQ(r->body, R"({"error":"\"status\" must be an integer"})");
    EXPECT_EQ(get("/api/faults"), R"({"pending":[]})");

    SCOPED_TRACE("a held request leaves its caller without an answer; others still get one");
    ASSERT_EQ(post(c, "/api/faults", R"({"hang_ms":3000})"), 200);
    httplib::Client impatient("127.0.0.1", 8480);
    impatient.set_read_timeout(0, 500000);
    EXPECT_EQ(post(impatient, kEventPath, "{\"held\":1}"), -1);
    EXPECT_EQ(post(c, kEventPath, "{}"), 200);

    SCOPED_TRACE("a dropped connection: no answer at all, recorded as status 0");
    ASSERT_EQ(post(c, "/_cloudsim/fault", R"({"drop":true})"), 200);
    EXPECT_EQ(post(c, kEventPath, "{\"dropped\":1}"), -1);
    EXPECT_EQ(post(c, kEventPath, "{}"), 200);
    list = parse(get("/api/reports?since=4"));
    ASSERT_EQ(json_object_array_length(list.get()), 4u);
    EXPECT_EQ(str(at(list.get(), {"0", "fault"})), "hang");
    EXPECT_EQ(str(at(list.get(), {"2", "fault"})), "drop");
    EXPECT_EQ(json_object_get_int(at(list.get(), {"2", "status"})), 0);

    SCOPED_TRACE("clear withdraws pending orders");
    ASSERT_EQ(post(c, "/api/faults", R"({"status":503,"count":5})"), 200);
    ASSERT_EQ(post(c, "/api/faults", R"({"clear":true})"), 200);
    EXPECT_EQ(post(c, kEventPath, "{}"), 200);
}

TEST(Cloudsim, ServesOneSelfContainedPageAndRefusesBadOptions)
{
    auto c = cloud();
    auto r = c.Get("/");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_EQ(r->get_header_value("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(r->body.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_NE(r->body.find("/api/reports"), std::string::npos);
    EXPECT_NE(r->body.find("/api/faults"), std::string::npos);
    // Nothing is fetched from elsewhere: no absolute URLs, no external scripts or styles.
    EXPECT_EQ(r->body.find("http://"), std::string::npos);
    EXPECT_EQ(r->body.find("https://"), std::string::npos);
    EXPECT_EQ(r->body.find("<link"), std::string::npos);
    EXPECT_EQ(r->body.find("src="), std::string::npos);
    EXPECT_EQ(c.Get("/nothing/here")->status, 404);

    auto res = run("cloudsim --port 0");
    EXPECT_EQ(res.status, 2);
    EXPECT_EQ(res.output, "cloudsim: --port '0' is not a port number\n");
    res = run("cloudsim --keep");
    EXPECT_EQ(res.status, 2);
    EXPECT_EQ(res.output, "cloudsim: --keep needs a number\n");
    res = run("cloudsim --port 8480");
    EXPECT_EQ(res.status, 1);
    EXPECT_EQ(res.output, "cloudsim: cannot listen on 127.0.0.1:8480\n");
}

TEST(Devsim, AnswersTheDaemonsIdentityQueriesThroughTheBusTool)
{
    // The exact commands the daemon runs.
    auto r = run("ubus -t 5 call varnServer getInfo '{\"infoMask\":33}'");
    ASSERT_EQ(r.status, 0) << r.output;
    JsonPtr info = parse(r.output);
    EXPECT_EQ(str(at(info.get(), {"mac"})), "00-11-22-33-44-55");
    EXPECT_EQ(str(at(info.get(), {"mac"})).size(), 17u);

    r = run("ubus -t 5 call cloudclient get_site_id");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output, "{\n\t\"site_id\": \"sandbox-site\"\n}\n");

    r = run("ubus -v list cloudclient");
    EXPECT_NE(r.output.find("\t\"register_cmd_callback\":{\"register_notify_cmd\":\"String\","
                            "\"wait_time\":\"Integer\",\"type\":\"String\",\"action\":\"String\"}"),
              std::string::npos)
        << r.output;
}

TEST(Devsim, RunsTheCommandsRegisteredForALinkStateWhenItIsSet)
{
    auto reg = [](const std::string &cmd, const char *type, int wait, const char *action) {
        return run("ubus -S call cloudclient register_cmd_callback '{ \"register_notify_cmd\": \"" +
                   cmd + "\", \"wait_time\": " + std::to_string(wait) + ", \"type\": \"" + type +
                   "\", \"action\":\"" + action + "\" }'")
            .status;
    };
    auto callbacks = [] {
        JsonPtr s = parse(run("ubus call cloudclient get_status").output);
        return json_object_array_length(at(s.get(), {"callbacks"}));
    };

    SCOPED_TRACE("registrations while offline run nothing; a repeat is not listed twice");
    EXPECT_EQ(reg("touch /tmp/went_online", "online", 0, "add"), 0);
    EXPECT_EQ(reg("touch /tmp/went_online", "online", 0, "add"), 0);
    EXPECT_EQ(reg("echo x >> /tmp/online.log", "online", 0, "add"), 0);
    EXPECT_EQ(reg("touch /tmp/went_offline", "offline", 1, "add"), 0);
    EXPECT_EQ(callbacks(), 3u);
    JsonPtr s = parse(run("ubus call cloudclient get_status").output);
    EXPECT_EQ(str(at(s.get(), {"status"})), "offline");
    EXPECT_EQ(json_object_get_int(at(s.get(), {"launched"})), 0);
    EXPECT_EQ(str(at(s.get(), {"callbacks", "2", "register_notify_cmd"})),
              "touch /tmp/went_offline");
    EXPECT_EQ(json_object_get_int(at(s.get(), {"callbacks", "2", "wait_time"})), 1);

    SCOPED_TRACE("set_status runs each command of that state, after its wait");
    auto r = run("ubus -S call cloudclient set_status '{\"status\":\"offline\"}'");
    EXPECT_EQ(r.output, "{\"status\":\"offline\",\"launched\":1}\n");
    EXPECT_TRUE(itest::wait_until([] { return itest::file_exists("/tmp/went_offline"); }));
    r = run("ubus -S call cloudclient set_status '{\"online\":true}'");
    EXPECT_EQ(r.output, "{\"status\":\"online\",\"launched\":2}\n");
    EXPECT_TRUE(itest::wait_until([] { return itest::file_exists("/tmp/went_online"); }));
    EXPECT_TRUE(itest::wait_until([] { return itest::read_file("/tmp/online.log") == "x\n"; }));

    SCOPED_TRACE("del removes one registration");
    EXPECT_EQ(reg("touch /tmp/went_online", "online", 0, "del"), 0);
    EXPECT_EQ(callbacks(), 2u);
    r = run("ubus -S call cloudclient set_status '{\"status\":\"online\"}'");
    EXPECT_EQ(r.output, "{\"status\":\"online\",\"launched\":1}\n");

    SCOPED_TRACE("bad input: status 2 (the tool's simple output exits with it), nothing changes");
    EXPECT_EQ(reg("touch /tmp/x", "online", 0, "replace"), 2);
    EXPECT_EQ(reg("touch /tmp/x", "online", -1, "add"), 2);
    EXPECT_EQ(run("ubus -S call cloudclient register_cmd_callback '{\"type\":\"online\"}'").status,
              2);
    EXPECT_EQ(run("ubus -S call cloudclient set_status '{\"status\":\"flaky\"}'").status, 2);
    EXPECT_EQ(run("ubus -S call cloudclient set_status '{}'").status, 2);
    EXPECT_EQ(callbacks(), 2u);
    s = parse(run("ubus call cloudclient get_status").output);
    EXPECT_EQ(str(at(s.get(), {"status"})), "online");

    SCOPED_TRACE("the report status callback the daemon leaves at start-up is recorded");
    EXPECT_EQ(run("ubus call cloudclient check_report_message_status "
                  "'{\"callback\":\"lua /usr/lib/lua/nms_report/nms_report_call.lua \"}'")
                  .status,
              0);
    s = parse(run("ubus call cloudclient get_status").output);
    EXPECT_EQ(str(at(s.get(), {"check_report_message_status", "0"})),
              "lua /usr/lib/lua/nms_report/nms_report_call.lua ");
}
