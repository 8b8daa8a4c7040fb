// http_post.h - one HTTP/1.1 POST over a plain socket, bounded in time and memory whatever the
// server does: the reporting library's client where the target has no libcurl (the OpenWrt
// targets), and a fallback anyone can test on this host.
//
// Only the status line and the headers are read (at most max_header_bytes); the body is never
// read, since the caller wants the status alone. The whole exchange (name lookup excepted,
// which the C library bounds) ends within total_ms of monotonic time, the connection within
// connect_ms of it. Redirects are not followed: a 3xx is the status. Only "http://" URLs.
#pragma once

#include <cstddef>
#include <string>

namespace info_report {

struct PostLimits {
    long connect_ms = 3000;
    long total_ms = 10000;
    size_t max_header_bytes = 16384;
};

// The response's status code, or -1 with the reason in *err when none came back in time.
long http_post(const std::string &url, const char *content, const PostLimits &limits,
               std::string *err);

}  // namespace info_report
