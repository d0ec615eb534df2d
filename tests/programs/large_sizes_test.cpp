// Sizes around 256 MiB, where bounds-checked memory functions have a limit of their own: the default callbacks have
// none, nothing is read beyond a block, and no code leaves that is not of the library's table. The host has the memory
// for it, a board has not.
#include "cmsverify/pelnic_asn1_decode.h"
#include "cmsverify/pelnic_callback_fun.h"
#include "cmsverify/pelnic_plt_proxy.h"

#include "support/checker.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/stores.h"
#include "support/temp_dir.h"

#include <sys/mman.h>

#include <cstring>

namespace pnvtest {
namespace {

constexpr PNV_UINT32 kLimit = 256u << 20;

// Fresh pages, zeros of which only those that are written take memory.
class Pages {
public:
    explicit Pages(std::size_t size) : size_(size)
    {
        void* const pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED) Misuse("no memory for the test");
        octets_ = static_cast<PNV_BYTE*>(pages);
    }
    ~Pages() { munmap(octets_, size_); }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;

    PNV_BYTE* data() { return octets_; }

private:
    std::size_t size_;
    PNV_BYTE* octets_;
};

bool IsAll(const PNV_BYTE* octets, std::size_t size, PNV_BYTE value)
{
    return octets[0] == value && std::memcmp(octets, octets + 1, size - 1) == 0;
}

class LargeSizes : public ::testing::TestWithParam<PNV_UINT32> {
protected:
    void SetUp() override
    {
        if (sizeof(void*) < 8) GTEST_SKIP() << "a board has no such memory";
        params_.st_size = sizeof params_;
        ASSERT_EQ(pelnic_set_callback_funcs(&params_.callback_funcs), 0u);
        // The product's table, but a block comes with what somebody left in it.
        params_.callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc = [](void** out, PNV_UINT32 size) {
            const PELNIC_ERROR_CODE rc = pnv_malloc_impl(out, size);
            if (*out != nullptr) std::memset(*out, 'A', size);
            return rc;
        };
        ASSERT_EQ(pelnic_verify_create_ctx(&ctx_, &params_), 0u);
    }
    void TearDown() override
    {
        if (ctx_ != nullptr) (void)pelnic_vrf_ctx_free(ctx_);
    }
    PELNIC_VRF* Vrf() { return static_cast<PELNIC_VRF*>(ctx_); }

    // An armour without an end.
    static void Fill(Pages* input, const std::string& head)
    {
        std::memset(input->data(), 'A', GetParam());
        std::memcpy(input->data(), head.data(), head.size());
    }

    PELNIC_CTX_CREATE_PARAMS params_{};
    PELNIC_VRF_CTX ctx_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(AroundTheLimit, LargeSizes, ::testing::Values(kLimit - 1, kLimit, kLimit + 1));

TEST_P(LargeSizes, AreFilledAndCopied)
{
    const PNV_UINT32 size = GetParam();
    Pages from(size);
    Pages to(size + 1);
    ASSERT_EQ(pnv_memset_s_impl(from.data(), size, 0x5A, size), 0u);
    EXPECT_TRUE(IsAll(from.data(), size, 0x5A));
    ASSERT_EQ(pnv_memcpy_s_impl(to.data(), size, from.data(), size), 0u);
    EXPECT_TRUE(IsAll(to.data(), size, 0x5A));
    EXPECT_EQ(to.data()[size], 0);
    to.data()[0] = 0x11;
    ASSERT_EQ(pnv_memmove_s_impl(to.data() + 1, size, to.data(), size), 0u);
    EXPECT_EQ(to.data()[1], 0x11);
    EXPECT_TRUE(IsAll(to.data() + 2, size - 1, 0x5A));
}

TEST_P(LargeSizes, AreClearedWhenAllocated)
{
    void* block = nullptr;
    ASSERT_EQ(pelnic_malloc_with0(Vrf(), &block, GetParam()), 0u);
    EXPECT_TRUE(IsAll(static_cast<PNV_BYTE*>(block), GetParam(), 0));
    pelnic_free(Vrf(), block);
}

TEST_P(LargeSizes, OfACrlInPemAreReadToTheirEnd)
{
    Pages input(GetParam());
    Fill(&input, "-----BEGIN X509 CRL-----\n");
    EXPECT_EQ(pelnic_verify_add_crl(ctx_, input.data(), GetParam()), PELNIC_ERR_CRL_DECODE);
    EXPECT_EQ(Vrf()->crl_list.num, 0u);
}

TEST_P(LargeSizes, OfASignatureInPemAreReadToTheirEnd)
{
    Pages input(GetParam());
    Fill(&input, "-----BEGIN CMS-----\n");
    EXPECT_EQ(pelnic_verify_detach_signature_begin(ctx_, input.data(), GetParam()), PELNIC_ERR_CMS_FORMAT);
}

TEST_P(LargeSizes, OfOneElementAreDecoded)
{
    const PNV_UINT32 size = GetParam();
    const Bytes header{0x04,
                       0x84,
                       static_cast<PNV_BYTE>(size >> 24),
                       static_cast<PNV_BYTE>(size >> 16),
                       static_cast<PNV_BYTE>(size >> 8),
                       static_cast<PNV_BYTE>(size)};
    Pages input(header.size() + size);
    std::memcpy(input.data(), header.data(), header.size());
    input.data()[header.size() + size - 1] = 0x5A;
    PELNIC_ASN_OCTS* octets = nullptr;
    PNV_UINT32 decoded = 0;
    ASSERT_EQ(_pnvDecode<PELNIC_ASN_OCTS_item>(Vrf(), input.data(), Len(header) + size, 0, &octets, &decoded), 0u);
    EXPECT_EQ(decoded, Len(header) + size);
    ASSERT_EQ(octets->len, size);
    EXPECT_EQ(octets->octs[0], 0);
    EXPECT_EQ(octets->octs[size - 1], 0x5A);
    EXPECT_EQ(Vrf()->nCallbackFaults, 0u);
    pelnic_asn_free(Vrf(), octets, &PELNIC_ASN_OCTS_item, 0);
}

// The line has a code of the table, 0x88200102 of the CRL or 0x88200312 of the signature that is none.
TEST_P(LargeSizes, OfPackagesEndInACodeOfTheTable)
{
    const TempDir dir;
    PackageSpec package = SignedPackage(Bytes(1), Bytes(60), Text("-----BEGIN X509 CRL-----\n"));
    package.subFiles[2].length = GetParam();
    const std::string path = dir.WriteSparse("package", packageHeaderSize + 61 + GetParam(), Build(package));
    EXPECT_EQ(RunChecker(PkgcheckTestRootPath(), path), RefusedWith("0x88200102"));
}

} // namespace
} // namespace pnvtest
