// http_post.cpp - see http_post.h.
#include "http_post.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace info_report {

namespace {

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

class Socket {
public:
    explicit Socket(int fd = -1) : fd_(fd) {}
    ~Socket()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int get() const { return fd_; }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

struct Url {
    std::string host, port, path, host_header;
};

// "http://host[:port][/path]", host possibly "[v6]". False for anything else.
bool parse_url(const std::string &url, Url *out, std::string *err)
{
    const std::string scheme = "http://";
    if (url.compare(0, scheme.size(), scheme) != 0) {
        *err = "only http:// URLs are supported: " + url;
        return false;
    }
    size_t start = scheme.size();
    size_t slash = url.find('/', start);
    std::string authority = url.substr(start, slash == std::string::npos ? std::string::npos
                                                                          : slash - start);
    out->path = slash == std::string::npos ? "/" : url.substr(slash);
    out->host_header = authority;
    size_t colon;
    if (!authority.empty() && authority[0] == '[') {
        size_t close_at = authority.find(']');
        if (close_at == std::string::npos) {
            *err = "bad host in " + url;
            return false;
        }
        out->host = authority.substr(1, close_at - 1);
        colon = authority[close_at + 1] == ':' ? close_at + 1 : std::string::npos;
    } else {
        colon = authority.rfind(':');
        out->host = authority.substr(0, colon);
    }
    out->port = colon == std::string::npos ? "80" : authority.substr(colon + 1);
    if (out->host.empty() || out->port.empty() ||
        out->port.find_first_not_of("0123456789") != std::string::npos) {
        *err = "bad host or port in " + url;
        return false;
    }
    for (char c : out->path) {
        if (c == '\r' || c == '\n' || c == ' ') {
            *err = "bad path in " + url;
            return false;
        }
    }
    return true;
}

// Waits until fd is ready for events or deadline passes; false on the deadline or an error.
bool wait_for(int fd, short events, int64_t deadline)
{
    for (;;) {
        int64_t left = deadline - now_ms();
        if (left <= 0)
            return false;
        struct pollfd p = {fd, events, 0};
        int n = poll(&p, 1, left > 1000000 ? 1000000 : static_cast<int>(left));
        if (n > 0)
            return true;
        if (n < 0 && errno != EINTR)
            return false;
    }
}

// A connected non-blocking socket to one of host's addresses, or -1.
int connect_to(const Url &u, int64_t connect_deadline, std::string *err)
{
    struct addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo *list = nullptr;
    int rc = getaddrinfo(u.host.c_str(), u.port.c_str(), &hints, &list);
    if (rc != 0) {
        *err = std::string("cannot resolve ") + u.host + ": " + gai_strerror(rc);
        return -1;
    }
    int result = -1;
    *err = "cannot connect to " + u.host_header;
    for (struct addrinfo *a = list; a && result < 0; a = a->ai_next) {
        Socket s(socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                        a->ai_protocol));
        if (s.get() < 0)
            continue;
        if (connect(s.get(), a->ai_addr, a->ai_addrlen) != 0) {
            if (errno != EINPROGRESS) {
                *err = "cannot connect to " + u.host_header + ": " + strerror(errno);
                continue;
            }
            int so_error = 0;
            socklen_t len = sizeof so_error;
            if (!wait_for(s.get(), POLLOUT, connect_deadline)) {
                *err = "connection to " + u.host_header + " timed out";
                continue;
            }
            if (getsockopt(s.get(), SOL_SOCKET, SO_ERROR, &so_error, &len) != 0 || so_error != 0) {
                *err = "cannot connect to " + u.host_header + ": " + strerror(so_error);
                continue;
            }
        }
        result = s.release();
    }
    freeaddrinfo(list);
    return result;
}

}  // namespace

long http_post(const std::string &url, const char *content, const PostLimits &limits,
               std::string *err)
{
    std::string local_err;
    if (!err)
        err = &local_err;
    Url u;
    if (!parse_url(url, &u, err))
        return -1;
    const int64_t start = now_ms();
    const int64_t deadline = start + limits.total_ms;
    const int64_t connect_deadline =
        start + (limits.connect_ms < limits.total_ms ? limits.connect_ms : limits.total_ms);
    Socket s(connect_to(u, connect_deadline, err));
    if (s.get() < 0)
        return -1;

    const size_t body_len = content ? strlen(content) : 0;
    std::string request = "POST " + u.path + " HTTP/1.1\r\nHost: " + u.host_header +
                          "\r\nContent-Type: application/json\r\nContent-Length: " +
                          std::to_string(body_len) + "\r\nConnection: close\r\n\r\n";
    request.append(content ? content : "", body_len);
    for (size_t sent = 0; sent < request.size();) {
        ssize_t n = send(s.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) &&
            wait_for(s.get(), POLLOUT, deadline))
            continue;
        *err = n < 0 && errno != EAGAIN ? std::string("send failed: ") + strerror(errno)
                                        : "sending timed out";
        return -1;
    }

    // The status line and the headers, up to the blank line that ends them.
    std::string head;
    char buf[2048];
    while (head.find("\r\n\r\n") == std::string::npos) {
        if (head.size() >= limits.max_header_bytes) {
            *err = "response headers longer than " + std::to_string(limits.max_header_bytes) +
                   " bytes";
            return -1;
        }
        size_t want = limits.max_header_bytes - head.size();
        ssize_t n = recv(s.get(), buf, want < sizeof buf ? want : sizeof buf, 0);
        if (n > 0) {
            head.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (n == 0) {
            *err = "connection closed before the response's headers ended";
            return -1;
        }
        if ((errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) &&
            wait_for(s.get(), POLLIN, deadline))
            continue;
        *err = errno == EAGAIN || errno == EWOULDBLOCK
                   ? "no complete response within " + std::to_string(limits.total_ms) + " ms"
                   : std::string("receive failed: ") + strerror(errno);
        return -1;
    }
    // "HTTP/1.x NNN ..."
    if (head.compare(0, 7, "HTTP/1.") != 0 || head.size() < 12 || head[8] != ' ') {
        *err = "not an HTTP response";
        return -1;
    }
    char *end = nullptr;
    long status = strtol(head.c_str() + 9, &end, 10);
    if (end != head.c_str() + 12 || status < 100 || status > 999) {
        *err = "bad status line";
        return -1;
    }
    return status;
}

}  // namespace info_report
