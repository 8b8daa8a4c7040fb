// uid_allocator_bench.cpp - uid_get+uid_put against a std::deque used as a queue of free
// ids, the container that gives the same reuse order; a vector stack is shown for
// scale. Limit 4x: the pair is two out-of-line calls that also keep the double-free
// bitmap, against a few inlined loads and stores (a handful of nanoseconds either way).
#include <deque>
#include <vector>

#include "bench_ratio.h"
#include "uid_allocator.h"

namespace {

constexpr int32_t kIds = 1023;  // the wheel timer's store at the daemon's id length

// The simplest constant-time alternative: a vector of free ids used as a stack. It
// reuses the last freed id first and cannot tell a double free.
void BM_FreeListStack(benchmark::State &state) {
    std::vector<int32_t> free_ids;
    for (int32_t i = kIds - 1; i >= kIds / 2; --i)
        free_ids.push_back(i);
    for (auto _ : state) {
        int32_t id = free_ids.back();
        free_ids.pop_back();
        benchmark::DoNotOptimize(id);
        free_ids.push_back(id);
    }
}

// The same reuse order as the ring (a freed id waits behind every free one), but
// without the double-free guard.
void BM_FreeListQueue(benchmark::State &state) {
    std::deque<int32_t> free_ids;
    for (int32_t i = kIds / 2; i < kIds; ++i)
        free_ids.push_back(i);
    for (auto _ : state) {
        int32_t id = free_ids.front();
        free_ids.pop_front();
        benchmark::DoNotOptimize(id);
        free_ids.push_back(id);
    }
}

void BM_UidGetPut(benchmark::State &state) {
    uid_allocator *a = uid_create(kIds);
    for (int32_t i = 0; i < kIds / 2; ++i)  // half the ids out, as in a busy wheel
        uid_get(a);
    for (auto _ : state) {
        int32_t id = uid_get(a);
        benchmark::DoNotOptimize(id);
        uid_put(a, id);
    }
    uid_destroy(a);
}

}  // namespace

BENCHMARK(BM_FreeListStack);
BENCHMARK(BM_FreeListQueue);
BENCHMARK(BM_UidGetPut);

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    nms_bench::RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    int over = reporter.print_ratios({{"BM_UidGetPut", "BM_FreeListQueue", 4.0}});
    benchmark::Shutdown();
    return over == 0 ? 0 : 1;
}
