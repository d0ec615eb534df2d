// What is answered where the machine has no memory: each default callback has its own way to say so, and whoever meets
// the answer passes it on as it is. The linker gives this program's calls of malloc to the function below.
#include "cmsverify/pelnic_callback_fun.h"
#include "support/signature_cases.h"
#include "support/vrf.h"
#include "verify_signature.h"

namespace {

bool g_hasNone = false;

}

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size)
{
    return g_hasNone ? nullptr : __real_malloc(size);
}

namespace pnvtest {
namespace {

// For what happens while it lives.
class NoMemory {
public:
    NoMemory() { g_hasNone = true; }
    ~NoMemory() { g_hasNone = false; }
};

TEST(DefaultsWithoutMemory, AllocateNothing)
{
    char before = 0;
    void* block = &before;
    const NoMemory none;
    EXPECT_EQ(pnv_malloc_impl(&block, 16), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(block, nullptr);
}

TEST(DefaultsWithoutMemory, MakeNoDigest)
{
    PELNIC_CRYPTO_MD_CTX md = nullptr;
    const NoMemory none;
    EXPECT_EQ(_pnv_md_ctx_create_impl(&md), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(md, nullptr);
}

TEST(DefaultsWithoutMemory, MakeNoVerification)
{
    PELNIC_CRYPTO_VRF_CTX vrf = nullptr;
    const NoMemory none;
    EXPECT_EQ(pelnic_verify_ctx_create_impl(&vrf), PELNIC_ERR_FAILED);
    EXPECT_EQ(vrf, nullptr);
}

// A signature whose length is no multiple of four is checked in a longer copy.
TEST(DefaultsWithoutMemory, CheckNoSignatureThatNeedsACopy)
{
    const Key& key = TestKey(KeyId::Rsa2048A);
    PELNIC_BIGINT e{Len(key.exponent), {}};
    PELNIC_BIGINT n{Len(key.modulus), {}};
    std::copy(key.exponent.begin(), key.exponent.end(), e.aVal);
    std::copy(key.modulus.begin(), key.modulus.end(), n.aVal);
    const Bytes signature(255, 0x01);
    PELNIC_CRYPTO_VRF_CTX vrf = nullptr;
    ASSERT_EQ(pelnic_verify_ctx_create_impl(&vrf), 0u);
    EXPECT_EQ(_pnv_verify_init_impl(vrf, &e, &n, AOID_SHA256), 0u);
    PNV_INT result = 77;
    {
        const NoMemory none;
        EXPECT_EQ(_pnv_verify_final_impl(vrf, signature.data(), Len(signature), &result), PELNIC_ERR_FAILED);
    }
    EXPECT_NE(result, 1);
    _pnv_verify_ctx_destory_impl(vrf);
}

TEST(CheckerWithoutMemory, PassesOnWhatCreatingTheContextSays)
{
    const Case input = cases::Good();
    const PELNIC_VERIFY_SIGNATURE_S sig{input.anchors.root.data(), Len(input.anchors.root), input.anchors.crls.data(),
                                        Len(input.anchors.crls),   input.signature.data(),  Len(input.signature),
                                        input.content.data(),      Len(input.content)};
    ASSERT_EQ(Pelnic_Verify_Signature_Integrity(&sig), 0u);
    const NoMemory none;
    EXPECT_EQ(Pelnic_Verify_Signature_Integrity(&sig), PELNIC_ERR_SYS_MEM_ALLOC);
}

// ---- An allocator with a code of its own ----

constexpr PELNIC_ERROR_CODE kOwnCode = 0x12345678;
std::size_t g_allocations = 0; // before it fails

PELNIC_ERROR_CODE Malloc(void** out, PNV_UINT32 size)
{
    *out = nullptr;
    return g_allocations-- == 0 ? kOwnCode : pnv_malloc_impl(out, size);
}

PELNIC_ERROR_CODE CreateAfter(std::size_t allocations, PELNIC_VRF_CTX* ctx)
{
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof(params);
    (void)pelnic_set_callback_funcs(&params.callback_funcs);
    params.callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc = Malloc;
    g_allocations = allocations;
    return pelnic_verify_create_ctx(ctx, &params);
}

TEST(ContextWithoutMemory, HasTheAllocatorsCode)
{
    char before = 0;
    PELNIC_VRF_CTX ctx = &before;
    EXPECT_EQ(CreateAfter(0, &ctx), kOwnCode); // none for the context
    EXPECT_EQ(ctx, &before);
    EXPECT_EQ(CreateAfter(1, &ctx), kOwnCode); // none for what it keeps certificates in
    EXPECT_EQ(ctx, nullptr);
}

} // namespace
} // namespace pnvtest
