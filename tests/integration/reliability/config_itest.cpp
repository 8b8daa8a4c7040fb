// config_itest.cpp - damaged settings files (garbage, binary bytes, broken quoting, missing
// sections, values out of range or huge, a megabyte of junk) in each of the daemon's UCI
// packages, reloaded with update_report_cfg while events flow: the defaults apply, nothing
// crashes, and the daemon reports on once the files are whole again.
#include "itest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using itest::read_file;
using itest::run;

namespace {

int dbg_int(const std::string &call)
{
    auto r = run("nms_dbg '" + call + "'");
    std::smatch m;
    if (!std::regex_search(r.output, m, std::regex("return (-?[0-9]+)\\(")))
        return -99999;
    return std::stoi(m[1]);
}

bool alive()
{
    return run("kill -0 $(pidof nms_report) && ubus call nms_report_cache print_params_timer")
               .status == 0;
}

}  // namespace

TEST(DamagedSettings, DefaultsApplyAndNothingCrashesWhileEventsFlow)
{
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");
    ASSERT_EQ(run("/usr/sbin/nms_report >/tmp/nms_report.out 2>&1 &").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return run("ubus list nms_report_cache").status == 0; }, 20s));
    ASSERT_EQ(run("ubus call nms_report_cache begin_report").status, 0);
    run("sh -c 'i=0; while [ ! -e /tmp/stop ]; do i=$((i+1)); nms_event_send -l 0 100 "
        "\"{\\\"n\\\":$i}\"; nms_event_send -l 3 103 \"{\\\"n\\\":$i}\"; sleep 0.1; done' "
        ">/dev/null 2>&1 &");

    const std::string junk = [] {
        std::string j;
        for (int i = 0; i < 20000; i++)
            j += "option 'x" + std::to_string(i) + "' \"unterminated\n\tconfig\n";
        return j;
    }();
    static const char kBinary[] = "\x7f" "ELF\x01\x02\x00\xff\xfe config event_queue";
    const struct {
        const char *name;
        std::string text;
    } damages[] = {
        {"binary bytes", std::string(kBinary, sizeof kBinary - 1)},
        {"broken quoting", "config event_queue 'event_queue_3\n\toption buffer_time \"5\n"},
        {"options outside any section", "\toption buffer_time '5'\n\toption level '3'\n"},
        {"sections without a type or name", "config\nconfig ''\nconfig stats\n"},
        {"values out of range or huge",
         "config event_queue 'event_queue_3'\n\toption buffer_time '-5'\n"
         "\toption buffer_size '99999999999999999999999'\n\toption buffer_full_processing 'x'\n"
         "config stats 'uptime'\n\toption param_buffer_time '99999999999999999999'\n"
         "config event '100'\n\toption enable 'maybe'\n\toption level '99'\n"},
        {"a megabyte of junk", junk},
        {"empty", ""},
    };
    for (const auto &d : damages) {
        SCOPED_TRACE(d.name);
        for (const char *pkg : {"event_report", "event_params", "stats_report"})
            itest::write_file(std::string("/etc/nms_report/") + pkg, d.text);
        EXPECT_EQ(run("ubus call nms_report_cache update_report_cfg '{\"type\":\"event_list\"}'")
                      .status,
                  0);
        run("ubus call nms_report_cache statistics_parms_reg "
            "'{\"type\":\"uptime\",\"get_cb\":\"echo 1\",\"success_cb\":\"true\"}'");
        std::this_thread::sleep_for(500ms);
        ASSERT_TRUE(alive()) << read_file("/tmp/nms_report.out");
        // Nothing usable in the files: list 3 waits its default 600 s.
        if (std::string(d.name) != "values out of range or huge") {
            EXPECT_EQ(dbg_int("get_event_list_buf_time(3)"), 600);
        }
    }

    SCOPED_TRACE("whole files again: the settings and the reports are back");
    itest::write_file("/etc/nms_report/event_report",
                      "\nconfig event_queue 'event_queue_3'\n\toption buffer_time '2'\n"
                      "\toption buffer_size '50'\n\toption buffer_full_processing '1'\n");
    itest::write_file("/etc/nms_report/event_params", "");
    itest::write_file("/etc/nms_report/stats_report", "");
    ASSERT_EQ(run("ubus call nms_report_cache update_report_cfg '{\"type\":\"event_list\"}'").status,
              0);
    EXPECT_EQ(dbg_int("get_event_list_buf_time(3)"), 2);
    run("curl -s -X DELETE http://127.0.0.1:8480/api/reports");
    EXPECT_TRUE(itest::wait_until([] {
        return run("curl -s 'http://127.0.0.1:8480/api/reports?limit=1000'").output.find(
                   "\\\"typeId\\\":\\\"103\\\"") != std::string::npos;
    }, 15s));
    itest::write_file("/tmp/stop", "");
    EXPECT_TRUE(alive());
}
