// uci_file.h - the text side of the configuration library: descriptors and
// flock locks, the word rules of package and delta files, the package file
// parser and writer.
#pragma once

#include "uci_store.h"

#include <string>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

namespace uci_host {

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    UniqueFd(UniqueFd &&o) noexcept : fd_(o.release()) {}
    UniqueFd &operator=(UniqueFd &&o) noexcept
    {
        reset(o.release());
        return *this;
    }
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0)
            close(fd_);  // closing drops any flock held through it
        fd_ = fd;
    }

private:
    int fd_;
};

bool lock_fd(int fd, int op);            // flock, retried on EINTR
std::string dir_of(const std::string &path);
// Locks a directory as a whole. Returns an empty holder when the directory
// cannot be opened; the file operation that follows then reports the error.
UniqueFd lock_dir(const std::string &dir, int op);
bool read_fd(int fd, std::string &out);  // the whole file, from its start
bool write_fd(int fd, const std::string &data);
// UCI_ERR_NOTFOUND when missing or not a regular file.
int read_package_file(const std::string &path, std::string &out);
// Under a shared lock; a missing file reads as empty.
bool read_delta_file(const std::string &path, std::string &out);
mode_t file_mode_or(const char *path, mode_t fallback);

// ---------------------------------------------------------------------------
// Tokens: the word rules shared by package files and delta files.
//   - blanks separate words; a newline, an unquoted ';' or '#' ends a command
//     ('#' starts a comment to the end of the line);
//   - '...' is literal and may span lines;
//   - "..." may span lines; backslash + character gives the character;
//   - outside single quotes a backslash before the end of a line joins lines;
//   - quoted and unquoted pieces run together into one word.

class Tokenizer {
public:
    enum class Result { Command, End, Error };

    explicit Tokenizer(const std::string &text) : text_(text) {}

    // Reads the words of the next non-empty command.
    Result next(std::vector<std::string> &words)
    {
        words.clear();
        for (;;) {
            while (pos_ < text_.size() && is_blank(text_[pos_]))
                ++pos_;
            if (pos_ >= text_.size())
                return words.empty() ? Result::End : Result::Command;
            char c = text_[pos_];
            if (c == '\n') {
                if (!words.empty())
                    return Result::Command;  // the newline is consumed next time
                newline_at(pos_++);
            } else if (c == '#') {
                while (pos_ < text_.size() && text_[pos_] != '\n')
                    ++pos_;
            } else if (c == ';') {
                ++pos_;
                if (!words.empty())
                    return Result::Command;
            } else {
                std::string w;
                if (!read_word(w))
                    return Result::Error;
                words.push_back(std::move(w));
            }
        }
    }

    const char *reason() const { return reason_; }
    int line() const { return line_; }
    int byte() const { return static_cast<int>(pos_ - line_start_); }

private:
    void mark_quote()
    {
        quote_line_ = line_;
        quote_start_ = line_start_;
        quote_pos_ = pos_;
    }

    // An open quote is reported where it was opened, not at the end of input.
    bool unterminated(const char *reason)
    {
        reason_ = reason;
        line_ = quote_line_;
        line_start_ = quote_start_;
        pos_ = quote_pos_;
        return false;
    }

    static bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

    void newline_at(size_t pos)
    {
        ++line_;
        line_start_ = pos + 1;
    }

    // Backslash outside single quotes: before a line end it joins the lines,
    // otherwise the next character is taken as it is.
    void backslash(std::string &w)
    {
        ++pos_;
        if (pos_ >= text_.size())
            return;
        if (text_[pos_] == '\r' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '\n')
            ++pos_;
        if (text_[pos_] == '\n') {
            newline_at(pos_++);
            return;
        }
        w += text_[pos_++];
    }

    bool read_word(std::string &w)
    {
        while (pos_ < text_.size()) {
            char c = text_[pos_];
            if (is_blank(c) || c == '\n' || c == '#' || c == ';')
                return true;
            if (c == '\'') {
                mark_quote();
                ++pos_;
                for (;;) {
                    if (pos_ >= text_.size())
                        return unterminated("EOF with unterminated '");
                    c = text_[pos_];
                    if (c == '\'')
                        break;
                    if (c == '\n')
                        newline_at(pos_);
                    w += c;
                    ++pos_;
                }
                ++pos_;
            } else if (c == '"') {
                mark_quote();
                ++pos_;
                for (;;) {
                    if (pos_ >= text_.size())
                        return unterminated("EOF with unterminated \"");
                    c = text_[pos_];
                    if (c == '"')
                        break;
                    if (c == '\\') {
                        backslash(w);
                        continue;
                    }
                    if (c == '\n')
                        newline_at(pos_);
                    w += c;
                    ++pos_;
                }
                ++pos_;
            } else if (c == '\\') {
                backslash(w);
            } else {
                w += c;
                ++pos_;
            }
        }
        return true;
    }

    const std::string &text_;
    size_t pos_ = 0;
    int line_ = 1;
    size_t line_start_ = 0;
    const char *reason_ = nullptr;
    int quote_line_ = 1;
    size_t quote_start_ = 0, quote_pos_ = 0;
};

// Single-quoted, with an embedded ' written as '\'' so it reads back as is.
void append_quoted(std::string &out, const char *value);

// Strict (UCI_FLAG_STRICT): the first error fails the parse with
// UCI_ERR_PARSE and its position in ctx->pctx. Otherwise a bad command is
// skipped (and printed with UCI_FLAG_PERROR).
int parse_package_text(uci_context *ctx, uci_package *p, const std::string &text);

// The package in writer format; `header` adds the "package <name>" line.
std::string export_text(uci_context *ctx, uci_package *p, bool header);
// Writes p to its file through a temporary file in the same directory and a
// rename, so readers see the old or the new file, never a part of one.
// The caller holds the directory lock.
int write_package_locked(uci_context *ctx, uci_package *p);

}  // namespace uci_host
