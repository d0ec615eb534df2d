// The pages of large blocks, for the default callbacks and the checker: the first access to each page costs more than
// decoding into it, and half of the time of reading a large package is page faults.
#ifndef PELNIC_HUGE_PAGES_H
#define PELNIC_HUGE_PAGES_H

#include <sys/mman.h>
#include <unistd.h>

#include "include/pelnic_cms_verify.h"

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 // Linux 5.14; not in the headers of every libc
#endif

constexpr PNV_UINT32 PNV_HUGE_PAGE = 2 << 20;        // octets of one, which begins at a multiple of them
constexpr PNV_UINT32 PNV_HUGE_PAGES_FROM = 3 << 20;  // smaller blocks do better without
constexpr PNV_UINT32 PNV_NEW_PAGES_FROM = 128 << 10; // libc takes such blocks from the kernel, without any page

// From a page's begin on; a kernel that knows nothing of the advice does no harm.
inline void _pnvAdvise(uintptr_t begin, uintptr_t end, int advice)
{
    if (begin < end) (void)madvise(reinterpret_cast<void*>(begin), end - begin, advice);
}

// Asks for huge pages where they fit, and for all others at once. The block will be filled soon.
inline void _pnvPreparePages(void* block, PNV_UINT32 size)
{
    if (size < PNV_NEW_PAGES_FROM) return;
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t end = reinterpret_cast<uintptr_t>(block) + size;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(block) + page - 1) / page * page;
    uintptr_t hugeBegin = begin;
    uintptr_t hugeEnd = begin;
    if (size >= PNV_HUGE_PAGES_FROM) {
        _pnvAdvise(begin, end, MADV_HUGEPAGE);
        hugeBegin = (begin + PNV_HUGE_PAGE - 1) / PNV_HUGE_PAGE * PNV_HUGE_PAGE;
        hugeEnd = end / PNV_HUGE_PAGE * PNV_HUGE_PAGE;
    }
    _pnvAdvise(begin, hugeBegin, MADV_POPULATE_WRITE);
    _pnvAdvise(hugeEnd, end, MADV_POPULATE_WRITE);
}

#endif
