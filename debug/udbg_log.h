// udbg_log.h - the debug shell's message switches and its tagged prints, which every part of
// the shell uses.
#pragma once

#include <atomic>
#include <cstdio>

extern "C" {

// Message switches, read without a lock by every thread (relaxed): debug prints off,
// error prints on, and crash reports also written into the trace file, on. They can be
// flipped by name through the shell itself ("udbg_dbg_on = 1").
extern std::atomic<int> udbg_dbg_on;
extern std::atomic<int> udbg_err_on;
extern std::atomic<int> udbg_trace_on;

}  // extern "C"

// Tagged prints of the shell, each under its switch, with the function and line.
#define UDBG_DBG(fmt, ...)                                                          \
    do {                                                                            \
        if (udbg_dbg_on.load(std::memory_order_relaxed))                            \
            printf("[UDBG_DBG]%s()/%d " fmt, __func__, __LINE__, ##__VA_ARGS__);    \
    } while (0)

#define UDBG_ERR_AT(func, line, fmt, ...)                                           \
    do {                                                                            \
        if (udbg_err_on.load(std::memory_order_relaxed))                            \
            printf("[UDBG_ERR]%s()/%d " fmt, func, line, ##__VA_ARGS__);            \
    } while (0)
#define UDBG_ERR(fmt, ...) UDBG_ERR_AT(__func__, __LINE__, fmt, ##__VA_ARGS__)
