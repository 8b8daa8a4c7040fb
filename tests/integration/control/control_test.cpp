// control_test.cpp - the installed daemon's bus object driven through the real `ubus` tool on a
// sandboxed device with ubusd, cloudsim and devsim beside it.
//
// The reporting state is read back through the daemon's debug shell (nms_dbg), what reaches
// the cloud through cloudsim's record, and log output through the files start_debug points
// the daemon at.
#include "itest.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <sys/stat.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using itest::run;

namespace {

const char kEvents[] = "/nexo/devmsg/v1/reportDevEventMsg";
const char kParams[] = "/nexo/devmsg/v1/reportParamsMsg";

itest::Result call(const std::string &method, const std::string &json = "")
{
    std::string cmd = "ubus call nms_report_cache " + method;
    if (!json.empty())
        cmd += " '" + json + "'";
    return run(cmd);
}

// The ubus tool's exit status for a method's status when its output is not a terminal, as
// here and in scripts: 256 - status for a failure, 1 for -1 ("Invalid command").
int cli_exit(int status)
{
    return status == 0 ? 0 : status == -1 ? 1 : 256 - status;
}

// The method's own status: the tool's simple output exits with it (-1 as 255).
int status_of(const std::string &method, const std::string &json = "")
{
    std::string cmd = "ubus -S call nms_report_cache " + method;
    if (!json.empty())
        cmd += " '" + json + "'";
    return run(cmd).status;
}

// A 4-byte variable of the daemon, read through its debug shell by name.
int var(const std::string &name)
{
    auto r = run("nms_dbg '" + name + "'");
    std::smatch m;
    if (r.status != 0 || !std::regex_search(r.output, m, std::regex("value = (-?[0-9]+)\\(")))
        ADD_FAILURE() << "cannot read " << name << ": " << r.output;
    return m.empty() ? -99 : std::stoi(m[1]);
}

struct State {
    int online, events, params;
    bool operator==(const State &o) const
    {
        return online == o.online && events == o.events && params == o.params;
    }
};
std::ostream &operator<<(std::ostream &os, const State &s)
{
    return os << "{online " << s.online << ", events " << s.events << ", params " << s.params
              << "}";
}
State state()
{
    return {var("report_online"), var("event_report_running"), var("param_report_running")};
}

// Bodies of the reports cloudsim received on path, as one text.
std::string received(const std::string &path)
{
    httplib::Client cloud("127.0.0.1", 8480);
    auto res = cloud.Get("/api/reports?path=" + path);
    return res && res->status == 200 ? res->body : std::string();
}

bool arrives(const std::string &path, const std::string &text,
             std::chrono::milliseconds limit = 10s)
{
    return itest::wait_until(
        [&] { return received(path).find(text) != std::string::npos; }, limit);
}

// The event pipeline's settings: lists 3 to 7 wait 600 s and replace the oldest event when
// full, so only a flush sends them; every event type is enabled.
void hold_lists_until_flushed()
{
    std::string text;
    for (int list = 0; list < 8; list++)
        text += "\nconfig event_queue 'event_queue_" + std::to_string(list) +
                "'\n\toption buffer_time '600'\n\toption buffer_size '50'\n"
                "\toption buffer_full_processing '1'\n";
    itest::write_file("/etc/nms_report/event_report", text);
    ASSERT_EQ(status_of("update_report_cfg", "{\"type\":\"event_list\"}"), 0);
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");
}

// Sends one event of type 100 to list with a marker in its params.
void send_event(int list, const std::string &marker)
{
    auto r = run("nms_event_send -l " + std::to_string(list) + " 100 '{\"mark\":\"" + marker +
                 "\"}'");
    ASSERT_EQ(r.status, 0) << r.output;
}

// Waits until the daemon holds n events in list (its debug shell counts them).
bool holds(int list, int n)
{
    return itest::wait_until([&] {
        auto r = run("nms_dbg 'get_list_total_node(" + std::to_string(list) + ")'");
        return r.output.find("return " + std::to_string(n) + "(") != std::string::npos;
    });
}

}  // namespace

TEST(ControlObject, PublishesNineteenMethodsInOrderWithTheirStatuses)
{
    auto r = run("ubus -v list nms_report_cache");
    ASSERT_EQ(r.status, 0) << r.output;
    const char *methods[] = {
        "\"statistics_parms_reg\":{\"type\":\"String\",\"get_cb\":\"String\",\"success_cb\":\"String\"}",
        "\"statistics_parms_update\":{\"type\":\"String\",\"get_cb\":\"String\",\"success_cb\":"
        "\"String\",\"new_time\":\"String\",\"old_time\":\"String\"}",
        "\"get_statistics_parms_reg\":{\"cb\":\"String\"}",
        "\"get_statistics_parms_list\":{}", "\"get_event_list\":{}",
        "\"notify_event_cfg_changed\":{}", "\"flush_report\":{\"type\":\"String\"}",
        "\"flush_event_report\":{\"list_id\":\"Integer\"}", "\"stop_report\":{\"type\":\"String\"}",
        "\"begin_report\":{\"type\":\"String\"}", "\"clean_cache\":{\"type\":\"String\"}",
        "\"report_specific_param\":{\"type\":\"String\"}", "\"print_list\":{}",
        "\"print_params_timer\":{}", "\"sec_request_debug\":{\"type\":\"String\"}",
        "\"start_debug\":{\"debug_dev\":\"String\",\"level\":\"Integer\"}",
        "\"update_report_cfg\":{\"type\":\"String\"}", "\"stop_debug\":{}",
        "\"send_report_info_async\":{\"url\":\"String\",\"content\":\"String\",\"fail_retry\":"
        "\"Integer\"}",
    };
    size_t at = 0;
    for (const char *m : methods) {
        size_t found = r.output.find(std::string("\t") + m + "\n");
        ASSERT_NE(found, std::string::npos) << m << "\n" << r.output;
        EXPECT_GT(found, at) << m << " out of order";
        at = found;
    }

    SCOPED_TRACE("methods that do nothing answer -1, the print methods 0");
    EXPECT_EQ(status_of("get_event_list"), 255);
    EXPECT_EQ(status_of("notify_event_cfg_changed"), 255);
    EXPECT_EQ(status_of("print_list"), 0);
    EXPECT_EQ(status_of("print_params_timer"), 0);

    SCOPED_TRACE("the supported-parameter list is a reply followed by -1");
    EXPECT_EQ(status_of("get_statistics_parms_reg", "{\"cb\":\"printf rssi,noise,\"}"), 0);
    auto list = call("get_statistics_parms_list");
    EXPECT_EQ(list.status, cli_exit(-1));
    EXPECT_NE(list.output.find("\"param_list\": \"rssi,noise,\""), std::string::npos)
        << list.output;
}

TEST(ControlObject, BadArgumentsAnswerTheirStatusAndChangeNothing)
{
    const State before = state();
    struct Case {
        const char *method, *json;
        int status;
    } cases[] = {
        // Missing, one by one, then wrongly typed (a typed-wrong argument counts as missing).
        {"statistics_parms_reg", "{}", 2},
        {"statistics_parms_reg", "{\"type\":\"up\"}", 2},
        {"statistics_parms_reg", "{\"type\":\"up\",\"get_cb\":\"true\"}", 2},
        {"statistics_parms_reg", "{\"type\":7,\"get_cb\":\"true\",\"success_cb\":\"true\"}", 2},
        {"statistics_parms_update", "{\"old_time\":\"60\"}", 2},
        {"statistics_parms_update", "{\"type\":\"up\"}", 2},
        {"statistics_parms_update", "{\"type\":\"up\",\"old_time\":60}", 2},
        {"get_statistics_parms_reg", "{}", 2},
        {"get_statistics_parms_reg", "{\"cb\":[\"x\"]}", 2},
        {"report_specific_param", "{}", 2},
        {"report_specific_param", "{\"type\":true}", 2},
        {"send_report_info_async", "{\"url\":\"/x\"}", -1},
        {"send_report_info_async", "{\"content\":\"{}\"}", -1},
        {"send_report_info_async", "{\"url\":1,\"content\":\"{}\"}", -1},
        // List ids are read unsigned: -1 is as far out of range as 8.
        {"flush_event_report", "{\"list_id\":8}", -1},
        {"flush_event_report", "{\"list_id\":-1}", -1},
        {"flush_event_report", "{\"list_id\":2147483647}", -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.method) + " " + c.json);
        auto r = call(c.method, c.json);
        EXPECT_EQ(r.status, cli_exit(c.status)) << r.output;
        if (c.status == 2) {
            EXPECT_NE(r.output.find("(Invalid argument)"), std::string::npos);
        }
    }
    EXPECT_EQ(state(), before);
    EXPECT_EQ(itest::read_file("/tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg"), "");

    SCOPED_TRACE("unknown and oversized type texts select nothing");
    const std::string big(60000, 'e');
    for (const char *method : {"stop_report", "clean_cache", "flush_report"}) {
        EXPECT_EQ(status_of(method, "{\"type\":\"events\"}"), 0) << method;
        EXPECT_EQ(status_of(method, "{\"type\":\"" + big + "\"}"), 0) << method;
    }
    EXPECT_EQ(status_of("update_report_cfg", "{\"type\":\"" + big + "\"}"), 0);
    EXPECT_EQ(status_of("sec_request_debug", "{\"type\":\"" + big + "\"}"), 0);
    EXPECT_EQ(state(), before);
    EXPECT_EQ(status_of("report_specific_param", "{\"type\":\"" + big + "\"}"), 0);
    EXPECT_EQ(status_of("print_list"), 0) << "the daemon still answers";
}

TEST(ControlObject, BeginAndStopMoveTheReportingSwitches)
{
    ASSERT_EQ(state(), (State{0, 0, 0}));

    SCOPED_TRACE("an unknown type starts nothing but the device is online");
    EXPECT_EQ(status_of("begin_report", "{\"type\":\"nonsense\"}"), 0);
    EXPECT_EQ(state(), (State{1, 0, 0}));
    SCOPED_TRACE("stopping what is not running leaves the switch on");
    EXPECT_EQ(status_of("stop_report"), 0);
    EXPECT_EQ(state(), (State{1, 0, 0}));

    SCOPED_TRACE("one kind at a time");
    EXPECT_EQ(status_of("begin_report", "{\"type\":\"event\"}"), 0);
    EXPECT_EQ(state(), (State{1, 1, 0}));
    EXPECT_EQ(status_of("begin_report", "{\"type\":\"param\"}"), 0);
    EXPECT_EQ(state(), (State{1, 1, 1}));

    SCOPED_TRACE("stopping one kind, then the other, keeps the device online");
    EXPECT_EQ(status_of("stop_report", "{\"type\":\"event\"}"), 0);
    EXPECT_EQ(state(), (State{1, 0, 1}));
    EXPECT_EQ(status_of("stop_report", "{\"type\":\"param\"}"), 0);
    EXPECT_EQ(state(), (State{1, 0, 0}));

    SCOPED_TRACE("stopping both in one call goes offline");
    EXPECT_EQ(status_of("begin_report", "{\"type\":\"all\"}"), 0);
    EXPECT_EQ(state(), (State{1, 1, 1}));
    EXPECT_EQ(status_of("stop_report", "{\"type\":\"all\"}"), 0);
    EXPECT_EQ(state(), (State{0, 0, 0}));
    EXPECT_EQ(status_of("begin_report"), 0);
    EXPECT_EQ(state(), (State{1, 1, 1}));
    EXPECT_EQ(status_of("stop_report"), 0);
    EXPECT_EQ(state(), (State{0, 0, 0}));
}

TEST(ControlObject, FlushesSendHeldEventsAndRestoreTheSwitch)
{
    hold_lists_until_flushed();
    ASSERT_EQ(status_of("begin_report", "{\"type\":\"event\"}"), 0);
    for (int list = 3; list <= 5; list++)
        send_event(list, "held-" + std::to_string(list));
    ASSERT_TRUE(holds(3, 1) && holds(4, 1) && holds(5, 1));

    SCOPED_TRACE("flush_event_report 3 sends lists 0 to 3 only");
    EXPECT_EQ(status_of("flush_event_report", "{\"list_id\":3}"), 0);
    EXPECT_TRUE(arrives(kEvents, "held-3"));
    EXPECT_TRUE(holds(4, 1) && holds(5, 1));
    EXPECT_EQ(received(kEvents).find("held-4"), std::string::npos);

    SCOPED_TRACE("flush_report while offline still sends, and the device stays offline");
    ASSERT_EQ(run("nms_dbg 'set_report_online(0)'").status, 0);
    EXPECT_EQ(status_of("flush_report", "{\"type\":\"param\"}"), 0);
    EXPECT_TRUE(holds(4, 1)) << "a parameter flush leaves the events alone";
    EXPECT_EQ(status_of("flush_report", "{\"type\":\"event\"}"), 0);
    EXPECT_TRUE(arrives(kEvents, "held-4"));
    EXPECT_TRUE(arrives(kEvents, "held-5"));
    EXPECT_EQ(var("report_online"), 0);

    SCOPED_TRACE("while offline new events are refused");
    send_event(6, "refused");
    EXPECT_EQ(status_of("flush_event_report", "{\"list_id\":7}"), 0);
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(received(kEvents).find("refused"), std::string::npos);
}

TEST(ControlObject, CleanCacheAndReloadOfTheListSettings)
{
    hold_lists_until_flushed();
    ASSERT_EQ(status_of("begin_report", "{\"type\":\"event\"}"), 0);
    send_event(5, "cleaned");
    ASSERT_TRUE(holds(5, 1));
    EXPECT_EQ(status_of("clean_cache", "{\"type\":\"param\"}"), 0);
    EXPECT_TRUE(holds(5, 1));
    EXPECT_EQ(status_of("clean_cache", "{\"type\":\"event\"}"), 0);
    EXPECT_TRUE(holds(5, 0));

    SCOPED_TRACE("update_report_cfg event_list sends what is held, then reloads");
    send_event(5, "before-reload");
    ASSERT_TRUE(holds(5, 1));
    itest::write_file("/etc/nms_report/event_report",
                      "\nconfig event_queue 'event_queue_5'\n\toption buffer_time '42'\n");
    EXPECT_EQ(status_of("update_report_cfg", "{\"type\":\"other\"}"), 0);
    EXPECT_NE(run("nms_dbg 'get_event_list_buf_time(5)'").output.find("return 600("),
              std::string::npos);
    EXPECT_EQ(status_of("update_report_cfg"), 0);
    EXPECT_EQ(status_of("update_report_cfg", "{\"type\":\"event_list\"}"), 0);
    EXPECT_TRUE(arrives(kEvents, "before-reload"));
    EXPECT_NE(run("nms_dbg 'get_event_list_buf_time(5)'").output.find("return 42("),
              std::string::npos);
}

TEST(ControlObject, StartDebugLevelsRedirectAndGateOutput)
{
    // One call that prints on each switch: the begin_report banner (trace), the stop_report
    // banner (debug) and a refused registration (error).
    auto provoke = [] {
        call("begin_report", "{\"type\":\"none\"}");
        call("stop_report", "{\"type\":\"none\"}");
        call("statistics_parms_reg", "{}");
    };
    const std::string trace = "Function is:begin_report, Line is:";
    const std::string banner = "**********ubus call begin_report**********\n";
    const std::string debug = "**********ubus call stop_report**********\n";
    const std::string error = "param type invalid.\n";
    struct Level {
        int level;
        bool trace, debug, error;
    } levels[] = {{1, true, false, false}, {2, false, true, false}, {0, false, false, true},
                  {-3, false, false, true}, {5, false, false, false}};
    for (const Level &l : levels) {
        SCOPED_TRACE("level " + std::to_string(l.level));
        // The output is opened, never created: on a device it is a console or a tty.
        const std::string file = "/tmp/debug." + std::to_string(l.level);
        itest::write_file(file, "");
        ASSERT_EQ(status_of("start_debug", "{\"debug_dev\":\"" + file +
                                               "\",\"level\":" + std::to_string(l.level) + "}"),
                  0);
        provoke();
        const std::string out = itest::read_file(file);
        EXPECT_EQ(out.find(trace) != std::string::npos, l.trace) << out;
        EXPECT_EQ(out.find(banner) != std::string::npos, l.trace) << out;
        EXPECT_EQ(out.find(debug) != std::string::npos, l.debug) << out;
        EXPECT_EQ(out.find(error) != std::string::npos, l.error) << out;
    }

    SCOPED_TRACE("without a device the console; without a level errors");
    EXPECT_EQ(status_of("start_debug", "{\"level\":1}"), 0);
    call("begin_report", "{\"type\":\"none\"}");
    EXPECT_TRUE(itest::wait_until(
        [&] { return itest::console().find(banner) != std::string::npos; }, 2s));
    itest::write_file("/tmp/debug.default", "");
    EXPECT_EQ(status_of("start_debug", "{\"debug_dev\":\"/tmp/debug.default\"}"), 0);
    provoke();
    EXPECT_EQ(itest::read_file("/tmp/debug.default").find(banner), std::string::npos);
    EXPECT_NE(itest::read_file("/tmp/debug.default").find(error), std::string::npos);

    SCOPED_TRACE("a device that cannot be opened keeps the output where it was");
    EXPECT_EQ(status_of("start_debug", "{\"debug_dev\":\"/nonexistent/x\",\"level\":1}"), 0);
    call("begin_report", "{\"type\":\"none\"}");
    EXPECT_NE(itest::read_file("/tmp/debug.default").find(banner), std::string::npos);

    SCOPED_TRACE("stop_debug silences everything, the library's request debugging too");
    EXPECT_EQ(status_of("sec_request_debug"), 0);
    EXPECT_EQ(status_of("send_report_info_async",
                        "{\"url\":\"/probe\",\"content\":\"{\\\"n\\\":1}\"}"),
              0);
    EXPECT_TRUE(itest::wait_until([] {
        return itest::read_file("/tmp/debug.default").find("[INFO_REPORT] POST") !=
               std::string::npos;
    }));
    EXPECT_EQ(status_of("stop_debug"), 0);
    const size_t size = itest::read_file("/tmp/debug.default").size();
    provoke();
    EXPECT_EQ(status_of("send_report_info_async",
                        "{\"url\":\"/probe\",\"content\":\"{\\\"n\\\":2}\"}"),
              0);
    EXPECT_TRUE(arrives("/probe", "{\\\"n\\\":2}"));
    EXPECT_EQ(itest::read_file("/tmp/debug.default").size(), size);
    EXPECT_EQ(state(), (State{1, 0, 0}));
}

TEST(ControlObject, CloudClientCallbacksStartAndStopReporting)
{
    // The daemon registers its callbacks a few seconds after start-up.
    ASSERT_TRUE(itest::wait_until(
        [] {
            return run("ubus call cloudclient get_status").output.find(
                       "ubus call nms_report_cache stop_report ") != std::string::npos;
        },
        15s));
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");

    SCOPED_TRACE("online: the registered begin_report runs");
    ASSERT_EQ(run("ubus call cloudclient set_status '{\"status\":\"online\"}'").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return state() == State{1, 1, 1}; }));
    send_event(0, "while-online");
    EXPECT_TRUE(arrives(kEvents, "while-online"));
    EXPECT_TRUE(arrives(kEvents, "\"projectId\":\"sandbox-site\"")) << "site id refreshed";

    SCOPED_TRACE("offline: the registered stop_report runs and new events are refused");
    ASSERT_EQ(run("ubus call cloudclient set_status '{\"status\":\"offline\"}'").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return state() == State{0, 0, 0}; }));
    send_event(0, "while-offline");
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(received(kEvents).find("while-offline"), std::string::npos);
}

TEST(ControlObject, ObjectIsCallableAgainAfterTheBrokerRestarts)
{
    ASSERT_EQ(status_of("begin_report", "{\"type\":\"event\"}"), 0);
    auto pid = run("pidof ubusd");
    ASSERT_EQ(pid.status, 0);
    ASSERT_EQ(run("kill " + pid.output).status, 0);
    ASSERT_TRUE(itest::wait_until([] { return run("pidof ubusd").status != 0; }));
    ASSERT_NE(status_of("print_list"), 0);
    std::this_thread::sleep_for(1s);
    ASSERT_EQ(run("setsid /usr/sbin/ubusd >/dev/null 2>&1 < /dev/null &").status, 0);
    const auto restarted = std::chrono::steady_clock::now();
    EXPECT_TRUE(itest::wait_until([] { return status_of("print_list") == 0; }, 10s));
    EXPECT_LT(std::chrono::steady_clock::now() - restarted, 5s);
    EXPECT_EQ(state(), (State{1, 1, 0})) << "the reporting state outlives the broker";
    EXPECT_EQ(status_of("begin_report", "{\"type\":\"param\"}"), 0);
    EXPECT_EQ(state(), (State{1, 1, 1}));
}

TEST(ControlObject, StatisticsParameterRegisteredTimedAndReported)
{
    // A parameter with a 1 s period whose command prints one member and pages once, and a
    // success command that leaves a mark.
    itest::write_file("/etc/nms_report/stats_report",
                      "\nconfig stats 'probe'\n\toption param_buffer_time '1'\n");
    itest::write_file("/tmp/probe_get",
                      "#!/bin/sh\n"
                      "echo '{\"report_buf\":\"{\\\"probe\\\":42}\",\"continue\":\"false\"}'\n");
    chmod("/tmp/probe_get", 0755);
    ASSERT_EQ(status_of("statistics_parms_reg", "{\"type\":\"probe\",\"get_cb\":\"/tmp/probe_get\","
                                                "\"success_cb\":\"touch /tmp/probe_done\"}"),
              0);
    EXPECT_NE(itest::read_file("/tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg")
                  .find("/tmp/probe_get"),
              std::string::npos);
    EXPECT_EQ(status_of("print_params_timer"), 0);
    EXPECT_TRUE(itest::wait_until(
        [] { return itest::console().find("type:probe\r\n") != std::string::npos; }, 2s));

    SCOPED_TRACE("an update moves the parameter to another period and back");
    EXPECT_EQ(status_of("statistics_parms_update",
                        "{\"type\":\"probe\",\"new_time\":\"30\",\"old_time\":\"1\","
                        "\"get_cb\":\"/tmp/probe_get\",\"success_cb\":\"touch /tmp/probe_done\"}"),
              0);
    EXPECT_EQ(status_of("print_params_timer"), 0);
    EXPECT_TRUE(itest::wait_until(
        [] { return itest::console().find("timeout=30\r\n") != std::string::npos; }, 2s));
    // Without new_time the configured period applies.
    EXPECT_EQ(status_of("statistics_parms_update",
                        "{\"type\":\"probe\",\"old_time\":\"30\",\"get_cb\":\"/tmp/probe_get\","
                        "\"success_cb\":\"touch /tmp/probe_done\"}"),
              0);

    SCOPED_TRACE("nothing is reported before begin_report");
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(received(kParams).find("\"probe\":42"), std::string::npos);

    SCOPED_TRACE("begin_report starts the period; each expiry reports and acknowledges");
    ASSERT_EQ(status_of("begin_report", "{\"type\":\"param\"}"), 0);
    EXPECT_TRUE(arrives(kParams, "\"probe\":42"));
    EXPECT_TRUE(arrives(kParams, "\"deviceMac\":\"00-11-22-33-44-55\""));
    EXPECT_TRUE(itest::wait_until([] { return itest::file_exists("/tmp/probe_done"); }));

    SCOPED_TRACE("stop_report param ends the timer");
    ASSERT_EQ(status_of("stop_report", "{\"type\":\"param\"}"), 0);
    std::this_thread::sleep_for(1500ms);
    const std::string after_stop = received(kParams);
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(received(kParams), after_stop);

    SCOPED_TRACE("report_specific_param sends one type at once while online");
    EXPECT_EQ(status_of("report_specific_param", "{\"type\":\"probe\"}"), 0);
    EXPECT_TRUE(itest::wait_until([&] { return received(kParams) != after_stop; }));
}

namespace {

// Resident memory of the daemon in KiB.
long daemon_rss_kib()
{
    auto r = run("grep VmRSS /proc/$(pidof nms_report)/status");
    std::smatch m;
    return std::regex_search(r.output, m, std::regex("([0-9]+) kB")) ? std::stol(m[1]) : -1;
}

}  // namespace

TEST(ControlObject, AHangingSupportedListCommandDoesNotStopTheObject)
{
    // A support command that does not end: the list call waits for it, nothing else does.
    ASSERT_EQ(status_of("get_statistics_parms_reg", "{\"cb\":\"printf a,; sleep 3600\"}"), 0);
    ASSERT_EQ(run("(ubus -t 120 call nms_report_cache get_statistics_parms_list > /tmp/list.out 2>&1;"
                  " echo $? > /tmp/list.status) >/dev/null 2>&1 &")
                  .status,
              0);
    // (The bracket keeps pgrep's own shell from matching.)
    ASSERT_TRUE(itest::wait_until([] { return run("pgrep -f 'slee[p] 3600'").status == 0; }));
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(status_of("print_params_timer"), 0);
    EXPECT_EQ(status_of("get_statistics_parms_reg", "{\"cb\":\"printf b,\"}"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 3s);
    EXPECT_FALSE(itest::file_exists("/tmp/list.status"));

    ASSERT_EQ(run("pkill -f 'slee[p] 3600'").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return itest::file_exists("/tmp/list.status"); }));
    // The run took the list as it was when the call came.
    EXPECT_EQ(itest::read_file("/tmp/list.status"), std::to_string(cli_exit(-1)) + "\n");
    EXPECT_NE(itest::read_file("/tmp/list.out").find("\"param_list\": \"a,\""), std::string::npos)
        << itest::read_file("/tmp/list.out");

    SCOPED_TRACE("past the time limit the command is ended and the call fails as a failed list");
    ASSERT_EQ(run("nms_dbg 'nms_cmd_timeout_sec=1'").status, 0);
    t0 = std::chrono::steady_clock::now();
    auto list = call("get_statistics_parms_list");
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 10s);
    EXPECT_EQ(list.status, cli_exit(-1));
    EXPECT_EQ(list.output.find("param_list"), std::string::npos) << list.output;
    EXPECT_NE(run("pgrep -f 'slee[p] 3600'").status, 0);
}

TEST(ControlObject, ListingSupportedParametersAgainAndAgainKeepsMemoryFlat)
{
#if defined(__SANITIZE_ADDRESS__)
    // AddressSanitizer holds freed memory back in its quarantine: resident memory grows with
    // any allocation, leaked or not.
    GTEST_SKIP() << "resident memory means nothing under AddressSanitizer";
#endif
    // qemu-user's own translated code lives in the program's memory and grows as new paths run.
    if (itest::emulated())
        GTEST_SKIP() << "resident memory under " << itest::emulated() << " counts the emulator's";
    ASSERT_EQ(status_of("get_statistics_parms_reg", "{\"cb\":\"printf rssi,\"}"), 0);
    ASSERT_EQ(call("get_statistics_parms_list").status, cli_exit(-1));
    const long before = daemon_rss_kib();
    ASSERT_GT(before, 0);
    ASSERT_EQ(run("for i in $(seq 200); do ubus call nms_report_cache get_statistics_parms_list"
                  " >/dev/null; done; true").status,
              0);
    // 32 KiB a call would be 6.4 MiB.
    EXPECT_LT(daemon_rss_kib() - before, 1024);
}
