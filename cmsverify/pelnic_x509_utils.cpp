// Comparisons, lookups, conversions and the common signature check.
#include "pelnic_x509_utils.h"

#include "pelnic_asn1_utils.h"
#include "pelnic_plt_proxy.h"

constexpr PNV_UINT32 READABLE_NAME_SIZE = 256;
constexpr PNV_UINT32 ATTRIBUTE_TEXT_SIZE = 128;

PELNIC_ERROR_CODE pelnic_x509_compare_attr_entry(const PELNIC_VRF* pVrf, const PELNIC_X509_ATTR_ENTRY* pAttrEntryExpect,
                                                 const PELNIC_X509_ATTR_ENTRY* pAttrEntryActual)
{
    if (pVrf == nullptr || pAttrEntryExpect == nullptr || pAttrEntryActual == nullptr) return PELNIC_ERR_NULL_POINTER;
    const bool equal = pelnic_compare_asn_octs(pVrf, &pAttrEntryExpect->id, &pAttrEntryActual->id) == 0 &&
                       pelnic_compare_asn_octs(pVrf, &pAttrEntryExpect->value, &pAttrEntryActual->value) == 0;
    return equal ? 0 : PELNIC_ERR_FAILED;
}

PELNIC_ERROR_CODE pelnic_x509_compare_attr(const PELNIC_VRF* pVrf, const PELNIC_X509_ATTR_BUNDLE* pAttrExpect,
                                           const PELNIC_X509_ATTR_BUNDLE* pAttrActual)
{
    if (pVrf == nullptr || pAttrExpect == nullptr || pAttrActual == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (pAttrExpect->attrs.num != pAttrActual->attrs.num) return PELNIC_ERR_FAILED;
    for (PNV_UINT32 i = 0; i < pAttrExpect->attrs.num; ++i) {
        const PELNIC_ERROR_CODE rc =
            pelnic_x509_compare_attr_entry(pVrf, pAttrExpect->attrs.data[i], pAttrActual->attrs.data[i]);
        if (rc != 0) return rc;
    }
    return 0;
}

PELNIC_ERROR_CODE pelnic_compare_x509_name(const PELNIC_VRF* pVrf, const PELNIC_X509_NAME* name1,
                                           const PELNIC_X509_NAME* name2)
{
    if (pVrf == nullptr || name1 == nullptr || name2 == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (name1->names.num != name2->names.num) return PELNIC_ERR_FAILED;
    for (PNV_UINT32 i = 0; i < name1->names.num; ++i) {
        const PELNIC_ERROR_CODE rc = pelnic_x509_compare_attr(pVrf, name1->names.data[i], name2->names.data[i]);
        if (rc != 0) return rc;
    }
    return 0;
}

PELNIC_ERROR_CODE pelnic_compare_pubkey(const PELNIC_VRF* pVrf, const PELNIC_X509_PUBKEY_INFO* info1,
                                        const PELNIC_X509_PUBKEY_INFO* info2)
{
    if (pVrf == nullptr || info1 == nullptr || info2 == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (info1 == info2) return 0;
    const bool equal = pelnic_compare_asn_octs(pVrf, &info1->algorithm.algorithm, &info2->algorithm.algorithm) == 0 &&
                       pelnic_compare_asn_bits(pVrf, &info1->subjectPublicKey, &info2->subjectPublicKey) == 0;
    return equal ? 0 : PELNIC_ERR_FAILED;
}

const PELNIC_X509_EXTENSION_ENTRY* pelnic_x509_find_extn_by_aoid(
    const PELNIC_VRF* pVrf, const LIST_TYPE_PELNIC_X509_EXTENSION_ENTRY* extensionList, PELNIC_AOIDS aoid)
{
    if (pVrf == nullptr || extensionList == nullptr || aoid == AOID_UNKNOWN) return nullptr;
    const PELNIC_ASN_OID* const oid = pelnic_find_oid(pVrf, aoid);
    if (oid == nullptr) return nullptr;
    for (PNV_UINT32 i = 0; i < extensionList->num; ++i) {
        if (pelnic_compare_asn_octs(pVrf, oid, &extensionList->data[i]->extnId) == 0) return extensionList->data[i];
    }
    return nullptr;
}

static PELNIC_ERROR_CODE copyMagnitude(const PELNIC_VRF* pVrf, PELNIC_BIGINT* bigint, const PELNIC_ASN_BIGINT* octs)
{
    if (octs->len != 0) {
        const PELNIC_ERROR_CODE rc = pelnic_memcpy_s(pVrf, bigint->aVal, sizeof bigint->aVal, octs->octs, octs->len);
        if (rc != 0) return rc;
    }
    bigint->uiLength = octs->len;
    return 0;
}

// The RSA key of a decoded public key, or null.
static const PELNIC_RSA_PUBKEY* rsaPublicKey(const PELNIC_PUBKEY* pPubKey)
{
    const PELNIC_RSA_KEY* const pKey = static_cast<const PELNIC_RSA_KEY*>(pPubKey->pKey);
    return pKey != nullptr && pKey->keyType == PNV_RSA_PUBLIC_KEY ? pKey->key.pPubKey : nullptr;
}

PELNIC_ERROR_CODE pelnic_x509_extract_public_key(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                 PELNIC_BIGINT* e, PELNIC_BIGINT* n)
{
    if (pVrf == nullptr || pCert == nullptr || e == nullptr || n == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_PUBKEY* pPubKey = nullptr;
    ScopeExit freeKey{[&] { pelnic_free_pubkey(pVrf, pPubKey); }};
    if (pelnic_decode_pubkey(pVrf, pCert->toBeSigned->subjectPubKey, &pPubKey) != 0 || pPubKey->type != AOID_RSA) {
        return PELNIC_ERR_CERT_INVALID;
    }
    const PELNIC_RSA_PUBKEY* const pRsa = rsaPublicKey(pPubKey);
    if (pRsa == nullptr) return PELNIC_ERR_FAILED;
    const PELNIC_ERROR_CODE rc = copyMagnitude(pVrf, e, &pRsa->publicExponent);
    return rc != 0 ? rc : copyMagnitude(pVrf, n, &pRsa->modules);
}

PELNIC_ERROR_CODE _pnvGetBigIntFromOcts(const PELNIC_VRF* pVrf, PELNIC_BIGINT* bigint, const PELNIC_ASN_BIGINT* octs)
{
    if (pVrf == nullptr || bigint == nullptr || octs == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (octs->len <= sizeof bigint->aVal) return copyMagnitude(pVrf, bigint, octs);
    PNV_LOG(pVrf, PELNIC_LOG_TYPE_ERROR, PELNIC_ERR_FAILED, "Unsupported key length %d",
            static_cast<PNV_INT>(octs->len * 8));
    return PELNIC_ERR_NULL_POINTER;
}

// The prefix of an attribute's value, or null for a type that is not in the table of identifiers.
static const PNV_CHAR* attributePrefix(PELNIC_AOIDS type)
{
    switch (type) {
    case AOID_UNKNOWN: return nullptr;
    case AOID_AT_COMMONNAME: return "CN=";
    case AOID_AT_LOCALITYNAME: return "L=";
    case AOID_AT_STATEORPROVINCENAME: return "S=";
    case AOID_AT_ORGANIZATIONNAME: return "O=";
    case AOID_AT_ORGANIZATIONALUNITNAME: return "OU=";
    case AOID_AT_COUNTRYNAME: return "C=";
    case AOID_PKCS9_AT_EMAILADDRESS: return "E=";
    default: return "xx=";
    }
}

// Writes prefix and value into a zero-filled buffer. A value that leaves no room for the terminating zero loses its
// last octet, with a log record; a longer one is silently left out.
static PELNIC_ERROR_CODE formatAttribute(const PELNIC_VRF* pVrf, const PELNIC_X509_ATTR_ENTRY* pEntry,
                                         PNV_CHAR (&text)[ATTRIBUTE_TEXT_SIZE])
{
    const PNV_CHAR* const prefix = attributePrefix(pelnic_find_aoid(pVrf, &pEntry->id));
    if (prefix == nullptr) return PELNIC_ERR_CERT_INVALID;
    const PELNIC_ERROR_CODE rc = pelnic_strcpy_s(pVrf, text, sizeof text, prefix);
    if (rc != 0) return rc;
    const PNV_UINT32 prefixLength = pelnic_strlen(pVrf, prefix);
    const PNV_UINT32 room = ATTRIBUTE_TEXT_SIZE - prefixLength;
    const PELNIC_ASN_OCTS& value = pEntry->value;
    if (value.len == 0 || pelnic_memcpy_s(pVrf, text + prefixLength, room, value.octs, value.len) != 0) return 0;
    if (value.len == room) {
        text[ATTRIBUTE_TEXT_SIZE - 1] = '\0';
        PNV_LOG(pVrf, PELNIC_LOG_TYPE_ERROR, PELNIC_ERR_SYS_STR_OVERFLOW,
                "name attribute %s is too long, which is invalid.", prefix);
    }
    return 0;
}

// Appends an RDN's attributes up to the first that does not fit.
static PELNIC_ERROR_CODE appendRdn(const PELNIC_VRF* pVrf, const PELNIC_X509_ATTR_BUNDLE* pRdn, PNV_CHAR* name)
{
    for (PNV_UINT32 i = 0; i < pRdn->attrs.num; ++i) {
        PNV_CHAR text[ATTRIBUTE_TEXT_SIZE] = {};
        PELNIC_ERROR_CODE rc = formatAttribute(pVrf, pRdn->attrs.data[i], text);
        if (rc != 0) return rc;
        const PNV_UINT32 used = pelnic_strlen(pVrf, name);
        if (used + pelnic_strlen(pVrf, text) + 1 > READABLE_NAME_SIZE - 1) return 0;
        if (used != 0) rc = pelnic_strcat_s(pVrf, name, READABLE_NAME_SIZE, ",");
        if (rc == 0) rc = pelnic_strcat_s(pVrf, name, READABLE_NAME_SIZE, text);
        if (rc != 0) return rc;
    }
    return 0;
}

PELNIC_ERROR_CODE pelnic_convert_from_x509_name(const PELNIC_VRF* pVrf, const PELNIC_X509_NAME* pName,
                                                PNV_CHAR** ppReadableName, PNV_UINT32* pNameLen)
{
    if (pVrf == nullptr || pName == nullptr || ppReadableName == nullptr || pNameLen == nullptr) {
        return PELNIC_ERR_NULL_POINTER;
    }
    void* block = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_malloc_with0(pVrf, &block, READABLE_NAME_SIZE);
    if (rc != 0) return rc;
    PNV_CHAR* const name = static_cast<PNV_CHAR*>(block);
    for (PNV_UINT32 i = 0; i < pName->names.num; ++i) {
        rc = appendRdn(pVrf, pName->names.data[i], name);
        if (rc != 0) {
            pelnic_free(pVrf, name);
            return rc;
        }
    }
    *ppReadableName = name;
    *pNameLen = pelnic_strlen(pVrf, name);
    return 0;
}

// The calls of the crypto callbacks in a signature check.
static PELNIC_ERROR_CODE runVerification(const PELNIC_VRF* pVrf, const PNV_BYTE* pbSrc, PNV_UINT32 nSrc,
                                         const PNV_BYTE* pbSig, PNV_UINT32 nSig, const PELNIC_BIGINT* e,
                                         const PELNIC_BIGINT* n, PELNIC_AOIDS hashAlgo, PNV_BOOL* pResult)
{
    PELNIC_CRYPTO_VRF_CTX vrf = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_verify_ctx_create(pVrf, &vrf);
    if (rc != 0) return rc;
    ScopeExit destroy{[&] { pelnic_verify_ctx_destory(pVrf, vrf); }};
    rc = pelnic_verify_init(pVrf, vrf, e, n, hashAlgo);
    if (rc != 0) return rc;
    rc = pelnic_verify_update(pVrf, vrf, pbSrc, nSrc);
    if (rc != 0) return rc;
    PNV_INT verdict = 0;
    rc = pelnic_verify_final(pVrf, vrf, pbSig, nSig, &verdict);
    if (rc == 0) *pResult = verdict == 1 ? 1 : 0;
    return rc;
}

PELNIC_ERROR_CODE pelnic_x509_pkey_verify(const PELNIC_VRF* pVrf, const PNV_BYTE* pbSrc, PNV_UINT32 nSrc,
                                          const PNV_BYTE* pbSig, PNV_UINT32 nSig, const PELNIC_PUBKEY* pPubKey,
                                          PELNIC_AOIDS hashAlgo, PNV_BOOL* pResult)
{
    if (pbSrc == nullptr || pbSig == nullptr || pPubKey == nullptr || pResult == nullptr) {
        return PELNIC_ERR_NULL_POINTER;
    }
    *pResult = 0;
    if (pPubKey->type != AOID_RSA) return PELNIC_ERR_UNSUPPORTED_ALGO;
    const PELNIC_RSA_PUBKEY* const pRsa = rsaPublicKey(pPubKey);
    if (pRsa == nullptr) return PELNIC_ERR_CERT_VERIFY;
    PELNIC_BIGINT e = {};
    PELNIC_BIGINT n = {};
    PELNIC_ERROR_CODE rc = _pnvGetBigIntFromOcts(pVrf, &e, &pRsa->publicExponent);
    if (rc == 0) rc = _pnvGetBigIntFromOcts(pVrf, &n, &pRsa->modules);
    if (rc != 0) return rc;
    return runVerification(pVrf, pbSrc, nSrc, pbSig, nSig, &e, &n, hashAlgo, pResult);
}
