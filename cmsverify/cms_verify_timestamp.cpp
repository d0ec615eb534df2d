// The timestamp that every signer must carry (RFC 3161, 2.4.2).
#include "cms_verify_timestamp.h"

#include "cms_verify_add.h"
#include "cms_verify_signer.h"
#include "pelnic_asn1_decode.h"
#include "pelnic_asn1_utils.h"
#include "pelnic_cms_parse.h"
#include "pelnic_cms_utils.h"
#include "pelnic_pkcs7_verify.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_witness.h"
#include "pelnic_x509_cert.h"
#include "pelnic_x509_utils.h"

// Whether the imprint is the digest of the stamped signature.
static PELNIC_ERROR_CODE checkImprint(const PELNIC_VRF* pVrf, const PELNIC_TS_MSG_IMPRINT* pImprint,
                                      const PELNIC_ASN_OCTS* signature)
{
    const PELNIC_AOIDS algorithm = hashAlgorithm(pVrf, &pImprint->hash_algo);
    if (algorithm == AOID_UNKNOWN) return PNV_FAIL(pVrf, PELNIC_ERR_UNSUPPORTED_ALGO);
    PNV_BYTE digest[MAX_DIGEST] = {};
    PNV_UINT32 length = 0;
    const PELNIC_ERROR_CODE rc = _pnvHashContent(pVrf, signature->octs, signature->len, algorithm, digest, &length);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    const PELNIC_ASN_OCTS& value = pImprint->hash_value;
    if (value.len == length && pelnic_memcmp(pVrf, value.octs, digest, length) == 0) return 0;
    return PNV_FAIL_MSG(pVrf, PELNIC_ERR_TSP_IMPRINT_MISMATCH, "the timestamp not match with target cms.");
}

PELNIC_ERROR_CODE _pnvVerifyTstInfo(PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* encoded_ts_info,
                                    const PELNIC_PKCS7_SIGNER_INFO* si)
{
    PELNIC_TST_INFO* pTstInfo = nullptr;
    PNV_UINT32 decoded = 0;
    PELNIC_ERROR_CODE rc =
        pelnic_decode_timestamp_token(pVrf, encoded_ts_info->octs, encoded_ts_info->len, &pTstInfo, &decoded);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    ScopeExit freeTstInfo{[&] { pelnic_free_timestamp_token(pVrf, pTstInfo); }};
    rc = checkImprint(pVrf, pTstInfo->msg_imprint, si->encrypted_digest);
    if (rc != 0) return rc;
    PELNIC_DATETIME date = {};
    rc = pelnic_convert_from_time(pVrf, pTstInfo->time, &date);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    pVrf->base_time = pelnic_mktime(pVrf, &date); // stays set, even if the token fails later
    return 0;
}

// The signature over the attributes, and their claimed digest of the TSTInfo.
static PELNIC_ERROR_CODE verifyTsAttributes(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si_ts,
                                            const PELNIC_X509_CERT* cert, const PELNIC_ASN_OCTS* encoded_ts_info)
{
    PNV_INT verdict = 0;
    PELNIC_ERROR_CODE rc = pelnic_pkcs7_detached_signature_verify(pVrf, si_ts, cert, &verdict);
    if (rc != 0 || verdict != 1) {
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_SIGNATURE);
    }
    PELNIC_VERIFY_DIGEST_INFO* pInfo = nullptr;
    rc = _pnvGetDigestFromSignerInfo(pVrf, si_ts, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    ScopeExit freeInfo{[&] { _pnvFreeMdInfo(pVrf, pInfo); }};
    PNV_BYTE digest[MAX_DIGEST] = {};
    PNV_UINT32 length = 0;
    rc = _pnvHashContent(pVrf, encoded_ts_info->octs, encoded_ts_info->len, pInfo->nDigestAlgID, digest, &length);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    if (isSameDigest(pVrf, pInfo, digest, length)) return 0;
    return PNV_FAIL_MSG(pVrf, PELNIC_ERR_TSP_VERIFY, "verify timestamp failed.");
}

// The signature over the TSTInfo itself.
static PELNIC_ERROR_CODE verifyTsDirectly(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si_ts,
                                          const PELNIC_X509_CERT* cert, const PELNIC_ASN_OCTS* encoded_ts_info)
{
    const PELNIC_AOIDS hashAlgo = hashAlgorithm(pVrf, si_ts->digest_algo);
    if (hashAlgo == AOID_UNKNOWN) return PNV_FAIL(pVrf, PELNIC_ERR_CMS_HASH_ALGO);
    PELNIC_PUBKEY* pPubKey = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_decode_pubkey(pVrf, cert->toBeSigned->subjectPubKey, &pPubKey);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_BOOL verified = 0;
    rc = pelnic_x509_pkey_verify(pVrf, encoded_ts_info->octs, encoded_ts_info->len, si_ts->encrypted_digest->octs,
                                 si_ts->encrypted_digest->len, pPubKey, hashAlgo, &verified);
    pelnic_free_pubkey(pVrf, pPubKey);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return verified == 1 ? 0 : PELNIC_ERR_TSP_VERIFY;
}

PELNIC_ERROR_CODE _pnvVerifyTsSignerInfo(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si_ts,
                                         const PELNIC_ASN_OCTS* encoded_ts_info)
{
    const PELNIC_X509_CERT* const cert = _pnvFindAuthorCertBySignerInfo(pVrf, si_ts);
    PNV_TELL(Decision::SignerCert, cert == nullptr ? PELNIC_ERR_TSP_CERT_NOT_FOUND : 0, cert);
    if (cert == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_TSP_CERT_NOT_FOUND);
    const PELNIC_ERROR_CODE rc = _pnvVerifyIssuerCert(pVrf, cert, PNV_EKU_TIME_STAMPING);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    // An empty set of attributes counts as none here, unlike for the signers of content.
    const bool hasAttributes = si_ts->auth_attrs != nullptr && si_ts->auth_attrs->attrs.num != 0;
    return hasAttributes ? verifyTsAttributes(pVrf, si_ts, cert, encoded_ts_info)
                         : verifyTsDirectly(pVrf, si_ts, cert, encoded_ts_info);
}

// The token's TSTInfo and, if it is good, its signers. A token without signers passes.
static PELNIC_ERROR_CODE verifyToken(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* token,
                                     const PELNIC_PKCS7_SIGNER_INFO* si)
{
    const PELNIC_PKCS7_CONTENT_INFO* const pInfo = token->signed_data->content;
    if (pInfo == nullptr || pInfo->content == nullptr) {
        PNV_TELL(Decision::Time, PELNIC_ERR_TSP_DECODE);
        return PNV_FAIL(pVrf, PELNIC_ERR_TSP_DECODE);
    }
    PELNIC_ASN_OCTS* encoded_ts_info = nullptr;
    PNV_UINT32 decoded = 0;
    PELNIC_ERROR_CODE rc = _pnvDecode<PELNIC_ASN_OCTS_item>(pVrf, pInfo->content->octs, pInfo->content->len, 0,
                                                            &encoded_ts_info, &decoded);
    if (rc != 0) {
        PNV_TELL(Decision::Time, rc);
        return PNV_FAIL(pVrf, rc);
    }
    ScopeExit freeEncoded{[&] { pelnic_asn_free(pVrf, encoded_ts_info, &PELNIC_ASN_OCTS_item, 0); }};
    rc = _pnvVerifyTstInfo(pVrf, encoded_ts_info, si);
    PNV_TELL(Decision::Time, rc, nullptr, nullptr, nullptr, 0, CrlUnfit::None, pVrf->base_time);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    (void)_pnvExtractCertsIntoVerifyContext(pVrf, token);
    const PELNIC_PKCS7_SIGNER_INFO_BUNDLE* const pSigners = token->signed_data->signer_infos;
    for (PNV_UINT32 i = 0; pSigners != nullptr && i < pSigners->infos.num && rc == 0; ++i) {
        PNV_TELL(Decision::Authority);
        rc = _pnvVerifyTsSignerInfo(pVrf, pSigners->infos.data[i], encoded_ts_info);
        PNV_TELL(Decision::AuthorityDone, rc);
    }
    return rc;
}

PELNIC_ERROR_CODE _pnvVerifyTimeStamp(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si)
{
    void* pResult = nullptr;
    PELNIC_ERROR_CODE rc =
        pelnic_x509_extract_attribute(pVrf, si->unauth_attrs, AOID_PKCS9_AT_TIMESTAMP_TOKEN, &pResult);
    PNV_TELL(Decision::Token, rc);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    rc = verifyToken(pVrf, static_cast<const PELNIC_PKCS7_CONTENT*>(pResult), si);
    pelnic_x509_free_attribute(pVrf, pResult, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    return rc;
}
