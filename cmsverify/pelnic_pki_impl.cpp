// Stores, chains and revocation.
#include "pelnic_pki_impl.h"

#include "pelnic_asn1_utils.h"
#include "pelnic_faults.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_witness.h"
#include "pelnic_x509_cert.h"
#include "pelnic_x509_utils.h"
#include "pelnic_x509_verify.h"

static PELNIC_PKI_STORE* storeOf(const PELNIC_VRF* ctx)
{
    PELNIC_PKI* const pPki = ctx == nullptr ? nullptr : static_cast<PELNIC_PKI*>(ctx->pki_ctx);
    return pPki == nullptr ? nullptr : &pPki->pki_store;
}

static const PELNIC_PKI_TRUST_STORE* trustStoreOf(const PELNIC_VRF* ctx)
{
    const PELNIC_PKI_STORE* const pStore = storeOf(ctx);
    return pStore == nullptr ? nullptr : pStore->trust_store;
}

static const PELNIC_PKI_LOCAL_STORE* localStoreOf(const PELNIC_VRF* ctx)
{
    const PELNIC_PKI_STORE* const pStore = storeOf(ctx);
    return pStore == nullptr ? nullptr : pStore->local_store;
}

PELNIC_ERROR_CODE pelnic_pki_init(PELNIC_VRF* ctx)
{
    if (ctx == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_PKI* pPki = nullptr;
    const PELNIC_ERROR_CODE rc = _pnvNewRecord(ctx, &pPki);
    if (rc != 0) return rc;
    pPki->st_size = PNV_UINT32{sizeof(PELNIC_PKI)};
    ctx->pki_ctx = pPki;
    return 0;
}

void pelnic_pki_uninit(PELNIC_VRF* ctx)
{
    PELNIC_PKI_STORE* const pStore = storeOf(ctx);
    if (pStore == nullptr) return;
    if (pStore->trust_store != nullptr) {
        pelnic_list_free(ctx, _pnvAsList(&pStore->trust_store->ca_certs), _pnvFreeCertElement);
        pelnic_list_free(ctx, _pnvAsList(&pStore->trust_store->crl_store), _pnvFreeCrlElement);
        pelnic_free(ctx, pStore->trust_store);
    }
    if (pStore->local_store != nullptr) {
        pelnic_list_free(ctx, _pnvAsList(&pStore->local_store->local_certs), _pnvFreeCertElement);
        pelnic_free(ctx, pStore->local_store);
    }
    pelnic_free(ctx, ctx->pki_ctx);
}

// ---- Stores (a CA by RFC 5280, 4.2.1.9)

PELNIC_ERROR_CODE pelnic_pki_is_ca_cert(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert, PNV_BOOL* is_ca)
{
    if (ctx == nullptr || cert == nullptr || is_ca == nullptr) return PELNIC_ERR_NULL_POINTER;
    *is_ca = 0;
    if (cert->toBeSigned->version < 2) return PELNIC_ERR_CERT_VERSION; // versions 1 and 2 carry no extensions
    const PELNIC_X509_EXTENSION_ENTRY* const pEntry =
        pelnic_x509_cert_get_extn_by_aoid(ctx, cert, AOID_CE_BASICCONSTRAINTS);
    if (pEntry == nullptr) return 0;
    void* pResult = nullptr;
    if (pelnic_decode_x509_extension(ctx, pEntry, &pResult) != 0) return 0; // then not a CA, and not a failure
    *is_ca = static_cast<const PELNIC_X509_BASIC_CONSTRAINTS*>(pResult)->is_ca != 0 ? 1 : 0;
    pelnic_free_x509_extension(ctx, AOID_CE_BASICCONSTRAINTS, pResult);
    return 0;
}

static bool hasIssuerAndSerial(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert, const PELNIC_X509_NAME* issuer,
                               const PELNIC_ASN_BIGINT* serial)
{
    // The serial number first: it differs most often and is cheapest.
    return pelnic_compare_asn_bigint(ctx, cert->toBeSigned->serialNumber, serial) == 0 &&
           pelnic_compare_x509_name(ctx, cert->toBeSigned->issuer, issuer) == 0;
}

static bool isIdentical(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* stored, const PELNIC_X509_CERT* added)
{
    return pelnic_compare_asn_octs(ctx, stored->raw_signed, added->raw_signed) == 0 &&
           pelnic_compare_asn_bits(ctx, stored->signature, added->signature) == 0;
}

static PELNIC_ERROR_CODE addToList(const PELNIC_VRF* ctx, LIST_TYPE_PELNIC_X509_CERT* list,
                                   PkiIndex<PELNIC_X509_CERT>* pIndex, PELNIC_X509_CERT* cert)
{
    PELNIC_X509_CERT* const stored = _pnvFindDuplicateCert(list, pIndex, cert);
    if (stored != nullptr) {
        // The caller now vouches for a certificate that came with a package, if both really are the same.
        if (cert->bFromPackage == 0 && isIdentical(ctx, stored, cert)) stored->bFromPackage = 0;
        return PELNIC_ERR_CERT_DUPLICATE;
    }
    const PELNIC_ERROR_CODE rc = pelnic_list_add(ctx, _pnvAsList(list), cert, CLSP_END);
    if (rc != 0) return rc;
    ++cert->iRef;
    cert->pki.found = PkiFindings{};
    _pnvIndexCert(pIndex, cert);
    return 0;
}

// A store, created at first use.
template <typename Store> static PELNIC_ERROR_CODE ensureStore(const PELNIC_VRF* ctx, Store** ppStore)
{
    if (*ppStore != nullptr) return 0;
    return _pnvNewRecord(ctx, ppStore) == 0 ? 0 : PELNIC_ERR_SYS_MEM_ALLOC;
}

PELNIC_ERROR_CODE pelnic_pki_store_add_trust_cert(const PELNIC_VRF* ctx, PELNIC_X509_CERT* cert)
{
    if (ctx == nullptr || cert == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_PKI_STORE* const pStore = storeOf(ctx);
    if (pStore == nullptr) return PELNIC_ERR_NO_PKI;
    PNV_BOOL isCa = 0;
    if (pelnic_pki_is_ca_cert(ctx, cert, &isCa) != 0 || isCa == 0) return PELNIC_ERR_CERT_NOT_CA;
    const PELNIC_ERROR_CODE rc = ensureStore(ctx, &pStore->trust_store);
    if (rc != 0) return rc;
    return addToList(ctx, &pStore->trust_store->ca_certs, &pStore->trust_store->cert_index, cert);
}

PELNIC_ERROR_CODE pelnic_pki_store_add_local_cert(const PELNIC_VRF* ctx, PELNIC_X509_CERT* cert)
{
    if (ctx == nullptr || cert == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_PKI_STORE* const pStore = storeOf(ctx);
    if (pStore == nullptr) return PELNIC_ERR_NO_PKI;
    const PELNIC_ERROR_CODE rc = ensureStore(ctx, &pStore->local_store);
    if (rc != 0) return rc;
    return addToList(ctx, &pStore->local_store->local_certs, &pStore->local_store->cert_index, cert);
}

PELNIC_ERROR_CODE pelnic_pki_store_add_crl(const PELNIC_VRF* ctx, PELNIC_X509_CRL* crl)
{
    if (ctx == nullptr || crl == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_PKI_STORE* const pStore = storeOf(ctx);
    if (pStore == nullptr) return PELNIC_ERR_NO_PKI;
    PELNIC_ERROR_CODE rc = ensureStore(ctx, &pStore->trust_store);
    if (rc != 0) return rc;
    LIST_TYPE_PELNIC_X509_CRL* const list = &pStore->trust_store->crl_store;
    if (list->capacity == 0) {
        rc = pelnic_list_init(ctx, _pnvAsList(list), 0);
        if (rc != 0) return rc;
    }
    if (_pnvFindDuplicateCrl(list, &pStore->trust_store->crl_index, crl) != nullptr) return PELNIC_ERR_CRL_DUPLICATE;
    rc = pelnic_list_add(ctx, _pnvAsList(list), crl, CLSP_END);
    if (rc != 0) return rc;
    ++crl->iRef;
    crl->pki.found = PkiFindings{};
    _pnvIndexCrl(&pStore->trust_store->crl_index, crl);
    return 0;
}

// ---- Issuers (RFC 5280, 6.1.3 (a)(1), 6.1.4 (n), and 6.3.3 (f), (g))

// This run's findings on a record so far.
template <typename Record>
static PkiFindings& findingsOf(const PELNIC_VRF* ctx, const OperationRun& run, const Record* record)
{
    PkiFindings& found = record->pki.found;
    if (run.isOutermost() || found.pVrf != ctx || found.nRun != run.number()) {
        found = PkiFindings{};
        found.pVrf = ctx;
        found.nRun = run.number();
    }
    return found;
}

static PELNIC_ERROR_CODE requireKeyUsage(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert, PNV_UINT32 bit)
{
    PNV_UINT32 usage = 0;
    const PELNIC_ERROR_CODE rc = pelnic_x509_cert_get_keyusage(ctx, cert, &usage);
    if (rc != 0) return rc;
    return (usage & bit) != 0 ? 0 : PELNIC_ERR_CERT_USAGE;
}

PELNIC_ERROR_CODE _pnvCheckCertDate(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert)
{
    PNV_TIME_T notBefore = 0;
    PNV_TIME_T notAfter = 0;
    const PELNIC_ASN_VALIDITY* const validity = cert->toBeSigned->validity;
    PELNIC_ERROR_CODE rc = pelnic_convert_datetime_to_time(ctx, &validity->notBefore, &notBefore);
    if (rc == 0) rc = pelnic_convert_datetime_to_time(ctx, &validity->notAfter, &notAfter);
    if (rc != 0) return rc;
    // "the period of time from notBefore through notAfter, inclusive" (RFC 5280, 4.1.2.5)
    if (ctx->base_time < notBefore) return PELNIC_ERR_CERT_NOT_YET_VALID;
    return ctx->base_time > notAfter ? PELNIC_ERR_CERT_EXPIRED : 0;
}

PELNIC_ERROR_CODE _pnvCheckCertIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                      const PELNIC_X509_CERT* candidate)
{
    if (cert->pIssuer != nullptr) return cert->pIssuer == candidate ? 0 : PELNIC_ERR_CERT_SIGNATURE;
    PELNIC_ERROR_CODE rc = pelnic_compare_x509_name(ctx, cert->toBeSigned->issuer, candidate->toBeSigned->subject);
    if (rc != 0) return rc;
    rc = requireKeyUsage(ctx, candidate, PNV_KU_KEY_CERT_SIGN);
    if (rc != 0) return rc;
    PNV_BOOL verified = 0;
    rc = _pnvVerifyWithKeyOf(ctx, cert, candidate, &verified);
    if (rc != 0) return rc;
    if (verified != 1) return PELNIC_ERR_CERT_SIGNATURE;
    // Recorded for good, so not if a failing callback may have hidden an earlier candidate.
    if (!_pnvIsDisturbed(ctx)) cert->pIssuer = candidate;
    return 0;
}

const PELNIC_X509_CERT* _pnvFindCertIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert)
{
    const PELNIC_PKI_TRUST_STORE* const pTrust = trustStoreOf(ctx);
    if (pTrust == nullptr) return nullptr;
    const OperationRun run{ctx};
    PkiFindings& found = findingsOf(ctx, run, cert);
    for (PNV_UINT32& i = found.nTrustTried; i < pTrust->ca_certs.num; ++i) {
        const PELNIC_X509_CERT* const candidate = pTrust->ca_certs.data[i];
        if (_pnvCheckCertIssuer(ctx, cert, candidate) != 0) continue;
        PNV_TELL(Decision::Issuer, 0, cert, nullptr, candidate);
        return candidate;
    }
    PNV_TELL(Decision::Issuer, PELNIC_ERR_CERT_NO_ISSUER, cert);
    return nullptr;
}

PELNIC_ERROR_CODE _pnvVerifyCertByIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                         const PELNIC_X509_CERT* issuer)
{
    const PELNIC_ERROR_CODE rc = requireKeyUsage(ctx, issuer, PNV_KU_KEY_CERT_SIGN);
    return rc != 0 ? rc : _pnvCheckCertIssuer(ctx, cert, issuer);
}

// With more steps than this the chain is a circle: certificates can issue each other.
static PNV_UINT32 longestChain(const PELNIC_VRF* ctx)
{
    const PELNIC_PKI_TRUST_STORE* const pTrust = trustStoreOf(ctx);
    return pTrust == nullptr ? 1 : pTrust->ca_certs.num + 1;
}

// The self-signed check; a negative result is noted too, because for a certificate whose subject is its issuer only a
// signature check can tell.
static PELNIC_ERROR_CODE testSelfSigned(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert, PNV_BOOL* isSelfSigned)
{
    if (ctx == nullptr) return PELNIC_ERR_NULL_POINTER;
    const OperationRun run{ctx};
    PkiFindings& found = findingsOf(ctx, run, cert);
    *isSelfSigned = 0;
    if (found.bNotSelfSigned != 0 && cert->pIssuer != cert) return 0;
    const PELNIC_ERROR_CODE rc = pelnic_x509_is_self_signed(ctx, cert, isSelfSigned);
    if (rc == 0 && *isSelfSigned == 0) found.bNotSelfSigned = 1;
    return rc;
}

const PELNIC_X509_CERT* _pnvFindCertRoot(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert)
{
    for (PNV_UINT32 steps = longestChain(ctx); steps != 0 && cert != nullptr; --steps) {
        PNV_BOOL isSelfSigned = 0;
        const PELNIC_ERROR_CODE rc = testSelfSigned(ctx, cert, &isSelfSigned);
        if (rc != 0 || isSelfSigned != 0) {
            PNV_TELL(Decision::SelfSigned, rc != 0 || cert->bFromPackage == 0 ? rc : PELNIC_ERR_CERT_NO_ISSUER, cert);
            return rc == 0 && cert->bFromPackage == 0 ? cert : nullptr;
        }
        cert = _pnvFindCertIssuer(ctx, cert);
    }
    return nullptr;
}

PELNIC_ERROR_CODE _pnvVerifyCrlByIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl, const PELNIC_X509_CERT* cert)
{
    PELNIC_ERROR_CODE rc = requireKeyUsage(ctx, cert, PNV_KU_CRL_SIGN);
    if (rc != 0) return rc;
    PELNIC_PUBKEY* pPubKey = nullptr;
    rc = pelnic_decode_pubkey(ctx, cert->toBeSigned->subjectPubKey, &pPubKey);
    if (rc != 0) return rc;
    PNV_BOOL verified = 0;
    rc = pelnic_x509_crl_verify(ctx, crl, pPubKey, &verified);
    pelnic_free_pubkey(ctx, pPubKey);
    return rc == 0 && verified == 1 ? 0 : PELNIC_ERR_CRL_VERIFY;
}

PELNIC_ERROR_CODE _pnvCheckCrlIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl, const PELNIC_X509_CERT* cert)
{
    PELNIC_ERROR_CODE rc = pelnic_compare_x509_name(ctx, crl->tbs_cert_list->issuer, cert->toBeSigned->subject);
    if (rc != 0) return rc;
    rc = requireKeyUsage(ctx, cert, PNV_KU_CRL_SIGN);
    return rc != 0 ? rc : _pnvVerifyCrlByIssuer(ctx, crl, cert);
}

// The list's first certificate that issued the CRL, or null. The first *tried are known not to be its issuer.
static const PELNIC_X509_CERT* findCrlIssuerIn(const PELNIC_VRF* ctx, const LIST_TYPE_PELNIC_X509_CERT& list,
                                               const PELNIC_X509_CRL* crl, PNV_UINT32* tried)
{
    const PELNIC_X509_CERT*& issuer = crl->pki.found.pCrlIssuer;
    for (PNV_UINT32& i = *tried; i < list.num; ++i) {
        const PELNIC_X509_CERT* const candidate = list.data[i];
        if (issuer != candidate && _pnvCheckCrlIssuer(ctx, crl, candidate) != 0) continue;
        issuer = candidate;
        return candidate;
    }
    return nullptr;
}

const PELNIC_X509_CERT* pelnic_pki_find_crl_issuer(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl)
{
    if (ctx == nullptr || crl == nullptr) return nullptr;
    const OperationRun run{ctx};
    PkiFindings& found = findingsOf(ctx, run, crl);
    const PELNIC_X509_CERT* issuer = nullptr;
    const PELNIC_PKI_TRUST_STORE* const pTrust = trustStoreOf(ctx);
    if (pTrust != nullptr) issuer = findCrlIssuerIn(ctx, pTrust->ca_certs, crl, &found.nTrustTried);
    if (issuer != nullptr) return issuer;
    const PELNIC_PKI_LOCAL_STORE* const pLocal = localStoreOf(ctx);
    return pLocal == nullptr ? nullptr : findCrlIssuerIn(ctx, pLocal->local_certs, crl, &found.nLocalTried);
}

const PELNIC_X509_CERT* pelnic_pki_find_cert_by_issuer_sn(const PELNIC_VRF* ctx, const PELNIC_X509_NAME* issuer,
                                                          const PELNIC_ASN_BIGINT* serial)
{
    const PELNIC_PKI_LOCAL_STORE* const pLocal = localStoreOf(ctx);
    if (issuer == nullptr || serial == nullptr || pLocal == nullptr) return nullptr;
    for (PNV_UINT32 i = 0; i < pLocal->local_certs.num; ++i) {
        const PELNIC_X509_CERT* const cert = pLocal->local_certs.data[i];
        if (hasIssuerAndSerial(ctx, cert, issuer, serial)) return cert;
    }
    return nullptr;
}

// ---- The walk (RFC 5280, 6.1)

[[nodiscard]] static PELNIC_ERROR_CODE checkCrlOf(PELNIC_VRF* ctx, const PELNIC_X509_CERT* pCert,
                                                  const PELNIC_X509_CRL** ppCrl);

static_assert(sizeof(PkiFindings::nResult) == MAX_NESTED_VERIFICATIONS * sizeof(PELNIC_ERROR_CODE));

PELNIC_ERROR_CODE _pnvInternalVerifyCertificate(PELNIC_VRF* ctx, const PELNIC_X509_CERT* pSubjCert,
                                                const PELNIC_X509_CERT** ppAuthor, PNV_BOOL* verifyDone)
{
    PELNIC_ERROR_CODE rc = _pnvCheckCertDate(ctx, pSubjCert);
    PNV_TELL(Decision::Dates, rc, pSubjCert);
    if (rc != 0) return rc;
    PNV_BOOL isSelfSigned = 0;
    rc = testSelfSigned(ctx, pSubjCert, &isSelfSigned);
    if (rc != 0) {
        PNV_TELL(Decision::SelfSigned, rc, pSubjCert);
        return rc;
    }
    if (isSelfSigned != 0) {
        PNV_TELL(Decision::SelfSigned, pSubjCert->bFromPackage == 0 ? 0 : PELNIC_ERR_CERT_NO_ISSUER, pSubjCert);
        if (pSubjCert->bFromPackage != 0) return PELNIC_ERR_CERT_NO_ISSUER;
        *verifyDone = 1;
        return 0;
    }
    if (ctx->vrf_params.no_check_crl == 0) {
        const PELNIC_X509_CRL* pCrl = nullptr;
        rc = checkCrlOf(ctx, pSubjCert, &pCrl);
        if (rc != 0) return rc;
        // The choice of a direct CRL has verified its issuer, which is also the certificate's.
        PNV_BOOL isIndirect = 0;
        (void)pelnic_x509_crl_is_indirect(ctx, pCrl, &isIndirect); // a failure counts as direct
        if (isIndirect == 0) {
            *verifyDone = 1;
            return 0;
        }
    }
    const PELNIC_X509_CERT* const issuer = _pnvFindCertIssuer(ctx, pSubjCert);
    if (issuer == nullptr) return PELNIC_ERR_CERT_NO_ISSUER;
    rc = _pnvVerifyCertByIssuer(ctx, pSubjCert, issuer);
    if (rc == 0) *ppAuthor = issuer;
    return rc;
}

static PELNIC_ERROR_CODE walkChain(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert)
{
    for (PNV_UINT32 steps = longestChain(ctx); steps != 0; --steps) {
        PNV_BOOL verifyDone = 0;
        const PELNIC_ERROR_CODE rc = _pnvInternalVerifyCertificate(ctx, cert, &cert, &verifyDone);
        if (rc != 0 || verifyDone != 0) return rc;
    }
    return PELNIC_ERR_CERT_NO_ISSUER;
}

// Why no CRL could be used. A remembered failure is reported again, under the name of the search that found it.
static void reportNoCrl(PELNIC_VRF* ctx, PELNIC_ERROR_CODE rc)
{
    static constexpr PNV_CHAR SEARCH[] = "_pnvFindBestCrlOfCert";
    if (rc == PELNIC_ERR_CRL_NOT_FOUND) {
        pelnic_log_callback(ctx, PELNIC_LOG_TYPE_ERROR, __FILE__, __LINE__, SEARCH, 0,
                            "Can't find CRL for certificate.");
    } else if (rc == PELNIC_ERR_CRL_VERIFY) {
        pelnic_log_callback(ctx, PELNIC_LOG_TYPE_ERROR, __FILE__, __LINE__, SEARCH, 0, "Verify CRL failed.");
    } else {
        return;
    }
    ctx->last_err = rc;
}

static PELNIC_ERROR_CODE verifyAtDepth(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert)
{
    ++ctx->nVerificationsInProgress;
    ++ctx->curr_depth;
    const PELNIC_ERROR_CODE rc = walkChain(ctx, cert);
    --ctx->curr_depth;
    --ctx->nVerificationsInProgress;
    // A failed callback may have hidden a CRL, made one look inapplicable or direct, or made a CA look like none.
    return rc == 0 && !_pnvMayAccept(ctx) ? PELNIC_ERR_SYS_MEM_ALLOC : rc;
}

// The same, but once per certificate and depth: many CRLs need the same issuers, on every level of the chain. The depth
// matters because it decides what is too deep below; nothing else changes during an outermost verification.
static PELNIC_ERROR_CODE verifyOnce(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert, PkiFindings* found)
{
    const PNV_INT depth = ctx->curr_depth;
    if (ctx->nVerificationsInProgress == 0) ++ctx->nVerification;
    if (depth < 0) return verifyAtDepth(ctx, cert); // set so by a caller of internal functions
    if (found->nVerification != ctx->nVerification) {
        found->nVerification = ctx->nVerification;
        found->nVerifiedDepths = 0;
    }
    const PNV_UINT32 depthBit = 1u << depth;
    if ((found->nVerifiedDepths & depthBit) != 0) {
        reportNoCrl(ctx, found->nResult[depth]);
    } else {
        found->nResult[depth] = verifyAtDepth(ctx, cert);
        found->nVerifiedDepths |= depthBit;
    }
    return found->nResult[depth];
}

PELNIC_ERROR_CODE pelnic_pki_verify_cert(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert, PNV_BOOL reset_depth,
                                         PNV_BOOL* result)
{
    if (ctx == nullptr || cert == nullptr || result == nullptr) return PELNIC_ERR_NULL_POINTER;
    *result = 0;
    if (reset_depth != 0) ctx->curr_depth = 0;
    if (ctx->curr_depth >= PNV_INT{MAX_NESTED_VERIFICATIONS}) {
        PNV_LOG(ctx, PELNIC_LOG_TYPE_ERROR, 0, "The path of certificate is too deep.");
        PNV_TELL(Decision::TooDeep, PELNIC_ERR_PATH_TOO_DEEP, cert);
        return PELNIC_ERR_PATH_TOO_DEEP;
    }
    const OperationRun run{ctx};
    const PELNIC_ERROR_CODE rc = verifyOnce(ctx, cert, &findingsOf(ctx, run, cert));
    PNV_TELL(Decision::Link, rc, cert);
    *result = rc == 0 ? 1 : 0;
    if (rc != 0 && run.isOutermost()) _pnvReportFaults(ctx, __func__);
    return rc;
}

// ---- Revocation (RFC 5280, 6.3.3): score the CRLs, sort them, pick the best, look the certificate up in it

PNV_BOOL _pnvCrlGetIssuerScore(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* pCrl, const PELNIC_X509_CERT* pCert,
                               const PELNIC_X509_CERT* pCrtRoot, PNV_UINT32* score)
{
    if (pCert->toBeSigned->issuer == nullptr) return 0;
    PNV_BOOL isIndirect = 0;
    (void)pelnic_x509_crl_is_indirect(ctx, pCrl, &isIndirect); // a failure counts as direct
    const bool sameIssuer = pelnic_compare_x509_name(ctx, pCert->toBeSigned->issuer, pCrl->tbs_cert_list->issuer) == 0;
    if (!sameIssuer && isIndirect == 0) return 0;
    const PELNIC_X509_CERT* const issuer = pelnic_pki_find_crl_issuer(ctx, pCrl);
    if (issuer == nullptr) {
        PNV_TELL(Decision::CrlUnfit, 0, pCert, pCrl, nullptr, 0, CrlUnfit::NoIssuer);
        return 0;
    }
    if (_pnvFindCertRoot(ctx, issuer) != pCrtRoot) { // the same record, not an equal one
        PNV_TELL(Decision::CrlUnfit, 0, pCert, pCrl, issuer, 0, CrlUnfit::OtherRoot);
        return 0;
    }
    if (sameIssuer) *score |= PNV_CRL_SAME_ISSUER;
    if (isIndirect != 0) *score |= PNV_CRL_INDIRECT;
    return 1;
}

// The entries of a long CRL lie across megabytes, and comparing one takes less time than waiting for it: this many
// ahead, it is asked for.
constexpr PNV_UINT32 ENTRIES_AHEAD = 32;

static bool isListed(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl, const PELNIC_X509_CERT* cert)
{
    const PELNIC_X509_REVOKED* const revoked = crl->tbs_cert_list->revoked_certs;
    if (revoked == nullptr) return false;
    const LIST_TYPE_PELNIC_X509_REVOKED_ENTRY& entries = revoked->revoked_list;
    for (PNV_UINT32 i = 0; i < entries.num; ++i) {
        if (entries.num - i > ENTRIES_AHEAD) __builtin_prefetch(entries.data[i + ENTRIES_AHEAD]);
        const PELNIC_X509_REVOKED_ENTRY* const entry = entries.data[i];
        if (entry == nullptr) continue;
        if (pelnic_compare_asn_bigint(ctx, cert->toBeSigned->serialNumber, entry->user_cert) == 0) return true;
    }
    return false;
}

PNV_UINT32 _pnvCrlGetScore(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl, const PELNIC_X509_CERT* cert,
                           const PELNIC_X509_CERT* root)
{
    PNV_UINT32 score = 0;
    if (_pnvCrlGetIssuerScore(ctx, crl, cert, root, &score) == 0) return 0;
    if (score == 0) {
        PNV_LOG(ctx, PELNIC_LOG_TYPE_WARNING, 0, "invalid issuer score.");
        return 0;
    }
    if (isListed(ctx, crl, cert)) score |= PNV_CRL_LISTED;
    PNV_TIME_T nextUpdate = 0;
    if (pelnic_convert_datetime_to_time(ctx, crl->tbs_cert_list->next_update, &nextUpdate) != 0) {
        PNV_TELL(Decision::CrlUnfit, 0, cert, crl, nullptr, 0, CrlUnfit::NoEnd);
        return 0;
    }
    if (nextUpdate >= ctx->base_time) return score | PNV_CRL_CURRENT;
    PNV_LOG(ctx, PELNIC_LOG_TYPE_WARNING, PELNIC_ERR_CRL_EXPIRED,
            "Found an expired CRL, it most likely cause NO CRL error.");
    PNV_TELL(Decision::CrlUnfit, PELNIC_ERR_CRL_EXPIRED, cert, crl, nullptr, 0, CrlUnfit::Expired, nextUpdate);
    return (score & PNV_CRL_LISTED) != 0 ? score : 0; // an entry of an expired CRL stays revoked
}

static PELNIC_ERROR_CODE appendScore(const PELNIC_VRF* ctx, LIST_TYPE_PELNIC_CRL_SCORE_INFO* list, PNV_UINT32 score,
                                     const PELNIC_X509_CRL* crl)
{
    PELNIC_CRL_SCORE_INFO* pInfo = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewRecord(ctx, &pInfo);
    if (rc != 0) return rc;
    *pInfo = PELNIC_CRL_SCORE_INFO{score, crl};
    rc = pelnic_list_add(ctx, _pnvAsList(list), pInfo, CLSP_END);
    if (rc != 0) pelnic_free(ctx, pInfo);
    return rc;
}

PELNIC_ERROR_CODE _pnvGetScoredCrl(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert, LIST_TYPE_PELNIC_CRL_SCORE_INFO* list)
{
    const PELNIC_PKI_TRUST_STORE* const pTrust = trustStoreOf(ctx);
    if (pTrust == nullptr) return PELNIC_ERR_CERT_NO_ISSUER;
    const PELNIC_X509_CERT* const root = _pnvFindCertRoot(ctx, cert);
    if (root == nullptr) return PELNIC_ERR_CERT_NO_ISSUER;
    for (PNV_UINT32 i = 0; i < pTrust->crl_store.num; ++i) {
        const PELNIC_X509_CRL* const crl = pTrust->crl_store.data[i];
        const PNV_UINT32 score = _pnvCrlGetScore(ctx, crl, cert, root);
        if (score == 0) continue;
        PNV_TELL(Decision::CrlScored, 0, cert, crl, nullptr, score);
        const PELNIC_ERROR_CODE rc = appendScore(ctx, list, score, crl);
        if (rc != 0) return rc;
    }
    return 0;
}

PNV_INT _pnvCrlScoreSortDesc(const PELNIC_VRF*, const void* a, const void* b)
{
    const PNV_UINT32 scoreA = static_cast<const PELNIC_CRL_SCORE_INFO*>(a)->crlScore;
    const PNV_UINT32 scoreB = static_cast<const PELNIC_CRL_SCORE_INFO*>(b)->crlScore;
    if (scoreA == scoreB) return 0;
    return scoreA > scoreB ? -1 : 1;
}

const PELNIC_CRL_SCORE_INFO* _pnvPickBestCrl(PELNIC_VRF* ctx, const LIST_TYPE_PELNIC_CRL_SCORE_INFO* list)
{
    for (PNV_UINT32 i = 0; i < list->num; ++i) {
        const PELNIC_X509_CRL* const crl = list->data[i]->pCrl;
        if (crl == nullptr) continue;
        const PELNIC_X509_CERT* const issuer = pelnic_pki_find_crl_issuer(ctx, crl);
        if (issuer == nullptr) continue;
        PNV_BOOL verified = 0;
        PNV_TELL(Decision::CrlIssuer, 0, nullptr, crl, issuer);
        if (pelnic_pki_verify_cert(ctx, issuer, 0, &verified) == 0 && verified != 0) return list->data[i];
    }
    return nullptr;
}

// Frees the entries only: the store owns the CRLs.
static void freeScoreElement(PELNIC_VRF* ctx, void* pInfo)
{
    pelnic_free(ctx, pInfo);
}

static PELNIC_CRL_SCORE_INFO findBest(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert)
{
    LIST_TYPE_PELNIC_CRL_SCORE_INFO list = {};
    ScopeExit freeList{[&] { pelnic_list_free(ctx, _pnvAsList(&list), freeScoreElement); }};
    PELNIC_ERROR_CODE rc = pelnic_list_init(ctx, _pnvAsList(&list), 0);
    if (rc == 0) rc = _pnvGetScoredCrl(ctx, cert, &list);
    if (rc == 0) rc = pelnic_list_sort(ctx, _pnvAsList(&list), _pnvCrlScoreSortDesc);
    if (rc != 0) {
        ctx->last_err = rc;
        return {};
    }
    const PELNIC_CRL_SCORE_INFO* const best = _pnvPickBestCrl(ctx, &list);
    if (best != nullptr) return *best;
    reportNoCrl(ctx, list.num == 0 ? PELNIC_ERR_CRL_NOT_FOUND : PELNIC_ERR_CRL_VERIFY);
    return {};
}

const PELNIC_X509_CRL* _pnvFindBestCrlOfCert(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert)
{
    return findBest(ctx, cert).pCrl;
}

PELNIC_ERROR_CODE _pnvNeedCheckReason(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert, PNV_BOOL* needCheckReason)
{
    *needCheckReason = 0;
    PNV_UINT32 usage = 0;
    const PELNIC_ERROR_CODE rc = pelnic_x509_cert_get_extend_keyusage(ctx, cert, &usage);
    if (rc != 0) return rc;
    if (usage != PNV_EKU_TIME_STAMPING) return pelnic_pki_is_ca_cert(ctx, cert, needCheckReason);
    *needCheckReason = 1;
    return 0;
}

static bool isBenign(PELNIC_X509_REVOKE_REASON reason)
{
    return reason == RVRS_AFFILIATIONCHANGED || reason == RVRS_SUPERSEDED || reason == RVRS_CESSATIONOFOPERATION;
}

PELNIC_ERROR_CODE _pnvIsCertRevoked(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                    const PELNIC_X509_REVOKED_ENTRY* entry)
{
    if (pelnic_compare_asn_bigint(ctx, cert->toBeSigned->serialNumber, entry->user_cert) != 0) return 0;
    PNV_BOOL needCheckReason = 0;
    PELNIC_ERROR_CODE rc = _pnvNeedCheckReason(ctx, cert, &needCheckReason);
    if (rc != 0) return rc;
    if (needCheckReason != 0) {
        PELNIC_X509_REVOKE_REASON reason = RVRS_NONE;
        rc = pelnic_x509_revoke_entry_get_reason(ctx, entry, &reason);
        if (rc != 0) return rc;
        if (!isBenign(reason)) return PELNIC_ERR_CERT_REVOKED; // for all times
    }
    PNV_TIME_T revokedAt = 0;
    rc = pelnic_convert_datetime_to_time(ctx, entry->revocation_date, &revokedAt);
    if (rc != 0) return rc;
    return ctx->base_time < revokedAt ? 0 : PELNIC_ERR_CERT_REVOKED;
}

static PELNIC_ERROR_CODE checkCrlOf(PELNIC_VRF* ctx, const PELNIC_X509_CERT* pCert, const PELNIC_X509_CRL** ppCrl)
{
    if (ctx->vrf_params.no_check_crl != 0) return 0;
    const PELNIC_CRL_SCORE_INFO best = findBest(ctx, pCert);
    const PELNIC_X509_CRL* const crl = best.pCrl;
    PNV_TELL(Decision::CrlChosen, crl == nullptr ? ctx->last_err : 0, pCert, crl);
    if (crl == nullptr) return ctx->last_err != 0 ? ctx->last_err : PELNIC_ERR_CRL_NOT_FOUND;
    // The score has just been made of these entries: if it found none of the certificate, none is worth a second look.
    const bool listed = (best.crlScore & PNV_CRL_LISTED) != 0;
    const PELNIC_X509_REVOKED* const revoked = listed ? crl->tbs_cert_list->revoked_certs : nullptr;
    PELNIC_ERROR_CODE rc = 0;
    for (PNV_UINT32 i = 0; revoked != nullptr && i < revoked->revoked_list.num && rc == 0; ++i) {
        const PELNIC_X509_REVOKED_ENTRY* const entry = revoked->revoked_list.data[i];
        if (entry != nullptr) rc = _pnvIsCertRevoked(ctx, pCert, entry);
        if (rc != 0) PNV_TELL(Decision::Revocation, rc, pCert, crl, nullptr, i);
    }
    if (rc == 0) PNV_TELL(Decision::Revocation, 0, pCert, crl);
    if (rc == 0 || rc == PELNIC_ERR_CERT_REVOKED) *ppCrl = crl;
    return rc;
}

PELNIC_ERROR_CODE _pnvCheckCrlOfCert(PELNIC_VRF* ctx, PELNIC_X509_CERT* pCert, PELNIC_X509_CRL** ppCrl)
{
    const PELNIC_X509_CRL* crl = nullptr;
    const PELNIC_ERROR_CODE rc = checkCrlOf(ctx, pCert, &crl);
    if (crl != nullptr) *ppCrl = const_cast<PELNIC_X509_CRL*>(crl); // the store's, which holds it as it was added
    return rc;
}
