// Two CRL bundles, decoded and compared. The input begins with the length of the first in two octets, big-endian.
#include "fuzz.h"

#include "support/exact_heap.h"

#include <algorithm>

namespace pnvfuzz {

namespace {

// A bundle and the context that decoded it, one of its own so that no bundle is judged by the other's CRLs.
class Bundle {
public:
    Bundle(CallbackPlan& plan, const std::uint8_t* begin, const std::uint8_t* end) : device_(plan)
    {
        const ExactHeap octets(Bytes(begin, end));
        (void)pelnic_decode_crl(device_, octets.data(), Len(octets), &info_);
    }
    ~Bundle() { (void)pelnic_crl_free(device_, info_); }
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    PELNIC_VRF_CTX Ctx() const { return device_; }
    const PELNIC_CRL_BUNDLE_INFO* Info() const { return info_; }

private:
    Device device_;
    PELNIC_CRL_BUNDLE_INFO* info_ = nullptr;
};

} // namespace

bool FuzzCrlBundle(const Trial& trial)
{
    if (trial.size < 2) return false;
    const std::uint8_t* const begin = trial.data + 2;
    const std::uint8_t* const end = trial.data + trial.size;
    const std::ptrdiff_t first = std::min<std::ptrdiff_t>(trial.data[0] << 8 | trial.data[1], end - begin);

    const Bundle offered(trial.plan, begin, begin + first);
    const Bundle held(trial.plan, begin + first, end);
    PELNIC_CRL_PERIOD_STAT stat = SCPS_MIX;
    return pelnic_crl_compare(offered.Ctx(), offered.Info(), held.Info(), &stat) == 0;
}

} // namespace pnvfuzz
