// nms_ledger.cpp - the daemon's ledger of events, statistics commands, the bus and the cloud.
#include "nms_ledger.h"

#include <time.h>

#include <cstring>
#include <mutex>

const char *const nms_refusal_names[NMS_REFUSAL_KINDS] = {
    "disabled", "offline", "bad_params", "full", "no_victim", "no_memory", "too_long"};
const char *const nms_departure_names[NMS_DEPARTURE_KINDS] = {
    "sent", "replaced", "dropped", "cleaned", "stopped", "removed"};

namespace nms_ledger {

namespace {

List g_lists[NMS_LEDGER_LISTS];
Link g_link;

// Types are few (one per registered parameter) and a run touches its row a few times.
constexpr size_t kStatsTypesMax = 256;   // rows beyond this are not kept
std::mutex &stats_lock() {
    static std::mutex *m = new std::mutex;   // never destroyed: commands may run at exit
    return *m;
}
std::vector<StatsFigures> &stats_rows() {
    static auto *rows = new std::vector<StatsFigures>;
    return *rows;
}

void zero(std::atomic<uint32_t> &c) { c.store(0, std::memory_order_relaxed); }
void zero(std::atomic<int32_t> &c) { c.store(0, std::memory_order_relaxed); }

}  // namespace

List &list(int i) noexcept { return g_lists[static_cast<unsigned>(i) % NMS_LEDGER_LISTS]; }
Link &link() noexcept { return g_link; }

// Seconds are all the ledger needs, and the receive loops read the clock once a round: the
// coarse clock is the tick the kernel keeps anyway (a fraction of the cost of the precise one).
#if defined(CLOCK_MONOTONIC_COARSE)
constexpr clockid_t kLedgerClock = CLOCK_MONOTONIC_COARSE;
#else
constexpr clockid_t kLedgerClock = CLOCK_MONOTONIC;
#endif

uint32_t mono_now() noexcept {
    timespec ts{};
    if (clock_gettime(kLedgerClock, &ts) != 0)
        clock_gettime(CLOCK_MONOTONIC, &ts);
    // Never 0, which stands for "not yet".
    return static_cast<uint32_t>(ts.tv_sec) + 1;
}

namespace {
const uint32_t g_started = mono_now();
}  // namespace

uint32_t uptime() noexcept { return mono_now() - g_started; }

uint32_t wall_now() noexcept {
    return static_cast<uint32_t>(time(nullptr));
}

void refused(int l, nms_refusal why) noexcept {
    if (why >= 0 && why < NMS_REFUSAL_KINDS)
        bump(list(l).in.refused[why]);
}

void departed(int l, nms_departure how, uint32_t n) noexcept {
    if (n == 0 || how < 0 || how >= NMS_DEPARTURE_KINDS)
        return;
    if (how == NMS_GONE_REPLACED)
        bump(list(l).in.replaced, n);   // the worker's own line: it replaces under its insert
    else
        bump(list(l).out.gone[how], n);
}

void batch(int l, uint32_t n, bool ok, int32_t result) noexcept {
    ListOut &o = list(l).out;
    bump(ok ? o.batches_ok : o.batches_failed);
    o.last_batch_size.store(n, std::memory_order_relaxed);
    o.last_batch_result.store(result, std::memory_order_relaxed);
    o.last_batch_ok.store(ok ? 1 : 0, std::memory_order_relaxed);
    o.last_batch_wall.store(wall_now(), std::memory_order_relaxed);
    o.last_batch_mono.store(mono_now(), std::memory_order_relaxed);
}

void waited(int l, uint32_t ms) noexcept {
    bump(list(l).in.waits);
    bump(list(l).in.wait_ms, ms);
}

void bus_connected(bool reconnect) noexcept {
    bump(reconnect ? g_link.bus_reconnects : g_link.bus_connects);
}

void link_state(int32_t online) noexcept {
    online = online ? 1 : 0;
    if (g_link.online.exchange(online, std::memory_order_relaxed) == online &&
        g_link.online_since_mono.load(std::memory_order_relaxed) != 0)
        return;
    g_link.online_since_wall.store(wall_now(), std::memory_order_relaxed);
    g_link.online_since_mono.store(mono_now(), std::memory_order_relaxed);
}

void cloud_send(bool ok, int32_t result) noexcept {
    if (ok) {
        bump(g_link.sends_ok);
        g_link.last_ok_wall.store(wall_now(), std::memory_order_relaxed);
        g_link.last_ok_mono.store(mono_now(), std::memory_order_relaxed);
        return;
    }
    bump(g_link.sends_failed);
    g_link.last_fail_result.store(result, std::memory_order_relaxed);
    g_link.last_fail_wall.store(wall_now(), std::memory_order_relaxed);
    g_link.last_fail_mono.store(mono_now(), std::memory_order_relaxed);
}

void stats(const char *type, StatsWhat what) noexcept {
    if (!type)
        return;
    std::lock_guard<std::mutex> hold(stats_lock());
    std::vector<StatsFigures> &rows = stats_rows();
    StatsFigures *row = nullptr;
    for (StatsFigures &r : rows) {
        if (r.type == type) {
            row = &r;
            break;
        }
    }
    if (!row) {
        if (rows.size() >= kStatsTypesMax)
            return;
        try {
            rows.push_back(StatsFigures{});
            rows.back().type = type;
        } catch (...) {
            if (!rows.empty() && rows.back().type.empty())
                rows.pop_back();
            return;
        }
        row = &rows.back();
    }
    switch (what) {
    case STATS_RUN: row->runs++; break;
    case STATS_KILLED: row->killed++; break;
    case STATS_FAILED: row->failed++; break;
    case STATS_VALUE: row->values++; break;
    }
}

std::vector<StatsFigures> stats_figures() {
    std::lock_guard<std::mutex> hold(stats_lock());
    return stats_rows();
}

void reset() noexcept {
    for (List &l : g_lists) {
        zero(l.in.accepted);
        for (auto &c : l.in.refused)
            zero(c);
        zero(l.in.replaced);
        zero(l.in.waits);
        zero(l.in.wait_ms);
        zero(l.in.clock);
        for (auto &c : l.out.gone)
            zero(c);
        zero(l.out.batches_ok);
        zero(l.out.batches_failed);
        zero(l.out.last_batch_mono);
        zero(l.out.last_batch_wall);
        zero(l.out.last_batch_size);
        zero(l.out.last_batch_result);
        zero(l.out.last_batch_ok);
    }
    Link &k = g_link;
    for (auto *c : {&k.bus_connects, &k.bus_reconnects, &k.online_since_mono, &k.online_since_wall,
                    &k.sends_ok, &k.sends_failed, &k.last_ok_mono, &k.last_ok_wall,
                    &k.last_fail_mono, &k.last_fail_wall})
        zero(*c);
    zero(k.online);
    zero(k.last_fail_result);
    std::lock_guard<std::mutex> hold(stats_lock());
    stats_rows().clear();
}

}  // namespace nms_ledger
