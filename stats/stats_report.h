// stats_report.h - collection and report of statistics parameters: the group timers'
// callback, the flush threads, and the collection protocol of the get commands.
//
// A get command prints one JSON object with two members read as text:
//   "report_buf"  a JSON object text; its braces are cut off and the rest is appended to the
//                 report as members of the outer object, preceded by a comma;
//   "continue"    "true": run the command again and append its next output (paging).
// The members of one run are joined into one text of at most 261120 bytes; when a member no
// longer fits, what was gathered is sent at once and the run goes on with a fresh text. After
// the send the success commands of the parameters that delivered are started in the
// background. Commands never run while the registry lock is held: every run works on a
// private copy of the groups or nodes it needs.
#pragma once

#include <cstdint>

#include "stats_registry.h"

#define STATS_REPORT_BUDGET 261120     // bytes of report members one run may gather
#define STATS_REPORT_RESERVE 4096      // behind the budget, see report_result_info
#define STATS_SUCCESS_CMD_LEN 4096     // bytes of the success command text
#define STATS_READ_BUF_LEN 65536       // bytes of one command's output that are read
#define STATS_MAX_PAGES 1024           // passes of one paging command in one run

extern "C" {

// One collection run; one zeroed guarded block, freed at the end of the run.
struct report_result_info {
    // 0 while collection may go on; the sender's result after an intermediate send, and a
    // non-zero value stops further collection in this run.
    int32_t status;
    // The joined members, each preceded by a comma. The budget counts the members only;
    // the reserve behind it takes the separating commas and the identity members that the
    // sender splices in front of the text in place.
    char buf[STATS_REPORT_BUDGET + STATS_REPORT_RESERVE];
    // Success commands to run, each as "<cmd> &\n" so that the shell starts them in the
    // background.
    char success_cmd[STATS_SUCCESS_CMD_LEN];
    // 1: send also while reporting is offline (flush of everything); 0: only while online.
    int32_t force;
};

// Callback of every group timer; timeout is the group's period text (the timer's own
// copy, freed by timer_cb_params_free_handle). Collects and reports the group on a copy,
// then re-arms the group's one-shot timer aimed at begin_time + n x period.
void timer_cb(void *timeout) noexcept;
// Collection, send and success steps for one private group. 0, or -1 when memory is short.
int report_statistics_params(statistics_params_timer_entry *group) noexcept;
// Runs node's get command (again while it answers "continue") and appends its members to
// info, sending early when the budget is spent.
void report_statistics_params_prepare(statistics_params_cb_node *node,
                                      report_result_info *info) noexcept;
// One page of a get command's output, out (terminated), taken into info: checked, its members
// appended (or, past the budget, what was gathered sent first). remain_len and read_size are
// the run's counters. 1 when the command asks to be run again, 0 when this node is done.
int report_statistics_params_page(statistics_params_cb_node *node, report_result_info *info,
                                  const char *out, int32_t *remain_len, size_t *read_size) noexcept;
// Appends node's success command to info when the node delivered (param_action 1), then
// clears param_action.
void report_statistics_params_success(statistics_params_cb_node *node,
                                      report_result_info *info) noexcept;
// report_statistics_params_prepare over every node of group.
int _flush_all_statistics_params_report(statistics_params_timer_entry *group,
                                        report_result_info *info) noexcept;
// report_statistics_params_success over every node of group, then runs the success text.
int _flush_all_statistics_params_success(statistics_params_timer_entry *group,
                                         report_result_info *info) noexcept;
// Reports every registered parameter now, also while offline, on a thread
// "nmsStatsReportThread". 0, or -1 when the thread cannot be created.
int flush_all_statistics_params_report(void) noexcept;
// Reports one parameter type now (looked up in the group of its configured period) on a
// thread "nmsStatsReportThread". -1 for a null or empty type; 0 without doing anything
// while reporting is offline.
int flush_report_specific_param(const char *type) noexcept;
// Thread bodies of the two flushes.
void *local_flush_all_statistics_params_report(void *arg) noexcept;
void *local_flush_report_specific_param(void *type) noexcept;

// The next interval of a group timer, aimed at *begin_time + n x period: the first firing
// after a start (*cnt 0) sets *begin_time to cur_time and waits a whole period; later
// ones subtract the lag behind the aim when it is below a period. *cnt is advanced.
void statistics_params_next_interval(uint64_t cur_time, uint64_t *begin_time, uint64_t *cnt,
                                     int32_t period, uint32_t *sec, uint32_t *usec) noexcept;

}  // extern "C"
