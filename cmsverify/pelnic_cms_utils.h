// Attributes of a SignerInfo (RFC 5652, 5.3 and 11; RFC 3161, appendix A).
#ifndef PELNIC_CMS_UTILS_H
#define PELNIC_CMS_UTILS_H

#include "pelnic_cms_parse.h"

// Decodes the first attribute of an identifier into a new record:
//     AOID_PKCS9_AT_MESSAGEDIGEST    PELNIC_DATA_BLOCK
//     AOID_PKCS9_AT_TIMESTAMP_TOKEN  PELNIC_PKCS7_CONTENT
// For any other attribute that is present, succeeds and leaves *ppResult untouched. PELNIC_ERR_NULL_POINTER for a null
// argument, and so for absent attributes; else PELNIC_ERR_CMS_DECODE.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_extract_attribute(const PELNIC_VRF* pVrf,
                                                              const PELNIC_X509_ATTR_BUNDLE* pAttrBundle,
                                                              PELNIC_AOIDS aoid, void** ppResult);
// Frees such a record; does nothing for another identifier or null.
void pelnic_x509_free_attribute(const PELNIC_VRF* pVrf, void* pResult, PELNIC_AOIDS aoid);

// For the list search: compares an OID with an attribute's type.
[[nodiscard]] PNV_INT _pnvCmpP7AttrType(const PELNIC_VRF* pVrf, const void* pOid, const void* pAttrEntry);
// The content of the first element of the attribute's value, whatever its tag.
[[nodiscard]] PELNIC_ERROR_CODE _pnvExtractP9MessageDigest(const PELNIC_VRF* pVrf, const PELNIC_X509_ATTR_ENTRY* pEntry,
                                                           void** ppResult);
[[nodiscard]] PELNIC_ERROR_CODE _pnvExtractP9TimeStampToken(const PELNIC_VRF* pVrf,
                                                            const PELNIC_X509_ATTR_ENTRY* pEntry, void** ppResult);

#endif
