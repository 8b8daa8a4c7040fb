// stats_fixture.cpp - set-up shared by the statistics unit tests.
#include "stats_fixture.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "nms_log.h"
#include "report_switch.h"
#include "uac_mem.h"
#include "uac_thread.h"
#include "uac_timer.h"

namespace statstest {
namespace {

// SIGALRM belongs to the wheel timer's tick thread alone: blocked before any thread exists.
const int g_sigalrm_blocked = uac_sigmask_set(SIG_BLOCK, 1, SIGALRM);

void init_once() {
    static const bool done = [] {
        uac_lock_module_init();
        uac_thread_module_init();
        return uac_timer_init(10) == 0 && init_statistics_params() == 0;
    }();
    ASSERT_TRUE(done);
}

}  // namespace

std::string scratch(const std::string &name) {
    // One folder per process: CTest runs the cases of this binary side by side.
    static const std::string dir = std::string(NMS_TEST_TMPDIR) + "/" + std::to_string(getpid());
    return dir + (name.empty() ? "" : "/" + name);
}

std::vector<std::string> read_lines(const std::string &path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string answer_cmd(const std::string &member, bool more) {
    std::string escaped;
    for (char c : member)
        escaped += (c == '"') ? std::string("\\\\\"") : std::string(1, c);
    return "printf '{\"continue\":\"" + std::string(more ? "true" : "false") +
           "\",\"report_buf\":\"{" + escaped + "}\"}'";
}

statistics_params_timer_entry *group_of(const char *timeout) {
    return static_cast<statistics_params_timer_entry *>(
        uac_hash_find(statistics_params_timer_hash, timeout));
}

statistics_params_cb_node *node_of(const char *timeout, const char *type) {
    statistics_params_timer_entry *g = group_of(timeout);
    return g ? static_cast<statistics_params_cb_node *>(uac_hash_find(g->node_hash, type)) : nullptr;
}

void add_node(const char *timeout, const char *type, const std::string &get_cb,
              const std::string &success_cb) {
    ASSERT_EQ(statistics_params_timer_add(timeout), 0);
    statistics_params_cb_node tmpl{};
    snprintf(tmpl.type, sizeof(tmpl.type), "%s", type);
    snprintf(tmpl.get_cb, sizeof(tmpl.get_cb), "%s", get_cb.c_str());
    snprintf(tmpl.success_cb, sizeof(tmpl.success_cb), "%s", success_cb.c_str());
    // The period is kept cut, like every key.
    statistics_params_timer_entry *g =
        group_of(std::string(timeout).substr(0, STATS_TIMEOUT_LEN).c_str());
    ASSERT_NE(g, nullptr);
    ASSERT_EQ(statistics_params_cb_node_add(g->node_hash, &tmpl), 0);
}

void begin_capture() {
    log_error_on.store(1, std::memory_order_relaxed);
    ::testing::internal::CaptureStdout();
}

std::string end_capture() {
    fflush(stdout);
    log_error_on.store(0, std::memory_order_relaxed);
    return ::testing::internal::GetCapturedStdout();
}

void StatsTest::SetUp() {
    ASSERT_EQ(g_sigalrm_blocked, 0);
    init_once();
    std::string dir = scratch();
    ASSERT_EQ(system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str()), 0);
    set_report_online(0);
}

void StatsTest::TearDown() {
    // Background success commands may still write here; a later test starts afresh anyway.
    std::string rm = "rm -rf '" + scratch() + "'";
    EXPECT_EQ(system(rm.c_str()), 0);
    stop_all_statistics_params_timer();
    std::vector<std::string> timeouts;
    uac_hash_foreach(
        statistics_params_timer_hash,
        [](void *obj, void *arg) -> int32_t {
            static_cast<std::vector<std::string> *>(arg)->push_back(
                static_cast<statistics_params_timer_entry *>(obj)->timeout);
            return 0;
        },
        &timeouts);
    for (const std::string &t : timeouts)
        statistics_params_timer_delete(t.c_str());
    // The supported list has no delete operation: the tests unlink and free its elements.
    for (statistics_params_support_node *n = params_support_list_head.next;
         n && n != &params_support_list_tail;) {
        statistics_params_support_node *next = n->next;
        mem_guard_free(n);
        n = next;
    }
    params_support_list_head.next = &params_support_list_tail;
    params_support_list_tail.prev = &params_support_list_head;
}

}  // namespace statstest
