// event_report.cpp - report types and the batch sender: the oldest events of a requested list go
// into one report text, which is sent and whose events are deleted on success. Also the
// asynchronous sender, the statistics sender and the short-link self-test.

#include "event_report.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "cloud_report.h"
#include "event_list.h"
#include "event_msg.h"
#include "nms_log.h"
#include "report_switch.h"
#include "uac_mem.h"
#include "uac_thread.h"

nms_report_type nms_report_type_table[NMS_REPORT_TYPE_NUM] = {
    {cloud_event_match, get_report_online, cloud_report_formate_head, format_event_report_event,
     format_event_report_tail, cloud_report_send_info, 1, CLOUD_SEND_RETRIES, 0},
};

std::atomic<int32_t> multil_call_cb_begin[NMS_REPORT_TYPE_NUM][NMS_EVENT_LIST_NUM];
std::atomic<int32_t> sent_event_total[NMS_REPORT_TYPE_NUM];
uac_mutex_t *gNmsEventReportListLocker[NMS_REPORT_TYPE_NUM][NMS_EVENT_LIST_NUM];
std::atomic<uint32_t> event_list_report_time[NMS_EVENT_LIST_NUM];

namespace {

constexpr useconds_t kShortLinkPauseUs = 5 * 1000 * 1000;
constexpr const char *kShortLinkFlag = "/tmp/tmp_nms_event_test_short_link";
constexpr const char *kShortLinkContent = "/tmp/tmp_nms_event_test_short_link_content";
constexpr int kSampleEvents = 40;

// The text under construction of each batch; exists only inside a batch (report lock held).
char *report_buf[NMS_REPORT_TYPE_NUM][NMS_EVENT_LIST_NUM];
// Node ids of the events put into the current batch of each list, -1 for an empty entry.
int *report_node_id_arr[NMS_EVENT_LIST_NUM];
int report_node_id_cnt[NMS_EVENT_LIST_NUM];
// Beside each stored id, the stamp of the node it held when the batch took it: the slot may be
// emptied and refilled while the batch is being sent (a full list under policy 1 replaces its
// oldest node, a clean empties slots), and deleting by slot alone would then delete events
// that were never sent.
uint32_t report_node_seq_arr[NMS_EVENT_LIST_NUM][NMS_REPORT_NODE_ARR_LEN];

int32_t g_batch_arg;

sem_t g_batch_wake;
pthread_once_t g_batch_wake_once = PTHREAD_ONCE_INIT;

void init_batch_wake() { sem_init(&g_batch_wake, 0, 0); }

void wake_batch_thread() {
    pthread_once(&g_batch_wake_once, init_batch_wake);
    sem_post(&g_batch_wake);
}

// Asynchronous sends: jobs in call order and the number of sender threads running. Never
// destroyed: the sender threads are detached and may still be running while the process
// exits, and a queue and lock destroyed by the exit handlers would be used after they were
// freed (seen in the fuzz run of the bus arguments).
constexpr int kAsyncSenders = 4;
struct AsyncQueue {
    std::mutex mu;
    std::deque<report_send_job *> jobs;
    int senders = 0;
};
AsyncQueue &async_queue() {
    static AsyncQueue *q = new AsyncQueue;
    return *q;
}

// A sender thread: sends queued jobs one after another and ends when none is left.
void *async_sender(void *) noexcept {
    AsyncQueue &q = async_queue();
    for (;;) {
        report_send_job *job = nullptr;
        {
            std::lock_guard<std::mutex> hold(q.mu);
            if (q.jobs.empty()) {
                q.senders--;
                return nullptr;
            }
            job = q.jobs.front();
            q.jobs.pop_front();
        }
        send_report_handle(job);
    }
}

bool list_valid(int64_t list) { return list >= 0 && list < NMS_EVENT_LIST_NUM; }

void free_traced(void *p) {
    NMS_LOG_TRACE("%s:%d::free(%p)\n", __func__, __LINE__, p);
    mem_guard_free(p);
}

char *copy_text(const char *text) {
    size_t len = std::strlen(text);
    char *copy = static_cast<char *>(MEM_GUARD_ALLOC(len + 1));
    if (copy)
        std::memcpy(copy, text, len + 1);
    return copy;
}

bool stats_hundreds(int32_t total) {
    return event_stats_print_on.load(std::memory_order_relaxed) && (total / 100) % 10 == 0;
}

// multil_call_remove_report_node_id, booking the events it deletes as how.
int forget_batch(int32_t list, int32_t del, uint32_t mask, nms_departure how) {
    if (!(mask & 1u))
        return -1;
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    int *arr = report_node_id_arr[list];
    int &cnt = report_node_id_cnt[list];
    NMS_LOG_DEBUG("remove_report_node_id_cnt:%d list_id:%d", cnt, list);
    if (!arr)
        return -1;
    if (del == 1) {
        int deleted = 0;
        nms_event_delete_nodes(list, cnt, arr, report_node_seq_arr[list], &deleted,
                               static_cast<int>(mask), how);
    }
    // Entries from cnt on are -1 already.
    std::fill_n(arr, std::min(cnt + 1, NMS_REPORT_NODE_ARR_LEN), -1);
    cnt = 0;
    return -1;
}

// The batch's end on every path but success: forget its ids without deleting, drop its text.
int abandon_batch(uint32_t list, const nms_report_type *t, uac_mutex_t *lock) {
    NMS_LOG_TRACE("1");
    multil_call_remove_report_node_id(static_cast<int32_t>(list), 0, t->src_mask);
    char *&buf = report_buf[t->type][list];
    if (buf) {
        free_traced(buf);
        buf = nullptr;
    }
    NMS_LOG_DEBUG("report unlock type:%d list %d", t->type, list);
    nms_event_mutex_give(lock);
    return -1;
}

// A made-up but complete event report: used by the self-test when no content file exists.
std::string sample_report() {
    std::string text =
        "{\"projectId\":\"selftest\",\"deviceMac\":\"00-11-22-33-44-55\",\"deviceType\":\"AP\","
        "\"devEventList\":[{\"devMac\":\"00-11-22-33-44-55\",\"devType\":\"AP\","
        "\"devName\":\"selftest-ap\",\"eventList\":[";
    for (int i = 0; i < kSampleEvents; i++) {
        if (i)
            text += ',';
        text += "{\"typeId\":\"" + std::to_string(i + 1) + "\",\"time\":\"" +
                std::to_string(1700000000000ULL + i) + "\",\"params\":{}}";
    }
    text += "]}]}}";
    return text;
}

}  // namespace

void nms_event_request_report(int32_t type, int32_t list) noexcept {
    multil_call_cb_begin[type][list].fetch_add(1, std::memory_order_relaxed);
    wake_batch_thread();
}

void nms_event_report_look(void) noexcept {
    for (const auto &pending : multil_call_cb_begin[0]) {
        if (pending.load(std::memory_order_relaxed) > 0) {
            wake_batch_thread();
            return;
        }
    }
}

extern "C" int init_nms_event_report(int mode, void *arg) noexcept {
    init_info_report2(mode, arg);
    for (int list = 0; list < NMS_EVENT_LIST_NUM; list++) {
        event_list_report_time[list].store(0, std::memory_order_relaxed);
        if (!gNmsEventReportListLocker[0][list])
            gNmsEventReportListLocker[0][list] =
                uac_mutex_create("gNmsEventReportListLocker[j][i]", UAC_MUTEX_NORMAL);
    }
    // The id arrays (24 KiB a list) are made at a list's first batch, so that a list that never
    // reports costs nothing; one that cannot be made is tried again at the next batch, whose
    // events meanwhile stay in the list. A second call (tests) empties those already made.
    for (int list = 0; list < NMS_EVENT_LIST_NUM; list++) {
        if (report_node_id_arr[list])
            std::fill_n(report_node_id_arr[list], NMS_REPORT_NODE_ARR_LEN, -1);
        report_node_id_cnt[list] = 0;
    }
    init_multil_call_nms_event_list_report_task();
    return 0;
}

extern "C" int init_multil_call_nms_event_list_report_task(void) noexcept {
    g_batch_arg = 0;
    for (auto &c : multil_call_cb_begin[0])
        c.store(0, std::memory_order_relaxed);
    sent_event_total[0].store(0, std::memory_order_relaxed);
    pthread_once(&g_batch_wake_once, init_batch_wake);
    pthread_t tid;
    int ret = uac_thread_create(&tid, "nmsMultilReportThread[i]", multil_call_report_thread,
                                &g_batch_arg);
    if (ret != 0) {
        NMS_LOG_ERROR("create thread(_nms_event_report_handle) failed!");
        return ret;
    }
    return 0;
}

extern "C" int set_multil_call_cb_begin(int32_t type, int32_t list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    if (type != 0)
        return -1;
    nms_event_request_report(0, list);
    return 0;
}

extern "C" int update_report_time(int32_t list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    event_list_report_time[list].store(static_cast<uint32_t>(uac_uptime_sec()),
                                       std::memory_order_relaxed);
    return 0;
}

extern "C" uint32_t get_update_report_time(int32_t list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return 0xFFFFFFFFu;
    }
    return event_list_report_time[list].load(std::memory_order_relaxed);
}

extern "C" int reset_report_time(int32_t list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    event_list_report_time[list].store(0, std::memory_order_relaxed);
    return 0;
}

extern "C" int get_event_report_mask(int32_t id) noexcept {
    const nms_report_type &t = nms_report_type_table[0];
    if (!t.match_event || t.match_event(id) != 0)
        return 0;
    return static_cast<int>(t.src_mask & NMS_EVENT_MASK_BITS);
}

extern "C" int multil_call_store_report_node_id(uint32_t list, uint32_t node_id,
                                                uint32_t mask) noexcept {
    if (list > 7) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    if (!(mask & 1u))
        return 0;
    if (node_id > NMS_EVENT_LIST_FULL) {
        NMS_LOG_ERROR("invalid node_id:%d", static_cast<int>(node_id));
        return -1;
    }
    int *&arr = report_node_id_arr[list];
    int &cnt = report_node_id_cnt[list];
    if (!arr && nms_report_type_table[0].send) {
        arr = static_cast<int *>(MEM_GUARD_ALLOC(sizeof(int) * NMS_REPORT_NODE_ARR_LEN));
        if (arr)
            std::fill_n(arr, NMS_REPORT_NODE_ARR_LEN, -1);
    }
    if (!arr || cnt >= NMS_REPORT_NODE_ARR_LEN)
        return 0;
    if (arr[cnt] == -1) {
        arr[cnt] = static_cast<int>(node_id);
        report_node_seq_arr[list][cnt] = get_list_node_seq(static_cast<int>(list),
                                                           static_cast<int>(node_id));
        NMS_LOG_DEBUG("store new_pos:%d arr_op:%d", cnt, arr[cnt]);
        cnt++;
        NMS_LOG_DEBUG("store new_pos:%d cnt:%d", cnt - 1, cnt);
    }
    return 0;
}

extern "C" int multil_call_remove_report_node_id(int32_t list, int32_t del,
                                                 uint32_t mask) noexcept {
    return forget_batch(list, del, mask, NMS_GONE_REMOVED);
}


extern "C" int multil_call_nms_event_report_handle(uint32_t list,
                                                   const nms_report_type *t) noexcept {
    if (list > 7) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    if (!t || !t->format_event || !t->send || t->type >= NMS_REPORT_TYPE_NUM)
        return -1;
    const int32_t l = static_cast<int32_t>(list);
    NMS_LOG_DEBUG("report lock type:%d list %d", t->type, list);
    uac_mutex_t *lock = gNmsEventReportListLocker[t->type][list];
    uac_mutex_take(lock, UAC_WAIT_FOREVER);

    // The attempt is stamped whatever follows: buffering time runs from the last attempt.
    update_report_time(l);

    const int src_mask = static_cast<int>(t->src_mask);
    int n = get_list_total_node_by_mask(l, src_mask);
    if (n < 1) {
        NMS_LOG_DEBUG("_flush_nms_event_report:%d node_cnt:%d!\n", list, n);
        NMS_LOG_DEBUG("report unlock type:%d list %d", t->type, list);
        nms_event_mutex_give(lock);
        return 0;
    }

    char *&buf = report_buf[t->type][list];
    int32_t remaining = 0;
    if (t->format_head && t->format_head(&buf, &remaining) == -1)
        return abandon_batch(list, t, lock);

    int added_total = 0;
    {
        NmsEventHold node_hold(gNmsEventNodeListLocker[list]);
        nms_event_node *node = get_list_first_node(l);
        if (!node || node->node_id > NMS_EVENT_LIST_FULL) {
            NMS_LOG_DEBUG("get cur_node failed.");
            node_hold.release();
            return abandon_batch(list, t, lock);
        }
        // Oldest first; cut by the count, the walk's return to its start and the text's space.
        const int start = static_cast<int>(node->node_id);
        if (n > NMS_REPORT_BATCH_MAX)
            n = NMS_REPORT_BATCH_MAX;
        int32_t first = 1;
        do {
            int32_t added = 0;
            NMS_LOG_DEBUG("list_id: %d node_cnt:%d ev_id:%d mask:%d src_mask:%d\r\n", list, n,
                          node->id, node->mask, src_mask);
            if (node->mask & src_mask) {
                if (t->format_event(buf, node->id, node->time, node->params, first, &remaining,
                                    &added) == -1) {
                    node_hold.release();
                    return abandon_batch(list, t, lock);
                }
                if (added == 1) {
                    added_total++;
                    multil_call_store_report_node_id(list, node->node_id, t->src_mask);
                    first = 0;
                }
            }
            n--;
            nms_event_node *next = get_list_node(l, static_cast<int>(node->node_id), start);
            if (added == 1)
                NMS_LOG_DEBUG("list_id:%d cur_node:%p id:%d next_id:%d ori_node_id:%d.\n", list,
                              static_cast<void *>(node), node->id,
                              next ? static_cast<int>(next->node_id) : -1, start);
            node = next;
        } while (n > 0 && node && node->node_id <= NMS_EVENT_LIST_FULL && remaining > 0);
    }

    if (added_total == 0)
        return abandon_batch(list, t, lock);

    int32_t total = sent_event_total[t->type].fetch_add(added_total, std::memory_order_relaxed) +
                    added_total;
    if (stats_hundreds(total)) {
        std::printf("going to send %d events to type:%d  ===>report_cnt:%d  buf_len:%d\r\n", total,
                    t->type, added_total, buf ? static_cast<int>(std::strlen(buf)) : 0);
        std::fflush(stdout);
    }
    NMS_LOG_DEBUG("report_buf:%s list_id: %d node_cnt:%d  src_mask:%d\r\n", buf ? buf : "", list,
                  added_total, src_mask);
    if (t->format_tail && t->format_tail(buf, &remaining) == -1)
        return abandon_batch(list, t, lock);
    NMS_LOG_DEBUG("list:%d report :%s\r\n", list, buf ? buf : "");

    int32_t result = -1;
    if (t->send(buf, t->fail_retry, &result) != -1 && result == 0) {
        nms_ledger::batch(l, static_cast<uint32_t>(added_total), true, result);
        forget_batch(l, 1, t->src_mask, NMS_GONE_SENT);
        NMS_LOG_TRACE("list:%d report OK  cnt:%d\r\n", list, added_total);
        if (stats_hundreds(total)) {
            std::printf("had send %d events to type:%d\r\n", total, t->type);
            std::fflush(stdout);
        }
        if (buf) {
            free_traced(buf);
            buf = nullptr;
        }
        NMS_LOG_DEBUG("report unlock type:%d list %d", t->type, list);
        nms_event_mutex_give(lock);
        return 0;
    }
    // A failed batch stays for the next attempt, unless producers are backing up behind the
    // list: then it makes room. While the list's worker is held back by the full list it
    // counts nothing, so the queue is looked at here to see the backlog as it is now.
    if (is_list_producer_waiting(l) == 0)
        nms_event_msg_look(l);
    nms_ledger::batch(l, static_cast<uint32_t>(added_total), false, result);
    if (is_msg_list_is_full(l) == 0) {
        forget_batch(l, 1, t->src_mask, NMS_GONE_DROPPED);
        NMS_LOG_TRACE("list:%d report failed, and delete cnt:%d\r\n", list, added_total);
    }
    return abandon_batch(list, t, lock);
}

extern "C" void *multil_call_report_thread(void *arg) noexcept {
    uac_thread_detach_self();   // once: the trampoline detached a thread it started
    if (!arg)
        return nullptr;
    int32_t type = *static_cast<int32_t *>(arg);
    if (type < 0 || type >= NMS_REPORT_TYPE_NUM)
        return nullptr;
    pthread_once(&g_batch_wake_once, init_batch_wake);
    for (;;) {
        for (int list = 0; list < NMS_EVENT_LIST_NUM; list++) {
            if (multil_call_cb_begin[type][list].load(std::memory_order_relaxed) > 0) {
                multil_call_nms_event_report_handle(static_cast<uint32_t>(list),
                                                    &nms_report_type_table[type]);
                // Requests raised while the batch ran are absorbed by it.
                multil_call_cb_begin[type][list].store(0, std::memory_order_relaxed);
            }
        }
        // Woken by each request; requests written without one are passed on by the scan.
        uac_sem_take(&g_batch_wake, UAC_WAIT_FOREVER);
    }
    return nullptr;
}

extern "C" int send_report_info_async(const char *content, const char *url,
                                      uint32_t fail_retry) noexcept {
    if (!content || !url)
        return -1;
    auto *job = static_cast<report_send_job *>(MEM_GUARD_ALLOC(sizeof(report_send_job)));
    char *content_copy = nullptr;
    char *url_copy = nullptr;
    short_link_request *request = nullptr;
    auto fail = [&] {
        if (request)
            free_traced(request);
        if (url_copy)
            free_traced(url_copy);
        if (content_copy)
            free_traced(content_copy);
        if (job)
            free_traced(job);
        return -1;
    };
    if (!job)
        return fail();
    content_copy = copy_text(content);
    if (!content_copy)
        return fail();
    url_copy = copy_text(url);
    if (!url_copy)
        return fail();
    request = static_cast<short_link_request *>(MEM_GUARD_ALLOC(sizeof(short_link_request)));
    if (!request)
        return fail();
    std::memset(request, 0, sizeof(*request));
    request->url = url_copy;
    request->content = content_copy;
    job->fail_retry = fail_retry;
    job->request = request;
    // At most kAsyncSenders threads send at once; further jobs wait in order for one of them.
    // One thread per call, without a bound, let a cloud that never answers pile up threads
    // and their stacks for as long as each send took.
    bool start = false;
    AsyncQueue &q = async_queue();
    {
        std::lock_guard<std::mutex> hold(q.mu);
        q.jobs.push_back(job);
        if (q.senders < kAsyncSenders) {
            q.senders++;
            start = true;
        }
    }
    pthread_t tid;
    if (!start || uac_thread_create(&tid, "send_report_info", async_sender, nullptr) == 0)
        return 0;
    std::lock_guard<std::mutex> hold(q.mu);
    q.senders--;
    // A running sender will take the job; with none, the call fails as before.
    if (q.senders > 0)
        return 0;
    q.jobs.pop_back();
    return fail();
}

extern "C" void *send_report_handle(void *arg) noexcept {
    auto *job = static_cast<report_send_job *>(arg);
    if (!job)
        return nullptr;
    if (short_link_request *request = job->request) {
        // Offline, the message is dropped without a word.
        if (get_report_online() != 0) {
            NMS_LOG_TRACE(" report params:#%s#", request->content);
            int result = 0;
            int ret = sendto_business_by_short_link_retran(request, &result, job->fail_retry);
            nms_ledger_cloud_send(ret, result);
        }
        free_traced(request->url);
        free_traced(request->content);
        free_traced(request);
    }
    free_traced(job);
    return nullptr;
}

extern "C" int statistics_params_report_handle(char *text, int32_t force) noexcept {
    if (!text || !*text)
        return -1;
    // Offline without force: nothing is sent, and callers cannot tell this from a success.
    if (force == 0 && get_report_online() == 0)
        return 0;
    NMS_LOG_DEBUG("report:#%s#", text);
    if (!cloud_get_device_info())
        return -1;
    if (cloud_params_splice(text) != 0)
        return -1;
    char path[] = CLOUD_PARAMS_URL;
    short_link_request request{};
    request.url = path;
    request.content = text;
    int result = -1;
    int ret = sendto_business_by_short_link_retran(&request, &result, CLOUD_SEND_RETRIES);
    nms_ledger_cloud_send(ret, result);
    return (ret == 0 && result == 0) ? 0 : -1;
}

extern "C" int test_short_link_send_one(const char *body, const char *url,
                                        uint32_t retries) noexcept {
    if (!body || !url)
        return -1;
    std::string path(url);
    std::string content(body);
    short_link_request request{};
    request.url = &path[0];
    request.content = &content[0];
    int result = -1;
    int ret = sendto_business_by_short_link_retran(&request, &result, retries);
    return (ret != 0 || result != 0) ? -1 : 0;
}

extern "C" void *_test_short_link_send(void *) noexcept {
    char *buf = nullptr;
    if (access(kShortLinkContent, F_OK) == 0)
        buf = static_cast<char *>(MEM_GUARD_ALLOC(NMS_REPORT_BUF_SIZE));
    if (buf)
        std::memset(buf, 0, NMS_REPORT_BUF_SIZE);
    uac_thread_detach_self();   // once: the trampoline detached a thread it started
    const std::string sample = sample_report();
    for (;;) {
        if (access(kShortLinkFlag, F_OK) == 0) {
            if (access(kShortLinkContent, F_OK) == 0) {
                if (!buf)
                    buf = static_cast<char *>(MEM_GUARD_ALLOC(NMS_REPORT_BUF_SIZE));
                // Close-on-exec: other threads start commands while the file is open.
                FILE *f = buf ? std::fopen(kShortLinkContent, "rbe") : nullptr;
                if (f) {
                    std::memset(buf, 0, NMS_REPORT_BUF_SIZE);
                    // One byte stays 0 so the content is always a terminated text.
                    std::fread(buf, 1, NMS_REPORT_BUF_SIZE - 1, f);
                    test_short_link_send_one(buf, CLOUD_EVENT_URL, CLOUD_SEND_RETRIES);
                    std::fclose(f);
                }
                if (buf) {
                    free_traced(buf);
                    buf = nullptr;
                }
            } else {
                test_short_link_send_one(sample.c_str(), CLOUD_EVENT_URL, CLOUD_SEND_RETRIES);
            }
        }
        usleep(kShortLinkPauseUs);
    }
    return nullptr;
}

extern "C" void nms_event_debug_help(void) noexcept {
    std::printf(
        "nms_event debug functions and variables:\r\n"
        "  print_list_node()                 -- print every buffered event of the eight lists\r\n"
        "  print_list_count()                -- print count and last insertion slot per list\r\n"
        "  set_multil_call_cb_begin(0, list) -- report one list now\r\n"
        "  clean_one_list(1)                 -- drop the cloud's claim on buffered events\r\n"
        "  update_event_list_buf_timer()     -- reload the lists' settings\r\n"
        "  set_event_stats_print_on(1|0)     -- print running ingress and send counts\r\n"
        "  event_stats_print_on              -- the count print switch itself\r\n"
        "  event_list_report_flag            -- due flags of the lists (8 ints)\r\n"
        "  sent_event_total                  -- events put into reports so far\r\n");
    std::fflush(stdout);
}
