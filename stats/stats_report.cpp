// stats_report.cpp - runs the get commands of statistics parameters, joins their output into
// one report, hands it to the statistics sender and starts the success commands.
#include "stats_report.h"

#include <json-c/json.h>
#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "cloud_report.h"
#include "event_config.h"
#include "event_report.h"
#include "nms_cmd.h"
#include "nms_ledger.h"
#include "nms_log.h"
#include "report_switch.h"
#include "uac_mem.h"
#include "uac_thread.h"
#include "uac_timer.h"

namespace {

// Room kept free behind the text for the identity members that the sender splices in front
// of it (their JSON text is a few hundred bytes at most).
constexpr size_t kSpliceRoom = 2048;
static_assert(kSpliceRoom + STATS_MAX_PAGES < STATS_REPORT_RESERVE,
              "the reserve holds the uncounted commas of one paging run and the splice");

struct JsonPut {
    void operator()(json_object *o) const noexcept { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

struct GuardFree {
    void operator()(void *p) const noexcept {
        NMS_LOG_TRACE("%s:%d::free(%p)\n", __func__, __LINE__, p);
        mem_guard_free(p);
    }
};
template <typename T>
using GuardPtr = std::unique_ptr<T, GuardFree>;

template <typename T>
GuardPtr<T> alloc_zeroed(size_t size = sizeof(T)) {
    void *p = MEM_GUARD_ALLOC(size);
    if (p)
        std::memset(p, 0, size);
    return GuardPtr<T>(static_cast<T *>(p));
}

template <typename F>
void for_each_node(statistics_params_timer_entry *group, F fn) {
    if (!group)
        return;
    uac_hash_foreach(
        group->node_hash,
        [](void *obj, void *arg) -> int32_t {
            (*static_cast<F *>(arg))(static_cast<statistics_params_cb_node *>(obj));
            return 0;
        },
        &fn);
}

template <typename F>
void for_each_group(uac_hash *table, F fn) {
    uac_hash_foreach(
        table,
        [](void *obj, void *arg) -> int32_t {
            (*static_cast<F *>(arg))(static_cast<statistics_params_timer_entry *>(obj));
            return 0;
        },
        &fn);
}

void log_popen_failure(const char *cmd) {
    int err = errno;
    NMS_LOG_ERROR("popen call %s failed, error:%d error:%s\n", cmd, err, std::strerror(err));
}

// Starts the success command text and waits for the shell, which puts every command in
// the background and returns at once. False when the shell could not be started.
bool run_success_text(const char *text) {
    if (nms_cmd_run(text) != 0) {
        log_popen_failure(text);
        return false;
    }
    return true;
}

// The member text of a "report_buf" value: the object text without its braces.
std::string member_text(const char *report_buf) {
    size_t len = std::strlen(report_buf);
    return len >= 2 ? std::string(report_buf + 1, len - 2) : std::string();
}

// Puts a copy of text in a guarded block, for a thread that owns it.
char *copy_text(const char *text, size_t size) {
    auto *copy = static_cast<char *>(MEM_GUARD_ALLOC(size));
    if (!copy)
        return nullptr;
    std::memset(copy, 0, size);
    std::memcpy(copy, text, strnlen(text, size - 1));
    return copy;
}

}  // namespace

extern "C" {

void report_statistics_params_success(statistics_params_cb_node *node,
                                      report_result_info *info) noexcept {
    if (!node || !info) {
        NMS_LOG_ERROR(" Get hash node error");
        return;
    }
    if (node->param_action != 1)
        return;
    if (node->success_cb[0] != '\0') {
        size_t used = strnlen(info->success_cmd, sizeof(info->success_cmd));
        std::string add = std::string(node->success_cb) + " &\n";
        // A command that no longer fits is left out whole: a cut command line could run
        // something else than what was registered.
        if (used + add.size() < sizeof(info->success_cmd))
            std::memcpy(info->success_cmd + used, add.c_str(), add.size() + 1);
        else
            NMS_LOG_ERROR("success cmd of %s left out, no room.", node->type);
    }
    node->param_action = 0;
}

int report_statistics_params_page(statistics_params_cb_node *node, report_result_info *info,
                                  const char *out, int32_t *remain_len, size_t *read_size) noexcept {
    JsonPtr obj(jsonParseStr(out));
    if (!obj) {
        NMS_LOG_ERROR("cmd:%s error return not a json obj!\n", node->get_cb);
        nms_ledger::stats(node->type, nms_ledger::STATS_FAILED);
        return 0;
    }
    const char *cont = getValueFromJsonObj(obj.get(), "continue");
    if (!cont) {
        NMS_LOG_ERROR("invalid return value for:%s\n", node->get_cb);
        nms_ledger::stats(node->type, nms_ledger::STATS_FAILED);
        return 0;
    }
    const char *report_buf = getValueFromJsonObj(obj.get(), "report_buf");
    if (!report_buf) {
        NMS_LOG_ERROR("cmd:%s error return not a json obj!\n", node->get_cb);
        nms_ledger::stats(node->type, nms_ledger::STATS_FAILED);
        return 0;
    }
    const std::string member = member_text(report_buf);
    *remain_len -= static_cast<int32_t>(member.size());
    NMS_LOG_DEBUG("ret_str{%s} report_result_info->buf is %s remain_len:%d\n", member.c_str(),
                  info->buf, *remain_len);

    size_t len = strnlen(info->buf, sizeof(info->buf));
    bool fits = len + 1 + member.size() + kSpliceRoom < sizeof(info->buf);
    if (*remain_len >= 0 && fits) {
        // The next page is read up to the length the text had before this append;
        // paging commands rely on pages no longer than what was gathered before them.
        *read_size = len < STATS_READ_BUF_LEN ? len : STATS_READ_BUF_LEN;
        info->buf[len] = ',';
        std::memcpy(info->buf + len + 1, member.c_str(), member.size() + 1);
        NMS_LOG_DEBUG("report_result_info->buf is {%s} remain_len:%d\n", info->buf, *remain_len);
    } else {
        // Budget spent: send what was gathered, start the success commands due so far,
        // and go on with this member as the start of a fresh text. remain_len is not
        // reset, so every later member of this run is sent on its own the same way.
        info->status = statistics_params_report_handle(info->buf, info->force);
        report_statistics_params_success(node, info);
        const bool started = run_success_text(info->success_cmd);
        std::printf("test succes cmd:%s \r\n", info->success_cmd);
        std::fflush(stdout);
        if (!started) {
            NMS_LOG_ERROR("popen exe [%s] failed\n", info->success_cmd);
            return 0;
        }
        std::memset(info->buf, 0, sizeof(info->buf));
        std::memcpy(info->buf, member.c_str(), member.size() + 1);
    }
    node->param_action = 1;
    nms_ledger::stats(node->type, nms_ledger::STATS_VALUE);
    return std::strcmp(cont, "true") == 0 ? 1 : 0;
}

void report_statistics_params_prepare(statistics_params_cb_node *node,
                                      report_result_info *info) noexcept {
    if (!node || !info) {
        NMS_LOG_ERROR(" Get hash node error");
        return;
    }
    NMS_LOG_DEBUG("had store buf is %s\n", info->buf);
    NMS_LOG_DEBUG(" Hash node param_type: %s\n", node->type);
    NMS_LOG_DEBUG(" Hash node cb: %s\n", node->get_cb);
    if (info->status != 0)
        return;
    // One byte more than is read, so that the output is always a terminated text.
    GuardPtr<char> out = alloc_zeroed<char>(STATS_READ_BUF_LEN + 1);
    if (!out) {
        NMS_LOG_ERROR("malloc  failed.");
        return;
    }
    size_t read_size = STATS_READ_BUF_LEN;
    int32_t remain_len =
        STATS_REPORT_BUDGET - static_cast<int32_t>(strnlen(info->buf, sizeof(info->buf)));
    for (int page = 0;; ++page) {
        if (page == STATS_MAX_PAGES) {
            NMS_LOG_ERROR("cmd:%s too many pages, stopped.\n", node->get_cb);
            return;
        }
        // The whole buffer, not only the part that is read next: a shorter read must not
        // leave the previous page's tail to be parsed again.
        std::memset(out.get(), 0, STATS_READ_BUF_LEN + 1);
        bool timed_out = false;
        nms_ledger::stats(node->type, nms_ledger::STATS_RUN);
        if (nms_cmd_read(node->get_cb, out.get(), read_size, &timed_out) < 0) {
            log_popen_failure(node->get_cb);
            NMS_LOG_ERROR("popen exe [%s] failed\n", node->get_cb);
            nms_ledger::stats(node->type, nms_ledger::STATS_FAILED);
            return;
        }
        // Cut off by the time limit (already reported): what it printed is not a value.
        if (timed_out) {
            nms_ledger::stats(node->type, nms_ledger::STATS_KILLED);
            return;
        }
        NMS_LOG_DEBUG("get report info by ubus, buf is %s remain_len:%d\n", out.get(), remain_len);

        if (report_statistics_params_page(node, info, out.get(), &remain_len, &read_size) != 1)
            return;
    }
}

int report_statistics_params(statistics_params_timer_entry *group) noexcept {
    GuardPtr<report_result_info> info = alloc_zeroed<report_result_info>();
    if (!info) {
        NMS_LOG_ERROR("malloc  failed.");
        return -1;
    }
    info->force = 0;
    report_result_info *ri = info.get();
    for_each_node(group, [ri](statistics_params_cb_node *n) { report_statistics_params_prepare(n, ri); });
    // Offline, the sender drops the text; the producers are still told their values were
    // taken, so that they do not pile up.
    statistics_params_report_handle(ri->buf, 0);
    for_each_node(group, [ri](statistics_params_cb_node *n) { report_statistics_params_success(n, ri); });
    run_success_text(ri->success_cmd);
    return 0;
}

void statistics_params_next_interval(uint64_t cur_time, uint64_t *begin_time, uint64_t *cnt,
                                     int32_t period, uint32_t *sec, uint32_t *usec) noexcept {
    // Unsigned arithmetic wraps where a clock or a period is odd; the lag is read signed.
    const uint64_t span = 1000000ull * static_cast<uint64_t>(static_cast<int64_t>(period));
    const uint64_t aim = *cnt * span;
    NMS_LOG_TRACE("cur_time%llu begin_time:%llu Nt:%llu, cnt:%d.",
                  static_cast<unsigned long long>(cur_time),
                  static_cast<unsigned long long>(*begin_time), static_cast<unsigned long long>(aim),
                  static_cast<int>(*cnt));
    *sec = static_cast<uint32_t>(period);
    *usec = 0;
    if (*cnt == 0) {
        *begin_time = cur_time;
    } else {
        const int64_t lag = static_cast<int64_t>(cur_time - *begin_time - aim);
        const int64_t rest = static_cast<int64_t>(span - static_cast<uint64_t>(lag));
        // A lag of a whole period or more is not caught up.
        if (lag > 0 && rest > 0) {
            *sec = static_cast<uint32_t>(rest / 1000000);
            *usec = static_cast<uint32_t>(rest % 1000000);
        }
    }
    *cnt += 1;
    NMS_LOG_TRACE("interval%d tmp_time:%d.", static_cast<int>(*sec), static_cast<int>(*usec));
}

}  // extern "C"

namespace {

// One expiry of a group timer, handed from the wheel timer's work thread to a thread of its own.
struct GroupRun {
    statistics_params_timer_entry *copy;  // private copy of the group
    char timeout[STATS_TIMEOUT_LEN + 1];  // the group's key
    uint64_t cur_time;                    // when the timer fired
    int32_t fired_id;                     // the timer that fired
};

// Collects and reports the copied group, then arms the group's next timer, aimed from the
// firing time as before. The chain of one group never overlaps itself: its next timer exists
// only once this run is over.
void run_group(GroupRun *run) noexcept {
    report_statistics_params(run->copy);
    statistics_params_group_free(run->copy);
    run->copy = nullptr;

    char *next_arg = copy_text(run->timeout, STATS_TIMEOUT_LEN + 1);
    if (!next_arg) {
        NMS_LOG_ERROR("malloc tmp_timer_str failed.");
        return;
    }
    uac::TagHold hold(gStatisticsParamsTimerLocker);
    auto *group = static_cast<statistics_params_timer_entry *>(
        uac_hash_find(statistics_params_timer_hash, run->timeout));
    // Gone, stopped or restarted while the commands ran: this chain ends here (a restart
    // has a chain of its own).
    if (!group || group->timer_id != run->fired_id) {
        mem_guard_free(next_arg);
        return;
    }
    uint32_t sec = 0;
    uint32_t usec = 0;
    statistics_params_next_interval(run->cur_time, &group->begin_time, &group->cnt,
                                    std::atoi(group->timeout), &sec, &usec);
    uint32_t id = uac_timer_add(sec, usec, timer_cb, next_arg, timer_cb_params_free_handle);
    if (id == UAC_TIMER_INVALID_ID)
        mem_guard_free(next_arg);
    group->timer_id = static_cast<int32_t>(id);
}

void *group_run_thread(void *arg) noexcept {
    GuardPtr<GroupRun> run(static_cast<GroupRun *>(arg));
    if (run)
        run_group(run.get());
    return nullptr;
}

}  // namespace

extern "C" {

void timer_cb(void *arg) noexcept {
    const char *timeout = static_cast<const char *>(arg);
    if (!timeout)
        return;
    const uint64_t cur_time = uac_uptime_us();
    GuardPtr<GroupRun> run = alloc_zeroed<GroupRun>();
    if (!run) {
        NMS_LOG_ERROR("malloc failed.");
        return;
    }
    {
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        auto *group = static_cast<statistics_params_timer_entry *>(
            uac_hash_find(statistics_params_timer_hash, timeout));
        if (!group) {
            NMS_LOG_ERROR("no hash node param type:%s", timeout);
            return;
        }
        NMS_LOG_TRACE("param type:%s", timeout);
        // An emptied or stopped group goes quiet until its timer is started again.
        if (group->timer_id == STATS_NO_TIMER || !group->node_hash ||
            uac_hash_count(group->node_hash) == 0)
            return;
        run->fired_id = group->timer_id;
        run->copy = statistics_params_group_copy(group);
        if (!run->copy)
            return;
    }
    std::snprintf(run->timeout, sizeof(run->timeout), "%s", timeout);
    run->cur_time = cur_time;
    // The commands run on a thread of their own, not here: this thread runs every timer of the
    // process, the one-second event scan among them, and a command that hangs (until the time
    // limit stops it) would hold up event reports and every other group meanwhile.
    pthread_t tid;
    if (uac_thread_create(&tid, "nmsStatsReportThread", group_run_thread, run.get()) == 0) {
        run.release();
        return;
    }
    NMS_LOG_ERROR("create thread(timer_cb) failed!");
    run_group(run.get());
}

int _flush_all_statistics_params_report(statistics_params_timer_entry *group,
                                        report_result_info *info) noexcept {
    if (!group || !info)
        return -1;
    for_each_node(group, [info](statistics_params_cb_node *n) { report_statistics_params_prepare(n, info); });
    return 0;
}

int _flush_all_statistics_params_success(statistics_params_timer_entry *group,
                                         report_result_info *info) noexcept {
    if (!group || !info)
        return -1;
    for_each_node(group, [info](statistics_params_cb_node *n) { report_statistics_params_success(n, info); });
    // The text is kept across groups: the commands of earlier groups run again with each
    // later group.
    run_success_text(info->success_cmd);
    return 0;
}

void *local_flush_all_statistics_params_report(void *) noexcept {
    // (uac_thread_create has detached this thread already.)
    GuardPtr<report_result_info> info = alloc_zeroed<report_result_info>();
    if (!info) {
        NMS_LOG_ERROR("malloc  failed.");
        return nullptr;
    }
    info->status = 0;
    info->force = 1;
    uac_hash *copy = nullptr;
    {
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        copy = copy_timer_stats_timer_hash();
    }
    if (!copy)
        return nullptr;
    report_result_info *ri = info.get();
    for_each_group(copy, [ri](statistics_params_timer_entry *g) { _flush_all_statistics_params_report(g, ri); });
    // Sent also while offline: a flush of everything is an explicit request.
    statistics_params_report_handle(ri->buf, 1);
    for_each_group(copy, [ri](statistics_params_timer_entry *g) { _flush_all_statistics_params_success(g, ri); });
    info.reset();
    for_each_group(copy, [copy](statistics_params_timer_entry *g) {
        _delete_all_statistics_params_hash(g, copy);
    });
    uac_hash_destroy(copy);
    return nullptr;
}

int flush_all_statistics_params_report(void) noexcept {
    pthread_t tid;
    if (uac_thread_create(&tid, "nmsStatsReportThread", local_flush_all_statistics_params_report,
                          nullptr) != 0) {
        NMS_LOG_ERROR("create thread(local_flush_all_statistics_params_report) failed!");
        return -1;
    }
    return 0;
}

void *local_flush_report_specific_param(void *arg) noexcept {
    GuardPtr<char> type(static_cast<char *>(arg));
    if (!type)
        return nullptr;
    char timeout[STATS_TIMEOUT_LEN + 1] = {0};
    std::snprintf(timeout, sizeof(timeout), "%d", get_statistics_params_timebuff(type.get()));
    NMS_LOG_TRACE("param timeout_str:%s", timeout);

    GuardPtr<statistics_params_cb_node> node;
    {
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        // Only the group of the type's configured period is looked at.
        auto *group = static_cast<statistics_params_timer_entry *>(
            uac_hash_find(statistics_params_timer_hash, timeout));
        if (!group) {
            NMS_LOG_DEBUG("param timeout:%s", timeout);
            return nullptr;
        }
        auto *found =
            static_cast<statistics_params_cb_node *>(uac_hash_find(group->node_hash, type.get()));
        if (!found) {
            NMS_LOG_DEBUG("not param timeout:%s", timeout);
            return nullptr;
        }
        node = alloc_zeroed<statistics_params_cb_node>();
        if (!node) {
            NMS_LOG_ERROR("malloc failed.");
            return nullptr;
        }
        *node = *found;
    }
    GuardPtr<report_result_info> info = alloc_zeroed<report_result_info>();
    if (!info) {
        NMS_LOG_ERROR("malloc  failed.");
        return nullptr;
    }
    info->force = 0;
    report_statistics_params_prepare(node.get(), info.get());
    if (info->buf[0] != '\0') {
        statistics_params_report_handle(info->buf, 0);
        node->param_action = 1;
        report_statistics_params_success(node.get(), info.get());
        run_success_text(info->success_cmd);
    }
    return nullptr;
}

int flush_report_specific_param(const char *type) noexcept {
    if (!type || !*type)
        return -1;
    if (get_report_online() == 0)
        return 0;
    char *copy = copy_text(type, std::strlen(type) + 1);
    if (!copy) {
        NMS_LOG_ERROR("malloc failed.");
        return -1;
    }
    pthread_t tid;
    if (uac_thread_create(&tid, "nmsStatsReportThread", local_flush_report_specific_param, copy) != 0) {
        NMS_LOG_ERROR("create thread(local_flush_all_statistics_params_report) failed!");
        mem_guard_free(copy);
        return -1;
    }
    return 0;
}

}  // extern "C"
