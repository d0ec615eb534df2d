// Common to signers of content and signers of timestamps. Unless a comment says otherwise, failures are logged with
// their code at error level and the code is returned.
#ifndef CMS_VERIFY_SIGNER_H
#define CMS_VERIFY_SIGNER_H

#include "pelnic_asn1_def.h"
#include "pelnic_cms_templ.h"
#include "pelnic_vrf.h"

constexpr PNV_UINT32 MAX_DIGEST = 64;

// Either the digest of the content, for all signers with one algorithm, or one signer's signature over the content.
struct pelnic_verify_digest_info_st {
    PELNIC_CRYPTO_MD_CTX digestCtx; // null in a signature entry
    PELNIC_AOIDS nDigestAlgID;      // 0 in a signature entry
    PNV_BYTE pbDigest[64];          // the digest that the signers claim
    PNV_UINT32 nDigestSize;
    PELNIC_CRYPTO_VRF_CTX vrfCtx; // null in a digest entry
    PNV_BYTE* pbSignature;        // owned copy
    PNV_UINT32 nSignature;
};

// Destroys the entry's crypto context and frees the entry. Null is ignored.
void _pnvFreeMdInfo(const PELNIC_VRF* pVrf, PELNIC_VERIFY_DIGEST_INFO* pDigestInfo);
void freeMdElement(PELNIC_VRF* pVrf, void* pDigestInfo); // the same for a list

// SHA-256, SHA-384 or SHA-512, for a digest or signature algorithm with that digest; AOID_UNKNOWN for anything else.
[[nodiscard]] PELNIC_AOIDS hashAlgorithm(const PELNIC_VRF* pVrf, const PELNIC_X509_ALGO_IDENTIFIER* pAlgo);
[[nodiscard]] bool isSameDigest(const PELNIC_VRF* pVrf, const PELNIC_VERIFY_DIGEST_INFO* pInfo, const PNV_BYTE* digest,
                                PNV_UINT32 length);
// The local store's certificate for the signer's issuer and serial number, or null.
[[nodiscard]] const PELNIC_X509_CERT* _pnvFindAuthorCertBySignerInfo(const PELNIC_VRF* pVrf,
                                                                     const PELNIC_PKCS7_SIGNER_INFO* si);
// A new entry with the signer's digest algorithm and claimed digest, and no digest context yet.
[[nodiscard]] PELNIC_ERROR_CODE _pnvGetDigestFromSignerInfo(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                                            PELNIC_VERIFY_DIGEST_INFO** ppInfo);
// Hashes a range; digest has room for 64 octets.
[[nodiscard]] PELNIC_ERROR_CODE _pnvHashContent(const PELNIC_VRF* pVrf, const PNV_BYTE* data, PNV_UINT32 length,
                                                PELNIC_AOIDS hashAlgoId, PNV_BYTE* digest, PNV_UINT32* digestLength);
// Requires key usage digitalSignature, one of the given extended usages, and a valid chain at base_time.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyIssuerCert(PELNIC_VRF* pVrf, const PELNIC_X509_CERT* cert,
                                                     PNV_UINT32 expExtKu);

#endif
