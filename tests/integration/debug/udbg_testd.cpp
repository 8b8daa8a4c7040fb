// udbg_testd.cpp - a small process with the command socket and the debug shell, for
// the sandbox tests. Installed by the tests themselves as /usr/bin/udbg_testd (the
// shell finds its program and symbol lists there).
//
//   udbg_testd serve      serve both sockets until killed
//   udbg_testd segv       crash with a segmentation fault on thread "crash_thread"
//   udbg_testd sigbus     take a bus error on thread "crash_thread"
//   udbg_testd deadlock   two threads deadlock on named mutexes, then serve
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include <json-c/json.h>

#include "jcs.h"
#include "uac_lock.h"
#include "uac_thread.h"
#include "udbg.h"

// Reached by name through the debug shell.
extern "C" {
long itest_mul(long a, long b);
long itest_concat_len(const char *a, const char *b);
extern int32_t itest_counter;

__attribute__((used, noinline)) long itest_mul(long a, long b) { return a * b; }
__attribute__((used, noinline)) long itest_concat_len(const char *a, const char *b)
{
    return static_cast<long>(strlen(a) + strlen(b));
}
__attribute__((used)) int32_t itest_counter = 41;
}

namespace {

// Service "itest", op 1: echoes the request's data back.
int echo_cb(json_object *data, json_object *reply)
{
    json_object_object_add(reply, "echo", json_object_get(data));
    return 0;
}

void *crash_thread(void *arg)
{
    if (arg) {
        pthread_kill(pthread_self(), SIGBUS);
    } else {
        // A real fault on a page nobody may touch (a null store would be caught by
        // the undefined-behaviour sanitizer before it faults).
        void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile int *>(page) = 1;
    }
    return nullptr;
}

uac_mutex_t *gItestMutexA;
uac_mutex_t *gItestMutexB;
std::atomic<int> g_holding{0};

void *take_both(uac_mutex_t *first, uac_mutex_t *second)
{
    uac_mutex_take(first, UAC_WAIT_FOREVER);
    g_holding.fetch_add(1);
    while (g_holding.load() < 2)
        usleep(1000);
    uac_mutex_take(second, UAC_WAIT_FOREVER);
    return nullptr;
}
void *locker_a(void *) { return take_both(gItestMutexA, gItestMutexB); }
void *locker_b(void *) { return take_both(gItestMutexB, gItestMutexA); }

int start(bool serve)
{
    if (jcs_init() != 0 || udbg_init() != 0) {
        fprintf(stderr, "udbg_testd: start-up failed\n");
        return 1;
    }
    jcs_callback_register("example", JCS_OP_ADD, jcs_test_callback_add);
    jcs_callback_register("example", JCS_OP_DEL, jcs_test_callback_del);
    jcs_callback_register("example", JCS_OP_GET, jcs_test_callback_get);
    jcs_callback_register("itest", JCS_OP_DEL, echo_cb);
    if (serve)
        jcs_run();
    printf("udbg_testd ready\n");
    fflush(stdout);
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *mode = argc > 1 ? argv[1] : "serve";
    uac_lock_module_init();
    uac_thread_module_init();
    pthread_t tid;

    if (strcmp(mode, "segv") == 0 || strcmp(mode, "sigbus") == 0) {
        if (start(false) != 0)
            return 1;
        void *bus = strcmp(mode, "sigbus") == 0 ? reinterpret_cast<void *>(1) : nullptr;
        uac_thread_create(&tid, "crash_thread", crash_thread, bus);
        sleep(30);   // the handler ends the process long before
        return 3;
    }
    if (strcmp(mode, "deadlock") == 0) {
        // Stuck before the watch starts, so its first round already sees the waits.
        gItestMutexA = uac_mutex_create("gItestMutexA", UAC_MUTEX_NORMAL);
        gItestMutexB = uac_mutex_create("gItestMutexB", UAC_MUTEX_NORMAL);
        uac_thread_create(&tid, "itest_locker_a", locker_a, nullptr);
        uac_thread_create(&tid, "itest_locker_b", locker_b, nullptr);
        while (g_holding.load() < 2)
            usleep(1000);
        usleep(100000);
    } else if (strcmp(mode, "serve") != 0) {
        fprintf(stderr, "usage: udbg_testd serve|segv|sigbus|deadlock\n");
        return 2;
    }
    if (start(true) != 0)
        return 1;
    for (;;)
        pause();
}
