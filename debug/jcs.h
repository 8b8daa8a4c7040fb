// jcs.h - JSON command socket: other processes on the device call named callbacks
// inside this process through two Unix datagram sockets, and the client call for it.
//
// Request datagram: {"name": service, "op": 0..3, "clt_path": reply socket, "data": any}
// Reply datagram:   the callback's reply object ("{}" when it added nothing).
#pragma once

#include <atomic>
#include <cstdint>

struct json_object;

extern "C" {

// Operations a service can register, as the daemon's own registrations number them.
#define JCS_OP_ADD 0
#define JCS_OP_DEL 1
#define JCS_OP_SET 2
#define JCS_OP_GET 3
#define JCS_OP_MAX 4

#define JCS_NAME_LEN 64              // characters of a service name that count
#define JCS_PATH_LEN 128             // socket paths, terminator included
#define JCS_MSG_MAX 131072           // bytes of one datagram, either direction

#define JCS_UI_SRV_PATH "/tmp/jcs.ui.srv"
#define JCS_SERVICE_SRV_PATH "/tmp/jcs.service.srv"

// A callback gets the request's "data" value (lent) and an empty reply object to fill
// (lent). Its result is ignored.
typedef int (*jcs_callback_t)(json_object *data, json_object *reply);

// Message switches: "[JCS_ERR]" lines (on at start) and "[JCS_DBG]" lines (off).
extern std::atomic<int> jcs_err_on;
extern std::atomic<int> jcs_dbg_on;

// Creates the callback table and reads the process name. 0, or -1 when the table
// cannot be made or the name cannot be read. A second call returns 0.
int jcs_init(void) noexcept;

// Starts the two server threads "jcs_ui" and "jcs_service" and lets them serve.
// 0, or -1 when a path cannot be allocated; a second call returns 0 at once.
int jcs_run(void) noexcept;

// Puts callback into slot op of service name (at most 64 characters count), creating
// the entry on first use; a later registration of the same slot replaces the earlier.
// 0, or -1 on a null name or callback, op >= 4, or short memory.
int jcs_callback_register(const char *name, uint32_t op, jcs_callback_t callback) noexcept;

// The callback table's key, object and comparison functions (service names as keys).
uint32_t jcs_hash_key_func(const void *key) noexcept;
uint32_t jcs_hash_obj_func(const void *obj) noexcept;
int32_t jcs_hash_cmp_func(const void *obj, const void *key) noexcept;

// Server loop of one socket (thread entry; path is a 128-byte buffer the thread keeps).
void *jcs_work_task(void *path) noexcept;

// Client call: sends {name, op, data} to the service socket of `process` and waits for
// the reply, timeout seconds at most (0: without limit). data (required) is released
// by the call in every case. With reply non-null the parsed reply is stored there
// (the caller puts it). 0, or -1 on a missing argument, a socket or send failure, a
// receive failure or time-out, or a reply that is not JSON.
int jcs_send_to_process(const char *process, const char *name, int op, json_object *data,
                        json_object **reply, int timeout) noexcept;

// Example callbacks of service "example" (ops 0, 1 and 3).
int jcs_test_callback_add(json_object *data, json_object *reply) noexcept;
int jcs_test_callback_del(json_object *data, json_object *reply) noexcept;
int jcs_test_callback_get(json_object *data, json_object *reply) noexcept;

}  // extern "C"

// One request datagram as the server threads handle it: parse, check, run the
// callback. Exposed for tests and fuzzing. Results:
constexpr int JCS_REQ_INVALID = -1;  // not JSON: skipped, no reply
constexpr int JCS_REQ_DONE = 0;      // handled or refused (with its message); no reply
constexpr int JCS_REQ_REPLY = 1;     // a reply is due: reply_path (JCS_PATH_LEN bytes) and
                                     // reply_text (JCS_MSG_MAX + 1 bytes) hold the client's
                                     // address and the reply's compact text
int jcs_handle_request(const char *text, char *reply_path, char *reply_text) noexcept;
