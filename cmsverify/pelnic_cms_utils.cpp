// Attributes of a SignerInfo.
#include "pelnic_cms_utils.h"

#include "pelnic_asn1_decode.h"
#include "pelnic_asn1_utils.h"
#include "pelnic_plt_proxy.h"

PNV_INT _pnvCmpP7AttrType(const PELNIC_VRF* pVrf, const void* pOid, const void* pAttrEntry)
{
    return pelnic_compare_asn_octs(pVrf, static_cast<const PELNIC_ASN_OID*>(pOid),
                                   &static_cast<const PELNIC_X509_ATTR_ENTRY*>(pAttrEntry)->id);
}

static PELNIC_ERROR_CODE newBlockOf(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* pOcts, void** ppResult)
{
    PELNIC_DATA_BLOCK* pBlock = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewRecord(pVrf, &pBlock);
    if (rc != 0) return rc;
    rc = pelnic_db_set(pVrf, pBlock, pOcts->octs, pOcts->len);
    if (rc != 0) {
        pelnic_x509_free_attribute(pVrf, pBlock, AOID_PKCS9_AT_MESSAGEDIGEST);
        return rc;
    }
    *ppResult = pBlock;
    return 0;
}

PELNIC_ERROR_CODE _pnvExtractP9MessageDigest(const PELNIC_VRF* pVrf, const PELNIC_X509_ATTR_ENTRY* pEntry,
                                             void** ppResult)
{
    PELNIC_ASN_OCTS* pDigest = nullptr;
    PNV_UINT32 consumed = 0;
    PELNIC_ERROR_CODE rc =
        _pnvDecode<PELNIC_ASN_OCTS_item>(pVrf, pEntry->value.octs, pEntry->value.len, 0, &pDigest, &consumed);
    if (rc != 0) return PELNIC_ERR_CMS_DECODE;
    rc = newBlockOf(pVrf, pDigest, ppResult);
    pelnic_asn_free(pVrf, pDigest, &PELNIC_ASN_OCTS_item, 0);
    return rc == 0 ? 0 : PELNIC_ERR_CMS_DECODE;
}

PELNIC_ERROR_CODE _pnvExtractP9TimeStampToken(const PELNIC_VRF* pVrf, const PELNIC_X509_ATTR_ENTRY* pEntry,
                                              void** ppResult)
{
    PELNIC_PKCS7_CONTENT* pToken = nullptr;
    PNV_UINT32 consumed = 0;
    const PELNIC_ERROR_CODE rc =
        pelnic_pkcs7_decode_signed(pVrf, pEntry->value.octs, pEntry->value.len, &pToken, &consumed);
    if (rc != 0 || pToken == nullptr) return PELNIC_ERR_CMS_DECODE;
    *ppResult = pToken;
    return 0;
}

PELNIC_ERROR_CODE pelnic_x509_extract_attribute(const PELNIC_VRF* pVrf, const PELNIC_X509_ATTR_BUNDLE* pAttrBundle,
                                                PELNIC_AOIDS aoid, void** ppResult)
{
    if (pVrf == nullptr || pAttrBundle == nullptr || ppResult == nullptr) return PELNIC_ERR_NULL_POINTER;
    const void* const pEntry =
        pelnic_list_search(pVrf, _pnvAsList(&pAttrBundle->attrs), pelnic_find_oid(pVrf, aoid), _pnvCmpP7AttrType);
    if (pEntry == nullptr) return PELNIC_ERR_CMS_DECODE;
    switch (aoid) {
    case AOID_PKCS9_AT_MESSAGEDIGEST:
        return _pnvExtractP9MessageDigest(pVrf, static_cast<const PELNIC_X509_ATTR_ENTRY*>(pEntry), ppResult);
    case AOID_PKCS9_AT_TIMESTAMP_TOKEN:
        return _pnvExtractP9TimeStampToken(pVrf, static_cast<const PELNIC_X509_ATTR_ENTRY*>(pEntry), ppResult);
    default: return 0;
    }
}

void pelnic_x509_free_attribute(const PELNIC_VRF* pVrf, void* pResult, PELNIC_AOIDS aoid)
{
    if (pVrf == nullptr || pResult == nullptr) return;
    if (aoid == AOID_PKCS9_AT_TIMESTAMP_TOKEN) {
        pelnic_pkcs7_free_signed(pVrf, static_cast<PELNIC_PKCS7_CONTENT*>(pResult));
    } else if (aoid == AOID_PKCS9_AT_MESSAGEDIGEST) {
        pelnic_db_free(pVrf, static_cast<PELNIC_DATA_BLOCK*>(pResult));
        pelnic_free(pVrf, pResult);
    }
}
