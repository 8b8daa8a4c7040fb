// udbg_crash_test.cpp - the backtrace print and the deadlock watch, one round at a
// time (the watch thread itself only adds a 10-second sleep between rounds).
#include "udbg_crash.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

#include "uac_lock.h"
#include "uac_thread.h"
#include "udbg.h"

namespace {

// Sends standard output to a file of the build tree for a while, so that what signal
// handlers on other threads print can be read back as it arrives.
class StdoutToFile {
public:
    explicit StdoutToFile(const std::string &path) : path_(path)
    {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    ~StdoutToFile()
    {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        unlink(path_.c_str());
    }
    std::string text() const
    {
        fflush(stdout);
        std::ifstream f(path_);
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }

private:
    std::string path_;
    int saved_;
};

template <typename Pred> bool wait_for(Pred pred)
{
    for (int i = 0; i < 1000; i++) {
        if (pred())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

size_t count(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

uac_mutex_t *g_a, *g_b;
std::atomic<int> g_holding{0};

// Takes `first`, waits until the other thread holds its own, then takes `second`.
void *take_both(uac_mutex_t *first, uac_mutex_t *second)
{
    uac_mutex_take(first, UAC_WAIT_FOREVER);
    g_holding.fetch_add(1);
    while (g_holding.load() < 2)
        usleep(1000);
    uac_mutex_take(second, UAC_WAIT_FOREVER);   // never returns
    return nullptr;
}
void *thread_a(void *) { return take_both(g_a, g_b); }
void *thread_b(void *) { return take_both(g_b, g_a); }

std::atomic<int> g_pending{0};
void count_pending(uac_thread_t *t)
{
    if (t->ck.load() != nullptr)
        g_pending.fetch_add(1);
}

}  // namespace

TEST(UdbgBacktrace, PrintsTheFramesOfTheCallingThread)
{
    StdoutToFile out("udbg_backtrace.out");
    udbg_backtrace_print();
    std::string text = out.text();
    std::smatch m;
    ASSERT_TRUE(std::regex_search(text, m, std::regex("^Obtained ([0-9]+) stack frames:\n")));
    int frames = std::stoi(m[1]);
    EXPECT_GT(frames, 1);
    EXPECT_LE(frames, 32);
    EXPECT_EQ(count(text, "\n  "), static_cast<size_t>(frames));
    EXPECT_EQ(text.find("()"), std::string::npos) << "the first \"()\" of a frame reads \"--\"";
}

TEST(UdbgDeadlock, TwoThreadsStuckOnEachOthersMutexAreReportedOnTheSecondRound)
{
    uac_lock_module_init();
    uac_thread_module_init();
    ASSERT_EQ(udbg_crash_init(), 0);
    udbg_trace_on.store(0);   // no trace file outside a device
    udbg_signals_install();
    // Only the backtrace handler is wanted here: a crash must still fail the test.
    signal(SIGSEGV, SIG_DFL);
    signal(SIGBUS, SIG_DFL);

    g_a = uac_mutex_create("gDeadlockTestA", UAC_MUTEX_NORMAL);
    g_b = uac_mutex_create("gDeadlockTestB", UAC_MUTEX_NORMAL);
    pthread_t ta, tb;
    ASSERT_EQ(uac_thread_create(&ta, "dl_test_a", thread_a, nullptr), 0);
    ASSERT_EQ(uac_thread_create(&tb, "dl_test_b", thread_b, nullptr), 0);
    ASSERT_TRUE(wait_for([] {
        g_pending.store(0);
        uac_thread_foreach(count_pending);
        return g_pending.load() == 2;
    }));

    StdoutToFile out("udbg_deadlock.out");
    SCOPED_TRACE("first round: only notes what each thread waits on");
    EXPECT_EQ(udbg_deadlock_round(), 0);
    EXPECT_EQ(out.text(), "");

    SCOPED_TRACE("second round: the same wait, unchanged, is reported");
    EXPECT_EQ(udbg_deadlock_round(), 2);
    std::string text = out.text();
    EXPECT_EQ(count(text, "\n===================Warning: Possible Deadlock Detected=================="
                          "\n"),
              1u);
    char line[256];
    snprintf(line, sizeof line, "Thread \"dl_test_a\" pend due to take Mutex [\"gDeadlockTestB\", "
             "owner=%p]\n", reinterpret_cast<void *>(tb));
    EXPECT_NE(text.find(line), std::string::npos) << text;
    snprintf(line, sizeof line, "Thread \"dl_test_b\" pend due to take Mutex [\"gDeadlockTestA\", "
             "owner=%p]\n", reinterpret_cast<void *>(ta));
    EXPECT_NE(text.find(line), std::string::npos) << text;
    EXPECT_NE(text.find("\n======>>The threads stack frame as follow:\n"), std::string::npos);

    SCOPED_TRACE("each suspect prints its own thread line and backtrace");
    EXPECT_TRUE(wait_for([&] { return count(out.text(), "stack frames:\n") == 2; })) << out.text();
    text = out.text();
    EXPECT_EQ(count(text, "\n" + std::string(69, '*') + "\n"), 2u);
    EXPECT_TRUE(std::regex_search(text, std::regex("Thread name: \\[dl_test_a\\], tid: \\[0x[0-9a-f]+"
                                                   "\\], real pid: \\[[0-9]+\\]\n")));
    EXPECT_TRUE(std::regex_search(text, std::regex("Thread name: \\[dl_test_b\\]")));
    udbg_trace_on.store(1);
}
