// A certificate: decoded, asked everything that one is asked, verified up to the root, and added.
#include "fuzz.h"

#include "cmsverify/pelnic_plt_proxy.h"
#include "cmsverify/pelnic_x509_cert.h"
#include "cmsverify/pelnic_x509_utils.h"

namespace pnvfuzz {

namespace {

// Their answers do not matter, only that they give one.
void Ask(const PELNIC_VRF* vrf, const PELNIC_X509_CERT& cert)
{
    PNV_BOOL answer = 0;
    (void)pelnic_x509_is_self_signed(vrf, &cert, &answer);
    (void)pelnic_pki_is_ca_cert(vrf, &cert, &answer);
    PNV_UINT32 usage = 0;
    (void)pelnic_x509_cert_get_keyusage(vrf, &cert, &usage);
    (void)pelnic_x509_cert_get_extend_keyusage(vrf, &cert, &usage);
    PELNIC_BIGINT exponent{};
    PELNIC_BIGINT modulus{};
    (void)pelnic_x509_extract_public_key(vrf, &cert, &exponent, &modulus);
    PNV_CHAR* name = nullptr;
    PNV_UINT32 length = 0;
    if (pelnic_convert_from_x509_name(vrf, cert.toBeSigned->subject, &name, &length) != 0) return;
    Require(length < 256 && name[length] == '\0', "a readable name has at most 255 characters");
    pelnic_free(vrf, name);
}

bool IsValid(PELNIC_VRF* vrf, const PELNIC_X509_CERT& cert)
{
    PNV_BOOL valid = 0;
    return pelnic_pki_verify_cert(vrf, &cert, 1, &valid) == 0 && valid == 1;
}

} // namespace

bool FuzzCertificate(const Trial& trial)
{
    PELNIC_VRF* const vrf = trial.vrf;
    PELNIC_X509_CERT* decoded = nullptr;
    PNV_UINT32 consumed = 0;
    if (pelnic_x509_decode_cert(vrf, trial.data, trial.size, &decoded, &consumed) != 0) return false;
    const OwnedCert cert(decoded, {vrf});
    Require(consumed <= trial.size, "a certificate ends inside its input");
    Ask(vrf, *cert);
    const bool valid = IsValid(vrf, *cert);
    if (valid && trial.crypto == Crypto::Real) {
        const OwnedCert forged = DecodeCert(vrf, WithOtherEnd(trial.data, consumed));
        Require(!IsValid(vrf, *forged), "a certificate with another signature is not valid");
    }
    (void)pelnic_verify_add_cert(vrf, trial.data, trial.size);
    return valid;
}

} // namespace pnvfuzz
