// nms_ubus.h - the daemon's bus object "nms_report_cache", its bus thread and the
// reporting state the bus methods own.
//
// Other services steer reporting only through this object: the cloud client calls
// begin_report / stop_report when its link goes up or down, local scripts register
// statistics parameters, and support tools flush, clean and switch the log output.
// Every handler and the reconnection run on the one bus thread, one at a time.
#pragma once

#include <atomic>
#include <cstdint>

#include <libubus.h>

extern "C" {

// Event reporting was started by begin_report and not stopped since (0 or 1).
// Written on the bus thread, read elsewhere without a lock.
extern std::atomic<int32_t> event_report_running;
// Statistics-parameter reporting was started and not stopped since (0 or 1).
extern std::atomic<int32_t> param_report_running;

// The bus connection; null until the first successful connect. Only the bus thread
// uses it.
extern struct ubus_context *ubus_ctx;

// Body of the thread "handlerUbusThread": connects (four attempts, a second apart),
// publishes the object, runs the event loop until it ends, then frees the
// connection. When connecting or publishing fails the thread ends and the daemon
// runs on without its bus object. Returns null.
void *handleUbusEvent(void *arg) noexcept;

// Connect step of the bus thread: 0 once ubus_ctx holds a connection, -1 after
// four failed attempts (messages on the error switch).
int ubus_init(void) noexcept;
// Publish step: installs the lost-connection callback and adds the object; 0 or
// -1 (the connection is then freed).
int ubus_add_obj(void) noexcept;
// Lost-connection callback: reconnects (the object is published again) and puts
// the socket back into the loop, or retries every 2 seconds without limit.
void ubus_connection_lost(struct ubus_context *ctx) noexcept;

// The method handlers, in method-table order. Each returns the call's bus status.
int nms_statistics_parms_reg(struct ubus_context *ctx, struct ubus_object *obj,
                             struct ubus_request_data *req, const char *method,
                             struct blob_attr *msg) noexcept;
int nms_statistics_parms_update(struct ubus_context *ctx, struct ubus_object *obj,
                                struct ubus_request_data *req, const char *method,
                                struct blob_attr *msg) noexcept;
int get_statistics_parms_reg(struct ubus_context *ctx, struct ubus_object *obj,
                             struct ubus_request_data *req, const char *method,
                             struct blob_attr *msg) noexcept;
int get_statistics_parms_list(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method,
                              struct blob_attr *msg) noexcept;
int flush_report(struct ubus_context *ctx, struct ubus_object *obj,
                 struct ubus_request_data *req, const char *method,
                 struct blob_attr *msg) noexcept;
int flush_event_report(struct ubus_context *ctx, struct ubus_object *obj,
                       struct ubus_request_data *req, const char *method,
                       struct blob_attr *msg) noexcept;
int stop_report(struct ubus_context *ctx, struct ubus_object *obj,
                struct ubus_request_data *req, const char *method,
                struct blob_attr *msg) noexcept;
int begin_report(struct ubus_context *ctx, struct ubus_object *obj,
                 struct ubus_request_data *req, const char *method,
                 struct blob_attr *msg) noexcept;
int clean_cache(struct ubus_context *ctx, struct ubus_object *obj,
                struct ubus_request_data *req, const char *method,
                struct blob_attr *msg) noexcept;
int report_specific_param(struct ubus_context *ctx, struct ubus_object *obj,
                          struct ubus_request_data *req, const char *method,
                          struct blob_attr *msg) noexcept;
int print_list(struct ubus_context *ctx, struct ubus_object *obj,
               struct ubus_request_data *req, const char *method,
               struct blob_attr *msg) noexcept;
int print_params_timer(struct ubus_context *ctx, struct ubus_object *obj,
                       struct ubus_request_data *req, const char *method,
                       struct blob_attr *msg) noexcept;
int sec_request_debug(struct ubus_context *ctx, struct ubus_object *obj,
                      struct ubus_request_data *req, const char *method,
                      struct blob_attr *msg) noexcept;
int start_debug(struct ubus_context *ctx, struct ubus_object *obj,
                struct ubus_request_data *req, const char *method,
                struct blob_attr *msg) noexcept;
int update_report_cfg(struct ubus_context *ctx, struct ubus_object *obj,
                      struct ubus_request_data *req, const char *method,
                      struct blob_attr *msg) noexcept;
int stop_debug(struct ubus_context *ctx, struct ubus_object *obj,
               struct ubus_request_data *req, const char *method,
               struct blob_attr *msg) noexcept;
int send_report_content_async_by_ubus(struct ubus_context *ctx, struct ubus_object *obj,
                                      struct ubus_request_data *req, const char *method,
                                      struct blob_attr *msg) noexcept;

}  // extern "C"

static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t) &&
                  std::atomic<int32_t>::is_always_lock_free,
              "the debug shell reads and writes the reporting state by name as plain ints");
