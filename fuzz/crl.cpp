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

// Whether a CA below the root is valid by these CRLs.
bool CaIsValid(PELNIC_VRF* vrf, const std::uint8_t* crls, PNV_UINT32 size)
{
    (void)pelnic_verify_add_crl(vrf, crls, size);
    _pnvSyncCrl(vrf);
    static const Bytes encoded = Build(Pki().signingCa);
    const OwnedCert ca = DecodeCert(vrf, encoded);
    PNV_BOOL valid = 0;
    return pelnic_pki_verify_cert(vrf, ca.get(), 1, &valid) == 0 && valid == 1;
}

} // namespace

bool FuzzCrl(const Trial& trial)
{
    PELNIC_X509_CRL* decoded = nullptr;
    PNV_UINT32 consumed = 0;
    if (pelnic_x509_decode_crl(trial.other, trial.data, trial.size, &decoded, &consumed) != 0) return false;
    const OwnedCrl crl(decoded, {trial.other});
    Require(consumed <= trial.size, "a CRL ends inside its input");
    Ask(trial.other, *crl);

    const bool valid = CaIsValid(trial.vrf, trial.data, consumed);
    if (valid && trial.crypto == Crypto::Real) {
        const Bytes forged = WithOtherEnd(trial.data, consumed);
        Require(!CaIsValid(Device(Holding::Root), forged.data(), Len(forged)),
                "nothing is valid by a CRL with another signature");
    }
    return valid;
}

} // namespace pnvfuzz
