// stats_report_test.cpp - the collection protocol of get commands, the success command text,
// the group timer's callback and its interval, all while reporting is offline (the sender
// then sends nothing); the reports themselves are tested against the cloud stand-in in
// tests/integration/stats.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "stats_fixture.h"
#include "stats_report.h"
#include "uac_mem.h"

using namespace statstest;

namespace {

struct InfoFree {
    void operator()(report_result_info *p) const { delete p; }
};
using InfoPtr = std::unique_ptr<report_result_info, InfoFree>;

InfoPtr new_info(const std::string &text = "") {
    InfoPtr info(new report_result_info());
    std::memcpy(info->buf, text.c_str(), text.size() + 1);
    return info;
}

statistics_params_cb_node make_node(const std::string &type, const std::string &get_cb,
                                    const std::string &success_cb = "") {
    statistics_params_cb_node n{};
    snprintf(n.type, sizeof(n.type), "%s", type.c_str());
    snprintf(n.get_cb, sizeof(n.get_cb), "%s", get_cb.c_str());
    snprintf(n.success_cb, sizeof(n.success_cb), "%s", success_cb.c_str());
    return n;
}

class StatsReport : public StatsTest {};

TEST_F(StatsReport, NextIntervalAimsAtBeginPlusPeriods) {
    uint64_t begin = 0, cnt = 0;
    uint32_t sec = 0, usec = 0;
    // First firing after a start: it becomes the aim's origin, a whole period follows.
    statistics_params_next_interval(7000000, &begin, &cnt, 5, &sec, &usec);
    EXPECT_EQ(begin, 7000000u);
    EXPECT_EQ(cnt, 1u);
    EXPECT_EQ(sec, 5u);
    EXPECT_EQ(usec, 0u);
    // 300 ms late for begin + 1 x 5 s: the next interval is shortened by the lag.
    statistics_params_next_interval(7000000 + 5300000, &begin, &cnt, 5, &sec, &usec);
    EXPECT_EQ(sec, 4u);
    EXPECT_EQ(usec, 700000u);
    EXPECT_EQ(cnt, 2u);
    // Early (negative lag): a whole period.
    statistics_params_next_interval(7000000 + 9900000, &begin, &cnt, 5, &sec, &usec);
    EXPECT_EQ(sec, 5u);
    EXPECT_EQ(usec, 0u);
    // A whole period or more behind is not caught up.
    statistics_params_next_interval(7000000 + 20000000, &begin, &cnt, 5, &sec, &usec);
    EXPECT_EQ(sec, 5u);
    EXPECT_EQ(usec, 0u);
    EXPECT_EQ(begin, 7000000u);
    EXPECT_EQ(cnt, 4u);
}

TEST_F(StatsReport, PrepareAppendsMembersAndMarksTheParameter) {
    InfoPtr info = new_info();
    statistics_params_cb_node a = make_node("a", answer_cmd("\"a\":1"));
    report_statistics_params_prepare(&a, info.get());
    EXPECT_STREQ(info->buf, ",\"a\":1");
    EXPECT_EQ(a.param_action, 1);
    // report_buf may also be an object and continue a JSON boolean.
    statistics_params_cb_node b =
        make_node("b", "printf '{\"continue\":false,\"report_buf\":{\"b\":[1,2]}}'");
    report_statistics_params_prepare(&b, info.get());
    EXPECT_EQ(b.param_action, 1);
    std::string text = info->buf;
    EXPECT_EQ(text.rfind(",\"a\":1,", 0), 0u) << text;
    EXPECT_NE(text.find("\"b\""), std::string::npos) << text;
}

TEST_F(StatsReport, BadOutputContributesNothing) {
    struct Case {
        const char *what;
        std::string cmd;
        const char *message;
    };
    const Case cases[] = {
        {"no output", "true", "error return not a json obj!"},
        {"not JSON", "echo hello", "error return not a json obj!"},
        {"missing command", "/nonexistent/get_cmd 2>/dev/null", "error return not a json obj!"},
        {"no continue", "printf '{\"report_buf\":\"{}\"}'", "invalid return value for:"},
        {"no report_buf", "printf '{\"continue\":\"false\"}'", "error return not a json obj!"},
        {"an array", "printf '[1,2]'", "invalid return value for:"},
        // 64 KiB and more: the read stops at 65536 bytes, leaving a text cut in two.
        {"64 KiB and more",
         "printf '{\"continue\":\"false\",\"report_buf\":\"{\\\\\"x\\\\\":\\\\\"'; head -c 70000 "
         "/dev/zero | tr '\\0' x; printf '\\\\\"}\"}'",
         "error return not a json obj!"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        InfoPtr info = new_info(",\"before\":0");
        statistics_params_cb_node n = make_node("bad", c.cmd, "echo never");
        std::string out = errors_of([&] { report_statistics_params_prepare(&n, info.get()); });
        EXPECT_NE(out.find(c.message), std::string::npos) << out;
        EXPECT_STREQ(info->buf, ",\"before\":0");
        EXPECT_EQ(n.param_action, 0);
        report_statistics_params_success(&n, info.get());
        EXPECT_STREQ(info->success_cmd, "");
    }
    {
        SCOPED_TRACE("just under the read limit is taken whole");
        InfoPtr info = new_info();
        statistics_params_cb_node n = make_node(
            "big",
            "printf '{\"continue\":\"false\",\"report_buf\":\"{\\\\\"x\\\\\":\\\\\"'; head -c 65000 "
            "/dev/zero | tr '\\0' x; printf '\\\\\"}\"}'");
        report_statistics_params_prepare(&n, info.get());
        EXPECT_EQ(std::strlen(info->buf), 1 + 5 + 65000 + 1u);  // ,"x":"..."
    }
}

TEST_F(StatsReport, PagingReadsLaterPagesUpToTheEarlierTextLength) {
    setenv("NMS_STATS_PAGING_STATE", scratch("page").c_str(), 1);
    const std::string pager = std::string(NMS_STATS_EXAMPLES) + "/nms_stats_paging";
    {
        SCOPED_TRACE("pages shorter than what was gathered before them: all three");
        std::string before = ",\"before\":\"" + std::string(100, 'b') + "\"";
        InfoPtr info = new_info(before);
        statistics_params_cb_node n = make_node("paging", pager);
        report_statistics_params_prepare(&n, info.get());
        EXPECT_EQ(std::string(info->buf), before + ",\"paging_1\":\"page 1 of 3\"" +
                                              ",\"paging_2\":\"page 2 of 3\"" +
                                              ",\"paging_3\":\"page 3 of 3\"");
        EXPECT_EQ(n.param_action, 1);
    }
    {
        SCOPED_TRACE("first in an empty text: the next page is read with no room");
        InfoPtr info = new_info();
        statistics_params_cb_node n = make_node("paging", pager);
        std::string out = errors_of([&] { report_statistics_params_prepare(&n, info.get()); });
        EXPECT_STREQ(info->buf, ",\"paging_1\":\"page 1 of 3\"");
        EXPECT_NE(out.find("error return not a json obj!"), std::string::npos) << out;
    }
    unsetenv("NMS_STATS_PAGING_STATE");
}

TEST_F(StatsReport, CommandThatKeepsPagingIsStopped) {
    // Empty members never spend the budget; only the page limit ends such a command.
    std::string before = ",\"before\":\"" + std::string(100, 'b') + "\"";
    InfoPtr info = new_info(before);
    std::string count = scratch("count");
    statistics_params_cb_node n = make_node("endless", "echo >> " + count + "; " + answer_cmd("", true));
    std::string out = errors_of([&] { report_statistics_params_prepare(&n, info.get()); });
    EXPECT_NE(out.find("too many pages"), std::string::npos) << out;
    EXPECT_EQ(read_lines(count).size(), size_t(STATS_MAX_PAGES));
    EXPECT_EQ(std::strlen(info->buf), before.size() + STATS_MAX_PAGES);
}

TEST_F(StatsReport, SpentBudgetSendsEarlyAndStartsAFreshText) {
    std::string log = scratch("success.log");
    // 261120 - 261110 leaves 10 bytes of budget; each page's member is 24 characters.
    std::string fill = "," + std::string(261109, 'f');
    InfoPtr info = new_info(fill);
    setenv("NMS_STATS_PAGING_STATE", scratch("page").c_str(), 1);
    statistics_params_cb_node n = make_node(
        "paging", std::string(NMS_STATS_EXAMPLES) + "/nms_stats_paging", "echo paging >> " + log);
    ::testing::internal::CaptureStdout();
    report_statistics_params_prepare(&n, info.get());
    std::string out = ::testing::internal::GetCapturedStdout();
    unsetenv("NMS_STATS_PAGING_STATE");
    // Offline, the early sends return 0: collection goes on, every page sent on its own
    // and the member that did not fit starts the text without a comma.
    EXPECT_EQ(info->status, 0);
    EXPECT_STREQ(info->buf, "\"paging_3\":\"page 3 of 3\"");
    EXPECT_NE(out.find("test succes cmd: \r\n"), std::string::npos) << out;
    EXPECT_NE(out.find("test succes cmd:echo paging >> " + log + " &\n \r\n"), std::string::npos)
        << out;
    EXPECT_EQ(n.param_action, 1);
}

TEST_F(StatsReport, FailedEarlySendStopsTheRestOfTheRun) {
    InfoPtr info = new_info(",\"x\":1");
    info->status = -1;
    std::string marker = scratch("ran");
    statistics_params_cb_node n = make_node("late", "touch " + marker + "; " + answer_cmd("\"y\":2"));
    report_statistics_params_prepare(&n, info.get());
    EXPECT_STREQ(info->buf, ",\"x\":1");
    EXPECT_FALSE(std::ifstream(marker).good());
}

TEST_F(StatsReport, SuccessTextStartsDeliveredParametersInTheBackground) {
    InfoPtr info = new_info();
    statistics_params_cb_node a = make_node("a", "get", "note a");
    statistics_params_cb_node b = make_node("b", "get", "note b");
    statistics_params_cb_node quiet = make_node("quiet", "get");
    statistics_params_cb_node idle = make_node("idle", "get", "note idle");
    a.param_action = b.param_action = quiet.param_action = 1;
    for (statistics_params_cb_node *n : {&a, &b, &quiet, &idle})
        report_statistics_params_success(n, info.get());
    EXPECT_STREQ(info->success_cmd, "note a &\nnote b &\n");
    EXPECT_EQ(a.param_action, 0);
    EXPECT_EQ(quiet.param_action, 0);

    // A command that does not fit any more is left out whole, never cut.
    statistics_params_cb_node big = make_node("big", "get", std::string(250, 'z'));
    for (int i = 0; i < 20; ++i) {
        big.param_action = 1;
        report_statistics_params_success(&big, info.get());
    }
    std::string text = info->success_cmd;
    EXPECT_LT(text.size(), size_t(STATS_SUCCESS_CMD_LEN));
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ((text.size() - std::strlen("note a &\nnote b &\n")) % 253, 0u);
}

TEST_F(StatsReport, TimerOfQuietOrUnknownGroupIsNotReArmed) {
    add_node("3600", "a", answer_cmd("\"a\":1"));
    // Started groups only: a stopped group's pending callback ends its chain.
    char arg[] = "3600";
    timer_cb(arg);
    EXPECT_EQ(group_of("3600")->timer_id, STATS_NO_TIMER);
    begin_all_statistics_params_timer();
    int32_t id = group_of("3600")->timer_id;
    ASSERT_EQ(statistics_params_cb_node_delete(group_of("3600")->node_hash, "a"), 0);
    timer_cb(arg);
    EXPECT_EQ(group_of("3600")->timer_id, id);
    EXPECT_EQ(group_of("3600")->cnt, 0u);
    char unknown[] = "17";
    std::string out = errors_of([&] { timer_cb(unknown); });
    EXPECT_NE(out.find("no hash node param type:17"), std::string::npos) << out;
}

TEST_F(StatsReport, SpecificFlushNeedsATypeAndAnOnlineDevice) {
    EXPECT_EQ(flush_report_specific_param(nullptr), -1);
    EXPECT_EQ(flush_report_specific_param(""), -1);
    EXPECT_EQ(flush_report_specific_param("uptime"), 0);  // offline: nothing started
}

}  // namespace
