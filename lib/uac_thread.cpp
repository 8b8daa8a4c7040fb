// uac_thread.cpp - named, detached threads with a registry of what each waits on; clocks.
#include "uac_thread.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "uac_mem.h"

namespace {

// Registry of the threads started here, for the debug shell and the deadlock watch.
// g_registry_lock (recursive) guards g_registry only; a thread's ck/ck_cnt are its own.
uac_list_head g_registry;
pthread_mutex_t g_registry_lock;
pthread_once_t g_registry_once = PTHREAD_ONCE_INIT;
// Each registered thread's own record (null in other threads). A thread-local pointer
// rather than a pthread key: it is looked up twice in every mutex take, and a key
// lookup costs a named take about a fifth of its time. Needs no destructor either.
thread_local uac_thread_t *t_self = nullptr;

// Source lines the creation messages carry; tools that read the console match them.
constexpr int kLineInputs = 175;
constexpr int kLineAttr = 181;
constexpr int kLineMalloc = 190;
constexpr int kLineCreate = 203;
constexpr const char *kCreateName = "uac_thread_create";

void registry_init() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&g_registry_lock, &attr);
    pthread_mutexattr_destroy(&attr);
    uac_list_init(&g_registry);
}

void create_error(const char *what, int line) {
    printf("[THREAD_ERR]%s %d: %s\r\n", kCreateName, line, what);
    fflush(stdout);
}

// Where the calling thread's stack lies, for uac_thread_stack_used.
void record_stack(uac_thread_t *rec) {
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) != 0)
        return;
    void *lo = nullptr;
    size_t size = 0;
    if (pthread_attr_getstack(&attr, &lo, &size) == 0) {
        rec->stack_lo = reinterpret_cast<uintptr_t>(lo);
        rec->stack_size = size;
    }
    pthread_attr_destroy(&attr);
}

void *trampoline(void *p) {
    uac_thread_t *rec = static_cast<uac_thread_t *>(p);
    pthread_detach(pthread_self());
    prctl(PR_SET_NAME, rec->name, 0, 0, 0);  // the kernel keeps the first 15 characters
    rec->pid = static_cast<int32_t>(syscall(SYS_gettid));
    rec->tid = pthread_self();
    record_stack(rec);
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);

    pthread_mutex_lock(&g_registry_lock);
    uac_list_insert_last(&g_registry, &rec->node);
    pthread_mutex_unlock(&g_registry_lock);
    t_self = rec;

    rec->func(rec->arg);

    // Only a normal return gets here: a cancelled thread, or one that called
    // pthread_exit itself, stays in the registry.
    pthread_mutex_lock(&g_registry_lock);
    uac_list_remove(&rec->node);
    pthread_mutex_unlock(&g_registry_lock);
    t_self = nullptr;
    rec->~uac_thread_t();
    uac_free(rec);
    pthread_exit(nullptr);
}

// Microseconds on the given clock; the time of day stands in if that clock cannot be read.
uint64_t clock_us(clockid_t id) {
    struct timespec ts;
    if (clock_gettime(id, &ts) == 0)
        return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec);
}

// now + sec_part seconds + nsec_part nanoseconds, with nanoseconds brought into [0, 1e9).
void deadline_after(struct timespec *ts, const struct timeval &now, int64_t sec_part,
                    int64_t nsec_part) {
    int64_t sec = static_cast<int64_t>(now.tv_sec) + sec_part;
    int64_t nsec = static_cast<int64_t>(now.tv_usec) * 1000 + nsec_part;
    if (nsec >= 1000000000) {
        sec += nsec / 1000000000;
        nsec %= 1000000000;
    } else if (nsec < 0) {  // a negative amount borrows, so the deadline stays valid
        int64_t borrow = (-nsec + 999999999) / 1000000000;
        sec -= borrow;
        nsec += borrow * 1000000000;
    }
    ts->tv_sec = static_cast<time_t>(sec);
    ts->tv_nsec = static_cast<long>(nsec);
}

}  // namespace

extern "C" {

void uac_thread_module_init(void) noexcept { pthread_once(&g_registry_once, registry_init); }

int32_t uac_thread_create(pthread_t *tid_out, const char *name, uac_thread_func entry,
                          void *arg) noexcept {
    if (!tid_out || !name || !entry) {
        create_error("inputs error.", kLineInputs);
        return -1;
    }
    uac_thread_module_init();
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        create_error("pthread_attr_init error.", kLineAttr);
        return -1;
    }
    pthread_attr_setstacksize(&attr, UAC_THREAD_STACK_SIZE);
    void *mem = uac_malloc(static_cast<int32_t>(sizeof(uac_thread_t)));
    if (!mem) {
        pthread_attr_destroy(&attr);
        create_error("malloc failed.", kLineMalloc);
        return -1;
    }
    uac_thread_t *rec = new (mem) uac_thread_t();  // cleared
    rec->func = entry;
    rec->arg = arg;
    size_t n = strnlen(name, UAC_THREAD_NAME_LEN - 1);
    memcpy(rec->name, name, n);
    rec->name[n] = '\0';
    pthread_t tid;
    int rc = pthread_create(&tid, &attr, trampoline, rec);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        rec->~uac_thread_t();
        uac_free(mem);
        create_error("create thread failed.", kLineCreate);
        return -1;
    }
    // rec belongs to the new thread now (it may even be gone already).
    *tid_out = tid;
    return 0;
}

int32_t uac_thread_detach_self(void) noexcept {
    if (t_self)
        return 0;
    return pthread_detach(pthread_self()) == 0 ? 0 : -1;
}

uac_thread_t *uac_thread_pend_mark(struct uac_mutex *mutex) noexcept {
    uac_thread_t *rec = t_self;
    if (!rec)
        return nullptr;
    rec->ck.store(mutex, std::memory_order_relaxed);
    rec->ck_cnt.store(rec->ck_cnt.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return rec;
}

void uac_thread_foreach(void (*fn)(uac_thread_t *record)) noexcept {
    if (!fn)
        return;
    uac_thread_module_init();
    pthread_mutex_lock(&g_registry_lock);
    uac_list_entry *e = uac_list_first(&g_registry);
    while (e) {
        uac_list_entry *next = uac_list_next(e);  // fn may unlink e
        fn(uac_container_of(e, uac_thread_t, node));
        e = next;
    }
    pthread_mutex_unlock(&g_registry_lock);
}

int32_t uac_thread_stack_used(const uac_thread_t *record, size_t *used, size_t *size) noexcept {
    if (!record || !used || !size || record->stack_size == 0)
        return -1;
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    // Whole pages of the stack, from its low end up; the stack grows down from its top.
    uintptr_t lo = (record->stack_lo + page - 1) & ~(page - 1);
    uintptr_t hi = (record->stack_lo + record->stack_size) & ~(page - 1);
    if (hi <= lo)
        return -1;
    size_t pages = (hi - lo) / page;
    unsigned char vec[256];   // a 1 MiB stack of 4 KiB pages; deeper ones are looked at in parts
    uintptr_t deepest = hi;
    for (size_t first = 0; first < pages && deepest == hi; first += sizeof vec) {
        size_t n = pages - first < sizeof vec ? pages - first : sizeof vec;
        if (mincore(reinterpret_cast<void *>(lo + first * page), n * page, vec) != 0)
            return -1;
        for (size_t i = 0; i < n; i++) {
            if (vec[i] & 1) {
                deepest = lo + (first + i) * page;
                break;
            }
        }
    }
    *size = record->stack_size;
    *used = static_cast<size_t>(record->stack_lo + record->stack_size - deepest);
    if (*used > *size)
        *used = *size;
    return 0;
}

int32_t uac_thread_stack_report(void) noexcept {
    uac_thread_module_init();
    int32_t n = 0;
    pthread_mutex_lock(&g_registry_lock);
    for (uac_list_entry *e = uac_list_first(&g_registry); e; e = uac_list_next(e)) {
        const uac_thread_t *t = uac_container_of(e, uac_thread_t, node);
        size_t used = 0, size = 0;
        if (uac_thread_stack_used(t, &used, &size) == 0)
            printf("Thread \"%s\": stack %lu of %lu bytes used\n", t->name,
                   static_cast<unsigned long>(used), static_cast<unsigned long>(size));
        else
            printf("Thread \"%s\": stack unknown\n", t->name);
        n++;
    }
    pthread_mutex_unlock(&g_registry_lock);
    fflush(stdout);
    return n;
}

int32_t uac_thread_print(uac_thread_t *record) noexcept {
    if (!record)
        return -1;
    printf("Thread \"%s\": tid=%p, pid=%d, ck=%p, ck_cnt=%lu, pre_ck=%p, pre_ck_cnt=%lu\n",
           record->name, reinterpret_cast<void *>(uac_thread_bits(record->tid)),
           static_cast<int>(record->pid),
           static_cast<void *>(record->ck.load(std::memory_order_relaxed)),
           static_cast<unsigned long>(record->ck_cnt.load(std::memory_order_relaxed)),
           static_cast<void *>(record->pre_ck), static_cast<unsigned long>(record->pre_ck_cnt));
    fflush(stdout);
    return 0;
}

uint64_t uac_uptime_us(void) noexcept {
    return clock_us(CLOCK_MONOTONIC);
}

uint64_t uac_uptime_ms(void) noexcept {
    return clock_us(CLOCK_MONOTONIC) / 1000u;
}

uint64_t uac_time_ms(void) noexcept {
    return clock_us(CLOCK_REALTIME) / 1000u;
}

int64_t uac_uptime_sec(void) noexcept {
    struct timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) == 0)
        return static_cast<int64_t>(ts.tv_sec);
    return static_cast<int64_t>(time(nullptr));
}

int32_t uac_abstime_from_us(struct timespec *ts, const struct timeval *now, int32_t us) noexcept {
    if (!ts || !now)
        return -1;
    const int64_t amount = us;  // widened before the arithmetic
    deadline_after(ts, *now, amount / 1000000, (amount % 1000000) * 1000);
    return 0;
}

int32_t uac_abstime_from_ms(struct timespec *ts, const struct timeval *now, int32_t ms) noexcept {
    if (!ts || !now)
        return -1;
    const int64_t amount = ms;
    deadline_after(ts, *now, amount / 1000, (amount % 1000) * 1000000);
    return 0;
}

int32_t uac_abstime_after_us(struct timespec *ts, int32_t us) noexcept {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return uac_abstime_from_us(ts, &now, us);
}

int32_t uac_abstime_after_ms(struct timespec *ts, int32_t ms) noexcept {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return uac_abstime_from_ms(ts, &now, ms);
}

}  // extern "C"
