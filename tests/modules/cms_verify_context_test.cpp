// The verify context: which parameters make one, what it begins with, and how it is freed.
#include "cmsverify/cms_verify.h"

#include "cmsverify/pelnic_plt_proxy.h"
#include "support/cms.h"
#include "support/stores.h"

#include <cstring>

namespace pnvtest {
namespace {

// A value that no operation writes to a handle.
PELNIC_VRF_CTX Mark()
{
    static char mark;
    return &mark;
}

struct Created {
    PELNIC_ERROR_CODE rc = 0;
    PELNIC_VRF_CTX handle = Mark();
};

Created Create(const PELNIC_CTX_CREATE_PARAMS& params)
{
    Created created;
    created.rc = pelnic_verify_create_ctx(&created.handle, &params);
    return created;
}

PELNIC_CTX_CREATE_PARAMS ParamsOf(CallbackPlan& plan)
{
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof(params);
    params.callback_funcs = plan.Table();
    return params;
}

// ---- The tests of the creation parameters ----

class CreateParams : public ::testing::Test {
protected:
    // Both the test itself and the operation that begins with it answer this, and neither takes or logs anything.
    void ExpectRefused(PELNIC_ERROR_CODE code)
    {
        EXPECT_EQ(_pnvCheckCreateParams(&params_), code);
        const Created created = Create(params_);
        EXPECT_EQ(created.rc, code);
        EXPECT_EQ(created.handle, Mark());
        EXPECT_EQ(plan_.Count(Call::Malloc), 0u);
        EXPECT_TRUE(plan_.Logs().empty());
    }
    void ExpectTaken()
    {
        EXPECT_EQ(_pnvCheckCreateParams(&params_), 0u);
        const Created created = Create(params_);
        ASSERT_EQ(created.rc, 0u);
        EXPECT_EQ(pelnic_vrf_ctx_free(created.handle), 0u);
    }

    CleanPlan plan_;
    PELNIC_CTX_CREATE_PARAMS params_ = ParamsOf(plan_);
    PELNIC_PLT_FUNCS& plt_ = params_.callback_funcs.plt_funcs;
    PELNIC_SYS_FUNCS& sys_ = plt_.sys_funcs;
};

TEST_F(CreateParams, AreTakenWhenComplete)
{
    ExpectTaken();
}

TEST_F(CreateParams, HaveFourSizes)
{
    for (size_t* size : {&params_.st_size, &params_.callback_funcs.st_size, &plt_.st_size, &sys_.st_size}) {
        const size_t right = *size;
        for (size_t wrong : {size_t{0}, right - 1, right + 1, SIZE_MAX}) {
            *size = wrong;
            ExpectRefused(PELNIC_ERR_INVALID_SIZE);
        }
        *size = right;
    }
}

TEST_F(CreateParams, HaveTwoSizesThatNobodyLooksAt)
{
    params_.callback_funcs.md_funcs.size = 0;
    params_.callback_funcs.crypt_funcs.size = 0;
    ExpectTaken();
}

// Clears one callback for the rest of the scope.
template <typename Callback> struct Without {
    explicit Without(Callback& callback) : place(callback), saved(std::exchange(callback, nullptr)) {}
    ~Without() { place = saved; }
    Callback& place;
    Callback saved;
};

TEST_F(CreateParams, NeedEachRequiredCallback)
{
    const auto refusedWithout = [&](auto&... callbacks) {
        const auto check = [&](auto& callback) {
            const Without without(callback);
            ExpectRefused(PELNIC_ERR_CALLBACK_MISSING);
        };
        (check(callbacks), ...);
    };
    PELNIC_SYS_MEM_FUNCS& mem = sys_.mem_funcs;
    refusedWithout(mem.malloc, mem.free, mem.memcmp, mem.memcpy_s, mem.memmove_s, mem.memset_s);
    PELNIC_SYS_STR_FUNCS& str = sys_.str_funcs;
    refusedWithout(str.pf_strcat_s, str.pf_strchr, str.pf_strcmp, str.pf_strcpy_s, str.pf_strlen, str.pf_strncmp,
                   str.pf_strstr);
    PELNIC_SYS_FILE_FUNCS& file = sys_.file_funcs;
    refusedWithout(file.fclose, file.fopen, file.fread);
    PELNIC_MD_FUNCS& md = params_.callback_funcs.md_funcs;
    refusedWithout(md.pelnic_md_ctx_create, md.pelnic_md_init, md.pelnic_md_update, md.pelnic_md_final,
                   md.pelnic_md_ctx_destory);
    PELNIC_CRYPTO_FUNCS& crypt = params_.callback_funcs.crypt_funcs;
    refusedWithout(crypt.pelnic_verify_ctx_create, crypt.pelnic_verify_init, crypt.pelnic_verify_update,
                   crypt.pelnic_verify_final, crypt.pelnic_verify_ctx_destory);
    ExpectTaken();
}

TEST_F(CreateParams, NeedTwoMissingCallbacksAsMuchAsOne)
{
    const Without noMalloc(sys_.mem_funcs.malloc);
    const Without noStrstr(sys_.str_funcs.pf_strstr);
    ExpectRefused(PELNIC_ERR_CALLBACK_MISSING);
}

TEST_F(CreateParams, HaveTheirSizesTestedBeforeTheirCallbacks)
{
    const Without noMalloc(sys_.mem_funcs.malloc);
    sys_.st_size = 0;
    ExpectRefused(PELNIC_ERR_INVALID_SIZE);
}

TEST_F(CreateParams, DoWithoutTheOptionalCallbacks)
{
    sys_.str_funcs.pf_vsnprintf_s = nullptr;
    sys_.file_funcs.get_file_size = nullptr;
    sys_.plt_funcs = {};
    plt_.log_funcs.log_func = nullptr;
    ExpectTaken();
}

// ---- Creation ----

TEST(CreateContext, RefusesNullArguments)
{
    CleanPlan plan;
    const PELNIC_CTX_CREATE_PARAMS params = ParamsOf(plan);
    PELNIC_VRF_CTX handle = Mark();
    EXPECT_EQ(pelnic_verify_create_ctx(nullptr, &params), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_verify_create_ctx(&handle, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(handle, Mark());
    EXPECT_EQ(plan.Count(Call::Malloc), 0u);
    EXPECT_TRUE(plan.Logs().empty());
}

// The block comes dirty from the allocator.
TEST(CreateContext, BeginsWithTheTableAndNothingElse)
{
    CleanPlan plan;
    const Created created = Create(ParamsOf(plan));
    ASSERT_EQ(created.rc, 0u);
    auto* vrf = static_cast<PELNIC_VRF*>(created.handle);
    EXPECT_EQ(vrf->st_size, sizeof(PELNIC_VRF));
    EXPECT_EQ(std::memcmp(&vrf->callback_funcs, &plan.Table(), sizeof(plan.Table())), 0);
    ASSERT_NE(vrf->pki_ctx, nullptr);
    EXPECT_EQ(static_cast<PELNIC_PKI*>(vrf->pki_ctx)->st_size, sizeof(PELNIC_PKI));

    PELNIC_VRF rest = *vrf;
    rest.st_size = 0;
    rest.callback_funcs = {};
    rest.pki_ctx = nullptr;
    EXPECT_EQ(rest.crl_frozen, 0u);
    EXPECT_EQ(rest.vrf_params.st_size, 0u);
    EXPECT_EQ(rest.vrf_params.no_check_crl, 0);
    EXPECT_EQ(rest.crl_list.num, 0u);
    EXPECT_EQ(rest.crl_list.data, nullptr);
    EXPECT_EQ(rest.crl_list.capacity, 0u);
    EXPECT_EQ(rest.vrf_proc.md_info_list.num, 0u);
    EXPECT_EQ(rest.vrf_proc.md_info_list.data, nullptr);
    EXPECT_EQ(rest.vrf_proc.md_info_list.capacity, 0u);
    EXPECT_EQ(rest.base_time, 0);
    EXPECT_EQ(rest.last_err, 0u);
    EXPECT_EQ(rest.curr_depth, 0);
    const Bytes reserved(rest.resv, rest.resv + sizeof(rest.resv));
    EXPECT_EQ(reserved, Bytes(64, 0));
    EXPECT_EQ(pelnic_vrf_ctx_free(created.handle), 0u);
}

TEST(CreateContext, KeepsNothingOfTheParameters)
{
    CleanPlan plan;
    PELNIC_CTX_CREATE_PARAMS params = ParamsOf(plan);
    const Created created = Create(params);
    params = {};
    EXPECT_EQ(pelnic_vrf_ctx_free(created.handle), 0u);
}

TEST(CreateContext, PassesOnWhatTheAllocatorSays)
{
    CleanPlan plan;
    PELNIC_CTX_CREATE_PARAMS params = ParamsOf(plan);
    params.callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc = [](void** out, PNV_UINT32 size) {
        EXPECT_EQ(size, sizeof(PELNIC_VRF));
        *out = nullptr;
        return PELNIC_ERROR_CODE{0x1234};
    };
    const Created created = Create(params);
    EXPECT_EQ(created.rc, 0x1234u);
    EXPECT_EQ(created.handle, Mark());
    EXPECT_EQ(plan.Count(Call::Memset | Call::Free), 0u);
}

TEST(CreateContext, RefusesASuccessWithoutABlock)
{
    CleanPlan plan;
    PELNIC_CTX_CREATE_PARAMS params = ParamsOf(plan);
    params.callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc = [](void** out, PNV_UINT32) {
        *out = nullptr;
        return PELNIC_ERROR_CODE{0};
    };
    const Created created = Create(params);
    EXPECT_EQ(created.rc, PELNIC_ERR_SYS_MEM_SET);
    EXPECT_EQ(created.handle, nullptr);
}

TEST(CreateContext, ReleasesWhatItCannotClear)
{
    CleanPlan plan;
    plan.Fail(Call::Memset, 1);
    const Created created = Create(ParamsOf(plan));
    EXPECT_EQ(created.rc, PELNIC_ERR_SYS_MEM_SET);
    EXPECT_EQ(created.handle, nullptr);
    EXPECT_TRUE(plan.Logs().empty());
}

TEST(CreateContext, NeedsAPkiObject)
{
    for (const auto& [call, rc] :
         {std::pair(Call::Malloc, PELNIC_ERR_SYS_MEM_ALLOC), std::pair(Call::Memset, injectedFault)}) {
        CleanPlan plan;
        plan.Fail(call, 2);
        const Created created = Create(ParamsOf(plan));
        EXPECT_EQ(created.rc, rc);
        EXPECT_EQ(created.handle, nullptr);
        EXPECT_TRUE(plan.Logs().empty());
    }
}

// ---- The test of the handle ----

// Whatever is wrong with a handle, nobody hears of it.
TEST(ContextHandle, IsTestedWithoutALog)
{
    CleanPlan plan;
    Context context(plan);
    const PELNIC_VRF_PARAMS params{sizeof(params), 0, {}};
    for (size_t wrong : {size_t{0}, sizeof(PELNIC_VRF) - 1, sizeof(PELNIC_VRF) + 1}) {
        context->st_size = wrong;
        EXPECT_EQ(pelnic_set_verify_params(context, &params), PELNIC_ERR_INVALID_SIZE);
        EXPECT_EQ(pelnic_set_verify_params(context, nullptr), PELNIC_ERR_INVALID_SIZE);
        EXPECT_EQ(pelnic_vrf_ctx_free(context), PELNIC_ERR_INVALID_SIZE);
    }
    context->st_size = sizeof(PELNIC_VRF);
    EXPECT_EQ(pelnic_set_verify_params(nullptr, &params), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_vrf_ctx_free(nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(plan.Logs().empty());
}

// ---- Parameters ----

TEST(VerifyParams, RefuseNull)
{
    CleanPlan plan;
    Context context(plan);
    EXPECT_EQ(pelnic_set_verify_params(context, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan, PELNIC_ERR_NULL_POINTER));
}

TEST(VerifyParams, RefuseAnotherSize)
{
    CleanPlan plan;
    Context context(plan);
    for (size_t wrong : {size_t{0}, sizeof(PELNIC_VRF_PARAMS) - 1, sizeof(PELNIC_VRF_PARAMS) + 1}) {
        plan.ClearLogs();
        const PELNIC_VRF_PARAMS params{wrong, 1, {}};
        EXPECT_EQ(pelnic_set_verify_params(context, &params), PELNIC_ERR_INVALID_SIZE);
        EXPECT_TRUE(LoggedError(plan, PELNIC_ERR_INVALID_SIZE));
        EXPECT_EQ(context->vrf_params.no_check_crl, 0);
    }
}

TEST(VerifyParams, AreCopiedWhole)
{
    CleanPlan plan;
    Context context(plan);
    PELNIC_VRF_PARAMS params;
    std::memset(&params, 0x5A, sizeof(params));
    params.st_size = sizeof(params);
    EXPECT_EQ(pelnic_set_verify_params(context, &params), 0u);
    EXPECT_EQ(std::memcmp(&context->vrf_params, &params, sizeof(params)), 0);
    EXPECT_TRUE(plan.Logs().empty());
}

TEST(VerifyParams, SwitchTheCrlCheckForWhatFollows)
{
    const DemoPki pki;
    CleanPlan plan;
    Stores stores(plan);
    stores.Trust(pki.root);
    stores.Trust(pki.signingCa);
    stores.AddCrl(With(pki.signingCrl, &CrlSpec::revoked, std::vector<RevokedSpec>{{pki.signer.serial}}));
    const PELNIC_X509_CRL* crl = stores.Crls().data[0];
    for (PNV_INT off : {1, -1, 256}) {
        const PELNIC_VRF_PARAMS params{sizeof(params), off, {}};
        EXPECT_EQ(pelnic_set_verify_params(static_cast<PELNIC_VRF*>(stores), &params), 0u);
        EXPECT_EQ(stores.Verify(pki.signer), 0u);
    }
    for (const VerifyRequest& request : plan.VerifyRequests()) EXPECT_NE(request.data, Content(*crl->raw_signed));
    const PELNIC_VRF_PARAMS on{sizeof(on), 0, {}};
    EXPECT_EQ(pelnic_set_verify_params(static_cast<PELNIC_VRF*>(stores), &on), 0u);
    EXPECT_NE(stores.Verify(pki.signer), 0u);
}

// ---- Release ----

// What is left is the plan's business: it misses every block, digest and verification.
TEST(FreeContext, ReleasesStoresAndParkedCrls)
{
    const DemoPki pki;
    CleanPlan plan;
    Context context(plan);
    const Bytes certs = Cat(Build(pki.root), Build(pki.signingCa), Build(pki.signer));
    ASSERT_EQ(pelnic_verify_add_cert(context, certs.data(), Len(certs)), 0u);
    const Bytes crls = pki.Crls();
    ASSERT_EQ(pelnic_verify_add_crl(context, crls.data(), Len(crls)), 0u);
    EXPECT_EQ(context->crl_list.num, 3u);
}

class FreeContextMidway : public ::testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(, FreeContextMidway, ::testing::Bool(),
                         [](const auto& run) { return run.param ? "SignedAttributes" : "SignedContent"; });

TEST_P(FreeContextMidway, ReleasesTheVerificationInProgress)
{
    const DemoPki pki;
    CmsSpec spec = DemoCms(pki);
    if (!GetParam()) spec.signers[0].signedAttributes = nullptr;
    const Bytes cms = DetachedCms(Text("content"), spec);
    const Bytes root = Build(pki.root);
    const Bytes crls = pki.Crls();
    CleanPlan plan;
    Context context(plan);
    ASSERT_EQ(pelnic_verify_add_cert(context, root.data(), Len(root)), 0u);
    ASSERT_EQ(pelnic_verify_add_crl(context, crls.data(), Len(crls)), 0u);
    ASSERT_EQ(pelnic_verify_detach_signature_begin(context, cms.data(), Len(cms)), 0u);
    EXPECT_EQ(plan.Count(Call::MdCreate) - plan.Count(Call::MdDestroy), GetParam() ? 1u : 0u);
    EXPECT_EQ(plan.Count(Call::VerifyCreate) - plan.Count(Call::VerifyDestroy), GetParam() ? 0u : 1u);
}

TEST(FreeContext, TakesNothingFromABrokenHandle)
{
    CleanPlan plan;
    Context context(plan);
    context->st_size ^= 1;
    EXPECT_EQ(pelnic_vrf_ctx_free(context), PELNIC_ERR_INVALID_SIZE);
    EXPECT_EQ(plan.Count(Call::Free), 0u);
    context->st_size ^= 1;
}

// ---- Entries of a verification ----

class MdInfo : public ::testing::Test {
protected:
    MdInfo() { EXPECT_EQ(pelnic_malloc_with0(vrf_, reinterpret_cast<void**>(&info_), sizeof(*info_)), 0u); }
    void AddDigest() { EXPECT_EQ(pelnic_md_ctx_create(vrf_, &info_->digestCtx), 0u); }
    void AddSignature()
    {
        EXPECT_EQ(pelnic_verify_ctx_create(vrf_, &info_->vrfCtx), 0u);
        info_->nSignature = 16;
        EXPECT_EQ(pelnic_malloc(vrf_, reinterpret_cast<void**>(&info_->pbSignature), info_->nSignature), 0u);
    }

    Vrf vrf_;
    PELNIC_VERIFY_DIGEST_INFO* info_ = nullptr;
};

TEST_F(MdInfo, FreesADigestEntry)
{
    AddDigest();
    _pnvFreeMdInfo(vrf_, info_);
}

TEST_F(MdInfo, FreesASignatureEntry)
{
    AddSignature();
    _pnvFreeMdInfo(vrf_, info_);
}

TEST_F(MdInfo, FreesAnEntryWithoutContext)
{
    _pnvFreeMdInfo(vrf_, info_);
}

// An entry holds one kind of context: with a digest there is no signature to look for.
TEST_F(MdInfo, FreesTheDigestAlone)
{
    AddDigest();
    AddSignature();
    const PELNIC_CRYPTO_VRF_CTX signature = info_->vrfCtx;
    PNV_BYTE* octets = info_->pbSignature;
    _pnvFreeMdInfo(vrf_, info_);
    EXPECT_EQ(vrf_.Plan().Count(Call::MdDestroy), 1u);
    EXPECT_EQ(vrf_.Plan().Count(Call::VerifyDestroy), 0u);
    pelnic_verify_ctx_destory(vrf_, signature);
    pelnic_free(vrf_, octets);
}

TEST_F(MdInfo, IgnoresNull)
{
    _pnvFreeMdInfo(vrf_, nullptr);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
    _pnvFreeMdInfo(vrf_, info_);
}

// ---- Version ----

TEST(Version, IsAConstant)
{
    EXPECT_STREQ(pelnic_get_version(), "4.2.0.300-build001");
    EXPECT_EQ(pelnic_get_version(), pelnic_get_version());
}

} // namespace
} // namespace pnvtest
