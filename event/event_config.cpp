// event_config.cpp - event list settings table and per-type UCI queries.
#include "event_config.h"

#include "nms_log.h"
#include "uci_access.h"

#include <array>
#include <charconv>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kConfDir = "/etc/nms_report";
constexpr const char *kListPackage = "event_report";
constexpr const char *kTypePackage = "event_params";
constexpr const char *kStatsPackage = "stats_report";
// Told after every reload of the lists' settings (the lists wake a producer they hold back).
std::atomic<void (*)(void)> g_reload_hook{nullptr};
// While this file exists every unconfigured event type counts as enabled.
constexpr const char *kIgnoreEnableFile = "/tmp/tmp_nms_event_test_ignore_enable";

constexpr int kDefaultBufTime = 600;
constexpr int kDefaultBufSize = 50;
constexpr int kDefaultParamBufTime = 600;

// One entry per list; all 0 until the first load. Written by
// update_event_list_buf_timer (start-up, or the bus thread on a reload) and
// read without a lock by the dispatch workers, the scan and the report
// threads. A reader may see a mix of old and new values of one list during a
// reload; that is accepted, hence relaxed atomics and no lock.
struct ListSettings {
    std::atomic<int> buffer_time{0};
    std::atomic<int> buffer_size{0};
    std::atomic<int> buffer_full_processing{0};
};
ListSettings g_list_settings[NMS_EVENT_LIST_NUM];

bool list_in_range(int list)
{
    return list >= 0 && list < NMS_EVENT_LIST_NUM;
}

// Plain decimal conversion: leading number or 0 for non-numeric text,
// clamped to int instead of overflowing.
int to_int(const char *text)
{
    long v = strtol(text, nullptr, 10);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

// ---- Per-type settings cache -------------------------------------------------
//
// The dispatch workers ask for a type's settings once per event; loading and
// parsing event_params for each of them cost most of a worker's time. The
// answers must still follow the files on disk (another process may rewrite the
// package, or a `uci set` may leave an uncommitted delta): a change written
// before an event was sent must be seen when that event is handled. So the
// parsed package is kept, and the kernel tells of changes to the files a load
// reads (the package file and its delta file in each directory of the delta
// search path: the default save directory and "/etc/nms_report.uci") through
// inotify watches on their directories. Every notice bumps a generation; the
// cache is loaded again when the generation differs from the one it was loaded
// under.
//
// The notices are read without blocking, by whoever is about to query: a
// dispatch worker's receive loop reads them once per round, after it has
// counted the messages it will take (each of them was sent before that count,
// so a write that ended before its send has queued its notice by then), and
// again after waiting for a message on an empty queue; every other thread reads
// them at each query. A burst of events thus costs no system call per event.
//
// Where the kernel gives no watch (no inotify, too many directories to watch),
// each query instead compares the identities of the files (existence, device,
// inode, size, modification and change times with nanoseconds) with the ones
// the cache was loaded under. A rewrite in place that keeps the size and lands
// in the same timestamp tick as the previous write is not noticed that way
// until the next change; that is accepted there.

constexpr size_t kMaxWatchedFiles = 4;  // package + delta files; the path holds two

struct FileId {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    timespec mtim{};
    timespec ctim{};

    bool operator==(const FileId &o) const
    {
        return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
               mtim.tv_sec == o.mtim.tv_sec && mtim.tv_nsec == o.mtim.tv_nsec &&
               ctim.tv_sec == o.ctim.tv_sec && ctim.tv_nsec == o.ctim.tv_nsec;
    }
};

// Identities of all watched files at one moment.
struct FilesKey {
    std::array<FileId, kMaxWatchedFiles> ids{};
    size_t count = 0;

    bool operator==(const FilesKey &o) const
    {
        if (count != o.count)
            return false;
        for (size_t i = 0; i < count; i++)
            if (!(ids[i] == o.ids[i]))
                return false;
        return true;
    }
};

struct UciFree {
    void operator()(uci_context *c) const noexcept { uci_free_context(c); }
};
using UciPtr = std::unique_ptr<uci_context, UciFree>;

// The files a load of event_params reads, in the order libuci reads them. None when they
// cannot be found out (no memory for a context, a path too long to keep); the cache is then
// bypassed. Fixed for the life of the process.
constexpr size_t kPathMax = 256;
struct WatchedFiles {
    char path[kMaxWatchedFiles][kPathMax];
    size_t count = 0;
};

// Appends dir/kTypePackage; false when it does not fit.
bool add_watched(WatchedFiles &files, const char *dir)
{
    if (files.count == kMaxWatchedFiles)
        return false;  // more than we can key on: never cache
    int n = snprintf(files.path[files.count], kPathMax, "%s/%s", dir, kTypePackage);
    if (n < 0 || static_cast<size_t>(n) >= kPathMax)
        return false;
    files.count++;
    return true;
}

WatchedFiles find_watched_files()
{
    WatchedFiles files;
    UciPtr ctx(uci_alloc_context());
    if (!ctx || init_specifyUciPath(ctx.get(), kTypePackage, kConfDir) != 0)
        return files;
    bool ok = add_watched(files, kConfDir);
    uci_element *e;
    uci_foreach_element(&ctx->delta_path, e) {
        ok = ok && add_watched(files, e->name);
    }
    if (!ok)
        files.count = 0;
    return files;
}

const WatchedFiles &watched_files()
{
    static const WatchedFiles files = find_watched_files();
    return files;
}

FileId file_id(const char *path)
{
    FileId id;
    struct stat st;
    if (stat(path, &st) != 0)
        return id;  // missing or unreachable: a load would not read it either
    id.exists = true;
    id.dev = st.st_dev;
    id.ino = st.st_ino;
    id.size = st.st_size;
    id.mtim = st.st_mtim;
    id.ctim = st.st_ctim;
    return id;
}

// Change notices of the watched files' directories. A directory that does not
// exist yet (the save directory appears with the first `uci set`) is waited for
// through a watch on its parent.
class SettingsWatch {
public:
    // Sets up the watches; false when the kernel offers none, and then never true.
    bool start(const WatchedFiles &files)
    {
        std::lock_guard<std::mutex> hold(mu_);
        if (fd_ >= 0)
            return true;
        if (files.count == 0)
            return false;
        fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd_ < 0)
            return false;
        for (size_t i = 0; i < files.count; i++) {
            Dir &d = dirs_[ndirs_];
            memcpy(d.path, files.path[i], kPathMax);
            char *slash = strrchr(d.path, '/');
            *slash = '\0';
            bool seen = false;
            for (size_t j = 0; j < ndirs_; j++)
                seen = seen || strcmp(dirs_[j].path, d.path) == 0;
            if (seen)
                continue;
            const char *up = strrchr(d.path, '/');
            if (!up) {  // a relative directory: its parent is where the daemon runs
                d.child = d.path;
                strcpy(d.parent, ".");
            } else {
                d.child = up + 1;
                size_t n = up == d.path ? 1 : static_cast<size_t>(up - d.path);
                memcpy(d.parent, d.path, n);
                d.parent[n] = '\0';
            }
            ndirs_++;
        }
        for (size_t j = 0; j < ndirs_; j++) {
            if (!watch_dir(dirs_[j])) {
                close(fd_);
                fd_ = -1;
                return false;
            }
        }
        return true;
    }

    // Reads the notices queued so far, without blocking; a change to a watched
    // file bumps the generation.
    void poll()
    {
        std::lock_guard<std::mutex> hold(mu_);
        if (fd_ < 0)
            return;
        alignas(inotify_event) char buf[4096];
        for (;;) {
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0)
                return;
            for (ssize_t at = 0; at < n;) {
                const auto *ev = reinterpret_cast<const inotify_event *>(buf + at);
                take(*ev);
                at += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            }
        }
    }

    uint64_t generation() const { return gen_.load(std::memory_order_acquire); }

private:
    struct Dir {
        char path[kPathMax];    // the directory
        char parent[kPathMax];  // and the one that holds it
        const char *child;      // its name in the parent (inside path)
        int wd = -1;            // watch on the directory itself
        int parent_wd = -1;     // watch on its parent while it does not exist
    };
    static constexpr uint32_t kDirEvents = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE |
                                           IN_MOVED_TO | IN_MOVED_FROM | IN_ATTRIB |
                                           IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    static constexpr uint32_t kParentEvents = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;

    // Watches d, or its parent while d is missing. False when neither can be watched.
    bool watch_dir(Dir &d)
    {
        d.wd = inotify_add_watch(fd_, d.path, kDirEvents);
        if (d.wd >= 0)
            return true;
        d.parent_wd = inotify_add_watch(fd_, d.parent, kParentEvents);
        if (d.parent_wd < 0)
            return false;
        // Made between the two calls: watch it after all.
        if (access(d.path, F_OK) == 0) {
            d.wd = inotify_add_watch(fd_, d.path, kDirEvents);
            if (d.wd < 0)
                return false;
        }
        return true;
    }

    void bump() { gen_.fetch_add(1, std::memory_order_acq_rel); }

    void take(const inotify_event &ev)
    {
        if (ev.mask & IN_Q_OVERFLOW) {
            bump();  // notices were lost: assume a change
            return;
        }
        for (size_t j = 0; j < ndirs_; j++) {
            Dir &d = dirs_[j];
            if (ev.wd == d.wd && d.wd >= 0) {
                if (ev.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
                    // The directory went away: wait for it again through its parent.
                    d.wd = -1;
                    bump();
                    watch_dir(d);
                } else if (ev.len && strcmp(kTypePackage, ev.name) == 0) {
                    bump();
                }
            } else if (ev.wd == d.parent_wd && d.wd < 0 && ev.len && strcmp(d.child, ev.name) == 0) {
                d.wd = inotify_add_watch(fd_, d.path, kDirEvents);
                bump();  // it may already hold the file
            }
        }
    }

    std::mutex mu_;  // one reader of the notices at a time; guards the fields below
    int fd_ = -1;
    Dir dirs_[kMaxWatchedFiles];
    size_t ndirs_ = 0;
    std::atomic<uint64_t> gen_{1};
};

SettingsWatch g_watch;

// Set on a dispatch worker's thread: its receive loop reads the notices for it.
thread_local bool t_loop_polls = false;

// The string options of the package, as records "<section>\0<option>\0<value>\0" in the
// order of the package. A list option is left out, as is everything of a package that fails
// to load, so that a lookup fails exactly where a direct read fails.
using TypeValues = std::string;

void add_record(TypeValues &values, const char *section, const char *option, const char *value)
{
    values.append(section, strlen(section) + 1);
    values.append(option, strlen(option) + 1);
    values.append(value, strlen(value) + 1);
}

// One silent load of the package into values. False when no context could be
// made (the caller then reads directly); a package that cannot be loaded gives
// true and no values.
bool load_type_values(TypeValues &values)
{
    UciPtr ctx(uci_alloc_context());
    if (!ctx || init_specifyUciPath(ctx.get(), kTypePackage, kConfDir) != 0)
        return false;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), kTypePackage, &pkg) != UCI_OK || !pkg)
        return true;
    uci_element *se;
    uci_foreach_element(&pkg->sections, se) {
        uci_section *s = uci_to_section(se);
        uci_element *oe;
        uci_foreach_element(&s->options, oe) {
            uci_option *o = uci_to_option(oe);
            if (o->type == UCI_TYPE_STRING)
                add_record(values, s->e.name, o->e.name, o->v.string);
        }
    }
    return true;
}

// Cached values and the identities they were loaded under. Workers, the bus
// thread and the report threads query concurrently; the lock is held only to
// compare the key and copy one value, or to swap in a fresh load (which is made
// outside it).
struct TypeCache {
    std::mutex mu;
    bool loaded = false;
    uint64_t gen = 0;  // the watch's generation the values were loaded under
    FilesKey key;      // or, without a watch, the files' identities
    TypeValues values;
};
TypeCache g_type_cache;

enum class CacheRead { found, missing, unavailable };

// Copies value into dst cut to dst_size - 1 characters, as a direct read does.
void copy_cut(char *dst, size_t dst_size, const char *value)
{
    size_t n = strnlen(value, dst_size - 1);
    memcpy(dst, value, n);
    dst[n] = '\0';
}

// The value of section.option in values, or null when it has none. The first section and
// option of a name win, as in a lookup by name.
const char *find_value(const TypeValues &values, const char *section, const char *option)
{
    const char *at = values.data(), *end = at + values.size();
    while (at < end) {
        const char *opt = at + strlen(at) + 1;
        const char *value = opt + strlen(opt) + 1;
        if (strcmp(at, section) == 0 && strcmp(opt, option) == 0)
            return value;
        at = value + strlen(value) + 1;
    }
    return nullptr;
}

// A query's answer from the value found for it (null: none).
CacheRead answer(const char *value, char *dst, size_t dst_size)
{
    if (!value)
        return CacheRead::missing;
    copy_cut(dst, dst_size, value);
    return CacheRead::found;
}

// Each worker asks for the same few options of the same few types for every event: a thread
// keeps the answers it had under the watch's current generation, so that a query between two
// changes of the files costs neither the shared lock nor building a key.
struct TypeMemo {
    bool used = false;
    uint64_t gen = 0;
    char section[16] = {};
    char option[32] = {};
    bool found = false;
    char value[24] = {};  // the options asked for per event are short: longer ones are not kept
};
constexpr size_t kTypeMemos = 16;
thread_local std::array<TypeMemo, kTypeMemos> t_memo;
thread_local size_t t_memo_next = 0;

TypeMemo *memo_find(uint64_t gen, const char *section, const char *option)
{
    for (TypeMemo &m : t_memo)
        if (m.used && m.gen == gen && strcmp(m.section, section) == 0 &&
            strcmp(m.option, option) == 0)
            return &m;
    return nullptr;
}

void memo_keep(uint64_t gen, const char *section, const char *option, const char *value)
{
    if (strlen(section) >= sizeof(TypeMemo::section) || strlen(option) >= sizeof(TypeMemo::option) ||
        (value && strlen(value) >= sizeof(TypeMemo::value)))
        return;
    TypeMemo &m = t_memo[t_memo_next++ % kTypeMemos];
    m.used = true;
    m.gen = gen;
    strcpy(m.section, section);
    strcpy(m.option, option);
    m.found = value != nullptr;
    strcpy(m.value, value ? value : "");
}

CacheRead cached_type_option(const char *section, const char *option, char *dst,
                             size_t dst_size)
{
    const WatchedFiles &files = watched_files();
    if (files.count == 0)
        return CacheRead::unavailable;
    static const bool watching = g_watch.start(files);
    // Taken before any load, so values loaded later are never older than it:
    // a change after this point shows as a different key at the next query.
    FilesKey now;
    uint64_t gen = 0;
    if (watching) {
        if (!t_loop_polls)
            g_watch.poll();
        gen = g_watch.generation();
        if (const TypeMemo *m = memo_find(gen, section, option))
            return answer(m->found ? m->value : nullptr, dst, dst_size);
    } else {
        for (size_t i = 0; i < files.count; i++)
            now.ids[now.count++] = file_id(files.path[i]);
    }
    {
        std::lock_guard<std::mutex> hold(g_type_cache.mu);
        if (g_type_cache.loaded && g_type_cache.gen == gen && g_type_cache.key == now) {
            const char *value = find_value(g_type_cache.values, section, option);
            if (watching)
                memo_keep(gen, section, option, value);
            return answer(value, dst, dst_size);
        }
    }
    TypeValues fresh;
    if (!load_type_values(fresh))
        return CacheRead::unavailable;
    CacheRead r = answer(find_value(fresh, section, option), dst, dst_size);
    {
        std::lock_guard<std::mutex> hold(g_type_cache.mu);
        g_type_cache.values.swap(fresh);
        g_type_cache.gen = gen;
        g_type_cache.key = now;
        g_type_cache.loaded = true;
    }
    return r;  // the replaced values are freed here, outside the lock
}

// Reads option of the type's section of event_params; false on failure.
bool read_type_option(int id, const char *option, char *dst, size_t dst_size)
{
    char section[16];
    *std::to_chars(section, section + sizeof section - 1, id).ptr = '\0';  // "%d", per event
    CacheRead r = cached_type_option(section, option, dst, dst_size);
    if (r == CacheRead::found)
        return true;
    // A failing read prints its messages (load, section, option) from the UCI
    // helpers on every query. When anyone may be watching, or the cache is out
    // of service, the read is made directly, which prints exactly those.
    if (r == CacheRead::missing && log_error_on.load(std::memory_order_relaxed) == 0 &&
        log_debug_on.load(std::memory_order_relaxed) == 0)
        return false;
    return getUciOptionSpecifyPath(kTypePackage, section, option, dst, kConfDir, dst_size) == 0;
}

}  // namespace

void event_settings_loop_polls(void) noexcept
{
    t_loop_polls = true;
}

void event_settings_look(void) noexcept
{
    g_watch.poll();  // nothing to read before the first query has set up the watch
}

void update_event_list_buf_timer(void) noexcept
{
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++) {
        ListSettings &cfg = g_list_settings[i];
        char section[32];
        snprintf(section, sizeof section, "event_queue_%d", i);

        char time_buf[64];
        if (getUciOptionSpecifyPath(kListPackage, section, "buffer_time", time_buf, kConfDir,
                                    sizeof time_buf) != 0) {
            NMS_LOG_ERROR("event buff_time get failed.");
            cfg.buffer_time.store(kDefaultBufTime, std::memory_order_relaxed);
        } else {
            int v = to_int(time_buf);
            cfg.buffer_time.store(v, std::memory_order_relaxed);
            NMS_LOG_TRACE("event[%d] buff_time%d.\n", i, v);
        }

        char size_buf[16];
        if (getUciOptionSpecifyPath(kListPackage, section, "buffer_size", size_buf, kConfDir,
                                    sizeof size_buf) != 0) {
            NMS_LOG_ERROR("event buff_size get failed.");
            cfg.buffer_size.store(kDefaultBufSize, std::memory_order_relaxed);
        } else {
            int v = to_int(size_buf);
            cfg.buffer_size.store(v, std::memory_order_relaxed);
            NMS_LOG_TRACE("event[%d] buff_size%d.\n", i, v);
        }

        char policy_buf[8];
        if (getUciOptionSpecifyPath(kListPackage, section, "buffer_full_processing", policy_buf,
                                    kConfDir, sizeof policy_buf) != 0) {
            // The wording is shared with the level query; support scripts know it.
            NMS_LOG_ERROR("event level get failed.");
            cfg.buffer_full_processing.store(NMS_EVENT_FULL_REPORT, std::memory_order_relaxed);
        } else {
            int v = to_int(policy_buf);
            if (v != NMS_EVENT_FULL_REPLACE && v != NMS_EVENT_FULL_REPORT)
                v = NMS_EVENT_FULL_REPORT;
            cfg.buffer_full_processing.store(v, std::memory_order_relaxed);
            NMS_LOG_TRACE("event[%d] full handle%d.\n", i, v);
        }
    }
    if (void (*hook)(void) = g_reload_hook.load(std::memory_order_acquire))
        hook();
}

void event_config_on_list_reload(void (*hook)(void)) noexcept
{
    g_reload_hook.store(hook, std::memory_order_release);
}

int get_event_list_buf_time(int list) noexcept
{
    if (!list_in_range(list))
        return kDefaultBufTime;
    int v = g_list_settings[list].buffer_time.load(std::memory_order_relaxed);
    return v < 1 ? kDefaultBufTime : v;
}

int get_event_list_buf_size(int list) noexcept
{
    if (!list_in_range(list))
        return kDefaultBufSize;
    int v = g_list_settings[list].buffer_size.load(std::memory_order_relaxed);
    return v < 1 ? kDefaultBufSize : v;
}

int get_event_list_full_processing(int list) noexcept
{
    if (!list_in_range(list))
        return NMS_EVENT_FULL_NONE;
    return g_list_settings[list].buffer_full_processing.load(std::memory_order_relaxed);
}

int get_event_enable(int id) noexcept
{
    if (id < 1)
        return -1;
    char value[8];
    if (!read_type_option(id, "enable", value, sizeof value)) {
        NMS_LOG_DEBUG("event level get failed.");
        return access(kIgnoreEnableFile, F_OK) == 0 ? 0 : -1;
    }
    return strcmp(value, "on") == 0 ? 0 : -1;
}

int get_event_report_now_attr(int id) noexcept
{
    if (id < 1)
        return -1;
    char value[8];
    if (!read_type_option(id, "report_now", value, sizeof value)) {
        NMS_LOG_ERROR("is report right now info get failed.");
        return -1;
    }
    return strcmp(value, "on") == 0 ? 0 : -1;
}

int get_event_level(int id) noexcept
{
    if (id < 1)
        return -1;
    char value[16];
    if (!read_type_option(id, "level", value, sizeof value)) {
        NMS_LOG_DEBUG("event level get failed.");
        return -1;
    }
    return to_int(value);
}

int get_event_list_id(int id) noexcept
{
    int level = get_event_level(id);
    if (list_in_range(level))
        return get_event_report_now_attr(id) == 0 ? 0 : level;
    // C++ remainder keeps the sign of id: -13 gives -5.
    return id % NMS_EVENT_LIST_NUM;
}

int get_statistics_params_timebuff(const char *section) noexcept
{
    if (!section)
        return kDefaultParamBufTime;
    char value[16];
    if (getUciOptionSpecifyPath(kStatsPackage, section, "param_buffer_time", value, kConfDir,
                                sizeof value) != 0) {
        NMS_LOG_ERROR("timebuff get failed.");
        return kDefaultParamBufTime;
    }
    return to_int(value);
}
