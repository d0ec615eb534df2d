// What a failing callback leaves behind: a context that goes on answers as a fresh one would, or says why it accepts
// nothing any more.
#include "cmsverify/pelnic_faults.h"

#include "cmsverify/cms_verify_add.h"
#include "cmsverify/pelnic_asn1_utils.h"

#include "support/signature_cases.h"

#include <functional>

namespace pnvtest {
namespace {

using namespace cases;

constexpr Calls kEveryFault = Call::Malloc | calls::copies | calls::verification;

bool IsSpoilt(const Context& ctx)
{
    return ctx->bInputLost != 0;
}

std::size_t FaultRecords(const CallbackPlan& plan)
{
    std::size_t count = 0;
    for (const LogRecord& record : plan.Logs()) {
        const bool hasSentence = record.message && !record.message->empty();
        if (record.level == PELNIC_LOG_TYPE_ERROR && record.rc == PELNIC_ERR_SYS_MEM_ALLOC && hasSentence) ++count;
    }
    return count;
}

// The revoking CRL before the one that revokes nothing: what is lost first is what counts.
Case RevokingCrlFirst()
{
    DemoPki pki = FlatPki();
    Case input = RevokedSigner();
    input.name = "RevokingCrlFirst";
    pki.rootCrl.thisUpdate = UtcTime("240101000000Z");
    input.anchors.crls = Cat(input.anchors.crls, Build(pki.rootCrl));
    return input;
}

// Root's CRL, the CA's that lists the signer, an older one of the CA that does not.
Case RevokedBelowACa()
{
    DemoPki pki;
    Case input = GoodBelowCas();
    input.name = "RevokedBelowACa";
    const Bytes clean = Build(With(pki.signingCrl, &CrlSpec::thisUpdate, UtcTime("240101000000Z")));
    pki.signingCrl.revoked = {{pki.signer.serial}};
    input.anchors.crls = Cat(pki.Crls(), clean);
    return input;
}

// An expired copy of the signer's CA comes before the good one: the first that verifies the signature is the issuer.
Case ExpiredCopyOfTheCa()
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    CertSpec expired = pki.signingCa;
    expired.serial = Int({0x77});
    expired.notAfter = UtcTime("251231235959Z");
    cms.certificates.insert(cms.certificates.begin(), Build(expired));
    Case input = GoodBelowCas();
    input.name = "ExpiredCopyOfTheCa";
    input.signature = DetachedCms(input.content, cms);
    return input;
}

// ---- A verification, and the same once more ----

class SecondVerification : public ::testing::TestWithParam<Case> {
protected:
    // A verdict of the context after one that met a fault; refused contexts are those that are spoilt.
    static void ExpectAsFresh(Calls kinds, const std::function<void(Context&)>& disturbed)
    {
        const Verdict fresh = Fresh();
        std::size_t step = 1;
        for (bool met = true; met;) {
            CallbackPlan plan;
            plan.RememberGoodSignatures();
            Context ctx(plan);
            Provide(ctx, GetParam().anchors);
            plan.Fail(kinds, step, FaultMode::Once);
            disturbed(ctx);
            met = plan.FaultsMet() != 0;
            plan.WithoutFaults([&] { ExpectAsFresh(plan, ctx, fresh, step); });
            step += step < 40 ? 1 : 13;
            if (HasFailure()) return;
        }
    }

    static Verdict Fresh()
    {
        CallbackPlan plan;
        plan.RememberGoodSignatures();
        const Context ctx(plan);
        Provide(ctx, GetParam().anchors);
        return Verify(ctx, GetParam().signature, GetParam().content);
    }

private:
    static void ExpectAsFresh(CallbackPlan& plan, const Context& ctx, const Verdict& fresh, std::size_t nth)
    {
        (void)Final(ctx); // releases what a failed begin has prepared
        plan.ClearLogs();
        const Verdict verdict = Verify(ctx, GetParam().signature, GetParam().content);
        if (!IsSpoilt(ctx)) {
            EXPECT_EQ(verdict, fresh) << "call " << nth;
            EXPECT_EQ(FaultRecords(plan), 0u) << "call " << nth;
        } else {
            EXPECT_EQ(verdict, (Verdict{PELNIC_ERR_CERT_VERIFY, 0})) << "call " << nth;
            EXPECT_EQ(FaultRecords(plan), 1u) << "call " << nth;
        }
    }
};
constexpr auto kCaseName = [](const auto& testInfo) { return testInfo.param.name; };
INSTANTIATE_TEST_SUITE_P(Faults, SecondVerification,
                         ::testing::Values(Good(), RevokedByOneOfTwoCrls(), RevokingCrlFirst(), RevokedBelowACa(),
                                           RevokedByAnIndirectCrl(), ExpiredCopyOfTheCa()),
                         kCaseName);

TEST_P(SecondVerification, IsAsInAFreshContextWhateverFailedInTheFirst)
{
    const Verdict fresh = Fresh();
    for (const Calls kinds : {Calls(Call::Malloc), Calls(calls::copies), Calls(Call::VerifyCreate),
                              Calls(Call::VerifyInit), Calls(Call::VerifyUpdate), Calls(Call::VerifyFinal)}) {
        ExpectAsFresh(kinds, [&](Context& ctx) {
            const Verdict verdict = Verify(ctx, GetParam().signature, GetParam().content);
            EXPECT_TRUE(verdict.result == 0 || verdict == fresh) << verdict;
        });
    }
}

// A crypto library without memory may say "bad" with code 0, and nobody can tell. The answer ends with its run, but for
// a certificate whose issuer is on record since: that one is looked for once in its life.
TEST_P(SecondVerification, IsAsInAFreshContextAfterASignatureThatWasCalledBad)
{
    if (GetParam().name == "ExpiredCopyOfTheCa") GTEST_SKIP() << "another issuer is on record";
    ExpectAsFresh(Call::VerifyVerdict,
                  [](Context& ctx) { (void)Verify(ctx, GetParam().signature, GetParam().content); });
}

TEST_P(SecondVerification, IsAsInAFreshContextAfterABundleThatMetAFault)
{
    ExpectAsFresh(kEveryFault, [](Context& ctx) {
        const Bytes& crls = GetParam().anchors.crls;
        PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
        if (pelnic_decode_crl(ctx, crls.data(), Len(crls), &bundle) == 0) (void)pelnic_crl_free(ctx, bundle);
    });
}

// ---- Adds ----

// Adds, with the n-th call of the first try failing; where that is reported, the caller tries again.
template <typename Add>
void ExpectNothingLost(Add add, Calls kinds, std::size_t expectedSilent, FaultMode mode = FaultMode::Once)
{
    const Case input = GoodBelowCas();
    std::size_t silent = 0;
    bool met = true;
    for (std::size_t nth = 1; met; ++nth) {
        CallbackPlan plan;
        plan.RememberGoodSignatures();
        const Context ctx(plan);
        plan.Fail(kinds, nth, mode);
        const PELNIC_ERROR_CODE rc = add(ctx, input);
        met = plan.FaultsMet() != 0;
        plan.WithoutFaults([&] {
            EXPECT_FALSE(rc != 0 && IsSpoilt(ctx)) << nth;
            if (rc == 0 && met) ++silent;
            Provide(ctx, input.anchors);
            plan.ClearLogs();
            const Verdict verdict = Verify(ctx, input.signature, input.content);
            EXPECT_EQ(verdict, IsSpoilt(ctx) ? (Verdict{PELNIC_ERR_CERT_VERIFY, 0}) : good) << nth;
            EXPECT_EQ(FaultRecords(plan), IsSpoilt(ctx) ? 1u : 0u) << nth;
        });
        if (::testing::Test::HasFailure()) return;
    }
    EXPECT_GE(silent, expectedSilent);
}

PELNIC_ERROR_CODE AddRoot(PELNIC_VRF_CTX ctx, const Case& input)
{
    return pelnic_verify_add_cert(ctx, input.anchors.root.data(), Len(input.anchors.root));
}

PELNIC_ERROR_CODE AddCrls(PELNIC_VRF_CTX ctx, const Case& input)
{
    return pelnic_verify_add_crl(ctx, input.anchors.crls.data(), Len(input.anchors.crls));
}

TEST(FailedAdds, OfACertificateLoseNothingOnceRepeated)
{
    ExpectNothingLost(AddRoot, Call::Malloc | calls::copies, 0);
}

TEST(FailedAdds, OfCrlsLoseNothingOnceRepeated)
{
    ExpectNothingLost(AddCrls, Call::Malloc | calls::copies, 1);
}

// A bundle that reports its failure, and is then read again; or one that does not, and leaves the CRLs in their order.
TEST(FailedAdds, OfABundleLoseNothingOnceRepeated)
{
    const auto decode = [](PELNIC_VRF_CTX ctx, const Case& input) {
        const Bytes& crls = input.anchors.crls;
        PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
        const PELNIC_ERROR_CODE rc = pelnic_decode_crl(ctx, crls.data(), Len(crls), &bundle);
        if (rc == 0) (void)pelnic_crl_free(ctx, bundle);
        return rc;
    };
    for (const FaultMode mode : {FaultMode::Once, FaultMode::Onward}) ExpectNothingLost(decode, Call::Malloc, 1, mode);
}

// The second certificate ends the stream when it cannot be read: the first one is added, and that counts as success.
TEST(FailedAdds, OfASecondCertificateSpoilTheContext)
{
    const DemoPki pki;
    const Bytes both = Cat(Build(pki.root), Build(pki.signingCa));
    std::size_t lost = 0;
    bool met = true;
    for (std::size_t nth = 1; met; ++nth) {
        CleanPlan plan;
        Stores stores(plan);
        plan.Fail(Call::Malloc | calls::copies, nth, FaultMode::Once);
        const PELNIC_ERROR_CODE rc = pelnic_verify_add_cert(stores, both.data(), Len(both));
        met = plan.FaultsMet() != 0;
        if (rc != 0 || stores.TrustCerts().num == 2) continue;
        ++lost;
        EXPECT_EQ(stores.TrustCerts().num, 1u) << nth;
        EXPECT_NE(stores->bInputLost, 0u) << nth;
    }
    EXPECT_GT(lost, 0u);
}

// Of two CRLs that list a certificate the first one decides.
TEST(FailedAdds, OfABundleKeepItsCrlsInTheirOrder)
{
    const DemoPki pki;
    const Bytes first = Build(pki.signingCrl);
    const Bytes second = Build(With(pki.signingCrl, &CrlSpec::thisUpdate, UtcTime("250102000000Z")));
    const Bytes both = Cat(first, second);
    const auto isDecoded = [&both](PELNIC_VRF* vrf) {
        PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
        return pelnic_decode_crl(vrf, both.data(), Len(both), &bundle) == 0 && pelnic_crl_free(vrf, bundle) == 0;
    };
    for (const FaultMode mode : {FaultMode::Once, FaultMode::Onward}) {
        bool met = true;
        for (std::size_t nth = 1; met; ++nth) {
            CleanPlan plan;
            Stores stores(plan);
            plan.Fail(Call::Malloc | calls::copies, nth, mode);
            const bool isDone = isDecoded(stores);
            met = plan.FaultsMet() != 0;
            plan.WithoutFaults([&] {
                EXPECT_TRUE(isDone || isDecoded(stores));
                _pnvSyncCrl(stores);
            });
            if (stores->bInputLost != 0) continue;
            ASSERT_EQ(stores.Crls().num, 2u) << nth;
            EXPECT_EQ(pelnic_compare_asn_bits(stores, stores.Crls().data[0]->signature, stores.Crl(first)->signature),
                      0u)
                << nth;
        }
    }
}

TEST(FailedAdds, OfParkedCrlsKeepTheirOrder)
{
    const DemoPki pki;
    bool met = true;
    for (std::size_t nth = 1; met; ++nth) {
        CleanPlan plan;
        Stores stores(plan);
        PELNIC_X509_CRL* crls[] = {stores.Crl(pki.rootCrl), stores.Crl(pki.signingCrl)};
        LIST_TYPE_PELNIC_X509_CRL list{2, crls, 2};
        plan.Fail(Call::Malloc | calls::copies, nth, FaultMode::Once);
        (void)_pnvAddCrlToStore(stores, &list);
        met = plan.FaultsMet() != 0;
        plan.WithoutFaults([&] { (void)_pnvAddCrlToStore(stores, &list); });
        EXPECT_TRUE(stores->bInputLost != 0 || stores->crl_list.data[0] == crls[0]) << nth;
    }
}

// A way for the signing CA into the trust store, and whether a fault can make it look like no CA there.
struct WayIn {
    const char* name;
    void (*take)(PELNIC_VRF* vrf, LIST_TYPE_PELNIC_X509_CERT& certs);
    bool canBeWrong;
};

class CaInTheWrongStore : public ::testing::TestWithParam<WayIn> {};
INSTANTIATE_TEST_SUITE_P(
    , CaInTheWrongStore,
    ::testing::Values(
        WayIn{"FromTheCaller",
              [](PELNIC_VRF* vrf, LIST_TYPE_PELNIC_X509_CERT& certs) { (void)_pnvAddRootToStore(vrf, &certs); }, true},
        WayIn{"WithCrls",
              [](PELNIC_VRF* vrf, LIST_TYPE_PELNIC_X509_CERT& certs) { (void)_pnvAddCertToStore(vrf, &certs); }, true},
        WayIn{"InASignature", // whose run accepts nothing, but others come after it
              [](PELNIC_VRF* vrf, LIST_TYPE_PELNIC_X509_CERT& certs) {
                  PELNIC_X509_CERT_BUNDLE bundle{};
                  bundle.certs = certs;
                  PELNIC_PKCS7_SIGNED_DATA signedData{};
                  signedData.certificates = &bundle;
                  PELNIC_PKCS7_CONTENT content{};
                  content.signed_data = &signedData;
                  EXPECT_EQ(_pnvExtractCertsIntoVerifyContext(vrf, &content), 0u);
                  signedData.certificates = nullptr;
                  EXPECT_EQ(_pnvExtractCertsIntoVerifyContext(vrf, &content), 0u);
              },
              false}),
    [](const auto& way) { return way.param.name; });

// Where it hides nothing that another CA of its name would be asked in its place.
TEST_P(CaInTheWrongStore, SpoilsTheContext)
{
    std::size_t wrong = 0;
    bool met = true;
    for (std::size_t nth = 1; met; ++nth) {
        CleanPlan plan;
        Stores stores(plan);
        PELNIC_X509_CERT* ca = stores.Cert(DemoPki().signingCa);
        LIST_TYPE_PELNIC_X509_CERT certs{1, &ca, 1};
        plan.Fail(Call::Malloc | calls::copies, nth, FaultMode::Once);
        GetParam().take(stores, certs);
        met = plan.FaultsMet() != 0;
        if (stores.LocalCerts().num == 0) continue;
        ++wrong;
        EXPECT_NE(stores->bInputLost, 0u) << nth;
    }
    EXPECT_EQ(wrong != 0, GetParam().canBeWrong);
}

// The attempt to read a CRL as a certificate fails anyway.
TEST(FailedAdds, OfWhatIsNoCertificateSpoilNothing)
{
    const Case input = GoodBelowCas();
    CleanPlan plan;
    const Context ctx(plan);
    plan.Fail(Call::Malloc, 3, FaultMode::Once);
    EXPECT_EQ(AddCrls(ctx, input), 0u);
    EXPECT_EQ(plan.FaultsMet(), 1u);
    EXPECT_FALSE(IsSpoilt(ctx));
    EXPECT_EQ(AddRoot(ctx, input), 0u);
    EXPECT_EQ(Verify(ctx, input.signature, input.content), good);
}

// A CRL block in a certificate file is dropped, whether it decodes or not.
TEST(FailedAdds, OfAnUnwantedPemBlockSpoilNothing)
{
    const Case input = GoodBelowCas();
    const Bytes pem = Cat(Pem("CERTIFICATE", input.anchors.root), Pem("X509 CRL", Build(DemoPki().rootCrl)));
    std::size_t last = 0;
    {
        CleanPlan plan;
        const Context ctx(plan);
        const std::size_t before = plan.Count(Call::Malloc);
        EXPECT_EQ(pelnic_verify_add_cert(ctx, pem.data(), Len(pem)), 0u);
        last = plan.Count(Call::Malloc) - before;
    }
    CleanPlan plan;
    const Context ctx(plan);
    plan.Fail(Call::Malloc, last - 4, FaultMode::Once); // within the CRL; the store and its list come behind it
    EXPECT_EQ(pelnic_verify_add_cert(ctx, pem.data(), Len(pem)), 0u);
    EXPECT_EQ(plan.FaultsMet(), 1u);
    EXPECT_FALSE(IsSpoilt(ctx));
}

// The caller is told that all went in, and may have lost what revokes.
TEST(SpoiltContexts, AcceptNothingAndSayWhy)
{
    const Case input = GoodBelowCas();
    const DemoPki pki;
    const Bytes first = Pem("X509 CRL", Build(pki.rootCrl));
    const Bytes pem = Cat(first, Pem("X509 CRL", Build(pki.signingCrl)), Pem("X509 CRL", Build(pki.tsaCrl)));
    CleanPlan plan;
    const Context ctx(plan);
    EXPECT_EQ(AddRoot(ctx, input), 0u);
    const std::size_t before = plan.Count(Call::Malloc);
    EXPECT_EQ(pelnic_verify_add_crl(ctx, first.data(), Len(first)), 0u);
    plan.Fail(Call::Malloc, plan.Count(Call::Malloc) - before + 3, FaultMode::Once); // within the second block
    EXPECT_EQ(pelnic_verify_add_crl(ctx, pem.data(), Len(pem)), 0u);
    EXPECT_EQ(plan.FaultsMet(), 1u);
    EXPECT_EQ(pelnic_verify_add_crl(ctx, pem.data(), Len(pem)), 0u);
    for (int i = 0; i < 2; ++i) {
        plan.ClearLogs();
        EXPECT_EQ(Verify(ctx, input.signature, input.content), (Verdict{PELNIC_ERR_CERT_VERIFY, 0}));
        EXPECT_EQ(FaultRecords(plan), 1u);
        EXPECT_TRUE(LoggedError(plan, PELNIC_ERR_SYS_MEM_ALLOC,
                                "A callback failed while certificates or CRLs were added: this context accepts "
                                "nothing any more."));
        (void)Final(ctx);
    }
}

TEST(DisturbedRuns, SayWhyTheyRefuse)
{
    const Case input = Good();
    CleanPlan plan;
    const Context ctx(plan);
    Provide(ctx, input.anchors);
    plan.Fail(Call::VerifyFinal, 1, FaultMode::Once);
    EXPECT_EQ(Begin(ctx, input.signature), PELNIC_ERR_CERT_VERIFY);
    EXPECT_EQ(FaultRecords(plan), 1u);
    EXPECT_TRUE(
        LoggedError(plan, PELNIC_ERR_SYS_MEM_ALLOC, "A callback failed during this operation: nothing is accepted."));
    EXPECT_EQ(plan.Logs().back().function, "pelnic_verify_detach_signature_begin");
}

TEST(DisturbedRuns, SayWhyASignatureIsUndecodable)
{
    const Case input = Good();
    for (const Bytes& signature : {input.signature, Pem("CMS", input.signature)}) {
        CleanPlan plan;
        const Context ctx(plan);
        Provide(ctx, input.anchors);
        plan.Fail(Call::Malloc, 9, FaultMode::Once);
        EXPECT_EQ(Begin(ctx, signature), PELNIC_ERR_CMS_DECODE);
        EXPECT_EQ(FaultRecords(plan), 1u);
        EXPECT_TRUE(LoggedError(plan, PELNIC_ERR_SYS_MEM_ALLOC,
                                "A callback failed during this operation: nothing is accepted."));
        EXPECT_EQ(Verify(ctx, signature, input.content), good); // nothing is left of it
    }
}

// ---- Records in more places than one ----

class SharedRecords : public StoresTest {
protected:
    const DemoPki pki_;
};

// An index has its links in the records, so a record can be in one only.
TEST_F(SharedRecords, AreFoundInEveryStoreThatHasThem)
{
    std::vector<PELNIC_X509_CERT*> cas;
    const Bytes ca = Build(pki_.signingCa);
    for (std::uint8_t i = 1; i <= 7; ++i) cas.push_back(stores_.Trust(Replace(ca, {0, tbs::serial}, Int({i}))));
    for (PELNIC_X509_CERT* cert : cas) EXPECT_EQ(pelnic_pki_store_add_local_cert(stores_, cert), 0u);
    for (std::uint8_t i = 1; i <= 7; ++i) {
        PELNIC_X509_CERT* const copy = stores_.Cert(Replace(ca, {0, tbs::serial}, Int({i})));
        EXPECT_EQ(pelnic_pki_store_add_trust_cert(stores_, copy), PELNIC_ERR_CERT_DUPLICATE) << int{i};
        EXPECT_EQ(pelnic_pki_store_add_local_cert(stores_, copy), PELNIC_ERR_CERT_DUPLICATE) << int{i};
    }
    PELNIC_X509_CERT* const local = stores_.Local(Replace(ca, {0, tbs::serial}, Int({0x20})));
    EXPECT_EQ(pelnic_pki_store_add_trust_cert(stores_, local), 0u); // not known there
}

TEST_F(SharedRecords, AreJudgedByEachContextForItself)
{
    Stores later(plan_);
    later->base_time = k2026 + 74 * 365 * PNV_TIME_T{86400};
    PELNIC_X509_CERT* const root = stores_.Trust(pki_.root);
    EXPECT_EQ(pelnic_pki_store_add_trust_cert(later, root), 0u);
    EXPECT_EQ(stores_.Verify(root), 0u);
    EXPECT_EQ(later.Verify(root), PELNIC_ERR_CERT_EXPIRED);
    EXPECT_EQ(stores_.Verify(root), 0u);
}

// A context may lie where another one lay, and count from the beginning again.
TEST_F(SharedRecords, AreJudgedAnewByAContextInAnothersPlace)
{
    const PELNIC_X509_CERT* const root = stores_.Trust(pki_.root);
    stores_->run = {};
    stores_->nVerification = 0;
    EXPECT_EQ(stores_.Verify(root), 0u);
    stores_->run = {};
    stores_->nVerification = 0;
    stores_->base_time = k2026 + 74 * 365 * PNV_TIME_T{86400};
    EXPECT_EQ(stores_.Verify(root), PELNIC_ERR_CERT_EXPIRED);
}

// The refusal of the one context is none of the other's.
TEST_F(SharedRecords, AreNotRefusedForWhatAnotherContextLacks)
{
    Stores complete(plan_);
    complete.AddSigningBranch(pki_);
    stores_.Trust(pki_.root);
    stores_.AddCrl(pki_.rootCrl);
    const PELNIC_X509_CERT* const signer = stores_.Cert(pki_.signer);
    EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CERT_NO_ISSUER);
    EXPECT_EQ(complete.Verify(signer), 0u);
}

// ---- What is nested ----

class CallersDepth : public SharedRecords {
protected:
    // An outermost call, whatever depth the caller has set.
    PELNIC_ERROR_CODE VerifyAt(const PELNIC_X509_CERT* cert, PNV_INT depth)
    {
        stores_->curr_depth = depth;
        PNV_BOOL result = 0xA5A5A5A5;
        const PELNIC_ERROR_CODE rc = pelnic_pki_verify_cert(stores_, cert, 0, &result);
        EXPECT_EQ(result, rc == 0 ? 1u : 0u);
        EXPECT_EQ(stores_->curr_depth, depth);
        return rc;
    }
};

TEST_F(CallersDepth, GetsNoVerdictOfAnEarlierVerification)
{
    const PELNIC_X509_CERT* const root = stores_.Trust(pki_.root);
    for (const bool inOneRun : {false, true}) { // as for two signers with timestamps of their own
        std::optional<OperationRun> run;
        if (inOneRun) run.emplace(stores_);
        for (const PNV_INT depth : {10, 1, 0, -1, -1000}) {
            stores_->base_time = k2026;
            EXPECT_EQ(VerifyAt(root, depth), 0u) << depth;
            stores_->base_time = k2026 + 74 * 365 * PNV_TIME_T{86400};
            EXPECT_EQ(VerifyAt(root, depth), PELNIC_ERR_CERT_EXPIRED) << depth;
        }
    }
    EXPECT_EQ(VerifyAt(root, 11), PELNIC_ERR_PATH_TOO_DEEP);
}

// Nor do the verifications that are nested in a call below zero, when one run holds both calls.
TEST_F(CallersDepth, BelowZeroBeginsAnewToo)
{
    stores_.Trust(pki_.root);
    const PELNIC_X509_CERT* const ca = stores_.Trust(pki_.signingCa);
    stores_.AddCrl(pki_.rootCrl);
    stores_.AddCrl(pki_.signingCrl);
    const PELNIC_X509_CERT* const signer = stores_.Cert(pki_.signer);
    const OperationRun run{stores_};
    stores_->base_time = k2026 + 74 * 365 * PNV_TIME_T{86400};
    EXPECT_EQ(VerifyAt(ca, 0), PELNIC_ERR_CERT_EXPIRED);
    stores_->base_time = k2026;
    EXPECT_EQ(VerifyAt(signer, -1), 0u);
}

// ---- What a run finds out ends with it ----

TEST_F(SharedRecords, AreAskedAnewOutsideOfARun)
{
    stores_.Trust(pki_.root);
    const PELNIC_X509_CRL* const crl = stores_.AddCrl(pki_.rootCrl);
    for (std::size_t i = 1; i <= 2; ++i) {
        EXPECT_NE(pelnic_pki_find_crl_issuer(stores_, crl), nullptr);
        EXPECT_EQ(plan_.Count(Call::VerifyFinal), i);
    }
    const OperationRun run{stores_};
    for (int i = 0; i < 2; ++i) {
        EXPECT_NE(pelnic_pki_find_crl_issuer(stores_, crl), nullptr);
        EXPECT_EQ(plan_.Count(Call::VerifyFinal), 3u);
    }
}

// An issuer that is found while another may have been passed over is not put on record.
TEST_F(SharedRecords, GetNoIssuerOnRecordInADisturbedRun)
{
    stores_.Trust(pki_.signingCa);
    PELNIC_X509_CERT* const signer = stores_.Cert(pki_.signer);
    {
        const OperationRun run{stores_};
        ++stores_->nCallbackFaults;
        EXPECT_NE(_pnvFindCertIssuer(stores_, signer), nullptr);
        EXPECT_EQ(signer->pIssuer, nullptr);
    }
    EXPECT_NE(_pnvFindCertIssuer(stores_, signer), nullptr);
    EXPECT_NE(signer->pIssuer, nullptr);
}

// ---- Signatures of functions ----

static_assert(std::is_same_v<decltype(&_pnvCheckCrlOfCert),
                             PELNIC_ERROR_CODE (*)(PELNIC_VRF*, PELNIC_X509_CERT*, PELNIC_X509_CRL**)>);

TEST(NullContext, IsTheFirstThingThatThePkiRefuses)
{
    EXPECT_EQ(pelnic_pki_init(nullptr), PELNIC_ERR_NULL_POINTER);
    PELNIC_X509_CERT cert{};
    PELNIC_X509_CRL crl{};
    EXPECT_EQ(pelnic_pki_store_add_trust_cert(nullptr, &cert), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_pki_store_add_local_cert(nullptr, &cert), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_pki_store_add_crl(nullptr, &crl), PELNIC_ERR_NULL_POINTER);
}

} // namespace
} // namespace pnvtest
