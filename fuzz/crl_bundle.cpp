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

bool FuzzCrlBundle(CallbackPlan& plan, const Input& input)
{
    if (input.size < 2) return false;
    const std::uint8_t* const begin = input.data + 2;
    const std::uint8_t* const end = input.data + input.size;
    const std::ptrdiff_t first = std::min<std::ptrdiff_t>(input.data[0] << 8 | input.data[1], end - begin);

    const Bundle offered(plan, begin, begin + first);
    const Bundle held(plan, begin + first, end);
    PELNIC_CRL_PERIOD_STAT stat = SCPS_MIX;
    return pelnic_crl_compare(offered.Ctx(), offered.Info(), held.Info(), &stat) == 0;
}

} // namespace pnvfuzz
