// The signature of one signer over its signed attributes (RFC 5652, 5.4).
#ifndef PELNIC_PKCS7_VERIFY_H
#define PELNIC_PKCS7_VERIFY_H

#include "pelnic_cms_templ.h"

// Verifies a signer with signed attributes. *result is the crypto callback's verdict, 1 for valid; preset it to 0,
// because early failures leave it untouched. A wrong signature is not an error. PELNIC_ERR_NULL_POINTER;
// PELNIC_ERR_CMS_HASH_ALGO for a digest algorithm other than SHA-256, SHA-384 and SHA-512; the codes of
// pelnic_x509_extract_public_key; the crypto callbacks' codes, logged except for create.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pkcs7_detached_signature_verify(const PELNIC_VRF* pVrf,
                                                                       const PELNIC_PKCS7_SIGNER_INFO* si,
                                                                       const PELNIC_X509_CERT* cert, PNV_INT* result);

#endif
