// Queries on a decoded certificate.
#include "pelnic_x509_cert.h"

#include "pelnic_asn1_utils.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_x509_utils.h"
#include "pelnic_x509_verify.h"

PELNIC_ERROR_CODE pelnic_x509_is_self_signed(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                             PNV_BOOL* isSelfSigned)
{
    if (pVrf == nullptr || pCert == nullptr || isSelfSigned == nullptr) return PELNIC_ERR_NULL_POINTER;
    *isSelfSigned = 0;
    if (pCert->pIssuer == pCert) {
        *isSelfSigned = 1;
        return 0;
    }
    const PELNIC_X509_CERTINFO* const tbs = pCert->toBeSigned;
    if (pelnic_compare_x509_name(pVrf, tbs->subject, tbs->issuer) != 0) return 0;
    PNV_BOOL verified = 0;
    const PELNIC_ERROR_CODE rc = _pnvVerifyWithKeyOf(pVrf, pCert, pCert, &verified);
    if (rc != 0) return rc;
    if (verified == 1) {
        *isSelfSigned = 1;
        pCert->pIssuer = pCert;
    }
    return 0;
}

PELNIC_ERROR_CODE pelnic_x509_cert_get_keyusage(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                PNV_UINT32* usage)
{
    if (pVrf == nullptr || pCert == nullptr || usage == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PELNIC_X509_EXTENSION_ENTRY* const pEntry = pelnic_x509_cert_get_extn_by_aoid(pVrf, pCert, AOID_CE_KEYUSAGE);
    if (pEntry == nullptr) return PELNIC_ERR_NO_KEY_USAGE;
    void* pResult = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_decode_x509_extension(pVrf, pEntry, &pResult);
    if (rc != 0) return rc;
    ScopeExit freeUsage{[&] { pelnic_free_x509_extension(pVrf, AOID_CE_KEYUSAGE, pResult); }};
    const PELNIC_ASN_BITS* const pBits = static_cast<const PELNIC_ASN_BITS*>(pResult);
    if (pBits->bits == nullptr || pBits->byteLen == 0 || pBits->bitLen == 0) return PELNIC_ERR_NO_KEY_USAGE;
    *usage = pBits->bits[0];
    if (pBits->bitLen > 8) *usage |= PNV_UINT32{pBits->bits[1]} << 8;
    return 0;
}

static PNV_UINT32 purposeFlag(PELNIC_AOIDS purpose)
{
    switch (purpose) {
    case AOID_KP_CODESIGNING: return PNV_EKU_CODE_SIGNING;
    case AOID_KP_TIMESTAMPING: return PNV_EKU_TIME_STAMPING;
    default: return 0;
    }
}

PELNIC_ERROR_CODE pelnic_x509_cert_get_extend_keyusage(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                       PNV_UINT32* usage)
{
    if (pVrf == nullptr || pCert == nullptr || usage == nullptr) return PELNIC_ERR_NULL_POINTER;
    *usage = 0;
    const PELNIC_X509_EXTENSION_ENTRY* const pEntry =
        pelnic_x509_cert_get_extn_by_aoid(pVrf, pCert, AOID_CE_EXTKEYUSAGE);
    if (pEntry == nullptr) return 0;
    void* pResult = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_decode_x509_extension(pVrf, pEntry, &pResult);
    if (rc != 0) return rc;
    const LIST_TYPE_PELNIC_ASN_OID& purposes = static_cast<const PELNIC_ASN_OID_BUNDLE*>(pResult)->oid_bundle;
    for (PNV_UINT32 i = 0; i < purposes.num; ++i) *usage |= purposeFlag(pelnic_find_aoid(pVrf, purposes.data[i]));
    pelnic_free_x509_extension(pVrf, AOID_CE_EXTKEYUSAGE, pResult);
    return 0;
}

const PELNIC_X509_EXTENSION_ENTRY* pelnic_x509_cert_get_extn_by_aoid(const PELNIC_VRF* pVrf,
                                                                     const PELNIC_X509_CERT* pCert, PELNIC_AOIDS aoid)
{
    if (pCert == nullptr || pCert->toBeSigned == nullptr || pCert->toBeSigned->extensions == nullptr) return nullptr;
    return pelnic_x509_find_extn_by_aoid(pVrf, &pCert->toBeSigned->extensions->extensions, aoid);
}
