// Decodes a verified signature and its CRLs again, with the same decoder; and limits the work of a verification.
#include "rules.h"

#include "crl_scope.h"

#include "cmsverify/cms_verify.h"
#include "cmsverify/pelnic_asn1_decode.h"
#include "cmsverify/pelnic_asn1_utils.h"
#include "cmsverify/pelnic_cms_utils.h"
#include "cmsverify/pelnic_list.h"
#include "cmsverify/pelnic_pki_impl.h"
#include "cmsverify/pelnic_x509_utils.h"

static const char* const UNREADABLE = "the signature cannot be read again";

static bool hasAttributes(const PELNIC_PKCS7_SIGNER_INFO& signer)
{
    return signer.auth_attrs != nullptr && signer.auth_attrs->attrs.num != 0;
}

// Whether the content-type attribute has one value, the type of the signed content.
static bool statesContentType(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO& signer,
                              const PELNIC_ASN_OID& contentType)
{
    const void* const pFound = pelnic_list_search(pVrf, _pnvAsList(&signer.auth_attrs->attrs),
                                                  pelnic_find_oid(pVrf, AOID_PKCS9_AT_CONTENTTYPE), _pnvCmpP7AttrType);
    if (pFound == nullptr) return false;
    const PELNIC_ASN_OCTS& values = static_cast<const PELNIC_X509_ATTR_ENTRY*>(pFound)->value;
    PELNIC_ASN_OCTS* pValue = nullptr;
    PNV_UINT32 decoded = 0;
    if (_pnvDecode<PELNIC_ASN_OCTS_item>(pVrf, values.octs, values.len, 0, &pValue, &decoded) != 0) return false;
    const bool isStated = decoded == values.len && pelnic_compare_asn_octs(pVrf, &contentType, pValue) == 0;
    pelnic_asn_free(pVrf, pValue, &PELNIC_ASN_OCTS_item, 0);
    return isStated;
}

static bool signersStateContentType(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNED_DATA& signedData)
{
    const LIST_TYPE_PELNIC_PKCS7_SIGNER_INFO& signers = signedData.signer_infos->infos;
    for (PNV_UINT32 i = 0; i < signers.num; ++i) {
        const PELNIC_PKCS7_SIGNER_INFO& signer = *signers.data[i];
        if (hasAttributes(signer) && !statesContentType(pVrf, signer, signedData.content->type)) return false;
    }
    return true;
}

// 1.2.840.113549.1.9.16.1.4, id-ct-TSTInfo (RFC 3161, 2.4.2)
static bool isTstInfo(const PELNIC_ASN_OID& type)
{
    static constexpr PNV_BYTE TST_INFO[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x10, 0x01, 0x04};
    if (type.tag.code != CBT_OID || type.len != sizeof TST_INFO) return false;
    for (PNV_UINT32 i = 0; i < type.len; ++i) {
        if (type.octs[i] != TST_INFO[i]) return false;
    }
    return true;
}

// ---- CRLs

// Whether a list has a certificate with this issuer.
static bool isIssuerOfAny(const PELNIC_VRF* pVrf, const PELNIC_X509_NAME* issuer,
                          const LIST_TYPE_PELNIC_X509_CERT& certs)
{
    for (PNV_UINT32 i = 0; i < certs.num; ++i) {
        if (pelnic_compare_x509_name(pVrf, certs.data[i]->toBeSigned->issuer, issuer) == 0) return true;
    }
    return false;
}

static const char* scopeRefusal(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL& crl)
{
    const PNV_UINT32 scope = pkgcheck_crl_scope(pVrf, &crl);
    if ((scope & PKGCHECK_CRL_UNREADABLE) != 0) return "a CRL does not tell what it speaks for";
    if ((scope & PKGCHECK_CRL_DELTA) != 0) return "a CRL is a delta CRL";
    if ((scope & PKGCHECK_CRL_INDIRECT) != 0) return "a CRL is an indirect one";
    if ((scope & PKGCHECK_CRL_ATTRIBUTES_ONLY) != 0) return "a CRL speaks for attribute certificates only";
    if ((scope & PKGCHECK_CRL_SOME_REASONS) != 0) return "a CRL speaks for some reasons only";
    if ((scope & PKGCHECK_CRL_ONE_POINT) != 0) return "a CRL speaks for one distribution point only";
    const PELNIC_X509_NAME* const issuer = crl.tbs_cert_list->issuer;
    const PELNIC_PKI_STORE& store = static_cast<const PELNIC_PKI*>(pVrf->pki_ctx)->pki_store;
    if ((scope & PKGCHECK_CRL_CAS_ONLY) != 0 && store.local_store != nullptr &&
        isIssuerOfAny(pVrf, issuer, store.local_store->local_certs)) {
        return "a CRL speaks for CA certificates only, and its issuer issued another";
    }
    if ((scope & PKGCHECK_CRL_USERS_ONLY) != 0 && store.trust_store != nullptr &&
        isIssuerOfAny(pVrf, issuer, store.trust_store->ca_certs)) {
        return "a CRL speaks for no CA certificates, and its issuer issued one";
    }
    return nullptr;
}

// Every CRL of the package, used or not; the stores hold all its certificates except roots.
static const char* scopesRefusal(const PELNIC_VRF* pVrf)
{
    for (PNV_UINT32 i = 0; i < pVrf->crl_list.num; ++i) {
        const char* const reason = scopeRefusal(pVrf, *pVrf->crl_list.data[i]);
        if (reason != nullptr) return reason;
    }
    return nullptr;
}

// Whether a CRL was issued after base_time. Such a CRL may omit a revoked certificate that has expired since.
static const char* issueRefusal(const PELNIC_VRF* pVrf)
{
    for (PNV_UINT32 i = 0; i < pVrf->crl_list.num; ++i) {
        PNV_TIME_T issued = 0;
        const PELNIC_ASN_OCTS* const thisUpdate = pVrf->crl_list.data[i]->tbs_cert_list->this_update;
        if (pelnic_convert_datetime_to_time(pVrf, thisUpdate, &issued) != 0) return "a CRL does not tell its date";
        if (issued > pVrf->base_time) return "a CRL was issued after the signing time";
    }
    return nullptr;
}

// ---- Timestamps

static const char* tokenRefusal(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO& signer,
                                const PELNIC_PKCS7_SIGNED_DATA& token)
{
    if (token.signer_infos->infos.num == 0) return "nobody signed the timestamp";
    if (!signersStateContentType(pVrf, token)) return "a timestamp's signed attributes lack its content type";
    if (!isTstInfo(token.content->type)) return "a timestamp's content is not of the type TSTInfo";
    PELNIC_ASN_OCTS* pInfo = nullptr;
    PNV_UINT32 decoded = 0;
    const PELNIC_ASN_OCTS& content = *token.content->content; // not null, because it verified
    if (_pnvDecode<PELNIC_ASN_OCTS_item>(pVrf, content.octs, content.len, 0, &pInfo, &decoded) != 0) return UNREADABLE;
    const PELNIC_ERROR_CODE rc = _pnvVerifyTstInfo(pVrf, pInfo, &signer); // sets base_time
    pelnic_asn_free(pVrf, pInfo, &PELNIC_ASN_OCTS_item, 0);
    return rc != 0 ? UNREADABLE : issueRefusal(pVrf);
}

static const char* timestampRefusal(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO& signer)
{
    void* pResult = nullptr;
    if (pelnic_x509_extract_attribute(pVrf, signer.unauth_attrs, AOID_PKCS9_AT_TIMESTAMP_TOKEN, &pResult) != 0) {
        return UNREADABLE;
    }
    const PELNIC_PKCS7_CONTENT* const pToken = static_cast<PELNIC_PKCS7_CONTENT*>(pResult);
    (void)_pnvExtractCertsIntoVerifyContext(pVrf, pToken);
    const char* const reason = tokenRefusal(pVrf, signer, *pToken->signed_data);
    pelnic_x509_free_attribute(pVrf, pResult, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    return reason;
}

// ---- Signatures

// Whether the payload could be the signed attributes of another signer's signature.
static bool isSignedAttributes(const PELNIC_VRF* pVrf, const PNV_BYTE* payload, PNV_UINT32 length)
{
    PELNIC_X509_ATTR_BUNDLE* pAttributes = nullptr;
    PNV_UINT32 decoded = 0;
    if (_pnvDecode<PELNIC_X509_ATTR_BUNDLE_item>(pVrf, payload, length, 0, &pAttributes, &decoded) != 0) return false;
    pelnic_asn_free(pVrf, pAttributes, &PELNIC_X509_ATTR_BUNDLE_item, 0);
    return decoded == length;
}

static const char* signatureRefusal(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNED_DATA& signedData,
                                    const PELNIC_VERIFY_SIGNATURE_S& sig)
{
    const LIST_TYPE_PELNIC_PKCS7_SIGNER_INFO& signers = signedData.signer_infos->infos;
    PNV_UINT32 withoutAttributes = 0;
    for (PNV_UINT32 i = 0; i < signers.num; ++i) {
        const char* const reason = timestampRefusal(pVrf, *signers.data[i]);
        if (reason != nullptr) return reason;
        if (!hasAttributes(*signers.data[i])) ++withoutAttributes;
    }
    if (withoutAttributes > 1) return "several signers have no signed attributes";
    if (!signersStateContentType(pVrf, signedData)) return "signed attributes lack the content type";
    if (withoutAttributes != 0 && isSignedAttributes(pVrf, sig.pBin, sig.uiBinLength)) {
        return "the payload is another signature's signed attributes";
    }
    return scopesRefusal(pVrf);
}

const char* pkgcheck_unsigned_refusal()
{
    return "the package is not signed";
}

const char* pkgcheck_signature_refusal(const PELNIC_VERIFY_SIGNATURE_S* pstSig)
{
    PELNIC_CTX_CREATE_PARAMS params = {};
    params.st_size = sizeof params;
    PELNIC_VRF_CTX ctx = nullptr;
    if (pelnic_set_callback_funcs(&params.callback_funcs) != 0 || pelnic_verify_create_ctx(&ctx, &params) != 0) {
        return UNREADABLE;
    }
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    const char* reason = UNREADABLE;
    PELNIC_PKCS7_CONTENT* pContent = nullptr;
    if (pelnic_verify_add_crl(ctx, pstSig->pCrl, pstSig->uiCrlLength) == 0 &&
        _pnvDecodeCms(pVrf, pstSig->pCms, pstSig->uiCmsLength, &pContent) == 0) {
        (void)_pnvExtractCertsIntoVerifyContext(pVrf, pContent);
        reason = signatureRefusal(pVrf, *pContent->signed_data, *pstSig);
        pelnic_pkcs7_free_signed(pVrf, pContent);
        if (pVrf->nCallbackFaults != 0) reason = UNREADABLE; // without memory a payload may look harmless
    }
    (void)pelnic_vrf_ctx_free(ctx); // a context made here can be freed
    return reason;
}

// ---- Work

constexpr PNV_UINT32 MAX_CHECKS = 1000; // an ordinary package needs 10, and 2 more per further signer
constexpr PNV_UINT32 MAX_EXPONENT = 8;  // octets

// State of one verification: callbacks have no context.
static pfunc_pelnic_verify_init unlimitedInit;
static PNV_UINT32 checks;
static const char* stoppedBy;

// Under an exponent of 1 everything is its own signature.
static bool isBelow3(const PELNIC_BIGINT& exponent)
{
    PNV_UINT32 length = exponent.uiLength;
    const PNV_BYTE* octets = exponent.aVal;
    for (; length > 1 && *octets == 0; --length) ++octets;
    return length == 0 || (length == 1 && *octets < 3);
}

static PELNIC_ERROR_CODE limitedInit(PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e, const PELNIC_BIGINT* n,
                                     PNV_UINT32 hashId)
{
    if (isBelow3(*e)) stoppedBy = "an RSA exponent is below 3";
    if (e->uiLength > MAX_EXPONENT) stoppedBy = "an RSA exponent has more than 64 bits";
    if (++checks > MAX_CHECKS) stoppedBy = "there are more than 1000 signatures to check";
    return stoppedBy != nullptr ? PELNIC_ERR_FAILED : unlimitedInit(ctx, e, n, hashId);
}

void pkgcheck_limit_work(PELNIC_CALLBACK_FUNCS* pFuncs)
{
    unlimitedInit = pFuncs->crypt_funcs.pelnic_verify_init;
    pFuncs->crypt_funcs.pelnic_verify_init = limitedInit;
    checks = 0;
    stoppedBy = nullptr;
}

const char* pkgcheck_work_refusal()
{
    return stoppedBy;
}
