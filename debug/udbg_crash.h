// udbg_crash.h - crash reports (bus error, segmentation fault), the per-thread
// backtrace on SIGUSR1 and the deadlock watch.
#pragma once

// Creates the udbg mutex that serialises backtrace output. 0, or -1.
int udbg_crash_init() noexcept;

// Installs the handlers of SIGPIPE (ignored), SIGSEGV, SIGBUS and SIGUSR1, in that order.
void udbg_signals_install() noexcept;

// Prints the calling thread's backtrace (up to 32 frames) on standard output.
void udbg_backtrace_print() noexcept;

// Starts the deadlock watch thread "udbg_deadlock_chk". 0, or -1.
int udbg_deadlock_watch_start() noexcept;

// One round of the deadlock watch over the registered threads; returns the number of
// suspects (stuck threads and the owners of what they wait on) that were signalled.
int udbg_deadlock_round() noexcept;

extern "C" {

// Body of the deadlock watch thread "udbg_deadlock_chk": every 10 seconds, reports
// registered threads that have waited on the same named mutex since the last round,
// and has each suspect print its backtrace.
void *udbg_deadlock_chk(void *arg) noexcept;

}  // extern "C"
