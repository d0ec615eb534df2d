// A signer of content or of a timestamp: its certificate, algorithm and digest.
#include "cms_verify_signer.h"

#include "pelnic_asn1_utils.h"
#include "pelnic_cms_utils.h"
#include "pelnic_pki_impl.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_witness.h"
#include "pelnic_x509_cert.h"
#include "pelnic_x509_utils.h"

void _pnvFreeMdInfo(const PELNIC_VRF* pVrf, PELNIC_VERIFY_DIGEST_INFO* pDigestInfo)
{
    if (pDigestInfo == nullptr) return;
    if (pDigestInfo->digestCtx != nullptr) {
        pelnic_md_ctx_destory(pVrf, pDigestInfo->digestCtx);
    } else if (pDigestInfo->vrfCtx != nullptr) {
        pelnic_verify_ctx_destory(pVrf, pDigestInfo->vrfCtx);
        pelnic_free(pVrf, pDigestInfo->pbSignature);
    }
    pelnic_free(pVrf, pDigestInfo);
}

void freeMdElement(PELNIC_VRF* pVrf, void* pDigestInfo)
{
    _pnvFreeMdInfo(pVrf, static_cast<PELNIC_VERIFY_DIGEST_INFO*>(pDigestInfo));
}

const PELNIC_X509_CERT* _pnvFindAuthorCertBySignerInfo(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si)
{
    if (si->issuer_sn == nullptr) return nullptr;
    return pelnic_pki_find_cert_by_issuer_sn(pVrf, si->issuer_sn->issuer, si->issuer_sn->sn);
}

PELNIC_AOIDS hashAlgorithm(const PELNIC_VRF* pVrf, const PELNIC_X509_ALGO_IDENTIFIER* pAlgo)
{
    return pelnic_get_hash_aoid_from_sign(pelnic_find_aoid(pVrf, &pAlgo->algorithm));
}

// Copies the digest that the signer's attributes claim into an entry that has its algorithm.
static PELNIC_ERROR_CODE copyClaimedDigest(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                           PELNIC_VERIFY_DIGEST_INFO* pInfo)
{
    void* pResult = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_x509_extract_attribute(pVrf, si->auth_attrs, AOID_PKCS9_AT_MESSAGEDIGEST, &pResult);
    if (rc != 0 || pResult == nullptr) return PELNIC_ERR_CMS_NO_MESSAGE_DIGEST;
    const PELNIC_DATA_BLOCK* const pDigest = static_cast<const PELNIC_DATA_BLOCK*>(pResult);
    pInfo->nDigestSize = pDigest->nLen;
    rc = pelnic_memcpy_s(pVrf, pInfo->pbDigest, sizeof pInfo->pbDigest, pDigest->pData, pDigest->nLen);
    pelnic_x509_free_attribute(pVrf, pResult, AOID_PKCS9_AT_MESSAGEDIGEST);
    return rc;
}

PELNIC_ERROR_CODE _pnvGetDigestFromSignerInfo(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                              PELNIC_VERIFY_DIGEST_INFO** ppInfo)
{
    PELNIC_VERIFY_DIGEST_INFO* pInfo = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewRecord(pVrf, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    pInfo->nDigestAlgID = hashAlgorithm(pVrf, si->digest_algo);
    rc = pInfo->nDigestAlgID == AOID_UNKNOWN ? PELNIC_ERR_CMS_DIGEST_ALGO : copyClaimedDigest(pVrf, si, pInfo);
    if (rc != 0) {
        _pnvFreeMdInfo(pVrf, pInfo);
        return PNV_FAIL(pVrf, rc);
    }
    *ppInfo = pInfo;
    return 0;
}

bool isSameDigest(const PELNIC_VRF* pVrf, const PELNIC_VERIFY_DIGEST_INFO* pInfo, const PNV_BYTE* digest,
                  PNV_UINT32 length)
{
    return pInfo->nDigestSize == length && pelnic_memcmp(pVrf, pInfo->pbDigest, digest, length) == 0;
}

static PELNIC_ERROR_CODE hash(const PELNIC_VRF* pVrf, PELNIC_CRYPTO_MD_CTX md, const PNV_BYTE* data, PNV_UINT32 length,
                              PELNIC_AOIDS hashAlgoId, PNV_BYTE* digest, PNV_UINT32* digestLength)
{
    PELNIC_ERROR_CODE rc = pelnic_md_init(pVrf, md, hashAlgoId);
    if (rc == 0) rc = pelnic_md_update(pVrf, md, data, length);
    return rc != 0 ? rc : pelnic_md_final(pVrf, md, digest, digestLength);
}

PELNIC_ERROR_CODE _pnvHashContent(const PELNIC_VRF* pVrf, const PNV_BYTE* data, PNV_UINT32 length,
                                  PELNIC_AOIDS hashAlgoId, PNV_BYTE* digest, PNV_UINT32* digestLength)
{
    PELNIC_CRYPTO_MD_CTX md = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_md_ctx_create(pVrf, &md);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    rc = hash(pVrf, md, data, length, hashAlgoId, digest, digestLength);
    pelnic_md_ctx_destory(pVrf, md);
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE _pnvVerifyIssuerCert(PELNIC_VRF* pVrf, const PELNIC_X509_CERT* cert, PNV_UINT32 expExtKu)
{
    PNV_UINT32 usage = 0;
    PELNIC_ERROR_CODE rc = pelnic_x509_cert_get_keyusage(pVrf, cert, &usage);
    PNV_TELL(Decision::Usage, rc != 0 || (usage & PNV_KU_DIGITAL_SIGNATURE) != 0 ? rc : PELNIC_ERR_CERT_USAGE, cert);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    if ((usage & PNV_KU_DIGITAL_SIGNATURE) == 0) return PNV_FAIL(pVrf, PELNIC_ERR_CERT_USAGE);
    rc = pelnic_x509_cert_get_extend_keyusage(pVrf, cert, &usage);
    PNV_TELL(Decision::Usage, rc != 0 || (usage & expExtKu) != 0 ? rc : PELNIC_ERR_CERT_USAGE, cert, nullptr, nullptr,
             expExtKu);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    if ((usage & expExtKu) == 0) return PNV_FAIL(pVrf, PELNIC_ERR_CERT_USAGE);
    PNV_BOOL valid = 0;
    PNV_TELL(Decision::Chain, 0, cert);
    rc = pelnic_pki_verify_cert(pVrf, cert, 1, &valid);
    PNV_TELL(Decision::ChainDone, rc, cert);
    if (rc == 0 && valid != 0) return 0;
    return PNV_FAIL(pVrf, PELNIC_ERR_CERT_VERIFY); // the reason is in the log alone
}
