// nms_ledger.cpp - the daemon's ledger of events, statistics commands, the bus and the cloud.
#include "nms_ledger.h"

#include <time.h>

#include <cstring>
#include <mutex>

const char *const nms_refusal_names[NMS_REFUSAL_KINDS] = {
    "disabled", "offline", "bad_params", "full", "no_victim", "no_memory", "too_long"};
const char *const nms_departure_names[NMS_DEPARTURE_KINDS] = {
    "sent", "replaced", "dropped", "cleaned", "stopped", "removed"};
const char *const nms_ledger::stats_names[STATS_KINDS] = {"runs", "killed", "failed", "values"};

namespace nms_ledger {

namespace {

List g_lists[NMS_LEDGER_LISTS];
Link g_link;
std::mutex g_stats_lock;
StatsRow g_stats[NMS_LEDGER_STATS_TYPES];
int g_stats_used;   // rows in use (under the lock)

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
    if (!type || what < 0 || what >= STATS_KINDS)
        return;
    std::lock_guard<std::mutex> hold(g_stats_lock);
    int row = 0;
    while (row < g_stats_used && std::strncmp(g_stats[row].type, type, NMS_LEDGER_TYPE_LEN) != 0)
        row++;
    if (row == g_stats_used) {
        if (row == NMS_LEDGER_STATS_TYPES)
            return;
        std::strncpy(g_stats[row].type, type, NMS_LEDGER_TYPE_LEN);
        g_stats_used++;
    }
    g_stats[row].count[what]++;
}

int stats_rows(StatsRow *rows, int max) noexcept {
    std::lock_guard<std::mutex> hold(g_stats_lock);
    int n = g_stats_used < max ? g_stats_used : max;
    std::memcpy(rows, g_stats, sizeof(StatsRow) * static_cast<size_t>(n));
    return n;
}

}  // namespace nms_ledger
