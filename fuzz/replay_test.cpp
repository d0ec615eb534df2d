// Every input of the committed corpora, without libFuzzer.
#include "fuzz.h"

#include "support/exact_heap.h"
#include "support/temp_dir.h"

#include <filesystem>

namespace pnvfuzz {

namespace {

class FuzzCorpus : public ::testing::TestWithParam<Target> {};

std::string NameOf(const ::testing::TestParamInfo<Target>& target)
{
    return target.param.name;
}

} // namespace

// A corpus whose good inputs have gone stale is as bad as an empty one: with either cryptography one must be taken.
TEST_P(FuzzCorpus, RunsCleanAndReachesTheEnd)
{
    std::size_t taken[2] = {}; // by Crypto
    for (const auto& file : std::filesystem::directory_iterator(std::string(FUZZ_CORPUS "/") + GetParam().name)) {
        SCOPED_TRACE(file.path());
        const ExactHeap octets(ReadWholeFile(file.path()));
        for (Crypto crypto : {Crypto::Real, Crypto::Lenient}) {
            const Outcome outcome = RunInput(GetParam(), crypto, octets.data(), octets.size());
            EXPECT_EQ(outcome.problems, std::vector<std::string>());
            taken[static_cast<std::size_t>(crypto)] += outcome.taken;
        }
    }
    EXPECT_NE(taken[0], 0u) << "with the real cryptography";
    EXPECT_NE(taken[1], 0u) << "with the lenient one";
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus, ::testing::ValuesIn(Targets()), NameOf);

} // namespace pnvfuzz
