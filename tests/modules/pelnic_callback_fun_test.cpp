// The default callback table: memory, strings, files, log lines, and libcrypto held against published test vectors.
#include "cmsverify/pelnic_callback_fun.h"
#include "cmsverify/pelnic_huge_pages.h"

#include "support/exact_heap.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

namespace pnvtest {
namespace {

#include "data/rsa_vectors.inc"
#include "data/sha2_vectors.inc"

// What a step writes to the standard streams.
struct Output {
    std::string out;
    std::string err;
};

template <typename Step> Output OutputOf(Step step)
{
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    step();
    std::fflush(stdout);
    return {::testing::internal::GetCapturedStdout(), ::testing::internal::GetCapturedStderr()};
}

template <typename Step> void ExpectSilent(Step step)
{
    const Output output = OutputOf(step);
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.err, "");
}

// Runs a step that must not wait for anybody. The alarm interrupts it.
template <typename Step> bool EndsInTime(Step step)
{
    static volatile std::sig_atomic_t g_rang;
    g_rang = 0;
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) { g_rang = 1; };
    sigaction(SIGALRM, &action, &before); // without SA_RESTART
    alarm(5);
    step();
    alarm(0);
    sigaction(SIGALRM, &before, nullptr);
    return g_rang == 0;
}

// ---- The table ----

#define EXPECT_MEMBER_AT(record, member, word) \
    static_assert(offsetof(record, member) == (word) * sizeof(void*), #record "::" #member)

TEST(CallbackTable, HasItsMembersInTheOrderOfTheInterface)
{
    EXPECT_MEMBER_AT(PELNIC_SYS_MEM_FUNCS, malloc, 0);
    EXPECT_MEMBER_AT(PELNIC_SYS_MEM_FUNCS, memset_s, 1);
    EXPECT_MEMBER_AT(PELNIC_SYS_MEM_FUNCS, memmove_s, 2);
    EXPECT_MEMBER_AT(PELNIC_SYS_MEM_FUNCS, memcpy_s, 3);
    EXPECT_MEMBER_AT(PELNIC_SYS_MEM_FUNCS, free, 4);
    EXPECT_MEMBER_AT(PELNIC_SYS_MEM_FUNCS, memcmp, 5);

    EXPECT_MEMBER_AT(PELNIC_SYS_STR_FUNCS, pf_strncmp, 0);
    EXPECT_MEMBER_AT(PELNIC_SYS_STR_FUNCS, pf_strstr, 1);
    EXPECT_MEMBER_AT(PELNIC_SYS_STR_FUNCS, pf_strchr, 2);
    EXPECT_MEMBER_AT(PELNIC_SYS_STR_FUNCS, pf_strlen, 3);
    EXPECT_MEMBER_AT(PELNIC_SYS_STR_FUNCS, pf_strcmp, 4);
    EXPECT_MEMBER_AT(PELNIC_SYS_STR_FUNCS, pf_strcpy_s, 5);
    EXPECT_MEMBER_AT(PELNIC_SYS_STR_FUNCS, pf_strcat_s, 6);
    EXPECT_MEMBER_AT(PELNIC_SYS_STR_FUNCS, pf_vsnprintf_s, 7);

    EXPECT_MEMBER_AT(PELNIC_SYS_FILE_FUNCS, fopen, 0);
    EXPECT_MEMBER_AT(PELNIC_SYS_FILE_FUNCS, fread, 1);
    EXPECT_MEMBER_AT(PELNIC_SYS_FILE_FUNCS, fclose, 2);
    EXPECT_MEMBER_AT(PELNIC_SYS_FILE_FUNCS, get_file_size, 3);

    EXPECT_MEMBER_AT(PELNIC_SYS_PLANTFORM_FUNCS, get_thread_id, 0);
    EXPECT_MEMBER_AT(PELNIC_SYS_PLANTFORM_FUNCS, get_utc_time, 1);
    EXPECT_MEMBER_AT(PELNIC_SYS_PLANTFORM_FUNCS, mktime, 2);

    EXPECT_MEMBER_AT(PELNIC_SYS_FUNCS, st_size, 0);
    EXPECT_MEMBER_AT(PELNIC_SYS_FUNCS, mem_funcs, 1);
    EXPECT_MEMBER_AT(PELNIC_SYS_FUNCS, str_funcs, 7);
    EXPECT_MEMBER_AT(PELNIC_SYS_FUNCS, file_funcs, 15);
    EXPECT_MEMBER_AT(PELNIC_SYS_FUNCS, plt_funcs, 19);

    EXPECT_MEMBER_AT(PELNIC_PLT_FUNCS, st_size, 0);
    EXPECT_MEMBER_AT(PELNIC_PLT_FUNCS, sys_funcs, 1);
    EXPECT_MEMBER_AT(PELNIC_PLT_FUNCS, log_funcs, 23);
    EXPECT_MEMBER_AT(PELNIC_LOG_FUNCS, log_func, 0);

    EXPECT_MEMBER_AT(PELNIC_CRYPTO_FUNCS, size, 0);
    EXPECT_MEMBER_AT(PELNIC_CRYPTO_FUNCS, pelnic_verify_ctx_create, 1);
    EXPECT_MEMBER_AT(PELNIC_CRYPTO_FUNCS, pelnic_verify_init, 2);
    EXPECT_MEMBER_AT(PELNIC_CRYPTO_FUNCS, pelnic_verify_update, 3);
    EXPECT_MEMBER_AT(PELNIC_CRYPTO_FUNCS, pelnic_verify_final, 4);
    EXPECT_MEMBER_AT(PELNIC_CRYPTO_FUNCS, pelnic_verify_ctx_destory, 5);

    EXPECT_MEMBER_AT(PELNIC_MD_FUNCS, size, 0);
    EXPECT_MEMBER_AT(PELNIC_MD_FUNCS, pelnic_md_ctx_create, 1);
    EXPECT_MEMBER_AT(PELNIC_MD_FUNCS, pelnic_md_init, 2);
    EXPECT_MEMBER_AT(PELNIC_MD_FUNCS, pelnic_md_update, 3);
    EXPECT_MEMBER_AT(PELNIC_MD_FUNCS, pelnic_md_final, 4);
    EXPECT_MEMBER_AT(PELNIC_MD_FUNCS, pelnic_md_ctx_destory, 5);

    EXPECT_MEMBER_AT(PELNIC_CALLBACK_FUNCS, st_size, 0);
    EXPECT_MEMBER_AT(PELNIC_CALLBACK_FUNCS, plt_funcs, 1);
    EXPECT_MEMBER_AT(PELNIC_CALLBACK_FUNCS, crypt_funcs, 25);
    EXPECT_MEMBER_AT(PELNIC_CALLBACK_FUNCS, md_funcs, 31);
}

TEST(CallbackTable, DefaultsReplaceWhateverWasThere)
{
    PELNIC_CALLBACK_FUNCS table;
    std::memset(&table, 0xFF, sizeof table);
    ASSERT_EQ(pelnic_set_callback_funcs(&table), 0u);

    EXPECT_EQ(table.st_size, sizeof(PELNIC_CALLBACK_FUNCS));
    EXPECT_EQ(table.plt_funcs.st_size, sizeof(PELNIC_PLT_FUNCS));
    EXPECT_EQ(table.crypt_funcs.size, sizeof(PELNIC_CRYPTO_FUNCS));
    EXPECT_EQ(table.md_funcs.size, sizeof(PELNIC_MD_FUNCS));
    const PELNIC_SYS_FUNCS& sys = table.plt_funcs.sys_funcs;
    EXPECT_EQ(sys.st_size, sizeof(PELNIC_SYS_FUNCS));

    EXPECT_EQ(sys.mem_funcs.malloc, pnv_malloc_impl);
    EXPECT_EQ(sys.mem_funcs.memset_s, pnv_memset_s_impl);
    EXPECT_EQ(sys.mem_funcs.memmove_s, pnv_memmove_s_impl);
    EXPECT_EQ(sys.mem_funcs.memcpy_s, pnv_memcpy_s_impl);
    EXPECT_EQ(sys.mem_funcs.free, pnv_free_impl);
    EXPECT_EQ(sys.mem_funcs.memcmp, pnv_memcmp_impl);

    EXPECT_EQ(sys.str_funcs.pf_strncmp, pnv_strncmp_impl);
    EXPECT_EQ(sys.str_funcs.pf_strstr, pnv_strstr_impl);
    EXPECT_EQ(sys.str_funcs.pf_strchr, pnv_strchr_impl);
    EXPECT_EQ(sys.str_funcs.pf_strlen, pnv_strlen_impl);
    EXPECT_EQ(sys.str_funcs.pf_strcmp, pnv_strcmp_impl);
    EXPECT_EQ(sys.str_funcs.pf_strcpy_s, pnv_strcpy_s_impl);
    EXPECT_EQ(sys.str_funcs.pf_strcat_s, pnv_strcat_s_impl);
    EXPECT_EQ(sys.str_funcs.pf_vsnprintf_s, pnv_vsnprintf_s_impl);

    EXPECT_EQ(sys.file_funcs.fopen, pnv_fopen_impl);
    EXPECT_EQ(sys.file_funcs.fread, _pnv_fread_impl);
    EXPECT_EQ(sys.file_funcs.fclose, _pnv_fclose_impl);
    EXPECT_EQ(sys.file_funcs.get_file_size, _pnv_get_file_size_impl);

    EXPECT_EQ(sys.plt_funcs.get_thread_id, nullptr);
    EXPECT_EQ(sys.plt_funcs.get_utc_time, nullptr);
    EXPECT_EQ(sys.plt_funcs.mktime, nullptr);
    EXPECT_EQ(table.plt_funcs.log_funcs.log_func, _pnv_log_callback_impl);

    EXPECT_EQ(table.md_funcs.pelnic_md_ctx_create, _pnv_md_ctx_create_impl);
    EXPECT_EQ(table.md_funcs.pelnic_md_init, _pnv_md_init_impl);
    EXPECT_EQ(table.md_funcs.pelnic_md_update, _pnv_md_update_impl);
    EXPECT_EQ(table.md_funcs.pelnic_md_final, _pnv_md_final_impl);
    EXPECT_EQ(table.md_funcs.pelnic_md_ctx_destory, _pnv_md_ctx_destory_impl);

    EXPECT_EQ(table.crypt_funcs.pelnic_verify_ctx_create, pelnic_verify_ctx_create_impl);
    EXPECT_EQ(table.crypt_funcs.pelnic_verify_init, _pnv_verify_init_impl);
    EXPECT_EQ(table.crypt_funcs.pelnic_verify_update, pelnic_verify_update_impl);
    EXPECT_EQ(table.crypt_funcs.pelnic_verify_final, _pnv_verify_final_impl);
    EXPECT_EQ(table.crypt_funcs.pelnic_verify_ctx_destory, _pnv_verify_ctx_destory_impl);
}

TEST(CallbackTable, NoneIsAPlainOne)
{
    EXPECT_EQ(pelnic_set_callback_funcs(nullptr), 1u);
}

// ---- Memory ----

TEST(DefaultMemory, Allocates)
{
    void* block = nullptr;
    ASSERT_EQ(pnv_malloc_impl(&block, 16), 0u);
    ASSERT_NE(block, nullptr);
    std::memset(block, 0xA5, 16);
    pnv_free_impl(block);
}

TEST(DefaultMemory, AllocatesNothingForSizeZero)
{
    char before = 0;
    void* block = &before;
    EXPECT_EQ(pnv_malloc_impl(&block, 0), 0u);
    EXPECT_EQ(block, nullptr);
}

// A huge page begins at a multiple of its size.
TEST(DefaultMemory, AllocatesLargeBlocksWhereHugePagesBegin)
{
    for (const PNV_UINT32 size : {0x2FFFFFu, 0x300000u, 0x500001u}) {
        void* block = nullptr;
        ASSERT_EQ(pnv_malloc_impl(&block, size), 0u) << size;
        ASSERT_NE(block, nullptr) << size;
        EXPECT_TRUE(size < 0x300000 || reinterpret_cast<std::uintptr_t>(block) % 0x200000 == 0) << size;
        std::memset(block, 0xA5, size);
        pnv_free_impl(block);
    }
}

constexpr std::uintptr_t kHugePage = 0x200000;

std::uintptr_t PageSize()
{
    return static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
}

// The pages that begin between two addresses and have no memory yet.
std::size_t MissingPages(std::uintptr_t begin, std::uintptr_t end)
{
    const std::uintptr_t page = PageSize();
    std::size_t missing = 0;
    for (std::uintptr_t at = (begin + page - 1) / page * page; at < end; at += page) {
        unsigned char residency = 0;
        EXPECT_EQ(mincore(reinterpret_cast<void*>(at), page, &residency), 0) << std::strerror(errno);
        missing += (residency & 1) == 0 ? 1u : 0u;
    }
    return missing;
}

// Fresh memory, whose pages come with the first access unless the kernel is asked for them.
class FreshMemory {
public:
    explicit FreshMemory(std::size_t size) : size_(size)
    {
        void* const area = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(area, MAP_FAILED) << std::strerror(errno);
        begin_ = reinterpret_cast<std::uintptr_t>(area);
    }
    ~FreshMemory() { munmap(reinterpret_cast<void*>(begin_), size_); }
    FreshMemory(const FreshMemory&) = delete;
    FreshMemory& operator=(const FreshMemory&) = delete;

    std::uintptr_t Begin() const { return begin_; }

private:
    std::size_t size_;
    std::uintptr_t begin_ = 0;
};

bool KernelGivesPagesInAdvance()
{
    const FreshMemory probe(PageSize());
    return madvise(reinterpret_cast<void*>(probe.Begin()), PageSize(), MADV_POPULATE_WRITE) == 0 &&
           MissingPages(probe.Begin(), probe.Begin() + 1) == 0;
}

// A block that is large for libc, but not for a huge page, has all its pages before the first access; so has what lies
// behind the last huge page of a larger one.
TEST(DefaultMemory, GivesLargeBlocksTheirPages)
{
    if (!KernelGivesPagesInAdvance()) GTEST_SKIP() << "the kernel does not give pages in advance";
    struct Case {
        PNV_UINT32 size;
        std::size_t from; // the first octet whose page must be there
    };
    for (const auto& [size, from] : {Case{0x20000, 0}, {0x2FFFFF, 0}, {0x300000, 0x200000}, {0x5FF000, 0x400000}}) {
        void* block = nullptr;
        ASSERT_EQ(pnv_malloc_impl(&block, size), 0u) << size;
        ASSERT_NE(block, nullptr) << size;
        const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(block);
        EXPECT_EQ(MissingPages(start + from, start + size), 0u) << size;
        pnv_free_impl(block);
    }
}

// The checker's buffer begins anywhere: before its first huge page and behind its last one lie ordinary pages.
TEST(DefaultMemory, GivesThePagesOnBothSidesOfHugeOnes)
{
    if (!KernelGivesPagesInAdvance()) GTEST_SKIP() << "the kernel does not give pages in advance";
    const FreshMemory area(4 * kHugePage);
    const std::uintptr_t huge = (area.Begin() + 2 * kHugePage - 1) / kHugePage * kHugePage;
    const std::uintptr_t start = huge - kHugePage / 2 + 16;
    const std::uintptr_t end = huge + kHugePage + kHugePage / 2;
    _pnvPreparePages(reinterpret_cast<void*>(start), static_cast<PNV_UINT32>(end - start));
    EXPECT_EQ(MissingPages(start, huge), 0u);
    EXPECT_EQ(MissingPages(huge + kHugePage, end), 0u);
}

// 32-bit programs have not so much room anyway.
TEST(DefaultMemory, RefusesWhatThereIsNoRoomFor)
{
    if (kSanitized) GTEST_SKIP() << "AddressSanitizer's allocator ends the program";
    char before = 0;
    void* block = &before;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
    const PELNIC_ERROR_CODE rc = pnv_malloc_impl(&block, 0xFFF00000);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    EXPECT_EQ(rc, PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(block, nullptr);
}

TEST(DefaultMemory, FreesNull)
{
    pnv_free_impl(nullptr);
}

TEST(DefaultMemory, Fills)
{
    Bytes dest(4, 0x11);
    EXPECT_EQ(pnv_memset_s_impl(dest.data(), 4, 0x22, 3), 0u);
    EXPECT_EQ(dest, (Bytes{0x22, 0x22, 0x22, 0x11}));
    EXPECT_EQ(pnv_memset_s_impl(dest.data(), 4, 0x33, 4), 0u);
    EXPECT_EQ(dest, Bytes(4, 0x33));
    EXPECT_EQ(pnv_memset_s_impl(dest.data(), 4, 0x44, 0), 0u);
    EXPECT_EQ(dest, Bytes(4, 0x33));
}

// Whatever the platform's function makes of a character that is none.
TEST(DefaultMemory, FillsOrNotWithoutSayingSo)
{
    Bytes dest(4, 0x11);
    EXPECT_EQ(pnv_memset_s_impl(dest.data(), 4, 0x122, 4), 0u);
    EXPECT_EQ(pnv_memset_s_impl(dest.data(), 4, -1, 4), 0u);
}

TEST(DefaultMemory, RefusesToFillTheWrongPlace)
{
    Bytes dest(4, 0x11);
    EXPECT_EQ(pnv_memset_s_impl(nullptr, 4, 0, 4), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pnv_memset_s_impl(dest.data(), 0, 0, 0), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pnv_memset_s_impl(dest.data(), 4, 0, 5), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(dest, Bytes(4, 0x11));
}

using CopyFunction = PELNIC_ERROR_CODE (*)(void*, size_t, const void*, size_t);

class DefaultCopy : public ::testing::TestWithParam<CopyFunction> {};

INSTANTIATE_TEST_SUITE_P(MemcpyAndMemmove, DefaultCopy, ::testing::Values(pnv_memcpy_s_impl, pnv_memmove_s_impl));

TEST_P(DefaultCopy, Copies)
{
    const ExactHeap src(Bytes{1, 2, 3, 4});
    Bytes dest(4, 0x11);
    EXPECT_EQ(GetParam()(dest.data(), 4, src.data(), 3), 0u);
    EXPECT_EQ(dest, (Bytes{1, 2, 3, 0x11}));
    EXPECT_EQ(GetParam()(dest.data(), 4, src.data(), 4), 0u);
    EXPECT_EQ(dest, (Bytes{1, 2, 3, 4}));
}

TEST_P(DefaultCopy, CopiesNothing)
{
    const ExactHeap src(Bytes{1});
    Bytes dest(4, 0x11);
    EXPECT_EQ(GetParam()(dest.data(), 4, src.data(), 0), 0u);
    EXPECT_EQ(dest, Bytes(4, 0x11));
}

TEST_P(DefaultCopy, RefusesTheWrongPlaces)
{
    const ExactHeap src(Bytes{1, 2, 3, 4});
    Bytes dest(4, 0x11);
    EXPECT_EQ(GetParam()(dest.data(), 0, src.data(), 0), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(GetParam()(dest.data(), 3, src.data(), 4), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(GetParam()(dest.data(), 4, src.data(), SIZE_MAX), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(GetParam()(nullptr, 4, src.data(), 4), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(GetParam()(dest.data(), 4, nullptr, 4), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(dest, Bytes(4, 0x11));
}

TEST(DefaultMemory, MovesOverlappingOctets)
{
    Bytes octets{1, 2, 3, 4, 5};
    EXPECT_EQ(pnv_memmove_s_impl(octets.data() + 1, 4, octets.data(), 4), 0u);
    EXPECT_EQ(octets, (Bytes{1, 1, 2, 3, 4}));
}

TEST(DefaultMemory, DoesNotCopyOverlappingOctets)
{
    Bytes octets{1, 2, 3, 4, 5};
    ExpectSilent([&] { EXPECT_NE(pnv_memcpy_s_impl(octets.data() + 1, 4, octets.data(), 4), 0u); });
    // By one octet, on either side, and then by none.
    ExpectSilent([&] { EXPECT_NE(pnv_memcpy_s_impl(octets.data() + 2, 3, octets.data(), 3), 0u); });
    ExpectSilent([&] { EXPECT_NE(pnv_memcpy_s_impl(octets.data(), 3, octets.data() + 2, 3), 0u); });
    octets = {1, 2, 3, 4};
    EXPECT_EQ(pnv_memcpy_s_impl(octets.data() + 2, 2, octets.data(), 2), 0u);
    EXPECT_EQ(octets, (Bytes{1, 2, 1, 2}));
}

TEST(DefaultMemory, Compares)
{
    const Bytes a{1, 2, 3};
    const Bytes b{1, 2, 0xFF};
    EXPECT_EQ(pnv_memcmp_impl(a.data(), b.data(), 2), 0);
    EXPECT_LT(pnv_memcmp_impl(a.data(), b.data(), 3), 0);
    EXPECT_GT(pnv_memcmp_impl(b.data(), a.data(), 3), 0);
    EXPECT_EQ(pnv_memcmp_impl(a.data(), b.data(), 0), 0);
    EXPECT_EQ(pnv_memcmp_impl(nullptr, b.data(), 0), -1);
    EXPECT_EQ(pnv_memcmp_impl(a.data(), nullptr, 0), -1);
}

// ---- Strings ----

TEST(DefaultStrings, CompareCharacters)
{
    EXPECT_EQ(pnv_strncmp_impl("abc", "abd", 2), 0);
    EXPECT_LT(pnv_strncmp_impl("abc", "abd", 3), 0);
    EXPECT_GT(pnv_strncmp_impl("abd", "abc", 3), 0);
    EXPECT_EQ(pnv_strncmp_impl(nullptr, "a", 1), -1);
    EXPECT_EQ(pnv_strncmp_impl("a", nullptr, 1), -1);
}

TEST(DefaultStrings, FindAText)
{
    const char text[] = "one two";
    EXPECT_EQ(pnv_strstr_impl(text, "two"), text + 4);
    EXPECT_EQ(pnv_strstr_impl(text, "three"), nullptr);
    EXPECT_EQ(pnv_strstr_impl(nullptr, "two"), nullptr);
    EXPECT_EQ(pnv_strstr_impl(text, nullptr), nullptr);
}

TEST(DefaultStrings, FindACharacter)
{
    char text[] = "ab\xE4";
    EXPECT_EQ(pnv_strchr_impl(text, 'b'), text + 1);
    EXPECT_EQ(pnv_strchr_impl(text, static_cast<PNV_CHAR>(0xE4)), text + 2);
    EXPECT_EQ(pnv_strchr_impl(text, '\0'), text + 3);
    EXPECT_EQ(pnv_strchr_impl(text, 'x'), nullptr);
    EXPECT_EQ(pnv_strchr_impl(nullptr, 'x'), nullptr);
}

TEST(DefaultStrings, Measure)
{
    EXPECT_EQ(pnv_strlen_impl(""), 0u);
    EXPECT_EQ(pnv_strlen_impl("abc"), 3u);
    EXPECT_EQ(pnv_strlen_impl(nullptr), 0xFFFFFFFFu);
}

TEST(DefaultStrings, CompareForEquality)
{
    const char abc[] = "abc";
    const char same[] = "abc";
    EXPECT_EQ(pnv_strcmp_impl(abc, abc), 0);
    EXPECT_EQ(pnv_strcmp_impl(abc, same), 0);
    EXPECT_LT(pnv_strcmp_impl("abc", "abd"), 0);
    EXPECT_GT(pnv_strcmp_impl("abd", "abc"), 0);
}

TEST(DefaultStrings, CompareAnyOtherLengthAsLess)
{
    EXPECT_EQ(pnv_strcmp_impl("ab", "abc"), -1);
    EXPECT_EQ(pnv_strcmp_impl("abc", "ab"), -1);
    EXPECT_EQ(pnv_strcmp_impl("z", "abc"), -1);
    EXPECT_EQ(pnv_strcmp_impl("", "a"), -1);
}

TEST(DefaultStrings, CompareNullAsLess)
{
    EXPECT_EQ(pnv_strcmp_impl(nullptr, "a"), -1);
    EXPECT_EQ(pnv_strcmp_impl("a", nullptr), -1);
    EXPECT_EQ(pnv_strcmp_impl(nullptr, nullptr), -1);
}

TEST(DefaultStrings, Copy)
{
    char dest[8] = "before";
    EXPECT_EQ(pnv_strcpy_s_impl(dest, 8, "seven77"), 0u);
    EXPECT_STREQ(dest, "seven77");
    EXPECT_EQ(pnv_strcpy_s_impl(dest, 8, ""), 0u);
    EXPECT_STREQ(dest, "");
}

TEST(DefaultStrings, Append)
{
    char dest[8] = "abc";
    EXPECT_EQ(pnv_strcat_s_impl(dest, 8, "defg"), 0u);
    EXPECT_STREQ(dest, "abcdefg");
    EXPECT_EQ(pnv_strcat_s_impl(dest, 8, ""), 0u);
    EXPECT_STREQ(dest, "abcdefg");
}

using StringFunction = PELNIC_ERROR_CODE (*)(PNV_CHAR*, size_t, const PNV_CHAR*);

class DefaultStringCopy : public ::testing::TestWithParam<StringFunction> {};

INSTANTIATE_TEST_SUITE_P(StrcpyAndStrcat, DefaultStringCopy, ::testing::Values(pnv_strcpy_s_impl, pnv_strcat_s_impl));

TEST_P(DefaultStringCopy, RefusesTheWrongPlaces)
{
    char dest[8] = "abc";
    EXPECT_EQ(GetParam()(dest, 0, "x"), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(GetParam()(nullptr, 8, "x"), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(GetParam()(dest, 8, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_STREQ(dest, "abc");
}

TEST_P(DefaultStringCopy, FailsSilentlyWhereTheTextDoesNotFit)
{
    std::vector<char> dest(8, '\0');
    ExpectSilent([&] { EXPECT_NE(GetParam()(dest.data(), 8, "eight888"), 0u); });
}

// ---- Formatting ----

PNV_INT Format(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format, ...)
    __attribute__((format(printf, 4, 5)));

PNV_INT Format(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const PNV_INT result = pnv_vsnprintf_s_impl(dest, destMax, count, format, arguments);
    va_end(arguments);
    return result;
}

// A heap block of just its size, full of marks.
std::vector<char> Marked(std::size_t size)
{
    return std::vector<char>(size, '#');
}

TEST(DefaultFormat, WritesWhatFits)
{
    std::vector<char> dest = Marked(8);
    EXPECT_EQ(Format(dest.data(), 8, 7, "%s-%d", "abc", 123), 7);
    EXPECT_STREQ(dest.data(), "abc-123");
    EXPECT_EQ(Format(dest.data(), 8, 3, "%d", 456), 3);
    EXPECT_STREQ(dest.data(), "456");
}

TEST(DefaultFormat, IsZeroForAnEmptyText)
{
    std::vector<char> dest = Marked(1);
    EXPECT_EQ(Format(dest.data(), 1, 0, "%s", ""), 0);
    EXPECT_STREQ(dest.data(), "");
}

TEST(DefaultFormat, IsNegativeAndTerminatedWhereTheTextDoesNotFit)
{
    struct {
        size_t destMax;
        size_t count;
    } const limits[] = {{8, 7}, {8, 8}, {8, SIZE_MAX}, {8, 3}, {8, 0}, {1, 7}, {1, 0}};
    for (const auto& limit : limits) {
        const size_t most = std::min(limit.count, limit.destMax - 1);
        std::vector<char> dest = Marked(limit.destMax);
        ExpectSilent([&] {
            EXPECT_LT(Format(dest.data(), limit.destMax, limit.count, "%s", std::string(most + 1, 'x').c_str()), 0);
        });
        const size_t written = std::strlen(std::string(dest.begin(), dest.end()).c_str());
        EXPECT_LE(written, most);
        for (size_t i = most + 1; i < dest.size(); ++i) EXPECT_EQ(dest[i], '#') << i;
    }
}

TEST(DefaultFormat, KeepsWhatFitsHoweverMuchDoesNot)
{
    for (size_t excess : {1u, 2u, 100u, 5000u}) {
        std::vector<char> dest = Marked(8);
        ExpectSilent(
            [&] { EXPECT_EQ(Format(dest.data(), 8, 5, "%s%d", std::string(5 + excess - 1, 'x').c_str(), 7), -1); });
        EXPECT_STREQ(dest.data(), "xxxxx") << excess;
        EXPECT_EQ(dest[6], '#');
        EXPECT_EQ(dest[7], '#');
    }
}

TEST(DefaultFormat, LeavesNoTextWhereItCannotBeFormatted)
{
    const char* volatile none = nullptr; // hidden from the compiler, which knows better
    std::vector<char> dest = Marked(8);
    ExpectSilent([&] { EXPECT_LT(Format(dest.data(), 8, 7, "%s", none), 0); });
    EXPECT_STREQ(dest.data(), "");
}

TEST(DefaultFormat, IsNegativeWithoutRoomForTheZero)
{
    char dest = '#';
    ExpectSilent([&] { EXPECT_LT(Format(&dest, 0, 7, "%s", "x"), 0); });
    EXPECT_EQ(dest, '#');
}

TEST(DefaultFormat, RefusesNull)
{
    char dest[4] = "abc";
    const PNV_CHAR* none = nullptr;
    EXPECT_EQ(static_cast<PNV_UINT32>(Format(nullptr, 4, 3, "%d", 1)), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(static_cast<PNV_UINT32>(Format(dest, 4, 3, none, 1)), PELNIC_ERR_NULL_POINTER);
    EXPECT_STREQ(dest, "abc");
}

TEST(DefaultFormat, FillsTheLogMessageBuffer)
{
    std::vector<char> dest = Marked(2048);
    const std::string longest(2047, 'x');
    EXPECT_EQ(Format(dest.data(), 2048, 2047, "%s", longest.c_str()), 2047);
    EXPECT_EQ(dest.data(), longest);
    ExpectSilent([&] { EXPECT_LT(Format(dest.data(), 2048, 2047, "%sy", longest.c_str()), 0); });
}

// ---- Files ----

TEST(DefaultFiles, OpenReadAndClose)
{
    TempDir dir;
    const std::string path = dir.Write("file", Text("0123456789"));
    PNV_FILE_HANDLE file = pnv_fopen_impl(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    Bytes octets(8);
    EXPECT_EQ(_pnv_fread_impl(octets.data(), 8, file), 8u);
    EXPECT_EQ(octets, Text("01234567"));
    EXPECT_EQ(_pnv_fread_impl(octets.data(), 8, file), 2u);
    EXPECT_EQ(octets, Text("89234567"));
    EXPECT_EQ(_pnv_fread_impl(octets.data(), 8, file), 0u);
    EXPECT_EQ(_pnv_fclose_impl(file), 0u);
}

TEST(DefaultFiles, OpenNothingThatIsNotThere)
{
    TempDir dir;
    EXPECT_EQ(pnv_fopen_impl(dir.Path("none").c_str(), "rb"), nullptr);
}

TEST(DefaultFiles, PassOnThatClosingFailed)
{
    PNV_FILE_HANDLE file = pnv_fopen_impl("/dev/full", "wb");
    if (file == nullptr) GTEST_SKIP() << "no /dev/full";
    ASSERT_GE(std::fputs("lost", static_cast<std::FILE*>(file)), 0);
    EXPECT_EQ(_pnv_fclose_impl(file), static_cast<PELNIC_ERROR_CODE>(EOF));
}

TEST(DefaultFiles, TellTheSizeAndKeepThePosition)
{
    TempDir dir;
    const std::string path = dir.Write("file", Text("0123456789"));
    PNV_FILE_HANDLE file = pnv_fopen_impl(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    Bytes octets(4);
    EXPECT_EQ(_pnv_get_file_size_impl(file), 10u);
    EXPECT_EQ(_pnv_fread_impl(octets.data(), 4, file), 4u);
    EXPECT_EQ(_pnv_get_file_size_impl(file), 10u);
    EXPECT_EQ(_pnv_fread_impl(octets.data(), 4, file), 4u);
    EXPECT_EQ(octets, Text("4567"));
    EXPECT_EQ(_pnv_fclose_impl(file), 0u);
}

TEST(DefaultFiles, TellSizesNoneAndBeyond2GiB)
{
    TempDir dir;
    std::vector<std::uint64_t> sizes{0};
    if (sizeof(long) > 4) sizes.push_back(5ull << 30);
    for (std::uint64_t size : sizes) {
        PNV_FILE_HANDLE file = pnv_fopen_impl(dir.WriteSparse("file", size).c_str(), "rb");
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(_pnv_get_file_size_impl(file), size);
        EXPECT_EQ(_pnv_fclose_impl(file), 0u);
    }
}

TEST(DefaultFiles, CannotTellTheSizeOfAPipe)
{
    TempDir dir;
    const std::string path = dir.Path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    PNV_FILE_HANDLE file = pnv_fopen_impl(path.c_str(), "r+b");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(_pnv_get_file_size_impl(file), 0xFFFFFFFFu);
    EXPECT_EQ(_pnv_fclose_impl(file), 0u);
}

// A FIFO that nobody writes to is empty, and nobody waits for it.
TEST(DefaultFiles, DoNotWaitForAWriter)
{
    TempDir dir;
    const std::string path = dir.Path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    PNV_FILE_HANDLE file = nullptr;
    ASSERT_TRUE(EndsInTime([&] { file = pnv_fopen_impl(path.c_str(), "rb"); }));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(_pnv_get_file_size_impl(file), 0xFFFFFFFFu);
    Bytes octets(8);
    EXPECT_EQ(_pnv_fread_impl(octets.data(), 8, file), 0u);
    EXPECT_EQ(_pnv_fclose_impl(file), 0u);
}

// One that somebody writes to is read to its end, though the writer takes its time.
TEST(DefaultFiles, WaitForWhatAWriterHasToSay)
{
    TempDir dir;
    const std::string path = dir.Path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int ready = open(path.c_str(), O_RDWR);
    ASSERT_GE(ready, 0);
    PNV_FILE_HANDLE file = pnv_fopen_impl(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    std::thread writer([&] {
        for (const char* part : {"0123", "4567"}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            EXPECT_EQ(write(ready, part, 4), 4);
        }
        close(ready);
    });
    Bytes octets(9);
    EXPECT_EQ(_pnv_fread_impl(octets.data(), 9, file), 8u);
    writer.join();
    octets.pop_back();
    EXPECT_EQ(octets, Text("01234567"));
    EXPECT_EQ(_pnv_fclose_impl(file), 0u);
}

TEST(DefaultFiles, CannotTellTheSizeOfNothing)
{
    EXPECT_EQ(_pnv_get_file_size_impl(nullptr), 0xFFFFFFFFu);
}

// ---- The log ----

std::string LogLine(PELNIC_LOG_TYPE level, const char* file, PNV_INT line, PELNIC_ERROR_CODE rc, const char* message)
{
    struct {
        char line[1024];
        char guard[64];
    } buffer;
    std::memset(&buffer, '#', sizeof buffer);
    _pnv_build_log_line(buffer.line, level, file, line, rc, message);
    EXPECT_EQ(std::string(buffer.guard, sizeof buffer.guard), std::string(sizeof buffer.guard, '#'));
    EXPECT_NE(std::memchr(buffer.line, '\0', sizeof buffer.line), nullptr);
    return std::string(buffer.line, strnlen(buffer.line, sizeof buffer.line));
}

TEST(DefaultLogLine, HasLevelPlaceMessageAndCode)
{
    EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_ERROR, "a", 7, 0x1F, "m"), "[ERROR]a(7):m(err:1f)");
    EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_WARNING, "dir/b.cpp", 1234, PELNIC_ERR_ASN_TAG, "two words"),
              "[WARNING]dir/b.cpp(1234):two words(err:88300001)");
    EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_INFO, "a", 7, 0xFFFFFFFF, "m"), "[INFO]a(7):m(err:ffffffff)");
    EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_DEBUG, "a", -7, 1, "m"), "[DEBUG]a(-7):m(err:1)");
}

TEST(DefaultLogLine, HasNoCodeForSuccess)
{
    EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_ERROR, "a", 7, 0, "m"), "[ERROR]a(7):m");
}

TEST(DefaultLogLine, MayHaveAnEmptyMessage)
{
    EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_ERROR, "a", 7, 0x1F, ""), "[ERROR]a(7):(err:1f)");
}

TEST(DefaultLogLine, TakesTheMessageAsItIs)
{
    EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_ERROR, "%s", 7, 0, "%n%s%d"), "[ERROR]%s(7):%n%s%d");
}

TEST(DefaultLogLine, FillsItsBufferAndNoMore)
{
    const std::string head = "[ERROR]a(7):";
    for (std::size_t length : {1000u, 1001u, 1002u, 1003u, 1010u, 1011u, 1012u, 1024u, 2047u}) {
        const std::string message(length, 'x');
        const std::string whole = head + message + "(err:88300001)";
        EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_ERROR, "a", 7, PELNIC_ERR_ASN_TAG, message.c_str()), whole.substr(0, 1023))
            << length;
    }
}

TEST(DefaultLogLine, SurvivesALongFileName)
{
    const std::string file(3000, 'f');
    EXPECT_EQ(LogLine(PELNIC_LOG_TYPE_ERROR, file.c_str(), 7, 1, "m"), ("[ERROR]" + file).substr(0, 1023));
}

TEST(DefaultLog, WritesNothingAnywhere)
{
    const std::string longest(2047, 'x');
    ExpectSilent([&] {
        _pnv_log_callback_impl(PELNIC_LOG_TYPE_ERROR, "a", 7, "f", nullptr, 0, PELNIC_ERR_NO_PKI, "m");
        _pnv_log_callback_impl(PELNIC_LOG_TYPE_ERROR, "a", 7, "f", nullptr, 0, PELNIC_ERR_NO_PKI, longest.c_str());
    });
}

// The message is null when there was none and no memory to format it.
TEST(DefaultLog, BearsANullMessage)
{
    ExpectSilent(
        [] { _pnv_log_callback_impl(PELNIC_LOG_TYPE_ERROR, "a", 7, "f", nullptr, 0, PELNIC_ERR_NO_PKI, nullptr); });
}

// ---- Digests ----

Bytes FromHex(std::string_view hex)
{
    Bytes octets;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        octets.push_back(static_cast<std::uint8_t>(std::stoul(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return octets;
}

// A digest in progress.
class Md {
public:
    Md() { EXPECT_EQ(_pnv_md_ctx_create_impl(&ctx_), 0u); }
    explicit Md(PNV_UINT32 hashId) : Md() { EXPECT_EQ(Init(hashId), 0u); }
    ~Md() { _pnv_md_ctx_destory_impl(ctx_); }
    Md(const Md&) = delete;
    Md& operator=(const Md&) = delete;

    PELNIC_ERROR_CODE Init(PNV_UINT32 hashId) { return _pnv_md_init_impl(ctx_, hashId); }
    PELNIC_ERROR_CODE Update(const Bytes& data) { return _pnv_md_update_impl(ctx_, data.data(), Len(data)); }
    Bytes Final()
    {
        Bytes digest(64, 0xA5);
        PNV_UINT32 length = 0;
        EXPECT_EQ(_pnv_md_final_impl(ctx_, digest.data(), &length), 0u);
        EXPECT_LE(length, digest.size());
        digest.resize(length);
        return digest;
    }

    PELNIC_CRYPTO_MD_CTX Handle() { return ctx_; }
    const CRYPTO_MD& Record() { return *static_cast<CRYPTO_MD*>(ctx_); }

private:
    PELNIC_CRYPTO_MD_CTX ctx_ = nullptr;
};

TEST(Sha2Vectors, OneUpdate)
{
    for (const Sha2Vector& vector : kSha2Vectors) {
        Md md(vector.hashId);
        EXPECT_EQ(md.Update(Text("abc")), 0u);
        EXPECT_EQ(md.Final(), FromHex(vector.ofAbc));
    }
}

TEST(Sha2Vectors, NoUpdate)
{
    for (const Sha2Vector& vector : kSha2Vectors) EXPECT_EQ(Md(vector.hashId).Final(), FromHex(vector.ofNothing));
}

TEST(Sha2Vectors, ManyUpdates)
{
    for (const Sha2Vector& vector : kSha2Vectors) {
        Md md(vector.hashId);
        std::size_t left = 1000000;
        for (std::size_t size = 1; left > 0; size = size * 2 + 1) {
            const Bytes part(std::min(size, left), 'a');
            EXPECT_EQ(md.Update(part), 0u);
            left -= part.size();
        }
        EXPECT_EQ(md.Final(), FromHex(vector.ofMillion));
    }
}

TEST(Md, IsCreatedEmpty)
{
    Md md;
    EXPECT_EQ(md.Record().st_size, sizeof(CRYPTO_MD));
    EXPECT_EQ(md.Record().hash_handler, nullptr);
    EXPECT_EQ(md.Record().hash_algo, HSAG_UNKNOW);
}

TEST(Md, NeverSaysItsAlgorithm)
{
    EXPECT_EQ(Md(AOID_SHA256).Record().hash_algo, HSAG_UNKNOW);
}

TEST(Md, InitTakesTheThreeSha2IdentifiersOnly)
{
    for (PNV_UINT32 id = 0; id < 400; ++id) {
        const bool known = id == 43 || id == 44 || id == 45;
        EXPECT_EQ(Md().Init(id), known ? 0u : PELNIC_ERR_FAILED) << id;
    }
    EXPECT_EQ(Md().Init(0xFFFFFFFF), PELNIC_ERR_FAILED);
}

TEST(Md, UpdateOfNothingLeavesTheDigestUnchanged)
{
    Md md(AOID_SHA256);
    const PNV_BYTE octet = 'x';
    EXPECT_EQ(md.Update(Text("abc")), 0u);
    EXPECT_EQ(_pnv_md_update_impl(md.Handle(), &octet, 0), 0u);
    EXPECT_EQ(_pnv_md_update_impl(md.Handle(), nullptr, 5), 0u);
    EXPECT_EQ(_pnv_md_update_impl(md.Handle(), nullptr, 0), 0u);
    EXPECT_EQ(md.Final(), FromHex(kSha256OfAbc));
}

TEST(Md, RefusesNull)
{
    Md md(AOID_SHA256);
    PNV_BYTE digest[64];
    PNV_UINT32 length = 0;
    EXPECT_EQ(_pnv_md_init_impl(nullptr, AOID_SHA256), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnv_md_update_impl(nullptr, digest, 1), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnv_md_update_impl(nullptr, nullptr, 0), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnv_md_final_impl(nullptr, digest, &length), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnv_md_final_impl(md.Handle(), nullptr, &length), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnv_md_final_impl(md.Handle(), digest, nullptr), PELNIC_ERR_FAILED);
    _pnv_md_ctx_destory_impl(nullptr);
}

TEST(Md, FailsBeforeInit)
{
    Md md;
    PNV_BYTE digest[64];
    PNV_UINT32 length = 0;
    EXPECT_EQ(md.Update(Text("abc")), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnv_md_final_impl(md.Handle(), digest, &length), PELNIC_ERR_FAILED);
}

TEST(Md, FailsAfterAnInitThatFailed)
{
    Md md;
    EXPECT_EQ(md.Init(AOID_UNKNOWN), PELNIC_ERR_FAILED);
    EXPECT_EQ(md.Update(Text("abc")), PELNIC_ERR_FAILED);
}

TEST(Md, ASecondInitBeginsAnew)
{
    Md md(AOID_SHA256);
    EXPECT_EQ(md.Update(Text("forgotten")), 0u);
    EXPECT_EQ(md.Init(AOID_SHA384), 0u);
    EXPECT_EQ(md.Update(Text("abc")), 0u);
    EXPECT_EQ(md.Final(), FromHex(kSha384OfAbc));
}

TEST(Md, SeveralRunSideBySide)
{
    Md first(AOID_SHA256);
    Md second(AOID_SHA512);
    EXPECT_EQ(first.Update(Text("a")), 0u);
    EXPECT_EQ(second.Update(Text("ab")), 0u);
    EXPECT_EQ(first.Update(Text("bc")), 0u);
    EXPECT_EQ(second.Update(Text("c")), 0u);
    EXPECT_EQ(first.Final(), FromHex(kSha256OfAbc));
    EXPECT_EQ(second.Final(), FromHex(kSha512OfAbc));
}

TEST(HashIdentifiers, MapToOpenSsl)
{
    EXPECT_EQ(EVP_MD_get_size(_pnv_get_openssl_evpmd(AOID_SHA256)), 32);
    EXPECT_EQ(EVP_MD_get_size(_pnv_get_openssl_evpmd(AOID_SHA384)), 48);
    EXPECT_EQ(EVP_MD_get_size(_pnv_get_openssl_evpmd(AOID_SHA512)), 64);
    EXPECT_EQ(_pnv_get_openssl_evpmd(AOID_UNKNOWN), nullptr);
    EXPECT_EQ(_pnv_get_openssl_evpmd(42), nullptr);
    EXPECT_EQ(_pnv_get_openssl_evpmd(46), nullptr);
}

TEST(HashIdentifiers, MapToHashAlgorithms)
{
    EXPECT_EQ(_convert_hash_algo(AOID_SHA256), HSAG_SHA256);
    EXPECT_EQ(_convert_hash_algo(AOID_SHA384), HSAG_SHA384);
    EXPECT_EQ(_convert_hash_algo(AOID_SHA512), HSAG_SHA512);
    EXPECT_EQ(_convert_hash_algo(AOID_UNKNOWN), HSAG_UNKNOW);
    EXPECT_EQ(_convert_hash_algo(42), HSAG_UNKNOW);
    EXPECT_EQ(_convert_hash_algo(46), HSAG_UNKNOW);
}

// ---- Signatures ----

PELNIC_BIGINT BigInt(const Bytes& magnitude)
{
    PELNIC_BIGINT number{};
    number.uiLength = Len(magnitude);
    std::copy(magnitude.begin(), magnitude.end(), number.aVal);
    return number;
}

const PELNIC_BIGINT kExponent = BigInt({0x01, 0x00, 0x01});

struct Verdict {
    PELNIC_ERROR_CODE rc;
    PNV_INT result;
};

bool operator==(const Verdict& a, const Verdict& b)
{
    return a.rc == b.rc && a.result == b.result;
}
std::ostream& operator<<(std::ostream& stream, const Verdict& verdict)
{
    return stream << "code " << std::hex << verdict.rc << " verdict " << verdict.result;
}

constexpr Verdict kGood{0, 1};
constexpr Verdict kBad{0, 0};
constexpr PNV_INT kNoVerdict = 7; // what stands there before the check

// A verification in progress.
class Rsa {
public:
    Rsa() { EXPECT_EQ(pelnic_verify_ctx_create_impl(&ctx_), 0u); }
    Rsa(std::string_view modulus, PNV_UINT32 hashId) : Rsa() { EXPECT_EQ(Init(FromHex(modulus), hashId), 0u); }
    ~Rsa() { _pnv_verify_ctx_destory_impl(ctx_); }
    Rsa(const Rsa&) = delete;
    Rsa& operator=(const Rsa&) = delete;

    PELNIC_ERROR_CODE Init(const Bytes& modulus, PNV_UINT32 hashId)
    {
        const PELNIC_BIGINT n = BigInt(modulus);
        return _pnv_verify_init_impl(ctx_, &kExponent, &n, hashId);
    }
    PELNIC_ERROR_CODE Update(const Bytes& data) { return pelnic_verify_update_impl(ctx_, data.data(), Len(data)); }
    Verdict Final(const Bytes& signature) { return Final(ExactHeap(signature).data(), Len(signature)); }
    Verdict Final(const PNV_BYTE* signature, PNV_UINT32 length)
    {
        Verdict verdict{0, kNoVerdict};
        verdict.rc = _pnv_verify_final_impl(ctx_, signature, length, &verdict.result);
        return verdict;
    }

    PELNIC_CRYPTO_VRF_CTX Handle() { return ctx_; }
    const CRYPTO_VRF& Record() { return *static_cast<CRYPTO_VRF*>(ctx_); }

private:
    PELNIC_CRYPTO_VRF_CTX ctx_ = nullptr;
};

Verdict Verify(std::string_view modulus, PNV_UINT32 hashId, const Bytes& message, const Bytes& signature)
{
    Rsa rsa(modulus, hashId);
    EXPECT_EQ(rsa.Update(message), 0u);
    return rsa.Final(signature);
}

struct RsaVector {
    const char* name;
    std::string_view modulus;
    PNV_UINT32 hashId;
    std::string_view signature;
};

constexpr RsaVector kRsaVectors[] = {
    {"Rsa2048Sha256", kModulus2048, AOID_SHA256, kSignature2048Sha256},
    {"Rsa2048Sha384", kModulus2048, AOID_SHA384, kSignature2048Sha384},
    {"Rsa2048Sha512", kModulus2048, AOID_SHA512, kSignature2048Sha512},
    {"Rsa3072Sha256", kModulus3072, AOID_SHA256, kSignature3072Sha256},
    {"Rsa3072Sha384", kModulus3072, AOID_SHA384, kSignature3072Sha384},
    {"Rsa3072Sha512", kModulus3072, AOID_SHA512, kSignature3072Sha512},
    {"Rsa4096Sha256", kModulus4096, AOID_SHA256, kSignature4096Sha256},
    {"Rsa4096Sha384", kModulus4096, AOID_SHA384, kSignature4096Sha384},
    {"Rsa4096Sha512", kModulus4096, AOID_SHA512, kSignature4096Sha512},
};

class RsaVectors : public ::testing::TestWithParam<RsaVector> {
protected:
    Verdict Check(const Bytes& signature, const Bytes& message = Text("abc"))
    {
        return Verify(GetParam().modulus, GetParam().hashId, message, signature);
    }

    const Bytes signature_ = FromHex(GetParam().signature);
};

INSTANTIATE_TEST_SUITE_P(OpenSslTools, RsaVectors, ::testing::ValuesIn(kRsaVectors),
                         [](const auto& vector) { return std::string(vector.param.name); });

TEST_P(RsaVectors, GoodSignature)
{
    EXPECT_EQ(Check(signature_), kGood);
}

TEST_P(RsaVectors, OtherMessage)
{
    EXPECT_EQ(Check(signature_, Text("abd")), kBad);
    EXPECT_EQ(Check(signature_, {}), kBad);
}

TEST_P(RsaVectors, FlippedBits)
{
    const std::size_t bits = signature_.size() * 8;
    for (std::size_t bit : {std::size_t{0}, std::size_t{7}, bits / 3, bits / 2, bits - 8, bits - 1}) {
        Bytes damaged = signature_;
        damaged[bit / 8] = static_cast<std::uint8_t>(damaged[bit / 8] ^ 1u << bit % 8);
        EXPECT_EQ(Check(damaged), kBad) << bit;
    }
}

TEST_P(RsaVectors, OtherDigest)
{
    for (PNV_UINT32 hashId : {AOID_SHA256, AOID_SHA384, AOID_SHA512}) {
        const Verdict expected = hashId == GetParam().hashId ? kGood : kBad;
        EXPECT_EQ(Verify(GetParam().modulus, hashId, Text("abc"), signature_), expected);
    }
}

TEST_P(RsaVectors, OtherKey)
{
    for (std::string_view modulus : {kModulus2048, kModulus3072, kModulus4096}) {
        const Verdict expected = modulus == GetParam().modulus ? kGood : kBad;
        EXPECT_EQ(Verify(modulus, GetParam().hashId, Text("abc"), signature_), expected);
    }
}

TEST_P(RsaVectors, TooShort)
{
    for (std::size_t missing : {1u, 2u, 3u, 4u, 5u, 128u}) {
        EXPECT_EQ(Check(Bytes(signature_.begin(), signature_.end() - static_cast<std::ptrdiff_t>(missing))), kBad);
    }
    EXPECT_EQ(Check({0x01}), kBad);
}

TEST_P(RsaVectors, TooLong)
{
    for (std::size_t more : {1u, 2u, 3u, 4u, 256u}) {
        EXPECT_EQ(Check(Cat(signature_, Bytes(more))), kBad) << more;
        EXPECT_EQ(Check(Cat(Bytes(more), signature_)), kBad) << more;
    }
}

TEST_P(RsaVectors, MessageInParts)
{
    Rsa rsa(GetParam().modulus, GetParam().hashId);
    EXPECT_EQ(rsa.Update(Text("a")), 0u);
    EXPECT_EQ(rsa.Update({}), 0u);
    EXPECT_EQ(rsa.Update(Text("bc")), 0u);
    EXPECT_EQ(rsa.Final(signature_), kGood);
}

TEST(RsaPadding, AnythingButPkcs1IsBad)
{
    for (std::string_view signature :
         {kPaddedAsPss, kPaddedAsGarbage, kPaddedForEncryption, kBareDigest, kTrailingGarbage, kUnpadded}) {
        EXPECT_EQ(Verify(kModulus2048, AOID_SHA256, Text("abc"), FromHex(signature)), kBad) << signature;
    }
}

TEST(RsaPadding, NumbersThatAreNoSignaturesAreBad)
{
    const Bytes modulus = FromHex(kModulus2048);
    for (const Bytes& number : {Bytes(256), Bytes(256, 0xFF), modulus, Cat(Bytes(255), Bytes{1})}) {
        EXPECT_EQ(Verify(kModulus2048, AOID_SHA256, Text("abc"), number), kBad);
    }
}

// Some signers drop the zero octet that such a signature begins with.
TEST(RsaLength, AnOctetShortIsFilledUpOnTheLeft)
{
    const Bytes dropped = FromHex(kShortSignature);
    ASSERT_EQ(dropped.size(), 255u);
    EXPECT_EQ(Verify(kModulus2048, AOID_SHA256, Text(kShortMessage), dropped), kGood);
    EXPECT_EQ(Verify(kModulus2048, AOID_SHA256, Text(kShortMessage), Cat(Bytes(1), dropped)), kGood);
    EXPECT_EQ(Verify(kModulus2048, AOID_SHA256, Text(kShortMessage), Cat(dropped, Bytes(1))), kBad);
}

// Its signatures have 129 octets, which are filled up to 132 although nothing is missing.
TEST(RsaLength, AKeyWhoseSizeIsNoMultipleOfFourNeverVerifies)
{
    EXPECT_EQ(Verify(kModulus1032, AOID_SHA256, Text("abc"), FromHex(kSignature1032Sha256)), kBad);
}

// Neither accepted nor read.
void ExpectRefused(const Verdict& verdict)
{
    EXPECT_TRUE(verdict == kBad || verdict.rc == PELNIC_ERR_FAILED) << verdict;
    EXPECT_NE(verdict.result, 1);
}

TEST(RsaLength, NoneIsRefused)
{
    const PNV_BYTE octet = 0;
    ExpectRefused(Rsa(kModulus2048, AOID_SHA256).Final(&octet, 0));
    ExpectRefused(Rsa(kModulus2048, AOID_SHA256).Final(nullptr, 0));
}

TEST(RsaLength, WithoutSignatureIsRefused)
{
    for (PNV_UINT32 length : {1u, 255u, 256u, 257u, 0xFFFFFFFCu}) {
        ExpectRefused(Rsa(kModulus2048, AOID_SHA256).Final(nullptr, length));
    }
}

TEST(RsaLength, BeyondTheLastMultipleOfFourIsRefused)
{
    const ExactHeap signature(FromHex(kSignature2048Sha256));
    for (PNV_UINT32 length : {0xFFFFFFFDu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        ExpectRefused(Rsa(kModulus2048, AOID_SHA256).Final(signature.data(), length));
    }
}

TEST(RsaContext, IsCreatedEmpty)
{
    Rsa rsa;
    EXPECT_EQ(rsa.Record().st_size, sizeof(CRYPTO_VRF));
    EXPECT_EQ(rsa.Record().md_ctx, nullptr);
    EXPECT_EQ(rsa.Record().pub, nullptr);
    EXPECT_EQ(pelnic_verify_ctx_create_impl(nullptr), PELNIC_ERR_FAILED);
}

TEST(RsaContext, InitTakesTheThreeSha2IdentifiersOnly)
{
    const Bytes modulus = FromHex(kModulus2048);
    for (PNV_UINT32 id = 0; id < 400; ++id) {
        const bool known = id == 43 || id == 44 || id == 45;
        Rsa rsa;
        EXPECT_EQ(rsa.Init(modulus, id), known ? 0u : PELNIC_ERR_FAILED) << id;
        EXPECT_EQ(rsa.Record().pub != nullptr, known) << id;
    }
}

TEST(RsaContext, RefusesNull)
{
    Rsa rsa;
    const PELNIC_BIGINT n = BigInt(FromHex(kModulus2048));
    EXPECT_EQ(_pnv_verify_init_impl(nullptr, &kExponent, &n, AOID_SHA256), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnv_verify_init_impl(rsa.Handle(), nullptr, &n, AOID_SHA256), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnv_verify_init_impl(rsa.Handle(), &kExponent, nullptr, AOID_SHA256), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_verify_update_impl(nullptr, n.aVal, 1), PELNIC_ERR_FAILED);
    _pnv_verify_ctx_destory_impl(nullptr);
}

TEST(RsaContext, UpdateTakesNullForNoOctets)
{
    Rsa rsa(kModulus2048, AOID_SHA256);
    EXPECT_EQ(pelnic_verify_update_impl(rsa.Handle(), nullptr, 1), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_verify_update_impl(rsa.Handle(), nullptr, 0), 0u);
    EXPECT_EQ(rsa.Update(Text("abc")), 0u);
    EXPECT_EQ(rsa.Final(FromHex(kSignature2048Sha256)), kGood);
}

TEST(RsaContext, FinalNeedsAPlaceForTheVerdict)
{
    Rsa rsa(kModulus2048, AOID_SHA256);
    const Bytes signature = FromHex(kSignature2048Sha256);
    EXPECT_EQ(_pnv_verify_final_impl(rsa.Handle(), signature.data(), Len(signature), nullptr), PELNIC_ERR_FAILED);
}

TEST(RsaContext, RefusesNumbersBeyond4096Bits)
{
    PELNIC_BIGINT e = kExponent;
    PELNIC_BIGINT n = BigInt(FromHex(kModulus4096));
    for (PNV_UINT32 length : {513u, 0x80000000u, 0xFFFFFFFFu}) {
        Rsa rsa;
        n.uiLength = length;
        EXPECT_EQ(_pnv_verify_init_impl(rsa.Handle(), &kExponent, &n, AOID_SHA256), PELNIC_ERR_FAILED);
        EXPECT_EQ(rsa.Record().pub, nullptr);
        n.uiLength = 512;
        e.uiLength = length;
        EXPECT_EQ(_pnv_verify_init_impl(rsa.Handle(), &e, &n, AOID_SHA256), PELNIC_ERR_FAILED);
        EXPECT_EQ(rsa.Record().pub, nullptr);
        EXPECT_EQ(pelnic_verify_update_impl(rsa.Handle(), kExponent.aVal, 1), PELNIC_ERR_FAILED) << "nothing begun";
    }
}

TEST(RsaContext, TakesNumbersWithLeadingZeros)
{
    Rsa rsa;
    const PELNIC_BIGINT n = BigInt(Cat(Bytes(1), FromHex(kModulus2048)));
    const PELNIC_BIGINT e = BigInt({0x00, 0x01, 0x00, 0x01});
    ASSERT_EQ(_pnv_verify_init_impl(rsa.Handle(), &e, &n, AOID_SHA256), 0u);
    EXPECT_EQ(rsa.Update(Text("abc")), 0u);
    EXPECT_EQ(rsa.Final(FromHex(kSignature2048Sha256)), kGood);
}

TEST(RsaContext, AcceptsNothingUnderImpossibleKeys)
{
    const PELNIC_BIGINT n = BigInt(FromHex(kModulus2048));
    const PELNIC_BIGINT none = BigInt({});
    const PELNIC_BIGINT zero = BigInt({0x00});
    const PELNIC_BIGINT one = BigInt({0x01});
    const std::pair<const PELNIC_BIGINT*, const PELNIC_BIGINT*> keys[] = {
        {&kExponent, &none}, {&kExponent, &zero}, {&kExponent, &one}, {&none, &n}, {&zero, &n}, {&n, &n}};
    for (const auto& [e, modulus] : keys) {
        Rsa rsa;
        if (_pnv_verify_init_impl(rsa.Handle(), e, modulus, AOID_SHA256) != 0) continue;
        EXPECT_EQ(rsa.Update(Text("abc")), 0u);
        EXPECT_EQ(rsa.Final(FromHex(kSignature2048Sha256)), kBad);
    }
}

TEST(RsaContext, UpdateFailsBeforeInit)
{
    Rsa rsa;
    EXPECT_EQ(rsa.Update(Text("abc")), PELNIC_ERR_FAILED);
}

// The only line that the default callbacks ever write.
template <typename Step> void ExpectComplaint(Step step)
{
    const Output output = OutputOf(step);
    EXPECT_EQ(output.out, "Para is wrong\r\n");
    EXPECT_EQ(output.err, "");
}

TEST(RsaContext, FinalComplainsWithoutContext)
{
    PNV_INT result = kNoVerdict;
    const PNV_BYTE octet = 0;
    ExpectComplaint([&] { EXPECT_EQ(_pnv_verify_final_impl(nullptr, &octet, 1, &result), PELNIC_ERR_FAILED); });
    EXPECT_NE(result, 1);
}

TEST(RsaContext, FinalComplainsBeforeInit)
{
    Rsa rsa;
    ExpectComplaint([&] { EXPECT_EQ(rsa.Final(FromHex(kSignature2048Sha256)).rc, PELNIC_ERR_FAILED); });
}

TEST(RsaContext, FinalComplainsAfterAnInitThatFailed)
{
    Rsa rsa;
    EXPECT_EQ(rsa.Init(FromHex(kModulus2048), AOID_UNKNOWN), PELNIC_ERR_FAILED);
    ExpectComplaint([&] { EXPECT_EQ(rsa.Final(FromHex(kSignature2048Sha256)).rc, PELNIC_ERR_FAILED); });
}

TEST(RsaContext, ASecondInitBeginsAnew)
{
    Rsa rsa(kModulus2048, AOID_SHA256);
    EXPECT_EQ(rsa.Update(Text("forgotten")), 0u);
    EXPECT_EQ(rsa.Init(FromHex(kModulus3072), AOID_SHA512), 0u);
    EXPECT_EQ(rsa.Update(Text("abc")), 0u);
    EXPECT_EQ(rsa.Final(FromHex(kSignature3072Sha512)), kGood);
}

TEST(RsaContext, ASecondInitThatFailsLeavesNoKey)
{
    Rsa rsa(kModulus2048, AOID_SHA256);
    EXPECT_EQ(rsa.Update(Text("abc")), 0u);
    EXPECT_EQ(rsa.Init(FromHex(kModulus2048), AOID_UNKNOWN), PELNIC_ERR_FAILED);
    EXPECT_EQ(rsa.Record().pub, nullptr);
    ExpectComplaint([&] { EXPECT_EQ(rsa.Final(FromHex(kSignature2048Sha256)).rc, PELNIC_ERR_FAILED); });
}

TEST(RsaContext, IsSilentAboutBadSignatures)
{
    ExpectSilent([] {
        EXPECT_EQ(Verify(kModulus2048, AOID_SHA256, Text("abc"), Bytes(256)), kBad);
        EXPECT_EQ(Verify(kModulus2048, AOID_SHA256, Text("abc"), Bytes(255)), kBad);
    });
}

// ---- The error queue ----

void RaiseAnError()
{
    ERR_raise(ERR_LIB_USER, 1);
    ASSERT_NE(ERR_peek_error(), 0u);
}

TEST(OpenSslErrors, AreClearedWithEveryContext)
{
    {
        Md md(AOID_SHA256);
        RaiseAnError();
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
    {
        Rsa rsa(kModulus2048, AOID_SHA256);
        RaiseAnError();
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(OpenSslErrors, StayWhereThereIsNoContext)
{
    RaiseAnError();
    _pnv_md_ctx_destory_impl(nullptr);
    _pnv_verify_ctx_destory_impl(nullptr);
    EXPECT_NE(ERR_peek_error(), 0u);
    ERR_clear_error();
}

TEST(OpenSslErrors, CleaningUpLeavesOpenSslUsable)
{
    Md md(AOID_SHA256);
    EXPECT_EQ(md.Update(Text("a")), 0u);
    pnv_openssl_uninit();
    pnv_openssl_uninit();
    EXPECT_EQ(md.Update(Text("bc")), 0u);
    EXPECT_EQ(md.Final(), FromHex(kSha256OfAbc));
    EXPECT_EQ(Md(AOID_SHA256).Update(Text("abc")), 0u);
}

} // namespace
} // namespace pnvtest
