// What stands behind the public operations. Each function's failures are logged with their code at error level, and the
// code is returned, unless its line says otherwise.
#ifndef CMS_VERIFY_H
#define CMS_VERIFY_H

#include "pelnic_asn1_def.h"
#include "pelnic_cms_templ.h"
#include "pelnic_vrf.h"

// One digest of the content for all signers that share an algorithm, or the signature of one signer over the content.
struct pelnic_verify_digest_info_st {
    PELNIC_CRYPTO_MD_CTX digestCtx; // null in a signature entry
    PELNIC_AOIDS nDigestAlgID;      // 0 in a signature entry
    PNV_BYTE pbDigest[64];          // what the signers claim the digest is
    PNV_UINT32 nDigestSize;
    PELNIC_CRYPTO_VRF_CTX vrfCtx; // null in a digest entry
    PNV_BYTE* pbSignature;        // owned copy
    PNV_UINT32 nSignature;
};

// ---- Context

// The tests of pelnic_verify_create_ctx, in their order; unlogged.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCheckCreateParams(const PELNIC_CTX_CREATE_PARAMS* pParams);
// Destroys the entry's one crypto context and frees it. Null is ignored.
void _pnvFreeMdInfo(const PELNIC_VRF* pVrf, PELNIC_VERIFY_DIGEST_INFO* pDigestInfo);

// ---- Adding certificates and CRLs

// A whole file of 1 to 2,000,000 octets in a buffer that the caller frees; a short read is not logged.
[[nodiscard]] PELNIC_ERROR_CODE _pnvReadFile(const PELNIC_VRF* pVrf, const PNV_CHAR* pszFilePath, PNV_BYTE** data,
                                             PNV_UINT32* size);
// Appends every certificate and CRL of a DER stream or PEM text to the lists; either list may be null. Objects that do
// not decode end the stream, or their PEM block is passed over, without an error.
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeCertCrl(PELNIC_VRF* pVrf, const PNV_BYTE* pbContent,
                                                  PNV_UINT32 nContentLength, LIST_TYPE_PELNIC_X509_CERT* pCertList,
                                                  LIST_TYPE_PELNIC_X509_CRL* pCrlList);
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeStreamCertCrl(PELNIC_VRF* pVrf, const PNV_BYTE* pbContent,
                                                        PNV_UINT32 nContentLength,
                                                        LIST_TYPE_PELNIC_X509_CERT* pCertList,
                                                        LIST_TYPE_PELNIC_X509_CRL* pCrlList);
// text is zero-terminated.
[[nodiscard]] PELNIC_ERROR_CODE _decodePemCertCrl(PELNIC_VRF* pVrf, const PNV_CHAR* text,
                                                  LIST_TYPE_PELNIC_X509_CERT* pCertList,
                                                  LIST_TYPE_PELNIC_X509_CRL* pCrlList);
// Always 0: a block that does not decode or cannot be kept is dropped.
PELNIC_ERROR_CODE _pnvAddPemCertToList(PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                       LIST_TYPE_PELNIC_X509_CERT* pCertList);
PELNIC_ERROR_CODE _pnvAddPemCrlToList(PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                      LIST_TYPE_PELNIC_X509_CRL* pCrlList);
[[nodiscard]] PELNIC_ERROR_CODE _pnvPemDecodeCert(const PELNIC_VRF* pVrf, const PNV_CHAR* block,
                                                  PNV_UINT32 nBlockLength, PELNIC_X509_CERT** ppCert);
[[nodiscard]] PELNIC_ERROR_CODE _pnvPemDecodeCrl(const PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                                 PELNIC_X509_CRL** ppCrl);

// The caller's certificates: CAs become trust anchors, the others local certificates. An empty list is
// PELNIC_ERR_CERT_INVALID, unlogged.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddRootToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList);
// Certificates that came with CRLs: the same, but self-signed ones are passed over with a warning, and none ever ends a
// chain. An empty list is success.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddCertToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList);
// Appends to the context's crl_list. Always 0: what cannot be appended is left out.
PELNIC_ERROR_CODE _pnvAddCrlToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CRL* crlList);

// ---- Detached signatures

// Hands crl_list over to the PKI object and freezes it.
void _pnvSyncCrl(PELNIC_VRF* pVrf);
// text is zero-terminated; nSigLength is its length without that zero.
[[nodiscard]] PELNIC_ERROR_CODE _pnvPemDecodeCms(PELNIC_VRF* pVrf, const PNV_CHAR* text, PNV_UINT32 nSigLength,
                                                 PELNIC_PKCS7_CONTENT** ppContent);
// Decodes a signature, DER or PEM, of at least MIN_INPUT octets.
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeCms(PELNIC_VRF* pVrf, const PNV_BYTE* pbSignature, PNV_UINT32 nSigLength,
                                              PELNIC_PKCS7_CONTENT** ppContent);
// Verifies every signer and prepares the verification process.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyCms(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed);
// Puts the certificates of a signature or token into the stores, but for self-signed ones; none ever ends a chain.
// Always 0.
PELNIC_ERROR_CODE _pnvExtractCertsIntoVerifyContext(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed);
// The local store's certificate for the signer's issuer and serial number, or null.
[[nodiscard]] const PELNIC_X509_CERT* _pnvFindAuthorCertBySignerInfo(const PELNIC_VRF* pVrf,
                                                                     const PELNIC_PKCS7_SIGNER_INFO* si);
// A new entry with the signer's digest algorithm and claimed digest, and no digest context yet.
[[nodiscard]] PELNIC_ERROR_CODE _pnvGetDigestFromSignerInfo(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                                            PELNIC_VERIFY_DIGEST_INFO** ppInfo);
// Adds the digest entry of a signer with signed attributes, or finds that there is one already.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddSignerInfoToVerifyProcess(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si);
// Adds the signature entry of a signer without them.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCreateVerifyHandle(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                                       const PELNIC_X509_CERT* cert);
// The digest of a range; digest holds 64 octets.
[[nodiscard]] PELNIC_ERROR_CODE _pnvHashContent(const PELNIC_VRF* pVrf, const PNV_BYTE* data, PNV_UINT32 length,
                                                PELNIC_AOIDS hashAlgoId, PNV_BYTE* digest, PNV_UINT32* digestLength);
// Feeds a file to the verification in progress, block by block; a read error looks like the file's end.
[[nodiscard]] PELNIC_ERROR_CODE _pnvUpdateContent(PELNIC_VRF* pVrf, const PNV_CHAR* srcfile);

// ---- Timestamps

// Verifies the timestamp that a signer must carry; its time becomes base_time.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyTimeStamp(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si);
// The imprint against the signer's signature value. base_time is set here, before the token's signature is checked.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyTstInfo(PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* encoded_ts_info,
                                                  const PELNIC_PKCS7_SIGNER_INFO* si);
// One signer of the token.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyTsSignerInfo(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si_ts,
                                                       const PELNIC_ASN_OCTS* encoded_ts_info);
// Digital signature, one of the extended usages asked for, and a valid chain at base_time.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyIssuerCert(PELNIC_VRF* pVrf, const PELNIC_X509_CERT* cert,
                                                     PNV_UINT32 expExtKu);

// ---- CRL bundles; unlogged but for the allocation in _pnvGetCrlInfo

[[nodiscard]] PELNIC_ERROR_CODE _pnvGetCrlInfo(PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl,
                                               PELNIC_CRL_INFO** ppCrlInfo);
[[nodiscard]] PELNIC_ERROR_CODE _pnvGetRevokeList(const PELNIC_VRF* pVrf, PELNIC_REVOKE_LIST* pRevokeList,
                                                  const PELNIC_X509_REVOKED* pX509Revoke);
void _pnvDestoryRevokeList(const PELNIC_VRF* pVrf, PELNIC_REVOKE_LIST* pRevokeList); // spelt so in the interface
// -1 for different issuers; else 0, and *state has taken in whether psi1 is newer or older than psi2.
[[nodiscard]] PNV_INT _pnvCompareCrlInfo(const PELNIC_VRF* pVrf, const PELNIC_CRL_INFO* psi1,
                                         const PELNIC_CRL_INFO* psi2, PELNIC_CRL_PERIOD_STAT* state);
// Compares each entry of s1 with the one of s2 that has its issuer.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCompareIntercrossCrl(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* s1,
                                                         const PELNIC_CRL_BUNDLE_INFO* s2,
                                                         PELNIC_CRL_PERIOD_STAT* curState);
// 1 when two entries have the same issuer, else 0.
[[nodiscard]] PNV_INT _pnvFindDuplicateCrlIssuer(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* bundle);
// 1 when the root's revoke list holds the serial number of the missing CRL's issuer, else 0.
[[nodiscard]] PNV_INT _pnvIsCrlIssuerRevoked(const PELNIC_VRF* pVrf, const PELNIC_CRL_INFO* pciRoot,
                                             const PELNIC_CRL_INFO* pciMissing);
// 0 when the newer bundle covers every issuer of the older one, or revoked it; else -1.
[[nodiscard]] PNV_INT _pnvCheckNewCrl(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* newCrlBi,
                                      const PELNIC_CRL_BUNDLE_INFO* oldCrlBi);

#endif
