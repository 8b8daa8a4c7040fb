// libuci.cpp - host configuration store: lookups, changes, delta files, load,
// save, commit and revert, and the public functions of <uci.h>. Records live
// in uci_store.cpp, the file syntax and locked file access in uci_file.cpp.
//
// Layout on disk: a package is the text file <confdir>/<name>; changes not yet
// committed are appended as delta lines to <savedir>/<name> and replayed onto
// the file's content on every load. Commit re-reads file and deltas, writes a
// temporary file beside the package file and renames it over it.
//
// Locking (flock, so separate processes and separate contexts of one process
// exclude each other; one context is never used by two threads):
//   directory of the package file   shared while loading, exclusive while
//                                   committing (load, replay, write, truncate)
//   <savedir>/<name> delta file     shared while replaying, exclusive while
//                                   appending or truncating
// Order: directory before delta file, never the reverse.
#include "uci_file.h"
#include "uci_store.h"

#include <uci.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace uci_host;

// The lookup flags are an enum inside uci_ptr, as upstream declares them; C++ has no |= on it.
void add_flags(uci_ptr *ptr, int flags) noexcept
{
    ptr->flags = static_cast<decltype(ptr->flags)>(ptr->flags | flags);
}

// Runs one public call: resets the error state, runs f, stores and returns
// its code. Nothing thrown inside crosses into C callers.
template <typename F>
int guarded(uci_context *ctx, F &&f) noexcept
{
    if (!ctx)
        return UCI_ERR_INVAL;
    ctx->err = UCI_OK;
    clear_parse_error(ctx);
    int rc;
    try {
        rc = f();
    } catch (const std::bad_alloc &) {
        rc = UCI_ERR_MEM;
    } catch (...) {
        rc = UCI_ERR_UNKNOWN;
    }
    ctx->err = rc;
    return rc;
}

// ---------------------------------------------------------------------------
// Lookup strings: "package[.section[.option]][=value]", split in place.

int parse_ptr_str(uci_ptr *ptr, char *str)
{
    memset(ptr, 0, sizeof *ptr);
    if (!str)
        return UCI_ERR_INVAL;
    if (char *eq = strchr(str, '=')) {
        *eq = '\0';
        ptr->value = eq + 1;
    }
    ptr->package = str;
    ptr->target = UCI_TYPE_PACKAGE;
    if (char *dot = strchr(str, '.')) {
        *dot = '\0';
        char *section = dot + 1;
        ptr->section = section;
        ptr->target = UCI_TYPE_SECTION;
        if (char *dot2 = strchr(section, '.')) {
            *dot2 = '\0';
            ptr->option = dot2 + 1;
            ptr->target = UCI_TYPE_OPTION;
            if (strchr(ptr->option, '.'))
                return UCI_ERR_PARSE;
        }
    }
    if (!valid_package(ptr->package))
        return UCI_ERR_PARSE;
    if (ptr->section) {
        // An empty name ("pkg..opt") is not a name: it goes the extended way and is refused
        // there as an invalid argument.
        if (!valid_name(ptr->section))
            add_flags(ptr, uci_ptr::UCI_LOOKUP_EXTENDED);
    }
    if (ptr->option && !valid_name(ptr->option))
        return UCI_ERR_PARSE;
    if (ptr->value && !uci_validate_text(ptr->value))
        return UCI_ERR_PARSE;
    return UCI_OK;
}

// "@type[index]" or "@[index]": the index-th section (of that type) in file
// order, counted from the end when negative. Out of range finds nothing.
int lookup_extended_section(uci_ptr *ptr)
{
    const char *sec = ptr->section;
    if (sec[0] != '@')
        return UCI_ERR_INVAL;
    const char *open = strchr(sec, '[');
    if (!open)
        return UCI_ERR_INVAL;
    std::string type(sec + 1, open);
    if (!type.empty() && !valid_type(type.c_str()))
        return UCI_ERR_INVAL;
    char *end = nullptr;
    errno = 0;
    long idx = strtol(open + 1, &end, 10);
    if (end == open + 1 || *end != ']' || end[1] != '\0' || errno != 0)
        return UCI_ERR_INVAL;

    std::vector<uci_section *> match;
    uci_element *e;
    uci_foreach_element(&ptr->p->sections, e) {
        uci_section *s = uci_to_section(e);
        if (type.empty() || type == s->type)
            match.push_back(s);
    }
    long n = static_cast<long>(match.size());
    if (idx < 0)
        idx += n;
    ptr->s = nullptr;
    if (idx >= 0 && idx < n) {
        ptr->s = match[static_cast<size_t>(idx)];
        ptr->section = ptr->s->e.name;
    }
    return UCI_OK;
}

int load_package(uci_context *ctx, const char *name, uci_package **out, struct HeldLocks *held);

// Fills p, s, o and last from the names; a missing section or option is not
// an error (UCI_LOOKUP_COMPLETE stays clear).
int resolve_ptr(uci_context *ctx, uci_ptr *ptr, bool extended)
{
    if (!ptr->p) {
        if (!ptr->package)
            return UCI_ERR_INVAL;
        ptr->p = find_package(ctx, ptr->package);
        if (!ptr->p) {
            int rc = load_package(ctx, ptr->package, &ptr->p, nullptr);
            if (rc != UCI_OK)
                return rc;
        }
    }
    if (!ptr->package)
        ptr->package = ptr->p->e.name;
    ptr->last = &ptr->p->e;
    ptr->o = nullptr;
    if (ptr->section) {
        ptr->s = nullptr;
        if (ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED) {
            if (!extended)
                return UCI_ERR_INVAL;
            int rc = lookup_extended_section(ptr);
            if (rc != UCI_OK)
                return rc;
        } else {
            ptr->s = find_section(ptr->p, ptr->section);
        }
    } else if (ptr->s) {
        ptr->section = ptr->s->e.name;
    }
    bool complete = !ptr->section || ptr->s;
    if (ptr->s) {
        ptr->last = &ptr->s->e;
        if (ptr->option) {
            ptr->o = find_option(ptr->s, ptr->option);
            if (ptr->o)
                ptr->last = &ptr->o->e;
        }
    }
    if (ptr->option && !ptr->o)
        complete = false;
    if (ptr->target == UCI_TYPE_UNSPEC)
        ptr->target = ptr->option ? UCI_TYPE_OPTION
                    : ptr->section ? UCI_TYPE_SECTION : UCI_TYPE_PACKAGE;
    add_flags(ptr, uci_ptr::UCI_LOOKUP_DONE);
    if (complete)
        add_flags(ptr, uci_ptr::UCI_LOOKUP_COMPLETE);
    else
        ptr->flags = static_cast<decltype(ptr->flags)>(ptr->flags & ~uci_ptr::UCI_LOOKUP_COMPLETE);
    return UCI_OK;
}

// Changes take a ptr that a caller may have filled by hand: look it up by
// plain names unless a lookup already ran.
int ensure_resolved(uci_context *ctx, uci_ptr *ptr)
{
    if (ptr->flags & uci_ptr::UCI_LOOKUP_DONE)
        return ptr->p ? UCI_OK : UCI_ERR_INVAL;
    return resolve_ptr(ctx, ptr, false);
}

// ---------------------------------------------------------------------------
// Changes. `record` is false while replaying delta files.

int set_impl(uci_ptr *ptr, bool record)
{
    if (!ptr->value || !ptr->section || !uci_validate_text(ptr->value))
        return UCI_ERR_INVAL;
    uci_package *p = ptr->p;
    if (!*ptr->value) {
        // An empty value deletes what it names; nothing there is no error.
        if (ptr->option) {
            if (ptr->o) {
                if (record)
                    add_delta(&p->delta, UCI_CMD_REMOVE, ptr->section, ptr->option, nullptr);
                free_option(ptr->o);
                ptr->o = nullptr;
            }
        } else if (ptr->s) {
            if (record)
                add_delta(&p->delta, UCI_CMD_REMOVE, ptr->section, nullptr, nullptr);
            free_section(ptr->s);
            ptr->s = nullptr;
        }
        ptr->last = ptr->s ? &ptr->s->e : &p->e;
        return UCI_OK;
    }
    if (ptr->option) {
        if (!ptr->s || !valid_name(ptr->option))
            return UCI_ERR_INVAL;
        uci_option *old = ptr->o;
        if (old && old->type == UCI_TYPE_STRING && strcmp(old->v.string, ptr->value) == 0)
            return UCI_OK;
        // Record first: ptr's strings may point into the records replaced below.
        if (record)
            add_delta(&p->delta, UCI_CMD_CHANGE, ptr->section, ptr->option, ptr->value);
        ptr->o = new_string_option(ptr->s, ptr->option, ptr->value, old ? &old->e.list : nullptr);
        if (old)
            free_option(old);
        ptr->option = ptr->o->e.name;
        ptr->last = &ptr->o->e;
        return UCI_OK;
    }
    if (!valid_type(ptr->value))
        return UCI_ERR_INVAL;
    if (!ptr->s) {
        if (!valid_name(ptr->section))
            return UCI_ERR_INVAL;
        ptr->s = new_section(p, ptr->value, ptr->section);
        ptr->section = ptr->s->e.name;
    } else if (strcmp(ptr->s->type, ptr->value) == 0) {
        return UCI_OK;
    } else {
        CStr t = make_str(ptr->value);
        free(ptr->s->type);
        ptr->s->type = t.release();
    }
    if (record)
        add_delta(&p->delta, UCI_CMD_CHANGE, ptr->section, nullptr, ptr->value);
    ptr->last = &ptr->s->e;
    return UCI_OK;
}

int add_list_impl(uci_ptr *ptr, bool record)
{
    if (!ptr->value || !uci_validate_text(ptr->value) || !ptr->s || !ptr->option ||
        !valid_name(ptr->option))
        return UCI_ERR_INVAL;
    if (record)
        add_delta(&ptr->p->delta, UCI_CMD_LIST_ADD, ptr->section, ptr->option, ptr->value);
    append_list_item(ptr->s, ptr->o, ptr->option, ptr->value);
    ptr->o = find_option(ptr->s, ptr->option);
    ptr->option = ptr->o->e.name;
    ptr->last = &ptr->o->e;
    return UCI_OK;
}

int del_list_impl(uci_ptr *ptr, bool record)
{
    if (!ptr->value)
        return UCI_ERR_INVAL;
    if (!ptr->o || ptr->o->type != UCI_TYPE_LIST)
        return UCI_OK;
    if (record)
        add_delta(&ptr->p->delta, UCI_CMD_LIST_DEL, ptr->section, ptr->option, ptr->value);
    uci_element *e, *tmp;
    uci_foreach_element_safe(&ptr->o->v.list, tmp, e) {
        if (strcmp(e->name, ptr->value) == 0)
            free_item(e);
    }
    return UCI_OK;
}

// With a value on a list option the value is the index of the one item to go.
int delete_impl(uci_ptr *ptr, bool record)
{
    if (!ptr->section)
        return UCI_ERR_INVAL;
    if (!ptr->s || (ptr->option && !ptr->o))
        return UCI_ERR_NOTFOUND;
    uci_package *p = ptr->p;
    if (ptr->o && ptr->o->type == UCI_TYPE_LIST && ptr->value && *ptr->value) {
        char *end = nullptr;
        errno = 0;
        long idx = strtol(ptr->value, &end, 10);
        if (*end != '\0' || errno != 0)
            return UCI_ERR_INVAL;
        uci_element *e;
        long i = 0;
        uci_foreach_element(&ptr->o->v.list, e) {
            if (i++ == idx) {
                if (record)
                    add_delta(&p->delta, UCI_CMD_REMOVE, ptr->section, ptr->option, ptr->value);
                free_item(e);
                return UCI_OK;
            }
        }
        return UCI_ERR_NOTFOUND;
    }
    if (record)
        add_delta(&p->delta, UCI_CMD_REMOVE, ptr->section, ptr->option, nullptr);
    if (ptr->o) {
        free_option(ptr->o);
        ptr->o = nullptr;
        ptr->last = &ptr->s->e;
    } else {
        free_section(ptr->s);
        ptr->s = nullptr;
        ptr->last = &p->e;
    }
    return UCI_OK;
}

int rename_impl(uci_ptr *ptr, bool record)
{
    if (!ptr->section)
        return UCI_ERR_INVAL;
    if (!ptr->s || (ptr->option && !ptr->o))
        return UCI_ERR_NOTFOUND;
    if (!ptr->value || !valid_name(ptr->value))
        return UCI_ERR_INVAL;
    uci_element *e = ptr->o ? &ptr->o->e : &ptr->s->e;
    if (strcmp(e->name, ptr->value) == 0)
        return UCI_OK;
    bool taken = ptr->o ? find_option(ptr->s, ptr->value) != nullptr
                        : find_section(ptr->p, ptr->value) != nullptr;
    if (taken)
        return UCI_ERR_DUPLICATE;
    CStr n = make_str(ptr->value);
    if (record)
        add_delta(&ptr->p->delta, UCI_CMD_RENAME, ptr->section, ptr->option, ptr->value);
    free(e->name);
    e->name = n.release();
    if (ptr->o)
        ptr->option = e->name;
    else
        ptr->section = e->name;
    if (!ptr->o)
        ptr->s->anonymous = false;  // a name given by hand is kept on export
    return UCI_OK;
}

int reorder_impl(uci_section *s, int pos, bool record)
{
    uci_package *p = s->package;
    if (record)
        add_delta(&p->delta, UCI_CMD_REORDER, s->e.name, nullptr, std::to_string(pos).c_str());
    list_unlink(&s->e.list);
    uci_list *at = &p->sections;  // insert after `at`
    for (int i = 0; i < pos && at->next != &p->sections; ++i)
        at = at->next;
    list_add_after(at, &s->e.list);
    return UCI_OK;
}

int add_section_impl(uci_package *p, const char *type, uci_section **res, bool record,
                     const char *name = nullptr)
{
    // Types are checked here too: a type the parser would refuse would make
    // the committed file unreadable.
    if (!valid_type(type))
        return UCI_ERR_INVAL;
    uci_section *s = new_section(p, type, nullptr);
    if (name) {
        CStr n = make_str(name);
        free(s->e.name);
        s->e.name = n.release();
    }
    if (record)
        add_delta(&p->delta, UCI_CMD_ADD, s->e.name, nullptr, type);
    if (res)
        *res = s;
    return UCI_OK;
}

// ---------------------------------------------------------------------------
// Delta files

void append_delta_line(std::string &out, const char *package, const uci_delta *d)
{
    switch (d->cmd) {
    case UCI_CMD_ADD: out += '+'; break;
    case UCI_CMD_REMOVE: out += '-'; break;
    case UCI_CMD_RENAME: out += '@'; break;
    case UCI_CMD_REORDER: out += '^'; break;
    case UCI_CMD_LIST_ADD: out += '|'; break;
    case UCI_CMD_LIST_DEL: out += '~'; break;
    case UCI_CMD_CHANGE: break;
    }
    out += package;
    out += '.';
    out += d->section;
    if (d->e.name) {
        out += '.';
        out += d->e.name;
    }
    if (d->value) {
        out += '=';
        append_quoted(out, d->value);
    }
    out += '\n';
}

// One delta line, split into its command and lookup string.
struct DeltaLine {
    uci_command cmd = UCI_CMD_CHANGE;
    std::vector<char> buf;  // holds the strings ptr points into
    uci_ptr ptr{};
};

bool parse_delta_line(const std::string &word, DeltaLine &dl)
{
    size_t start = 1;
    switch (word.empty() ? '\0' : word[0]) {
    case '+': dl.cmd = UCI_CMD_ADD; break;
    case '-': dl.cmd = UCI_CMD_REMOVE; break;
    case '@': dl.cmd = UCI_CMD_RENAME; break;
    case '^': dl.cmd = UCI_CMD_REORDER; break;
    case '|': dl.cmd = UCI_CMD_LIST_ADD; break;
    case '~': dl.cmd = UCI_CMD_LIST_DEL; break;
    default: dl.cmd = UCI_CMD_CHANGE; start = 0; break;
    }
    dl.buf.assign(word.begin() + static_cast<long>(std::min(start, word.size())), word.end());
    dl.buf.push_back('\0');
    if (parse_ptr_str(&dl.ptr, dl.buf.data()) != UCI_OK)
        return false;
    // Index syntax is not stored in delta files; a value is required by all
    // but deletions.
    if ((dl.ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED) || !dl.ptr.section)
        return false;
    return dl.cmd == UCI_CMD_REMOVE || dl.ptr.value;
}

int apply_delta(uci_context *ctx, uci_package *p, DeltaLine &dl)
{
    uci_ptr &ptr = dl.ptr;
    ptr.p = p;
    int rc = resolve_ptr(ctx, &ptr, false);
    if (rc != UCI_OK)
        return rc;
    switch (dl.cmd) {
    case UCI_CMD_ADD:
        if (ptr.option || ptr.s || !valid_name(ptr.section))
            return UCI_ERR_INVAL;
        return add_section_impl(p, ptr.value, nullptr, false, ptr.section);
    case UCI_CMD_REMOVE: return delete_impl(&ptr, false);
    case UCI_CMD_CHANGE: return set_impl(&ptr, false);
    case UCI_CMD_RENAME: return rename_impl(&ptr, false);
    case UCI_CMD_REORDER:
        if (!ptr.s || ptr.option)
            return UCI_ERR_NOTFOUND;
        return reorder_impl(ptr.s, atoi(ptr.value), false);
    case UCI_CMD_LIST_ADD: return add_list_impl(&ptr, false);
    case UCI_CMD_LIST_DEL: return del_list_impl(&ptr, false);
    }
    return UCI_ERR_INVAL;
}

// Replays the lines of one delta file onto p. Lines of other packages and
// lines that do not parse or apply are skipped. Counts the lines seen.
void replay_deltas(uci_context *ctx, uci_package *p, const std::string &text, int *lines)
{
    Tokenizer tk(text);
    std::vector<std::string> words;
    while (tk.next(words) == Tokenizer::Result::Command) {
        if (lines)
            ++*lines;
        DeltaLine dl;
        if (words.size() != 1 || !parse_delta_line(words[0], dl))
            continue;
        if (strcmp(dl.ptr.package, p->e.name) != 0)
            continue;
        uci_command cmd = dl.cmd;
        const std::string sec = dl.ptr.section;
        const std::string opt = str_or_empty(dl.ptr.option);
        const bool has_opt = dl.ptr.option != nullptr;
        const bool has_value = dl.ptr.value != nullptr;
        const std::string value = str_or_empty(dl.ptr.value);
        if (apply_delta(ctx, p, dl) != UCI_OK)
            continue;
        if (ctx->flags & UCI_FLAG_SAVED_DELTA)
            add_delta(&p->saved_delta, cmd, sec.c_str(), has_opt ? opt.c_str() : nullptr,
                      has_value ? value.c_str() : nullptr);
    }
}

// Locks that a caller (commit) already holds, so loading must not take them
// again: flock on a second descriptor of the same file would wait for ever.
struct HeldLocks {
    bool dir = false;       // the package directory, exclusively
    int savedir_fd = -1;    // <savedir>/<name>, exclusively; -1: no such file
    int lines = 0;          // delta lines seen while loading
};

std::string savedir_file(uci_context *ctx, const char *name)
{
    return std::string(ctx->savedir) + "/" + name;
}

int load_package(uci_context *ctx, const char *name, uci_package **out, HeldLocks *held)
{
    if (!name || !out)
        return UCI_ERR_INVAL;
    *out = nullptr;
    std::string path, pkgname;
    bool uses_conf2 = false;
    bool in_confdir = !(name[0] == '/' || (name[0] == '.' && name[1] == '/'));
    if (in_confdir) {
        if (strchr(name, '/'))
            return UCI_ERR_INVAL;
        pkgname = name;
        path = std::string(ctx->confdir) + "/" + name;
    } else {
        path = name;
        pkgname = path.substr(path.rfind('/') + 1);
    }
    if (!valid_package(pkgname.c_str()))
        return UCI_ERR_INVAL;
    // A package in the override directory hides the confdir's; commits go back to it.
    if (in_confdir && ctx->conf2dir) {
        std::string over = std::string(ctx->conf2dir) + "/" + pkgname;
        struct stat st;
        if (stat(over.c_str(), &st) == 0) {
            path = std::move(over);
            uses_conf2 = true;
        }
    }
    if (find_package(ctx, pkgname.c_str()))
        return UCI_ERR_DUPLICATE;

    // The directory lock keeps a commit from running between reading the
    // file and reading the deltas it has just folded in.
    UniqueFd dir_lock;
    if (!held || !held->dir)
        dir_lock = lock_dir(dir_of(path), LOCK_SH);
    std::string text;
    int rc = read_package_file(path, text);
    if (rc != UCI_OK)
        return rc;
    PackagePtr p = new_package(ctx, pkgname.c_str(), path.c_str());
    rc = parse_package_text(ctx, p.get(), text);
    if (rc != UCI_OK)
        return rc;
    p->uses_conf2 = uses_conf2;
    if (in_confdir) {
        p->has_delta = true;
        uci_element *e;
        uci_foreach_element(&ctx->delta_path, e) {
            std::string file = std::string(e->name) + "/" + pkgname;
            bool ok;
            if (held && held->savedir_fd >= 0 && file == savedir_file(ctx, pkgname.c_str()))
                ok = read_fd(held->savedir_fd, text);
            else
                ok = read_delta_file(file, text);
            if (!ok)
                return UCI_ERR_IO;
            replay_deltas(ctx, p.get(), text, held ? &held->lines : nullptr);
        }
    }
    list_add_tail(&ctx->root, &p->e.list);
    *out = p.release();
    return UCI_OK;
}

int save_impl(uci_context *ctx, uci_package *p);
int write_package(uci_context *ctx, uci_package *p);

int save_impl(uci_context *ctx, uci_package *p)
{
    if (!p)
        return UCI_ERR_INVAL;
    if (!p->has_delta)
        return write_package(ctx, p);  // no delta files for packages loaded by path
    if (uci_list_empty(&p->delta))
        return UCI_OK;
    if (mkdir(ctx->savedir, file_mode_or(ctx->confdir, UCI_DIRMODE)) != 0 && errno != EEXIST)
        return UCI_ERR_IO;
    std::string lines;
    uci_element *e;
    uci_foreach_element(&p->delta, e)
        append_delta_line(lines, p->e.name, uci_to_delta(e));
    std::string file = savedir_file(ctx, p->e.name);
    UniqueFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
                     file_mode_or(p->path, UCI_FILEMODE)));
    if (!fd || !lock_fd(fd.get(), LOCK_EX))
        return UCI_ERR_IO;
    // Upstream writes the lines through stdio and checks none of it: on a full file system
    // the save leaves what fitted, a broken line included, and succeeds all the same.
    (void)write_fd(fd.get(), lines);
    fd.reset();
    if (ctx->flags & UCI_FLAG_SAVED_DELTA) {
        uci_element *tmp;
        uci_foreach_element_safe(&p->delta, tmp, e) {
            list_unlink(&e->list);
            list_add_tail(&p->saved_delta, &e->list);
        }
    } else {
        free_delta_list(&p->delta);
    }
    return UCI_OK;
}

int write_package(uci_context *ctx, uci_package *p)
{
    if (!p->path)
        return UCI_ERR_INVAL;
    UniqueFd dir_lock = lock_dir(dir_of(p->path), LOCK_EX);
    int rc = write_package_locked(ctx, p);
    if (rc == UCI_OK)
        free_delta_list(&p->delta);
    return rc;
}

int commit_impl(uci_context *ctx, uci_package **pp, bool overwrite)
{
    if (!pp || !*pp)
        return UCI_ERR_INVAL;
    uci_package *p = *pp;
    if (!p->path)
        return UCI_ERR_INVAL;
    if (overwrite || !p->has_delta)
        return write_package(ctx, p);

    int rc = save_impl(ctx, p);
    if (rc != UCI_OK)
        return rc;
    const std::string name = p->e.name;
    const std::string path = p->path;
    free_package(p);
    *pp = nullptr;

    // Load, replay, write and truncate under one hold of the directory lock,
    // so two committers never both apply (or both miss) the same deltas.
    HeldLocks held;
    UniqueFd dir_lock = lock_dir(dir_of(path), LOCK_EX);
    if (!dir_lock)
        return UCI_ERR_IO;
    held.dir = true;
    // Created if missing: lines a concurrent save appends must either be seen
    // and truncated here, or wait for the lock and stay for the next commit.
    UniqueFd delta(open(savedir_file(ctx, name.c_str()).c_str(), O_RDWR | O_CREAT | O_CLOEXEC,
                        file_mode_or(path.c_str(), UCI_FILEMODE)));
    if (delta && !lock_fd(delta.get(), LOCK_EX))
        return UCI_ERR_IO;
    held.savedir_fd = delta.get();
    rc = load_package(ctx, name.c_str(), pp, &held);
    if (rc != UCI_OK)
        return rc;
    if (held.lines == 0)
        return UCI_OK;  // nothing to write
    rc = write_package_locked(ctx, *pp);
    if (rc != UCI_OK)
        return rc;
    if (delta && ftruncate(delta.get(), 0) != 0)
        return UCI_ERR_IO;
    free_delta_list(&(*pp)->saved_delta);  // they are in the file now
    return UCI_OK;
}

// Does delta line dl touch what ptr names (package, section, option)?
bool delta_matches(const DeltaLine &dl, const uci_ptr *ptr)
{
    if (!same(dl.ptr.package, ptr->p->e.name))
        return false;
    if (ptr->section && !same(dl.ptr.section, ptr->section))
        return false;
    if (ptr->option && !same(dl.ptr.option, ptr->option))
        return false;
    return true;
}

int revert_impl(uci_context *ctx, uci_ptr *ptr)
{
    int rc = ensure_resolved(ctx, ptr);
    if (rc != UCI_OK)
        return rc;
    uci_package *p = ptr->p;
    const std::string name = p->e.name;
    const std::string section = str_or_empty(ptr->section);
    const std::string option = str_or_empty(ptr->option);
    const bool has_section = ptr->section != nullptr, has_option = ptr->option != nullptr;

    std::string file = savedir_file(ctx, name.c_str());
    UniqueFd fd(open(file.c_str(), O_RDWR | O_CLOEXEC));
    if (fd) {
        std::string text, kept;
        if (!lock_fd(fd.get(), LOCK_EX) || !read_fd(fd.get(), text))
            return UCI_ERR_IO;
        Tokenizer tk(text);
        std::vector<std::string> words;
        while (tk.next(words) == Tokenizer::Result::Command) {
            DeltaLine dl;
            if (words.size() != 1 || !parse_delta_line(words[0], dl) || delta_matches(dl, ptr))
                continue;
            uci_delta d{};
            d.cmd = dl.cmd;
            d.section = const_cast<char *>(dl.ptr.section);
            d.e.name = const_cast<char *>(dl.ptr.option);
            d.value = const_cast<char *>(dl.ptr.value);
            append_delta_line(kept, dl.ptr.package, &d);
        }
        if (ftruncate(fd.get(), 0) != 0 || !write_fd(fd.get(), kept))
            return UCI_ERR_IO;
        fd.reset();
    }
    // Reload so that what is in memory matches what remains.
    free_package(p);
    ptr->p = nullptr;
    ptr->s = nullptr;
    ptr->o = nullptr;
    rc = load_package(ctx, name.c_str(), &ptr->p, nullptr);
    if (rc != UCI_OK)
        return rc;
    ptr->package = ptr->p->e.name;
    ptr->section = nullptr;
    ptr->option = nullptr;
    if (has_section) {
        ptr->s = find_section(ptr->p, section.c_str());
        ptr->section = ptr->s ? ptr->s->e.name : nullptr;
    }
    if (has_option && ptr->s) {
        ptr->o = find_option(ptr->s, option.c_str());
        ptr->option = ptr->o ? ptr->o->e.name : nullptr;
    }
    ptr->last = ptr->o ? &ptr->o->e : ptr->s ? &ptr->s->e : &ptr->p->e;
    return UCI_OK;
}

int list_configs_impl(uci_context *ctx, char ***list)
{
    if (!list)
        return UCI_ERR_INVAL;
    std::vector<std::string> names;
    bool any = false;  // a directory without entries is "not found", as a glob finding none
    if (DIR *d = opendir(ctx->confdir)) {
        std::unique_ptr<DIR, int (*)(DIR *)> hold(d, closedir);
        while (dirent *de = readdir(d)) {
            if (de->d_name[0] == '.')
                continue;
            any = true;
            std::string path = std::string(ctx->confdir) + "/" + de->d_name;
            struct stat st;
            if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && valid_package(de->d_name))
                names.emplace_back(de->d_name);
        }
    }
    if (!any)
        return UCI_ERR_NOTFOUND;
    std::sort(names.begin(), names.end());
    // One block: the pointer array (NULL-terminated), then the strings.
    size_t size = (names.size() + 1) * sizeof(char *);
    for (const auto &n : names)
        size += n.size() + 1;
    auto **out = static_cast<char **>(malloc(size));
    if (!out)
        return UCI_ERR_MEM;
    char *text = reinterpret_cast<char *>(out + names.size() + 1);
    for (size_t i = 0; i < names.size(); ++i) {
        memcpy(text, names[i].c_str(), names[i].size() + 1);
        out[i] = text;
        text += names[i].size() + 1;
    }
    out[names.size()] = nullptr;
    *list = out;
    return UCI_OK;
}

// ---------------------------------------------------------------------------
// Import from a stream, and the batch tool's argument reader.

// One change to p by names, recorded as a delta: set a section's type or an option's value,
// or add a list item.
int record_change(uci_context *ctx, uci_package *p, const char *section, const char *option,
                  const char *value, bool list_item)
{
    uci_ptr ptr{};
    ptr.p = p;
    ptr.package = p->e.name;
    ptr.section = section;
    ptr.option = option;
    ptr.value = value;
    int rc = resolve_ptr(ctx, &ptr, false);
    if (rc != UCI_OK)
        return rc;
    return list_item ? add_list_impl(&ptr, true) : set_impl(&ptr, true);
}

// Applies the sections and options of src to p as recorded changes (deltas): the merge of an
// import into a package that exists.
int merge_package(uci_context *ctx, uci_package *p, uci_package *src)
{
    uci_element *se;
    uci_foreach_element(&src->sections, se) {
        uci_section *from = uci_to_section(se);
        std::string section = from->e.name;
        int rc;
        if (from->anonymous) {
            uci_section *added = nullptr;
            rc = add_section_impl(p, from->type, &added, true);
            if (rc == UCI_OK)
                section = added->e.name;
        } else {
            rc = record_change(ctx, p, section.c_str(), nullptr, from->type, false);
        }
        if (rc != UCI_OK)
            return rc;
        uci_element *oe;
        uci_foreach_element(&from->options, oe) {
            uci_option *o = uci_to_option(oe);
            if (o->type == UCI_TYPE_STRING) {
                rc = record_change(ctx, p, section.c_str(), o->e.name, o->v.string, false);
                if (rc != UCI_OK)
                    return rc;
                continue;
            }
            uci_element *item;
            uci_foreach_element(&o->v.list, item) {
                rc = record_change(ctx, p, section.c_str(), o->e.name, item->name, true);
                if (rc != UCI_OK)
                    return rc;
            }
        }
    }
    return UCI_OK;
}

// The stream holds one package, or several each opened by a "package <name>" line (the
// writer's format with a header). name names the package of lines before any such line.
int import_impl(uci_context *ctx, FILE *stream, const char *name, uci_package **package,
                bool single)
{
    if (!stream || (name && !valid_package(name)))
        return UCI_ERR_INVAL;
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, stream)) > 0)
        text.append(buf, n);
    if (ferror(stream))
        return UCI_ERR_IO;

    // Cut the text at its package lines; each part keeps its own lines for error positions.
    struct Part {
        std::string name, text;
    };
    std::vector<Part> parts{{name ? name : "", ""}};
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        std::string line = text.substr(at, end - at);
        Tokenizer tk(line);
        std::vector<std::string> words;
        if (tk.next(words) == Tokenizer::Result::Command && words.size() == 2 &&
            words[0] == "package") {
            if (!valid_package(words[1].c_str()))
                return UCI_ERR_PARSE;
            if (single && !parts.back().name.empty())
                parts.back().name = words[1];  // the stream may rename its one package
            else
                parts.push_back({words[1], ""});
        } else {
            parts.back().text += line;
        }
        at = end;
    }

    const bool merge = single && package && *package;
    uci_package *first = nullptr;
    for (Part &part : parts) {
        if (part.name.empty()) {
            if (part.text.find_first_not_of(" \t\r\n") != std::string::npos)
                return UCI_ERR_PARSE;  // lines before any package, and no name given
            continue;
        }
        const std::string path = std::string(ctx->confdir) + "/" + part.name;
        PackagePtr p = new_package(ctx, part.name.c_str(), path.c_str());
        int rc = parse_package_text(ctx, p.get(), part.text);
        if (rc != UCI_OK)
            return rc;
        if (merge) {
            return merge_package(ctx, *package, p.get());
        }
        if (uci_package *old = find_package(ctx, part.name.c_str()))
            free_package(old);
        list_add_tail(&ctx->root, &p->e.list);
        if (!first)
            first = p.get();
        p.release();
        if (single)
            break;
    }
    if (package)
        *package = first;
    return UCI_OK;
}

// Words of one line of the stream, kept in ctx->buf as NUL-terminated strings ending with an
// empty one; *str walks them. A new line is read when *str is NULL.
int parse_argument_impl(uci_context *ctx, FILE *stream, char **str, char **result)
{
    if (!stream || !str || !result)
        return UCI_ERR_INVAL;
    if (!*str) {
        std::string line;
        int c;
        while ((c = fgetc(stream)) != EOF && c != '\n')
            line += static_cast<char>(c);
        Tokenizer tk(line);
        std::vector<std::string> words;
        if (tk.next(words) == Tokenizer::Result::Error)
            return UCI_ERR_PARSE;
        size_t need = 1;
        for (const std::string &w : words)
            need += w.size() + 1;
        if (static_cast<size_t>(ctx->bufsz) < need) {
            char *grown = static_cast<char *>(realloc(ctx->buf, need));
            if (!grown)
                return UCI_ERR_MEM;
            ctx->buf = grown;
            ctx->bufsz = static_cast<int>(need);
        }
        char *out = ctx->buf;
        for (const std::string &w : words) {
            memcpy(out, w.c_str(), w.size() + 1);
            out += w.size() + 1;
        }
        *out = '\0';
        *str = ctx->buf;
    }
    *result = *str;
    if (**str)
        *str += strlen(*str) + 1;
    return UCI_OK;
}

uci_element *new_path_element(const char *dir)
{
    CStr n = make_str(dir);
    auto *e = alloc_zeroed<uci_element>();
    e->type = UCI_TYPE_PATH;
    e->name = n.release();
    list_init(&e->list);
    return e;
}

void free_element(uci_element *e)
{
    list_unlink(&e->list);
    free(e->name);
    free(e);
}

int set_dir(char **slot, const char *dir)
{
    if (!dir || !*dir)
        return UCI_ERR_INVAL;
    CStr d = make_str(dir);
    free(*slot);
    *slot = d.release();
    return UCI_OK;
}

}  // namespace

// ---------------------------------------------------------------------------
// Public functions

extern "C" {

struct uci_context *uci_alloc_context(void) noexcept
{
    auto *ctx = static_cast<uci_context *>(calloc(1, sizeof(uci_context)));
    if (!ctx)
        return nullptr;
    list_init(&ctx->root);
    list_init(&ctx->backends);
    list_init(&ctx->delta_path);
    ctx->flags = static_cast<uci_flags>(UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
    try {
        ctx->confdir = make_str(UCI_CONFDIR).release();
        ctx->savedir = make_str(UCI_SAVEDIR).release();
        ctx->conf2dir = make_str(UCI_CONF2DIR).release();
        list_add_tail(&ctx->delta_path, &new_path_element(ctx->savedir)->list);
        CStr n = make_str("file");
        auto *b = alloc_zeroed<uci_backend>();
        b->e.type = UCI_TYPE_BACKEND;
        b->e.name = n.release();
        list_add_tail(&ctx->backends, &b->e.list);
        ctx->backend = b;
    } catch (const std::bad_alloc &) {
        uci_free_context(ctx);
        return nullptr;
    }
    return ctx;
}

void uci_free_context(struct uci_context *ctx) noexcept
{
    if (!ctx)
        return;
    uci_element *e, *tmp;
    uci_foreach_element_safe(&ctx->root, tmp, e)
        free_package(uci_to_package(e));
    uci_foreach_element_safe(&ctx->delta_path, tmp, e)
        free_element(e);
    uci_foreach_element_safe(&ctx->backends, tmp, e) {
        list_unlink(&e->list);
        free(e->name);
        free(uci_to_backend(e));
    }
    clear_parse_error(ctx);
    free(ctx->buf);
    free(ctx->confdir);
    free(ctx->savedir);
    free(ctx->conf2dir);
    free(ctx);
}

int uci_set_confdir(struct uci_context *ctx, const char *dir) noexcept
{
    return guarded(ctx, [&]() -> int { return set_dir(&ctx->confdir, dir); });
}

int uci_set_conf2dir(struct uci_context *ctx, const char *dir) noexcept
{
    return guarded(ctx, [&]() -> int {
        CStr d;
        if (dir && *dir)
            d = make_str(dir);
        free(ctx->conf2dir);
        ctx->conf2dir = d.release();
        return UCI_OK;
    });
}

// The save directory is always searched last for delta files.
int uci_set_savedir(struct uci_context *ctx, const char *dir) noexcept
{
    return guarded(ctx, [&]() -> int {
        if (!dir || !*dir)
            return UCI_ERR_INVAL;
        uci_element *found = nullptr, *e;
        uci_foreach_element(&ctx->delta_path, e) {
            if (same(e->name, dir)) {
                found = e;
                break;
            }
        }
        CStr copy = make_str(dir);
        if (!found)
            found = new_path_element(dir);
        free(ctx->savedir);
        ctx->savedir = copy.release();
        list_unlink(&found->list);
        list_add_tail(&ctx->delta_path, &found->list);
        return UCI_OK;
    });
}

int uci_add_delta_path(struct uci_context *ctx, const char *dir) noexcept
{
    return guarded(ctx, [&]() -> int {
        if (!dir || !*dir)
            return UCI_ERR_INVAL;
        uci_element *e, *savedir = nullptr;
        uci_foreach_element(&ctx->delta_path, e) {
            if (same(e->name, dir))
                return UCI_ERR_DUPLICATE;
            if (same(e->name, ctx->savedir))
                savedir = e;
        }
        uci_element *n = new_path_element(dir);
        if (savedir)
            link_between(&n->list, savedir->list.prev, &savedir->list);
        else
            list_add_tail(&ctx->delta_path, &n->list);
        return UCI_OK;
    });
}

int uci_set_backend(struct uci_context *ctx, const char *name) noexcept
{
    return guarded(ctx, [&]() -> int { return same(name, "file") ? UCI_OK : UCI_ERR_NOTFOUND; });
}

int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package) noexcept
{
    return guarded(ctx, [&]() -> int { return load_package(ctx, name, package, nullptr); });
}

int uci_unload(struct uci_context *ctx, struct uci_package *p) noexcept
{
    return guarded(ctx, [&]() -> int {
        if (!p)
            return UCI_ERR_INVAL;
        free_package(p);
        return UCI_OK;
    });
}

int uci_list_configs(struct uci_context *ctx, char ***list) noexcept
{
    return guarded(ctx, [&]() -> int { return list_configs_impl(ctx, list); });
}

int uci_import(struct uci_context *ctx, FILE *stream, const char *name,
               struct uci_package **package, bool single) noexcept
{
    return guarded(ctx, [&]() -> int { return import_impl(ctx, stream, name, package, single); });
}

int uci_parse_argument(struct uci_context *ctx, FILE *stream, char **str, char **result) noexcept
{
    return guarded(ctx, [&]() -> int { return parse_argument_impl(ctx, stream, str, result); });
}

int uci_save(struct uci_context *ctx, struct uci_package *p) noexcept
{
    return guarded(ctx, [&]() -> int { return save_impl(ctx, p); });
}

int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite) noexcept
{
    return guarded(ctx, [&]() -> int { return commit_impl(ctx, p, overwrite); });
}

int uci_revert(struct uci_context *ctx, struct uci_ptr *ptr) noexcept
{
    return guarded(ctx, [&]() -> int { return ptr ? revert_impl(ctx, ptr) : UCI_ERR_INVAL; });
}

int uci_export(struct uci_context *ctx, FILE *stream, struct uci_package *package,
               bool header) noexcept
{
    return guarded(ctx, [&]() -> int {
        if (!stream || !package)
            return UCI_ERR_INVAL;
        std::string text = export_text(ctx, package, header);
        if (fwrite(text.data(), 1, text.size(), stream) != text.size())
            return UCI_ERR_IO;
        return UCI_OK;
    });
}

int uci_parse_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str) noexcept
{
    return guarded(ctx, [&]() -> int { return ptr ? parse_ptr_str(ptr, str) : UCI_ERR_INVAL; });
}

int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended) noexcept
{
    return guarded(ctx, [&]() -> int {
        if (!ptr)
            return UCI_ERR_INVAL;
        if (str) {
            int rc = parse_ptr_str(ptr, str);
            if (rc != UCI_OK)
                return rc;
        }
        return resolve_ptr(ctx, ptr, extended);
    });
}

int uci_lookup_next(struct uci_context *ctx, struct uci_element **e, struct uci_list *list,
                    const char *name) noexcept
{
    return guarded(ctx, [&]() -> int {
        if (!e || !list || !name)
            return UCI_ERR_INVAL;
        uci_element *it;
        uci_foreach_element(list, it) {
            if (same(it->name, name)) {
                *e = it;
                return UCI_OK;
            }
        }
        return UCI_ERR_NOTFOUND;
    });
}

int uci_set(struct uci_context *ctx, struct uci_ptr *ptr) noexcept
{
    return guarded(ctx, [&]() -> int {
        int rc = ptr ? ensure_resolved(ctx, ptr) : UCI_ERR_INVAL;
        return rc != UCI_OK ? rc : set_impl(ptr, true);
    });
}

int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type,
                    struct uci_section **res) noexcept
{
    return guarded(ctx, [&]() -> int {
        if (!p || !type)
            return UCI_ERR_INVAL;
        return add_section_impl(p, type, res, true);
    });
}

int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr) noexcept
{
    return guarded(ctx, [&]() -> int {
        int rc = ptr ? ensure_resolved(ctx, ptr) : UCI_ERR_INVAL;
        return rc != UCI_OK ? rc : add_list_impl(ptr, true);
    });
}

int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr) noexcept
{
    return guarded(ctx, [&]() -> int {
        int rc = ptr ? ensure_resolved(ctx, ptr) : UCI_ERR_INVAL;
        return rc != UCI_OK ? rc : del_list_impl(ptr, true);
    });
}

int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr) noexcept
{
    return guarded(ctx, [&]() -> int {
        int rc = ptr ? ensure_resolved(ctx, ptr) : UCI_ERR_INVAL;
        return rc != UCI_OK ? rc : delete_impl(ptr, true);
    });
}

int uci_rename(struct uci_context *ctx, struct uci_ptr *ptr) noexcept
{
    return guarded(ctx, [&]() -> int {
        int rc = ptr ? ensure_resolved(ctx, ptr) : UCI_ERR_INVAL;
        return rc != UCI_OK ? rc : rename_impl(ptr, true);
    });
}

int uci_reorder_section(struct uci_context *ctx, struct uci_section *s, int pos) noexcept
{
    return guarded(ctx, [&]() -> int { return s ? reorder_impl(s, pos < 0 ? 0 : pos, true) : UCI_ERR_INVAL; });
}

void uci_perror(struct uci_context *ctx, const char *str) noexcept
{
    if (!ctx)
        return;
    try {
        fprintf(stderr, "%s\n", error_text(ctx, str).c_str());
    } catch (...) {
        fprintf(stderr, "%s\n", kErrorTexts[UCI_ERR_MEM]);
    }
}

void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *str) noexcept
{
    if (!ctx || !dest)
        return;
    try {
        *dest = strdup(error_text(ctx, str).c_str());
    } catch (...) {
        *dest = nullptr;
    }
}

bool uci_validate_text(const char *str) noexcept
{
    if (!str)
        return false;
    for (; *str; ++str) {
        unsigned char c = static_cast<unsigned char>(*str);
        if (c < 32 && c != '\t' && c != '\n' && c != '\r')
            return false;
    }
    return true;
}

void uci_parse_section(struct uci_section *s, const struct uci_parse_option *opts, int n_opts,
                       struct uci_option **tb) noexcept
{
    if (!s || !opts || !tb || n_opts <= 0)
        return;
    memset(tb, 0, sizeof(*tb) * static_cast<size_t>(n_opts));
    uci_element *e;
    uci_foreach_element(&s->options, e) {
        uci_option *o = uci_to_option(e);
        for (int i = 0; i < n_opts; ++i) {
            if (!tb[i] && o->type == opts[i].type && same(opts[i].name, o->e.name)) {
                tb[i] = o;
                break;
            }
        }
    }
}

uint32_t uci_hash_options(struct uci_option **tb, int n_opts) noexcept
{
    uint32_t h = 2166136261u;
    for (int i = 0; tb && i < n_opts; ++i) {
        uci_option *o = tb[i];
        if (!o)
            continue;
        h = fnv1a(h, o->e.name);
        if (o->type == UCI_TYPE_STRING) {
            h = fnv1a(h, o->v.string);
        } else {
            uci_element *e;
            uci_foreach_element(&o->v.list, e)
                h = fnv1a(h, e->name);
        }
    }
    return h;
}

}  // extern "C"
