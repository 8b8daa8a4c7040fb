// uci_access.cpp - one-shot UCI reads and writes, each on a context of its own.
#include "uci_access.h"

#include "nms_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

struct UciFree {
    void operator()(uci_context *c) const noexcept { uci_free_context(c); }
};
using UciPtr = std::unique_ptr<uci_context, UciFree>;

// Room for "<confdir>.uci"; a longer directory name is cut.
constexpr size_t kSaveDirSize = 512;
// Room for "pkg.sec=type" / "pkg.sec.opt=value" with its NUL.
constexpr size_t kLookupSize = 1024;

// Copies value into dst, cutting it to dst_size - 1 characters.
void copy_cut(char *dst, size_t dst_size, const char *value)
{
    size_t n = strnlen(value, dst_size - 1);
    memcpy(dst, value, n);
    dst[n] = '\0';
}

// Failure lines of the shared write steps carry the name of the documented helper
// that was called (caller), not of this internal one.
#define CALLER_LOG_ERROR(fmt, ...)                                        \
    do {                                                                  \
        if (log_error_on.load(std::memory_order_relaxed))                 \
            nms_log_print(caller, __LINE__, fmt, ##__VA_ARGS__);          \
    } while (0)

// Cuts the file at path back to size when it is longer (nothing when it is missing).
void cut_back(const char *path, off_t size)
{
    struct stat now;
    if (stat(path, &now) == 0 && now.st_size > size && truncate(path, size) != 0)
        NMS_LOG_ALWAYS("%s keeps a part of a change it could not take whole: %s", path,
                       strerror(errno));
}

// Bytes a write into dir can still take: the file system's free blocks, and what the last
// block of file (when given and present) has left. -1 when unknown.
long long room_in(const char *dir, const char *file)
{
    struct statvfs fs;
    if (statvfs(dir, &fs) != 0)
        return -1;
    long long room = static_cast<long long>(fs.f_bavail) * static_cast<long long>(fs.f_frsize);
    struct stat st;
    if (file && stat(file, &st) == 0) {
        const long long allocated = static_cast<long long>(st.st_blocks) * 512;
        if (allocated > st.st_size)
            room += allocated - st.st_size;
    }
    return room;
}

// Length of the package's text as a commit writes it, or -1.
long long export_length(uci_context *ctx, uci_package *p)
{
    char *text = nullptr;
    size_t length = 0;
    FILE *f = open_memstream(&text, &length);
    if (!f)
        return -1;
    const int rc = uci_export(ctx, f, p, false);
    const bool closed = fclose(f) == 0;
    free(text);
    return rc == UCI_OK && closed ? static_cast<long long>(length) : -1;
}

// Length of the delta line a save of lookup appends: the lookup as it stands, each quote
// written as four characters, and the line's quotes and end.
size_t delta_line_length(const char *lookup)
{
    size_t n = strlen(lookup) + 4;
    for (const char *c = lookup; *c; c++)
        n += *c == '\'' ? 3 : 0;
    return n;
}

// Loads the package of an already formatted lookup string into a fresh context
// on confdir, then sets, saves and commits it. The lookup buffer is parsed in
// place by libuci and must outlive the pointer, which it does here.
int set_and_commit(char *lookup, const char *package, const char *confdir, const char *caller)
{
    UciPtr ctx(uci_alloc_context());
    if (!ctx) {
        CALLER_LOG_ERROR("uci alloc context failed.");
        return -1;
    }
    if (init_specifyUciPath(ctx.get(), package, confdir) != 0) {
        CALLER_LOG_ERROR("init_specifyUciPath failed.");
        return -1;
    }
    if (!initConfigPackage(ctx.get(), package)) {
        CALLER_LOG_ERROR("ctx or uciPkg is NULL!");
        return -1;
    }

    // Measured before the lookup cuts the buffer into its parts.
    const size_t line_length = delta_line_length(lookup);
    uci_ptr ptr;
    memset(&ptr, 0, sizeof ptr);
    if (uci_lookup_ptr(ctx.get(), &ptr, lookup, true) != UCI_OK) {
        CALLER_LOG_ERROR("uci_lookup_ptr != UCI_OK");
        return -1;
    }
    if (uci_set(ctx.get(), &ptr) != UCI_OK) {
        CALLER_LOG_ERROR("uci_set != UCI_OK");
        return -1;
    }
    // libuci appends the change as a line to <confdir>.uci/<package>. On a full file system
    // the append can stop part way, and the broken line would make every later load of the
    // package fail: the registry could then never be written again. So what a failed save
    // added is cut off again, and the next write starts from whole lines.
    char savedir[kSaveDirSize];
    snprintf(savedir, sizeof savedir, "%s.uci", confdir);
    char delta[kSaveDirSize + 256];
    snprintf(delta, sizeof delta, "%s/%s", savedir, package);
    struct stat before;
    const bool had_delta = stat(delta, &before) == 0;
    // The device's libuci does not check its writes: on a full file system a save leaves a
    // broken line and says it succeeded, and a commit renames a cut-off file over the whole
    // one and says so too (the registry would lose what it held). So neither is asked to
    // write what the file system has no room for; the failure is reported as a failed write
    // would be. Another writer may still take the room in between: a small window, where
    // before every full file system was one.
    auto save_failed = [&](int err) {
        CALLER_LOG_ERROR("uci_save != UCI_OK");
        NMS_LOG_ALWAYS("cannot save a change of %s in %s.uci: %s", package, confdir,
                       strerror(err));
        return -1;
    };
    // A failed commit leaves the change saved: it goes into the file with the next commit
    // that succeeds.
    auto commit_failed = [&](int err) {
        CALLER_LOG_ERROR("uci_commit != UCI_OK");
        NMS_LOG_ALWAYS("cannot write %s/%s: %s", confdir, package, strerror(err));
        return -1;
    };
    const long long save_room = room_in(savedir, delta);
    if (save_room >= 0 && save_room < static_cast<long long>(line_length))
        return save_failed(ENOSPC);
    if (uci_save(ctx.get(), ptr.p) != UCI_OK) {
        save_failed(errno);
        cut_back(delta, had_delta ? before.st_size : 0);
        return -1;
    }
    // The commit writes the whole package into a new file beside the old one.
    const long long length = export_length(ctx.get(), ptr.p);
    const long long room = room_in(confdir, nullptr);
    if (length >= 0 && room >= 0 && room < length)
        return commit_failed(ENOSPC);
    // Without overwrite: the file is re-read and every saved change replayed
    // onto it, so changes of other writers since our load are kept.
    if (uci_commit(ctx.get(), &ptr.p, false) != UCI_OK)
        return commit_failed(errno);
    return 0;
}

}  // namespace

int init_specifyUciPath(struct uci_context *ctx, const char *package, const char *path) noexcept
{
    if (!ctx || !package || !path) {
        NMS_LOG_ERROR("uci ctx or path is NULL!");
        return -1;
    }
    char savedir[kSaveDirSize];
    snprintf(savedir, sizeof savedir, "%s.uci", path);
    if (uci_set_confdir(ctx, path) != UCI_OK || uci_set_savedir(ctx, savedir) != UCI_OK)
        return -1;
    return 0;
}

int freeUciContext(struct uci_context *ctx) noexcept
{
    if (ctx)
        uci_free_context(ctx);
    return 0;
}

const char *getUciLookupOptionStr(struct uci_context *ctx, struct uci_section *section,
                                  const char *optName) noexcept
{
    if (!ctx || !section || !optName) {
        NMS_LOG_ERROR("ctx(%p) or section(%p) or optName(%p) is null ptr",
                      static_cast<void *>(ctx), static_cast<void *>(section),
                      static_cast<const void *>(optName));
        return nullptr;
    }
    uci_option *o = uci_lookup_option(ctx, section, optName);
    if (!o || o->type != UCI_TYPE_STRING)
        return nullptr;
    return o->v.string;
}

struct uci_package *initConfigPackage(struct uci_context *ctx, const char *package) noexcept
{
    if (!ctx || !package) {
        NMS_LOG_ERROR("config is NULL!");
        return nullptr;
    }
    // A copy loaded earlier in this context would make uci_load fail as a
    // duplicate, and would be stale anyway.
    if (uci_package *old = uci_lookup_package(ctx, package))
        uci_unload(ctx, old);

    uci_package *pkg = nullptr;
    if (uci_load(ctx, package, &pkg) != UCI_OK) {
        NMS_LOG_ERROR("uci_load package[%s] failed\n", package);
        return nullptr;
    }
    if (!pkg) {
        NMS_LOG_ERROR("load package %s NULL\n", package);
        return nullptr;
    }
    return pkg;
}

struct uci_section *getUciSection(struct uci_context *ctx, const char *package,
                                  const char *section) noexcept
{
    if (!ctx || !package || !section) {
        NMS_LOG_ERROR("ctx or package or section is NULL!");
        return nullptr;
    }
    uci_package *pkg = initConfigPackage(ctx, package);
    if (!pkg) {
        NMS_LOG_ERROR("uciPkg is NULL!");
        return nullptr;
    }
    return uci_lookup_section(ctx, pkg, section);
}

int getUciOption(const char *package, const char *section, const char *option, char *dst,
                 size_t dst_size) noexcept
{
    if (!package || !section || !option || !dst || dst_size == 0) {
        NMS_LOG_ERROR("uci parameters are invalid.");
        return -1;
    }
    UciPtr ctx(uci_alloc_context());
    if (!ctx) {
        NMS_LOG_ERROR("uci alloc context failed.");
        return -1;
    }
    uci_section *s = getUciSection(ctx.get(), package, section);
    if (!s) {
        NMS_LOG_ERROR("find section failed");
        return -1;
    }
    const char *value = getUciLookupOptionStr(ctx.get(), s, option);
    if (!value) {
        NMS_LOG_ERROR("parse uci config file  failed");
        return -1;
    }
    copy_cut(dst, dst_size, value);
    return 0;
}

int getUciOptionSpecifyPath(const char *package, const char *section, const char *option,
                            char *dst, const char *confdir, size_t dst_size) noexcept
{
    if (!package || !section || !option || !dst || !confdir || dst_size == 0) {
        NMS_LOG_ERROR("uci parameters are invalid.");
        return -1;
    }
    UciPtr ctx(uci_alloc_context());
    if (!ctx) {
        NMS_LOG_ERROR("uci alloc context failed.");
        return -1;
    }
    if (init_specifyUciPath(ctx.get(), package, confdir) != 0) {
        NMS_LOG_ERROR("init_specifyUciPath failed.");
        return -1;
    }
    uci_section *s = getUciSection(ctx.get(), package, section);
    if (!s) {
        NMS_LOG_DEBUG("find section(%s) failed\n", section);
        return -1;
    }
    const char *value = getUciLookupOptionStr(ctx.get(), s, option);
    if (!value) {
        NMS_LOG_DEBUG("parse uci config file %s failed\n", option);
        return -1;
    }
    copy_cut(dst, dst_size, value);
    return 0;
}

int setUciSectionSpecifyPath(const char *package, const char *section, const char *type,
                             const char *confdir) noexcept
{
    // A null confdir is refused here too rather than further down, so that
    // nothing is formatted or loaded for a call that cannot succeed.
    if (!package || !section || !type || !confdir) {
        NMS_LOG_ERROR("configFile or sectionName or sectionType is NULL!");
        return -1;
    }
    if (strlen(package) + strlen(section) + strlen(type) + 3 >= kLookupSize + 1) {
        NMS_LOG_ERROR("lookupStr is too short to save config info.");
        return -1;
    }
    char lookup[kLookupSize];
    snprintf(lookup, sizeof lookup, "%s.%s=%s", package, section, type);
    NMS_LOG_DEBUG("uci set %s\n", lookup);
    return set_and_commit(lookup, package, confdir, __func__);
}

int setUciOptionSpecifyPath(const char *package, const char *section, const char *option,
                            const char *value, const char *confdir) noexcept
{
    if (!package || !section || !option || !value || !confdir) {
        NMS_LOG_ERROR("configFile or sectionName or optName or optValue or path is NULL!");
        return -1;
    }
    if (strlen(package) + strlen(section) + strlen(option) + strlen(value) + 4 >=
        kLookupSize + 1) {
        NMS_LOG_ERROR("lookupStr is too short to save config info.");
        return -1;
    }
    char lookup[kLookupSize];
    snprintf(lookup, sizeof lookup, "%s.%s.%s=%s", package, section, option, value);
    NMS_LOG_DEBUG("uci set %s\n", lookup);
    return set_and_commit(lookup, package, confdir, __func__);
}
