// What signers of content and of timestamps have in common. Failures are logged with their code at error level, and the
// code is returned, unless a line says otherwise.
#ifndef CMS_VERIFY_SIGNER_H
#define CMS_VERIFY_SIGNER_H

#include "pelnic_asn1_def.h"
#include "pelnic_cms_templ.h"
#include "pelnic_vrf.h"

constexpr PNV_UINT32 MAX_DIGEST = 64;

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

// Destroys the entry's one crypto context and frees it. Null is ignored.
void _pnvFreeMdInfo(const PELNIC_VRF* pVrf, PELNIC_VERIFY_DIGEST_INFO* pDigestInfo);
void freeMdElement(PELNIC_VRF* pVrf, void* pDigestInfo); // the same for a list

// SHA-256, SHA-384 or SHA-512, also where the identifier names a signature with it; AOID_UNKNOWN for anything else.
[[nodiscard]] PELNIC_AOIDS hashAlgorithm(const PELNIC_VRF* pVrf, const PELNIC_X509_ALGO_IDENTIFIER* pAlgo);
[[nodiscard]] bool isSameDigest(const PELNIC_VRF* pVrf, const PELNIC_VERIFY_DIGEST_INFO* pInfo, const PNV_BYTE* digest,
                                PNV_UINT32 length);
// The local store's certificate for the signer's issuer and serial number, or null.
[[nodiscard]] const PELNIC_X509_CERT* _pnvFindAuthorCertBySignerInfo(const PELNIC_VRF* pVrf,
                                                                     const PELNIC_PKCS7_SIGNER_INFO* si);
// A new entry with the signer's digest algorithm and claimed digest, and no digest context yet.
[[nodiscard]] PELNIC_ERROR_CODE _pnvGetDigestFromSignerInfo(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                                            PELNIC_VERIFY_DIGEST_INFO** ppInfo);
// The digest of a range; digest holds 64 octets.
[[nodiscard]] PELNIC_ERROR_CODE _pnvHashContent(const PELNIC_VRF* pVrf, const PNV_BYTE* data, PNV_UINT32 length,
                                                PELNIC_AOIDS hashAlgoId, PNV_BYTE* digest, PNV_UINT32* digestLength);
// Digital signature, one of the extended usages asked for, and a valid chain at base_time.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyIssuerCert(PELNIC_VRF* pVrf, const PELNIC_X509_CERT* cert,
                                                     PNV_UINT32 expExtKu);

#endif
