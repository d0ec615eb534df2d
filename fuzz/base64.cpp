// Base64 text: sized, and decoded into a block of that size.
#include "fuzz.h"

#include "cmsverify/pelnic_base64.h"
#include "support/exact_heap.h"

namespace pnvfuzz {

bool FuzzBase64(const Trial& trial)
{
    const auto* const text = reinterpret_cast<const PNV_CHAR*>(trial.data);
    PNV_UINT32 size = 0;
    if (pelnic_base64_decode(trial.vrf, text, trial.size, nullptr, &size) != 0) return false;
    Require(size <= trial.size, "decoding makes nothing longer");
    ExactHeap decoded{Bytes(size)};
    PNV_UINT32 written = size;
    Require(pelnic_base64_decode(trial.vrf, text, trial.size, decoded.data(), &written) == 0,
            "a text that was sized is decoded");
    Require(written <= size, "no more is written than the size");
    return written != 0;
}

} // namespace pnvfuzz
