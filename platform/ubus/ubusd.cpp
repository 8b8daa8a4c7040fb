// ubusd.cpp - the bus broker: clients connect over a Unix socket, publish
// objects under unique paths, look them up and call each other's methods
// through it.
//
// One thread, one epoll set; it blocks in epoll_wait while idle. Every
// descriptor is non-blocking and close-on-exec. A client that sends a frame
// that is not well formed is disconnected; the others are served on. Writes
// that cannot complete at once are queued per client; a client that stops
// reading and lets its queue grow past kMaxQueued is disconnected too.
//
// Calls: the broker forwards an INVOKE to the object's owner and remembers
// (caller, seq, object) until the owner's STATUS comes back. Replies that
// match no open call are dropped. When an owner goes away, each call still
// open on its objects is answered with UBUS_STATUS_NO_DATA; when a caller goes
// away its open calls are forgotten. The caller's own time-out ends a call
// that never gets an answer.
//
// Access: root may do everything; other users only what the rule files of the ACL folder
// (-A, /usr/share/acl.d by default) grant them, read at start and again on SIGHUP
// (ubusd_acl.h). A lookup shows another user only the objects it may call a method of,
// with only those methods; a call of any other method is refused with
// UBUS_STATUS_PERMISSION_DENIED, a publication without a grant with
// UBUS_STATUS_INVALID_ARGUMENT.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <fcntl.h>
#include <getopt.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <libubox/blob.h>
#include <libubox/blobmsg.h>

#include "ubus_common.h"
#include "ubus_wire.h"
#include "ubusd_acl.h"
#include "ubusmsg.h"

namespace {

using ubus_wire::Header;

constexpr size_t kReadChunk = UBUS_MSG_CHUNK_SIZE;
constexpr size_t kMaxQueued = 8 * UBUS_MAX_MSGLEN;
constexpr uint64_t kListenTag = 0;  // epoll tags; client ids are >= UBUS_SYSTEM_OBJECT_MAX
constexpr uint64_t kSignalTag = 1;

bool gVerbose = false;
std::string gAclDir = "/usr/share/acl.d";

#define TRACE(...)                                                                    \
    do {                                                                              \
        if (gVerbose)                                                                 \
            fprintf(stderr, "ubusd: " __VA_ARGS__);                                   \
    } while (0)

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

struct ObjType {
    uint32_t id = 0;
    std::vector<uint8_t> signature;  // payload of the SIGNATURE attribute
    int refs = 0;
};

struct Client;

struct Object {
    uint32_t id = 0;
    std::string path;
    Client *owner = nullptr;
    ObjType *type = nullptr;
};

struct Client {
    uint32_t id = 0;
    Fd fd;
    std::vector<uint8_t> in;  // received bytes not yet handled: [0, in_len)
    size_t in_len = 0;
    std::deque<std::vector<uint8_t>> out;  // queued writes; the first is sent from out_off
    size_t out_off = 0;
    size_t out_bytes = 0;
    bool dead = false;
    std::vector<uint32_t> objects;  // ids of the objects it published
    ubusd_acl::Cred cred;
};

// An open call: who asked, with which seq, of which object.
using CallKey = std::tuple<uint32_t, uint16_t, uint32_t>;

class Broker {
public:
    int run(const char *path);

private:
    bool listen_on(const char *path);
    uint32_t new_id();
    void accept_clients();
    void on_readable(Client *c);
    void on_writable(Client *c);
    void flush(Client *c);
    void drop(Client *c, const char *why);
    void reap();
    void handle(Client *c, const uint8_t *frame, size_t len);

    void send(Client *c, uint8_t type, uint16_t seq, uint32_t peer, const blob_attr *root);
    void send_status(Client *c, const Header &h, int status, uint32_t objid = 0);
    blob_attr *start();

    bool put_visible(Client *c, const Object *o);
    void do_lookup(Client *c, const Header &h, blob_attr **tb);
    void do_add_object(Client *c, const Header &h, blob_attr **tb);
    void do_remove_object(Client *c, const Header &h, blob_attr **tb);
    void do_invoke(Client *c, const Header &h, blob_attr **tb);
    void do_reply(Client *c, const Header &h, const uint8_t *frame, size_t len, blob_attr **tb);
    void fail_calls_to(uint32_t objid);
    void remove_object(Object *o, bool *type_freed);

    Fd epfd_, listen_, sigfd_;
    std::unordered_map<uint32_t, std::unique_ptr<Client>> clients_;
    std::unordered_map<uint32_t, std::unique_ptr<Object>> objects_;
    std::map<std::string, Object *> by_path_;  // path order for lookups
    std::unordered_map<uint32_t, std::unique_ptr<ObjType>> types_;
    std::unordered_set<uint32_t> ids_;
    std::map<CallKey, uint32_t> calls_;  // open call -> owner's client id
    std::vector<uint32_t> dead_;
    blob_buf b_ = {};
    ubusd_acl::Rules acl_;
};

uint32_t Broker::new_id()
{
    for (;;) {
        uint32_t id = 0;
        if (getrandom(&id, sizeof(id), 0) != sizeof(id))
            id = static_cast<uint32_t>(random()) ^ (static_cast<uint32_t>(random()) << 16);
        if (id < UBUS_SYSTEM_OBJECT_MAX || ids_.count(id))
            continue;
        ids_.insert(id);
        return id;
    }
}

bool Broker::listen_on(const char *path)
{
    sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(sun.sun_path)) {
        fprintf(stderr, "ubusd: socket path too long: %s\n", path);
        return false;
    }
    strcpy(sun.sun_path, path);
    listen_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (listen_.get() < 0) {
        perror("ubusd: socket");
        return false;
    }
    unlink(path);
    mode_t old = umask(0111);
    int rc = bind(listen_.get(), reinterpret_cast<sockaddr *>(&sun), sizeof(sun));
    umask(old);
    if (rc < 0 || listen(listen_.get(), SOMAXCONN) < 0) {
        fprintf(stderr, "ubusd: cannot listen on %s: %s\n", path, strerror(errno));
        return false;
    }
    return true;
}

int Broker::run(const char *path)
{
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);  // reads the rule files again
    sigprocmask(SIG_BLOCK, &set, nullptr);
    sigfd_.reset(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    epfd_.reset(epoll_create1(EPOLL_CLOEXEC));
    if (sigfd_.get() < 0 || epfd_.get() < 0) {
        perror("ubusd");
        return 1;
    }
    if (!listen_on(path))
        return 1;
    acl_.load(gAclDir);

    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.u64 = kListenTag;
    epoll_ctl(epfd_.get(), EPOLL_CTL_ADD, listen_.get(), &ev);
    ev.data.u64 = kSignalTag;
    epoll_ctl(epfd_.get(), EPOLL_CTL_ADD, sigfd_.get(), &ev);

    bool running = true;
    while (running) {
        epoll_event events[64];
        int n = epoll_wait(epfd_.get(), events, 64, -1);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            perror("ubusd: epoll_wait");
            break;
        }
        for (int i = 0; i < n; i++) {
            uint64_t tag = events[i].data.u64;
            if (tag == kListenTag) {
                accept_clients();
            } else if (tag == kSignalTag) {
                signalfd_siginfo si;
                while (read(sigfd_.get(), &si, sizeof(si)) == sizeof(si)) {
                    if (si.ssi_signo != SIGHUP)
                        running = false;
                    else
                        acl_.load(gAclDir);
                }
            } else {
                auto it = clients_.find(static_cast<uint32_t>(tag));
                if (it == clients_.end() || it->second->dead)
                    continue;
                Client *c = it->second.get();
                if (events[i].events & EPOLLOUT)
                    on_writable(c);
                if (!c->dead && (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)))
                    on_readable(c);
            }
        }
        reap();
    }
    unlink(path);
    blob_buf_free(&b_);
    return 0;
}

void Broker::accept_clients()
{
    for (;;) {
        int fd = accept4(listen_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                perror("ubusd: accept");
            return;
        }
        auto c = std::make_unique<Client>();
        c->fd.reset(fd);
        if (!ubusd_acl::peer_cred(fd, &c->cred))
            continue;  // closed with c
        c->id = new_id();
        epoll_event ev = {};
        ev.events = EPOLLIN;
        ev.data.u64 = c->id;
        if (epoll_ctl(epfd_.get(), EPOLL_CTL_ADD, fd, &ev) < 0) {
            ids_.erase(c->id);
            continue;
        }
        Client *raw = c.get();
        clients_[c->id] = std::move(c);
        TRACE("client %08x connected\n", raw->id);
        send(raw, UBUS_MSG_HELLO, 0, raw->id, start());
    }
}

void Broker::on_readable(Client *c)
{
    if (c->in.size() < c->in_len + kReadChunk)
        c->in.resize(c->in_len + kReadChunk);
    ssize_t n = read(c->fd.get(), c->in.data() + c->in_len, c->in.size() - c->in_len);
    if (n == 0) {
        drop(c, nullptr);
        return;
    }
    if (n < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            drop(c, nullptr);
        return;
    }
    c->in_len += static_cast<size_t>(n);

    size_t pos = 0;
    while (!c->dead) {
        size_t total = 0;
        auto head = ubus_wire::frame_length(c->in.data() + pos, c->in_len - pos, &total);
        if (head == ubus_wire::Head::Bad) {
            drop(c, "sent a malformed message header");
            return;
        }
        if (head == ubus_wire::Head::NeedMore || c->in_len - pos < total) {
            if (head == ubus_wire::Head::Ok && c->in.size() < pos + total)
                c->in.resize(pos + total);
            break;
        }
        handle(c, c->in.data() + pos, total);
        pos += total;
    }
    if (c->dead)
        return;
    if (pos > 0) {
        memmove(c->in.data(), c->in.data() + pos, c->in_len - pos);
        c->in_len -= pos;
    }
    // Give back what one large message made us hold.
    if (c->in_len == 0 && c->in.size() > 2 * kReadChunk)
        std::vector<uint8_t>().swap(c->in);
}

void Broker::on_writable(Client *c)
{
    flush(c);
    if (!c->dead && c->out.empty()) {
        epoll_event ev = {};
        ev.events = EPOLLIN;
        ev.data.u64 = c->id;
        epoll_ctl(epfd_.get(), EPOLL_CTL_MOD, c->fd.get(), &ev);
    }
}

void Broker::flush(Client *c)
{
    while (!c->out.empty()) {
        auto &front = c->out.front();
        ssize_t n = ::send(c->fd.get(), front.data() + c->out_off, front.size() - c->out_off,
                           MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
                return;
            drop(c, nullptr);
            return;
        }
        c->out_off += static_cast<size_t>(n);
        c->out_bytes -= static_cast<size_t>(n);
        if (c->out_off == front.size()) {
            c->out.pop_front();
            c->out_off = 0;
        }
    }
}

void Broker::send(Client *c, uint8_t type, uint16_t seq, uint32_t peer, const blob_attr *root)
{
    if (c->dead)
        return;
    uint8_t hdr[ubus_wire::kHeaderLen];
    ubus_wire::put_header(hdr, type, seq, peer);
    size_t body = blob_pad_len(root);
    size_t total = sizeof(hdr) + body;
    size_t sent = 0;
    if (c->out.empty()) {
        iovec iov[2] = {{hdr, sizeof(hdr)}, {const_cast<blob_attr *>(root), body}};
        msghdr mh = {};
        mh.msg_iov = iov;
        mh.msg_iovlen = 2;
        ssize_t n = sendmsg(c->fd.get(), &mh, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                drop(c, nullptr);
                return;
            }
            n = 0;
        }
        sent = static_cast<size_t>(n);
        if (sent == total)
            return;
    }
    if (c->out_bytes + total - sent > kMaxQueued) {
        drop(c, "does not read its messages");
        return;
    }
    std::vector<uint8_t> rest;
    rest.reserve(total - sent);
    const uint8_t *rp = reinterpret_cast<const uint8_t *>(root);
    for (size_t i = sent; i < total; i++)
        rest.push_back(i < sizeof(hdr) ? hdr[i] : rp[i - sizeof(hdr)]);
    bool was_empty = c->out.empty();
    c->out_bytes += rest.size();
    c->out.push_back(std::move(rest));
    if (was_empty) {
        epoll_event ev = {};
        ev.events = EPOLLIN | EPOLLOUT;
        ev.data.u64 = c->id;
        epoll_ctl(epfd_.get(), EPOLL_CTL_MOD, c->fd.get(), &ev);
    }
}

blob_attr *Broker::start()
{
    blob_buf_init(&b_, 0);
    return b_.head;
}

void Broker::send_status(Client *c, const Header &h, int status, uint32_t objid)
{
    start();
    if (objid)
        blob_put_int32(&b_, UBUS_ATTR_OBJID, objid);
    blob_put_int32(&b_, UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    send(c, UBUS_MSG_STATUS, h.seq, h.peer, b_.head);
}

void Broker::handle(Client *c, const uint8_t *frame, size_t len)
{
    Header h;
    blob_attr *tb[UBUS_ATTR_MAX];
    if (!ubus_wire::frame_parse(frame, len, &h, tb)) {
        drop(c, "sent a malformed message");
        return;
    }
    TRACE("client %08x: type %u seq %u peer %08x\n", c->id, h.type, h.seq, h.peer);
    switch (h.type) {
    case UBUS_MSG_PING: {
        const blob_attr *root = reinterpret_cast<const blob_attr *>(frame + ubus_wire::kHeaderLen);
        send(c, UBUS_MSG_DATA, h.seq, h.peer, root);
        break;
    }
    case UBUS_MSG_LOOKUP:
        do_lookup(c, h, tb);
        break;
    case UBUS_MSG_ADD_OBJECT:
        do_add_object(c, h, tb);
        break;
    case UBUS_MSG_REMOVE_OBJECT:
        do_remove_object(c, h, tb);
        break;
    case UBUS_MSG_INVOKE:
        do_invoke(c, h, tb);
        break;
    case UBUS_MSG_DATA:
    case UBUS_MSG_STATUS:
        do_reply(c, h, frame, len, tb);
        break;
    default:
        send_status(c, h, UBUS_STATUS_INVALID_COMMAND);
        break;
    }
}

// Puts o's description into b_ with the methods c may call; false (nothing to send) when
// it has methods and c may call none of them.
bool Broker::put_visible(Client *c, const Object *o)
{
    start();
    blob_put_string(&b_, UBUS_ATTR_OBJPATH, o->path.c_str());
    blob_put_int32(&b_, UBUS_ATTR_OBJID, o->id);
    blob_put_int32(&b_, UBUS_ATTR_OBJTYPE, o->type->id);
    const auto &sig = o->type->signature;
    if (c->cred.uid == 0) {
        blob_put(&b_, UBUS_ATTR_SIGNATURE, sig.data(), static_cast<unsigned>(sig.size()));
        return true;
    }
    void *nest = blob_nest_start(&b_, UBUS_ATTR_SIGNATURE);
    size_t all = 0, shown = 0;
    const auto *m = reinterpret_cast<const blob_attr *>(sig.data());
    size_t rem = sig.size();
    while (rem >= sizeof(blob_attr) && blob_pad_len(m) <= rem && blob_pad_len(m) >= sizeof(blob_attr)) {
        all++;
        if (acl_.allows(c->cred, o->path, blobmsg_name(m), ubusd_acl::Kind::Access)) {
            blob_put_raw(&b_, m, blob_pad_len(m));
            shown++;
        }
        rem -= blob_pad_len(m);
        m = blob_next(m);
    }
    blob_nest_end(&b_, nest);
    return shown > 0 || all == 0;
}

void Broker::do_lookup(Client *c, const Header &h, blob_attr **tb)
{
    std::string want;
    bool prefix = true;  // no path: every object
    if (tb[UBUS_ATTR_OBJPATH]) {
        want = blob_get_string(tb[UBUS_ATTR_OBJPATH]);
        prefix = !want.empty() && want.back() == '*';
        if (prefix)
            want.pop_back();
    }
    bool found = false;
    auto it = prefix ? by_path_.lower_bound(want) : by_path_.find(want);
    for (; it != by_path_.end(); ++it) {
        if (prefix ? it->first.compare(0, want.size(), want) != 0 : it->first != want)
            break;
        // An object the client may not use is not sent, but it was found: the device's
        // broker answers such a lookup with no object and success.
        if (put_visible(c, it->second))
            send(c, UBUS_MSG_DATA, h.seq, h.peer, b_.head);
        found = true;
        if (!prefix)
            break;
    }
    send_status(c, h, found || !tb[UBUS_ATTR_OBJPATH] ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND);
}

void Broker::do_add_object(Client *c, const Header &h, blob_attr **tb)
{
    if (!tb[UBUS_ATTR_OBJPATH] || !*blob_get_string(tb[UBUS_ATTR_OBJPATH])) {
        send_status(c, h, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    std::string path = blob_get_string(tb[UBUS_ATTR_OBJPATH]);
    if (by_path_.count(path) || !acl_.allows(c->cred, path, nullptr, ubusd_acl::Kind::Publish)) {
        send_status(c, h, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    ObjType *type = nullptr;
    bool new_type = false;
    if (tb[UBUS_ATTR_OBJTYPE]) {
        auto it = types_.find(blob_get_u32(tb[UBUS_ATTR_OBJTYPE]));
        if (it == types_.end()) {
            send_status(c, h, UBUS_STATUS_NOT_FOUND);
            return;
        }
        type = it->second.get();
    } else {
        auto t = std::make_unique<ObjType>();
        t->id = new_id();
        if (blob_attr *sig = tb[UBUS_ATTR_SIGNATURE]) {
            const uint8_t *p = static_cast<const uint8_t *>(blob_data(sig));
            t->signature.assign(p, p + blob_len(sig));
        }
        type = t.get();
        types_[t->id] = std::move(t);
        new_type = true;
    }
    auto o = std::make_unique<Object>();
    o->id = new_id();
    o->path = path;
    o->owner = c;
    o->type = type;
    type->refs++;
    c->objects.push_back(o->id);
    by_path_[path] = o.get();
    uint32_t id = o->id;
    objects_[id] = std::move(o);
    TRACE("client %08x added object %08x '%s'\n", c->id, id, path.c_str());

    start();
    blob_put_int32(&b_, UBUS_ATTR_OBJID, id);
    if (new_type)
        blob_put_int32(&b_, UBUS_ATTR_OBJTYPE, type->id);
    send(c, UBUS_MSG_DATA, h.seq, h.peer, b_.head);
    send_status(c, h, UBUS_STATUS_OK);
}

void Broker::remove_object(Object *o, bool *type_freed)
{
    uint32_t id = o->id;
    fail_calls_to(id);
    by_path_.erase(o->path);
    ObjType *t = o->type;
    *type_freed = --t->refs == 0;
    if (*type_freed) {
        ids_.erase(t->id);
        types_.erase(t->id);
    }
    ids_.erase(id);
    objects_.erase(id);
}

void Broker::do_remove_object(Client *c, const Header &h, blob_attr **tb)
{
    if (!tb[UBUS_ATTR_OBJID]) {
        send_status(c, h, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    uint32_t id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    auto it = objects_.find(id);
    if (it == objects_.end()) {
        send_status(c, h, UBUS_STATUS_NOT_FOUND);
        return;
    }
    Object *o = it->second.get();
    if (o->owner != c) {
        send_status(c, h, UBUS_STATUS_PERMISSION_DENIED);
        return;
    }
    uint32_t type_id = o->type->id;
    for (auto &oid : c->objects) {
        if (oid == id) {
            oid = c->objects.back();
            c->objects.pop_back();
            break;
        }
    }
    bool type_freed = false;
    remove_object(o, &type_freed);
    TRACE("client %08x removed object %08x\n", c->id, id);
    start();
    blob_put_int32(&b_, UBUS_ATTR_OBJID, id);
    if (type_freed)
        blob_put_int32(&b_, UBUS_ATTR_OBJTYPE, type_id);
    send(c, UBUS_MSG_DATA, h.seq, h.peer, b_.head);
    send_status(c, h, UBUS_STATUS_OK);
}

void Broker::do_invoke(Client *c, const Header &h, blob_attr **tb)
{
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_METHOD]) {
        send_status(c, h, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    uint32_t objid = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    auto it = objects_.find(objid);
    if (it == objects_.end()) {
        send_status(c, h, UBUS_STATUS_NOT_FOUND, objid);
        return;
    }
    const char *method = blob_get_string(tb[UBUS_ATTR_METHOD]);
    if (!acl_.allows(c->cred, it->second->path, method, ubusd_acl::Kind::Access)) {
        TRACE("client %08x (uid %u) may not call %s.%s\n", c->id,
              static_cast<unsigned>(c->cred.uid), it->second->path.c_str(), method);
        send_status(c, h, UBUS_STATUS_PERMISSION_DENIED, objid);
        return;
    }
    Client *owner = it->second->owner;
    start();
    blob_put_int32(&b_, UBUS_ATTR_OBJID, objid);
    blob_put_string(&b_, UBUS_ATTR_METHOD, blob_get_string(tb[UBUS_ATTR_METHOD]));
    if (blob_attr *data = tb[UBUS_ATTR_DATA])
        blob_put(&b_, UBUS_ATTR_DATA, blob_data(data), static_cast<unsigned>(blob_len(data)));
    else
        blob_put(&b_, UBUS_ATTR_DATA, nullptr, 0);
    calls_[CallKey(c->id, h.seq, objid)] = owner->id;
    TRACE("client %08x calls %08x.%s (seq %u)\n", c->id, objid,
          blob_get_string(tb[UBUS_ATTR_METHOD]), h.seq);
    send(owner, UBUS_MSG_INVOKE, h.seq, c->id, b_.head);
}

void Broker::do_reply(Client *c, const Header &h, const uint8_t *frame, size_t len,
                      blob_attr **tb)
{
    (void)len;
    if (!tb[UBUS_ATTR_OBJID])
        return;
    uint32_t objid = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    auto call = calls_.find(CallKey(h.peer, h.seq, objid));
    if (call == calls_.end() || call->second != c->id)
        return;  // a late answer, or one to a call this client does not serve
    if (h.type == UBUS_MSG_STATUS)
        calls_.erase(call);
    auto caller = clients_.find(h.peer);
    if (caller == clients_.end())
        return;
    const blob_attr *root = reinterpret_cast<const blob_attr *>(frame + ubus_wire::kHeaderLen);
    send(caller->second.get(), h.type, h.seq, objid, root);
}

void Broker::fail_calls_to(uint32_t objid)
{
    for (auto it = calls_.begin(); it != calls_.end();) {
        uint32_t caller_id = std::get<0>(it->first);
        uint16_t seq = std::get<1>(it->first);
        if (std::get<2>(it->first) != objid) {
            ++it;
            continue;
        }
        it = calls_.erase(it);
        auto caller = clients_.find(caller_id);
        if (caller == clients_.end())
            continue;
        Header h = {UBUS_MSG_STATUS, seq, objid};
        send_status(caller->second.get(), h, UBUS_STATUS_NO_DATA, objid);
    }
}

// Marks a client for removal; reap() releases it once the current event
// batch is done, so nothing in flight points at freed memory.
void Broker::drop(Client *c, const char *why)
{
    if (c->dead)
        return;
    if (why)
        fprintf(stderr, "ubusd: client %08x %s, disconnecting it\n", c->id, why);
    else
        TRACE("client %08x disconnected\n", c->id);
    c->dead = true;
    dead_.push_back(c->id);
}

void Broker::reap()
{
    while (!dead_.empty()) {
        uint32_t id = dead_.back();
        dead_.pop_back();
        auto it = clients_.find(id);
        if (it == clients_.end())
            continue;
        Client *c = it->second.get();
        for (auto call = calls_.begin(); call != calls_.end();) {
            if (std::get<0>(call->first) == id)
                call = calls_.erase(call);
            else
                ++call;
        }
        for (uint32_t oid : c->objects) {
            auto o = objects_.find(oid);
            bool type_freed = false;
            if (o != objects_.end())
                remove_object(o->second.get(), &type_freed);
        }
        epoll_ctl(epfd_.get(), EPOLL_CTL_DEL, c->fd.get(), nullptr);
        ids_.erase(id);
        clients_.erase(it);
    }
}

void usage(const char *prog)
{
    fprintf(stderr,
            "Usage: %s [<options>]\n"
            "Options: \n"
            "  -A <path>:\t\tSet the path to ACL files\n"
            "  -s <socket>:\t\tSet the unix domain socket to listen on\n"
            "  -v:\t\t\tTrace every message on standard error\n"
            "\n",
            prog);
}

}  // namespace

// As upstream: the folder of the default socket is made whatever socket is used.
static void mkdir_sockdir()
{
    std::string dir = UBUS_UNIX_SOCKET;
    size_t slash = dir.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        dir.resize(slash);
        mkdir(dir.c_str(), 0755);
    }
}

int main(int argc, char **argv)
{
    const char *path = UBUS_UNIX_SOCKET;
    int ch;
    while ((ch = getopt(argc, argv, "A:s:v")) != -1) {
        switch (ch) {
        case 's':
            path = optarg;
            break;
        case 'A':
            gAclDir = optarg;
            break;
        case 'v':
            gVerbose = true;
            break;
        default:
            usage(argv[0]);
            return 1;
        }
    }
    mkdir_sockdir();
    Broker broker;
    return broker.run(path);
}
