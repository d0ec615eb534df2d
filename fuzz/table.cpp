#include "table.h"

#include "cmsverify/pelnic_callback_fun.h"
#include "support/test_keys.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>

namespace pnvfuzz {

using namespace pnvtest;

namespace {

// The default callbacks, which stand behind the table.
const PELNIC_CALLBACK_FUNCS& Defaults()
{
    static const PELNIC_CALLBACK_FUNCS defaults = [] {
        PELNIC_CALLBACK_FUNCS funcs{};
        (void)pelnic_set_callback_funcs(&funcs);
        return funcs;
    }();
    return defaults;
}
const PELNIC_SYS_MEM_FUNCS& Mem()
{
    return Defaults().plt_funcs.sys_funcs.mem_funcs;
}
const PELNIC_SYS_STR_FUNCS& Str()
{
    return Defaults().plt_funcs.sys_funcs.str_funcs;
}

void Complain(std::string problem)
{
    TheRun().problems.push_back(std::move(problem));
}

// What the callback is to answer instead of the truth.
std::optional<std::uint32_t> LieOf(Liar liar)
{
    for (Lie& lie : TheRun().lies) {
        if (lie.liar != liar) continue;
        if (lie.turn == 0) {
            if (!lie.isLasting) lie.liar = Liar::End;
            return lie.answer;
        }
        --lie.turn;
    }
    return {};
}
template <typename Code> bool Lies(Liar liar, Code* answer)
{
    if (TheRun().lies.empty()) return false;
    const auto lie = LieOf(liar);
    if (lie) *answer = static_cast<Code>(*lie);
    return lie.has_value();
}
// The same for a call whose success cannot be pretended.
bool Fails(Liar liar, PELNIC_ERROR_CODE* code)
{
    if (!Lies(liar, code)) return false;
    if (*code == 0) *code = PELNIC_ERR_FAILED;
    return true;
}

// As if all of it were read.
void Read(const void* data, std::size_t size)
{
    if (!IsReadable(data, size)) {
        Complain("a callback was given " + std::to_string(size) + " octets that are not all there");
    }
}

// ---- Memory and strings

PELNIC_ERROR_CODE Malloc(void** out, PNV_UINT32 size)
{
    PELNIC_ERROR_CODE rc = 0;
    *out = nullptr;
    if (size == 0 || Lies(Liar::Malloc, &rc)) return rc;
    *out = TheRun().arena.Take(size);
    return *out == nullptr ? PELNIC_ERR_SYS_MEM_ALLOC : 0;
}

void Free(void* block)
{
    if (!TheRun().arena.Give(block)) Complain("free of something not given out or already given back");
}

PELNIC_ERROR_CODE Memset(void* dest, size_t destMax, PNV_INT c, size_t count)
{
    PELNIC_ERROR_CODE rc = 0;
    return Fails(Liar::Memset, &rc) ? rc : Mem().memset_s(dest, destMax, c, count);
}

PELNIC_ERROR_CODE Memmove(void* dest, size_t destMax, const void* src, size_t count)
{
    PELNIC_ERROR_CODE rc = 0;
    return Fails(Liar::Memmove, &rc) ? rc : Mem().memmove_s(dest, destMax, src, count);
}

PELNIC_ERROR_CODE Memcpy(void* dest, size_t destMax, const void* src, size_t count)
{
    PELNIC_ERROR_CODE rc = 0;
    return Fails(Liar::Memcpy, &rc) ? rc : Mem().memcpy_s(dest, destMax, src, count);
}

PNV_INT Memcmp(const void* a, const void* b, size_t n)
{
    PNV_INT answer = 0;
    return Lies(Liar::Memcmp, &answer) ? answer : Mem().memcmp(a, b, n);
}

PNV_INT Strncmp(const PNV_CHAR* a, const PNV_CHAR* b, size_t n)
{
    PNV_INT answer = 0;
    return Lies(Liar::Strncmp, &answer) ? answer : Str().pf_strncmp(a, b, n);
}

const PNV_CHAR* Strstr(const PNV_CHAR* hay, const PNV_CHAR* needle)
{
    PNV_INT answer = 0;
    return Lies(Liar::Strstr, &answer) ? nullptr : Str().pf_strstr(hay, needle);
}

PNV_CHAR* Strchr(PNV_CHAR* s, PNV_CHAR c)
{
    PNV_INT answer = 0;
    return Lies(Liar::Strchr, &answer) ? nullptr : Str().pf_strchr(s, c);
}

PNV_UINT32 Strlen(const PNV_CHAR* s)
{
    PNV_UINT32 answer = 0;
    const PNV_UINT32 length = Str().pf_strlen(s);
    return Lies(Liar::Strlen, &answer) ? std::min(answer, length) : length;
}

PNV_INT Strcmp(const PNV_CHAR* a, const PNV_CHAR* b)
{
    PNV_INT answer = 0;
    return Lies(Liar::Strcmp, &answer) ? answer : Str().pf_strcmp(a, b);
}

PELNIC_ERROR_CODE Strcpy(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    PELNIC_ERROR_CODE rc = 0;
    return Fails(Liar::Strcpy, &rc) ? rc : Str().pf_strcpy_s(dest, destMax, src);
}

PELNIC_ERROR_CODE Strcat(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    PELNIC_ERROR_CODE rc = 0;
    return Fails(Liar::Strcat, &rc) ? rc : Str().pf_strcat_s(dest, destMax, src);
}

PNV_INT Vsnprintf(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format, va_list args)
{
    PNV_INT answer = 0;
    if (!Lies(Liar::Vsnprintf, &answer)) return Str().pf_vsnprintf_s(dest, destMax, count, format, args);
    *dest = '\0';
    return answer;
}

// ---- Files: a handle is a block that holds what is left to read

using File = std::pair<const std::uint8_t*, std::size_t>;

File* KnownFile(PNV_FILE_HANDLE handle, const char* callback)
{
    if (TheRun().arena.IsTaken(handle)) return static_cast<File*>(handle);
    Complain(std::string(callback) + " of a file that is not open");
    return nullptr;
}

PNV_FILE_HANDLE Fopen(const PNV_CHAR* path, const PNV_CHAR*)
{
    PNV_INT answer = 0;
    const auto file = TheRun().files.find(path);
    if (Lies(Liar::Fopen, &answer) || file == TheRun().files.end()) return nullptr;
    void* const block = TheRun().arena.Take(sizeof(File));
    return block == nullptr ? nullptr : new (block) File(file->second.data(), file->second.size());
}

size_t Fread(void* buf, size_t size, PNV_FILE_HANDLE handle)
{
    File* const file = KnownFile(handle, "fread");
    if (file == nullptr) return 0;
    size = std::min(size, file->second);
    std::uint32_t answer = 0;
    if (Lies(Liar::Fread, &answer)) size = std::min<std::size_t>(size, answer);
    if (size != 0) std::memcpy(buf, file->first, size);
    file->first += size;
    file->second -= size;
    return size;
}

PELNIC_ERROR_CODE Fclose(PNV_FILE_HANDLE handle)
{
    if (KnownFile(handle, "fclose") != nullptr) (void)TheRun().arena.Give(handle);
    PELNIC_ERROR_CODE rc = 0;
    (void)Lies(Liar::Fclose, &rc);
    return rc;
}

PNV_UINT64 FileSize(PNV_FILE_HANDLE handle)
{
    const File* const file = KnownFile(handle, "get_file_size");
    PNV_UINT64 size = file == nullptr ? 0 : file->second;
    if (Lies(Liar::FileSize, &size)) TheRun().claimed += size;
    return size;
}

// Whatever is logged ends.
void Log(PELNIC_LOG_TYPE, const PNV_CHAR* file, PNV_INT, const PNV_CHAR* function, PNV_THREAD_ID, PNV_TIME_T,
         PELNIC_ERROR_CODE, const PNV_CHAR* message)
{
    for (const PNV_CHAR* text : {file, function, message}) {
        if (text != nullptr && std::strlen(text) > 4096) Complain("a log record without end");
    }
}

// ---- Digests: a handle is a block with the real one, or with the algorithm under the lenient cryptography

struct Md {
    PELNIC_CRYPTO_MD_CTX real; // null under the lenient cryptography
    PNV_UINT32 length;
};

Md* KnownMd(PELNIC_CRYPTO_MD_CTX handle, const char* callback)
{
    if (TheRun().arena.IsTaken(handle)) return static_cast<Md*>(handle);
    Complain(std::string(callback) + " of something not given out or already given back");
    return nullptr;
}

const PELNIC_MD_FUNCS& RealMd()
{
    return Defaults().md_funcs;
}

PELNIC_ERROR_CODE MdCreate(PELNIC_CRYPTO_MD_CTX* out)
{
    *out = nullptr;
    PELNIC_ERROR_CODE rc = 0;
    if (Lies(Liar::MdCreate, &rc)) return rc;
    void* const block = TheRun().arena.Take(sizeof(Md));
    if (block == nullptr) return PELNIC_ERR_FAILED;
    Md* const md = new (block) Md{nullptr, 0};
    *out = md;
    return TheRun().crypto == Crypto::Lenient ? 0 : RealMd().pelnic_md_ctx_create(&md->real);
}

PELNIC_ERROR_CODE MdInit(PELNIC_CRYPTO_MD_CTX handle, PNV_UINT32 hashId)
{
    PELNIC_ERROR_CODE rc = 0;
    Md* const md = KnownMd(handle, "md_init");
    if (md == nullptr) return PELNIC_ERR_FAILED;
    if (Lies(Liar::MdInit, &rc)) return rc;
    if (md->real != nullptr) return RealMd().pelnic_md_init(md->real, hashId);
    switch (_convert_hash_algo(hashId)) {
    case HSAG_SHA256: md->length = 32; break;
    case HSAG_SHA384: md->length = 48; break;
    case HSAG_SHA512: md->length = 64; break;
    default: return PELNIC_ERR_FAILED;
    }
    return 0;
}

PELNIC_ERROR_CODE MdUpdate(PELNIC_CRYPTO_MD_CTX handle, const PNV_BYTE* data, PNV_UINT32 len)
{
    PELNIC_ERROR_CODE rc = 0;
    const Md* const md = KnownMd(handle, "md_update");
    if (md == nullptr) return PELNIC_ERR_FAILED;
    if (Lies(Liar::MdUpdate, &rc)) return rc;
    Read(data, len);
    return md->real == nullptr ? 0 : RealMd().pelnic_md_update(md->real, data, len);
}

PELNIC_ERROR_CODE MdFinal(PELNIC_CRYPTO_MD_CTX handle, PNV_BYTE* digest, PNV_UINT32* len)
{
    PELNIC_ERROR_CODE rc = 0;
    const Md* const md = KnownMd(handle, "md_final");
    if (md == nullptr || Fails(Liar::MdFinal, &rc)) return PELNIC_ERR_FAILED;
    if (md->real != nullptr) {
        rc = RealMd().pelnic_md_final(md->real, digest, len);
    } else if (md->length == 0) {
        rc = PELNIC_ERR_FAILED;
    } else {
        *len = md->length;
        std::fill_n(digest, *len, kLenientDigestOctet);
    }
    (void)Lies(Liar::MdLength, len);
    return rc;
}

void MdDestroy(PELNIC_CRYPTO_MD_CTX handle)
{
    const Md* const md = KnownMd(handle, "md_ctx_destory");
    if (md == nullptr) return;
    if (md->real != nullptr) RealMd().pelnic_md_ctx_destory(md->real);
    (void)TheRun().arena.Give(handle);
}

// ---- Signature checks

// What a check was asked. Calculated at the end: libcrypto sees the same check once in a process.
struct Question {
    PNV_UINT32 hashId = 0;
    PELNIC_BIGINT exponent{};
    PELNIC_BIGINT modulus{};
    Bytes data{};
};

// A handle is a block with this.
struct Check {
    Question* question; // null under the lenient cryptography, which has none
    bool isReady;
};

// Each part behind its length.
template <typename... Parts> Bytes KeyOf(const Question& question, const Parts&... parts)
{
    const PELNIC_BIGINT& e = question.exponent;
    const PELNIC_BIGINT& n = question.modulus;
    return Digest(Hash::Sha256,
                  Cat(Length(question.hashId), Length(e.uiLength), Bytes(e.aVal, e.aVal + e.uiLength),
                      Length(n.uiLength), Bytes(n.aVal, n.aVal + n.uiLength), Cat(Length(parts.size()), parts)...));
}

struct Answer {
    PELNIC_ERROR_CODE code;
    PNV_INT verdict;
};

// Asks once and remembers; a process that runs for hours starts anew from time to time.
template <typename Ask> Answer Remembered(const Bytes& key, Ask ask)
{
    constexpr std::size_t kEnough = 200000;
    static std::map<Bytes, Answer> answers;
    const auto known = answers.find(key);
    if (known != answers.end()) return known->second;
    if (answers.size() == kEnough) answers.clear();
    return answers[key] = ask();
}

// What libcrypto says to a key, and to a signature by it if there is one.
Answer Ask(const Question& question, const Bytes* signature)
{
    const PELNIC_CRYPTO_FUNCS& libcrypto = Defaults().crypt_funcs;
    Answer answer{0, 0};
    PELNIC_CRYPTO_VRF_CTX real = nullptr;
    answer.code = libcrypto.pelnic_verify_ctx_create(&real);
    if (answer.code != 0) return answer;
    answer.code = libcrypto.pelnic_verify_init(real, &question.exponent, &question.modulus, question.hashId);
    if (answer.code == 0 && signature != nullptr) {
        answer.code = libcrypto.pelnic_verify_update(real, question.data.data(), Len(question.data));
        if (answer.code == 0) {
            answer.code = libcrypto.pelnic_verify_final(real, signature->data(), Len(*signature), &answer.verdict);
        }
    }
    libcrypto.pelnic_verify_ctx_destory(real);
    return answer;
}

Check* KnownCheck(PELNIC_CRYPTO_VRF_CTX handle, const char* callback)
{
    if (TheRun().arena.IsTaken(handle)) return static_cast<Check*>(handle);
    Complain(std::string(callback) + " of something not given out or already given back");
    return nullptr;
}

PELNIC_ERROR_CODE VerifyCreate(PELNIC_CRYPTO_VRF_CTX* out)
{
    *out = nullptr;
    PELNIC_ERROR_CODE rc = 0;
    if (Lies(Liar::VerifyCreate, &rc)) return rc;
    void* const block = TheRun().arena.Take(sizeof(Check));
    if (block == nullptr) return PELNIC_ERR_FAILED;
    *out = new (block) Check{TheRun().crypto == Crypto::Real ? new Question : nullptr, false};
    return 0;
}

PELNIC_ERROR_CODE VerifyInit(PELNIC_CRYPTO_VRF_CTX handle, const PELNIC_BIGINT* e, const PELNIC_BIGINT* n,
                             PNV_UINT32 hashId)
{
    PELNIC_ERROR_CODE rc = 0;
    Check* const check = KnownCheck(handle, "verify_init");
    if (check == nullptr || e->uiLength > sizeof e->aVal || n->uiLength > sizeof n->aVal) return PELNIC_ERR_FAILED;
    check->isReady = true;
    if (Lies(Liar::VerifyInit, &rc) || check->question == nullptr) return rc;
    *check->question = {hashId, *e, *n, {}};
    return Remembered(KeyOf(*check->question), [&] { return Ask(*check->question, nullptr); }).code;
}

PELNIC_ERROR_CODE VerifyUpdate(PELNIC_CRYPTO_VRF_CTX handle, const PNV_BYTE* data, PNV_UINT32 len)
{
    PELNIC_ERROR_CODE rc = 0;
    Check* const check = KnownCheck(handle, "verify_update");
    if (check == nullptr) return PELNIC_ERR_FAILED;
    if (Lies(Liar::VerifyUpdate, &rc)) return rc;
    Read(data, len);
    if (check->question != nullptr) check->question->data.insert(check->question->data.end(), data, data + len);
    return 0;
}

PELNIC_ERROR_CODE VerifyFinal(PELNIC_CRYPTO_VRF_CTX handle, const PNV_BYTE* signature, PNV_UINT32 len, PNV_INT* result)
{
    PELNIC_ERROR_CODE rc = 0;
    const Check* const check = KnownCheck(handle, "verify_final");
    if (check == nullptr) return PELNIC_ERR_FAILED;
    if (!check->isReady) Complain("a signature check without a key");
    if (Fails(Liar::VerifyFinal, &rc)) return rc;
    ++TheRun().checks;
    Read(signature, len);
    *result = 1;
    if (Lies(Liar::Verdict, result) || check->question == nullptr) return 0;
    const Question& question = *check->question;
    const Bytes value(signature, signature + len);
    const Answer answer = Remembered(KeyOf(question, question.data, value), [&] { return Ask(question, &value); });
    *result = answer.verdict;
    return answer.code;
}

void VerifyDestroy(PELNIC_CRYPTO_VRF_CTX handle)
{
    const Check* const check = KnownCheck(handle, "verify_ctx_destory");
    if (check == nullptr) return;
    delete check->question;
    (void)TheRun().arena.Give(handle);
}

} // namespace

Run& TheRun()
{
    static Run run;
    return run;
}

const PELNIC_CALLBACK_FUNCS& Table()
{
    static const PELNIC_CALLBACK_FUNCS table = [] {
        PELNIC_CALLBACK_FUNCS funcs = Defaults();
        PELNIC_SYS_FUNCS& sys = funcs.plt_funcs.sys_funcs;
        sys.mem_funcs = {Malloc, Memset, Memmove, Memcpy, Free, Memcmp};
        sys.str_funcs = {Strncmp, Strstr, Strchr, Strlen, Strcmp, Strcpy, Strcat, Vsnprintf};
        sys.file_funcs = {Fopen, Fread, Fclose, FileSize};
        funcs.plt_funcs.log_funcs = {Log};
        funcs.md_funcs = {sizeof(PELNIC_MD_FUNCS), MdCreate, MdInit, MdUpdate, MdFinal, MdDestroy};
        funcs.crypt_funcs = {
            sizeof(PELNIC_CRYPTO_FUNCS), VerifyCreate, VerifyInit, VerifyUpdate, VerifyFinal, VerifyDestroy};
        return funcs;
    }();
    return table;
}

} // namespace pnvfuzz
