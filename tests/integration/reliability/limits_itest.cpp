// limits_itest.cpp - the daemon at the kernel's and the bus's limits: 32 file descriptors,
// 200 bus clients at once, and a broker that dies and never comes back.
#include "itest.h"
#include "itest_proc.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using itest::read_file;
using itest::run;

namespace {

pid_t start_daemon(const std::string &prefix)
{
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");
    auto r = run("(" + prefix + " exec /usr/sbin/nms_report >/tmp/nms_report.out 2>&1) & "
                 "sleep 0.3; pidof nms_report");
    if (r.status != 0)
        return -1;
    pid_t pid = std::stoi(r.output);
    if (!itest::wait_until([] { return run("ubus list nms_report_cache").status == 0; }, 20s))
        return -1;
    return pid;
}

bool reported(const std::string &marker)
{
    return run("curl -s 'http://127.0.0.1:8480/api/reports?limit=100000'").output.find(marker) !=
           std::string::npos;
}

}  // namespace

TEST(Limits, ThirtyTwoDescriptorsAndTwoHundredBusClientsAtOnce)
{
    const pid_t pid = start_daemon("ulimit -n 32;");
    ASSERT_GT(pid, 0) << read_file("/tmp/nms_report.out");
    std::this_thread::sleep_for(5s);  // start-up's last thread
    const int fds = itest::open_fds(pid);
    EXPECT_LE(fds, 20) << "descriptors at rest";

    auto r = run("for i in $(seq 200); do ubus call nms_report_cache print_params_timer "
                 ">/dev/null 2>>/tmp/calls.err & s=\"$s $!\"; done; wait $s");
    EXPECT_EQ(read_file("/tmp/calls.err"), "") << "every one of the 200 calls answered";
    EXPECT_TRUE(itest::alive(pid));

    SCOPED_TRACE("still reporting, with the commands and the send that need descriptors");
    ASSERT_EQ(run("ubus call nms_report_cache begin_report").status, 0);
    ASSERT_EQ(run("nms_event_send -l 0 100 '{\"mark\":\"fd32\"}'").status, 0);
    EXPECT_TRUE(itest::wait_until([] { return reported("fd32"); }, 15s));
    EXPECT_LE(itest::open_fds(pid), fds + 2) << "no descriptor leaked";
}

TEST(Limits, ABrokerThatNeverComesBackCostsNoProcessorTime)
{
    const pid_t pid = start_daemon("");
    ASSERT_GT(pid, 0) << read_file("/tmp/nms_report.out");
    ASSERT_EQ(run("ubus call nms_report_cache begin_report").status, 0);
    std::this_thread::sleep_for(5s);
    const long threads0 = itest::status_field(pid, "Threads"), fds0 = itest::open_fds(pid);
    ASSERT_EQ(run("kill $(pidof ubusd)").status, 0);
    std::this_thread::sleep_for(1s);
    const long before = itest::cpu_ticks(pid);
    std::this_thread::sleep_for(60s);
    const long used = itest::cpu_ticks(pid) - before;
    // Idle is a few ticks a minute: the scan each second and a reconnect try now and then.
    EXPECT_LT(static_cast<double>(used) / sysconf(_SC_CLK_TCK), 0.6 * itest::emulation_factor())
        << "processor seconds in 60 s";
    EXPECT_TRUE(itest::alive(pid)) << read_file("/tmp/nms_report.out") << itest::console();
    EXPECT_EQ(itest::status_field(pid, "Threads"), threads0);
    EXPECT_LE(itest::open_fds(pid), fds0);

    SCOPED_TRACE("events still arrive and are kept");
    ASSERT_EQ(run("nms_event_send -l 7 107 '{\"mark\":\"nobus\"}'").status, 0);
    EXPECT_TRUE(itest::wait_until([] {
        return run("nms_dbg 'get_list_total_node(7)'").output.find("return 1(") != std::string::npos;
    }));
}
