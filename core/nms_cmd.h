// nms_cmd.h - shell commands of other services, run with a time limit.
//
// The daemon runs commands that other services registered (statistics values, their success
// commands, supported-parameter lists) and the device's identity queries. A command that never
// ends must not hold the thread that waits for it for ever: each one runs in a process group
// of its own, and when it has not finished within the limit the whole group is killed and an
// error names the command.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

extern "C" {

// The time limit in seconds for one command, 30 unless changed (the debug shell sets it by
// name). 0 or less: no limit.
extern std::atomic<int32_t> nms_cmd_timeout_sec;

}  // extern "C"

#define NMS_CMD_TIMEOUT_DEFAULT 30

// Runs cmd with /bin/sh -c and reads its standard output into buf until it ends or size
// bytes have come (nothing is terminated: the caller zeroes buf), then waits for the shell.
// Returns the number of bytes read, or -1 when the command could not be started (errno set).
// *timed_out, when given, tells whether the limit ended it.
long nms_cmd_read(const char *cmd, char *buf, size_t size, bool *timed_out = nullptr) noexcept;

// Runs cmd with its output discarded and waits for the shell (a command text that ends its
// commands with " &" returns at once and leaves them running). 0 once it has ended or been
// stopped at the limit (which is reported), -1 when it could not be started (errno set).
int nms_cmd_run(const char *cmd) noexcept;
