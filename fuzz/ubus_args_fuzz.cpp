// ubus_args_fuzz.cpp - any argument message given to the bus object's methods is refused with a
// status or served without harm. Input: a method selector, then the raw payload of the
// message's root table as it arrives from the broker (blob attributes in wire order). Only the
// methods that answer with a status alone and start nothing outside the process are driven.
// Runs in the sandbox (registrations are recorded under /tmp, settings read from /etc).
#include <libubox/blob.h>
#include <libubus.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "event_list.h"
#include "event_report.h"
#include "nms_log.h"
#include "nms_ubus.h"
#include "report_switch.h"
#include "stats_registry.h"
#include "uac_lock.h"
#include "uac_thread.h"
#include "uac_timer.h"

namespace {

using handler_t = int (*)(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                          blob_attr *) noexcept;

const handler_t kMethods[] = {
    nms_statistics_parms_reg, nms_statistics_parms_update, get_statistics_parms_reg,
    flush_event_report,       clean_cache,                 report_specific_param,
    update_report_cfg,        send_report_content_async_by_ubus,
};

bool setup()
{
    uac_lock_module_init();
    uac_thread_module_init();
    if (uac_timer_init(10) != 0 || init_statistics_params() != 0)
        abort();
    init_event_node_list();
    init_nms_event_report(0, nullptr);
    set_report_online(0);  // asynchronous sends are dropped, nothing leaves the sandbox
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = setup();
    (void)ready;
    if (size < 1 || size > 65536)
        return 0;
    const handler_t handler = kMethods[data[0] % (sizeof(kMethods) / sizeof(kMethods[0]))];
    static blob_buf b;
    blob_buf_init(&b, 0);
    if (size > 1 && !blob_put_raw(&b, data + 1, static_cast<unsigned>(size - 1)))
        return 0;
    int status = handler(nullptr, nullptr, nullptr, "fuzz", b.head);
    if (status < -1 || status > UBUS_STATUS_NO_MEMORY + 10)
        abort();
    blob_buf_free(&b);
    return 0;
}
