// clock_itest.cpp - the daemon on a sandboxed device whose time of day NTP steps, six hours
// back and then thirty years ahead, under traffic on lists 0, 3 and 5 and two statistics
// periods. Only what the daemon and the senders read of the time of day moves (the clock
// shift shim, LD_PRELOAD); the machine's clock is never touched.
#include "itest.h"
#include "itest_proc.h"
#include "itest_json.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using itest::read_file;
using itest::run;

namespace {

const char kShiftFile[] = "/tmp/clock_shift";
const char kEvents[] = "/nexo/devmsg/v1/reportDevEventMsg";
// Lists and their buffering times in seconds, with a threshold no phase reaches. Lists 0 to
// 2 go out at every scan (each second) whatever their time; a list that is due takes the
// lists below it along, so list 3 goes out at least every 3 s and list 5 every 6 s.
const std::map<int, int> kBufferSec = {{0, 1}, {3, 3}, {5, 6}};
// Statistics parameters and their periods in seconds.
const std::map<std::string, int> kPeriodSec = {{"clk_a", 2}, {"clk_b", 3}};
constexpr int kPhaseSec = 15;

// The environment under which a program reads the shifted time of day.
std::string shifted_env()
{
    const char *asan = getenv("ASAN_OPTIONS");
    return std::string("LD_PRELOAD=") + NMS_CLOCK_SHIFT_LIB + " NMS_CLOCK_SHIFT_FILE=" +
           kShiftFile + " ASAN_OPTIONS=" + (asan && *asan ? std::string(asan) + ":" : "") +
           "verify_asan_link_order=0 ";
}

void shift_by(long long seconds)
{
    itest::write_file(kShiftFile, std::to_string(seconds) + "\n");
}

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Uptimes (seconds) at which a statistics command ran, one a line in its file.
std::vector<double> runs_of(const std::string &name)
{
    std::vector<double> out;
    std::istringstream in(read_file("/tmp/runs_" + name));
    for (double t; in >> t;)
        out.push_back(t);
    return out;
}

double uptime()
{
    return std::stod(read_file("/proc/uptime"));
}

struct Report {
    int64_t at_ms;                     // when cloudsim received it (the machine's clock)
    int list;                          // from the events' params
    std::vector<int64_t> event_times;  // the time stamps the sender gave
};

std::vector<Report> event_reports()
{
    std::vector<Report> out;
    auto all = itest::parse(
        run(std::string("curl -s 'http://127.0.0.1:8480/api/reports?limit=100000&path=") +
            kEvents + "'")
            .output);
    if (!all || !json_object_is_type(all.get(), json_type_array))
        return out;
    for (size_t i = 0; i < json_object_array_length(all.get()); i++) {
        json_object *rec = json_object_array_get_idx(all.get(), i);
        json_object *events = itest::at(rec, {"json", "devEventList", "0", "eventList"});
        if (!events || !json_object_is_type(events, json_type_array))
            continue;
        Report r{json_object_get_int64(itest::at(rec, {"time_ms"})), -1, {}};
        for (size_t e = 0; e < json_object_array_length(events); e++) {
            json_object *ev = json_object_array_get_idx(events, e);
            r.list = json_object_get_int(itest::at(ev, {"params", "list"}));
            r.event_times.push_back(
                std::stoll(json_object_get_string(itest::at(ev, {"time"}))));
        }
        out.push_back(r);
    }
    return out;
}

}  // namespace

TEST(ClockSteps, PeriodsKeepTheirLengthAndStampsFollowTheNewTime)
{
    shift_by(0);
    std::string lists;
    for (int list = 0; list < 8; list++) {
        auto bt = kBufferSec.find(list);
        lists += "\nconfig event_queue 'event_queue_" + std::to_string(list) +
                 "'\n\toption buffer_time '" +
                 std::to_string(bt == kBufferSec.end() ? 600 : bt->second) +
                 "'\n\toption buffer_size '5000'\n\toption buffer_full_processing '1'\n";
    }
    itest::write_file("/etc/nms_report/event_report", lists);
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");
    std::string stats;
    for (const auto &p : kPeriodSec) {
        stats += "\nconfig stats '" + p.first + "'\n\toption param_buffer_time '" +
                 std::to_string(p.second) + "'\n";
        const std::string get = "/tmp/get_" + p.first;
        itest::write_file(get, "#!/bin/sh\ncut -d' ' -f1 /proc/uptime >> /tmp/runs_" + p.first +
                                   "\necho '{\"report_buf\":\"{\\\"" + p.first +
                                   "\\\":1}\",\"continue\":\"false\"}'\n");
        chmod(get.c_str(), 0755);
    }
    itest::write_file("/etc/nms_report/stats_report", stats);

    auto r = run(shifted_env() + "/usr/sbin/nms_report >/tmp/nms_report.out 2>&1 & echo $!");
    ASSERT_EQ(r.status, 0);
    const pid_t pid = std::stoi(r.output);
    ASSERT_TRUE(itest::wait_until([] { return run("ubus list nms_report_cache").status == 0; }, 20s))
        << read_file("/tmp/nms_report.out");
    ASSERT_NE(read_file("/proc/" + std::to_string(pid) + "/maps").find("libnms_clock_shift"),
              std::string::npos)
        << "the daemon runs without the shim";
    for (const auto &p : kPeriodSec)
        ASSERT_EQ(run("ubus call nms_report_cache statistics_parms_reg '{\"type\":\"" + p.first +
                      "\",\"get_cb\":\"/tmp/get_" + p.first + "\",\"success_cb\":\"true\"}'")
                      .status,
                  0);
    ASSERT_EQ(run("ubus call nms_report_cache begin_report").status, 0);

    // Five events a second on each list, from senders that read the shifted time too.
    run(shifted_env() +
        "sh -c 'i=0; while [ ! -e /tmp/stop ]; do i=$((i+1)); for l in 0 3 5; do "
        "nms_event_send -l $l 10$l \"{\\\"n\\\":$i,\\\"list\\\":$l}\"; done; sleep 0.2; done' "
        ">/tmp/sender.out 2>&1 &");

    struct Phase {
        const char *name;
        long long shift;
        int64_t from_ms = 0, to_ms = 0;
        double from_up = 0, to_up = 0;
        long cpu = 0;
    };
    std::vector<Phase> phases = {{"as set", 0}, {"6 hours back", -6LL * 3600},
                                 {"30 years ahead", 30LL * 365 * 86400}};
    for (auto &ph : phases) {
        shift_by(ph.shift);
        ph.from_ms = now_ms();
        ph.from_up = uptime();
        long before = itest::cpu_ticks(pid);
        std::this_thread::sleep_for(std::chrono::seconds(kPhaseSec));
        ph.cpu = itest::cpu_ticks(pid) - before;
        ph.to_ms = now_ms();
        ph.to_up = uptime();
    }
    itest::write_file("/tmp/stop", "");
    shift_by(0);
    std::this_thread::sleep_for(1s);
    const auto reports = event_reports();
    ASSERT_FALSE(reports.empty()) << read_file("/tmp/sender.out");

    const long hz = sysconf(_SC_CLK_TCK);
    for (const auto &ph : phases) {
        SCOPED_TRACE(ph.name);
        // No spinning: well under a fifth of a core for light traffic.
        EXPECT_LT(static_cast<double>(ph.cpu) / hz, 0.2 * kPhaseSec) << "processor seconds";

        // Each list is reported once per buffering time: no burst, no stall.
        for (const auto &lb : kBufferSec) {
            SCOPED_TRACE("list " + std::to_string(lb.first));
            std::vector<int64_t> at;
            for (const auto &rep : reports)
                if (rep.list == lb.first && rep.at_ms >= ph.from_ms && rep.at_ms < ph.to_ms)
                    at.push_back(rep.at_ms);
            // List 3 may go out earlier with list 5; the others keep their own time (less a
            // late report just before, on a loaded machine).
            const int64_t own = lb.second * 1000;
            const int64_t earliest = lb.first == 3 ? 700 : own - (own / 3 > 700 ? own / 3 : 700);
            // A scan, a lookup of the identity and a send take longer under an emulator.
            EXPECT_GE(at.size(), static_cast<size_t>(kPhaseSec / (lb.second + 1) - 1));
            EXPECT_LE(at.size(), static_cast<size_t>(kPhaseSec * 1000 / earliest + 1));
            for (size_t i = 1; i < at.size(); i++) {
                EXPECT_GE(at[i] - at[i - 1], earliest) << "a report came early";
                EXPECT_LE(at[i] - at[i - 1], own + 3000) << "a report came late";
            }
        }

        // The event times are the senders' shifted clock (list 0's events, which go out within
        // a second or two of being sent).
        for (const auto &rep : reports) {
            if (rep.list != 0 || rep.at_ms < ph.from_ms + 2000 || rep.at_ms >= ph.to_ms)
                continue;
            for (int64_t t : rep.event_times)
                EXPECT_NEAR(static_cast<double>(t - rep.at_ms) / 1000.0,
                            static_cast<double>(ph.shift), 15.0);
        }

        // Each statistics period keeps its length.
        for (const auto &p : kPeriodSec) {
            SCOPED_TRACE(p.first);
            int n = 0;
            for (double t : runs_of(p.first))
                n += t >= ph.from_up && t < ph.to_up;
            EXPECT_GE(n, kPhaseSec / p.second - 1);
            EXPECT_LE(n, kPhaseSec / p.second + 1);
        }
    }
}
