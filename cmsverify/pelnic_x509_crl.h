// Queries on a decoded CRL. PELNIC_ERR_NULL_POINTER for a null argument; decoding failures are passed on.
#ifndef PELNIC_X509_CRL_H
#define PELNIC_X509_CRL_H

#include "pelnic_x509_parse.h"

// CRLReason (RFC 5280, 5.3.1)
typedef enum pelnic_x509_revoke_reason_em : PNV_INT32 {
    RVRS_NONE = -1,
    RVRS_UNUSED = 0,
    RVRS_KEYCOMPROMISE = 1,
    RVRS_CACOMPROMISE = 2,
    RVRS_AFFILIATIONCHANGED = 3,
    RVRS_SUPERSEDED = 4,
    RVRS_CESSATIONOFOPERATION = 5,
    RVRS_CERTIFICATEHOLD = 6,
    RVRS_PRIVILEGEWITHDRAWN = 7,
    RVRS_AACOMPROMISE = 8
} PELNIC_X509_REVOKE_REASON;

// Whether the CRL also covers other issuers. Without an issuing distribution point, the usual case, the result is false
// and the code PELNIC_ERR_CRL_NO_IDP.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_crl_is_indirect(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl,
                                                            PNV_BOOL* isIndirect);
// RVRS_NONE if the entry has no reason.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_revoke_entry_get_reason(const PELNIC_VRF* pVrf,
                                                                    const PELNIC_X509_REVOKED_ENTRY* pEntry,
                                                                    PELNIC_X509_REVOKE_REASON* reason);
// The CRL's extension, or null.
[[nodiscard]] const PELNIC_X509_EXTENSION_ENTRY* pelnic_x509_crl_get_extn_by_aoid(const PELNIC_VRF* pVrf,
                                                                                  const PELNIC_X509_CRL* pCrl,
                                                                                  PELNIC_AOIDS aoid);

#endif
