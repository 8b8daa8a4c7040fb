// nms_cmd_test.cpp - commands run with a time limit: output, the bound on what is read, the
// limit killing the whole process group, and commands left running in the background.
#include "nms_cmd.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

struct LimitScope {
    explicit LimitScope(int sec) : saved(nms_cmd_timeout_sec.load()) { nms_cmd_timeout_sec = sec; }
    ~LimitScope() { nms_cmd_timeout_sec = saved; }
    int32_t saved;
};

bool alive(pid_t pid) { return kill(pid, 0) == 0; }

// The pid a command wrote into file, 0 when none.
pid_t pid_in(const std::string &file) {
    FILE *f = std::fopen(file.c_str(), "r");
    if (!f)
        return 0;
    int pid = 0;
    if (std::fscanf(f, "%d", &pid) != 1)
        pid = 0;
    std::fclose(f);
    return pid;
}

std::string scratch(const char *name) {
    return "/tmp/nms_cmd_test." + std::to_string(getpid()) + "." + name;
}

TEST(NmsCmd, ReadsOutputUpToTheBoundAndWaitsForTheShell) {
    char buf[64] = {};
    bool late = true;
    EXPECT_EQ(nms_cmd_read("printf 'hello'; exit 3", buf, sizeof(buf) - 1, &late), 5);
    EXPECT_STREQ(buf, "hello");
    EXPECT_FALSE(late);

    // Only size bytes are taken; a writer that goes on is ended by the closed pipe, not waited
    // for until the limit.
    char small[9] = {};
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(nms_cmd_read("yes abcd", small, 8, &late), 8);
    EXPECT_STREQ(small, "abcd\nabc");
    EXPECT_FALSE(late);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));

    EXPECT_EQ(nms_cmd_read(nullptr, buf, sizeof(buf), nullptr), -1);
}

TEST(NmsCmd, TheLimitKillsTheWholeGroupAndReturnsWhatCame) {
    LimitScope limit(1);
    const std::string pidfile = scratch("child");
    // The shell starts a child that would outlive it and never closes the pipe.
    const std::string cmd = "printf part; sleep 60 & echo $! > " + pidfile + "; wait";
    char buf[64] = {};
    bool late = false;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(nms_cmd_read(cmd.c_str(), buf, sizeof(buf) - 1, &late), 4);
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_TRUE(late);
    EXPECT_STREQ(buf, "part");
    EXPECT_LT(took, std::chrono::seconds(10));
    pid_t child = pid_in(pidfile);
    ASSERT_GT(child, 0);
    // Killed with its group; reaped by whoever adopted it, so wait for it to go.
    for (int i = 0; i < 100 && alive(child); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(alive(child));
    std::remove(pidfile.c_str());

    // A command that prints nothing and never ends: the same, through nms_cmd_run.
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(nms_cmd_run("sleep 60"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));
}

TEST(NmsCmd, BackgroundCommandsOfARunOutliveItAndMayPrint) {
    const std::string out = scratch("bg");
    // The success command text puts every command in the background; the run returns at once,
    // and a command that prints later does not die of a broken pipe.
    const std::string cmd = "(sleep 0.3; echo late; echo done > " + out + ") &\n";
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(nms_cmd_run(cmd.c_str()), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(250));
    for (int i = 0; i < 100 && access(out.c_str(), F_OK) != 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    FILE *f = std::fopen(out.c_str(), "r");
    ASSERT_NE(f, nullptr);
    char line[16] = {};
    ASSERT_NE(std::fgets(line, sizeof(line), f), nullptr);
    std::fclose(f);
    EXPECT_STREQ(line, "done\n");
    std::remove(out.c_str());
}

TEST(NmsCmd, CommandsStartWithNoSignalBlocked) {
    // The daemon blocks SIGALRM in every thread; commands must not inherit that.
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGALRM);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &block, nullptr), 0);
    char buf[128] = {};
    ASSERT_GT(nms_cmd_read("grep SigBlk /proc/self/status", buf, sizeof(buf) - 1), 0);
    pthread_sigmask(SIG_UNBLOCK, &block, nullptr);
    EXPECT_STREQ(buf, "SigBlk:\t0000000000000000\n");
}

}  // namespace
