// event_list.h - the eight bounded event lists: fixed rings of 6000 slots holding event nodes.
#pragma once

#include <atomic>
#include <cstdint>

#include "event_config.h"
#include "nms_ledger.h"
#include "uac_lock.h"

#define NMS_EVENT_LIST_SLOTS 6000     // slots of one list
#define NMS_EVENT_LIST_FULL 5999      // a list whose count exceeds this is full
#define NMS_EVENT_PARAMS_MAX 500      // longest params text a node takes
#define NMS_EVENT_THRESHOLD_CAP 600   // a list's threshold never exceeds this
#define NMS_EVENT_MASK_BITS 0x7FFFFFFF

extern "C" {

// One received event, built per message by the dispatch worker in a zeroed 520-byte block.
struct nms_event_info {
    int32_t id;        // event type id
    int32_t reserved;
    uint64_t time;     // sender's time stamp
    char params[504];  // NUL-terminated, at most 500 characters are taken
};
static_assert(sizeof(nms_event_info) == 520, "event info is built in a 520-byte block");

// A stored event. Its mask holds one bit per report type that still owes it a report; the
// node is freed once no bit is left.
struct nms_event_node {
    uint32_t node_id;  // the slot that holds it
    int32_t id;
    uint64_t time;
    int32_t mask;      // bit 31 never used
    // Which insertion this is, per list (never 0). A batch remembers it beside the slot, so
    // that when the slot has been emptied and refilled while the batch was being sent (a
    // replacing insertion, a clean), the newer event is not deleted as sent. On 64-bit
    // targets it sits in what was padding after mask.
    uint32_t seq;
    char *params;      // own copy
    // Monotonic seconds when the daemon took it (its age for operators; the time stamp above
    // is the sender's). On 32-bit targets it sits in what was padding at the end.
    uint32_t arrived;
};

// One list. slots, the nodes and their masks are guarded by lock; count and cur_pos are
// also read without it by the yes/no tests, hence relaxed atomics.
struct nms_event_list {
    nms_event_node *slots[NMS_EVENT_LIST_SLOTS];
    std::atomic<int32_t> cur_pos;  // slot of the last insertion, -1 when none
    std::atomic<int32_t> count;    // occupied slots
    uac_mutex_t *lock;             // "gNmsEventNodeListLocker[i]"
    uint32_t next_seq;             // stamp of the next insertion (under lock)
};

// Lock order: a report lock (event_report.h) may be held while taking a list lock, never the
// reverse; no code holds two list locks.
extern uac_mutex_t *gNmsEventNodeListLocker[NMS_EVENT_LIST_NUM];

int init_event_node_list(void) noexcept;
int init_event_node_from_event_info(nms_event_node *node, const nms_event_info *info) noexcept;
int delete_event_node(nms_event_node *node, int *freed) noexcept;
// Caller holds the lock, and books the departure in the ledger (this call does not: it serves
// every way an event leaves).
int _delete_node_from_list_force(int list, int slot) noexcept;
int delete_node_from_list(int list, int slot) noexcept;
int insert_node_to_list(int list, const nms_event_info *info, int replace) noexcept;
int insert_node_to_list_by_policy(int list, const nms_event_info *info) noexcept;
// Walkers: the caller holds the list's lock.
nms_event_node *get_list_node(int list, int node_id, int ori_node_id) noexcept;
nms_event_node *get_list_first_node(int list) noexcept;
int delete_node_arr_from_list_force(int list, int n, const int *node_ids, int *deleted) noexcept;
int multil_call_delete_node_arr_from_list(int list, int n, const int *node_ids, int *deleted,
                                          int bits) noexcept;
int clean_one_list(int bits) noexcept;
// The stamp of the node in slot, 0 for an empty or invalid slot. Caller holds the list's lock.
uint32_t get_list_node_seq(int list, int slot) noexcept;
// Like multil_call_delete_node_arr_from_list, but a slot is touched only while it still holds
// the node with the stamp recorded beside it (seqs[i]); a slot refilled since is skipped.
int multil_call_delete_sent_node_arr(int list, int n, const int *node_ids, const uint32_t *seqs,
                                     int *deleted, int bits) noexcept;
int get_list_total_node(int list) noexcept;
int get_list_total_node_by_mask(int list, int bits) noexcept;
int is_list_not_empty(int list) noexcept;
int trigger_logic_full_threshold(int list) noexcept;
int is_list_can_report(int list) noexcept;
int is_list_full(int list) noexcept;
// 0 while the list's producer is held back by a full list under policy 2, else -1.
int is_list_producer_waiting(int list) noexcept;
// Called by the one-second scan: once many events have been deleted, gives the memory they
// held back to the system, as soon as deletions pause (a drained burst, a clean) and at most
// every five scans while they go on.
void event_list_settle_memory(void) noexcept;
// The lists' settings were reloaded: a producer held back re-checks the policy. Called by the
// settings after each reload once init_event_node_list has run.
void event_list_settings_changed(void) noexcept;
void print_list_node(void) noexcept;
void print_list_count(void) noexcept;

}  // extern "C"

// Deletes the nodes of slots node_ids (each only while it still has the stamp seqs[i], when
// seqs is given) once bits are cleared from them, and books the deleted ones as how; the
// public deletion calls are this with their own reason. *deleted: how many were deleted.
int nms_event_delete_nodes(int list, int n, const int *node_ids, const uint32_t *seqs,
                           int *deleted, int bits, nms_departure how) noexcept;
// clean_one_list, booking what it deletes as how (a clean, or a stop or restart of reporting).
int nms_event_clean_lists(int bits, nms_departure how) noexcept;
// The age in seconds of the oldest event in the list (by arrival), 0 for an empty list.
uint32_t nms_event_oldest_age(int list) noexcept;

// Gives a list or report lock back; a give refused because the caller does not own the lock is
// reported with the lock's name, its owner and the caller.
void nms_event_mutex_give(uac_mutex_t *m) noexcept;

// Holds a list or report lock for one scope, waiting for ever.
class NmsEventHold {
public:
    explicit NmsEventHold(uac_mutex_t *m) noexcept
        : m_(m), held_(uac_mutex_take(m, UAC_WAIT_FOREVER) == 0) {}
    ~NmsEventHold() { release(); }
    NmsEventHold(const NmsEventHold &) = delete;
    NmsEventHold &operator=(const NmsEventHold &) = delete;
    bool held() const noexcept { return held_; }
    void release() noexcept {
        if (held_) {
            held_ = false;
            nms_event_mutex_give(m_);
        }
    }

private:
    uac_mutex_t *m_;
    bool held_;
};
