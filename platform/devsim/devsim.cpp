// devsim.cpp - a simulated device on the bus: the cloud client `cloudclient` and the device
// information service `varnServer`, answering what the daemon asks of them.
//
// cloudclient keeps the callback commands other services register by link state ("online",
// "offline", ...) and runs them, as the real cloud client does, when the link state is set.
// Commands run in child processes (after their wait_time), so the loop never blocks on them.
// The bus connection is kept up: devsim waits for the broker at start and re-registers its
// objects whenever the broker comes back.

#include <libubus.h>
#include <libubox/blobmsg.h>
extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubox/uloop.h>

#include <httplib.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kRetryMs = 500;          // between attempts to reach the broker
constexpr int kMaxWaitTime = 86400;    // a day: anything longer is a mistake of the caller

struct Options {
    std::string socket;  // empty: the library's default
    bool online = false;
    std::string site_id = "sandbox-site";
    std::string mac = "00-11-22-33-44-55";
    std::string tell;    // http://HOST:PORT/PATH that hears of each link state, or empty
    std::string service_log;  // non-empty: publish procd's service object, recording here
    std::string metrics;      // http://HOST:PORT/PATH that gets nms_report's metrics every second
};

struct Callback {
    std::string cmd;
    std::string type;
    int wait_time;
};

// A started command, until it ends. Nodes of a std::list stay in place, so uloop can hold
// the address of `proc`.
struct Child {
    uloop_process proc;
    std::string cmd;
};

// Everything below is touched only from the loop thread.
Options g_opt;
bool g_online = false;
std::vector<Callback> g_callbacks;       // in registration order, no two with equal cmd and type
std::vector<std::string> g_checks;       // check_report_message_status callbacks
std::list<Child> g_children;
unsigned g_launched = 0;
ubus_context *g_ctx = nullptr;
uloop_timeout g_retry = {};
uloop_timeout g_metrics_tick = {};
blob_buf g_reply = {};

void say(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::fputs("devsim: ", stdout);
    std::vfprintf(stdout, fmt, ap);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    va_end(ap);
}

const char *state_name(bool online) { return online ? "online" : "offline"; }

// Arguments of a call; a call without any (older callers send no data at all) parses as empty.
void parse_args(const blobmsg_policy *policy, int n, blob_attr **tb, blob_attr *msg)
{
    if (!msg) {
        std::fill(tb, tb + n, nullptr);
        return;
    }
    blobmsg_parse(policy, n, tb, blob_data(msg), blob_len(msg));
}

// ---- running callback commands -------------------------------------------------------------

void child_ended(uloop_process *p, int status)
{
    auto it = std::find_if(g_children.begin(), g_children.end(),
                           [p](const Child &c) { return &c.proc == p; });
    if (it == g_children.end())
        return;
    if (WIFEXITED(status))
        say("[%d] '%s' exited with %d", p->pid, it->cmd.c_str(), WEXITSTATUS(status));
    else if (WIFSIGNALED(status))
        say("[%d] '%s' ended by signal %d", p->pid, it->cmd.c_str(), WTERMSIG(status));
    g_children.erase(it);
}

// Runs cmd with sh -c after wait_time seconds, in a child of its own.
void launch(const Callback &cb)
{
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        say("cannot start '%s': %s", cb.cmd.c_str(), std::strerror(errno));
        return;
    }
    if (pid == 0) {
        // The child must not keep the bus socket (or anything else of ours) open while it
        // waits, and the command gets the signal dispositions a shell would give it.
        // The system call rather than glibc's wrapper of it, which musl does not have.
        if (syscall(SYS_close_range, 3U, ~0U, 0U) != 0) {
            for (int fd = 3, max = static_cast<int>(sysconf(_SC_OPEN_MAX)); fd < max; fd++)
                close(fd);
        }
        signal(SIGPIPE, SIG_DFL);
        signal(SIGCHLD, SIG_DFL);
        signal(SIGINT, SIG_DFL);
        signal(SIGTERM, SIG_DFL);
        int null = open("/dev/null", O_RDONLY);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            close(null);
        }
        if (cb.wait_time > 0)
            sleep(static_cast<unsigned>(cb.wait_time));
        execl("/bin/sh", "sh", "-c", cb.cmd.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    g_launched++;
    g_children.push_back(Child{});
    Child &c = g_children.back();
    c.cmd = cb.cmd;
    c.proc.pid = pid;
    c.proc.cb = child_ended;
    uloop_process_add(&c.proc);
    say("[%d] running '%s' (%s callback, after %d s)", pid, cb.cmd.c_str(), cb.type.c_str(),
        cb.wait_time);
}

unsigned run_callbacks_of(const std::string &type)
{
    unsigned n = 0;
    for (const Callback &cb : g_callbacks)
        if (cb.type == type) {
            launch(cb);
            n++;
        }
    return n;
}

// ---- cloudclient ---------------------------------------------------------------------------

enum { REG_CMD, REG_WAIT, REG_TYPE, REG_ACTION, REG_COUNT };
const blobmsg_policy reg_policy[] = {
    /* REG_CMD    */ {"register_notify_cmd", BLOBMSG_TYPE_STRING},
    /* REG_WAIT   */ {"wait_time", BLOBMSG_TYPE_INT32},
    /* REG_TYPE   */ {"type", BLOBMSG_TYPE_STRING},
    /* REG_ACTION */ {"action", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(reg_policy) == REG_COUNT, "one policy entry per argument");

int register_cmd_callback(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                          blob_attr *msg)
{
    blob_attr *tb[REG_COUNT];
    parse_args(reg_policy, REG_COUNT, tb, msg);
    if (!tb[REG_CMD] || !tb[REG_TYPE] || !*blobmsg_get_string(tb[REG_CMD]) ||
        !*blobmsg_get_string(tb[REG_TYPE])) {
        say("register_cmd_callback: register_notify_cmd and type are needed, as texts");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    Callback cb{blobmsg_get_string(tb[REG_CMD]), blobmsg_get_string(tb[REG_TYPE]), 0};
    if (tb[REG_WAIT]) {
        int32_t w = static_cast<int32_t>(blobmsg_get_u32(tb[REG_WAIT]));
        if (w < 0 || w > kMaxWaitTime) {
            say("register_cmd_callback: wait_time %d is not within 0..%d", w, kMaxWaitTime);
            return UBUS_STATUS_INVALID_ARGUMENT;
        }
        cb.wait_time = w;
    }
    std::string action = tb[REG_ACTION] ? blobmsg_get_string(tb[REG_ACTION]) : "add";
    auto same = [&cb](const Callback &c) { return c.cmd == cb.cmd && c.type == cb.type; };
    auto it = std::find_if(g_callbacks.begin(), g_callbacks.end(), same);
    if (action == "del") {
        if (it == g_callbacks.end()) {
            say("register_cmd_callback: nothing to remove for %s '%s'", cb.type.c_str(),
                cb.cmd.c_str());
            return 0;
        }
        g_callbacks.erase(it);
        say("removed %s callback '%s'", cb.type.c_str(), cb.cmd.c_str());
        return 0;
    }
    if (action != "add") {
        say("register_cmd_callback: action must be \"add\" or \"del\", not \"%s\"",
            action.c_str());
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (it == g_callbacks.end()) {
        g_callbacks.push_back(cb);
        say("added %s callback '%s' (wait %d s)", cb.type.c_str(), cb.cmd.c_str(),
            cb.wait_time);
    } else {
        it->wait_time = cb.wait_time;
        say("%s callback '%s' was registered already (wait now %d s)", cb.type.c_str(),
            cb.cmd.c_str(), cb.wait_time);
    }
    // A client that is online already tells each listener that registers for it, so a
    // service that starts after the link came up still learns about it.
    if (g_online && cb.type == "online")
        launch(cb);
    return 0;
}

enum { CHECK_CALLBACK, CHECK_COUNT };
const blobmsg_policy check_policy[] = {
    /* CHECK_CALLBACK */ {"callback", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(check_policy) == CHECK_COUNT, "one policy entry per argument");

int check_report_message_status(ubus_context *, ubus_object *, ubus_request_data *,
                                const char *, blob_attr *msg)
{
    blob_attr *tb[CHECK_COUNT];
    parse_args(check_policy, CHECK_COUNT, tb, msg);
    if (!tb[CHECK_CALLBACK]) {
        say("check_report_message_status: callback is needed, as a text");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    std::string cb = blobmsg_get_string(tb[CHECK_CALLBACK]);
    if (std::find(g_checks.begin(), g_checks.end(), cb) == g_checks.end())
        g_checks.push_back(cb);
    say("report message status callback '%s'", cb.c_str());
    return 0;
}

int get_site_id(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                blob_attr *)
{
    blob_buf_init(&g_reply, 0);
    blobmsg_add_string(&g_reply, "site_id", g_opt.site_id.c_str());
    ubus_send_reply(ctx, req, g_reply.head);
    return 0;
}

enum { SET_STATUS, SET_ONLINE, SET_COUNT };
const blobmsg_policy set_policy[] = {
    /* SET_STATUS */ {"status", BLOBMSG_TYPE_STRING},
    /* SET_ONLINE */ {"online", BLOBMSG_TYPE_BOOL},
};
static_assert(ARRAY_SIZE(set_policy) == SET_COUNT, "one policy entry per argument");

// Tells the cloud stand-in the link state, as a real cloud learns it from the connection:
// one small POST {"status": "online"|"offline"} over loopback, waited for at most a second. A
// stand-in that is not there changes nothing.
// POSTs body to url (http://ADDRESS:PORT/PATH), waiting at most a second; a stand-in that is
// not there changes nothing. option names the option the URL came from.
void post_json(const std::string &url, const std::string &body, const char *option)
{
    // http://ADDRESS:PORT, then the path.
    const size_t slash = url.find('/', url.compare(0, 7, "http://") == 0 ? 7 : 0);
    const std::string base = url.substr(0, slash);
    const std::string path = slash == std::string::npos ? "/" : url.substr(slash);
    httplib::Client cloud(base);
    if (!cloud.is_valid()) {
        say("%s %s: give http://ADDRESS:PORT/PATH", option, url.c_str());
        return;
    }
    cloud.set_connection_timeout(1, 0);
    cloud.set_read_timeout(1, 0);
    cloud.set_write_timeout(1, 0);
    cloud.Post(path, body, "application/json");
}

void tell_cloud(bool online)
{
    if (!g_opt.tell.empty())
        post_json(g_opt.tell, std::string("{\"status\":\"") + state_name(online) + "\"}", "--tell");
}

// What a device agent would send its cloud beside the reports: the daemon's ledger, read from
// its bus object once a second (nothing while the daemon is not on the bus).
void metrics_reply(ubus_request *, int, blob_attr *msg)
{
    if (!msg)
        return;
    if (char *json = blobmsg_format_json(msg, true)) {
        post_json(g_opt.metrics, json, "--metrics");
        std::free(json);
    }
}

void metrics_tick(uloop_timeout *t)
{
    uint32_t id = 0;
    if (g_ctx && ubus_lookup_id(g_ctx, "nms_report", &id) == 0)
        ubus_invoke(g_ctx, id, "metrics", nullptr, metrics_reply, nullptr, 500);
    uloop_timeout_set(t, 1000);
}

// Sets the link state and announces it: every command registered for the state runs, whether
// or not the state changed (a link that flapped is announced again).
int set_status(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
               blob_attr *msg)
{
    blob_attr *tb[SET_COUNT];
    parse_args(set_policy, SET_COUNT, tb, msg);
    bool online;
    if (tb[SET_STATUS]) {
        std::string s = blobmsg_get_string(tb[SET_STATUS]);
        if (s != "online" && s != "offline") {
            say("set_status: status must be \"online\" or \"offline\", not \"%s\"", s.c_str());
            return UBUS_STATUS_INVALID_ARGUMENT;
        }
        online = s == "online";
    } else if (tb[SET_ONLINE]) {
        online = blobmsg_get_bool(tb[SET_ONLINE]);
    } else {
        say("set_status: give {\"status\": \"online\"|\"offline\"} or {\"online\": true|false}");
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    g_online = online;
    say("cloud link %s", state_name(online));
    tell_cloud(online);
    unsigned n = run_callbacks_of(state_name(online));
    blob_buf_init(&g_reply, 0);
    blobmsg_add_string(&g_reply, "status", state_name(online));
    blobmsg_add_u32(&g_reply, "launched", n);
    ubus_send_reply(ctx, req, g_reply.head);
    return 0;
}

int get_status(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
               blob_attr *)
{
    blob_buf_init(&g_reply, 0);
    blobmsg_add_string(&g_reply, "status", state_name(g_online));
    blobmsg_add_string(&g_reply, "site_id", g_opt.site_id.c_str());
    blobmsg_add_string(&g_reply, "mac", g_opt.mac.c_str());
    void *arr = blobmsg_open_array(&g_reply, "callbacks");
    for (const Callback &cb : g_callbacks) {
        void *t = blobmsg_open_table(&g_reply, nullptr);
        blobmsg_add_string(&g_reply, "register_notify_cmd", cb.cmd.c_str());
        blobmsg_add_string(&g_reply, "type", cb.type.c_str());
        blobmsg_add_u32(&g_reply, "wait_time", static_cast<uint32_t>(cb.wait_time));
        blobmsg_close_table(&g_reply, t);
    }
    blobmsg_close_array(&g_reply, arr);
    arr = blobmsg_open_array(&g_reply, "check_report_message_status");
    for (const std::string &c : g_checks)
        blobmsg_add_string(&g_reply, nullptr, c.c_str());
    blobmsg_close_array(&g_reply, arr);
    blobmsg_add_u32(&g_reply, "launched", g_launched);
    ubus_send_reply(ctx, req, g_reply.head);
    return 0;
}

const ubus_method cloudclient_methods[] = {
    UBUS_METHOD("register_cmd_callback", register_cmd_callback, reg_policy),
    UBUS_METHOD("check_report_message_status", check_report_message_status, check_policy),
    UBUS_METHOD_NOARG("get_site_id", get_site_id),
    UBUS_METHOD("set_status", set_status, set_policy),
    UBUS_METHOD_NOARG("get_status", get_status),
};
ubus_object_type cloudclient_type = UBUS_OBJECT_TYPE("cloudclient", cloudclient_methods);
ubus_object cloudclient_object = {};

// ---- varnServer ----------------------------------------------------------------------------

enum { INFO_MASK, INFO_COUNT };
const blobmsg_policy info_policy[] = {
    /* INFO_MASK */ {"infoMask", BLOBMSG_TYPE_INT32},
};
static_assert(ARRAY_SIZE(info_policy) == INFO_COUNT, "one policy entry per argument");

// The device information service answers the parts the mask selects; the MAC address is the
// only part anyone here asks for, so it is always in the answer.
int get_info(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
             blob_attr *)
{
    blob_buf_init(&g_reply, 0);
    blobmsg_add_string(&g_reply, "mac", g_opt.mac.c_str());
    ubus_send_reply(ctx, req, g_reply.head);
    return 0;
}

const ubus_method varn_methods[] = {
    UBUS_METHOD("getInfo", get_info, info_policy),
};
ubus_object_type varn_type = UBUS_OBJECT_TYPE("varnServer", varn_methods);
ubus_object varn_object = {};

// ---- service (procd's), recording ----------------------------------------------------------

// With --service-log FILE devsim stands in for procd's service object as init scripts talk to
// it (through procd.sh's "ubus call service ..."): every call is appended to FILE as one line,
// {"method":"set","message":{...}}, and list answers the last message set for each service.
// Nothing is started: a test runs the recorded commands as procd would.
std::map<std::string, std::string> g_services;  // service name -> last set/add message (JSON)

enum { SVC_NAME, SVC_COUNT };
const blobmsg_policy service_policy[] = {
    /* SVC_NAME */ {"name", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(service_policy) == SVC_COUNT, "one policy entry per argument");

int service_record(ubus_context *, ubus_object *, ubus_request_data *, const char *method,
                   blob_attr *msg)
{
    char *json = blobmsg_format_json(msg, true);
    if (!json)
        return UBUS_STATUS_UNKNOWN_ERROR;
    if (FILE *f = std::fopen(g_opt.service_log.c_str(), "a")) {
        std::fprintf(f, "{\"method\":\"%s\",\"message\":%s}\n", method, json);
        std::fclose(f);
    } else {
        say("cannot append to %s: %s", g_opt.service_log.c_str(), std::strerror(errno));
    }
    blob_attr *tb[SVC_COUNT];
    blobmsg_parse(service_policy, SVC_COUNT, tb, blob_data(msg), blob_len(msg));
    if (tb[SVC_NAME]) {
        const char *name = blobmsg_get_string(tb[SVC_NAME]);
        if (!std::strcmp(method, "set") || !std::strcmp(method, "add"))
            g_services[name] = json;
        else if (!std::strcmp(method, "delete"))
            g_services.erase(name);
    }
    std::free(json);
    return 0;
}

int service_list(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                 blob_attr *)
{
    blob_buf_init(&g_reply, 0);
    for (const auto &[name, json] : g_services) {
        void *t = blobmsg_open_table(&g_reply, name.c_str());
        blobmsg_add_json_from_string(&g_reply, json.c_str());
        blobmsg_close_table(&g_reply, t);
    }
    ubus_send_reply(ctx, req, g_reply.head);
    return 0;
}

const ubus_method service_methods[] = {
    UBUS_METHOD_NOARG("set", service_record),
    UBUS_METHOD_NOARG("add", service_record),
    UBUS_METHOD_NOARG("delete", service_record),
    UBUS_METHOD_NOARG("signal", service_record),
    UBUS_METHOD_NOARG("event", service_record),
    UBUS_METHOD_NOARG("list", service_list),
};
ubus_object_type service_type = UBUS_OBJECT_TYPE("service", service_methods);
ubus_object service_object = {};

// ---- the bus connection --------------------------------------------------------------------

const char *socket_path() { return g_opt.socket.empty() ? nullptr : g_opt.socket.c_str(); }

void connection_lost(ubus_context *)
{
    say("lost the bus; reconnecting");
    uloop_timeout_set(&g_retry, kRetryMs);
}

// First connect (publishing both objects) or reconnect (the library publishes them again).
// Retries until the broker answers; a broker that refuses our objects ends devsim.
void try_connect(uloop_timeout *t)
{
    if (g_ctx) {
        int rc = ubus_reconnect(g_ctx, socket_path());
        if (rc != 0) {
            uloop_timeout_set(t, kRetryMs);
            return;
        }
        ubus_add_uloop(g_ctx);
        say("back on the bus");
        return;
    }
    ubus_context *ctx = ubus_connect(socket_path());
    if (!ctx) {
        uloop_timeout_set(t, kRetryMs);
        return;
    }
    for (ubus_object *obj : {&cloudclient_object, &varn_object, &service_object}) {
        if (obj == &service_object && g_opt.service_log.empty())
            continue;
        int rc = ubus_add_object(ctx, obj);
        if (rc != 0) {
            say("cannot publish %s: %s (is another one on the bus?)", obj->name,
                ubus_strerror(rc));
            ubus_free(ctx);
            uloop_end();
            return;
        }
    }
    ctx->connection_lost = connection_lost;
    ubus_add_uloop(ctx);
    g_ctx = ctx;
    say("on the bus: cloudclient (%s, site %s) and varnServer (mac %s)", state_name(g_online),
        g_opt.site_id.c_str(), g_opt.mac.c_str());
    tell_cloud(g_online);
}

// ---- options -------------------------------------------------------------------------------

void usage(FILE *to)
{
    std::fputs("Usage: devsim [--status online|offline] [--site-id ID] [--mac MAC] [-s SOCKET]\n"
               "  --status S    cloud link state at start (default offline, or $DEVSIM_STATUS)\n"
               "  --site-id ID  what get_site_id answers (default sandbox-site, or "
               "$DEVSIM_SITE_ID)\n"
               "  --mac MAC     what varnServer getInfo answers (default 00-11-22-33-44-55, or "
               "$DEVSIM_MAC)\n"
               "  -s SOCKET     bus socket (default the library's)\n"
               "  --tell URL    POST each link state to http://ADDRESS:PORT/PATH (cloudsim's\n"
               "                /api/device), as the cloud would see the client come and go\n"
               "  --metrics URL POST nms_report's metrics (ubus call nms_report metrics) to\n"
               "                http://ADDRESS:PORT/PATH every second (cloudsim's /api/device/metrics)\n"
               "  --service-log FILE  also stand in for procd's service object: record each\n"
               "                call to it in FILE, one JSON line each\n",
               to);
}

bool set_state(const std::string &s, const char *from)
{
    if (s != "online" && s != "offline") {
        std::fprintf(stderr, "devsim: %s must be online or offline, not '%s'\n", from,
                     s.c_str());
        return false;
    }
    g_opt.online = s == "online";
    return true;
}

bool parse_options(int argc, char **argv)
{
    if (const char *e = std::getenv("DEVSIM_STATUS"); e && *e && !set_state(e, "DEVSIM_STATUS"))
        return false;
    if (const char *e = std::getenv("DEVSIM_SITE_ID"))
        g_opt.site_id = e;
    if (const char *e = std::getenv("DEVSIM_MAC"); e && *e)
        g_opt.mac = e;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            usage(stdout);
            std::exit(0);
        }
        if (a != "--status" && a != "--site-id" && a != "--mac" && a != "-s" && a != "--tell" &&
            a != "--service-log" && a != "--metrics") {
            std::fprintf(stderr, "devsim: unknown argument '%s'\n", a.c_str());
            usage(stderr);
            return false;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "devsim: %s needs a value\n", a.c_str());
            return false;
        }
        std::string v = argv[++i];
        if (a == "--status") {
            if (!set_state(v, "--status"))
                return false;
        } else if (a == "--site-id") {
            g_opt.site_id = v;
        } else if (a == "--mac") {
            g_opt.mac = v;
        } else if (a == "--tell") {
            g_opt.tell = v;
        } else if (a == "--metrics") {
            g_opt.metrics = v;
        } else if (a == "--service-log") {
            g_opt.service_log = v;
        } else {
            g_opt.socket = v;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    if (!parse_options(argc, argv))
        return 2;
    g_online = g_opt.online;

    cloudclient_object.name = "cloudclient";
    cloudclient_object.type = &cloudclient_type;
    cloudclient_object.methods = cloudclient_methods;
    cloudclient_object.n_methods = ARRAY_SIZE(cloudclient_methods);
    varn_object.name = "varnServer";
    varn_object.type = &varn_type;
    varn_object.methods = varn_methods;
    varn_object.n_methods = ARRAY_SIZE(varn_methods);
    service_object.name = "service";
    service_object.type = &service_type;
    service_object.methods = service_methods;
    service_object.n_methods = ARRAY_SIZE(service_methods);

    uloop_init();
    g_retry.cb = try_connect;
    try_connect(&g_retry);
    if (!g_ctx && !g_retry.pending)
        return 1;  // the broker refused our objects; said so already
    if (!g_ctx)
        say("waiting for the bus");
    if (!g_opt.metrics.empty()) {
        g_metrics_tick.cb = metrics_tick;
        uloop_timeout_set(&g_metrics_tick, 1000);
    }
    uloop_run();

    uloop_timeout_cancel(&g_metrics_tick);
    uloop_timeout_cancel(&g_retry);
    uloop_done();
    if (g_ctx)
        ubus_free(g_ctx);
    blob_buf_free(&g_reply);
    // Commands still running are left to finish on their own.
    g_children.clear();
    return g_ctx ? 0 : 1;
}
