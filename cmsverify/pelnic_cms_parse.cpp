// Decoding and releasing of signatures and timestamps.
#include "pelnic_cms_parse.h"

#include "pelnic_asn1_decode.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_witness.h"
#include "pelnic_x509_parse.h"

static void freeCertBundle(const PELNIC_VRF* pVrf, PELNIC_X509_CERT_BUNDLE* pCerts)
{
    if (pCerts == nullptr) return;
    for (PNV_UINT32 i = 0; i < pCerts->certs.num; ++i) pelnic_x509_free_cert(pVrf, pCerts->certs.data[i]);
    pelnic_free(pVrf, pCerts->certs.data);
    pelnic_free(pVrf, pCerts);
}

static PELNIC_ERROR_CODE appendDecoded(const PELNIC_VRF* pVrf, PELNIC_X509_CERT_BUNDLE* pCerts,
                                       const PELNIC_ASN_OCTS* pRaw)
{
    PELNIC_X509_CERT* pCert = nullptr;
    PNV_UINT32 consumed = 0;
    PELNIC_ERROR_CODE rc = pelnic_x509_decode_cert_by_asnocts(pVrf, pRaw, &pCert, &consumed);
    if (rc != 0) return rc;
    rc = pelnic_list_add(pVrf, _pnvAsList(&pCerts->certs), pCert, CLSP_END);
    if (rc != 0) pelnic_x509_free_cert(pVrf, pCert);
    return rc;
}

PELNIC_ERROR_CODE _pnvDecodeCert(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT_RAW_BUNDLE* pRawCerts,
                                 PELNIC_X509_CERT_BUNDLE** ppCerts)
{
    if (pVrf == nullptr || pRawCerts == nullptr || ppCerts == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_X509_CERT_BUNDLE* pCerts = nullptr;
    if (_pnvNewRecord(pVrf, &pCerts) != 0) return PELNIC_ERR_CMS_DECODE;
    ScopeExit freeCerts{[&] { freeCertBundle(pVrf, pCerts); }};
    if (pelnic_list_init(pVrf, _pnvAsList(&pCerts->certs), pRawCerts->bundle.num) != 0) return PELNIC_ERR_CMS_DECODE;
    for (PNV_UINT32 i = 0; i < pRawCerts->bundle.num; ++i) {
        PNV_DECODING(nullptr, nullptr, "certificates", i);
        if (appendDecoded(pVrf, pCerts, pRawCerts->bundle.data[i]) != 0) {
            return PNV_FAIL(pVrf, PELNIC_ERR_CMS_DECODE);
        }
    }
    freeCerts.armed = false;
    *ppCerts = pCerts;
    return 0;
}

PELNIC_ERROR_CODE pelnic_pkcs7_decode_signed(const PELNIC_VRF* pVrf, const PNV_BYTE* data, PNV_UINT32 length,
                                             PELNIC_PKCS7_CONTENT** ppContent, PNV_UINT32* bytesDecoded)
{
    if (pVrf == nullptr || data == nullptr || length == 0 || ppContent == nullptr || bytesDecoded == nullptr) {
        return PELNIC_ERR_NULL_POINTER;
    }
    PELNIC_PKCS7_CONTENT* pContent = nullptr;
    PNV_UINT32 consumed = 0;
    if (_pnvDecode<PELNIC_PKCS7_CONTENT_item>(pVrf, data, length, 0, &pContent, &consumed) != 0) {
        return PELNIC_ERR_CMS_DECODE;
    }
    PELNIC_PKCS7_SIGNED_DATA* const pSigned = pContent->signed_data;
    if (pSigned->raw_certs != nullptr && pSigned->raw_certs->bundle.num != 0 &&
        _pnvDecodeCert(pVrf, pSigned->raw_certs, &pSigned->certificates) != 0) {
        pelnic_pkcs7_free_signed(pVrf, pContent);
        return PELNIC_ERR_CMS_DECODE;
    }
    *ppContent = pContent;
    *bytesDecoded = consumed;
    return 0;
}

void pelnic_pkcs7_free_signed(const PELNIC_VRF* pVrf, PELNIC_PKCS7_CONTENT* pContent)
{
    if (pVrf == nullptr || pContent == nullptr) return;
    if (pContent->signed_data != nullptr) freeCertBundle(pVrf, pContent->signed_data->certificates);
    pelnic_asn_free(pVrf, pContent, &PELNIC_PKCS7_CONTENT_item, 0);
}

PELNIC_ERROR_CODE pelnic_decode_timestamp_token(const PELNIC_VRF* pVrf, const PNV_BYTE* data, PNV_UINT32 length,
                                                PELNIC_TST_INFO** ppTstInfo, PNV_UINT32* bytesDecoded)
{
    if (pVrf == nullptr || data == nullptr || ppTstInfo == nullptr || bytesDecoded == nullptr) {
        return PELNIC_ERR_NULL_POINTER;
    }
    const PELNIC_ERROR_CODE rc = _pnvDecode<PELNIC_TST_INFO_item>(pVrf, data, length, 0, ppTstInfo, bytesDecoded);
    return rc == 0 ? 0 : PELNIC_ERR_TSP_DECODE;
}

void pelnic_free_timestamp_token(const PELNIC_VRF* pVrf, PELNIC_TST_INFO* pTstInfo)
{
    pelnic_asn_free(pVrf, pTstInfo, &PELNIC_TST_INFO_item, 0);
}
