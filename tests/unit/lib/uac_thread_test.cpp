// uac_thread_test.cpp - thread creation and naming, the registry and its pending marks,
// deadlines and clocks.
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "uac_lock.h"
#include "uac_thread.h"

namespace {

void wait_for(const std::atomic<bool> &flag) {
    while (!flag.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void *do_nothing(void *) { return nullptr; }

TEST(UacThread, CreateRefusesMissingInputs) {
    uac_thread_module_init();
    pthread_t tid;
    int a = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(uac_thread_create(nullptr, "t", do_nothing, &a), -1);
    EXPECT_EQ(uac_thread_create(&tid, nullptr, do_nothing, &a), -1);
    EXPECT_EQ(uac_thread_create(&tid, "t", nullptr, &a), -1);
    const std::string line = "[THREAD_ERR]uac_thread_create 175: inputs error.\r\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line + line);
}

// What a started thread sees of itself.
struct Seen {
    std::atomic<bool> done{false};
    std::string record_name;
    std::string kernel_name;
    bool pid_matches = false;
    bool tid_matches = false;
    pthread_t self{};
    void *arg = nullptr;
};

void *look_at_self(void *p) {
    auto *seen = static_cast<Seen *>(p);
    uac_thread_t *rec = uac_thread_pend_mark(nullptr);
    if (rec) {
        seen->record_name = rec->name;
        seen->pid_matches = rec->pid == static_cast<int32_t>(syscall(SYS_gettid));
        seen->tid_matches = pthread_equal(rec->tid, pthread_self()) != 0;
        seen->arg = rec->arg;
    }
    char comm[32] = {0};
    std::ifstream in("/proc/thread-self/comm");
    in.getline(comm, sizeof comm);
    seen->kernel_name = comm;
    seen->self = pthread_self();
    seen->done.store(true);
    return nullptr;
}

TEST(UacThread, NamesAreCutTo31AndTheKernelsTo15) {
    const std::string name = "a_forty_character_thread_name_0123456789";
    ASSERT_EQ(name.size(), 40u);
    Seen seen;
    pthread_t tid{};
    ASSERT_EQ(uac_thread_create(&tid, name.c_str(), look_at_self, &seen), 0);
    wait_for(seen.done);
    EXPECT_EQ(seen.record_name, name.substr(0, 31));
    EXPECT_EQ(seen.kernel_name, name.substr(0, 15));
    EXPECT_TRUE(seen.pid_matches);
    EXPECT_TRUE(seen.tid_matches);
    EXPECT_EQ(seen.arg, &seen);
    EXPECT_TRUE(pthread_equal(seen.self, tid));
}

TEST(UacThread, OtherThreadsHaveNoRecord) {
    uac_thread_module_init();
    EXPECT_EQ(uac_thread_pend_mark(nullptr), nullptr);
    uac_thread_t *rec = reinterpret_cast<uac_thread_t *>(1);
    std::thread([&] { rec = uac_thread_pend_mark(nullptr); }).join();
    EXPECT_EQ(rec, nullptr);
}

// Whether the calling thread is detached, as the thread library reports it.
int detach_state() {
    pthread_attr_t attr;
    int state = -1;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &state);
        pthread_attr_destroy(&attr);
    }
    return state;
}

struct Detach {
    int before = -1;
    int rc = -1;
    int after = -1;
    std::atomic<bool> done{false};
};

void *detach_body(void *p) {
    auto *d = static_cast<Detach *>(p);
    d->before = detach_state();
    d->rc = uac_thread_detach_self();
    d->after = detach_state();
    d->done.store(true);
    return nullptr;
}

// A body that detaches itself must not detach a thread the trampoline detached already: a
// second pthread_detach is EINVAL on glibc and a fault on musl, where this test runs too.
TEST(UacThread, ThreadsAreDetachedOnce) {
    uac_thread_module_init();
    Detach started;
    pthread_t tid;
    ASSERT_EQ(uac_thread_create(&tid, "detach_once", detach_body, &started), 0);
    wait_for(started.done);
    EXPECT_EQ(started.before, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(started.rc, 0);
    EXPECT_EQ(started.after, PTHREAD_CREATE_DETACHED);

    SCOPED_TRACE("a joinable thread of another creator is detached by the body");
    Detach plain;
    pthread_t other;
    ASSERT_EQ(pthread_create(&other, nullptr, detach_body, &plain), 0);
    wait_for(plain.done);
    EXPECT_EQ(plain.before, PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(plain.rc, 0);
    EXPECT_EQ(plain.after, PTHREAD_CREATE_DETACHED);
}

// Touches about `bytes` of the calling thread's stack below this frame.
__attribute__((noinline)) void touch_stack(size_t bytes) {
    volatile char area[32 * 1024];
    for (size_t i = 0; i < bytes && i < sizeof area; i += 256)
        area[sizeof area - 1 - i] = static_cast<char>(i);
}

struct StackUse {
    size_t touch;
    size_t used = 0, size = 0;
    int rc = -1;
    std::atomic<bool> measured{false};
    std::atomic<bool> go{false};
};

void *use_stack(void *p) {
    auto *s = static_cast<StackUse *>(p);
    touch_stack(s->touch);
    s->rc = uac_thread_stack_used(uac_thread_pend_mark(nullptr), &s->used, &s->size);
    s->measured.store(true);
    wait_for(s->go);   // stay registered for the report
    return nullptr;
}

// The measure the stack sizes were chosen by: how deep each thread went, from the pages of
// its stack that were ever touched.
TEST(UacThread, StackUseIsMeasuredFromTheTouchedPages) {
    uac_thread_module_init();
    StackUse deep, shallow;
    deep.touch = 30 * 1024;
    shallow.touch = 0;
    pthread_t t1, t2;
    ASSERT_EQ(uac_thread_create(&t1, "stack_deep", use_stack, &deep), 0);
    ASSERT_EQ(uac_thread_create(&t2, "stack_shallow", use_stack, &shallow), 0);
    wait_for(deep.measured);
    wait_for(shallow.measured);
    ASSERT_EQ(deep.rc, 0);
    ASSERT_EQ(shallow.rc, 0);
    EXPECT_GE(deep.size, static_cast<size_t>(UAC_THREAD_STACK_SIZE) - 8192);
    EXPECT_GE(deep.used, 30u * 1024);
    EXPECT_LT(deep.used, deep.size);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // (The sanitizers' runtimes touch and enlarge the stacks of the threads they start.)
    EXPECT_LT(shallow.used, 24u * 1024);
#endif

    testing::internal::CaptureStdout();
    EXPECT_GE(uac_thread_stack_report(), 2);
    const std::string report = testing::internal::GetCapturedStdout();
    EXPECT_NE(report.find("Thread \"stack_deep\": stack "), std::string::npos) << report;
    EXPECT_NE(report.find(" bytes used\n"), std::string::npos) << report;
    deep.go.store(true);
    shallow.go.store(true);

    size_t used = 0, size = 0;
    EXPECT_EQ(uac_thread_stack_used(nullptr, &used, &size), -1);
}

// A registered thread that blocks on a mutex the test holds.
struct Blocked {
    uac_mutex_t *m;
    std::atomic<bool> go{false};
    std::atomic<bool> done{false};
    uac_mutex_t *ck_after = nullptr;
    uint64_t cnt_before = 0, cnt_after = 0;
};

void *block_on_mutex(void *p) {
    auto *b = static_cast<Blocked *>(p);
    uac_thread_t *rec = uac_thread_pend_mark(nullptr);
    b->cnt_before = rec->ck_cnt.load();
    uac_mutex_take(b->m, UAC_WAIT_FOREVER);
    uac_mutex_give(b->m);
    b->ck_after = rec->ck.load();
    b->cnt_after = rec->ck_cnt.load();
    wait_for(b->go);  // stay registered until the test has looked
    b->done.store(true);
    return nullptr;
}

struct Census {
    const char *name;
    uac_mutex_t *waits_on;
    int found;
    uint64_t ck_cnt;
};
Census g_census;

void count_threads(uac_thread_t *t) {
    if (std::string(t->name) == g_census.name) {
        ++g_census.found;
        g_census.waits_on = t->ck.load();
        g_census.ck_cnt = t->ck_cnt.load();
    }
}

Census census(const char *name) {
    g_census = Census{name, nullptr, 0, 0};
    uac_thread_foreach(count_threads);
    return g_census;
}

TEST(UacThread, RegistryShowsWhatAThreadWaitsOn) {
    uac_lock_module_init();
    uac_mutex_t *m = uac_mutex_create("gWaitedOn", UAC_MUTEX_NORMAL);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(uac_mutex_take(m, UAC_WAIT_FOREVER), 0);
    Blocked b{m};
    pthread_t tid;
    ASSERT_EQ(uac_thread_create(&tid, "blocked_thread", block_on_mutex, &b), 0);

    Census c = census("blocked_thread");
    while (c.waits_on != m) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        c = census("blocked_thread");
    }
    EXPECT_EQ(c.found, 1);
    EXPECT_EQ(c.ck_cnt, 2u);  // its own null mark, then the mark naming m

    ASSERT_EQ(uac_mutex_give(m), 0);
    while (census("blocked_thread").waits_on != nullptr)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    b.go.store(true);
    wait_for(b.done);
    EXPECT_EQ(b.cnt_before, 1u);
    EXPECT_EQ(b.cnt_after, 3u);  // each take marks twice
    EXPECT_EQ(b.ck_after, nullptr);

    // Once its entry returns the thread leaves the registry.
    while (census("blocked_thread").found != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    uac_thread_foreach(nullptr);  // nothing to call: nothing happens
    uac_mutex_destroy(m);
}

TEST(UacThread, PrintShowsTheRecord) {
    uac_thread_t rec{};
    snprintf(rec.name, sizeof rec.name, "%s", "printer");
    rec.pid = 77;
    rec.ck_cnt.store(5);
    rec.pre_ck_cnt = 4;
    testing::internal::CaptureStdout();
    EXPECT_EQ(uac_thread_print(&rec), 0);
    char want[200];
    snprintf(want, sizeof want,
             "Thread \"printer\": tid=%p, pid=77, ck=%p, ck_cnt=5, pre_ck=%p, pre_ck_cnt=4\n",
             static_cast<void *>(nullptr), static_cast<void *>(nullptr),
             static_cast<void *>(nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), want);
    EXPECT_EQ(uac_thread_print(nullptr), -1);
}

TEST(UacThread, DeadlinesCarryNanosecondsIntoSeconds) {
    const struct {
        const char *what;
        struct timeval now;
        bool in_ms;
        int32_t amount;
        time_t sec;
        long nsec;
    } cases[] = {
        {"x.6 s + 1500 ms = (x + 2) s + 0.1 s", {1000, 600000}, true, 1500, 1002, 100000000},
        {"exactly one second of nanoseconds carries", {1000, 999999}, false, 1, 1001, 0},
        {"no carry below a second", {1000, 0}, true, 2999, 1002, 999000000},
        {"whole seconds of the amount added", {1000, 0}, false, 3500001, 1003, 500001000},
        {"amounts above 2^31 - 1 arrive negative: the deadline lies behind", {1000, 0}, true,
         static_cast<int32_t>(0xFFFFFFFEu), 999, 998000000},
    };
    struct timespec ts;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(c.in_ms ? uac_abstime_from_ms(&ts, &c.now, c.amount)
                          : uac_abstime_from_us(&ts, &c.now, c.amount),
                  0);
        EXPECT_EQ(ts.tv_sec, c.sec);
        EXPECT_EQ(ts.tv_nsec, c.nsec);
    }

    struct timeval now {1000, 0};
    EXPECT_EQ(uac_abstime_from_ms(nullptr, &now, 1), -1);
    EXPECT_EQ(uac_abstime_from_ms(&ts, nullptr, 1), -1);
    EXPECT_EQ(uac_abstime_after_ms(nullptr, 1), -1);
    EXPECT_EQ(uac_abstime_after_us(nullptr, 1), -1);

    SCOPED_TRACE("from the current wall time");
    struct timeval before, after;
    gettimeofday(&before, nullptr);
    ASSERT_EQ(uac_abstime_after_ms(&ts, 250), 0);
    gettimeofday(&after, nullptr);
    const int64_t at_us = static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    EXPECT_GE(at_us, before.tv_sec * 1000000LL + before.tv_usec + 250000);
    EXPECT_LE(at_us, after.tv_sec * 1000000LL + after.tv_usec + 250000);
    EXPECT_LT(ts.tv_nsec, 1000000000);
}

TEST(UacThread, ClocksAgreeInTheirUnits) {
    const uint64_t us = uac_uptime_us();
    const uint64_t ms = uac_uptime_ms();
    const int64_t sec = uac_uptime_sec();
    EXPECT_LE(us / 1000, ms);
    EXPECT_LE(ms / 1000, static_cast<uint64_t>(sec) + 1);
    const uint64_t later = uac_uptime_us();
    EXPECT_LE(us, later);

    struct timeval tv;
    gettimeofday(&tv, nullptr);
    const uint64_t wall = static_cast<uint64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
    const uint64_t t = uac_time_ms();
    EXPECT_GE(t, wall);
    EXPECT_LT(t - wall, 60000u);  // same clock, not the uptime
}

}  // namespace
