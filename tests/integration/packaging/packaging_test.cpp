// packaging_test.cpp - the callback scripts the daemon runs at start-up and on the
// cloud client's notifications, on a device with the daemon running.
#include "itest.h"

#include <gtest/gtest.h>

using itest::run;

namespace {
const char *kRegInit = "lua /usr/lib/lua/nms_report/nms_report_reg_init.lua";
const char *kCall = "lua /usr/lib/lua/nms_report/nms_report_call.lua";
const char *kRecord = "/tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg";
}  // namespace

TEST(Packaging, StartUpLeavesTheConsoleQuiet)
{
    // Start-up runs the registration script about 2 s after the bus thread starts and
    // registers its callbacks with the cloud client 2 s later; once those have arrived
    // every start-up command has run, and none of them may have printed.
    ASSERT_TRUE(itest::wait_until(
        [] {
            auto s = run("ubus call cloudclient get_status");
            return s.output.find("report_update_intelligent") != std::string::npos;
        },
        std::chrono::seconds(15)));
    EXPECT_EQ(itest::console(), "");
}

TEST(Packaging, RegInitRegistersTheConfiguredParameters)
{
    itest::write_file("/etc/nms_report/stats_report",
                      "\nconfig stats 'uptime'\n"
                      "\toption param_buffer_time '5'\n"
                      "\toption get_cb 'nms_stats_uptime'\n"
                      "\toption success_cb 'nms_stats_success uptime'\n"
                      "\nconfig stats 'only_period'\n"
                      "\toption param_buffer_time '30'\n"
                      "\nconfig stats 'odd'\n"
                      "\toption get_cb 'echo \"it'\\''s\"'\n");
    auto r = run(kRegInit);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, "");

    std::string rec = itest::read_file(kRecord);
    EXPECT_NE(rec.find("config nms_report_stat_cb 'uptime'"), std::string::npos) << rec;
    EXPECT_NE(rec.find("option get_cb 'nms_stats_uptime'"), std::string::npos) << rec;
    EXPECT_NE(rec.find("option success_cb 'nms_stats_success uptime'"), std::string::npos);
    SCOPED_TRACE("a section without get_cb is a period setting only");
    EXPECT_EQ(rec.find("only_period"), std::string::npos) << rec;
    SCOPED_TRACE("quotes survive the trip through uci, JSON and the bus");
    EXPECT_EQ(run("uci -q -c /tmp/nms_stats_report_cfg get nms_report_stat_cb_cfg.odd.get_cb").output,
              "echo \"it's\"\n");
}

TEST(Packaging, CallScriptAsksForAParameterReport)
{
    // Unknown or missing actions do nothing and print nothing.
    EXPECT_EQ(run(std::string(kCall)).output, "");
    EXPECT_EQ(run(std::string(kCall) + " no_such_action").output, "");
    auto r = run(std::string(kCall) + " report_basic");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, "");
}
