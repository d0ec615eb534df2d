#include "heap_meter.h"

#include <malloc.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace pnvbench {

namespace {

HeapUse* running = nullptr;
PELNIC_CALLBACK_FUNCS defaults;

// glibc keeps the size of a block in front of it.
std::size_t Size(void* block)
{
    return block == nullptr ? 0 : malloc_usable_size(block) + sizeof(std::size_t);
}

void* Taken(void* block)
{
    if (running == nullptr || block == nullptr) return block;
    ++running->allocations;
    running->held += Size(block);
    running->peak = std::max(running->peak, running->held);
    return block;
}

void GivenBack(void* block)
{
    if (running != nullptr) running->held -= Size(block);
}

PELNIC_ERROR_CODE CountedMalloc(void** out, PNV_UINT32 size)
{
    const PELNIC_ERROR_CODE rc = defaults.plt_funcs.sys_funcs.mem_funcs.malloc(out, size);
    Taken(*out);
    return rc;
}

void CountedFree(void* block)
{
    GivenBack(block);
    defaults.plt_funcs.sys_funcs.mem_funcs.free(block);
}

void* LibcryptoMalloc(std::size_t size, const char*, int)
{
    return Taken(std::malloc(size));
}

void* LibcryptoRealloc(void* block, std::size_t size, const char*, int)
{
    GivenBack(block);
    return Taken(std::realloc(block, size));
}

void LibcryptoFree(void* block, const char*, int)
{
    GivenBack(block);
    std::free(block);
}

} // namespace

PELNIC_CALLBACK_FUNCS CountingCallbacks()
{
    (void)pelnic_set_callback_funcs(&defaults);
    PELNIC_CALLBACK_FUNCS counting = defaults;
    counting.plt_funcs.sys_funcs.mem_funcs.malloc = CountedMalloc;
    counting.plt_funcs.sys_funcs.mem_funcs.free = CountedFree;
    return counting;
}

void HookLibcrypto()
{
    if (CRYPTO_set_mem_functions(LibcryptoMalloc, LibcryptoRealloc, LibcryptoFree) == 1) return;
    std::fputs("libcrypto has allocated already and cannot be counted\n", stderr);
    std::exit(1);
}

HeapMeter::HeapMeter()
{
    running = &use_;
}

HeapMeter::~HeapMeter()
{
    running = nullptr;
}

} // namespace pnvbench
