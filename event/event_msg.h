// event_msg.h - message-queue ingress: the frame local services send and the receive loop.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#define NMS_EVENT_MSG_KEY_BASE 787783      // key of list i's queue: base + i
#define NMS_EVENT_MSG_TEXT_MAX 512         // most bytes after the message type on any target
#define NMS_EVENT_MSG_PARAMS_SIZE 496      // params bytes, the last one always NUL
#define NMS_EVENT_MSG_QBYTES 3584000       // 7000 messages of 512 bytes
#define NMS_EVENT_MSG_BACKLOG_FULL 5249    // a backlog above this means producers outrun reports

extern "C" {

// The System V message of one event, in the device's byte order: the kernel's `long` message
// type, then the event id, the time stamp and the params, each at the compiler's natural
// alignment. With 8-byte longs that is the 520-byte frame every sender knows (id at 8, four
// bytes of padding, time at 16, params at 24, 512 bytes of text). With 4-byte longs (32-bit
// MIPS and ARM) there is no padding: id at 4, time at 8, params at 16, 508 bytes of text. A
// fixed 8-byte type would put the text 4 bytes late on those targets and make a full frame's
// text 516 bytes, more than a receive takes. Frames are built zeroed, padding included.
struct nms_event_msg {
    long mtype;                                // any positive type; shown only in a debug line
    int32_t id;                                // event type id
    uint64_t time;                             // sender's time stamp
    char params[NMS_EVENT_MSG_PARAMS_SIZE];    // NUL-terminated JSON text (a NUL is forced
                                               // into the last byte)
};
// Bytes of a whole frame after the message type: what a sender sends and a receive takes.
#define NMS_EVENT_MSG_TEXT_SIZE (sizeof(nms_event_msg) - sizeof(long))
static_assert(offsetof(nms_event_msg, id) == sizeof(long), "event id right after the type");
static_assert(offsetof(nms_event_msg, time) % alignof(uint64_t) == 0 &&
                  offsetof(nms_event_msg, time) - offsetof(nms_event_msg, id) < 4 + alignof(uint64_t),
              "time at the next 8-byte field after the id");
static_assert(offsetof(nms_event_msg, params) == offsetof(nms_event_msg, time) + 8,
              "params right after the time");
static_assert(NMS_EVENT_MSG_TEXT_SIZE <= NMS_EVENT_MSG_TEXT_MAX, "text of at most 512 bytes");
static_assert(sizeof(long) != 8 ||
                  (sizeof(nms_event_msg) == 520 && offsetof(nms_event_msg, id) == 8 &&
                   offsetof(nms_event_msg, time) == 16 && offsetof(nms_event_msg, params) == 24),
              "the 520-byte frame with 8-byte message types");
static_assert(sizeof(long) != 4 ||
                  (sizeof(nms_event_msg) == 512 && offsetof(nms_event_msg, time) == 8 &&
                   offsetof(nms_event_msg, params) == 16),
              "the 512-byte frame with 4-byte message types");

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
