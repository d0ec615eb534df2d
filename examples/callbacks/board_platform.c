/*
 * Shows: the library where there is neither heap nor file system. The pool is first-fit over a list of free blocks in
 * the order of their addresses, cut from the front and joined with their neighbours when they come back: small, without
 * randomness, and the same input needs the same memory every time.
 */
#include "board_platform.h"

#include "libc_platform.h"

/* A block is a number of units; the first one is its header. */
typedef union unit {
    struct {
        union unit* next; /* in the free list */
        size_t units;     /* with the header */
    } head;
    max_align_t alignment;
} UNIT;

static struct {
    UNIT* begin;
    UNIT* free;
    size_t in_use;
    size_t peak; /* all in units */
} pool;

static PELNIC_ERROR_CODE allocate(void** out, PNV_UINT32 size)
{
    const size_t units = 1 + size / sizeof(UNIT) + (size % sizeof(UNIT) != 0);
    UNIT** link = &pool.free;
    *out = NULL;
    if (size == 0) return 0;
    while (*link != NULL && (*link)->head.units < units) link = &(*link)->head.next;
    UNIT* const block = *link;
    if (block == NULL) return PELNIC_ERR_SYS_MEM_ALLOC;

    UNIT* rest = block->head.next;
    if (block->head.units > units) {
        rest = block + units;
        rest->head.next = block->head.next;
        rest->head.units = block->head.units - units;
        block->head.units = units;
    }
    *link = rest;

    const size_t end = (size_t)(block - pool.begin) + units;
    if (end > pool.peak) pool.peak = end;
    pool.in_use += units;
    *out = block + 1;
    return 0;
}

static void join_with_next(UNIT* block)
{
    UNIT* const next = block->head.next;
    if (block + block->head.units != next) return;
    block->head.units += next->head.units;
    block->head.next = next->head.next;
}

static void release(void* p)
{
    if (p == NULL) return;
    UNIT* const block = (UNIT*)p - 1;
    UNIT* previous = NULL;
    UNIT* next = pool.free;
    while (next != NULL && next < block) {
        previous = next;
        next = next->head.next;
    }
    pool.in_use -= block->head.units;
    block->head.next = next;
    join_with_next(block);
    if (previous == NULL) {
        pool.free = block;
        return;
    }
    previous->head.next = block;
    join_with_next(previous);
}

/* These have to be there, although no operation on memory calls them. */
static PNV_FILE_HANDLE open_nothing(const PNV_CHAR* path, const PNV_CHAR* mode)
{
    (void)path;
    (void)mode;
    return NULL;
}

static size_t read_nothing(void* buf, size_t size, PNV_FILE_HANDLE h)
{
    (void)buf;
    (void)size;
    (void)h;
    return 0;
}

static PELNIC_ERROR_CODE close_nothing(PNV_FILE_HANDLE h)
{
    (void)h;
    return PELNIC_ERR_FAILED;
}

void board_platform(PELNIC_CALLBACK_FUNCS* funcs, void* memory, size_t size)
{
    libc_platform(funcs);
    funcs->plt_funcs.sys_funcs.mem_funcs.malloc = allocate;
    funcs->plt_funcs.sys_funcs.mem_funcs.free = release;
    funcs->plt_funcs.sys_funcs.file_funcs =
        (PELNIC_SYS_FILE_FUNCS){.fopen = open_nothing, .fread = read_nothing, .fclose = close_nothing};

    pool.begin = memory;
    pool.free = NULL;
    pool.in_use = 0;
    pool.peak = 0;
    if (size < sizeof(UNIT)) return;
    pool.free = pool.begin;
    pool.free->head.next = NULL;
    pool.free->head.units = size / sizeof(UNIT);
}

size_t board_pool_peak(void)
{
    return pool.peak * sizeof(UNIT);
}

size_t board_pool_in_use(void)
{
    return pool.in_use * sizeof(UNIT);
}
