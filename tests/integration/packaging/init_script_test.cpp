// init_script_test.cpp - the package's init script as procd runs it: what it tells procd
// (through the stand-in rc.common, to devsim's recording service object), and what the
// daemon does when the recorded commands are run as procd runs them: started, killed and
// started again, reloaded after settings change.
#include "itest.h"
#include "itest_json.h"

#include <httplib.h>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

using itest::at;
using itest::JsonPtr;
using itest::run;

namespace {

constexpr const char *kServiceLog = "/tmp/service.log";
constexpr const char *kSyslog = "/tmp/syslog";

std::vector<std::string> strings(json_object *array)
{
    std::vector<std::string> out;
    for (size_t i = 0; array && i < json_object_array_length(array); i++)
        out.emplace_back(json_object_get_string(json_object_array_get_idx(array, i)));
    return out;
}

// A device with the package's init script and settings, the stand-in rc.common, a logger
// that writes what it reads to kSyslog, and devsim answering for the cloud client and for
// procd's service object.
class InitScript : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string files = NMS_SOURCE_DIR "/packaging/openwrt/files";
        auto r = run("mkdir -p /etc/init.d && cp " + files + "/nms_report.init /etc/init.d/nms_report"
                     " && chmod 755 /etc/init.d/nms_report && cp " + files +
                     "/nms_report.config /etc/config/nms_report && cp " NMS_BINARY_DIR
                     "/stage/usr/share/nms_report/platform/rc.common /etc/rc.common");
        ASSERT_EQ(r.status, 0) << r.output;
        itest::write_file("/usr/bin/logger",
                          "#!/bin/sh\nwhile IFS= read -r l; do echo \"$*: $l\" >> /tmp/syslog; done\n");
        ASSERT_EQ(run("chmod 755 /usr/bin/logger").status, 0);
        r = run(std::string("devsim --status online --service-log ") + kServiceLog +
                " >/tmp/devsim.log 2>&1 &");
        ASSERT_TRUE(itest::wait_until([] { return run("ubus list service").status == 0; }));
    }

    void TearDown() override
    {
        for (pid_t p : started_) {
            kill(p, SIGKILL);
            waitpid(p, nullptr, 0);
        }
    }

    // The last message procd's service object was given.
    JsonPtr last_message()
    {
        std::string log = itest::read_file(kServiceLog);
        size_t end = log.find_last_not_of('\n');
        if (end == std::string::npos)
            return nullptr;
        size_t begin = log.rfind('\n', end);
        begin = begin == std::string::npos ? 0 : begin + 1;
        JsonPtr line = itest::parse(log.substr(begin, end + 1 - begin));
        json_object *msg = at(line.get(), {"message"});
        return JsonPtr(msg ? json_object_get(msg) : nullptr);
    }

    json_object *instance(json_object *msg, const char *name)
    {
        return at(msg, {"instances", name});
    }

    // Runs an instance's command as procd does; its output goes where procd's capture would.
    pid_t start_instance(json_object *inst)
    {
        std::vector<std::string> argv = strings(at(inst, {"command"}));
        if (argv.empty())
            return -1;
        pid_t pid = fork();
        if (pid == 0) {
            setsid();
            std::vector<char *> args;
            for (auto &a : argv)
                args.push_back(a.data());
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
        started_.push_back(pid);
        return pid;
    }

    static bool daemon_answers()
    {
        return run("ubus -t 2 call nms_report_cache print_params_timer").status == 0;
    }

    static std::string pid_of_daemon() { return run("pidof nms_report").output; }

    std::vector<pid_t> started_;
};

}  // namespace

TEST_F(InitScript, TellsProcdTheDaemonItsRestartsItsTriggersAndItsLogReader)
{
    auto r = run("/etc/init.d/nms_report start");
    ASSERT_EQ(r.status, 0) << r.output;
    JsonPtr msg = last_message();
    ASSERT_TRUE(msg);
    EXPECT_STREQ(json_object_get_string(at(msg.get(), {"name"})), "nms_report");
    json_object *daemon = instance(msg.get(), "nms_report");
    ASSERT_TRUE(daemon);
    std::vector<std::string> cmd = strings(at(daemon, {"command"}));
    ASSERT_EQ(cmd.size(), 3u);
    EXPECT_EQ(cmd[0], "/bin/sh");
    EXPECT_NE(cmd[2].find("exec /usr/sbin/nms_report"), std::string::npos) << cmd[2];
    EXPECT_EQ(strings(at(daemon, {"respawn"})), (std::vector<std::string>{"3600", "5", "5"}));
    EXPECT_TRUE(json_object_get_boolean(at(daemon, {"stdout"})));
    EXPECT_TRUE(json_object_get_boolean(at(daemon, {"stderr"})));
    EXPECT_FALSE(instance(msg.get(), "log_reader")) << "no log reader on the console";

    SCOPED_TRACE("a commit to either package in /etc/config reloads the service");
    std::string triggers = json_object_to_json_string_ext(
        at(msg.get(), {"triggers"}), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    for (const char *pkg : {"nms_report", "info_report"})
        EXPECT_NE(triggers.find(std::string("[\"config.change\",[\"if\",[\"eq\",\"package\",\"") +
                                pkg + "\"],[\"run_script\",\"/etc/init.d/nms_report\",\"reload\"]],1000]"),
                  std::string::npos)
            << triggers;

    SCOPED_TRACE("output to the log: the same daemon command, and a reader of the FIFO");
    ASSERT_EQ(run("uci set nms_report.main.output=log && uci commit nms_report").status, 0);
    ASSERT_EQ(run("/etc/init.d/nms_report start").status, 0);
    JsonPtr log_msg = last_message();
    EXPECT_EQ(strings(at(instance(log_msg.get(), "nms_report"), {"command"})), cmd);
    json_object *reader = instance(log_msg.get(), "log_reader");
    ASSERT_TRUE(reader);
    std::vector<std::string> rcmd = strings(at(reader, {"command"}));
    ASSERT_EQ(rcmd.size(), 3u);
    EXPECT_NE(rcmd[2].find("logger -t nms_report 0<>/var/run/nms_report.log"), std::string::npos);
    EXPECT_EQ(strings(at(reader, {"respawn"})), (std::vector<std::string>{"3600", "5", "0"}));
    EXPECT_EQ(run("test -p /var/run/nms_report.log").status, 0);

    SCOPED_TRACE("stop, enable, disable");
    ASSERT_EQ(run("/etc/init.d/nms_report stop").status, 0);
    EXPECT_EQ(itest::read_file(kServiceLog).substr(itest::read_file(kServiceLog).rfind("{\"method\"")),
              "{\"method\":\"delete\",\"message\":{\"name\":\"nms_report\"}}\n");
    ASSERT_EQ(run("/etc/init.d/nms_report enable").status, 0);
    EXPECT_EQ(run("readlink /etc/rc.d/S99nms_report /etc/rc.d/K10nms_report").output,
              "../init.d/nms_report\n../init.d/nms_report\n");
    ASSERT_EQ(run("/etc/init.d/nms_report disable").status, 0);
    EXPECT_EQ(run("ls /etc/rc.d").output, "");
}

// The daemon puts its output on the console as it starts. The log mode must follow it
// through every start procd makes: a reload that switches to it, and a respawn after a crash.
TEST_F(InitScript, LogModeAppliesOnReloadAndSurvivesARespawn)
{
    ASSERT_EQ(run("/etc/init.d/nms_report start").status, 0);
    JsonPtr msg = last_message();
    pid_t daemon = start_instance(instance(msg.get(), "nms_report"));
    ASSERT_GT(daemon, 0);
    ASSERT_TRUE(itest::wait_until(daemon_answers, std::chrono::seconds(20)));
    const std::string pid = pid_of_daemon();

    SCOPED_TRACE("switched to the log by reload: the reader starts, the daemon stays");
    ASSERT_EQ(run("uci set nms_report.main.output=log && uci commit nms_report").status, 0);
    // procd starts the instance the reload adds; the test does it when the reload has sent it.
    std::string before = itest::read_file(kServiceLog);
    run("(/etc/init.d/nms_report reload >/tmp/reload.out 2>&1; echo done >> /tmp/reload.out) "
        ">/dev/null 2>&1 </dev/null &");
    ASSERT_TRUE(itest::wait_until([&] { return itest::read_file(kServiceLog).size() > before.size(); }));
    JsonPtr with_reader = last_message();
    ASSERT_TRUE(instance(with_reader.get(), "log_reader"));
    start_instance(instance(with_reader.get(), "log_reader"));
    ASSERT_TRUE(itest::wait_until(
        [] { return itest::read_file("/tmp/reload.out").find("done") != std::string::npos; },
        std::chrono::seconds(30)));
    EXPECT_EQ(pid_of_daemon(), pid) << "the reload kept the daemon";
    ASSERT_EQ(run("ubus call nms_report_cache print_list").status, 0);
    EXPECT_TRUE(itest::wait_until(
        [] { return itest::read_file(kSyslog).find("list:0 had") != std::string::npos; }))
        << itest::read_file(kSyslog);

    SCOPED_TRACE("killed and started again as procd respawns it: its output stays in the log");
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
    ASSERT_EQ(run("truncate -s 0 /tmp/syslog").status, 0);
    daemon = start_instance(instance(with_reader.get(), "nms_report"));
    ASSERT_TRUE(itest::wait_until(daemon_answers, std::chrono::seconds(20)));
    EXPECT_TRUE(itest::wait_until([] {
        run("ubus call nms_report_cache print_list");
        return itest::read_file(kSyslog).find("list:0 had") != std::string::npos;
    }, std::chrono::seconds(20)))
        << itest::read_file(kSyslog);
    SCOPED_TRACE("and nothing of it on the console any more");
    const size_t on_console = itest::console().size();
    ASSERT_EQ(run("truncate -s 0 /tmp/syslog && ubus call nms_report_cache print_list").status, 0);
    EXPECT_TRUE(itest::wait_until(
        [] { return itest::read_file(kSyslog).find("list:7 had") != std::string::npos; }));
    EXPECT_EQ(itest::console().size(), on_console) << itest::console().substr(on_console);
}

// Reload applies what changed under /etc/nms_report without losing a buffered event: the
// lists' events are sent before their new settings apply, a new statistics section is
// registered, and the daemon keeps running.
TEST_F(InitScript, ReloadAppliesSettingsAndKeepsTheBufferedEvents)
{
    ASSERT_EQ(run("/etc/init.d/nms_report start").status, 0);
    JsonPtr msg = last_message();
    ASSERT_GT(start_instance(instance(msg.get(), "nms_report")), 0);
    ASSERT_TRUE(itest::wait_until(daemon_answers, std::chrono::seconds(20)));
    // Reporting runs once the cloud client's online callback (begin_report) has come.
    ASSERT_TRUE(itest::wait_until(
        [] { return run("ubus call cloudclient get_status").output.find("begin_report") != std::string::npos; },
        std::chrono::seconds(20)));
    const std::string pid = pid_of_daemon();

    itest::write_file("/etc/nms_report/event_params",
                      "\nconfig event '1001'\n\toption enable 'on'\n\toption level '3'\n");
    auto r = run("nms_event_send -n 20 1001 '{\"k\":\"v\"}'");
    ASSERT_EQ(r.status, 0) << r.output;
    ASSERT_TRUE(itest::wait_until([] {
        return run("ubus call nms_report_cache print_list >/dev/null; true").status == 0 &&
               itest::console().find("list:3 had 20 node") != std::string::npos;
    })) << itest::console();

    itest::write_file("/etc/nms_report/stats_report",
                      itest::read_file("/etc/nms_report/stats_report") +
                          "\nconfig stats 'reload_probe'\n\toption param_buffer_time '30'\n"
                          "\toption get_cb 'echo 1'\n");
    r = run("/etc/init.d/nms_report reload");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(pid_of_daemon(), pid) << "reload keeps the daemon";

    SCOPED_TRACE("the 20 buffered events reach the cloud");
    httplib::Client cloud("127.0.0.1", 8480);
    auto count = [&] {
        auto res = cloud.Get("/api/reports?path=/nexo/devmsg/v1/reportDevEventMsg");
        if (!res)
            return 0;
        int n = 0;
        for (size_t at = 0; (at = res->body.find("typeId\\\":\\\"1001", at)) != std::string::npos; at++)
            n++;
        return n;
    };
    EXPECT_TRUE(itest::wait_until([&] { return count() == 20; }, std::chrono::seconds(20)))
        << count() << " of 20";
    SCOPED_TRACE("the new statistics section is registered");
    EXPECT_NE(itest::read_file("/tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg").find("reload_probe"),
              std::string::npos);
}
