// Mistakes that were planted into the library and that no test noticed at the time. Each test here fails when its
// mistake is made again, and sees nothing but the public operations.
#include "support/crl_bundle.h"
#include "support/signature_cases.h"
#include "support/temp_dir.h"

#include <algorithm>

namespace pnvtest {
namespace {

// Every call, alone.
Sample EachOnce()
{
    Sample sample;
    sample.modes = {FaultMode::Once};
    return sample;
}

// ---- Input that gets lost on its way into the stores ----

// Runs a case with each call of a kind failing, once, in one step of it, then once more undisturbed. What is lost must
// not turn the refusal into an acceptance, neither at once nor later. Returns how many calls there were.
class LostInput : public ::testing::Test {
protected:
    enum class Step { AddCert, Begin };

    static std::size_t ExpectRefused(const Case& input, Step failing, Call kind)
    {
        const auto operation = [&](CallbackPlan& plan) {
            plan.Silence();
            plan.RememberGoodSignatures();
            std::optional<Context> ctx;
            PELNIC_ERROR_CODE rc = 0;
            plan.WithoutFaults([&] { ctx.emplace(plan); });
            const auto run = [&](Step step, auto operate) {
                if (step == failing) {
                    operate();
                } else {
                    plan.WithoutFaults(operate);
                }
            };
            const Bytes& root = input.anchors.root;
            const Bytes& crls = input.anchors.crls;
            run(Step::AddCert, [&] { rc = pelnic_verify_add_cert(*ctx, root.data(), Len(root)); });
            if (rc != 0) return rc; // and the caller knows
            plan.WithoutFaults([&] { EXPECT_EQ(pelnic_verify_add_crl(*ctx, crls.data(), Len(crls)), 0u); });
            run(Step::Begin, [&] { rc = Begin(*ctx, input.signature); });
            plan.WithoutFaults([&] {
                (void)Final(*ctx);
                EXPECT_NE(Begin(*ctx, input.signature), 0u) << "when asked again";
            });
            return rc;
        };
        return SweepFaults(
            kind, operation, [](PELNIC_ERROR_CODE rc, const FaultRun&) { EXPECT_NE(rc, 0u); }, EachOnce());
    }
};

TEST_F(LostInput, IsMissedWhenItIsACrlThatBeginHandsOver)
{
    EXPECT_GT(ExpectRefused(cases::RevokedByTheFirstOfTwoCrls(), Step::Begin, Call::Memset), 100u);
}

TEST_F(LostInput, IsMissedWhenItIsACertificateOfTheSignature)
{
    EXPECT_GT(ExpectRefused(cases::ExpiredCaBeforeTheGoodOne(), Step::Begin, Call::Malloc), 100u);
}

TEST_F(LostInput, IsMissedWhenItIsACertificateOfTheCaller)
{
    Case input = cases::ExpiredCaOfTheCaller();
    const Bytes& certs = input.anchors.root;
    const Bytes expired(certs.begin(), certs.begin() + static_cast<std::ptrdiff_t>(ElementAt(certs, 0).End()));
    const Bytes root(certs.begin() + static_cast<std::ptrdiff_t>(expired.size()), certs.end());
    input.anchors.root = Cat(Pem("CERTIFICATE", expired), Pem("CERTIFICATE", root));
    for (Call kind : {Call::Malloc, Call::Memcpy}) EXPECT_GT(ExpectRefused(input, Step::AddCert, kind), 20u);
}

// ---- Summaries for which there was no memory ----

// A summary without one of its CRLs compares as if that were no matter, so that none of it counts.
TEST(IncompleteSummary, HasNothingValidInIt)
{
    const DemoPki pki;
    const Bytes root = Cat(Build(pki.root), Build(pki.signingCa));
    const Bytes crls = Cat(Build(pki.rootCrl), Build(pki.signingCrl));
    std::size_t incomplete = 0;
    const auto decode = [&](CallbackPlan& plan) {
        plan.Silence();
        plan.RememberGoodSignatures();
        std::optional<Context> ctx;
        plan.WithoutFaults([&] {
            ctx.emplace(plan);
            EXPECT_EQ(pelnic_verify_add_cert(*ctx, root.data(), Len(root)), 0u);
        });
        PELNIC_CRL_BUNDLE_INFO* summary = nullptr;
        const PELNIC_ERROR_CODE rc = pelnic_decode_crl(*ctx, crls.data(), Len(crls), &summary);
        if (summary == nullptr) return rc;
        std::size_t valid = 0;
        for (PNV_INT i = 0; i < summary->crl_count; ++i) valid += summary->crl_info_list[i]->valid == 1;
        if (summary->crl_count == 1) {
            ++incomplete;
            EXPECT_EQ(valid, 0u);
        } else if (plan.FaultsMet() == 0) {
            EXPECT_EQ(valid, 2u);
        }
        EXPECT_EQ(pelnic_crl_free(*ctx, summary), 0u);
        return rc;
    };
    SweepFaults(
        Call::Malloc, decode, [](PELNIC_ERROR_CODE, const FaultRun&) {}, EachOnce());
    EXPECT_GT(incomplete, 0u);
}

// ---- A log that has no memory ----

CallbackPlan* g_plan = nullptr;
std::vector<std::size_t> g_allocationsBefore; // each record

void NoteAllocations(PELNIC_LOG_TYPE, const PNV_CHAR*, PNV_INT, const PNV_CHAR*, PNV_THREAD_ID, PNV_TIME_T,
                     PELNIC_ERROR_CODE, const PNV_CHAR*)
{
    g_allocationsBefore.push_back(g_plan->Count(Call::Malloc));
}

// A good signature that the log has something to say about: a root comes with it.
Case GoodWithARoot()
{
    Case input = cases::Good();
    CmsSpec cms = FlatCms(FlatPki());
    cms.certificates.push_back(Build(ForeignRoot()));
    input.signature = DetachedCms(input.content, cms);
    return input;
}

TEST(LogWithoutMemory, ChangesNoVerdict)
{
    const Case input = GoodWithARoot();
    const auto verify = [&](const Context& ctx) {
        EXPECT_EQ(Verify(ctx, input.signature, input.content), good);
        EXPECT_EQ(Verify(ctx, input.signature, input.content), good) << "once more";
    };
    std::size_t before = 0;
    {
        CallbackPlan plan;
        g_plan = &plan;
        g_allocationsBefore.clear();
        plan.Table().plt_funcs.log_funcs.log_func = NoteAllocations;
        const Context ctx(plan);
        Provide(ctx, input.anchors);
        before = plan.Count(Call::Malloc);
        verify(ctx);
        ASSERT_FALSE(g_allocationsBefore.empty());
    }
    // The record's own allocation is the last before it.
    CallbackPlan plan;
    const Context ctx(plan);
    Provide(ctx, input.anchors);
    plan.Fail(Call::Malloc, g_allocationsBefore[0] - before);
    verify(ctx);
    EXPECT_EQ(plan.FaultsMet(), 1u);
    EXPECT_TRUE(LoggedError(plan, PELNIC_ERR_SYS_MEM_ALLOC, "Allocate memory for log message failed."));
}

TEST(LogWithoutFormat, ChangesNoVerdict)
{
    const Case input = GoodWithARoot();
    CallbackPlan plan;
    const Context ctx(plan);
    Provide(ctx, input.anchors);
    plan.Fail(Call::Vsnprintf, 1, FaultMode::Onward);
    EXPECT_EQ(Verify(ctx, input.signature, input.content), good);
    EXPECT_GE(plan.FaultsMet(), 1u);
    EXPECT_EQ(Verify(ctx, input.signature, input.content), good);
}

// ---- Digests longer than 32 octets ----

class LongDigest : public SignatureTest {
protected:
    // Another octet at this place, of 48 or 64.
    static Bytes Altered(Bytes digest, std::size_t at)
    {
        digest.at(at) ^= 0x01;
        return digest;
    }
    static SignedAttributes Claiming(std::string_view contentType, std::size_t at)
    {
        return [contentType, at](const Bytes& digest) {
            return std::vector<Bytes>{ContentTypeAttribute(contentType), MessageDigestAttribute(Altered(digest, at))};
        };
    }
    static constexpr std::pair<Hash, std::size_t> kPlaces[] = {
        {Hash::Sha384, 32}, {Hash::Sha384, 47}, {Hash::Sha512, 32}, {Hash::Sha512, 63}};
};

TEST_F(LongDigest, OfTheContentIsComparedToItsEnd)
{
    for (const auto& [hash, at] : kPlaces) {
        CmsSpec cms = DemoCms(pki_);
        cms.signers[0].hash = hash;
        ExpectAccepted(cms);
        cms.signers[0].signedAttributes = Claiming(oid::data, at);
        ExpectVerdict(DetachedCms(payload_, cms), bad);
    }
}

TEST_F(LongDigest, OfTwoSignersIsComparedToItsEnd)
{
    for (const auto& [hash, at] : kPlaces) {
        CmsSpec cms = DemoCms(pki_);
        cms.signers[0].hash = hash;
        cms.signers.push_back(cms.signers[0]);
        ExpectAccepted(cms);
        cms.signers[1].signedAttributes = Claiming(oid::data, at);
        ExpectRefused(cms, PELNIC_ERR_CMS_DIGEST_CONFLICT);
    }
}

TEST_F(LongDigest, OfTheStampedSignatureIsComparedToItsEnd)
{
    for (const auto& [hash, at] : kPlaces) {
        TokenSpec token = DemoToken(pki_);
        token.imprintHash = hash;
        CmsSpec cms = DemoCms(pki_, token);
        ExpectAccepted(cms);
        cms.signers[0].unsignedAttributes = {[&, hash = hash, at = at](const Bytes& signature) {
            TokenSpec altered = token;
            altered.imprint = Altered(Digest(hash, signature), at);
            return Timestamp(altered)(signature);
        }};
        ExpectRefused(cms, PELNIC_ERR_TSP_IMPRINT_MISMATCH);
    }
}

TEST_F(LongDigest, OfTheTimestampIsComparedToItsEnd)
{
    for (const auto& [hash, at] : kPlaces) {
        TokenSpec token = DemoToken(pki_);
        token.cms.signers[0].hash = hash;
        ExpectAccepted(DemoCms(pki_, token));
        token.cms.signers[0].signedAttributes = Claiming(oid::tstInfo, at);
        ExpectRefused(DemoCms(pki_, token), PELNIC_ERR_TSP_VERIFY);
    }
}

// ---- Reads that bring less than was asked for ----

size_t (*g_fread)(void*, size_t, PNV_FILE_HANDLE) = nullptr;

// As a pipe or an interrupted call would.
size_t ReadSome(void* buf, size_t size, PNV_FILE_HANDLE file)
{
    return g_fread(buf, std::min<size_t>(size, 100), file);
}

TEST(ShortReads, AreNotTheEndOfTheContent)
{
    const Bytes content(10000, 0x5A);
    const DemoPki pki = FlatPki();
    TempDir dir;
    const std::string contentFile = dir.Write("content", content);
    const std::string signatureFile = dir.Write("signature", DetachedCms(content, FlatCms(pki)));
    CallbackPlan plan;
    auto& files = plan.Table().plt_funcs.sys_funcs.file_funcs;
    g_fread = files.fread;
    {
        const Context ctx(plan);
        Provide(ctx, FlatAnchors(pki));
        // The signature is read as usual, the content in pieces.
        ctx->callback_funcs.plt_funcs.sys_funcs.file_funcs.fread = [](void* buf, size_t size, PNV_FILE_HANDLE file) {
            return size == 4096 ? ReadSome(buf, size, file) : g_fread(buf, size, file);
        };
        Verdict verdict{0, 77};
        verdict.code =
            pelnic_verify_detach_signature_quick(ctx, contentFile.c_str(), signatureFile.c_str(), &verdict.result);
        EXPECT_EQ(verdict, good);
        EXPECT_GT(plan.Count(Call::Fread), 100u);
    }
    ExpectNoProblems(plan);
}

} // namespace
} // namespace pnvtest
