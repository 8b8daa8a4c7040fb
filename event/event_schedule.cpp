// event_schedule.cpp - the one-second scan that flags due lists, and the per-list report
// threads that turn flags into report requests for the batch sender.

#include "event_schedule.h"

#include <pthread.h>
#include <semaphore.h>

#include "event_config.h"
#include "event_list.h"
#include "event_report.h"
#include "nms_log.h"
#include "uac_lock.h"
#include "uac_thread.h"
#include "uac_timer.h"

std::atomic<int32_t> event_list_report_flag[NMS_EVENT_LIST_NUM];
std::atomic<uint32_t> nms_event_scan_timer_id{0xFFFFFFFFu};

namespace {

constexpr uint32_t kNoTimer = 0xFFFFFFFFu;
constexpr uint32_t kScanSec = 1;
// A report thread sleeps until its flag is raised through set_event_list_report_flag, which
// posts its semaphore. A flag written by other means (the debug shell writes the variable
// itself) is seen by the next scan, which posts for every flag still up. So an idle daemon's
// report threads never wake, and the flag semantics are unchanged.

int32_t g_thread_arg[NMS_EVENT_LIST_NUM];
sem_t g_wake[NMS_EVENT_LIST_NUM];
pthread_once_t g_wake_once = PTHREAD_ONCE_INIT;

void init_wake() {
    for (sem_t &s : g_wake)
        sem_init(&s, 0, 0);
}

bool list_valid(int64_t list) { return list >= 0 && list < NMS_EVENT_LIST_NUM; }

// Flags lists 0..last.
void flag_up_to(int last) {
    for (int i = 0; i <= last; i++)
        set_event_list_report_flag(static_cast<uint32_t>(i));
}

uint32_t add_scan_timer() {
    return uac_timer_add(kScanSec, 0, nms_event_scan_cb, nullptr, nullptr);
}

}  // namespace

extern "C" int set_event_list_report_flag(uint32_t list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    event_list_report_flag[list].store(1, std::memory_order_relaxed);
    pthread_once(&g_wake_once, init_wake);
    sem_post(&g_wake[list]);
    return 0;
}

extern "C" int reset_event_list_report_flag(int32_t list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    event_list_report_flag[list].store(0, std::memory_order_relaxed);
    NMS_LOG_TRACE("set report list:%d!\n", list);
    return 0;
}

extern "C" int init_nms_event_list_report_task(void) noexcept {
    pthread_once(&g_wake_once, init_wake);
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++) {
        g_thread_arg[i] = i;
        reset_event_list_report_flag(i);
        pthread_t tid;
        int ret = uac_thread_create(&tid, "gNmsEventReportThread[i]", _nms_event_report_handle,
                                    &g_thread_arg[i]);
        if (ret != 0) {
            NMS_LOG_ERROR("create thread(_nms_event_report_handle) failed!");
            return ret;
        }
    }
    return 0;
}

extern "C" int nms_event_begin_scan(void) noexcept {
    uint32_t old = nms_event_scan_timer_id.exchange(kNoTimer, std::memory_order_relaxed);
    if (old != kNoTimer)
        uac_timer_remove(old);
    uint32_t id = add_scan_timer();
    nms_event_scan_timer_id.store(id, std::memory_order_relaxed);
    if (id == kNoTimer) {
        NMS_LOG_ERROR("create timer failed");
        return -1;
    }
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++)
        update_report_time(i);
    return 0;
}

extern "C" int nms_event_stop_scan(void) noexcept {
    uint32_t old = nms_event_scan_timer_id.exchange(kNoTimer, std::memory_order_relaxed);
    if (old != kNoTimer)
        uac_timer_remove(old);
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++)
        reset_event_list_report_flag(i);
    return 0;
}

extern "C" void nms_event_scan_cb(void *) noexcept {
    nms_event_scan_timer_id.store(kNoTimer, std::memory_order_relaxed);

    // Flags and report requests written without a wake-up (from the debug shell) are served now.
    pthread_once(&g_wake_once, init_wake);
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++)
        if (event_list_report_flag[i].load(std::memory_order_relaxed) != 0)
            sem_post(&g_wake[i]);
    nms_event_report_look();
    event_list_settle_memory();

    // Lists at their threshold under policy 2, the highest first.
    int k = -1;
    for (int i = NMS_EVENT_LIST_NUM - 1; i >= 0; i--) {
        if (is_list_can_report(i) == 0) {
            k = i;
            break;
        }
    }
    // Lists 0 to 2 go out whenever they hold anything.
    if (k < 0) {
        for (int i = 2; i >= 0; i--) {
            if (is_list_not_empty(i) == 0) {
                k = i;
                break;
            }
        }
    }
    if (k >= 0)
        flag_up_to(k);

    // Lists whose buffering time has passed since their last report attempt; only those above
    // k can add anything. Compared as signed 32-bit seconds.
    int32_t now = static_cast<int32_t>(uac_uptime_sec());
    for (int m = NMS_EVENT_LIST_NUM - 1; m > k; m--) {
        int32_t last = static_cast<int32_t>(get_update_report_time(m));
        if (now > last && now - last >= get_event_list_buf_time(m) && is_list_not_empty(m) == 0) {
            flag_up_to(m);
            break;
        }
    }

    // A failure here is silent; scanning then stops.
    nms_event_scan_timer_id.store(add_scan_timer(), std::memory_order_relaxed);
}

extern "C" void *_nms_event_report_handle(void *arg) noexcept {
    uac_thread_detach_self();   // once: the trampoline detached a thread it started
    if (!arg)
        return nullptr;
    int32_t i = *static_cast<int32_t *>(arg);
    if (!list_valid(i))
        return nullptr;
    pthread_once(&g_wake_once, init_wake);
    for (;;) {
        if (event_list_report_flag[i].load(std::memory_order_relaxed) != 0) {
            nms_event_request_report(0, i);
            event_list_report_flag[i].store(0, std::memory_order_relaxed);
        }
        uac_sem_take(&g_wake[i], UAC_WAIT_FOREVER);
    }
    return nullptr;
}
