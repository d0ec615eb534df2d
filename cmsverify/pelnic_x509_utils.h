// Comparisons, lookups and conversions of decoded X.509 values, and the common signature check. Comparisons return 0
// for equal, PELNIC_ERR_FAILED for different, PELNIC_ERR_NULL_POINTER for a null argument. There is no case folding and
// no string-type normalisation: tag, length and octets must be equal, in the same order.
#ifndef PELNIC_X509_UTILS_H
#define PELNIC_X509_UTILS_H

#include "pelnic_x509_parse.h"

[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_compare_attr_entry(const PELNIC_VRF* pVrf,
                                                               const PELNIC_X509_ATTR_ENTRY* pAttrEntryExpect,
                                                               const PELNIC_X509_ATTR_ENTRY* pAttrEntryActual);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_compare_attr(const PELNIC_VRF* pVrf,
                                                         const PELNIC_X509_ATTR_BUNDLE* pAttrExpect,
                                                         const PELNIC_X509_ATTR_BUNDLE* pAttrActual);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_compare_x509_name(const PELNIC_VRF* pVrf, const PELNIC_X509_NAME* name1,
                                                         const PELNIC_X509_NAME* name2);
// Algorithm OID and key bits; parameters are not compared.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_compare_pubkey(const PELNIC_VRF* pVrf, const PELNIC_X509_PUBKEY_INFO* info1,
                                                      const PELNIC_X509_PUBKEY_INFO* info2);

// The list's first extension with that identifier, or null.
[[nodiscard]] const PELNIC_X509_EXTENSION_ENTRY* pelnic_x509_find_extn_by_aoid(
    const PELNIC_VRF* pVrf, const LIST_TYPE_PELNIC_X509_EXTENSION_ENTRY* extensionList, PELNIC_AOIDS aoid);

// The certificate's RSA exponent and modulus. PELNIC_ERR_CERT_INVALID if its key cannot be decoded or is not RSA,
// PELNIC_ERR_FAILED if the record is not a public key, PELNIC_ERR_SYS_MEM_OVERFLOW (unlogged) for more than 512 octets.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_extract_public_key(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                               PELNIC_BIGINT* e, PELNIC_BIGINT* n);
// Copies a decoded integer; PELNIC_ERR_NULL_POINTER, logged, for more than 512 octets.
[[nodiscard]] PELNIC_ERROR_CODE _pnvGetBigIntFromOcts(const PELNIC_VRF* pVrf, PELNIC_BIGINT* bigint,
                                                      const PELNIC_ASN_BIGINT* octs);

// "C=..,O=..,CN=.." of at most 255 characters, with the values' raw octets; the rest is left out. The caller frees the
// text. PELNIC_ERR_CERT_INVALID if an attribute's type is not in the table of identifiers.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_convert_from_x509_name(const PELNIC_VRF* pVrf, const PELNIC_X509_NAME* pName,
                                                              PNV_CHAR** ppReadableName, PNV_UINT32* pNameLen);

// Checks an RSA PKCS #1 v1.5 signature over nSrc octets. *pResult is 1 only if it verified; a wrong signature is not an
// error. PELNIC_ERR_NULL_POINTER for a null argument or a key of more than 512 octets (logged),
// PELNIC_ERR_UNSUPPORTED_ALGO if the key is not RSA, PELNIC_ERR_CERT_VERIFY if it is not a public key, or the crypto
// callbacks' code.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_pkey_verify(const PELNIC_VRF* pVrf, const PNV_BYTE* pbSrc, PNV_UINT32 nSrc,
                                                        const PNV_BYTE* pbSig, PNV_UINT32 nSig,
                                                        const PELNIC_PUBKEY* pPubKey, PELNIC_AOIDS hashAlgo,
                                                        PNV_BOOL* pResult);

#endif
