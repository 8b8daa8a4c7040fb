// nms_log_test.cpp - log macros, switches and set_debug_output.
#include "nms_log.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

std::string read_file(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

// Keeps the test's own stdout/stderr and the switches, and puts them back.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_[0] = log_error_on.load();
        saved_[1] = log_trace_on.load();
        saved_[2] = log_debug_on.load();
        fflush(stdout);
        out_ = dup(STDOUT_FILENO);
        err_ = dup(STDERR_FILENO);
        mkdir(NMS_TEST_TMPDIR, 0755);
        path_ = std::string(NMS_TEST_TMPDIR) + "/console." + std::to_string(getpid());
        std::ofstream(path_, std::ios::trunc) << "earlier\n";
    }
    void TearDown() override
    {
        fflush(stdout);
        dup2(out_, STDOUT_FILENO);
        dup2(err_, STDERR_FILENO);
        close(out_);
        close(err_);
        set(saved_[0], saved_[1], saved_[2]);
        unlink(path_.c_str());
    }
    static void set(int error, int trace, int debug)
    {
        log_error_on.store(error);
        log_trace_on.store(trace);
        log_debug_on.store(debug);
    }
    static bool is(int error, int trace, int debug)
    {
        return log_error_on.load() == error && log_trace_on.load() == trace &&
               log_debug_on.load() == debug;
    }

    std::string path_;

private:
    int saved_[3] = {};
    int out_ = -1, err_ = -1;
};

void report_value(int v)
{
    NMS_LOG_ERROR("value %d", v);
}

void report_fixed_line()
{
    NMS_LOG_ERROR_AT(140, "%s\n", "create thread(cloudMngtRegThread) failed!");
}

}  // namespace

TEST_F(LogTest, PrintsPrefixMessageAndNewlineOnlyWhileSwitchedOn)
{
    set(1, 0, 0);
    int evaluated = 0;
    testing::internal::CaptureStdout();
    report_value(42);
    report_fixed_line();
    NMS_LOG_DEBUG("%d", ++evaluated);
    NMS_LOG_TRACE("%d", ++evaluated);
    std::string out = testing::internal::GetCapturedStdout();

    // The caller's function and source line, the message right after the prefix;
    // a fixed line replaces the source line, and a message's own newline is
    // followed by the writer's.
    EXPECT_EQ(out.rfind("Function is:report_value, Line is:", 0), 0u) << out;
    EXPECT_NE(out.find(".value 42\nFunction is:report_fixed_line, Line is:140."
                       "create thread(cloudMngtRegThread) failed!\n\n"),
              std::string::npos)
        << out;
    // A level that is off neither prints nor evaluates its arguments.
    EXPECT_EQ(evaluated, 0);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3) << out;
}

TEST_F(LogTest, LevelsSetExactlyOneSwitchEvenWhenThePathFails)
{
    // Each level turns on its one switch (none from 3 up, errors below 1).
    const struct {
        int level, error, trace, debug;
    } levels[] = {{-7, 1, 0, 0}, {0, 1, 0, 0}, {1, 0, 1, 0},
                  {2, 0, 0, 1},  {3, 0, 0, 0}, {100, 0, 0, 0}};
    for (const auto &l : levels) {
        set(1, 1, 1);
        set_debug_output("/nonexistent-nms-dir/console", l.level);
        EXPECT_TRUE(is(l.error, l.trace, l.debug)) << "level " << l.level;
    }

    set(0, 1, 1);
    set_debug_output(nullptr, 0);
    EXPECT_TRUE(is(0, 1, 1)) << "a null path changes nothing";
}

TEST_F(LogTest, RedirectsBothStreamsUnbufferedAndAppends)
{
    set_debug_output(path_.c_str(), 2);
    NMS_LOG_DEBUG("to the file");
    NMS_LOG_ERROR("not at level 2");
    fputs("stderr too\n", stderr);
    // No flush: both streams are unbuffered now.
    std::string text = read_file(path_);
    EXPECT_EQ(text.rfind("earlier\nFunction is:", 0), 0u) << text;
    EXPECT_NE(text.find(".to the file\nstderr too\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("not at level 2"), std::string::npos) << text;
}

TEST_F(LogTest, ConcurrentMessagesDoNotInterleave)
{
    set_debug_output(path_.c_str(), 1);
    constexpr int kLines = 300;
    auto writer = [](char tag) {
        for (int i = 0; i < kLines; i++)
            NMS_LOG_TRACE("%c%05d%s", tag, i, "-----------------------------------");
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join();
    b.join();

    std::istringstream in(read_file(path_));
    std::string line;
    std::getline(in, line);  // "earlier"
    int count = 0;
    while (std::getline(in, line)) {
        ASSERT_EQ(line.rfind("Function is:", 0), 0u) << line;
        ASSERT_EQ(line.size() - line.find('.') - 1, 41u) << line;
        count++;
    }
    EXPECT_EQ(count, 2 * kLines);
}
