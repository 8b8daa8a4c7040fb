// ledger_cost_bench.cpp - the ledger's work on an event's way in, in-process, against one
// message through a System V queue (msgsnd + msgrcv of a 512-byte frame, one thread): the
// least any event costs the daemon. The end-to-end comparison (event_e2e_bench, (b'')) is
// the same question asked of the whole daemon, with more noise than the answer.
//
//   BM_QueuePair          msgsnd + msgrcv on a private queue
//   BM_LedgerPerEvent     arrival stamp and accepted count, as a worker does for each event
//   BM_LedgerPerEventTick the same with the clock read of a receive round for every event
//                         (each round takes one event when they come one at a time)
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstring>

#include "../lib/bench_ratio.h"
#include "nms_ledger.h"

namespace {

struct Frame {
    long mtype;
    char text[512];
};

void BM_QueuePair(benchmark::State &state)
{
    int qid = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    if (qid < 0) {
        state.SkipWithError("no private queue");
        return;
    }
    Frame f{};
    f.mtype = 1;
    std::memset(f.text, 'x', sizeof f.text - 1);
    for (auto _ : state) {
        msgsnd(qid, &f, sizeof f.text, 0);
        benchmark::DoNotOptimize(msgrcv(qid, &f, sizeof f.text, 0, 0));
    }
    msgctl(qid, IPC_RMID, nullptr);
}

void BM_LedgerPerEvent(benchmark::State &state)
{
    uint32_t stamp = 0;
    nms_ledger::tick(3);
    for (auto _ : state) {
        stamp = nms_ledger::arrival(3);
        nms_ledger::bump(nms_ledger::list(3).in.accepted);
        benchmark::DoNotOptimize(stamp);
    }
}

void BM_LedgerPerEventTick(benchmark::State &state)
{
    uint32_t stamp = 0;
    for (auto _ : state) {
        nms_ledger::tick(3);
        stamp = nms_ledger::arrival(3);
        nms_ledger::bump(nms_ledger::list(3).in.accepted);
        benchmark::DoNotOptimize(stamp);
    }
}

}  // namespace

BENCHMARK(BM_QueuePair);
BENCHMARK(BM_LedgerPerEvent);
BENCHMARK(BM_LedgerPerEventTick);

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    nms_bench::RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    // At most 2 % of the cheapest possible event.
    int over = reporter.print_ratios({
        {"BM_LedgerPerEvent", "BM_QueuePair", 0.02},
        {"BM_LedgerPerEventTick", "BM_QueuePair", 0.02},
    });
    benchmark::Shutdown();
    return over == 0 ? 0 : 1;
}
