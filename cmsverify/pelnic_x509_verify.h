// Signature checks on certificates and CRLs. *pResult is 1 only if the signature verified; a wrong signature is not an
// error. PELNIC_ERR_NULL_POINTER for a null argument, PELNIC_ERR_UNSUPPORTED_DIGEST if the signature algorithm has no
// known digest, PELNIC_ERR_UNSUPPORTED_ALGO if it is not RSA (a bare digest), and the codes of
// pelnic_x509_pkey_verify.
#ifndef PELNIC_X509_VERIFY_H
#define PELNIC_X509_VERIFY_H

#include "pelnic_x509_parse.h"

// PELNIC_ERR_CERT_VERIFY if inner and outer algorithm differ.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_cert_verify(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                        const PELNIC_PUBKEY* pPubKey, PNV_BOOL* pResult);
// The same with the key of a certificate: its issuer's, or its own.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyWithKeyOf(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                    const PELNIC_X509_CERT* pIssuer, PNV_BOOL* pResult);
// PELNIC_ERR_FAILED if inner and outer algorithm differ.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_crl_verify(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl,
                                                       const PELNIC_PUBKEY* pPubKey, PNV_BOOL* pResult);

#endif
