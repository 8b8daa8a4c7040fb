// event_frame_fuzz.cpp - any frame a local service puts on a queue is refused by the dispatch
// worker or stored; a stored event's params are one JSON value and nothing after it (they go
// into reports as they stand). Input: the list number, then the frame's text (id, padding,
// time, params) as the receive loop hands it over. Runs in the sandbox (settings are read from
// /etc/nms_report).
#include <json-c/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cloud_report.h"
#include "event_dispatch.h"
#include "event_list.h"
#include "event_msg.h"
#include "event_report.h"
#include "nms_log.h"
#include "uac_lock.h"
#include "uac_thread.h"

namespace {

// Every type is enabled, so that frames reach the lists.
int32_t accept_all(int32_t) noexcept { return 0; }

bool setup()
{
    uac_lock_module_init();
    uac_thread_module_init();
    init_event_node_list();
    nms_report_type_table[0].match_event = accept_all;
    return true;
}

// A stored params text is empty or exactly one JSON value, in the strict grammar that the
// management service reads.
void check_node(const nms_event_node *n)
{
    size_t len = strlen(n->params);
    if (len == 0)
        return;
    if (len >= NMS_EVENT_PARAMS_MAX || !json_text_is_strict(n->params, len))
        abort();
    json_tokener *tok = json_tokener_new();
    // -1: the terminator ends a bare number, as in the daemon's own check.
    json_object *o = json_tokener_parse_ex(tok, n->params, -1);
    if (!o || json_tokener_get_error(tok) != json_tokener_success ||
        json_tokener_get_parse_end(tok) != len)
        abort();
    json_object_put(o);
    json_tokener_free(tok);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = setup();
    (void)ready;
    if (size < 1)
        return 0;
    const int list = data[0] % NMS_EVENT_LIST_NUM;
    {
        // What the daemon keeps without the JSON library's parse, the library must take as
        // one non-null value ending at the same place.
        std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
        text.resize(strnlen(text.c_str(), text.size()));
        size_t plain = json_plain_value_length(text.c_str(), text.size());
        if (plain > 0) {
            size_t end = 0;
            json_object *o = json_parse_value(text.c_str(), &end);
            if (!o || end != plain || json_object_get_type(o) == json_type_null)
                abort();
            json_object_put(o);
        }
    }
    nms_event_msg frame;
    std::memset(&frame, 0, sizeof(frame));
    frame.mtype = 1;
    size_t text = size - 1 < NMS_EVENT_MSG_TEXT_SIZE ? size - 1 : NMS_EVENT_MSG_TEXT_SIZE;
    std::memcpy(reinterpret_cast<char *>(&frame) + offsetof(nms_event_msg, id), data + 1, text);
    frame.params[sizeof(frame.params) - 1] = '\0';
    msg_handle_dispatch(&frame, list);
    {
        NmsEventHold hold(gNmsEventNodeListLocker[list]);
        int seen = 0;
        if (nms_event_node *n = get_list_node(list, -1, -1)) {
            check_node(n);
            seen = 1;
        }
        if (seen != get_list_total_node(list))
            abort();
    }
    init_event_node_list();  // each input starts from empty lists
    return 0;
}
