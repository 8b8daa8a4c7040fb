// uac_mem.h - counting allocation wrappers and the guarded allocator.
#ifndef UAC_MEM_H
#define UAC_MEM_H

#include <stdint.h>

#include "uac_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

// ---- Counting wrappers. The count of live blocks changes only while counting is on
// (it is off at start and the daemon never turns it on).

void *uac_malloc(int32_t size) UAC_NOEXCEPT;                  // null when size < 1
void *uac_calloc(int32_t count, int32_t size) UAC_NOEXCEPT;   // null when size < 1 or count < 1; cleared
// null ptr and size < 1: null; size < 1: frees ptr, null; null ptr: uac_malloc(size);
// else realloc (the count is unchanged).
void *uac_realloc(void *ptr, int32_t size) UAC_NOEXCEPT;
void uac_free(void *ptr) UAC_NOEXCEPT;                        // null is fine

void uac_mem_count_enable(void) UAC_NOEXCEPT;
void uac_mem_count_disable(void) UAC_NOEXCEPT;
int32_t uac_mem_count_get(void) UAC_NOEXCEPT;
void uac_mem_count_reset(void) UAC_NOEXCEPT;

void uac_mem_stats_print(void) UAC_NOEXCEPT;   // the system allocator's mallinfo fields, one a line
void uac_mem_help_print(void) UAC_NOEXCEPT;    // what those fields mean

// ---- Guarded allocator. A block is one allocation of size + MEM_GUARD_OVERHEAD bytes:
//   0   size (u32)  4 line (i32)  8 func[128]  136 head marks  144 data  144+size tail marks
// mem_guard_free checks the marks, dumps a damaged block in hex, and frees it either way.

#define MEM_GUARD_FUNC_LEN 128u
#define MEM_GUARD_HEAD_LEN 144u
#define MEM_GUARD_TAIL_LEN 8u
#define MEM_GUARD_OVERHEAD (MEM_GUARD_HEAD_LEN + MEM_GUARD_TAIL_LEN)  // 152
#define MEM_GUARD_HEAD_MARK1 0xAA55AA66u  // at data - 8
#define MEM_GUARD_HEAD_MARK2 0xAA55AA55u  // at data - 4
#define MEM_GUARD_TAIL_MARK1 0x55AA55AAu  // at data + size
#define MEM_GUARD_TAIL_MARK2 0x66AA55AAu  // at data + size + 4

// The header in front of the data (marks in the machine's byte order).
typedef struct mem_guard_head {
    uint32_t size;
    int32_t line;
    char func[MEM_GUARD_FUNC_LEN];
    uint32_t head_mark1;
    uint32_t head_mark2;
} mem_guard_head;

// Returns the data pointer (not cleared), or null when memory is short.
void *mem_guard_alloc(uint32_t size, int32_t line, const char *func) UAC_NOEXCEPT;
void mem_guard_free(void *ptr) UAC_NOEXCEPT;   // null is ignored

// Records the caller's function and line in the block.
#define MEM_GUARD_ALLOC(size) mem_guard_alloc((uint32_t)(size), __LINE__, __func__)

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(mem_guard_head) == MEM_GUARD_HEAD_LEN, "guarded block header is 144 bytes");
static_assert(__builtin_offsetof(mem_guard_head, line) == 4, "line at 4");
static_assert(__builtin_offsetof(mem_guard_head, func) == 8, "function name at 8");
static_assert(__builtin_offsetof(mem_guard_head, head_mark1) == 136, "head marks at 136");
static_assert(__builtin_offsetof(mem_guard_head, head_mark2) == 140, "second head mark at 140");
#endif

#endif // UAC_MEM_H
