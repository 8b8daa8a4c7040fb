// nms_event_send - send events to the reporting daemon from the shell or a script.
//
//   nms_event_send [-l list] [-t time_ms] [-n count] [-r rate] <event_id> ['<json params>']
//
// Without -l the list comes from the event type's settings; without -t each event is stamped
// with the current time in milliseconds. -n sends the event count times and -r paces them at
// rate events per second (a load generator).

#include <unistd.h>

#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "nms_event_send.h"

namespace {

void usage() {
    std::fprintf(stderr,
                 "Usage: nms_event_send [-l list] [-t time_ms] [-n count] [-r rate] <event_id> "
                 "['<json params>']\n"
                 "  -l list     event list 0..7 (default: from the event type's settings)\n"
                 "  -t time_ms  time stamp of the event (default: now, in milliseconds)\n"
                 "  -n count    send the event count times (default 1)\n"
                 "  -r rate     at most rate events per second (default: as fast as possible)\n");
}

// Whole decimal number in [lo, hi]; false for anything else.
bool parse_number(const char *text, long long lo, long long hi, long long &out) {
    if (!text || !*text)
        return false;
    errno = 0;
    char *end = nullptr;
    long long v = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

bool parse_time(const char *text, uint64_t &out) {
    if (!text || !*text || *text == '-')
        return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    out = v;
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    int list = NMS_EVENT_SEND_AUTO_LIST;
    bool fixed_time = false;
    uint64_t time_ms = 0;
    long long count = 1;
    long long rate = 0;
    int opt;
    long long v;
    while ((opt = getopt(argc, argv, "l:t:n:r:h")) != -1) {
        switch (opt) {
        case 'l':
            if (!parse_number(optarg, 0, NMS_EVENT_SEND_LISTS - 1, v)) {
                std::fprintf(stderr, "nms_event_send: list must be 0 to 7, not '%s'\n", optarg);
                return 2;
            }
            list = static_cast<int>(v);
            break;
        case 't':
            if (!parse_time(optarg, time_ms)) {
                std::fprintf(stderr, "nms_event_send: time must be milliseconds, not '%s'\n",
                             optarg);
                return 2;
            }
            fixed_time = true;
            break;
        case 'n':
            if (!parse_number(optarg, 1, 1000000000LL, count)) {
                std::fprintf(stderr, "nms_event_send: count must be a positive number\n");
                return 2;
            }
            break;
        case 'r':
            if (!parse_number(optarg, 1, 100000000LL, rate)) {
                std::fprintf(stderr, "nms_event_send: rate must be a positive number\n");
                return 2;
            }
            break;
        case 'h':
            usage();
            return 0;
        default:
            usage();
            return 2;
        }
    }
    if (argc - optind < 1 || argc - optind > 2) {
        usage();
        return 2;
    }
    if (!parse_number(argv[optind], INT32_MIN, INT32_MAX, v)) {
        std::fprintf(stderr, "nms_event_send: event id must be a 32-bit number, not '%s'\n",
                     argv[optind]);
        return 2;
    }
    const int32_t id = static_cast<int32_t>(v);
    const char *params = argc - optind == 2 ? argv[optind + 1] : "";

    using clock = std::chrono::steady_clock;
    const auto begin = clock::now();
    for (long long i = 0; i < count; i++) {
        if (rate > 0) {
            auto due = begin + std::chrono::microseconds(i * 1000000LL / rate);
            std::this_thread::sleep_until(due);
        }
        int rc = nms_event_send(list, id, fixed_time ? time_ms : nms_event_send_now_ms(), params);
        if (rc != NMS_EVENT_SEND_OK) {
            std::fprintf(stderr, "nms_event_send: event %d not sent: %s\n", id,
                         nms_event_send_strerror(rc));
            return 1;
        }
    }
    return 0;
}
