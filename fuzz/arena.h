// The memory of one run: blocks from one region, one behind the other, each with poisoned octets before and behind it.
// A block that was given back stays poisoned to the end of the run and is not handed out again, so that the address
// sanitizer sees every use of it. Far faster than an allocator, and what a run began with can be put back for the next.
#ifndef PNVFUZZ_ARENA_H
#define PNVFUZZ_ARENA_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace pnvfuzz {

// Whether the address sanitizer, if there is one, has nothing against reading these octets.
bool IsReadable(const void* data, std::size_t size);

class Arena {
public:
    Arena();
    ~Arena();
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    // Null when the region is used up. What is in the block is neither zero nor a plausible length, pointer or count.
    void* Take(std::size_t size);
    // False if it is no block that was taken and not given back.
    bool Give(void* block);
    bool IsTaken(const void* block) const;

    std::size_t LiveBlocks() const { return liveBlocks_; }
    std::size_t PeakBytes() const { return peakBytes_; } // since the last Reset

    // Nothing is taken any more.
    void Clear();
    // What is taken now is taken after each Reset, with what is in it now.
    void Keep();
    void Reset();

private:
    struct Block {
        std::size_t start; // offset of its first octet
        std::size_t size;
        bool live;
    };

    std::size_t NumberOf(const void* block) const; // kNone: not a block of this region

    std::uint8_t* region_;
    std::size_t top_ = 0; // offset of the first octet that no block has
    std::vector<Block> blocks_;
    std::size_t liveBlocks_ = 0;
    std::size_t liveBytes_ = 0;
    std::size_t peakBytes_ = 0;

    // What Keep found, and which of its blocks were given back since.
    std::vector<std::uint8_t> keptOctets_;
    std::size_t keptBlocks_ = 0;
    std::size_t keptLiveBlocks_ = 0;
    std::size_t keptLiveBytes_ = 0;
    std::vector<std::size_t> givenBack_;
};

} // namespace pnvfuzz

#endif
