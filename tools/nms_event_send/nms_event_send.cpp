// nms_event_send.cpp - the sender's side of the event queues: checks, list choice, one frame.

#include "nms_event_send.h"

#include <json-c/json.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/time.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "event_config.h"
#include "event_msg.h"

namespace {

// True when text parses as one JSON value other than null, as the daemon's check demands.
bool is_json(const char *text) {
    json_tokener *tok = json_tokener_new();
    if (!tok)
        return false;
    json_object *obj = json_tokener_parse_ex(tok, text, -1);
    bool ok = json_tokener_get_error(tok) == json_tokener_success && obj != nullptr;
    json_object_put(obj);
    json_tokener_free(tok);
    return ok;
}

}  // namespace

extern "C" int nms_event_send_list_of(int32_t id) noexcept { return get_event_list_id(id); }

extern "C" uint64_t nms_event_send_now_ms(void) noexcept {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

extern "C" int nms_event_send(int list, int32_t id, uint64_t time_ms,
                              const char *params) noexcept {
    if (!params)
        params = "";
    size_t len = strnlen(params, NMS_EVENT_SEND_PARAMS_MAX + 1);
    if (len > NMS_EVENT_SEND_PARAMS_MAX)
        return NMS_EVENT_SEND_ERR_LENGTH;
    if (len > 0 && !is_json(params))
        return NMS_EVENT_SEND_ERR_PARAMS;
    if (list == NMS_EVENT_SEND_AUTO_LIST)
        list = nms_event_send_list_of(id);
    if (list < 0 || list >= NMS_EVENT_SEND_LISTS)
        return NMS_EVENT_SEND_ERR_LIST;

    // Created with mode 0 as the daemon does, so events sent before it starts wait for it.
    int qid = msgget(NMS_EVENT_SEND_KEY_BASE + list, IPC_CREAT);
    if (qid < 0)
        return NMS_EVENT_SEND_ERR_QUEUE;
    // The daemon's own frame type: the same layout on every target, padding zeroed.
    nms_event_msg frame{};
    frame.mtype = 1;
    frame.id = id;
    frame.time = time_ms;
    std::memcpy(frame.params, params, len);
    int rc;
    do {
        rc = msgsnd(qid, &frame, NMS_EVENT_MSG_TEXT_SIZE, 0);
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? NMS_EVENT_SEND_OK : NMS_EVENT_SEND_ERR_SEND;
}

extern "C" const char *nms_event_send_strerror(int code) noexcept {
    switch (code) {
    case NMS_EVENT_SEND_OK:
        return "sent";
    case NMS_EVENT_SEND_ERR_LIST:
        return "no event list for this event (lists are 0 to 7)";
    case NMS_EVENT_SEND_ERR_PARAMS:
        return "params must be a JSON text such as {\"xx\":\"xx\"}";
    case NMS_EVENT_SEND_ERR_LENGTH:
        return "params are longer than the 495 characters an event message holds";
    case NMS_EVENT_SEND_ERR_QUEUE:
        return "the event queue cannot be opened";
    case NMS_EVENT_SEND_ERR_SEND:
        return "the event queue refused the message";
    default:
        return "unknown result";
    }
}
