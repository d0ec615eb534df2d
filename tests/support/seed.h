// Where random tests and samples begin. Another commit begins elsewhere, so that a year of runs tries what no single
// run has time for; every test that draws from it prints it.
//
//     CMSVERIFY_SEED=17 ctest --preset debug     begins where that run began
#ifndef PNVTEST_SEED_H
#define PNVTEST_SEED_H

#include <cstdint>

namespace pnvtest {

// The number that an environment variable holds.
std::uint64_t Setting(const char* variable, std::uint64_t otherwise);

std::uint64_t Seed();

} // namespace pnvtest

#endif
