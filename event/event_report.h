// event_report.h - report types, the batch sender, the asynchronous and statistics senders and
// the short-link self-test.
#pragma once

#include <atomic>
#include <cstdint>

#include <info_report.h>

#include "event_config.h"
#include "uac_lock.h"

#define NMS_REPORT_TYPE_NUM 1          // only the cloud type exists
#define NMS_REPORT_NODE_ARR_LEN 6001   // node ids of one batch
#define NMS_REPORT_BATCH_MAX 5999      // events of one batch at most
#define NMS_REPORT_BUF_SIZE 261120     // one report text

extern "C" {

// One consumer of events: which events it wants and how a report text is started, extended by
// one event, closed and sent.
struct nms_report_type {
    int (*match_event)(int32_t id);
    int32_t (*is_online)(void);
    int (*format_head)(char **text, int32_t *remaining);
    int (*format_event)(char *text, int32_t id, uint64_t time, const char *params, int32_t first,
                        int32_t *remaining, int32_t *added);
    int (*format_tail)(char *text, int32_t *remaining);
    int (*send)(char *text, uint32_t fail_retry, int32_t *result);
    uint32_t src_mask;    // the type's consumer bit(s)
    uint32_t fail_retry;  // retries handed to send
    uint32_t type;        // row in the per-type arrays
};

// An asynchronous send: owns its request and the request's two texts.
struct report_send_job {
    uint32_t fail_retry;
    short_link_request *request;
};

extern nms_report_type nms_report_type_table[NMS_REPORT_TYPE_NUM];

// Report requests per type and list (> 0: report it). Raised by the report threads and the bus,
// cleared by the batch thread; plain shared counters.
extern std::atomic<int32_t> multil_call_cb_begin[NMS_REPORT_TYPE_NUM][NMS_EVENT_LIST_NUM];
// Events put into report texts per type (failed sends count too).
extern std::atomic<int32_t> sent_event_total[NMS_REPORT_TYPE_NUM];
// Serialises the batches of one type and list. Taken before the list's node lock, never after.
extern uac_mutex_t *gNmsEventReportListLocker[NMS_REPORT_TYPE_NUM][NMS_EVENT_LIST_NUM];
// Monotonic seconds of each list's last report attempt.
extern std::atomic<uint32_t> event_list_report_time[NMS_EVENT_LIST_NUM];

int init_nms_event_report(int mode, void *arg) noexcept;
int init_multil_call_nms_event_list_report_task(void) noexcept;
int set_multil_call_cb_begin(int32_t type, int32_t list) noexcept;
int update_report_time(int32_t list) noexcept;
uint32_t get_update_report_time(int32_t list) noexcept;
int reset_report_time(int32_t list) noexcept;
int get_event_report_mask(int32_t id) noexcept;
int multil_call_store_report_node_id(uint32_t list, uint32_t node_id, uint32_t mask) noexcept;
int multil_call_remove_report_node_id(int32_t list, int32_t del, uint32_t mask) noexcept;
int multil_call_nms_event_report_handle(uint32_t list, const nms_report_type *t) noexcept;
void *multil_call_report_thread(void *arg) noexcept;
int send_report_info_async(const char *content, const char *url, uint32_t fail_retry) noexcept;
void *send_report_handle(void *job) noexcept;
int statistics_params_report_handle(char *text, int32_t force) noexcept;
int test_short_link_send_one(const char *body, const char *url, uint32_t retries) noexcept;
void *_test_short_link_send(void *arg) noexcept;
// Help of the event pipeline's debug-shell functions and variables.
void nms_event_debug_help(void) noexcept;

}  // extern "C"

// Adds one report request for type and list without checks and wakes the batch thread (the
// report threads' path).
void nms_event_request_report(int32_t type, int32_t list) noexcept;
// Wakes the batch thread when a request is pending that was written without waking it (the
// debug shell writes the counters themselves); the scan calls it every second.
void nms_event_report_look(void) noexcept;
