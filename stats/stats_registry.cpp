// stats_registry.cpp - the statistics parameter registry: period groups with their node
// tables and timers, and the operations that add, remove, copy, start, stop, clean and print
// them.
#include "stats_registry.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nms_cmd.h"
#include "nms_log.h"
#include "stats_report.h"
#include "uac_mem.h"
#include "uac_timer.h"

uac_hash *statistics_params_timer_hash = nullptr;
// Guards statistics_params_timer_hash, every group in it and every node table. Taken
// through the holder-tag guard; never held together with gParamsSupportListLocker and
// never while a command runs. The wheel timer's own locks are taken inside it (add and
// remove of group timers), never the other way round.
uac_mutex_t *gStatisticsParamsTimerLocker = nullptr;
// Guards the supported-parameter list (stats_persist).
uac_mutex_t *gParamsSupportListLocker = nullptr;
std::atomic<int32_t> statistics_params_timers_started{0};
statistics_params_support_node params_support_list_head;
statistics_params_support_node params_support_list_tail;

namespace {

// Copies at most bound characters of src into dst, which holds bound + 1 bytes; always
// terminated.
void copy_bounded(char *dst, const char *src, size_t bound) {
    size_t n = strnlen(src, bound);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

uint32_t hash_text(const char *text) {
    return uac_hash_string(text, static_cast<uint32_t>(std::strlen(text)), 0);
}

template <typename T>
T *alloc_zeroed() {
    void *p = MEM_GUARD_ALLOC(sizeof(T));
    if (p)
        std::memset(p, 0, sizeof(T));
    return static_cast<T *>(p);
}

void free_traced(void *p) {
    NMS_LOG_TRACE("%s:%d::free(%p)\n", __func__, __LINE__, p);
    mem_guard_free(p);
}

// uac_hash_foreach adapters: the table hands objects over as void pointers.
template <typename T, typename F>
void for_each(uac_hash *table, F fn) {
    uac_hash_foreach(
        table,
        [](void *obj, void *arg) -> int32_t {
            (*static_cast<F *>(arg))(static_cast<T *>(obj));
            return 0;
        },
        &fn);
}

void for_each_group(uac_hash *table, void (*fn)(statistics_params_timer_entry *)) {
    for_each<statistics_params_timer_entry>(table, fn);
}

// Frees every node of a node table, then the table.
void destroy_node_table(uac_hash *nodes) {
    if (!nodes)
        return;
    // Collected first: freeing a node while the table still lists it would leave the
    // walk on freed memory if anything looked at the object again.
    std::vector<statistics_params_cb_node *> all;
    for_each<statistics_params_cb_node>(nodes, [&all](statistics_params_cb_node *n) {
        all.push_back(n);
    });
    uac_hash_destroy(nodes);
    for (statistics_params_cb_node *n : all)
        free_hash_node(n);
}

void free_group(statistics_params_timer_entry *group) {
    destroy_node_table(group->node_hash);
    group->node_hash = nullptr;
    free_traced(group);
}

int statistics_params_cb_node_entry_add(uac_hash *nodes, const statistics_params_cb_node *tmpl) {
    if (!nodes || !tmpl) {
        NMS_LOG_ERROR("inputs error");
        return -1;
    }
    if (uac_hash_find(nodes, tmpl->type)) {
        NMS_LOG_DEBUG("param type:%s", tmpl->type);
        return 0;
    }
    if (uac_hash_count(nodes) >= STATS_TABLE_MAX) {
        NMS_LOG_ERROR("balance_dis_sta_hash is full.");
        NMS_LOG_ERROR("add %s) failed.", tmpl->type);
        return -1;
    }
    auto *node = alloc_zeroed<statistics_params_cb_node>();
    if (!node) {
        NMS_LOG_ERROR("malloc discovery-station failed.");
        return -1;
    }
    copy_bounded(node->type, tmpl->type, STATS_TYPE_LEN);
    copy_bounded(node->get_cb, tmpl->get_cb, STATS_CB_LEN);
    copy_bounded(node->success_cb, tmpl->success_cb, STATS_CB_LEN);
    if (uac_hash_add(nodes, node) != 0) {
        NMS_LOG_ERROR("insert params cb :%s to hash failed.", node->type);
        NMS_LOG_ERROR("add %s) failed.", tmpl->type);
        free_traced(node);
        return -1;
    }
    NMS_LOG_TRACE("insert params cb :%s to hash successed.", node->type);
    NMS_LOG_TRACE("add %s) success.", node->type);
    return 0;
}

int statistics_params_cb_node_entry_delete(uac_hash *nodes, statistics_params_cb_node *node) {
    if (uac_hash_del(nodes, node) != 0) {
        NMS_LOG_ERROR("remove %s from statistics_params_timer_hash failed.", node->type);
        NMS_LOG_DEBUG("delete params cb%s failed.", node->type);
        return -1;
    }
    NMS_LOG_TRACE("remove %s from statistics_params_timer_hash success.", node->type);
    return 0;
}

int statistics_params_timer_entry_delete(uac_hash *table, statistics_params_timer_entry *group) {
    if (uac_hash_del(table, group) != 0) {
        NMS_LOG_ERROR("remove %s from statistics_params_timer_hash failed.", group->timeout);
        NMS_LOG_DEBUG("delete params cb%s failed.", group->timeout);
        return -1;
    }
    NMS_LOG_TRACE("remove %s from statistics_params_timer_hash success.", group->timeout);
    return 0;
}

// Runs a command for its side effect only; its output is ignored. False when it could
// not be started.
bool run_ignoring_output(const char *cmd) {
    if (nms_cmd_run(cmd) != 0) {
        int err = errno;
        NMS_LOG_ERROR("popen call %s failed, error:%d error:%s\n", cmd, err, std::strerror(err));
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

uint32_t statistics_params_timer_hash_obj(const void *entry) noexcept {
    return hash_text(static_cast<const statistics_params_timer_entry *>(entry)->timeout);
}

uint32_t statistics_params_timer_hash_key(const void *key) noexcept {
    return hash_text(static_cast<const char *>(key));
}

int32_t statistics_params_timer_hash_cmp(const void *entry, const void *key) noexcept {
    if (!entry || !key)
        return 0;
    return std::strcmp(static_cast<const statistics_params_timer_entry *>(entry)->timeout,
                       static_cast<const char *>(key)) == 0;
}

uint32_t statistics_params_cb_node_hash_obj(const void *node) noexcept {
    return hash_text(static_cast<const statistics_params_cb_node *>(node)->type);
}

uint32_t statistics_params_cb_node_hash_key(const void *key) noexcept {
    return hash_text(static_cast<const char *>(key));
}

int32_t statistics_params_cb_node_hash_cmp(const void *node, const void *key) noexcept {
    if (!node || !key)
        return 0;
    return std::strcmp(static_cast<const statistics_params_cb_node *>(node)->type,
                       static_cast<const char *>(key)) == 0;
}

int init_statistics_params(void) noexcept {
    bool ok = true;
    gStatisticsParamsTimerLocker = uac_mutex_create("gStatisticsParamsTimerLocker", UAC_MUTEX_NORMAL);
    if (!gStatisticsParamsTimerLocker) {
        NMS_LOG_ERROR("Create gStatisticsParamsTimerLocker failed.");
        ok = false;
    }
    if (ok) {
        statistics_params_timer_hash =
            uac_hash_create_fixed(statistics_params_timer_hash_obj, statistics_params_timer_hash_key,
                                  statistics_params_timer_hash_cmp, STATS_HASH_BUCKETS);
        if (!statistics_params_timer_hash) {
            NMS_LOG_ERROR("Create statistics_params_timer_hash hash failed.");
            ok = false;
        }
    }
    if (ok) {
        gParamsSupportListLocker = uac_mutex_create("gParamsSupportListLocker", UAC_MUTEX_NORMAL);
        if (!gParamsSupportListLocker) {
            NMS_LOG_ERROR("Create gParamsSupportListLocker failed.");
            ok = false;
        }
    }
    if (!ok) {
        if (gStatisticsParamsTimerLocker)
            uac_mutex_destroy(gStatisticsParamsTimerLocker);
        if (gParamsSupportListLocker)
            uac_mutex_destroy(gParamsSupportListLocker);
        gStatisticsParamsTimerLocker = nullptr;
        gParamsSupportListLocker = nullptr;
        return -1;
    }
    std::memset(&params_support_list_head, 0, sizeof(params_support_list_head));
    std::memset(&params_support_list_tail, 0, sizeof(params_support_list_tail));
    params_support_list_head.next = &params_support_list_tail;
    params_support_list_tail.prev = &params_support_list_head;
    return 0;
}

statistics_params_timer_entry *_statistics_params_timer_add(uac_hash *table,
                                                            const char *timeout) noexcept {
    if (!table || !timeout) {
        NMS_LOG_ERROR("inputs error");
        return nullptr;
    }
    if (auto *found = static_cast<statistics_params_timer_entry *>(uac_hash_find(table, timeout))) {
        NMS_LOG_DEBUG("param type:%s", timeout);
        return found;
    }
    if (uac_hash_count(table) >= STATS_TABLE_MAX) {
        NMS_LOG_ERROR("balance_dis_sta_hash is full.");
        NMS_LOG_ERROR("add (%s) failed.", timeout);
        return nullptr;
    }
    auto *group = alloc_zeroed<statistics_params_timer_entry>();
    if (!group) {
        NMS_LOG_ERROR("malloc discovery-station failed.");
        return nullptr;
    }
    copy_bounded(group->timeout, timeout, STATS_TIMEOUT_LEN);
    group->node_hash =
        uac_hash_create_fixed(statistics_params_cb_node_hash_obj, statistics_params_cb_node_hash_key,
                              statistics_params_cb_node_hash_cmp, STATS_HASH_BUCKETS);
    if (!group->node_hash) {
        NMS_LOG_ERROR("Create statistics_params_timer_hash hash failed.");
        free_traced(group);
        return nullptr;
    }
    group->timer_id = STATS_NO_TIMER;
    if (uac_hash_add(table, group) != 0) {
        NMS_LOG_ERROR("insert params cb :%s to hash failed.", group->timeout);
        free_group(group);
        NMS_LOG_ERROR("add (%s) failed.", timeout);
        return nullptr;
    }
    NMS_LOG_TRACE("insert params cb :%s to hash successed.", group->timeout);
    NMS_LOG_TRACE("add (%s) success.", group->timeout);
    return group;
}

int statistics_params_timer_add(const char *timeout) noexcept {
    uac::TagHold hold(gStatisticsParamsTimerLocker);
    return _statistics_params_timer_add(statistics_params_timer_hash, timeout) ? 0 : -1;
}

int _statistics_params_timer_delete(uac_hash *table, const char *timeout) noexcept {
    if (!table || !timeout) {
        NMS_LOG_DEBUG(" invalid params.");
        return -1;
    }
    auto *group = static_cast<statistics_params_timer_entry *>(uac_hash_find(table, timeout));
    if (!group) {
        NMS_LOG_DEBUG(" params cb%s not exist.", timeout);
        return -1;
    }
    if (statistics_params_timer_entry_delete(table, group) != 0)
        return -1;
    NMS_LOG_DEBUG("delete params cb%s successed.", group->timeout);
    // Also for a timer that went quiet (its id is stale): an unknown id is ignored.
    uac_timer_remove(static_cast<uint32_t>(group->timer_id));
    free_group(group);
    return 0;
}

int statistics_params_timer_delete(const char *timeout) noexcept {
    if (!timeout || !statistics_params_timer_hash) {
        NMS_LOG_ERROR("inputs error");
        return -1;
    }
    uac::TagHold hold(gStatisticsParamsTimerLocker);
    return _statistics_params_timer_delete(statistics_params_timer_hash, timeout);
}

int statistics_params_cb_node_add(uac_hash *node_hash,
                                  const statistics_params_cb_node *tmpl) noexcept {
    return statistics_params_cb_node_entry_add(node_hash, tmpl);
}

int statistics_params_cb_node_delete(uac_hash *node_hash, const char *type) noexcept {
    if (!node_hash || !type) {
        NMS_LOG_ERROR("inputs error");
        return -1;
    }
    auto *node = static_cast<statistics_params_cb_node *>(uac_hash_find(node_hash, type));
    if (!node) {
        NMS_LOG_DEBUG(" params cb%s not exist.", type);
        return -1;
    }
    if (statistics_params_cb_node_entry_delete(node_hash, node) != 0)
        return -1;
    free_hash_node(node);
    // The line has always shown the formatter's null marker in place of the type.
    NMS_LOG_DEBUG("delete params cb%s successed.", "(null)");
    return 0;
}

int _copy_timer_stats_timer_hash_node(statistics_params_cb_node *node,
                                      statistics_params_timer_entry *dst_group) noexcept {
    if (!node || !dst_group)
        return -1;
    statistics_params_cb_node tmpl{};
    copy_bounded(tmpl.type, node->type, STATS_TYPE_LEN);
    copy_bounded(tmpl.get_cb, node->get_cb, STATS_CB_LEN);
    copy_bounded(tmpl.success_cb, node->success_cb, STATS_CB_LEN);
    return statistics_params_cb_node_add(dst_group->node_hash, &tmpl);
}

int _copy_timer_stats_timer_hash(statistics_params_timer_entry *group, uac_hash *dst) noexcept {
    if (!group || !dst)
        return -1;
    statistics_params_timer_entry *copy = _statistics_params_timer_add(dst, group->timeout);
    if (!copy)
        return -1;
    int rc = 0;
    for_each<statistics_params_cb_node>(group->node_hash, [copy, &rc](statistics_params_cb_node *n) {
        if (_copy_timer_stats_timer_hash_node(n, copy) != 0)
            rc = -1;
    });
    return rc;
}

uac_hash *copy_timer_stats_timer_hash(void) noexcept {
    if (!statistics_params_timer_hash) {
        NMS_LOG_ERROR(" copy_timer_stats_timer_hash error");
        return nullptr;
    }
    uac_hash *dst =
        uac_hash_create_fixed(statistics_params_timer_hash_obj, statistics_params_timer_hash_key,
                              statistics_params_timer_hash_cmp, STATS_HASH_BUCKETS);
    if (!dst) {
        NMS_LOG_ERROR("copy_timer_stats_timer_hash create hash failed.");
        return nullptr;
    }
    for_each<statistics_params_timer_entry>(
        statistics_params_timer_hash,
        [dst](statistics_params_timer_entry *g) { _copy_timer_stats_timer_hash(g, dst); });
    return dst;
}

int _begin_each_timer(statistics_params_timer_entry *group) noexcept {
    if (!group || group->timer_id != STATS_NO_TIMER)
        return 0;
    // The timer's own copy of the key: the group may be gone by the time it fires.
    auto *arg = static_cast<char *>(MEM_GUARD_ALLOC(STATS_TIMEOUT_LEN + 1));
    if (!arg) {
        NMS_LOG_ERROR("malloc discovery-station failed.");
        return -1;
    }
    std::memset(arg, 0, STATS_TIMEOUT_LEN + 1);
    copy_bounded(arg, group->timeout, STATS_TIMEOUT_LEN);
    group->cnt = 0;
    // One-shot: timer_cb re-arms it, aimed at begin_time + n x period.
    uint32_t id = uac_timer_add(static_cast<uint32_t>(std::atoi(group->timeout)), 0, timer_cb, arg,
                                timer_cb_params_free_handle);
    if (id == UAC_TIMER_INVALID_ID) {
        mem_guard_free(arg);
        group->timer_id = STATS_NO_TIMER;
        return -1;
    }
    group->timer_id = static_cast<int32_t>(id);
    return 0;
}

int _stop_each_timer(statistics_params_timer_entry *group) noexcept {
    if (!group || group->timer_id == STATS_NO_TIMER)
        return 0;
    uac_timer_remove(static_cast<uint32_t>(group->timer_id));
    group->timer_id = STATS_NO_TIMER;
    return 0;
}

// The two starters walk the registry under its lock: a group timer that fires meanwhile
// updates timer_id and cnt of the same groups on the timer's work thread.
int begin_all_statistics_params_timer(void) noexcept {
    if (statistics_params_timers_started.load(std::memory_order_relaxed) != 0)
        return 0;
    {
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        for_each_group(statistics_params_timer_hash,
                       [](statistics_params_timer_entry *g) { _begin_each_timer(g); });
    }
    statistics_params_timers_started.store(1, std::memory_order_relaxed);
    return 0;
}

int restart_new_statistics_params_timer(void) noexcept {
    if (statistics_params_timers_started.load(std::memory_order_relaxed) != 1)
        return 0;
    uac::TagHold hold(gStatisticsParamsTimerLocker);
    for_each_group(statistics_params_timer_hash,
                   [](statistics_params_timer_entry *g) { _begin_each_timer(g); });
    return 0;
}

int stop_all_statistics_params_timer(void) noexcept {
    if (statistics_params_timers_started.load(std::memory_order_relaxed) != 1)
        return 0;
    {
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        for_each_group(statistics_params_timer_hash,
                       [](statistics_params_timer_entry *g) { _stop_each_timer(g); });
    }
    statistics_params_timers_started.store(0, std::memory_order_relaxed);
    return 0;
}

void notify_clean_statistics_params(statistics_params_cb_node *node) noexcept {
    if (!node) {
        NMS_LOG_ERROR(" Get hash node error");
        return;
    }
    if (node->success_cb[0] != '\0')
        run_ignoring_output(node->success_cb);
    node->param_action = 0;
}

int _clean_all_statistics_params(statistics_params_timer_entry *group) noexcept {
    if (!group)
        return -1;
    for_each<statistics_params_cb_node>(group->node_hash, [](statistics_params_cb_node *n) {
        notify_clean_statistics_params(n);
    });
    return 0;
}

int clean_all_statistics_params(void) noexcept {
    // The success commands are gathered under the lock and run after it is given back,
    // so a slow command holds up neither the timers nor the bus.
    std::vector<std::string> commands;
    {
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        for_each<statistics_params_timer_entry>(
            statistics_params_timer_hash, [&commands](statistics_params_timer_entry *g) {
                for_each<statistics_params_cb_node>(
                    g->node_hash, [&commands](statistics_params_cb_node *n) {
                        if (n->success_cb[0] != '\0')
                            commands.emplace_back(n->success_cb);
                        n->param_action = 0;
                    });
            });
    }
    for (const std::string &cmd : commands) {
        statistics_params_cb_node node{};
        copy_bounded(node.success_cb, cmd.c_str(), STATS_CB_LEN);
        notify_clean_statistics_params(&node);
    }
    return 0;
}

int _print_one_statistics_params(statistics_params_cb_node *node) noexcept {
    if (!node)
        return -1;
    std::printf("===========\r\ntype:%s\r\n", node->type);
    std::printf("get_cb:%s\r\n", node->get_cb);
    std::printf("success_cb:%s\r\n", node->success_cb);
    std::printf("param_action:%d\r\n", node->param_action);
    return 0;
}

int _print_all_statistics_params(statistics_params_timer_entry *group) noexcept {
    if (!group || !group->node_hash)
        return -1;
    std::printf("\r");
    std::printf("timeout=%s\r\n", group->timeout);
    std::printf("timer_id=%d\r\n", group->timer_id);
    for_each<statistics_params_cb_node>(group->node_hash,
                                        [](statistics_params_cb_node *n) { _print_one_statistics_params(n); });
    return 0;
}

int print_all_statistics_params(void) noexcept {
    {
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        for_each_group(statistics_params_timer_hash,
                       [](statistics_params_timer_entry *g) { _print_all_statistics_params(g); });
    }
    std::fflush(stdout);
    return 0;
}

int _delete_all_statistics_params_hash(statistics_params_timer_entry *group,
                                       uac_hash *table) noexcept {
    if (!group || !table)
        return -1;
    if (uac_hash_del(table, group) != 0)
        return -1;
    free_group(group);
    return 0;
}

statistics_params_timer_entry *statistics_params_group_copy(
    const statistics_params_timer_entry *group) noexcept {
    if (!group)
        return nullptr;
    auto *copy = alloc_zeroed<statistics_params_timer_entry>();
    if (!copy) {
        NMS_LOG_ERROR("malloc discovery-station failed.");
        return nullptr;
    }
    copy_bounded(copy->timeout, group->timeout, STATS_TIMEOUT_LEN);
    copy->timer_id = STATS_NO_TIMER;
    copy->node_hash =
        uac_hash_create_fixed(statistics_params_cb_node_hash_obj, statistics_params_cb_node_hash_key,
                              statistics_params_cb_node_hash_cmp, STATS_HASH_BUCKETS);
    if (!copy->node_hash) {
        NMS_LOG_ERROR("Create statistics_params_timer_hash hash failed.");
        free_traced(copy);
        return nullptr;
    }
    int rc = 0;
    for_each<statistics_params_cb_node>(group->node_hash, [copy, &rc](statistics_params_cb_node *n) {
        if (_copy_timer_stats_timer_hash_node(n, copy) != 0)
            rc = -1;
    });
    if (rc != 0) {
        free_group(copy);
        return nullptr;
    }
    return copy;
}

void statistics_params_group_free(statistics_params_timer_entry *group) noexcept {
    if (group)
        free_group(group);
}

void free_hash_node(statistics_params_cb_node *node) noexcept {
    if (node)
        free_traced(node);
}

void timer_cb_params_free_handle(void *arg) noexcept {
    if (arg)
        free_traced(arg);
}

}  // extern "C"
