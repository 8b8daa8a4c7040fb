// jcs.cpp - JSON command socket: callback table, the two datagram servers and the
// client call.
#include "jcs.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include <json-c/json.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "proc_name.h"
#include "uac_hash.h"
#include "uac_mem.h"
#include "uac_thread.h"

std::atomic<int> jcs_err_on{1};
std::atomic<int> jcs_dbg_on{0};

#define JCS_ERR_AT(func, line, fmt, ...)                                            \
    do {                                                                            \
        if (jcs_err_on.load(std::memory_order_relaxed))                             \
            printf("[JCS_ERR]%s()/%d " fmt, func, line, ##__VA_ARGS__);             \
    } while (0)
#define JCS_DBG_AT(func, line, fmt, ...)                                            \
    do {                                                                            \
        if (jcs_dbg_on.load(std::memory_order_relaxed))                             \
            printf("[JCS_DBG]%s()/%d " fmt, func, line, ##__VA_ARGS__);             \
    } while (0)
#define JCS_ERR(fmt, ...) JCS_ERR_AT(__func__, __LINE__, fmt, ##__VA_ARGS__)
#define JCS_DBG(fmt, ...) JCS_DBG_AT(__func__, __LINE__, fmt, ##__VA_ARGS__)

namespace {

// One registered service: its name and a callback slot per operation.
struct jcs_entry {
    char name[JCS_NAME_LEN + 1];
    jcs_callback_t cb[JCS_OP_MAX];
};

constexpr uint32_t kTableBuckets = 256;
// Compact JSON; "/" is left as it is (escaping it is allowed, not needed, and paths
// read better without).
constexpr int kCompact = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;
constexpr size_t kProcNameLen = 64;
// A stuck client must not stall a server thread: a reply that cannot be queued within
// this many send time-outs (one second each) is dropped.
constexpr int kSendBusyRetries = 3;

// Made by jcs_init before any server thread exists; afterwards only read (registration
// is finished before requests arrive, and the module takes no lock).
uac_hash *g_table;
char g_proc_name[kProcNameLen];
std::atomic<int> jcs_inited{0};
std::atomic<int> jcs_running{0};

// The handler prints under the server loop's name: that is the function a reader of
// the log knows.
const char *const kWorkTask = "jcs_work_task";

struct JsonPut {
    void operator()(json_object *o) const noexcept { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

// A socket descriptor closed on every path out.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    int get() const noexcept { return fd_; }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

struct UacFree {
    void operator()(void *p) const noexcept { uac_free(p); }
};
using UacBuf = std::unique_ptr<char, UacFree>;

// Address of a socket path: the family plus the path, no terminator counted.
socklen_t make_addr(const char *path, sockaddr_un *addr)
{
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    size_t n = strnlen(path, sizeof addr->sun_path);
    memcpy(addr->sun_path, path, n < sizeof addr->sun_path ? n : sizeof addr->sun_path);
    return static_cast<socklen_t>(n + sizeof addr->sun_family);
}

// Binds fd to path so that only this process's user may send to it: the socket file
// takes its mode from the socket's inode at bind time, so it is set before binding
// (and again on the file, in case the system ignores the first).
int bind_private(int fd, const char *path)
{
    sockaddr_un addr;
    if (strlen(path) >= sizeof addr.sun_path)
        return -1;
    socklen_t len = make_addr(path, &addr);
    unlink(path);
    fchmod(fd, S_IRUSR | S_IWUSR);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0)
        return -1;
    chmod(path, S_IRUSR | S_IWUSR);
    return 0;
}

int gettid_compat() { return static_cast<int>(syscall(SYS_gettid)); }

// Copies a string member (at most max characters) into out, which holds max + 1; another
// type warns and gives the empty text.
void get_string(json_object *o, char *out, size_t max)
{
    if (o && json_object_is_type(o, json_type_string)) {
        const char *s = json_object_get_string(o);
        size_t n = strnlen(s, max);
        memcpy(out, s, n);
        out[n] = '\0';
    } else {
        JCS_ERR_AT(kWorkTask, __LINE__,
                   "Warning: Get string with error obj or value type is unmatch.\n");
        out[0] = '\0';
    }
}

// "op" as an int: integers as they are (clamped to 32 bits), doubles truncated; any
// other type warns and counts as -1.
int get_op(json_object *o)
{
    if (json_object_is_type(o, json_type_int)) {
        int64_t v = json_object_get_int64(o);
        if (v > INT32_MAX)
            return INT32_MAX;
        if (v < INT32_MIN)
            return INT32_MIN;
        return static_cast<int>(v);
    }
    if (json_object_is_type(o, json_type_double)) {
        double d = json_object_get_double(o);
        if (!(d > -2147483649.0 && d < 2147483648.0))
            return -1;
        return static_cast<int>(d);
    }
    JCS_ERR_AT(kWorkTask, __LINE__, "Warning: Get int with error obj or value type is unmatch.\n");
    return -1;
}

jcs_entry *find_entry(const char *name)
{
    if (!g_table)
        return nullptr;
    return static_cast<jcs_entry *>(uac_hash_find(g_table, name));
}

// Sends a reply text to a client; a busy client gets a few seconds, then the reply is
// dropped, as is any other failure.
void send_reply(int fd, const char *path, const char *text)
{
    sockaddr_un addr;
    if (strlen(path) >= sizeof addr.sun_path)
        return;
    socklen_t len = make_addr(path, &addr);
    const size_t size = strlen(text);
    int busy = 0;
    for (;;) {
        ssize_t n = sendto(fd, text, size, 0, reinterpret_cast<sockaddr *>(&addr), len);
        if (n >= 0)
            return;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN && ++busy < kSendBusyRetries)
            continue;
        return;
    }
}

// Only datagrams of this process's own user are served (the socket file's mode keeps
// others out already; this also holds where file modes are not enforced).
bool sender_allowed(msghdr *msg)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(msg); c; c = CMSG_NXTHDR(msg, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) {
            ucred cred;
            memcpy(&cred, CMSG_DATA(c), sizeof cred);
            return cred.uid == geteuid();
        }
    }
    return false;
}

void print_array(const char *what, json_object *arr, json_type type)
{
    if (!arr || !json_object_is_type(arr, json_type_array))
        return;
    size_t n = json_object_array_length(arr);
    for (size_t i = 0; i < n; i++) {
        json_object *v = json_object_array_get_idx(arr, i);
        if (!json_object_is_type(v, type))
            continue;
        switch (type) {
        case json_type_int:
            JCS_DBG_AT("jcs_test_callback_add", __LINE__, "%s[%zu] = %lld\n", what, i,
                       static_cast<long long>(json_object_get_int64(v)));
            break;
        case json_type_boolean:
            JCS_DBG_AT("jcs_test_callback_add", __LINE__, "%s[%zu] = %s\n", what, i,
                       json_object_get_boolean(v) ? "true" : "false");
            break;
        case json_type_double:
            JCS_DBG_AT("jcs_test_callback_add", __LINE__, "%s[%zu] = %f\n", what, i,
                       json_object_get_double(v));
            break;
        default:
            JCS_DBG_AT("jcs_test_callback_add", __LINE__, "%s[%zu] = %s\n", what, i,
                       json_object_get_string(v));
            break;
        }
    }
}

}  // namespace

uint32_t jcs_hash_key_func(const void *key) noexcept
{
    if (!key) {
        JCS_ERR("inputs error.\n");
        return 0;
    }
    const char *s = static_cast<const char *>(key);
    return uac_hash_string(s, static_cast<uint32_t>(strlen(s)), 0);
}

uint32_t jcs_hash_obj_func(const void *obj) noexcept
{
    if (!obj) {
        JCS_ERR("inputs error.\n");
        return 0;
    }
    return jcs_hash_key_func(static_cast<const jcs_entry *>(obj)->name);
}

int32_t jcs_hash_cmp_func(const void *obj, const void *key) noexcept
{
    if (!obj || !key) {
        JCS_ERR("inputs error.\n");
        return 0;
    }
    return strcmp(static_cast<const jcs_entry *>(obj)->name, static_cast<const char *>(key)) == 0;
}

int jcs_init(void) noexcept
{
    if (jcs_inited.load(std::memory_order_relaxed)) {
        JCS_DBG("jcs has been inited already!\n");
        return 0;
    }
    if (g_table) {
        JCS_DBG("jcs callback table has existed already!\n");
        jcs_inited.store(1, std::memory_order_relaxed);
        return 0;
    }
    g_table = uac_hash_create_fixed(jcs_hash_obj_func, jcs_hash_key_func, jcs_hash_cmp_func,
                                    kTableBuckets);
    if (!g_table) {
        JCS_ERR("Malloc jcs callback table failed.\n");
        return -1;
    }
    if (get_proc_name_by_pid(static_cast<int>(getpid()), g_proc_name, sizeof g_proc_name) != 0) {
        JCS_ERR("Get process name failed.\n");
        return -1;
    }
    jcs_inited.store(1, std::memory_order_relaxed);
    return 0;
}

int jcs_run(void) noexcept
{
    if (jcs_running.load(std::memory_order_relaxed))
        return 0;
    const struct {
        const char *base;
        const char *thread;
    } servers[] = {{JCS_UI_SRV_PATH, "jcs_ui"}, {JCS_SERVICE_SRV_PATH, "jcs_service"}};
    for (const auto &s : servers) {
        // Owned by the server thread for the life of the process.
        char *path = static_cast<char *>(uac_malloc(JCS_PATH_LEN));
        if (!path) {
            JCS_ERR("Malloc jcs path failed.\n");
            return -1;
        }
        snprintf(path, JCS_PATH_LEN, "%s.%s", s.base, g_proc_name);
        pthread_t tid;
        uac_thread_create(&tid, s.thread, jcs_work_task, path);
    }
    jcs_running.store(1, std::memory_order_relaxed);
    return 0;
}

int jcs_callback_register(const char *name, uint32_t op, jcs_callback_t callback) noexcept
{
    if (!name || op >= JCS_OP_MAX || !callback) {
        JCS_ERR("Invalid parameters.\n");
        return -1;
    }
    // Only the first 64 characters name a service.
    char key[JCS_NAME_LEN + 1];
    snprintf(key, sizeof key, "%s", name);
    if (jcs_entry *e = find_entry(key)) {
        e->cb[op] = callback;
        return 0;
    }
    auto *e = static_cast<jcs_entry *>(uac_calloc(1, sizeof(jcs_entry)));
    if (!e) {
        JCS_ERR("Malloc register entry failed.\n");
        return -1;
    }
    memcpy(e->name, key, sizeof key);
    e->cb[op] = callback;
    if (uac_hash_add(g_table, e) != 0) {
        JCS_ERR("Add to hash table failed.\n");
        uac_free(e);
        return -1;
    }
    return 0;
}

int jcs_handle_request(const char *text, char *reply_path, char *reply_text) noexcept
{
    JsonPtr req(json_tokener_parse(text));
    if (!req) {
        JCS_ERR_AT(kWorkTask, __LINE__, "Invalid json string: %s\n", text);
        return JCS_REQ_INVALID;
    }
    // A member present with the value null counts as present (the callback gets null).
    json_object *name_o = nullptr, *op_o = nullptr, *path_o = nullptr, *data = nullptr;
    bool has_name = json_object_object_get_ex(req.get(), "name", &name_o);
    bool has_op = json_object_object_get_ex(req.get(), "op", &op_o);
    bool has_path = json_object_object_get_ex(req.get(), "clt_path", &path_o);
    bool has_data = json_object_object_get_ex(req.get(), "data", &data);
    if (!has_data || !has_op || !has_name) {
        JCS_ERR_AT(kWorkTask, __LINE__, "Parse json string failed, no expected field.\n");
        return JCS_REQ_DONE;
    }
    char path[JCS_PATH_LEN] = "";
    char name[JCS_NAME_LEN + 1];
    if (has_path)
        get_string(path_o, path, JCS_PATH_LEN - 1);
    get_string(name_o, name, JCS_NAME_LEN);
    int op = get_op(op_o);
    if (static_cast<unsigned>(op) > 3u) {
        JCS_ERR_AT(kWorkTask, __LINE__, "Operation wrong, op=%d.\n", op);
        return JCS_REQ_DONE;
    }

    JsonPtr reply(json_object_new_object());
    jcs_entry *e = find_entry(name);
    if (!e || !e->cb[op])
        JCS_ERR_AT(kWorkTask, __LINE__, "No callback operation [name=%s,t=%d] registered.\n",
                   name, op);
    else if (reply)
        e->cb[op](data, reply.get());

    if (!has_path || !reply)
        return JCS_REQ_DONE;
    const char *out = json_object_to_json_string_ext(reply.get(), kCompact);
    if (!out)
        return JCS_REQ_DONE;
    const size_t size = strlen(out);
    if (size > JCS_MSG_MAX) {
        JCS_ERR_AT(kWorkTask, __LINE__, "Reply of %zu bytes is too long, dropped.\n", size);
        return JCS_REQ_DONE;
    }
    memcpy(reply_path, path, sizeof path);
    memcpy(reply_text, out, size + 1);
    return JCS_REQ_REPLY;
}

void *jcs_work_task(void *arg) noexcept
{
    const char *path = static_cast<const char *>(arg);
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        JCS_ERR("Create receive socket failed.\n");
        return nullptr;
    }
    // Credentials are asked for before the socket can receive anything, so that no
    // datagram arrives without its sender's.
    int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    if (bind_private(fd.get(), path) != 0) {
        JCS_ERR("Bind socket failed.\n");
        return nullptr;
    }
    timeval send_limit{1, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &send_limit, sizeof send_limit);
    UacBuf buf(static_cast<char *>(uac_malloc(JCS_MSG_MAX + 1)));
    UacBuf reply_text(static_cast<char *>(uac_malloc(JCS_MSG_MAX + 1)));
    if (!buf || !reply_text) {
        JCS_ERR("Malloc buffer failed.\n");
        return nullptr;
    }

    for (;;) {
        fflush(stdout);
        while (!jcs_running.load(std::memory_order_relaxed))
            sleep(1);

        sockaddr_un from;
        iovec iov{buf.get(), JCS_MSG_MAX};
        alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(ucred))];
        msghdr msg{};
        msg.msg_name = &from;
        msg.msg_namelen = sizeof from;
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = ctl;
        msg.msg_controllen = sizeof ctl;
        // MSG_TRUNC gives the datagram's real length, so an oversized one is seen and
        // refused whole instead of being served cut short.
        ssize_t n = recvmsg(fd.get(), &msg, MSG_TRUNC);
        if (n < 1)
            continue;
        if (n > JCS_MSG_MAX) {
            JCS_ERR("Datagram of %zd bytes is longer than %d, refused.\n", n, JCS_MSG_MAX);
            continue;
        }
        if (!sender_allowed(&msg)) {
            JCS_ERR("Datagram from another user refused.\n");
            continue;
        }
        buf.get()[n] = '\0';

        JCS_DBG("==========Process Start=========\n");
        JCS_DBG("Rcv json: %s\n", buf.get());
        char reply_path[JCS_PATH_LEN];
        int r = jcs_handle_request(buf.get(), reply_path, reply_text.get());
        if (r == JCS_REQ_INVALID)
            continue;   // text that is not JSON is skipped before the request's end line
        if (r == JCS_REQ_REPLY)
            send_reply(fd.get(), reply_path, reply_text.get());
        JCS_DBG("==========Process End=========\n\n\n");
    }
    return nullptr;
}

int jcs_send_to_process(const char *process, const char *name, int op, json_object *data,
                        json_object **reply, int timeout) noexcept
{
    // The call owns data from here on, whatever the outcome.
    JsonPtr data_hold(data);
    if (reply)
        *reply = nullptr;
    if (!process || !name || !data)
        return -1;

    char srv_path[JCS_PATH_LEN];
    char own_path[JCS_PATH_LEN];
    int ns = snprintf(srv_path, sizeof srv_path, "%s.%s", JCS_SERVICE_SRV_PATH, process);
    int no = snprintf(own_path, sizeof own_path, "%s.%d.cclt", srv_path, gettid_compat());
    if (ns < 0 || no < 0 || static_cast<size_t>(no) >= sizeof(sockaddr_un::sun_path)) {
        JCS_ERR("Process name [%s] too long.\n", process);
        return -1;
    }

    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        JCS_ERR("Create socket failed.\n");
        return -1;
    }
    if (bind_private(fd.get(), own_path) != 0) {
        JCS_ERR("Bind socket failed.\n");
        return -1;
    }
    // From here the own socket file is removed on every path out.
    struct Unlink {
        const char *p;
        ~Unlink() { unlink(p); }
    } unlink_own{own_path};

    JsonPtr req(json_object_new_object());
    if (!req)
        return -1;
    json_object_object_add(req.get(), "name", json_object_new_string(name));
    json_object_object_add(req.get(), "op", json_object_new_int(op));
    json_object_object_add(req.get(), "clt_path", json_object_new_string(own_path));
    json_object_object_add(req.get(), "data", data_hold.release());
    const char *text = json_object_to_json_string_ext(req.get(), kCompact);
    size_t len = text ? strlen(text) : 0;

    sockaddr_un addr;
    socklen_t alen = make_addr(srv_path, &addr);
    ssize_t sent;
    do {
        sent = text ? sendto(fd.get(), text, len, 0, reinterpret_cast<sockaddr *>(&addr), alen)
                    : -1;
    } while (sent < 0 && (errno == EAGAIN || errno == EINTR));
    if (sent < 0 || static_cast<size_t>(sent) != len) {
        JCS_ERR("send %s failed.\n", text ? text : "");
        return -1;
    }

    if (timeout != 0) {
        timeval tv{timeout, 0};
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    UacBuf buf(static_cast<char *>(uac_calloc(1, JCS_MSG_MAX + 1)));
    if (!buf)
        return -1;
    ssize_t n;
    for (;;) {
        n = recv(fd.get(), buf.get(), JCS_MSG_MAX, 0);
        if (n >= 0)
            break;
        if (errno == EINTR || (timeout == 0 && errno == EAGAIN))
            continue;
        JCS_ERR("receive failed.\n");
        return -1;
    }
    buf.get()[n] = '\0';

    if (reply) {
        *reply = json_tokener_parse(buf.get());
        if (!*reply) {
            JCS_ERR("Invalid json string: %s\n", buf.get());
            return -1;
        }
    }
    return 0;
}

int jcs_test_callback_add(json_object *data, json_object *reply) noexcept
{
    // A worked example of reading a typed request such as
    //   {"enable": true, "count": 3, "label": "ap", "ints": [1, 2], "flags": [true],
    //    "ratios": [0.5], "names": ["a"], "nested": {"id": 7, "desc": "x", "list": [1]}}
    int read = 0;
    json_object *v = nullptr;
    if (json_object_object_get_ex(data, "enable", &v) && json_object_is_type(v, json_type_boolean)) {
        JCS_DBG("enable = %s\n", json_object_get_boolean(v) ? "true" : "false");
        read++;
    }
    if (json_object_object_get_ex(data, "count", &v) && json_object_is_type(v, json_type_int)) {
        JCS_DBG("count = %d\n", json_object_get_int(v));
        read++;
    }
    if (json_object_object_get_ex(data, "label", &v) && json_object_is_type(v, json_type_string)) {
        JCS_DBG("label = %s\n", json_object_get_string(v));
        read++;
    }
    const struct {
        const char *key;
        json_type type;
    } arrays[] = {{"ints", json_type_int},
                  {"flags", json_type_boolean},
                  {"ratios", json_type_double},
                  {"names", json_type_string}};
    for (const auto &a : arrays) {
        if (json_object_object_get_ex(data, a.key, &v) && json_object_is_type(v, json_type_array)) {
            print_array(a.key, v, a.type);
            read++;
        }
    }
    json_object *nested = nullptr;
    if (json_object_object_get_ex(data, "nested", &nested) &&
        json_object_is_type(nested, json_type_object)) {
        if (json_object_object_get_ex(nested, "id", &v) && json_object_is_type(v, json_type_int))
            JCS_DBG("nested.id = %d\n", json_object_get_int(v));
        if (json_object_object_get_ex(nested, "desc", &v) &&
            json_object_is_type(v, json_type_string))
            JCS_DBG("nested.desc = %s\n", json_object_get_string(v));
        if (json_object_object_get_ex(nested, "list", &v))
            print_array("nested.list", v, json_type_int);
        read++;
    }
    if (reply) {
        json_object_object_add(reply, "result", json_object_new_int(0));
        json_object_object_add(reply, "read", json_object_new_int(read));
        JCS_DBG("reply: %s\n", json_object_to_json_string_ext(reply, kCompact));
    }
    return 0;
}

int jcs_test_callback_del(json_object *, json_object *) noexcept
{
    JCS_DBG("in call DEL back\n");
    return 0;
}

int jcs_test_callback_get(json_object *, json_object *) noexcept
{
    JCS_DBG("in call GET back\n");
    return 0;
}
