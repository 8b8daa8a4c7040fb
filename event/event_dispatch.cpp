// event_dispatch.cpp - dispatch workers: check each event's params, build the event info and
// insert it into the worker's list in the mode its fill level and policy call for.

#include "event_dispatch.h"

#include <json-c/json.h>
#include <pthread.h>

#include <cstring>
#include <memory>

#include "cloud_report.h"
#include "event_list.h"
#include "nms_log.h"
#include "uac_mem.h"
#include "uac_thread.h"

namespace {

// Each worker's start argument points at its element; the array outlives the threads.
int32_t g_list_ids[NMS_EVENT_LIST_NUM];

struct JsonPut {
    void operator()(json_object *o) const noexcept { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

// Batches never wait.
int always_ready(int) { return 0; }

void *msg_handle_thread(void *arg) {
    uac_thread_detach_self();   // once: the trampoline detached a thread it started
    if (!arg)
        return nullptr;
    int32_t id = *static_cast<int32_t *>(arg);
    if (id > 7)
        return nullptr;
    recv_notify_nms_event(msg_handle_dispatch, always_ready, id);
    return nullptr;
}

}  // namespace

extern "C" int init_msg_handle(void) noexcept {
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++) {
        g_list_ids[i] = i;
        pthread_t tid;
        int ret = uac_thread_create(&tid, "nmsEventMsgHanldeThread[i]", msg_handle_thread,
                                    &g_list_ids[i]);
        if (ret != 0) {
            NMS_LOG_ERROR("create thread(init_msg_handle) failed!");
            return ret;
        }
    }
    NMS_LOG_DEBUG("init thread(init_msg_handle) success!");
    return 0;
}

extern "C" int msg_handle_dispatch(nms_event_msg *frame, int list) noexcept {
    if (list < 0 || list >= NMS_EVENT_LIST_NUM) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    if (!frame) {
        NMS_LOG_ERROR("invalid params!");
        return -1;
    }
    size_t len = strnlen(frame->params, sizeof(frame->params));
    const char *params = frame->params;
    char rewritten[NMS_EVENT_PARAMS_MAX];
    // Most params are plain JSON as producers write it: checked by the strict reader alone,
    // without the JSON library's parse (a tokener, a locale switch and an object tree an
    // event), they are kept as they stand, as the library's path would keep them.
    size_t plain = len > 0 && len < NMS_EVENT_PARAMS_MAX ? json_plain_value_length(params, len) : 0;
    if (plain > 0) {
        len = plain;
    } else if (len > 0) {
        JsonPtr parsed;
        size_t end = len;
        if (len < NMS_EVENT_PARAMS_MAX)
            parsed.reset(json_parse_value(frame->params, &end));
        if (!parsed) {
            NMS_LOG_ERROR("event params not a json obj string, like {\"xx\":\"xx\"}!");
            nms_ledger::refused(list, NMS_REFUSED_PARAMS);
            return -1;
        }
        // The check accepts a value followed by other text, and the parser's extensions
        // (comments, single quotes, trailing commas). The params go into the report as they
        // stand, where either would break the JSON of the whole report and of every event in
        // it (`{}]}]}},{"x":1`, `1//x`). So the event keeps only the value: its own text when
        // that is strict JSON, else the value written out again by the JSON library.
        len = end < len ? end : len;
        if (!json_text_is_strict(frame->params, len)) {
            const char *text = json_object_to_json_string_ext(
                parsed.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
            size_t text_len = text ? std::strlen(text) : 0;
            if (!text || text_len >= NMS_EVENT_PARAMS_MAX ||
                !json_text_is_strict(text, text_len)) {
                NMS_LOG_ERROR("event params not a json obj string, like {\"xx\":\"xx\"}!");
                nms_ledger::refused(list, NMS_REFUSED_PARAMS);
                return -1;
            }
            std::memcpy(rewritten, text, text_len + 1);
            params = rewritten;
            len = text_len;
        }
    }
    // The event is built in a block of this worker's own, not a tracked allocation per event
    // (so there is no allocation failure to report): the list copies what it keeps, and
    // nothing else sees the block. Its release is still traced, as the end of the event's way
    // through the worker that operators follow at the trace level.
    // Only what is read of it is written: the fields and the params with their terminator.
    static thread_local nms_event_info block;
    nms_event_info *info = &block;
    info->id = frame->id;
    info->reserved = 0;
    info->time = frame->time;
    std::memcpy(info->params, params, len);
    info->params[len] = '\0';
    NMS_LOG_DEBUG("list_id:%d msg_handle_dispatch====%d  %llu  %s\r\n", list, info->id,
                  static_cast<unsigned long long>(info->time), info->params);
    // Below the threshold nothing is ever replaced; at or above it the list's policy decides
    // (policy 2 waits for room, any other replaces the oldest once the list is full). A refused
    // insertion has already said why; the event is not retried.
    if (trigger_logic_full_threshold(list) != 0)
        insert_node_to_list(list, info, 0);
    else
        insert_node_to_list_by_policy(list, info);
    NMS_LOG_TRACE("%s:%d::free(%p)\n", __func__, __LINE__, static_cast<void *>(info));
    return 0;
}
