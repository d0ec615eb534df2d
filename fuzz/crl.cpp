// A CRL: decoded, asked everything that one is asked, and used to judge a CA below the root.
#include "fuzz.h"

#include "cmsverify/pelnic_x509_crl.h"

namespace pnvfuzz {

namespace {

// Their answers do not matter, only that they give one.
void Ask(const PELNIC_VRF* vrf, const PELNIC_X509_CRL& crl)
{
    PNV_BOOL isIndirect = 0;
    (void)pelnic_x509_crl_is_indirect(vrf, &crl, &isIndirect);
    const PELNIC_X509_REVOKED* const revoked = crl.tbs_cert_list->revoked_certs;
    if (revoked == nullptr) return;
    for (PNV_UINT32 i = 0; i < revoked->revoked_list.num; ++i) {
        PELNIC_X509_REVOKE_REASON reason = RVRS_NONE;
        (void)pelnic_x509_revoke_entry_get_reason(vrf, revoked->revoked_list.data[i], &reason);
    }
}

} // namespace

bool FuzzCrl(CallbackPlan& plan, const Input& input)
{
    Device device(plan);
    PELNIC_VRF* const vrf = device.Record();
    PELNIC_X509_CRL* decoded = nullptr;
    PNV_UINT32 consumed = 0;
    if (pelnic_x509_decode_crl(vrf, input.data, input.size, &decoded, &consumed) != 0) return false;
    const OwnedCrl crl(decoded, {vrf});
    Require(consumed <= input.size, "a CRL ends inside its input");
    Ask(vrf, *crl);

    (void)pelnic_verify_add_crl(device, input.data, input.size);
    _pnvSyncCrl(vrf);
    static const Bytes signingCa = Build(Pki().signingCa);
    const OwnedCert ca = DecodeCert(vrf, signingCa);
    PNV_BOOL valid = 0;
    return pelnic_pki_verify_cert(vrf, ca.get(), 1, &valid) == 0 && valid == 1;
}

} // namespace pnvfuzz
