// uac_mem_bench.cpp - guarded alloc+free against plain malloc+free (limit: 2x).
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_ratio.h"
#include "uac_mem.h"

namespace {

void BM_MallocFree(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void *p = malloc(size);
        benchmark::DoNotOptimize(p);
        free(p);
        benchmark::ClobberMemory();
    }
}

void BM_MemGuardAllocFree(benchmark::State &state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        void *p = mem_guard_alloc(size, __LINE__, __func__);
        benchmark::DoNotOptimize(p);
        mem_guard_free(p);
        benchmark::ClobberMemory();
    }
}

// Context, not a limit: the two things a guarded block must do beyond malloc and
// free, clear the whole block on free and frame it, priced as a plain clear.
void BM_MallocClearFree(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0)) + MEM_GUARD_OVERHEAD;
    for (auto _ : state) {
        void *p = malloc(size);
        benchmark::DoNotOptimize(p);
        memset(p, 0, size);
        free(p);
        benchmark::ClobberMemory();
    }
}

// The counting wrappers with counting off, as the daemon runs them.
void BM_UacMallocFree(benchmark::State &state) {
    const int32_t size = static_cast<int32_t>(state.range(0));
    for (auto _ : state) {
        void *p = uac_malloc(size);
        benchmark::DoNotOptimize(p);
        uac_free(p);
        benchmark::ClobberMemory();
    }
}

constexpr int kSizes[] = {16, 64, 256, 1024};

}  // namespace

BENCHMARK(BM_MallocFree)->Arg(16)->Arg(64)->Arg(256)->Arg(1024);
BENCHMARK(BM_MemGuardAllocFree)->Arg(16)->Arg(64)->Arg(256)->Arg(1024);
BENCHMARK(BM_MallocClearFree)->Arg(16)->Arg(64)->Arg(256)->Arg(1024);
BENCHMARK(BM_UacMallocFree)->Arg(16)->Arg(64)->Arg(256)->Arg(1024);

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    nms_bench::RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::vector<nms_bench::Pair> pairs;
    for (int s : kSizes) {
        const std::string arg = "/" + std::to_string(s);
        pairs.push_back({"BM_MemGuardAllocFree" + arg, "BM_MallocFree" + arg, 2.0});
        pairs.push_back({"BM_UacMallocFree" + arg, "BM_MallocFree" + arg, 2.0});
    }
    reporter.print_ratios(pairs);
    benchmark::Shutdown();
    return 0;
}
