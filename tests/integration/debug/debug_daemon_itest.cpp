// debug_daemon_itest.cpp - the debug shell of the running daemon, reached with nms_dbg
// in a sandbox where the simulated device and cloud run beside it.
#include "itest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>

using itest::run;

namespace {

std::string dbg(const std::string &cmd)
{
    auto r = run("nms_dbg '" + cmd + "'");
    EXPECT_EQ(r.status, 0) << r.output;
    return r.output;
}

}  // namespace

TEST(DaemonDebugShell, CliCallsTheDaemonByName)
{
    ASSERT_TRUE(itest::wait_until(
        [] { return itest::file_exists("/tmp/jcs.service.srv.nms_report"); },
        std::chrono::seconds(20)));
    ASSERT_TRUE(itest::file_exists("/usr/sbin/nms_report_symbol_fun"));
    ASSERT_TRUE(itest::file_exists("/usr/sbin/nms_report_symbol_obj"));

    SCOPED_TRACE("a function of the daemon, called by name: the help list");
    std::string help = dbg("help()");
    EXPECT_NE(help.find("help()                            -- print help information for ** dbg "
                        "** module \n\r"),
              std::string::npos)
        << help;
    EXPECT_NE(help.find("nms_event_debug_help()            -- print help information for ** "
                        "nms_event ** module \n\r"),
              std::string::npos)
        << help;

    SCOPED_TRACE("a 4-byte switch of the daemon: read, set, read back through a getter, restore");
    const std::regex read0("\n Variable \\[event_stats_print_on\\] : addr = 0x[0-9a-f]+, "
                           "value = 0\\(0x0\\)\n");
    EXPECT_TRUE(std::regex_match(dbg("event_stats_print_on"), read0));
    EXPECT_EQ(dbg("event_stats_print_on = 1"), "\n Set variable event_stats_print_on = 1 (0x1)\n");
    EXPECT_NE(dbg("event_stats_print_on").find("value = 1(0x1)"), std::string::npos);
    EXPECT_EQ(dbg("get_event_stats_print_on()"),
              "\n Execute get_event_stats_print_on() return 1(0x1)\n");
    // A function with an argument (it returns nothing, so its printed result means
    // nothing); its effect shows in the variable.
    EXPECT_NE(dbg("set_event_stats_print_on(0)").find("\n Execute set_event_stats_print_on() return "),
              std::string::npos);
    EXPECT_TRUE(std::regex_match(dbg("event_stats_print_on"), read0));

    SCOPED_TRACE("the example service answers plain requests");
    auto r = run("jcs_call nms_report example 0 '{\"count\":2,\"names\":[\"a\"]}'");
    EXPECT_EQ(r.output, "{\"result\":0,\"read\":2}\n");

    SCOPED_TRACE("the daemon's output is back on its console afterwards");
    run("nms_dbg -n 'help()'");
    EXPECT_TRUE(itest::wait_until(
        [] { return itest::console().find("** dbg ** module") != std::string::npos; }));
}

// Every thread of the daemon runs on the 64 KiB stack uac_thread_create gives it. After the
// work of a device's day (events on every list, batches to the cloud, the bus object's
// listings, the statistics the start-up registers, the debug shell itself), each has used at most three
// quarters of it: on the musl targets too, where a thread's default stack is small.
TEST(DaemonDebugShell, EveryThreadHasStackToSpareAfterWork)
{
    ASSERT_TRUE(itest::wait_until(
        [] { return itest::file_exists("/tmp/jcs.service.srv.nms_report"); },
        std::chrono::seconds(20)));
    std::string types;
    for (int list = 0; list < 8; list++)
        types += "config event '" + std::to_string(701 + list) + "'\n\toption enable 'on'\n"
                 "\toption level '" + std::to_string(list) + "'\n";
    itest::write_file("/etc/nms_report/event_params", types);
    for (int list = 0; list < 8; list++)
        EXPECT_EQ(run("nms_event_send -n 50 " + std::to_string(701 + list) +
                      " '{\"radio\":\"5g\",\"clients\":[1,2,3],\"note\":\"stack\"}'")
                      .status,
                  0);
    for (int list = 0; list < 8; list++)
        run("ubus call nms_report_cache flush_event_report '{\"list_id\":" + std::to_string(list) +
            "}'");
    run("ubus call nms_report_cache get_statistics_parms_reg '{\"cb\":\"printf rssi,noise,\"}'");
    for (const char *method : {"print_list", "print_params_timer", "get_statistics_parms_list",
                               "get_event_list"})
        run(std::string("ubus call nms_report_cache ") + method);
    std::this_thread::sleep_for(std::chrono::seconds(3 * itest::emulation_factor()));

    std::string report = dbg("uac_thread_stack_report()");
    const std::regex line("Thread \"([^\"]*)\": stack ([0-9]+) of ([0-9]+) bytes used\n");
    int threads = 0;
    for (std::sregex_iterator it(report.begin(), report.end(), line), end; it != end; ++it) {
        const long used = std::stol((*it)[2]), size = std::stol((*it)[3]);
        EXPECT_LE(used * 4, size * 3) << (*it)[1] << ": " << used << " of " << size;
        threads++;
    }
    EXPECT_GE(threads, 20) << report;
    EXPECT_EQ(report.find("stack unknown"), std::string::npos) << report;
}
