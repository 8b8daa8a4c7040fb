// uac_mem.cpp - counting allocation wrappers and the guarded allocator with its damage dump.
#include "uac_mem.h"

#include <malloc.h>
#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Counting is off at start; the switch is read without the count's mutex on purpose
// (a block allocated while it flips may be counted on one side only).
std::atomic<int32_t> g_count_on{0};
// Live blocks while counting is on. Guarded by g_count_lock.
int32_t g_count = 0;
pthread_mutex_t g_count_lock = PTHREAD_MUTEX_INITIALIZER;

void count_add(int32_t delta) {
    pthread_mutex_lock(&g_count_lock);
    g_count += delta;
    pthread_mutex_unlock(&g_count_lock);
}

// The largest function name the header keeps (the 128th byte is the terminator).
constexpr size_t kFuncMax = MEM_GUARD_FUNC_LEN - 1;
// A block up to this size is dumped whole; a larger one as its first and last 2048 bytes.
constexpr uint32_t kDumpWholeMax = 1896;
constexpr size_t kDumpRun = 2048;

uint32_t read_word(const unsigned char *p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

void write_word(unsigned char *p, uint32_t v) { memcpy(p, &v, sizeof v); }

void dump_bytes(const unsigned char *p, size_t from, size_t to_excl) {
    for (size_t i = from; i < to_excl; ++i)
        printf("%02x ", p[i]);
}

// Prints the damage report of a guarded block: where it was allocated, the banner,
// and the block in hex (whole, or its first and last 2048 bytes when large). `total`
// is how many bytes of the block really exist. Kept out of line: the free path of an
// intact block then needs no stack frame worth mentioning.
__attribute__((noinline, cold)) void report_damage(const unsigned char *block, uint32_t size, size_t total) {
    int32_t line;
    memcpy(&line, block + offsetof(mem_guard_head, line), sizeof line);
    // The recorded name may have lost its terminator: copy at most 127 characters.
    char func[MEM_GUARD_FUNC_LEN];
    const char *rec = reinterpret_cast<const char *>(block + offsetof(mem_guard_head, func));
    size_t n = strnlen(rec, kFuncMax);
    memcpy(func, rec, n);
    func[n] = '\0';
    const void *data = block + MEM_GUARD_HEAD_LEN;

    printf("func:%s line:%d \r\n", func, line);
    printf("\033[31;49m[222Crrupte: ptr %p, size %d:\n\033[0m", data, static_cast<int>(size));
    if (size <= kDumpWholeMax) {
        dump_bytes(block, 0, total);
    } else {
        // The first and the last 2048 bytes of the block (the runs may overlap).
        dump_bytes(block, 0, kDumpRun < total ? kDumpRun : total);
        const size_t from = static_cast<size_t>(size) - kDumpWholeMax;
        dump_bytes(block, from < total ? from : total, total);
    }
    printf("\n");
    fflush(stdout);
}

}  // namespace

extern "C" {

void *uac_malloc(int32_t size) noexcept {
    if (size < 1)
        return nullptr;
    void *p = malloc(static_cast<size_t>(size));
    if (p && g_count_on.load(std::memory_order_relaxed))
        count_add(1);
    return p;
}

void *uac_calloc(int32_t count, int32_t size) noexcept {
    if (size < 1 || count < 1)
        return nullptr;
    void *p = calloc(static_cast<size_t>(count), static_cast<size_t>(size));
    if (!p)
        return nullptr;
    // Cleared again although calloc already did: the block is handed out zeroed even
    // where calloc is replaced by an allocator that does not clear.
    memset(p, 0, static_cast<size_t>(count) * static_cast<size_t>(size));
    if (g_count_on.load(std::memory_order_relaxed))
        count_add(1);
    return p;
}

void *uac_realloc(void *ptr, int32_t size) noexcept {
    if (size < 1) {
        if (ptr)
            uac_free(ptr);
        return nullptr;
    }
    if (!ptr)
        return uac_malloc(size);
    return realloc(ptr, static_cast<size_t>(size));
}

void uac_free(void *ptr) noexcept {
    if (ptr && g_count_on.load(std::memory_order_relaxed))
        count_add(-1);
    free(ptr);
}

void uac_mem_count_enable(void) noexcept { g_count_on.store(1, std::memory_order_relaxed); }

void uac_mem_count_disable(void) noexcept { g_count_on.store(0, std::memory_order_relaxed); }

int32_t uac_mem_count_get(void) noexcept {
    pthread_mutex_lock(&g_count_lock);
    int32_t n = g_count;
    pthread_mutex_unlock(&g_count_lock);
    return n;
}

void uac_mem_count_reset(void) noexcept {
    pthread_mutex_lock(&g_count_lock);
    g_count = 0;
    pthread_mutex_unlock(&g_count_lock);
}

void uac_mem_stats_print(void) noexcept {
    int f[10] = {0};
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
    struct mallinfo2 mi = mallinfo2();  // mallinfo's int fields are deprecated here
    const size_t v[10] = {mi.arena,   mi.ordblks, mi.smblks,   mi.hblks,    mi.hblkhd,
                          mi.usmblks, mi.fsmblks, mi.uordblks, mi.fordblks, mi.keepcost};
    for (int i = 0; i < 10; ++i)
        f[i] = static_cast<int>(v[i]);
#elif defined(__GLIBC__)
    struct mallinfo mi = mallinfo();
    const int v[10] = {mi.arena,   mi.ordblks, mi.smblks,   mi.hblks,    mi.hblkhd,
                       mi.usmblks, mi.fsmblks, mi.uordblks, mi.fordblks, mi.keepcost};
    for (int i = 0; i < 10; ++i)
        f[i] = v[i];
#endif
    // Without glibc's statistics (e.g. musl) every field reads 0.
    printf("arena = %d\n", f[0]);
    printf("ordblks = %d\n", f[1]);
    printf("smblks = %d\n", f[2]);
    printf("hblks = %d\n", f[3]);
    printf("hblkhd = %d\n", f[4]);
    printf("usmblks = %d\n", f[5]);
    printf("fsmblks = %d\n", f[6]);
    printf("uordblks = %d\n", f[7]);
    printf("fordblks = %d\n", f[8]);
    printf("keepcost = %d\n", f[9]);
    fflush(stdout);
}

void uac_mem_help_print(void) noexcept {
    printf("The system allocator's statistics (uac_mem_stats_print), in bytes unless said:\n"
           "  arena    - memory taken from the system with sbrk for the main heap\n"
           "  ordblks  - number of free ordinary (non-fastbin) chunks\n"
           "  smblks   - number of free fastbin chunks\n"
           "  hblks    - number of chunks currently allocated with mmap\n"
           "  hblkhd   - memory in chunks allocated with mmap\n"
           "  usmblks  - unused (always 0)\n"
           "  fsmblks  - memory in free fastbin chunks\n"
           "  uordblks - memory in use by allocated chunks\n"
           "  fordblks - memory in free chunks\n"
           "  keepcost - releasable free memory at the top of the heap\n");
    fflush(stdout);
}

void *mem_guard_alloc(uint32_t size, int32_t line, const char *func) noexcept {
    unsigned char *block = static_cast<unsigned char *>(
        malloc(static_cast<size_t>(size) + MEM_GUARD_OVERHEAD));
    if (!block)
        return nullptr;
    write_word(block, size);
    memcpy(block + offsetof(mem_guard_head, line), &line, sizeof line);
    // Only the name's own bytes and its terminator are written.
    char *name = reinterpret_cast<char *>(block + offsetof(mem_guard_head, func));
    const size_t n = func ? strnlen(func, kFuncMax) : 0;
    if (n)
        memcpy(name, func, n);
    name[n] = '\0';
    unsigned char *data = block + MEM_GUARD_HEAD_LEN;
    write_word(data - 8, MEM_GUARD_HEAD_MARK1);
    write_word(data - 4, MEM_GUARD_HEAD_MARK2);
    write_word(data + size, MEM_GUARD_TAIL_MARK1);
    write_word(data + size + 4, MEM_GUARD_TAIL_MARK2);
    return data;
}

void mem_guard_free(void *ptr) noexcept {
    if (!ptr)
        return;
    unsigned char *data = static_cast<unsigned char *>(ptr);
    unsigned char *block = data - MEM_GUARD_HEAD_LEN;
    const uint32_t size = read_word(block);

    // Intact head marks vouch for the header, and so for the recorded size. Once they
    // are damaged the size may be too: the block is reported, and its real extent
    // bounds the dump, so that it never reads past the allocation.
    const bool head_ok = read_word(data - 8) == MEM_GUARD_HEAD_MARK1 &&
                         read_word(data - 4) == MEM_GUARD_HEAD_MARK2;
    size_t total = static_cast<size_t>(size) + MEM_GUARD_OVERHEAD;
    bool intact;
    if (head_ok) {
        intact = read_word(data + size) == MEM_GUARD_TAIL_MARK1 &&
                 read_word(data + size + 4) == MEM_GUARD_TAIL_MARK2;
    } else {
        const size_t real = malloc_usable_size(block);
        if (total > real)
            total = real;
        intact = false;
    }
    if (!intact)
        report_damage(block, size, total);
    memset(block, 0, total);
    free(block);
}

}  // extern "C"
