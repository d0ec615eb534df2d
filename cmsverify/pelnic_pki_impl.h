// Stores of certificates and CRLs, chain building, and revocation (RFC 5280, 6, narrowed).
//
// Every certificate below a self-signed one must be covered by a CRL that chains to the same root. A certificate from a
// signature, a token or a CRL can be a link of a chain but never its end.
//
// If several codes apply, the order of the checks decides. For each certificate of a chain, from the signer's up:
//   1. its dates                      PELNIC_ERR_CERT_NOT_YET_VALID, PELNIC_ERR_CERT_EXPIRED   (RFC 5280, 6.1.3 (a)(2))
//   2. self-signed: the end           PELNIC_ERR_CERT_NO_ISSUER if it came with a package
//   3. its root, and CRLs that apply  PELNIC_ERR_CERT_NO_ISSUER, PELNIC_ERR_CRL_NOT_FOUND      (6.3.3 (a) to (c))
//   4. the best CRL's issuer          PELNIC_ERR_CRL_VERIFY; nested, so that 1 to 6 apply to it (6.3.3 (f), (g))
//   5. that CRL's entries             PELNIC_ERR_CERT_REVOKED                                  (6.3.3 (i), (j))
//   6. after an indirect CRL, or without CRL check: its issuer
//                                     PELNIC_ERR_CERT_NO_ISSUER, PELNIC_ERR_CERT_USAGE, PELNIC_ERR_CERT_SIGNATURE
// PELNIC_ERR_PATH_TOO_DEEP comes before 1 if too many verifications are nested. Two checks appear twice on purpose: key
// usage in _pnvCheckCertIssuer and in _pnvVerifyCertByIssuer, because a recorded issuer must still be allowed to sign,
// and likewise in _pnvCheckCrlIssuer and _pnvVerifyCrlByIssuer, which is also called on its own.
#ifndef PELNIC_PKI_IMPL_H
#define PELNIC_PKI_IMPL_H

#include "pelnic_pki_index.h"
#include "pelnic_x509_crl.h"
#include "pelnic_x509_templ.h"

constexpr PNV_UINT32 MAX_NESTED_VERIFICATIONS = 11;

typedef struct pelnic_pki_ver_flag_st {
    PNV_UINT32 ulFlags;
    PNV_UINT32 ulInhFlags;
    PNV_INT32 iVerDepth;
} PELNIC_PKI_VER_FLAG;

// Reserved settings: nothing reads them.
typedef struct pelnic_pki_verify_param_st {
    PELNIC_DATETIME check_time;
    PELNIC_PKI_VER_FLAG verify_flags;
    PNV_INT32 iPurpose;
} PELNIC_PKI_VERIFY_PARAM;

typedef struct pelnic_pki_local_store_st {
    LIST_TYPE_PELNIC_X509_CERT local_certs;
    PkiIndex<PELNIC_X509_CERT> cert_index;
} PELNIC_PKI_LOCAL_STORE;

typedef struct pelnic_pki_trust_store_st {
    LIST_TYPE_PELNIC_X509_CERT ca_certs;
    LIST_TYPE_PELNIC_X509_CRL crl_store;
    PkiIndex<PELNIC_X509_CERT> cert_index;
    PkiIndex<PELNIC_X509_CRL> crl_index;
} PELNIC_PKI_TRUST_STORE;

// Stores are created with their first element and only grow. They are searched in the order of insertion; duplicates
// are looked up in an index beside each list.
typedef struct pelnic_pki_store_st {
    PELNIC_PKI_LOCAL_STORE* local_store; // signers and timestamp authorities
    PELNIC_PKI_VERIFY_PARAM verify_param;
    PELNIC_PKI_TRUST_STORE* trust_store; // CA certificates, and CRLs
} PELNIC_PKI_STORE;

typedef struct pelnic_pki_st {
    PNV_UINT32 st_size;
    PELNIC_PKI_STORE pki_store;
} PELNIC_PKI;

// The context's PKI object. Uninit does not change the context's handle.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pki_init(PELNIC_VRF* ctx);
void pelnic_pki_uninit(PELNIC_VRF* ctx);

// ---- Stores. Nothing here logs. A successful add takes its own reference; a failed one changes nothing.
// PELNIC_ERR_NULL_POINTER for a null argument, PELNIC_ERR_NO_PKI without a PKI object, PELNIC_ERR_SYS_MEM_ALLOC if the
// store cannot be created.

// Whether basicConstraints says CA. PELNIC_ERR_CERT_VERSION below version 3; an undecodable extension means no.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pki_is_ca_cert(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                                      PNV_BOOL* is_ca);
// PELNIC_ERR_CERT_NOT_CA for a certificate that is not a CA; PELNIC_ERR_CERT_DUPLICATE if the store has one with the
// same issuer, serial number and key.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pki_store_add_trust_cert(const PELNIC_VRF* ctx, PELNIC_X509_CERT* cert);
// The same without the CA check.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pki_store_add_local_cert(const PELNIC_VRF* ctx, PELNIC_X509_CERT* cert);
// PELNIC_ERR_CRL_DUPLICATE if the store has one with the same signature bits, whatever its content.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pki_store_add_crl(const PELNIC_VRF* ctx, PELNIC_X509_CRL* crl);

// ---- Chains, at the context's base_time

// Walks from the certificate to the end of its chain; with reset_depth as an outermost verification. *result is true
// only with code 0. PELNIC_ERR_NULL_POINTER; PELNIC_ERR_PATH_TOO_DEEP if 11 verifications are in progress (logged);
// PELNIC_ERR_CERT_NO_ISSUER if the chain has no acceptable end; PELNIC_ERR_SYS_MEM_ALLOC if the chain is good, but a
// callback has failed in this run or has spoiled the context (pelnic_faults.h); the codes of the checks on the way.
// Within an outermost verification a nested one runs once per certificate and depth. A repeated call logs again that no
// CRL was found, but not the failures below. A verification is outermost if no other one is in progress, whatever
// curr_depth says.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_pki_verify_cert(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                                       PNV_BOOL reset_depth, PNV_BOOL* result);
// The first certificate of the trust store, or else of the local store, that issued the CRL and verifies its signature;
// or null.
[[nodiscard]] const PELNIC_X509_CERT* pelnic_pki_find_crl_issuer(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl);
// The local store's first certificate with that issuer and serial number, or null.
[[nodiscard]] const PELNIC_X509_CERT* pelnic_pki_find_cert_by_issuer_sn(const PELNIC_VRF* ctx,
                                                                        const PELNIC_X509_NAME* issuer,
                                                                        const PELNIC_ASN_BIGINT* serial);

// PELNIC_ERR_CERT_NOT_YET_VALID, PELNIC_ERR_CERT_EXPIRED or a conversion's code; both bounds are inclusive.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCheckCertDate(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert);
// 0 if candidate issued cert; then records it as cert's issuer for good, unless a callback has failed in this run.
// PELNIC_ERR_CERT_SIGNATURE for a bad signature or another recorded issuer, PELNIC_ERR_CERT_USAGE without keyCertSign.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCheckCertIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                                    const PELNIC_X509_CERT* candidate);
// The trust store's first certificate that issued cert, or null. Tries each candidate once per run.
[[nodiscard]] const PELNIC_X509_CERT* _pnvFindCertIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert);
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyCertByIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                                       const PELNIC_X509_CERT* issuer);
// The self-signed end of a certificate's chain, or null.
[[nodiscard]] const PELNIC_X509_CERT* _pnvFindCertRoot(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert);
// 0 if cert issued the CRL. PELNIC_ERR_CERT_USAGE without cRLSign, PELNIC_ERR_CRL_VERIFY if the signature check fails
// or the signature is bad.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCheckCrlIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl,
                                                   const PELNIC_X509_CERT* cert);
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyCrlByIssuer(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl,
                                                      const PELNIC_X509_CERT* cert);
// One step of the walk: sets *verifyDone at the end, else *ppAuthor is the next certificate.
[[nodiscard]] PELNIC_ERROR_CODE _pnvInternalVerifyCertificate(PELNIC_VRF* ctx, const PELNIC_X509_CERT* pSubjCert,
                                                              const PELNIC_X509_CERT** ppAuthor, PNV_BOOL* verifyDone);

// ---- Revocation

constexpr PNV_UINT32 PNV_CRL_LISTED = 0x80;
constexpr PNV_UINT32 PNV_CRL_CURRENT = 0x40;
constexpr PNV_UINT32 PNV_CRL_SAME_ISSUER = 0x20;
constexpr PNV_UINT32 PNV_CRL_INDIRECT = 0x10;

typedef struct pelnic_crl_score_info_st {
    PNV_UINT32 crlScore;
    const PELNIC_X509_CRL* pCrl; // not owned
} PELNIC_CRL_SCORE_INFO;
PNV_DECLARE_LIST(PELNIC_CRL_SCORE_INFO);

// 0 if the certificate is covered and not revoked, or PELNIC_ERR_CERT_REVOKED, both with the CRL used;
// PELNIC_ERR_CRL_NOT_FOUND, PELNIC_ERR_CRL_VERIFY, PELNIC_ERR_CERT_NO_ISSUER or another code if no CRL can be used.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCheckCrlOfCert(PELNIC_VRF* ctx, PELNIC_X509_CERT* pCert, PELNIC_X509_CRL** ppCrl);
// The best CRL whose issuer verifies, or null with the reason in the context's last_err.
[[nodiscard]] const PELNIC_X509_CRL* _pnvFindBestCrlOfCert(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert);
// Appends a score entry for each stored CRL that applies to the certificate.
[[nodiscard]] PELNIC_ERROR_CODE _pnvGetScoredCrl(PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                                 LIST_TYPE_PELNIC_CRL_SCORE_INFO* list);
// 0 for a CRL that does not apply.
[[nodiscard]] PNV_UINT32 _pnvCrlGetScore(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* crl,
                                         const PELNIC_X509_CERT* cert, const PELNIC_X509_CERT* root);
// Whether the CRL applies at all; if so, adds its issuer bits.
[[nodiscard]] PNV_BOOL _pnvCrlGetIssuerScore(const PELNIC_VRF* ctx, const PELNIC_X509_CRL* pCrl,
                                             const PELNIC_X509_CERT* pCert, const PELNIC_X509_CERT* pCrtRoot,
                                             PNV_UINT32* score);
[[nodiscard]] PNV_INT _pnvCrlScoreSortDesc(const PELNIC_VRF* ctx, const void* a, const void* b);
[[nodiscard]] const PELNIC_CRL_SCORE_INFO* _pnvPickBestCrl(PELNIC_VRF* ctx,
                                                           const LIST_TYPE_PELNIC_CRL_SCORE_INFO* list);
// PELNIC_ERR_CERT_REVOKED if the entry revokes the certificate at base_time, 0 if it does not, or a failure's code.
[[nodiscard]] PELNIC_ERROR_CODE _pnvIsCertRevoked(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                                  const PELNIC_X509_REVOKED_ENTRY* entry);
// True for CA certificates and for certificates whose only known purpose is timestamping.
[[nodiscard]] PELNIC_ERROR_CODE _pnvNeedCheckReason(const PELNIC_VRF* ctx, const PELNIC_X509_CERT* cert,
                                                    PNV_BOOL* needCheckReason);

#endif
