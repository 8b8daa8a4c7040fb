// uac_lock_clock_test.cpp - the timed waits keep their length when the time of day the
// process reads is hours behind or decades ahead of the kernel's, as after NTP steps a
// wrong boot clock. The binary runs itself again under the clock-shift shim
// (tests/support/clock_shift.c), which moves only what the process reads.
#include <gtest/gtest.h>

#include <semaphore.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "uac_lock.h"
#include "uac_thread.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string g_shift_file;

void shift_by(long long seconds)
{
    FILE *f = fopen(g_shift_file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fprintf(f, "%lld\n", seconds);
    fclose(f);
    std::this_thread::sleep_for(50ms);  // the shim reads the file again every 20 ms
}

// Runs wait() on a thread of its own: it must give up after about 300 ms. A wait that has
// not ended after 5 s is ended by release() and fails the test.
void expect_about_300ms(const char *what, const std::function<int()> &wait,
                        const std::function<void()> &release)
{
    std::promise<std::pair<int, Clock::duration>> done;
    auto result = done.get_future();
    std::thread t([&] {
        auto start = Clock::now();
        int rc = wait();
        done.set_value({rc, Clock::now() - start});
    });
    if (result.wait_for(5s) != std::future_status::ready) {
        ADD_FAILURE() << what << ": still waiting after 5 s of a 300 ms limit";
        release();
        t.join();
        return;
    }
    t.join();
    auto r = result.get();
    EXPECT_EQ(r.first, -1) << what;
    EXPECT_GE(r.second, 250ms) << what << ": ended before its limit";
}

class ShiftedClock : public testing::TestWithParam<long long> {
protected:
    static void SetUpTestSuite()
    {
        uac_lock_module_init();
        uac_thread_module_init();
    }
    void SetUp() override { shift_by(GetParam()); }
    void TearDown() override { shift_by(0); }
};

TEST_P(ShiftedClock, TheShimMovesTheTimeOfDayOnly)
{
    // The kernel's clocks, asked past the shim.
    struct timespec raw_rt, raw_mono;
    syscall(SYS_clock_gettime, CLOCK_REALTIME, &raw_rt);
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &raw_mono);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct timespec rt, mono;
    clock_gettime(CLOCK_REALTIME, &rt);
    clock_gettime(CLOCK_MONOTONIC, &mono);
    const double shift = static_cast<double>(GetParam());
    EXPECT_NEAR(static_cast<double>(tv.tv_sec - raw_rt.tv_sec), shift, 1.0);
    EXPECT_NEAR(static_cast<double>(rt.tv_sec - raw_rt.tv_sec), shift, 1.0);
    EXPECT_NEAR(static_cast<double>(time(nullptr) - raw_rt.tv_sec), shift, 1.0);
    EXPECT_NEAR(static_cast<double>(mono.tv_sec - raw_mono.tv_sec), 0.0, 1.0);
}

TEST_P(ShiftedClock, ConditionMutexAndSemaphoreWaitsKeepTheirLength)
{
    uac_mutex_t *m = uac_mutex_create("clock_test_mutex", UAC_MUTEX_NORMAL);
    uac_cond_t *c = uac_cond_create("clock_test_cond");
    ASSERT_NE(m, nullptr);
    ASSERT_NE(c, nullptr);
    expect_about_300ms(
        "condition",
        [&] {
            uac_mutex_take(m, UAC_WAIT_FOREVER);
            int rc = uac_cond_wait(c, m, 300);
            pthread_mutex_unlock(&m->lock);  // a timed-out wait leaves the record free
            return rc;
        },
        [&] { uac_cond_signal(c); });

    // Held by this thread; the other one waits for it.
    ASSERT_EQ(uac_mutex_take(m, UAC_WAIT_FOREVER), 0);
    expect_about_300ms(
        "mutex", [&] { return uac_mutex_take(m, 300); }, [&] { uac_mutex_give(m); });
    uac_mutex_give(m);

    sem_t sem;
    sem_init(&sem, 0, 0);
    expect_about_300ms(
        "semaphore", [&] { return uac_sem_take(&sem, 300); }, [&] { sem_post(&sem); });
    sem_destroy(&sem);
    uac_cond_destroy(c);
    uac_mutex_destroy(m);
}

// Six hours behind, thirty years ahead.
INSTANTIATE_TEST_SUITE_P(Steps, ShiftedClock, testing::Values(-6LL * 3600, 30LL * 365 * 86400));

}  // namespace

int main(int argc, char **argv)
{
    if (!getenv("NMS_CLOCK_SHIFT_FILE")) {
        char file[] = "/tmp/uac_lock_clock_test.XXXXXX";
        int fd = mkstemp(file);
        if (fd < 0)
            return 1;
        close(fd);
        setenv("NMS_CLOCK_SHIFT_FILE", file, 1);
        setenv("LD_PRELOAD", NMS_CLOCK_SHIFT_LIB, 1);
        // The shim comes before a sanitizer's runtime; that is harmless here.
        std::string asan = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
        setenv("ASAN_OPTIONS", (asan + (asan.empty() ? "" : ":") + "verify_asan_link_order=0").c_str(), 1);
        execv("/proc/self/exe", argv);
        perror("exec");
        return 1;
    }
    g_shift_file = getenv("NMS_CLOCK_SHIFT_FILE");
    testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    unlink(g_shift_file.c_str());
    return rc;
}
