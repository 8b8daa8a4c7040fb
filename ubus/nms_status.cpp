// nms_status.cpp - the "nms_report" bus object (status, metrics) and the ledger table of the
// debug shell. Everything is read from the ledger's relaxed counters and the lists' counts;
// only the age of a list's oldest event takes that list's lock, for one walk of its slots.
#include "nms_status.h"

#include <cstdio>

#include <libubox/blobmsg.h>

#include "event_config.h"
#include "event_list.h"
#include "nms_ledger.h"
#include "report_switch.h"

namespace {

uint32_t get(const std::atomic<uint32_t> &c) { return c.load(std::memory_order_relaxed); }
int32_t get(const std::atomic<int32_t> &c) { return c.load(std::memory_order_relaxed); }

// Seconds since a monotonic stamp of the ledger, 0 for "never".
uint32_t ago(uint32_t mono) { return mono ? nms_ledger::mono_now() - mono : 0; }

void add_u64(blob_buf *b, const char *name, uint64_t v) { blobmsg_add_u64(b, name, v); }

void add_list_counters(blob_buf *b, int l, bool flat) {
    const nms_ledger::List &led = nms_ledger::list(l);
    add_u64(b, "accepted", get(led.in.accepted));
    if (flat) {
        for (int r = 0; r < NMS_REFUSAL_KINDS; r++) {
            char name[40];
            std::snprintf(name, sizeof name, "refused_%s", nms_refusal_names[r]);
            add_u64(b, name, get(led.in.refused[r]));
        }
    } else {
        void *t = blobmsg_open_table(b, "refused");
        for (int r = 0; r < NMS_REFUSAL_KINDS; r++)
            add_u64(b, nms_refusal_names[r], get(led.in.refused[r]));
        blobmsg_close_table(b, t);
    }
    for (int g = 0; g < NMS_DEPARTURE_KINDS; g++)
        add_u64(b, nms_departure_names[g], nms_ledger::gone(l, static_cast<nms_departure>(g)));
    add_u64(b, "waits", get(led.in.waits));
    add_u64(b, "wait_ms", get(led.in.wait_ms));
    add_u64(b, "batches", get(led.out.batches_ok));
    add_u64(b, "failed_batches", get(led.out.batches_failed));
    int n = get_list_total_node(l);
    add_u64(b, "in_list", n > 0 ? static_cast<uint64_t>(n) : 0);
}

void add_lists(blob_buf *b, bool metrics_only) {
    void *arr = blobmsg_open_array(b, "lists");
    for (int l = 0; l < NMS_EVENT_LIST_NUM; l++) {
        void *t = blobmsg_open_table(b, nullptr);
        add_u64(b, "list", static_cast<uint64_t>(l));
        add_list_counters(b, l, metrics_only);
        add_u64(b, "oldest_age", nms_event_oldest_age(l));
        if (!metrics_only) {
            blobmsg_add_u32(b, "policy", static_cast<uint32_t>(get_event_list_full_processing(l)));
            const nms_ledger::ListOut &o = nms_ledger::list(l).out;
            const uint32_t mono = get(o.last_batch_mono);
            if (mono) {
                void *lb = blobmsg_open_table(b, "last_batch");
                add_u64(b, "time", get(o.last_batch_wall));
                add_u64(b, "ago", ago(mono));
                add_u64(b, "size", get(o.last_batch_size));
                blobmsg_add_string(b, "result", get(o.last_batch_ok) ? "ok" : "failed");
                blobmsg_add_u32(b, "code", static_cast<uint32_t>(get(o.last_batch_result)));
                blobmsg_close_table(b, lb);
            }
        }
        blobmsg_close_table(b, t);
    }
    blobmsg_close_array(b, arr);
}

void add_stats(blob_buf *b) {
    void *arr = blobmsg_open_array(b, "statistics");
    for (const nms_ledger::StatsFigures &f : nms_ledger::stats_figures()) {
        void *t = blobmsg_open_table(b, nullptr);
        blobmsg_add_string(b, "type", f.type.c_str());
        add_u64(b, "runs", f.runs);
        add_u64(b, "killed", f.killed);
        add_u64(b, "failed", f.failed);
        add_u64(b, "values", f.values);
        blobmsg_close_table(b, t);
    }
    blobmsg_close_array(b, arr);
}

void fill(blob_buf *b, bool metrics_only) {
    const nms_ledger::Link &k = nms_ledger::link();
    const bool online = get_report_online() != 0;
    if (metrics_only) {
        blobmsg_add_u8(b, "cloud_online", online);
        add_u64(b, "cloud_sends", get(k.sends_ok));
        add_u64(b, "cloud_send_failures", get(k.sends_failed));
        add_u64(b, "bus_connects", get(k.bus_connects));
        add_u64(b, "bus_reconnects", get(k.bus_reconnects));
        add_lists(b, true);
        add_stats(b);
        return;
    }
    add_u64(b, "uptime", nms_ledger::uptime());
    void *c = blobmsg_open_table(b, "cloud");
    blobmsg_add_u8(b, "online", online);
    add_u64(b, "since", get(k.online_since_wall));
    add_u64(b, "for", ago(get(k.online_since_mono)));
    add_u64(b, "sends", get(k.sends_ok));
    add_u64(b, "send_failures", get(k.sends_failed));
    if (get(k.last_ok_mono)) {
        add_u64(b, "last_success", get(k.last_ok_wall));
        add_u64(b, "last_success_ago", ago(get(k.last_ok_mono)));
    }
    if (get(k.last_fail_mono)) {
        add_u64(b, "last_failure", get(k.last_fail_wall));
        add_u64(b, "last_failure_ago", ago(get(k.last_fail_mono)));
        blobmsg_add_u32(b, "last_failure_result", static_cast<uint32_t>(get(k.last_fail_result)));
    }
    blobmsg_close_table(b, c);
    void *bus = blobmsg_open_table(b, "bus");
    add_u64(b, "connects", get(k.bus_connects));
    add_u64(b, "reconnects", get(k.bus_reconnects));
    blobmsg_close_table(b, bus);
    add_lists(b, false);
    add_stats(b);
}

// One reply buffer: every method runs on the one bus thread.
blob_buf g_buf;

int answer(ubus_context *ctx, ubus_request_data *req, bool metrics_only) {
    blob_buf_init(&g_buf, 0);
    fill(&g_buf, metrics_only);
    int ret = ubus_send_reply(ctx, req, g_buf.head);
    blob_buf_free(&g_buf);
    return ret == 0 ? UBUS_STATUS_OK : UBUS_STATUS_UNKNOWN_ERROR;
}

int status_method(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                  blob_attr *) noexcept {
    return answer(ctx, req, false);
}

int metrics_method(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                   blob_attr *) noexcept {
    return answer(ctx, req, true);
}

const ubus_method g_methods[] = {
    UBUS_METHOD_NOARG("status", status_method),
    UBUS_METHOD_NOARG("metrics", metrics_method),
};

ubus_object_type g_type = UBUS_OBJECT_TYPE("nms_report", g_methods);

ubus_object g_object = [] {
    ubus_object o{};
    o.name = "nms_report";
    o.type = &g_type;
    o.methods = g_methods;
    o.n_methods = static_cast<int>(ARRAY_SIZE(g_methods));
    return o;
}();

}  // namespace

ubus_object *nms_status_object() noexcept { return &g_object; }

extern "C" void print_ledger(void) noexcept {
    std::printf("list   in-list  oldest  accepted   refused  replaced      sent   dropped   "
                "cleaned   stopped   removed  waits  batches  failed  last batch\r\n");
    for (int l = 0; l < NMS_EVENT_LIST_NUM; l++) {
        const nms_ledger::List &led = nms_ledger::list(l);
        uint32_t refused = 0;
        for (const auto &r : led.in.refused)
            refused += get(r);
        char last[48] = "-";
        if (const uint32_t mono = get(led.out.last_batch_mono))
            std::snprintf(last, sizeof last, "%u s ago, %u, %s", ago(mono),
                          get(led.out.last_batch_size), get(led.out.last_batch_ok) ? "ok" : "failed");
        int n = get_list_total_node(l);
        std::printf("%4d %9d %6us %9u %9u %9u %9u %9u %9u %9u %9u %6u %8u %7u  %s\r\n", l,
                    n > 0 ? n : 0, nms_event_oldest_age(l), get(led.in.accepted), refused,
                    nms_ledger::gone(l, NMS_GONE_REPLACED), nms_ledger::gone(l, NMS_GONE_SENT),
                    nms_ledger::gone(l, NMS_GONE_DROPPED), nms_ledger::gone(l, NMS_GONE_CLEANED),
                    nms_ledger::gone(l, NMS_GONE_STOPPED), nms_ledger::gone(l, NMS_GONE_REMOVED),
                    get(led.in.waits), get(led.out.batches_ok), get(led.out.batches_failed), last);
    }
    std::printf("refused by reason:");
    for (int r = 0; r < NMS_REFUSAL_KINDS; r++) {
        uint32_t sum = 0;
        for (int l = 0; l < NMS_EVENT_LIST_NUM; l++)
            sum += get(nms_ledger::list(l).in.refused[r]);
        std::printf(" %s %u", nms_refusal_names[r], sum);
    }
    const nms_ledger::Link &k = nms_ledger::link();
    std::printf("\r\ncloud: %s for %u s, sends %u, failures %u", get_report_online() ? "online" : "offline",
                ago(get(k.online_since_mono)), get(k.sends_ok), get(k.sends_failed));
    if (get(k.last_fail_mono))
        std::printf(", last failure %u s ago (result %d)", ago(get(k.last_fail_mono)),
                    get(k.last_fail_result));
    std::printf("\r\nbus: connects %u, reconnects %u\r\n", get(k.bus_connects),
                get(k.bus_reconnects));
    for (const nms_ledger::StatsFigures &f : nms_ledger::stats_figures())
        std::printf("statistics %-24s runs %u, killed %u, failed %u, values %u\r\n", f.type.c_str(),
                    f.runs, f.killed, f.failed, f.values);
    std::fflush(stdout);
}
