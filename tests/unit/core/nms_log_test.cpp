// nms_log_test.cpp - log macros, switches and set_debug_output.
#include "nms_log.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

struct Switches {
    int error, trace, debug;
};

Switches switches()
{
    return {log_error_on.load(), log_trace_on.load(), log_debug_on.load()};
}

void set_switches(Switches s)
{
    log_error_on.store(s.error);
    log_trace_on.store(s.trace);
    log_debug_on.store(s.debug);
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::string scratch_file(const char *name)
{
    mkdir(NMS_TEST_TMPDIR, 0755);
    return std::string(NMS_TEST_TMPDIR) + "/" + name + "." + std::to_string(getpid());
}

// Keeps the test's own stdout/stderr and the switches, and puts them back.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_ = switches();
        fflush(stdout);
        fflush(stderr);
        out_ = dup(STDOUT_FILENO);
        err_ = dup(STDERR_FILENO);
    }
    void TearDown() override
    {
        fflush(stdout);
        fflush(stderr);
        dup2(out_, STDOUT_FILENO);
        dup2(err_, STDERR_FILENO);
        close(out_);
        close(err_);
        set_switches(saved_);
    }

private:
    Switches saved_{};
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

TEST_F(LogTest, PrintsPrefixMessageAndNewline)
{
    set_switches({1, 0, 0});
    testing::internal::CaptureStdout();
    report_value(42);
    report_fixed_line();
    std::string out = testing::internal::GetCapturedStdout();

    // The caller's function and source line, no blank before the message.
    std::string expect_first = "Function is:report_value, Line is:";
    ASSERT_EQ(out.compare(0, expect_first.size(), expect_first), 0) << out;
    EXPECT_NE(out.find(".value 42\n"), std::string::npos) << out;
    // A fixed line number replaces the source line; a message ending in its own
    // newline gets the writer's newline as well.
    EXPECT_NE(out.find("Function is:report_fixed_line, Line is:140."
                       "create thread(cloudMngtRegThread) failed!\n\n"),
              std::string::npos)
        << out;
}

TEST_F(LogTest, SwitchedOffLevelsPrintAndEvaluateNothing)
{
    set_switches({0, 1, 0});
    int evaluated = 0;
    testing::internal::CaptureStdout();
    NMS_LOG_ERROR("%d", ++evaluated);
    NMS_LOG_DEBUG("%d", ++evaluated);
    NMS_LOG_TRACE("trace %s", "on");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(evaluated, 0);
    EXPECT_NE(out.find(".trace on\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("Function is:", 1), std::string::npos) << "one line only: " << out;
}

TEST_F(LogTest, LevelsSetExactlyOneSwitch)
{
    // The path cannot be opened: streams stay, switches still change.
    const char *bad = "/nonexistent-nms-dir/console";
    struct Case {
        int level;
        Switches expect;
    } cases[] = {
        {-7, {1, 0, 0}}, {0, {1, 0, 0}}, {1, {0, 1, 0}},
        {2, {0, 0, 1}},  {3, {0, 0, 0}}, {10, {0, 0, 0}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE("level " + std::to_string(c.level));
        set_switches({1, 1, 1});
        set_debug_output(bad, c.level);
        Switches s = switches();
        EXPECT_EQ(s.error, c.expect.error);
        EXPECT_EQ(s.trace, c.expect.trace);
        EXPECT_EQ(s.debug, c.expect.debug);
    }

    SCOPED_TRACE("a null path changes nothing");
    set_switches({0, 1, 1});
    set_debug_output(nullptr, 0);
    Switches s = switches();
    EXPECT_EQ(s.error, 0);
    EXPECT_EQ(s.trace, 1);
    EXPECT_EQ(s.debug, 1);
}

TEST_F(LogTest, RedirectsBothStreamsAndAppends)
{
    std::string path = scratch_file("console");
    {
        std::ofstream f(path, std::ios::trunc);
        f << "earlier\n";
    }
    set_debug_output(path.c_str(), 2);
    NMS_LOG_DEBUG("to the file");
    NMS_LOG_ERROR("not at level 2");
    fputs("stderr too\n", stderr);
    // Unbuffered now: everything is in the file without a flush.
    std::string text = read_file(path);
    unlink(path.c_str());

    EXPECT_EQ(text.rfind("earlier\nFunction is:", 0), 0u) << text;
    EXPECT_NE(text.find(".to the file\nstderr too\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("not at level 2"), std::string::npos) << text;
}

TEST_F(LogTest, ConcurrentMessagesDoNotInterleave)
{
    std::string path = scratch_file("lines");
    { std::ofstream f(path, std::ios::trunc); }
    set_debug_output(path.c_str(), 1);
    constexpr int kLines = 300;
    auto writer = [](char tag) {
        for (int i = 0; i < kLines; i++)
            NMS_LOG_TRACE("%c%05d%s", tag, i, "-----------------------------------");
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join();
    b.join();
    std::string text = read_file(path);
    unlink(path.c_str());

    std::istringstream in(text);
    std::string line;
    int count = 0;
    while (std::getline(in, line)) {
        SCOPED_TRACE(line);
        ASSERT_EQ(line.rfind("Function is:", 0), 0u);
        ASSERT_EQ(line.size() - line.find('.') - 1, 6u + 35u);
        count++;
    }
    EXPECT_EQ(count, 2 * kLines);
}
