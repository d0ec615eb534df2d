// The entry that libFuzzer calls, in each program for the target FUZZ_TARGET.
#include "fuzz.h"

#include "support/der_mutator.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using namespace pnvfuzz;

// libFuzzer counts these as coverage: a good end with either cryptography is worth an input of the corpus.
__attribute__((section("__libfuzzer_extra_counters"), used)) static std::uint8_t s_taken[2];

static const Target& ThisTarget()
{
    for (const Target& target : Targets()) {
        if (std::string_view(target.name) == FUZZ_TARGET) return target;
    }
    Misuse("there is no target " FUZZ_TARGET);
}

static bool s_isMerging = false;

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    for (int i = 1; i < *argc; ++i) s_isMerging |= std::string_view((*argv)[i]).substr(0, 6) == "-merge";
    return 0;
}

// One input in sixteen meets libcrypto, and all that may come into the corpus: always the same ones, so that a finding
// is found again.
static bool MeetsLibcrypto(const std::uint8_t* data, std::size_t size)
{
    if (s_isMerging) return true;
    std::uint32_t hash = 2166136261u;
    for (std::size_t i = 0; i < size; ++i) hash = (hash ^ data[i]) * 16777619u;
    return (hash >> 8) % 16 == 0;
}

static void RunWith(Crypto crypto, const std::uint8_t* data, std::size_t size)
{
    static const Target& target = ThisTarget();
    const Outcome outcome = RunInput(target, crypto, data, size);
    for (const std::string& problem : outcome.problems) std::fprintf(stderr, "%s\n", problem.c_str());
    if (!outcome.problems.empty()) std::abort();
    s_taken[static_cast<std::size_t>(crypto)] = outcome.taken;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    RunWith(Crypto::Lenient, data, size);
    if (MeetsLibcrypto(data, size)) RunWith(Crypto::Real, data, size);
    return 0;
}

// ---- Mutations: half of them libFuzzer's own, the others of elements

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned seed);
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data, std::size_t size, const std::uint8_t* other,
                                                 std::size_t otherSize, std::uint8_t* out, std::size_t maxOutSize,
                                                 unsigned seed);

static void Scrambled(Bytes* octets, std::size_t limit)
{
    const std::size_t size = octets->size();
    octets->resize(limit);
    octets->resize(LLVMFuzzerMutate(octets->data(), size, limit));
}

// What stands before the DER is kept.
static std::size_t PrefixOf(const Target& target, const Bytes& input)
{
    return target.prefix == nullptr ? 0 : std::min(target.prefix(input), input.size());
}

static Bytes Mutated(const Bytes& input, const Bytes& donor, unsigned seed)
{
    Random random(seed);
    const Target& target = ThisTarget();
    if (target.isPackage) return MutatePackage(input, donor, random, Scrambled);
    const auto der = input.begin() + static_cast<std::ptrdiff_t>(PrefixOf(target, input));
    const auto other = donor.begin() + static_cast<std::ptrdiff_t>(PrefixOf(target, donor));
    return Cat(Bytes(input.begin(), der),
               MutateDer(Bytes(der, input.end()), Bytes(other, donor.end()), random, Scrambled));
}

// Longer ones are cut off, which is a mutation as well.
static std::size_t PutOut(const Bytes& octets, std::uint8_t* out, std::size_t maxSize)
{
    const std::size_t size = std::min(octets.size(), maxSize);
    std::copy_n(octets.begin(), size, out);
    return size;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed)
{
    if (seed % 2 == 0) return LLVMFuzzerMutate(data, size, maxSize);
    const Bytes input(data, data + size);
    const Bytes output = Mutated(input, input, seed);
    return output == input || output.empty() ? LLVMFuzzerMutate(data, size, maxSize) : PutOut(output, data, maxSize);
}

std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data, std::size_t size, const std::uint8_t* other,
                                      std::size_t otherSize, std::uint8_t* out, std::size_t maxOutSize, unsigned seed)
{
    return PutOut(Mutated(Bytes(data, data + size), Bytes(other, other + otherSize), seed), out, maxOutSize);
}
