// jcs_request_fuzz.cpp - any datagram text given to the command socket's request
// handler is refused or served without harm; a reply is always JSON text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <json-c/json.h>

#include "jcs.h"

namespace {

int echo_cb(json_object *data, json_object *reply)
{
    json_object_object_add(reply, "echo", json_object_get(data));
    return 0;
}

bool setup()
{
    jcs_err_on.store(0);   // refusals are the common case here; keep the run quiet
    if (jcs_init() != 0)
        abort();
    jcs_callback_register("svc", JCS_OP_ADD, echo_cb);
    jcs_callback_register("svc", JCS_OP_GET, echo_cb);
    jcs_callback_register("example", JCS_OP_ADD, jcs_test_callback_add);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = setup();
    (void)ready;
    if (size > JCS_MSG_MAX)
        return 0;   // the server refuses those before they reach the handler
    std::string text(reinterpret_cast<const char *>(data), size);
    static char path[JCS_PATH_LEN], reply[JCS_MSG_MAX + 1];
    int r = jcs_handle_request(text.c_str(), path, reply);
    if (r == JCS_REQ_REPLY) {
        json_object *o = json_tokener_parse(reply);
        if (!o || strnlen(path, JCS_PATH_LEN) >= JCS_PATH_LEN)
            abort();
        json_object_put(o);
    } else if (r != JCS_REQ_DONE && r != JCS_REQ_INVALID) {
        abort();
    }
    return 0;
}
