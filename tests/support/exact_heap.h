// Inputs in heap blocks of exactly their size, so that the address sanitizer sees the first octet read beyond the end.
#ifndef PNVTEST_EXACT_HEAP_H
#define PNVTEST_EXACT_HEAP_H

#include "der.h"

#include <algorithm>
#include <memory>

namespace pnvtest {

class ExactHeap {
public:
    explicit ExactHeap(const Bytes& octets) : ExactHeap(octets, octets.size()) {}
    // The first size octets.
    ExactHeap(const Bytes& octets, std::size_t size) : size_(size), block_(new std::uint8_t[size])
    {
        std::copy_n(octets.begin(), size, block_.get());
    }

    std::uint8_t* data() { return block_.get(); }
    const std::uint8_t* data() const { return block_.get(); }
    std::size_t size() const { return size_; }

private:
    std::size_t size_;
    std::unique_ptr<std::uint8_t[]> block_;
};

// Calls fn(const ExactHeap&) with the octets cut at every length from none to all but one.
template <typename Function> void ForEveryPrefix(const Bytes& octets, Function fn)
{
    for (std::size_t size = 0; size < octets.size(); ++size) fn(ExactHeap(octets, size));
}

} // namespace pnvtest

#endif
