// The library's only access to memory, strings, files, cryptography and the log: each proxy finds its callback in the
// context's table, checks the arguments and forwards the call. No proxy logs; a refusal leaves the destination
// untouched. Without a context a proxy returns PELNIC_ERR_FAILED unless its comment says otherwise. pelnic_types.h
// declares the log and the allocation of cleared blocks.
#ifndef PELNIC_PLT_PROXY_H
#define PELNIC_PLT_PROXY_H

#include <utility>

#include "pelnic_vrf.h"

// To AddressSanitizer the unused part of a block looks unallocated.
#if defined(__SANITIZE_ADDRESS__)
#define PNV_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PNV_ADDRESS_SANITIZER
#endif
#endif
#ifdef PNV_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

// During its life, pelnic_malloc carves from larger blocks of the malloc callback, and pelnic_free does nothing: the
// memory is released with the blocks. With null blocks both use the callbacks again. Carvings nest, and are locals.
class Carving {
public:
    Carving(const PELNIC_VRF* ctx, CarvedBlocks* blocks) : ctx_(ctx)
    {
        if (ctx_ != nullptr) before_ = std::exchange(ctx_->pCarving, blocks);
    }
    ~Carving()
    {
        if (ctx_ != nullptr) ctx_->pCarving = before_;
    }
    Carving(const Carving&) = delete;
    Carving& operator=(const Carving&) = delete;

private:
    const PELNIC_VRF* ctx_;
    CarvedBlocks* before_ = nullptr;
};
void _pnvFreeBlocks(const PELNIC_VRF* ctx, CarvedBlocks* blocks);

// The failing callbacks since its construction, counted by the proxies; see pelnic_faults.h.
class FaultWatch {
public:
    explicit FaultWatch(const PELNIC_VRF* ctx) : pVrf(ctx), nBefore(ctx->nCallbackFaults) {}

    bool failed() const { return pVrf->nCallbackFaults != nBefore; }
    void forgive() const { pVrf->nCallbackFaults = nBefore; }

private:
    const PELNIC_VRF* const pVrf;
    const PNV_UINT32 nBefore;
};

// Memory. PELNIC_ERR_SYS_MEM_OVERFLOW for a count above destMax.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_malloc(const PELNIC_VRF* ctx, void** out, PNV_UINT32 size);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_memset_s(const PELNIC_VRF* ctx, void* dest, size_t destMax, PNV_INT c,
                                                size_t count);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_memmove_s(const PELNIC_VRF* ctx, void* dest, size_t destMax, const void* src,
                                                 size_t count);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_memcpy_s(const PELNIC_VRF* ctx, void* dest, size_t destMax, const void* src,
                                                size_t count);
void pelnic_free(const PELNIC_VRF* ctx, void* p); // null is not forwarded
[[nodiscard]] PNV_INT pelnic_memcmp(const PELNIC_VRF* ctx, const void* a, const void* b, size_t n); // -1

// Strings. PELNIC_ERR_SYS_STR_OVERFLOW for a text that does not fit with its terminating zero.
[[nodiscard]] PNV_INT pelnic_strncmp(const PELNIC_VRF* ctx, const PNV_CHAR* a, const PNV_CHAR* b, size_t n);     // -1
[[nodiscard]] const PNV_CHAR* pelnic_strstr(const PELNIC_VRF* ctx, const PNV_CHAR* hay, const PNV_CHAR* needle); // null
[[nodiscard]] PNV_CHAR* pelnic_strchr(const PELNIC_VRF* ctx, PNV_CHAR* s, PNV_CHAR c);                           // null
[[nodiscard]] PNV_UINT32 pelnic_strlen(const PELNIC_VRF* ctx, const PNV_CHAR* s);                                // 0
[[nodiscard]] PNV_INT pelnic_strcmp(const PELNIC_VRF* ctx, const PNV_CHAR* a, const PNV_CHAR* b);                // -1
// Without a context: PELNIC_ERR_NULL_POINTER.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_strcpy_s(const PELNIC_VRF* ctx, PNV_CHAR* dest, size_t destMax,
                                                const PNV_CHAR* src);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_strcat_s(const PELNIC_VRF* ctx, PNV_CHAR* dest, size_t destMax,
                                                const PNV_CHAR* src);
// -1 also without the callback, which may be null.
[[nodiscard]] PNV_INT pelnic_vsnprintf_s(const PELNIC_VRF* ctx, PNV_CHAR* dest, size_t destMax, size_t count,
                                         const PNV_CHAR* format, va_list args);
// The first of at most nS characters of s, up to its zero, that occurs in the string t; null if there is none or if any
// argument is null or 0. nT is only compared with 0.
[[nodiscard]] PNV_CHAR* pelnic_strchr_ex(const PELNIC_VRF* ctx, PNV_CHAR* s, PNV_UINT32 nS, PNV_CHAR* t, PNV_UINT32 nT);

// Files
[[nodiscard]] PNV_FILE_HANDLE pelnic_fopen(const PELNIC_VRF* ctx, const PNV_CHAR* path, const PNV_CHAR* mode); // null
[[nodiscard]] size_t pelnic_fread(const PELNIC_VRF* ctx, void* buf, size_t size, PNV_FILE_HANDLE h);           // 0
// A null handle or context: PELNIC_ERR_NULL_POINTER.
PELNIC_ERROR_CODE pelnic_fclose(const PELNIC_VRF* ctx, PNV_FILE_HANDLE h);
// A null handle or context, or a missing callback, gives PELNIC_ERR_NULL_POINTER as the size.
[[nodiscard]] PNV_UINT64 pelnic_get_file_size(const PELNIC_VRF* ctx, PNV_FILE_HANDLE h);

// Seconds since 1970-01-01 00:00:00 UTC; uYear up to 1900 counts from 1900, offset and milliseconds are ignored. A null
// date gives the number PELNIC_ERR_NULL_POINTER as the time. Computed here: neither the context nor its mktime callback
// is used.
[[nodiscard]] PNV_TIME_T pelnic_mktime(const PELNIC_VRF* ctx, const PELNIC_DATETIME* date);

// Cryptography. PELNIC_ERR_FAILED for a missing callback; the destory proxies then do nothing.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_md_ctx_create(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX* out);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_md_init(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX md, PNV_UINT32 hash_id);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_md_update(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX md, const PNV_BYTE* data,
                                                 PNV_UINT32 len);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_md_final(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX md, PNV_BYTE* digest,
                                                PNV_UINT32* len);
void pelnic_md_ctx_destory(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX md);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_verify_ctx_create(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX* out);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_verify_init(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX vrf,
                                                   const PELNIC_BIGINT* e, const PELNIC_BIGINT* n, PNV_UINT32 hash_id);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_verify_update(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX vrf,
                                                     const PNV_BYTE* data, PNV_UINT32 len);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_verify_final(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX vrf,
                                                    const PNV_BYTE* signature, PNV_UINT32 len, PNV_INT* result);
void pelnic_verify_ctx_destory(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX vrf);

#endif
