// event_itest_util.h - what the in-process event tests share: a stand-in of the management
// service on loopback (records every POST, answers with queued statuses, optionally after a
// delay), the settings writers and the pipeline's start-up state.
#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <signal.h>

#include "event_config.h"
#include "event_list.h"
#include "event_report.h"
#include "itest.h"
#include "uac_lock.h"
#include "uac_thread.h"

class Cloud {
public:
    Cloud() {
        server_.Post(R"(/.*)", [this](const httplib::Request &req, httplib::Response &res) {
            received_++;
            int delay = delay_ms_.load();
            if (delay > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            std::lock_guard<std::mutex> hold(mu_);
            bodies_.push_back(req.path + " " + req.body);
            res.status = plan_.empty() ? 200 : plan_.front();
            if (!plan_.empty())
                plan_.erase(plan_.begin());
            res.set_content("{\"errorCode\":0}", "application/json");
        });
        server_.new_task_queue = [] { return new httplib::ThreadPool(64); };
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        setenv("INFO_REPORT_URL", ("http://127.0.0.1:" + std::to_string(port_)).c_str(), 1);
    }
    ~Cloud() {
        delay_ms_ = 0;
        server_.stop();
        thread_.join();
    }
    void fail_next(int n, int status) {
        std::lock_guard<std::mutex> hold(mu_);
        plan_.assign(static_cast<size_t>(n), status);
    }
    // Every later POST is answered only after ms milliseconds.
    void delay(int ms) { delay_ms_ = ms; }
    // POSTs that arrived, answered or not.
    int received() const { return received_.load(); }
    std::vector<std::string> posts() {
        std::lock_guard<std::mutex> hold(mu_);
        return bodies_;
    }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
    std::mutex mu_;
    std::vector<int> plan_;
    std::vector<std::string> bodies_;
    std::atomic<int> delay_ms_{0};
    std::atomic<int> received_{0};
};

inline const char kMac[] = "00-11-22-33-44-55";

// SIGALRM belongs to the wheel timer's tick thread alone: blocked before any thread exists, so
// every thread of the test (servers included) inherits the mask, as in the daemon.
inline const int g_sigalrm_blocked = uac_sigmask_set(SIG_BLOCK, 1, SIGALRM);

// event_report settings: one "event_queue_<list>" section per entry.
struct ListSettings {
    int list, buffer_time, buffer_size, policy;
};
inline void write_list_settings(const std::vector<ListSettings> &lists) {
    std::string text;
    for (const ListSettings &l : lists)
        text += "\nconfig event_queue 'event_queue_" + std::to_string(l.list) + "'\n" +
                "\toption buffer_time '" + std::to_string(l.buffer_time) + "'\n" +
                "\toption buffer_size '" + std::to_string(l.buffer_size) + "'\n" +
                "\toption buffer_full_processing '" + std::to_string(l.policy) + "'\n";
    itest::write_file("/etc/nms_report/event_report", text);
    update_event_list_buf_timer();
}

// event_params: the listed types enabled with the given level.
inline void enable_types(const std::vector<std::pair<int, int>> &types) {
    std::string text;
    for (auto &t : types)
        text += "\nconfig event '" + std::to_string(t.first) + "'\n\toption enable 'on'\n" +
                "\toption level '" + std::to_string(t.second) + "'\n";
    itest::write_file("/etc/nms_report/event_params", text);
}

// The pipeline's state as start-up leaves it, without the threads that would race the test.
inline void init_lists_and_sender() {
    ASSERT_EQ(g_sigalrm_blocked, 0);
    uac_lock_module_init();
    uac_thread_module_init();
    ASSERT_EQ(init_event_node_list(), 0);
    ASSERT_EQ(init_nms_event_report(0, nullptr), 0);
}

inline nms_event_info info_of(int id, uint64_t time, const char *params) {
    nms_event_info info{};
    info.id = id;
    info.time = time;
    std::strncpy(info.params, params, sizeof(info.params) - 1);
    return info;
}
