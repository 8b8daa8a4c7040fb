// nms_ubus.cpp - the bus object "nms_report_cache" (19 methods), the bus thread and
// its reconnection after the broker goes away.
//
// Layout: attribute enums and policies, the type selector and argument helpers,
// handlers, the method table, the object type and object, the bus thread.
// Handlers are thin: parse, decide which kinds of reporting a call concerns, call
// into the event and statistics modules, answer a status. Everything here runs on
// the bus thread, one call at a time.
#include "nms_ubus.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <info_report.h>
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>

#include "cloud_report.h"
#include "event_config.h"
#include "event_list.h"
#include "event_report.h"
#include "nms_ledger.h"
#include "nms_log.h"
#include "nms_status.h"
#include "report_switch.h"
#include "stats_persist.h"
#include "stats_registry.h"
#include "stats_report.h"
#include "uac_mem.h"
#include "uac_thread.h"

extern "C" {
std::atomic<int32_t> event_report_running{0};
std::atomic<int32_t> param_report_running{0};
struct ubus_context *ubus_ctx = nullptr;
}

namespace {

constexpr const char *kBusSocket = "/var/run/ubus.sock";
constexpr int kConnectAttempts = 4;
constexpr int kReconnectSeconds = 2;
constexpr unsigned kLoopFlags = ULOOP_READ | ULOOP_BLOCKING;
constexpr int kPeriodTextLen = 65;          // a period as decimal text
constexpr int kParamListSize = 32768;       // reply text of get_statistics_parms_list
constexpr int32_t kEventMask = 1;           // the cloud report type's consumer bit
constexpr int32_t kLastList = NMS_EVENT_LIST_NUM - 1;

// Reply buffer of get_statistics_parms_list. One per file is enough because every
// method runs on the one bus thread.
struct blob_buf g_reply;

// ---- Argument policies, positional in enum order ------------------------------------

enum { REG_TYPE, REG_GET_CB, REG_SUCCESS_CB, REG_COUNT };
const blobmsg_policy reg_policy[] = {
    /* REG_TYPE       */ {"type", BLOBMSG_TYPE_STRING},
    /* REG_GET_CB     */ {"get_cb", BLOBMSG_TYPE_STRING},
    /* REG_SUCCESS_CB */ {"success_cb", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(reg_policy) == REG_COUNT, "one policy entry per attribute, in enum order");

enum { UPD_TYPE, UPD_GET_CB, UPD_SUCCESS_CB, UPD_NEW_TIME, UPD_OLD_TIME, UPD_COUNT };
const blobmsg_policy update_policy[] = {
    /* UPD_TYPE       */ {"type", BLOBMSG_TYPE_STRING},
    /* UPD_GET_CB     */ {"get_cb", BLOBMSG_TYPE_STRING},
    /* UPD_SUCCESS_CB */ {"success_cb", BLOBMSG_TYPE_STRING},
    /* UPD_NEW_TIME   */ {"new_time", BLOBMSG_TYPE_STRING},
    /* UPD_OLD_TIME   */ {"old_time", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(update_policy) == UPD_COUNT,
              "one policy entry per attribute, in enum order");

enum { SUPPORT_CB, SUPPORT_COUNT };
const blobmsg_policy support_policy[] = {
    /* SUPPORT_CB */ {"cb", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(support_policy) == SUPPORT_COUNT,
              "one policy entry per attribute, in enum order");

// flush_report, stop_report, begin_report, clean_cache, report_specific_param,
// sec_request_debug and update_report_cfg take one "type" text.
enum { TYPE_TYPE, TYPE_COUNT };
const blobmsg_policy type_policy[] = {
    /* TYPE_TYPE */ {"type", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(type_policy) == TYPE_COUNT, "one policy entry per attribute, in enum order");

enum { FLUSH_LIST_ID, FLUSH_COUNT };
const blobmsg_policy flush_event_policy[] = {
    /* FLUSH_LIST_ID */ {"list_id", BLOBMSG_TYPE_INT32},
};
static_assert(ARRAY_SIZE(flush_event_policy) == FLUSH_COUNT,
              "one policy entry per attribute, in enum order");

enum { DEBUG_DEV, DEBUG_LEVEL, DEBUG_COUNT };
const blobmsg_policy debug_policy[] = {
    /* DEBUG_DEV   */ {"debug_dev", BLOBMSG_TYPE_STRING},
    /* DEBUG_LEVEL */ {"level", BLOBMSG_TYPE_INT32},
};
static_assert(ARRAY_SIZE(debug_policy) == DEBUG_COUNT,
              "one policy entry per attribute, in enum order");

enum { ASYNC_URL, ASYNC_CONTENT, ASYNC_FAIL_RETRY, ASYNC_COUNT };
const blobmsg_policy async_policy[] = {
    /* ASYNC_URL        */ {"url", BLOBMSG_TYPE_STRING},
    /* ASYNC_CONTENT    */ {"content", BLOBMSG_TYPE_STRING},
    /* ASYNC_FAIL_RETRY */ {"fail_retry", BLOBMSG_TYPE_INT32},
};
static_assert(ARRAY_SIZE(async_policy) == ASYNC_COUNT,
              "one policy entry per attribute, in enum order");

// ---- Argument helpers --------------------------------------------------------------

// Parses msg against policy into tb (cleared first). A missing or empty message
// leaves every attribute absent; attributes of the wrong type are absent too.
template <size_t N>
void parse_args(const blobmsg_policy (&policy)[N], blob_attr *(&tb)[N], blob_attr *msg)
{
    std::memset(tb, 0, sizeof(tb));
    if (msg)
        blobmsg_parse(policy, static_cast<int>(N), tb, blob_data(msg), blob_len(msg));
}

// Text of a STRING argument; null when it is absent or carries no data.
const char *arg_text(blob_attr *attr)
{
    return attr ? blobmsg_get_string(attr) : nullptr;
}

// Which kinds of reporting a "type" argument selects.
struct Selection {
    bool events;
    bool params;
};

// Missing or "all": both; "event" or "param": that one; any other text: none.
Selection select_type(blob_attr *type_attr)
{
    const char *type = arg_text(type_attr);
    if (!type || std::strcmp(type, "all") == 0)
        return {true, true};
    if (std::strcmp(type, "event") == 0)
        return {true, false};
    if (std::strcmp(type, "param") == 0)
        return {false, true};
    return {false, false};
}

Selection parse_type_selection(blob_attr *msg)
{
    blob_attr *tb[TYPE_COUNT];
    parse_args(type_policy, tb, msg);
    return select_type(tb[TYPE_TYPE]);
}

// Requests a report of event lists 0..last now; lists are reported in ascending order.
void flush_event_lists(int32_t last)
{
    for (int32_t id = 0; id <= last; id++)
        set_multil_call_cb_begin(0, id);
}

// A statistics type's configured period as decimal text.
void period_text(const char *type, char (&out)[kPeriodTextLen])
{
    std::snprintf(out, sizeof(out), "%d", get_statistics_params_timebuff(type));
}

// Status of a method that exists in the table but has nothing to do.
int no_work(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) noexcept
{
    return -1;
}

}  // namespace

// ---- Handlers, in method-table order ---------------------------------------------------

extern "C" int nms_statistics_parms_reg(ubus_context *, ubus_object *, ubus_request_data *,
                                        const char *, blob_attr *msg) noexcept
{
    NMS_LOG_TRACE("**********ubus call nms_statistics_parms_reg**********");
    blob_attr *tb[REG_COUNT];
    parse_args(reg_policy, tb, msg);
    const char *type = arg_text(tb[REG_TYPE]);
    const char *get_cb = arg_text(tb[REG_GET_CB]);
    const char *success_cb = arg_text(tb[REG_SUCCESS_CB]);
    if (!type) {
        NMS_LOG_ERROR("param type invalid.");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (!get_cb) {
        NMS_LOG_ERROR("param param_get_cb invalid.");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (!success_cb) {
        NMS_LOG_ERROR("param param_success_cb invalid.");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    char period[kPeriodTextLen];
    period_text(type, period);
    return insert_params_cb_node(type, get_cb, success_cb, period);
}

extern "C" int nms_statistics_parms_update(ubus_context *, ubus_object *, ubus_request_data *,
                                           const char *, blob_attr *msg) noexcept
{
    NMS_LOG_TRACE("**********ubus call nms_statistics_parms_update**********");
    blob_attr *tb[UPD_COUNT];
    parse_args(update_policy, tb, msg);
    const char *type = arg_text(tb[UPD_TYPE]);
    const char *old_time = arg_text(tb[UPD_OLD_TIME]);
    if (!type) {
        NMS_LOG_ERROR("param type invalid.");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (!old_time) {
        NMS_LOG_ERROR("old_time invalid.");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const char *new_time = arg_text(tb[UPD_NEW_TIME]);
    char period[kPeriodTextLen];
    if (!new_time) {
        period_text(type, period);
        new_time = period;
    }
    return update_params_cb_node(type, arg_text(tb[UPD_GET_CB]), arg_text(tb[UPD_SUCCESS_CB]),
                                 new_time, old_time);
}

extern "C" int get_statistics_parms_reg(ubus_context *, ubus_object *, ubus_request_data *,
                                        const char *, blob_attr *msg) noexcept
{
    NMS_LOG_TRACE("**********ubus call get_statistics_parms_reg**********");
    blob_attr *tb[SUPPORT_COUNT];
    parse_args(support_policy, tb, msg);
    const char *cb = arg_text(tb[SUPPORT_CB]);
    if (!cb) {
        NMS_LOG_ERROR("param param_get_cb invalid.");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return store_support_params_list(cb);
}

// ---- get_statistics_parms_list, answered from another thread ----------------------------
//
// The list is the joined output of commands other services registered. Run on the bus thread,
// one command that hangs would stop the whole object from answering until the time limit ended
// it, so the call is deferred: a worker runs the commands and wakes the bus thread through a
// pipe, which answers. Calls that come in while a run is on wait for the next run, which
// answers all of them; a run answers only calls that came before it started, so every answer
// holds what was registered when its call came.

namespace {

// One reply text, kept for the life of the process (32 KiB; one run at a time uses it).
// Written by the worker, read by the bus thread after the worker's wake-up byte.
char g_param_list_text[kParamListSize + 1];
int g_param_list_rc = -1;

// Touched on the bus thread only. A run is on while it has calls to answer.
std::vector<ubus_request_data> g_param_list_waiting;  // calls that the next run answers
std::vector<ubus_request_data> g_param_list_serving;  // calls that the running run answers

int g_param_list_wake[2] = {-1, -1};  // worker -> bus thread
uloop_fd g_param_list_done{};

// Fills the reply text with the joined output of the supported-list commands.
int collect_param_list() noexcept
{
    std::memset(g_param_list_text, 0, sizeof(g_param_list_text));
    return get_support_params_list(g_param_list_text, kParamListSize);
}

void send_param_list(ubus_context *ctx, ubus_request_data *req) noexcept
{
    blob_buf_init(&g_reply, 0);
    blobmsg_add_string(&g_reply, "param_list", g_param_list_text);
    ubus_send_reply(ctx, req, g_reply.head);
    blob_buf_free(&g_reply);
}

void wake_bus_thread() noexcept
{
    const char byte = 1;
    while (write(g_param_list_wake[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

void *param_list_worker(void *) noexcept
{
    g_param_list_rc = collect_param_list();
    wake_bus_thread();
    return nullptr;
}

// Starts a run for the waiting calls unless one is on.
void start_param_list_run() noexcept
{
    if (!g_param_list_serving.empty() || g_param_list_waiting.empty())
        return;
    g_param_list_serving.swap(g_param_list_waiting);
    pthread_t tid;
    if (uac_thread_create(&tid, "nmsStatsReportThread", param_list_worker, nullptr) != 0) {
        NMS_LOG_ERROR("create thread(param_list_worker) failed!");
        // Answered as a failed list: the callers are not left waiting.
        g_param_list_rc = -1;
        wake_bus_thread();
    }
}

// A run is over: answer its calls (the list, then the status -1 that callers of this method
// have always received after the reply), then start the next run for calls that came meanwhile.
void param_list_done_cb(uloop_fd *u, unsigned int) noexcept
{
    char bytes[16];
    while (read(u->fd, bytes, sizeof(bytes)) > 0) {
    }
    for (ubus_request_data &req : g_param_list_serving) {
        if (!ubus_ctx)
            break;
        if (g_param_list_rc == 0)
            send_param_list(ubus_ctx, &req);
        ubus_complete_deferred_request(ubus_ctx, &req, -1);
    }
    g_param_list_serving.clear();
    start_param_list_run();
}

// Sets up the wake pipe on the bus thread's loop. False when it cannot: the method then
// answers on the bus thread itself.
bool param_list_wake_init() noexcept
{
    if (g_param_list_wake[0] < 0 && pipe2(g_param_list_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        g_param_list_wake[0] = g_param_list_wake[1] = -1;
        return false;
    }
    g_param_list_done.fd = g_param_list_wake[0];
    g_param_list_done.cb = param_list_done_cb;
    return uloop_fd_add(&g_param_list_done, ULOOP_READ) == 0;
}

}  // namespace

extern "C" int get_statistics_parms_list(ubus_context *ctx, ubus_object *, ubus_request_data *req,
                                         const char *, blob_attr *) noexcept
{
    if (g_param_list_done.registered) {
        ubus_request_data deferred{};
        ubus_defer_request(ctx, req, &deferred);
        g_param_list_waiting.push_back(deferred);
        start_param_list_run();
        return 0;
    }
    // No wake pipe: answered here, on the bus thread.
    if (collect_param_list() != 0)
        return -1;
    send_param_list(ctx, req);
    return -1;
}

extern "C" int flush_report(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                            blob_attr *msg) noexcept
{
    NMS_LOG_TRACE("**********ubus call flush_report**********");
    const Selection sel = parse_type_selection(msg);
    // Flushing is an explicit request: it sends even while the device is offline.
    const int32_t saved = get_report_online();
    set_report_online(1);
    if (sel.params)
        flush_all_statistics_params_report();
    if (sel.events)
        flush_event_lists(kLastList);
    set_report_online(saved);
    return 0;
}

extern "C" int flush_event_report(ubus_context *, ubus_object *, ubus_request_data *,
                                  const char *, blob_attr *msg) noexcept
{
    NMS_LOG_TRACE("**********ubus call flush_event_report**********");
    blob_attr *tb[FLUSH_COUNT];
    parse_args(flush_event_policy, tb, msg);
    // Read unsigned, so -1 is refused like any id above the last list.
    const uint32_t last = tb[FLUSH_LIST_ID] ? blobmsg_get_u32(tb[FLUSH_LIST_ID]) : 0;
    if (last > static_cast<uint32_t>(kLastList)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    // Lists 0..list_id, not list_id alone: a more urgent list never waits behind a
    // less urgent one.
    const int32_t saved = get_report_online();
    set_report_online(1);
    flush_event_lists(static_cast<int32_t>(last));
    set_report_online(saved);
    return 0;
}

extern "C" int stop_report(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                           blob_attr *msg) noexcept
{
    NMS_LOG_DEBUG("**********ubus call stop_report**********");
    const Selection sel = parse_type_selection(msg);
    bool events_stopped = false;
    bool params_stopped = false;
    if (event_report_running.load(std::memory_order_relaxed) == 1 && sel.events) {
        event_report_running.store(0, std::memory_order_relaxed);
        events_stopped = true;
    }
    if (param_report_running.load(std::memory_order_relaxed) == 1 && sel.params) {
        param_report_running.store(0, std::memory_order_relaxed);
        stop_all_statistics_params_timer();
        clean_all_statistics_params();
        params_stopped = true;
    }
    if (events_stopped)
        nms_event_clean_lists(kEventMask, NMS_GONE_STOPPED);
    // Offline only when this call stopped both kinds: stopping one kind keeps the
    // other kind's sends going.
    if (events_stopped && params_stopped) {
        set_report_online(0);
        nms_ledger::link_state(0);
    }
    return 0;
}

extern "C" int begin_report(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                            blob_attr *msg) noexcept
{
    NMS_LOG_TRACE("**********ubus call begin_report**********");
    const Selection sel = parse_type_selection(msg);
    bool events_started = false;
    bool params_started = false;
    if (event_report_running.load(std::memory_order_relaxed) == 0 && sel.events) {
        event_report_running.store(1, std::memory_order_relaxed);
        events_started = true;
    }
    if (param_report_running.load(std::memory_order_relaxed) == 0 && sel.params) {
        param_report_running.store(1, std::memory_order_relaxed);
        params_started = true;
    }
    // The cloud client calls this when its link comes up: the device is online
    // whatever the type said.
    set_report_online(1);
    nms_ledger::link_state(1);
    if (params_started)
        begin_all_statistics_params_timer();
    // Events cached while reporting was stopped are stale by now; start afresh.
    if (events_started)
        nms_event_clean_lists(kEventMask, NMS_GONE_STOPPED);
    local_update_site_id();
    return 0;
}

extern "C" int clean_cache(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                           blob_attr *msg) noexcept
{
    // The flush banner: support scripts look for this text on a clean as well.
    NMS_LOG_TRACE("**********ubus call flush_report**********");
    const Selection sel = parse_type_selection(msg);
    if (sel.events)
        clean_one_list(kEventMask);
    if (sel.params)
        clean_all_statistics_params();
    return 0;
}

extern "C" int report_specific_param(ubus_context *, ubus_object *, ubus_request_data *,
                                     const char *, blob_attr *msg) noexcept
{
    NMS_LOG_TRACE("**********ubus call report_specific_param**********");
    blob_attr *tb[TYPE_COUNT];
    parse_args(type_policy, tb, msg);
    const char *type = arg_text(tb[TYPE_TYPE]);
    if (!type) {
        NMS_LOG_ERROR("param type invalid.");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return flush_report_specific_param(type);
}

extern "C" int print_list(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                          blob_attr *) noexcept
{
    print_list_node();
    return 0;
}

extern "C" int print_params_timer(ubus_context *, ubus_object *, ubus_request_data *,
                                  const char *, blob_attr *) noexcept
{
    print_all_statistics_params();
    return 0;
}

extern "C" int sec_request_debug(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                                 blob_attr *msg) noexcept
{
    NMS_LOG_TRACE("**********ubus call sec_request_debug**********");
    blob_attr *tb[TYPE_COUNT];
    parse_args(type_policy, tb, msg);
    const char *type = arg_text(tb[TYPE_TYPE]);
    // Anything but an explicit "off" switches the library's request debugging on.
    sec_request_debug_switch_set(type && std::strcmp(type, "off") == 0 ? 0 : 1);
    return 0;
}

extern "C" int start_debug(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                           blob_attr *msg) noexcept
{
    blob_attr *tb[DEBUG_COUNT];
    parse_args(debug_policy, tb, msg);
    const int level = tb[DEBUG_LEVEL] ? static_cast<int32_t>(blobmsg_get_u32(tb[DEBUG_LEVEL])) : 0;
    const char *dev = "/dev/console";
    if (tb[DEBUG_DEV]) {
        dev = arg_text(tb[DEBUG_DEV]);
        if (!dev) {
            NMS_LOG_ERROR("debug dev is invalied.");
            return -1;
        }
    }
    set_debug_output(dev, level);
    return 0;
}

extern "C" int update_report_cfg(ubus_context *, ubus_object *, ubus_request_data *,
                                 const char *, blob_attr *msg) noexcept
{
    blob_attr *tb[TYPE_COUNT];
    parse_args(type_policy, tb, msg);
    if (!tb[TYPE_TYPE])
        return 0;
    const char *type = arg_text(tb[TYPE_TYPE]);
    if (!type) {
        NMS_LOG_ERROR("update_type is invalied.");
        return -1;
    }
    if (std::strcmp(type, "event_list") == 0) {
        // Send what the lists hold under the old settings before the new ones apply.
        flush_event_lists(kLastList);
        update_event_list_buf_timer();
    }
    return 0;
}

extern "C" int stop_debug(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                          blob_attr *) noexcept
{
    set_debug_output("/dev/null", 100);
    sec_request_debug_switch_set(0);
    return 0;
}

extern "C" int send_report_content_async_by_ubus(ubus_context *, ubus_object *,
                                                 ubus_request_data *, const char *,
                                                 blob_attr *msg) noexcept
{
    blob_attr *tb[ASYNC_COUNT];
    parse_args(async_policy, tb, msg);
    const char *url = arg_text(tb[ASYNC_URL]);
    const char *content = arg_text(tb[ASYNC_CONTENT]);
    if (!url || !content) {
        NMS_LOG_ERROR("send_report_content_async_by_ubus params is invalied.");
        return -1;
    }
    const uint32_t fail_retry = tb[ASYNC_FAIL_RETRY] ? blobmsg_get_u32(tb[ASYNC_FAIL_RETRY]) : 0;
    // Sent on a thread of its own; the caller is not told how the send went.
    send_report_info_async(content, url, fail_retry);
    return 0;
}

// ---- The object ----------------------------------------------------------------------

namespace {

// The order is the order of registration, which callers listing the object see.
const ubus_method nms_event_methods[] = {
    UBUS_METHOD("statistics_parms_reg", nms_statistics_parms_reg, reg_policy),
    UBUS_METHOD("statistics_parms_update", nms_statistics_parms_update, update_policy),
    UBUS_METHOD("get_statistics_parms_reg", get_statistics_parms_reg, support_policy),
    UBUS_METHOD_NOARG("get_statistics_parms_list", get_statistics_parms_list),
    UBUS_METHOD_NOARG("get_event_list", no_work),
    UBUS_METHOD_NOARG("notify_event_cfg_changed", no_work),
    UBUS_METHOD("flush_report", flush_report, type_policy),
    UBUS_METHOD("flush_event_report", flush_event_report, flush_event_policy),
    UBUS_METHOD("stop_report", stop_report, type_policy),
    UBUS_METHOD("begin_report", begin_report, type_policy),
    UBUS_METHOD("clean_cache", clean_cache, type_policy),
    UBUS_METHOD("report_specific_param", report_specific_param, type_policy),
    UBUS_METHOD_NOARG("print_list", print_list),
    UBUS_METHOD_NOARG("print_params_timer", print_params_timer),
    UBUS_METHOD("sec_request_debug", sec_request_debug, type_policy),
    UBUS_METHOD("start_debug", start_debug, debug_policy),
    UBUS_METHOD("update_report_cfg", update_report_cfg, type_policy),
    UBUS_METHOD_NOARG("stop_debug", stop_debug),
    UBUS_METHOD("send_report_info_async", send_report_content_async_by_ubus, async_policy),
};
static_assert(ARRAY_SIZE(nms_event_methods) == 19, "the object has 19 methods");

ubus_object_type nms_event_object_type = UBUS_OBJECT_TYPE("nms_event_handle", nms_event_methods);

ubus_object nms_event_object = [] {
    ubus_object o{};
    o.name = "nms_report_cache";
    o.type = &nms_event_object_type;
    o.methods = nms_event_methods;
    o.n_methods = static_cast<int>(ARRAY_SIZE(nms_event_methods));
    return o;
}();

void reconnect_timer_cb(uloop_timeout *) noexcept
{
    ubus_connection_lost(ubus_ctx);
}

// Retries a lost connection; armed only from the bus thread.
uloop_timeout ubus_reconnect_timer = [] {
    uloop_timeout t{};
    t.cb = reconnect_timer_cb;
    return t;
}();

}  // namespace

// ---- The bus thread ---------------------------------------------------------------------

namespace {

// The specified socket, or, where it does not exist, the library's default (current OpenWrt
// brokers listen on /var/run/ubus/ubus.sock and may not keep the old path as a link).
const char *bus_socket() noexcept
{
    return access(kBusSocket, F_OK) == 0 ? kBusSocket : nullptr;
}

// The bus library sets up its event loop on the first connection, and the loop takes SIGINT
// and SIGTERM to end itself; the daemon installs no handler, so both end the process as
// their default action does (procd stops a service with SIGTERM). Put back after the loop
// is set up.
void keep_default_termination() noexcept
{
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGINT, &dfl, nullptr);
    sigaction(SIGTERM, &dfl, nullptr);
}

}  // namespace

extern "C" void ubus_connection_lost(ubus_context *) noexcept
{
    if (!ubus_ctx) {
        NMS_LOG_ERROR("ubus_ctx is NULL");
        return;
    }
    if (ubus_reconnect(ubus_ctx, bus_socket()) == 0) {
        // The object is published again by the reconnect, under new ids.
        NMS_LOG_DEBUG("reconnected to ubus, new id: %08x\n", ubus_ctx->local_id);
        nms_ledger::bus_connected(true);
        uloop_fd_add(&ubus_ctx->sock, kLoopFlags);
        return;
    }
    NMS_LOG_DEBUG("failed to reconnect, trying again in %d seconds\n", kReconnectSeconds);
    uloop_timeout_set(&ubus_reconnect_timer, kReconnectSeconds * 1000);
}

extern "C" int ubus_init(void) noexcept
{
    // The event loop must not reap children: other threads run commands and wait for them
    // (popen, system, waitpid), and a loop that reaps every child takes theirs away.
    uloop_handle_sigchld = false;
    // The broker may start after the daemon: give it a few seconds.
    for (int attempt = 0; attempt < kConnectAttempts; attempt++) {
        ubus_ctx = ubus_connect(bus_socket());
        keep_default_termination();
        if (ubus_ctx) {
            nms_ledger::bus_connected(false);
            return 0;
        }
        sleep(1);
    }
    NMS_LOG_ERROR("connect to ubusd path(%s) failed.\n", kBusSocket);
    return -1;
}

extern "C" int ubus_add_obj(void) noexcept
{
    ubus_ctx->connection_lost = ubus_connection_lost;
    int ret = ubus_add_object(ubus_ctx, &nms_event_object);
    if (ret != 0) {
        NMS_LOG_ERROR("add object(%s) failed ret:%d.\n", nms_event_object.name, ret);
        NMS_LOG_ERROR("ubus_add_obj failed!");
        ubus_free(ubus_ctx);
        ubus_ctx = nullptr;
        return -1;
    }
    NMS_LOG_DEBUG("ubus add object(%s) successful.\n", nms_event_object.name);
    // The ledger's object: the daemon works on without it, so a failure is only reported.
    ubus_object *status = nms_status_object();
    ret = ubus_add_object(ubus_ctx, status);
    if (ret != 0)
        NMS_LOG_ERROR("add object(%s) failed ret:%d.\n", status->name, ret);
    return 0;
}

// The thread was started detached (uac_thread_create detaches every thread), so
// there is nothing to detach here.
extern "C" void *handleUbusEvent(void *) noexcept
{
    if (ubus_init() != 0 || ubus_add_obj() != 0) {
        NMS_LOG_ERROR("nms_event_cache_ubus_init failed!");
        return nullptr;
    }
    // The object is published before the loop exists; calls that arrive meanwhile
    // wait in the socket until the loop runs.
    uloop_init();
    keep_default_termination();
    uloop_fd_add(&ubus_ctx->sock, kLoopFlags);
    if (!param_list_wake_init())
        NMS_LOG_ERROR("param list wake pipe failed, the list is answered on the bus thread.");
    uloop_run();
    uloop_done();
    ubus_free(ubus_ctx);
    ubus_ctx = nullptr;
    return nullptr;
}
