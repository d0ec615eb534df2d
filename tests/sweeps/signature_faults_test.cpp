// Whole verifications with callbacks that fail: the n-th call alone, or that call and all after it, for every n. What a
// good signature comes to may change; what a bad one comes to may not. When the same is asked again on that context and
// nothing fails, the answer is that of a fresh one.
#include "support/signature_cases.h"

#include <algorithm>

namespace pnvtest {
namespace {

using namespace cases;

const Bytes kContent = Text("a firmware image");

// In a context that was made and filled without faults, and then once more. A CRL that got lost on its way into the
// store, which the caller has been told, allows of nothing but a refusal.
Verdict VerifyCase(CallbackPlan& plan, const Case& input, std::optional<Verdict> fresh = {})
{
    std::optional<Context> ctx;
    std::set<Bytes> given;
    plan.WithoutFaults([&] {
        ctx.emplace(plan);
        Provide(*ctx, input.anchors);
        given = InputsOf(ctx->Record());
    });
    const Verdict verdict = Verify(*ctx, input.signature, input.content);
    plan.WithoutFaults([&] {
        (void)Final(*ctx); // ends what may be in progress
        const std::set<Bytes> held = InputsOf(ctx->Record());
        const bool holdsAll = std::includes(held.begin(), held.end(), given.begin(), given.end());
        const Verdict again = Verify(*ctx, input.signature, input.content);
        const bool isAsFresh = again == fresh.value_or(again);
        EXPECT_TRUE(isAsFresh || (!holdsAll && again.result == 0)) << "then " << again;
    });
    return verdict;
}

class SignatureFaults : public ::testing::TestWithParam<Case> {
protected:
    template <typename Check> static void Sweep(Calls kinds, Check check)
    {
        const Verdict fresh = Undisturbed();
        SweepFaults(
            kinds, [&](CallbackPlan& plan) { return VerifyCase(plan, GetParam(), fresh); }, check);
    }

private:
    static Verdict Undisturbed()
    {
        CallbackPlan plan;
        return VerifyCase(plan, GetParam());
    }
};
constexpr auto kCaseName = [](const auto& testInfo) { return testInfo.param.name; };

// ---- A good signature ----

class GoodSignatureFaults : public SignatureFaults {};
INSTANTIATE_TEST_SUITE_P(SignatureFaults, GoodSignatureFaults, ::testing::Values(Good(), GoodDirect()), kCaseName);

// Whether a certificate is a CA is a question that memory may fail unnoticed: the answer no, right or wrong, is safe.
TEST_P(GoodSignatureFaults, WithoutMemoryOrCopiesIsRefusedOrGoodAfterAll)
{
    Sweep(Call::Malloc | calls::copies, [](const Verdict& verdict, const FaultRun& run) {
        EXPECT_TRUE(verdict == good || run.met) << verdict;
        EXPECT_TRUE(verdict == good || verdict.result == 0) << verdict;
    });
}

// No digest and no signature is computed in vain.
TEST_P(GoodSignatureFaults, WithoutCryptographyIsRefused)
{
    for (const Calls kinds : {calls::digests, calls::verification, Calls(Call::VerifyVerdict)}) {
        std::size_t runs = 0;
        Sweep(kinds, [&](const Verdict& verdict, const FaultRun& run) {
            EXPECT_EQ(verdict == good, !run.met) << verdict;
            EXPECT_TRUE(verdict == good || verdict.result == 0) << verdict;
            ++runs;
        });
        EXPECT_GE(runs, 8u);
    }
}

// The armour is all that there is to read of a signature without certificates and signers.
TEST(PemSignatureFaults, AreAlwaysNoticed)
{
    const Bytes pem = Pem("CMS", DetachedCms(kContent, CmsSpec{}));
    const auto begin = [&](CallbackPlan& plan) {
        std::optional<Context> ctx;
        plan.WithoutFaults([&] { ctx.emplace(plan); });
        return Begin(*ctx, pem);
    };
    const Calls kinds = Call::Malloc | calls::copies | Call::Strncmp | Call::Strstr;
    SweepFaults(kinds, begin, [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc != 0, run.met); });
}

// Its crypto context, its copy of the signature and itself, each released once.
TEST(DirectSignerFaults, LeaveNoEntryBehind)
{
    const Bytes signature = DetachedCms(kContent, Direct(FlatCms(FlatPki())));
    const Bytes signer = Build(FlatPki().signer);
    const auto makeEntry = [&](CallbackPlan& plan) {
        Vrf vrf(plan);
        OwnedCms cms;
        OwnedCert cert;
        plan.WithoutFaults([&] {
            cms = DecodeCms(vrf, signature);
            cert = DecodeCert(vrf, signer);
        });
        const PELNIC_ERROR_CODE rc = _pnvCreateVerifyHandle(vrf, SignerOf(cms), cert.get());
        LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO& entries = vrf->vrf_proc.md_info_list;
        EXPECT_EQ(entries.num, rc == 0 ? 1u : 0u);
        pelnic_list_free(vrf, _pnvAsList(&entries), [](PELNIC_VRF* pVrf, void* entry) {
            _pnvFreeMdInfo(pVrf, static_cast<PELNIC_VERIFY_DIGEST_INFO*>(entry));
        });
        return rc;
    };
    const Calls kinds = Call::Malloc | calls::copies | Call::VerifyCreate | Call::VerifyInit;
    SweepFaults(kinds, makeEntry, [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc != 0, run.met); });
}

// ---- A bad one ----

class BadSignatureFaults : public SignatureFaults {
protected:
    static void ExpectNeverAccepted(const Verdict& verdict, const FaultRun&) { EXPECT_NE(verdict.result, 1); }
};
INSTANTIATE_TEST_SUITE_P(SignatureFaults, BadSignatureFaults,
                         ::testing::Values(OtherContent(Good()), OtherContent(GoodDirect()), AlteredAttributes(),
                                           OtherStampedSignature(), RevokedSigner(), ExpiredSigner(), OwnRoot()),
                         kCaseName);

TEST_P(BadSignatureFaults, WithoutCryptographyIsNotAccepted)
{
    for (const Calls kinds : {calls::crypto, Calls(Call::VerifyVerdict)}) Sweep(kinds, ExpectNeverAccepted);
}

// These two are refused by what lies in the stores, and what cannot be stored is not missed.
class StoreFaults : public BadSignatureFaults {};
INSTANTIATE_TEST_SUITE_P(SignatureFaults, StoreFaults, ::testing::Values(RevokedSigner(), OwnRoot()), kCaseName);

TEST_P(StoreFaults, WithoutMemoryOrCopiesIsNotAccepted)
{
    Sweep(Call::Malloc | calls::copies, ExpectNeverAccepted);
}

// A comparison that lies cannot be noticed. It may hide a serial number on a CRL, and what a record's selector no
// longer leads to is not released; but it makes no root and no timestamp.
class ComparisonFaults : public ::testing::TestWithParam<Case> {};
INSTANTIATE_TEST_SUITE_P(SignatureFaults, ComparisonFaults, ::testing::Values(OtherStampedSignature(), OwnRoot()),
                         kCaseName);

TEST_P(ComparisonFaults, AreNotAccepted)
{
    for (FaultMode mode : {FaultMode::Once, FaultMode::Onward}) {
        bool met = true;
        for (std::size_t nth = 1; met; ++nth) {
            CallbackPlan plan;
            plan.Fail(Call::Memcmp, nth, mode);
            EXPECT_NE(VerifyCase(plan, GetParam()).result, 1) << nth;
            met = plan.FaultsMet() != 0;
        }
    }
}

// ---- Verdicts ----

// After one good verification the signatures of the chains are spared, so what the stub answers from then on is
// asked about the package's own signatures only.
class SignatureVerdicts : public SignatureTest {
protected:
    // Runs check(code, verdict, holds) with each answer; begin must hold for code 0 with verdict 1 and nothing else.
    template <typename Check> void ForEveryVerdictOn(const CmsSpec& cms, Check check)
    {
        const Bytes signature = DetachedCms(payload_, cms);
        ASSERT_EQ(Begin(signature), 0u);
        ASSERT_EQ(Update(payload_), 0u);
        ASSERT_EQ(Final(), good);
        plan_.Spare(SignaturesOfTheChains());
        ForEveryVerdict(plan_, [&](PELNIC_ERROR_CODE code, PNV_INT verdict) {
            SCOPED_TRACE(::testing::Message() << code << " with " << verdict);
            check(signature, code, verdict, code == 0 && verdict == 1);
        });
    }

    TokenSpec token_ = DemoToken(pki_);

private:
    // Those that stand at the end of a certificate or a CRL.
    std::set<Bytes> SignaturesOfTheChains() const
    {
        const Bytes signedByCas[] = {Build(pki_.root),       Build(pki_.signingCa), Build(pki_.tsaCa),
                                     Build(pki_.signer),     Build(pki_.tsa),       Build(pki_.rootCrl),
                                     Build(pki_.signingCrl), Build(pki_.tsaCrl)};
        std::set<Bytes> signatures;
        for (const VerifyRequest& request : plan_.VerifyRequests()) {
            for (const Bytes& der : signedByCas) {
                if (std::equal(request.signature.rbegin(), request.signature.rend(), der.rbegin())) {
                    signatures.insert(request.signature);
                }
            }
        }
        return signatures;
    }
};

TEST_F(SignatureVerdicts, OnlyCode0WithVerdict1IsASelfSignedRootsOrAChains)
{
    ForEveryVerdict(plan_, [&](PELNIC_ERROR_CODE code, PNV_INT verdict) {
        Renew();
        EXPECT_EQ(Begin(DemoCms(pki_)) == 0, code == 0 && verdict == 1) << code << " with " << verdict;
    });
}

TEST_F(SignatureVerdicts, OnlyCode0WithVerdict1AcceptsSignedAttributes)
{
    token_.cms.signers.clear();
    token_.cms.digestAlgorithms = std::vector<Bytes>{};
    ForEveryVerdictOn(DemoCms(pki_, token_), [&](const Bytes& signature, PELNIC_ERROR_CODE, PNV_INT, bool holds) {
        EXPECT_EQ(Begin(signature), holds ? 0u : PELNIC_ERR_CMS_SIGNATURE);
        EXPECT_EQ(Update(payload_), holds ? 0u : PELNIC_ERR_CMS_NOT_BEGUN);
        (void)Final();
    });
}

TEST_F(SignatureVerdicts, OnlyCode0WithVerdict1AcceptsATokensAttributes)
{
    ForEveryVerdictOn(Direct(DemoCms(pki_, token_)),
                      [&](const Bytes& signature, PELNIC_ERROR_CODE, PNV_INT, bool holds) {
                          EXPECT_EQ(Begin(signature), holds ? 0u : PELNIC_ERR_CMS_SIGNATURE);
                          (void)Final();
                      });
}

TEST_F(SignatureVerdicts, OnlyCode0WithVerdict1AcceptsATokenSignedDirectly)
{
    token_.cms.signers[0].signedAttributes = nullptr;
    ForEveryVerdictOn(Direct(DemoCms(pki_, token_)),
                      [&](const Bytes& signature, PELNIC_ERROR_CODE code, PNV_INT, bool holds) {
                          const PELNIC_ERROR_CODE refused = code != 0 ? code : PELNIC_ERR_TSP_VERIFY;
                          EXPECT_EQ(Begin(signature), holds ? 0u : refused);
                          (void)Final();
                      });
}

// The caller accepts code 0 with result 1 and nothing else, so another verdict may stand as the callback gave it.
TEST_F(SignatureVerdicts, OnlyCode0WithVerdict1AcceptsADirectSignature)
{
    ForEveryVerdictOn(Direct(DemoCms(pki_, token_)),
                      [&](const Bytes& signature, PELNIC_ERROR_CODE code, PNV_INT verdict, bool) {
                          plan_.StubVerification(0, 1);
                          ASSERT_EQ(Begin(signature), 0u);
                          ASSERT_EQ(Update(payload_), 0u);
                          plan_.StubVerification(code, verdict);
                          EXPECT_EQ(Final(), (code == 0 ? Verdict{0, verdict} : Verdict{code, 0}));
                      });
}

} // namespace
} // namespace pnvtest
