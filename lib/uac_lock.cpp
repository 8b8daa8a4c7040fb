// uac_lock.cpp - named mutexes with owner tracking and a registry, named conditions,
// semaphore waits with a timeout, the signal-mask helper and the holder-tag guard.
#include "uac_lock.h"

#include <errno.h>
#include <stdarg.h>
#include <time.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "uac_mem.h"
#include "uac_thread.h"

namespace {

// Registry of every named mutex, for the deadlock watch. g_registry_lock (recursive)
// guards g_registry only: it is taken for insert, remove and snapshot, and never while
// a named mutex is being taken, so it sits below every other lock.
uac_list_head g_registry;
pthread_mutex_t g_registry_lock;
pthread_once_t g_registry_once = PTHREAD_ONCE_INIT;

void registry_init() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&g_registry_lock, &attr);
    pthread_mutexattr_destroy(&attr);
    uac_list_init(&g_registry);
}

// Timed waits. A deadline taken from the time of day moves with every step of the clock:
// after NTP sets a wrong boot clock back by hours, each wait would last hours longer, and
// after a step forward it would end at once, so a caller that waits in a loop would spin.
// So the waits measure their limit on the monotonic clock, where the C library lets them:
// conditions are made on it, and glibc (2.30 on) waits for mutexes and semaphores on it.
// musl has no such calls; it turns the absolute time into a relative wait when the wait
// starts, so the deadline is read from the realtime clock just before and a step during
// the wait does not change its length there either. (uac_abstime_after_ms itself still
// gives a time-of-day deadline, for callers who want one.)
// ThreadSanitizer (as GCC 12 ships it) intercepts neither pthread_mutex_clocklock nor
// sem_clockwait, so it would not see those waits take anything: its builds use the
// time-of-day calls.
#if defined(__SANITIZE_THREAD__)
#define UAC_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UAC_TSAN 1
#endif
#endif
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 30)) && \
    !defined(UAC_TSAN)
#define UAC_CLOCKWAIT 1
#else
#define UAC_CLOCKWAIT 0
#endif

// Now on the given clock plus ms milliseconds.
struct timespec deadline_after_ms(clockid_t clock, uint32_t ms) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    int64_t nsec = static_cast<int64_t>(ts.tv_nsec) + static_cast<int64_t>(ms % 1000u) * 1000000;
    ts.tv_sec += static_cast<time_t>(ms / 1000u + nsec / 1000000000);
    ts.tv_nsec = static_cast<long>(nsec % 1000000000);
    return ts;
}

// Holder tag of the holder-tag guard, UAC_MUTEX_TAG_FREE when nobody holds it. Read and
// written without a lock by design: it only decides which warning is printed.
std::atomic<uint32_t> g_tag{UAC_MUTEX_TAG_FREE};

// "No owner": a value-initialised pthread_t, whether the C library makes it an integer or a pointer.
constexpr pthread_t kNoThread{};

// The calling thread's id, kept per thread: every take and give asks for it, and the
// library call costs more than the rest of the owner bookkeeping.
pthread_t self_id() {
    static thread_local pthread_t me = kNoThread;
    if (uac_thread_bits(me) == 0)
        me = pthread_self();
    return me;
}

bool is_owner(const uac_mutex_t *m, pthread_t self) {
    return uac_thread_bits(m->owner.load(std::memory_order_relaxed)) == uac_thread_bits(self);
}

char *copy_name(const char *name) {
    size_t n = strlen(name);
    // The wrappers take a signed 32-bit size; longer names are refused as short memory.
    if (n >= 0x7FFFFFFF)
        return nullptr;
    char *copy = static_cast<char *>(uac_malloc(static_cast<int32_t>(n + 1)));
    if (copy)
        memcpy(copy, name, n + 1);
    return copy;
}

bool in_registry(const uac_mutex_t *m) {
    uac_list_entry *e;
    uac_list_for_each(e, &g_registry) {
        if (e == &m->entry)
            return true;
    }
    return false;
}

// Records a successful take by the calling thread.
void note_taken(uac_mutex_t *m, pthread_t self) {
    if (is_owner(m, self)) {
        m->lock_cnt.store(m->lock_cnt.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
    } else {
        m->owner.store(self, std::memory_order_relaxed);
        m->lock_cnt.store(1, std::memory_order_relaxed);
    }
}

}  // namespace

extern "C" {

void uac_lock_module_init(void) noexcept { pthread_once(&g_registry_once, registry_init); }

uac_mutex_t *uac_mutex_create(const char *name, uint32_t type) noexcept {
    if (!name || type > UAC_MUTEX_RECURSIVE)
        return nullptr;
    uac_lock_module_init();
    void *mem = uac_calloc(1, sizeof(uac_mutex_t));
    if (!mem)
        return nullptr;
    uac_mutex_t *m = new (mem) uac_mutex_t();
    m->name = copy_name(name);
    if (!m->name) {
        m->~uac_mutex_t();
        uac_free(mem);
        return nullptr;
    }
    m->type = type;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, type == UAC_MUTEX_RECURSIVE ? PTHREAD_MUTEX_RECURSIVE
                                                                 : PTHREAD_MUTEX_NORMAL);
    int rc = pthread_mutex_init(&m->lock, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) {
        uac_free(m->name);
        m->~uac_mutex_t();
        uac_free(mem);
        return nullptr;
    }
    pthread_mutex_lock(&g_registry_lock);
    uac_list_insert_last(&g_registry, &m->entry);
    pthread_mutex_unlock(&g_registry_lock);
    return m;
}

void uac_mutex_destroy(uac_mutex_t *m) noexcept {
    if (!m) {
        printf("WARNING: Try to destroy NULL mutex.\n");
        fflush(stdout);
        return;
    }
    // Out of the registry first, so a snapshot can never see a half-destroyed record.
    pthread_mutex_lock(&g_registry_lock);
    uac_list_remove(&m->entry);
    pthread_mutex_unlock(&g_registry_lock);
    pthread_mutex_destroy(&m->lock);
    uac_free(m->name);
    m->~uac_mutex_t();
    uac_free(m);
}

int32_t uac_mutex_take(uac_mutex_t *m, uint32_t timeout_ms) noexcept {
    if (!m)
        return -1;
    // While blocked the thread's record names m, so the deadlock watch can see it.
    uac_thread_pend_mark(m);
    int rc;
    if (timeout_ms == UAC_WAIT_FOREVER) {
        rc = pthread_mutex_lock(&m->lock);
    } else if (timeout_ms == UAC_NO_WAIT) {
        rc = pthread_mutex_trylock(&m->lock);
    } else {
#if UAC_CLOCKWAIT
        struct timespec deadline = deadline_after_ms(CLOCK_MONOTONIC, timeout_ms);
        rc = pthread_mutex_clocklock(&m->lock, CLOCK_MONOTONIC, &deadline);
#else
        struct timespec deadline = deadline_after_ms(CLOCK_REALTIME, timeout_ms);
        rc = pthread_mutex_timedlock(&m->lock, &deadline);
#endif
    }
    uac_thread_pend_mark(nullptr);
    if (rc != 0)
        return -1;
    note_taken(m, self_id());
    return 0;
}

int32_t uac_mutex_give(uac_mutex_t *m) noexcept {
    if (!m)
        return -1;
    if (!is_owner(m, self_id())) {
        printf("WARNING: Try to give mutex \"%s\" not owned by thread itself.\n", m->name);
        fflush(stdout);
        return -1;
    }
    // The owner is cleared before the unlock: only the holder ever writes it.
    uint64_t cnt = m->lock_cnt.load(std::memory_order_relaxed) - 1;
    m->lock_cnt.store(cnt, std::memory_order_relaxed);
    if (cnt == 0)
        m->owner.store(kNoThread, std::memory_order_relaxed);
    return pthread_mutex_unlock(&m->lock) == 0 ? 0 : -1;
}

int32_t uac_mutex_snapshot(uac_mutex_t *m, uac_mutex_t *out) noexcept {
    if (!m || !out)
        return -1;
    // A copy of a POSIX lock is no lock: out->lock stays cleared.
    memset(static_cast<void *>(&out->lock), 0, sizeof out->lock);
    out->name = nullptr;
    out->type = 0;
    out->owner.store(kNoThread, std::memory_order_relaxed);
    out->lock_cnt.store(0, std::memory_order_relaxed);
    out->entry = uac_list_entry{};
    uac_lock_module_init();
    int32_t result = -1;
    pthread_mutex_lock(&g_registry_lock);
    // m may be a stale pointer: it is only compared until found in the registry.
    if (in_registry(m)) {
        char *name = copy_name(m->name);
        if (name) {
            out->name = name;
            out->type = m->type;
            out->owner.store(m->owner.load(std::memory_order_relaxed), std::memory_order_relaxed);
            out->lock_cnt.store(m->lock_cnt.load(std::memory_order_relaxed),
                                std::memory_order_relaxed);
            result = 0;
        }
    }
    pthread_mutex_unlock(&g_registry_lock);
    return result;
}

int32_t uac_mutex_print(uac_mutex_t *m) noexcept {
    if (!m)
        return -1;
    printf("Mutex \"%s\": type=%d, owner=%p, lock_cnt=%lu\n", m->name, static_cast<int>(m->type),
           reinterpret_cast<void *>(uac_thread_bits(m->owner.load(std::memory_order_relaxed))),
           static_cast<unsigned long>(m->lock_cnt.load(std::memory_order_relaxed)));
    fflush(stdout);
    return 0;
}

uac_cond_t *uac_cond_create(const char *name) noexcept {
    if (!name)
        return nullptr;
    uac_cond_t *c = static_cast<uac_cond_t *>(uac_calloc(1, sizeof(uac_cond_t)));
    if (!c)
        return nullptr;
    c->name = copy_name(name);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    const int rc = c->name ? pthread_cond_init(&c->cond, &attr) : -1;
    pthread_condattr_destroy(&attr);
    if (rc != 0) {
        uac_free(c->name);
        uac_free(c);
        return nullptr;
    }
    return c;
}

void uac_cond_destroy(uac_cond_t *c) noexcept {
    if (!c)
        return;
    pthread_cond_destroy(&c->cond);
    uac_free(c->name);
    uac_free(c);
}

int32_t uac_cond_wait(uac_cond_t *c, uac_mutex_t *m, uint32_t timeout_ms) noexcept {
    if (!c || !m)
        return -1;
    // A recursive mutex taken more than once would stay locked during the wait.
    if (m->type != UAC_MUTEX_NORMAL) {
        printf("Error: cond \"%s\" use INCORRECT type of mutex \"%s\".\n", c->name, m->name);
        fflush(stdout);
        return -1;
    }
    const pthread_t self = self_id();
    if (!is_owner(m, self)) {
        printf("Error: cond_wait \"%s\" use mutex \"%s\" that has not been taken before.\n",
               c->name, m->name);
        fflush(stdout);
        return -1;
    }
    // The wait hands the lock to others: the record says free until it comes back.
    m->owner.store(kNoThread, std::memory_order_relaxed);
    m->lock_cnt.store(0, std::memory_order_relaxed);
    int rc;
    if (timeout_ms == UAC_WAIT_FOREVER) {
        rc = pthread_cond_wait(&c->cond, &m->lock);
    } else {
        struct timespec deadline = deadline_after_ms(CLOCK_MONOTONIC, timeout_ms);
        rc = pthread_cond_timedwait(&c->cond, &m->lock, &deadline);
    }
    if (rc != 0) {
        // The lock is held again, but the record keeps saying nobody owns it; callers
        // that time out treat the mutex as given (their next give warns and fails).
        return -1;
    }
    m->owner.store(self, std::memory_order_relaxed);
    m->lock_cnt.store(m->lock_cnt.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return 0;
}

int32_t uac_cond_signal(uac_cond_t *c) noexcept {
    if (!c)
        return -1;
    return pthread_cond_signal(&c->cond) == 0 ? 0 : -1;
}

int32_t uac_cond_broadcast(uac_cond_t *c) noexcept {
    if (!c)
        return -1;
    return pthread_cond_broadcast(&c->cond) == 0 ? 0 : -1;
}

int32_t uac_sem_take(sem_t *sem, uint32_t timeout_ms) noexcept {
    if (!sem)
        return -1;
    int rc;
    if (timeout_ms == UAC_WAIT_FOREVER) {
        do {
            rc = sem_wait(sem);
        } while (rc != 0 && errno == EINTR);
    } else if (timeout_ms == UAC_NO_WAIT) {
        rc = sem_trywait(sem);
    } else {
#if UAC_CLOCKWAIT
        struct timespec deadline = deadline_after_ms(CLOCK_MONOTONIC, timeout_ms);
        do {
            rc = sem_clockwait(sem, CLOCK_MONOTONIC, &deadline);
        } while (rc != 0 && errno == EINTR);
#else
        struct timespec deadline = deadline_after_ms(CLOCK_REALTIME, timeout_ms);
        do {
            rc = sem_timedwait(sem, &deadline);
        } while (rc != 0 && errno == EINTR);
#endif
    }
    return rc == 0 ? 0 : -1;
}

int32_t uac_sem_give(sem_t *sem) noexcept {
    if (!sem)
        return -1;
    return sem_post(sem) == 0 ? 0 : -1;
}

int uac_sigmask_set(int how, int count, int sig, ...) noexcept {
    sigset_t set;
    sigemptyset(&set);
    if (count >= 1) {
        sigaddset(&set, sig);
        va_list ap;
        va_start(ap, sig);
        for (int i = 1; i < count; ++i)
            sigaddset(&set, va_arg(ap, int));
        va_end(ap);
    }
    return pthread_sigmask(how, &set, nullptr);
}

int32_t uac_mutex_tag_take(uac_mutex_t *m, const char *func, int32_t line) noexcept {
    const uint32_t self = static_cast<uint32_t>(uac_thread_bits(self_id()));
    const uint32_t holder = g_tag.load(std::memory_order_relaxed);
    if (!func)
        func = "";
    if (holder == UAC_MUTEX_TAG_FREE) {
        g_tag.store(self, std::memory_order_relaxed);
    } else if (holder != self) {
        printf("fun:%s line%d error to take lock by 0x%02x self:0x%02x\r\n", func,
               static_cast<int>(line), holder, self);
        fflush(stdout);
    } else {
        printf("fun:%s line%d repeat to take lock by %02x \r\n", func, static_cast<int>(line),
               holder);
        fflush(stdout);
    }
    return uac_mutex_take(m, UAC_WAIT_FOREVER);
}

int32_t uac_mutex_tag_give(uac_mutex_t *m) noexcept {
    int32_t rc = uac_mutex_give(m);
    g_tag.store(UAC_MUTEX_TAG_FREE, std::memory_order_relaxed);
    return rc;
}

uint32_t uac_mutex_tag_holder(void) noexcept { return g_tag.load(std::memory_order_relaxed); }

}  // extern "C"
