// event_list.cpp - the eight event lists: fixed rings of 6000 slots, insertion with the
// full-buffer policies, consumer-mask deletion and the yes/no tests that drive reporting.

#include "event_list.h"

#include <unistd.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "event_config.h"
#include "event_msg.h"
#include "event_report.h"
#include "nms_log.h"
#include "uac_mem.h"
#include "uac_thread.h"
#include "victim_index.h"

uac_mutex_t *gNmsEventNodeListLocker[NMS_EVENT_LIST_NUM];

namespace {

// The store is allocated once for the life of the process: a burst of events costs one small
// allocation per node and never a resize.
nms_event_list g_lists[NMS_EVENT_LIST_NUM];
// Per list, the index of replacement victims while the list has one (under the list's lock).
nms_event_victim::Index *g_victims[NMS_EVENT_LIST_NUM];
// The slot of a replacement's victim whose index update waits for the new node (kNoSlot: none
// waits; kDeferring: the next emptied slot will). Under the list's lock.
constexpr int kNoSlot = -1, kDeferring = -2;
int g_victim_slot[NMS_EVENT_LIST_NUM] = {kNoSlot, kNoSlot, kNoSlot, kNoSlot,
                                         kNoSlot, kNoSlot, kNoSlot, kNoSlot};

constexpr int kPolicyBlock = 2;  // full-buffer policy that blocks the producer

// Where a producer held back by a full list under policy 2 sleeps until room may have been
// made: whatever deletes nodes from the list, or reloads the lists' settings, wakes it. It
// sleeps without a timeout, so a list that stays full through an outage costs no wake-ups.
// Lock order: a list lock may be held while taking its room lock, never the reverse; the
// waiter reads the list's count (an atomic) under the room lock alone.
struct RoomWait {
    std::mutex mu;
    std::condition_variable cv;
    std::atomic<int32_t> waiting{0};  // producers asleep here (0 or 1: one worker per list)
};
// Never destroyed: a worker may still be asleep here while the process exits, and destroying
// a condition variable with a waiter blocks the exit for good.
RoomWait &room(int list) {
    static RoomWait *rooms = new RoomWait[NMS_EVENT_LIST_NUM];
    return rooms[list];
}

// A producer asleep on this list re-checks whether it may go on. Taking the room lock orders
// this after the count the caller changed: a waiter that saw the list full is either asleep
// already (and woken) or sees the new count when it checks.
void room_changed(int list) {
    RoomWait &r = room(list);
    { std::lock_guard<std::mutex> hold(r.mu); }
    r.cv.notify_all();
}

// Memory after a burst: the events freed since the memory was last settled (counted under
// each list's lock), what the last look saw of that count, and the looks since the last settle.
// The scan looks; tests may call it from their own thread, hence atomics throughout.
std::atomic<uint32_t> g_freed_since_settle{0};
std::atomic<uint32_t> g_freed_seen{0};
std::atomic<uint32_t> g_scans_since_settle{0};
constexpr uint32_t kSettleAfterFreed = 1024;  // events: below this there is little to give back
constexpr uint32_t kSettleEveryScans = 5;     // while deletions go on, at most this often

// Gives the memory the freed events held back to the system. glibc keeps freed blocks in its
// heap for reuse (a burst of 56,000 small events left 18 MB held for good); its trim returns
// every free page, inside the heap as well as at its top. musl's allocator returns emptied
// groups of blocks by itself and has no such call.
void release_free_memory() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

bool list_valid(int list) { return list >= 0 && list < NMS_EVENT_LIST_NUM; }
bool slot_valid(int slot) { return slot >= 0 && slot < NMS_EVENT_LIST_SLOTS; }
int next_slot(int slot) { return (slot + 1) % NMS_EVENT_LIST_SLOTS; }

void free_traced(void *p) {
    NMS_LOG_TRACE("%s:%d::free(%p)\n", __func__, __LINE__, p);
    mem_guard_free(p);
}

// Threshold of a list: its buffer size, capped.
int list_threshold(int list) {
    int size = get_event_list_buf_size(list);
    return size <= NMS_EVENT_THRESHOLD_CAP ? size : NMS_EVENT_THRESHOLD_CAP;
}

// Clears bits from the node in slot; deletes it once no bit is left. True when deleted.
bool clear_bits_and_delete(int list, int slot, int bits) {
    nms_event_node *node = g_lists[list].slots[slot];
    node->mask = node->mask & ~bits & NMS_EVENT_MASK_BITS;
    if (node->mask != 0)
        return false;
    _delete_node_from_list_force(list, slot);
    return true;
}

// The victim of a replacing insertion: the qualifying node with the smallest time stamp, the
// first of equals after cur_pos. A candidate stamped 0 is no candidate and gives way to the
// next qualifying node. Returns its slot, or -1. Caller holds the lock.
// A list that fills up under replace-oldest takes one victim an event for as long as the flood
// lasts, so the first such choice builds the list's index and later ones ask it; the index
// lives until the list is empty again.
int find_oldest(int list, int replace) {
    nms_event_list &l = g_lists[list];
    int cur_pos = l.cur_pos.load(std::memory_order_relaxed);
    if (replace == 1 && !g_victims[list])
        g_victims[list] = new (std::nothrow) nms_event_victim::Index(l.slots);
    // Other replace values, or no memory for the index: the walk.
    if (replace != 1 || !g_victims[list])
        return nms_event_victim::by_walk(l.slots, cur_pos, replace);
    return g_victims[list]->choose(l.slots, cur_pos);
}

// Keeps the list's victim index, if it has one, in step with a slot just filled or emptied.
void slot_changed(int list, int slot) {
    nms_event_victim::Index *&index = g_victims[list];
    if (!index)
        return;
    if (g_victim_slot[list] == kDeferring) {
        g_victim_slot[list] = slot;
        return;
    }
    if (g_lists[list].count.load(std::memory_order_relaxed) == 0) {
        delete index;
        index = nullptr;
        return;
    }
    index->changed(g_lists[list].slots, slot);
}

// A replacement's victim brings the index up to date once the new node is in, or the insertion
// has failed: the new node nearly always takes the victim's slot, and one pass up the tree then
// does for both changes. Caller holds the lock.
struct VictimUpdate {
    int list;
    ~VictimUpdate() {
        const int slot = g_victim_slot[list];
        g_victim_slot[list] = kNoSlot;
        if (slot >= 0)
            slot_changed(list, slot);
    }
};

// First empty slot at or after cur_pos + 1, or -1. Caller holds the lock.
int find_free_slot(int list) {
    nms_event_list &l = g_lists[list];
    int slot = next_slot(l.cur_pos.load(std::memory_order_relaxed));
    for (int i = 0; i <= NMS_EVENT_LIST_SLOTS; i++, slot = next_slot(slot)) {
        if (!l.slots[slot])
            return slot;
    }
    return -1;
}

// Why init_event_node_from_event_info refused info: it refuses over-long params, a type no
// report wants (disabled, or every report switched off) and short memory.
nms_refusal refusal_of(const nms_event_info *info) {
    if (strnlen(info->params, sizeof(info->params)) > NMS_EVENT_PARAMS_MAX)
        return NMS_REFUSED_PARAMS;
    if (get_event_report_mask(info->id) < 1)
        return get_event_enable(info->id) != 0 ? NMS_REFUSED_DISABLED : NMS_REFUSED_OFFLINE;
    return NMS_REFUSED_MEMORY;
}

}  // namespace

void nms_event_mutex_give(uac_mutex_t *m) noexcept {
    if (!m)
        return;
    if (uac_mutex_give(m) != 0) {
        std::printf("WARNING: Try to give mutex \"%s\" not owned by %d thread itself %d.\n",
                    m->name, static_cast<int>(m->owner.load(std::memory_order_relaxed)),
                    static_cast<int>(pthread_self()));
        std::fflush(stdout);
    }
}

extern "C" int init_event_node_list(void) noexcept {
    // A producer held back by a full list sees a policy switched to replace-oldest.
    event_config_on_list_reload(event_list_settings_changed);
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++) {
        nms_event_list &l = g_lists[i];
        // A second call (tests) starts from empty lists again and keeps the lock.
        for (nms_event_node *&node : l.slots) {
            if (node) {
                mem_guard_free(node->params);
                mem_guard_free(node);
            }
            node = nullptr;
        }
        l.count.store(0, std::memory_order_relaxed);
        delete g_victims[i];
        g_victims[i] = nullptr;
        l.cur_pos.store(-1, std::memory_order_relaxed);
        l.next_seq = 1;
        if (!l.lock)
            l.lock = uac_mutex_create("gNmsEventNodeListLocker[i]", UAC_MUTEX_NORMAL);
        gNmsEventNodeListLocker[i] = l.lock;
    }
    return 0;
}

extern "C" int init_event_node_from_event_info(nms_event_node *node,
                                               const nms_event_info *info) noexcept {
    if (!node || !info) {
        NMS_LOG_ERROR("invalid params!!!");
        return -1;
    }
    size_t len = strnlen(info->params, sizeof(info->params));
    if (len > NMS_EVENT_PARAMS_MAX) {
        NMS_LOG_ERROR("invalid params!!!");
        return -1;
    }
    int mask = get_event_report_mask(info->id);
    if (mask < 1) {
        NMS_LOG_ERROR("id:%d mask:%d not support this event!!!\n", info->id, mask);
        return -1;
    }
    char *text = static_cast<char *>(MEM_GUARD_ALLOC(len + 1));
    if (!text) {
        NMS_LOG_ERROR("malloc error!!!");
        return -1;
    }
    std::memcpy(text, info->params, len);
    text[len] = '\0';
    node->params = text;
    node->id = info->id;
    node->time = info->time;
    node->mask = mask;
    return 0;
}

extern "C" int delete_event_node(nms_event_node *node, int *freed) noexcept {
    if (!node) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    if (node->params)
        free_traced(node->params);
    free_traced(node);
    if (freed)
        *freed = 1;
    return 0;
}

extern "C" int _delete_node_from_list_force(int list, int slot) noexcept {
    if (!list_valid(list) || !slot_valid(slot)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    nms_event_list &l = g_lists[list];
    nms_event_node *node = l.slots[slot];
    if (!node)
        return 0;
    delete_event_node(node, nullptr);
    l.slots[slot] = nullptr;
    g_freed_since_settle.fetch_add(1, std::memory_order_relaxed);
    NMS_LOG_DEBUG("delete %d list pos %d ", list, slot);
    int left = l.count.load(std::memory_order_relaxed) - 1;
    l.count.store(left, std::memory_order_relaxed);
    slot_changed(list, slot);
    if (slot == l.cur_pos.load(std::memory_order_relaxed) && left == 0)
        l.cur_pos.store(-1, std::memory_order_relaxed);
    return 0;
}

extern "C" int delete_node_from_list(int list, int slot) noexcept {
    if (!list_valid(list) || !slot_valid(slot)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    NmsEventHold hold(g_lists[list].lock);
    const bool there = g_lists[list].slots[slot] != nullptr;
    int ret = _delete_node_from_list_force(list, slot);
    if (there && ret == 0)
        nms_ledger::departed(list, NMS_GONE_REMOVED, 1);
    hold.release();
    room_changed(list);
    return ret;
}

extern "C" int insert_node_to_list(int list, const nms_event_info *info, int replace) noexcept {
    NMS_LOG_DEBUG("insert_node_to_list %d\n", list);
    if (!list_valid(list) || !info) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    nms_event_list &l = g_lists[list];
    NmsEventHold hold(l.lock);
    VictimUpdate victim_update{list};

    if (l.count.load(std::memory_order_relaxed) > NMS_EVENT_LIST_FULL) {
        if (replace == 0) {
            NMS_LOG_ERROR("list:%d is full,can't replace, may lost this event!!!\n", list);
            nms_ledger::refused(list, NMS_REFUSED_FULL);
            return -1;
        }
        int victim = find_oldest(list, replace);
        g_victim_slot[list] = kDeferring;
        const int deleted = victim < 0 ? -1 : _delete_node_from_list_force(list, victim);
        if (g_victim_slot[list] == kDeferring)  // nothing to defer: no index, or no deletion
            g_victim_slot[list] = kNoSlot;
        if (deleted != 0) {
            NMS_LOG_ERROR("list:%d can't find olddest node or delete it failed, may lost this "
                          "event!!!\n",
                          list);
            nms_ledger::refused(list, NMS_REFUSED_NO_VICTIM);
            return -1;
        }
        nms_ledger::departed(list, NMS_GONE_REPLACED, 1);
    }

    int slot = find_free_slot(list);
    if (slot < 0) {
        NMS_LOG_DEBUG("list:%d insert failed!!!\n", list);
        nms_ledger::refused(list, NMS_REFUSED_FULL);
        return -1;
    }
    NMS_LOG_DEBUG("find free node pos:%d\r\n", slot);

    auto *node = static_cast<nms_event_node *>(MEM_GUARD_ALLOC(sizeof(nms_event_node)));
    if (!node) {
        NMS_LOG_ERROR("there is no node LIST !!!");
        nms_ledger::refused(list, NMS_REFUSED_MEMORY);
        return -1;
    }
    std::memset(node, 0, sizeof(*node));
    if (init_event_node_from_event_info(node, info) != 0) {
        NMS_LOG_ERROR("init_event_node_from_event_info failed !!!");
        nms_ledger::refused(list, refusal_of(info));
        if (node->params)
            mem_guard_free(node->params);
        mem_guard_free(node);
        return -1;
    }
    l.slots[slot] = node;
    NMS_LEDGER_HOT(node->arrived = nms_ledger::arrival(list));
    NMS_LEDGER_HOT(nms_ledger::bump(nms_ledger::list(list).in.accepted));
    node->node_id = static_cast<uint32_t>(slot);
    node->seq = l.next_seq++;
    if (l.next_seq == 0)
        l.next_seq = 1;
    l.count.store(l.count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (g_victim_slot[list] == slot)
        g_victim_slot[list] = kNoSlot;  // this update covers the victim's too
    slot_changed(list, slot);
    l.cur_pos.store(slot, std::memory_order_relaxed);
    NMS_LOG_DEBUG("insert %d list pos %d ", list, slot);
    NMS_LOG_DEBUG("insert success: id=%d  tiume=%llu  %p %s\r\n", node->id,
                  static_cast<unsigned long long>(node->time), static_cast<void *>(node),
                  node->params);
    return 0;
}

extern "C" int insert_node_to_list_by_policy(int list, const nms_event_info *info) noexcept {
    // Policy 2 holds the producer back instead of dropping anything: its queue then backs up,
    // which the report code sees (it looks at the queue itself while the producer waits here).
    if (list_valid(list) && get_event_list_full_processing(list) == kPolicyBlock &&
        is_list_full(list) == 0) {
        const uint64_t began = uac_uptime_ms();
        RoomWait &r = room(list);
        std::unique_lock<std::mutex> hold(r.mu);
        r.waiting.store(1, std::memory_order_relaxed);
        // Woken when nodes are deleted or the settings are reloaded; a policy changed to
        // replace-oldest lets the event in at once.
        while (is_list_full(list) == 0 && get_event_list_full_processing(list) == kPolicyBlock)
            r.cv.wait(hold);
        r.waiting.store(0, std::memory_order_relaxed);
        hold.unlock();
        nms_ledger::waited(list, static_cast<uint32_t>(uac_uptime_ms() - began));
        NMS_LEDGER_HOT(nms_ledger::tick(list));   // taken now, not when its round began
    }
    return insert_node_to_list(list, info, 1);
}

extern "C" void event_list_settle_memory(void) noexcept {
    uint32_t freed = g_freed_since_settle.load(std::memory_order_relaxed);
    // Nothing deleted since the last look: a drain or a clean is over.
    bool quiet = g_freed_seen.exchange(freed, std::memory_order_relaxed) == freed;
    uint32_t scans = g_scans_since_settle.fetch_add(1, std::memory_order_relaxed) + 1;
    if (freed < kSettleAfterFreed || (!quiet && scans < kSettleEveryScans))
        return;
    release_free_memory();
    g_freed_since_settle.fetch_sub(freed, std::memory_order_relaxed);
    g_freed_seen.store(0, std::memory_order_relaxed);
    g_scans_since_settle.store(0, std::memory_order_relaxed);
}

extern "C" int is_list_producer_waiting(int list) noexcept {
    if (!list_valid(list))
        return -1;
    return room(list).waiting.load(std::memory_order_relaxed) != 0 ? 0 : -1;
}

extern "C" void event_list_settings_changed(void) noexcept {
    for (int list = 0; list < NMS_EVENT_LIST_NUM; list++)
        room_changed(list);
}

extern "C" nms_event_node *get_list_node(int list, int node_id, int ori_node_id) noexcept {
    if (!list_valid(list))
        return nullptr;
    if (node_id < -1 || node_id > NMS_EVENT_LIST_FULL) {
        NMS_LOG_DEBUG("invalid params node_id:%d ori_node_id:%d!!!\n", node_id, ori_node_id);
        return nullptr;
    }
    nms_event_list &l = g_lists[list];
    if (l.count.load(std::memory_order_relaxed) <= 0)
        return nullptr;
    int slot = next_slot(node_id);
    for (int i = 0; i < NMS_EVENT_LIST_SLOTS; i++, slot = next_slot(slot)) {
        if (slot == ori_node_id)
            return nullptr;
        if (l.slots[slot])
            return l.slots[slot];
    }
    return nullptr;
}

extern "C" nms_event_node *get_list_first_node(int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return nullptr;
    }
    nms_event_list &l = g_lists[list];
    int slot = next_slot(l.cur_pos.load(std::memory_order_relaxed));
    if (l.slots[slot])
        return l.slots[slot];
    return get_list_node(list, slot, -1);
}

extern "C" int delete_node_arr_from_list_force(int list, int n, const int *node_ids,
                                               int *deleted) noexcept {
    if (!list_valid(list) || !node_ids || n < 0) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    nms_event_list &l = g_lists[list];
    NmsEventHold hold(l.lock);
    bool found = false;
    int freed = 0;
    for (int i = 0; i < n; i++) {
        int slot = node_ids[i];
        NMS_LOG_DEBUG("node_arr[%d]:%d!!!\n", i, slot);
        if (!slot_valid(slot) || !l.slots[slot])
            continue;
        found = true;
        _delete_node_from_list_force(list, slot);
        freed++;
        NMS_LOG_DEBUG("delete list_id:%d node_arr[%d]!!!\n", list, i);
    }
    nms_ledger::departed(list, NMS_GONE_REMOVED, static_cast<uint32_t>(freed));
    if (deleted) {
        *deleted = freed;
        NMS_LOG_TRACE("had delete cnt:%d", freed);
    }
    hold.release();
    if (freed > 0)
        room_changed(list);
    return found ? 0 : -1;
}

extern "C" int multil_call_delete_node_arr_from_list(int list, int n, const int *node_ids,
                                                     int *deleted, int bits) noexcept {
    return nms_event_delete_nodes(list, n, node_ids, nullptr, deleted, bits, NMS_GONE_REMOVED);
}

extern "C" int multil_call_delete_sent_node_arr(int list, int n, const int *node_ids,
                                                const uint32_t *seqs, int *deleted,
                                                int bits) noexcept {
    return nms_event_delete_nodes(list, n, node_ids, seqs, deleted, bits, NMS_GONE_REMOVED);
}

int nms_event_delete_nodes(int list, int n, const int *node_ids, const uint32_t *seqs,
                           int *deleted, int bits, nms_departure how) noexcept {
    if (bits < 1)
        return 0;
    if (!list_valid(list) || !node_ids || n < 0) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    nms_event_list &l = g_lists[list];
    NmsEventHold hold(l.lock);
    bool found = false;
    int freed = 0;
    for (int i = 0; i < n; i++) {
        int slot = node_ids[i];
        NMS_LOG_DEBUG("node_arr[%d]:%d!!!\n", i, slot);
        if (!slot_valid(slot) || !l.slots[slot])
            continue;
        // Refilled since the batch took it: the node there was never sent.
        if (seqs && l.slots[slot]->seq != seqs[i])
            continue;
        found = true;
        if (clear_bits_and_delete(list, slot, bits)) {
            freed++;
            NMS_LOG_DEBUG("delete list_id:%d node_arr[%d]!!!\n", list, i);
        }
    }
    nms_ledger::departed(list, how, static_cast<uint32_t>(freed));
    if (deleted) {
        *deleted = freed;
        NMS_LOG_TRACE("had delete cnt:%d", freed);
    }
    hold.release();
    if (freed > 0)
        room_changed(list);
    return found ? 0 : -1;
}

extern "C" uint32_t get_list_node_seq(int list, int slot) noexcept {
    if (!list_valid(list) || !slot_valid(slot) || !g_lists[list].slots[slot])
        return 0;
    return g_lists[list].slots[slot]->seq;
}

extern "C" int clean_one_list(int bits) noexcept {
    return nms_event_clean_lists(bits, NMS_GONE_CLEANED);
}

int nms_event_clean_lists(int bits, nms_departure how) noexcept {
    if (bits < 1)
        return 0;
    bool every_list = true;
    for (int list = NMS_EVENT_LIST_NUM - 1; list >= 0; list--) {
        nms_event_list &l = g_lists[list];
        NmsEventHold hold(l.lock);
        // Slot indexes 0..count-1 are visited, not the nodes: nodes in higher slots stay.
        int count = l.count.load(std::memory_order_relaxed);
        uint32_t freed = 0;
        for (int pos = 0; pos < count; pos++) {
            NMS_LOG_DEBUG("pos%d!!!\n", pos);
            if (!l.slots[pos])
                continue;
            if (clear_bits_and_delete(list, pos, bits)) {
                freed++;
                NMS_LOG_DEBUG("delete list_id:%d node_arr[%d]!!!\n", list, pos);
            }
        }
        nms_ledger::departed(list, how, freed);
        const bool any = freed > 0;
        hold.release();
        if (any)
            room_changed(list);
        else
            every_list = false;
    }
    return every_list ? 0 : -1;
}

uint32_t nms_event_oldest_age(int list) noexcept {
    if (!list_valid(list))
        return 0;
    nms_event_list &l = g_lists[list];
    if (l.count.load(std::memory_order_relaxed) <= 0)
        return 0;
    uint32_t oldest = 0;
    {
        NmsEventHold hold(l.lock);
        for (const nms_event_node *node : l.slots) {
            if (node && (oldest == 0 || node->arrived - oldest > 0x7FFFFFFFu))
                oldest = node->arrived;
        }
    }
    const uint32_t now = nms_ledger::mono_now();
    return oldest == 0 || now - oldest > 0x7FFFFFFFu ? 0 : now - oldest;
}

extern "C" int get_list_total_node(int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    return g_lists[list].count.load(std::memory_order_relaxed);
}

extern "C" int get_list_total_node_by_mask(int list, int bits) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    nms_event_list &l = g_lists[list];
    if (l.count.load(std::memory_order_relaxed) <= 0)
        return 0;
    // Counted under the list lock: a producer replacing the oldest node or the bus cleaning the
    // lists may free a node while it is looked at.
    NmsEventHold hold(l.lock);
    int want = bits & NMS_EVENT_MASK_BITS;
    int n = 0;
    for (const nms_event_node *node : l.slots) {
        if (node && (node->mask & want))
            n++;
    }
    return n;
}

extern "C" int is_list_not_empty(int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    return g_lists[list].count.load(std::memory_order_relaxed) > 0 ? 0 : -1;
}

extern "C" int trigger_logic_full_threshold(int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    return g_lists[list].count.load(std::memory_order_relaxed) >= list_threshold(list) ? 0 : -1;
}

extern "C" int is_list_can_report(int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    if (trigger_logic_full_threshold(list) == 0 &&
        get_event_list_full_processing(list) == kPolicyBlock)
        return 0;
    return -1;
}

extern "C" int is_list_full(int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    return g_lists[list].count.load(std::memory_order_relaxed) > NMS_EVENT_LIST_FULL ? 0 : -1;
}

extern "C" void print_list_node(void) noexcept {
    for (int list = NMS_EVENT_LIST_NUM - 1; list >= 0; list--) {
        nms_event_list &l = g_lists[list];
        // Held while printing: the batch thread may delete nodes meanwhile.
        NmsEventHold hold(l.lock);
        int cur = l.cur_pos.load(std::memory_order_relaxed);
        int count = l.count.load(std::memory_order_relaxed);
        NMS_LOG_DEBUG("list:%d had %d node and cur_pos is %d", list, count, cur);
        std::printf("\r");
        int slot = cur < 0 ? 0 : cur;
        for (int i = 0; i < NMS_EVENT_LIST_SLOTS; i++, slot = next_slot(slot)) {
            const nms_event_node *node = l.slots[slot];
            if (node)
                std::printf("mask:%d node_id=%d id=%d time=%llu param:%s\r\n", node->mask,
                            static_cast<int>(node->node_id), node->id,
                            static_cast<unsigned long long>(node->time), node->params);
        }
        std::printf("list:%d had %d node and cur_pos is %d\r\n", list, count, cur);
        std::fflush(stdout);
    }
}

extern "C" void print_list_count(void) noexcept {
    for (int list = NMS_EVENT_LIST_NUM - 1; list >= 0; list--) {
        std::printf("list:%d had %d node and cur_pos is %d\r\n", list,
                    g_lists[list].count.load(std::memory_order_relaxed),
                    g_lists[list].cur_pos.load(std::memory_order_relaxed));
    }
    std::fflush(stdout);
}
