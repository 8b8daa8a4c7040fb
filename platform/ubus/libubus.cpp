// libubus.cpp - the bus client: connection and handshake, published objects
// and the dispatch of calls to their handlers, lookups and calls to others.
//
// Reading: the socket is non-blocking; what arrives is collected in a
// per-context buffer and cut into frames, each copied into a Frame of its own
// so that handlers may call into the library again without invalidating it.
// While a synchronous request waits, only the socket is polled: frames for
// that request are handled at once, every other frame is queued and handled
// later, from the pending timer (uloop) or the next ubus_handle_event.
//
// Connection loss: every open request ends with UBUS_STATUS_CONNECTION_FAILED,
// the socket leaves uloop, and connection_lost runs once, from the loop (never
// in the middle of a synchronous call).
#include <libubus.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <new>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "ubus_wire.h"

namespace {

// Bound on how long a send may wait for the broker to take our bytes.
constexpr int kSendWaitMs = 30000;
// The broker answers a new connection at once; this only guards a hung one.
constexpr int kHelloWaitMs = 5000;

struct Frame {
    std::vector<uint8_t> bytes;
    ubus_wire::Header hdr = {};
    blob_attr *tb[UBUS_ATTR_MAX] = {};
};
using FramePtr = std::unique_ptr<Frame>;

}  // namespace

struct ubus_context_state {
    std::vector<uint8_t> in;  // received, not yet cut into frames: [0, in_len)
    size_t in_len = 0;
    std::deque<FramePtr> queued;          // frames put aside during a synchronous wait
    std::vector<ubus_object *> objects;   // published objects, in the order they were added
    blob_buf b = {};                      // builds outgoing messages; sent before reuse
    bool broken = false;                  // the current socket is gone
    bool lost_pending = false;            // connection_lost still has to run
    bool lost_was_registered = false;     // the socket was in uloop when it was lost
};

namespace {

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// ---- socket ----------------------------------------------------------------

int open_socket(const char *path)
{
    sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(sun.sun_path))
        return -1;
    strcpy(sun.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Reads the broker's greeting on a still blocking socket; the client id or 0.
uint32_t read_hello(int fd)
{
    uint8_t buf[64];
    size_t have = 0, total = 0;
    int64_t deadline = now_ms() + kHelloWaitMs;
    for (;;) {
        auto head = ubus_wire::frame_length(buf, have, &total);
        if (head == ubus_wire::Head::Bad || (head == ubus_wire::Head::Ok && total > sizeof(buf)))
            return 0;
        if (head == ubus_wire::Head::Ok && have >= total)
            break;
        pollfd pfd = {fd, POLLIN, 0};
        int left = static_cast<int>(deadline - now_ms());
        if (left <= 0 || poll(&pfd, 1, left) <= 0)
            return 0;
        size_t want = head == ubus_wire::Head::Ok ? total - have : ubus_wire::kMinFrame - have;
        ssize_t n = read(fd, buf + have, want);
        if (n <= 0)
            return 0;
        have += static_cast<size_t>(n);
    }
    ubus_wire::Header h;
    blob_attr *tb[UBUS_ATTR_MAX];
    if (!ubus_wire::frame_parse(buf, total, &h, tb) || h.type != UBUS_MSG_HELLO)
        return 0;
    return h.peer;
}

// Connects and greets; the descriptor (non-blocking, close-on-exec) or a
// negative UBUS_STATUS_* on failure.
int dial(const char *path, uint32_t *id)
{
    int fd = open_socket(path ? path : UBUS_UNIX_SOCKET);
    if (fd < 0)
        return -UBUS_STATUS_CONNECTION_FAILED;
    *id = read_hello(fd);
    if (*id == 0) {
        close(fd);
        return -UBUS_STATUS_UNKNOWN_ERROR;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return fd;
}

// ---- requests ----------------------------------------------------------------

void complete(ubus_request *req, int status)
{
    list_del_init(&req->list);
    req->status_msg = true;
    req->status_code = status;
    if (req->complete_cb)
        req->complete_cb(req, status);
}

void fail_all(ubus_context *ctx, int status)
{
    while (!list_empty(&ctx->requests))
        complete(list_first_entry(&ctx->requests, ubus_request, list), status);
}

ubus_request *find_request(ubus_context *ctx, const Frame &f)
{
    ubus_request *req;
    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq == f.hdr.seq && req->peer == f.hdr.peer)
            return req;
    }
    return nullptr;
}

bool is_reply_to(const Frame &f, const ubus_request *req)
{
    return (f.hdr.type == UBUS_MSG_STATUS || f.hdr.type == UBUS_MSG_DATA) &&
           f.hdr.seq == req->seq && f.hdr.peer == req->peer;
}

void init_request(ubus_context *ctx, ubus_request *req, uint32_t peer)
{
    memset(req, 0, sizeof(*req));
    INIT_LIST_HEAD(&req->list);
    INIT_LIST_HEAD(&req->pending);
    req->fd = -1;
    req->ctx = ctx;
    req->peer = peer;
    req->seq = ++ctx->request_seq;
}

// ---- sending ---------------------------------------------------------------

void lose(ubus_context *ctx);

blob_buf *start(ubus_context *ctx)
{
    blob_buf_init(&ctx->state->b, 0);
    return &ctx->state->b;
}

// Sends the message built in the context's buffer. 0, or a UBUS_STATUS_*.
int send_msg(ubus_context *ctx, uint8_t type, uint16_t seq, uint32_t peer)
{
    ubus_context_state *st = ctx->state;
    if (ctx->sock.fd < 0 || st->broken)
        return UBUS_STATUS_CONNECTION_FAILED;
    blob_attr *root = st->b.head;
    size_t body = blob_pad_len(root);
    if (ubus_wire::kHeaderLen + body > UBUS_MAX_MSGLEN)
        return UBUS_STATUS_INVALID_ARGUMENT;
    uint8_t hdr[ubus_wire::kHeaderLen];
    ubus_wire::put_header(hdr, type, seq, peer);
    iovec iov[2] = {{hdr, sizeof(hdr)}, {root, body}};
    int64_t deadline = now_ms() + kSendWaitMs;
    int idx = 0;
    while (idx < 2) {
        msghdr mh = {};
        mh.msg_iov = iov + idx;
        mh.msg_iovlen = static_cast<size_t>(2 - idx);
        ssize_t n = sendmsg(ctx->sock.fd, &mh, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            int left = static_cast<int>(deadline - now_ms());
            pollfd pfd = {ctx->sock.fd, POLLOUT, 0};
            if ((errno == EAGAIN || errno == EWOULDBLOCK) && left > 0 && poll(&pfd, 1, left) > 0)
                continue;
            lose(ctx);
            return UBUS_STATUS_CONNECTION_FAILED;
        }
        size_t done = static_cast<size_t>(n);
        while (idx < 2 && done >= iov[idx].iov_len) {
            done -= iov[idx].iov_len;
            idx++;
        }
        if (idx < 2) {
            iov[idx].iov_base = static_cast<uint8_t *>(iov[idx].iov_base) + done;
            iov[idx].iov_len -= done;
        }
    }
    return 0;
}

int send_status(ubus_context *ctx, const ubus_request_data *rd, int status)
{
    blob_buf *b = start(ctx);
    blob_put_int32(b, UBUS_ATTR_OBJID, rd->object);
    blob_put_int32(b, UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    return send_msg(ctx, UBUS_MSG_STATUS, rd->seq, rd->peer);
}

void put_data(blob_buf *b, blob_attr *msg)
{
    if (msg)
        blob_put(b, UBUS_ATTR_DATA, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    else
        blob_put(b, UBUS_ATTR_DATA, nullptr, 0);
}

// ---- receiving -------------------------------------------------------------

// Reads what the socket holds and appends complete frames to out. false: the
// connection is gone (end of stream, error, or bytes that are no frame).
bool pull(ubus_context *ctx, std::deque<FramePtr> &out)
{
    ubus_context_state *st = ctx->state;
    if (ctx->sock.fd < 0 || st->broken)
        return false;
    for (;;) {
        if (st->in.size() < st->in_len + UBUS_MSG_CHUNK_SIZE)
            st->in.resize(st->in_len + UBUS_MSG_CHUNK_SIZE);
        ssize_t n = read(ctx->sock.fd, st->in.data() + st->in_len, st->in.size() - st->in_len);
        if (n == 0)
            return false;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                break;
            return false;
        }
        size_t room = st->in.size() - st->in_len;
        st->in_len += static_cast<size_t>(n);
        size_t pos = 0;
        for (;;) {
            size_t total = 0;
            auto head = ubus_wire::frame_length(st->in.data() + pos, st->in_len - pos, &total);
            if (head == ubus_wire::Head::Bad)
                return false;
            if (head == ubus_wire::Head::NeedMore || st->in_len - pos < total)
                break;
            auto f = std::make_unique<Frame>();
            f->bytes.assign(st->in.data() + pos, st->in.data() + pos + total);
            if (!ubus_wire::frame_parse(f->bytes.data(), total, &f->hdr, f->tb))
                return false;
            out.push_back(std::move(f));
            pos += total;
        }
        if (pos > 0) {
            memmove(st->in.data(), st->in.data() + pos, st->in_len - pos);
            st->in_len -= pos;
        }
        // A short read took all there was; what comes later wakes poll again.
        if (static_cast<size_t>(n) < room)
            break;
    }
    if (st->in_len == 0 && st->in.size() > 2 * UBUS_MSG_CHUNK_SIZE)
        std::vector<uint8_t>().swap(st->in);
    return true;
}

ubus_object *find_object(ubus_context *ctx, uint32_t id)
{
    for (ubus_object *o : ctx->state->objects) {
        if (o->id == id && id != 0)
            return o;
    }
    return nullptr;
}

void handle_invoke(ubus_context *ctx, Frame &f)
{
    ubus_request_data rd = {};
    rd.peer = f.hdr.peer;
    rd.seq = f.hdr.seq;
    rd.fd = -1;
    rd.req_fd = -1;
    if (!f.tb[UBUS_ATTR_OBJID] || !f.tb[UBUS_ATTR_METHOD]) {
        send_status(ctx, &rd, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    rd.object = blob_get_u32(f.tb[UBUS_ATTR_OBJID]);
    ubus_object *obj = find_object(ctx, rd.object);
    if (!obj) {
        send_status(ctx, &rd, UBUS_STATUS_NOT_FOUND);
        return;
    }
    const char *name = blob_get_string(f.tb[UBUS_ATTR_METHOD]);
    const ubus_method *m = nullptr;
    for (int i = 0; i < obj->n_methods; i++) {
        if (!obj->methods[i].name || !strcmp(obj->methods[i].name, name)) {
            m = &obj->methods[i];
            break;
        }
    }
    if (!m || !m->handler) {
        send_status(ctx, &rd, UBUS_STATUS_METHOD_NOT_FOUND);
        return;
    }
    // Callers always send DATA; an empty one stands in should it be missing.
    uint32_t empty = cpu_to_be32((UBUS_ATTR_DATA << BLOB_ATTR_ID_SHIFT) | sizeof(blob_attr));
    blob_attr *msg = f.tb[UBUS_ATTR_DATA] ? f.tb[UBUS_ATTR_DATA]
                                          : reinterpret_cast<blob_attr *>(&empty);
    int ret = m->handler(ctx, obj, &rd, name, msg);
    if (!rd.deferred)
        send_status(ctx, &rd, ret);
}

void deliver_reply(ubus_request *req, Frame &f)
{
    if (f.hdr.type == UBUS_MSG_DATA) {
        blob_attr *root = reinterpret_cast<blob_attr *>(f.bytes.data() + ubus_wire::kHeaderLen);
        if (req->raw_data_cb)
            req->raw_data_cb(req, UBUS_MSG_DATA, root);
        if (req->data_cb && f.tb[UBUS_ATTR_DATA])
            req->data_cb(req, UBUS_MSG_DATA, f.tb[UBUS_ATTR_DATA]);
        return;
    }
    int status = f.tb[UBUS_ATTR_STATUS] ? static_cast<int>(blob_get_u32(f.tb[UBUS_ATTR_STATUS]))
                                        : UBUS_STATUS_NO_DATA;
    complete(req, status);
}

void dispatch(ubus_context *ctx, Frame &f)
{
    switch (f.hdr.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        if (ubus_request *req = find_request(ctx, f))
            deliver_reply(req, f);
        break;
    case UBUS_MSG_INVOKE:
        handle_invoke(ctx, f);
        break;
    default:
        break;  // notifications of features this library does not offer
    }
}

void default_connection_lost(ubus_context *ctx)
{
    if (ctx->state && ctx->state->lost_was_registered)
        uloop_end();
}

// Runs connection_lost unless a synchronous call is in progress, in which
// case the pending timer (or the next ubus_handle_event) does it later.
void report_lost(ubus_context *ctx)
{
    ubus_context_state *st = ctx->state;
    if (ctx->stack_depth > 0) {
        if (st->lost_was_registered)
            uloop_timeout_set(&ctx->pending_timer, 0);
        return;
    }
    st->lost_pending = false;
    if (ctx->connection_lost)
        ctx->connection_lost(ctx);  // may reconnect or free the context: touch nothing after
}

// The current socket is gone. Ends every open request; the socket stays open
// (sock.fd valid) until ubus_reconnect or ubus_free.
void lose(ubus_context *ctx)
{
    ubus_context_state *st = ctx->state;
    if (st->broken)
        return;
    st->broken = true;
    st->lost_pending = true;
    ctx->sock.eof = true;
    st->lost_was_registered = ctx->sock.registered;
    if (ctx->sock.registered) {
        uloop_fd_delete(&ctx->sock);
        // Makes sure connection_lost runs from the loop even when the loss
        // was noticed outside the socket's own callback.
        uloop_timeout_set(&ctx->pending_timer, 0);
    }
    fail_all(ctx, UBUS_STATUS_CONNECTION_FAILED);
}

// Handles frames put aside during synchronous waits, oldest first.
void run_queued(ubus_context *ctx)
{
    ubus_context_state *st = ctx->state;
    while (!st->queued.empty() && !st->broken) {
        FramePtr f = std::move(st->queued.front());
        st->queued.pop_front();
        dispatch(ctx, *f);
    }
}

void pending_cb(uloop_timeout *t)
{
    ubus_context *ctx = container_of(t, ubus_context, pending_timer);
    run_queued(ctx);
    if (ctx->state->lost_pending)
        report_lost(ctx);
}

void sock_cb(uloop_fd *u, unsigned int events)
{
    (void)events;
    ubus_context *ctx = container_of(u, ubus_context, sock);
    ubus_context_state *st = ctx->state;
    run_queued(ctx);
    std::deque<FramePtr> fresh;
    bool ok = !st->broken && pull(ctx, fresh);
    for (auto &f : fresh) {
        if (st->broken)
            break;
        dispatch(ctx, *f);
    }
    if (!ok)
        lose(ctx);
    if (st->lost_pending)
        report_lost(ctx);
}

// Waits until req has its status, handling only frames that answer it.
// Returns its status, UBUS_STATUS_TIMEOUT (req aborted) or
// UBUS_STATUS_CONNECTION_FAILED.
int wait_for(ubus_context *ctx, ubus_request *req, int timeout_ms)
{
    ubus_context_state *st = ctx->state;
    int64_t deadline = timeout_ms > 0 ? now_ms() + timeout_ms : 0;
    int result = -1;
    ctx->stack_depth++;
    while (!req->status_msg) {
        // Answers that a nested wait put aside come first.
        bool handled = false;
        for (auto it = st->queued.begin(); it != st->queued.end(); ++it) {
            if (is_reply_to(**it, req)) {
                FramePtr f = std::move(*it);
                st->queued.erase(it);
                dispatch(ctx, *f);
                handled = true;
                break;
            }
        }
        if (handled)
            continue;
        if (st->broken) {
            complete(req, UBUS_STATUS_CONNECTION_FAILED);
            break;
        }
        int wait = -1;
        if (deadline) {
            int64_t left = deadline - now_ms();
            if (left <= 0) {
                ubus_abort_request(ctx, req);
                result = UBUS_STATUS_TIMEOUT;
                break;
            }
            wait = static_cast<int>(left);
        }
        pollfd pfd = {ctx->sock.fd, POLLIN, 0};
        int n = poll(&pfd, 1, wait);
        if (n < 0 && errno != EINTR) {
            lose(ctx);
            continue;
        }
        if (n <= 0)
            continue;
        std::deque<FramePtr> fresh;
        bool ok = pull(ctx, fresh);
        for (auto &f : fresh) {
            if (!req->status_msg && is_reply_to(*f, req))
                dispatch(ctx, *f);
            else
                st->queued.push_back(std::move(f));
        }
        if (!ok)
            lose(ctx);
    }
    ctx->stack_depth--;
    if (result < 0)
        result = req->status_code;
    if (ctx->stack_depth == 0 && !st->queued.empty() && ctx->sock.registered)
        uloop_timeout_set(&ctx->pending_timer, 0);
    return result;
}

// ---- lookups and objects ---------------------------------------------------

void split(blob_attr *root, blob_attr **tb)
{
    for (int i = 0; i < UBUS_ATTR_MAX; i++)
        tb[i] = nullptr;
    // The frame was validated when it was read.
    size_t rem = blob_len(root);
    for (blob_attr *cur = static_cast<blob_attr *>(blob_data(root)); rem >= sizeof(blob_attr);) {
        size_t step = blob_pad_len(cur) < rem ? blob_pad_len(cur) : rem;
        if (blob_id(cur) < UBUS_ATTR_MAX)
            tb[blob_id(cur)] = cur;
        cur = reinterpret_cast<blob_attr *>(reinterpret_cast<char *>(cur) + step);
        rem -= step;
    }
}

struct LookupCall {
    ubus_context *ctx;
    ubus_lookup_handler_t cb;
    void *priv;
};

void lookup_data(ubus_request *req, int type, blob_attr *root)
{
    (void)type;
    auto *call = static_cast<LookupCall *>(req->priv);
    blob_attr *tb[UBUS_ATTR_MAX];
    split(root, tb);
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_OBJPATH])
        return;
    ubus_object_data od = {};
    od.id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    od.type_id = tb[UBUS_ATTR_OBJTYPE] ? blob_get_u32(tb[UBUS_ATTR_OBJTYPE]) : 0;
    od.path = blob_get_string(tb[UBUS_ATTR_OBJPATH]);
    od.signature = tb[UBUS_ATTR_SIGNATURE];
    call->cb(call->ctx, &od, call->priv);
}

void lookup_id_cb(ubus_context *ctx, ubus_object_data *obj, void *priv)
{
    (void)ctx;
    auto *id = static_cast<uint32_t *>(priv);
    if (!*id)
        *id = obj->id;
}

struct AddReply {
    uint32_t id = 0;
    uint32_t type_id = 0;
};

void object_data(ubus_request *req, int type, blob_attr *root)
{
    (void)type;
    auto *r = static_cast<AddReply *>(req->priv);
    blob_attr *tb[UBUS_ATTR_MAX];
    split(root, tb);
    if (tb[UBUS_ATTR_OBJID])
        r->id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    if (tb[UBUS_ATTR_OBJTYPE])
        r->type_id = blob_get_u32(tb[UBUS_ATTR_OBJTYPE]);
}

// One table per method, each listing the published arguments and their types.
void put_signature(blob_buf *b, const ubus_method *methods, int n)
{
    void *sig = blob_nest_start(b, UBUS_ATTR_SIGNATURE);
    for (int i = 0; i < n; i++) {
        const ubus_method &m = methods[i];
        if (!m.name)
            continue;
        void *t = blobmsg_open_table(b, m.name);
        for (int p = 0; p < m.n_policy && m.policy; p++) {
            if (m.mask && !(m.mask & (1ul << p)))
                continue;
            if (m.policy[p].name)
                blobmsg_add_u32(b, m.policy[p].name, m.policy[p].type);
        }
        blobmsg_close_table(b, t);
    }
    blob_nest_end(b, sig);
}

int publish_once(ubus_context *ctx, ubus_object *obj);

// Registers obj with the broker over the current connection. A type id the
// broker no longer knows (its last object went away with another connection)
// is dropped and the type published anew from its methods.
int publish(ubus_context *ctx, ubus_object *obj)
{
    int ret = publish_once(ctx, obj);
    if (ret == UBUS_STATUS_NOT_FOUND && obj->type && obj->type->id) {
        obj->type->id = 0;
        ret = publish_once(ctx, obj);
    }
    return ret;
}

int publish_once(ubus_context *ctx, ubus_object *obj)
{
    if (!obj->name || !*obj->name)
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf *b = start(ctx);
    blob_put_string(b, UBUS_ATTR_OBJPATH, obj->name);
    if (obj->type && obj->type->id)
        blob_put_int32(b, UBUS_ATTR_OBJTYPE, obj->type->id);
    else if (obj->type)
        put_signature(b, obj->type->methods, obj->type->n_methods);
    else
        put_signature(b, obj->methods, obj->n_methods);
    ubus_request req;
    init_request(ctx, &req, 0);
    AddReply reply;
    req.raw_data_cb = object_data;
    req.priv = &reply;
    list_add_tail(&req.list, &ctx->requests);
    int ret = send_msg(ctx, UBUS_MSG_ADD_OBJECT, req.seq, 0);
    if (ret) {
        list_del_init(&req.list);
        return ret;
    }
    ret = wait_for(ctx, &req, 0);
    if (ret)
        return ret;
    if (!reply.id)
        return UBUS_STATUS_NO_DATA;
    obj->id = reply.id;
    if (obj->type && reply.type_id)
        obj->type->id = reply.type_id;
    return 0;
}

// Takes the socket off the loop, closes it and ends every open request.
void close_socket(ubus_context *ctx)
{
    if (ctx->sock.registered)
        uloop_fd_delete(&ctx->sock);
    if (ctx->pending_timer.pending)
        uloop_timeout_cancel(&ctx->pending_timer);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    ctx->sock.fd = -1;
    ctx->state->broken = true;
    fail_all(ctx, UBUS_STATUS_CONNECTION_FAILED);
}

void release(ubus_context *ctx)
{
    ubus_context_state *st = ctx->state;
    if (!st)
        return;
    close_socket(ctx);
    for (ubus_object *o : st->objects)
        o->id = 0;
    blob_buf_free(&st->b);
    delete st;
    ctx->state = nullptr;
}

void auto_reconnect(uloop_timeout *t);

void auto_lost(ubus_context *ctx)
{
    ubus_auto_conn *conn = container_of(ctx, ubus_auto_conn, ctx);
    uloop_timeout_set(&conn->timer, 1000);
}

void auto_reconnect(uloop_timeout *t)
{
    ubus_auto_conn *conn = container_of(t, ubus_auto_conn, timer);
    int ret = conn->ctx.state ? ubus_reconnect(&conn->ctx, conn->path)
                              : ubus_connect_ctx(&conn->ctx, conn->path);
    if (ret) {
        if (!conn->ctx.state)
            fprintf(stderr, "failed to connect to ubus\n");
        uloop_timeout_set(&conn->timer, 1000);
        return;
    }
    conn->ctx.connection_lost = auto_lost;
    ubus_add_uloop(&conn->ctx);
    if (conn->cb)
        conn->cb(&conn->ctx);
}

const char *const kStatusText[] = {
    "Success",
    "Invalid command",
    "Invalid argument",
    "Method not found",
    "Not found",
    "No response",
    "Permission denied",
    "Request timed out",
    "Operation not supported",
    "Unknown error",
    "Connection failed",
    "Out of memory",
    "Parsing message data failed",
    "System error",
};
static_assert(ARRAY_SIZE(kStatusText) == __UBUS_STATUS_LAST, "one text per status code");

}  // namespace

// ---- public API --------------------------------------------------------------

extern "C" {

int ubus_connect_ctx(struct ubus_context *ctx, const char *path) noexcept
{
    // As upstream: every connection sets up the event loop first, with its signal
    // handling (SIGINT, SIGTERM, SIGCHLD unless uloop_handle_sigchld is cleared).
    uloop_init();
    memset(ctx, 0, sizeof(*ctx));
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    ctx->sock.fd = -1;
    uint32_t id = 0;
    int fd = dial(path, &id);
    if (fd < 0)
        return -1;
    ctx->state = new (std::nothrow) ubus_context_state;
    if (!ctx->state) {
        close(fd);
        return -1;
    }
    ctx->sock.fd = fd;
    ctx->sock.cb = sock_cb;
    ctx->pending_timer.cb = pending_cb;
    ctx->local_id = id;
    ctx->connection_lost = default_connection_lost;
    return 0;
}

struct ubus_context *ubus_connect(const char *path) noexcept
{
    auto *ctx = static_cast<ubus_context *>(calloc(1, sizeof(ubus_context)));
    if (!ctx)
        return nullptr;
    if (ubus_connect_ctx(ctx, path) != 0) {
        free(ctx);
        return nullptr;
    }
    return ctx;
}

void ubus_auto_connect(struct ubus_auto_conn *conn) noexcept
{
    conn->timer.cb = auto_reconnect;
    conn->ctx.state = nullptr;
    auto_reconnect(&conn->timer);
}

int ubus_reconnect(struct ubus_context *ctx, const char *path) noexcept
{
    ubus_context_state *st = ctx->state;
    if (!st)
        return UBUS_STATUS_INVALID_ARGUMENT;
    close_socket(ctx);
    st->queued.clear();
    st->in_len = 0;
    st->lost_pending = false;
    for (ubus_object *o : st->objects) {
        o->id = 0;
        if (o->type)
            o->type->id = 0;
    }

    uint32_t id = 0;
    int fd = dial(path, &id);
    if (fd < 0)
        return -fd;
    ctx->sock.fd = fd;
    ctx->sock.eof = false;
    ctx->sock.error = false;
    ctx->local_id = id;
    st->broken = false;
    int ret = 0;
    for (ubus_object *o : st->objects) {
        int r = publish(ctx, o);
        if (r && !ret)
            ret = r;
    }
    return ret;
}

void ubus_shutdown(struct ubus_context *ctx) noexcept
{
    release(ctx);
}

void ubus_free(struct ubus_context *ctx) noexcept
{
    if (!ctx)
        return;
    release(ctx);
    free(ctx);
}

const char *ubus_strerror(int error) noexcept
{
    static char buf[32];
    if (error >= 0 && error < __UBUS_STATUS_LAST)
        return kStatusText[error];
    snprintf(buf, sizeof(buf), "Unknown error: %d", error);
    return buf;
}

int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb,
                void *priv) noexcept
{
    blob_buf *b = start(ctx);
    if (path)
        blob_put_string(b, UBUS_ATTR_OBJPATH, path);
    ubus_request req;
    init_request(ctx, &req, 0);
    LookupCall call = {ctx, cb, priv};
    req.raw_data_cb = lookup_data;
    req.priv = &call;
    list_add_tail(&req.list, &ctx->requests);
    int ret = send_msg(ctx, UBUS_MSG_LOOKUP, req.seq, 0);
    if (ret) {
        list_del_init(&req.list);
        return ret;
    }
    return wait_for(ctx, &req, 0);
}

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id) noexcept
{
    *id = 0;
    if (!path)
        return UBUS_STATUS_INVALID_ARGUMENT;
    // The broker's status as it stands: for an object the caller may not use it answers
    // with no object and success, and id stays 0, as with the device's library (a call on
    // it then fails with UBUS_STATUS_NOT_FOUND).
    return ubus_lookup(ctx, path, lookup_id_cb, id);
}

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj) noexcept
{
    for (ubus_object *o : ctx->state->objects) {
        if (o == obj)
            return UBUS_STATUS_INVALID_ARGUMENT;
    }
    int ret = publish(ctx, obj);
    if (ret == 0)
        ctx->state->objects.push_back(obj);
    return ret;
}

int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj) noexcept
{
    auto &objs = ctx->state->objects;
    auto it = objs.begin();
    while (it != objs.end() && *it != obj)
        ++it;
    if (it == objs.end())
        return UBUS_STATUS_INVALID_ARGUMENT;
    int ret = 0;
    if (obj->id) {
        blob_buf *b = start(ctx);
        blob_put_int32(b, UBUS_ATTR_OBJID, obj->id);
        ubus_request req;
        init_request(ctx, &req, 0);
        AddReply reply;
        req.raw_data_cb = object_data;
        req.priv = &reply;
        list_add_tail(&req.list, &ctx->requests);
        ret = send_msg(ctx, UBUS_MSG_REMOVE_OBJECT, req.seq, 0);
        if (ret)
            list_del_init(&req.list);
        else
            ret = wait_for(ctx, &req, 0);
        if (ret == 0 && reply.type_id && obj->type)
            obj->type->id = 0;
    }
    // Forget it locally either way: a broken connection took it off the bus.
    if (ret == 0 || ret == UBUS_STATUS_CONNECTION_FAILED) {
        objs.erase(std::find(objs.begin(), objs.end(), obj));
        obj->id = 0;
        ret = 0;
    }
    return ret;
}

int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method,
                      struct blob_attr *msg, struct ubus_request *req) noexcept
{
    if (!method)
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf *b = start(ctx);
    blob_put_int32(b, UBUS_ATTR_OBJID, obj);
    blob_put_string(b, UBUS_ATTR_METHOD, method);
    put_data(b, msg);
    init_request(ctx, req, obj);
    list_add_tail(&req->list, &ctx->requests);
    int ret = send_msg(ctx, UBUS_MSG_INVOKE, req->seq, obj);
    if (ret)
        list_del_init(&req->list);
    return ret;
}

int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method,
                struct blob_attr *msg, ubus_data_handler_t cb, void *priv, int timeout) noexcept
{
    ubus_request req;
    int ret = ubus_invoke_async(ctx, obj, method, msg, &req);
    if (ret)
        return ret;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout) noexcept
{
    if (req->status_msg)
        return req->status_code;
    if (list_empty(&req->list))
        return UBUS_STATUS_INVALID_ARGUMENT;  // aborted, or never sent
    req->blocked = true;
    int ret = wait_for(ctx, req, timeout);
    req->blocked = false;
    return ret;
}

void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req) noexcept
{
    (void)ctx;
    req->blocked = false;  // already listed: its answers are handled from the loop
}

void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req) noexcept
{
    (void)ctx;
    list_del_init(&req->list);
    req->cancelled = true;
}

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req,
                    struct blob_attr *msg) noexcept
{
    blob_buf *b = start(ctx);
    blob_put_int32(b, UBUS_ATTR_OBJID, req->object);
    put_data(b, msg);
    return send_msg(ctx, UBUS_MSG_DATA, req->seq, req->peer) ? UBUS_STATUS_NO_DATA : 0;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                    int ret) noexcept
{
    send_status(ctx, req, ret);
}

}  // extern "C"
