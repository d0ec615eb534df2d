// The entry that libFuzzer calls, in each program for the target FUZZ_TARGET.
#include "fuzz.h"

#include <cstdio>
#include <cstdlib>

using namespace pnvfuzz;

// libFuzzer counts these as coverage: a good end with either cryptography is worth an input of the corpus.
__attribute__((section("__libfuzzer_extra_counters"), used)) static std::uint8_t s_taken[2];

static const Target& ThisTarget()
{
    for (const Target& target : kTargets) {
        if (std::string_view(target.name) == FUZZ_TARGET) return target;
    }
    Misuse("there is no target " FUZZ_TARGET);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    for (Crypto crypto : {Crypto::Real, Crypto::Lenient}) {
        const Outcome outcome = RunInput(ThisTarget(), crypto, data, size);
        for (const std::string& problem : outcome.problems) std::fprintf(stderr, "%s\n", problem.c_str());
        if (!outcome.problems.empty()) std::abort();
        s_taken[static_cast<std::size_t>(crypto)] = outcome.taken;
    }
    return 0;
}
