// nms_dbg.cpp - sends one command to a process's debug shell and prints what it said.
//
//   nms_dbg [-p process] [-t seconds] [-n] 'command'
//   nms_dbg -l
//
// The shell writes its answers to the process's standard output. By default the
// tool borrows that output for the one command: it points it at a capture file
// (`self`), runs the command, points it back at the console (`reset`) and prints the
// file. With -n the command is sent alone and the socket's JSON reply is printed.
// -l prints the daemon's ledger (ubus call nms_report status) as a table.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <getopt.h>
#include <json-c/json.h>
#include <unistd.h>

#include "jcs.h"

namespace {

const char *const kService = "udbg";
const char *const kCapture = "/tmp/udb.dup.stdouterr";

void usage()
{
    fprintf(stderr,
            "usage: nms_dbg [-p process] [-t seconds] [-n] 'command'\n"
            "       nms_dbg -l   what became of every event: the ledger as a table\n"
            "  command   a debug shell line: name, name = value, or name(arg, ...)\n"
            "            e.g. nms_dbg 'foo(1, \"a b\", 0x1F)'\n"
            "  -p        process to talk to (default nms_report)\n"
            "  -t        seconds to wait for each reply (default 5, 0 = no limit)\n"
            "  -n        send the command alone and print the JSON reply; the output\n"
            "            stays wherever the process sends it (its console)\n"
            "Without -n the process's output is redirected to a capture file for the\n"
            "command and then set back to /dev/console.\n");
}

// Sends one shell line; with reply_out the reply's compact text is stored there.
bool send_line(const char *process, const std::string &line, int timeout, std::string *reply_out)
{
    json_object *data = json_object_new_object();
    if (!data)
        return false;
    json_object_object_add(data, "cmd", json_object_new_string(line.c_str()));
    json_object *reply = nullptr;
    if (jcs_send_to_process(process, kService, JCS_OP_SET, data, &reply, timeout) != 0) {
        fprintf(stderr, "nms_dbg: no reply from %s (is it running?)\n", process);
        return false;
    }
    if (reply_out)
        *reply_out = json_object_to_json_string_ext(reply, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    json_object_put(reply);
    return true;
}

bool print_file(const char *path)
{
    FILE *f = fopen(path, "re");
    if (!f)
        return false;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        fwrite(buf, 1, n, stdout);
    fclose(f);
    return true;
}

// A member of obj as an unsigned figure (0 when absent).
unsigned long long num(json_object *obj, const char *name)
{
    json_object *v = nullptr;
    return json_object_object_get_ex(obj, name, &v) ? static_cast<unsigned long long>(json_object_get_int64(v)) : 0;
}

// The ledger from the bus, one line per list, then the refusals by reason, the cloud link,
// the bus and the statistics types.
int print_ledger()
{
    FILE *p = popen("ubus call nms_report status 2>&1", "r");
    if (!p) {
        fprintf(stderr, "nms_dbg: cannot run ubus: %s\n", strerror(errno));
        return 1;
    }
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        text.append(buf, n);
    int status = pclose(p);
    json_object *st = json_tokener_parse(text.c_str());
    json_object *lists = nullptr;
    if (status != 0 || !st || !json_object_object_get_ex(st, "lists", &lists)) {
        fprintf(stderr, "nms_dbg: no ledger from the daemon (is it running?): %s", text.c_str());
        json_object_put(st);
        return 1;
    }
    static const char *const reasons[] = {"disabled", "offline", "bad_params", "full",
                                          "no_victim", "no_memory", "too_long"};
    unsigned long long by_reason[7] = {};
    printf("list  in-list  oldest  accepted  refused  replaced      sent  dropped  cleaned  "
           "stopped  removed  waits  batches  failed  last batch\n");
    for (size_t i = 0; i < json_object_array_length(lists); i++) {
        json_object *l = json_object_array_get_idx(lists, i);
        unsigned long long refused = 0;
        for (size_t r = 0; r < 7; r++) {
            unsigned long long v = num(l, (std::string("refused_") + reasons[r]).c_str());
            by_reason[r] += v;
            refused += v;
        }
        char last[64] = "-";
        json_object *lb = nullptr;
        if (json_object_object_get_ex(l, "last_batch", &lb))
            snprintf(last, sizeof last, "%llu s ago, %llu, %s", num(lb, "ago"), num(lb, "size"),
                     json_object_get_string(json_object_object_get(lb, "result")));
        printf("%4llu %8llu %6llus %9llu %8llu %9llu %9llu %8llu %8llu %8llu %8llu %6llu %8llu %7llu  %s\n",
               num(l, "list"), num(l, "in_list"), num(l, "oldest_age"), num(l, "accepted"), refused,
               num(l, "replaced"), num(l, "sent"), num(l, "dropped"), num(l, "cleaned"),
               num(l, "stopped"), num(l, "removed"), num(l, "waits"), num(l, "batches"),
               num(l, "failed_batches"), last);
    }
    printf("refused by reason:");
    for (size_t r = 0; r < 7; r++)
        printf(" %s %llu", reasons[r], by_reason[r]);
    json_object *online = json_object_object_get(st, "cloud_online");
    printf("\ncloud: %s for %llu s, sends %llu, failures %llu", json_object_get_boolean(online) ? "online" : "offline",
           num(st, "cloud_for"), num(st, "cloud_sends"), num(st, "cloud_send_failures"));
    if (json_object_object_get(st, "cloud_last_failure_result"))
        printf(", last failure %llu s ago (result %d)", num(st, "cloud_last_failure_ago"),
               json_object_get_int(json_object_object_get(st, "cloud_last_failure_result")));
    printf("\nbus: connects %llu, reconnects %llu\n", num(st, "bus_connects"), num(st, "bus_reconnects"));
    json_object *stats = json_object_object_get(st, "statistics");
    for (size_t i = 0; stats && i < json_object_array_length(stats); i++) {
        json_object *t = json_object_array_get_idx(stats, i);
        printf("statistics %-24s runs %llu, killed %llu, failed %llu, values %llu\n",
               json_object_get_string(json_object_object_get(t, "type")), num(t, "runs"),
               num(t, "killed"), num(t, "failed"), num(t, "values"));
    }
    json_object_put(st);
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *process = "nms_report";
    int timeout = 5;
    bool plain = false;
    int c;
    if (argc == 2 && strcmp(argv[1], "-l") == 0)
        return print_ledger();
    while ((c = getopt(argc, argv, "p:t:nh")) != -1) {
        switch (c) {
        case 'p': process = optarg; break;
        case 't': {
            // A mistyped limit must not turn into 0, which waits forever.
            char *end;
            long v = strtol(optarg, &end, 10);
            timeout = !*optarg || *end || v < 0 || v > 2147483647L ? -1 : static_cast<int>(v);
            break;
        }
        case 'n': plain = true; break;
        default: usage(); return c == 'h' ? 0 : 2;
        }
    }
    if (optind != argc - 1 || timeout < 0) {
        usage();
        return 2;
    }
    // The socket's own messages (time-outs and the like) go to standard error here.
    jcs_err_on.store(0);
    std::string cmd = argv[optind];

    if (plain) {
        std::string reply;
        if (!send_line(process, cmd, timeout, &reply))
            return 1;
        printf("%s\n", reply.c_str());
        return 0;
    }

    // A capture file of our own, made before the process opens it, so nobody else
    // can have put something (a link) in its place.
    char capture[128];
    snprintf(capture, sizeof capture, "%s.%d", kCapture, static_cast<int>(getpid()));
    unlink(capture);
    int fd = open(capture, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        fprintf(stderr, "nms_dbg: cannot create %s: %s\n", capture, strerror(errno));
        return 1;
    }
    close(fd);

    bool ok = send_line(process, "self(\"" + std::string(capture) + "\")", timeout, nullptr) &&
              send_line(process, cmd, timeout, nullptr);
    // Always hand the output back, even when the command itself got no reply.
    bool reset = send_line(process, "reset()", timeout, nullptr);
    print_file(capture);
    unlink(capture);
    fflush(stdout);
    return ok && reset ? 0 : 1;
}
