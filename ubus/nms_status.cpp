// nms_status.cpp - the "nms_report" bus object: status and metrics. Everything is read from the
// ledger's relaxed counters and the lists' counts; only the age of a list's oldest event takes
// that list's lock, for one walk of its slots.
#include "nms_status.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include <libubox/blobmsg.h>

#include "event_config.h"
#include "event_list.h"
#include "nms_ledger.h"
#include "report_switch.h"

namespace {

using nms_ledger::List;
using Counter = std::atomic<uint32_t>;

uint32_t get(const Counter &c) { return c.load(std::memory_order_relaxed); }

// Seconds since a monotonic stamp of the ledger, 0 for "never".
uint32_t ago(uint32_t mono) { return mono ? nms_ledger::mono_now() - mono : 0; }

// A list's counters beside the refusals and departures, by their place in the ledger.
struct Field {
    const char *name;
    size_t offset;
};
const Field kListFields[] = {
    {"waits", offsetof(List, in.waits)},
    {"wait_ms", offsetof(List, in.wait_ms)},
    {"batches", offsetof(List, out.batches_ok)},
    {"failed_batches", offsetof(List, out.batches_failed)},
};

void add(blob_buf *b, const char *name, uint32_t v) { blobmsg_add_u64(b, name, v); }

// Stamps as a pair: the time of day (for people) and how long ago (monotonic, for checks).
void add_stamp(blob_buf *b, const char *name, const char *ago_name, uint32_t wall, uint32_t mono) {
    if (!mono)
        return;
    add(b, name, wall);
    add(b, ago_name, ago(mono));
}

void add_list(blob_buf *b, int l, bool metrics_only) {
    List &led = nms_ledger::list(l);
    add(b, "list", static_cast<uint32_t>(l));
    add(b, "accepted", get(led.in.accepted));
    char name[32];
    for (int r = 0; r < NMS_REFUSAL_KINDS; r++) {
        snprintf(name, sizeof name, "refused_%s", nms_refusal_names[r]);
        add(b, name, get(led.in.refused[r]));
    }
    for (int g = 0; g < NMS_DEPARTURE_KINDS; g++)
        add(b, nms_departure_names[g], nms_ledger::gone(l, static_cast<nms_departure>(g)));
    for (const Field &f : kListFields)
        add(b, f.name, get(*reinterpret_cast<Counter *>(reinterpret_cast<char *>(&led) + f.offset)));
    int n = get_list_total_node(l);
    add(b, "in_list", n > 0 ? static_cast<uint32_t>(n) : 0);
    add(b, "oldest_age", nms_event_oldest_age(l));
    if (metrics_only)
        return;
    add(b, "policy", static_cast<uint32_t>(get_event_list_full_processing(l)));
    const nms_ledger::ListOut &o = led.out;
    if (const uint32_t mono = get(o.last_batch_mono)) {
        void *t = blobmsg_open_table(b, "last_batch");
        add_stamp(b, "time", "ago", get(o.last_batch_wall), mono);
        add(b, "size", get(o.last_batch_size));
        blobmsg_add_string(b, "result", o.last_batch_ok.load(std::memory_order_relaxed) ? "ok" : "failed");
        blobmsg_add_u32(b, "code", static_cast<uint32_t>(o.last_batch_result.load(std::memory_order_relaxed)));
        blobmsg_close_table(b, t);
    }
}

void fill(blob_buf *b, bool metrics_only) {
    const nms_ledger::Link &k = nms_ledger::link();
    if (!metrics_only)
        add(b, "uptime", nms_ledger::uptime());
    blobmsg_add_u8(b, "cloud_online", get_report_online() != 0);
    add(b, "cloud_sends", get(k.sends_ok));
    add(b, "cloud_send_failures", get(k.sends_failed));
    add(b, "bus_connects", get(k.bus_connects));
    add(b, "bus_reconnects", get(k.bus_reconnects));
    if (!metrics_only) {
        add_stamp(b, "cloud_since", "cloud_for", get(k.online_since_wall), get(k.online_since_mono));
        add_stamp(b, "cloud_last_success", "cloud_last_success_ago", get(k.last_ok_wall),
                  get(k.last_ok_mono));
        add_stamp(b, "cloud_last_failure", "cloud_last_failure_ago", get(k.last_fail_wall),
                  get(k.last_fail_mono));
        if (get(k.last_fail_mono))
            blobmsg_add_u32(b, "cloud_last_failure_result",
                            static_cast<uint32_t>(k.last_fail_result.load(std::memory_order_relaxed)));
    }
    void *arr = blobmsg_open_array(b, "lists");
    for (int l = 0; l < NMS_EVENT_LIST_NUM; l++) {
        void *t = blobmsg_open_table(b, nullptr);
        add_list(b, l, metrics_only);
        blobmsg_close_table(b, t);
    }
    blobmsg_close_array(b, arr);
    static nms_ledger::StatsRow rows[NMS_LEDGER_STATS_TYPES];   // bus thread only
    const int n = nms_ledger::stats_rows(rows, NMS_LEDGER_STATS_TYPES);
    arr = blobmsg_open_array(b, "statistics");
    for (int i = 0; i < n; i++) {
        void *t = blobmsg_open_table(b, nullptr);
        blobmsg_add_string(b, "type", rows[i].type);
        for (int w = 0; w < nms_ledger::STATS_KINDS; w++)
            add(b, nms_ledger::stats_names[w], rows[i].count[w]);
        blobmsg_close_table(b, t);
    }
    blobmsg_close_array(b, arr);
}

// One reply buffer: every method runs on the one bus thread.
blob_buf g_buf;

int answer(ubus_context *ctx, ubus_request_data *req, const char *method) noexcept {
    blob_buf_init(&g_buf, 0);
    fill(&g_buf, std::strcmp(method, "metrics") == 0);
    int ret = ubus_send_reply(ctx, req, g_buf.head);
    blob_buf_free(&g_buf);
    return ret == 0 ? UBUS_STATUS_OK : UBUS_STATUS_UNKNOWN_ERROR;
}

int status_method(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method,
                  blob_attr *) noexcept {
    return answer(ctx, req, method);
}

const ubus_method g_methods[] = {
    UBUS_METHOD_NOARG("status", status_method),
    UBUS_METHOD_NOARG("metrics", status_method),
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
