// uci_file.cpp - the text side of the configuration library: locked file
// access, the word rules, the package file parser and the package writer.
#include "uci_file.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace uci_host {

namespace {

// Removes a temporary file unless the rename that publishes it went through.
class TempFile {
public:
    explicit TempFile(std::string path) : path_(std::move(path)) {}
    ~TempFile()
    {
        if (!path_.empty())
            unlink(path_.c_str());
    }
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    void keep() { path_.clear(); }

private:
    std::string path_;
};

}  // namespace

// ---------------------------------------------------------------------------
// Files and locks

bool lock_fd(int fd, int op)
{
    while (flock(fd, op) != 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
}

std::string dir_of(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

UniqueFd lock_dir(const std::string &dir, int op)
{
    UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd && !lock_fd(fd.get(), op))
        fd.reset();
    return fd;
}

bool read_fd(int fd, std::string &out)
{
    out.clear();
    char buf[4096];
    off_t off = 0;
    for (;;) {
        ssize_t n = pread(fd, buf, sizeof buf, off);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (n == 0)
            return true;
        out.append(buf, static_cast<size_t>(n));
        off += n;
    }
}

bool write_fd(int fd, const std::string &data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

int read_package_file(const std::string &path, std::string &out)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return (errno == ENOENT || errno == ENOTDIR) ? UCI_ERR_NOTFOUND : UCI_ERR_IO;
    struct stat st;
    if (fstat(fd.get(), &st) != 0)
        return UCI_ERR_IO;
    if (!S_ISREG(st.st_mode))
        return UCI_ERR_NOTFOUND;
    return read_fd(fd.get(), out) ? UCI_OK : UCI_ERR_IO;
}

bool read_delta_file(const std::string &path, std::string &out)
{
    out.clear();
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return errno == ENOENT || errno == ENOTDIR;
    return lock_fd(fd.get(), LOCK_SH) && read_fd(fd.get(), out);
}

mode_t file_mode_or(const char *path, mode_t fallback)
{
    struct stat st;
    if (path && stat(path, &st) == 0)
        return st.st_mode & 07777;
    return fallback;
}

void append_quoted(std::string &out, const char *value)
{
    out += '\'';
    for (const char *c = str_or_empty(value); *c; ++c) {
        if (*c == '\'')
            out += "'\\''";
        else
            out += *c;
    }
    out += '\'';
}

// ---------------------------------------------------------------------------
// Package file parser

static bool keyword_is(const std::string &word, const char *keyword)
{
    return word == keyword || (word.size() == 1 && word[0] == keyword[0]);
}

// A repeated option replaces the earlier one and moves to the end.
static void parse_option(uci_section *s, const std::string &name, const std::string &value)
{
    if (value.empty())
        return;  // the store never holds empty string options
    if (uci_option *old = find_option(s, name.c_str()))
        free_option(old);
    new_string_option(s, name.c_str(), value.c_str(), nullptr);
}

// Applies one command to p; returns the reason of a syntax error or null.
static const char *parse_command(uci_package *p, const std::vector<std::string> &w, uci_section *&cur)
{
    const std::string &kw = w[0];
    if (keyword_is(kw, "package")) {
        if (w.size() < 2)
            return "insufficient arguments";
        if (w.size() > 2)
            return "too many arguments";
        if (!valid_package(w[1].c_str()))
            return "invalid character in name field";
        return nullptr;  // a file holds one package; its name comes from the file
    }
    if (keyword_is(kw, "config")) {
        if (w.size() < 2)
            return "insufficient arguments";
        if (w.size() > 3)
            return "too many arguments";
        if (!valid_type(w[1].c_str()))
            return "invalid character in type field";
        const char *name = (w.size() == 3 && !w[2].empty()) ? w[2].c_str() : nullptr;
        if (name) {
            if (!valid_name(name))
                return "invalid character in name field";
            if (uci_section *s = find_section(p, name)) {
                if (strcmp(s->type, w[1].c_str()) != 0)
                    return "section of different type overwrites prior section with same name";
                cur = s;
                return nullptr;
            }
        }
        cur = new_section(p, w[1].c_str(), name);
        return nullptr;
    }
    if (keyword_is(kw, "option") || keyword_is(kw, "list")) {
        if (!cur)
            return "option/list command found before the first section";
        if (w.size() < 2)
            return "insufficient arguments";
        if (w.size() > 3)
            return "too many arguments";
        if (!valid_name(w[1].c_str()))
            return "invalid character in name field";
        if (w.size() < 3)
            return nullptr;  // no value: ignored
        if (kw[0] == 'l')
            append_list_item(cur, find_option(cur, w[1].c_str()), w[1].c_str(), w[2].c_str());
        else
            parse_option(cur, w[1], w[2]);
        return nullptr;
    }
    return "invalid command";
}

static void print_parse_error(uci_context *ctx)
{
    int saved = ctx->err;
    ctx->err = UCI_ERR_PARSE;
    fprintf(stderr, "%s\n", error_text(ctx, nullptr).c_str());
    ctx->err = saved;
}

int parse_package_text(uci_context *ctx, uci_package *p, const std::string &text)
{
    Tokenizer tk(text);
    std::vector<std::string> words;
    uci_section *cur = nullptr;
    for (;;) {
        Tokenizer::Result r = tk.next(words);
        if (r == Tokenizer::Result::End)
            return UCI_OK;
        const char *reason = (r == Tokenizer::Result::Error) ? tk.reason()
                                                              : parse_command(p, words, cur);
        if (!reason)
            continue;
        set_parse_error(ctx, reason, tk.line(), tk.byte());
        if (ctx->flags & UCI_FLAG_STRICT)
            return UCI_ERR_PARSE;
        if (ctx->flags & UCI_FLAG_PERROR)
            print_parse_error(ctx);
        clear_parse_error(ctx);
        if (r == Tokenizer::Result::Error)
            return UCI_OK;  // the input ended inside a quote
    }
}

static void write_type(std::string &out, const char *type)
{
    // Types may hold characters that mean something to the parser.
    if (strpbrk(type, "'\"\\#;"))
        append_quoted(out, type);
    else
        out += type;
}

std::string export_text(uci_context *ctx, uci_package *p, bool header)
{
    std::string out;
    if (header) {
        out += "package ";
        out += p->e.name;
        out += '\n';
    }
    uci_element *se;
    uci_foreach_element(&p->sections, se) {
        uci_section *s = uci_to_section(se);
        out += "\nconfig ";
        write_type(out, s->type);
        if (!s->anonymous || (ctx->flags & UCI_FLAG_EXPORT_NAME)) {
            out += ' ';
            append_quoted(out, s->e.name);
        }
        out += '\n';
        uci_element *oe;
        uci_foreach_element(&s->options, oe) {
            uci_option *o = uci_to_option(oe);
            if (o->type == UCI_TYPE_STRING) {
                out += "\toption ";
                out += o->e.name;
                out += ' ';
                append_quoted(out, o->v.string);
                out += '\n';
                continue;
            }
            uci_element *ie;
            uci_foreach_element(&o->v.list, ie) {
                out += "\tlist ";
                out += o->e.name;
                out += ' ';
                append_quoted(out, ie->name);
                out += '\n';
            }
        }
    }
    out += '\n';
    return out;
}

int write_package_locked(uci_context *ctx, uci_package *p)
{
    std::string target = p->path;
    if (char *real = realpath(p->path, nullptr)) {
        target = real;
        free(real);
    }
    std::string tmpl = dir_of(target) + "/." + p->e.name + ".uci-XXXXXX";
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
    if (!fd)
        return UCI_ERR_IO;
    TempFile tmp(name.data());
    mode_t mode = file_mode_or(target.c_str(), UCI_FILEMODE);
    // As upstream's commit: the export's writes and the sync are not checked, so on a full
    // file system a cut-off file replaces the whole one and the commit succeeds.
    (void)write_fd(fd.get(), export_text(ctx, p, false));
    if (fchmod(fd.get(), mode) != 0)
        return UCI_ERR_IO;
    (void)fsync(fd.get());
    fd.reset();
    if (rename(name.data(), target.c_str()) != 0)
        return UCI_ERR_IO;
    tmp.keep();
    return UCI_OK;
}

}  // namespace uci_host
