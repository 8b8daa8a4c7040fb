// udbg_log.cpp - the debug shell's message switches.
#include "udbg_log.h"

std::atomic<int> udbg_dbg_on{0};
std::atomic<int> udbg_err_on{1};
std::atomic<int> udbg_trace_on{1};
