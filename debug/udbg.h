// udbg.h - the debug shell: call functions and read or set variables of the running
// process by name through the JSON command socket, crash reports with a backtrace, a
// per-thread backtrace on SIGUSR1 and the deadlock watch.
#pragma once

#include <atomic>
#include <cstdio>

struct json_object;

extern "C" {

// Message switches, read without a lock by every thread (relaxed): debug prints off,
// error prints on, and crash reports also written into the trace file, on. They can be
// flipped by name through the shell itself ("udbg_dbg_on = 1").
extern std::atomic<int> udbg_dbg_on;
extern std::atomic<int> udbg_err_on;
extern std::atomic<int> udbg_trace_on;

// Sets up the shell: the udbg mutex and help list, the "dbg" help entry, the process
// paths, the signal handlers, the library list, the "udbg" command handler of the
// command socket and the deadlock watch thread. 0, or -1 when the process's own name
// or its program file under /usr/sbin or /usr/bin cannot be found (nothing after the
// paths is set up then).
int udbg_init(void) noexcept;

// Adds a line to the help list: module and the command that prints its help.
// Returns 0, or -1 on a null argument or short memory (with a message).
int udbg_help_register(const char *module, const char *help_fun) noexcept;

// The "dbg" module's help command: prints one line per registered module.
int help(void) noexcept;

// Address of a function of the program (symbol list) or of a loaded shared library;
// 0 when not found.
unsigned long udbg_get_fun_addr(const char *name) noexcept;

// Address of a variable of the program (symbol list) and its size in *len; 0 when
// not found.
unsigned long udbg_get_var_addr(const char *name, int *len) noexcept;

// The command socket's handler for service "udbg", operation 2 (set): executes the
// request's "cmd" member (at most 256 characters). The reply stays empty: the
// command's output goes to the process's standard output, which `self` redirects.
int udbg_jcs_callback_set(json_object *request, json_object *reply) noexcept;

// Body of the deadlock watch thread "udbg_deadlock_chk": every 10 seconds, reports
// registered threads that have waited on the same named mutex since the last round,
// and has each suspect print its backtrace.
void *udbg_deadlock_chk(void *arg) noexcept;

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
