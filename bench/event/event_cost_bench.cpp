// event_cost_bench.cpp - what waiting and reporting cost the daemon in processor time, on a
// sandboxed device, against figures measured in the same run:
//
//   idle     the daemon's processor time and wake-ups (context switches of all its threads)
//            over 30 idle seconds
//   outage   the same over 30 s while list 0, under policy 2, is full, the cloud answers 500 to
//            every post and 3,000 more events wait on its queue behind the held producer; as a
//            ratio to idle. When the cloud is back, every one of the 9,000 events arrives once.
//   per event the daemon's processor seconds per 100,000 events of about 100 bytes from the
//            queues to cloudsim, one producer, all to list 0 and spread over the eight lists;
//            beside it, when syslog-ng and its http module are installed, syslog-ng doing the
//            same work: a unix-stream source with json-parser, an http() destination batching
//            5,999 lines / 261,120 bytes / 1 s with one worker under flow control, the events
//            written in the daemon's envelope to the same cloudsim. Two runs of each.
//
// The binary re-executes itself inside scripts/sandbox (ubusd, cloudsim and devsim there) and
// starts the daemon and syslog-ng itself.
#include "bench_device.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <set>

namespace {

using namespace benchdev;

constexpr int kIdleSeconds = 30;
constexpr int kOutageSeconds = 30;
constexpr int kOutageQueued = 3000;     // waiting behind the full list, below the 5,249 backlog
constexpr double kOutageOverIdleMax = 2.0;
constexpr double kOverSyslogMax = 1.0;  // daemon / syslog-ng, processor time an event, 8 lists
constexpr int kEventParams = 100;
constexpr int kOneListEvents = 30000;   // list 0 takes one batch a scan: about 17 s
constexpr int kEightListEvents = 100000;
constexpr int kRuns = 2;
constexpr double kSettleSeconds = 6;
constexpr int kFillChunk = 500;         // keeps the queue backlog far below 5,249

struct Results {
    double idle_cpu_pct = -1, idle_wakeups = -1;
    double outage_cpu_pct = -1, outage_wakeups = -1;
    int outage_sent = 0, outage_arrived = 0, outage_duplicates = 0;
    std::vector<double> one_list, eight_lists, syslog_ng;  // CPU seconds per 100,000 events
    std::string syslog_ng_missing;                          // why it was not run
};
Results gR;
Daemon gDaemon;
std::string gHead;  // the daemon's envelope before its first event, as cloudsim received it

// The cloud's arrivals since the last call, kept until every stamp in [first, first + n) has
// arrived or the limit passes. Counts the stamps seen twice.
struct Tally {
    std::set<int64_t> seen;
    int duplicates = 0;
    int64_t last_ms = 0;
};
bool collect(Cloud &cloud, int64_t first, int n, Tally &t, std::chrono::seconds limit)
{
    int64_t give_up = mono_ns() + std::chrono::nanoseconds(limit).count();
    std::vector<Arrival> arr;
    while (static_cast<int>(t.seen.size()) < n && mono_ns() < give_up) {
        std::this_thread::sleep_for(100ms);
        arr.clear();
        if (!cloud.poll(arr))
            continue;
        for (const Arrival &a : arr) {
            if (a.status != 200)
                continue;
            if (gHead.empty() && !a.head.empty())
                gHead = a.head;
            t.last_ms = std::max(t.last_ms, a.time_ms);
            for (int64_t s : a.stamps) {
                if (s < first || s >= first + n)
                    continue;
                if (!t.seen.insert(s).second)
                    t.duplicates++;
            }
        }
    }
    return static_cast<int>(t.seen.size()) == n;
}

// Sends events stamped first .. first + n - 1 to the given lists in turn, as a local service
// does (msgsnd, waiting while a queue is full).
bool send_events(const std::vector<int> &lists, int64_t first, int n)
{
    std::vector<int> qids;
    for (int l : lists)
        qids.push_back(queue_of_list(l));
    std::vector<Frame> frames;
    for (int l : lists)
        frames.push_back(make_frame(l, kEventParams));
    for (int i = 0; i < n; i++) {
        size_t k = static_cast<size_t>(i) % lists.size();
        Frame &f = frames[k];
        std::string p = params_text(static_cast<uint64_t>(first + i), kEventParams);
        std::memcpy(f.params, p.data(), p.size() + 1);
        f.time = static_cast<uint64_t>(first + i);
        while (msgsnd(qids[k], &f, kFrameText, 0) != 0)
            if (errno != EINTR)
                return false;
    }
    return true;
}

int64_t g_next_stamp = 1000000;  // stamps of each phase follow those of the one before

// One delivery run: n events sent by `send` (stamped first .. first + n - 1) until all have
// arrived at cloudsim, once each. The processor time `cpu` read before and after, as seconds
// per 100,000 events, or -1 when events were lost or duplicated.
template <typename Cpu, typename Send>
double cpu_per_100k(benchmark::State &state, int n, Cpu cpu, Send send)
{
    Cloud cloud;
    if (!cloud.catch_up())
        return -1;
    const int64_t first = g_next_stamp;
    g_next_stamp += n;
    int64_t c0 = cpu();
    int64_t w0 = mono_ns();
    std::thread producer([&] { send(first, n); });
    Tally t;
    bool all = collect(cloud, first, n, t, 300s);
    producer.join();
    int64_t c1 = cpu();
    if (!all || t.duplicates != 0)
        return -1;
    state.SetIterationTime(static_cast<double>(mono_ns() - w0) / 1e9);
    return static_cast<double>(c1 - c0) / 1e9 * 100000.0 / n;
}

// ---- idle ----------------------------------------------------------------------------------

void measure_quiet(double &cpu_pct, double &wakeups, int seconds)
{
    int64_t c0 = gDaemon.cpu_ns();
    long s0 = gDaemon.context_switches();
    int64_t w0 = mono_ns();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    int64_t c1 = gDaemon.cpu_ns();
    long s1 = gDaemon.context_switches();
    double wall = static_cast<double>(mono_ns() - w0) / 1e9;
    cpu_pct = 100.0 * static_cast<double>(c1 - c0) / 1e9 / wall;
    wakeups = static_cast<double>(s1 - s0) / wall;
}

void BM_Idle(benchmark::State &state)
{
    for (auto _ : state) {
        measure_quiet(gR.idle_cpu_pct, gR.idle_wakeups, kIdleSeconds);
        state.SetIterationTime(kIdleSeconds);
    }
    state.counters["cpu_pct"] = gR.idle_cpu_pct;
    state.counters["wakeups_per_s"] = gR.idle_wakeups;
}
BENCHMARK(BM_Idle)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// ---- an outage with list 0 full under policy 2 -------------------------------------------

void BM_Outage(benchmark::State &state)
{
    Cloud cloud;
    if (!cloud.catch_up() || !cloud.fault("{\"clear\":true,\"status\":500,\"count\":1000000}")) {
        state.SkipWithError("cloudsim takes no fault order");
        return;
    }
    const int64_t first = g_next_stamp;
    const int total = kListSlots + kOutageQueued;
    g_next_stamp += total;
    for (auto _ : state) {
        int qid = queue_of_list(0);
        for (int sent = 0; sent < kListSlots; sent += kFillChunk) {
            if (!send_events({0}, first + sent, std::min(kFillChunk, kListSlots - sent)) ||
                wait_queue_empty(qid, 60s) < 0) {
                state.SkipWithError("filling list 0 failed");
                return;
            }
        }
        if (!send_events({0}, first + kListSlots, kOutageQueued)) {
            state.SkipWithError("queueing behind the full list failed");
            return;
        }
        std::this_thread::sleep_for(3s);
        if (Daemon::list_count(0) != kListSlots || queue_waiting(qid) < kOutageQueued - 1) {
            state.SkipWithError("list 0 is not full with its producer held");
            return;
        }
        measure_quiet(gR.outage_cpu_pct, gR.outage_wakeups, kOutageSeconds);
        state.SetIterationTime(kOutageSeconds);
    }
    // The cloud is back: everything held arrives, once.
    cloud.fault("{\"clear\":true}");
    Tally t;
    collect(cloud, first, total, t, 120s);
    gR.outage_sent = total;
    gR.outage_arrived = static_cast<int>(t.seen.size());
    gR.outage_duplicates = t.duplicates;
    state.counters["cpu_pct"] = gR.outage_cpu_pct;
    state.counters["wakeups_per_s"] = gR.outage_wakeups;
    state.counters["arrived"] = gR.outage_arrived;
}
BENCHMARK(BM_Outage)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// ---- processor time an event, the daemon ----------------------------------------------------

void BM_DaemonPerEvent(benchmark::State &state)
{
    const int lists = static_cast<int>(state.range(0));
    const int n = lists == 1 ? kOneListEvents : kEightListEvents;
    std::vector<int> targets;
    for (int l = 0; l < lists; l++)
        targets.push_back(l);
    for (auto _ : state) {
        double per_100k = cpu_per_100k(
            state, n, [] { return gDaemon.cpu_ns(); },
            [&](int64_t first, int count) { send_events(targets, first, count); });
        if (per_100k < 0) {
            state.SkipWithError("events lost or duplicated, or cloudsim does not answer");
            return;
        }
        (lists == 1 ? gR.one_list : gR.eight_lists).push_back(per_100k);
        state.counters["cpu_s_per_100k"] = per_100k;
    }
}
BENCHMARK(BM_DaemonPerEvent)
    ->Arg(1)
    ->Arg(8)
    ->Iterations(kRuns)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

// ---- the same work through syslog-ng -------------------------------------------------------

const char *kSyslogNg = "/usr/sbin/syslog-ng";

bool syslog_ng_usable(std::string &why)
{
    if (access(kSyslogNg, X_OK) != 0) {
        why = "syslog-ng is not installed (Debian: syslog-ng-core, syslog-ng-mod-http)";
        return false;
    }
    if (sh("ls /usr/lib/syslog-ng/*/libhttp.so").status != 0) {
        why = "syslog-ng's http module is not installed (Debian: syslog-ng-mod-http)";
        return false;
    }
    return true;
}

// Single quotes for syslog-ng's configuration: taken as they stand, no escapes.
std::string ng_quoted(const std::string &s) { return "'" + s + "'"; }

class SyslogNg {
public:
    explicit SyslogNg(const std::string &dir) : dir_(dir), socket_(dir + "/events.sock") {}
    ~SyslogNg() { stop(); }

    bool start()
    {
        std::string url = "http://" + std::string(kCloudHost) + ":" +
                          std::to_string(kCloudPort) + kEventPath;
        std::string conf =
            "@version: 3.38\n"
            "options { stats-freq(0); log-fifo-size(20000); };\n"
            "source s_events { unix-stream(" + ng_quoted(socket_) +
            " flags(no-parse) max-connections(4) log-iw-size(20000)); };\n"
            "parser p_json { json-parser(prefix('.json.')); };\n"
            "destination d_cloud { http(url(" + ng_quoted(url) + ") method('POST')\n"
            "  headers('Content-Type: application/json') workers(1)\n"
            "  batch-lines(5999) batch-bytes(261120) batch-timeout(1000)\n"
            "  body-prefix(" + ng_quoted(gHead) + ") delimiter(',') body-suffix(']}]}}')\n"
            "  body('{\"typeId\":\"${.json.id}\",\"time\":\"${.json.time}\","
            "\"params\":${.json.params}}')); };\n"
            "log { source(s_events); parser(p_json); destination(d_cloud); flags(flow-control); };\n";
        write_file(dir_ + "/syslog-ng.conf", conf);
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open((dir_ + "/syslog-ng.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd >= 0) {
                dup2(fd, 1);
                dup2(fd, 2);
                close(fd);
            }
            std::string f = dir_ + "/syslog-ng.conf", r = dir_ + "/syslog-ng.persist",
                        p = dir_ + "/syslog-ng.pid", c = dir_ + "/syslog-ng.ctl";
            execl(kSyslogNg, "syslog-ng", "-F", "--no-caps", "-f", f.c_str(), "-R", r.c_str(),
                  "-p", p.c_str(), "-c", c.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 100; i++) {
            if (access(socket_.c_str(), F_OK) == 0)
                return clock_getcpuclockid(pid_, &clock_) == 0;
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return false;
            }
            std::this_thread::sleep_for(100ms);
        }
        return false;
    }
    void stop()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    int64_t cpu_ns() const { return process_cpu_ns(clock_); }
    std::string log() const { return read_file(dir_ + "/syslog-ng.log"); }

    // The producer: one line of JSON an event, the params as a string the parser unpacks.
    bool send_events(int64_t first, int n) const
    {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket_.c_str());
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            if (fd >= 0)
                close(fd);
            return false;
        }
        std::string chunk;
        bool ok = true;
        for (int i = 0; i < n && ok; i++) {
            std::string p = params_text(static_cast<uint64_t>(first + i), kEventParams);
            std::string escaped;
            for (char c : p) {
                if (c == '"' || c == '\\')
                    escaped += '\\';
                escaped += c;
            }
            chunk += "{\"id\":" + std::to_string(type_of_list(0)) + ",\"time\":" +
                     std::to_string(first + i) + ",\"params\":\"" + escaped + "\"}\n";
            if (chunk.size() >= 16384 || i == n - 1) {
                for (size_t off = 0; off < chunk.size();) {
                    ssize_t w = write(fd, chunk.data() + off, chunk.size() - off);
                    if (w < 0 && errno == EINTR)
                        continue;
                    if (w <= 0) {
                        ok = false;
                        break;
                    }
                    off += static_cast<size_t>(w);
                }
                chunk.clear();
            }
        }
        close(fd);
        return ok;
    }

private:
    std::string dir_, socket_;
    pid_t pid_ = -1;
    clockid_t clock_ = CLOCK_MONOTONIC;
};

void BM_SyslogNgPerEvent(benchmark::State &state)
{
    if (!syslog_ng_usable(gR.syslog_ng_missing)) {
        state.SkipWithError(gR.syslog_ng_missing.c_str());
        return;
    }
    if (gHead.empty()) {
        gR.syslog_ng_missing = "no report of the daemon's was seen to copy its envelope from";
        state.SkipWithError(gR.syslog_ng_missing.c_str());
        return;
    }
    std::string dir = std::string(Daemon::sandbox_dir()) + "/syslog-ng";
    sh("mkdir -p " + dir);
    SyslogNg ng(dir);
    if (!ng.start()) {
        gR.syslog_ng_missing = "syslog-ng did not start: " + ng.log();
        state.SkipWithError("syslog-ng did not start");
        return;
    }
    for (auto _ : state) {
        double per_100k = cpu_per_100k(
            state, kEightListEvents, [&] { return ng.cpu_ns(); },
            [&](int64_t first, int count) { ng.send_events(first, count); });
        if (per_100k < 0) {
            gR.syslog_ng_missing = "syslog-ng lost or duplicated events: " + ng.log();
            state.SkipWithError("events lost or duplicated, or cloudsim does not answer");
            return;
        }
        gR.syslog_ng.push_back(per_100k);
        state.counters["cpu_s_per_100k"] = per_100k;
    }
}
BENCHMARK(BM_SyslogNgPerEvent)->Iterations(kRuns)->UseManualTime()->Unit(benchmark::kSecond);

// ---- the device ----------------------------------------------------------------------------

// Every list under policy 2 with the shipped threshold and a buffering time of 1 s, so that each
// list with events goes out at every scan; types 1..8 enabled, type i+1 on list i.
void write_settings()
{
    write_device_settings([](int) { return ListSettings{1, 50, 2}; });
}

double mean(const std::vector<double> &v)
{
    double s = 0;
    for (double x : v)
        s += x;
    return v.empty() ? -1 : s / static_cast<double>(v.size());
}

std::string figures(const std::vector<double> &v)
{
    std::string out;
    char buf[32];
    for (double x : v) {
        std::snprintf(buf, sizeof buf, "%s%.2f", out.empty() ? "" : " / ", x);
        out += buf;
    }
    return out;
}

void print_summary()
{
    const char *ok = "ok", *missed = "MISSED";
    printf("\n== waiting and reporting costs: summary\n");
    if (gR.idle_cpu_pct >= 0)
        printf("idle:    %.4f %% of a core, %.1f wake-ups/s\n", gR.idle_cpu_pct, gR.idle_wakeups);
    if (gR.outage_cpu_pct >= 0) {
        printf("outage:  %.4f %% of a core, %.1f wake-ups/s", gR.outage_cpu_pct,
               gR.outage_wakeups);
        if (gR.idle_cpu_pct > 0) {
            double ratio = gR.outage_cpu_pct / gR.idle_cpu_pct;
            printf("; %.2fx idle, target <= %.1fx %s", ratio, kOutageOverIdleMax,
                   ratio <= kOutageOverIdleMax ? ok : missed);
        }
        printf("\n");
        printf("         after it: %d of %d events arrived, %d twice %s\n", gR.outage_arrived,
               gR.outage_sent, gR.outage_duplicates,
               gR.outage_arrived == gR.outage_sent && gR.outage_duplicates == 0 ? ok : missed);
    }
    if (!gR.one_list.empty())
        printf("daemon, CPU s per 100,000 events, one list:    %s\n", figures(gR.one_list).c_str());
    if (!gR.eight_lists.empty())
        printf("daemon, CPU s per 100,000 events, eight lists: %s\n",
               figures(gR.eight_lists).c_str());
    if (!gR.syslog_ng.empty()) {
        printf("syslog-ng, CPU s per 100,000 events:           %s\n",
               figures(gR.syslog_ng).c_str());
        if (!gR.eight_lists.empty()) {
            double r8 = mean(gR.eight_lists) / mean(gR.syslog_ng);
            printf("daemon / syslog-ng: eight lists %.2fx (target <= %.1fx %s)", r8,
                   kOverSyslogMax, r8 <= kOverSyslogMax ? ok : missed);
            if (!gR.one_list.empty())
                printf(", one list %.2fx", mean(gR.one_list) / mean(gR.syslog_ng));
            printf("\n");
        }
    } else if (!gR.syslog_ng_missing.empty()) {
        printf("syslog-ng: not run: %s\n", gR.syslog_ng_missing.c_str());
    }
}

}  // namespace

int main(int argc, char **argv)
{
    const DeviceRun run{"event_cost_bench", kSettleSeconds, write_settings, print_summary};
    return bench_main(argc, argv, gDaemon, run);
}
