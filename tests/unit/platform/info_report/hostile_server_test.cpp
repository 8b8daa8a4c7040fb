// hostile_server_test.cpp - a send against a server that misbehaves ends in bounded time
// without reading more than a little of what it is sent: the socket client the OpenWrt
// targets use (with short limits here) and the library as this host builds it (libcurl).
#include "http_post.h"
#include "info_report.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

enum class Mode {
    Trickle,         // a status line, then one byte of header a second
    EndlessHeaders,  // header lines as fast as they go, never a blank line
    HugeBody,        // a 50 MB body
    ResetMidBody,    // half a body, then a reset
    Redirect,        // 302 to itself
    Silent,          // accepts, reads, never answers
};

// One connection at a time on a loopback port, served by mode until the client goes away.
class HostileServer {
public:
    explicit HostileServer(Mode mode) : mode_(mode)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int one = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        socklen_t len = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len);
        port_ = ntohs(a.sin_port);
        listen(fd_, 8);
        thread_ = std::thread([this] { serve(); });
    }
    ~HostileServer()
    {
        stop_ = true;
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        close(fd_);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/r"; }
    size_t bytes_sent() const { return sent_; }

private:
    bool put(int c, const std::string &s)
    {
        ssize_t n = send(c, s.data(), s.size(), MSG_NOSIGNAL);
        if (n > 0)
            sent_ += static_cast<size_t>(n);
        return n == static_cast<ssize_t>(s.size());
    }
    void serve()
    {
        while (!stop_) {
            struct pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0)
                continue;
            int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0)
                continue;
            char buf[4096];
            (void)recv(c, buf, sizeof buf, 0);  // the request (small enough for one read)
            answer(c);
            close(c);
        }
    }
    void answer(int c)
    {
        const std::string chunk(4096, 'x');
        switch (mode_) {
        case Mode::Trickle:
            put(c, "HTTP/1.1 200 OK\r\n");
            for (int i = 0; i < 60 && !stop_ && put(c, "X"); i++)
                std::this_thread::sleep_for(1s);
            break;
        case Mode::EndlessHeaders:
            put(c, "HTTP/1.1 200 OK\r\n");
            while (!stop_ && put(c, "X-Pad: " + chunk + "\r\n")) {
            }
            break;
        case Mode::HugeBody:
            put(c, "HTTP/1.1 200 OK\r\nContent-Length: 52428800\r\n\r\n");
            for (size_t n = 0; n < 52428800 && !stop_ && put(c, chunk); n += chunk.size()) {
            }
            break;
        case Mode::ResetMidBody: {
            put(c, "HTTP/1.1 200 OK\r\nContent-Length: 10000\r\n\r\n" + chunk.substr(0, 100));
            std::this_thread::sleep_for(100ms);
            linger lg{1, 0};
            setsockopt(c, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
            break;
        }
        case Mode::Redirect:
            put(c, "HTTP/1.1 302 Found\r\nLocation: " + url() + "\r\nContent-Length: 0\r\n\r\n");
            break;
        case Mode::Silent:
            while (!stop_ && recv(c, buf_, sizeof buf_, MSG_DONTWAIT) != 0)
                std::this_thread::sleep_for(50ms);
            break;
        }
    }

    Mode mode_;
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<size_t> sent_{0};
    char buf_[512];
    std::thread thread_;
};

struct Outcome {
    long status;
    std::string err;
    Clock::duration took;
};

Outcome socket_post(const HostileServer &s)
{
    info_report::PostLimits limits;
    limits.connect_ms = 500;
    limits.total_ms = 1500;
    Outcome o{0, {}, {}};
    auto start = Clock::now();
    o.status = info_report::http_post(s.url(), "{\"a\":1}", limits, &o.err);
    o.took = Clock::now() - start;
    return o;
}

TEST(SocketClient, EverySendEndsWithinItsLimitAndReadsOnlyTheHead)
{
    struct Case {
        Mode mode;
        long status;  // -1: no response
    } cases[] = {{Mode::Trickle, -1},   {Mode::EndlessHeaders, -1}, {Mode::HugeBody, 200},
                 {Mode::ResetMidBody, 200}, {Mode::Redirect, 302},   {Mode::Silent, -1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(static_cast<int>(c.mode));
        HostileServer server(c.mode);
        Outcome o = socket_post(server);
        EXPECT_EQ(o.status, c.status) << o.err;
        EXPECT_LT(o.took, 3s);  // the limit is 1.5 s
        if (c.mode == Mode::EndlessHeaders) {
            EXPECT_NE(o.err.find("headers longer than 16384"), std::string::npos) << o.err;
        }
    }
}

TEST(SocketClient, RefusesWhatItCannotSendAndSaysWhy)
{
    std::string err;
    info_report::PostLimits limits;
    EXPECT_EQ(info_report::http_post("https://127.0.0.1/x", "{}", limits, &err), -1);
    EXPECT_NE(err.find("only http://"), std::string::npos);
    EXPECT_EQ(info_report::http_post("http://127.0.0.1:port/x", "{}", limits, &err), -1);
    EXPECT_EQ(info_report::http_post("http://127.0.0.1:1/x y", "{}", limits, &err), -1);
    // Nothing listens on port 1: refused at once.
    EXPECT_EQ(info_report::http_post("http://127.0.0.1:1/x", "{}", limits, &err), -1);
    EXPECT_NE(err.find("cannot connect"), std::string::npos) << err;
}

// The library as built here. Its limits are the real ones (10 s in all), so only the cases
// that end early are tried; the time limit itself is libcurl's.
TEST(Library, HostileAnswersEndEarlyWithoutReadingThemWhole)
{
    struct Case {
        Mode mode;
        int ret, result;
    } cases[] = {{Mode::EndlessHeaders, -1, -1},
                 {Mode::HugeBody, 0, 0},
                 {Mode::Redirect, 0, 302}};
    for (const auto &c : cases) {
        SCOPED_TRACE(static_cast<int>(c.mode));
        HostileServer server(c.mode);
        std::string base = server.url();
        base.resize(base.size() - 2);  // the path comes from the request
        setenv("INFO_REPORT_URL", base.c_str(), 1);
        char url[] = "/r";
        char content[] = "{\"a\":1}";
        short_link_request req{};
        req.url = url;
        req.content = content;
        int result = 99;
        auto start = Clock::now();
        EXPECT_EQ(sendto_business_by_short_link(&req, &result), c.ret);
        EXPECT_EQ(result, c.result);
        EXPECT_LT(Clock::now() - start, 5s);
        // Cut off long before the 50 MB, or the endless headers, were through.
        EXPECT_LT(server.bytes_sent(), 16u << 20);
    }
    unsetenv("INFO_REPORT_URL");
}

}  // namespace
