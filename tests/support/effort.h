// How much a sweep tries. Every run of the tests has the short forms; CMSVERIFY_LONG=1 in the environment tries all:
//
//     CMSVERIFY_LONG=1 ctest --preset debug
//
// Where the short form draws what it tries, CMSVERIFY_SEED=7 draws something else.
#ifndef PNVTEST_EFFORT_H
#define PNVTEST_EFFORT_H

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

namespace pnvtest {

inline bool LongForm()
{
    const char* const value = std::getenv("CMSVERIFY_LONG");
    return value != nullptr && std::string(value) == "1";
}

inline std::uint64_t SampleSeed()
{
    const char* const value = std::getenv("CMSVERIFY_SEED");
    return value == nullptr ? 1 : std::strtoull(value, nullptr, 10);
}

// Shown beside the test: how much was tried.
inline void Report(const std::string& what, std::size_t amount)
{
    std::cout << "[   SWEPT  ] " << what << ": " << amount << std::endl;
}

} // namespace pnvtest

#endif
