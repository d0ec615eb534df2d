// The default crypto callbacks on OpenSSL's libcrypto. No other module names it.
#include "pelnic_callback_fun.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <cstdio>
#include <cstring>
#include <new>

const EVP_MD* _pnv_get_openssl_evpmd(PNV_UINT32 hash_id)
{
    switch (hash_id) {
    case AOID_SHA256: return EVP_sha256();
    case AOID_SHA384: return EVP_sha384();
    case AOID_SHA512: return EVP_sha512();
    default: return nullptr;
    }
}

HASH_ALGO _convert_hash_algo(PNV_UINT32 algo_id)
{
    switch (algo_id) {
    case AOID_SHA256: return HSAG_SHA256;
    case AOID_SHA384: return HSAG_SHA384;
    case AOID_SHA512: return HSAG_SHA512;
    default: return HSAG_UNKNOW;
    }
}

// Clears only the thread's error queue: OPENSSL_cleanup would be final, and the next digest would crash.
void pnv_openssl_uninit()
{
    ERR_clear_error();
}

// libcrypto must not read its configuration file: a line in it can load foreign code into the process or forbid the
// digests. And it needs its default context, which it creates once per process: without memory for that it continues
// and crashes.
static bool isLibcryptoReady()
{
    return OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1 &&
           OSSL_LIB_CTX_get0_global_default() != nullptr;
}

// A digest context ready for data, or null.
static EVP_MD_CTX* newDigest(PNV_UINT32 hash_id)
{
    if (!isLibcryptoReady()) return nullptr;
    const EVP_MD* const md = _pnv_get_openssl_evpmd(hash_id);
    if (md == nullptr) return nullptr;
    EVP_MD_CTX* const digest = EVP_MD_CTX_new();
    if (digest == nullptr) return nullptr;
    if (EVP_DigestInit_ex(digest, md, nullptr) == 1) return digest;
    EVP_MD_CTX_free(digest);
    return nullptr;
}

PELNIC_ERROR_CODE _pnv_md_ctx_create_impl(PELNIC_CRYPTO_MD_CTX* out)
{
    void* block = nullptr;
    const PELNIC_ERROR_CODE rc = pnv_malloc_impl(&block, PNV_UINT32{sizeof(CRYPTO_MD)});
    if (rc != 0) return rc;
    *out = new (block) CRYPTO_MD{PNV_UINT32{sizeof(CRYPTO_MD)}, nullptr, HSAG_UNKNOW};
    return 0;
}

PELNIC_ERROR_CODE _pnv_md_init_impl(PELNIC_CRYPTO_MD_CTX ctx, PNV_UINT32 hash_id)
{
    CRYPTO_MD* const md = static_cast<CRYPTO_MD*>(ctx);
    if (md == nullptr) return PELNIC_ERR_FAILED;
    EVP_MD_CTX_free(md->hash_handler);
    md->hash_handler = newDigest(hash_id);
    return md->hash_handler == nullptr ? PELNIC_ERR_FAILED : 0;
}

PELNIC_ERROR_CODE _pnv_md_update_impl(PELNIC_CRYPTO_MD_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len)
{
    CRYPTO_MD* const md = static_cast<CRYPTO_MD*>(ctx);
    if (md == nullptr) return PELNIC_ERR_FAILED;
    if (data == nullptr || len == 0) return 0;
    if (md->hash_handler == nullptr) return PELNIC_ERR_FAILED;
    return EVP_DigestUpdate(md->hash_handler, data, len) == 1 ? 0 : PELNIC_ERR_FAILED;
}

PELNIC_ERROR_CODE _pnv_md_final_impl(PELNIC_CRYPTO_MD_CTX ctx, PNV_BYTE* digest, PNV_UINT32* len)
{
    CRYPTO_MD* const md = static_cast<CRYPTO_MD*>(ctx);
    if (md == nullptr || digest == nullptr || len == nullptr || md->hash_handler == nullptr) return PELNIC_ERR_FAILED;
    return EVP_DigestFinal_ex(md->hash_handler, digest, len) == 1 ? 0 : PELNIC_ERR_FAILED;
}

void _pnv_md_ctx_destory_impl(PELNIC_CRYPTO_MD_CTX ctx)
{
    CRYPTO_MD* const md = static_cast<CRYPTO_MD*>(ctx);
    if (md == nullptr) return;
    EVP_MD_CTX_free(md->hash_handler);
    pnv_free_impl(md);
    pnv_openssl_uninit();
}

PELNIC_ERROR_CODE pelnic_verify_ctx_create_impl(PELNIC_CRYPTO_VRF_CTX* out)
{
    if (out == nullptr) return PELNIC_ERR_FAILED;
    void* block = nullptr;
    const PELNIC_ERROR_CODE rc = pnv_malloc_impl(&block, PNV_UINT32{sizeof(CRYPTO_VRF)});
    if (block == nullptr) return PELNIC_ERR_FAILED;
    *out = new (block) CRYPTO_VRF{PNV_UINT32{sizeof(CRYPTO_VRF)}, nullptr, nullptr};
    return rc;
}

static bool pushMagnitude(OSSL_PARAM_BLD* params, const char* name, const PELNIC_BIGINT* value, BIGNUM** number)
{
    if (value->uiLength > sizeof value->aVal) return false;
    *number = BN_bin2bn(value->aVal, static_cast<int>(value->uiLength), nullptr);
    return *number != nullptr && OSSL_PARAM_BLD_push_BN(params, name, *number) == 1;
}

// The RSA public key with an exponent and a modulus, or null.
static EVP_PKEY* newRsaPublicKey(const PELNIC_BIGINT* e, const PELNIC_BIGINT* n)
{
    OSSL_PARAM_BLD* const builder = OSSL_PARAM_BLD_new();
    EVP_PKEY_CTX* const import = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    BIGNUM* modulus = nullptr;
    BIGNUM* exponent = nullptr;
    OSSL_PARAM* params = nullptr;
    EVP_PKEY* key = nullptr;
    if (builder != nullptr && import != nullptr && pushMagnitude(builder, OSSL_PKEY_PARAM_RSA_N, n, &modulus) &&
        pushMagnitude(builder, OSSL_PKEY_PARAM_RSA_E, e, &exponent)) {
        params = OSSL_PARAM_BLD_to_param(builder);
        if (params == nullptr || EVP_PKEY_fromdata_init(import) != 1 ||
            EVP_PKEY_fromdata(import, &key, EVP_PKEY_PUBLIC_KEY, params) != 1) {
            key = nullptr;
        }
    }
    OSSL_PARAM_free(params);
    BN_free(exponent);
    BN_free(modulus);
    EVP_PKEY_CTX_free(import);
    OSSL_PARAM_BLD_free(builder);
    return key;
}

static void resetVerification(CRYPTO_VRF* vrf)
{
    EVP_MD_CTX_free(vrf->md_ctx);
    EVP_PKEY_free(vrf->pub);
    vrf->md_ctx = nullptr;
    vrf->pub = nullptr;
}

PELNIC_ERROR_CODE _pnv_verify_init_impl(PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e, const PELNIC_BIGINT* n,
                                        PNV_UINT32 hash_id)
{
    CRYPTO_VRF* const vrf = static_cast<CRYPTO_VRF*>(ctx);
    if (vrf == nullptr || e == nullptr || n == nullptr) return PELNIC_ERR_FAILED;
    resetVerification(vrf);
    vrf->md_ctx = newDigest(hash_id);
    if (vrf->md_ctx == nullptr) return PELNIC_ERR_FAILED;
    vrf->pub = newRsaPublicKey(e, n);
    if (vrf->pub != nullptr) return 0;
    resetVerification(vrf);
    return PELNIC_ERR_FAILED;
}

PELNIC_ERROR_CODE pelnic_verify_update_impl(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len)
{
    CRYPTO_VRF* const vrf = static_cast<CRYPTO_VRF*>(ctx);
    if (vrf == nullptr || vrf->md_ctx == nullptr || (data == nullptr && len != 0)) return PELNIC_ERR_FAILED;
    return EVP_DigestUpdate(vrf->md_ctx, data, len) == 1 ? 0 : PELNIC_ERR_FAILED;
}

// Whether libcrypto says that the signature is bad. Without memory it fails with another error, or without any.
static bool isFoundBad()
{
    bool bad = false;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        if (ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE) return false;
        if (ERR_GET_LIB(error) == ERR_LIB_RSA) bad = true;
    }
    return bad;
}

// The verdict: a bad signature and a failure inside libcrypto are both 0. But a moment without memory must not hide a
// CRL: unless libcrypto says that the signature is bad, it is asked once more.
static PNV_INT verdict(CRYPTO_VRF* vrf, const PNV_BYTE* signature, PNV_UINT32 len)
{
    ERR_clear_error();
    int answer = EVP_VerifyFinal(vrf->md_ctx, signature, len, vrf->pub);
    if (answer != 1 && !isFoundBad()) answer = EVP_VerifyFinal(vrf->md_ctx, signature, len, vrf->pub);
    return answer == 1 ? 1 : 0;
}

PELNIC_ERROR_CODE _pnv_verify_final_impl(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* pbSignature, PNV_UINT32 len,
                                         PNV_INT* result)
{
    CRYPTO_VRF* const vrf = static_cast<CRYPTO_VRF*>(ctx);
    if (vrf == nullptr || vrf->pub == nullptr) {
        (void)puts("Para is wrong\r"); // the only line the default callbacks ever print
        return PELNIC_ERR_FAILED;
    }
    if (result == nullptr || (pbSignature == nullptr && len != 0) || len > 0xFFFFFFFCu) return PELNIC_ERR_FAILED;
    // Leading zeros do not change the value: a signature that lost them gets them back, up to a multiple of four
    // octets. A key of another size fails here.
    const PNV_UINT32 nHashLen = (len + 3) & ~PNV_UINT32{3};
    if (nHashLen == len) {
        *result = verdict(vrf, pbSignature, len);
        return 0;
    }
    void* block = nullptr;
    if (pnv_malloc_impl(&block, nHashLen) != 0 || block == nullptr) return PELNIC_ERR_FAILED;
    PNV_BYTE* const padded = static_cast<PNV_BYTE*>(block);
    memset(padded, 0, nHashLen - len);
    memcpy(padded + (nHashLen - len), pbSignature, len);
    *result = verdict(vrf, padded, nHashLen);
    pnv_free_impl(block);
    return 0;
}

void _pnv_verify_ctx_destory_impl(PELNIC_CRYPTO_VRF_CTX ctx)
{
    CRYPTO_VRF* const vrf = static_cast<CRYPTO_VRF*>(ctx);
    if (vrf == nullptr) return;
    resetVerification(vrf);
    pnv_free_impl(vrf);
    pnv_openssl_uninit();
}

void _pnvSetCryptoCallbacks(PELNIC_CALLBACK_FUNCS* funcs)
{
    funcs->crypt_funcs = {sizeof(PELNIC_CRYPTO_FUNCS), pelnic_verify_ctx_create_impl, _pnv_verify_init_impl,
                          pelnic_verify_update_impl,   _pnv_verify_final_impl,        _pnv_verify_ctx_destory_impl};
    funcs->md_funcs = {sizeof(PELNIC_MD_FUNCS), _pnv_md_ctx_create_impl, _pnv_md_init_impl,
                       _pnv_md_update_impl,     _pnv_md_final_impl,      _pnv_md_ctx_destory_impl};
}
