// The default callback table: libc, the platform's bounds-checked memory and string functions, and a crypto library,
// OpenSSL's libcrypto unless the build says otherwise (CMSVERIFY_CRYPTO). No other module names any of them.
// The public pelnic_set_callback_funcs installs the table.
#ifndef PELNIC_CALLBACK_FUN_H
#define PELNIC_CALLBACK_FUN_H

#include "include/pelnic_cms_verify.h"

typedef struct evp_md_st EVP_MD;
typedef struct evp_md_ctx_st EVP_MD_CTX;
typedef struct evp_pkey_st EVP_PKEY;

typedef enum hash_algo_em {
    HSAG_UNKNOW = 0, // spelt so in the interface
    HSAG_MD5 = 1,
    HSAG_SHA1 = 2,
    HSAG_SHA256 = 3,
    HSAG_SHA384 = 4,
    HSAG_SHA512 = 5
} HASH_ALGO;

typedef struct crypto_md_st {
    PNV_UINT32 st_size;
    EVP_MD_CTX* hash_handler; // null until init
    HASH_ALGO hash_algo;      // nothing sets it
} CRYPTO_MD;

typedef struct crypto_vrf_st {
    PNV_UINT32 st_size;
    EVP_MD_CTX* md_ctx; // null until init
    EVP_PKEY* pub;      // null until init succeeds
} CRYPTO_VRF;

// Memory: PELNIC_ERR_NULL_POINTER for a null or too small destination, or a null source. Areas of any size; memcpy_s
// refuses overlapping ones with the platform's code.
PELNIC_ERROR_CODE pnv_malloc_impl(void** out, PNV_UINT32 size); // size 0: success with a null block
PELNIC_ERROR_CODE pnv_memset_s_impl(void* dest, size_t destMax, PNV_INT c, size_t count);
PELNIC_ERROR_CODE pnv_memmove_s_impl(void* dest, size_t destMax, const void* src, size_t count);
PELNIC_ERROR_CODE pnv_memcpy_s_impl(void* dest, size_t destMax, const void* src, size_t count);
void pnv_free_impl(void* p);
PNV_INT pnv_memcmp_impl(const void* a, const void* b, size_t n);

PNV_INT pnv_strncmp_impl(const PNV_CHAR* a, const PNV_CHAR* b, size_t n);
const PNV_CHAR* pnv_strstr_impl(const PNV_CHAR* hay, const PNV_CHAR* needle);
PNV_CHAR* pnv_strchr_impl(PNV_CHAR* s, PNV_CHAR c);
PNV_UINT32 pnv_strlen_impl(const PNV_CHAR* s);
PNV_INT pnv_strcmp_impl(const PNV_CHAR* a, const PNV_CHAR* b); // an equality test: no order
PELNIC_ERROR_CODE pnv_strcpy_s_impl(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src);
PELNIC_ERROR_CODE pnv_strcat_s_impl(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src);
// At most min(count, destMax - 1) characters, always terminated; if the text does not fit, it is truncated and the
// result is negative.
PNV_INT pnv_vsnprintf_s_impl(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format, va_list args)
    __attribute__((format(printf, 4, 0)));

PNV_FILE_HANDLE pnv_fopen_impl(const PNV_CHAR* path, const PNV_CHAR* mode); // does not wait for the writer of a FIFO
size_t _pnv_fread_impl(void* buf, size_t size, PNV_FILE_HANDLE h);
PELNIC_ERROR_CODE _pnv_fclose_impl(PNV_FILE_HANDLE h);
PNV_UINT64 _pnv_get_file_size_impl(PNV_FILE_HANDLE h); // 0xFFFFFFFF if the size is unknown

// Builds the line "[LEVEL]file(line):message(err:code)" in the caller's 1024 characters, truncated if necessary.
void _pnv_build_log_line(PNV_CHAR (&line_buf)[1024], PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line,
                         PELNIC_ERROR_CODE rc, const PNV_CHAR* log);
// Builds its line and drops it: with the default table the library is silent.
void _pnv_log_callback_impl(PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line, const PNV_CHAR* function,
                            PNV_THREAD_ID pid, PNV_TIME_T rtime, PELNIC_ERROR_CODE rc, const PNV_CHAR* log);

// Sets crypt_funcs and md_funcs; the rest is OpenSSL's.
void _pnvSetCryptoCallbacks(PELNIC_CALLBACK_FUNCS* funcs);

// Digests and RSA PKCS #1 v1.5 verification. Every failure is PELNIC_ERR_FAILED, except running out of memory in
// _pnv_md_ctx_create_impl. Hash identifiers: AOID_SHA256, AOID_SHA384, AOID_SHA512.
PELNIC_ERROR_CODE _pnv_md_ctx_create_impl(PELNIC_CRYPTO_MD_CTX* out);
PELNIC_ERROR_CODE _pnv_md_init_impl(PELNIC_CRYPTO_MD_CTX ctx, PNV_UINT32 hash_id);
PELNIC_ERROR_CODE _pnv_md_update_impl(PELNIC_CRYPTO_MD_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len);
PELNIC_ERROR_CODE _pnv_md_final_impl(PELNIC_CRYPTO_MD_CTX ctx, PNV_BYTE* digest, PNV_UINT32* len);
void _pnv_md_ctx_destory_impl(PELNIC_CRYPTO_MD_CTX ctx);

PELNIC_ERROR_CODE pelnic_verify_ctx_create_impl(PELNIC_CRYPTO_VRF_CTX* out);
PELNIC_ERROR_CODE _pnv_verify_init_impl(PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e, const PELNIC_BIGINT* n,
                                        PNV_UINT32 hash_id);
PELNIC_ERROR_CODE pelnic_verify_update_impl(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len);
PELNIC_ERROR_CODE _pnv_verify_final_impl(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* pbSignature, PNV_UINT32 len,
                                         PNV_INT* result);
void _pnv_verify_ctx_destory_impl(PELNIC_CRYPTO_VRF_CTX ctx);

const EVP_MD* _pnv_get_openssl_evpmd(PNV_UINT32 hash_id); // null for any other identifier
HASH_ALGO _convert_hash_algo(PNV_UINT32 algo_id);         // called by nothing
void pnv_openssl_uninit();                                // clears the calling thread's error queue

#endif
