// Numbers that follow from a seed and nothing else, on every machine: the distributions of the standard library are
// free to differ.
#ifndef PNVTEST_RANDOM_H
#define PNVTEST_RANDOM_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <random>
#include <utility>

namespace pnvtest {

class Random {
public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}

    // 0 to n - 1; that the low ones are a little more likely is no matter for small n.
    std::size_t Below(std::size_t n) { return static_cast<std::size_t>(engine_() % n); }
    bool Percent(unsigned chance) { return Below(100) < chance; }

    template <typename List> auto& Of(List& list) { return list[Below(std::size(list))]; }
    template <typename Value> Value Of(std::initializer_list<Value> list) { return list.begin()[Below(list.size())]; }
    template <typename List> void Shuffle(List& list)
    {
        for (std::size_t left = std::size(list); left > 1; --left) std::swap(list[left - 1], list[Below(left)]);
    }

private:
    std::mt19937_64 engine_; // its numbers are prescribed
};

} // namespace pnvtest

#endif
