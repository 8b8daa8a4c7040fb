// uac_timer.cpp - hierarchical wheel timer: 500 ms tick, callbacks on one work thread.
//
// Geometry (the classic five-level wheel), at one tick = 500 ms:
//
// level  slots  slot width              covers deltas up to
//   1     256   1 tick    (0.5 s)       2^8  ticks  (128 s)
//   2      64   2^8 ticks (128 s)       2^14 ticks  (~2 h 16 min)
//   3      64   2^14 ticks (~2.3 h)     2^20 ticks  (~6.1 days)
//   4      64   2^20 ticks (~6.1 days)  2^26 ticks  (~388 days)
//   5      64   2^26 ticks (~388 days)  2^32 ticks  (~68 years; larger deltas clamp)
//
// A timer sits in the slot of the level that covers its delta. Every 256 ticks the
// next slot of level 2 is emptied and its timers placed again (cascade), which moves
// them down; level 3 cascades when level 2 wraps, and so on. Level 1's slot of the
// current tick is handed, whole, to the work queue.
//
// Threads: "wheeltimertickd" takes SIGALRM (setitimer, 500 ms) with sigwait and only
// moves records; "wheeltimerworkd" runs callbacks one at a time with no lock held.
// Lock order: the db mutex before the msg mutex (the tick holds db while it takes msg);
// the work thread never holds both.
#include "uac_timer.h"
#include "uac_timer_internal.h"

#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>

#include <algorithm>
#include <mutex>
#include <new>

#include "uac_lock.h"
#include "uac_mem.h"
#include "uac_thread.h"
#include "uid_allocator.h"

int32_t g_wheel_timer_id_len = -1;
std::atomic<int32_t> g_wheel_timer_debug{0};
std::atomic<int32_t> g_wheel_timer_warning{0};

namespace uac_timer_engine {

namespace {

constexpr uint32_t kTv1Bits = 8;
constexpr uint32_t kTvnBits = 6;
constexpr uint32_t kTv1Size = 1u << kTv1Bits;  // 256
constexpr uint32_t kTvnSize = 1u << kTvnBits;  // 64
constexpr uint32_t kTv1Mask = kTv1Size - 1;
constexpr uint32_t kTvnMask = kTvnSize - 1;
constexpr uint32_t kTvnLevels = 4;             // levels 2 .. 5
constexpr uint32_t kMaxSlots = 0x100000;       // ids keep 20 bits of slot
constexpr uint32_t kSeqWrap = 4096;            // 12 bits of sequence
constexpr uint64_t kMaxDelta = 0xFFFFFFFFull;  // level 5 clamps beyond this
constexpr long kTickUsec = 500000;

// Lowest delta (in ticks) that no longer fits level n + 2, n = 0 .. 3.
constexpr uint64_t level_limit(uint32_t n) { return 1ull << (kTv1Bits + (n + 1) * kTvnBits); }

// Message lines: fixed so that logs stay comparable across builds.
constexpr int kLineAddDebug = 501;
constexpr int kLinePlaceDebug = 292;
constexpr int kLineCascadeDebug = 300;
constexpr int kLineTickAssert = 371;
constexpr int kLineExpandMax = 398;
constexpr int kLineExpandIds = 404;
constexpr int kLineExpandBlock = 412;
constexpr int kLineExpandArray = 425;
constexpr int kLineAddExpand = 465;
constexpr int kLineAddNoId = 472;
constexpr int kLineAddBadSlot = 481;
constexpr int kLineRemoveMissing = 587;
constexpr int kLineRestMissing = 625;
constexpr int kLineInitIds = 169;
constexpr int kLineInitRecords = 176;
constexpr int kLineInitLocks = 190;
constexpr int kLineTickThread = 736;
constexpr int kLineWorkThread = 743;
constexpr int kLineInitRange = 870;
constexpr int kLineInitFailed = 878;

#define WT_ERROR(func, line, fmt, ...) \
    printf("[WHEEL_TIMER_ERROR]%s()/%d " fmt, func, line, ##__VA_ARGS__)

}  // namespace

struct Wheel {
    int32_t len = 0;
    uint32_t pre = 0;                           // pre-allocated records: 2^len - 1
    uac_timer_record *pre_block = nullptr;      // 2^len records (the last is never used)
    uac_timer_record **ext_array = nullptr;     // record of slot pre + i
    uint32_t ext = 0;
    uint32_t ext_blocks = 0;
    uid_allocator *ids = nullptr;               // hands out slots; grows with ext
    uint64_t jiffies = 0;
    uac_list_head tv1[kTv1Size];
    uac_list_head tvn[kTvnLevels][kTvnSize];
    uac_list_head work;                         // expired records (msg mutex)
    sigset_t sigs;                              // {SIGALRM}
    // Guards the wheel, the records, the id allocator and the extension. Recursive:
    // release functions run under it inside remove and may add and remove timers.
    uac_mutex_t *db = nullptr;
    uac_mutex_t *msg = nullptr;                 // guards `work`; taken after db
    uac_cond_t *cond = nullptr;                 // signals a non-empty work queue
    uint32_t seq = 0;                           // sequence counter
    uint8_t next_add_flags = 0;                 // set to periodic by add_periodic
    // Threads of the process-wide wheel.
    pthread_t tick_tid{};
    pthread_t work_tid{};
    std::atomic<bool> stopping{false};          // read under msg by the work thread
    std::mutex life;                            // guards tick_done against a late kill
    bool tick_done = false;                     // the tick thread has left its loop
    sem_t exited;                               // posted by each thread as it leaves
    bool exited_ready = false;
};

namespace {

using uac::MutexHold;

uac_timer_record *rec_of(uac_list_entry *e) { return uac_container_of(e, uac_timer_record, node); }

uac_timer_record *record_of_slot(Wheel *w, uint32_t slot) {
    if (slot < w->pre)
        return &w->pre_block[slot];
    if (slot - w->pre < w->ext)
        return w->ext_array[slot - w->pre];
    return nullptr;
}

// The record of a live timer, or null for ids whose slot, flag or sequence differ.
uac_timer_record *find(Wheel *w, uint32_t id) {
    uac_timer_record *r = record_of_slot(w, id & UAC_TIMER_SLOT_MASK);
    if (!r || !(r->flags & UAC_TIMER_F_IN_USE) || r->id != id)
        return nullptr;
    return r;
}

// Places a record into the slot that covers its delta (db held).
void internal_add_timer(Wheel *w, uac_timer_record *r) {
    uint64_t expires = r->expires;
    uint64_t d = expires - w->jiffies;
    uac_list_head *slot_list;
    int level;
    uint32_t slot;
    if (d < kTv1Size) {
        level = 1;
        slot = static_cast<uint32_t>(expires & kTv1Mask);
        slot_list = &w->tv1[slot];
    } else if (d < level_limit(kTvnLevels - 2)) {
        uint32_t n = d < level_limit(0) ? 0 : d < level_limit(1) ? 1 : 2;
        level = static_cast<int>(n) + 2;
        slot = static_cast<uint32_t>((expires >> (kTv1Bits + n * kTvnBits)) & kTvnMask);
        slot_list = &w->tvn[n][slot];
    } else if (static_cast<int64_t>(d) < 0) {
        // Overdue: run at the next tick.
        level = 1;
        slot = static_cast<uint32_t>(w->jiffies & kTv1Mask);
        slot_list = &w->tv1[slot];
    } else {
        if (d > kMaxDelta)
            expires = w->jiffies + kMaxDelta;  // placement only; the record keeps its time
        level = 5;
        slot = static_cast<uint32_t>((expires >> (kTv1Bits + 3 * kTvnBits)) & kTvnMask);
        slot_list = &w->tvn[3][slot];
    }
    uac_list_insert_last(slot_list, &r->node);
    if (g_wheel_timer_debug.load(std::memory_order_relaxed))
        printf("[WHEEL_TIMER_DEBUG]%s()/%d Timer %d(expire: %lu ticks) Insert to [%d:%d].\n",
               "internal_add_timer", kLinePlaceDebug, static_cast<int>(r->id),
               static_cast<unsigned long>(r->expires), level, static_cast<int>(slot));
}

// Empties slot i of level n + 2 and places its timers again; returns i (db held).
uint32_t cascade(Wheel *w, uint32_t n, uint32_t i) {
    if (g_wheel_timer_debug.load(std::memory_order_relaxed))
        printf("[WHEEL_TIMER_DEBUG]%s()/%d Do a cascade operation, index : %d\n", "cascade",
               kLineCascadeDebug, static_cast<int>(i));
    uac_list_head moving;
    uac_list_init(&moving);
    uac_list_move(&moving, &w->tvn[n][i]);
    while (uac_list_entry *e = uac_list_first(&moving)) {
        uac_list_remove(e);
        internal_add_timer(w, rec_of(e));
    }
    return i;
}

// Grows the store by half of its size (db held). False, with a message, when the
// slot space is used up or memory is short.
bool expand(Wheel *w) {
    uint32_t grow = (w->ext + w->pre) / 2;
    uint32_t new_ext = w->ext + grow;
    if (w->pre + new_ext >= kMaxSlots) {
        WT_ERROR("_uac_timer_expand", kLineExpandMax,
                 "Failed to expand ID allocator because exceeds max num.\n");
        return false;
    }
    if (uid_expand(w->ids, static_cast<int32_t>(grow)) != 0) {
        WT_ERROR("_uac_timer_expand", kLineExpandIds, "Failed to expand ID allocator.\n");
        return false;
    }
    // From here the id allocator keeps its new size even if memory runs out; add
    // then finds no record for those slots and says so.
    auto *block = static_cast<uac_timer_record *>(
        uac_calloc(static_cast<int32_t>(grow), sizeof(uac_timer_record)));
    if (!block) {
        WT_ERROR("_uac_timer_expand", kLineExpandBlock, "Failed to alloc mem for extend timer array.\n");
        return false;
    }
    auto bytes = static_cast<int32_t>(new_ext * sizeof(uac_timer_record *));
    auto **array = static_cast<uac_timer_record **>(
        w->ext_array ? uac_realloc(w->ext_array, bytes)
                     : uac_calloc(static_cast<int32_t>(new_ext), sizeof(uac_timer_record *)));
    if (!array) {
        WT_ERROR("_uac_timer_expand", kLineExpandArray, "Failed to alloc mem for extend timer array.\n");
        uac_free(block);
        return false;
    }
    for (uint32_t i = 0; i < grow; ++i)
        array[w->ext + i] = &block[i];
    w->ext_array = array;
    w->ext = new_ext;
    w->ext_blocks += 1;
    return true;
}

uint32_t next_sequence(Wheel *w, uint32_t previous) {
    uint32_t s;
    do {
        if (w->seq >= kSeqWrap) {
            s = 0;
            w->seq = 1;
        } else {
            s = w->seq++;
        }
    } while (s == previous);
    return s;
}

uint64_t to_ticks(uint32_t sec, uint32_t usec) {
    return (usec / 1000 + static_cast<uint64_t>(sec) * 1000) / UAC_TIMER_TICK_MS;
}

// The tick that runs a timer of `interval` ticks armed now (db held). While
// timer_jiffies is j the next tick handles slot j, so a timer of n ticks is due at
// j + n - 1: it runs at the n-th tick from now, between (n - 1) x 500 ms and
// n x 500 ms later, and a 0-tick timer at the next tick. A periodic timer of n ticks
// re-armed by the work thread thus keeps a period of n ticks (the one-second scan
// is two ticks apart, not three).
uint64_t due_tick(const Wheel *w, uint64_t interval) {
    return w->jiffies + (interval > 0 ? interval - 1 : 0);
}

// Frees the id allocator, the records (calling release for those in use), the
// extension and the locks. No thread may be using the wheel.
void teardown(Wheel *w) {
    uid_destroy(w->ids);
    auto release_all = [](uac_timer_record *r, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) {
            if ((r[i].flags & UAC_TIMER_F_IN_USE) && r[i].release)
                r[i].release(r[i].arg);
        }
    };
    if (w->pre_block)
        release_all(w->pre_block, w->pre);
    uac_free(w->pre_block);
    for (uint32_t i = 0; i < w->ext; ++i)
        release_all(w->ext_array[i], 1);
    // Block k was made when the store held pre + start_k records and has half of that.
    uint32_t start = 0;
    for (uint32_t k = 0; k < w->ext_blocks; ++k) {
        uac_free(w->ext_array[start]);
        start += (start + w->pre) / 2;
    }
    uac_free(w->ext_array);
    if (w->db)
        uac_mutex_destroy(w->db);
    if (w->msg)
        uac_mutex_destroy(w->msg);
    uac_cond_destroy(w->cond);
    if (w->exited_ready)
        sem_destroy(&w->exited);
    delete w;
}

}  // namespace

Wheel *create(int32_t id_len) noexcept {
    auto *w = new (std::nothrow) Wheel;
    if (!w)
        return nullptr;
    w->len = id_len;
    w->pre = (1u << id_len) - 1;
    w->ids = uid_create(static_cast<int32_t>(w->pre));
    if (!w->ids) {
        WT_ERROR("__tvec_base_init", kLineInitIds, "Failed to alloc mem for id allocator.\n");
        teardown(w);
        return nullptr;
    }
    w->pre_block = static_cast<uac_timer_record *>(
        uac_calloc(static_cast<int32_t>(w->pre + 1), sizeof(uac_timer_record)));
    if (!w->pre_block) {
        WT_ERROR("__tvec_base_init", kLineInitRecords, "Failed to alloc mem for timers array.\n");
        teardown(w);
        return nullptr;
    }
    sigemptyset(&w->sigs);
    sigaddset(&w->sigs, SIGALRM);
    w->db = uac_mutex_create("wheel_timer_db_mutex", UAC_MUTEX_RECURSIVE);
    w->msg = uac_mutex_create("wheel_timer_msg_mutex", UAC_MUTEX_NORMAL);
    w->cond = uac_cond_create("wheel_timer_msg_cond");
    w->exited_ready = sem_init(&w->exited, 0, 0) == 0;
    if (!w->db || !w->msg || !w->cond || !w->exited_ready) {
        WT_ERROR("__tvec_base_init", kLineInitLocks, "Create apmngr db mutex failed.\n");
        teardown(w);
        return nullptr;
    }
    w->jiffies = 0;
    uac_list_init(&w->work);
    for (auto &l : w->tv1)
        uac_list_init(&l);
    for (auto &level : w->tvn)
        for (auto &l : level)
            uac_list_init(&l);
    return w;
}

void destroy(Wheel *w) noexcept {
    if (w)
        teardown(w);
}

uint32_t add(Wheel *w, uint32_t sec, uint32_t usec, uac_timer_func callback, void *arg,
             uac_timer_func release, bool periodic) noexcept {
    uint32_t id;
    uint64_t secs;
    {
        MutexHold db(w->db);
        if (!db.held())
            return UAC_TIMER_INVALID_ID;
        int32_t slot = uid_get(w->ids);
        if (slot < 0) {
            if (!expand(w)) {
                WT_ERROR("uac_timer_add", kLineAddExpand, "Failed to expand uac timer.\n");
                return UAC_TIMER_INVALID_ID;
            }
            slot = uid_get(w->ids);
            if (slot < 0) {
                WT_ERROR("uac_timer_add", kLineAddNoId,
                         "Failed to alloc id for new timer, maybe too many timers?\n");
                return UAC_TIMER_INVALID_ID;
            }
        }
        uac_timer_record *r = record_of_slot(w, static_cast<uint32_t>(slot));
        if (!r || r->flags != 0) {
            WT_ERROR("uac_timer_add", kLineAddBadSlot, "Should not happen for timer id %d\n", slot);
            uid_put(w->ids, slot);
            return UAC_TIMER_INVALID_ID;
        }
        uint32_t seq = next_sequence(w, r->id >> UAC_TIMER_SLOT_BITS);
        id = static_cast<uint32_t>(slot) | seq << UAC_TIMER_SLOT_BITS;
        r->id = id;
        r->callback = callback;
        r->arg = arg;
        r->release = release;
        r->interval = to_ticks(sec, usec);
        r->expires = due_tick(w, r->interval);
        r->flags = static_cast<uint8_t>(w->next_add_flags | (periodic ? UAC_TIMER_F_PERIODIC : 0) |
                                        UAC_TIMER_F_IN_USE);
        internal_add_timer(w, r);
        secs = r->interval * UAC_TIMER_TICK_MS / 1000;
    }
    if (g_wheel_timer_debug.load(std::memory_order_relaxed))
        printf("[WHEEL_TIMER_DEBUG]%s()/%d Add a timer(%d) with interval %lu secs.\n", "uac_timer_add",
               kLineAddDebug, static_cast<int>(id), static_cast<unsigned long>(secs));
    return id;
}

int32_t remove(Wheel *w, uint32_t id) noexcept {
    if (id == UAC_TIMER_INVALID_ID)
        return -1;
    MutexHold db(w->db);
    uac_timer_record *r = find(w, id);
    if (!r) {
        if (g_wheel_timer_warning.load(std::memory_order_relaxed))
            printf("[WHEEL_TIMER_WARNING]%s()/%d Failed to find the timer %d.\n", "uac_timer_remove",
                   kLineRemoveMissing, static_cast<int>(id));
        return -1;
    }
    if (r->flags & UAC_TIMER_F_EXPIRED) {
        // The work thread owns it now: it skips the callback if it has not started and
        // finishes the timer, release included.
        r->flags |= UAC_TIMER_F_REMOVED;
        return 0;
    }
    uac_timer_func release = r->release;
    void *arg = r->arg;
    // The record is freed before release runs (still under db), so a release that
    // removes this id again finds nothing instead of recursing.
    uac_list_remove(&r->node);
    uid_put(w->ids, static_cast<int32_t>(id & UAC_TIMER_SLOT_MASK));
    r->flags = 0;
    if (release)
        release(arg);
    return 0;
}

uint32_t rest(Wheel *w, uint32_t id) noexcept {
    if (id == UAC_TIMER_INVALID_ID)
        return 0;
    MutexHold db(w->db);
    uac_timer_record *r = find(w, id);
    if (!r) {
        if (g_wheel_timer_warning.load(std::memory_order_relaxed))
            printf("[WHEEL_TIMER_WARNING]%s()/%d Failed to find the timer %d.\n", "uac_timer_rest",
                   kLineRestMissing, static_cast<int>(id));
        return 0;
    }
    if (r->flags & UAC_TIMER_F_EXPIRED)
        return 0;
    auto left = static_cast<uint32_t>(r->expires > w->jiffies ? r->expires - w->jiffies : 0);
    return static_cast<uint32_t>(static_cast<uint64_t>(left) * UAC_TIMER_TICK_MS / 1000);
}

void tick(Wheel *w) noexcept {
    MutexHold db(w->db);
    uint64_t j = w->jiffies;
    auto idx = static_cast<uint32_t>(j & kTv1Mask);
    if (idx == 0) {
        // Cascade a level only when the level below it has just wrapped.
        for (uint32_t n = 0; n < kTvnLevels; ++n) {
            auto i = static_cast<uint32_t>((j >> (kTv1Bits + n * kTvnBits)) & kTvnMask);
            if (cascade(w, n, i) != 0)
                break;
        }
    }
    w->jiffies = j + 1;
    uac_list_head *due = &w->tv1[idx];
    if (uac_list_size(due) == 0)
        return;
    MutexHold msg(w->msg);
    uac_list_entry *e;
    uac_list_for_each(e, due) rec_of(e)->flags |= UAC_TIMER_F_EXPIRED;
    uac_list_move(&w->work, due);
    uac_cond_signal(w->cond);
}

namespace {

// Takes the first expired record off the work queue; waits for one when `wait` is set
// (until the wheel stops). Null when there is none.
uac_timer_record *next_expired(Wheel *w, bool wait) {
    MutexHold msg(w->msg);
    while (uac_list_size(&w->work) == 0) {
        if (!wait || w->stopping.load(std::memory_order_relaxed))
            return nullptr;
        uac_cond_wait(w->cond, w->msg, UAC_WAIT_FOREVER);
    }
    uac_list_entry *e = uac_list_first(&w->work);
    uac_list_remove(e);
    return rec_of(e);
}

// Runs one expired timer's callback with no lock held, then re-arms or finishes it.
void run_expired(Wheel *w, uac_timer_record *r) {
    // Set before the record was queued and not changed while it is expired.
    uac_timer_func callback = r->callback;
    uac_timer_func release = r->release;
    void *arg = r->arg;
    bool removed;
    {
        MutexHold db(w->db);
        removed = r->flags & UAC_TIMER_F_REMOVED;
    }
    if (!removed && callback)
        callback(arg);
    bool finished;
    {
        MutexHold db(w->db);
        uint8_t f = r->flags;
        finished = (f & UAC_TIMER_F_REMOVED) ||
                   !(f & (UAC_TIMER_F_PERIODIC | UAC_TIMER_F_REARM_ONCE));
        if (finished) {
            uid_put(w->ids, static_cast<int32_t>(r->id & UAC_TIMER_SLOT_MASK));
            r->flags = 0;
        } else {
            r->flags = (f & UAC_TIMER_F_PERIODIC) ? UAC_TIMER_F_IN_USE | UAC_TIMER_F_PERIODIC
                                                  : UAC_TIMER_F_IN_USE;
            r->expires = due_tick(w, r->interval);
            internal_add_timer(w, r);
        }
    }
    if (finished && release)
        release(arg);
}

}  // namespace

bool run_one(Wheel *w) noexcept {
    uac_timer_record *r = next_expired(w, false);
    if (!r)
        return false;
    run_expired(w, r);
    return true;
}

uint32_t run_pending(Wheel *w) noexcept {
    uint32_t n = 0;
    while (run_one(w))
        ++n;
    return n;
}

namespace {

// The first tick from now on that has anything to do: the tick that handles a
// non-empty level-1 slot, or that cascades a non-empty slot of a higher level.
// UINT64_MAX when the wheel is empty (db held).
uint64_t next_busy_tick(Wheel *w) {
    uint64_t j = w->jiffies;
    uint64_t best = UINT64_MAX;
    for (uint32_t s = 0; s < kTv1Size; ++s) {
        if (uac_list_size(&w->tv1[s]) != 0)
            best = std::min(best, j + ((s - j) & kTv1Mask));
    }
    for (uint32_t n = 0; n < kTvnLevels; ++n) {
        uint32_t shift = kTv1Bits + n * kTvnBits;
        uint64_t period = 1ull << shift;
        uint64_t round = (j + period - 1) & ~(period - 1);  // next cascade point of level n + 2
        for (uint32_t s = 0; s < kTvnSize; ++s) {
            if (uac_list_size(&w->tvn[n][s]) != 0)
                best = std::min(best, round + ((s - (round >> shift)) & kTvnMask) * period);
        }
    }
    return best;
}

}  // namespace

uint64_t advance(Wheel *w, uint64_t max_ticks) noexcept {
    uint64_t done = 0;
    while (done < max_ticks) {
        {
            // Ticks before the next busy one would only count (their cascades find
            // empty slots): step over them at once.
            MutexHold db(w->db);
            uint64_t busy = next_busy_tick(w);
            if (busy > w->jiffies) {
                uint64_t idle = std::min(busy - w->jiffies, max_ticks - done);
                w->jiffies += idle;
                done += idle;
                continue;
            }
        }
        tick(w);
        ++done;
        MutexHold msg(w->msg);
        if (uac_list_size(&w->work) != 0)
            break;
    }
    return done;
}

uint64_t jiffies(Wheel *w) noexcept {
    MutexHold db(w->db);
    return w->jiffies;
}

uint32_t capacity(Wheel *w) noexcept {
    MutexHold db(w->db);
    return w->pre + w->ext;
}

int32_t level_of(Wheel *w, uint32_t id, uint32_t *slot) noexcept {
    MutexHold db(w->db);
    uac_timer_record *r = find(w, id);
    if (!r)
        return -1;
    uac_list_head *l = r->node.list;
    uint32_t unused;
    if (!slot)
        slot = &unused;
    if (l >= &w->tv1[0] && l < &w->tv1[kTv1Size]) {
        *slot = static_cast<uint32_t>(l - &w->tv1[0]);
        return 1;
    }
    for (uint32_t n = 0; n < kTvnLevels; ++n) {
        if (l >= &w->tvn[n][0] && l < &w->tvn[n][kTvnSize]) {
            *slot = static_cast<uint32_t>(l - &w->tvn[n][0]);
            return static_cast<int32_t>(n) + 2;
        }
    }
    return 0;
}

namespace {

std::atomic<Wheel *> g_wheel{nullptr};
std::atomic<bool> g_initialised{false};
std::mutex g_init_mutex;  // serialises init and stop

// "wheeltimertickd": the only thread that takes SIGALRM. SIGQUIT ends it (stop).
void *tick_main(void *arg) {
    auto *w = static_cast<Wheel *>(arg);
    sigset_t waited = w->sigs;
    sigaddset(&waited, SIGQUIT);
    itimerval every_tick{};
    every_tick.it_interval.tv_usec = kTickUsec;
    every_tick.it_value.tv_usec = kTickUsec;
    if (setitimer(ITIMER_REAL, &every_tick, nullptr) != 0) {
        printf("[ASSERT_FAILED] : %s:%d!\n", "uac_timer", kLineTickAssert);
    } else {
        for (;;) {
            int sig = 0;
            if (sigwait(&waited, &sig) != 0)
                continue;
            if (sig == SIGQUIT || w->stopping.load(std::memory_order_relaxed))
                break;
            tick(w);
        }
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
    }
    {
        std::lock_guard<std::mutex> hold(w->life);
        w->tick_done = true;  // from now on stop must not signal this thread
    }
    sem_post(&w->exited);
    return nullptr;
}

// "wheeltimerworkd": runs the expired timers one at a time until the wheel stops.
void *work_main(void *arg) {
    auto *w = static_cast<Wheel *>(arg);
    while (uac_timer_record *r = next_expired(w, true))
        run_expired(w, r);
    sem_post(&w->exited);
    return nullptr;
}

// Ends the threads that were started (tick first) and waits until they have left.
void stop_threads(Wheel *w, bool tick_started, bool work_started) {
    w->stopping.store(true, std::memory_order_relaxed);
    if (tick_started) {
        // A tick thread whose interval timer failed has ended already; its id is
        // no longer valid then.
        std::lock_guard<std::mutex> hold(w->life);
        if (!w->tick_done)
            pthread_kill(w->tick_tid, SIGQUIT);
    }
    if (work_started) {
        // Stays pending (the work thread blocks SIGQUIT); the wake-up below ends it.
        // Sent first, while the thread is sure to be alive.
        pthread_kill(w->work_tid, SIGQUIT);
        MutexHold msg(w->msg);
        uac_cond_broadcast(w->cond);
    }
    for (int n = (tick_started ? 1 : 0) + (work_started ? 1 : 0); n > 0; --n) {
        while (sem_wait(&w->exited) != 0) {
        }
    }
}

Wheel *live_wheel(const char *func) {
    Wheel *w = g_wheel.load(std::memory_order_acquire);
    if (!w)
        printf("[WHEEL_TIMER_ERROR]%s()/%d Wheel timer is not running.\n", func, __LINE__);
    return w;
}

}  // namespace

Wheel *global() noexcept { return g_wheel.load(std::memory_order_acquire); }

}  // namespace uac_timer_engine

using namespace uac_timer_engine;

extern "C" {

int32_t uac_timer_init(int32_t id_len) noexcept {
    std::lock_guard<std::mutex> once(g_init_mutex);
    if (g_initialised.load(std::memory_order_relaxed))
        return 0;
    if (id_len < UAC_TIMER_MIN_ID_LEN || id_len > UAC_TIMER_MAX_ID_LEN) {
        WT_ERROR("uac_timer_init", kLineInitRange,
                 "Range error: g_wheel_timer_id_len=%d, should be range from 2 to %d\n", id_len,
                 UAC_TIMER_MAX_ID_LEN);
        return -1;
    }
    g_wheel_timer_id_len = id_len;
    Wheel *w = create(id_len);
    bool tick_started = false;
    bool work_started = false;
    if (w) {
        // Both threads start with SIGALRM and SIGQUIT blocked: SIGALRM is taken only
        // through sigwait, and the SIGQUIT of uac_timer_stop must never reach the
        // default action (which would end the process) in the gap before a thread
        // could block it itself.
        sigset_t blocked, saved;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGALRM);
        sigaddset(&blocked, SIGQUIT);
        pthread_sigmask(SIG_BLOCK, &blocked, &saved);
        tick_started = uac_thread_create(&w->tick_tid, "wheeltimertickd", tick_main, w) == 0;
        if (!tick_started)
            WT_ERROR("__base_init", kLineTickThread, "Failed to create thread of timer.\n\n");
        else if (!(work_started = uac_thread_create(&w->work_tid, "wheeltimerworkd", work_main, w) == 0))
            WT_ERROR("__base_init", kLineWorkThread, "Failed to create thread of timer.\n\n");
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    }
    if (!w || !work_started) {
        if (w) {
            stop_threads(w, tick_started, false);
            teardown(w);
        }
        WT_ERROR("uac_timer_init", kLineInitFailed, "Failed to init timer.\n\n");
        return -1;
    }
    g_wheel.store(w, std::memory_order_release);
    g_initialised.store(true, std::memory_order_relaxed);
    return 0;
}

uint32_t uac_timer_add(uint32_t sec, uint32_t usec, uac_timer_func callback, void *arg,
                       uac_timer_func release) noexcept {
    Wheel *w = live_wheel("uac_timer_add");
    return w ? uac_timer_engine::add(w, sec, usec, callback, arg, release, false) : UAC_TIMER_INVALID_ID;
}

uint32_t uac_timer_add_periodic(uint32_t sec, uint32_t usec, uac_timer_func callback, void *arg,
                                uac_timer_func release) noexcept {
    Wheel *w = live_wheel("uac_timer_add_periodic");
    if (!w)
        return UAC_TIMER_INVALID_ID;
    // The flag rides on the db mutex (recursive), as add takes it again.
    uac::MutexHold db(w->db);
    w->next_add_flags = UAC_TIMER_F_PERIODIC;
    uint32_t id = uac_timer_engine::add(w, sec, usec, callback, arg, release, false);
    w->next_add_flags = 0;
    return id;
}

int32_t uac_timer_remove(uint32_t id) noexcept {
    if (id == UAC_TIMER_INVALID_ID)
        return -1;
    Wheel *w = live_wheel("uac_timer_remove");
    return w ? uac_timer_engine::remove(w, id) : -1;
}

uint32_t uac_timer_rest(uint32_t id) noexcept {
    if (id == UAC_TIMER_INVALID_ID)
        return 0;
    Wheel *w = live_wheel("uac_timer_rest");
    return w ? uac_timer_engine::rest(w, id) : 0;
}

void uac_timer_stop(void) noexcept {
    std::lock_guard<std::mutex> once(g_init_mutex);
    Wheel *w = g_wheel.load(std::memory_order_acquire);
    if (!w)
        return;
    pthread_t self = pthread_self();
    if (pthread_equal(self, w->tick_tid) || pthread_equal(self, w->work_tid)) {
        printf("[WHEEL_TIMER_ERROR]%s()/%d Can not stop the timer from its own thread.\n",
               "uac_timer_stop", __LINE__);
        return;
    }
    g_wheel.store(nullptr, std::memory_order_release);
    stop_threads(w, true, true);
    teardown(w);
}

void uac_timer_count_print(void) noexcept {
    Wheel *w = global();
    if (!w)
        return;
    int waiting = 0;
    int working = 0;
    {
        // Under the lock although nothing is changed: the extension array may be
        // reallocated by a concurrent add.
        uac::MutexHold db(w->db);
        for (uint32_t s = 0; s < w->pre + w->ext; ++s) {
            uac_timer_record *r = record_of_slot(w, s);
            if (!(r->flags & UAC_TIMER_F_IN_USE))
                continue;
            if (r->flags & UAC_TIMER_F_EXPIRED)
                ++working;
            else
                ++waiting;
        }
    }
    puts("   Waiting\tWorking\tTotal");
    puts("===========================");
    printf("%6d\t%6d\t%6d\n", waiting, working, waiting + working);
}

void uac_timer_list_print(void) noexcept {
    Wheel *w = global();
    if (!w)
        return;
    uac::MutexHold db(w->db);
    printf("Pre alloc: %d\tExtend alloc:%d\n", static_cast<int>(w->pre), static_cast<int>(w->ext));
    puts("============timer list===============");
    for (uint32_t s = 0; s < w->pre + w->ext; ++s) {
        uac_timer_record *r = record_of_slot(w, s);
        if (!(r->flags & UAC_TIMER_F_IN_USE))
            continue;
        printf("Timer<%d>: id=<%d>, seq=<%d>, interval=<%lu ms>, bit:%d\n", static_cast<int>(r->id),
               static_cast<int>(r->id & UAC_TIMER_SLOT_MASK),
               static_cast<int>(r->id >> UAC_TIMER_SLOT_BITS),
               static_cast<unsigned long>(r->interval * UAC_TIMER_TICK_MS), r->flags);
    }
}

}  // extern "C"
