// Proxies for the callback table, the calendar arithmetic and the single logging entry.
#include "pelnic_plt_proxy.h"

constexpr PNV_UINT32 LOG_MESSAGE_SIZE = 2048;

static const PELNIC_SYS_MEM_FUNCS& mem(const PELNIC_VRF* ctx)
{
    return ctx->callback_funcs.plt_funcs.sys_funcs.mem_funcs;
}

static const PELNIC_SYS_STR_FUNCS& str(const PELNIC_VRF* ctx)
{
    return ctx->callback_funcs.plt_funcs.sys_funcs.str_funcs;
}

static const PELNIC_SYS_FILE_FUNCS& file(const PELNIC_VRF* ctx)
{
    return ctx->callback_funcs.plt_funcs.sys_funcs.file_funcs;
}

// Returns a callback's answer, and counts a failure.
static PELNIC_ERROR_CODE counted(const PELNIC_VRF* ctx, PELNIC_ERROR_CODE rc)
{
    if (rc != 0) ++ctx->nCallbackFaults;
    return rc;
}

struct CarvedBlock {
    CarvedBlock* pNext; // the previous block
    PNV_UINT32 nUsed;   // this header included
    PNV_UINT32 nSize;
};
constexpr PNV_UINT64 CARVED_ALIGNMENT = 8; // of every record on every target

static PNV_UINT64 aligned(PNV_UINT64 size)
{
    return (size + CARVED_ALIGNMENT - 1) / CARVED_ALIGNMENT * CARVED_ALIGNMENT;
}

static void hide([[maybe_unused]] void* octets, [[maybe_unused]] PNV_UINT32 size)
{
#ifdef PNV_ADDRESS_SANITIZER
    __asan_poison_memory_region(octets, size);
#endif
}

static void show([[maybe_unused]] void* octets, [[maybe_unused]] PNV_UINT32 size)
{
#ifdef PNV_ADDRESS_SANITIZER
    __asan_unpoison_memory_region(octets, size);
#endif
}

// Rare and out of the way of pelnic_malloc, which is called three times for an entry of a CRL.
[[gnu::noinline]] static PELNIC_ERROR_CODE newBlock(const PELNIC_VRF* ctx, CarvedBlocks* blocks, PNV_UINT64 request)
{
    const PNV_UINT64 header = aligned(sizeof(CarvedBlock));
    const PNV_UINT64 size = header + request > blocks->nBlockSize ? header + request : blocks->nBlockSize;
    if (size > 0xFFFFFFFFu) return PELNIC_ERR_SYS_MEM_ALLOC;
    void* memory = nullptr;
    const PELNIC_ERROR_CODE rc = counted(ctx, mem(ctx).malloc(&memory, static_cast<PNV_UINT32>(size)));
    if (rc != 0 || memory == nullptr) return rc != 0 ? rc : PELNIC_ERR_SYS_MEM_ALLOC;
    CarvedBlock* const block = static_cast<CarvedBlock*>(memory);
    *block = CarvedBlock{blocks->pNewest, static_cast<PNV_UINT32>(header), static_cast<PNV_UINT32>(size)};
    blocks->pNewest = block;
    hide(reinterpret_cast<PNV_BYTE*>(block) + header, static_cast<PNV_UINT32>(size - header));
    return 0;
}

static PELNIC_ERROR_CODE carve(const PELNIC_VRF* ctx, void** out, PNV_UINT32 size)
{
    CarvedBlocks* const blocks = ctx->pCarving;
    const PNV_UINT64 request = aligned(size);
    CarvedBlock* block = blocks->pNewest;
    if (block == nullptr || request > block->nSize - block->nUsed) {
        *out = nullptr;
        const PELNIC_ERROR_CODE rc = newBlock(ctx, blocks, request);
        if (rc != 0) return rc;
        block = blocks->pNewest;
    }
    const PNV_UINT32 used = block->nUsed;
    block->nUsed = used + static_cast<PNV_UINT32>(request);
    *out = reinterpret_cast<PNV_BYTE*>(block) + used;
    show(*out, size);
    return 0;
}

void _pnvFreeBlocks(const PELNIC_VRF* ctx, CarvedBlocks* blocks)
{
    while (ctx != nullptr && blocks->pNewest != nullptr) {
        CarvedBlock* const block = blocks->pNewest;
        blocks->pNewest = block->pNext;
        show(block, block->nSize);
        mem(ctx).free(block);
    }
}

PELNIC_ERROR_CODE pelnic_malloc(const PELNIC_VRF* ctx, void** out, PNV_UINT32 size)
{
    if (ctx == nullptr) return PELNIC_ERR_FAILED;
    if (ctx->pCarving != nullptr && size != 0) return carve(ctx, out, size);
    return counted(ctx, mem(ctx).malloc(out, size));
}

PELNIC_ERROR_CODE pelnic_malloc_with0(const PELNIC_VRF* ctx, void** out, PNV_UINT32 size)
{
    PELNIC_ERROR_CODE rc = pelnic_malloc(ctx, out, size);
    if (rc != 0) return rc;
    rc = pelnic_memset_s(ctx, *out, size, 0, size);
    if (rc != 0) pelnic_free(ctx, *out);
    return rc;
}

PELNIC_ERROR_CODE _pnvNewBlock(const PELNIC_VRF* pVrf, void** ppBlock, PNV_UINT32 size)
{
    void* block = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_malloc_with0(pVrf, &block, size);
    if (rc == 0) *ppBlock = block;
    return rc;
}

PELNIC_ERROR_CODE pelnic_memset_s(const PELNIC_VRF* ctx, void* dest, size_t destMax, PNV_INT c, size_t count)
{
    if (ctx == nullptr) return PELNIC_ERR_FAILED;
    if (count > destMax) return PELNIC_ERR_SYS_MEM_OVERFLOW;
    return counted(ctx, mem(ctx).memset_s(dest, destMax, c, count));
}

PELNIC_ERROR_CODE pelnic_memmove_s(const PELNIC_VRF* ctx, void* dest, size_t destMax, const void* src, size_t count)
{
    if (ctx == nullptr) return PELNIC_ERR_FAILED;
    if (count > destMax) return PELNIC_ERR_SYS_MEM_OVERFLOW;
    return counted(ctx, mem(ctx).memmove_s(dest, destMax, src, count));
}

PELNIC_ERROR_CODE pelnic_memcpy_s(const PELNIC_VRF* ctx, void* dest, size_t destMax, const void* src, size_t count)
{
    if (ctx == nullptr) return PELNIC_ERR_FAILED;
    if (count > destMax) return PELNIC_ERR_SYS_MEM_OVERFLOW;
    return counted(ctx, mem(ctx).memcpy_s(dest, destMax, src, count));
}

void pelnic_free(const PELNIC_VRF* ctx, void* p)
{
    if (ctx != nullptr && p != nullptr && ctx->pCarving == nullptr) mem(ctx).free(p);
}

PNV_INT pelnic_memcmp(const PELNIC_VRF* ctx, const void* a, const void* b, size_t n)
{
    return ctx == nullptr ? -1 : mem(ctx).memcmp(a, b, n);
}

PNV_INT pelnic_strncmp(const PELNIC_VRF* ctx, const PNV_CHAR* a, const PNV_CHAR* b, size_t n)
{
    return ctx == nullptr ? -1 : str(ctx).pf_strncmp(a, b, n);
}

const PNV_CHAR* pelnic_strstr(const PELNIC_VRF* ctx, const PNV_CHAR* hay, const PNV_CHAR* needle)
{
    return ctx == nullptr ? nullptr : str(ctx).pf_strstr(hay, needle);
}

PNV_CHAR* pelnic_strchr(const PELNIC_VRF* ctx, PNV_CHAR* s, PNV_CHAR c)
{
    return ctx == nullptr ? nullptr : str(ctx).pf_strchr(s, c);
}

PNV_UINT32 pelnic_strlen(const PELNIC_VRF* ctx, const PNV_CHAR* s)
{
    return ctx == nullptr ? 0 : str(ctx).pf_strlen(s);
}

PNV_INT pelnic_strcmp(const PELNIC_VRF* ctx, const PNV_CHAR* a, const PNV_CHAR* b)
{
    return ctx == nullptr ? -1 : str(ctx).pf_strcmp(a, b);
}

PELNIC_ERROR_CODE pelnic_strcpy_s(const PELNIC_VRF* ctx, PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    if (ctx == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (pelnic_strlen(ctx, src) >= destMax) return PELNIC_ERR_SYS_STR_OVERFLOW;
    return counted(ctx, str(ctx).pf_strcpy_s(dest, destMax, src));
}

PELNIC_ERROR_CODE pelnic_strcat_s(const PELNIC_VRF* ctx, PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    if (ctx == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PNV_UINT64 total = PNV_UINT64{pelnic_strlen(ctx, dest)} + pelnic_strlen(ctx, src);
    if (total >= destMax) return PELNIC_ERR_SYS_STR_OVERFLOW;
    return counted(ctx, str(ctx).pf_strcat_s(dest, destMax, src));
}

PNV_INT pelnic_vsnprintf_s(const PELNIC_VRF* ctx, PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format,
                           va_list args)
{
    if (ctx == nullptr || str(ctx).pf_vsnprintf_s == nullptr) return -1;
    return str(ctx).pf_vsnprintf_s(dest, destMax, count, format, args);
}

PNV_CHAR* pelnic_strchr_ex(const PELNIC_VRF* ctx, PNV_CHAR* s, PNV_UINT32 nS, PNV_CHAR* t, PNV_UINT32 nT)
{
    if (ctx == nullptr || s == nullptr || nS == 0 || t == nullptr || nT == 0) return nullptr;
    for (PNV_UINT32 i = 0; i < nS && s[i] != '\0'; ++i) {
        if (pelnic_strchr(ctx, t, s[i]) != nullptr) return s + i;
    }
    return nullptr;
}

PNV_FILE_HANDLE pelnic_fopen(const PELNIC_VRF* ctx, const PNV_CHAR* path, const PNV_CHAR* mode)
{
    return ctx == nullptr ? nullptr : file(ctx).fopen(path, mode);
}

size_t pelnic_fread(const PELNIC_VRF* ctx, void* buf, size_t size, PNV_FILE_HANDLE h)
{
    return ctx == nullptr ? 0 : file(ctx).fread(buf, size, h);
}

PELNIC_ERROR_CODE pelnic_fclose(const PELNIC_VRF* ctx, PNV_FILE_HANDLE h)
{
    if (h == nullptr || ctx == nullptr) return PELNIC_ERR_NULL_POINTER;
    return file(ctx).fclose(h);
}

PNV_UINT64 pelnic_get_file_size(const PELNIC_VRF* ctx, PNV_FILE_HANDLE h)
{
    if (h == nullptr || ctx == nullptr || file(ctx).get_file_size == nullptr) return PELNIC_ERR_NULL_POINTER;
    return file(ctx).get_file_size(h);
}

PNV_TIME_T pelnic_mktime(const PELNIC_VRF*, const PELNIC_DATETIME* date)
{
    if (date == nullptr) return PELNIC_ERR_NULL_POINTER; // a code instead of a time: callers rely on it
    PNV_UINT32 year = date->uYear;
    if (year <= 1900) year += 1900;
    // The year begins in March, so that the leap day is its last.
    PNV_INT32 month = date->uMonth - 2;
    if (month < 1) {
        month += 12;
        year -= 1;
    }
    // Year, month and day have 16, 8 and 8 bits: days and hours fit into 32.
    const PNV_INT32 days = static_cast<PNV_INT32>(year / 4 - year / 100 + year / 400 + year * 365) + 367 * month / 12 +
                           date->uDay - 719499;
    const PNV_INT64 hours = days * 24 + date->uHour;
    return (hours * 60 + date->uMinute) * 60 + date->uSecond;
}

PELNIC_ERROR_CODE pelnic_md_ctx_create(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX* out)
{
    if (ctx == nullptr || ctx->callback_funcs.md_funcs.pelnic_md_ctx_create == nullptr) return PELNIC_ERR_FAILED;
    return ctx->callback_funcs.md_funcs.pelnic_md_ctx_create(out);
}

PELNIC_ERROR_CODE pelnic_md_init(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX md, PNV_UINT32 hash_id)
{
    if (ctx == nullptr || ctx->callback_funcs.md_funcs.pelnic_md_init == nullptr) return PELNIC_ERR_FAILED;
    return ctx->callback_funcs.md_funcs.pelnic_md_init(md, hash_id);
}

PELNIC_ERROR_CODE pelnic_md_update(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX md, const PNV_BYTE* data, PNV_UINT32 len)
{
    if (ctx == nullptr || ctx->callback_funcs.md_funcs.pelnic_md_update == nullptr) return PELNIC_ERR_FAILED;
    return ctx->callback_funcs.md_funcs.pelnic_md_update(md, data, len);
}

PELNIC_ERROR_CODE pelnic_md_final(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX md, PNV_BYTE* digest, PNV_UINT32* len)
{
    if (ctx == nullptr || ctx->callback_funcs.md_funcs.pelnic_md_final == nullptr) return PELNIC_ERR_FAILED;
    return ctx->callback_funcs.md_funcs.pelnic_md_final(md, digest, len);
}

void pelnic_md_ctx_destory(const PELNIC_VRF* ctx, PELNIC_CRYPTO_MD_CTX md)
{
    if (ctx == nullptr || ctx->callback_funcs.md_funcs.pelnic_md_ctx_destory == nullptr) return;
    ctx->callback_funcs.md_funcs.pelnic_md_ctx_destory(md);
}

PELNIC_ERROR_CODE pelnic_verify_ctx_create(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX* out)
{
    if (ctx == nullptr || ctx->callback_funcs.crypt_funcs.pelnic_verify_ctx_create == nullptr) return PELNIC_ERR_FAILED;
    return counted(ctx, ctx->callback_funcs.crypt_funcs.pelnic_verify_ctx_create(out));
}

PELNIC_ERROR_CODE pelnic_verify_init(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX vrf, const PELNIC_BIGINT* e,
                                     const PELNIC_BIGINT* n, PNV_UINT32 hash_id)
{
    if (ctx == nullptr || ctx->callback_funcs.crypt_funcs.pelnic_verify_init == nullptr) return PELNIC_ERR_FAILED;
    return counted(ctx, ctx->callback_funcs.crypt_funcs.pelnic_verify_init(vrf, e, n, hash_id));
}

PELNIC_ERROR_CODE pelnic_verify_update(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX vrf, const PNV_BYTE* data,
                                       PNV_UINT32 len)
{
    if (ctx == nullptr || ctx->callback_funcs.crypt_funcs.pelnic_verify_update == nullptr) return PELNIC_ERR_FAILED;
    return counted(ctx, ctx->callback_funcs.crypt_funcs.pelnic_verify_update(vrf, data, len));
}

PELNIC_ERROR_CODE pelnic_verify_final(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX vrf, const PNV_BYTE* signature,
                                      PNV_UINT32 len, PNV_INT* result)
{
    if (ctx == nullptr || ctx->callback_funcs.crypt_funcs.pelnic_verify_final == nullptr) return PELNIC_ERR_FAILED;
    return counted(ctx, ctx->callback_funcs.crypt_funcs.pelnic_verify_final(vrf, signature, len, result));
}

void pelnic_verify_ctx_destory(const PELNIC_VRF* ctx, PELNIC_CRYPTO_VRF_CTX vrf)
{
    if (ctx == nullptr || ctx->callback_funcs.crypt_funcs.pelnic_verify_ctx_destory == nullptr) return;
    ctx->callback_funcs.crypt_funcs.pelnic_verify_ctx_destory(vrf);
}

void pelnic_log_callback(const PELNIC_VRF* ctx, PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line,
                         const PNV_CHAR* function, PELNIC_ERROR_CODE rc, const PNV_CHAR* msg, ...)
{
    if (log_level > PELNIC_LOG_TYPE_WARNING) return;
    if (ctx == nullptr) return;
    const func_pelnic_log_callback log_func = ctx->callback_funcs.plt_funcs.log_funcs.log_func;
    if (log_func == nullptr) return;

    const PELNIC_SYS_PLANTFORM_FUNCS& plt = ctx->callback_funcs.plt_funcs.sys_funcs.plt_funcs;
    const PNV_THREAD_ID thread = plt.get_thread_id == nullptr ? nullptr : plt.get_thread_id();
    const PNV_TIME_T time = plt.get_utc_time == nullptr ? 0 : plt.get_utc_time();

    const Carving notCarved(ctx, nullptr); // the message is released here, not with a list
    const FaultWatch watch{ctx};
    void* block = nullptr;
    if (pelnic_malloc_with0(ctx, &block, LOG_MESSAGE_SIZE) != 0) {
        watch.forgive(); // a log that fails changes no verdict
        log_func(PELNIC_LOG_TYPE_ERROR, __FILE__, __LINE__, __func__, thread, time, PELNIC_ERR_SYS_MEM_ALLOC,
                 "Allocate memory for log message failed.");
        log_func(log_level, filename, line, function, thread, time, rc, msg);
        return;
    }
    ScopeExit release{[&] { pelnic_free(ctx, block); }};
    PNV_CHAR* const text = static_cast<PNV_CHAR*>(block);
    if (msg != nullptr) {
        va_list args;
        va_start(args, msg);
        const PNV_INT length = pelnic_vsnprintf_s(ctx, text, LOG_MESSAGE_SIZE, LOG_MESSAGE_SIZE - 1, msg, args);
        va_end(args);
        if (length <= 0) { // an empty text counts as a failure too
            log_func(PELNIC_LOG_TYPE_ERROR, __FILE__, __LINE__, __func__, thread, time,
                     static_cast<PELNIC_ERROR_CODE>(length), "format log message failed.");
            log_func(log_level, filename, line, function, thread, time, rc, msg);
            return;
        }
    }
    log_func(log_level, filename, line, function, thread, time, rc, text);
}
