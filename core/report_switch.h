// report_switch.h - the process-wide report switch: 1 while the cloud client is online.
#pragma once

#include <atomic>
#include <cstdint>

extern "C" {

// 0 at start. Set by the bus methods begin_report/stop_report and, for the
// length of a flush, by the flush methods; read by the event filter, the
// senders and the parameter flush without a lock. A stale read only changes
// whether one event is stored or one send is attempted.
extern std::atomic<int32_t> report_online;

// Stores value; cannot fail.
void set_report_online(int32_t value) noexcept;
// Returns the current value.
int32_t get_report_online(void) noexcept;

}  // extern "C"

static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t),
              "the debug shell reads and writes the switch by name as a plain int");
