/* libubus.h - client side of the message bus: connections, published objects
 * and their methods, lookups and calls. One context is one connection to the
 * broker; a context is not thread-safe and is used from one thread at a time. */
#ifndef LIBUBUS_H
#define LIBUBUS_H

#include <stdbool.h>
#include <stdint.h>
#include <string.h>

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include "ubus_common.h"
#include "ubusmsg.h"

#ifdef __cplusplus
extern "C" {
#endif

#define UBUS_MAX_NOTIFY_PEERS 16

struct ubus_context;
struct ubus_msg_src;
struct ubus_object;
struct ubus_request;
struct ubus_request_data;
struct ubus_object_data;
struct ubus_auto_conn;

typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
			      struct ubus_request_data *req,
			      const char *method, struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_fd_handler_t)(struct ubus_request *req, int fd);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);
typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx,
				      struct ubus_object_data *obj, void *priv);
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
typedef void (*ubus_connect_handler_t)(struct ubus_context *ctx);

#define UBUS_TAG_STATUS (1ul << 0)
#define UBUS_TAG_ADMIN (1ul << 1)
#define UBUS_TAG_PRIVATE (1ul << 2)

/* Initialisers for method tables and object types. The designators follow
 * the declaration order of the structs, which C++ compilers accept too. */
#define UBUS_METHOD_BASE(name_, handler_, mask_, tags_, policy_, n_policy_) \
	{ .name = (name_), .handler = (handler_), .mask = (mask_), .tags = (tags_), \
	  .policy = (policy_), .n_policy = (n_policy_) }

#define UBUS_METHOD(name_, handler_, policy_) \
	UBUS_METHOD_BASE(name_, handler_, 0, 0, policy_, (int)ARRAY_SIZE(policy_))
#define UBUS_METHOD_MASK(name_, handler_, policy_, mask_) \
	UBUS_METHOD_BASE(name_, handler_, mask_, 0, policy_, (int)ARRAY_SIZE(policy_))
#define UBUS_METHOD_NOARG(name_, handler_) \
	UBUS_METHOD_BASE(name_, handler_, 0, 0, NULL, 0)
#define UBUS_METHOD_TAG(name_, handler_, policy_, tags_) \
	UBUS_METHOD_BASE(name_, handler_, 0, tags_, policy_, (int)ARRAY_SIZE(policy_))
#define UBUS_METHOD_TAG_NOARG(name_, handler_, tags_) \
	UBUS_METHOD_BASE(name_, handler_, 0, tags_, NULL, 0)

#define UBUS_OBJECT_TYPE(name_, methods_) \
	{ .name = (name_), .id = 0, .methods = (methods_), .n_methods = (int)ARRAY_SIZE(methods_) }

struct ubus_method {
	const char *name;			/* NULL matches any method name */
	ubus_handler_t handler;
	unsigned long mask;			/* which policy entries to publish; 0 = all */
	unsigned long tags;
	const struct blobmsg_policy *policy;	/* published signature only */
	int n_policy;
};

struct ubus_object_type {
	const char *name;
	uint32_t id;				/* assigned by the broker */
	const struct ubus_method *methods;
	int n_methods;
};

struct ubus_object {
	struct avl_node avl;			/* unused by this library */
	const char *name;			/* the bus path */
	uint32_t id;				/* 0 while not registered */
	const char *path;
	struct ubus_object_type *type;
	ubus_state_handler_t subscribe_cb;
	bool has_subscribers;
	const struct ubus_method *methods;	/* what incoming calls are dispatched against */
	int n_methods;
};

struct ubus_acl_key {
	const char *user;
	const char *group;
	const char *object;
};

/* Identifies one incoming call; copy it with ubus_defer_request to answer later. */
struct ubus_request_data {
	uint32_t object;
	uint32_t peer;
	uint16_t seq;
	struct ubus_acl_key acl;
	bool deferred;
	int fd;
	int req_fd;
};

/* One outgoing request. Owned by the caller; it must stay in place until the
 * request completes or is aborted. */
struct ubus_request {
	struct list_head list;
	struct list_head pending;
	int status_code;
	bool status_msg;
	bool blocked;
	bool cancelled;
	bool notify;
	uint32_t peer;
	uint16_t seq;
	ubus_data_handler_t raw_data_cb;
	ubus_data_handler_t data_cb;
	ubus_fd_handler_t fd_cb;
	ubus_complete_handler_t complete_cb;
	int fd;
	struct ubus_context *ctx;
	void *priv;
};

struct ubus_object_data {
	uint32_t id;
	uint32_t type_id;
	const char *path;
	struct blob_attr *signature;
};

struct ubus_context_state;

struct ubus_context {
	struct list_head requests;		/* outstanding ubus_request records */
	struct avl_tree objects;		/* unused by this library */
	struct list_head pending;		/* unused by this library */
	struct uloop_fd sock;			/* sock.fd is the bus socket */
	struct uloop_timeout pending_timer;	/* runs messages queued during a synchronous call */
	uint32_t local_id;			/* client id given by the broker */
	uint16_t request_seq;
	bool cancel_poll;
	int stack_depth;
	void (*connection_lost)(struct ubus_context *ctx);
	void (*monitor_cb)(struct ubus_context *ctx, uint32_t seq, struct blob_attr *data);
	struct ubus_context_state *state;	/* library-private */
};

struct ubus_auto_conn {
	struct ubus_context ctx;
	struct uloop_timeout timer;
	const char *path;
	ubus_connect_handler_t cb;
};

/* Connects to the broker at path (NULL: UBUS_UNIX_SOCKET). Returns NULL on
 * any failure. The socket is non-blocking and close-on-exec. */
struct ubus_context *ubus_connect(const char *path) UBUS_NOEXCEPT;
/* The same into caller-owned storage; 0 or -1. Release with ubus_shutdown. */
int ubus_connect_ctx(struct ubus_context *ctx, const char *path) UBUS_NOEXCEPT;
/* Keeps a connection up from the event loop: retries every second, calls
 * conn->cb after each successful (re)connect. */
void ubus_auto_connect(struct ubus_auto_conn *conn) UBUS_NOEXCEPT;
/* Drops the current socket, connects again and registers every object of the
 * context anew (objects and types get new ids). Does not add the socket to
 * uloop. Returns 0, UBUS_STATUS_CONNECTION_FAILED or UBUS_STATUS_UNKNOWN_ERROR,
 * or the status of an object the broker refused to take back. */
int ubus_reconnect(struct ubus_context *ctx, const char *path) UBUS_NOEXCEPT;
void ubus_free(struct ubus_context *ctx) UBUS_NOEXCEPT;
void ubus_shutdown(struct ubus_context *ctx) UBUS_NOEXCEPT;

/* "Success", "Not found", ...; "Unknown error: <n>" for other values. */
const char *ubus_strerror(int error) UBUS_NOEXCEPT;

static inline void ubus_add_uloop(struct ubus_context *ctx)
{
	uloop_init();
	uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

/* Processes what is readable on the socket (for callers not using uloop). */
static inline void ubus_handle_event(struct ubus_context *ctx)
{
	ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

int ubus_lookup(struct ubus_context *ctx, const char *path,
		ubus_lookup_handler_t cb, void *priv) UBUS_NOEXCEPT;
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id) UBUS_NOEXCEPT;

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj) UBUS_NOEXCEPT;
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj) UBUS_NOEXCEPT;

/* Synchronous call; timeout in ms, 0 waits for ever. Returns the handler's
 * status as it was sent, or a UBUS_STATUS_* of the bus itself. */
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method,
		struct blob_attr *msg, ubus_data_handler_t cb, void *priv, int timeout) UBUS_NOEXCEPT;
int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method,
		      struct blob_attr *msg, struct ubus_request *req) UBUS_NOEXCEPT;
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout) UBUS_NOEXCEPT;
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req) UBUS_NOEXCEPT;
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req) UBUS_NOEXCEPT;

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req,
		    struct blob_attr *msg) UBUS_NOEXCEPT;

static inline void ubus_defer_request(struct ubus_context *ctx,
				      struct ubus_request_data *req,
				      struct ubus_request_data *new_req)
{
	(void)ctx;
	memcpy(new_req, req, sizeof(*req));
	req->deferred = true;
}

void ubus_complete_deferred_request(struct ubus_context *ctx,
				    struct ubus_request_data *req, int ret) UBUS_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* LIBUBUS_H */
