// uac_thread.h - named, detached threads with a registry of what each waits on; clocks.
#ifndef UAC_THREAD_H
#define UAC_THREAD_H

#include <pthread.h>
#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include "uac_defs.h"
#include "uac_list.h"

#ifdef __cplusplus
extern "C" {
#endif

struct uac_mutex;

#define UAC_THREAD_NAME_LEN 32         // 31 characters and the terminator
#define UAC_THREAD_STACK_SIZE 0x10000  // 64 KiB for every thread

typedef void *(*uac_thread_func)(void *arg);

// One per thread started with uac_thread_create; the thread frees it when its entry
// function returns. ck/ck_cnt are written by the thread itself without a lock and read
// by the deadlock watch (relaxed atomics); pre_ck/pre_ck_cnt belong to the watch.
typedef struct uac_thread {
    uac_thread_func func;
    char name[UAC_THREAD_NAME_LEN];
    void *arg;
    int32_t pid;                           // kernel thread id
    pthread_t tid;
    UAC_ATOMIC(struct uac_mutex *) ck;     // mutex waited on now, or null
    UAC_ATOMIC(uint64_t) ck_cnt;           // changes of ck
    struct uac_mutex *pre_ck;
    uint64_t pre_ck_cnt;
    uac_list_entry node;                   // in the thread registry
    uintptr_t stack_lo;                    // the thread's stack, as its library gave it
    size_t stack_size;                     // (0: unknown)
} uac_thread_t;

// Prepares the thread registry; idempotent. Start-up calls it after uac_lock_module_init.
void uac_thread_module_init(void) UAC_NOEXCEPT;

// Starts a detached thread with a 64 KiB stack, named for the kernel (name cut to 31
// characters; the kernel keeps 15), running entry(arg). 0, or -1 with a "[THREAD_ERR]"
// message. *tid_out receives the pthread_t.
int32_t uac_thread_create(pthread_t *tid_out, const char *name, uac_thread_func entry, void *arg) UAC_NOEXCEPT;
// For a thread body that detaches itself: detaches the calling thread unless uac_thread_create
// started it (its trampoline detached it already, and a second detach is undefined: musl
// treats it as a join and faults). 0, or -1 when the detach failed.
int32_t uac_thread_detach_self(void) UAC_NOEXCEPT;

// Marks the calling thread as waiting on mutex (null: on nothing). Returns its record,
// or null for a thread not started with uac_thread_create (then nothing is recorded).
uac_thread_t *uac_thread_pend_mark(struct uac_mutex *mutex) UAC_NOEXCEPT;

// Calls fn(record) for every registered thread under the registry lock; null fn does nothing.
void uac_thread_foreach(void (*fn)(uac_thread_t *record)) UAC_NOEXCEPT;
int32_t uac_thread_print(uac_thread_t *record) UAC_NOEXCEPT;  // one line; returns 0

// How deep a registered thread's stack has been used: the pages of it that were ever touched
// (the kernel keeps a stack page once it is touched), so at most a page more than the deepest
// use. 0 with *used and *size in bytes; -1 when the stack is unknown. Costs nothing while
// nobody asks: no pattern is painted on the stacks.
int32_t uac_thread_stack_used(const uac_thread_t *record, size_t *used, size_t *size) UAC_NOEXCEPT;
// Prints one line a registered thread, "Thread "<name>": stack <used> of <size> bytes used",
// for the debug shell (uac_thread_stack_report()). Returns the number of threads printed.
int32_t uac_thread_stack_report(void) UAC_NOEXCEPT;

// ---- Clocks. Uptime is CLOCK_MONOTONIC, time is CLOCK_REALTIME; they fall back to
// gettimeofday (time(NULL) for seconds) and never fail.
uint64_t uac_uptime_us(void) UAC_NOEXCEPT;
uint64_t uac_uptime_ms(void) UAC_NOEXCEPT;
uint64_t uac_time_ms(void) UAC_NOEXCEPT;
int64_t uac_uptime_sec(void) UAC_NOEXCEPT;

// Absolute wall-clock deadlines (the POSIX timed waits measure CLOCK_REALTIME):
// *ts = now + amount. 0, or -1 on a null ts.
int32_t uac_abstime_after_us(struct timespec *ts, int32_t us) UAC_NOEXCEPT;
int32_t uac_abstime_after_ms(struct timespec *ts, int32_t ms) UAC_NOEXCEPT;
// The same from a given wall time `now` instead of the current one (null now: -1).
int32_t uac_abstime_from_us(struct timespec *ts, const struct timeval *now, int32_t us) UAC_NOEXCEPT;
int32_t uac_abstime_from_ms(struct timespec *ts, const struct timeval *now, int32_t ms) UAC_NOEXCEPT;

#ifdef __cplusplus
}

#include <stdint.h>
#include <type_traits>

// A thread id as an integer for messages and comparisons. pthread_t is an unsigned long on
// glibc (4 bytes on 32-bit targets) and a pointer on other C libraries; a template, so that
// only the branch for this target's pthread_t is compiled.
template <typename T>
inline uintptr_t uac_thread_bits(T t) noexcept {
    if constexpr (std::is_pointer<T>::value)
        return reinterpret_cast<uintptr_t>(t);
    else
        return static_cast<uintptr_t>(t);
}
#endif

#endif // UAC_THREAD_H
