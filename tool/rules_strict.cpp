// Reads a verified signature again, with the decoder that verified it.
#include "rules.h"

#include "cmsverify/cms_verify.h"
#include "cmsverify/pelnic_asn1_decode.h"
#include "cmsverify/pelnic_asn1_utils.h"
#include "cmsverify/pelnic_cms_utils.h"
#include "cmsverify/pelnic_list.h"

static const char* const UNREADABLE = "the signature cannot be read again";

static bool hasAttributes(const PELNIC_PKCS7_SIGNER_INFO& signer)
{
    return signer.auth_attrs != nullptr && signer.auth_attrs->attrs.num != 0;
}

// Whether the content-type attribute has one value and that is the type of what was signed.
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

static const char* timestampRefusal(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO& signer)
{
    void* pResult = nullptr;
    if (pelnic_x509_extract_attribute(pVrf, signer.unauth_attrs, AOID_PKCS9_AT_TIMESTAMP_TOKEN, &pResult) != 0) {
        return UNREADABLE;
    }
    const PELNIC_PKCS7_SIGNED_DATA& signedData = *static_cast<PELNIC_PKCS7_CONTENT*>(pResult)->signed_data;
    const char* reason = nullptr;
    if (signedData.signer_infos->infos.num == 0) {
        reason = "nobody signed the timestamp";
    } else if (!signersStateContentType(pVrf, signedData)) {
        reason = "a timestamp's signed attributes lack its content type";
    }
    pelnic_x509_free_attribute(pVrf, pResult, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    return reason;
}

// Whether the payload could be what another signer's signature covers in place of a payload.
static bool isSignedAttributes(const PELNIC_VRF* pVrf, const PNV_BYTE* payload, PNV_UINT32 length)
{
    PELNIC_X509_ATTR_BUNDLE* pAttributes = nullptr;
    PNV_UINT32 decoded = 0;
    if (_pnvDecode<PELNIC_X509_ATTR_BUNDLE_item>(pVrf, payload, length, 0, &pAttributes, &decoded) != 0) return false;
    pelnic_asn_free(pVrf, pAttributes, &PELNIC_X509_ATTR_BUNDLE_item, 0);
    return decoded == length;
}

static const char* signatureRefusal(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNED_DATA& signedData,
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
    return nullptr;
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
    if (_pnvDecodeCms(pVrf, pstSig->pCms, pstSig->uiCmsLength, &pContent) == 0) {
        reason = signatureRefusal(pVrf, *pContent->signed_data, *pstSig);
        pelnic_pkcs7_free_signed(pVrf, pContent);
        if (pVrf->nCallbackFaults != 0) reason = UNREADABLE; // for want of memory a payload may look harmless
    }
    (void)pelnic_vrf_ctx_free(ctx); // a context made here can be freed
    return reason;
}
