// The signature of one signer over its signed attributes.
#include "pelnic_pkcs7_verify.h"

#include "pelnic_plt_proxy.h"
#include "pelnic_x509_utils.h"

static PELNIC_ERROR_CODE runVerification(const PELNIC_VRF* pVrf, PELNIC_CRYPTO_VRF_CTX vrf, const PELNIC_BIGINT* e,
                                         const PELNIC_BIGINT* n, PELNIC_AOIDS hashAlgo,
                                         const PELNIC_PKCS7_SIGNER_INFO* si, PNV_INT* result)
{
    PELNIC_ERROR_CODE rc = pelnic_verify_init(pVrf, vrf, e, n, hashAlgo);
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Failed to init verify context.");
    rc = pelnic_verify_update(pVrf, vrf, si->raw_signed->octs, si->raw_signed->len);
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Failed updating data to verify context.");
    rc = pelnic_verify_final(pVrf, vrf, si->encrypted_digest->octs, si->encrypted_digest->len, result);
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Failed to get verify result.");
    return 0;
}

PELNIC_ERROR_CODE pelnic_pkcs7_detached_signature_verify(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                                         const PELNIC_X509_CERT* cert, PNV_INT* result)
{
    if (si == nullptr || cert == nullptr || result == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PELNIC_AOIDS hashAlgo = pelnic_get_hash_aoid_from_sign(pelnic_find_aoid(pVrf, &si->digest_algo->algorithm));
    if (hashAlgo == AOID_UNKNOWN) return PELNIC_ERR_CMS_HASH_ALGO;
    PELNIC_BIGINT e = {};
    PELNIC_BIGINT n = {};
    PELNIC_ERROR_CODE rc = pelnic_x509_extract_public_key(pVrf, cert, &e, &n);
    if (rc != 0) return rc;
    PELNIC_CRYPTO_VRF_CTX vrf = nullptr;
    rc = pelnic_verify_ctx_create(pVrf, &vrf);
    if (rc != 0) return rc;
    rc = runVerification(pVrf, vrf, &e, &n, hashAlgo, si, result);
    if (rc != 0) *result = 0;
    pelnic_verify_ctx_destory(pVrf, vrf);
    return rc;
}
