// daemon_test.cpp - the installed daemon on a sandboxed device: start-up
// creates its folders, stays up silently and registers with the cloud client.
#include "itest.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <sys/stat.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using itest::file_exists;
using itest::read_file;

namespace {

const char kStandIns[] = "/tmp/standin";
const char kCalls[] = "/tmp/standin/ubus.calls";

// A `ubus` first on the daemon's PATH that records its arguments, one call a
// line, each argument followed by '|'; and a silent `lua`, so that commands for
// scripts this device does not have print nothing either.
void install_stand_ins()
{
    mkdir(kStandIns, 0755);
    itest::write_file(std::string(kStandIns) + "/ubus",
                      "#!/bin/sh\n{ printf '%s|' \"$@\"; echo; } >> " + std::string(kCalls) + "\n");
    itest::write_file(std::string(kStandIns) + "/lua", "#!/bin/sh\nexit 0\n");
    chmod((std::string(kStandIns) + "/ubus").c_str(), 0755);
    chmod((std::string(kStandIns) + "/lua").c_str(), 0755);
}

std::vector<std::string> registrations()
{
    std::vector<std::string> out;
    std::istringstream in(read_file(kCalls));
    for (std::string line; std::getline(in, line);)
        if (line.find("register_cmd_callback") != std::string::npos)
            out.push_back(line);
    return out;
}

// Alive and not a zombie waiting for the sandbox's init to reap it.
bool is_running(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z' &&
           stat[paren + 2] != 'X';
}

bool is_dir(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

TEST(Daemon, StartsQuietlyCreatesItsFoldersAndRegisters)
{
    install_stand_ins();
    auto started = std::chrono::steady_clock::now();
    auto r = itest::run(std::string("PATH=") + kStandIns +
                        ":$PATH /usr/sbin/nms_report >/tmp/nms_report.out 2>&1 & echo $!");
    ASSERT_EQ(r.status, 0);
    const pid_t pid = std::stoi(r.output);
    auto since_start = [&] { return std::chrono::steady_clock::now() - started; };

    SCOPED_TRACE("folders, save folders and empty packages");
    ASSERT_TRUE(itest::wait_until(
        [] { return file_exists("/tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg"); }, 5s));
    EXPECT_TRUE(is_dir("/etc/nms_report.uci"));
    EXPECT_TRUE(is_dir("/tmp/nms_stats_report_cfg.uci"));
    ASSERT_TRUE(file_exists("/etc/nms_report/event_report"));
    EXPECT_EQ(read_file("/etc/nms_report/event_report"), "");
    EXPECT_EQ(read_file("/tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg"), "");

    SCOPED_TRACE("registrations about 2 s after the registration thread starts");
    // Start-up sleeps 2 s before starting that thread, which sleeps 2 s more:
    // nothing can have been registered during the first seconds.
    std::this_thread::sleep_for(1s - since_start());
    EXPECT_TRUE(registrations().empty());
    ASSERT_TRUE(itest::wait_until([] { return registrations().size() >= 6; }, 20s))
        << read_file(kCalls);
    EXPECT_GE(since_start(), 3500ms);

    const std::string head = "call|cloudclient|register_cmd_callback|{ \"register_notify_cmd\": ";
    const std::vector<std::string> expected = {
        head + "\"ubus call nms_report_cache begin_report\", \"wait_time\": 0, "
               "\"type\": \"online\", \"action\":\"add\" }|",
        head + "\"ubus call nms_report_cache stop_report \", \"wait_time\": 0, "
               "\"type\": \"offline\", \"action\":\"add\" }|",
        head + "\"lua /usr/lib/lua/nms_report/nms_report_call.lua report_basic \", "
               "\"wait_time\": 0, \"type\": \"report_basic\", \"action\":\"add\" }|",
        head + "\"lua /usr/lib/lua/nms_report/nms_report_call.lua report_basic \", "
               "\"wait_time\": 0, \"type\": \"timing_report\", \"action\":\"add\" }|",
        head + "\"lua /usr/lib/lua/nms_report/nms_report_call.lua report_basic_intelligent \", "
               "\"wait_time\": 0, \"type\": \"report_basic\", \"action\":\"add\" }|",
        head + "\"lua /usr/lib/lua/nms_report/nms_report_call.lua report_update_intelligent \", "
               "\"wait_time\": 0, \"type\": \"timing_report\", \"action\":\"add\" }|",
    };
    EXPECT_EQ(registrations(), expected);

    SCOPED_TRACE("still up, once each, and silent with every switch off");
    std::this_thread::sleep_for(10s - since_start());
    EXPECT_TRUE(is_running(pid)) << "the daemon has ended";
    EXPECT_EQ(registrations().size(), 6u);
    EXPECT_EQ(itest::console(), "");
    EXPECT_EQ(read_file("/tmp/nms_report.out"), "");
}

namespace {

// Starts the installed daemon in the background; its pid.
pid_t start_daemon()
{
    auto r = itest::run("/usr/sbin/nms_report >/tmp/nms_report.out 2>&1 & echo $!");
    return r.status == 0 ? std::stoi(r.output) : -1;
}

}  // namespace

TEST(Daemon, FindsTheBusAtEitherSocketPathAndEndsOnSigterm)
{
    SCOPED_TRACE("a broker at the current default path only");
    ASSERT_EQ(itest::run("ubusd >/tmp/ubusd.log 2>&1 &").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return itest::file_exists("/var/run/ubus/ubus.sock"); }));
    ASSERT_FALSE(itest::file_exists("/var/run/ubus.sock"));
    pid_t pid = start_daemon();
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(itest::wait_until([] { return itest::run("ubus list nms_report_cache").status == 0; },
                                  15s));

    SCOPED_TRACE("SIGTERM, as procd stops a service, ends the process");
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(itest::wait_until([pid] { return !is_running(pid); }, 5s));

    SCOPED_TRACE("a broker at the old path only");
    ASSERT_EQ(itest::run("kill $(pidof ubusd); rm -rf /var/run/ubus").status, 0);
    ASSERT_EQ(itest::run("ubusd -s /var/run/ubus.sock >/tmp/ubusd.log 2>&1 &").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return itest::file_exists("/var/run/ubus.sock"); }));
    itest::run("rmdir /var/run/ubus");  // made by the broker for its default path
    pid = start_daemon();
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(itest::wait_until(
        [] { return itest::run("ubus -s /var/run/ubus.sock list nms_report_cache").status == 0; },
        15s));
    ASSERT_EQ(kill(pid, SIGINT), 0);
    EXPECT_TRUE(itest::wait_until([pid] { return !is_running(pid); }, 5s));
}
