// proc_name.cpp - process name lookup through /proc.
#include "proc_name.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

struct FileClose {
    void operator()(FILE *f) const noexcept { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

}  // namespace

int get_proc_name_by_pid(int pid, char *name, size_t size) noexcept
{
    if (!name || size == 0)
        return -1;

    char path[64];
    snprintf(path, sizeof path, "/proc/%d/status", pid);
    FilePtr f(fopen(path, "re"));
    if (!f)
        return -1;

    char line[256];
    if (!fgets(line, sizeof line, f.get()))
        return -1;
    // The line is shorter than the buffer, so the name always fits in it.
    char found[sizeof line];
    if (sscanf(line, "%*s %255s", found) != 1)
        return -1;

    size_t n = strnlen(found, size - 1);
    memcpy(name, found, n);
    name[n] = '\0';
    return 0;
}
