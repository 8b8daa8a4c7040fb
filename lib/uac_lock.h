// uac_lock.h - named mutexes with owner tracking and a registry, named conditions,
// semaphore waits with a timeout, the signal-mask helper and the holder-tag guard.
#ifndef UAC_LOCK_H
#define UAC_LOCK_H

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdint.h>

#include "uac_defs.h"
#include "uac_list.h"

#ifdef __cplusplus
extern "C" {
#endif

// Timeouts are milliseconds: wait for ever, try once, or a limit whose length a step of the
// time of day does not change (see uac_lock.cpp).
#define UAC_WAIT_FOREVER 0xFFFFFFFFu
#define UAC_NO_WAIT 0u

#define UAC_MUTEX_NORMAL 0u     // PTHREAD_MUTEX_NORMAL
#define UAC_MUTEX_RECURSIVE 1u  // PTHREAD_MUTEX_RECURSIVE

// A named mutex. owner and lock_cnt are written only by the thread that holds the lock
// (or has just been granted it); other threads (a non-owner's give, the deadlock watch
// through uac_mutex_snapshot) read them, hence relaxed atomics of the same size.
typedef struct uac_mutex {
    pthread_mutex_t lock;
    char *name;                       // own copy of the name
    uint32_t type;                    // UAC_MUTEX_NORMAL or UAC_MUTEX_RECURSIVE
    UAC_ATOMIC(pthread_t) owner;      // 0 when free
    UAC_ATOMIC(uint64_t) lock_cnt;    // takes by the owner not yet given back
    uac_list_entry entry;             // in the mutex registry
} uac_mutex_t;

// A named condition (default attributes). Signal it with uac_cond_signal or
// pthread_cond_signal(&c->cond).
typedef struct uac_cond {
    pthread_cond_t cond;
    char *name;
} uac_cond_t;

// Prepares the mutex registry; idempotent. Start-up calls it first thing (and
// uac_mutex_create calls it too, so a forgotten call cannot break the registry).
void uac_lock_module_init(void) UAC_NOEXCEPT;

// Handle, or null when type > 1, name is null or memory is short.
uac_mutex_t *uac_mutex_create(const char *name, uint32_t type) UAC_NOEXCEPT;
// Unlinks from the registry, destroys the lock, frees name and record. Does not check
// that the mutex is free. Null prints "WARNING: Try to destroy NULL mutex.".
void uac_mutex_destroy(uac_mutex_t *m) UAC_NOEXCEPT;
// 0 when taken; -1 on a null handle, a timeout, a busy try (timeout 0) or any error.
int32_t uac_mutex_take(uac_mutex_t *m, uint32_t timeout_ms) UAC_NOEXCEPT;
// 0 when given; -1 on null, on an unlock error, or when the caller is not the owner
// (then a warning is printed and the lock stays as it is).
int32_t uac_mutex_give(uac_mutex_t *m) UAC_NOEXCEPT;
// Copies the record into *out under the registry lock: name is a fresh copy the caller
// frees with uac_free, the registry entry is cleared and the POSIX lock is not copied.
// -1 when a pointer is null or m is not in the registry (out is cleared first).
int32_t uac_mutex_snapshot(uac_mutex_t *m, uac_mutex_t *out) UAC_NOEXCEPT;
int32_t uac_mutex_print(uac_mutex_t *m) UAC_NOEXCEPT;  // one line; returns 0

uac_cond_t *uac_cond_create(const char *name) UAC_NOEXCEPT;   // null on a null name or short memory
void uac_cond_destroy(uac_cond_t *c) UAC_NOEXCEPT;            // null is ignored
// m must be a normal mutex taken by the caller. 0 when signalled; -1 on a wrong mutex,
// a timeout or an error. After a timeout the lock is held again but its record says
// nobody owns it (kept deliberately; the next uac_mutex_give warns and fails).
int32_t uac_cond_wait(uac_cond_t *c, uac_mutex_t *m, uint32_t timeout_ms) UAC_NOEXCEPT;
int32_t uac_cond_signal(uac_cond_t *c) UAC_NOEXCEPT;          // pthread_cond_signal; 0 or -1
int32_t uac_cond_broadcast(uac_cond_t *c) UAC_NOEXCEPT;       // pthread_cond_broadcast; 0 or -1

int32_t uac_sem_take(sem_t *sem, uint32_t timeout_ms) UAC_NOEXCEPT;  // 0 when decremented, else -1
int32_t uac_sem_give(sem_t *sem) UAC_NOEXCEPT;                       // sem_post: 0 or -1

// Builds a set of `count` signals (sig and the ones that follow) and applies it with
// pthread_sigmask(how, set, NULL); returns its result.
int uac_sigmask_set(int how, int count, int sig, ...) UAC_NOEXCEPT;

// ---- Holder-tag guard around a table lock (the statistics code's lock).
// A process-wide tag names the holder (low 32 bits of its pthread_t), 0xFFFFFFFF when
// free. A take that finds another holder's tag, or its own, says so before it waits;
// the give frees the tag. Both return the result of uac_mutex_take / uac_mutex_give.
#define UAC_MUTEX_TAG_FREE 0xFFFFFFFFu
int32_t uac_mutex_tag_take(uac_mutex_t *m, const char *func, int32_t line) UAC_NOEXCEPT;
int32_t uac_mutex_tag_give(uac_mutex_t *m) UAC_NOEXCEPT;
uint32_t uac_mutex_tag_holder(void) UAC_NOEXCEPT;   // the current tag
#define UAC_MUTEX_TAG_TAKE(m) uac_mutex_tag_take((m), __func__, __LINE__)
#define UAC_MUTEX_TAG_GIVE(m) uac_mutex_tag_give(m)

#ifdef __cplusplus
}  // extern "C"

namespace uac {

// Holds a named mutex for one scope (waiting for ever); gives it back on every path out.
class MutexHold {
public:
    explicit MutexHold(uac_mutex_t *m) noexcept
        : m_(m), held_(uac_mutex_take(m, UAC_WAIT_FOREVER) == 0) {}
    ~MutexHold() { release(); }
    MutexHold(const MutexHold &) = delete;
    MutexHold &operator=(const MutexHold &) = delete;
    bool held() const noexcept { return held_; }
    // Gives the mutex back early; the destructor then does nothing.
    void release() noexcept {
        if (held_) {
            held_ = false;
            uac_mutex_give(m_);
        }
    }

private:
    uac_mutex_t *m_;
    bool held_;
};

// The same through the holder-tag guard; records the caller's function and line.
class TagHold {
public:
    explicit TagHold(uac_mutex_t *m, const char *func = __builtin_FUNCTION(),
                     int line = __builtin_LINE()) noexcept
        : m_(m), held_(uac_mutex_tag_take(m, func, line) == 0) {}
    ~TagHold() { release(); }
    TagHold(const TagHold &) = delete;
    TagHold &operator=(const TagHold &) = delete;
    bool held() const noexcept { return held_; }
    void release() noexcept {
        if (held_) {
            held_ = false;
            uac_mutex_tag_give(m_);
        }
    }

private:
    uac_mutex_t *m_;
    bool held_;
};

}  // namespace uac
#endif  // __cplusplus

#endif // UAC_LOCK_H
