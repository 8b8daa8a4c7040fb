// stats_itest.cpp - statistics reporting in-process on a sandboxed device: registrations
// recorded under /tmp, group timers on the real wheel, reports received by cloudsim.
#include "itest.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <json-c/json.h>

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "cloud_report.h"
#include "nms_cmd.h"
#include "report_switch.h"
#include "stats_persist.h"
#include "stats_registry.h"
#include "stats_report.h"
#include "uac_lock.h"
#include "uac_thread.h"
#include "uac_timer.h"

using namespace std::chrono_literals;

namespace {

// SIGALRM belongs to the wheel timer's tick thread alone.
const int g_sigalrm_blocked = uac_sigmask_set(SIG_BLOCK, 1, SIGALRM);

const char kMac[] = "00-11-22-33-44-55";
const char kHead[] = "{\"projectId\":\"site-42\",\"deviceMac\":\"00-11-22-33-44-55\",\"deviceType\":\"AP\"";

struct Report {
    int64_t time_ms;
    std::string body;
};

// What cloudsim received on the parameters path, oldest first.
std::vector<Report> param_reports() {
    std::vector<Report> out;
    httplib::Client cli("127.0.0.1", 8480);
    auto res = cli.Get("/api/reports?path=/nexo/devmsg/v1/reportParamsMsg");
    if (!res || res->status != 200)
        return out;
    json_object *all = json_tokener_parse(res->body.c_str());
    for (size_t i = 0; all && i < json_object_array_length(all); ++i) {
        json_object *r = json_object_array_get_idx(all, i);
        json_object *body = nullptr, *time = nullptr;
        json_object_object_get_ex(r, "body", &body);
        json_object_object_get_ex(r, "time_ms", &time);
        out.push_back({json_object_get_int64(time), json_object_get_string(body)});
    }
    json_object_put(all);
    return out;
}

bool wait_reports(size_t n, std::chrono::milliseconds limit = 10s) {
    return itest::wait_until([n] { return param_reports().size() >= n; }, limit);
}

int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// A command printing the collection protocol's answer with one member "name":"value".
std::string answer(const std::string &name, const std::string &value) {
    return "printf '{\"continue\":\"false\",\"report_buf\":\"{\\\\\"" + name + "\\\\\":\\\\\"" +
           value + "\\\\\"}\"}'";
}

// The types of a group in the order the group hands them out (the order of the report).
std::vector<std::string> types_in_order(const char *timeout) {
    std::vector<std::string> types;
    uac::TagHold hold(gStatisticsParamsTimerLocker);
    auto *g = static_cast<statistics_params_timer_entry *>(
        uac_hash_find(statistics_params_timer_hash, timeout));
    if (g)
        uac_hash_foreach(
            g->node_hash,
            [](void *obj, void *arg) -> int32_t {
                static_cast<std::vector<std::string> *>(arg)->push_back(
                    static_cast<statistics_params_cb_node *>(obj)->type);
                return 0;
            },
            &types);
    return types;
}

statistics_params_timer_entry *group_of(const char *timeout) {
    return static_cast<statistics_params_timer_entry *>(
        uac_hash_find(statistics_params_timer_hash, timeout));
}

class StatsDevice : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(g_sigalrm_blocked, 0);
        itest::install_identity_stand_in(kMac, "site-42");
        // The daemon's start-up makes the record's folders and its empty package.
        ASSERT_EQ(itest::run("mkdir -p  /tmp/nms_stats_report_cfg; mkdir -p  "
                             "/tmp/nms_stats_report_cfg.uci;touch "
                             "/tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg")
                      .status,
                  0);
        uac_lock_module_init();
        uac_thread_module_init();
        ASSERT_EQ(uac_timer_init(10), 0);
        ASSERT_EQ(init_statistics_params(), 0);
        ASSERT_EQ(local_update_site_id(), 0);
        set_report_online(1);
    }
};

TEST_F(StatsDevice, RegisteringRecordsInUciAndReRegisteringReplacesOnlyTheValueCommand) {
    const std::string show = "uci -c /tmp/nms_stats_report_cfg show nms_report_stat_cb_cfg";
    ASSERT_EQ(insert_params_cb_node("t1", "printf A", "note first", "30"), 0);
    EXPECT_EQ(itest::run(show).output,
              "nms_report_stat_cb_cfg.t1=nms_report_stat_cb\n"
              "nms_report_stat_cb_cfg.t1.get_cb='printf A'\n"
              "nms_report_stat_cb_cfg.t1.success_cb='note first'\n");

    ASSERT_EQ(insert_params_cb_node("t1", "printf B", "note second", "30"), 0);
    auto *node = static_cast<statistics_params_cb_node *>(uac_hash_find(group_of("30")->node_hash, "t1"));
    ASSERT_NE(node, nullptr);
    EXPECT_STREQ(node->get_cb, "printf B");
    EXPECT_STREQ(node->success_cb, "note first");
    EXPECT_EQ(itest::run(show).output,
              "nms_report_stat_cb_cfg.t1=nms_report_stat_cb\n"
              "nms_report_stat_cb_cfg.t1.get_cb='printf B'\n"
              "nms_report_stat_cb_cfg.t1.success_cb='note second'\n");

    // Missing texts and a full period table are refused; over-long texts are cut.
    EXPECT_EQ(insert_params_cb_node("t2", nullptr, "x", "30"), -1);
    EXPECT_EQ(insert_params_cb_node(std::string(80, 'y').c_str(), std::string(300, 'g').c_str(),
                                    "", "30"),
              0);
    EXPECT_NE(uac_hash_find(group_of("30")->node_hash, std::string(64, 'y').c_str()), nullptr);
    for (int i = 100; i < 159; ++i)
        ASSERT_EQ(insert_params_cb_node("p", "printf P", "", std::to_string(i).c_str()), 0) << i;
    EXPECT_EQ(insert_params_cb_node("p", "printf P", "", "999"), -1);
}

TEST_F(StatsDevice, MovingTheLastParameterTakesItsGroupAndTimerAway) {
    begin_all_statistics_params_timer();
    ASSERT_EQ(insert_params_cb_node("t1", "printf A", "note a", "3600"), 0);
    int32_t old_timer = group_of("3600")->timer_id;
    ASSERT_NE(old_timer, STATS_NO_TIMER);  // a new group gets its timer while reporting runs

    // An old period that does not hold the type changes nothing.
    EXPECT_EQ(update_params_cb_node("t1", nullptr, nullptr, "7200", "60"), -1);
    EXPECT_EQ(update_params_cb_node("t2", nullptr, nullptr, "7200", "3600"), -1);
    ASSERT_NE(group_of("3600"), nullptr);

    // Commands not given are taken from the old node.
    ASSERT_EQ(update_params_cb_node("t1", nullptr, nullptr, "7200", "3600"), 0);
    EXPECT_EQ(group_of("3600"), nullptr);
    EXPECT_EQ(uac_timer_rest(static_cast<uint32_t>(old_timer)), 0u);
    statistics_params_timer_entry *g = group_of("7200");
    ASSERT_NE(g, nullptr);
    EXPECT_NE(g->timer_id, STATS_NO_TIMER);
    auto *node = static_cast<statistics_params_cb_node *>(uac_hash_find(g->node_hash, "t1"));
    ASSERT_NE(node, nullptr);
    EXPECT_STREQ(node->get_cb, "printf A");
    EXPECT_STREQ(node->success_cb, "note a");

    // A group that keeps other parameters stays.
    ASSERT_EQ(insert_params_cb_node("t3", "printf C", "", "7200"), 0);
    ASSERT_EQ(update_params_cb_node("t3", "printf D", nullptr, "60", "7200"), 0);
    EXPECT_NE(group_of("7200"), nullptr);
    stop_all_statistics_params_timer();
}

TEST_F(StatsDevice, GroupReportCarriesIdentityMembersInOrderAndTellsOnlyWhatWasDelivered) {
    for (const char *t : {"load", "uptime", "memory"})
        ASSERT_EQ(insert_params_cb_node(t, answer(t, std::string("v-") + t).c_str(),
                                        (std::string("date +%s%3N > /tmp/succ.") + t).c_str(), "1"),
                  0);
    ASSERT_EQ(insert_params_cb_node("bad", "echo nope", "date > /tmp/succ.bad", "1"), 0);
    int64_t start = now_ms();
    begin_all_statistics_params_timer();
    ASSERT_TRUE(wait_reports(1));
    stop_all_statistics_params_timer();

    std::string expected = kHead;
    for (const std::string &t : types_in_order("1"))
        if (t != "bad")
            expected += ",\"" + t + "\":\"v-" + t + "\"";
    expected += "}";
    Report first = param_reports().front();
    EXPECT_EQ(first.body, expected);
    EXPECT_GE(first.time_ms, start + 400);  // at the period, not at once

    // Success commands run after the send, and only for parameters that delivered.
    for (const char *t : {"load", "uptime", "memory"}) {
        std::string path = std::string("/tmp/succ.") + t;
        ASSERT_TRUE(itest::wait_until([&] { return !itest::read_file(path).empty(); })) << t;
        EXPECT_GE(std::stoll(itest::read_file(path)), first.time_ms) << t;
    }
    EXPECT_FALSE(itest::file_exists("/tmp/succ.bad"));
}

TEST_F(StatsDevice, ExampleCommandsPageThroughAFlush) {
    // The installed examples, registered the way their script does (one period).
    for (const char *t : {"uptime", "load", "memory", "paging"})
        ASSERT_EQ(insert_params_cb_node(t, (std::string("nms_stats_") + t).c_str(),
                                        (std::string("nms_stats_success ") + t).c_str(), "600"),
                  0);
    ASSERT_EQ(flush_all_statistics_params_report(), 0);
    ASSERT_TRUE(wait_reports(1));
    std::string body = param_reports().front().body;
    json_object *obj = json_tokener_parse(body.c_str());
    ASSERT_NE(obj, nullptr) << body;
    for (const char *member : {"uptime", "load", "memory", "paging_1", "paging_2", "paging_3"})
        EXPECT_TRUE(json_object_object_get_ex(obj, member, nullptr)) << member << " in " << body;
    json_object_put(obj);
    EXPECT_LT(body.find("paging_1"), body.find("paging_2"));
    EXPECT_LT(body.find("paging_2"), body.find("paging_3"));
    ASSERT_TRUE(itest::wait_until([] {
        return itest::read_file("/tmp/nms_stats_success.log").size() == std::string("uptime\nload\nmemory\npaging\n").size();
    }));
}

TEST_F(StatsDevice, SpentBudgetSendsWhatWasGatheredAndGoesOn) {
    itest::write_file("/tmp/big.sh",
                      "printf '{\"continue\":\"false\",\"report_buf\":\"{\\\\\"%s\\\\\":\\\\\"' \"$1\"\n"
                      "head -c 60000 /dev/zero | tr '\\0' x\n"
                      "printf '\\\\\"}\"}'\n");
    for (const char *t : {"m1", "m2", "m3", "m4", "m5"})
        ASSERT_EQ(insert_params_cb_node(t, (std::string("sh /tmp/big.sh ") + t).c_str(), "", "600"), 0);
    const std::string x(60000, 'x');
    std::vector<std::string> order = types_in_order("600");
    ASSERT_EQ(order.size(), 5u);

    ASSERT_EQ(flush_all_statistics_params_report(), 0);
    ASSERT_TRUE(wait_reports(2));
    std::vector<Report> reports = param_reports();
    ASSERT_EQ(reports.size(), 2u);
    // Four members fit the 261120-byte budget; the fifth starts a fresh text, as it stands
    // (without a comma).
    std::string first = kHead;
    for (size_t i = 0; i < 4; ++i)
        first += ",\"" + order[i] + "\":\"" + x + "\"";
    EXPECT_TRUE(reports[0].body == first + "}") << reports[0].body.substr(0, 200);
    EXPECT_TRUE(reports[1].body == std::string(kHead) + "\"" + order[4] + "\":\"" + x + "\"}")
        << reports[1].body.substr(0, 200);
}

TEST_F(StatsDevice, OfflineTimerAcknowledgesWithoutSendingAndAFlushStillSends) {
    set_report_online(0);
    ASSERT_EQ(insert_params_cb_node("a", answer("a", "1").c_str(), "echo a >> /tmp/ack", "3600"), 0);
    begin_all_statistics_params_timer();
    char timeout[] = "3600";
    timer_cb(timeout);  // what the wheel does at the period
    ASSERT_TRUE(itest::wait_until([] { return itest::read_file("/tmp/ack") == "a\n"; }));
    EXPECT_EQ(param_reports().size(), 0u);
    EXPECT_EQ(flush_report_specific_param("a"), 0);  // offline: nothing started

    ASSERT_EQ(flush_all_statistics_params_report(), 0);
    ASSERT_TRUE(wait_reports(1));
    EXPECT_EQ(param_reports().front().body, std::string(kHead) + ",\"a\":\"1\"}");
    EXPECT_EQ(get_report_online(), 0);
    stop_all_statistics_params_timer();
}

TEST_F(StatsDevice, TimerFiringsStayAlignedOverTenPeriods) {
    set_report_online(0);
    ASSERT_EQ(insert_params_cb_node("tick", ("date +%s%N >> /tmp/fires; " + answer("tick", "1")).c_str(),
                                    "", "1"),
              0);
    begin_all_statistics_params_timer();
    std::this_thread::sleep_for(11300ms);
    stop_all_statistics_params_timer();
    std::vector<int64_t> fires;
    const std::string text = itest::read_file("/tmp/fires");
    for (size_t pos = 0, next; (next = text.find('\n', pos)) != std::string::npos; pos = next + 1)
        fires.push_back(std::stoll(text.substr(pos, next - pos)));
    ASSERT_GE(fires.size(), 10u);
    // Each firing lands within one tick (500 ms) of the first firing + n periods; a little
    // more is allowed for starting the command.
    for (size_t n = 1; n < fires.size(); ++n) {
        int64_t aim = fires[0] + static_cast<int64_t>(n) * 1000000000;
        EXPECT_LE(std::llabs(fires[n] - aim), 650000000) << "firing " << n;
    }
}

TEST_F(StatsDevice, SlowOrBadCommandsHoldUpOnlyTheirOwnGroup) {
    ASSERT_EQ(insert_params_cb_node("slow", ("touch /tmp/slow.started; sleep 3; " + answer("slow", "s")).c_str(),
                                    "echo slow >> /tmp/succ", "1"),
              0);
    ASSERT_EQ(insert_params_cb_node("fine", answer("fine", "f").c_str(), "echo fine >> /tmp/succ", "1"), 0);
    const std::pair<const char *, const char *> bad[] = {
        {"nothing", "true"},
        {"notjson", "echo hello"},
        {"nocont", "printf '{\"report_buf\":\"{}\"}'"},
        {"nobuf", "printf '{\"continue\":\"false\"}'"},
        {"huge", "head -c 70000 /dev/zero | tr '\\0' x"},
        {"missing", "/nonexistent/get_stats"},
    };
    for (const auto &b : bad)
        ASSERT_EQ(insert_params_cb_node(b.first, b.second,
                                        (std::string("echo ") + b.first + " >> /tmp/succ").c_str(), "1"),
                  0);
    begin_all_statistics_params_timer();
    ASSERT_TRUE(itest::wait_until([] { return itest::file_exists("/tmp/slow.started"); }));

    // While the slow command runs, the registry is free and other parameters go out.
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(insert_params_cb_node("quick", answer("quick", "q").c_str(), "", "600"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 500ms);
    ASSERT_EQ(flush_report_specific_param("quick"), 0);
    ASSERT_TRUE(wait_reports(1, 2s));
    EXPECT_EQ(param_reports().front().body, std::string(kHead) + ",\"quick\":\"q\"}");

    ASSERT_TRUE(wait_reports(2));
    stop_all_statistics_params_timer();
    std::string expected = kHead;
    for (const std::string &t : types_in_order("1"))
        if (t == "slow" || t == "fine")
            expected += ",\"" + t + "\":\"" + t.substr(0, 1) + "\"";
    EXPECT_EQ(param_reports()[1].body, expected + "}");
    ASSERT_TRUE(itest::wait_until([] {
        std::string s = itest::read_file("/tmp/succ");
        return s.find("slow") != std::string::npos && s.find("fine") != std::string::npos;
    }));
    std::string told = itest::read_file("/tmp/succ");
    for (const auto &b : bad)
        EXPECT_EQ(told.find(b.first), std::string::npos) << b.first;
}

TEST_F(StatsDevice, AHangingCommandHoldsUpNeitherTheTimerThreadNorOtherGroups) {
    nms_cmd_timeout_sec = 2;
    ASSERT_EQ(insert_params_cb_node("hang", "touch /tmp/hang.started; sleep 3600", "echo hang >> /tmp/succ", "1"),
              0);
    ASSERT_EQ(insert_params_cb_node("fine", answer("fine", "f").c_str(), "", "2"), 0);
    begin_all_statistics_params_timer();
    ASSERT_TRUE(itest::wait_until([] { return itest::file_exists("/tmp/hang.started"); }));

    // While the command hangs, a timer of the wheel (where the event scan runs) fires on time
    // and the other group reports.
    static std::atomic<int> fired{0};
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_NE(uac_timer_add(0, 500000, [](void *) noexcept { fired++; }, nullptr, nullptr),
              UAC_TIMER_INVALID_ID);
    EXPECT_TRUE(itest::wait_until([] { return fired.load() == 1; }, 1500ms));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 1500ms);
    EXPECT_TRUE(wait_reports(1, 5s));

    // The limit ends the command; the group goes on with its next period.
    std::remove("/tmp/hang.started");
    EXPECT_TRUE(itest::wait_until([] { return itest::run("pgrep -f 'slee[p] 3600'").status != 0; }, 5s));
    EXPECT_TRUE(itest::wait_until([] { return itest::file_exists("/tmp/hang.started"); }, 5s));
    stop_all_statistics_params_timer();
    EXPECT_EQ(itest::read_file("/tmp/succ").find("hang"), std::string::npos);
    for (const Report &r : param_reports())
        EXPECT_EQ(r.body.find("hang"), std::string::npos) << r.body;
    nms_cmd_timeout_sec = NMS_CMD_TIMEOUT_DEFAULT;
}

}  // namespace
