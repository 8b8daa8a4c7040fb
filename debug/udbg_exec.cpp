// udbg_exec.cpp - the debug shell's executor: redirects output, calls functions with
// up to ten integer-sized arguments, and reads or sets variables of 1, 2, 4 or 8 bytes.
#include "udbg_exec.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "uac_tmpfile.h"
#include "udbg_log.h"
#include "udbg_symbols.h"
#include "udbg_parser.h"

namespace {

const char *const kConsole = "/dev/console";
const char *const kCaptureFile = "/tmp/udb.dup.stdouterr";

// Every function is called as one taking ten integer-sized arguments: the calling
// conventions of the targets pass them in registers or on the caller's stack, so a
// function that takes fewer simply ignores the rest.
using AnyFn = long (*)(long, long, long, long, long, long, long, long, long, long);

void syntax_error()
{
    puts("\n Syntax Error");
}

// The integer text as written (sign, 0x hex, leading 0 octal, else decimal) as a signed
// 64-bit value; magnitudes beyond 64 bits saturate.
long long to_integer(const char *text)
{
    bool neg = text[0] == '-';
    unsigned long long mag = strtoull(neg ? text + 1 : text, nullptr, 0);
    return static_cast<long long>(neg ? 0ULL - mag : mag);
}

#if defined(__clang__)
__attribute__((no_sanitize("function")))
#endif
long call_address(unsigned long addr, const long (&a)[UDBG_ARGC_MAX])
{
    auto fn = reinterpret_cast<AnyFn>(addr);
    return fn(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9]);
}

// "self" with a string naming a terminal or the capture file redirects the output.
bool is_self_redirect(const udbg_cmd &c)
{
    if (strcmp(c.name, "self") != 0 || c.argc != 1 || c.args[0].type != UDBG_ARG_STRING)
        return false;
    const char *t = c.args[0].text;
    return strstr(t, "/dev/") || strstr(t, kCaptureFile);
}

void self_redirect(const udbg_cmd &c)
{
    char path[UDBG_ARG_MAX + 1];
    snprintf(path, sizeof path, "%s", c.args[0].text);
    size_t n = strlen(path);
    if (n > 0 && path[n - 1] == '\n')
        path[n - 1] = '\0';
    const char *p = path;
    while (*p == ' ' || *p == '\t')
        p++;
    // Only the capture file may be created: a mistyped device name must not leave a
    // regular file under /dev.
    udbg_redirect_output(p, strstr(p, kCaptureFile) != nullptr);
}

void exec_call(const udbg_cmd &c)
{
    unsigned long addr = udbg_get_fun_addr(c.name);
    if (!addr) {
        printf("\n Function named %s() not found\n", c.name);
        return;
    }
    long a[UDBG_ARGC_MAX] = {};
    for (int i = 0; i < c.argc; i++) {
        if (c.args[i].type == UDBG_ARG_STRING)
            a[i] = reinterpret_cast<long>(c.args[i].text);
        else
            a[i] = static_cast<long>(to_integer(c.args[i].text));
    }
    long r = call_address(addr, a);
    printf("\n Execute %s() return %ld(0x%lx)\n", c.name, r, static_cast<unsigned long>(r));
}

bool builtin_size(int len)
{
    return len == 1 || len == 2 || len == 4 || len == 8;
}

void exec_assign(const udbg_cmd &c)
{
    if (c.args[0].type == UDBG_ARG_STRING) {
        syntax_error();
        return;
    }
    int len = 0;
    unsigned long addr = udbg_get_var_addr(c.name, &len);
    if (!addr) {
        printf("\n Variable named [%s] not found\n", c.name);
        return;
    }
    if (!builtin_size(len)) {
        printf("\n Variable %s(len=%d) is not a built-in type\n", c.name, len);
        return;
    }
    long long v = to_integer(c.args[0].text);
    void *p = reinterpret_cast<void *>(addr);
    // Stored in the variable's own width, unsynchronised with its users by design
    // (the daemon's shared switches are plain words that tolerate it).
    switch (len) {
    case 1: { uint8_t x = static_cast<uint8_t>(v); memcpy(p, &x, 1); break; }
    case 2: { uint16_t x = static_cast<uint16_t>(v); memcpy(p, &x, 2); break; }
    case 4: { uint32_t x = static_cast<uint32_t>(v); memcpy(p, &x, 4); break; }
    default: memcpy(p, &v, 8); break;
    }
    printf("\n Set variable %s = %lld (0x%llx)\n", c.name, v, static_cast<unsigned long long>(v));
}

void exec_bare(const udbg_cmd &c)
{
    int len = 0;
    unsigned long var = udbg_get_var_addr(c.name, &len);
    if (var) {
        if (!builtin_size(len)) {
            printf("\n Variable %s(len=%d) is not a built-in type\n", c.name, len);
            return;
        }
        const void *p = reinterpret_cast<const void *>(var);
        long long v;
        switch (len) {
        case 1: { uint8_t x; memcpy(&x, p, 1); v = x; break; }
        case 2: { int16_t x; memcpy(&x, p, 2); v = x; break; }
        case 4: { int32_t x; memcpy(&x, p, 4); v = x; break; }
        default: memcpy(&v, p, 8); break;
        }
        printf("\n Variable [%s] : addr = %p, value = %lld(0x%llx)\n", c.name, p, v,
               static_cast<unsigned long long>(v));
        return;
    }
    unsigned long fn = udbg_get_fun_addr(c.name);
    if (!fn) {
        printf("\n Variable or function named [%s] not found\n", c.name);
        return;
    }
    long a[UDBG_ARGC_MAX] = {};
    long long r = call_address(fn, a);
    printf("\n Execute %s() return %lld(0x%llx)\n", c.name, r, static_cast<unsigned long long>(r));
}

}  // namespace

int udbg_redirect_output(const char *path, bool create) noexcept
{
    // Appending: where the console is a plain file (a test bench, a log), re-opening it
    // must not write over what is already there.
    int fd;
    if (create) {
        // The capture file lives in /tmp, where anybody may have put a link or a file of
        // their own under its name first: only a file of the daemon's own is written to.
        int replaced = 0;
        fd = uac_tmp_open_append(path, 1, &replaced);
        if (fd < 0) {
            UDBG_ERR("Capture file %s cannot be made afresh (%s), output left as it is.\n", path,
                     strerror(errno));
            return -1;
        }
        if (replaced)
            UDBG_ERR("Capture file %s was not the daemon's own (a link, or a file others may "
                     "write), made anew.\n", path);
    } else {
        fd = open(path, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0)
            return -1;
    }
    fflush(stdout);
    fflush(stderr);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    // With 1 or 2 closed beforehand, open() may hand out that very number;
    // closing it then would take the new output away again.
    if (fd > STDERR_FILENO)
        close(fd);
    setvbuf(stdout, nullptr, _IONBF, 0);
    setvbuf(stderr, nullptr, _IONBF, 0);
    return 0;
}

int udbg_cmd_exec(const char *line) noexcept
{
    udbg_cmd c;
    int rc = 0;
    if (udbg_cmd_parse(line, &c) != 0) {
        syntax_error();
        rc = -1;
    } else if (c.is_call && is_self_redirect(c)) {
        self_redirect(c);
    } else if (c.is_call && strcmp(c.name, "reset") == 0 && c.argc == 0) {
        udbg_redirect_output(kConsole, false);
    } else if (c.is_call) {
        exec_call(c);
    } else if (c.argc == 1) {
        exec_assign(c);
    } else {
        exec_bare(c);
    }
    fflush(stdout);
    return rc;
}
