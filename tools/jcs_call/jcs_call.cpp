// jcs_call.cpp - sends one request to a process's JSON command socket and prints the
// reply.
//
//   jcs_call [-t seconds] process service op [data]
//
// op is 0 (add), 1 (delete), 2 (set) or 3 (get); data is a JSON text (default {}).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <getopt.h>
#include <json-c/json.h>

#include "jcs.h"

namespace {

void usage()
{
    fprintf(stderr,
            "usage: jcs_call [-t seconds] process service op [data]\n"
            "  process   name of the process that serves the socket (e.g. nms_report)\n"
            "  service   registered service name (e.g. example, udbg)\n"
            "  op        0 add, 1 delete, 2 set, 3 get\n"
            "  data      JSON value handed to the callback (default {})\n"
            "  -t        seconds to wait for the reply (default 5, 0 = no limit)\n");
}

bool parse_int(const char *s, int *out)
{
    char *end;
    long v = strtol(s, &end, 10);
    if (!*s || *end || v < -2147483647L - 1 || v > 2147483647L)
        return false;
    *out = static_cast<int>(v);
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    int timeout = 5;
    int c;
    while ((c = getopt(argc, argv, "t:h")) != -1) {
        if (c == 't' && parse_int(optarg, &timeout) && timeout >= 0)
            continue;
        usage();
        return c == 'h' ? 0 : 2;
    }
    int rest = argc - optind;
    int op;
    if (rest < 3 || rest > 4 || !parse_int(argv[optind + 2], &op)) {
        usage();
        return 2;
    }
    const char *process = argv[optind];
    const char *service = argv[optind + 1];
    const char *text = rest == 4 ? argv[optind + 3] : "{}";

    json_tokener *tok = json_tokener_new();
    // The terminator is handed over too: it is what ends a bare number such as "5".
    json_object *data =
        tok ? json_tokener_parse_ex(tok, text, static_cast<int>(strlen(text)) + 1) : nullptr;
    bool whole = tok && json_tokener_get_error(tok) == json_tokener_success &&
                 json_tokener_get_parse_end(tok) >= strlen(text);
    if (tok)
        json_tokener_free(tok);
    if (!data || !whole) {
        // JSON null parses to no object at all; it is not a useful request either.
        fprintf(stderr, "jcs_call: data is not a JSON value: %s\n", text);
        json_object_put(data);
        return 2;
    }

    json_object *reply = nullptr;
    if (jcs_send_to_process(process, service, op, data, &reply, timeout) != 0) {
        fprintf(stderr, "jcs_call: no reply from %s\n", process);
        return 1;
    }
    printf("%s\n", json_object_to_json_string_ext(reply, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
    json_object_put(reply);
    return 0;
}
