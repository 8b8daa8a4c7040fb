// nms_log.h - the daemon's log switches, its one log macro family and set_debug_output.
//
// Every message of the daemon's own modules goes to standard output as
// "Function is:<func>, Line is:<line>." followed by the message, a newline and a
// flush, and only while its switch is on. The switch test sits inside the macro,
// so a disabled level costs one relaxed load and no formatting.
#pragma once

#include <atomic>

extern "C" {

// Switches, all 0 at process start. Flipped at run time by set_debug_output
// (bus methods start_debug/stop_debug) and read by every thread without a lock:
// a stale read only changes whether one message is printed, so relaxed
// ordering is enough. The debug shell reads and sets them by name as ints.
extern std::atomic<int> log_error_on;   // errors: failed reads, allocations, system calls
extern std::atomic<int> log_trace_on;   // trace lines: releases, echoed settings, counts
extern std::atomic<int> log_debug_on;   // debug lines: step-by-step traces

// Points standard output and standard error at path (a device or file opened
// write-only) and leaves exactly one switch on: level <= 0 errors, 1 trace,
// 2 debug, anything else none. The levels are not cumulative. A null path
// changes nothing; a path that cannot be opened leaves the streams as they
// were (silently) but still sets the switches.
void set_debug_output(const char *path, int level) noexcept;

// Writes one guarded message: prefix with func and line, the formatted text,
// a newline, then flushes standard output. The whole message is written under
// the stream's lock so messages of concurrent threads do not interleave.
// Callers use the macros below, which test the switch first.
void nms_log_print(const char *func, int line, const char *fmt, ...) noexcept
    __attribute__((format(printf, 3, 4)));

// A refusal that guards the device (a queue, file or socket somebody else made): written
// as nms_log_print writes, whatever the switches say, and to the system log as a warning,
// for an operator must see it and it happens only when something is wrong.
void nms_log_alert(const char *func, int line, const char *fmt, ...) noexcept
    __attribute__((format(printf, 3, 4)));

}  // extern "C"

static_assert(sizeof(std::atomic<int>) == sizeof(int) && std::atomic<int>::is_always_lock_free,
              "the debug shell reads and writes the switches by name as plain ints");

#define NMS_LOG_AT_(sw, line, fmt, ...)                                   \
    do {                                                                  \
        if ((sw).load(std::memory_order_relaxed))                         \
            nms_log_print(__func__, (line), fmt, ##__VA_ARGS__);          \
    } while (0)

// Message at the caller's own source line.
#define NMS_LOG_ERROR(fmt, ...) NMS_LOG_AT_(log_error_on, __LINE__, fmt, ##__VA_ARGS__)
#define NMS_LOG_TRACE(fmt, ...) NMS_LOG_AT_(log_trace_on, __LINE__, fmt, ##__VA_ARGS__)
#define NMS_LOG_DEBUG(fmt, ...) NMS_LOG_AT_(log_debug_on, __LINE__, fmt, ##__VA_ARGS__)

#define NMS_LOG_ALWAYS(fmt, ...) nms_log_alert(__func__, __LINE__, fmt, ##__VA_ARGS__)

// Message carrying a fixed line number, for messages whose printed line is part
// of the daemon's documented output (support scripts match on it) and must not
// move when the source is edited.
#define NMS_LOG_ERROR_AT(line, fmt, ...) NMS_LOG_AT_(log_error_on, line, fmt, ##__VA_ARGS__)
#define NMS_LOG_TRACE_AT(line, fmt, ...) NMS_LOG_AT_(log_trace_on, line, fmt, ##__VA_ARGS__)
#define NMS_LOG_DEBUG_AT(line, fmt, ...) NMS_LOG_AT_(log_debug_on, line, fmt, ##__VA_ARGS__)
