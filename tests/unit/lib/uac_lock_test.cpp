// uac_lock_test.cpp - named mutexes (owner, counts, timeouts), conditions, semaphores,
// snapshots, the signal-mask helper and the holder-tag guard.
#include <gtest/gtest.h>

#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "uac_lock.h"
#include "uac_mem.h"
#include "uac_thread.h"

namespace {

class UacLock : public testing::Test {
protected:
    static void SetUpTestSuite() {
        uac_lock_module_init();
        uac_thread_module_init();
    }
};

bool owned_by_me(const uac_mutex_t *m) {
    return pthread_equal(m->owner.load(), pthread_self()) != 0;
}

// What fn prints on standard output.
template <typename F>
std::string printed(F fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

// Runs fn on another thread and waits for it.
template <typename F>
void on_other_thread(F fn) {
    std::thread t(fn);
    t.join();
}

TEST_F(UacLock, CreateRefusesBadArguments) {
    EXPECT_EQ(uac_mutex_create("x", 2), nullptr);
    EXPECT_EQ(uac_mutex_create(nullptr, 0), nullptr);
    EXPECT_EQ(uac_cond_create(nullptr), nullptr);
    EXPECT_EQ(uac_mutex_take(nullptr, UAC_WAIT_FOREVER), -1);
    EXPECT_EQ(uac_mutex_give(nullptr), -1);
    EXPECT_EQ(uac_cond_wait(nullptr, nullptr, 0), -1);
    EXPECT_EQ(uac_sem_take(nullptr, 0), -1);
    EXPECT_EQ(uac_sem_give(nullptr), -1);
    EXPECT_EQ(printed([] { uac_mutex_destroy(nullptr); uac_cond_destroy(nullptr); }),
              "WARNING: Try to destroy NULL mutex.\n");
}

TEST_F(UacLock, RecursiveMutexCountsTakesByItsOwner) {
    uac_mutex_t *m = uac_mutex_create("gRecursive", UAC_MUTEX_RECURSIVE);
    ASSERT_NE(m, nullptr);
    EXPECT_STREQ(m->name, "gRecursive");
    EXPECT_EQ(m->lock_cnt.load(), 0u);

    ASSERT_EQ(uac_mutex_take(m, UAC_WAIT_FOREVER), 0);
    ASSERT_EQ(uac_mutex_take(m, UAC_NO_WAIT), 0);
    EXPECT_TRUE(owned_by_me(m));
    EXPECT_EQ(m->lock_cnt.load(), 2u);

    EXPECT_EQ(uac_mutex_give(m), 0);  // still held once
    EXPECT_TRUE(owned_by_me(m));
    EXPECT_EQ(m->lock_cnt.load(), 1u);
    int other = 0;
    on_other_thread([&] { other = uac_mutex_take(m, UAC_NO_WAIT); });
    EXPECT_EQ(other, -1);

    EXPECT_EQ(uac_mutex_give(m), 0);  // free now
    EXPECT_EQ(m->lock_cnt.load(), 0u);
    EXPECT_EQ(m->owner.load(), pthread_t{});

    EXPECT_EQ(printed([m] { EXPECT_EQ(uac_mutex_give(m), -1); }),  // nobody's: warns
              "WARNING: Try to give mutex \"gRecursive\" not owned by thread itself.\n");
    uac_mutex_destroy(m);
}

TEST_F(UacLock, NormalMutexRefusesASecondTakeANonOwnerGiveAndTimesOut) {
    uac_mutex_t *m = uac_mutex_create("gNormal", UAC_MUTEX_NORMAL);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(uac_mutex_take(m, UAC_NO_WAIT), 0);
    EXPECT_EQ(uac_mutex_take(m, UAC_NO_WAIT), -1);  // busy, even for its owner
    EXPECT_EQ(m->lock_cnt.load(), 1u);

    int given = 0, tried = 0, timed = 0;
    testing::internal::CaptureStdout();
    on_other_thread([&] {
        given = uac_mutex_give(m);
        tried = uac_mutex_take(m, UAC_NO_WAIT);
        timed = uac_mutex_take(m, 50);
    });
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "WARNING: Try to give mutex \"gNormal\" not owned by thread itself.\n");
    EXPECT_EQ(given, -1);
    EXPECT_EQ(tried, -1);  // the give did not unlock
    EXPECT_EQ(timed, -1);
    EXPECT_TRUE(owned_by_me(m));  // failed takes change nothing
    EXPECT_EQ(m->lock_cnt.load(), 1u);
    ASSERT_EQ(uac_mutex_give(m), 0);

    bool was_owner = false;
    on_other_thread([&] {
        timed = uac_mutex_take(m, 50);
        was_owner = owned_by_me(m) && m->lock_cnt.load() == 1;
        uac_mutex_give(m);
    });
    EXPECT_EQ(timed, 0);
    EXPECT_TRUE(was_owner);
    uac_mutex_destroy(m);
}

TEST_F(UacLock, ConditionInsistsOnATakenNormalMutex) {
    uac_cond_t *c = uac_cond_create("gCond");
    uac_mutex_t *rec = uac_mutex_create("gRec", UAC_MUTEX_RECURSIVE);
    uac_mutex_t *m = uac_mutex_create("gPlain", UAC_MUTEX_NORMAL);
    ASSERT_TRUE(c && rec && m);

    SCOPED_TRACE("wrong type, even when taken: refused without waiting");
    ASSERT_EQ(uac_mutex_take(rec, UAC_WAIT_FOREVER), 0);
    EXPECT_EQ(printed([&] { EXPECT_EQ(uac_cond_wait(c, rec, UAC_WAIT_FOREVER), -1); }),
              "Error: cond \"gCond\" use INCORRECT type of mutex \"gRec\".\n");
    EXPECT_EQ(rec->lock_cnt.load(), 1u);
    uac_mutex_give(rec);

    SCOPED_TRACE("not taken by the caller");
    EXPECT_EQ(printed([&] { EXPECT_EQ(uac_cond_wait(c, m, UAC_WAIT_FOREVER), -1); }),
              "Error: cond_wait \"gCond\" use mutex \"gPlain\" that has not been taken before.\n");

    SCOPED_TRACE("a timeout leaves the lock held but its record empty");
    ASSERT_EQ(uac_mutex_take(m, UAC_WAIT_FOREVER), 0);
    EXPECT_EQ(uac_cond_wait(c, m, 0), -1);
    EXPECT_EQ(m->owner.load(), pthread_t{});
    EXPECT_EQ(m->lock_cnt.load(), 0u);
    printed([m] { EXPECT_EQ(uac_mutex_give(m), -1); });
    EXPECT_EQ(pthread_mutex_trylock(&m->lock), EBUSY);
    pthread_mutex_unlock(&m->lock);  // the POSIX lock is still ours

    uac_mutex_destroy(rec);
    uac_mutex_destroy(m);
    uac_cond_destroy(c);
}

TEST_F(UacLock, ConditionWakesTheWaiterAsOwner) {
    uac_cond_t *c = uac_cond_create("gReadyCond");
    uac_mutex_t *m = uac_mutex_create("gReadyLock", UAC_MUTEX_NORMAL);
    ASSERT_TRUE(c && m);
    bool ready = false;  // guarded by m
    bool failed = false;
    bool owner_after = false;
    std::thread waiter([&] {
        uac_mutex_take(m, UAC_WAIT_FOREVER);
        while (!ready && !failed)
            failed = uac_cond_wait(c, m, UAC_WAIT_FOREVER) != 0;
        owner_after = owned_by_me(m) && m->lock_cnt.load() == 1;
        uac_mutex_give(m);
    });
    uac_mutex_take(m, UAC_WAIT_FOREVER);
    ready = true;
    EXPECT_EQ(uac_cond_signal(c), 0);
    uac_mutex_give(m);
    waiter.join();
    EXPECT_FALSE(failed);
    EXPECT_TRUE(owner_after);
    EXPECT_EQ(uac_cond_broadcast(c), 0);
    uac_mutex_destroy(m);
    uac_cond_destroy(c);
}

TEST_F(UacLock, SnapshotCopiesALiveMutexOnly) {
    uac_mutex_t *m = uac_mutex_create("gSnap", UAC_MUTEX_RECURSIVE);
    ASSERT_NE(m, nullptr);
    uac_mutex_take(m, UAC_WAIT_FOREVER);
    uac_mutex_take(m, UAC_WAIT_FOREVER);

    uac_mutex_t snap;
    ASSERT_EQ(uac_mutex_snapshot(m, &snap), 0);
    EXPECT_STREQ(snap.name, "gSnap");
    EXPECT_NE(snap.name, m->name);  // a copy of its own
    EXPECT_EQ(snap.type, UAC_MUTEX_RECURSIVE);
    EXPECT_TRUE(pthread_equal(snap.owner.load(), pthread_self()));
    EXPECT_EQ(snap.lock_cnt.load(), 2u);
    EXPECT_EQ(snap.entry.list, nullptr);
    EXPECT_EQ(snap.entry.next, nullptr);
    uac_free(snap.name);

    char want[160];
    snprintf(want, sizeof want, "Mutex \"gSnap\": type=1, owner=%p, lock_cnt=2\n",
             reinterpret_cast<void *>(pthread_self()));
    EXPECT_EQ(printed([m] { EXPECT_EQ(uac_mutex_print(m), 0); }), want);

    uac_mutex_give(m);
    uac_mutex_give(m);
    EXPECT_EQ(uac_mutex_snapshot(nullptr, &snap), -1);
    EXPECT_EQ(uac_mutex_snapshot(m, nullptr), -1);

    uac_mutex_t *stale = m;
    uac_mutex_destroy(m);
    snap.name = reinterpret_cast<char *>(&snap);  // must be cleared by the failed call
    EXPECT_EQ(uac_mutex_snapshot(stale, &snap), -1);
    EXPECT_EQ(snap.name, nullptr);
    EXPECT_EQ(snap.lock_cnt.load(), 0u);
}

TEST_F(UacLock, SemaphoreTakesWithAndWithoutTimeout) {
    sem_t sem;
    ASSERT_EQ(sem_init(&sem, 0, 0), 0);
    EXPECT_EQ(uac_sem_take(&sem, UAC_NO_WAIT), -1);
    EXPECT_EQ(uac_sem_take(&sem, 20), -1);
    EXPECT_EQ(uac_sem_give(&sem), 0);
    EXPECT_EQ(uac_sem_give(&sem), 0);
    EXPECT_EQ(uac_sem_take(&sem, UAC_NO_WAIT), 0);
    EXPECT_EQ(uac_sem_take(&sem, 20), 0);
    std::thread poster([&] { uac_sem_give(&sem); });
    EXPECT_EQ(uac_sem_take(&sem, UAC_WAIT_FOREVER), 0);
    poster.join();
    sem_destroy(&sem);
}

TEST_F(UacLock, SigmaskSetBlocksTheListedSignals) {
    on_other_thread([] {
        sigset_t now;
        EXPECT_EQ(uac_sigmask_set(SIG_BLOCK, 2, SIGALRM, SIGUSR2), 0);
        pthread_sigmask(SIG_SETMASK, nullptr, &now);
        EXPECT_TRUE(sigismember(&now, SIGALRM));
        EXPECT_TRUE(sigismember(&now, SIGUSR2));
        EXPECT_FALSE(sigismember(&now, SIGUSR1));
        EXPECT_EQ(uac_sigmask_set(SIG_UNBLOCK, 1, SIGUSR2), 0);
        pthread_sigmask(SIG_SETMASK, nullptr, &now);
        EXPECT_TRUE(sigismember(&now, SIGALRM));
        EXPECT_FALSE(sigismember(&now, SIGUSR2));
        EXPECT_NE(uac_sigmask_set(12345, 1, SIGUSR2), 0);  // a bad `how` is refused
    });
}

TEST_F(UacLock, HoldsGiveBackOnScopeExit) {
    uac_mutex_t *m = uac_mutex_create("gHeld", UAC_MUTEX_NORMAL);
    ASSERT_NE(m, nullptr);
    {
        uac::MutexHold hold(m);
        EXPECT_TRUE(hold.held());
        EXPECT_TRUE(owned_by_me(m));
    }
    EXPECT_EQ(m->owner.load(), pthread_t{});
    {
        uac::MutexHold hold(m);
        hold.release();
        EXPECT_FALSE(hold.held());
        EXPECT_EQ(m->owner.load(), pthread_t{});
    }
    EXPECT_FALSE(uac::MutexHold(nullptr).held());
    uac_mutex_destroy(m);
}

// The contender, started through uac_thread_create so that its wait is marked.
struct Contender {
    uac_mutex_t *m;
    std::atomic<bool> done{false};
};

void *contend(void *p) {
    auto *c = static_cast<Contender *>(p);
    UAC_MUTEX_TAG_TAKE(c->m);
    UAC_MUTEX_TAG_GIVE(c->m);
    c->done.store(true);
    return nullptr;
}

Contender *g_waiting_for = nullptr;
std::atomic<bool> g_seen_waiting{false};

void find_waiter(uac_thread_t *t) {
    if (t->ck.load() == g_waiting_for->m)
        g_seen_waiting.store(true);
}

TEST_F(UacLock, HolderTagNamesTheHolderAndWarnsOthers) {
    uac_mutex_t *m = uac_mutex_create("gStatisticsParamsTimerLocker", UAC_MUTEX_RECURSIVE);
    ASSERT_NE(m, nullptr);
    const uint32_t self = static_cast<uint32_t>(pthread_self());
    EXPECT_EQ(uac_mutex_tag_holder(), UAC_MUTEX_TAG_FREE);

    SCOPED_TRACE("first take: tag set, silent; repeat take by the holder: noted");
    testing::internal::CaptureStdout();
    ASSERT_EQ(uac_mutex_tag_take(m, "first", 10), 0);
    EXPECT_EQ(uac_mutex_tag_holder(), self);
    ASSERT_EQ(uac_mutex_tag_take(m, "again", 11), 0);
    char want[160];
    snprintf(want, sizeof want, "fun:again line11 repeat to take lock by %02x \r\n", self);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), want);
    EXPECT_EQ(uac_mutex_tag_give(m), 0);
    EXPECT_EQ(uac_mutex_tag_holder(), UAC_MUTEX_TAG_FREE);
    EXPECT_EQ(uac_mutex_give(m), 0);

    SCOPED_TRACE("another thread finds the tag taken, says so, then waits");
    Contender c{m};
    {
        uac::TagHold hold(m);
        ASSERT_TRUE(hold.held());
        testing::internal::CaptureStdout();
        pthread_t tid;
        ASSERT_EQ(uac_thread_create(&tid, "tag_contender", contend, &c), 0);
        g_waiting_for = &c;
        while (!g_seen_waiting.load()) {
            uac_thread_foreach(find_waiter);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::string out = testing::internal::GetCapturedStdout();
        snprintf(want, sizeof want, "error to take lock by 0x%02x self:0x%02x\r\n", self,
                 static_cast<uint32_t>(tid));
        EXPECT_EQ(out.rfind("fun:contend line", 0), 0u) << out;
        EXPECT_NE(out.find(want), std::string::npos) << out;
        EXPECT_FALSE(c.done.load());
    }
    while (!c.done.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(uac_mutex_tag_holder(), UAC_MUTEX_TAG_FREE);
    uac_mutex_destroy(m);
}

}  // namespace
