// event_config.cpp - event list settings table and per-type UCI queries.
#include "event_config.h"

#include "nms_log.h"
#include "uci_access.h"

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr const char *kConfDir = "/etc/nms_report";
constexpr const char *kListPackage = "event_report";
constexpr const char *kTypePackage = "event_params";
constexpr const char *kStatsPackage = "stats_report";
// While this file exists every unconfigured event type counts as enabled.
constexpr const char *kIgnoreEnableFile = "/tmp/tmp_nms_event_test_ignore_enable";

constexpr int kDefaultBufTime = 600;
constexpr int kDefaultBufSize = 50;
constexpr int kDefaultParamBufTime = 600;

// One entry per list; all 0 until the first load. Written by
// update_event_list_buf_timer (start-up, or the bus thread on a reload) and
// read without a lock by the dispatch workers, the scan and the report
// threads. A reader may see a mix of old and new values of one list during a
// reload; that is accepted, hence relaxed atomics and no lock.
struct ListSettings {
    std::atomic<int> buffer_time{0};
    std::atomic<int> buffer_size{0};
    std::atomic<int> buffer_full_processing{0};
};
ListSettings g_list_settings[NMS_EVENT_LIST_NUM];

bool list_in_range(int list)
{
    return list >= 0 && list < NMS_EVENT_LIST_NUM;
}

// Plain decimal conversion: leading number or 0 for non-numeric text,
// clamped to int instead of overflowing.
int to_int(const char *text)
{
    long v = strtol(text, nullptr, 10);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

// Reads option of the type's section of event_params; false on failure.
bool read_type_option(int id, const char *option, char *dst, size_t dst_size)
{
    char section[16];
    snprintf(section, sizeof section, "%d", id);
    return getUciOptionSpecifyPath(kTypePackage, section, option, dst, kConfDir, dst_size) == 0;
}

}  // namespace

void update_event_list_buf_timer(void) noexcept
{
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++) {
        ListSettings &cfg = g_list_settings[i];
        char section[32];
        snprintf(section, sizeof section, "event_queue_%d", i);

        char time_buf[64];
        if (getUciOptionSpecifyPath(kListPackage, section, "buffer_time", time_buf, kConfDir,
                                    sizeof time_buf) != 0) {
            NMS_LOG_ERROR("event buff_time get failed.");
            cfg.buffer_time.store(kDefaultBufTime, std::memory_order_relaxed);
        } else {
            int v = to_int(time_buf);
            cfg.buffer_time.store(v, std::memory_order_relaxed);
            NMS_LOG_TRACE("event[%d] buff_time%d.\n", i, v);
        }

        char size_buf[16];
        if (getUciOptionSpecifyPath(kListPackage, section, "buffer_size", size_buf, kConfDir,
                                    sizeof size_buf) != 0) {
            NMS_LOG_ERROR("event buff_size get failed.");
            cfg.buffer_size.store(kDefaultBufSize, std::memory_order_relaxed);
        } else {
            int v = to_int(size_buf);
            cfg.buffer_size.store(v, std::memory_order_relaxed);
            NMS_LOG_TRACE("event[%d] buff_size%d.\n", i, v);
        }

        char policy_buf[8];
        if (getUciOptionSpecifyPath(kListPackage, section, "buffer_full_processing", policy_buf,
                                    kConfDir, sizeof policy_buf) != 0) {
            // The wording is shared with the level query; support scripts know it.
            NMS_LOG_ERROR("event level get failed.");
            cfg.buffer_full_processing.store(NMS_EVENT_FULL_REPORT, std::memory_order_relaxed);
        } else {
            int v = to_int(policy_buf);
            if (v != NMS_EVENT_FULL_REPLACE && v != NMS_EVENT_FULL_REPORT)
                v = NMS_EVENT_FULL_REPORT;
            cfg.buffer_full_processing.store(v, std::memory_order_relaxed);
            NMS_LOG_TRACE("event[%d] full handle%d.\n", i, v);
        }
    }
}

int get_event_list_buf_time(int list) noexcept
{
    if (!list_in_range(list))
        return kDefaultBufTime;
    int v = g_list_settings[list].buffer_time.load(std::memory_order_relaxed);
    return v < 1 ? kDefaultBufTime : v;
}

int get_event_list_buf_size(int list) noexcept
{
    if (!list_in_range(list))
        return kDefaultBufSize;
    int v = g_list_settings[list].buffer_size.load(std::memory_order_relaxed);
    return v < 1 ? kDefaultBufSize : v;
}

int get_event_list_full_processing(int list) noexcept
{
    if (!list_in_range(list))
        return NMS_EVENT_FULL_NONE;
    return g_list_settings[list].buffer_full_processing.load(std::memory_order_relaxed);
}

int get_event_enable(int id) noexcept
{
    if (id < 1)
        return -1;
    char value[8];
    if (!read_type_option(id, "enable", value, sizeof value)) {
        NMS_LOG_DEBUG("event level get failed.");
        return access(kIgnoreEnableFile, F_OK) == 0 ? 0 : -1;
    }
    return strcmp(value, "on") == 0 ? 0 : -1;
}

int get_event_report_now_attr(int id) noexcept
{
    if (id < 1)
        return -1;
    char value[8];
    if (!read_type_option(id, "report_now", value, sizeof value)) {
        NMS_LOG_ERROR("is report right now info get failed.");
        return -1;
    }
    return strcmp(value, "on") == 0 ? 0 : -1;
}

int get_event_level(int id) noexcept
{
    if (id < 1)
        return -1;
    char value[16];
    if (!read_type_option(id, "level", value, sizeof value)) {
        NMS_LOG_DEBUG("event level get failed.");
        return -1;
    }
    return to_int(value);
}

int get_event_list_id(int id) noexcept
{
    int level = get_event_level(id);
    if (list_in_range(level))
        return get_event_report_now_attr(id) == 0 ? 0 : level;
    // C++ remainder keeps the sign of id: -13 gives -5.
    return id % NMS_EVENT_LIST_NUM;
}

int get_statistics_params_timebuff(const char *section) noexcept
{
    if (!section)
        return kDefaultParamBufTime;
    char value[16];
    if (getUciOptionSpecifyPath(kStatsPackage, section, "param_buffer_time", value, kConfDir,
                                sizeof value) != 0) {
        NMS_LOG_ERROR("timebuff get failed.");
        return kDefaultParamBufTime;
    }
    return to_int(value);
}
