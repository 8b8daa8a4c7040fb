// event_msg.h - message-queue ingress: the frame local services send and the receive loop.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#define NMS_EVENT_MSG_KEY_BASE 787783      // key of list i's queue: base + i
#define NMS_EVENT_MSG_TEXT_MAX 512         // bytes after the message type
#define NMS_EVENT_MSG_FRAME_SIZE 520
#define NMS_EVENT_MSG_QBYTES 3584000       // 7000 messages of 512 bytes
#define NMS_EVENT_MSG_BACKLOG_FULL 5249    // a backlog above this means producers outrun reports

extern "C" {

// The System V message of one event, in the device's byte order.
struct nms_event_msg {
    int64_t mtype;     // any positive type; shown only in a debug line
    int32_t id;        // event type id
    int32_t reserved;  // padding, ignored
    uint64_t time;     // sender's time stamp
    char params[496];  // NUL-terminated JSON text (a NUL is forced at the frame's last byte)
};
static_assert(sizeof(nms_event_msg) == NMS_EVENT_MSG_FRAME_SIZE, "event frame is 520 bytes");
static_assert(offsetof(nms_event_msg, id) == 8, "event id at 8");
static_assert(offsetof(nms_event_msg, time) == 16, "time at 16");
static_assert(offsetof(nms_event_msg, params) == 24, "params at 24");

typedef int (*nms_event_msg_handler)(nms_event_msg *frame, int list);
typedef int (*nms_event_msg_ready)(int list);

// Queue ids of the eight lists, -1 until opened.
extern std::atomic<int32_t> gNmsEventMsgId[8];
// Count print switch: when set, the ingress prints every 10000th message and the batch sender
// its running totals. Switched from the debug shell; read and written without a lock.
extern std::atomic<int32_t> event_stats_print_on;
static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t), "read by name as a plain int");

void set_event_stats_print_on(int32_t on) noexcept;
int32_t get_event_stats_print_on(void) noexcept;

// Opens (creating with mode 0 if needed) and enlarges list's queue; stores its id on success.
int init_nms_event_msg(int list) noexcept;
// The receive loop of one list; returns only with -1 for a list outside 0..7.
int recv_notify_nms_event(nms_event_msg_handler handler, nms_event_msg_ready ready,
                          int list) noexcept;
// Looks at list's queue again and stores what is waiting as its backlog. The receive loop looks
// once a round; a worker held inside a round (the policy-2 wait for room) calls this while it
// waits, so the report code sees producers backing up instead of the count from before the wait.
void nms_event_msg_look(int list) noexcept;
// 0 when more than 5249 messages were waiting at the loop's last look, else -1.
int is_msg_list_is_full(int list) noexcept;

}  // extern "C"
