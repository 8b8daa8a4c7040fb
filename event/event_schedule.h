// event_schedule.h - when lists are reported: the one-second scan and the per-list report threads.
#pragma once

#include <atomic>
#include <cstdint>

extern "C" {

// 1 when the list is due. Set by the scan, cleared by the list's report thread; no lock.
extern std::atomic<int32_t> event_list_report_flag[8];
// Id of the pending one-shot scan timer, 0xFFFFFFFF when none.
extern std::atomic<uint32_t> nms_event_scan_timer_id;

int set_event_list_report_flag(uint32_t list) noexcept;
int reset_event_list_report_flag(int32_t list) noexcept;
// Starts the eight report threads "gNmsEventReportThread[i]".
int init_nms_event_list_report_task(void) noexcept;
// (Re)starts the one-second scan; every list's buffering time starts now.
int nms_event_begin_scan(void) noexcept;
int nms_event_stop_scan(void) noexcept;
// One scan: flags the due lists and arms the next scan. Runs on the timer's work thread.
void nms_event_scan_cb(void *arg) noexcept;
// Body of report thread i (arg points at i).
void *_nms_event_report_handle(void *arg) noexcept;

}  // extern "C"
