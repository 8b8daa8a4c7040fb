// stats_persist.cpp - registering and moving statistics parameters, their UCI record, and
// the supported-parameter list.
#include "stats_persist.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "nms_cmd.h"
#include "nms_log.h"
#include "uac_mem.h"
#include "uci_access.h"

namespace {

void copy_bounded(char *dst, const char *src, size_t bound) {
    size_t n = strnlen(src, bound);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// Records a registration; failures are logged by the UCI helpers and not reported further
// (the record is for other services of the device, the registry does not depend on it).
void persist_registration(const char *type, const char *get_cb, const char *success_cb) {
    if (setUciSectionSpecifyPath(STATS_CB_CFG_PACKAGE, type, STATS_CB_CFG_SECTION_TYPE,
                                 STATS_CB_CFG_DIR) != 0)
        return;
    setUciOptionSpecifyPath(STATS_CB_CFG_PACKAGE, type, "get_cb", get_cb, STATS_CB_CFG_DIR);
    setUciOptionSpecifyPath(STATS_CB_CFG_PACKAGE, type, "success_cb", success_cb, STATS_CB_CFG_DIR);
}

}  // namespace

extern "C" {

int insert_params_cb_node(const char *type, const char *get_cb, const char *success_cb,
                          const char *timeout) noexcept {
    if (!type || !get_cb || !success_cb || !timeout) {
        NMS_LOG_ERROR("add timer failed.");
        return -1;
    }
    if (statistics_params_timer_add(timeout) != 0) {
        NMS_LOG_ERROR("add timer failed.");
        return -1;
    }
    {
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        auto *group = static_cast<statistics_params_timer_entry *>(
            uac_hash_find(statistics_params_timer_hash, timeout));
        if (!group || !group->node_hash)
            return -1;
        NMS_LOG_DEBUG("param timeout:%s", timeout);
        statistics_params_cb_node tmpl{};
        copy_bounded(tmpl.type, type, STATS_TYPE_LEN);
        copy_bounded(tmpl.get_cb, get_cb, STATS_CB_LEN);
        copy_bounded(tmpl.success_cb, success_cb, STATS_CB_LEN);
        if (statistics_params_cb_node_add(group->node_hash, &tmpl) != 0) {
            NMS_LOG_ERROR("add timer cb node failed.");
            return -1;
        }
        // A registration that exists already gets the new value command; its success
        // command stays the first one registered.
        auto *node = static_cast<statistics_params_cb_node *>(
            uac_hash_find(group->node_hash, tmpl.type));
        if (node && std::strcmp(node->get_cb, get_cb) != 0)
            copy_bounded(node->get_cb, get_cb, STATS_CB_LEN);
        persist_registration(type, get_cb, success_cb);
    }
    NMS_LOG_DEBUG("add params node success type:%s", type);
    // A new group gets its timer at once when reporting runs.
    restart_new_statistics_params_timer();
    return 0;
}

int update_params_cb_node(const char *type, const char *get_cb, const char *success_cb,
                          const char *new_timeout, const char *old_timeout) noexcept {
    if (!type || !new_timeout) {
        NMS_LOG_ERROR("add timer failed.");
        return -1;
    }
    char new_get_cb[STATS_CB_LEN + 1] = {0};
    char new_success_cb[STATS_CB_LEN + 1] = {0};
    if (old_timeout) {
        NMS_LOG_TRACE("old_timeout:%s \r\n", old_timeout);
        uac::TagHold hold(gStatisticsParamsTimerLocker);
        auto *group = static_cast<statistics_params_timer_entry *>(
            uac_hash_find(statistics_params_timer_hash, old_timeout));
        if (!group || !group->node_hash)
            return -1;
        auto *node =
            static_cast<statistics_params_cb_node *>(uac_hash_find(group->node_hash, type));
        if (!node)
            return -1;
        if (success_cb)
            copy_bounded(new_success_cb, success_cb, STATS_CB_LEN);
        else if (node->success_cb[0] != '\0')
            copy_bounded(new_success_cb, node->success_cb, STATS_CB_LEN);
        if (get_cb) {
            copy_bounded(new_get_cb, get_cb, STATS_CB_LEN);
        } else if (node->get_cb[0] != '\0') {
            copy_bounded(new_get_cb, node->get_cb, STATS_CB_LEN);
        } else {
            NMS_LOG_TRACE("find_entry->param_cb:%s  \r\n", node->get_cb);
            return -1;
        }
        if (statistics_params_cb_node_delete(group->node_hash, type) != 0) {
            NMS_LOG_ERROR("delete old timer cb node failed.");
            return -1;
        }
        if (uac_hash_count(group->node_hash) == 0 &&
            _statistics_params_timer_delete(statistics_params_timer_hash, old_timeout) != 0) {
            NMS_LOG_ERROR("delete old timer  failed.");
            return -1;
        }
    }
    // Between the two holds the parameter is in no group.
    if (insert_params_cb_node(type, new_get_cb, new_success_cb, new_timeout) != 0) {
        NMS_LOG_ERROR("add new timer cb node failed.");
        return -1;
    }
    NMS_LOG_TRACE("changed node:%s from timer:%s to timer:%s success.", type,
                  old_timeout ? old_timeout : "null", new_timeout);
    return 0;
}

int store_support_params_list(const char *cb) noexcept {
    if (!cb) {
        NMS_LOG_ERROR("invalid params!");
        return -1;
    }
    // Compared as stored, so a long command registered twice is still one element.
    char stored[STATS_CB_LEN + 1];
    copy_bounded(stored, cb, STATS_CB_LEN);
    uac::MutexHold hold(gParamsSupportListLocker);
    for (statistics_params_support_node *n = params_support_list_head.next;
         n && n != &params_support_list_tail; n = n->next) {
        if (std::strcmp(n->cb, stored) == 0) {
            NMS_LOG_DEBUG("get cb already in list");
            return 0;
        }
    }
    auto *node =
        static_cast<statistics_params_support_node *>(MEM_GUARD_ALLOC(sizeof(statistics_params_support_node)));
    if (!node) {
        NMS_LOG_ERROR("malloc new node failed!");
        return -1;
    }
    std::memset(node, 0, sizeof(*node));
    std::memcpy(node->cb, stored, sizeof(stored));
    node->next = &params_support_list_tail;
    node->prev = params_support_list_tail.prev;
    params_support_list_tail.prev->next = node;
    params_support_list_tail.prev = node;
    return 0;
}

int _get_support_params_list_by_popen(const statistics_params_support_node *node, char *text,
                                      int size, char *read_buf) noexcept {
    if (!node || !text || !read_buf)
        return -1;
    const long len = static_cast<long>(std::strlen(text));
    const long room = static_cast<long>(size) - 1 - len;
    if (room < 1) {
        NMS_LOG_ERROR("invalid params!");
        return -1;
    }
    std::memset(read_buf, 0, STATS_SUPPORT_READ_LEN + 1);
    bool timed_out = false;
    long got = nms_cmd_read(node->cb, read_buf, STATS_SUPPORT_READ_LEN, &timed_out);
    if (got < 0) {
        int err = errno;
        NMS_LOG_ERROR("popen call %s failed, error:%d error:%s\n", node->cb, err, std::strerror(err));
        NMS_LOG_ERROR("popen exe [%s] failed\n", node->cb);
        return -1;
    }
    // Stopped at the time limit (reported): the list would be missing what it did not print.
    if (timed_out)
        return -1;
    const size_t n = static_cast<size_t>(got);
    // A full read buffer means 2048 bytes or more were printed: too much either way.
    const long out_len = static_cast<long>(std::strlen(read_buf));
    if (n >= STATS_SUPPORT_READ_LEN || out_len >= room) {
        NMS_LOG_ERROR("too much return!");
        return -1;
    }
    std::strncat(text, read_buf, static_cast<size_t>(room - 1));
    return 0;
}

int get_support_params_list(char *text, int size) noexcept {
    if (!text || size < 1) {
        NMS_LOG_ERROR("invalid params!");
        return -1;
    }
    auto *read_buf = static_cast<char *>(MEM_GUARD_ALLOC(STATS_SUPPORT_READ_LEN + 1));
    if (!read_buf) {
        NMS_LOG_ERROR("malloc failed!");
        return -1;
    }
    // The commands are copied under the lock and run without it: a command that hangs must
    // not hold up a registration (on the bus thread) until the time limit ends it.
    std::vector<statistics_params_support_node> cbs;
    {
        uac::MutexHold hold(gParamsSupportListLocker);
        for (statistics_params_support_node *n = params_support_list_head.next;
             n && n != &params_support_list_tail; n = n->next) {
            if (n->cb[0] != '\0')
                cbs.push_back(*n);
        }
    }
    int rc = 0;
    for (const statistics_params_support_node &n : cbs) {
        if (_get_support_params_list_by_popen(&n, text, size, read_buf) != 0) {
            rc = -1;
            break;
        }
    }
    NMS_LOG_TRACE("%s:%d::free(%p)\n", __func__, __LINE__, static_cast<void *>(read_buf));
    mem_guard_free(read_buf);
    return rc;
}

}  // extern "C"
