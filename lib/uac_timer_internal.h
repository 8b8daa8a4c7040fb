// uac_timer_internal.h - the wheel timer's engine, for unit tests and benchmarks.
//
// The public functions of uac_timer.h drive one process-wide wheel whose tick comes
// from SIGALRM and whose callbacks run on "wheeltimerworkd". The same engine can be
// made privately without any thread: the caller then advances it tick by tick and
// runs the due callbacks itself, so tests never wait for real time.
#ifndef UAC_TIMER_INTERNAL_H
#define UAC_TIMER_INTERNAL_H

#include <stdint.h>

#include <atomic>

#include "uac_timer.h"

// Debug prints (placements, cascades, adds) and warning prints (unknown ids); both off.
extern std::atomic<int32_t> g_wheel_timer_debug;
extern std::atomic<int32_t> g_wheel_timer_warning;

namespace uac_timer_engine {

struct Wheel;

// A wheel with 2^id_len - 1 pre-allocated records and no threads; null (with the
// message of the failing step) when memory is short. id_len is not range-checked here.
Wheel *create(int32_t id_len) noexcept;
// Tears down: release(arg) of every timer still in use, then frees everything.
void destroy(Wheel *w) noexcept;

uint32_t add(Wheel *w, uint32_t sec, uint32_t usec, uac_timer_func callback, void *arg,
             uac_timer_func release, bool periodic) noexcept;
int32_t remove(Wheel *w, uint32_t id) noexcept;
uint32_t rest(Wheel *w, uint32_t id) noexcept;

// Advances the wheel by one tick: cascades when level 1 wraps, then hands the due
// level-1 slot to the work queue.
void tick(Wheel *w) noexcept;
// Advances by up to max_ticks ticks, as many calls of tick() would, but steps over
// idle ticks at once; stops early right after a tick that queued timers. Returns the
// ticks advanced.
uint64_t advance(Wheel *w, uint64_t max_ticks) noexcept;
// Runs one queued timer (callback, then re-arm or finish) on the calling thread.
// False when the queue is empty.
bool run_one(Wheel *w) noexcept;
// Runs queued timers until the queue is empty; returns how many ran.
uint32_t run_pending(Wheel *w) noexcept;

uint64_t jiffies(Wheel *w) noexcept;
// Records the store can hold now (pre-allocated plus extension).
uint32_t capacity(Wheel *w) noexcept;
// Where a waiting timer sits: level 1..5 and slot; 0 for a known timer that is in
// the work queue; -1 for an unknown id.
int32_t level_of(Wheel *w, uint32_t id, uint32_t *slot) noexcept;

// The wheel behind uac_timer.h, or null before uac_timer_init and after uac_timer_stop.
Wheel *global() noexcept;

}  // namespace uac_timer_engine

#endif  // UAC_TIMER_INTERNAL_H
