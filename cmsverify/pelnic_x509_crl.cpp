// Queries on a decoded CRL.
#include "pelnic_x509_crl.h"

#include "pelnic_x509_utils.h"

PELNIC_ERROR_CODE pelnic_x509_crl_is_indirect(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl, PNV_BOOL* isIndirect)
{
    if (isIndirect != nullptr) *isIndirect = 0; // callers use it whatever is returned
    if (pVrf == nullptr || pCrl == nullptr || isIndirect == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PELNIC_X509_EXTENSION_ENTRY* const pEntry =
        pelnic_x509_crl_get_extn_by_aoid(pVrf, pCrl, AOID_CE_ISSUINGDISTRIBUTIONPOINT);
    if (pEntry == nullptr) return PELNIC_ERR_CRL_NO_IDP;
    void* pResult = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_decode_x509_extension(pVrf, pEntry, &pResult);
    if (rc != 0) return rc;
    *isIndirect = static_cast<const PELNIC_X509_ISSUING_DIST_POINT*>(pResult)->indirectCRL != 0 ? 1 : 0;
    pelnic_free_x509_extension(pVrf, AOID_CE_ISSUINGDISTRIBUTIONPOINT, pResult);
    return 0;
}

PELNIC_ERROR_CODE pelnic_x509_revoke_entry_get_reason(const PELNIC_VRF* pVrf, const PELNIC_X509_REVOKED_ENTRY* pEntry,
                                                      PELNIC_X509_REVOKE_REASON* reason)
{
    if (pVrf == nullptr || pEntry == nullptr || reason == nullptr) return PELNIC_ERR_NULL_POINTER;
    *reason = RVRS_NONE;
    if (pEntry->crl_entry_extensions == nullptr) return 0;
    const PELNIC_X509_EXTENSION_ENTRY* const pExtension =
        pelnic_x509_find_extn_by_aoid(pVrf, &pEntry->crl_entry_extensions->extensions, AOID_CE_CRLREASONS);
    if (pExtension == nullptr) return 0;
    void* pResult = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_decode_x509_extension(pVrf, pExtension, &pResult);
    if (rc != 0) return rc;
    *reason = static_cast<PELNIC_X509_REVOKE_REASON>(*static_cast<const PELNIC_ASN_ENUM*>(pResult));
    pelnic_free_x509_extension(pVrf, AOID_CE_CRLREASONS, pResult);
    return 0;
}

const PELNIC_X509_EXTENSION_ENTRY* pelnic_x509_crl_get_extn_by_aoid(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl,
                                                                    PELNIC_AOIDS aoid)
{
    if (pCrl == nullptr || pCrl->tbs_cert_list == nullptr || pCrl->tbs_cert_list->extensions == nullptr) return nullptr;
    return pelnic_x509_find_extn_by_aoid(pVrf, &pCrl->tbs_cert_list->extensions->extensions, aoid);
}
