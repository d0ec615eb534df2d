// The entry that libFuzzer calls, in each program for the target FUZZ_TARGET.
#include "fuzz.h"

#include <cstdio>
#include <cstdlib>

using namespace pnvfuzz;

// libFuzzer counts these as coverage: a good end with either cryptography is worth an input of the corpus.
__attribute__((section("__libfuzzer_extra_counters"), used)) static std::uint8_t s_taken[2];

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Target& target = TargetOf(FUZZ_TARGET);
    for (Crypto crypto : {Crypto::Real, Crypto::Lenient}) {
        const Outcome outcome = RunInput(target, crypto, data, size);
        for (const std::string& problem : outcome.problems) std::fprintf(stderr, "%s\n", problem.c_str());
        if (!outcome.problems.empty()) std::abort();
        s_taken[static_cast<std::size_t>(crypto)] = outcome.taken;
    }
    return 0;
}
