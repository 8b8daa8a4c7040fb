// debug_deadlock_itest.cpp - the deadlock watch of a running process: two threads
// stuck on each other's named mutex are reported within two rounds (about 10 s here,
// as the threads are stuck before the watch's first round).
#include "itest.h"

#include <gtest/gtest.h>

#include <string>

#include "debug_itest_util.h"

TEST(DeadlockWatch, ReportsTwoThreadsStuckOnEachOthersMutex)
{
    ASSERT_TRUE(dbgtest::start_testd("deadlock", "/tmp/testd.out"));
    // What the process printed: its own output until the first backtrace handler sent
    // it to the console, the console after that.
    auto printed = [] { return itest::read_file("/tmp/testd.out") + itest::console(); };
    const std::string stars = "\n" + std::string(69, '*') + "\n";
    auto count = [](const std::string &text, const std::string &what) {
        size_t n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            n++;
        return n;
    };
    ASSERT_TRUE(itest::wait_until([&] { return count(printed(), "stack frames:") >= 2; },
                                  std::chrono::seconds(25)))
        << printed();

    std::string out = printed();
    EXPECT_NE(out.find("\n===================Warning: Possible Deadlock Detected==================\n"),
              std::string::npos);
    EXPECT_NE(out.find("Thread \"itest_locker_a\" pend due to take Mutex [\"gItestMutexB\", owner=0x"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Thread \"itest_locker_b\" pend due to take Mutex [\"gItestMutexA\", owner=0x"),
              std::string::npos);
    EXPECT_NE(out.find("\n======>>The threads stack frame as follow:\n"), std::string::npos);
    EXPECT_EQ(count(out, stars), 2u);
    EXPECT_NE(out.find("Thread name: [itest_locker_a]"), std::string::npos);
    EXPECT_NE(out.find("Thread name: [itest_locker_b]"), std::string::npos);

    SCOPED_TRACE("each backtrace also went into the trace file");
    std::string trace = itest::read_file("/tmp/trace.log.udbg_testd");
    EXPECT_EQ(count(trace, stars), 2u) << trace;
    EXPECT_EQ(count(trace, "stack frames:"), 2u);
}
