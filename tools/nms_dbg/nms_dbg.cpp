// nms_dbg.cpp - sends one command to a process's debug shell and prints what it said.
//
//   nms_dbg [-p process] [-t seconds] [-n] 'command'
//
// The shell writes its answers to the process's standard output. By default the
// tool borrows that output for the one command: it points it at a capture file
// (`self`), runs the command, points it back at the console (`reset`) and prints the
// file. With -n the command is sent alone and the socket's JSON reply is printed.
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

}  // namespace

int main(int argc, char **argv)
{
    const char *process = "nms_report";
    int timeout = 5;
    bool plain = false;
    int c;
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
