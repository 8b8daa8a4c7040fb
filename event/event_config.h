// event_config.h - settings of the eight event lists and of the event types.
//
// The per-list settings (package event_report, sections "event_queue_<n>") are
// loaded into memory by update_event_list_buf_timer at start-up and on a reload
// from the bus; the per-type settings (package event_params, one section per
// type id) and the statistics buffering time (package stats_report) are read
// from UCI on every query. All packages live in /etc/nms_report. No query fails
// hard: each answers its default when a package, section or option is missing.
#pragma once

// Number of event lists, and so of message queues, workers and report threads.
#define NMS_EVENT_LIST_NUM 8

// Full-buffer policies of a list.
#define NMS_EVENT_FULL_REPLACE 1   // never block the producer; replace the oldest
#define NMS_EVENT_FULL_REPORT 2    // due at the threshold; producer waits when full
#define NMS_EVENT_FULL_NONE 3      // answer for a list number out of range

extern "C" {

// Reloads buffer time, threshold and full-buffer policy of lists 0..7,
// using 600 s, 50 nodes and policy 2 for whatever cannot be read.
void update_event_list_buf_timer(void) noexcept;
// hook is called after every such reload, on the reloading thread.
void event_config_on_list_reload(void (*hook)(void)) noexcept;

// Seconds a non-empty list may wait; 600 for a list out of range or a stored
// value below 1.
int get_event_list_buf_time(int list) noexcept;
// Nodes at which a list reaches its threshold; 50 for a list out of range or a
// stored value below 1.
int get_event_list_buf_size(int list) noexcept;
// Policy 1 or 2 once loaded, 0 before the first load, 3 for a list out of range.
int get_event_list_full_processing(int list) noexcept;

// 0 when event type id is enabled ("on"), -1 otherwise. An unconfigured type
// is enabled only while /tmp/tmp_nms_event_test_ignore_enable exists.
int get_event_enable(int id) noexcept;
// 0 when type id is marked for immediate report ("on"), -1 otherwise.
int get_event_report_now_attr(int id) noexcept;
// The type's level, -1 for an id below 1 or an unconfigured type.
int get_event_level(int id) noexcept;
// The list a type belongs to: 0 for an immediate type with a level in 0..7,
// else that level; for any other level id % 8 (with the sign of id).
int get_event_list_id(int id) noexcept;

// "param_buffer_time" of the given section of stats_report: 600 for a null
// section or a failed read, otherwise the value as it is (no lower bound).
int get_statistics_params_timebuff(const char *section) noexcept;

}  // extern "C"

// Changes to the per-type settings are learnt from the kernel and read by whoever queries.
// A dispatch worker's receive loop marks its thread with event_settings_loop_polls and then
// calls event_settings_look where a change written before the messages it takes was sent must
// be seen: after counting a round's messages, and after waiting for one on an empty queue.
// Queries on that thread then make no system call of their own.
void event_settings_loop_polls(void) noexcept;
void event_settings_look(void) noexcept;
