// uac_timer.h - hierarchical wheel timer: 500 ms tick, callbacks on one work thread.
#ifndef UAC_TIMER_H
#define UAC_TIMER_H

#include <stdint.h>

#include "uac_defs.h"
#include "uac_list.h"

#ifdef __cplusplus
extern "C" {
#endif

// No timer; also the failure result of the add functions.
#define UAC_TIMER_INVALID_ID 0xFFFFFFFFu
#define UAC_TIMER_TICK_MS 500u
// A timer id: the record's slot in its low 20 bits, a sequence in the high 12 bits,
// so the id of a finished timer never matches the timer that reuses its slot.
#define UAC_TIMER_SLOT_BITS 20u
#define UAC_TIMER_SLOT_MASK 0xFFFFFu
#define UAC_TIMER_MIN_ID_LEN 2
#define UAC_TIMER_MAX_ID_LEN 20

// Record flags.
#define UAC_TIMER_F_IN_USE 0x01u
#define UAC_TIMER_F_PERIODIC 0x02u
#define UAC_TIMER_F_EXPIRED 0x04u     // handed to the work thread
#define UAC_TIMER_F_REMOVED 0x08u     // removed while handed to the work thread
#define UAC_TIMER_F_REARM_ONCE 0x10u  // re-armed once by the work thread

typedef void (*uac_timer_func)(void *arg);

// One timer. Every field is guarded by the module's db mutex, except `node` while the
// record sits in the work queue (then the msg mutex guards it).
typedef struct uac_timer_record {
    uac_list_entry node;      // in a wheel slot or in the work queue
    uint32_t id;
    uint8_t flags;            // UAC_TIMER_F_*; 0 = free
    uint64_t interval;        // ticks
    uint64_t expires;         // tick count at which the timer is due
    uac_timer_func callback;  // may be null
    uac_timer_func release;   // may be null; frees arg once the timer is finished
    void *arg;
} uac_timer_record;

// Length of the id store, 2 .. 20: 2^len - 1 records are made at init. -1 before init.
extern int32_t g_wheel_timer_id_len;

// Starts the wheel (once per process; later calls return 0 at once): allocates the
// store and starts the threads "wheeltimertickd" and "wheeltimerworkd". SIGALRM must
// already be blocked in every thread of the process. 0, or -1 with a message.
int32_t uac_timer_init(int32_t id_len) UAC_NOEXCEPT;
// A one-shot timer due in sec s + usec us. The time is cut down to whole 500 ms ticks;
// a timer of n ticks runs at the n-th tick from now, one below 500 ms at the next
// tick. callback(arg) runs on the work thread; release(arg)
// runs exactly once when the timer is finished or removed. The id, or
// UAC_TIMER_INVALID_ID with a message. Callbacks and release functions may add and
// remove timers.
uint32_t uac_timer_add(uint32_t sec, uint32_t usec, uac_timer_func callback, void *arg,
                       uac_timer_func release) UAC_NOEXCEPT;
// The same for a timer that re-arms itself after every run until it is removed.
uint32_t uac_timer_add_periodic(uint32_t sec, uint32_t usec, uac_timer_func callback,
                                void *arg, uac_timer_func release) UAC_NOEXCEPT;
// Cancels a timer: release(arg) runs here, or on the work thread when the callback is
// already due (the callback is then skipped if it has not started). 0, or -1 for
// UAC_TIMER_INVALID_ID and unknown ids (a warning when the warning switch is on).
int32_t uac_timer_remove(uint32_t id) UAC_NOEXCEPT;
// Whole seconds until the timer is due; 0 when it is unknown, due or overdue.
uint32_t uac_timer_rest(uint32_t id) UAC_NOEXCEPT;
// Ends both threads (SIGQUIT), calls release for every pending timer and frees the
// store. Call it from a thread of its own, with no other timer call running; later
// adds fail. The module cannot be started again.
void uac_timer_stop(void) UAC_NOEXCEPT;
// Diagnostics on standard output.
void uac_timer_count_print(void) UAC_NOEXCEPT;
void uac_timer_list_print(void) UAC_NOEXCEPT;

#ifdef __cplusplus
}  // extern "C"

#include <type_traits>
static_assert(std::is_standard_layout<uac_timer_record>::value,
              "uac_timer_record is reached from its list node with offsetof");
static_assert(__builtin_offsetof(uac_timer_record, node) == 0, "node first");
static_assert(__builtin_offsetof(uac_timer_record, id) == sizeof(uac_list_entry), "id after node");
static_assert(__builtin_offsetof(uac_timer_record, flags) == sizeof(uac_list_entry) + 4,
              "flags after id");
// The 64-bit counters sit at their own alignment after the flags byte: offset 24 on 64-bit
// targets, 16 on 32-bit ones (8 on i386, where uint64_t members align to 4).
static_assert(__builtin_offsetof(uac_timer_record, interval) ==
                  (sizeof(uac_list_entry) + 5 + alignof(uint64_t) - 1) / alignof(uint64_t) *
                      alignof(uint64_t),
              "interval aligned after flags");
static_assert(__builtin_offsetof(uac_timer_record, expires) ==
                  __builtin_offsetof(uac_timer_record, interval) + 8,
              "expires after interval");
static_assert(__builtin_offsetof(uac_timer_record, arg) ==
                  __builtin_offsetof(uac_timer_record, expires) + 8 + 2 * sizeof(void *),
              "callback, release, arg follow expires");
#endif

#endif  // UAC_TIMER_H
