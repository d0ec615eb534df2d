#include "arena.h"

#include "support/sanitized.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ASAN
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ASAN
#endif
#endif
#ifdef UNDER_ASAN
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(start, size) ((void)(start), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(start, size) ((void)(start), (void)(size))
#endif

namespace pnvfuzz {

namespace {

constexpr std::size_t kRegion = 64 << 20;
constexpr std::size_t kAlignment = 16;
// Before each block; the first octets of it hold the block's number.
constexpr std::size_t kGap = 32;
constexpr int kFreshBlock = 0xA5;
constexpr int kFreedBlock = 0xDD;
constexpr std::size_t kNone = SIZE_MAX;

#define UNCHECKED __attribute__((no_sanitize("address", "undefined")))

// The number of a block stands in poisoned memory, where nothing else can write it.
UNCHECKED void WriteNumber(std::uint8_t* gap, std::size_t number)
{
    *reinterpret_cast<std::size_t*>(gap) = number;
}

UNCHECKED std::size_t ReadNumber(const std::uint8_t* gap)
{
    return *reinterpret_cast<const std::size_t*>(gap);
}

// Poisoned octets, too: a loop, because memcpy is checked wherever it is called.
UNCHECKED void CopyAll(std::uint8_t* to, const std::uint8_t* from, std::size_t size)
{
    for (std::size_t i = 0; i < size; i += sizeof(std::uint64_t)) {
        *reinterpret_cast<volatile std::uint64_t*>(to + i) = *reinterpret_cast<const std::uint64_t*>(from + i);
    }
}

} // namespace

bool IsReadable([[maybe_unused]] const void* data, [[maybe_unused]] std::size_t size)
{
#ifdef UNDER_ASAN
    return __asan_region_is_poisoned(const_cast<void*>(data), size) == nullptr;
#else
    return true;
#endif
}

Arena::Arena()
{
    void* const region =
        mmap(nullptr, kRegion, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (region == MAP_FAILED) std::abort();
    region_ = static_cast<std::uint8_t*>(region);
    ASAN_POISON_MEMORY_REGION(region_, kRegion);
}

Arena::~Arena()
{
    ASAN_UNPOISON_MEMORY_REGION(region_, kRegion);
    munmap(region_, kRegion);
}

void* Arena::Take(std::size_t size)
{
    const std::size_t start = top_ + kGap;
    if (start > kRegion || size > kRegion - start) return nullptr;
    std::uint8_t* const block = region_ + start;
    WriteNumber(block - kGap, blocks_.size());
    ASAN_UNPOISON_MEMORY_REGION(block, size);
    std::memset(block, kFreshBlock, size);
    blocks_.push_back({start, size, true});
    top_ = (start + size + kAlignment - 1) / kAlignment * kAlignment;
    ++liveBlocks_;
    liveBytes_ += size;
    peakBytes_ = std::max(peakBytes_, liveBytes_);
    return block;
}

std::size_t Arena::NumberOf(const void* block) const
{
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    const auto region = reinterpret_cast<std::uintptr_t>(region_);
    if (address < region + kGap || address >= region + top_ || address % kAlignment != 0) return kNone;
    const std::size_t number = ReadNumber(static_cast<const std::uint8_t*>(block) - kGap);
    return number < blocks_.size() && blocks_[number].start == address - region ? number : kNone;
}

bool Arena::IsTaken(const void* block) const
{
    const std::size_t number = NumberOf(block);
    return number != kNone && blocks_[number].live;
}

bool Arena::Give(void* block)
{
    const std::size_t number = NumberOf(block);
    if (number == kNone || !blocks_[number].live) return false;
    if (!pnvtest::kSanitized) std::memset(block, kFreedBlock, blocks_[number].size);
    ASAN_POISON_MEMORY_REGION(block, blocks_[number].size);
    blocks_[number].live = false;
    if (number < keptBlocks_) givenBack_.push_back(number);
    --liveBlocks_;
    liveBytes_ -= blocks_[number].size;
    return true;
}

void Arena::Clear()
{
    ASAN_POISON_MEMORY_REGION(region_, top_);
    top_ = liveBlocks_ = liveBytes_ = peakBytes_ = 0;
    blocks_.clear();
    keptOctets_.clear();
    givenBack_.clear();
    keptBlocks_ = keptLiveBlocks_ = keptLiveBytes_ = 0;
}

void Arena::Keep()
{
    keptOctets_.resize(top_);
    CopyAll(keptOctets_.data(), region_, top_);
    givenBack_.clear();
    keptBlocks_ = blocks_.size();
    keptLiveBlocks_ = liveBlocks_;
    keptLiveBytes_ = liveBytes_;
    Reset();
}

void Arena::Reset()
{
    const std::size_t kept = keptOctets_.size();
    CopyAll(region_, keptOctets_.data(), kept);
    if (top_ > kept) ASAN_POISON_MEMORY_REGION(region_ + kept, top_ - kept);
    for (std::size_t number : givenBack_) {
        ASAN_UNPOISON_MEMORY_REGION(region_ + blocks_[number].start, blocks_[number].size);
        blocks_[number].live = true;
    }
    givenBack_.clear();
    top_ = kept;
    blocks_.resize(keptBlocks_);
    liveBlocks_ = keptLiveBlocks_;
    liveBytes_ = peakBytes_ = keptLiveBytes_;
}

} // namespace pnvfuzz
