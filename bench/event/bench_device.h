// bench_device.h - what the event benchmarks share: the daemon on a sandboxed device (started
// by the benchmark itself, so that its settings are in place first and its pid is known), its
// message queues and event frames, cloudsim's record of what arrived, and the re-execution of
// the benchmark inside scripts/sandbox.
#pragma once

#include <benchmark/benchmark.h>
#include <httplib.h>
#include <json-c/json.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "nms_event_send.h"

namespace benchdev {

using namespace std::chrono_literals;

constexpr int kLists = NMS_EVENT_SEND_LISTS;
constexpr int kListSlots = 6000;
constexpr int kParamsMax = NMS_EVENT_SEND_PARAMS_MAX;  // 495: the frame keeps no more
constexpr int kSmallParams = 32;
constexpr const char *kEventPath = "/nexo/devmsg/v1/reportDevEventMsg";
constexpr const char *kCloudHost = "127.0.0.1";
constexpr int kCloudPort = 8480;


// The 520-byte frame a local service sends: type, event id, padding, time, params.
struct Frame {
    long mtype;
    int32_t id;
    int32_t reserved;
    uint64_t time;
    char params[496];
};
static_assert(sizeof(Frame) == 520, "the event frame is 520 bytes");
static_assert(offsetof(Frame, id) == 8 && offsetof(Frame, time) == 16 &&
                  offsetof(Frame, params) == 24,
              "fields where the daemon reads them");
constexpr size_t kFrameText = sizeof(Frame) - sizeof(long);  // 512 bytes travel

// Event type id of list i: types 1..8 are configured with levels 0..7.
inline int32_t type_of_list(int list) { return list + 1; }

// ---- small helpers -----------------------------------------------------------------------

inline int64_t mono_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

inline int64_t wall_ms() { return static_cast<int64_t>(nms_event_send_now_ms()); }

inline int64_t self_cpu_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Processor time of another process (all its threads), through its CPU clock
// (clock_getcpuclockid); -1 when the clock cannot be read.
inline int64_t process_cpu_ns(clockid_t clock)
{
    timespec ts{};
    if (clock_gettime(clock, &ts) != 0)
        return -1;
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Shell {
    int status;
    std::string out;
};

inline Shell sh(const std::string &cmd)
{
    Shell r{-1, {}};
    FILE *p = popen(("( " + cmd + " ) 2>&1").c_str(), "r");
    if (!p)
        return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128;
    return r;
}

inline void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// A JSON object text of exactly len characters (len >= 16), unique per seq.
inline std::string params_text(uint64_t seq, int len)
{
    std::string head = "{\"seq\":" + std::to_string(seq) + ",\"pad\":\"";
    std::string text = head + std::string(static_cast<size_t>(len) - head.size() - 2, 'x') + "\"}";
    return text;
}

inline double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

inline double median(std::vector<double> v) { return percentile(std::move(v), 0.5); }

// ---- queues ------------------------------------------------------------------------------

inline int queue_of_list(int list)
{
    return msgget(NMS_EVENT_SEND_KEY_BASE + list, IPC_CREAT);
}

inline long queue_waiting(int qid)
{
    msqid_ds st{};
    return msgctl(qid, IPC_STAT, &st) == 0 ? static_cast<long>(st.msg_qnum) : -1;
}

inline bool send_frames(int qid, Frame &f, int n)
{
    for (int i = 0; i < n; i++) {
        f.time = static_cast<uint64_t>(wall_ms());
        while (msgsnd(qid, &f, kFrameText, 0) != 0)
            if (errno != EINTR)
                return false;
    }
    return true;
}

// Polls the backlog until the queue is empty; the time it was seen empty, or -1.
inline int64_t wait_queue_empty(int qid, std::chrono::milliseconds limit)
{
    int64_t end = mono_ns() + std::chrono::nanoseconds(limit).count();
    for (;;) {
        long n = queue_waiting(qid);
        int64_t now = mono_ns();
        if (n == 0)
            return now;
        if (n < 0 || now > end)
            return -1;
        usleep(20);
    }
}

inline Frame make_frame(int list, int params_len)
{
    Frame f{};
    f.mtype = 1;
    f.id = type_of_list(list);
    std::string p = params_text(0, params_len);
    std::memcpy(f.params, p.data(), p.size());
    return f;
}

// ---- the daemon --------------------------------------------------------------------------

class Daemon {
public:
    // program: the daemon's file under /usr/sbin (the benchmarks also have nms_report_bare).
    bool start(const char *program = "nms_report")
    {
        program_ = program;
        std::string path = std::string("/usr/sbin/") + program;
        std::string log = std::string(sandbox_dir()) + "/" + program + ".log";
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd >= 0) {
                dup2(fd, 1);
                dup2(fd, 2);
                close(fd);
            }
            execl(path.c_str(), program, static_cast<char *>(nullptr));
            _exit(127);
        }
        started_ns_ = mono_ns();
        for (int i = 0; i < 150; i++) {
            if (sh("ubus list nms_report_cache").status == 0)
                return clockid_ok();
            std::this_thread::sleep_for(100ms);
        }
        return false;
    }
    // Ends the daemon (SIGTERM, as procd stops it) and waits for it; its queues stay.
    void stop()
    {
        if (pid_ <= 0)
            return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
        // Gone from the bus before another one publishes the object.
        for (int i = 0; i < 50 && sh("ubus list nms_report_cache").status == 0; i++)
            std::this_thread::sleep_for(100ms);
    }
    pid_t pid() const { return pid_; }
    double seconds_up() const { return static_cast<double>(mono_ns() - started_ns_) / 1e9; }

    // utime + stime in clock ticks, process-wide, from /proc/<pid>/stat.
    long stat_ticks() const
    {
        std::string s = read_file("/proc/" + std::to_string(pid_) + "/stat");
        size_t close = s.rfind(')');
        if (close == std::string::npos)
            return -1;
        std::istringstream in(s.substr(close + 2));
        std::string field;
        long utime = 0, stime = 0;
        for (int i = 3; i <= 15 && in >> field; i++) {  // fields 14 and 15 of stat(5)
            if (i == 14)
                utime = std::atol(field.c_str());
            if (i == 15)
                stime = std::atol(field.c_str());
        }
        return utime + stime;
    }
    // The same in nanoseconds, through the process's CPU clock.
    int64_t cpu_ns() const { return process_cpu_ns(clock_); }
    // A line of /proc/<pid>/status ("VmRSS", "VmHWM") in kB.
    long status_kb(const char *key) const
    {
        std::istringstream in(read_file("/proc/" + std::to_string(pid_) + "/status"));
        std::string line;
        while (std::getline(in, line))
            if (line.compare(0, std::strlen(key), key) == 0 && line[std::strlen(key)] == ':')
                return std::atol(line.c_str() + std::strlen(key) + 1);
        return -1;
    }
    bool alive() const { return kill(pid_, 0) == 0; }
    // Times the daemon's threads were switched out, voluntarily or not, summed over its
    // threads (/proc/<pid>/task/*/status): each sleep that ends is one, so this counts wake-ups.
    long context_switches() const
    {
        std::string out = sh("cat /proc/" + std::to_string(pid_) + "/task/*/status").out;
        std::istringstream in(out);
        std::string line;
        long n = 0;
        while (std::getline(in, line))
            if (line.find("ctxt_switches:") != std::string::npos)
                n += std::atol(line.c_str() + line.find(':') + 1);
        return n;
    }

    // Nodes in a list, through the daemon's debug shell (only between measurements: the shell
    // borrows the daemon's output for the call).
    static int list_count(int list)
    {
        Shell r = sh("nms_dbg -p " + program_ + " 'get_list_total_node(" + std::to_string(list) + ")'");
        size_t at = r.out.find("return ");
        return at == std::string::npos ? -1 : std::atoi(r.out.c_str() + at + 7);
    }
    static bool bus(const std::string &method, const std::string &args = "")
    {
        return sh("ubus call nms_report_cache " + method + (args.empty() ? "" : " '" + args + "'"))
                   .status == 0;
    }
    static const char *sandbox_dir()
    {
        const char *d = getenv("NMS_SANDBOX_DIR");
        return d ? d : "/run/sandbox";
    }

private:
    bool clockid_ok() { return clock_getcpuclockid(pid_, &clock_) == 0; }

    static inline std::string program_ = "nms_report";   // the one running, for the shell
    pid_t pid_ = -1;
    clockid_t clock_ = CLOCK_MONOTONIC;
    int64_t started_ns_ = 0;
};

// ---- the cloud's record ------------------------------------------------------------------

struct Arrival {
    int64_t time_ms;               // when cloudsim received the report
    int status;
    std::vector<int64_t> stamps;   // time stamps of its events, in order
    std::string head;              // the body up to its first event
};

struct JsonPut {
    void operator()(json_object *o) const noexcept { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

class Cloud {
public:
    Cloud() : cli_(kCloudHost, kCloudPort) { cli_.set_read_timeout(30, 0); }

    // Reports received since the last call (event path only).
    bool poll(std::vector<Arrival> &out)
    {
        auto res = cli_.Get(("/api/reports?path=" + std::string(kEventPath) +
                             "&since=" + std::to_string(seq_)).c_str());
        if (!res || res->status != 200)
            return false;
        JsonPtr arr(json_tokener_parse(res->body.c_str()));
        if (!arr || !json_object_is_type(arr.get(), json_type_array))
            return false;
        size_t n = json_object_array_length(arr.get());
        for (size_t i = 0; i < n; i++) {
            json_object *rec = json_object_array_get_idx(arr.get(), i);
            json_object *v;
            Arrival a{};
            if (json_object_object_get_ex(rec, "seq", &v))
                seq_ = std::max<uint64_t>(seq_, static_cast<uint64_t>(json_object_get_int64(v)));
            if (json_object_object_get_ex(rec, "time_ms", &v))
                a.time_ms = json_object_get_int64(v);
            if (json_object_object_get_ex(rec, "status", &v))
                a.status = json_object_get_int(v);
            if (json_object_object_get_ex(rec, "body", &v)) {
                const char *body = json_object_get_string(v);
                a.stamps = event_stamps(body);
                const char *first = body ? std::strstr(body, "{\"typeId\":") : nullptr;
                if (first)
                    a.head.assign(body, static_cast<size_t>(first - body));
            }
            out.push_back(std::move(a));
        }
        return true;
    }
    // Skips everything received so far.
    bool catch_up()
    {
        std::vector<Arrival> ignored;
        return poll(ignored);
    }
    bool fault(const std::string &order)
    {
        auto res = cli_.Post("/api/faults", order, "application/json");
        return res && res->status == 200;
    }

private:
    // The time stamps of the events of one report body, as the envelope writes them.
    static std::vector<int64_t> event_stamps(const char *body)
    {
        std::vector<int64_t> out;
        const char *p = body ? std::strstr(body, "\"eventList\":[") : nullptr;
        static const char kTime[] = "\"time\":\"";
        while (p && (p = std::strstr(p, "{\"typeId\":")) != nullptr) {
            const char *t = std::strstr(p, kTime);
            if (!t)
                break;
            out.push_back(std::atoll(t + sizeof kTime - 1));
            p = t;
        }
        return out;
    }

    httplib::Client cli_;
    uint64_t seq_ = 0;
};


// ---- running inside the sandbox -------------------------------------------------------------

inline bool is_listing(int argc, char **argv)
{
    for (int i = 1; i < argc; i++)
        if (std::strncmp(argv[i], "--benchmark_list_tests", 22) == 0)
            return true;
    return false;
}

// Runs this very binary again inside a private device (scripts/sandbox) over this build's
// install tree, with the services the daemon talks to; returns only on failure.
inline int exec_in_sandbox(int argc, char **argv, const char *services = "ubusd cloudsim devsim")
{
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) {
        perror("readlink /proc/self/exe");
        return 2;
    }
    self[n] = '\0';
    std::string sandbox = NMS_SOURCE_DIR "/scripts/sandbox";
    std::vector<char *> args;
    args.push_back(const_cast<char *>(sandbox.c_str()));
    args.push_back(self);
    for (int i = 1; i < argc; i++)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    if (!getenv("NMS_STAGE"))
        setenv("NMS_STAGE", NMS_BENCH_STAGE, 1);
    setenv("NMS_SANDBOX_SERVICES", services, 1);
    execv(sandbox.c_str(), args.data());
    perror("exec scripts/sandbox");
    return 2;
}

// The event types of a bench device: types 1..8 enabled, type i + 1 on list i.
inline void write_event_types()
{
    std::string types;
    for (int i = 0; i < kLists; i++)
        types += "\nconfig event '" + std::to_string(type_of_list(i)) + "'\n" +
                 "\toption enable 'on'\n\toption level '" + std::to_string(i) + "'\n";
    write_file("/etc/nms_report/event_params", types);
}

// A list's buffering settings on a bench device.
struct ListSettings {
    int buffer_time, buffer_size, policy;
};

// The settings of a bench device: each list's from settings_of(list), and the event types of
// write_event_types.
template <typename F>
void write_device_settings(F settings_of)
{
    std::string lists;
    for (int i = 0; i < kLists; i++) {
        const ListSettings l = settings_of(i);
        lists += "\nconfig event_queue 'event_queue_" + std::to_string(i) + "'\n" +
                 "\toption buffer_time '" + std::to_string(l.buffer_time) + "'\n" +
                 "\toption buffer_size '" + std::to_string(l.buffer_size) + "'\n" +
                 "\toption buffer_full_processing '" + std::to_string(l.policy) + "'\n";
    }
    write_file("/etc/nms_report/event_report", lists);
    write_event_types();
}

// What a benchmark binary does on its device, around the benchmarks themselves.
struct DeviceRun {
    const char *name;       // the binary's, for messages
    double settle_seconds;  // after the start: the start-up's own work is over by then
    void (*prepare)();      // before the daemon starts (its settings)
    void (*summary)();      // after the benchmarks
};

// main() of a benchmark binary: outside the sandbox it runs itself again inside one; there it
// starts the daemon, switches reporting on, lets the start-up settle, runs the benchmarks and
// prints the summary. Exits 1 only when the daemon did not come up or died.
inline int bench_main(int argc, char **argv, Daemon &daemon, const DeviceRun &run)
{
    if (is_listing(argc, argv)) {  // names only: no device needed
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    }
    if (!getenv("NMS_IN_SANDBOX"))
        return exec_in_sandbox(argc, argv);
    run.prepare();
    if (!daemon.start()) {
        fprintf(stderr, "%s: the daemon did not come up; its log:\n%s\n", run.name,
                read_file(std::string(Daemon::sandbox_dir()) + "/nms_report.log").c_str());
        return 1;
    }
    if (!Daemon::bus("begin_report")) {
        fprintf(stderr, "%s: begin_report failed\n", run.name);
        return 1;
    }
    while (daemon.seconds_up() < run.settle_seconds)
        std::this_thread::sleep_for(100ms);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (!daemon.alive())
        fprintf(stderr, "%s: the daemon died during the run\n", run.name);
    run.summary();
    return daemon.alive() ? 0 : 1;
}

}  // namespace benchdev
