// Two CRL bundles, decoded and compared. The input begins with the length of the first in two octets, big-endian.
#include "fuzz.h"

#include "support/exact_heap.h"

#include <algorithm>

namespace pnvfuzz {

namespace {

constexpr std::size_t kPrefix = 2;

// A bundle and the context that decoded it, one of its own so that no bundle is judged by the other's CRLs.
class Bundle {
public:
    Bundle(PELNIC_VRF* vrf, const std::uint8_t* begin, const std::uint8_t* end) : vrf_(vrf)
    {
        const ExactHeap octets(Bytes(begin, end));
        (void)pelnic_decode_crl(vrf_, octets.data(), Len(octets), &info_);
    }
    ~Bundle() { (void)pelnic_crl_free(vrf_, info_); }
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    const PELNIC_CRL_BUNDLE_INFO* Info() const { return info_; }

private:
    PELNIC_VRF* vrf_;
    PELNIC_CRL_BUNDLE_INFO* info_ = nullptr;
};

} // namespace

std::size_t CrlBundlePrefix(const Bytes&)
{
    return kPrefix;
}

bool FuzzCrlBundle(const Trial& trial)
{
    if (trial.size < kPrefix) return false;
    const std::uint8_t* const begin = trial.data + kPrefix;
    const std::uint8_t* const end = trial.data + trial.size;
    const std::ptrdiff_t first = std::min<std::ptrdiff_t>(trial.data[0] << 8 | trial.data[1], end - begin);

    const Bundle offered(trial.vrf, begin, begin + first);
    const Bundle held(trial.other, begin + first, end);
    PELNIC_CRL_PERIOD_STAT stat = SCPS_MIX;
    return pelnic_crl_compare(trial.vrf, offered.Info(), held.Info(), &stat) == 0;
}

} // namespace pnvfuzz
