// Decoding and releasing of X.509 objects.
#include "pelnic_x509_parse.h"

#include "pelnic_asn1_decode.h"
#include "pelnic_asn1_utils.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_witness.h"

constexpr PNV_BYTE CONTENT_ONLY = PNV_TAG_CONTENT_ONLY;

// The length of the first element of the input, which has been decoded before.
static PNV_UINT32 encodedLength(const PELNIC_VRF* pVrf, const PNV_BYTE* encoded, PNV_UINT32 length)
{
    PELNIC_BUF b = {};
    PELNIC_BER_TAG tag = {};
    PNV_UINT32 tagOctets = 0;
    PNV_UINT32 lengthOctets = 0;
    PNV_UINT32 content = 0;
    if (pelnic_buf_init(&b, encoded, length) != 0 || pelnic_dec_tag(pVrf, &b, &tag, &tagOctets) != 0 ||
        pelnic_dec_len(pVrf, &b, &content, &lengthOctets) != 0) {
        return length;
    }
    return tagOctets + lengthOctets + content;
}

// The first object of an input; *bytesDecoded is the length of its encoding.
static PELNIC_ERROR_CODE decodeFirst(const PELNIC_VRF* pVrf, const PNV_BYTE* encoded, PNV_UINT32 length,
                                     const PELNIC_ASN1_ITEM* item, void** ppRecord, PNV_UINT32* bytesDecoded)
{
    if (bytesDecoded == nullptr) return PELNIC_ERR_NULL_POINTER;
    PNV_UINT32 consumed = 0;
    const PELNIC_ERROR_CODE rc = pelnic_asn_decode(pVrf, encoded, length, item, 0, ppRecord, &consumed);
    if (rc == 0) *bytesDecoded = encodedLength(pVrf, encoded, length);
    return rc;
}

// A certificate or CRL with its first reference.
template <const PELNIC_ASN1_ITEM& item>
static PELNIC_ERROR_CODE decodeCounted(const PELNIC_VRF* pVrf, const PNV_BYTE* encoded, PNV_UINT32 length,
                                       typename RecordOf<item>::type** ppRecord, PNV_UINT32* bytesDecoded)
{
    const PELNIC_ERROR_CODE rc =
        decodeFirst(pVrf, encoded, length, &item, reinterpret_cast<void**>(ppRecord), bytesDecoded);
    if (rc == 0) (*ppRecord)->iRef = 1;
    return rc;
}

PELNIC_ERROR_CODE pelnic_x509_decode_cert(const PELNIC_VRF* pVrf, const PNV_BYTE* pbEncodedCert,
                                          PNV_UINT32 nEncodedLength, PELNIC_X509_CERT** ppCert,
                                          PNV_UINT32* bytesDecoded)
{
    return decodeCounted<PELNIC_X509_CERT_item>(pVrf, pbEncodedCert, nEncodedLength, ppCert, bytesDecoded);
}

PELNIC_ERROR_CODE pelnic_x509_decode_crl(const PELNIC_VRF* pVrf, const PNV_BYTE* pbEncodedCrl, PNV_UINT32 nEncodedLen,
                                         PELNIC_X509_CRL** ppCrl, PNV_UINT32* bytesDecoded)
{
    return decodeCounted<PELNIC_X509_CRL_item>(pVrf, pbEncodedCrl, nEncodedLen, ppCrl, bytesDecoded);
}

PELNIC_ERROR_CODE pelnic_x509_decode_cert_by_asnocts(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* pAsnOcts,
                                                     PELNIC_X509_CERT** ppCert, PNV_UINT32* bytesDecoded)
{
    if (pVrf == nullptr || pAsnOcts == nullptr || ppCert == nullptr || bytesDecoded == nullptr) {
        return PELNIC_ERR_NULL_POINTER;
    }
    const PELNIC_ASN1_ITEM& item = PELNIC_X509_CERT_item;
    const PELNIC_BER_TAG expected = pelnic_make_tag(item.ber_class, item.ber_form, item.ber_code);
    if (pelnic_compare_tag(pVrf, &expected, &pAsnOcts->tag) != 0) return PNV_WHY(Tag, PELNIC_ERR_CERT_INVALID);
    PNV_UINT32 consumed = 0;
    const PELNIC_ERROR_CODE rc =
        _pnvDecode<PELNIC_X509_CERT_item>(pVrf, pAsnOcts->octs, pAsnOcts->len, CONTENT_ONLY, ppCert, &consumed);
    if (rc != 0) return rc;
    (*ppCert)->iRef = 1;
    *bytesDecoded = pAsnOcts->len;
    return 0;
}

void pelnic_x509_free_cert(const PELNIC_VRF* pVrf, PELNIC_X509_CERT* pCert)
{
    if (pCert == nullptr || --pCert->iRef >= 1) return;
    pelnic_asn_free(pVrf, pCert, &PELNIC_X509_CERT_item, CONTENT_ONLY);
}

void pelnic_x509_free_crl(const PELNIC_VRF* pVrf, PELNIC_X509_CRL* pCrl)
{
    if (pCrl == nullptr || --pCrl->iRef >= 1) return;
    pelnic_asn_free(pVrf, pCrl, &PELNIC_X509_CRL_item, 0);
}

void _pnvFreeCertElement(PELNIC_VRF* pVrf, void* pCert)
{
    pelnic_x509_free_cert(pVrf, static_cast<PELNIC_X509_CERT*>(pCert));
}

void _pnvFreeCrlElement(PELNIC_VRF* pVrf, void* pCrl)
{
    pelnic_x509_free_crl(pVrf, static_cast<PELNIC_X509_CRL*>(pCrl));
}

PELNIC_ERROR_CODE _pnvDecodeRsaPubkey(const PELNIC_VRF* pVrf, const PNV_BYTE* pbEncoded, PNV_UINT32 nEncoded,
                                      PELNIC_RSA_KEY** ppRsaKey)
{
    if (pVrf == nullptr || pbEncoded == nullptr || nEncoded == 0 || ppRsaKey == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_RSA_KEY* pKey = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewRecord(pVrf, &pKey);
    if (rc != 0) return rc;
    PNV_UINT32 consumed = 0;
    rc = _pnvDecode<PELNIC_RSA_PUBKEY_item>(pVrf, pbEncoded, nEncoded, 0, &pKey->key.pPubKey, &consumed);
    if (rc != 0) {
        pelnic_free(pVrf, pKey);
        return rc;
    }
    const PELNIC_ASN_BIGINT& modulus = pKey->key.pPubKey->modules;
    pKey->bits = modulus.len == 1 && modulus.octs[0] == 0 ? 0 : modulus.len * 8;
    pKey->keyType = PNV_RSA_PUBLIC_KEY;
    *ppRsaKey = pKey;
    return 0;
}

void _pnvFreeRsaPubkey(const PELNIC_VRF* pVrf, PELNIC_RSA_KEY* pRsaKey)
{
    if (pRsaKey == nullptr) return;
    pelnic_asn_free(pVrf, pRsaKey->key.pPubKey, &PELNIC_RSA_PUBKEY_item, 0);
    pelnic_free(pVrf, pRsaKey);
}

PELNIC_ERROR_CODE pelnic_decode_pubkey(const PELNIC_VRF* pVrf, const PELNIC_X509_PUBKEY_INFO* pPubKeyInfo,
                                       PELNIC_PUBKEY** ppPubKey)
{
    if (pVrf == nullptr || pPubKeyInfo == nullptr || ppPubKey == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_PUBKEY* pPubKey = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewRecord(pVrf, &pPubKey);
    if (rc != 0) return rc;
    ScopeExit freeKey{[&] { pelnic_free(pVrf, pPubKey); }};
    const PELNIC_AOIDS algorithm = pelnic_find_aoid(pVrf, &pPubKeyInfo->algorithm.algorithm);
    if (algorithm == AOID_UNKNOWN) return PELNIC_ERR_UNSUPPORTED_ALGO;
    if (algorithm == AOID_RSA) {
        const PELNIC_ASN_BITS& encoded = pPubKeyInfo->subjectPublicKey;
        PELNIC_RSA_KEY* pRsaKey = nullptr;
        rc = _pnvDecodeRsaPubkey(pVrf, encoded.bits, encoded.byteLen, &pRsaKey);
        if (rc != 0) return rc;
        pPubKey->pKey = pRsaKey;
    }
    pPubKey->type = algorithm;
    freeKey.armed = false;
    *ppPubKey = pPubKey;
    return 0;
}

void pelnic_free_pubkey(const PELNIC_VRF* pVrf, PELNIC_PUBKEY* pPubKey)
{
    if (pPubKey == nullptr) return;
    if (pPubKey->type == AOID_RSA) _pnvFreeRsaPubkey(pVrf, static_cast<PELNIC_RSA_KEY*>(pPubKey->pKey));
    pelnic_free(pVrf, pPubKey);
}

struct ExtensionType {
    PELNIC_AOIDS id;
    const PELNIC_ASN1_ITEM* item; // of the value
};
constexpr ExtensionType EXTENSION_TYPES[] = {
    {AOID_CE_AUTHORITYKEYIDENTIFIER, &PELNIC_X509_AUTHORITY_KID_item},
    {AOID_CE_SUBJECTKEYIDENTIFIER, &PELNIC_ASN_OCTS_item},
    {AOID_CE_KEYUSAGE, &PELNIC_ASN_BITS_item},
    {AOID_CE_BASICCONSTRAINTS, &PELNIC_X509_BASIC_CONSTRAINTS_item},
    {AOID_CE_EXTKEYUSAGE, &PELNIC_ASN_OID_BUNDLE_item},
    {AOID_CE_ISSUINGDISTRIBUTIONPOINT, &PELNIC_X509_ISSUING_DIST_POINT_item},
    {AOID_CE_CRLREASONS, &PELNIC_ASN_ENUM_item},
};

// The item of an extension's value, or null.
static const PELNIC_ASN1_ITEM* extensionItem(PELNIC_AOIDS extenId)
{
    for (const ExtensionType& type : EXTENSION_TYPES) {
        if (type.id == extenId) return type.item;
    }
    return nullptr;
}

PELNIC_ERROR_CODE pelnic_decode_x509_extension(const PELNIC_VRF* pVrf, const PELNIC_X509_EXTENSION_ENTRY* pExtnEntry,
                                               void** pResult)
{
    if (pVrf == nullptr || pExtnEntry == nullptr || pResult == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PELNIC_ASN1_ITEM* const pItem = extensionItem(pelnic_find_aoid(pVrf, &pExtnEntry->extnId));
    if (pItem == nullptr) return PELNIC_ERR_FAILED;
    PNV_UINT32 consumed = 0;
    const PELNIC_ASN_OCTS& value = pExtnEntry->extnValue;
    return pelnic_asn_decode(pVrf, value.octs, value.len, pItem, 0, pResult, &consumed);
}

void pelnic_free_x509_extension(const PELNIC_VRF* pVrf, PELNIC_AOIDS extenId, void* pExtn)
{
    pelnic_asn_free(pVrf, pExtn, extensionItem(extenId), 0);
}
