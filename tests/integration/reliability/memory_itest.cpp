// memory_itest.cpp - the daemon with less address space than its eight lists need when full,
// as on a box with 64 MB: allocations fail under the flood, and the daemon must refuse with
// its texts (or replace, by policy), stay up, keep answering the bus, and recover when the
// lists are emptied.
#include "itest.h"
#include "itest_proc.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using itest::read_file;
using itest::run;

namespace {

class TightMemory : public testing::TestWithParam<int> {};

}  // namespace

TEST_P(TightMemory, AFloodBeyondTheLimitIsRefusedAndTheDaemonStaysUp)
{
#ifdef NMS_SANITIZED
    GTEST_SKIP() << "a sanitizer's runtime needs far more address space than a device has";
#endif
    if (itest::emulated())
        GTEST_SKIP() << "the emulator itself needs the address space a limit would take";
    const int policy = GetParam();
    std::string lists;
    for (int list = 0; list < 8; list++)
        lists += "\nconfig event_queue 'event_queue_" + std::to_string(list) +
                 "'\n\toption buffer_time '600'\n\toption buffer_size '6000'\n"
                 "\toption buffer_full_processing '" + std::to_string(policy) + "'\n";
    itest::write_file("/etc/nms_report/event_report", lists);
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");

    // 45 MB of address space: the daemon starts in about 26 MB and would need about 62 MB with
    // every list full of 400-byte events. One malloc arena, as musl has none per thread.
    auto r = run("(ulimit -v 45000; ulimit -c 0; MALLOC_ARENA_MAX=1 exec /usr/sbin/nms_report "
                 ">/tmp/nms_report.out 2>&1) & sleep 0.5; pidof nms_report");
    ASSERT_EQ(r.status, 0) << r.output;
    const pid_t pid = std::stoi(r.output);
    ASSERT_TRUE(itest::wait_until([] { return run("ubus list nms_report_cache").status == 0; }, 20s));
    ASSERT_EQ(run("ubus call nms_report_cache begin_report").status, 0);
    itest::write_file("/tmp/errors.log", "");  // opened, not created
    ASSERT_EQ(run("ubus call nms_report_cache start_debug "
                  "'{\"debug_dev\":\"/tmp/errors.log\",\"level\":0}'")
                  .status,
              0)
        << "error lines on";
    // Start-up ends about 4 s in (its last thread): a failure before that ends the daemon.
    std::this_thread::sleep_for(5s);

    const std::string params = "{\"p\":\"" + std::string(400, 'x') + "\"}";
    ASSERT_EQ(run("for l in 0 1 2 3 4 5 6 7; do timeout 60 nms_event_send -l $l -n 6500 10$l '" +
                  params + "' & s=\"$s $!\"; done; wait $s")
                  .status,
              0);
    std::this_thread::sleep_for(3s);

    EXPECT_TRUE(itest::alive(pid)) << read_file("/tmp/nms_report.out");
    EXPECT_LE(itest::status_field(pid, "VmSize"), 45000);
    EXPECT_EQ(run("ubus call nms_report_cache print_params_timer").status, 0)
        << "the bus still answers";
    const std::string errors = read_file("/tmp/errors.log");
    EXPECT_NE(errors.find("malloc error!!!"), std::string::npos)
        << "allocation failures are refused with their text: "
        << errors.substr(errors.size() > 2000 ? errors.size() - 2000 : 0);

    SCOPED_TRACE("emptied, the daemon takes events again");
    // Checked through print_list, which prints where start_debug sent the output: the heap
    // keeps its high-water mark of address space (glibc), so under this limit nothing that
    // starts a process (the debug shell's lookups, commands) works until the daemon starts
    // again.
    ASSERT_EQ(run("ubus call nms_report_cache clean_cache '{\"type\":\"all\"}'").status, 0);
    std::this_thread::sleep_for(1s);
    ASSERT_EQ(run("nms_event_send -l 7 107 '{\"after\":1}'").status, 0);
    EXPECT_TRUE(itest::wait_until([] {
        run("ubus call nms_report_cache print_list");
        return read_file("/tmp/errors.log").find("list:7 had 1 node") != std::string::npos;
    }));
    EXPECT_TRUE(itest::alive(pid));
}

INSTANTIATE_TEST_SUITE_P(Policies, TightMemory, testing::Values(1, 2));
