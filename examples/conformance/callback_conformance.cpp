// Shows: what the library relies on in a callback table. The result codes asked for are those that leave the library
// unchanged, so that a device refuses with the same code whatever table it has. Compiled with -fno-exceptions it needs
// no C++ run time.
#include "callback_conformance.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

#include "rsa_vectors.inc"
#include "sha2_vectors.inc"

struct Octets {
    PNV_BYTE data[600] = {};
    PNV_UINT32 length = 0;
};

PNV_BYTE nibble(char digit)
{
    return static_cast<PNV_BYTE>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

Octets fromHex(std::string_view hex)
{
    Octets octets;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        octets.data[octets.length++] = static_cast<PNV_BYTE>(nibble(hex[i]) << 4 | nibble(hex[i + 1]));
    }
    return octets;
}

PELNIC_BIGINT number(std::string_view hex)
{
    PELNIC_BIGINT result{};
    const Octets octets = fromHex(hex);
    result.uiLength = octets.length;
    std::copy(octets.data, octets.data + octets.length, result.aVal);
    return result;
}

const PNV_BYTE* bytesOf(std::string_view text)
{
    return reinterpret_cast<const PNV_BYTE*>(text.data());
}

PNV_UINT32 lengthOf(std::string_view text)
{
    return static_cast<PNV_UINT32>(text.size());
}

PNV_INT format(pnv_func_vsnprintf_s function, PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* pattern,
               ...)
{
    va_list args;
    va_start(args, pattern);
    const PNV_INT length = function(dest, destMax, count, pattern, args);
    va_end(args);
    return length;
}

struct Signed {
    std::string_view modulus;
    std::string_view exponent;
    PNV_UINT32 hashId;
    std::string_view signature;
};

constexpr std::string_view kUsualExponent = "010001";

constexpr Signed kGoodOnes[] = {
    {kModulus1024, kUsualExponent, AOID_SHA256, kSignature1024Sha256},
    {kModulus1024, kUsualExponent, AOID_SHA384, kSignature1024Sha384},
    {kModulus1024, kUsualExponent, AOID_SHA512, kSignature1024Sha512},
    {kModulus2048, kUsualExponent, AOID_SHA256, kSignature2048Sha256},
    {kModulus2048, kUsualExponent, AOID_SHA384, kSignature2048Sha384},
    {kModulus2048, kUsualExponent, AOID_SHA512, kSignature2048Sha512},
    {kModulus3072, kUsualExponent, AOID_SHA256, kSignature3072Sha256},
    {kModulus3072, kUsualExponent, AOID_SHA384, kSignature3072Sha384},
    {kModulus3072, kUsualExponent, AOID_SHA512, kSignature3072Sha512},
    {kModulus4096, kUsualExponent, AOID_SHA256, kSignature4096Sha256},
    {kModulus4096, kUsualExponent, AOID_SHA384, kSignature4096Sha384},
    {kModulus4096, kUsualExponent, AOID_SHA512, kSignature4096Sha512},
    {kModulus2048E3, "03", AOID_SHA256, kSignature2048E3Sha256},
    {kModulus2048E4294967297, "0100000001", AOID_SHA256, kSignature2048E4294967297Sha256},
};
const Signed& kExample = kGoodOnes[3];

class Conformance {
public:
    Conformance(const PELNIC_CALLBACK_FUNCS& funcs, callback_conformance_report report)
        : funcs_(funcs), sys_(funcs.plt_funcs.sys_funcs), report_(report)
    {
    }

    unsigned Run(const char* file)
    {
        CheckShape();
        if (failures_ != 0) return failures_; // nothing could be called
        CheckAllocation();
        CheckFilling();
        CheckCopying(sys_.mem_funcs.memcpy_s, "memcpy_s copies", "memcpy_s refuses null and what does not fit");
        CheckCopying(sys_.mem_funcs.memmove_s, "memmove_s copies", "memmove_s refuses null and what does not fit");
        CheckMoving();
        CheckComparing();
        CheckSearching();
        CheckStringCopies();
        if (sys_.str_funcs.pf_vsnprintf_s != nullptr) CheckFormatting();
        if (file == nullptr) {
            Check(sys_.file_funcs.fopen("0123456789", "rb") == nullptr, "fopen opens nothing without files");
        } else {
            CheckFiles(file);
        }
        CheckDigests();
        CheckDigestContexts();
        CheckGoodSignatures();
        CheckBadSignatures();
        CheckSignatureLengths();
        CheckPadding();
        CheckKeys();
        CheckVerificationContexts();
        return failures_;
    }

private:
    void Check(bool holds, const char* rule)
    {
        if (holds) return;
        ++failures_;
        report_(rule);
    }

    // ---- The table ----

    void CheckShape()
    {
        Check(funcs_.st_size == sizeof(PELNIC_CALLBACK_FUNCS), "st_size of the table is its size");
        Check(funcs_.plt_funcs.st_size == sizeof(PELNIC_PLT_FUNCS), "st_size of plt_funcs is its size");
        Check(sys_.st_size == sizeof(PELNIC_SYS_FUNCS), "st_size of sys_funcs is its size");
        const PELNIC_SYS_MEM_FUNCS& mem = sys_.mem_funcs;
        Check(mem.malloc && mem.free && mem.memcmp && mem.memcpy_s && mem.memmove_s && mem.memset_s,
              "the memory callbacks are there");
        const PELNIC_SYS_STR_FUNCS& str = sys_.str_funcs;
        Check(str.pf_strcat_s && str.pf_strchr && str.pf_strcmp && str.pf_strcpy_s && str.pf_strlen && str.pf_strncmp &&
                  str.pf_strstr,
              "the string callbacks are there");
        Check(str.pf_vsnprintf_s || !funcs_.plt_funcs.log_funcs.log_func, "log_func comes with pf_vsnprintf_s");
        Check(sys_.file_funcs.fclose && sys_.file_funcs.fopen && sys_.file_funcs.fread,
              "the file callbacks are there, even without files");
        const PELNIC_MD_FUNCS& md = funcs_.md_funcs;
        Check(md.pelnic_md_ctx_create && md.pelnic_md_init && md.pelnic_md_update && md.pelnic_md_final &&
                  md.pelnic_md_ctx_destory,
              "the digest callbacks are there");
        const PELNIC_CRYPTO_FUNCS& crypt = funcs_.crypt_funcs;
        Check(crypt.pelnic_verify_ctx_create && crypt.pelnic_verify_init && crypt.pelnic_verify_update &&
                  crypt.pelnic_verify_final && crypt.pelnic_verify_ctx_destory,
              "the verification callbacks are there");
    }

    // ---- Memory ----

    void CheckAllocation()
    {
        constexpr PNV_UINT32 kSizes[] = {1, 7, 24, 100, 2048, 1};
        constexpr std::size_t kBlocks = std::size(kSizes);
        void* blocks[kBlocks] = {};
        bool allocated = true;
        bool aligned = true;
        for (std::size_t i = 0; i < kBlocks; ++i) {
            allocated = sys_.mem_funcs.malloc(&blocks[i], kSizes[i]) == 0 && blocks[i] != nullptr && allocated;
            aligned = aligned && reinterpret_cast<std::uintptr_t>(blocks[i]) % alignof(std::int64_t) == 0;
            if (blocks[i] != nullptr) std::memset(blocks[i], static_cast<int>(i + 1), kSizes[i]);
        }
        bool apart = true;
        for (std::size_t i = 0; i < kBlocks; ++i) {
            const PNV_BYTE* const octets = static_cast<const PNV_BYTE*>(blocks[i]);
            for (PNV_UINT32 n = 0; octets != nullptr && n < kSizes[i]; ++n) apart = apart && octets[n] == i + 1;
            if (octets != nullptr) sys_.mem_funcs.free(blocks[i]);
        }
        Check(allocated, "malloc gives blocks");
        Check(aligned, "malloc aligns blocks for 64-bit integers and pointers");
        Check(apart, "blocks of malloc do not overlap");

        PNV_BYTE octet = 0;
        void* block = &octet;
        Check(sys_.mem_funcs.malloc(&block, 0) != 0 || block == nullptr, "malloc of size 0 gives no block");
        if (sizeof(void*) > 4) return; // there may be such a block
        block = &octet;
        Check(sys_.mem_funcs.malloc(&block, 0xFFFFFFFF) == PELNIC_ERR_SYS_MEM_ALLOC && block == nullptr,
              "malloc says 0x88000001 when there is no memory");
    }

    void CheckFilling()
    {
        const pnv_func_memset_s fill = sys_.mem_funcs.memset_s;
        PNV_BYTE dest[4] = {1, 1, 1, 1};
        Check(fill(dest, 4, 0xFF, 3) == 0 && std::memcmp(dest, "\xFF\xFF\xFF\x01", 4) == 0, "memset_s fills");
        Check(fill(nullptr, 4, 0, 4) == PELNIC_ERR_NULL_POINTER && fill(dest, 0, 0, 0) == PELNIC_ERR_NULL_POINTER &&
                  fill(dest, 3, 0, 4) == PELNIC_ERR_NULL_POINTER && dest[3] == 1,
              "memset_s refuses null and what does not fit");
    }

    void CheckCopying(pnv_func_memcpy_s copy, const char* copies, const char* refuses)
    {
        PNV_BYTE dest[4] = {9, 9, 9, 9};
        const PNV_BYTE src[4] = {1, 2, 3, 4};
        Check(copy(dest, 4, src, 3) == 0 && std::memcmp(dest, "\1\2\3\x09", 4) == 0 && copy(dest, 4, src, 4) == 0 &&
                  dest[3] == 4 && copy(dest, 1, src, 0) == 0,
              copies);
        std::memset(dest, 9, 4);
        Check(copy(nullptr, 4, src, 4) == PELNIC_ERR_NULL_POINTER &&
                  copy(dest, 4, nullptr, 4) == PELNIC_ERR_NULL_POINTER &&
                  copy(dest, 0, src, 0) == PELNIC_ERR_NULL_POINTER &&
                  copy(dest, 3, src, 4) == PELNIC_ERR_NULL_POINTER &&
                  copy(dest, 4, src, SIZE_MAX) == PELNIC_ERR_NULL_POINTER &&
                  std::memcmp(dest, "\x09\x09\x09\x09", 4) == 0,
              refuses);
    }

    void CheckMoving()
    {
        PNV_BYTE up[5] = {1, 2, 3, 4, 5};
        PNV_BYTE down[5] = {1, 2, 3, 4, 5};
        Check(sys_.mem_funcs.memmove_s(up + 1, 4, up, 4) == 0 && std::memcmp(up, "\1\1\2\3\4", 5) == 0 &&
                  sys_.mem_funcs.memmove_s(down, 5, down + 1, 4) == 0 && std::memcmp(down, "\2\3\4\5\5", 5) == 0,
              "memmove_s moves octets that overlap");
    }

    void CheckComparing()
    {
        const pnv_func_memcmp compare = sys_.mem_funcs.memcmp;
        Check(compare("\1\2\3", "\1\2\xFF", 2) == 0 && compare("\1\2\3", "\1\2\xFF", 3) < 0 &&
                  compare("\1\2\xFF", "\1\2\3", 3) > 0 && compare("a", "b", 0) == 0 && compare("a\0b", "a\0c", 3) != 0,
              "memcmp compares unsigned octets");
        Check(compare(nullptr, "a", 0) != 0 && compare("a", nullptr, 0) != 0, "memcmp finds null different");
    }

    // ---- Strings ----

    void CheckSearching()
    {
        const PELNIC_SYS_STR_FUNCS& str = sys_.str_funcs;
        Check(str.pf_strlen("") == 0 && str.pf_strlen("abc") == 3, "pf_strlen measures");
        Check(str.pf_strlen(nullptr) == 0xFFFFFFFF, "pf_strlen of null is 0xFFFFFFFF");
        Check(str.pf_strcmp("abc", "abc") == 0 && str.pf_strcmp("abc", "abd") != 0 && str.pf_strcmp("ab", "abc") != 0 &&
                  str.pf_strcmp("abc", "ab") != 0,
              "pf_strcmp finds equal texts");
        Check(str.pf_strcmp(nullptr, "a") != 0 && str.pf_strcmp("a", nullptr) != 0 &&
                  str.pf_strcmp(nullptr, nullptr) != 0,
              "pf_strcmp finds null different");
        Check(str.pf_strncmp("abc", "abd", 2) == 0 && str.pf_strncmp("abc", "abd", 3) != 0 &&
                  str.pf_strncmp("ab", "ab", 9) == 0,
              "pf_strncmp compares as many characters as it is told");
        Check(str.pf_strncmp(nullptr, "a", 1) != 0 && str.pf_strncmp("a", nullptr, 1) != 0,
              "pf_strncmp finds null different");
        PNV_CHAR text[] = "one two\xE4";
        Check(str.pf_strstr(text, "two") == text + 4 && str.pf_strstr(text, "three") == nullptr, "pf_strstr finds");
        Check(str.pf_strstr(nullptr, "a") == nullptr && str.pf_strstr("a", nullptr) == nullptr,
              "pf_strstr finds nothing in null");
        Check(str.pf_strchr(text, 't') == text + 4 && str.pf_strchr(text, 'x') == nullptr &&
                  str.pf_strchr(text, static_cast<PNV_CHAR>(0xE4)) == text + 7 && str.pf_strchr(text, '\0') == text + 8,
              "pf_strchr finds every character");
        Check(str.pf_strchr(nullptr, 'a') == nullptr, "pf_strchr finds nothing in null");
    }

    void CheckStringCopies()
    {
        const pnv_func_strcpy_s copy = sys_.str_funcs.pf_strcpy_s;
        const pnv_func_strcat_s append = sys_.str_funcs.pf_strcat_s;
        PNV_CHAR dest[8] = "before";
        Check(copy(dest, 8, "seven77") == 0 && std::strcmp(dest, "seven77") == 0 && copy(dest, 8, "") == 0 &&
                  dest[0] == '\0',
              "pf_strcpy_s copies");
        std::strcpy(dest, "abc");
        Check(append(dest, 8, "defg") == 0 && std::strcmp(dest, "abcdefg") == 0, "pf_strcat_s appends");
        for (const pnv_func_strcpy_s function : {copy, append}) {
            std::strcpy(dest, "abc");
            Check(function(nullptr, 8, "x") == PELNIC_ERR_NULL_POINTER &&
                      function(dest, 8, nullptr) == PELNIC_ERR_NULL_POINTER &&
                      function(dest, 0, "x") == PELNIC_ERR_NULL_POINTER && std::strcmp(dest, "abc") == 0,
                  "pf_strcpy_s and pf_strcat_s refuse null");
            dest[7] = '#';
            Check(function(dest, 7, "seven77") != 0 && dest[7] == '#',
                  "pf_strcpy_s and pf_strcat_s refuse what does not fit");
        }
    }

    void CheckFormatting()
    {
        const pnv_func_vsnprintf_s function = sys_.str_funcs.pf_vsnprintf_s;
        PNV_CHAR dest[8] = "#######";
        Check(format(function, dest, 8, 7, "%s-%d", "abc", 123) == 7 && std::strcmp(dest, "abc-123") == 0,
              "pf_vsnprintf_s writes what fits and returns its length");
        std::memset(dest, '#', sizeof dest);
        (void)format(function, dest, 6, 3, "%s", "too long");
        Check(std::memchr(dest, '\0', 4) != nullptr && dest[6] == '#',
              "pf_vsnprintf_s writes no more than count characters and a zero");
        Check(format(function, nullptr, 8, 7, "x") <= 0 && format(function, dest, 8, 7, nullptr) <= 0,
              "pf_vsnprintf_s refuses null");
    }

    // ---- Files ----

    void CheckFiles(const char* path)
    {
        const PELNIC_SYS_FILE_FUNCS& files = sys_.file_funcs;
        Check(files.fopen("", "rb") == nullptr, "fopen opens nothing that is not there");
        const PNV_FILE_HANDLE file = files.fopen(path, "rb");
        Check(file != nullptr, "fopen opens a file");
        if (file == nullptr) return;
        PNV_BYTE octets[8] = {};
        if (files.get_file_size != nullptr) {
            Check(files.get_file_size(file) == 10, "get_file_size tells the size");
        }
        Check(files.fread(octets, 4, file) == 4 && std::memcmp(octets, "0123", 4) == 0, "fread reads");
        if (files.get_file_size != nullptr) (void)files.get_file_size(file);
        Check(files.fread(octets, 4, file) == 4 && std::memcmp(octets, "4567", 4) == 0,
              "get_file_size leaves the position");
        Check(files.fread(octets, 8, file) == 2 && std::memcmp(octets, "89", 2) == 0 &&
                  files.fread(octets, 8, file) == 0,
              "fread tells how many octets there were");
        Check(files.fclose(file) == 0, "fclose closes");
    }

    // ---- Digests ----

    // A digest context; null where there is none, which every callback refuses.
    class Digest {
    public:
        explicit Digest(const PELNIC_MD_FUNCS& md) : md_(md)
        {
            if (md_.pelnic_md_ctx_create(&ctx_) != 0) ctx_ = nullptr;
        }
        ~Digest() { md_.pelnic_md_ctx_destory(ctx_); }
        Digest(const Digest&) = delete;
        Digest& operator=(const Digest&) = delete;

        bool Init(PNV_UINT32 hashId) { return md_.pelnic_md_init(ctx_, hashId) == 0; }
        bool Update(std::string_view text) { return md_.pelnic_md_update(ctx_, bytesOf(text), lengthOf(text)) == 0; }
        bool Is(std::string_view hex)
        {
            const Octets expected = fromHex(hex);
            PNV_BYTE digest[64] = {};
            PNV_UINT32 length = 0;
            return md_.pelnic_md_final(ctx_, digest, &length) == 0 && length == expected.length &&
                   std::equal(digest, digest + length, expected.data);
        }
        PELNIC_CRYPTO_MD_CTX Handle() { return ctx_; }

    private:
        const PELNIC_MD_FUNCS& md_;
        PELNIC_CRYPTO_MD_CTX ctx_ = nullptr;
    };

    void CheckDigests()
    {
        for (const Sha2Vector& vector : kSha2Vectors) {
            Digest whole(funcs_.md_funcs);
            Check(whole.Init(vector.hashId) && whole.Update("abc") && whole.Is(vector.ofAbc), "the digest of \"abc\"");
            Digest parts(funcs_.md_funcs);
            Check(parts.Init(vector.hashId) && parts.Update("a") && parts.Update("bc") && parts.Is(vector.ofAbc),
                  "the digest of \"abc\" in two parts");
            Digest nothing(funcs_.md_funcs);
            Check(nothing.Init(vector.hashId) && nothing.Is(vector.ofNothing), "the digest of nothing");
            Check(IsMillion(vector), "the digest of a million times \"a\" in parts of all sizes");
        }
    }

    bool IsMillion(const Sha2Vector& vector)
    {
        static PNV_CHAR as[1024];
        std::memset(as, 'a', sizeof as);
        Digest digest(funcs_.md_funcs);
        bool ok = digest.Init(vector.hashId);
        std::size_t left = 1000000;
        for (std::size_t size = 1; left > 0; size = size % sizeof as + 1) {
            const std::size_t part = std::min(size, left);
            ok = ok && digest.Update({as, part});
            left -= part;
        }
        return ok && digest.Is(vector.ofMillion);
    }

    void CheckDigestContexts()
    {
        const PELNIC_MD_FUNCS& md = funcs_.md_funcs;
        PNV_BYTE octets[64] = {};
        PNV_UINT32 length = 0;

        Digest unknown(md);
        bool refused = true;
        for (PNV_UINT32 id : {0u, 3u, 4u, 42u, 46u, 0xFFFFFFFFu}) {
            refused = md.pelnic_md_init(unknown.Handle(), id) == PELNIC_ERR_FAILED && refused;
        }
        Check(refused, "md_init knows SHA-256, SHA-384 and SHA-512 only");

        Digest digest(md);
        Check(!digest.Update("abc") && md.pelnic_md_final(digest.Handle(), octets, &length) == PELNIC_ERR_FAILED,
              "a digest that was not begun fails");
        Check(digest.Init(AOID_SHA256) && digest.Update("forgotten") && digest.Init(AOID_SHA384) &&
                  digest.Update("abc") && digest.Is(kSha384OfAbc),
              "a second md_init begins anew");
        Check(digest.Init(AOID_SHA256) && digest.Update("abc") && digest.Update("") &&
                  md.pelnic_md_update(digest.Handle(), nullptr, 5) == 0 && digest.Is(kSha256OfAbc),
              "md_update of nothing succeeds and leaves the digest");
        Digest other(md);
        Check(digest.Init(AOID_SHA256) && other.Init(AOID_SHA512) && digest.Update("a") && other.Update("ab") &&
                  digest.Update("bc") && other.Update("c") && digest.Is(kSha256OfAbc) && other.Is(kSha512OfAbc),
              "two digests run side by side");
        Check(md.pelnic_md_init(nullptr, AOID_SHA256) == PELNIC_ERR_FAILED &&
                  md.pelnic_md_update(nullptr, octets, 1) == PELNIC_ERR_FAILED &&
                  md.pelnic_md_final(nullptr, octets, &length) == PELNIC_ERR_FAILED,
              "the digest callbacks refuse a null context");
        md.pelnic_md_ctx_destory(nullptr);
    }

    // ---- Signatures ----

    class Verification {
    public:
        explicit Verification(const PELNIC_CRYPTO_FUNCS& crypt) : crypt_(crypt)
        {
            if (crypt_.pelnic_verify_ctx_create(&ctx_) != 0) ctx_ = nullptr;
        }
        ~Verification() { crypt_.pelnic_verify_ctx_destory(ctx_); }
        Verification(const Verification&) = delete;
        Verification& operator=(const Verification&) = delete;

        PELNIC_ERROR_CODE Init(std::string_view modulus, std::string_view exponent, PNV_UINT32 hashId)
        {
            const PELNIC_BIGINT n = number(modulus);
            const PELNIC_BIGINT e = number(exponent);
            return crypt_.pelnic_verify_init(ctx_, &e, &n, hashId);
        }
        bool Update(std::string_view text)
        {
            return crypt_.pelnic_verify_update(ctx_, bytesOf(text), lengthOf(text)) == 0;
        }
        PELNIC_ERROR_CODE Final(const Octets& signature, PNV_INT* result)
        {
            return crypt_.pelnic_verify_final(ctx_, signature.data, signature.length, result);
        }
        PELNIC_CRYPTO_VRF_CTX Handle() { return ctx_; }

    private:
        const PELNIC_CRYPTO_FUNCS& crypt_;
        PELNIC_CRYPTO_VRF_CTX ctx_ = nullptr;
    };

    enum class Outcome { Good, Bad, NotChecked };

    Outcome Verify(const Signed& vector, std::string_view text, const Octets& signature)
    {
        Verification vrf(funcs_.crypt_funcs);
        PNV_INT result = -1;
        if (vrf.Init(vector.modulus, vector.exponent, vector.hashId) != 0 || !vrf.Update(text)) {
            return Outcome::NotChecked;
        }
        if (vrf.Final(signature, &result) != 0) return result == 1 ? Outcome::Good : Outcome::NotChecked;
        return result == 1 ? Outcome::Good : result == 0 ? Outcome::Bad : Outcome::NotChecked;
    }

    void CheckGoodSignatures()
    {
        for (const Signed& vector : kGoodOnes) {
            Check(Verify(vector, "abc", fromHex(vector.signature)) == Outcome::Good,
                  "good signatures by keys of 1024 to 4096 bits and exponents 3 to 2^32 + 1 are good");
        }
        Verification vrf(funcs_.crypt_funcs);
        PNV_INT result = -1;
        Check(vrf.Init(kExample.modulus, kExample.exponent, kExample.hashId) == 0 && vrf.Update("a") &&
                  vrf.Update("bc") && vrf.Final(fromHex(kExample.signature), &result) == 0 && result == 1,
              "what is signed may come in parts");
    }

    void CheckBadSignatures()
    {
        for (const Signed& vector : kGoodOnes) {
            const Octets signature = fromHex(vector.signature);
            Check(Verify(vector, "abd", signature) == Outcome::Bad, "a signature over another text is bad");
            Signed other = vector;
            other.hashId = vector.hashId == AOID_SHA256 ? AOID_SHA512 : AOID_SHA256;
            Check(Verify(other, "abc", signature) == Outcome::Bad, "a signature with another digest is bad");
            for (PNV_UINT32 octet : {0u, signature.length / 2, signature.length - 1}) {
                Octets flipped = signature;
                flipped.data[octet] ^= 1;
                Check(Verify(vector, "abc", flipped) == Outcome::Bad, "a signature with a wrong bit is bad");
            }
        }
        Signed otherKey = kExample;
        otherKey.modulus = kModulus2048E3;
        Check(Verify(otherKey, "abc", fromHex(kExample.signature)) == Outcome::Bad,
              "a signature by another key is bad");
    }

    void CheckSignatureLengths()
    {
        const Octets signature = fromHex(kExample.signature);
        for (PNV_UINT32 length : {1u, 128u, signature.length - 4, signature.length - 1, signature.length + 1,
                                  signature.length + 4, 512u, 513u}) {
            Octets other = signature;
            other.length = length;
            Check(Verify(kExample, "abc", other) == Outcome::Bad,
                  "a signature of another length than the key's is bad");
            Octets zeros;
            zeros.length = length;
            Check(Verify(kExample, "abc", zeros) == Outcome::Bad, "zeros of any length are no signature");
        }
        Octets longer;
        longer.length = signature.length + 4;
        std::copy(signature.data, signature.data + signature.length, longer.data + 4);
        Check(Verify(kExample, "abc", longer) == Outcome::Bad, "a signature with zeros too many is bad");

        Octets shortOne = fromHex(kShortSignature);
        Check(Verify(kExample, kShortMessage, shortOne) == Outcome::Good,
              "a signature that lost its leading zero gets it back");
        const Signed odd{kModulus1032, kUsualExponent, AOID_SHA256, kSignature1032Sha256};
        Check(Verify(odd, "abc", fromHex(odd.signature)) == Outcome::Bad,
              "a key whose size is no multiple of four octets never verifies");
        shortOne.length = 0;
        Check(Verify(kExample, "abc", shortOne) != Outcome::Good, "no signature is never good");
    }

    void CheckPadding()
    {
        for (std::string_view signature :
             {kPaddedAsPss, kPaddedAsGarbage, kPaddedForEncryption, kBareDigest, kTrailingGarbage, kUnpadded}) {
            Check(Verify(kExample, "abc", fromHex(signature)) == Outcome::Bad,
                  "only the padding of PKCS #1 v1.5 is good (RFC 8017, 8.2.2)");
        }
    }

    void CheckKeys()
    {
        // A package may carry any key in its certificates. A code would say that there was no answer.
        for (std::string_view exponent : {"", "00", "01", "02", "010000"}) {
            Signed key = kExample;
            key.exponent = exponent;
            Check(Verify(key, "abc", fromHex(key.signature)) == Outcome::Bad,
                  "an impossible exponent makes every signature bad");
        }
        const std::string_view of512Bits = kModulus1024.substr(0, 128);
        const std::string_view even = kModulus1024.substr(0, 126);
        for (std::string_view modulus :
             {std::string_view(""), std::string_view("00"), std::string_view("01"), of512Bits, even}) {
            Signed key = kExample;
            key.modulus = modulus;
            Check(Verify(key, "abc", fromHex(key.signature)) == Outcome::Bad,
                  "an impossible modulus makes every signature bad");
        }
        Verification vrf(funcs_.crypt_funcs);
        PELNIC_BIGINT n = number(kModulus2048);
        PELNIC_BIGINT e = number(kUsualExponent);
        n.uiLength = sizeof n.aVal + 1;
        Check(funcs_.crypt_funcs.pelnic_verify_init(vrf.Handle(), &e, &n, AOID_SHA256) == PELNIC_ERR_FAILED,
              "verify_init refuses a modulus longer than its record");
        n = number(kModulus2048);
        e.uiLength = 0xFFFFFFFF;
        Check(funcs_.crypt_funcs.pelnic_verify_init(vrf.Handle(), &e, &n, AOID_SHA256) == PELNIC_ERR_FAILED,
              "verify_init refuses an exponent longer than its record");
    }

    void CheckVerificationContexts()
    {
        const PELNIC_CRYPTO_FUNCS& crypt = funcs_.crypt_funcs;
        const PELNIC_BIGINT n = number(kModulus2048);
        const PELNIC_BIGINT e = number(kUsualExponent);
        const Octets signature = fromHex(kExample.signature);
        PNV_INT result = 0;

        Verification vrf(crypt);
        bool refused = true;
        for (PNV_UINT32 id : {0u, 3u, 4u, 42u, 46u, 0xFFFFFFFFu}) {
            refused = crypt.pelnic_verify_init(vrf.Handle(), &e, &n, id) == PELNIC_ERR_FAILED && refused;
        }
        Check(refused, "verify_init knows SHA-256, SHA-384 and SHA-512 only");
        Check(vrf.Final(signature, &result) == PELNIC_ERR_FAILED && result != 1,
              "a verification that was not begun fails");
        Check(vrf.Init(kModulus2048, kUsualExponent, AOID_SHA256) == 0 && vrf.Update("forgotten") &&
                  vrf.Init(kModulus2048, kUsualExponent, AOID_SHA256) == 0 && vrf.Update("abc") &&
                  vrf.Final(signature, &result) == 0 && result == 1,
              "a second verify_init begins anew");
        Check(crypt.pelnic_verify_ctx_create(nullptr) == PELNIC_ERR_FAILED &&
                  crypt.pelnic_verify_init(nullptr, &e, &n, AOID_SHA256) == PELNIC_ERR_FAILED &&
                  crypt.pelnic_verify_init(vrf.Handle(), nullptr, &n, AOID_SHA256) == PELNIC_ERR_FAILED &&
                  crypt.pelnic_verify_init(vrf.Handle(), &e, nullptr, AOID_SHA256) == PELNIC_ERR_FAILED &&
                  crypt.pelnic_verify_update(nullptr, n.aVal, 1) == PELNIC_ERR_FAILED &&
                  crypt.pelnic_verify_final(nullptr, n.aVal, 1, &result) == PELNIC_ERR_FAILED,
              "the verification callbacks refuse null");
        crypt.pelnic_verify_ctx_destory(nullptr);
    }

    const PELNIC_CALLBACK_FUNCS& funcs_;
    const PELNIC_SYS_FUNCS& sys_;
    callback_conformance_report report_;
    unsigned failures_ = 0;
};

} // namespace

unsigned callback_conformance(const PELNIC_CALLBACK_FUNCS* funcs, const char* file, callback_conformance_report report)
{
    return Conformance(*funcs, report).Run(file);
}
