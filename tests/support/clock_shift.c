/* clock_shift.c - LD_PRELOAD shim that moves the time of day a process reads, and nothing
 * else: gettimeofday, time and clock_gettime on the realtime clocks return the kernel's time
 * plus an offset in seconds (signed decimal) read from the file NMS_CLOCK_SHIFT_FILE names
 * (default /tmp/clock_shift; missing or unreadable: 0). The monotonic clocks and the
 * kernel's own clock, against which the POSIX timed waits measure, stay as they are, so a
 * process that makes a deadline from what it reads sees what a stepped clock does to it.
 *
 * The file is read again at most every 20 ms of monotonic time, so a test steps the clock
 * by writing it. Built with the tree's flags: on 32-bit targets with 64-bit time the
 * functions defined here are the time64 ones the programs call. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#if defined(__GLIBC__) && defined(__USE_TIME_BITS64) && __TIMESIZE == 32
#define NAME_CLOCK "__clock_gettime64"
#elif !defined(__GLIBC__) && defined(_REDIR_TIME64) && _REDIR_TIME64
#define NAME_CLOCK "__clock_gettime64"
#else
#define NAME_CLOCK "clock_gettime"
#endif

typedef int (*clock_fn)(clockid_t, struct timespec *);

static clock_fn real_clock(void)
{
    static clock_fn fn;
    if (!fn)
        fn = (clock_fn)dlsym(RTLD_NEXT, NAME_CLOCK);
    return fn;
}

/* The offset in seconds, from the file, cached for 20 ms. */
static int64_t offset_sec(void)
{
    static int64_t cached;
    static int64_t read_at_ms = -1000;
    struct timespec now;
    if (!real_clock() || real_clock()(CLOCK_MONOTONIC, &now) != 0)
        return cached;
    int64_t now_ms = (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
    if (now_ms - read_at_ms < 20)
        return cached;
    read_at_ms = now_ms;
    const char *path = getenv("NMS_CLOCK_SHIFT_FILE");
    int fd = open(path ? path : "/tmp/clock_shift", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        cached = 0;
        return 0;
    }
    char buf[32];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    buf[n > 0 ? n : 0] = '\0';
    cached = strtoll(buf, NULL, 10);
    return cached;
}

static int shifted(clockid_t id)
{
    return id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE;
}

int clock_gettime(clockid_t id, struct timespec *ts)
{
    if (!real_clock())
        return -1;
    int rc = real_clock()(id, ts);
    if (rc == 0 && shifted(id))
        ts->tv_sec += offset_sec();
    return rc;
}

/* From the real clock_gettime rather than the C library's gettimeofday: musl's calls
 * clock_gettime through its public name, which would be shifted a second time here. */
int gettimeofday(struct timeval *tv, void *tz)
{
    (void)tz;
    struct timespec ts;
    if (!real_clock() || real_clock()(CLOCK_REALTIME, &ts) != 0)
        return -1;
    if (tv) {
        tv->tv_sec = ts.tv_sec + offset_sec();
        tv->tv_usec = ts.tv_nsec / 1000;
    }
    return 0;
}

time_t time(time_t *out)
{
    struct timespec ts;
    if (clock_gettime(CLOCK_REALTIME, &ts) != 0)
        return (time_t)-1;
    if (out)
        *out = ts.tv_sec;
    return ts.tv_sec;
}
