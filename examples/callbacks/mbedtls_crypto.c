/*
 * Shows: the library on a crypto library of your own choice. Three traps are marked: a key that mbedTLS does not take
 * is no failure, a signature may come without its leading zeros, and a check that says "bad" is a check that ran.
 *
 * mbedTLS and these contexts allocate with calloc. A firmware that has no heap builds mbedTLS with
 * MBEDTLS_MEMORY_BUFFER_ALLOC_C and uses mbedtls_calloc and mbedtls_free here.
 */
#include "mbedtls_crypto.h"

#include <mbedtls/md.h>
#include <mbedtls/rsa.h>
#include <mbedtls/version.h>
#include <stdlib.h>
#include <string.h>

/* The digest with one of the library's hash identifiers, or null. */
static const mbedtls_md_info_t* hash_by_id(PNV_UINT32 hash_id)
{
    switch (hash_id) {
    case AOID_SHA256: return mbedtls_md_info_from_type(MBEDTLS_MD_SHA256);
    case AOID_SHA384: return mbedtls_md_info_from_type(MBEDTLS_MD_SHA384);
    case AOID_SHA512: return mbedtls_md_info_from_type(MBEDTLS_MD_SHA512);
    default: return NULL;
    }
}

/* ---- What 2.28 and 3.6 do not have in common ---- */

#if MBEDTLS_VERSION_NUMBER >= 0x03000000
static const mbedtls_md_info_t* info_of(const mbedtls_md_context_t* md)
{
    return mbedtls_md_info_from_ctx(md);
}
static void init_key(mbedtls_rsa_context* key)
{
    mbedtls_rsa_init(key); /* its padding is that of PKCS #1 v1.5 */
}
static int verify_digest(mbedtls_rsa_context* key, mbedtls_md_type_t hash, unsigned length, const PNV_BYTE* digest,
                         const PNV_BYTE* signature)
{
    return mbedtls_rsa_pkcs1_verify(key, hash, length, digest, signature);
}
#else
static const mbedtls_md_info_t* info_of(const mbedtls_md_context_t* md)
{
    return md->md_info;
}
static void init_key(mbedtls_rsa_context* key)
{
    mbedtls_rsa_init(key, MBEDTLS_RSA_PKCS_V15, 0);
}
static int verify_digest(mbedtls_rsa_context* key, mbedtls_md_type_t hash, unsigned length, const PNV_BYTE* digest,
                         const PNV_BYTE* signature)
{
    return mbedtls_rsa_pkcs1_verify(key, NULL, NULL, MBEDTLS_RSA_PUBLIC, hash, length, digest, signature);
}
#endif

/* ---- Digests ---- */

/* Begins anew, whatever the context did before. mbedTLS refuses to feed a context that was not begun. */
static PELNIC_ERROR_CODE begin_digest(mbedtls_md_context_t* md, PNV_UINT32 hash_id)
{
    const mbedtls_md_info_t* const hash = hash_by_id(hash_id);
    mbedtls_md_free(md);
    mbedtls_md_init(md);
    if (hash == NULL || mbedtls_md_setup(md, hash, 0) != 0) return PELNIC_ERR_FAILED;
    return mbedtls_md_starts(md) == 0 ? 0 : PELNIC_ERR_FAILED;
}

static PELNIC_ERROR_CODE md_create(PELNIC_CRYPTO_MD_CTX* out)
{
    mbedtls_md_context_t* const md = calloc(1, sizeof *md);
    if (md == NULL) return PELNIC_ERR_SYS_MEM_ALLOC;
    mbedtls_md_init(md);
    *out = md;
    return 0;
}

static PELNIC_ERROR_CODE md_init(PELNIC_CRYPTO_MD_CTX ctx, PNV_UINT32 hash_id)
{
    return ctx == NULL ? PELNIC_ERR_FAILED : begin_digest(ctx, hash_id);
}

static PELNIC_ERROR_CODE md_update(PELNIC_CRYPTO_MD_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len)
{
    if (ctx == NULL) return PELNIC_ERR_FAILED;
    if (data == NULL || len == 0) return 0;
    return mbedtls_md_update(ctx, data, len) == 0 ? 0 : PELNIC_ERR_FAILED;
}

static PELNIC_ERROR_CODE md_final(PELNIC_CRYPTO_MD_CTX ctx, PNV_BYTE* digest, PNV_UINT32* len)
{
    const mbedtls_md_context_t* const md = ctx;
    if (md == NULL || digest == NULL || len == NULL) return PELNIC_ERR_FAILED;
    if (mbedtls_md_finish(ctx, digest) != 0) return PELNIC_ERR_FAILED;
    *len = mbedtls_md_get_size(info_of(md));
    return 0;
}

static void md_destroy(PELNIC_CRYPTO_MD_CTX ctx)
{
    if (ctx == NULL) return;
    mbedtls_md_free(ctx);
    free(ctx);
}

/* ---- Signatures ---- */

typedef struct {
    mbedtls_rsa_context key;
    mbedtls_md_context_t md;
    mbedtls_md_type_t hash; /* MBEDTLS_MD_NONE until init succeeds */
    int has_key;            /* 0 for a key that mbedTLS refused */
} VERIFICATION;

/* What mbedTLS could not do for want of memory has no answer. The code of a lower module is added to the higher one's.
 */
static int lacked_memory(int rc)
{
    return -rc % 0x80 == -MBEDTLS_ERR_MPI_ALLOC_FAILED || rc == MBEDTLS_ERR_MD_ALLOC_FAILED;
}

static PELNIC_ERROR_CODE verify_create(PELNIC_CRYPTO_VRF_CTX* out)
{
    if (out == NULL) return PELNIC_ERR_FAILED;
    VERIFICATION* const vrf = calloc(1, sizeof *vrf);
    if (vrf == NULL) return PELNIC_ERR_FAILED;
    init_key(&vrf->key);
    mbedtls_md_init(&vrf->md);
    *out = vrf;
    return 0;
}

static int take_key(mbedtls_rsa_context* key, const PELNIC_BIGINT* e, const PELNIC_BIGINT* n)
{
    mbedtls_rsa_free(key);
    init_key(key);
    int rc = mbedtls_rsa_import_raw(key, n->aVal, n->uiLength, NULL, 0, NULL, 0, NULL, 0, e->aVal, e->uiLength);
    if (rc == 0) rc = mbedtls_rsa_complete(key);
    if (rc == 0) rc = mbedtls_rsa_check_pubkey(key);
    return rc;
}

/* The first trap: a certificate may carry any key, an exponent of 1 or an even modulus for instance. One that mbedTLS
 * refuses verifies nothing: verify_final then says "bad". A code would mean that there is no answer, and spoil the
 * verification of a good package. */

static PELNIC_ERROR_CODE verify_init(PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e, const PELNIC_BIGINT* n,
                                     PNV_UINT32 hash_id)
{
    VERIFICATION* const vrf = ctx;
    if (vrf == NULL || e == NULL || n == NULL) return PELNIC_ERR_FAILED;
    vrf->hash = MBEDTLS_MD_NONE;
    if (e->uiLength > sizeof e->aVal || n->uiLength > sizeof n->aVal) return PELNIC_ERR_FAILED;
    if (begin_digest(&vrf->md, hash_id) != 0) return PELNIC_ERR_FAILED;
    const int refusal = take_key(&vrf->key, e, n);
    if (lacked_memory(refusal)) return PELNIC_ERR_FAILED;
    vrf->has_key = refusal == 0;
    vrf->hash = mbedtls_md_get_type(hash_by_id(hash_id));
    return 0;
}

static PELNIC_ERROR_CODE verify_update(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len)
{
    VERIFICATION* const vrf = ctx;
    if (vrf == NULL || (data == NULL && len != 0)) return PELNIC_ERR_FAILED;
    return mbedtls_md_update(&vrf->md, data, len) == 0 ? 0 : PELNIC_ERR_FAILED;
}

/* The second trap: some signers drop the zeros that a signature begins with. They are put back up to a multiple of four
 * octets, as the default callbacks do; what then has another size than the key is no signature. */
static int check_signature(VERIFICATION* vrf, const PNV_BYTE* signature, PNV_UINT32 len)
{
    PNV_BYTE padded[sizeof((PELNIC_BIGINT*)0)->aVal] = {0};
    PNV_BYTE digest[MBEDTLS_MD_MAX_SIZE];
    const size_t size = mbedtls_rsa_get_len(&vrf->key);
    if (len > size || size > sizeof padded || (len + 3u) / 4 * 4 != size) return MBEDTLS_ERR_RSA_VERIFY_FAILED;
    memcpy(padded + (size - len), signature, len);
    const int rc = mbedtls_md_finish(&vrf->md, digest);
    if (rc != 0) return rc;
    return verify_digest(&vrf->key, vrf->hash, mbedtls_md_get_size(info_of(&vrf->md)), digest, padded);
}

/* The third trap: a bad signature is code 0 with result 0. A code means that nothing was checked. */
static PELNIC_ERROR_CODE verify_final(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 len,
                                      PNV_INT* result)
{
    VERIFICATION* const vrf = ctx;
    if (vrf == NULL || vrf->hash == MBEDTLS_MD_NONE || signature == NULL || result == NULL) return PELNIC_ERR_FAILED;
    const int refusal = vrf->has_key ? check_signature(vrf, signature, len) : MBEDTLS_ERR_RSA_VERIFY_FAILED;
    if (lacked_memory(refusal)) return PELNIC_ERR_FAILED;
    *result = refusal == 0;
    return 0;
}

static void verify_destroy(PELNIC_CRYPTO_VRF_CTX ctx)
{
    VERIFICATION* const vrf = ctx;
    if (vrf == NULL) return;
    mbedtls_rsa_free(&vrf->key);
    mbedtls_md_free(&vrf->md);
    free(vrf);
}

void mbedtls_crypto(PELNIC_CALLBACK_FUNCS* funcs)
{
    funcs->md_funcs = (PELNIC_MD_FUNCS){sizeof(PELNIC_MD_FUNCS), md_create, md_init, md_update, md_final, md_destroy};
    funcs->crypt_funcs = (PELNIC_CRYPTO_FUNCS){
        sizeof(PELNIC_CRYPTO_FUNCS), verify_create, verify_init, verify_update, verify_final, verify_destroy};
}
