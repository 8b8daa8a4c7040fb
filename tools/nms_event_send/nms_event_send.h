/* nms_event_send.h - send one event to the reporting daemon through its message queues.
 *
 * A local service hands the daemon an event by sending one fixed frame to the System V message
 * queue of the event's list (key 787783 + list): the message type (a C long), the event id, the
 * time stamp and the params at their natural alignment, 520 bytes on 64-bit targets and 512 on
 * 32-bit ones. The list is the one configured for the
 * event type in /etc/nms_report (event_params: level, report_now), or chosen by the caller.
 */
#ifndef NMS_EVENT_SEND_H
#define NMS_EVENT_SEND_H

#include <stdint.h>

#ifdef __cplusplus
#define NMS_EVENT_SEND_NOEXCEPT noexcept
extern "C" {
#else
#define NMS_EVENT_SEND_NOEXCEPT
#endif

#define NMS_EVENT_SEND_KEY_BASE 787783
#define NMS_EVENT_SEND_LISTS 8
#define NMS_EVENT_SEND_PARAMS_MAX 495   /* the frame keeps 495 characters of params */
#define NMS_EVENT_SEND_AUTO_LIST (-1)   /* choose the list by the event type's settings */

/* Results: 0 or one of these. */
#define NMS_EVENT_SEND_OK 0
#define NMS_EVENT_SEND_ERR_LIST (-1)     /* list outside 0..7, or no list for the event type */
#define NMS_EVENT_SEND_ERR_PARAMS (-2)   /* params is not a JSON text (or is JSON null) */
#define NMS_EVENT_SEND_ERR_LENGTH (-3)   /* params longer than the frame allows */
#define NMS_EVENT_SEND_ERR_QUEUE (-4)    /* the queue cannot be opened */
#define NMS_EVENT_SEND_ERR_SEND (-5)     /* the kernel refused the message */

/* The list the daemon's settings give event type id: 0 for an immediate type with a level in
 * 0..7, else that level; for an unconfigured type id % 8 (negative for a negative id). */
int nms_event_send_list_of(int32_t id) NMS_EVENT_SEND_NOEXCEPT;

/* Sends one event. list: 0..7 or NMS_EVENT_SEND_AUTO_LIST; time_ms: the sender's time stamp
 * (0 is sent as it is; callers usually pass nms_event_send_now_ms()); params: a JSON text of at
 * most 495 characters, or "" / NULL for none. Blocks while the queue is full. Returns 0 or a
 * negative NMS_EVENT_SEND_ERR_* code; nothing is sent on an error. */
int nms_event_send(int list, int32_t id, uint64_t time_ms, const char *params)
    NMS_EVENT_SEND_NOEXCEPT;

/* Wall-clock milliseconds since the epoch. */
uint64_t nms_event_send_now_ms(void) NMS_EVENT_SEND_NOEXCEPT;

/* A sentence describing a result code. */
const char *nms_event_send_strerror(int code) NMS_EVENT_SEND_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* NMS_EVENT_SEND_H */
