// A verification whose callbacks do not answer the truth: other codes, other lengths, other numbers. The input begins
// with the number of lies and five octets for each: the callback, how many of its calls are true before, whether all
// calls after it lie, and the answer in two octets. What follows is a signature. Whatever they say, all memory comes
// back and none is touched that is not the library's.
#include "fuzz.h"

#include <algorithm>

namespace pnvfuzz {

namespace {

constexpr std::size_t kLieSize = 5;

// Two octets tell the numbers on the edges of 32 bits, too.
std::uint32_t AnswerOf(const std::uint8_t* octets)
{
    const std::uint32_t low = octets[1];
    switch (octets[0]) {
    case 0xFF: return 0xFFFFFF00u | low;
    case 0x80: return 0x80000000u | low;
    case 0x7F: return 0x7FFFFF00u | low;
    default: return std::uint32_t{octets[0]} << 8 | low;
    }
}

std::size_t CountLies(std::size_t first, std::size_t size)
{
    return std::min<std::size_t>(first % 8, (size - 1) / kLieSize);
}

std::vector<Lie> ReadLies(const Trial& trial)
{
    constexpr auto kLiars = static_cast<unsigned>(Liar::End);
    std::vector<Lie> lies;
    for (std::size_t i = 0; i < CountLies(trial.data[0], trial.size); ++i) {
        const std::uint8_t* const octets = trial.data + 1 + i * kLieSize;
        lies.push_back({static_cast<Liar>(octets[0] % kLiars), octets[1], octets[2] % 2 != 0, AnswerOf(octets + 3)});
    }
    return lies;
}

bool VerifyParts(PELNIC_VRF* vrf, const Bytes& cms)
{
    return Verify(vrf, cms, Payload()) == good;
}

bool VerifyFiles(PELNIC_VRF* vrf)
{
    PNV_INT32 result = 0;
    return pelnic_verify_detach_signature_quick(vrf, "content", "signature", &result) == 0 && result == 1;
}

} // namespace

std::size_t CallbacksPrefix(const Bytes& input)
{
    return input.empty() ? 0 : 1 + CountLies(input[0], input.size()) * kLieSize;
}

bool FuzzCallbacks(const Trial& trial)
{
    static const Bytes crls = Pki().Crls();
    if (trial.size == 0) return false;
    Run& run = TheRun();
    run.lies = ReadLies(trial);
    const bool isByParts = run.lies.size() % 2 == 0;
    const Bytes cms(trial.data + 1 + run.lies.size() * kLieSize, trial.data + trial.size);
    (void)pelnic_verify_add_crl(trial.vrf, crls.data(), Len(crls));
    if (isByParts) return VerifyParts(trial.vrf, cms);
    run.files["content"] = Payload();
    run.files["signature"] = cms;
    return VerifyFiles(trial.vrf);
}

} // namespace pnvfuzz
