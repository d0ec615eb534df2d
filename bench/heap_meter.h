// Counts what a decoder asks of the heap, the library's through its callback table and libcrypto's through its own
// allocation hooks. Both count the same way, and neither counts while a time is taken.
#ifndef PNVBENCH_HEAP_METER_H
#define PNVBENCH_HEAP_METER_H

#include "cmsverify/include/pelnic_cms_verify.h"

#include <cstddef>

namespace pnvbench {

struct HeapUse {
    std::size_t allocations = 0;
    std::size_t held = 0; // bytes, as the allocator rounds them up
    std::size_t peak = 0;
};

// The default callbacks with malloc and free counted.
PELNIC_CALLBACK_FUNCS CountingCallbacks();
// Puts hooks into libcrypto that do nothing but allocate, until a meter runs. Call it before anything of libcrypto.
void HookLibcrypto();

// Counts from its construction on. One at a time.
class HeapMeter {
public:
    HeapMeter();
    ~HeapMeter();
    HeapMeter(const HeapMeter&) = delete;
    HeapMeter& operator=(const HeapMeter&) = delete;

    const HeapUse& Use() const { return use_; }

private:
    HeapUse use_;
};

} // namespace pnvbench

#endif
