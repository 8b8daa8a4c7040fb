// stats_output_fuzz.cpp - whatever a statistics get command prints is taken into the report or
// refused without harm, and the report text stays within its buffer and its budget.
// Input: one page of command output; a page that asks to go on is followed by the same page
// again, a few times, as a paging command would.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "report_switch.h"
#include "stats_registry.h"
#include "stats_report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > STATS_READ_BUF_LEN)
        return 0;
    set_report_online(0);  // a report past the budget is then not sent anywhere
    std::string out(reinterpret_cast<const char *>(data), size);
    static statistics_params_cb_node node;
    std::memset(&node, 0, sizeof(node));
    std::strcpy(node.type, "fuzz");
    std::strcpy(node.get_cb, "fuzz");
    auto info = std::make_unique<report_result_info>();
    std::memset(info.get(), 0, sizeof(*info));
    int32_t remain = STATS_REPORT_BUDGET;
    size_t read_size = STATS_READ_BUF_LEN;
    for (int page = 0; page < 4; page++) {
        std::string cut = out.substr(0, read_size);
        if (report_statistics_params_page(&node, info.get(), cut.c_str(), &remain, &read_size) != 1)
            break;
        if (read_size > STATS_READ_BUF_LEN)
            abort();
    }
    if (strnlen(info->buf, sizeof(info->buf)) >= sizeof(info->buf) ||
        strnlen(info->success_cmd, sizeof(info->success_cmd)) >= sizeof(info->success_cmd))
        abort();
    return 0;
}
