// uci_config_fuzz.cpp - any text in the daemon's settings packages is read without harm: the
// UCI file parser, the option look-ups and the conversions of the event settings to numbers.
// Input: a package selector, then the package file's text. Runs in the sandbox: the text is
// written to /etc/nms_report, where the daemon reads it.
#include <uci.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "event_config.h"
#include "uci_access.h"

namespace {

const char *const kPackages[] = {"event_report", "event_params", "stats_report"};

void write_package(const char *name, const uint8_t *data, size_t size)
{
    std::string path = std::string("/etc/nms_report/") + name;
    FILE *f = std::fopen(path.c_str(), "w");
    if (!f)
        abort();
    std::fwrite(data, 1, size, f);
    std::fclose(f);
}

// Walks every section and option the parser made of the package.
void walk(const char *name)
{
    uci_context *ctx = uci_alloc_context();
    if (!ctx)
        abort();
    uci_set_confdir(ctx, "/etc/nms_report");
    uci_package *pkg = nullptr;
    if (uci_load(ctx, name, &pkg) == UCI_OK && pkg) {
        uci_element *se = nullptr;
        uci_foreach_element(&pkg->sections, se) {
            uci_section *s = uci_to_section(se);
            uci_element *oe = nullptr;
            uci_foreach_element(&s->options, oe) {
                uci_option *o = uci_to_option(oe);
                if (o->type == UCI_TYPE_STRING && !o->v.string)
                    abort();
                char value[256];
                getUciOption(name, se->name, oe->name, value, sizeof(value));
                if (strnlen(value, sizeof(value)) == sizeof(value))
                    abort();  // a look-up always leaves a terminated text
                // The ids the settings are asked for are the section names.
                int id = std::atoi(se->name);
                get_event_enable(id);
                get_event_level(id);
                get_event_list_id(id);
                get_event_report_now_attr(id);
                get_statistics_params_timebuff(se->name);
            }
        }
        uci_unload(ctx, pkg);
    }
    uci_free_context(ctx);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 16384)
        return 0;
    const char *name = kPackages[data[0] % 3];
    write_package(name, data + 1, size - 1);
    walk(name);
    update_event_list_buf_timer();
    for (int list = 0; list < 8; list++) {
        get_event_list_buf_time(list);
        get_event_list_buf_size(list);
        get_event_list_full_processing(list);
    }
    return 0;
}
