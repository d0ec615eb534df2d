// How much a sweep tries. Every run of the tests has the short forms; CMSVERIFY_LONG=1 in the environment tries all:
//
//     CMSVERIFY_LONG=1 ctest --preset debug
#ifndef PNVTEST_EFFORT_H
#define PNVTEST_EFFORT_H

#include <cstdlib>
#include <iostream>
#include <string>

namespace pnvtest {

inline bool LongForm()
{
    const char* const value = std::getenv("CMSVERIFY_LONG");
    return value != nullptr && std::string(value) == "1";
}

// Shown beside the test: how much was tried.
inline void Report(const std::string& what, std::uint64_t amount)
{
    std::cout << "[   SWEPT  ] " << what << ": " << amount << std::endl;
}

} // namespace pnvtest

#endif
