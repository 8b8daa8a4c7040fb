// cloud_itest.cpp - the daemon reporting to a cloud that misbehaves: answers a byte a second,
// sends headers without end or a 50 MB body, resets in the middle, redirects to itself, or
// accepts and never answers. Each send must end in bounded time and memory, the reporting
// must go on afterwards, and SIGTERM must end the daemon promptly even in the middle of one.
#include "itest.h"
#include "itest_proc.h"
#include "itest_json.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using itest::read_file;
using itest::run;
using itest::set_cloud_url;

namespace {

const char kEvents[] = "/nexo/devmsg/v1/reportDevEventMsg";

pid_t start_daemon()
{
    std::string lists;
    for (int list = 0; list < 8; list++)
        lists += "\nconfig event_queue 'event_queue_" + std::to_string(list) +
                 "'\n\toption buffer_time '600'\n\toption buffer_size '5000'\n"
                 "\toption buffer_full_processing '1'\n";
    itest::write_file("/etc/nms_report/event_report", lists);
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");
    // The reporting library finds the cloud in its settings, read on every send, so the test
    // can move the cloud while the daemon runs.
    set_cloud_url("http://127.0.0.1:8480");
    auto r = run("env -u INFO_REPORT_URL /usr/sbin/nms_report >/tmp/nms_report.out 2>&1 & echo $!");
    if (r.status != 0)
        return -1;
    pid_t pid = std::stoi(r.output);
    if (!itest::wait_until([] { return run("ubus list nms_report_cache").status == 0; }, 20s))
        return -1;
    run("ubus call nms_report_cache begin_report");
    return pid;
}

// Whether cloudsim recorded an event with this marker, answered with status (0: any).
bool recorded(const std::string &marker, int status = 0)
{
    auto all = itest::parse(run(std::string("curl -s 'http://127.0.0.1:8480/api/reports?limit="
                                            "100000&path=") +
                                kEvents + "'")
                                .output);
    if (!all)
        return false;
    for (size_t i = 0; i < json_object_array_length(all.get()); i++) {
        json_object *rec = json_object_array_get_idx(all.get(), i);
        const char *body = json_object_get_string(itest::at(rec, {"body"}));
        if (!body || !strstr(body, marker.c_str()))
            continue;
        if (status == 0 || json_object_get_int(itest::at(rec, {"status"})) == status)
            return true;
    }
    return false;
}

void send_marker(const std::string &marker)
{
    ASSERT_EQ(run("nms_event_send -l 0 100 '{\"mark\":\"" + marker + "\"}'").status, 0);
}

void order(const std::string &json)
{
    ASSERT_EQ(run("curl -s -X POST -d '" + json + "' http://127.0.0.1:8480/api/faults").status, 0);
}

}  // namespace

TEST(HostileCloud, EachSendEndsInBoundedTimeAndMemoryAndReportingGoesOn)
{
    const pid_t pid = start_daemon();
    ASSERT_GT(pid, 0) << read_file("/tmp/nms_report.out");
    send_marker("warm-up");
    ASSERT_TRUE(itest::wait_until([] { return recorded("warm-up", 200); }, 15s));
    const long rss0 = itest::status_field(pid, "VmRSS");
    const long threads0 = itest::status_field(pid, "Threads");

    for (const char *kind :
         {"trickle", "endless_headers", "huge_body", "reset_mid_body", "redirect_loop"}) {
        SCOPED_TRACE(kind);
        order(std::string("{\"hostile\":\"") + kind + "\"}");
        const auto start = std::chrono::steady_clock::now();
        send_marker(std::string(kind) + "-hit");
        ASSERT_TRUE(itest::wait_until([&] { return recorded(std::string(kind) + "-hit"); }, 15s));
        // The send that met the hostile answer ends within its 10 s; the next one goes through.
        send_marker(std::string(kind) + "-after");
        EXPECT_TRUE(itest::wait_until(
            [&] { return recorded(std::string(kind) + "-after", 200); }, 25s));
        EXPECT_LT(std::chrono::steady_clock::now() - start, 25s);
        EXPECT_LT(itest::status_field(pid, "VmRSS") - rss0, 8 * 1024) << "kB more resident memory";
    }

    SCOPED_TRACE("a port that accepts and never answers");
    int hole = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(hole, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(hole, 16), 0);  // the kernel completes connections; nobody reads them
    getsockname(hole, reinterpret_cast<sockaddr *>(&a), &len);
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    set_cloud_url(url);
    ASSERT_EQ(run("uci get info_report.cloud.url").output, url + "\n");
    send_marker("silent-hit");
    std::this_thread::sleep_for(3s);
    set_cloud_url("http://127.0.0.1:8480");
    send_marker("silent-after");
    EXPECT_TRUE(itest::wait_until([] { return recorded("silent-after", 200); }, 30s));
    close(hole);
    EXPECT_LE(itest::status_field(pid, "Threads"), threads0 + 1) << "a thread stuck in a send";

    SCOPED_TRACE("SIGTERM in the middle of a send: the daemon ends within 2 s");
    order("{\"hostile\":\"trickle\"}");
    send_marker("term-hit");
    ASSERT_TRUE(itest::wait_until([] { return recorded("term-hit"); }, 15s));
    const auto term = std::chrono::steady_clock::now();
    kill(pid, SIGTERM);
    EXPECT_TRUE(itest::wait_until(
        [&] { return run("kill -0 " + std::to_string(pid) + " 2>/dev/null").status != 0 ||
                     read_file("/proc/" + std::to_string(pid) + "/stat").find(") Z") !=
                         std::string::npos; },
        5s));
    EXPECT_LT(std::chrono::steady_clock::now() - term, 2s);
}
