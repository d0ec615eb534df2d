// The calls into the callback table: what is forwarded, what is checked before, and what a log record says.
#include "cmsverify/pelnic_plt_proxy.h"

#include "support/temp_dir.h"
#include "support/vrf.h"

#include <cstdarg>
#include <cstring>
#include <utility>

namespace pnvtest {
namespace {

// ---- Forwarding: a table whose callbacks note what they are given and answer with a mark ----

constexpr PELNIC_ERROR_CODE kCode = 0x12345678;
constexpr PNV_INT kInt = -77;
constexpr PNV_UINT32 kLength = 3;
constexpr std::size_t kRead = 9;
constexpr PNV_UINT64 kFileSize = 0x123456789ABCull;

std::vector<std::uint64_t> g_given;
char g_answer[1]; // its address is what callbacks answer that return a pointer

template <typename T> std::uint64_t Word(T* pointer)
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}
template <typename T, std::enable_if_t<!std::is_pointer_v<T>, int> = 0> std::uint64_t Word(T number)
{
    return static_cast<std::uint64_t>(number);
}

template <auto answer, typename Result, typename... Arguments> Result Note(Arguments... arguments)
{
    g_given = {Word(arguments)...};
    return answer;
}
template <typename... Arguments> void NoteOnly(Arguments... arguments)
{
    g_given = {Word(arguments)...};
}

// Installs a callback that notes its arguments and returns answer.
template <auto answer, typename Result, typename... Arguments> void Answer(Result (*&callback)(Arguments...))
{
    callback = &Note<answer, Result, Arguments...>;
}
template <typename... Arguments> void Answer(void (*&callback)(Arguments...))
{
    callback = &NoteOnly<Arguments...>;
}

PELNIC_CALLBACK_FUNCS NotingTable()
{
    PELNIC_CALLBACK_FUNCS table{};
    PELNIC_SYS_FUNCS& sys = table.plt_funcs.sys_funcs;
    Answer<kCode>(sys.mem_funcs.malloc);
    Answer<kCode>(sys.mem_funcs.memset_s);
    Answer<kCode>(sys.mem_funcs.memmove_s);
    Answer<kCode>(sys.mem_funcs.memcpy_s);
    Answer(sys.mem_funcs.free);
    Answer<kInt>(sys.mem_funcs.memcmp);
    Answer<kInt>(sys.str_funcs.pf_strncmp);
    Answer<g_answer>(sys.str_funcs.pf_strstr);
    Answer<g_answer>(sys.str_funcs.pf_strchr);
    Answer<kLength>(sys.str_funcs.pf_strlen);
    Answer<kInt>(sys.str_funcs.pf_strcmp);
    Answer<kCode>(sys.str_funcs.pf_strcpy_s);
    Answer<kCode>(sys.str_funcs.pf_strcat_s);
    Answer<g_answer>(sys.file_funcs.fopen);
    Answer<kRead>(sys.file_funcs.fread);
    Answer<kCode>(sys.file_funcs.fclose);
    Answer<kFileSize>(sys.file_funcs.get_file_size);
    Answer<kCode>(table.md_funcs.pelnic_md_ctx_create);
    Answer<kCode>(table.md_funcs.pelnic_md_init);
    Answer<kCode>(table.md_funcs.pelnic_md_update);
    Answer<kCode>(table.md_funcs.pelnic_md_final);
    Answer(table.md_funcs.pelnic_md_ctx_destory);
    Answer<kCode>(table.crypt_funcs.pelnic_verify_ctx_create);
    Answer<kCode>(table.crypt_funcs.pelnic_verify_init);
    Answer<kCode>(table.crypt_funcs.pelnic_verify_update);
    Answer<kCode>(table.crypt_funcs.pelnic_verify_final);
    Answer(table.crypt_funcs.pelnic_verify_ctx_destory);
    return table;
}

class Forwarding : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_given.clear();
        vrf_.st_size = sizeof(vrf_);
        vrf_.callback_funcs = NotingTable();
    }

    // The callback got just these arguments, in this order.
    template <typename... Arguments> void ExpectGiven(Arguments... arguments)
    {
        EXPECT_EQ(g_given, (std::vector<std::uint64_t>{Word(arguments)...}));
        g_given.clear();
    }
    void ExpectNotForwarded() { EXPECT_TRUE(g_given.empty()); }

    PELNIC_VRF vrf_{};
    PNV_CHAR a_[8] = "one";
    PNV_CHAR b_[8] = "two";
    PNV_BYTE bytes_[4] = {};
    void* handle_ = a_;
    PELNIC_BIGINT e_{};
    PELNIC_BIGINT n_{};
};

TEST_F(Forwarding, Memory)
{
    void* out = nullptr;
    EXPECT_EQ(pelnic_malloc(&vrf_, &out, 0xFFFFFFFFu), kCode);
    ExpectGiven(&out, 0xFFFFFFFFu);
    EXPECT_EQ(pelnic_memset_s(&vrf_, a_, 8, -3, 5), kCode);
    ExpectGiven(a_, 8, -3, 5);
    EXPECT_EQ(pelnic_memmove_s(&vrf_, a_, 8, b_, 5), kCode);
    ExpectGiven(a_, 8, b_, 5);
    EXPECT_EQ(pelnic_memcpy_s(&vrf_, a_, 8, b_, 5), kCode);
    ExpectGiven(a_, 8, b_, 5);
    pelnic_free(&vrf_, a_);
    ExpectGiven(a_);
    EXPECT_EQ(pelnic_memcmp(&vrf_, a_, b_, 5), kInt);
    ExpectGiven(a_, b_, 5);
}

TEST_F(Forwarding, MemoryUpToTheDestinationsSize)
{
    EXPECT_EQ(pelnic_memset_s(&vrf_, a_, 8, 0, 8), kCode);
    ExpectGiven(a_, 8, 0, 8);
    EXPECT_EQ(pelnic_memmove_s(&vrf_, a_, 8, b_, 8), kCode);
    ExpectGiven(a_, 8, b_, 8);
    EXPECT_EQ(pelnic_memcpy_s(&vrf_, a_, 8, b_, 8), kCode);
    ExpectGiven(a_, 8, b_, 8);
}

TEST_F(Forwarding, NothingBeyondTheDestinationsSize)
{
    for (std::size_t count : {std::size_t{9}, SIZE_MAX}) {
        EXPECT_EQ(pelnic_memset_s(&vrf_, a_, 8, 0, count), PELNIC_ERR_SYS_MEM_OVERFLOW);
        EXPECT_EQ(pelnic_memmove_s(&vrf_, a_, 8, b_, count), PELNIC_ERR_SYS_MEM_OVERFLOW);
        EXPECT_EQ(pelnic_memcpy_s(&vrf_, a_, 8, b_, count), PELNIC_ERR_SYS_MEM_OVERFLOW);
    }
    ExpectNotForwarded();
}

TEST_F(Forwarding, NoFreeOfNull)
{
    pelnic_free(&vrf_, nullptr);
    ExpectNotForwarded();
}

TEST_F(Forwarding, Strings)
{
    EXPECT_EQ(pelnic_strncmp(&vrf_, a_, b_, 5), kInt);
    ExpectGiven(a_, b_, 5);
    EXPECT_EQ(pelnic_strstr(&vrf_, a_, b_), g_answer);
    ExpectGiven(a_, b_);
    EXPECT_EQ(pelnic_strlen(&vrf_, a_), kLength);
    ExpectGiven(a_);
    EXPECT_EQ(pelnic_strcmp(&vrf_, a_, b_), kInt);
    ExpectGiven(a_, b_);
}

TEST_F(Forwarding, TheCharacterAsASignedOne)
{
    EXPECT_EQ(pelnic_strchr(&vrf_, a_, 'x'), g_answer);
    ExpectGiven(a_, 'x');
    EXPECT_EQ(pelnic_strchr(&vrf_, a_, static_cast<PNV_CHAR>(0xE4)), g_answer);
    ExpectGiven(a_, 0xE4 - 0x100);
}

// pf_strlen says that every string has three characters.
TEST_F(Forwarding, CopiesOfStringsThatFitWithTheirZero)
{
    EXPECT_EQ(pelnic_strcpy_s(&vrf_, a_, 4, b_), kCode);
    ExpectGiven(a_, 4, b_);
    EXPECT_EQ(pelnic_strcat_s(&vrf_, a_, 7, b_), kCode);
    ExpectGiven(a_, 7, b_);
}

TEST_F(Forwarding, Files)
{
    EXPECT_EQ(pelnic_fopen(&vrf_, a_, b_), g_answer);
    ExpectGiven(a_, b_);
    EXPECT_EQ(pelnic_fread(&vrf_, a_, 5, handle_), kRead);
    ExpectGiven(a_, 5, handle_);
    EXPECT_EQ(pelnic_fclose(&vrf_, handle_), kCode);
    ExpectGiven(handle_);
    EXPECT_EQ(pelnic_get_file_size(&vrf_, handle_), kFileSize);
    ExpectGiven(handle_);
}

TEST_F(Forwarding, Digests)
{
    PELNIC_CRYPTO_MD_CTX md = nullptr;
    PNV_UINT32 length = 0;
    EXPECT_EQ(pelnic_md_ctx_create(&vrf_, &md), kCode);
    ExpectGiven(&md);
    EXPECT_EQ(pelnic_md_init(&vrf_, handle_, AOID_SHA384), kCode);
    ExpectGiven(handle_, 44);
    EXPECT_EQ(pelnic_md_update(&vrf_, handle_, bytes_, 4), kCode);
    ExpectGiven(handle_, bytes_, 4);
    EXPECT_EQ(pelnic_md_final(&vrf_, handle_, bytes_, &length), kCode);
    ExpectGiven(handle_, bytes_, &length);
    pelnic_md_ctx_destory(&vrf_, handle_);
    ExpectGiven(handle_);
}

TEST_F(Forwarding, SignatureVerificationWithTheExponentFirst)
{
    PELNIC_CRYPTO_VRF_CTX verification = nullptr;
    PNV_INT result = 0;
    EXPECT_EQ(pelnic_verify_ctx_create(&vrf_, &verification), kCode);
    ExpectGiven(&verification);
    EXPECT_EQ(pelnic_verify_init(&vrf_, handle_, &e_, &n_, AOID_SHA512), kCode);
    ExpectGiven(handle_, &e_, &n_, 45);
    EXPECT_EQ(pelnic_verify_update(&vrf_, handle_, bytes_, 4), kCode);
    ExpectGiven(handle_, bytes_, 4);
    EXPECT_EQ(pelnic_verify_final(&vrf_, handle_, bytes_, 4, &result), kCode);
    ExpectGiven(handle_, bytes_, 4, &result);
    pelnic_verify_ctx_destory(&vrf_, handle_);
    ExpectGiven(handle_);
}

TEST_F(Forwarding, NothingToMissingCryptoCallbacks)
{
    vrf_.callback_funcs.md_funcs = {};
    vrf_.callback_funcs.crypt_funcs = {};
    void* handle = nullptr;
    PNV_UINT32 length = 0;
    PNV_INT result = 0;
    EXPECT_EQ(pelnic_md_ctx_create(&vrf_, &handle), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_md_init(&vrf_, handle_, AOID_SHA256), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_md_update(&vrf_, handle_, bytes_, 4), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_md_final(&vrf_, handle_, bytes_, &length), PELNIC_ERR_FAILED);
    pelnic_md_ctx_destory(&vrf_, handle_);
    EXPECT_EQ(pelnic_verify_ctx_create(&vrf_, &handle), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_verify_init(&vrf_, handle_, &e_, &n_, AOID_SHA256), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_verify_update(&vrf_, handle_, bytes_, 4), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_verify_final(&vrf_, handle_, bytes_, 4, &result), PELNIC_ERR_FAILED);
    pelnic_verify_ctx_destory(&vrf_, handle_);
}

// ---- Without a context ----

PNV_INT Format(const PELNIC_VRF* vrf, PNV_CHAR* dest, std::size_t destMax, std::size_t count, const PNV_CHAR* format,
               ...) __attribute__((format(printf, 5, 6)));

PNV_INT Format(const PELNIC_VRF* vrf, PNV_CHAR* dest, std::size_t destMax, std::size_t count, const PNV_CHAR* format,
               ...)
{
    va_list arguments;
    va_start(arguments, format);
    const PNV_INT result = pelnic_vsnprintf_s(vrf, dest, destMax, count, format, arguments);
    va_end(arguments);
    return result;
}

TEST(NoContext, MemoryFails)
{
    PNV_CHAR a[4] = "abc";
    const PNV_CHAR b[4] = "xyz";
    void* out = a;
    EXPECT_EQ(pelnic_malloc(nullptr, &out, 1), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_malloc_with0(nullptr, &out, 1), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_memset_s(nullptr, a, 4, 0, 4), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_memmove_s(nullptr, a, 4, b, 4), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_memcpy_s(nullptr, a, 4, b, 4), PELNIC_ERR_FAILED);
    pelnic_free(nullptr, a);
    EXPECT_EQ(pelnic_memcmp(nullptr, a, a, 4), -1);
    EXPECT_STREQ(a, "abc");
}

TEST(NoContext, StringsFail)
{
    PNV_CHAR a[8] = "abc";
    EXPECT_EQ(pelnic_strncmp(nullptr, a, a, 1), -1);
    EXPECT_EQ(pelnic_strstr(nullptr, a, a), nullptr);
    EXPECT_EQ(pelnic_strchr(nullptr, a, 'a'), nullptr);
    EXPECT_EQ(pelnic_strlen(nullptr, a), 0u);
    EXPECT_EQ(pelnic_strcmp(nullptr, a, a), -1);
    EXPECT_EQ(pelnic_strcpy_s(nullptr, a, 8, "xyz"), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_strcat_s(nullptr, a, 8, "xyz"), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Format(nullptr, a, 8, 7, "%d", 1), -1);
    EXPECT_EQ(pelnic_strchr_ex(nullptr, a, 3, a, 3), nullptr);
    EXPECT_STREQ(a, "abc");
}

TEST(NoContext, FilesFail)
{
    PNV_CHAR buffer[4] = "abc";
    void* handle = buffer;
    EXPECT_EQ(pelnic_fopen(nullptr, "/dev/null", "rb"), nullptr);
    EXPECT_EQ(pelnic_fread(nullptr, buffer, 4, handle), 0u);
    EXPECT_EQ(pelnic_fclose(nullptr, handle), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_get_file_size(nullptr, handle), PNV_UINT64{PELNIC_ERR_NULL_POINTER});
}

TEST(NoContext, CryptographyFails)
{
    PNV_BYTE octets[64] = {};
    void* handle = octets;
    PELNIC_BIGINT number{};
    PNV_UINT32 length = 0;
    PNV_INT result = 0;
    EXPECT_EQ(pelnic_md_ctx_create(nullptr, &handle), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_md_init(nullptr, handle, AOID_SHA256), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_md_update(nullptr, handle, octets, 1), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_md_final(nullptr, handle, octets, &length), PELNIC_ERR_FAILED);
    pelnic_md_ctx_destory(nullptr, handle);
    EXPECT_EQ(pelnic_verify_ctx_create(nullptr, &handle), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_verify_init(nullptr, handle, &number, &number, AOID_SHA256), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_verify_update(nullptr, handle, octets, 1), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_verify_final(nullptr, handle, octets, 1, &result), PELNIC_ERR_FAILED);
    pelnic_verify_ctx_destory(nullptr, handle);
}

// ---- The proxies' own work, on the default callbacks ----

// ---- Carving ----

class CarvingTest : public ::testing::Test {
protected:
    ~CarvingTest() override { _pnvFreeBlocks(vrf_, &blocks_); }

    PNV_BYTE* Take(PNV_UINT32 size)
    {
        void* octets = nullptr;
        EXPECT_EQ(pelnic_malloc_with0(vrf_, &octets, size), 0u);
        return static_cast<PNV_BYTE*>(octets);
    }

    Vrf vrf_;
    CarvedBlocks blocks_{nullptr, 256};
};

TEST_F(CarvingTest, TakesAlignedZerosFromOneBlockAndGivesItBackWhole)
{
    PNV_BYTE* end = nullptr;
    {
        const Carving carving(vrf_, &blocks_);
        for (PNV_UINT32 size : {1u, 8u, 7u, 24u}) {
            PNV_BYTE* const octets = Take(size);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(octets) % 8, 0u);
            EXPECT_TRUE(end == nullptr || octets >= end) << size;
            for (PNV_UINT32 i = 0; i < size; ++i) EXPECT_EQ(octets[i], 0);
            std::memset(octets, 0x5A, size);
            end = octets + size;
            pelnic_free(vrf_, octets);
        }
    }
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 1u);
    EXPECT_EQ(vrf_.Plan().LargestRequest(), 256u);
    _pnvFreeBlocks(vrf_, &blocks_);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    _pnvFreeBlocks(vrf_, &blocks_);
}

#ifdef PNV_ADDRESS_SANITIZER
TEST_F(CarvingTest, HidesNoOverreadFromTheSanitizer)
{
    const Carving carving(vrf_, &blocks_);
    const PNV_BYTE* const first = Take(5);
    EXPECT_FALSE(__asan_address_is_poisoned(first + 4));
    EXPECT_TRUE(__asan_address_is_poisoned(first + 5));
    const PNV_BYTE* const second = Take(8);
    EXPECT_TRUE(__asan_address_is_poisoned(first + 5));
    EXPECT_FALSE(__asan_address_is_poisoned(second + 7));
    EXPECT_TRUE(__asan_address_is_poisoned(second + 8));
}
#endif

TEST_F(CarvingTest, TakesAnotherBlockForWhatDoesNotFit)
{
    const Carving carving(vrf_, &blocks_);
    Take(200);
    Take(200);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 2u);
    std::memset(Take(1000), 0x5A, 1000);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 3u);
    EXPECT_GE(vrf_.Plan().LargestRequest(), 1000u);
}

TEST_F(CarvingTest, PassesOnThatThereIsNoMemory)
{
    const Carving carving(vrf_, &blocks_);
    void* octets = &blocks_;
    vrf_.Plan().Fail(Call::Malloc, 1);
    EXPECT_EQ(pelnic_malloc(vrf_, &octets, 8), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(octets, nullptr);
    EXPECT_EQ(vrf_->nCallbackFaults, 1u);
    EXPECT_EQ(pelnic_malloc(vrf_, &octets, 0xFFFFFFFF), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(octets, nullptr);
    Take(8);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 1u);
}

TEST_F(CarvingTest, TakesASuccessWithoutABlockForMissingMemory)
{
    const Carving carving(vrf_, &blocks_);
    auto& malloc = vrf_->callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc;
    const auto usual = std::exchange(malloc, [](void** out, PNV_UINT32) -> PELNIC_ERROR_CODE {
        *out = nullptr;
        return 0;
    });
    void* octets = &blocks_;
    EXPECT_EQ(pelnic_malloc(vrf_, &octets, 8), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(octets, nullptr);
    EXPECT_EQ(blocks_.pNewest, nullptr);
    malloc = usual;
    Take(8);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 1u);
}

TEST_F(CarvingTest, EndsWithItsScopeAndLeavesTheLogAlone)
{
    {
        const Carving carving(vrf_, &blocks_);
        Take(8);
        {
            const Carving none(vrf_, nullptr);
            pelnic_free(vrf_, Take(8));
        }
        PNV_LOG(vrf_, PELNIC_LOG_TYPE_ERROR, PELNIC_ERR_FAILED, "said");
        EXPECT_EQ(vrf_->pCarving, &blocks_);
    }
    EXPECT_EQ(vrf_->pCarving, nullptr);
    EXPECT_EQ(vrf_.Plan().Logs().size(), 1u);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 1u);
}

TEST(StrcpyProxy, CopiesWhatFitsWithItsZero)
{
    Vrf vrf;
    PNV_CHAR dest[8] = "";
    EXPECT_EQ(pelnic_strcpy_s(vrf, dest, 8, "seven77"), 0u);
    EXPECT_STREQ(dest, "seven77");
}

TEST(StrcpyProxy, LeavesTheDestinationAloneOtherwise)
{
    Vrf vrf;
    PNV_CHAR dest[8] = "before";
    EXPECT_EQ(pelnic_strcpy_s(vrf, dest, 7, "seven77"), PELNIC_ERR_SYS_STR_OVERFLOW);
    EXPECT_EQ(pelnic_strcpy_s(vrf, dest, 0, ""), PELNIC_ERR_SYS_STR_OVERFLOW);
    EXPECT_EQ(pelnic_strcpy_s(vrf, dest, 8, nullptr), PELNIC_ERR_SYS_STR_OVERFLOW); // its length is 0xFFFFFFFF
    EXPECT_STREQ(dest, "before");
    EXPECT_EQ(vrf.Plan().Count(Call::Strcpy), 0u);
}

TEST(StrcatProxy, AppendsWhatFitsWithItsZero)
{
    Vrf vrf;
    PNV_CHAR dest[8] = "abc";
    EXPECT_EQ(pelnic_strcat_s(vrf, dest, 8, "defg"), 0u);
    EXPECT_STREQ(dest, "abcdefg");
}

TEST(StrcatProxy, LeavesTheDestinationAloneOtherwise)
{
    Vrf vrf;
    PNV_CHAR dest[8] = "abc";
    EXPECT_EQ(pelnic_strcat_s(vrf, dest, 7, "defg"), PELNIC_ERR_SYS_STR_OVERFLOW);
    EXPECT_EQ(pelnic_strcat_s(vrf, dest, 8, "defgh"), PELNIC_ERR_SYS_STR_OVERFLOW);
    EXPECT_STREQ(dest, "abc");
}

// The length of a null string is 0xFFFFFFFF; one more must not make it 0.
TEST(StrcatProxy, AddsLengthsBeyond32Bits)
{
    Vrf vrf;
    PNV_CHAR dest[8] = "a";
    EXPECT_EQ(pelnic_strcat_s(vrf, nullptr, 8, "b"), PELNIC_ERR_SYS_STR_OVERFLOW);
    EXPECT_EQ(pelnic_strcat_s(vrf, dest, 8, nullptr), PELNIC_ERR_SYS_STR_OVERFLOW);
    EXPECT_EQ(vrf.Plan().Count(Call::Strcat), 0u);
}

TEST(MallocWith0, ClearsTheBlock)
{
    Vrf vrf; // whose blocks come dirty
    void* block = nullptr;
    ASSERT_EQ(pelnic_malloc_with0(vrf, &block, 100), 0u);
    EXPECT_EQ(Bytes(static_cast<PNV_BYTE*>(block), static_cast<PNV_BYTE*>(block) + 100), Bytes(100));
    pelnic_free(vrf, block);
}

TEST(MallocWith0, PassesTheAllocationsCodeOn)
{
    Vrf vrf;
    void* block = nullptr;
    vrf.Plan().Fail(Call::Malloc, 1);
    EXPECT_EQ(pelnic_malloc_with0(vrf, &block, 100), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(vrf.Plan().Count(Call::Memset), 0u);
}

TEST(MallocWith0, ReleasesABlockThatCannotBeClearedAndStillShowsIt)
{
    Vrf vrf;
    void* block = nullptr;
    vrf.Plan().Fail(Call::Memset, 1);
    EXPECT_EQ(pelnic_malloc_with0(vrf, &block, 100), injectedFault);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(vrf.Plan().Count(Call::Free), 1u);
    EXPECT_EQ(vrf.Plan().LiveBlocks(), 0u);
}

TEST(MallocWith0, FailsForSizeZero)
{
    Vrf vrf;
    void* block = vrf;
    EXPECT_EQ(pelnic_malloc_with0(vrf, &block, 0), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(block, nullptr);
}

TEST(NewRecord, WritesThePointerOnSuccessOnly)
{
    Vrf vrf;
    PELNIC_BIGINT untouched;
    PELNIC_BIGINT* record = &untouched;
    for (Call failing : {Call::Malloc, Call::Memset}) {
        vrf.Plan().Fail(failing, 1);
        EXPECT_NE(_pnvNewRecord(vrf, &record), 0u);
        EXPECT_EQ(record, &untouched);
    }
    ASSERT_EQ(_pnvNewRecord(vrf, &record), 0u);
    EXPECT_EQ(record->uiLength, 0u);
    EXPECT_EQ(vrf.Plan().LargestRequest(), sizeof(PELNIC_BIGINT));
    pelnic_free(vrf, record);
}

TEST(ScopeExit, UndoesInReverseOrderUnlessDisarmed)
{
    std::string undone;
    {
        ScopeExit first{[&] { undone += "first"; }};
        ScopeExit disarmed{[&] { undone += "never"; }};
        ScopeExit last{[&] { undone += "last "; }};
        disarmed.armed = false;
    }
    EXPECT_EQ(undone, "last first");
}

TEST(StrchrEx, FindsTheFirstCharacterOfASet)
{
    Vrf vrf;
    PNV_CHAR s[] = "key: value";
    PNV_CHAR set[] = " :";
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 10, set, 2), s + 3);
    PNV_CHAR none[] = "xz";
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 10, none, 2), nullptr);
}

TEST(StrchrEx, LooksAtNoMoreThanItIsTold)
{
    Vrf vrf;
    PNV_CHAR set[] = ":";
    const Bytes exact = Text("abc:"); // no zero behind it
    PNV_CHAR* s = reinterpret_cast<PNV_CHAR*>(const_cast<std::uint8_t*>(exact.data()));
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 3, set, 1), nullptr);
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 4, set, 1), s + 3);
}

TEST(StrchrEx, StopsAtTheZero)
{
    Vrf vrf;
    PNV_CHAR s[] = "ab\0:";
    PNV_CHAR set[] = ":";
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 4, set, 1), nullptr);
    PNV_CHAR empty[] = "";
    EXPECT_EQ(pelnic_strchr_ex(vrf, empty, 1, set, 1), nullptr);
}

TEST(StrchrEx, TestsTheSetsLengthForZeroOnly)
{
    Vrf vrf;
    PNV_CHAR s[] = "ab:";
    PNV_CHAR set[] = "xyz:";
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 3, set, 1), s + 2);
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 3, set, 0xFFFFFFFFu), s + 2);
}

TEST(StrchrEx, FindsCharactersAbove127)
{
    Vrf vrf;
    PNV_CHAR s[] = "ab\xE4";
    PNV_CHAR set[] = "\xE4";
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 3, set, 1), s + 2);
}

TEST(StrchrEx, FindsNothingInNullOrNone)
{
    Vrf vrf;
    PNV_CHAR s[] = "ab:";
    PNV_CHAR set[] = ":";
    EXPECT_EQ(pelnic_strchr_ex(vrf, nullptr, 3, set, 1), nullptr);
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 0, set, 1), nullptr);
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 3, nullptr, 1), nullptr);
    EXPECT_EQ(pelnic_strchr_ex(vrf, s, 3, set, 0), nullptr);
}

TEST(FormatProxy, FailsWithoutItsCallback)
{
    Vrf vrf;
    vrf->callback_funcs.plt_funcs.sys_funcs.str_funcs.pf_vsnprintf_s = nullptr;
    PNV_CHAR dest[8] = "before";
    EXPECT_EQ(Format(vrf, dest, 8, 7, "%d", 1), -1);
    EXPECT_STREQ(dest, "before");
}

TEST(FormatProxy, Formats)
{
    Vrf vrf;
    PNV_CHAR dest[8] = "";
    EXPECT_EQ(Format(vrf, dest, 8, 7, "%d-%s", 12, "abc"), 6);
    EXPECT_STREQ(dest, "12-abc");
}

// ---- Files ----

TEST(FileSizeProxy, TellsTheSizeAndKeepsThePosition)
{
    Vrf vrf;
    TempDir dir;
    const std::string path = dir.Write("file", Text("0123456789"));
    PNV_FILE_HANDLE file = pelnic_fopen(vrf, path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    PNV_CHAR octets[4] = "";
    EXPECT_EQ(pelnic_fread(vrf, octets, 3, file), 3u);
    EXPECT_EQ(pelnic_get_file_size(vrf, file), 10u);
    EXPECT_EQ(pelnic_fread(vrf, octets, 3, file), 3u);
    EXPECT_STREQ(octets, "345");
    EXPECT_EQ(pelnic_fclose(vrf, file), 0u);
}

TEST(FileSizeProxy, AnswersWithACodeForANullHandleAndAMissingCallback)
{
    Vrf vrf;
    EXPECT_EQ(pelnic_get_file_size(vrf, nullptr), 0x88100001u);
    EXPECT_EQ(pelnic_get_file_size(nullptr, nullptr), 0x88100001u);
    vrf->callback_funcs.plt_funcs.sys_funcs.file_funcs.get_file_size = nullptr;
    EXPECT_EQ(pelnic_get_file_size(vrf, vrf.operator->()), 0x88100001u);
}

TEST(FcloseProxy, RefusesANullHandle)
{
    Vrf vrf;
    EXPECT_EQ(pelnic_fclose(vrf, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_fclose(nullptr, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(vrf.Plan().Count(Call::Fclose), 0u);
}

// ---- Dates ----

PELNIC_DATETIME Date(unsigned year, unsigned month, unsigned day, unsigned hour = 0, unsigned minute = 0,
                     unsigned second = 0)
{
    PELNIC_DATETIME date{};
    date.uYear = static_cast<PNV_UINT16>(year);
    date.uMonth = static_cast<PNV_BYTE>(month);
    date.uDay = static_cast<PNV_BYTE>(day);
    date.uHour = static_cast<PNV_BYTE>(hour);
    date.uMinute = static_cast<PNV_BYTE>(minute);
    date.uSecond = static_cast<PNV_BYTE>(second);
    return date;
}

PNV_TIME_T Mktime(const PELNIC_DATETIME& date)
{
    return pelnic_mktime(nullptr, &date);
}

bool IsLeap(unsigned year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned DaysOfMonth(unsigned year, unsigned month)
{
    constexpr unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return days[month - 1] + (month == 2 && IsLeap(year) ? 1u : 0u);
}

TEST(Mktime, CountsFrom1970)
{
    EXPECT_EQ(Mktime(Date(1970, 1, 1)), 0);
    EXPECT_EQ(Mktime(Date(1970, 1, 2)), 86400);
    EXPECT_EQ(Mktime(Date(1970, 1, 1, 1, 2, 3)), 3723);
}

TEST(Mktime, KnowsLeapDays)
{
    EXPECT_EQ(Mktime(Date(2000, 3, 1)), 951868800);
    EXPECT_EQ(Mktime(Date(2000, 2, 29)), 951868800 - 86400);
    EXPECT_EQ(Mktime(Date(2100, 3, 1)) - Mktime(Date(2100, 2, 28)), 86400);
}

TEST(Mktime, CountsYearsUpTo1900From1900)
{
    EXPECT_EQ(Mktime(Date(100, 3, 1)), Mktime(Date(2000, 3, 1)));
    EXPECT_EQ(Mktime(Date(70, 1, 1)), 0);
    EXPECT_EQ(Mktime(Date(1900, 6, 1)), Mktime(Date(3800, 6, 1)));
    EXPECT_EQ(Mktime(Date(0, 1, 1)), -2208988800); // 1900
    EXPECT_EQ(Mktime(Date(1901, 1, 1)), -2208988800 + 365 * 86400);
}

TEST(Mktime, GoesOnBeyond32Bits)
{
    EXPECT_EQ(Mktime(Date(2038, 1, 19, 3, 14, 8)), 0x80000000);
    EXPECT_EQ(Mktime(Date(9999, 12, 31, 23, 59, 59)), 253402300799);
}

TEST(Mktime, CountsEveryDayFrom1901To2500)
{
    PNV_TIME_T expected = -2208988800 + 365 * 86400;
    for (unsigned year = 1901; year <= 2500; ++year) {
        for (unsigned month = 1; month <= 12; ++month) {
            for (unsigned day = 1; day <= DaysOfMonth(year, month); ++day) {
                ASSERT_EQ(Mktime(Date(year, month, day)), expected) << year << '-' << month << '-' << day;
                expected += 86400;
            }
        }
    }
}

TEST(Mktime, IgnoresMillisecondsAndOffset)
{
    PELNIC_DATETIME date = Date(2026, 5, 17, 12, 30, 45);
    const PNV_TIME_T plain = Mktime(date);
    date.uMillSecond = 999;
    date.uUtcFlag = 1;
    date.uUtcHour = 9;
    date.uUtcMinute = 30;
    EXPECT_EQ(Mktime(date), plain);
}

TEST(Mktime, AnswersWithACodeForANullDate)
{
    Vrf vrf;
    EXPECT_EQ(pelnic_mktime(vrf, nullptr), PNV_TIME_T{0x88100001});
    EXPECT_EQ(pelnic_mktime(nullptr, nullptr), PNV_TIME_T{0x88100001});
}

TEST(Mktime, NeverAsksTheCallback)
{
    Vrf vrf;
    vrf->callback_funcs.plt_funcs.sys_funcs.plt_funcs.mktime = [](const PELNIC_DATETIME*) { return PNV_TIME_T{42}; };
    const PELNIC_DATETIME date = Date(1970, 1, 2);
    EXPECT_EQ(pelnic_mktime(vrf, &date), 86400);
}

// ---- Logging ----

class Log : public ::testing::Test {
protected:
    const std::vector<LogRecord>& Records() { return vrf_.Plan().Logs(); }

    // The record of the log's own trouble.
    void ExpectOwnRecord(const LogRecord& record, PELNIC_ERROR_CODE rc, const std::string& message)
    {
        EXPECT_EQ(record.level, PELNIC_LOG_TYPE_ERROR);
        EXPECT_NE(record.file.find("pelnic_plt_proxy.cpp"), std::string::npos) << record.file;
        EXPECT_GT(record.line, 0);
        EXPECT_EQ(record.function, "pelnic_log_callback");
        EXPECT_EQ(record.rc, rc);
        EXPECT_EQ(record.message, message);
        ExpectClock(record);
    }
    void ExpectCallersRecord(const LogRecord& record, const std::optional<std::string>& message)
    {
        EXPECT_EQ(record.level, PELNIC_LOG_TYPE_WARNING);
        EXPECT_EQ(record.file, "caller.cpp");
        EXPECT_EQ(record.line, 12);
        EXPECT_EQ(record.function, "Caller");
        EXPECT_EQ(record.rc, kCode);
        EXPECT_EQ(record.message, message);
        ExpectClock(record);
    }
    void ExpectClock(const LogRecord& record)
    {
        EXPECT_EQ(record.thread, thread_);
        EXPECT_EQ(record.time, now_);
    }
    void InstallClock()
    {
        thread_ = this;
        now_ = 0x123456789A;
        vrf_.Plan().InstallClock(thread_, now_);
        vrf_.TakeTable();
    }

    Vrf vrf_;
    PNV_THREAD_ID thread_ = nullptr;
    PNV_TIME_T now_ = 0;
};

#define LOG_AS_CALLER(...) \
    pelnic_log_callback(vrf_, PELNIC_LOG_TYPE_WARNING, "caller.cpp", 12, "Caller", kCode, __VA_ARGS__)

TEST_F(Log, HandsOverTheFormattedMessage)
{
    LOG_AS_CALLER("Can't open file '%s' (%d).", "a%sb", 7);
    ASSERT_EQ(Records().size(), 1u);
    ExpectCallersRecord(Records()[0], "Can't open file 'a%sb' (7).");
}

TEST_F(Log, PassesErrorsAndWarningsOnly)
{
    for (PELNIC_LOG_TYPE level :
         {PELNIC_LOG_TYPE_ERROR, PELNIC_LOG_TYPE_WARNING, PELNIC_LOG_TYPE_INFO, PELNIC_LOG_TYPE_DEBUG}) {
        pelnic_log_callback(vrf_, level, "caller.cpp", 12, "Caller", 0, "%s", "message");
    }
    ASSERT_EQ(Records().size(), 2u);
    EXPECT_EQ(Records()[0].level, PELNIC_LOG_TYPE_ERROR);
    EXPECT_EQ(Records()[1].level, PELNIC_LOG_TYPE_WARNING);
}

TEST_F(Log, DropsLowerLevelsBeforeAnyCallback)
{
    InstallClock();
    pelnic_log_callback(vrf_, PELNIC_LOG_TYPE_INFO, "caller.cpp", 12, "Caller", 0, "%s", "message");
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc | Call::ThreadId | Call::UtcTime | Call::Vsnprintf), 0u);
}

TEST_F(Log, DoesNothingWithoutAContext)
{
    pelnic_log_callback(nullptr, PELNIC_LOG_TYPE_ERROR, "caller.cpp", 12, "Caller", 0, "%s", "message");
    EXPECT_TRUE(Records().empty());
}

TEST_F(Log, DoesNothingWithoutALogFunction)
{
    InstallClock();
    vrf_->callback_funcs.plt_funcs.log_funcs.log_func = nullptr;
    LOG_AS_CALLER("%s", "message");
    EXPECT_TRUE(Records().empty());
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc | Call::ThreadId | Call::UtcTime), 0u);
}

TEST_F(Log, CarriesThreadAndTimeWhereInstalled)
{
    LOG_AS_CALLER("%s", "without");
    ASSERT_EQ(Records().size(), 1u);
    ExpectCallersRecord(Records()[0], "without");
    InstallClock();
    LOG_AS_CALLER("%s", "with");
    ASSERT_EQ(Records().size(), 2u);
    ExpectCallersRecord(Records()[1], "with");
}

TEST_F(Log, HandsOverAnEmptyMessageForNone)
{
    LOG_AS_CALLER(nullptr);
    ASSERT_EQ(Records().size(), 1u);
    ExpectCallersRecord(Records()[0], "");
    EXPECT_EQ(vrf_.Plan().Count(Call::Vsnprintf), 0u);
}

TEST_F(Log, TakesAMessageThatFormatsToNothingForAFailure)
{
    InstallClock();
    LOG_AS_CALLER("%s", "");
    ASSERT_EQ(Records().size(), 2u);
    ExpectOwnRecord(Records()[0], 0, "format log message failed.");
    ExpectCallersRecord(Records()[1], "%s");
    EXPECT_EQ(vrf_.Plan().Count(Call::ThreadId), 1u);
    EXPECT_EQ(vrf_.Plan().Count(Call::UtcTime), 1u);
}

TEST_F(Log, ReportsThatItCannotFormat)
{
    InstallClock();
    vrf_.Plan().Fail(Call::Vsnprintf, 1);
    LOG_AS_CALLER("number %d", 5);
    ASSERT_EQ(Records().size(), 2u);
    ExpectOwnRecord(Records()[0], 0xFFFFFFFFu, "format log message failed.");
    ExpectCallersRecord(Records()[1], "number %d");
}

TEST_F(Log, ReportsThatThereIsNoFormatter)
{
    vrf_->callback_funcs.plt_funcs.sys_funcs.str_funcs.pf_vsnprintf_s = nullptr;
    LOG_AS_CALLER("number %d", 5);
    ASSERT_EQ(Records().size(), 2u);
    ExpectOwnRecord(Records()[0], 0xFFFFFFFFu, "format log message failed.");
    ExpectCallersRecord(Records()[1], "number %d");
}

TEST_F(Log, ReportsThatThereIsNoMemory)
{
    InstallClock();
    vrf_.Plan().Fail(Call::Malloc, 1);
    LOG_AS_CALLER("number %d", 5);
    ASSERT_EQ(Records().size(), 2u);
    ExpectOwnRecord(Records()[0], PELNIC_ERR_SYS_MEM_ALLOC, "Allocate memory for log message failed.");
    ExpectCallersRecord(Records()[1], "number %d");
}

TEST_F(Log, TakesMemoryThatCannotBeClearedForNone)
{
    vrf_.Plan().Fail(Call::Memset, 1);
    LOG_AS_CALLER("number %d", 5);
    ASSERT_EQ(Records().size(), 2u);
    ExpectOwnRecord(Records()[0], PELNIC_ERR_SYS_MEM_ALLOC, "Allocate memory for log message failed.");
    ExpectCallersRecord(Records()[1], "number %d");
}

TEST_F(Log, HandsOverNoMessageWithoutMemoryForNone)
{
    vrf_.Plan().Fail(Call::Malloc, 1);
    LOG_AS_CALLER(nullptr);
    ASSERT_EQ(Records().size(), 2u);
    ExpectCallersRecord(Records()[1], std::nullopt);
}

TEST_F(Log, FormatsUpTo2047Characters)
{
    const std::string longest(2047, 'x');
    LOG_AS_CALLER("%s", longest.c_str());
    ASSERT_EQ(Records().size(), 1u);
    ExpectCallersRecord(Records()[0], longest);
    EXPECT_EQ(vrf_.Plan().LargestRequest(), 2048u);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

TEST_F(Log, TakesALongerMessageForAFailure)
{
    for (std::size_t length : {std::size_t{2048}, std::size_t{100000}}) {
        vrf_.Plan().ClearLogs();
        LOG_AS_CALLER("%s", std::string(length, 'x').c_str());
        ASSERT_EQ(Records().size(), 2u);
        EXPECT_LT(static_cast<PNV_INT>(Records()[0].rc), 0);
        ExpectOwnRecord(Records()[0], Records()[0].rc, "format log message failed.");
        ExpectCallersRecord(Records()[1], "%s");
    }
}

TEST_F(Log, TellsTheFormatterItsLimits)
{
    static std::vector<std::size_t> limits;
    limits.clear();
    vrf_->callback_funcs.plt_funcs.sys_funcs.str_funcs.pf_vsnprintf_s =
        [](PNV_CHAR* dest, std::size_t destMax, std::size_t count, const PNV_CHAR*, va_list) {
            limits = {destMax, count};
            std::strcpy(dest, "text");
            return PNV_INT{4};
        };
    LOG_AS_CALLER("%s", "message");
    EXPECT_EQ(limits, (std::vector<std::size_t>{2048, 2047}));
    ASSERT_EQ(Records().size(), 1u);
    ExpectCallersRecord(Records()[0], "text");
}

TEST_F(Log, LeavesTheLastErrorAlone)
{
    vrf_->last_err = 0x55;
    LOG_AS_CALLER("%s", "message");
    EXPECT_EQ(vrf_->last_err, 0x55u);
}

PELNIC_ERROR_CODE FailPlainly(PELNIC_VRF* vrf)
{
    return PNV_FAIL(vrf, PELNIC_ERR_NO_PKI);
}

PELNIC_ERROR_CODE FailWithReason(PELNIC_VRF* vrf, const char* reason)
{
    return PNV_FAIL_MSG(vrf, PELNIC_ERR_NO_PKI, "because of %s", reason);
}

TEST_F(Log, FailMacrosLogWhereTheyStandAndGiveTheCode)
{
    EXPECT_EQ(FailPlainly(vrf_), PELNIC_ERR_NO_PKI);
    EXPECT_EQ(FailWithReason(vrf_, "rain"), PELNIC_ERR_NO_PKI);
    ASSERT_EQ(Records().size(), 2u);
    EXPECT_EQ(Records()[0].function, "FailPlainly");
    EXPECT_EQ(Records()[0].message, "");
    EXPECT_EQ(Records()[1].function, "FailWithReason");
    EXPECT_EQ(Records()[1].message, "because of rain");
    for (const LogRecord& record : Records()) {
        EXPECT_EQ(record.level, PELNIC_LOG_TYPE_ERROR);
        EXPECT_NE(record.file.find("pelnic_plt_proxy_test.cpp"), std::string::npos);
        EXPECT_EQ(record.rc, PELNIC_ERR_NO_PKI);
    }
}

} // namespace
} // namespace pnvtest
