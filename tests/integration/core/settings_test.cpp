// settings_test.cpp - event list and event type settings read from
// /etc/nms_report, and reads of the system configuration, on a sandboxed device.
#include "event_config.h"
#include "itest.h"
#include "nms_log.h"
#include "uci_access.h"

#include <gtest/gtest.h>

#include <string>
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
