// nms_ledger.h - what the daemon did with every event, kept from start-up: per event list what
// was accepted, refused (and why), replaced, waited for, sent, failed, dropped and cleaned;
// per statistics parameter type what its commands did; the bus connection and the cloud link.
//
// The counters are relaxed atomics, grouped by the thread that writes them so that no two
// writers share a cache line: the list's dispatch worker (everything up to the insertion),
// the batch sender and the bus thread (everything that leaves a list). Readers sum nothing and
// lock nothing; a figure read while events flow may be one event behind its neighbours.
// Counters are 32 bits wide on every target (32-bit MIPS has no lock-free 64-bit atomics) and
// wrap after 2^32, as an interface counter does.
//
// For every list, at any quiet moment:
//   accepted = sent + replaced + dropped + cleaned + stopped + removed + in the list
// (events of a batch being sent are still in the list until the cloud took them).
#pragma once

#include <atomic>
#include <cstdint>

#define NMS_LEDGER_LISTS 8

// The ledger's work on an event's way in (counted, stamped, the round's clock), written around
// the call at each such place. The benchmarks build a daemon with NMS_LEDGER_OFF, where it is
// compiled out, to measure its cost against the same daemon without it in the same run.
#if defined(NMS_LEDGER_OFF)
#define NMS_LEDGER_HOT(call) ((void)0)
#else
#define NMS_LEDGER_HOT(call) (call)
#endif

// Why an event that came through a list's queue was not taken.
enum nms_refusal {
    NMS_REFUSED_DISABLED = 0,   // its type is not enabled in event_params
    NMS_REFUSED_OFFLINE,        // the report switch was off (device offline or stopped)
    NMS_REFUSED_PARAMS,         // params not a JSON value
    NMS_REFUSED_FULL,           // list full and nothing may be replaced
    NMS_REFUSED_NO_VICTIM,      // list full and no event qualified to make room
    NMS_REFUSED_MEMORY,         // no memory for the event
    NMS_REFUSED_TOO_LONG,       // frame text longer than a frame (a sender built wrongly)
    NMS_REFUSAL_KINDS
};

// How an accepted event left its list.
enum nms_departure {
    NMS_GONE_SENT = 0,    // in a batch the cloud took
    NMS_GONE_REPLACED,    // made room for a newer event (replace-oldest)
    NMS_GONE_DROPPED,     // in a failed batch while producers backed up behind the list
    NMS_GONE_CLEANED,     // clean_cache
    NMS_GONE_STOPPED,     // stop_report, or begin_report starting afresh
    NMS_GONE_REMOVED,     // deleted by hand through the debug shell
    NMS_DEPARTURE_KINDS
};

extern "C" {

// Names as the bus and the collector show them, indexed by the enums above.
extern const char *const nms_refusal_names[NMS_REFUSAL_KINDS];
extern const char *const nms_departure_names[NMS_DEPARTURE_KINDS];

}  // extern "C"

namespace nms_ledger {

// The dispatch worker's side of one list.
struct alignas(64) ListIn {
    std::atomic<uint32_t> accepted{0};
    std::atomic<uint32_t> refused[NMS_REFUSAL_KINDS]{};
    std::atomic<uint32_t> replaced{0};   // the worker replaces while it inserts
    std::atomic<uint32_t> waits{0};      // producer held back by a full list (policy 2)
    std::atomic<uint32_t> wait_ms{0};    // time held back in all
    // Monotonic seconds as the list's receive loop last read them: the arrival stamp of what
    // it inserts, without a clock read per event. 0 until the loop runs.
    std::atomic<uint32_t> clock{0};
};

// What leaves the list: the batch sender and the bus.
struct alignas(64) ListOut {
    std::atomic<uint32_t> gone[NMS_DEPARTURE_KINDS]{};   // but replaced: see ListIn
    std::atomic<uint32_t> batches_ok{0};
    std::atomic<uint32_t> batches_failed{0};
    std::atomic<uint32_t> last_batch_mono{0};   // monotonic seconds, 0: none yet
    std::atomic<uint32_t> last_batch_wall{0};   // seconds since the epoch, for the stamp only
    std::atomic<uint32_t> last_batch_size{0};
    std::atomic<int32_t> last_batch_result{0};  // the library's result code, 0 on success
    std::atomic<int32_t> last_batch_ok{0};
};

struct List {
    ListIn in;
    ListOut out;
};

// The bus connection and the cloud link (rarely written; one line for all).
struct alignas(64) Link {
    std::atomic<uint32_t> bus_connects{0};
    std::atomic<uint32_t> bus_reconnects{0};
    std::atomic<int32_t> online{0};             // as begin_report / stop_report last set it
    std::atomic<uint32_t> online_since_mono{0};
    std::atomic<uint32_t> online_since_wall{0};
    std::atomic<uint32_t> sends_ok{0};
    std::atomic<uint32_t> sends_failed{0};
    std::atomic<uint32_t> last_ok_mono{0};
    std::atomic<uint32_t> last_ok_wall{0};
    std::atomic<uint32_t> last_fail_mono{0};
    std::atomic<uint32_t> last_fail_wall{0};
    std::atomic<int32_t> last_fail_result{0};
};

// One statistics parameter type's commands.
#define NMS_LEDGER_STATS_TYPES 64   // types beyond this many are not counted
#define NMS_LEDGER_TYPE_LEN 64
enum StatsWhat { STATS_RUN, STATS_KILLED, STATS_FAILED, STATS_VALUE, STATS_KINDS };
struct StatsRow {
    char type[NMS_LEDGER_TYPE_LEN + 1];
    uint32_t count[STATS_KINDS];   // runs: value commands started; killed: by the time limit;
                                   // failed: could not start or printed no usable value;
                                   // values: put into reports
};
extern const char *const stats_names[STATS_KINDS];

List &list(int i) noexcept;   // 0..7; out-of-range indexes are clamped by callers' checks
Link &link() noexcept;

inline void bump(std::atomic<uint32_t> &c, uint32_t by = 1) noexcept {
    c.fetch_add(by, std::memory_order_relaxed);
}

// Monotonic and wall-clock seconds.
uint32_t mono_now() noexcept;
uint32_t wall_now() noexcept;
// Seconds since the daemon started.
uint32_t uptime() noexcept;

// The list's receive loop read the clock (see ListIn::clock).
inline void tick(int l) noexcept { list(l).in.clock.store(mono_now(), std::memory_order_relaxed); }
// The arrival stamp of an event inserted now into list l.
inline uint32_t arrival(int l) noexcept {
    uint32_t c = list(l).in.clock.load(std::memory_order_relaxed);
    return c ? c : mono_now();
}

// How many events left list l the way how says.
inline uint32_t gone(int l, nms_departure how) noexcept {
    return how == NMS_GONE_REPLACED ? list(l).in.replaced.load(std::memory_order_relaxed)
                                    : list(l).out.gone[how].load(std::memory_order_relaxed);
}

void refused(int l, nms_refusal why) noexcept;
void departed(int l, nms_departure how, uint32_t n) noexcept;
// One batch ended: n events in it, taken by the cloud or not, with the library's result.
void batch(int l, uint32_t n, bool ok, int32_t result) noexcept;
void waited(int l, uint32_t ms) noexcept;

void bus_connected(bool reconnect) noexcept;
void link_state(int32_t online) noexcept;   // only on a change of state
void cloud_send(bool ok, int32_t result) noexcept;

// Statistics: by type name (a short table under its own lock; commands run seconds apart).
void stats(const char *type, StatsWhat what) noexcept;
// Copies up to max rows into rows; returns how many.
int stats_rows(StatsRow *rows, int max) noexcept;

}  // namespace nms_ledger

// A send through the reporting library returned ret with result (0 and 0: the cloud took it).
inline void nms_ledger_cloud_send(int ret, int32_t result) noexcept {
    nms_ledger::cloud_send(ret == 0 && result == 0, result != 0 ? result : ret);
}

