// nms_log.cpp - log switches, the common message writer and output redirection.
#include "nms_log.h"

#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

std::atomic<int> log_error_on{0};
std::atomic<int> log_trace_on{0};
std::atomic<int> log_debug_on{0};

void nms_log_print(const char *func, int line, const char *fmt, ...) noexcept
{
    va_list ap;
    va_start(ap, fmt);
    flockfile(stdout);
    printf("Function is:%s, Line is:%d.", func ? func : "", line);
    vprintf(fmt, ap);
    putchar('\n');
    fflush(stdout);
    funlockfile(stdout);
    va_end(ap);
}

void nms_log_alert(const char *func, int line, const char *fmt, ...) noexcept
{
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    nms_log_print(func, line, "%s", text);
    syslog(LOG_WARNING, "%s", text);
}

void set_debug_output(const char *path, int level) noexcept
{
    if (!path)
        return;

    // O_APPEND: when a regular file stands in for the console (the sandbox
    // binds one over /dev/console), a re-open must not write over what is
    // already there from offset 0. O_CLOEXEC only concerns this temporary
    // descriptor; the duplicates on 1 and 2 are inheritable as usual.
    // O_NOFOLLOW: a link put in place of a log file must not turn the daemon's output
    // into a write to whatever file the link names.
    int fd = open(path, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW);
    if (fd > 0) {
        // What is still buffered belongs to the old destination.
        fflush(stdout);
        fflush(stderr);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        setvbuf(stdout, nullptr, _IONBF, 0);
        setvbuf(stderr, nullptr, _IONBF, 0);
        // With 1 or 2 closed beforehand, open() may hand out that very number;
        // closing it then would take the new output away again.
        if (fd > STDERR_FILENO)
            close(fd);
    }

    log_error_on.store(0, std::memory_order_relaxed);
    log_trace_on.store(0, std::memory_order_relaxed);
    log_debug_on.store(0, std::memory_order_relaxed);
    if (level <= 0)
        log_error_on.store(1, std::memory_order_relaxed);
    else if (level == 1)
        log_trace_on.store(1, std::memory_order_relaxed);
    else if (level == 2)
        log_debug_on.store(1, std::memory_order_relaxed);
}
