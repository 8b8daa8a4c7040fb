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

// The limit: a request-reply round trip between two threads over a Unix socket.
class PingPong {
public:
    PingPong()
    {
        ok_ = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv_) == 0;
        if (!ok_)
            return;
        echo_ = std::thread([fd = sv_[1]] {
            char buf[kPingLen];
            while (read_full(fd, buf, sizeof(buf)) && write(fd, buf, sizeof(buf)) == sizeof(buf)) {
            }
        });
    }
    ~PingPong()
    {
        if (!ok_)
            return;
        close(sv_[0]);
        echo_.join();
        close(sv_[1]);
    }
    bool round_trip()
    {
        return write(sv_[0], msg_, sizeof(msg_)) == sizeof(msg_) &&
               read_full(sv_[0], msg_, sizeof(msg_));
    }
    bool ok() const { return ok_; }

private:
    int sv_[2] = {-1, -1};
    bool ok_ = false;
    char msg_[kPingLen] = "ping";
    std::thread echo_;
};

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
        // The broker is this process's child, waited for at the end: the loop that the first
        // connection sets up must not reap it.
        uloop_handle_sigchld = false;
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

double gRatio[2] = {0, 0};

// Bus calls and raw round trips alternate in blocks of kBlock, so that both
// see the same machine load while each stays warm; the ratio is of their
// total times. One iteration is one block of each.
constexpr int kBlock = 100;

void run_calls(benchmark::State &state, const char *method, double *ratio)
{
    Bus bus;
    PingPong raw;
    if (!bus.ready() || !raw.ok()) {
        state.SkipWithError("no bus");
        return;
    }
    using clock = std::chrono::steady_clock;
    clock::duration raw_time{}, bus_time{};
    for (auto _ : state) {
        bool ok = true;
        auto t0 = clock::now();
        for (int i = 0; i < kBlock && ok; i++)
            ok = raw.round_trip();
        auto t1 = clock::now();
        for (int i = 0; i < kBlock && ok; i++)
            ok = bus.call(method) == 0;
        auto t2 = clock::now();
        if (!ok) {
            state.SkipWithError("call failed");
            break;
        }
        raw_time += t1 - t0;
        bus_time += t2 - t1;
    }
    double n = static_cast<double>(state.iterations()) * kBlock;
    double raw_s = std::chrono::duration<double>(raw_time).count();
    double bus_s = std::chrono::duration<double>(bus_time).count();
    if (raw_s <= 0 || bus_s <= 0)
        return;
    state.counters["raw_per_s"] = n / raw_s;
    state.counters["calls_per_s"] = n / bus_s;
    state.counters["ratio"] = raw_s / bus_s;
    *ratio = raw_s / bus_s;
}

void BM_UbusCallVsRaw(benchmark::State &state)
{
    run_calls(state, "ping", &gRatio[0]);
}
BENCHMARK(BM_UbusCallVsRaw)->UseRealTime()->MinTime(2.0);

void BM_UbusCallWithReplyVsRaw(benchmark::State &state)
{
    run_calls(state, "echo", &gRatio[1]);
}
BENCHMARK(BM_UbusCallWithReplyVsRaw)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printf("\nbus calls per raw round trip: status only %.2f (target >= 0.30), "
           "with one reply %.2f\n", gRatio[0], gRatio[1]);
    return 0;
}
