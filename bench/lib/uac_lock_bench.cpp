// uac_lock_bench.cpp - named mutex take+give against std::mutex lock+unlock (limit: 3x),
// uncontended, from a thread started with uac_thread_create as every daemon thread is.
#include <mutex>
#include <string>

#include "bench_ratio.h"
#include "uac_lock.h"
#include "uac_thread.h"

namespace {

void BM_StdMutexLockUnlock(benchmark::State &state) {
    std::mutex m;
    for (auto _ : state) {
        m.lock();
        benchmark::ClobberMemory();
        m.unlock();
    }
}

void BM_StdRecursiveMutexLockUnlock(benchmark::State &state) {
    std::recursive_mutex m;
    for (auto _ : state) {
        m.lock();
        benchmark::ClobberMemory();
        m.unlock();
    }
}

void BM_UacMutexTakeGive(benchmark::State &state) {
    uac_mutex_t *m = uac_mutex_create("bench_mutex", static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        uac_mutex_take(m, UAC_WAIT_FOREVER);
        benchmark::ClobberMemory();
        uac_mutex_give(m);
    }
    uac_mutex_destroy(m);
}

void BM_UacMutexHold(benchmark::State &state) {
    uac_mutex_t *m = uac_mutex_create("bench_hold", UAC_MUTEX_NORMAL);
    for (auto _ : state) {
        uac::MutexHold hold(m);
        benchmark::ClobberMemory();
    }
    uac_mutex_destroy(m);
}

struct Run {
    int over;  // pairs over their limit
    sem_t done;
};

// The benchmarks run on a registered thread, so every take records its pending marks.
void *run_all(void *p) {
    Run *run = static_cast<Run *>(p);
    nms_bench::RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    run->over = reporter.print_ratios({
        {"BM_UacMutexTakeGive/0", "BM_StdMutexLockUnlock", 3.0},
        {"BM_UacMutexTakeGive/1", "BM_StdMutexLockUnlock", 3.0},
        {"BM_UacMutexHold", "BM_StdMutexLockUnlock", 3.0},
        {"BM_UacMutexTakeGive/1", "BM_StdRecursiveMutexLockUnlock", 3.0},
    });
    uac_sem_give(&run->done);
    return nullptr;
}

}  // namespace

BENCHMARK(BM_StdMutexLockUnlock);
BENCHMARK(BM_StdRecursiveMutexLockUnlock);
BENCHMARK(BM_UacMutexTakeGive)->Arg(UAC_MUTEX_NORMAL)->Arg(UAC_MUTEX_RECURSIVE);
BENCHMARK(BM_UacMutexHold);

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    uac_lock_module_init();
    uac_thread_module_init();
    Run run{0, {}};
    sem_init(&run.done, 0, 0);
    pthread_t tid;
    if (uac_thread_create(&tid, "lock_bench", run_all, &run) != 0)
        return 1;
    uac_sem_take(&run.done, UAC_WAIT_FOREVER);
    sem_destroy(&run.done);
    benchmark::Shutdown();
    return 0;
}
