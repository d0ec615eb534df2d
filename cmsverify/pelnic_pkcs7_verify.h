// The signature of one signer over its signed attributes (RFC 5652, 5.4).
#ifndef PELNIC_PKCS7_VERIFY_H
#define PELNIC_PKCS7_VERIFY_H

#include "pelnic_cms_templ.h"

// *result is the crypto callback's verdict, 1 valid: preset it to 0, since early failures leave it untouched. A wrong
// signature is no error. PELNIC_ERR_NULL_POINTER; PELNIC_ERR_CMS_HASH_ALGO for a digest algorithm other than SHA-256,
// SHA-384 and SHA-512; the codes of pelnic_x509_extract_public_key; the crypto callbacks' codes, logged but for create.
// The signer must have signed attributes.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pkcs7_detached_signature_verify(const PELNIC_VRF* pVrf,
                                                                       const PELNIC_PKCS7_SIGNER_INFO* si,
                                                                       const PELNIC_X509_CERT* cert, PNV_INT* result);

#endif
