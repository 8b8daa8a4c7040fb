// settings_test.cpp - event list and event type settings read from
// /etc/nms_report, and reads of the system configuration, on a sandboxed device.
#include "event_config.h"
#include "itest.h"
#include "nms_log.h"
#include "uci_access.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>
#include <unistd.h>

using itest::write_file;

namespace {

void expect_list(int list, int time, int size, int policy)
{
    SCOPED_TRACE("list " + std::to_string(list));
    EXPECT_EQ(get_event_list_buf_time(list), time);
    EXPECT_EQ(get_event_list_buf_size(list), size);
    EXPECT_EQ(get_event_list_full_processing(list), policy);
}

}  // namespace

TEST(EventSettings, DefaultsBeforeAndAfterLoadingAnEmptyPackage)
{
    SCOPED_TRACE("before the first load: no policy yet, time and size by default");
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++)
        expect_list(i, 600, 50, 0);

    SCOPED_TRACE("numbers outside 0..7");
    expect_list(-1, 600, 50, 3);
    expect_list(8, 600, 50, 3);

    SCOPED_TRACE("no package file at all");
    update_event_list_buf_timer();
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++)
        expect_list(i, 600, 50, 2);

    SCOPED_TRACE("the empty package start-up creates");
    write_file("/etc/nms_report/event_report", "");
    update_event_list_buf_timer();
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++)
        expect_list(i, 600, 50, 2);
}

TEST(EventSettings, ConvertsListValues)
{
    write_file("/etc/nms_report/event_report",
               "config queue 'event_queue_0'\n"
               "\toption buffer_time '0'\n"
               "\toption buffer_size '0'\n"
               "\toption buffer_full_processing '0'\n"
               "config queue 'event_queue_1'\n"
               "\toption buffer_time '-5'\n"
               "\toption buffer_full_processing '3'\n"
               "config queue 'event_queue_2'\n"
               "\toption buffer_time '45'\n"
               "\toption buffer_size '700'\n"
               "\toption buffer_full_processing 'x'\n"
               "config queue 'event_queue_3'\n"
               "\toption buffer_time '12abc'\n"
               "\toption buffer_size 'many'\n"
               "\toption buffer_full_processing '1'\n"
               "config queue 'event_queue_4'\n"
               "\toption buffer_full_processing '2'\n"
               "\tlist buffer_time '30'\n");

    log_trace_on.store(1);
    testing::internal::CaptureStdout();
    update_event_list_buf_timer();
    std::string out = testing::internal::GetCapturedStdout();
    log_trace_on.store(0);

    expect_list(0, 600, 50, 2);  // 0 is stored, read back as the default
    expect_list(1, 600, 50, 2);
    expect_list(2, 45, 700, 2);  // no cap here; the lists apply theirs
    expect_list(3, 12, 50, 1);
    expect_list(4, 600, 50, 2);  // a list where an option is expected
    expect_list(5, 600, 50, 2);

    EXPECT_NE(out.find("Function is:update_event_list_buf_timer, Line is:"), std::string::npos);
    EXPECT_NE(out.find(".event[0] buff_time0.\n\n"), std::string::npos) << out;
    EXPECT_NE(out.find(".event[2] buff_size700.\n\n"), std::string::npos) << out;
    EXPECT_NE(out.find(".event[3] full handle1.\n\n"), std::string::npos) << out;
}

TEST(EventSettings, ReloadReplacesEarlierValues)
{
    write_file("/etc/nms_report/event_report",
               "config queue 'event_queue_7'\n\toption buffer_time '5'\n"
               "\toption buffer_full_processing '1'\n");
    update_event_list_buf_timer();
    expect_list(7, 5, 50, 1);
    write_file("/etc/nms_report/event_report", "config bad\n\toption\n");  // unparsable
    update_event_list_buf_timer();
    expect_list(7, 600, 50, 2);
}

TEST(EventTypes, EnableImmediateAndLevel)
{
    write_file("/etc/nms_report/event_params",
               "config event '5'\n"
               "\toption enable 'on'\n\toption report_now 'on'\n\toption level '3'\n"
               "config event '4'\n"
               "\toption enable 'on'\n\toption report_now 'off'\n\toption level '4'\n"
               "config event '6'\n"
               "\toption enable 'off'\n\toption level '9'\n"
               "config event '8'\n"
               "\toption enable 'on-and-more'\n\toption level 'x'\n");

    EXPECT_EQ(get_event_enable(5), 0);
    EXPECT_EQ(get_event_enable(4), 0);
    EXPECT_EQ(get_event_enable(6), -1);
    EXPECT_EQ(get_event_enable(8), -1);  // cut to the 8-byte buffer: not "on"
    EXPECT_EQ(get_event_report_now_attr(5), 0);
    EXPECT_EQ(get_event_report_now_attr(4), -1);
    EXPECT_EQ(get_event_report_now_attr(6), -1);
    EXPECT_EQ(get_event_level(5), 3);
    EXPECT_EQ(get_event_level(6), 9);
    EXPECT_EQ(get_event_level(8), 0);

    SCOPED_TRACE("the list of a type");
    EXPECT_EQ(get_event_list_id(5), 0);  // immediate goes first
    EXPECT_EQ(get_event_list_id(4), 4);
    EXPECT_EQ(get_event_list_id(6), 6);  // level out of range: id % 8
    EXPECT_EQ(get_event_list_id(8), 0);

    SCOPED_TRACE("ids 0, -13 and an unconfigured 13");
    for (int id : {0, -13, 13}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(get_event_enable(id), -1);
        EXPECT_EQ(get_event_report_now_attr(id), -1);
        EXPECT_EQ(get_event_level(id), -1);
    }
    EXPECT_EQ(get_event_list_id(0), 0);
    EXPECT_EQ(get_event_list_id(13), 5);
    EXPECT_EQ(get_event_list_id(-13), -5);
}

TEST(EventTypes, TestFileEnablesOnlyUnconfiguredTypes)
{
    write_file("/etc/nms_report/event_params", "config event '6'\n\toption enable 'off'\n");
    EXPECT_EQ(get_event_enable(13), -1);

    write_file("/tmp/tmp_nms_event_test_ignore_enable", "");
    EXPECT_EQ(get_event_enable(13), 0);
    EXPECT_EQ(get_event_enable(6), -1);
    EXPECT_EQ(get_event_enable(0), -1);
    EXPECT_EQ(get_event_enable(-13), -1);

    SCOPED_TRACE("also without any event_params package");
    unlink("/etc/nms_report/event_params");
    EXPECT_EQ(get_event_enable(13), 0);
    unlink("/tmp/tmp_nms_event_test_ignore_enable");
    EXPECT_EQ(get_event_enable(13), -1);
}

// The per-type settings are kept in memory between queries; every query must
// still answer from what is on disk at that moment.
namespace {

const char *const kParams = "/etc/nms_report/event_params";

std::string type_section(int id, const char *enable, int level)
{
    return "config event '" + std::to_string(id) + "'\n\toption enable '" + enable +
           "'\n\toption level '" + std::to_string(level) + "'\n";
}

// Replaces the package the way editors and libuci's commit do: a new file
// renamed over the old one.
void replace_params(const std::string &text)
{
    std::string tmp = std::string(kParams) + ".new";
    write_file(tmp, text);
    ASSERT_EQ(rename(tmp.c_str(), kParams), 0);
}

}  // namespace

TEST(EventTypes, QueriesFollowTheFilesOnDisk)
{
    write_file(kParams, type_section(5, "on", 3));
    EXPECT_EQ(get_event_enable(5), 0);
    EXPECT_EQ(get_event_level(5), 3);

    SCOPED_TRACE("rewritten in place");
    write_file(kParams, type_section(5, "off", 3));
    EXPECT_EQ(get_event_enable(5), -1);

    SCOPED_TRACE("replaced by rename, same size");
    replace_params(type_section(5, "off", 4));
    EXPECT_EQ(get_event_level(5), 4);
    replace_params(type_section(5, "on", 4) + type_section(6, "on", 7));
    EXPECT_EQ(get_event_enable(5), 0);
    EXPECT_EQ(get_event_level(6), 7);

    SCOPED_TRACE("an uncommitted change in the default save directory");
    auto r = itest::run("uci -c /etc/nms_report set event_params.5.level=2");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(get_event_level(5), 2);
    EXPECT_EQ(itest::read_file(kParams).find("'2'"), std::string::npos);  // not committed

    SCOPED_TRACE("an uncommitted change in /etc/nms_report.uci");
    r = itest::run("uci -c /etc/nms_report -P /etc/nms_report.uci set event_params.5.level=6");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(get_event_level(5), 6);  // the save directory is replayed last
    r = itest::run("uci -c /etc/nms_report -P /etc/nms_report.uci set event_params.6.enable=off");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(get_event_enable(6), -1);

    SCOPED_TRACE("the deltas dropped again");
    ASSERT_EQ(unlink("/etc/nms_report.uci/event_params"), 0);
    EXPECT_EQ(get_event_level(5), 2);
    EXPECT_EQ(get_event_enable(6), 0);
    ASSERT_EQ(unlink("/tmp/.uci/event_params"), 0);
    EXPECT_EQ(get_event_level(5), 4);

    SCOPED_TRACE("a list where an option is expected");
    write_file(kParams, "config event '5'\n\tlist level '1'\n\toption enable 'on'\n");
    EXPECT_EQ(get_event_level(5), -1);
    EXPECT_EQ(get_event_enable(5), 0);

    SCOPED_TRACE("deleted: defaults again");
    ASSERT_EQ(unlink(kParams), 0);
    EXPECT_EQ(get_event_enable(5), -1);
    EXPECT_EQ(get_event_level(5), -1);
    EXPECT_EQ(get_event_list_id(5), 5);
    write_file(kParams, type_section(5, "on", 1));
    EXPECT_EQ(get_event_level(5), 1);
}

TEST(EventTypes, FailedReadsSayWhyOnEveryQuery)
{
    write_file(kParams, type_section(5, "on", 3));
    ASSERT_EQ(get_event_level(5), 3);  // loaded once before the switches go on

    SCOPED_TRACE("missing section and option, debug switch");
    log_debug_on.store(1);
    testing::internal::CaptureStdout();
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(get_event_level(13), -1);
        EXPECT_EQ(get_event_enable(13), -1);
    }
    EXPECT_EQ(get_event_report_now_attr(5), -1);
    std::string out = testing::internal::GetCapturedStdout();
    log_debug_on.store(0);
    auto count = [&out](const std::string &what) {
        size_t n = 0;
        for (size_t at = out.find(what); at != std::string::npos; at = out.find(what, at + 1))
            n++;
        return n;
    };
    EXPECT_EQ(count("Function is:getUciOptionSpecifyPath, Line is:"), 5u) << out;
    EXPECT_EQ(count(".find section(13) failed\n"), 4u) << out;
    EXPECT_EQ(count(".parse uci config file report_now failed\n"), 1u) << out;
    EXPECT_EQ(count("Function is:get_event_level, Line is:"), 2u) << out;
    EXPECT_EQ(count(".event level get failed.\n"), 4u) << out;

    SCOPED_TRACE("no package, error switch");
    ASSERT_EQ(unlink(kParams), 0);
    log_error_on.store(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(get_event_report_now_attr(5), -1);
    EXPECT_EQ(get_event_report_now_attr(5), -1);
    EXPECT_EQ(get_event_enable(5), -1);  // its own message is a debug one
    out = testing::internal::GetCapturedStdout();
    log_error_on.store(0);
    EXPECT_EQ(count("Function is:initConfigPackage, Line is:"), 3u) << out;
    EXPECT_EQ(count(".uci_load package[event_params] failed\n\n"), 3u) << out;
    EXPECT_EQ(count(".uciPkg is NULL!\n"), 3u) << out;
    EXPECT_EQ(count(".is report right now info get failed.\n"), 2u) << out;
    EXPECT_EQ(count("event level get failed."), 0u) << out;

    SCOPED_TRACE("switches off: silent, same answers");
    testing::internal::CaptureStdout();
    EXPECT_EQ(get_event_report_now_attr(5), -1);
    EXPECT_EQ(get_event_level(13), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(EventTypes, ConcurrentQueriesWhileThePackageIsReplaced)
{
    write_file(kParams, type_section(1, "on", 0));
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; t++) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                int level = get_event_level(1);
                if (level < 0 || level > 7)
                    bad.fetch_add(1);
                get_event_enable(1);
            }
        });
    }
    for (int round = 1; round <= 60; round++)
        replace_params(type_section(1, round % 2 ? "off" : "on", round % 8));
    stop.store(true);
    for (std::thread &t : readers)
        t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(get_event_level(1), 60 % 8);
    EXPECT_EQ(get_event_enable(1), 0);
}

TEST(StatisticsSettings, ParamBufferTime)
{
    write_file("/etc/nms_report/stats_report",
               "config stats 'negative'\n\toption param_buffer_time '-30'\n"
               "config stats 'zero'\n\toption param_buffer_time '0'\n"
               "config stats 'text'\n\toption param_buffer_time 'abc'\n"
               "config stats 'set'\n\toption param_buffer_time '120'\n");
    EXPECT_EQ(get_statistics_params_timebuff("negative"), -30);
    EXPECT_EQ(get_statistics_params_timebuff("zero"), 0);
    EXPECT_EQ(get_statistics_params_timebuff("text"), 0);
    EXPECT_EQ(get_statistics_params_timebuff("set"), 120);
    EXPECT_EQ(get_statistics_params_timebuff("missing"), 600);
    EXPECT_EQ(get_statistics_params_timebuff(nullptr), 600);
}

TEST(SystemConfig, ReadsFromEtcConfig)
{
    char buf[16];
    ASSERT_EQ(getUciOption("device_info", "info", "device_type", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "AP");
    ASSERT_EQ(getUciOption("device_info", "info", "device_name", buf, 4), 0);
    EXPECT_STREQ(buf, "san");

    write_file("/etc/config/lists", "config x 's'\n\tlist item 'a'\n");
    log_error_on.store(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(getUciOption("lists", "s", "item", buf, sizeof buf), -1);
    EXPECT_EQ(getUciOption("device_info", "none", "device_type", buf, sizeof buf), -1);
    std::string out = testing::internal::GetCapturedStdout();
    log_error_on.store(0);
    EXPECT_NE(out.find(".parse uci config file  failed\n"), std::string::npos) << out;
    EXPECT_NE(out.find(".find section failed\n"), std::string::npos) << out;
}
