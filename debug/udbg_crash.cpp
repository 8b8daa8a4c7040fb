// udbg_crash.cpp - crash and backtrace reports from signal handlers, and the deadlock
// watch that spots threads stuck on a named mutex.
#include "udbg_crash.h"

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include "uac_lock.h"
#include "uac_mem.h"
#include "uac_thread.h"
#include "uac_tmpfile.h"
#include "udbg_log.h"
#include "udbg_exec.h"
#include "udbg_symbols.h"

namespace {

constexpr int kFramesMax = 32;
constexpr int kSuspectsMax = 128;
constexpr unsigned kWatchPeriodSec = 10;

const char *const kBusBanner = "\n====================Bus Error======================";
const char *const kSegvBanner = "\n====================Segment Fault======================";

// Serialises the backtrace output of threads signalled at the same time.
uac_mutex_t *gUdbgMutex;

// Reports are written straight to the descriptor: a crashed thread may have died
// holding the stdio lock, and printf would then never return.
__attribute__((format(printf, 1, 2))) void say(const char *fmt, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n <= 0)
        return;
    size_t len = static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1;
    const char *p = buf;
    while (len > 0) {
        ssize_t w = write(STDOUT_FILENO, p, len);
        if (w <= 0)
            return;
        p += w;
        len -= static_cast<size_t>(w);
    }
}

void thread_line()
{
    char name[17] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    say("Thread name: [%s], tid: [%p], real pid: [%d]\n", name,
        reinterpret_cast<void *>(pthread_self()), static_cast<int>(syscall(SYS_gettid)));
}

// Opens the trace file (created when missing) as standard output and error. The
// file is made with open() rather than by running "touch": a crashed process should
// not fork a shell. Appending keeps the reports of earlier signals. The file is in /tmp:
// a link or another user's file under its name is removed and the file made anew, so a
// crash never writes through somebody else's link.
bool output_to_trace_file()
{
    const char *path = udbg_get_paths().trace_file;
    if (!path[0])
        return false;
    int fd = uac_tmp_open_append(path, 1, nullptr);
    if (fd < 0)
        return false;
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    if (fd > STDERR_FILENO)   // a closed 1 or 2 may be handed out again: keep it
        close(fd);
    return true;
}

void crash_report(const char *banner)
{
    say("%s\n", banner);
    thread_line();
    say("PC: 0x%lx\n", 0UL);   // the signal context's PC is not read, on purpose
    udbg_backtrace_print();
}

void crash_handler(int sig, siginfo_t *, void *)
{
    const char *banner = sig == SIGBUS ? kBusBanner : kSegvBanner;
    crash_report(banner);
    if (udbg_trace_on.load(std::memory_order_relaxed) && output_to_trace_file())
        crash_report(banner);
    exit(0);
}

void backtrace_report()
{
    char stars[71];
    memset(stars, '*', 69);
    stars[69] = '\0';
    say("\n%s\n", stars);
    thread_line();
    udbg_backtrace_print();
}

void usr1_handler(int, siginfo_t *, void *)
{
    uac::MutexHold hold(gUdbgMutex);
    backtrace_report();
    if (udbg_trace_on.load(std::memory_order_relaxed) && output_to_trace_file()) {
        backtrace_report();
        udbg_redirect_output("/dev/console", false);
    }
}

void pipe_handler(int, siginfo_t *, void *) {}

void install(int sig, void (*fn)(int, siginfo_t *, void *))
{
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = fn;
    sa.sa_flags = SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
}

// The stack walk: the unwinder of the C++ runtime (libgcc's, or LLVM's libunwind where the
// runtime is libc++), which every libc has. execinfo's backtrace() is glibc's alone, and
// musl, the device's libc, has none.
struct Walk {
    void **frames;
    int max;
    int skip;   // the walk's own frame, as backtrace() leaves out its own
    int n;
};

_Unwind_Reason_Code walk_frame(struct _Unwind_Context *ctx, void *arg)
{
    Walk *w = static_cast<Walk *>(arg);
    uintptr_t pc = static_cast<uintptr_t>(_Unwind_GetIP(ctx));
    if (pc == 0)
        return _URC_END_OF_STACK;
    if (w->skip > 0) {
        w->skip--;
        return _URC_NO_REASON;
    }
    if (w->n >= w->max)
        return _URC_END_OF_STACK;
    w->frames[w->n++] = reinterpret_cast<void *>(pc);
    return _URC_NO_REASON;
}

__attribute__((noinline)) int walk_stack(void **frames, int max)
{
    Walk w{frames, max, 1, 0};
    _Unwind_Backtrace(walk_frame, &w);
    return w.n;
}

// One frame as glibc's backtrace_symbols writes it, "file(symbol+0xoff) [0xaddr]",
// "file(+0xoff) [0xaddr]" from the module's base when the symbol is not exported, or
// "[0xaddr]" when no module holds the address; the device's trace readers take that form.
// Written into buf without allocating: this runs in signal handlers.
void frame_text(void *pc, char *buf, size_t len)
{
    Dl_info info;
    memset(&info, 0, sizeof info);
    if (!dladdr(pc, &info) || !info.dli_fname || !info.dli_fname[0]) {
        snprintf(buf, len, "[%p]", pc);
        return;
    }
    const char *sym = info.dli_sname ? info.dli_sname : "";
    uintptr_t base = reinterpret_cast<uintptr_t>(info.dli_sname ? info.dli_saddr : info.dli_fbase);
    uintptr_t addr = reinterpret_cast<uintptr_t>(pc);
    if (!info.dli_sname && base == 0) {
        snprintf(buf, len, "%s() [%p]", info.dli_fname, pc);
        return;
    }
    char sign = addr >= base ? '+' : '-';
    unsigned long off = static_cast<unsigned long>(addr >= base ? addr - base : base - addr);
    snprintf(buf, len, "%s(%s%c%#lx) [%p]", info.dli_fname, sym, sign, off, pc);
}

// State of the watch; only the watch thread touches it.
std::array<pthread_t, kSuspectsMax> g_suspects;
int g_suspect_count;
bool g_reported;

void add_suspect(pthread_t t)
{
    if (t == 0)
        return;
    for (int i = 0; i < g_suspect_count; i++)
        if (pthread_equal(g_suspects[i], t))
            return;
    if (g_suspect_count < kSuspectsMax)
        g_suspects[g_suspect_count++] = t;
}

// Called for each registered thread under the thread registry's lock.
void check_thread(uac_thread_t *t)
{
    uac_mutex *ck = t->ck.load(std::memory_order_relaxed);
    uint64_t cnt = t->ck_cnt.load(std::memory_order_relaxed);
    if (t->pre_ck && t->pre_ck == ck) {
        if (t->pre_ck_cnt != cnt)
            return;   // waited and got it since, and now waits again: not stuck
        uac_mutex_t snap;
        if (uac_mutex_snapshot(ck, &snap) != 0)
            return;
        pthread_t owner = snap.owner.load(std::memory_order_relaxed);
        add_suspect(t->tid);
        add_suspect(owner);
        if (!g_reported) {
            puts("\n===================Warning: Possible Deadlock Detected==================");
            g_reported = true;
        }
        printf("Thread \"%s\" pend due to take Mutex [\"%s\", owner=%p]\n", t->name,
               snap.name ? snap.name : "", reinterpret_cast<void *>(owner));
        uac_free(snap.name);
        return;
    }
    t->pre_ck = ck;
    t->pre_ck_cnt = cnt;
}

}  // namespace

int udbg_crash_init() noexcept
{
    if (!gUdbgMutex)
        gUdbgMutex = uac_mutex_create("gUdbgMutex", UAC_MUTEX_RECURSIVE);
    // The first walk may set up the unwinder's caches; do that now, not inside a handler.
    void *frame[1];
    walk_stack(frame, 1);
    return gUdbgMutex ? 0 : -1;
}

void udbg_signals_install() noexcept
{
    install(SIGPIPE, pipe_handler);
    install(SIGSEGV, crash_handler);
    install(SIGBUS, crash_handler);
    install(SIGUSR1, usr1_handler);
}

void udbg_backtrace_print() noexcept
{
    void *frames[kFramesMax];
    int n = walk_stack(frames, kFramesMax);
    if (n <= 0) {
        say("The backtrace is not available, stack error(may overflow) possibly occured\n");
        return;
    }
    say("Obtained %lu stack frames:\n", static_cast<unsigned long>(n));
    for (int i = 0; i < n; i++) {
        char s[512];
        frame_text(frames[i], s, sizeof s);
        // The first "()" (an unnamed frame) is written "--", the form that the
        // device's trace readers expect.
        if (char *pair = strstr(s, "()")) {
            pair[0] = '-';
            pair[1] = '-';
        }
        say("  %s\n", s);
    }
}

int udbg_deadlock_round() noexcept
{
    g_suspect_count = 0;
    g_reported = false;
    uac_thread_foreach(check_thread);
    if (g_suspect_count > 0) {
        puts("\n======>>The threads stack frame as follow:");
        fflush(stdout);
        for (int i = 0; i < g_suspect_count; i++)
            pthread_kill(g_suspects[i], SIGUSR1);
    }
    fflush(stdout);
    return g_suspect_count;
}

void *udbg_deadlock_chk(void *) noexcept
{
    for (;;) {
        udbg_deadlock_round();
        sleep(kWatchPeriodSec);
    }
    return nullptr;
}

int udbg_deadlock_watch_start() noexcept
{
    pthread_t tid;
    return uac_thread_create(&tid, "udbg_deadlock_chk", udbg_deadlock_chk, nullptr) == 0 ? 0 : -1;
}
