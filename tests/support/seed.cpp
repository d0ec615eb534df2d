#include "seed.h"

#include <cstdlib>

namespace pnvtest {

std::uint64_t Setting(const char* variable, std::uint64_t otherwise)
{
    const char* const value = std::getenv(variable);
    return value == nullptr ? otherwise : std::strtoull(value, nullptr, 0);
}

std::uint64_t Seed()
{
    return Setting("CMSVERIFY_SEED", CMSVERIFY_COMMIT_SEED);
}

} // namespace pnvtest
