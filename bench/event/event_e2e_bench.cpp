// event_e2e_bench.cpp - the event pipeline end to end: the daemon on a sandboxed device, fed
// through its message queues, reporting to cloudsim. One run measures, in this order:
//
//   idle   the daemon's processor use over 30 idle seconds (/proc/<pid>/stat), and its resident
//          memory while idle
//   ingest the daemon's ingest rate from a queue into its list, in rounds that alternate with
//          the limit: raw msgsnd/msgrcv between two processes on one queue, same frames
//   deliver the rate at which events sent to list 0 arrive at cloudsim
//   latency send -> cloudsim for list-0 events at a steady rate, p50 and p99
//   memory the daemon's resident memory with all eight lists full of the longest events the
//          queue passes (495 characters of params)
//
// The binary re-executes itself inside scripts/sandbox (ubusd, cloudsim and devsim started
// there) and starts the daemon itself, so that the settings are in place before it reads them
// and its pid is known. A summary with every figure against its limit ends the output.
#include "bench_device.h"

#include <sys/msg.h>
#include <unistd.h>

#include "event_list.h"
#include "uac_mem.h"

namespace {

using namespace benchdev;

// ---- what is measured and against what ----------------------------------------------------

constexpr double kIngestRatioMin = 0.8;    // ingest rate / raw queue rate, each run (aim 0.9)
constexpr double kDaemonTimeMax = 2.0;     // daemon time a message / raw receiver's
constexpr double kP99LimitMs = 1500;       // send -> cloud, list 0
constexpr double kIdleCpuLimitPct = 0.05;  // of one core
constexpr double kIdleAnonLimitMib = 2.0;  // anonymous memory idle: 2048 kB as /proc counts
constexpr double kFullOverFloorMax = 1.10; // anonymous memory with all lists full / floor

// The floor of the full lists: 48 000 events, each two guarded blocks (the node, and the
// params copy of 495 characters and the NUL), each block a malloc chunk of its size plus the
// guard, plus glibc's size word, rounded up to its alignment of two words.
double full_lists_floor_mib()
{
    auto chunk = [](size_t n) {
        const size_t align = 2 * sizeof(size_t);
        return (n + sizeof(size_t) + align - 1) / align * align;
    };
    const size_t guard = MEM_GUARD_OVERHEAD;  // header and tail marks, 152 bytes
    const size_t per_event = chunk(sizeof(nms_event_node) + guard) + chunk(496 + guard);
    return 8.0 * NMS_EVENT_LIST_SLOTS * static_cast<double>(per_event) / 1048576.0;
}

constexpr int kIdleSeconds = 30;
constexpr double kSettleSeconds = 6;      // start-up's own work is over by then
constexpr int kIngestRounds = 30;         // alternating raw and ingest rounds: six turns
constexpr int kIngestPerRound = 5000;     // fits one list (6000) and one queue (7000)
constexpr int kFirstIngestList = 3;       // lists 3..7: reported by time only, never here
constexpr int kLatencyRate = 200;         // events per second
constexpr int kLatencySeconds = 10;
constexpr int kFillChunk = 500;           // keeps the queue backlog far below 5249

// ---- the limit: raw queue throughput ------------------------------------------------------

// The limit: a second process that only receives, on a private queue of the same size. The
// daemon makes its queues with mode 0, so that every send and receive by root passes the
// kernel's capability check; the limit's queue is made the same way. A 0600 queue, which
// skips that check, is measured beside it for the record.
constexpr int kDaemonQueueMode = 0;
constexpr int kOpenQueueMode = 0600;

class RawReceiver {
public:
    explicit RawReceiver(int mode = kDaemonQueueMode)
    {
        qid_ = msgget(IPC_PRIVATE, IPC_CREAT | mode);
        msqid_ds st{};
        if (qid_ < 0 || msgctl(qid_, IPC_STAT, &st) != 0)
            return;
        st.msg_qbytes = 3584000;
        msgctl(qid_, IPC_SET, &st);
        if (pipe(cmd_) != 0 || pipe(res_) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close(cmd_[1]);
            close(res_[0]);
            serve();
            _exit(0);
        }
        close(cmd_[0]);
        close(res_[1]);
        ok_ = pid_ > 0;
    }
    ~RawReceiver()
    {
        if (ok_) {
            int zero = 0;
            (void)!write(cmd_[1], &zero, sizeof zero);
            waitpid(pid_, nullptr, 0);
        }
        if (qid_ >= 0)
            msgctl(qid_, IPC_RMID, nullptr);
    }
    bool ok() const { return ok_; }
    int qid() const { return qid_; }

    // Tells the receiver to take n messages; collect() waits until it has.
    void expect(int n) { (void)!write(cmd_[1], &n, sizeof n); }
    // Monotonic time of the last receive and the receiver's processor time for the round.
    bool collect(int64_t &done_ns, int64_t &cpu_ns)
    {
        int64_t r[2];
        if (read(res_[0], r, sizeof r) != sizeof r)
            return false;
        done_ns = r[0];
        cpu_ns = r[1];
        return true;
    }

private:
    void serve()
    {
        Frame f{};
        int n;
        while (read(cmd_[0], &n, sizeof n) == sizeof n && n > 0) {
            int64_t cpu0 = self_cpu_ns();
            for (int i = 0; i < n; i++) {
                std::memset(&f, 0, sizeof f);
                if (msgrcv(qid_, &f, kFrameText, 0, 0) < 0 && errno != EINTR)
                    _exit(1);
            }
            int64_t r[2] = {mono_ns(), self_cpu_ns() - cpu0};
            if (write(res_[1], r, sizeof r) != sizeof r)
                _exit(1);
        }
    }

    int qid_ = -1;
    int cmd_[2] = {-1, -1};
    int res_[2] = {-1, -1};
    pid_t pid_ = -1;
    bool ok_ = false;
};

Daemon gDaemon;

// ---- results of the run, printed at the end ----------------------------------------------

struct Results {
    double load_start[3] = {0, 0, 0};
    double load_end[3] = {0, 0, 0};
    double idle_cpu_pct = -1;      // from /proc/<pid>/stat ticks
    double idle_cpu_pct_ns = -1;   // from the process CPU clock
    double idle_rss_mb = -1;
    double idle_anon_mb = -1;
    double raw_per_s = -1;
    double ingest_per_s = -1;
    double ingest_ratio = -1;      // median of the per-round ratios
    double ingest_ratio_total = -1;
    double open_raw_per_s = -1;    // the raw pair on a 0600 queue
    double open_ratio = -1;        // ingest against it, median of the rounds
    double raw_recv_ns = -1;       // receiver's processor time per message
    double ingest_ns = -1;         // daemon's processor time per message
    double flood_per_s = -1;       // into a full list under replace-oldest
    double flood_raw_per_s = -1;
    double flood_ratio = -1;
    double flood_ns = -1;
    double flood_ingest_ratio = -1;  // ordinary ingest in the rounds between the flood's
    double flood_ingest_ns = -1;
    double bare_ratio = -1;        // ingest ratio without the ledger's per-event work
    double ledger_ratio = -1;      // and with it, in the same run
    double ledger_paired = -1;     // median over the turns of with / without
    double bare_ns = -1, ledger_ns = -1;
    double deliver_small_per_s = -1;
    double deliver_small_batch = -1;
    double deliver_large_per_s = -1;
    double deliver_large_batch = -1;
    double p50_ms = -1, p99_ms = -1, max_ms = -1;
    int latency_events = 0;
    double full_rss_mb = -1;
    double full_hwm_mb = -1;
    double full_anon_mb = -1;
    double bytes_per_event = -1;   // anonymous memory the full lists added, per event
};
Results gR;

// ---- (e) idle processor use, idle memory ---------------------------------------------------

void BM_Idle(benchmark::State &state)
{
    for (auto _ : state) {
        long t0 = gDaemon.stat_ticks();
        int64_t c0 = gDaemon.cpu_ns();
        int64_t w0 = mono_ns();
        std::this_thread::sleep_for(std::chrono::seconds(kIdleSeconds));
        long t1 = gDaemon.stat_ticks();
        int64_t c1 = gDaemon.cpu_ns();
        double wall = static_cast<double>(mono_ns() - w0) / 1e9;
        state.SetIterationTime(wall);
        gR.idle_cpu_pct = 100.0 * static_cast<double>(t1 - t0) /
                          static_cast<double>(sysconf(_SC_CLK_TCK)) / wall;
        gR.idle_cpu_pct_ns = 100.0 * static_cast<double>(c1 - c0) / 1e9 / wall;
        gR.idle_rss_mb = static_cast<double>(gDaemon.status_kb("VmRSS")) / 1024.0;
        gR.idle_anon_mb = static_cast<double>(gDaemon.status_kb("RssAnon")) / 1024.0;
    }
    state.counters["cpu_pct"] = gR.idle_cpu_pct;
    state.counters["cpu_pct_ns"] = gR.idle_cpu_pct_ns;
    state.counters["rss_MiB"] = gR.idle_rss_mb;
    state.counters["anon_MiB"] = gR.idle_anon_mb;
}
BENCHMARK(BM_Idle)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// ---- (a) raw queue rate and (b) ingest rate, alternating ---------------------------------
//
// Both sides get the same 512-byte frames (495 characters of params) from the same tight
// msgsnd loop. Raw: a second process receives them. Ingest: the daemon's dispatch worker of
// list L receives them, checks the params and inserts each into list L; the round ends when
// the queue is seen empty (this process polls the backlog with IPC_STAT every 20 us, which
// costs the daemon nothing), and the lists' fill is checked through the debug shell after the
// measurement. Lists 3..7 take the rounds in turn (policy 1, one hour of buffering: nothing is
// reported during the rounds); they are emptied with the bus's clean between turns.

// One raw round of kIngestPerRound frames through queue, in seconds (-1: failed); the
// receiver's processor time is added to cpu.
double raw_round(RawReceiver &raw, Frame &f, double &cpu)
{
    raw.expect(kIngestPerRound);
    int64_t r0 = mono_ns();
    int64_t r1 = 0, rcpu = 0;
    if (!send_frames(raw.qid(), f, kIngestPerRound) || !raw.collect(r1, rcpu))
        return -1;
    cpu += static_cast<double>(rcpu);
    return static_cast<double>(r1 - r0) / 1e9;
}

// One raw round and one ingest round of kIngestPerRound frames into list, added to the sums;
// with open, a raw round on the 0600 queue as well.
struct Rounds {
    std::vector<double> ratios, open_ratios;
    double raw_s = 0, ingest_s = 0, raw_cpu = 0, ingest_cpu = 0, open_s = 0, open_cpu = 0;

    bool run(benchmark::State &state, RawReceiver &raw, int list, RawReceiver *open = nullptr)
    {
        Frame f = make_frame(list, kParamsMax);
        double os = open ? raw_round(*open, f, open_cpu) : 0;
        double rs = raw_round(raw, f, raw_cpu);  // the limit, next to the ingest round
        bool ok = rs > 0 && os >= 0;

        int qid = queue_of_list(list);
        int64_t c0 = gDaemon.cpu_ns();
        int64_t i0 = mono_ns();
        ok = ok && qid >= 0 && send_frames(qid, f, kIngestPerRound);
        int64_t i1 = ok ? wait_queue_empty(qid, 60s) : -1;
        int64_t c1 = gDaemon.cpu_ns();
        if (!ok || i1 < 0)
            return false;
        double is = static_cast<double>(i1 - i0) / 1e9;
        state.SetIterationTime(is);
        raw_s += rs;
        ingest_s += is;
        ingest_cpu += static_cast<double>(c1 - c0);
        ratios.push_back(rs / is);
        if (open) {
            open_s += os;
            open_ratios.push_back(os / is);
        }
        return true;
    }
    double events() const { return static_cast<double>(kIngestPerRound) * ratios.size(); }
};

void BM_IngestVsRaw(benchmark::State &state)
{
    RawReceiver raw, open(kOpenQueueMode);
    if (!raw.ok() || !open.ok()) {
        state.SkipWithError("no raw receiver");
        return;
    }
    if (!Daemon::bus("clean_cache")) {
        state.SkipWithError("clean_cache failed");
        return;
    }
    Rounds r;
    int round = 0;
    for (auto _ : state) {
        int list = kFirstIngestList + round % (kLists - kFirstIngestList);
        if (!r.run(state, raw, list, &open)) {
            state.SkipWithError("a round did not complete");
            return;
        }
        // After a turn over lists 3..7 (or at the end): every event is in its list.
        round++;
        if (round % (kLists - kFirstIngestList) == 0 || round == kIngestRounds) {
            state.PauseTiming();
            int first = kFirstIngestList, last = list;
            bool filled = true;
            for (int l = first; l <= last; l++)
                filled = filled && Daemon::list_count(l) == kIngestPerRound;
            bool cleaned = Daemon::bus("clean_cache");
            state.ResumeTiming();
            if (!filled || !cleaned) {
                state.SkipWithError("events missing from the lists");
                return;
            }
        }
    }
    double n = r.events();
    gR.raw_per_s = n / r.raw_s;
    gR.ingest_per_s = n / r.ingest_s;
    gR.ingest_ratio = median(r.ratios);
    gR.ingest_ratio_total = r.raw_s / r.ingest_s;
    gR.open_raw_per_s = n / r.open_s;
    gR.open_ratio = median(r.open_ratios);
    gR.raw_recv_ns = r.raw_cpu / n;
    gR.ingest_ns = r.ingest_cpu / n;
    state.counters["raw_per_s"] = gR.raw_per_s;
    state.counters["ingest_per_s"] = gR.ingest_per_s;
    state.counters["ratio"] = gR.ingest_ratio;
    state.counters["raw_ns_msg"] = gR.raw_recv_ns;
    state.counters["ingest_ns_msg"] = gR.ingest_ns;
}
BENCHMARK(BM_IngestVsRaw)->Iterations(kIngestRounds)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- (b') a flood into a full list under replace-oldest, against the same limit -------------
//
// List 7 (policy 1) is filled to its 6000 slots first; then every event of a round replaces
// the oldest one, which is what a list does while a device is in trouble. Each flood round is
// followed by an ordinary ingest round into one of lists 3..6, both with their raw rounds, so
// that the two ratios meet the same machine: the raw pair runs measurably faster while the
// daemon's memory stays put than while it grows, which separate phases would credit to one
// of them. After a turn over lists 3..6 everything is cleaned and list 7 filled again.

// The queue is seen empty as the worker takes its last message, before that is stored.
bool list_reaches(int list, int count)
{
    for (int i = 0; i < 50; i++) {
        if (Daemon::list_count(list) == count)
            return true;
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

void BM_FloodFullVsRaw(benchmark::State &state)
{
    RawReceiver raw, open(kOpenQueueMode);
    const int full = kLists - 1;
    const int others = full - kFirstIngestList;  // lists 3..6
    int qid = queue_of_list(full);
    Frame f = make_frame(full, kParamsMax);
    auto refill = [&] {
        return Daemon::bus("clean_cache") && send_frames(qid, f, kListSlots) &&
               wait_queue_empty(qid, 60s) >= 0 && list_reaches(full, kListSlots);
    };
    if (!raw.ok() || !open.ok() || qid < 0 || !refill()) {
        state.SkipWithError("list 7 could not be filled");
        return;
    }
    Rounds flood, ingest;
    int round = 0;
    for (auto _ : state) {
        if (!flood.run(state, raw, full, &open) ||
            !ingest.run(state, raw, kFirstIngestList + round % others, &open)) {
            state.SkipWithError("a round did not complete");
            return;
        }
        if (++round % others == 0) {
            state.PauseTiming();
            bool kept = list_reaches(full, kListSlots);
            for (int l = kFirstIngestList; l < full; l++)
                kept = kept && Daemon::list_count(l) == kIngestPerRound;
            kept = kept && refill();
            state.ResumeTiming();
            if (!kept) {
                state.SkipWithError("a list lost or gained events");
                return;
            }
        }
    }
    if (!Daemon::bus("clean_cache")) {
        state.SkipWithError("clean_cache failed");
        return;
    }
    double n = flood.events();
    gR.flood_per_s = n / flood.ingest_s;
    gR.flood_raw_per_s = n / flood.raw_s;
    gR.flood_ratio = median(flood.ratios);
    gR.flood_ns = flood.ingest_cpu / n;
    gR.flood_ingest_ratio = median(ingest.ratios);
    gR.flood_ingest_ns = ingest.ingest_cpu / ingest.events();
    state.counters["flood_per_s"] = gR.flood_per_s;
    state.counters["ratio"] = gR.flood_ratio;
    state.counters["ingest_ratio"] = gR.flood_ingest_ratio;
    state.counters["flood_ns_msg"] = gR.flood_ns;
}
BENCHMARK(BM_FloodFullVsRaw)->Iterations(kIngestRounds)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- (b'') what the ledger costs ----------------------------------------------------------
//
// The same rounds as (b), with the daemon restarted in turn as nms_report_bare (the same
// sources with the ledger's per-event work compiled out) and as nms_report, kLedgerTurns times
// each, so that both builds meet the same machine. The figures are each build's median ratio
// against the raw pair, the median over the turns of with / without (each turn's pair of runs
// side by side, which takes the machine's drift out) and the processor time a message. The
// real daemon runs again after it. On a shared 2-core machine the rounds move by 10-20 %, far
// more than the ledger costs: ledger_cost_bench measures that part alone.

constexpr int kLedgerTurns = 5;
constexpr int kLedgerRounds = 5;           // one round on each of lists 3..7
constexpr double kLedgerCostMax = 0.02;    // ingest ratio at most 2 % lower with the ledger

bool restart_as(const char *program)
{
    gDaemon.stop();
    if (!gDaemon.start(program) || !Daemon::bus("begin_report"))
        return false;
    while (gDaemon.seconds_up() < kSettleSeconds)
        std::this_thread::sleep_for(100ms);
    return Daemon::bus("clean_cache");
}

void BM_IngestLedgerCost(benchmark::State &state)
{
    RawReceiver raw;
    if (!raw.ok() || access("/usr/sbin/nms_report_bare", X_OK) != 0) {
        state.SkipWithError("no raw receiver, or no nms_report_bare in the install tree");
        return;
    }
    std::vector<double> ratios[2], paired;
    double cpu[2] = {0, 0}, events[2] = {0, 0};
    for (auto _ : state) {
        for (int turn = 0; turn < kLedgerTurns; turn++) {
            double turn_median[2] = {0, 0};
            for (int with = 0; with < 2; with++) {
                if (!restart_as(with ? "nms_report" : "nms_report_bare")) {
                    state.SkipWithError("the daemon did not come up again");
                    return;
                }
                Rounds r;
                for (int i = 0; i < kLedgerRounds; i++) {
                    if (!r.run(state, raw, kFirstIngestList + i)) {
                        state.SkipWithError("a round did not complete");
                        return;
                    }
                }
                for (int l = kFirstIngestList; l < kFirstIngestList + kLedgerRounds; l++) {
                    if (Daemon::list_count(l) != kIngestPerRound) {
                        state.SkipWithError("events missing from the lists");
                        return;
                    }
                }
                ratios[with].insert(ratios[with].end(), r.ratios.begin(), r.ratios.end());
                cpu[with] += r.ingest_cpu;
                events[with] += r.events();
                turn_median[with] = median(r.ratios);
            }
            paired.push_back(turn_median[1] / turn_median[0]);
        }
    }
    Daemon::bus("clean_cache");
    gR.bare_ratio = median(ratios[0]);
    gR.ledger_ratio = median(ratios[1]);
    gR.ledger_paired = median(paired);
    gR.bare_ns = cpu[0] / events[0];
    gR.ledger_ns = cpu[1] / events[1];
    state.counters["ratio_without"] = gR.bare_ratio;
    state.counters["ratio_with"] = gR.ledger_ratio;
    state.counters["ns_msg_without"] = gR.bare_ns;
    state.counters["ns_msg_with"] = gR.ledger_ns;
}
BENCHMARK(BM_IngestLedgerCost)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- (c) delivered rate at cloudsim, list 0 ----------------------------------------------
//
// count events of one size go into list 0 as fast as the sender library sends them; the rate
// is count over the time from the first send to the arrival (cloudsim's clock) of the report
// that completed them. A list-0 batch leaves at every scan, so the rate is about one batch
// (as many events as the report text holds) a scan.

void BM_DeliverList0(benchmark::State &state)
{
    const int len = static_cast<int>(state.range(0));
    const int count = static_cast<int>(state.range(1));
    Cloud cloud;
    if (!cloud.catch_up()) {
        state.SkipWithError("cloudsim does not answer");
        return;
    }
    double rate = 0, per_batch = 0;
    for (auto _ : state) {
        int64_t first = wall_ms();
        for (int i = 0; i < count; i++) {
            std::string p = params_text(static_cast<uint64_t>(i), len);
            if (nms_event_send(0, type_of_list(0), static_cast<uint64_t>(wall_ms()), p.c_str()) != 0) {
                state.SkipWithError("send failed");
                return;
            }
        }
        int got = 0, reports = 0;
        int64_t last = 0;
        int64_t give_up = mono_ns() + int64_t(120) * 1000000000;
        std::vector<Arrival> arr;
        while (got < count && mono_ns() < give_up) {
            std::this_thread::sleep_for(100ms);
            arr.clear();
            cloud.poll(arr);
            for (const Arrival &a : arr) {
                if (a.status != 200)
                    continue;
                got += static_cast<int>(a.stamps.size());
                reports++;
                last = std::max(last, a.time_ms);
            }
        }
        if (got < count) {
            state.SkipWithError("not every event arrived");
            return;
        }
        double secs = static_cast<double>(last - first) / 1000.0;
        state.SetIterationTime(secs);
        rate = count / secs;
        per_batch = static_cast<double>(got) / reports;
    }
    state.counters["delivered_per_s"] = rate;
    state.counters["events_per_report"] = per_batch;
    (len == kParamsMax ? gR.deliver_large_per_s : gR.deliver_small_per_s) = rate;
    (len == kParamsMax ? gR.deliver_large_batch : gR.deliver_small_batch) = per_batch;
}
BENCHMARK(BM_DeliverList0)
    ->Args({kSmallParams, kListSlots})
    ->Args({kParamsMax, 2000})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// ---- (d) latency send -> cloudsim, list 0 ------------------------------------------------
//
// kLatencyRate events a second for kLatencySeconds, each stamped with its send time in
// milliseconds (the event's own time field); its latency is the arrival time of the report
// that carried it (cloudsim's clock, the same wall clock) minus that stamp.

void BM_LatencyList0(benchmark::State &state)
{
    Cloud cloud;
    if (!cloud.catch_up()) {
        state.SkipWithError("cloudsim does not answer");
        return;
    }
    std::vector<double> lat;
    for (auto _ : state) {
        const int total = kLatencyRate * kLatencySeconds;
        auto next = std::chrono::steady_clock::now();
        const auto step = std::chrono::microseconds(1000000 / kLatencyRate);
        for (int i = 0; i < total; i++) {
            std::this_thread::sleep_until(next);
            next += step;
            std::string p = params_text(static_cast<uint64_t>(i), kSmallParams);
            if (nms_event_send(0, type_of_list(0), static_cast<uint64_t>(wall_ms()), p.c_str()) != 0) {
                state.SkipWithError("send failed");
                return;
            }
        }
        int64_t give_up = mono_ns() + int64_t(30) * 1000000000;
        std::vector<Arrival> arr;
        while (static_cast<int>(lat.size()) < total && mono_ns() < give_up) {
            std::this_thread::sleep_for(100ms);
            arr.clear();
            cloud.poll(arr);
            for (const Arrival &a : arr)
                if (a.status == 200)
                    for (int64_t s : a.stamps)
                        lat.push_back(static_cast<double>(a.time_ms - s));
        }
        if (static_cast<int>(lat.size()) < total) {
            state.SkipWithError("not every event arrived");
            return;
        }
        state.SetIterationTime(static_cast<double>(kLatencySeconds));
    }
    gR.p50_ms = percentile(lat, 0.50);
    gR.p99_ms = percentile(lat, 0.99);
    gR.max_ms = percentile(lat, 1.0);
    gR.latency_events = static_cast<int>(lat.size());
    state.counters["p50_ms"] = gR.p50_ms;
    state.counters["p99_ms"] = gR.p99_ms;
    state.counters["max_ms"] = gR.max_ms;
}
BENCHMARK(BM_LatencyList0)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// ---- (f) memory with all eight lists full -------------------------------------------------
//
// The cloud answers 500 from here on, so the failed batches of lists 0..2 keep their events;
// the queues are fed in chunks that leave them empty between chunks, so the backlog never
// comes near 5249 (above which a failed batch would delete its events). Every list is topped
// up to 6000 events of 495 characters of params, the longest the queue passes (the list would
// take 500).

void BM_MemoryFull(benchmark::State &state)
{
    Cloud cloud;
    if (!cloud.fault("{\"clear\":true,\"status\":500,\"count\":1000000}")) {
        state.SkipWithError("cloudsim takes no fault order");
        return;
    }
    for (auto _ : state) {
        int64_t t0 = mono_ns();
        for (int list = 0; list < kLists; list++) {
            int have = Daemon::list_count(list);
            int qid = queue_of_list(list);
            if (have < 0 || qid < 0) {
                state.SkipWithError("list or queue not available");
                return;
            }
            Frame f = make_frame(list, kParamsMax);
            for (int left = kListSlots - have; left > 0; left -= kFillChunk) {
                if (!send_frames(qid, f, std::min(left, kFillChunk)) ||
                    wait_queue_empty(qid, 60s) < 0) {
                    state.SkipWithError("filling a list failed");
                    return;
                }
            }
        }
        std::this_thread::sleep_for(2s);  // the last insertions and a round of failed batches
        for (int list = 0; list < kLists; list++) {
            if (Daemon::list_count(list) != kListSlots) {
                state.SkipWithError("a list is not full");
                return;
            }
        }
        state.SetIterationTime(static_cast<double>(mono_ns() - t0) / 1e9);
        gR.full_rss_mb = static_cast<double>(gDaemon.status_kb("VmRSS")) / 1024.0;
        gR.full_hwm_mb = static_cast<double>(gDaemon.status_kb("VmHWM")) / 1024.0;
        gR.full_anon_mb = static_cast<double>(gDaemon.status_kb("RssAnon")) / 1024.0;
        if (gR.idle_anon_mb >= 0)
            gR.bytes_per_event = (gR.full_anon_mb - gR.idle_anon_mb) * 1048576.0 /
                                 (static_cast<double>(kLists) * kListSlots);
    }
    cloud.fault("{\"clear\":true}");
    state.counters["rss_MiB"] = gR.full_rss_mb;
    state.counters["hwm_MiB"] = gR.full_hwm_mb;
    state.counters["anon_MiB"] = gR.full_anon_mb;
}
BENCHMARK(BM_MemoryFull)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// ---- the device ----------------------------------------------------------------------------

// Lists 0..2 as shipped (policy 2, threshold 50, 600 s); lists 3..7 reported by time only and
// not within the run. Types 1..8 enabled, type i+1 on list i.
void write_settings()
{
    write_device_settings([](int list) {
        return list >= kFirstIngestList ? ListSettings{3600, 600, 1} : ListSettings{600, 50, 2};
    });
}

const char *verdict(bool ok) { return ok ? "ok" : "MISSED"; }

void print_summary()
{
    printf("\n== event pipeline end to end: summary\n");
    printf("load average at start %.2f %.2f %.2f, at end %.2f %.2f %.2f (%ld CPUs)\n",
           gR.load_start[0], gR.load_start[1], gR.load_start[2], gR.load_end[0], gR.load_end[1],
           gR.load_end[2], sysconf(_SC_NPROCESSORS_ONLN));
    printf("%-44s %14s %14s %8s\n", "figure", "measured", "limit", "ratio");
    if (gR.raw_per_s > 0) {
        printf("%-44s %12.0f/s\n", "(a) raw msgsnd->msgrcv, 2 processes", gR.raw_per_s);
        printf("%-44s %12.0f/s\n", "    the same on a 0600 queue", gR.open_raw_per_s);
        printf("%-44s %12.0f/s %12.0f/s %7.2f  median of rounds %.2f, target >= %.1f %s\n",
               "(b) ingest queue -> list", gR.ingest_per_s, gR.raw_per_s,
               gR.ingest_ratio_total, gR.ingest_ratio, kIngestRatioMin,
               verdict(gR.ingest_ratio >= kIngestRatioMin));
        printf("%-44s %14s %12.0f/s %7.2f  median of rounds, against the 0600 queue\n",
               "    against the 0600 queue", "", gR.open_raw_per_s, gR.open_ratio);
        printf("%-44s %11.2f us %11.2f us %7.2f  daemon / raw receiver, target <= %.1f %s\n",
               "    processor time per message", gR.ingest_ns / 1e3, gR.raw_recv_ns / 1e3,
               gR.ingest_ns / gR.raw_recv_ns, kDaemonTimeMax,
               verdict(gR.ingest_ns <= kDaemonTimeMax * gR.raw_recv_ns));
    }
    if (gR.flood_per_s > 0)
        printf("%-44s %12.0f/s %12.0f/s %7.2f  median of rounds, target >= ingest between "
               "them %.2f %s (%.2f against %.2f us a message)\n",
               "(b') flood into a full policy-1 list", gR.flood_per_s, gR.flood_raw_per_s,
               gR.flood_ratio, gR.flood_ingest_ratio,
               verdict(gR.flood_ratio >= gR.flood_ingest_ratio), gR.flood_ns / 1e3,
               gR.flood_ingest_ns / 1e3);
    if (gR.bare_ratio > 0)
        printf("%-44s %14.2f %14.2f %7.3f  with / without, paired by turn %.3f, target >= %.2f "
               "%s (%.2f against %.2f us a message)\n",
               "(b'') ingest ratio with the ledger", gR.ledger_ratio, gR.bare_ratio,
               gR.ledger_ratio / gR.bare_ratio, gR.ledger_paired, 1 - kLedgerCostMax,
               verdict(gR.ledger_paired >= 1 - kLedgerCostMax), gR.ledger_ns / 1e3,
               gR.bare_ns / 1e3);
    if (gR.deliver_small_per_s > 0)
        printf("%-44s %12.0f/s %12.0f/s %7.3f  (%.0f events a report; limit: raw queue)\n",
               "(c) delivered at cloudsim, 32-char params", gR.deliver_small_per_s, gR.raw_per_s,
               gR.raw_per_s > 0 ? gR.deliver_small_per_s / gR.raw_per_s : 0,
               gR.deliver_small_batch);
    if (gR.deliver_large_per_s > 0)
        printf("%-44s %12.0f/s %12.0f/s %7.3f  (%.0f events a report)\n",
               "    delivered at cloudsim, 495-char params", gR.deliver_large_per_s,
               gR.raw_per_s, gR.raw_per_s > 0 ? gR.deliver_large_per_s / gR.raw_per_s : 0,
               gR.deliver_large_batch);
    if (gR.p99_ms >= 0) {
        printf("%-44s %11.0f ms\n", "(d) latency send -> cloudsim p50", gR.p50_ms);
        printf("%-44s %11.0f ms %11.0f ms %7.2f  %s (max %.0f ms, %d events)\n", "    p99",
               gR.p99_ms, kP99LimitMs, gR.p99_ms / kP99LimitMs, verdict(gR.p99_ms <= kP99LimitMs),
               gR.max_ms, gR.latency_events);
    }
    // Judged by the process's CPU clock: /proc's tick count moves in steps of 10 ms, which
    // over 30 s is 0.033 % a step, as coarse as the limit itself.
    if (gR.idle_cpu_pct_ns >= 0)
        printf("%-44s %12.3f %% %12.3f %% %7.2f  %s (CPU clock; /proc ticks: %.3f %%)\n",
               "(e) idle processor use over 30 s", gR.idle_cpu_pct_ns, kIdleCpuLimitPct,
               gR.idle_cpu_pct_ns / kIdleCpuLimitPct,
               verdict(gR.idle_cpu_pct_ns <= kIdleCpuLimitPct), gR.idle_cpu_pct);
    if (gR.idle_rss_mb >= 0) {
        printf("%-44s %10.2f MiB %10.2f MiB %7.2f  %s (%.2f million bytes; resident in all "
               "%.1f MiB)\n",
               "(f) anonymous memory idle", gR.idle_anon_mb, kIdleAnonLimitMib,
               gR.idle_anon_mb / kIdleAnonLimitMib, verdict(gR.idle_anon_mb <= kIdleAnonLimitMib),
               gR.idle_anon_mb * 1.048576, gR.idle_rss_mb);
    }
    if (gR.full_rss_mb >= 0) {
        const double floor_mib = full_lists_floor_mib();
        printf("%-44s %10.1f MiB %10.1f MiB %7.2f  floor, target <= %.2f %s (resident %.1f MiB, "
               "%.0f bytes an event)\n",
               "    anonymous, all lists full (8 x 6000 x 495)", gR.full_anon_mb, floor_mib,
               gR.full_anon_mb / floor_mib, kFullOverFloorMax,
               verdict(gR.full_anon_mb <= kFullOverFloorMax * floor_mib), gR.full_rss_mb,
               gR.bytes_per_event);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    const DeviceRun run{"event_e2e_bench", kSettleSeconds,
                        [] {
                            write_settings();
                            getloadavg(gR.load_start, 3);
                        },
                        [] {
                            getloadavg(gR.load_end, 3);
                            print_summary();
                        }};
    return bench_main(argc, argv, gDaemon, run);
}
