// cli.cpp - the `ubus` command-line tool: list published objects and call
// their methods.
//
// Exit status is the command's result truncated to 8 bits. On a terminal a
// positive bus status prints "Command failed: <text>" and is the exit status;
// a negative one (a handler's -1, say) prints nothing beyond the replies and
// exits with its low 8 bits (255).
//
// When stderr is not a terminal (scripts, init scripts, other services), a
// failed call is reported as the device's tool does: "Command failed: ubus call
// <object> <method> [<message>] (<text>)" and the exit status 256 - status.
// That makes status 2 look like the tool's own usage error (-2: usage text,
// exit 254), and status -1 come out as 1 ("Command failed: Invalid command").
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <getopt.h>
#include <unistd.h>

#include <libubox/blobmsg.h>
extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

namespace {

struct Options {
    const char *socket = nullptr;
    int timeout_s = 30;
    bool simple = false;
    bool verbose = false;
};

void usage(const char *prog)
{
    fprintf(stderr,
            "Usage: %s [<options>] <command> [arguments...]\n"
            "Options:\n"
            " -s <socket>:\t\tSet the unix domain socket to connect to\n"
            " -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
            " -S:\t\t\tUse simplified output (for scripts)\n"
            " -v:\t\t\tMore verbose output\n"
            "\n"
            "Commands:\n"
            " - list [<path>]\t\t\tList objects\n"
            " - call <path> <method> [<message>]\tCall an object method\n"
            " - wait_for <object> [<object>...]\tWait for multiple objects to appear on ubus\n"
            "\n",
            prog);
}

// A JSON string literal with the escaping the JSON printer uses.
std::string quoted(const char *s)
{
    std::string out = "\"";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(s); *p; p++) {
        switch (*p) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\b': out += "\\b"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        default:
            if (*p < 0x20) {
                char buf[8];
                snprintf(buf, sizeof(buf), "\\u%04x", *p);
                out += buf;
            } else {
                out += static_cast<char>(*p);
            }
        }
    }
    return out + "\"";
}

const char *type_name(uint32_t type)
{
    switch (type) {
    case BLOBMSG_TYPE_INT8: return "\"Boolean\"";
    case BLOBMSG_TYPE_INT32: return "\"Integer\"";
    case BLOBMSG_TYPE_STRING: return "\"String\"";
    case BLOBMSG_TYPE_ARRAY: return "\"Array\"";
    case BLOBMSG_TYPE_TABLE: return "\"Table\"";
    default: return "\"(unknown)\"";
    }
}

void print_object(ubus_context *ctx, ubus_object_data *obj, void *priv)
{
    (void)ctx;
    const Options *opt = static_cast<const Options *>(priv);
    if (!opt->verbose) {
        printf("%s\n", obj->path);
        return;
    }
    printf("'%s' @%08x\n", obj->path, obj->id);
    if (!obj->signature)
        return;
    blob_attr *method;
    size_t rem;
    blob_for_each_attr(method, obj->signature, rem) {
        std::string line = "\t" + quoted(blobmsg_name(method)) + ":{";
        blob_attr *arg;
        size_t arem;
        bool first = true;
        blobmsg_for_each_attr(arg, method, arem) {
            if (!first)
                line += ",";
            first = false;
            line += quoted(blobmsg_name(arg)) + ":";
            line += blobmsg_type(arg) == BLOBMSG_TYPE_INT32 ? type_name(blobmsg_get_u32(arg))
                                                            : "\"(unknown)\"";
        }
        printf("%s}\n", line.c_str());
    }
}

void print_reply(ubus_request *req, int type, blob_attr *msg)
{
    (void)type;
    const Options *opt = static_cast<const Options *>(req->priv);
    char *text = blobmsg_format_json_indent(msg, true, opt->simple ? -1 : 0);
    if (!text)
        return;
    printf("%s\n", text);
    free(text);
}

int cmd_list(ubus_context *ctx, const Options &opt, int argc, char **argv)
{
    const char *path = argc > 0 ? argv[0] : nullptr;
    return ubus_lookup(ctx, path, print_object, const_cast<Options *>(&opt));
}

// A failed call: the device tool's report when stderr is not a terminal (the status is then
// returned negated), the status itself otherwise.
int call_error(const Options &opt, int argc, char **argv, int err)
{
    if (opt.simple || isatty(fileno(stderr)))
        return err;
    fflush(stdout);  // replies first, as on a terminal
    fprintf(stderr, "Command failed: ubus call ");
    for (int i = 0; i < argc; i++)
        fprintf(stderr, "%s ", argv[i]);
    fprintf(stderr, "(%s)\n", ubus_strerror(err));
    return -err;
}

int cmd_call(ubus_context *ctx, const Options &opt, int argc, char **argv)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (argc == 3 && !blobmsg_add_json_from_string(&b, argv[2])) {
        blob_buf_free(&b);
        return call_error(opt, argc, argv, UBUS_STATUS_PARSE_ERROR);
    }
    uint32_t id = 0;
    int ret = ubus_lookup_id(ctx, argv[0], &id);
    if (ret == 0) {
        ret = ubus_invoke(ctx, id, argv[1], b.head, print_reply, const_cast<Options *>(&opt),
                          opt.timeout_s * 1000);
        if (ret != 0)
            ret = call_error(opt, argc, argv, ret);
    }
    blob_buf_free(&b);
    return ret;
}

// Returns once every object named is on the bus, or UBUS_STATUS_TIMEOUT after the time-out
// (-t). The device's tool listens for the broker's object-add events; this one asks the
// broker every 100 ms, which a caller cannot tell apart.
int cmd_wait_for(ubus_context *ctx, const Options &opt, int argc, char **argv)
{
    if (argc < 1)
        return -2;
    auto now_ms = [] {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
    };
    const long long deadline_ms = now_ms() + static_cast<long long>(opt.timeout_s) * 1000;
    for (;;) {
        int missing = 0;
        for (int i = 0; i < argc; i++) {
            uint32_t id;
            if (ubus_lookup_id(ctx, argv[i], &id) != 0)
                missing++;
        }
        if (!missing)
            return 0;
        if (now_ms() >= deadline_ms)
            return UBUS_STATUS_TIMEOUT;
        const timespec pause = {0, 100 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    Options opt;
    const char *prog = argv[0];
    int ch;
    while ((ch = getopt(argc, argv, "vSs:t:")) != -1) {
        switch (ch) {
        case 's':
            opt.socket = optarg;
            break;
        case 't':
            opt.timeout_s = atoi(optarg);
            if (opt.timeout_s < 0)
                opt.timeout_s = 0;
            // Kept within what the call's millisecond time-out can hold.
            if (opt.timeout_s > INT_MAX / 1000)
                opt.timeout_s = INT_MAX / 1000;
            break;
        case 'S':
            opt.simple = true;
            break;
        case 'v':
            opt.verbose = true;
            break;
        default:
            usage(prog);
            return 1;
        }
    }
    argc -= optind;
    argv += optind;
    if (argc < 1) {  // before connecting: no command is a usage error even without a broker
        usage(prog);
        return 1;
    }

    ubus_context *ctx = ubus_connect(opt.socket);
    if (!ctx) {
        if (!opt.simple)
            fprintf(stderr, "Failed to connect to ubus\n");
        return 255;
    }
    int ret;
    if (!strcmp(argv[0], "list") && argc <= 2) {
        ret = cmd_list(ctx, opt, argc - 1, argv + 1);
    } else if (!strcmp(argv[0], "call") && argc >= 3 && argc <= 4) {
        ret = cmd_call(ctx, opt, argc - 1, argv + 1);
    } else if (!strcmp(argv[0], "wait_for")) {
        ret = cmd_wait_for(ctx, opt, argc - 1, argv + 1);
    } else {
        ret = -2;
    }
    fflush(stdout);
    if (ret > 0 && !opt.simple)
        fprintf(stderr, "Command failed: %s\n", ubus_strerror(ret));
    else if (ret == -2)
        usage(prog);
    ubus_free(ctx);
    return ret & 0xff;
}
