// A timestamp token, as the attribute of a signer who is otherwise in order. The same input is decoded as the TSTInfo
// inside a token, which saves the fuzzer the lengths around it.
#include "fuzz.h"

namespace pnvfuzz {

namespace {

void DecodeTstInfo(const PELNIC_VRF* vrf, const Trial& trial)
{
    PELNIC_TST_INFO* info = nullptr;
    PNV_UINT32 consumed = 0;
    if (pelnic_decode_timestamp_token(vrf, trial.data, trial.size, &info, &consumed) != 0) return;
    Require(consumed <= trial.size, "a TSTInfo ends inside its input");
    pelnic_free_timestamp_token(vrf, info);
}

} // namespace

bool FuzzTimestamp(const Trial& trial)
{
    static const CmsSpec demo = DemoCms(Pki());
    CmsSpec cms = demo;
    cms.signers[0].unsignedAttributes = {
        [&](const Bytes&) { return Attribute(oid::timestampToken, Bytes(trial.data, trial.data + trial.size)); }};

    Device device(trial.plan);
    device.AddCrls();
    DecodeTstInfo(device.Record(), trial);
    return Begin(device, DetachedCms(Payload(), cms)) == 0;
}

} // namespace pnvfuzz
