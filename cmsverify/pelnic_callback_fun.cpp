// The default callbacks. Arguments are checked here before the platform's functions see them, so that no violated bound
// ever reaches the constraint handler of the bounds-checked ones. Memory is filled and copied by the ordinary
// functions: the bounds-checked ones go octet by octet, and refuse more than 256 MiB.
#include "pelnic_callback_fun.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

PELNIC_ERROR_CODE pnv_malloc_impl(void** out, PNV_UINT32 size)
{
    *out = nullptr;
    if (size == 0) return 0;
    *out = malloc(size);
    return *out == nullptr ? PELNIC_ERR_SYS_MEM_ALLOC : 0;
}

PELNIC_ERROR_CODE pnv_memset_s_impl(void* dest, size_t destMax, PNV_INT c, size_t count)
{
    if (dest == nullptr || destMax == 0 || count > destMax) return PELNIC_ERR_NULL_POINTER;
    memset(dest, c, count);
    return 0;
}

static bool isCopyable(const void* dest, size_t destMax, const void* src, size_t count)
{
    return destMax != 0 && count <= destMax && dest != nullptr && src != nullptr;
}

PELNIC_ERROR_CODE pnv_memmove_s_impl(void* dest, size_t destMax, const void* src, size_t count)
{
    if (!isCopyable(dest, destMax, src, count)) return PELNIC_ERR_NULL_POINTER;
    memmove(dest, src, count);
    return 0;
}

static bool overlap(const void* dest, const void* src, size_t count)
{
    const uintptr_t to = reinterpret_cast<uintptr_t>(dest);
    const uintptr_t from = reinterpret_cast<uintptr_t>(src);
    return (to < from ? from - to : to - from) < count;
}

PELNIC_ERROR_CODE pnv_memcpy_s_impl(void* dest, size_t destMax, const void* src, size_t count)
{
    if (!isCopyable(dest, destMax, src, count)) return PELNIC_ERR_NULL_POINTER;
    if (overlap(dest, src, count)) return static_cast<PELNIC_ERROR_CODE>(memcpy_s(dest, destMax, src, count));
    memcpy(dest, src, count);
    return 0;
}

void pnv_free_impl(void* p)
{
    free(p);
}

PNV_INT pnv_memcmp_impl(const void* a, const void* b, size_t n)
{
    return a == nullptr || b == nullptr ? -1 : memcmp(a, b, n);
}

PNV_INT pnv_strncmp_impl(const PNV_CHAR* a, const PNV_CHAR* b, size_t n)
{
    return a == nullptr || b == nullptr ? -1 : strncmp(a, b, n);
}

const PNV_CHAR* pnv_strstr_impl(const PNV_CHAR* hay, const PNV_CHAR* needle)
{
    return hay == nullptr || needle == nullptr ? nullptr : strstr(hay, needle);
}

PNV_CHAR* pnv_strchr_impl(PNV_CHAR* s, PNV_CHAR c)
{
    return s == nullptr ? nullptr : strchr(s, c & 0xFF);
}

PNV_UINT32 pnv_strlen_impl(const PNV_CHAR* s)
{
    return s == nullptr ? 0xFFFFFFFFu : static_cast<PNV_UINT32>(strlen(s));
}

PNV_INT pnv_strcmp_impl(const PNV_CHAR* a, const PNV_CHAR* b)
{
    if (a == nullptr || b == nullptr) return -1;
    if (a == b) return 0;
    const size_t length = strlen(a);
    return length != strlen(b) ? -1 : strncmp(a, b, length);
}

PELNIC_ERROR_CODE pnv_strcpy_s_impl(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    if (destMax == 0 || dest == nullptr || src == nullptr) return PELNIC_ERR_NULL_POINTER;
    return static_cast<PELNIC_ERROR_CODE>(strcpy_s(dest, destMax, src));
}

PELNIC_ERROR_CODE pnv_strcat_s_impl(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    if (destMax == 0 || dest == nullptr || src == nullptr) return PELNIC_ERR_NULL_POINTER;
    return static_cast<PELNIC_ERROR_CODE>(strcat_s(dest, destMax, src));
}

PNV_INT pnv_vsnprintf_s_impl(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format, va_list args)
{
    if (dest == nullptr || format == nullptr) return static_cast<PNV_INT>(PELNIC_ERR_NULL_POINTER);
    if (destMax == 0) return -1;
    // The platform's function knows only the size of the destination. It answers a text that is too long by one
    // character with its length, and a longer one with a code and an empty text: the ordinary function then writes what
    // fits. Whatever else it refuses leaves no text.
    const size_t room = count < destMax ? count + 1 : destMax;
    va_list again;
    va_copy(again, args);
    const PNV_INT length = vsnprintf_s(dest, room, format, args);
    const bool fits = length >= 0 && static_cast<size_t>(length) < room;
    if (length == -ESNOSPC) {
        (void)vsnprintf(dest, room, format, again);
    } else if (length < 0) {
        dest[0] = '\0';
    }
    va_end(again);
    return fits ? length : -1;
}

PNV_FILE_HANDLE pnv_fopen_impl(const PNV_CHAR* path, const PNV_CHAR* mode)
{
    if (mode[0] != 'r' || strchr(mode, '+') != nullptr) return fopen(path, mode);
    // Opened for reading, a FIFO that nobody writes to would hold its reader for ever. It is opened without waiting,
    // and then read like any other: to the end of what its writers have to say.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    FILE* const stream = fcntl(fd, F_SETFL, O_RDONLY) == 0 ? fdopen(fd, mode) : nullptr;
    if (stream == nullptr) close(fd);
    return stream;
}

size_t _pnv_fread_impl(void* buf, size_t size, PNV_FILE_HANDLE h)
{
    return fread(buf, 1, size, static_cast<FILE*>(h));
}

PELNIC_ERROR_CODE _pnv_fclose_impl(PNV_FILE_HANDLE h)
{
    return static_cast<PELNIC_ERROR_CODE>(fclose(static_cast<FILE*>(h)));
}

PNV_UINT64 _pnv_get_file_size_impl(PNV_FILE_HANDLE h)
{
    FILE* const stream = static_cast<FILE*>(h);
    if (stream == nullptr) return 0xFFFFFFFFu;
    const long position = ftell(stream);
    if (position < 0) return 0xFFFFFFFFu;
    (void)fseek(stream, 0, SEEK_END);
    const PNV_INT64 size = ftell(stream);
    (void)fseek(stream, position, SEEK_SET);
    return static_cast<PNV_UINT64>(size);
}

static const PNV_CHAR* levelTag(PELNIC_LOG_TYPE log_level)
{
    switch (log_level) {
    case PELNIC_LOG_TYPE_ERROR: return "[ERROR]";
    case PELNIC_LOG_TYPE_WARNING: return "[WARNING]";
    case PELNIC_LOG_TYPE_INFO: return "[INFO]";
    case PELNIC_LOG_TYPE_DEBUG: return "[DEBUG]";
    default: return "";
    }
}

void _pnv_build_log_line(PNV_CHAR (&line_buf)[1024], PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line,
                         PELNIC_ERROR_CODE rc, const PNV_CHAR* log)
{
    size_t used = 0;
    const auto advance = [&](int length) {
        if (length > 0) used += static_cast<size_t>(length);
        if (used >= sizeof line_buf) used = sizeof line_buf - 1; // the piece was cut off
    };
    advance(snprintf(line_buf, sizeof line_buf, "%s", levelTag(log_level)));
    advance(snprintf(line_buf + used, sizeof line_buf - used, "%s(%d):%s", filename, line, log == nullptr ? "" : log));
    if (rc != 0) advance(snprintf(line_buf + used, sizeof line_buf - used, "(err:%x)", rc));
}

void _pnv_log_callback_impl(PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line, const PNV_CHAR*,
                            PNV_THREAD_ID, PNV_TIME_T, PELNIC_ERROR_CODE rc, const PNV_CHAR* log)
{
    PNV_CHAR line_buf[1024] = {};
    _pnv_build_log_line(line_buf, log_level, filename, line, rc, log);
}

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

// Only the thread's own error queue: OPENSSL_cleanup would be final, and the next digest would crash.
void pnv_openssl_uninit()
{
    ERR_clear_error();
}

// libcrypto must not read its configuration file: a line in it can load foreign code into the process or forbid the
// digests. And it must have its default context, which it makes once in the life of a process: where there was no
// memory for that it goes on without, and crashes.
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

// The RSA public key of an exponent and a modulus, or null.
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

// Whether libcrypto says that it found the signature bad. For want of memory it fails with an error of its own, or
// without any.
static bool isFoundBad()
{
    bool bad = false;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        if (ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE) return false;
        if (ERR_GET_LIB(error) == ERR_LIB_RSA) bad = true;
    }
    return bad;
}

// The verdict: a bad signature and a failure inside libcrypto are both 0. But a CRL must not be passed over because
// there was no memory for an instant: without a refusal in so many words libcrypto is asked once more.
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
    // Zeros on the left leave the value as it is: a signature that lost leading zeros gets them back, up to a multiple
    // of four octets. A key of another size than that fails here.
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

PNV_UINT32 pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs)
{
    if (funcs == nullptr) return 1;
    *funcs = PELNIC_CALLBACK_FUNCS{};
    funcs->st_size = sizeof(PELNIC_CALLBACK_FUNCS);
    funcs->plt_funcs.st_size = sizeof(PELNIC_PLT_FUNCS);
    funcs->plt_funcs.sys_funcs.st_size = sizeof(PELNIC_SYS_FUNCS);
    funcs->plt_funcs.sys_funcs.mem_funcs = {pnv_malloc_impl,   pnv_memset_s_impl, pnv_memmove_s_impl,
                                            pnv_memcpy_s_impl, pnv_free_impl,     pnv_memcmp_impl};
    funcs->plt_funcs.sys_funcs.str_funcs = {pnv_strncmp_impl,  pnv_strstr_impl,     pnv_strchr_impl,
                                            pnv_strlen_impl,   pnv_strcmp_impl,     pnv_strcpy_s_impl,
                                            pnv_strcat_s_impl, pnv_vsnprintf_s_impl};
    funcs->plt_funcs.sys_funcs.file_funcs = {pnv_fopen_impl, _pnv_fread_impl, _pnv_fclose_impl,
                                             _pnv_get_file_size_impl};
    // No thread identity, clock or date conversion: sys_funcs.plt_funcs stays empty.
    funcs->plt_funcs.log_funcs.log_func = _pnv_log_callback_impl;
    funcs->crypt_funcs = {sizeof(PELNIC_CRYPTO_FUNCS), pelnic_verify_ctx_create_impl, _pnv_verify_init_impl,
                          pelnic_verify_update_impl,   _pnv_verify_final_impl,        _pnv_verify_ctx_destory_impl};
    funcs->md_funcs = {sizeof(PELNIC_MD_FUNCS), _pnv_md_ctx_create_impl, _pnv_md_init_impl,
                       _pnv_md_update_impl,     _pnv_md_final_impl,      _pnv_md_ctx_destory_impl};
    return 0;
}
