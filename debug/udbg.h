// udbg.h - the debug shell: call functions and read or set variables of the running
// process by name through the JSON command socket, crash reports with a backtrace, a
// per-thread backtrace on SIGUSR1 and the deadlock watch. This is the shell's face to the
// daemon; its parts (udbg_log.h, udbg_symbols.h, udbg_exec.h, udbg_crash.h) never include it.
#pragma once

#include "udbg_log.h"

struct json_object;

extern "C" {

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

// The command socket's handler for service "udbg", operation 2 (set): executes the
// request's "cmd" member (at most 256 characters). The reply stays empty: the
// command's output goes to the process's standard output, which `self` redirects.
int udbg_jcs_callback_set(json_object *request, json_object *reply) noexcept;

}  // extern "C"
