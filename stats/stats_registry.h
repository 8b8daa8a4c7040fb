// stats_registry.h - registry of statistics parameter callbacks, grouped by period, with one
// wheel timer per period group.
//
// A service registers a parameter type with a command that prints its value (get_cb) and a
// command to run once the value was reported (success_cb). Parameters that share a period
// ("timeout", decimal seconds as text) form one group with one timer. The registry is two
// levels of hash tables: the timer table keyed by timeout, and per group a node table keyed
// by type. Both hold at most 60 entries.
//
// Locking: gStatisticsParamsTimerLocker guards the timer table, every group and every node
// table. It is taken through the holder-tag guard (uac_mutex_tag_take), and it is never held
// while a command runs: collection and cleaning copy what they need first.
// gParamsSupportListLocker guards the supported-parameter list (stats_persist); the two are
// never held together.
#pragma once

#include <atomic>
#include <cstdint>

#include "uac_hash.h"
#include "uac_lock.h"

#define STATS_TYPE_LEN 64       // characters of a parameter type
#define STATS_CB_LEN 256        // characters of a command
#define STATS_TIMEOUT_LEN 64    // characters of a period text
#define STATS_HASH_BUCKETS 60   // buckets of both table kinds
#define STATS_TABLE_MAX 60      // entries a table accepts: periods, or parameters of a period
#define STATS_NO_TIMER (-1)     // timer_id of a group whose timer is not running

extern "C" {

// One registered parameter; owned by the node table of its group. Texts are copied with
// a bound into the zeroed record, so longer inputs are cut and always terminated.
struct statistics_params_cb_node {
    char type[STATS_TYPE_LEN + 1];          // key in the node table; first, see the hash
    char get_cb[STATS_CB_LEN + 1];          // prints the value as JSON (collection protocol)
    char success_cb[STATS_CB_LEN + 1];      // run after a report and on clean; may be empty
    int32_t param_action;                   // 1: value collected, success_cb still due
};

// One period group; owned by the timer table.
struct statistics_params_timer_entry {
    uac_hash *node_hash;                    // statistics_params_cb_node by type
    char timeout[STATS_TIMEOUT_LEN + 1];    // period in decimal seconds; key in the timer table
    int32_t timer_id;                       // wheel timer id, STATS_NO_TIMER when none runs
    uint64_t begin_time;                    // monotonic us of the first firing since start
    uint64_t cnt;                           // firings since the timer was started
};

// An element of the supported-parameter list (stats_persist); the list runs from
// params_support_list_head to params_support_list_tail, both zeroed end markers.
struct statistics_params_support_node {
    char cb[STATS_CB_LEN + 1];              // prints the names of the parameters a service has
    statistics_params_support_node *next;
    statistics_params_support_node *prev;
};

extern uac_hash *statistics_params_timer_hash;
extern uac_mutex_t *gStatisticsParamsTimerLocker;
extern uac_mutex_t *gParamsSupportListLocker;
// 1 while the group timers have been started by begin_all_statistics_params_timer and
// not stopped since. Written and read on the bus thread; relaxed atomic for the others
// that read it.
extern std::atomic<int32_t> statistics_params_timers_started;
extern statistics_params_support_node params_support_list_head;
extern statistics_params_support_node params_support_list_tail;

// Hash callbacks of the two table kinds (string hash of the key text, seed 0).
uint32_t statistics_params_timer_hash_obj(const void *entry) noexcept;
uint32_t statistics_params_timer_hash_key(const void *key) noexcept;
int32_t statistics_params_timer_hash_cmp(const void *entry, const void *key) noexcept;
uint32_t statistics_params_cb_node_hash_obj(const void *node) noexcept;
uint32_t statistics_params_cb_node_hash_key(const void *key) noexcept;
int32_t statistics_params_cb_node_hash_cmp(const void *node, const void *key) noexcept;

// Creates both locks, the timer table and the empty supported list. Called once at
// start-up before any other operation. 0, or -1 with a message (nothing left behind).
int init_statistics_params(void) noexcept;

// ---- Public operations; each takes gStatisticsParamsTimerLocker itself.

// 0 when the group of timeout exists or was created, -1 otherwise.
int statistics_params_timer_add(const char *timeout) noexcept;
// Deletes the group of timeout with its nodes and its timer. 0 or -1.
int statistics_params_timer_delete(const char *timeout) noexcept;
// Starts one timer per group unless the timers are started already. Returns 0.
int begin_all_statistics_params_timer(void) noexcept;
// While the timers are started, starts those of groups that have none (a new group).
// Returns 0.
int restart_new_statistics_params_timer(void) noexcept;
// Stops every group timer (timer_id becomes STATS_NO_TIMER). Returns 0.
int stop_all_statistics_params_timer(void) noexcept;
// Runs the success_cb of every registered parameter (telling each producer that its
// pending values are discarded) and clears param_action. The registry is kept. The
// commands run after the lock is given back. Returns 0.
int clean_all_statistics_params(void) noexcept;
// Prints every group and node on standard output, always. Returns 0.
int print_all_statistics_params(void) noexcept;

// ---- Building blocks: the caller holds gStatisticsParamsTimerLocker or works on a
// private table.

// The group of timeout in table, made when missing; null when the table is full or on
// failure.
statistics_params_timer_entry *_statistics_params_timer_add(uac_hash *table,
                                                            const char *timeout) noexcept;
// Removes the group of timeout from table, stops its timer and frees it with its nodes.
int _statistics_params_timer_delete(uac_hash *table, const char *timeout) noexcept;
// Adds a copy of tmpl (type, get_cb, success_cb; param_action 0) to a node table. A type
// that is there already is kept unchanged and gives 0. -1 when the table is full.
int statistics_params_cb_node_add(uac_hash *node_hash,
                                  const statistics_params_cb_node *tmpl) noexcept;
// Removes and frees the node of type. 0, or -1 when it is not there.
int statistics_params_cb_node_delete(uac_hash *node_hash, const char *type) noexcept;
// A new timer table holding a copy of every group (timer_id -1) and node (param_action
// 0) of the registry; null on failure. The caller holds the lock.
uac_hash *copy_timer_stats_timer_hash(void) noexcept;
// Adds a group with the same timeout to dst and copies every node of group into it.
int _copy_timer_stats_timer_hash(statistics_params_timer_entry *group, uac_hash *dst) noexcept;
int _copy_timer_stats_timer_hash_node(statistics_params_cb_node *node,
                                      statistics_params_timer_entry *dst_group) noexcept;
// Start and stop of one group's timer.
int _begin_each_timer(statistics_params_timer_entry *group) noexcept;
int _stop_each_timer(statistics_params_timer_entry *group) noexcept;
// notify_clean_statistics_params over every node of group (the caller must not hold the
// lock: the success commands run here).
int _clean_all_statistics_params(statistics_params_timer_entry *group) noexcept;
// Runs node's success_cb (output ignored) when it has one; param_action = 0.
void notify_clean_statistics_params(statistics_params_cb_node *node) noexcept;
int _print_all_statistics_params(statistics_params_timer_entry *group) noexcept;
int _print_one_statistics_params(statistics_params_cb_node *node) noexcept;
// Removes group from table and frees it with its nodes (disposes of a copied table).
int _delete_all_statistics_params_hash(statistics_params_timer_entry *group,
                                       uac_hash *table) noexcept;
// A private group: the same timeout, timer_id STATS_NO_TIMER, and a copy of every node
// (param_action 0). Null with a message when memory is short. The caller holds the lock.
statistics_params_timer_entry *statistics_params_group_copy(
    const statistics_params_timer_entry *group) noexcept;
// Frees a group that is in no table, with its nodes.
void statistics_params_group_free(statistics_params_timer_entry *group) noexcept;
// Frees a node; the destructor of node tables.
void free_hash_node(statistics_params_cb_node *node) noexcept;
// Frees a group timer's argument; the release function handed to uac_timer_add.
void timer_cb_params_free_handle(void *arg) noexcept;

}  // extern "C"

static_assert(__builtin_offsetof(statistics_params_cb_node, type) == 0,
              "a node is hashed through its type, which starts the record");
static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t),
              "the debug shell reads the started flag by name as a plain int");
