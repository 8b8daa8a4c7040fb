// event_memory_bench.cpp - whether the daemon's memory follows its load: its anonymous memory
// idle, at the peak of a burst and 10 s after the burst has drained, on a sandboxed device:
//
//   burst    eight senders put 7,000 events each on the eight queues (56,000 events) with the
//            cloud healthy, once with params of 30 characters and once with 420; every list is
//            reported at each scan until all 56,000 have arrived at cloudsim
//   clean    list 7, switched to policy 1 and never due in the run, takes 6,000 events of 420
//            characters and 1,000 more that replace its oldest; then clean_cache empties it
//
// Each figure is printed as a ratio to the idle one and as its distance from it; the target is
// at most 2 MiB above idle 10 s after the lists are empty. Run it with the install tree of a
// device build (NMS_STAGE, NMS_SANDBOX_TARGET and NMS_SANDBOX_QEMU_CPU as scripts/sandbox
// takes them) to measure that C library's allocator; under qemu-user the figures are the
// emulator's, which adds its own code cache to the daemon's memory. Its events are sent by the
// device's own nms_event_send, since the daemon reads a frame in its own byte order.
#include "bench_device.h"

namespace {

using namespace benchdev;

constexpr double kSettleSeconds = 8;
constexpr int kBurstPerList = 7000;          // one full queue (msg_qbytes / 512)
// Under qemu-user a device build's programs (cloudsim included) run about twenty times slower:
// a burst of 2,000 a list shows the allocator just as well and drains in minutes.
constexpr int kEmulatedBurstPerList = 2000;
constexpr int kSmall = 30, kLarge = 420;     // characters of params
constexpr int kCleanList = 7;
constexpr int kCleanEvents = 7000;           // 6,000 stored, 1,000 replacing the oldest
constexpr int kAfterSeconds = 10;
constexpr double kAboveIdleMaxMib = 2.0;

Daemon gDaemon;

// A device build's install tree (NMS_SANDBOX_TARGET names its sysroot): its programs run under
// qemu-user, or natively for the x86-64 musl build.
bool device_build()
{
    const char *target = getenv("NMS_SANDBOX_TARGET");
    return target && *target;
}

// The device build's programs run under qemu-user (the sandbox is told the CPU to emulate).
bool emulated()
{
    const char *cpu = getenv("NMS_SANDBOX_QEMU_CPU");
    return device_build() && cpu && *cpu;
}

double anon_mib() { return static_cast<double>(gDaemon.status_kb("RssAnon")) / 1024.0; }

struct Figure {
    std::string what;
    double peak = -1, after = -1;
};
double gIdle = -1;
std::vector<Figure> gFigures;
int64_t g_next_stamp = 1000000;

// Every list under policy 2, threshold 50, 1 s: each list with events goes out at each scan.
// With keep_list7, list 7 under policy 1, threshold 600, 3600 s: never due in the run.
void write_settings(bool keep_list7)
{
    write_device_settings([keep_list7](int list) {
        return keep_list7 && list == kCleanList ? ListSettings{3600, 600, 1}
                                                : ListSettings{1, 50, 2};
    });
}

// Samples the anonymous memory every 100 ms while `busy` runs; returns the highest.
template <typename Busy>
double peak_while(Busy busy)
{
    std::atomic<bool> done{false};
    double peak = anon_mib();
    std::thread sampler([&] {
        while (!done.load()) {
            peak = std::max(peak, anon_mib());
            std::this_thread::sleep_for(100ms);
        }
    });
    bool ok = busy();
    done = true;
    sampler.join();
    peak = std::max(peak, anon_mib());
    return ok ? peak : -1;
}

// Sends n events to the list, stamped first, first + 1, ... A device build's daemon reads the
// frame in its own byte order, so for a device build the device's own nms_event_send sends them
// (one program run, all n stamped first).
bool send_to_list(int list, int64_t first, int n, int params)
{
    if (device_build())
        return sh("nms_event_send -l " + std::to_string(list) + " -t " + std::to_string(first) +
                  " -n " + std::to_string(n) + " " + std::to_string(type_of_list(list)) + " '" +
                  params_text(static_cast<uint64_t>(first), params) + "'")
                   .status == 0;
    int qid = queue_of_list(list);
    Frame f = make_frame(list, params);
    for (int i = 0; i < n; i++) {
        std::string p = params_text(static_cast<uint64_t>(first + i), params);
        std::memcpy(f.params, p.data(), p.size() + 1);
        f.time = static_cast<uint64_t>(first + i);
        while (msgsnd(qid, &f, kFrameText, 0) != 0)
            if (errno != EINTR)
                return false;
    }
    return true;
}

// n events stamped within [first, first + n) arrived at cloudsim within the limit.
bool all_arrived(Cloud &cloud, int64_t first, int n, std::chrono::seconds limit)
{
    int got = 0;
    int64_t give_up = mono_ns() + std::chrono::nanoseconds(limit).count();
    std::vector<Arrival> arr;
    while (got < n && mono_ns() < give_up) {
        std::this_thread::sleep_for(200ms);
        arr.clear();
        if (!cloud.poll(arr))
            continue;
        for (const Arrival &a : arr)
            for (int64_t s : a.stamps)
                if (a.status == 200 && s >= first && s < first + n)
                    got++;
    }
    return got == n;
}

// Under qemu-user the emulator's own memory grows by the code it translates, which the first
// burst does for every path an event takes (about 2.5 MiB): there the idle figure is measured
// after a small burst that has drained, and the one of the start is printed beside it.
constexpr int kWarmUpPerList = 100;
double gIdleAtStart = -1;

void BM_Idle(benchmark::State &state)
{
    for (auto _ : state) {
        std::this_thread::sleep_for(2s);
        gIdle = gIdleAtStart = anon_mib();
        if (emulated()) {
            Cloud cloud;
            const int64_t first = g_next_stamp;
            g_next_stamp += kLists * kWarmUpPerList;
            cloud.catch_up();
            for (int l = 0; l < kLists; l++)
                send_to_list(l, first + int64_t(l) * kWarmUpPerList, kWarmUpPerList, kSmall);
            if (!all_arrived(cloud, first, kLists * kWarmUpPerList, 600s)) {
                state.SkipWithError("the warm-up burst did not arrive");
                return;
            }
            std::this_thread::sleep_for(std::chrono::seconds(kAfterSeconds));
            gIdle = anon_mib();
        }
        state.SetIterationTime(2);
    }
    state.counters["anon_MiB"] = gIdle;
}
BENCHMARK(BM_Idle)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void BM_Burst(benchmark::State &state)
{
    const int params = static_cast<int>(state.range(0));
    Cloud cloud;
    if (!cloud.catch_up()) {
        state.SkipWithError("cloudsim does not answer");
        return;
    }
    const int per_list = emulated() ? kEmulatedBurstPerList : kBurstPerList;
    Figure f;
    f.what = "burst of 8 x " + std::to_string(per_list) + " events, " + std::to_string(params) +
             "-character params";
    for (auto _ : state) {
        const int64_t first = g_next_stamp;
        const int n = kLists * per_list;
        g_next_stamp += n;
        int64_t t0 = mono_ns();
        f.peak = peak_while([&] {
            std::vector<std::thread> senders;
            for (int l = 0; l < kLists; l++)
                senders.emplace_back([=] {
                    send_to_list(l, first + int64_t(l) * per_list, per_list, params);
                });
            for (std::thread &t : senders)
                t.join();
            return all_arrived(cloud, first, n, emulated() ? 1200s : 300s);
        });
        if (f.peak < 0) {
            state.SkipWithError("not every event arrived");
            return;
        }
        std::this_thread::sleep_for(std::chrono::seconds(kAfterSeconds));
        f.after = anon_mib();
        state.SetIterationTime(static_cast<double>(mono_ns() - t0) / 1e9);
    }
    state.counters["peak_MiB"] = f.peak;
    state.counters["after_MiB"] = f.after;
    gFigures.push_back(f);
}
BENCHMARK(BM_Burst)->Arg(kSmall)->Arg(kLarge)->Iterations(1)->UseManualTime()->Unit(
    benchmark::kSecond);

void BM_FullPolicyOneListCleaned(benchmark::State &state)
{
    Figure f;
    f.what = "list 7 (policy 1) full of 420-character params, then clean_cache";
    write_settings(true);
    if (!Daemon::bus("update_report_cfg", "{\"type\":\"event_list\"}")) {
        state.SkipWithError("the lists' settings were not reloaded");
        return;
    }
    for (auto _ : state) {
        int64_t t0 = mono_ns();
        const int64_t first = g_next_stamp;
        g_next_stamp += kCleanEvents;
        f.peak = peak_while([&] {
            int qid = queue_of_list(kCleanList);
            for (int sent = 0; sent < kCleanEvents; sent += 500)
                if (!send_to_list(kCleanList, first + sent, 500, kLarge) ||
                    wait_queue_empty(qid, 120s) < 0)
                    return false;
            return Daemon::list_count(kCleanList) == kListSlots;
        });
        if (f.peak < 0 || !Daemon::bus("clean_cache")) {
            state.SkipWithError("list 7 was not filled and cleaned");
            return;
        }
        std::this_thread::sleep_for(std::chrono::seconds(kAfterSeconds));
        f.after = anon_mib();
        if (Daemon::list_count(kCleanList) != 0) {
            state.SkipWithError("clean_cache left events in list 7");
            return;
        }
        state.SetIterationTime(static_cast<double>(mono_ns() - t0) / 1e9);
    }
    state.counters["peak_MiB"] = f.peak;
    state.counters["after_MiB"] = f.after;
    gFigures.push_back(f);
}
BENCHMARK(BM_FullPolicyOneListCleaned)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void print_summary()
{
    printf("\n== memory after a burst: summary (%s)\n",
           device_build() ? "device build" : "host build");
    if (gIdleAtStart != gIdle)
        printf("idle: %.2f MiB anonymous after a warm-up burst of 8 x %d (%.2f MiB at the start)\n",
               gIdle, kWarmUpPerList, gIdleAtStart);
    else
        printf("idle: %.2f MiB anonymous\n", gIdle);
    for (const Figure &f : gFigures) {
        double above = f.after - gIdle;
        printf("%s:\n  peak %.2f MiB (%.2fx idle), %d s after %.2f MiB (%.2fx idle, %+.2f MiB), "
               "target <= +%.1f MiB %s\n",
               f.what.c_str(), f.peak, f.peak / gIdle, kAfterSeconds, f.after, f.after / gIdle,
               above, kAboveIdleMaxMib, above <= kAboveIdleMaxMib ? "ok" : "MISSED");
    }
}

}  // namespace

int main(int argc, char **argv)
{
    const DeviceRun run{"event_memory_bench", kSettleSeconds, [] { write_settings(false); },
                        print_summary};
    return bench_main(argc, argv, gDaemon, run);
}
