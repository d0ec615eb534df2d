// Decoding and releasing of signatures and timestamps. PELNIC_ERR_NULL_POINTER for a null argument; results are written
// only on success.
#ifndef PELNIC_CMS_PARSE_H
#define PELNIC_CMS_PARSE_H

#include "pelnic_cms_templ.h"

// Decodes a ContentInfo with SignedData; every certificate in it must decode. PELNIC_ERR_CMS_DECODE for any failure
// except a null argument or zero length.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pkcs7_decode_signed(const PELNIC_VRF* pVrf, const PNV_BYTE* data,
                                                           PNV_UINT32 length, PELNIC_PKCS7_CONTENT** ppContent,
                                                           PNV_UINT32* bytesDecoded);
void pelnic_pkcs7_free_signed(const PELNIC_VRF* pVrf, PELNIC_PKCS7_CONTENT* pContent);

// Decodes a TSTInfo. PELNIC_ERR_TSP_DECODE for any failure, including a zero length.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_decode_timestamp_token(const PELNIC_VRF* pVrf, const PNV_BYTE* data,
                                                              PNV_UINT32 length, PELNIC_TST_INFO** ppTstInfo,
                                                              PNV_UINT32* bytesDecoded);
void pelnic_free_timestamp_token(const PELNIC_VRF* pVrf, PELNIC_TST_INFO* pTstInfo);

// Decodes all certificates of raw elements, else PELNIC_ERR_CMS_DECODE (logged if one does not decode).
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeCert(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT_RAW_BUNDLE* pRawCerts,
                                               PELNIC_X509_CERT_BUNDLE** ppCerts);

#endif
