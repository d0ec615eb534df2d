// The examples: their callback tables pass the conformance test, which notices what is wrong with others, and their
// programs tell good from bad.
#include "cmsverify/pelnic_callback_fun.h"
#include "examples/callbacks/board_platform.h"
#include "examples/callbacks/check_budget.h"
#include "examples/callbacks/libc_platform.h"
#include "examples/callbacks/mbedtls_crypto.h"
#include "examples/conformance/callback_conformance.h"

#include "support/process.h"
#include "support/signature.h"
#include "support/signing_room.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace pnvtest {
namespace {

using Table = PELNIC_CALLBACK_FUNCS;

Table DefaultTable()
{
    Table table;
    pelnic_set_callback_funcs(&table);
    return table;
}

Table MbedTlsTable()
{
    Table table;
    libc_platform(&table);
    mbedtls_crypto(&table);
    return table;
}

// Room for a whole verification.
std::vector<std::max_align_t> g_pool((256 << 10) / sizeof(std::max_align_t));

Table BoardTable(std::size_t size = g_pool.size() * sizeof(std::max_align_t))
{
    Table table;
    board_platform(&table, g_pool.data(), size);
    mbedtls_crypto(&table);
    return table;
}

// ---- The conformance test ----

std::vector<std::string> g_failures;

std::vector<std::string> FailuresOf(const Table& table, bool withFiles = true)
{
    TempDir dir;
    const std::string file = dir.Write("digits", Text("0123456789"));
    g_failures.clear();
    const unsigned failures = callback_conformance(&table, withFiles ? file.c_str() : nullptr,
                                                   [](const char* failure) { g_failures.push_back(failure); });
    EXPECT_EQ(failures, g_failures.size());
    return g_failures;
}

const std::vector<std::string> none;

TEST(Conformance, OfTheDefaultTable)
{
    EXPECT_EQ(FailuresOf(DefaultTable()), none);
}

TEST(Conformance, OfTheMbedTlsTable)
{
    EXPECT_EQ(FailuresOf(MbedTlsTable()), none);
}

TEST(Conformance, OfTheBoardTable)
{
    EXPECT_EQ(FailuresOf(BoardTable(), false), none);
    EXPECT_EQ(board_pool_in_use(), 0u);
}

// A fault in the default table, and the rule that it breaks.
struct Fault {
    const char* rule;
    void (*make)(Table& table);
};

PELNIC_SYS_MEM_FUNCS& Mem(Table& table)
{
    return table.plt_funcs.sys_funcs.mem_funcs;
}
PELNIC_SYS_STR_FUNCS& Str(Table& table)
{
    return table.plt_funcs.sys_funcs.str_funcs;
}
PELNIC_SYS_FILE_FUNCS& Files(Table& table)
{
    return table.plt_funcs.sys_funcs.file_funcs;
}

const Fault kFaults[] = {
    {"st_size of the table is its size", [](Table& t) { t.st_size = 0; }},
    {"st_size of plt_funcs is its size", [](Table& t) { t.plt_funcs.st_size = 0; }},
    {"st_size of sys_funcs is its size", [](Table& t) { t.plt_funcs.sys_funcs.st_size = 0; }},
    {"the memory callbacks are there", [](Table& t) { Mem(t).memcmp = nullptr; }},
    {"the string callbacks are there", [](Table& t) { Str(t).pf_strstr = nullptr; }},
    {"log_func comes with pf_vsnprintf_s", [](Table& t) { Str(t).pf_vsnprintf_s = nullptr; }},
    {"the file callbacks are there, even without files", [](Table& t) { Files(t).fread = nullptr; }},
    {"the digest callbacks are there", [](Table& t) { t.md_funcs.pelnic_md_final = nullptr; }},
    {"the verification callbacks are there", [](Table& t) { t.crypt_funcs.pelnic_verify_init = nullptr; }},

    {"malloc gives blocks",
     [](Table& t) {
         Mem(t).malloc = [](void** out, PNV_UINT32 size) {
             return size == 2048 ? PELNIC_ERR_SYS_MEM_ALLOC : pnv_malloc_impl(out, size);
         };
     }},
    {"malloc aligns blocks for 64-bit integers and pointers",
     [](Table& t) {
         Mem(t).malloc = [](void** out, PNV_UINT32 size) {
             const bool possible = size != 0 && size < 0xFFFFFFF0;
             const PELNIC_ERROR_CODE rc = pnv_malloc_impl(out, possible ? size + 4 : size);
             if (*out != nullptr) *out = static_cast<char*>(*out) + 4;
             return rc;
         };
         Mem(t).free = [](void* p) { pnv_free_impl(static_cast<char*>(p) - 4); };
     }},
    {"blocks of malloc do not overlap",
     [](Table& t) {
         Mem(t).malloc = [](void** out, PNV_UINT32 size) -> PELNIC_ERROR_CODE {
             alignas(8) static PNV_BYTE block[4096];
             *out = block;
             return size > sizeof block ? PELNIC_ERR_SYS_MEM_ALLOC : 0;
         };
         Mem(t).free = [](void*) {};
     }},
    {"malloc of size 0 gives no block",
     [](Table& t) {
         Mem(t).malloc = [](void** out, PNV_UINT32 size) { return size == 0 ? 0 : pnv_malloc_impl(out, size); };
     }},
    {"memset_s fills",
     [](Table& t) {
         Mem(t).memset_s = [](void* dest, size_t destMax, PNV_INT c, size_t) {
             return pnv_memset_s_impl(dest, destMax, c, destMax);
         };
     }},
    {"memset_s refuses null and what does not fit",
     [](Table& t) {
         Mem(t).memset_s = [](void* dest, size_t, PNV_INT c, size_t count) {
             return pnv_memset_s_impl(dest, count, c, count);
         };
     }},
    {"memcpy_s copies",
     [](Table& t) {
         Mem(t).memcpy_s = [](void* dest, size_t destMax, const void* src, size_t count) {
             return count == destMax ? PELNIC_ERR_NULL_POINTER : pnv_memcpy_s_impl(dest, destMax, src, count);
         };
     }},
    {"memcpy_s refuses null and what does not fit",
     [](Table& t) {
         Mem(t).memcpy_s = [](void* dest, size_t destMax, const void* src, size_t count) {
             return pnv_memcpy_s_impl(dest, destMax, src, std::min(count, destMax));
         };
     }},
    {"memmove_s refuses null and what does not fit",
     [](Table& t) {
         Mem(t).memmove_s = [](void* dest, size_t destMax, const void* src, size_t count) -> PELNIC_ERROR_CODE {
             return pnv_memmove_s_impl(dest, destMax, src, count) == 0 ? 0 : 22; // an errno
         };
     }},
    {"memmove_s moves octets that overlap", [](Table& t) { Mem(t).memmove_s = pnv_memcpy_s_impl; }},
    {"memcmp compares unsigned octets",
     [](Table& t) {
         Mem(t).memcmp = [](const void* a, const void* b, size_t n) {
             return pnv_strncmp_impl(static_cast<const char*>(a), static_cast<const char*>(b), n);
         };
     }},
    {"memcmp finds null different",
     [](Table& t) {
         Mem(t).memcmp = [](const void* a, const void* b, size_t n) { return n == 0 ? 0 : pnv_memcmp_impl(a, b, n); };
     }},

    {"pf_strlen measures",
     [](Table& t) { Str(t).pf_strlen = [](const PNV_CHAR* s) { return pnv_strlen_impl(s) + (s != nullptr); }; }},
    {"pf_strlen of null is 0xFFFFFFFF",
     [](Table& t) { Str(t).pf_strlen = [](const PNV_CHAR* s) { return s == nullptr ? 0 : pnv_strlen_impl(s); }; }},
    {"pf_strcmp finds equal texts",
     [](Table& t) {
         Str(t).pf_strcmp = [](const PNV_CHAR* a, const PNV_CHAR* b) {
             return a == nullptr ? -1 : pnv_strncmp_impl(a, b, std::strlen(a));
         };
     }},
    {"pf_strcmp finds null different",
     [](Table& t) {
         Str(t).pf_strcmp = [](const PNV_CHAR* a, const PNV_CHAR* b) { return a == b ? 0 : pnv_strcmp_impl(a, b); };
     }},
    {"pf_strncmp compares as many characters as it is told",
     [](Table& t) {
         Str(t).pf_strncmp = [](const PNV_CHAR* a, const PNV_CHAR* b, size_t) { return pnv_strcmp_impl(a, b); };
     }},
    {"pf_strncmp finds null different",
     [](Table& t) {
         Str(t).pf_strncmp = [](const PNV_CHAR* a, const PNV_CHAR* b, size_t n) {
             return a == nullptr ? 0 : pnv_strncmp_impl(a, b, n);
         };
     }},
    {"pf_strstr finds", [](Table& t) { Str(t).pf_strstr = [](const PNV_CHAR* hay, const PNV_CHAR*) { return hay; }; }},
    {"pf_strstr finds nothing in null",
     [](Table& t) {
         Str(t).pf_strstr = [](const PNV_CHAR* hay, const PNV_CHAR* needle) {
             return needle == nullptr ? hay : pnv_strstr_impl(hay, needle);
         };
     }},
    {"pf_strchr finds every character",
     [](Table& t) {
         Str(t).pf_strchr = [](PNV_CHAR* s, PNV_CHAR c) { return pnv_strchr_impl(s, static_cast<PNV_CHAR>(c & 0x7F)); };
     }},
    {"pf_strcpy_s copies", [](Table& t) { Str(t).pf_strcpy_s = pnv_strcat_s_impl; }},
    {"pf_strcat_s appends", [](Table& t) { Str(t).pf_strcat_s = pnv_strcpy_s_impl; }},
    {"pf_strcpy_s and pf_strcat_s refuse null",
     [](Table& t) {
         Str(t).pf_strcat_s = [](PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src) {
             return src == nullptr ? 0 : pnv_strcat_s_impl(dest, destMax, src);
         };
     }},
    {"pf_strcpy_s and pf_strcat_s refuse what does not fit",
     [](Table& t) {
         Str(t).pf_strcpy_s = [](PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src) {
             return pnv_strcpy_s_impl(dest, destMax == 7 ? 8 : destMax, src);
         };
     }},
    {"pf_vsnprintf_s writes what fits and returns its length",
     [](Table& t) {
         Str(t).pf_vsnprintf_s = [](PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format,
                                    va_list args) {
             return std::min(pnv_vsnprintf_s_impl(dest, destMax, count, format, args), 0);
         };
     }},
    {"pf_vsnprintf_s writes no more than count characters and a zero",
     [](Table& t) {
         Str(t).pf_vsnprintf_s = [](PNV_CHAR* dest, size_t destMax, size_t, const PNV_CHAR* format, va_list args) {
             return dest == nullptr || format == nullptr ? -1 : std::vsnprintf(dest, destMax, format, args);
         };
     }},

    {"fopen opens a file",
     [](Table& t) { Files(t).fopen = [](const PNV_CHAR*, const PNV_CHAR*) -> PNV_FILE_HANDLE { return nullptr; }; }},
    {"get_file_size tells the size",
     [](Table& t) { Files(t).get_file_size = [](PNV_FILE_HANDLE) { return PNV_UINT64{0}; }; }},
    {"get_file_size leaves the position",
     [](Table& t) {
         Files(t).get_file_size = [](PNV_FILE_HANDLE h) -> PNV_UINT64 {
             std::rewind(static_cast<std::FILE*>(h));
             return 10;
         };
     }},
    {"fread reads",
     [](Table& t) {
         Files(t).fread = [](void* buf, size_t size, PNV_FILE_HANDLE h) {
             return std::fread(buf, size, 1, static_cast<std::FILE*>(h));
         };
     }},
    {"fread tells how many octets there were",
     [](Table& t) {
         Files(t).fread = [](void* buf, size_t size, PNV_FILE_HANDLE h) {
             (void)_pnv_fread_impl(buf, size, h);
             return size;
         };
     }},
    {"fclose closes",
     [](Table& t) {
         Files(t).fclose = [](PNV_FILE_HANDLE h) -> PELNIC_ERROR_CODE { return _pnv_fclose_impl(h) == 0; };
     }},

    {"the digest of \"abc\"",
     [](Table& t) {
         t.md_funcs.pelnic_md_init = [](PELNIC_CRYPTO_MD_CTX ctx, PNV_UINT32 id) {
             return _pnv_md_init_impl(ctx, id == AOID_SHA384 ? PNV_UINT32{AOID_SHA512} : id);
         };
     }},
    {"the digest of \"abc\" in two parts",
     [](Table& t) {
         t.md_funcs.pelnic_md_update = [](PELNIC_CRYPTO_MD_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len) {
             return len == 1 ? 0 : _pnv_md_update_impl(ctx, data, len);
         };
     }},
    {"the digest of nothing",
     [](Table& t) {
         t.md_funcs.pelnic_md_final = [](PELNIC_CRYPTO_MD_CTX ctx, PNV_BYTE* digest, PNV_UINT32* len) {
             const PELNIC_ERROR_CODE rc = _pnv_md_final_impl(ctx, digest, len);
             if (rc == 0) *len = 64;
             return rc;
         };
     }},
    {"the digest of a million times \"a\" in parts of all sizes",
     [](Table& t) {
         t.md_funcs.pelnic_md_update = [](PELNIC_CRYPTO_MD_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len) {
             return _pnv_md_update_impl(ctx, data, len & 0xFF);
         };
     }},
    {"md_init knows SHA-256, SHA-384 and SHA-512 only",
     [](Table& t) {
         t.md_funcs.pelnic_md_init = [](PELNIC_CRYPTO_MD_CTX ctx, PNV_UINT32 id) {
             return _pnv_md_init_impl(ctx, id < 43 ? PNV_UINT32{AOID_SHA256} : id);
         };
     }},
    {"a digest that was not begun fails",
     [](Table& t) {
         t.md_funcs.pelnic_md_ctx_create = [](PELNIC_CRYPTO_MD_CTX* out) {
             const PELNIC_ERROR_CODE rc = _pnv_md_ctx_create_impl(out);
             return rc == 0 ? _pnv_md_init_impl(*out, AOID_SHA256) : rc;
         };
     }},
    {"md_update of nothing succeeds and leaves the digest",
     [](Table& t) {
         t.md_funcs.pelnic_md_update = [](PELNIC_CRYPTO_MD_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len) {
             return len == 0 ? PELNIC_ERR_FAILED : _pnv_md_update_impl(ctx, data, len);
         };
     }},

    {"good signatures by keys of 1024 to 4096 bits and exponents 3 to 2^32 + 1 are good",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_init = [](PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e,
                                               const PELNIC_BIGINT* n, PNV_UINT32 id) {
             return e != nullptr && e->uiLength > 4 ? PELNIC_ERR_FAILED : _pnv_verify_init_impl(ctx, e, n, id);
         };
     }},
    {"what is signed may come in parts",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_update = [](PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len) {
             return len == 1 ? 0 : pelnic_verify_update_impl(ctx, data, len);
         };
     }},
    {"a signature with a wrong bit is bad",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_final = [](PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 len,
                                                PNV_INT* result) {
             const PELNIC_ERROR_CODE rc = _pnv_verify_final_impl(ctx, signature, len, result);
             return rc == 0 && *result == 0 ? PELNIC_ERR_FAILED : rc; // a verdict is no failure
         };
     }},
    {"a signature by another key is bad",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_final = [](PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 len,
                                                PNV_INT* result) {
             const PELNIC_ERROR_CODE rc = _pnv_verify_final_impl(ctx, signature, len, result);
             if (rc == 0) *result = 1;
             return rc;
         };
     }},
    {"a signature of another length than the key's is bad",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_final = [](PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 len,
                                                PNV_INT* result) {
             return _pnv_verify_final_impl(ctx, signature, len == 257 ? 256 : len, result);
         };
     }},
    {"a signature with zeros too many is bad",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_final = [](PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 len,
                                                PNV_INT* result) {
             const PNV_UINT32 zeros = len == 260 ? 4 : 0;
             return _pnv_verify_final_impl(ctx, signature + zeros, len - zeros, result);
         };
     }},
    {"a signature that lost its leading zero gets it back",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_final = [](PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 len,
                                                PNV_INT* result) {
             const PELNIC_ERROR_CODE rc = _pnv_verify_final_impl(ctx, signature, len, result);
             if (rc == 0 && len % 4 != 0) *result = 0;
             return rc;
         };
     }},
    {"an impossible exponent makes every signature bad",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_init = [](PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e,
                                               const PELNIC_BIGINT* n, PNV_UINT32 id) {
             const bool isOne = e != nullptr && e->uiLength == 1 && e->aVal[0] == 1;
             return isOne ? PELNIC_ERR_FAILED : _pnv_verify_init_impl(ctx, e, n, id);
         };
     }},
    {"an impossible modulus makes every signature bad",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_init = [](PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e,
                                               const PELNIC_BIGINT* n, PNV_UINT32 id) {
             return n != nullptr && n->uiLength < 128 ? PELNIC_ERR_FAILED : _pnv_verify_init_impl(ctx, e, n, id);
         };
     }},
    {"verify_init refuses a modulus longer than its record",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_init = [](PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e,
                                               const PELNIC_BIGINT* n, PNV_UINT32 id) {
             if (n == nullptr) return PELNIC_ERR_FAILED;
             PELNIC_BIGINT cut = *n;
             cut.uiLength = std::min(cut.uiLength, PNV_UINT32{512});
             return _pnv_verify_init_impl(ctx, e, &cut, id);
         };
     }},
    {"verify_init knows SHA-256, SHA-384 and SHA-512 only",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_init = [](PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e,
                                               const PELNIC_BIGINT* n, PNV_UINT32 id) {
             return _pnv_verify_init_impl(ctx, e, n, id < 43 ? PNV_UINT32{AOID_SHA256} : id);
         };
     }},
    {"a verification that was not begun fails",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_final = [](PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 len,
                                                PNV_INT* result) {
             (void)_pnv_verify_final_impl(ctx, signature, len, result);
             return PELNIC_ERROR_CODE{0};
         };
     }},
    {"the verification callbacks refuse null",
     [](Table& t) {
         t.crypt_funcs.pelnic_verify_update = [](PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len) {
             return ctx == nullptr ? 0 : pelnic_verify_update_impl(ctx, data, len);
         };
     }},
};

TEST(Conformance, NoticesEveryFault)
{
    for (const Fault& fault : kFaults) {
        Table table = DefaultTable();
        fault.make(table);
        const std::vector<std::string> failures = FailuresOf(table);
        EXPECT_NE(std::find(failures.begin(), failures.end(), fault.rule), failures.end()) << fault.rule;
    }
}

TEST(Conformance, NoticesFilesWhereThereAreNone)
{
    Table table = BoardTable();
    Files(table).fopen = [](const PNV_CHAR*, const PNV_CHAR*) -> PNV_FILE_HANDLE { return g_pool.data(); };
    EXPECT_EQ(FailuresOf(table, false), std::vector<std::string>{"fopen opens nothing without files"});
}

// ---- Verdicts on other tables ----

const Bytes kContent = Text("a firmware image");

Verdict VerdictOn(const Table& table, const Anchors& anchors, const Bytes& signature)
{
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof params;
    params.callback_funcs = table;
    PELNIC_VRF_CTX ctx = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_verify_create_ctx(&ctx, &params);
    if (rc != 0) return {rc, 0};
    rc = pelnic_verify_add_cert(ctx, anchors.root.data(), Len(anchors.root));
    if (rc == 0) rc = pelnic_verify_add_crl(ctx, anchors.crls.data(), Len(anchors.crls));
    const Verdict verdict = rc == 0 ? Verify(ctx, signature, kContent) : Verdict{rc, 0};
    EXPECT_EQ(pelnic_vrf_ctx_free(ctx), 0u);
    return verdict;
}

struct SignatureCase {
    const char* name;
    Verdict verdict;
    void (*change)(DemoPki& pki, CmsSpec& cms, TokenSpec& token); // before the token is attached
};

const SignatureCase kSignatures[] = {
    {"as it is", good, [](DemoPki&, CmsSpec&, TokenSpec&) {}},
    {"SHA-384", good, [](DemoPki&, CmsSpec& cms, TokenSpec&) { cms.signers[0].hash = Hash::Sha384; }},
    {"SHA-512", good, [](DemoPki&, CmsSpec& cms, TokenSpec&) { cms.signers[0].hash = Hash::Sha512; }},
    {"token with SHA-512", good,
     [](DemoPki&, CmsSpec&, TokenSpec& token) {
         token.imprintHash = Hash::Sha512;
         token.cms.signers[0].hash = Hash::Sha384;
     }},
    {"direct signer", good, [](DemoPki&, CmsSpec& cms, TokenSpec&) { cms = Direct(cms); }},
    {"direct signer, broken", bad,
     [](DemoPki&, CmsSpec& cms, TokenSpec&) {
         cms = Direct(cms);
         cms.signers[0].brokenSignature = true;
     }},
    {"broken signature",
     {PELNIC_ERR_CMS_SIGNATURE, 0},
     [](DemoPki&, CmsSpec& cms, TokenSpec&) { cms.signers[0].brokenSignature = true; }},
    {"broken token",
     {PELNIC_ERR_CMS_SIGNATURE, 0},
     [](DemoPki&, CmsSpec&, TokenSpec& token) { token.cms.signers[0].brokenSignature = true; }},
    {"other imprint",
     {PELNIC_ERR_TSP_IMPRINT_MISMATCH, 0},
     [](DemoPki&, CmsSpec&, TokenSpec& token) { token.imprint = Bytes(32); }},
    {"other content", bad,
     [](DemoPki&, CmsSpec& cms, TokenSpec&) {
         cms.signers[0].signedAttributes = [](const Bytes& digest) {
             return std::vector<Bytes>{MessageDigestAttribute(Bytes(digest.size()))};
         };
     }},
    {"revoked signer",
     {PELNIC_ERR_CERT_VERIFY, 0},
     [](DemoPki& pki, CmsSpec&, TokenSpec&) { pki.rootCrl.revoked.push_back({pki.signer.serial}); }},
    {"broken CRL",
     {PELNIC_ERR_CERT_VERIFY, 0},
     [](DemoPki& pki, CmsSpec&, TokenSpec&) { pki.rootCrl.brokenSignature = true; }},
    {"SHA-1",
     {PELNIC_ERR_CMS_SIGNATURE, 0},
     [](DemoPki&, CmsSpec& cms, TokenSpec&) { cms.signers[0].digestAlgorithm = AlgoId(oid::sha1); }},
};

Anchors Make(const SignatureCase& signatureCase, Bytes* signature)
{
    DemoPki pki = FlatPki();
    TokenSpec token = FlatToken(pki);
    CmsSpec cms = FlatCms(pki);
    signatureCase.change(pki, cms, token);
    cms.signers[0].unsignedAttributes = {Timestamp(token)};
    *signature = DetachedCms(kContent, cms);
    return FlatAnchors(pki);
}

TEST(Verdicts, AreTheSameOnEveryTable)
{
    for (const SignatureCase& signatureCase : kSignatures) {
        SCOPED_TRACE(signatureCase.name);
        Bytes signature;
        const Anchors anchors = Make(signatureCase, &signature);
        EXPECT_EQ(VerdictOn(DefaultTable(), anchors, signature), signatureCase.verdict);
        EXPECT_EQ(VerdictOn(MbedTlsTable(), anchors, signature), signatureCase.verdict);
        EXPECT_EQ(VerdictOn(BoardTable(), anchors, signature), signatureCase.verdict);
        EXPECT_EQ(board_pool_in_use(), 0u);
    }
}

TEST(Verdicts, AreTheSameOnDamagedSignatures)
{
    Bytes signature;
    const Anchors anchors = Make(kSignatures[0], &signature);
    for (std::size_t i = 0; i < signature.size(); i += 13) {
        Bytes damaged = signature;
        damaged[i] ^= 0x20;
        EXPECT_EQ(VerdictOn(MbedTlsTable(), anchors, damaged), VerdictOn(DefaultTable(), anchors, damaged)) << i;
    }
}

// ---- Keys that an engine does not take ----

Bytes RsaKey(const Bytes& modulus, const Bytes& exponent)
{
    return Seq(AlgoId(oid::rsaEncryption), Bits(0, Seq(Int(modulus), Int(exponent))));
}

Bytes Modulus(std::size_t size, std::uint8_t last)
{
    Bytes modulus(size + 1, 0xC3);
    modulus.front() = 0;
    modulus.back() = last;
    return modulus;
}

const std::pair<const char*, Bytes> kOddKeys[] = {
    {"exponent 1", RsaKey(Modulus(256, 1), {1})},
    {"even exponent", RsaKey(Modulus(256, 1), {1, 0, 0})},
    {"even modulus", RsaKey(Modulus(256, 2), {1, 0, 1})},
    {"64 bits", RsaKey(Modulus(8, 1), {1, 0, 1})},
    {"512 bits", RsaKey(Modulus(64, 1), {1, 0, 1})},
    {"513 octets", RsaKey(Modulus(513, 1), {1, 0, 1})},
    {"elliptic curve",
     Seq(Seq(Oid(oid::ecPublicKey), Oid("1.2.840.10045.3.1.7")), Bits(0, Cat(Bytes{4}, Bytes(64, 0x5A))))},
};

// A certificate that is not needed, and where it comes from.
struct Extra {
    const char* place;
    CertSpec (*make)(const DemoPki& pki);
    bool inSignature;
};

CertSpec SelfIssued(const DemoPki&)
{
    return ForeignRoot();
}
CertSpec Namesake(const DemoPki& pki)
{
    return With(With(pki.signingCa, &CertSpec::serial, Bytes{0x77}), &CertSpec::brokenSignature, true);
}

const Extra kExtras[] = {
    {"self-issued, in the signature", SelfIssued, true},
    {"self-issued, beside the CRLs", SelfIssued, false},
    {"of the signing CA's name, in the signature", Namesake, true},
    {"of the signing CA's name, beside the CRLs", Namesake, false},
};

// A key that the engine does not take is no failure: the good package stays good, and so does the next one in the same
// context.
void ExpectAccepted(const Table& table, const Anchors& anchors, const Bytes& signature, const Bytes& next)
{
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof params;
    params.callback_funcs = table;
    PELNIC_VRF_CTX ctx = nullptr;
    ASSERT_EQ(pelnic_verify_create_ctx(&ctx, &params), 0u);
    EXPECT_EQ(pelnic_verify_add_cert(ctx, anchors.root.data(), Len(anchors.root)), 0u);
    EXPECT_EQ(pelnic_verify_add_crl(ctx, anchors.crls.data(), Len(anchors.crls)), 0u);
    EXPECT_EQ(Verify(ctx, signature, kContent), good);
    EXPECT_EQ(Verify(ctx, next, kContent), good);
    EXPECT_EQ(pelnic_vrf_ctx_free(ctx), 0u);
}

TEST(Verdicts, AreNotChangedByKeysThatNobodyTakes)
{
    const DemoPki pki;
    const CmsSpec plain = DemoCms(pki);
    const Bytes next = DetachedCms(kContent, plain);
    for (const auto& [name, key] : kOddKeys) {
        for (const Extra& extra : kExtras) {
            SCOPED_TRACE(std::string(name) + ", " + extra.place);
            const Bytes certificate = Build(With(extra.make(pki), &CertSpec::subjectPublicKey, key));
            CmsSpec cms = plain;
            Anchors anchors = AnchorsOf(pki);
            if (extra.inSignature) {
                cms.certificates.insert(cms.certificates.begin(), certificate);
            } else {
                anchors.crls = Cat(certificate, anchors.crls);
            }
            const Bytes signature = DetachedCms(kContent, cms);
            ExpectAccepted(DefaultTable(), anchors, signature, next);
            ExpectAccepted(MbedTlsTable(), anchors, signature, next);
        }
    }
}

// ---- The pool ----

TEST(BoardPool, RefusesWhatItDoesNotHave)
{
    const Table table = BoardTable(1024);
    const PELNIC_SYS_MEM_FUNCS& mem = table.plt_funcs.sys_funcs.mem_funcs;
    char before = 0;
    for (PNV_UINT32 size : {1024u, 4096u, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
        void* block = &before;
        EXPECT_EQ(mem.malloc(&block, size), PELNIC_ERR_SYS_MEM_ALLOC);
        EXPECT_EQ(block, nullptr);
    }
    EXPECT_EQ(board_pool_peak(), 0u);
}

TEST(BoardPool, JoinsWhatComesBack)
{
    const Table table = BoardTable(4096);
    const PELNIC_SYS_MEM_FUNCS& mem = table.plt_funcs.sys_funcs.mem_funcs;
    const std::vector<std::vector<std::size_t>> orders = {{0, 1, 2}, {2, 1, 0}, {0, 2, 1},
                                                          {1, 0, 2}, {1, 2, 0}, {2, 0, 1}};
    for (const std::vector<std::size_t>& order : orders) {
        void* blocks[3] = {};
        for (void*& block : blocks) ASSERT_EQ(mem.malloc(&block, 1000), 0u);
        for (std::size_t i : order) mem.free(blocks[i]);
        void* whole = nullptr;
        EXPECT_EQ(mem.malloc(&whole, 4000), 0u);
        mem.free(whole);
        EXPECT_EQ(board_pool_in_use(), 0u);
    }
    EXPECT_LE(board_pool_peak(), 4096u);
}

TEST(BoardPool, OfThePeakSizeIsJustEnough)
{
    Bytes signature;
    const Anchors anchors = Make(kSignatures[0], &signature);
    ASSERT_EQ(VerdictOn(BoardTable(), anchors, signature), good);
    const std::size_t peak = board_pool_peak();
    EXPECT_EQ(VerdictOn(BoardTable(peak), anchors, signature), good);
    const Verdict starved = VerdictOn(BoardTable(peak - sizeof(std::max_align_t)), anchors, signature);
    EXPECT_NE(starved.code, 0u);
    EXPECT_EQ(board_pool_in_use(), 0u);
    EXPECT_EQ(VerdictOn(BoardTable(256), anchors, signature), (Verdict{PELNIC_ERR_SYS_MEM_ALLOC, 0}));
}

// ---- The budget of signature checks ----

// Whatever the number at which it ends, nothing is accepted that was not checked to the end.
TEST(CheckBudget, AcceptsNothingThatItStopped)
{
    Bytes signature;
    const Anchors anchors = Make(kSignatures[0], &signature);
    PNV_UINT32 checks = 0;
    for (;; ++checks) {
        SCOPED_TRACE(checks);
        ASSERT_LT(checks, 50u);
        Table table = BoardTable();
        check_budget(&table, checks);
        const Verdict verdict = VerdictOn(table, anchors, signature);
        EXPECT_EQ(board_pool_in_use(), 0u);
        if (check_budget_is_spent() == 0) {
            EXPECT_EQ(verdict, good);
            break;
        }
        EXPECT_NE(verdict.code, 0u);
        EXPECT_EQ(verdict.result, 0);
    }
    EXPECT_GT(checks, 3u);
}

TEST(CheckBudget, StopsAtALargeExponent)
{
    DemoPki pki = FlatPki();
    CmsSpec cms = FlatCms(pki);
    const auto verdictWith = [&](std::size_t octets) {
        CertSpec anybody = Root(KeyId::Rsa2048F);
        anybody.subject = anybody.issuer = TestName("Anybody"); // its own issuer, so its signature is checked
        Bytes exponent(octets, 0x00);
        exponent.front() = exponent.back() = 0x01;
        anybody.subjectPublicKey =
            Seq(AlgoId(oid::rsaEncryption), Bits(0, Seq(Int(Cat(Bytes{0x00}, Bytes(256, 0xC5))), Int(exponent))));
        CmsSpec with = cms;
        with.certificates.push_back(Build(anybody));
        Table table = BoardTable();
        check_budget(&table, 200);
        return VerdictOn(table, FlatAnchors(pki), DetachedCms(kContent, with));
    };
    EXPECT_EQ(verdictWith(8), good);
    EXPECT_EQ(check_budget_is_spent(), 0);
    EXPECT_NE(verdictWith(9).code, 0u);
    EXPECT_EQ(check_budget_is_spent(), 1);
}

// ---- The programs ----

class ExamplePrograms : public ::testing::Test {
protected:
    ExamplePrograms()
    {
        dir_.Write("root", Build(pki_.root));
        dir_.Write("crls", pki_.Crls());
        dir_.Write("signature", DetachedCms(kContent, DemoCms(pki_)));
        dir_.Write("content", kContent);
        dir_.Write("other", Text("another image"));
        dir_.Write("empty", {});
    }

    // Arguments without a slash are files of the test; redirect is the shell's.
    ProcessResult Run(const std::string& program, const std::string& arguments, const std::string& redirect = "")
    {
        std::vector<std::string> argv{"sh", "-c", "cd \"$1\" && shift && exec \"$@\" " + arguments + " " + redirect,
                                      "sh", dir_.Path()};
        for (const std::string& word : ForTarget({EXAMPLES_PATH "/" + program})) argv.push_back(word);
        return RunProcess(argv);
    }

    DemoPki pki_;
    TempDir dir_;
};

TEST_F(ExamplePrograms, VerifyFiles)
{
    const ProcessResult accepted = Run("verify_files", "root crls signature content");
    EXPECT_EQ(accepted.status, 0);
    EXPECT_EQ(accepted.out, "accepted\n");
    const ProcessResult refused = Run("verify_files", "root crls signature other");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "refused: code 0x00000000, result 0\n");
    EXPECT_EQ(Run("verify_files", "root crls crls content").out, "refused: code 0x88200312, result 0\n");
    EXPECT_EQ(Run("verify_files", "root crls signature empty").out, "refused: no content\n");
    EXPECT_EQ(Run("verify_files", "root crls signature").status, 2);
}

TEST_F(ExamplePrograms, VerifyStream)
{
    const ProcessResult accepted = Run("verify_stream", "root crls signature", "<content");
    EXPECT_EQ(accepted.status, 0);
    EXPECT_EQ(accepted.out, "accepted\n");
    EXPECT_EQ(accepted.err, "");
    EXPECT_EQ(Run("verify_stream", "root crls signature", "<other").status, 1);
    EXPECT_EQ(Run("verify_stream", "root crls signature", "<empty").status, 1);
    const ProcessResult refused = Run("verify_stream", "root crls crls", "<content");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "refused: code 0x88200312, result 0\n");
    EXPECT_NE(refused.err.find("error: "), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("(0x88200312)"), std::string::npos) << refused.err;
    EXPECT_EQ(Run("verify_stream", "", "<content").status, 2);
}

TEST_F(ExamplePrograms, VerifyBoard)
{
    const ProcessResult accepted = Run("verify_board", "root crls signature content");
    EXPECT_EQ(accepted.status, 0);
    EXPECT_EQ(accepted.out.rfind("accepted: code 0x00000000, result 1\npool: ", 0), 0u) << accepted.out;
    EXPECT_NE(accepted.out.find(" octets at the peak, 0 now\n"), std::string::npos) << accepted.out;
    std::printf("%s", accepted.out.c_str());
    const ProcessResult starved = Run("verify_board", "root crls signature content 256");
    EXPECT_EQ(starved.status, 1);
    EXPECT_EQ(starved.out.rfind("refused: code 0x88000001, result 0\n", 0), 0u) << starved.out;
    EXPECT_EQ(Run("verify_board", "root crls signature other").status, 1);
    EXPECT_EQ(Run("verify_board", "root crls signature empty").status, 1);
    EXPECT_EQ(Run("verify_board", "root crls signature content 99999999").status, 2);
}

TEST_F(ExamplePrograms, CheckCallbacks)
{
    dir_.Write("digits", Text("0123456789"));
    const ProcessResult conforms = Run("check_callbacks", "digits");
    EXPECT_EQ(conforms.status, 0);
    EXPECT_EQ(conforms.out, "0 failures\n");
    EXPECT_EQ(Run("check_callbacks", "content").status, 1);
}

} // namespace
} // namespace pnvtest
