// Tests of the wheel timer. Most drive a private wheel tick by tick from the test
// thread (no sleeping); the last group runs the process-wide wheel on its real threads.
#include "uac_timer.h"
#include "uac_timer_internal.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace engine = uac_timer_engine;

namespace {

// As the daemon's start-up does: SIGALRM blocked before any thread exists, so only
// the tick thread (which waits for it with sigwait) receives it.
const bool g_sigalrm_blocked = [] {
    sigset_t s;
    sigemptyset(&s);
    sigaddset(&s, SIGALRM);
    return pthread_sigmask(SIG_BLOCK, &s, nullptr) == 0;
}();

struct WheelDestroy {
    void operator()(engine::Wheel *w) const noexcept { engine::destroy(w); }
};
using WheelPtr = std::unique_ptr<engine::Wheel, WheelDestroy>;

// What a test timer saw: the ticks at which its callback ran and how often it was
// released. `now` is the test's tick count, read by callbacks on the test thread.
struct Probe {
    const uint64_t *now = nullptr;
    std::vector<uint64_t> runs;
    int releases = 0;
};

void probe_cb(void *arg) {
    auto *p = static_cast<Probe *>(arg);
    p->runs.push_back(p->now ? *p->now : 0);
}
void probe_release(void *arg) { static_cast<Probe *>(arg)->releases += 1; }

// A private wheel and the number of ticks it has been advanced.
struct Bench {
    explicit Bench(int32_t len = 10) : w(engine::create(len)) {}
    WheelPtr w;
    uint64_t ticks = 0;

    uint32_t add(uint32_t sec, uint32_t usec, Probe &p, bool periodic = false) {
        p.now = &ticks;
        return engine::add(w.get(), sec, usec, probe_cb, &p, probe_release, periodic);
    }
    // One tick, then the due callbacks.
    void step() {
        engine::tick(w.get());
        ++ticks;
        engine::run_pending(w.get());
    }
    void steps(int n) {
        for (int i = 0; i < n; ++i)
            step();
    }
};

// sec/usec that make exactly n ticks.
uint32_t sec_of(uint64_t n) { return static_cast<uint32_t>(n / 2); }
uint32_t usec_of(uint64_t n) { return n % 2 ? 500000 : 0; }

TEST(UacTimer, RoundsDownToTicksAndRunsAtTheNthTick) {
    Bench b;
    ASSERT_TRUE(b.w);
    struct Case {
        uint32_t sec, usec;
        uint64_t tick;
    };
    const Case cases[] = {
        {0, 0, 1}, {0, 499999, 1},  // 0 ticks: the next tick
        {0, 500000, 1}, {1, 0, 2}, {1, 499999, 2}, {1, 500000, 3}, {0, 2999999, 5}, {7, 0, 14},
    };
    std::vector<Probe> probes(std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i)
        ASSERT_NE(b.add(cases[i].sec, cases[i].usec, probes[i]), UAC_TIMER_INVALID_ID);
    b.steps(20);
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(testing::Message() << cases[i].sec << " s " << cases[i].usec << " us");
        EXPECT_EQ(probes[i].runs, std::vector<uint64_t>{cases[i].tick});
        EXPECT_EQ(probes[i].releases, 1);
    }
}

TEST(UacTimer, OneShotRunsOncePeriodicUntilRemoved) {
    Bench b;
    Probe once, every;
    uint32_t id1 = b.add(1, 0, once);
    uint32_t id2 = b.add(1, 0, every, true);
    EXPECT_EQ(engine::rest(b.w.get(), id2), 0u);  // due at the next-but-one tick
    uint32_t far = engine::add(b.w.get(), 10, 0, nullptr, nullptr, nullptr, false);
    EXPECT_EQ(engine::rest(b.w.get(), far), 9u);   // 19 ticks left, in whole seconds
    b.steps(7);
    EXPECT_EQ(once.runs, (std::vector<uint64_t>{2}));
    EXPECT_EQ(once.releases, 1);
    EXPECT_EQ(every.runs, (std::vector<uint64_t>{2, 4, 6}));  // period of two ticks
    EXPECT_EQ(every.releases, 0);

    // A finished one-shot id is unknown; the warning shows only with its switch on.
    testing::internal::CaptureStdout();
    EXPECT_EQ(engine::remove(b.w.get(), id1), -1);
    g_wheel_timer_warning.store(1);
    EXPECT_EQ(engine::remove(b.w.get(), id1), -1);
    EXPECT_EQ(engine::rest(b.w.get(), id1), 0u);
    g_wheel_timer_warning.store(0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "[WHEEL_TIMER_WARNING]uac_timer_remove()/587 Failed to find the timer " +
                       std::to_string(static_cast<int>(id1)) + ".\n" +
                       "[WHEEL_TIMER_WARNING]uac_timer_rest()/625 Failed to find the timer " +
                       std::to_string(static_cast<int>(id1)) + ".\n");
    EXPECT_EQ(once.releases, 1);

    EXPECT_EQ(engine::remove(b.w.get(), id2), 0);
    EXPECT_EQ(every.releases, 1);
    b.steps(4);
    EXPECT_EQ(every.runs.size(), 3u);
    EXPECT_EQ(engine::remove(b.w.get(), UAC_TIMER_INVALID_ID), -1);
}

struct SelfRemover {
    engine::Wheel *w;
    uint32_t id = UAC_TIMER_INVALID_ID;
    int runs = 0;
    int releases = 0;
    int releases_seen_in_callback = -1;
};

TEST(UacTimer, RemoveBeforeDuringAndAfterTheCallbackReleasesOnce) {
    Bench b;
    {
        SCOPED_TRACE("before: release at once, no callback");
        Probe p;
        uint32_t id = b.add(0, 0, p, true);
        EXPECT_EQ(engine::remove(b.w.get(), id), 0);
        EXPECT_EQ(p.releases, 1);
        b.steps(3);
        EXPECT_TRUE(p.runs.empty());
        EXPECT_EQ(engine::remove(b.w.get(), id), -1);
        EXPECT_EQ(p.releases, 1);
    }
    {
        SCOPED_TRACE("handed to the work queue, callback not started: skipped");
        Probe p;
        uint32_t id = b.add(0, 0, p, true);
        engine::tick(b.w.get());
        EXPECT_EQ(engine::level_of(b.w.get(), id, nullptr), 0);  // in the work queue
        EXPECT_EQ(engine::rest(b.w.get(), id), 0u);
        EXPECT_EQ(engine::remove(b.w.get(), id), 0);
        EXPECT_EQ(p.releases, 0);  // the work thread's job now
        EXPECT_EQ(engine::run_pending(b.w.get()), 1u);
        EXPECT_TRUE(p.runs.empty());
        EXPECT_EQ(p.releases, 1);
    }
    {
        SCOPED_TRACE("during: the callback removes its own periodic timer");
        SelfRemover s{b.w.get()};
        s.id = engine::add(
            b.w.get(), 0, 0,
            [](void *a) {
                auto *s = static_cast<SelfRemover *>(a);
                s->runs += 1;
                EXPECT_EQ(engine::remove(s->w, s->id), 0);
                s->releases_seen_in_callback = s->releases;
            },
            &s, [](void *a) { static_cast<SelfRemover *>(a)->releases += 1; }, true);
        b.steps(4);
        EXPECT_EQ(s.runs, 1);
        EXPECT_EQ(s.releases_seen_in_callback, 0);  // release waits for the callback
        EXPECT_EQ(s.releases, 1);                   // and the timer does not re-arm
    }
}

// The callback runs on a worker thread and blocks until the test has removed it.
struct Gate {
    std::mutex m;
    std::condition_variable cv;
    bool entered = false;
    bool go = false;
    int runs = 0;
    int releases = 0;
};

TEST(UacTimer, RemoveFromAnotherThreadWhileTheCallbackRuns) {
    Bench b;
    Gate g;
    uint32_t id = engine::add(
        b.w.get(), 0, 0,
        [](void *a) {
            auto *g = static_cast<Gate *>(a);
            std::unique_lock<std::mutex> l(g->m);
            g->runs += 1;
            g->entered = true;
            g->cv.notify_all();
            g->cv.wait(l, [g] { return g->go; });
        },
        &g,
        [](void *a) {
            auto *g = static_cast<Gate *>(a);
            std::lock_guard<std::mutex> l(g->m);
            g->releases += 1;
        },
        true);
    engine::tick(b.w.get());
    std::thread worker([&] { engine::run_one(b.w.get()); });
    {
        std::unique_lock<std::mutex> l(g.m);
        g.cv.wait(l, [&] { return g.entered; });
    }
    EXPECT_EQ(engine::remove(b.w.get(), id), 0);  // db is free while the callback runs
    {
        std::lock_guard<std::mutex> l(g.m);
        EXPECT_EQ(g.releases, 0);
        g.go = true;
        g.cv.notify_all();
    }
    worker.join();
    EXPECT_EQ(g.runs, 1);
    EXPECT_EQ(g.releases, 1);
    b.steps(3);
    EXPECT_EQ(g.runs, 1);
}

// A timer that re-arms itself from its callback (as the one-second scan does) and
// whose release adds and removes timers: both run with the wheel's locks free or
// re-entered.
struct Rearm {
    engine::Wheel *w;
    const uint64_t *now;
    std::vector<uint64_t> runs;
    uint32_t id = UAC_TIMER_INVALID_ID;
};

TEST(UacTimer, CallbacksAndReleasesMayAddAndRemoveTimers) {
    Bench b;
    Rearm r{b.w.get(), &b.ticks, {}};
    // The callback adds a new one-shot with itself as callback.
    struct Self {
        static void cb(void *a) {
            auto *r = static_cast<Rearm *>(a);
            r->runs.push_back(*r->now);
            if (r->runs.size() < 4)
                r->id = engine::add(r->w, 1, 0, cb, r, nullptr, false);
        }
    };
    r.id = engine::add(b.w.get(), 1, 0, Self::cb, &r, nullptr, false);
    b.steps(12);
    EXPECT_EQ(r.runs, (std::vector<uint64_t>{2, 4, 6, 8}));  // one second apart

    Probe victim, spawned;
    struct Chain {
        engine::Wheel *w;
        uint32_t victim;
        Probe *spawned;
    } chain{b.w.get(), b.add(5, 0, victim), &spawned};
    spawned.now = &b.ticks;
    uint32_t id = engine::add(
        b.w.get(), 5, 0, nullptr, &chain,
        [](void *a) {
            auto *c = static_cast<Chain *>(a);
            EXPECT_EQ(engine::remove(c->w, c->victim), 0);
            EXPECT_NE(engine::add(c->w, 0, 0, probe_cb, c->spawned, probe_release, false),
                      UAC_TIMER_INVALID_ID);
        },
        false);
    EXPECT_EQ(engine::remove(b.w.get(), id), 0);  // its release runs under the db mutex
    EXPECT_EQ(victim.releases, 1);
    b.step();
    EXPECT_EQ(spawned.runs, (std::vector<uint64_t>{b.ticks}));
    EXPECT_EQ(spawned.releases, 1);
}

TEST(UacTimer, StoreGrowsByHalfWithIdLengthTwo) {
    Bench b(2);
    EXPECT_EQ(engine::capacity(b.w.get()), 3u);
    std::vector<Probe> probes(10);
    std::vector<uint32_t> caps;
    std::set<uint32_t> ids;
    for (auto &p : probes) {
        uint32_t id = b.add(1, 0, p);
        ASSERT_NE(id, UAC_TIMER_INVALID_ID);
        ids.insert(id);
        caps.push_back(engine::capacity(b.w.get()));
    }
    // 3 pre-allocated; then + 1 (half of 3), + 2 (half of 4), + 3 (half of 6), ...
    EXPECT_EQ(caps, (std::vector<uint32_t>{3, 3, 3, 4, 6, 6, 9, 9, 9, 13}));
    EXPECT_EQ(ids.size(), probes.size());
    b.steps(2);
    for (auto &p : probes) {
        EXPECT_EQ(p.runs, std::vector<uint64_t>{2});
        EXPECT_EQ(p.releases, 1);
    }
    EXPECT_EQ(engine::capacity(b.w.get()), 13u);  // never shrinks

    // Destroying a wheel releases the timers still pending, in every block.
    std::vector<Probe> pending(12);
    for (auto &p : pending)
        b.add(100, 0, p);
    b.w.reset();
    for (auto &p : pending) {
        EXPECT_TRUE(p.runs.empty());
        EXPECT_EQ(p.releases, 1);
    }
}

TEST(UacTimer, StaleIdsNeverReachTheTimerThatReusesTheSlot) {
    Bench b(2);
    Probe a, c, d, e;
    uint32_t ida = b.add(9, 0, a);
    b.add(9, 0, c);
    b.add(9, 0, d);
    ASSERT_EQ(engine::remove(b.w.get(), ida), 0);
    uint32_t ide = b.add(9, 0, e);  // the only free slot is a's
    ASSERT_EQ(ide & UAC_TIMER_SLOT_MASK, ida & UAC_TIMER_SLOT_MASK);
    EXPECT_NE(ide, ida);
    EXPECT_EQ(engine::remove(b.w.get(), ida), -1);
    EXPECT_EQ(engine::rest(b.w.get(), ida), 0u);
    EXPECT_EQ(engine::rest(b.w.get(), ide), 8u);  // 17 ticks left
    EXPECT_EQ(e.releases, 0);
    EXPECT_EQ(engine::level_of(b.w.get(), ida, nullptr), -1);

    // Consecutive timers of one slot always differ, through the 12-bit wrap.
    uint32_t prev = ide;
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(engine::remove(b.w.get(), prev), 0);
        uint32_t id = engine::add(b.w.get(), 9, 0, nullptr, nullptr, nullptr, false);
        ASSERT_EQ(id & UAC_TIMER_SLOT_MASK, ida & UAC_TIMER_SLOT_MASK);
        ASSERT_NE(id, prev);
        ASSERT_NE(id, UAC_TIMER_INVALID_ID);
        prev = id;
    }
}

// About a thousand timers at deltas from 0 to 7x10^7 ticks, added at two unaligned
// moments, each must run exactly once at its own tick: catches every off-by-one in
// placement and cascade.
TEST(UacTimer, ManyTimersAtSpreadDeltasEachRunOnceAtItsTick) {
    Bench b;
    std::vector<uint64_t> deltas = {0,       1,       2,       254,      255,      256,
                                    257,     511,     512,     16383,    16384,    16385,
                                    1 << 20, (1 << 20) - 1, (1 << 20) + 1, (1 << 26) - 1,
                                    1 << 26, (1 << 26) + 1, 70000000};
    uint64_t x = 12345;
    while (deltas.size() < 500) {
        x = x * 6364136223846793005ull + 1442695040888963407ull;
        uint64_t scale = 1ull << (8 + (x >> 60) % 20);  // spread over every level
        deltas.push_back((x >> 20) % scale % 70000001);
    }
    std::vector<Probe> probes(deltas.size() * 2);
    std::vector<uint64_t> want(probes.size());
    auto add_batch = [&](size_t first) {
        for (size_t i = 0; i < deltas.size(); ++i) {
            Probe &p = probes[first + i];
            want[first + i] = b.ticks + std::max<uint64_t>(deltas[i], 1);
            ASSERT_NE(b.add(sec_of(deltas[i]), usec_of(deltas[i]), p), UAC_TIMER_INVALID_ID);
        }
    };
    b.ticks += engine::advance(b.w.get(), 1000);  // start off any level boundary
    ASSERT_EQ(b.ticks, 1000u);
    add_batch(0);
    const uint64_t second_batch_at = 3333333;
    bool second = false;
    const uint64_t end = second_batch_at + 70000010;
    while (b.ticks < end) {
        uint64_t stop = second ? end : second_batch_at;
        b.ticks += engine::advance(b.w.get(), stop - b.ticks);
        engine::run_pending(b.w.get());
        if (!second && b.ticks == second_batch_at) {
            add_batch(deltas.size());
            second = true;
        }
    }
    EXPECT_EQ(engine::jiffies(b.w.get()), b.ticks);
    for (size_t i = 0; i < probes.size(); ++i) {
        ASSERT_EQ(probes[i].runs, std::vector<uint64_t>{want[i]})
            << "timer " << i << " of delta " << deltas[i % deltas.size()];
        ASSERT_EQ(probes[i].releases, 1);
    }
}

// ---- The process-wide wheel on its real threads (short real waits only).

struct Live {
    std::mutex m;
    std::condition_variable cv;
    int runs = 0;
    int releases = 0;
    int concurrent = 0;
    int max_concurrent = 0;
    std::set<std::string> threads;
};

void live_cb(void *arg) {
    auto *l = static_cast<Live *>(arg);
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    {
        std::lock_guard<std::mutex> g(l->m);
        l->concurrent += 1;
        l->max_concurrent = std::max(l->max_concurrent, l->concurrent);
        l->threads.insert(name);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::lock_guard<std::mutex> g(l->m);
    l->concurrent -= 1;
    l->runs += 1;
    l->cv.notify_all();
}

void live_release(void *arg) {
    auto *l = static_cast<Live *>(arg);
    std::lock_guard<std::mutex> g(l->m);
    l->releases += 1;
    l->cv.notify_all();
}

template <typename Pred>
bool wait_for(Live &l, Pred pred) {
    std::unique_lock<std::mutex> g(l.m);
    return l.cv.wait_for(g, std::chrono::seconds(5), [&] { return pred(l); });
}

TEST(UacTimer, ProcessWheelRunsCallbacksOnItsWorkThread) {
    ASSERT_TRUE(g_sigalrm_blocked);
    {
        SCOPED_TRACE("id length range");
        testing::internal::CaptureStdout();
        EXPECT_EQ(uac_timer_init(1), -1);
        EXPECT_EQ(uac_timer_init(21), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "[WHEEL_TIMER_ERROR]uac_timer_init()/870 Range error: g_wheel_timer_id_len=1, "
                  "should be range from 2 to 20\n"
                  "[WHEEL_TIMER_ERROR]uac_timer_init()/870 Range error: g_wheel_timer_id_len=21, "
                  "should be range from 2 to 20\n");
        EXPECT_EQ(engine::global(), nullptr);
        EXPECT_EQ(uac_timer_add(0, 0, nullptr, nullptr, nullptr), UAC_TIMER_INVALID_ID);
    }
    ASSERT_EQ(uac_timer_init(10), 0);
    EXPECT_EQ(uac_timer_init(3), 0);  // once per process
    EXPECT_EQ(g_wheel_timer_id_len, 10);

    Live quick, every, parked;
    uint32_t qid = uac_timer_add(0, 100000, live_cb, &quick, live_release);
    uint32_t pid = uac_timer_add_periodic(0, 500000, live_cb, &every, live_release);
    uint32_t far = uac_timer_add(3600, 0, live_cb, &parked, live_release);
    ASSERT_NE(qid, UAC_TIMER_INVALID_ID);
    ASSERT_NE(pid, UAC_TIMER_INVALID_ID);
    EXPECT_GE(uac_timer_rest(far), 3598u);

    EXPECT_TRUE(wait_for(quick, [](Live &l) { return l.releases == 1; }));
    EXPECT_TRUE(wait_for(every, [](Live &l) { return l.runs >= 3; }));
    EXPECT_EQ(uac_timer_remove(pid), 0);
    EXPECT_TRUE(wait_for(every, [](Live &l) { return l.releases == 1 && l.concurrent == 0; }));
    {
        std::lock_guard<std::mutex> g(quick.m);
        EXPECT_EQ(quick.runs, 1);
        EXPECT_EQ(quick.threads, std::set<std::string>{"wheeltimerworkd"});
    }
    {
        std::lock_guard<std::mutex> g(every.m);
        EXPECT_EQ(every.max_concurrent, 1);
        EXPECT_EQ(every.threads, std::set<std::string>{"wheeltimerworkd"});
    }

    testing::internal::CaptureStdout();
    uac_timer_count_print();
    uac_timer_list_print();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.substr(0, out.find("Pre alloc")),
              "   Waiting\tWorking\tTotal\n===========================\n     1\t     0\t     1\n");
    EXPECT_NE(out.find("Pre alloc: 1023\tExtend alloc:0\n============timer list===============\n"
                       "Timer<" + std::to_string(static_cast<int>(far)) + ">: id=<" +
                       std::to_string(far & UAC_TIMER_SLOT_MASK) + ">, seq=<" +
                       std::to_string(far >> UAC_TIMER_SLOT_BITS) +
                       ">, interval=<3600000 ms>, bit:1\n"),
              std::string::npos)
        << out;

    // Stop ends both threads and releases what was pending; the module stays down.
    uac_timer_stop();
    EXPECT_EQ(engine::global(), nullptr);
    EXPECT_EQ(parked.releases, 1);
    EXPECT_EQ(parked.runs, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(uac_timer_add(1, 0, live_cb, &parked, live_release), UAC_TIMER_INVALID_ID);
    EXPECT_EQ(uac_timer_remove(far), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Wheel timer is not running"),
              std::string::npos);
    EXPECT_EQ(uac_timer_init(10), 0);
}

}  // namespace
