// Tests of the HTTP reporting library against an in-process HTTP server on loopback.
#include <info_report.h>

#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Received {
    std::string path;
    std::string body;
    std::string content_type;
};

// A loopback server that records every POST and answers with the statuses queued in `plan`
// (200 once the plan is used up).
class Cloud {
public:
    Cloud() {
        server_.Post(R"(/.*)", [this](const httplib::Request &req, httplib::Response &res) {
            std::lock_guard<std::mutex> hold(mu_);
            got_.push_back({req.path, req.body, req.get_header_value("Content-Type")});
            int status = 200;
            if (!plan_.empty()) {
                status = plan_.front();
                plan_.erase(plan_.begin());
            }
            res.status = status;
            res.set_content("{\"errorCode\":0}", "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~Cloud() {
        server_.stop();
        thread_.join();
    }
    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
    void plan(std::vector<int> statuses) {
        std::lock_guard<std::mutex> hold(mu_);
        plan_ = std::move(statuses);
    }
    std::vector<Received> received() {
        std::lock_guard<std::mutex> hold(mu_);
        return got_;
    }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
    std::mutex mu_;
    std::vector<int> plan_;
    std::vector<Received> got_;
};

// A loopback port that was free a moment ago: bound, never listened on, closed.
int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = -1;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    if (fd >= 0)
        close(fd);
    return port;
}

class InfoReport : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("INFO_REPORT_URL", cloud_.base().c_str(), 1);
        ASSERT_EQ(init_info_report2(0, nullptr), 0);
    }
    void TearDown() override {
        unsetenv("INFO_REPORT_URL");
        sec_request_debug_switch_set(0);
    }
    Cloud cloud_;
    char path_[64] = "/nexo/devmsg/v1/reportDevEventMsg";
    char body_[64] = "{\"a\":1}";
    short_link_request req_{path_, body_, {0, 0, 0, 0}};
};

TEST_F(InfoReport, PostsTheContentAsJsonToBaseUrlAndPath) {
    int result = 77;
    EXPECT_EQ(sendto_business_by_short_link(&req_, &result), 0);
    EXPECT_EQ(result, 0);
    auto got = cloud_.received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].path, "/nexo/devmsg/v1/reportDevEventMsg");
    EXPECT_EQ(got[0].body, "{\"a\":1}");
    EXPECT_EQ(got[0].content_type, "application/json");

    SCOPED_TRACE("a base URL ending in a slash does not double it");
    setenv("INFO_REPORT_URL", (cloud_.base() + "/").c_str(), 1);
    EXPECT_EQ(sendto_business_by_short_link(&req_, &result), 0);
    got = cloud_.received();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].path, "/nexo/devmsg/v1/reportDevEventMsg");
}

TEST_F(InfoReport, StatusOutsideTwoHundredsIsAResponseWithThatResult) {
    int result = 0;
    cloud_.plan({500});
    EXPECT_EQ(sendto_business_by_short_link(&req_, &result), 0);
    EXPECT_EQ(result, 500);
    cloud_.plan({204});
    EXPECT_EQ(sendto_business_by_short_link(&req_, &result), 0);
    EXPECT_EQ(result, 0);
    cloud_.plan({404});
    EXPECT_EQ(sendto_business_by_short_link(&req_, &result), 0);
    EXPECT_EQ(result, 404);
}

TEST_F(InfoReport, RetransmissionStopsAtFirstSuccessOrAfterAllRetries) {
    int result = 0;
    {
        SCOPED_TRACE("two failures, then success: three attempts of four allowed");
        cloud_.plan({503, 500});
        EXPECT_EQ(sendto_business_by_short_link_retran(&req_, &result, 3), 0);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(cloud_.received().size(), 3u);
    }
    {
        SCOPED_TRACE("always failing: 1 + retries attempts, result of the last");
        cloud_.plan({500, 500, 502});
        EXPECT_EQ(sendto_business_by_short_link_retran(&req_, &result, 2), 0);
        EXPECT_EQ(result, 502);
        EXPECT_EQ(cloud_.received().size(), 6u);
    }
    {
        SCOPED_TRACE("no retries: a single attempt");
        cloud_.plan({500});
        EXPECT_EQ(sendto_business_by_short_link_retran(&req_, &result, 0), 0);
        EXPECT_EQ(result, 500);
        EXPECT_EQ(cloud_.received().size(), 7u);
    }
}

TEST_F(InfoReport, NoResponseGivesMinusOneAndResultMinusOne) {
    int port = free_port();
    setenv("INFO_REPORT_URL", ("http://127.0.0.1:" + std::to_string(port)).c_str(), 1);
    int result = 0;
    EXPECT_EQ(sendto_business_by_short_link(&req_, &result), -1);
    EXPECT_EQ(result, -1);
    result = 0;
    EXPECT_EQ(sendto_business_by_short_link_retran(&req_, &result, 1), -1);
    EXPECT_EQ(result, -1);
}

TEST_F(InfoReport, MissingArgumentsAreRefusedWithoutSending) {
    int result = 0;
    EXPECT_EQ(sendto_business_by_short_link(nullptr, &result), -1);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sendto_business_by_short_link(&req_, nullptr), -1);
    short_link_request no_url{nullptr, body_, {0, 0, 0, 0}};
    EXPECT_EQ(sendto_business_by_short_link_retran(&no_url, &result, 3), -1);
    short_link_request no_body{path_, nullptr, {0, 0, 0, 0}};
    EXPECT_EQ(sendto_business_by_short_link(&no_body, &result), -1);
    EXPECT_TRUE(cloud_.received().empty());
}

TEST_F(InfoReport, DebugSwitchPrintsRequestAndOutcome) {
    int result = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(sendto_business_by_short_link(&req_, &result), 0);
    std::string quiet = testing::internal::GetCapturedStdout();
    EXPECT_EQ(quiet, "");

    sec_request_debug_switch_set(1);
    cloud_.plan({500});
    testing::internal::CaptureStdout();
    EXPECT_EQ(sendto_business_by_short_link(&req_, &result), 0);
    std::string loud = testing::internal::GetCapturedStdout();
    EXPECT_NE(loud.find("/nexo/devmsg/v1/reportDevEventMsg"), std::string::npos) << loud;
    EXPECT_NE(loud.find("{\"a\":1}"), std::string::npos) << loud;
    EXPECT_NE(loud.find("500"), std::string::npos) << loud;
}

TEST_F(InfoReport, ConcurrentSendersEachGetTheirAnswer) {
    std::vector<std::thread> senders;
    std::atomic<int> ok{0};
    for (int i = 0; i < 8; i++) {
        senders.emplace_back([this, &ok] {
            char path[] = "/p";
            char body[] = "{}";
            short_link_request req{path, body, {0, 0, 0, 0}};
            int result = -5;
            if (sendto_business_by_short_link(&req, &result) == 0 && result == 0)
                ok.fetch_add(1);
        });
    }
    for (auto &t : senders)
        t.join();
    EXPECT_EQ(ok.load(), 8);
    EXPECT_EQ(cloud_.received().size(), 8u);
}

}  // namespace
