// uci_access.cpp - one-shot UCI reads and writes, each on a context of its own.
#include "uci_access.h"

#include "nms_log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <sys/stat.h>
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
    char delta[kSaveDirSize + 256];
    snprintf(delta, sizeof delta, "%s.uci/%s", confdir, package);
    struct stat before;
    const bool had_delta = stat(delta, &before) == 0;
    if (uci_save(ctx.get(), ptr.p) != UCI_OK) {
        CALLER_LOG_ERROR("uci_save != UCI_OK");
        NMS_LOG_ALWAYS("cannot save a change of %s in %s.uci: %s", package, confdir,
                       strerror(errno));
        cut_back(delta, had_delta ? before.st_size : 0);
        return -1;
    }
    // Without overwrite: the file is re-read and every saved change replayed
    // onto it, so changes of other writers since our load are kept.
    if (uci_commit(ctx.get(), &ptr.p, false) != UCI_OK) {
        CALLER_LOG_ERROR("uci_commit != UCI_OK");
        // The change stays saved and goes into the file with the next commit that succeeds.
        NMS_LOG_ALWAYS("cannot write %s/%s: %s", confdir, package, strerror(errno));
        return -1;
    }
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
