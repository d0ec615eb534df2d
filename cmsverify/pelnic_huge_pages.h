// Large blocks in huge pages, for the default callbacks and the checker: the first access to a block costs more than
// decoding into it, and half of the time of reading a large package is page faults.
#ifndef PELNIC_HUGE_PAGES_H
#define PELNIC_HUGE_PAGES_H

#include <sys/mman.h>
#include <unistd.h>

#include "include/pelnic_cms_verify.h"

constexpr PNV_UINT32 PNV_HUGE_PAGE = 2 << 20;       // octets of one, which begins at a multiple of them
constexpr PNV_UINT32 PNV_HUGE_PAGES_FROM = 3 << 20; // smaller blocks do better without

// Asks for huge pages; a kernel without them does no harm.
inline void _pnvPreferHugePages(void* block, PNV_UINT32 size)
{
    if (size < PNV_HUGE_PAGES_FROM) return;
    const uintptr_t start = reinterpret_cast<uintptr_t>(block);
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t firstPage = (start + page - 1) / page * page;
    (void)madvise(reinterpret_cast<void*>(firstPage), start + size - firstPage, MADV_HUGEPAGE);
}

#endif
