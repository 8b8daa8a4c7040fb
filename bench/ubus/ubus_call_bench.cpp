// ubus_call_bench.cpp - bus calls per second through the broker, against a
// raw request-reply ping-pong over a Unix socket measured in the same run.
//
// A bus call crosses the broker twice each way (INVOKE in, STATUS back, plus
// DATA when the handler replies), so it is bounded by a few raw round trips;
// the ratio printed at the end is calls per second over raw round trips per
// second. Target: at least 0.3 for a call without reply data.
#include <libubus.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t kPingLen = 64;  // about the size of a small bus message

double gRawRate = 0;
double gCallRate = 0;
double gReplyRate = 0;

// Rate of one benchmark run, measured around its loop.
class Rate {
public:
    explicit Rate(benchmark::State &state) : state_(state) {}
    void start() { t0_ = std::chrono::steady_clock::now(); }
    double stop()
    {
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0_).count();
        double rate = s > 0 ? static_cast<double>(state_.iterations()) / s : 0;
        state_.counters["per_s"] = benchmark::Counter(static_cast<double>(state_.iterations()),
                                                      benchmark::Counter::kIsRate);
        return rate;
    }

private:
    benchmark::State &state_;
    std::chrono::steady_clock::time_point t0_;
};

bool read_full(int fd, char *buf, size_t len)
{
    while (len > 0) {
        ssize_t n = read(fd, buf, len);
        if (n <= 0)
            return false;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

void BM_RawUnixPingPong(benchmark::State &state)
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    std::thread echo([fd = sv[1]] {
        char buf[kPingLen];
        while (read_full(fd, buf, sizeof(buf)) && write(fd, buf, sizeof(buf)) == sizeof(buf)) {
        }
    });
    char msg[kPingLen] = "ping";
    Rate rate(state);
    rate.start();
    for (auto _ : state) {
        if (write(sv[0], msg, sizeof(msg)) != sizeof(msg) || !read_full(sv[0], msg, sizeof(msg))) {
            state.SkipWithError("ping-pong broke");
            break;
        }
    }
    gRawRate = rate.stop();
    close(sv[0]);
    echo.join();
    close(sv[1]);
}
BENCHMARK(BM_RawUnixPingPong)->UseRealTime();

// ---- the bus ---------------------------------------------------------------------

blob_buf gReply;  // used on the server thread only

int ping(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    return 0;
}

int echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    blob_buf_init(&gReply, 0);
    blobmsg_add_string(&gReply, "pong", "1");
    ubus_send_reply(ctx, req, gReply.head);
    return 0;
}

const ubus_method bench_methods[] = {
    UBUS_METHOD_NOARG("ping", ping),
    UBUS_METHOD_NOARG("echo", echo),
};
ubus_object_type bench_type = UBUS_OBJECT_TYPE("bench", bench_methods);

// A broker process, a context serving the "bench" object from a thread, and
// a calling context for the benchmark loop.
class Bus {
public:
    Bus()
    {
        std::string tmpl = std::string(BENCH_TMPDIR) + "/ubus.XXXXXX";
        if (!mkdtemp(&tmpl[0]))
            return;
        dir_ = tmpl;
        path_ = dir_ + "/ubus.sock";
        pid_ = fork();
        if (pid_ == 0) {
            execl(UBUSD_PATH, "ubusd", "-s", path_.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 500 && !(owner_ = ubus_connect(path_.c_str())); i++)
            usleep(10000);
        caller_ = ubus_connect(path_.c_str());
        if (!owner_ || !caller_)
            return;
        obj_.name = "bench";
        obj_.type = &bench_type;
        obj_.methods = bench_methods;
        obj_.n_methods = ARRAY_SIZE(bench_methods);
        if (ubus_add_object(owner_, &obj_) != 0 || ubus_lookup_id(caller_, "bench", &id_) != 0)
            return;
        wake_ = eventfd(0, EFD_CLOEXEC);
        server_ = std::thread([this] {
            for (;;) {
                pollfd p[2] = {{owner_->sock.fd, POLLIN, 0}, {wake_, POLLIN, 0}};
                if (poll(p, 2, -1) < 0 || p[1].revents || owner_->sock.eof)
                    return;
                ubus_handle_event(owner_);
            }
        });
        ready_ = true;
    }
    ~Bus()
    {
        if (server_.joinable()) {
            uint64_t one = 1;
            (void)!write(wake_, &one, sizeof(one));
            server_.join();
            close(wake_);
        }
        ubus_free(caller_);
        ubus_free(owner_);
        bench_type.id = 0;
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (!dir_.empty())
            rmdir(dir_.c_str());
    }
    bool ready() const { return ready_; }
    int call(const char *method) { return ubus_invoke(caller_, id_, method, nullptr, nullptr, nullptr, 5000); }

private:
    std::string dir_, path_;
    pid_t pid_ = -1;
    ubus_context *owner_ = nullptr;
    ubus_context *caller_ = nullptr;
    ubus_object obj_ = {};
    uint32_t id_ = 0;
    int wake_ = -1;
    std::thread server_;
    bool ready_ = false;
};

void run_calls(benchmark::State &state, const char *method, double *out)
{
    Bus bus;
    if (!bus.ready()) {
        state.SkipWithError("no bus");
        return;
    }
    Rate rate(state);
    rate.start();
    for (auto _ : state) {
        if (bus.call(method) != 0) {
            state.SkipWithError("call failed");
            break;
        }
    }
    *out = rate.stop();
}

void BM_UbusCall(benchmark::State &state)
{
    run_calls(state, "ping", &gCallRate);
}
BENCHMARK(BM_UbusCall)->UseRealTime();

void BM_UbusCallWithReply(benchmark::State &state)
{
    run_calls(state, "echo", &gReplyRate);
}
BENCHMARK(BM_UbusCallWithReply)->UseRealTime();

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (gRawRate > 0) {
        printf("\nraw Unix-socket round trips/s: %.0f\n", gRawRate);
        printf("bus calls/s (status only):     %.0f  ratio %.2f (target >= 0.30)\n", gCallRate,
               gCallRate / gRawRate);
        printf("bus calls/s (one reply):       %.0f  ratio %.2f\n", gReplyRate,
               gReplyRate / gRawRate);
    }
    return 0;
}
