// event_dispatch.h - the eight dispatch workers: received frames become event nodes.
#pragma once

#include "event_msg.h"

extern "C" {

// Starts the eight workers "nmsEventMsgHanldeThread[i]". 0, or the first failed creation's result.
int init_msg_handle(void) noexcept;
// Handles one received frame of list: 0 when it was handed to the list, -1 when refused before.
int msg_handle_dispatch(nms_event_msg *frame, int list) noexcept;

}  // extern "C"
