// Decoding and releasing of signatures and timestamps. PELNIC_ERR_NULL_POINTER for a null argument; results are written
// only on success.
#ifndef PELNIC_CMS_PARSE_H
#define PELNIC_CMS_PARSE_H

#include "pelnic_cms_templ.h"

// Decodes a ContentInfo with SignedData; every certificate in it must decode. Any failure, but for a null argument or
// zero length, is PELNIC_ERR_CMS_DECODE.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pkcs7_decode_signed(const PELNIC_VRF* pVrf, const PNV_BYTE* data,
                                                           PNV_UINT32 length, PELNIC_PKCS7_CONTENT** ppContent,
                                                           PNV_UINT32* bytesDecoded);
void pelnic_pkcs7_free_signed(const PELNIC_VRF* pVrf, PELNIC_PKCS7_CONTENT* pContent);

// Decodes a TSTInfo. Any failure, a zero length included, is PELNIC_ERR_TSP_DECODE.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_decode_timestamp_token(const PELNIC_VRF* pVrf, const PNV_BYTE* data,
                                                              PNV_UINT32 length, PELNIC_TST_INFO** ppTstInfo,
                                                              PNV_UINT32* bytesDecoded);
void pelnic_free_timestamp_token(const PELNIC_VRF* pVrf, PELNIC_TST_INFO* pTstInfo);

// The certificates of raw elements, all of them or PELNIC_ERR_CMS_DECODE (logged when one does not decode).
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeCert(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT_RAW_BUNDLE* pRawCerts,
                                               PELNIC_X509_CERT_BUNDLE** ppCerts);

#endif
