// Signature checks on certificates and CRLs. *pResult is 1 only when the signature verified; a signature that does not
// match is no error. PELNIC_ERR_NULL_POINTER for a null argument, PELNIC_ERR_UNSUPPORTED_DIGEST when the signature
// algorithm has no digest here, PELNIC_ERR_UNSUPPORTED_ALGO when it is not RSA (a bare digest), and the codes of
// pelnic_x509_pkey_verify.
#ifndef PELNIC_X509_VERIFY_H
#define PELNIC_X509_VERIFY_H

#include "pelnic_x509_parse.h"

// Inner and outer algorithm differ: PELNIC_ERR_CERT_VERIFY.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_cert_verify(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                        const PELNIC_PUBKEY* pPubKey, PNV_BOOL* pResult);
// Inner and outer algorithm differ: PELNIC_ERR_FAILED.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_crl_verify(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl,
                                                       const PELNIC_PUBKEY* pPubKey, PNV_BOOL* pResult);

#endif
