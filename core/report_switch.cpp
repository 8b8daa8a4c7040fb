// report_switch.cpp - the report switch and its accessors.
#include "report_switch.h"

std::atomic<int32_t> report_online{0};

void set_report_online(int32_t value) noexcept
{
    report_online.store(value, std::memory_order_relaxed);
}

int32_t get_report_online(void) noexcept
{
    return report_online.load(std::memory_order_relaxed);
}
