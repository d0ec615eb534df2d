// Detached signatures (RFC 5652, 5.3 to 5.6): begin verifies every signer, update feeds the content, final ends.
#include "cms_verify.h"

#include "pelnic_cms_parse.h"
#include "pelnic_faults.h"
#include "pelnic_pkcs7_verify.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_witness.h"
#include "pelnic_x509_cert.h"
#include "pelnic_x509_utils.h"

constexpr PNV_UINT32 CONTENT_BLOCK = 4096;

// The entry that hashes the content with an algorithm, or null.
static const PELNIC_VERIFY_DIGEST_INFO* findDigestEntry(const PELNIC_VRF* pVrf, PELNIC_AOIDS algorithm)
{
    const LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO& entries = pVrf->vrf_proc.md_info_list;
    for (PNV_UINT32 i = 0; i < entries.num; ++i) {
        if (entries.data[i]->nDigestAlgID == algorithm) return entries.data[i];
    }
    return nullptr;
}

static PELNIC_ERROR_CODE startDigest(PELNIC_VRF* pVrf, PELNIC_VERIFY_DIGEST_INFO* pInfo)
{
    PELNIC_CRYPTO_MD_CTX digestCtx = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_md_ctx_create(pVrf, &digestCtx);
    if (rc != 0) return rc;
    pInfo->digestCtx = digestCtx; // owned by the entry from here on
    rc = pelnic_md_init(pVrf, digestCtx, pInfo->nDigestAlgID);
    return rc != 0 ? rc : pelnic_list_add(pVrf, _pnvAsList(&pVrf->vrf_proc.md_info_list), pInfo, CLSP_END);
}

PELNIC_ERROR_CODE _pnvAddSignerInfoToVerifyProcess(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si)
{
    PELNIC_VERIFY_DIGEST_INFO* pInfo = nullptr;
    PELNIC_ERROR_CODE rc = _pnvGetDigestFromSignerInfo(pVrf, si, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    ScopeExit freeInfo{[&] { _pnvFreeMdInfo(pVrf, pInfo); }};
    const PELNIC_VERIFY_DIGEST_INFO* const pShared = findDigestEntry(pVrf, pInfo->nDigestAlgID);
    if (pShared != nullptr) {
        // The content is hashed once for all signers with one algorithm, so they must claim the same digest.
        if (isSameDigest(pVrf, pShared, pInfo->pbDigest, pInfo->nDigestSize)) return 0;
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_DIGEST_CONFLICT);
    }
    rc = startDigest(pVrf, pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    freeInfo.armed = false;
    return 0;
}

// Copies the signer's signature value into the entry.
static PELNIC_ERROR_CODE copySignature(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* signature,
                                       PELNIC_VERIFY_DIGEST_INFO* pInfo)
{
    if (signature->len == 0) return PELNIC_ERR_NULL_POINTER; // the default copy's code; no callback is to blame
    void* block = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_malloc(pVrf, &block, signature->len);
    if (rc != 0) return rc;
    rc = pelnic_memcpy_s(pVrf, block, signature->len, signature->octs, signature->len);
    if (rc != 0) {
        pelnic_free(pVrf, block);
        return rc;
    }
    pInfo->pbSignature = static_cast<PNV_BYTE*>(block);
    pInfo->nSignature = signature->len;
    return 0;
}

PELNIC_ERROR_CODE _pnvCreateVerifyHandle(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                         const PELNIC_X509_CERT* cert)
{
    PELNIC_VERIFY_DIGEST_INFO* pInfo = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewRecord(pVrf, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    ScopeExit freeInfo{[&] {
        pelnic_free(pVrf, pInfo->pbSignature);
        pelnic_free(pVrf, pInfo);
    }};
    const PELNIC_AOIDS hashAlgo = hashAlgorithm(pVrf, si->digest_algo);
    if (hashAlgo == AOID_UNKNOWN) rc = PELNIC_ERR_CMS_HASH_ALGO;
    PELNIC_BIGINT e = {};
    PELNIC_BIGINT n = {};
    if (rc == 0) rc = pelnic_x509_extract_public_key(pVrf, cert, &e, &n);
    if (rc != 0) return PNV_FAIL(pVrf, rc);

    PELNIC_CRYPTO_VRF_CTX vrfCtx = nullptr;
    rc = pelnic_verify_ctx_create(pVrf, &vrfCtx);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    ScopeExit destroyCtx{[&] { pelnic_verify_ctx_destory(pVrf, vrfCtx); }};
    rc = pelnic_verify_init(pVrf, vrfCtx, &e, &n, hashAlgo);
    if (rc == 0) rc = copySignature(pVrf, si->encrypted_digest, pInfo);
    if (rc == 0) rc = pelnic_list_add(pVrf, _pnvAsList(&pVrf->vrf_proc.md_info_list), pInfo, CLSP_END);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    pInfo->vrfCtx = vrfCtx;
    destroyCtx.armed = false;
    freeInfo.armed = false;
    return 0;
}

// The signature over the signed attributes (RFC 5652, 5.4), and their claimed digest of the content.
static PELNIC_ERROR_CODE verifyAttributes(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                          const PELNIC_X509_CERT* cert)
{
    PNV_INT verdict = 0;
    const PELNIC_ERROR_CODE rc = pelnic_pkcs7_detached_signature_verify(pVrf, si, cert, &verdict);
    PNV_TELL(Decision::Value, rc != 0 || verdict == 1 ? rc : PELNIC_ERR_CMS_SIGNATURE, cert);
    if (rc != 0 || verdict != 1) return PELNIC_ERR_CMS_SIGNATURE; // whatever the underlying code
    return _pnvAddSignerInfoToVerifyProcess(pVrf, si);
}

// One signer: timestamp, certificate at that time, and either its signed attributes or the preparation of a later
// check.
static PELNIC_ERROR_CODE verifySigner(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si)
{
    PNV_TELL(Decision::Signer);
    PELNIC_ERROR_CODE rc = _pnvVerifyTimeStamp(pVrf, si);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    const PELNIC_X509_CERT* const cert = _pnvFindAuthorCertBySignerInfo(pVrf, si);
    PNV_TELL(Decision::SignerCert, cert == nullptr ? PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND : 0, cert);
    if (cert == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND);
    rc = _pnvVerifyIssuerCert(pVrf, cert, PNV_EKU_CODE_SIGNING);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    // An empty set of attributes counts as present here, unlike for the signers of timestamps.
    rc = si->auth_attrs == nullptr ? _pnvCreateVerifyHandle(pVrf, si, cert) : verifyAttributes(pVrf, si, cert);
    PNV_TELL(Decision::SignerDone, rc, cert);
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE _pnvVerifyCms(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed)
{
    (void)_pnvExtractCertsIntoVerifyContext(pVrf, p7signed);
    const LIST_TYPE_PELNIC_PKCS7_SIGNER_INFO& signers = p7signed->signed_data->signer_infos->infos;
    for (PNV_UINT32 i = 0; i < signers.num; ++i) {
        if (signers.data[i] == nullptr) continue;
        const PELNIC_ERROR_CODE rc = verifySigner(pVrf, signers.data[i]);
        if (rc != 0) return rc;
    }
    return 0; // also for a signature without signers: nothing is then prepared to be fed
}

PELNIC_ERROR_CODE pelnic_verify_detach_signature_begin(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbSignature,
                                                       PNV_UINT32 nSigLength)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pbSignature == nullptr || nSigLength == 0) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    const OperationRun run{pVrf};
    _pnvSyncCrl(pVrf); // the CRLs are frozen, whatever happens to the signature
    if (nSigLength < MIN_INPUT) {
        PNV_TELL(Decision::Signature, PELNIC_ERR_CMS_FORMAT);
        return PELNIC_ERR_CMS_FORMAT;
    }
    PELNIC_PKCS7_CONTENT* pContent = nullptr;
    rc = _pnvDecodeCms(pVrf, pbSignature, nSigLength, &pContent);
    PNV_TELL(Decision::Signature, rc);
    if (rc != 0) return rc;
    if (pContent == nullptr) {
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_NO_SIGNER);
    }
    ScopeExit freeContent{[&] { pelnic_pkcs7_free_signed(pVrf, pContent); }};
    if (pContent->signed_data == nullptr || pContent->signed_data->signer_infos == nullptr) {
        return PELNIC_ERR_CMS_NO_SIGNER;
    }
    rc = _pnvVerifyCms(pVrf, pContent);
    PNV_TELL(Decision::Begun, rc);
    if (rc == 0) return 0;
    _pnvReportFaults(pVrf, __func__);
    return PNV_FAIL(pVrf, rc);
}

static PELNIC_ERROR_CODE feedEntry(const PELNIC_VRF* pVrf, const PELNIC_VERIFY_DIGEST_INFO* pInfo,
                                   const PNV_BYTE* pbContent, PNV_UINT32 nContentLength)
{
    PELNIC_ERROR_CODE rc = 0;
    if (pInfo->digestCtx != nullptr) {
        rc = pelnic_md_update(pVrf, pInfo->digestCtx, pbContent, nContentLength);
    } else if (pInfo->vrfCtx == nullptr) {
        return PELNIC_ERR_CMS_NOT_BEGUN;
    } else {
        rc = pelnic_verify_update(pVrf, pInfo->vrfCtx, pbContent, nContentLength);
    }
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE pelnic_verify_detach_signature_update(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbContent,
                                                        PNV_INT nContentLength)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pbContent == nullptr || nContentLength == 0) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    const LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO& entries = pVrf->vrf_proc.md_info_list;
    if (entries.num == 0) {
        PNV_TELL(Decision::Payload, PELNIC_ERR_CMS_NOT_BEGUN);
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_NOT_BEGUN);
    }
    for (PNV_UINT32 i = 0; i < entries.num; ++i) {
        rc = feedEntry(pVrf, entries.data[i], pbContent, static_cast<PNV_UINT32>(nContentLength));
        if (rc != 0) return rc;
    }
    return 0;
}

// Whether the content's digest is the claimed one.
static PELNIC_ERROR_CODE finishDigest(const PELNIC_VRF* pVrf, const PELNIC_VERIFY_DIGEST_INFO* pInfo,
                                      PNV_INT32* verdict)
{
    PNV_BYTE digest[MAX_DIGEST] = {};
    PNV_UINT32 length = 0;
    const PELNIC_ERROR_CODE rc = pelnic_md_final(pVrf, pInfo->digestCtx, digest, &length);
    if (rc == 0) *verdict = isSameDigest(pVrf, pInfo, digest, length) ? 1 : 0;
    return rc;
}

static PELNIC_ERROR_CODE finishEntries(const PELNIC_VRF* pVrf, PNV_INT32* result)
{
    const LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO& entries = pVrf->vrf_proc.md_info_list;
    for (PNV_UINT32 i = 0; i < entries.num; ++i) {
        const PELNIC_VERIFY_DIGEST_INFO* const pInfo = entries.data[i];
        if (pInfo == nullptr) continue;
        PNV_INT32 verdict = 0;
        PELNIC_ERROR_CODE rc = 0;
        if (pInfo->digestCtx != nullptr) {
            rc = finishDigest(pVrf, pInfo, &verdict);
            if (rc != 0) return rc;
            if (verdict == 1) continue;
            *result = 0;
            return 0;
        }
        if (pInfo->vrfCtx == nullptr) return PELNIC_ERR_CMS_SIGNATURE;
        rc = pelnic_verify_final(pVrf, pInfo->vrfCtx, pInfo->pbSignature, pInfo->nSignature, &verdict);
        if (rc != 0) return rc;
        *result = verdict; // of several such signers the last one decides
    }
    return 0;
}

PELNIC_ERROR_CODE pelnic_verify_detach_signature_final(PELNIC_VRF_CTX ctx, PNV_INT32* result)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (result == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    *result = 1;
    rc = finishEntries(pVrf, result);
    PNV_TELL(Decision::Payload, rc, nullptr, nullptr, nullptr, *result == 1);
    pelnic_list_free(pVrf, _pnvAsList(&pVrf->vrf_proc.md_info_list), freeMdElement);
    if (rc == 0) return 0;
    *result = 0;
    return PNV_FAIL_MSG(pVrf, rc, "Verify Signature Content failed.");
}

static PELNIC_ERROR_CODE feedFile(PELNIC_VRF* pVrf, PNV_FILE_HANDLE file)
{
    void* block = nullptr;
    if (pelnic_malloc(pVrf, &block, CONTENT_BLOCK) != 0 || block == nullptr) return PELNIC_ERR_SYS_MEM_ALLOC;
    PELNIC_ERROR_CODE rc = 0;
    const PNV_BYTE* const content = static_cast<const PNV_BYTE*>(block);
    // A count larger than the block is a read error, and ends the file like any other.
    for (size_t got = pelnic_fread(pVrf, block, CONTENT_BLOCK, file); got != 0 && got <= CONTENT_BLOCK && rc == 0;) {
        rc = pelnic_verify_detach_signature_update(pVrf, content, static_cast<PNV_INT>(got));
        if (rc == 0) got = pelnic_fread(pVrf, block, CONTENT_BLOCK, file);
    }
    pelnic_free(pVrf, block);
    return rc;
}

PELNIC_ERROR_CODE _pnvUpdateContent(PELNIC_VRF* pVrf, const PNV_CHAR* srcfile)
{
    if (isEmptyPath(pVrf, srcfile)) return PNV_EMPTY_PATH(pVrf);
    const PNV_FILE_HANDLE file = pelnic_fopen(pVrf, srcfile, "rb");
    if (file == nullptr) return PNV_FAIL_MSG(pVrf, PELNIC_ERR_SYS_FILE_OPEN, "Can't open file '%s'.", srcfile);
    const PELNIC_ERROR_CODE rc = feedFile(pVrf, file);
    (void)pelnic_fclose(pVrf, file); // nothing was written
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE pelnic_verify_detach_signature_quick(PELNIC_VRF_CTX ctx, const PNV_CHAR* srcfile,
                                                       const PNV_CHAR* sigfile, PNV_INT32* result)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (srcfile == nullptr || sigfile == nullptr || result == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    *result = 0;
    rc = withFile(pVrf, sigfile, pelnic_verify_detach_signature_begin);
    if (rc == 0) rc = _pnvUpdateContent(pVrf, srcfile);
    if (rc == 0) rc = pelnic_verify_detach_signature_final(ctx, result);
    return PNV_DONE(pVrf, rc);
}
