// bench_ratio.h - runs the registered benchmarks and prints each measured pair as a
// ratio against its limit, both sides measured in the same run.
#ifndef NMS_BENCH_RATIO_H
#define NMS_BENCH_RATIO_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace nms_bench {

// Ratios compare CPU times per iteration, the lowest of the repetitions
// (--benchmark_repetitions=N) of each benchmark.

// One comparison: `ours` must stay within `limit` times `baseline` (names as reported,
// e.g. "BM_MemGuardAllocFree/64").
struct Pair {
    std::string ours;
    std::string baseline;
    double limit;
};

class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        // CPU time, the best of the repetitions: the machine is shared, and a preempted
        // run says nothing about the code.
        // With --benchmark_report_aggregates_only only the aggregates arrive: then the
        // median stands in.
        for (const Run &r : runs) {
            const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (r.run_type != Run::RT_Iteration && !median)
                continue;
            const double t = r.GetAdjustedCPUTime();
            const std::string name = median ? r.run_name.str() : r.benchmark_name();
            auto it = ns_.find(name);
            if (it == ns_.end() || t < it->second)
                ns_[name] = t;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // Prints one line per pair; returns the number of pairs over their limit.
    int print_ratios(const std::vector<Pair> &pairs) const {
        int over = 0;
        printf("\n%-36s %-32s %8s %6s\n", "ours", "baseline", "ratio", "limit");
        for (const Pair &p : pairs) {
            auto a = ns_.find(p.ours), b = ns_.find(p.baseline);
            if (a == ns_.end() || b == ns_.end() || b->second <= 0)
                continue;
            double ratio = a->second / b->second;
            if (ratio > p.limit)
                ++over;
            printf("%-36s %-32s %7.3fx %5.2fx %s\n", p.ours.c_str(), p.baseline.c_str(), ratio,
                   p.limit, ratio > p.limit ? "OVER" : "ok");
        }
        return over;
    }

private:
    std::map<std::string, double> ns_;
};

}  // namespace nms_bench

#endif  // NMS_BENCH_RATIO_H
