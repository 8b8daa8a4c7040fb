// udbg_symbols.cpp - name lookup for the debug shell: symbol list files beside the
// program (shifted by the program's load offset) and the loaded shared libraries.
#include "udbg_symbols.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include <cerrno>

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include "proc_name.h"
#include "uac_tmpfile.h"
#include "udbg_log.h"

namespace {

constexpr int kLibMax = 32;
constexpr int kLibPathLen = 128;
constexpr int kSymLineLen = 64;   // an address line: 63 characters and the terminator

const char *const kLdd = "/lib/ldd";
const char *const kHostLdd = "/usr/bin/ldd";

udbg_paths g_paths;
// Library list: written once by udbg_init before the command handler is registered,
// read afterwards by the command threads.
std::array<std::array<char, kLibPathLen>, kLibMax> g_libs;
int g_lib_count;

// The scratch file is shared by every lookup, and two command threads may look up at
// once: one lookup at a time.
std::mutex g_lookup_lock;

struct FileClose {
    void operator()(FILE *f) const noexcept { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

// Paths go into shell commands unquoted, as the device's own paths are written; a
// path with any other character is refused rather than quoted.
bool path_safe(const char *p)
{
    if (!p || !*p)
        return false;
    for (; *p; p++) {
        char c = *p;
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '/' || c == '.' || c == '_' || c == '-' || c == '~' || c == '+';
        if (!ok)
            return false;
    }
    return true;
}

void copy_path(char *dst, const char *src)
{
    snprintf(dst, sizeof(udbg_paths::bin_file), "%s", src);
}

// Difference between where the program was loaded and where it was linked: the
// first object dl_iterate_phdr reports is the program itself (0 when not PIE).
uintptr_t program_load_bias()
{
    uintptr_t bias = 0;
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *data) -> int {
            *static_cast<uintptr_t *>(data) = static_cast<uintptr_t>(info->dlpi_addr);
            return 1;   // the first one is enough
        },
        &bias);
    return bias;
}

// The scratch file a shell command writes into: made afresh by the daemon before the
// command runs, and read back through that descriptor only when the file at the path is
// still the one made (see uac_tmpfile.h). Anybody may create names in /tmp; what such a
// file holds would be taken for a function's address and called.
class Scratch {
public:
    explicit Scratch(const char *path) : path_(path), fd_(uac_tmp_create(path))
    {
        if (fd_ < 0)
            UDBG_ERR("Cannot make scratch file %s afresh (%s), lookup refused.\n", path,
                     strerror(errno));
    }
    ~Scratch()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    bool made() const { return fd_ >= 0; }
    // The file for reading from its start, or null (with one line) when it is not ours.
    FILE *reopen()
    {
        if (!uac_tmp_is_ours(fd_, path_)) {
            UDBG_ERR("Scratch file %s was changed by someone else, lookup refused.\n", path_);
            return nullptr;
        }
        if (lseek(fd_, 0, SEEK_SET) != 0)
            return nullptr;
        FILE *f = fdopen(fd_, "r");
        if (f)
            fd_ = -1;  // the stream owns it now
        return f;
    }

private:
    const char *path_;
    int fd_;
};

// Runs "cat <list> | grep -w <name> | awk '{print $<field>}' > <tmp>" and reads the
// first line of the result: true with the line (newline cut) when the scratch file
// could be read.
bool symbol_field(const char *list, const char *name, int field, char *out, size_t size)
{
    Scratch scratch(g_paths.tmp_sym_file);
    if (!scratch.made())
        return false;
    char cmd[512];
    snprintf(cmd, sizeof cmd, "cat %s | grep -w %s | awk '{print $%d}' > %s", list, name, field,
             g_paths.tmp_sym_file);
    if (system(cmd) == -1)
        return false;
    FilePtr f(scratch.reopen());
    if (!f) {
        UDBG_ERR("Open temp symbol failed.\n");
        return false;
    }
    out[0] = '\0';
    if (!fgets(out, static_cast<int>(size), f.get()))
        out[0] = '\0';
    out[strcspn(out, "\n")] = '\0';
    return true;
}

bool lookups_possible(const char *list)
{
    return path_safe(list) && path_safe(g_paths.tmp_sym_file) && access(list, R_OK) == 0;
}

}  // namespace

bool udbg_name_valid(const char *name) noexcept
{
    if (!name || !*name)
        return false;
    for (const char *p = name; *p; p++) {
        char c = *p;
        bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        if (!letter && !(p != name && c >= '0' && c <= '9'))
            return false;
    }
    return true;
}

int udbg_init_process_var() noexcept
{
    char proc[64];
    if (get_proc_name_by_pid(static_cast<int>(getpid()), proc, sizeof proc) != 0) {
        UDBG_ERR("Get process name failed.\n");
        return -1;
    }
    const char *dir;
    char bin[128];
    snprintf(bin, sizeof bin, "/usr/sbin/%s", proc);
    if (access(bin, F_OK) == 0) {
        dir = "/usr/sbin";
    } else {
        snprintf(bin, sizeof bin, "/usr/bin/%s", proc);
        if (access(bin, F_OK) != 0) {
            UDBG_ERR("Can not find bin file [%s] from /usr/sbin or /usr/bin\n", proc);
            return -1;
        }
        dir = "/usr/bin";
    }
    copy_path(g_paths.bin_file, bin);
    snprintf(g_paths.fun_file, sizeof g_paths.fun_file, "%s/%s_symbol_fun", dir, proc);
    snprintf(g_paths.obj_file, sizeof g_paths.obj_file, "%s/%s_symbol_obj", dir, proc);
    snprintf(g_paths.tmp_sym_file, sizeof g_paths.tmp_sym_file, "%s.%s", "/tmp/~udbg_sym_file", proc);
    snprintf(g_paths.so_file, sizeof g_paths.so_file, "%s.%s", "/tmp/~udbg_so_file", proc);
    snprintf(g_paths.trace_file, sizeof g_paths.trace_file, "%s.%s", "/tmp/trace.log", proc);
    return 0;
}

const udbg_paths &udbg_get_paths() noexcept
{
    return g_paths;
}

void udbg_symbols_set_paths(const char *fun_file, const char *obj_file,
                            const char *tmp_sym_file) noexcept
{
    std::lock_guard<std::mutex> hold(g_lookup_lock);
    if (fun_file)
        copy_path(g_paths.fun_file, fun_file);
    if (obj_file)
        copy_path(g_paths.obj_file, obj_file);
    if (tmp_sym_file)
        copy_path(g_paths.tmp_sym_file, tmp_sym_file);
}

void udbg_load_library_list() noexcept
{
    std::lock_guard<std::mutex> hold(g_lookup_lock);
    char cmd[512];
    if (access(kLdd, F_OK) != 0 && access(kHostLdd, F_OK) == 0) {
        snprintf(cmd, sizeof cmd, "cp %s %s", kHostLdd, kLdd);
        if (system(cmd) == -1)
            return;
    }
    if (!path_safe(g_paths.bin_file) || !path_safe(g_paths.so_file))
        return;
    Scratch scratch(g_paths.so_file);
    if (!scratch.made())
        return;
    snprintf(cmd, sizeof cmd, "%s %s 2>/dev/null | awk '{print $1}' | grep / > %s", kLdd,
             g_paths.bin_file, g_paths.so_file);
    if (system(cmd) == -1)
        return;
    snprintf(cmd, sizeof cmd, "%s %s 2>/dev/null | awk '{print $3}' | grep / >> %s", kLdd,
             g_paths.bin_file, g_paths.so_file);
    if (system(cmd) == -1)
        return;

    FilePtr f(scratch.reopen());
    if (!f) {
        UDBG_ERR("Open sofile failed.\n");
        return;
    }
    char line[kLibPathLen];
    g_lib_count = 0;
    while (g_lib_count < kLibMax && fgets(line, sizeof line, f.get())) {
        line[strcspn(line, "\n")] = '\0';
        if (!line[0])
            continue;
        snprintf(g_libs[g_lib_count].data(), kLibPathLen, "%s", line);
        UDBG_DBG("Library %s loaded.\n", g_libs[g_lib_count].data());
        g_lib_count++;
    }
    f.reset();
    snprintf(cmd, sizeof cmd, "rm -f %s", g_paths.so_file);
    if (system(cmd) == -1)
        return;
}

unsigned long udbg_get_fun_addr(const char *name) noexcept
{
    if (!udbg_name_valid(name))
        return 0;
    std::lock_guard<std::mutex> hold(g_lookup_lock);
    if (lookups_possible(g_paths.fun_file)) {
        char line[kSymLineLen];
        if (!symbol_field(g_paths.fun_file, name, 1, line, sizeof line))
            return 0;
        if (line[0]) {
            unsigned long addr = strtoul(line, nullptr, 16) + program_load_bias();
            UDBG_DBG("Function %s() found from global symbol table, addr=0x%lx\n", name, addr);
            return addr;
        }
    }
    for (int i = 0; i < g_lib_count; i++) {
        const char *lib = g_libs[i].data();
        UDBG_DBG("Try to find from %s\n", lib);
        // Only libraries already in the process: no-load never maps a new one.
        void *h = dlopen(lib, RTLD_LAZY | RTLD_NOLOAD);
        if (!h)
            continue;
        void *sym = dlsym(h, name);
        dlclose(h);
        if (sym) {
            UDBG_DBG("Function %s found from %s, addr=%p\n", name, lib, sym);
            return reinterpret_cast<unsigned long>(sym);
        }
    }
    return 0;
}

unsigned long udbg_get_var_addr(const char *name, int *len) noexcept
{
    if (len)
        *len = 0;
    if (!udbg_name_valid(name))
        return 0;
    std::lock_guard<std::mutex> hold(g_lookup_lock);
    if (!lookups_possible(g_paths.obj_file))
        return 0;
    char line[kSymLineLen];
    if (!symbol_field(g_paths.obj_file, name, 1, line, sizeof line) || !line[0])
        return 0;
    unsigned long addr = strtoul(line, nullptr, 16) + program_load_bias();
    UDBG_DBG("Object [%s] found from global symbol table, addr=0x%lx\n", name, addr);
    if (!symbol_field(g_paths.obj_file, name, 2, line, sizeof line))
        return 0;
    int size = static_cast<int>(strtol(line, nullptr, 16));
    UDBG_DBG("Object [%s] len=%d\n", name, size);
    if (len)
        *len = size;
    return addr;
}
