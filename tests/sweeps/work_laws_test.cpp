// How the work grows with a hostile input: signature checks, comparisons, allocations, the largest request and the
// peak of memory, counted through the callback table at several sizes. docs/limits.md has the table.
// CMSVERIFY_LONG=1 adds the largest sizes.
#include "cmsverify/pelnic_faults.h"
#include "support/signature.h"

#include <cstdlib>
#include <iostream>

namespace pnvtest {
namespace {

struct Work {
    std::size_t checks = 0;      // of signatures
    std::size_t comparisons = 0; // of octets and of strings
    std::size_t allocations = 0;
    std::size_t largest = 0; // single request, in octets
    std::size_t peak = 0;    // octets held at a time
};

bool Exceeds(const Work& work, const Work& most)
{
    return work.checks > most.checks || work.comparisons > most.comparisons || work.allocations > most.allocations ||
           work.largest > most.largest || work.peak > most.peak;
}

std::ostream& operator<<(std::ostream& out, const Work& work)
{
    return out << "checks " << work.checks << ", comparisons " << work.comparisons << ", allocations "
               << work.allocations << ", largest " << work.largest << ", peak " << work.peak;
}

class Meter {
public:
    explicit Meter(const CallbackPlan& plan) : plan_(plan), start_(Now()) {}
    // The counts since the start; the sizes since the plan's beginning.
    Work Spent() const
    {
        Work work = Now();
        work.checks -= start_.checks;
        work.comparisons -= start_.comparisons;
        work.allocations -= start_.allocations;
        return work;
    }

private:
    Work Now() const
    {
        return {plan_.Count(Call::VerifyFinal), plan_.Count(Call::Memcmp | Call::Strncmp | Call::Strcmp),
                plan_.Count(Call::Malloc), plan_.LargestRequest(), plan_.PeakBytes()};
    }

    const CallbackPlan& plan_;
    const Work start_;
};

void ExpectAtMost(const std::string& what, const Work& work, const Work& most)
{
    std::cout << "[   COST   ] " << what << ": " << work << std::endl;
    EXPECT_FALSE(Exceeds(work, most)) << what << " may take " << most;
}

// A law whose constants are measured: checks follow it to the last, and the other counts are no more than a tenth
// below.
void ExpectLaw(const std::string& what, const Work& work, const Work& law)
{
    ExpectAtMost(what, work, law);
    EXPECT_EQ(work.checks, law.checks) << what;
    EXPECT_GE(work.comparisons * 11, law.comparisons * 10) << what << " has a law of " << law;
    EXPECT_GE(work.allocations * 11, law.allocations * 10) << what << " has a law of " << law;
}

// The sizes of a family: the last is for long runs.
std::vector<std::size_t> Sizes(std::size_t small, std::size_t large, std::size_t longest)
{
    std::vector<std::size_t> sizes{small, large};
    if (std::getenv("CMSVERIFY_LONG") != nullptr) sizes.push_back(longest);
    return sizes;
}

std::string Times(std::size_t count, const std::string& what)
{
    return std::to_string(count) + " " + what;
}

// A positive INTEGER of four octets, so that numbers do not change the length of what they are part of.
Bytes Number(std::size_t number)
{
    Bytes content{0x40};
    for (int shift = 16; shift >= 0; shift -= 8) content.push_back(static_cast<std::uint8_t>(number >> shift));
    return Int(content);
}

// count elements one after the other.
template <typename Element> Bytes Repeat(std::size_t count, Element element)
{
    Bytes all;
    for (std::size_t i = 0; i < count; ++i) {
        const Bytes one = element(i);
        all.insert(all.end(), one.begin(), one.end());
    }
    return all;
}

// ---- Many certificates, CRLs and signers of one name ----

// CAs of the signer's issuer's name, and CRLs by one of them. Their issuer has that name too, and is none of them: each
// could have signed itself or another, and no way leads to a root.
Work OfNamesakes(std::size_t cas, std::size_t crls, std::size_t signers)
{
    CleanPlan plan;
    Stores stores(plan);
    const DemoPki pki;
    stores.AddSigningBranch(pki);
    const CertSpec foreign = With(pki.signingCa, &CertSpec::key, KeyId::Rsa2048H);
    const CertSpec namesake = IssuedBy(foreign, With(foreign, &CertSpec::key, KeyId::Rsa2048F));
    const Bytes der = Build(namesake);
    for (std::size_t i = 0; i < cas; ++i) stores.Package(Replace(der, {0, tbs::serial}, Number(i)));
    for (std::size_t i = 0; i < crls; ++i) {
        stores.AddCrl(With(CrlOf(namesake), &CrlSpec::extensions, std::vector<Bytes>{Ext(oid::crlNumber, Number(i))}));
    }
    const PELNIC_X509_CERT* const signer = stores.Cert(pki.signer);
    const Meter meter(plan);
    const OperationRun begin{stores};
    for (std::size_t i = 0; i < signers; ++i) EXPECT_EQ(stores.Verify(signer), 0u);
    return meter.Spent();
}

TEST(WorkLaws, Namesakes)
{
    for (std::size_t n : Sizes(4, 16, 128)) {
        for (std::size_t signers : {1u, 4u}) {
            const std::string what = Times(n, "CAs, ") + Times(n, "CRLs of one name, ") + Times(signers, "signers");
            // Two checks of each CRL, by the genuine CA and by its own, and for that one a check by each CA.
            ExpectLaw(what, OfNamesakes(n, n, signers),
                      {3 * n + 7, 153 * n + 330 + signers * (24 * n + 60), 25 * n + 60 + 4 * signers, 20 * n + 2560,
                       5200 * n + 15000});
        }
    }
}

// Forged CRLs are tried with each CA of their name: the one product that remains.
TEST(WorkLaws, ForgedCrlsOfNamesakes)
{
    for (std::size_t n : Sizes(8, 32, 128)) {
        CleanPlan plan;
        Stores stores(plan);
        const DemoPki pki;
        stores.AddSigningBranch(pki);
        const PELNIC_X509_CERT* const signer = stores.Cert(pki.signer);
        EXPECT_EQ(stores.Verify(signer), 0u);
        const Bytes ca = Build(pki.signingCa);
        const Bytes crl = Build(pki.signingCrl);
        for (std::size_t i = 0; i < n; ++i) {
            stores.Package(Replace(ca, {0, tbs::serial}, Number(i)));
            stores.AddCrl(Replace(crl, {2}, Bits(0, Bytes(256, static_cast<std::uint8_t>(i + 1)))));
        }
        std::set<Bytes> genuine;
        for (const VerifyRequest& request : plan.VerifyRequests()) genuine.insert(request.signature);
        plan.Spare(genuine);
        plan.StubVerification(0, 0);
        const Meter meter(plan);
        EXPECT_EQ(stores.Verify(signer), 0u);
        ExpectLaw(
            Times(n, "CAs and as many forged CRLs of one name"), meter.Spent(),
            {n * (n + 1) + 2, 52 * n * n + 88 * n + 200, 9 * n * n + 10 * n + 50, 20 * n + 2560, 5200 * n + 15000});
        const Meter again(plan); // nothing that was refused is remembered
        EXPECT_EQ(stores.Verify(signer), 0u);
        EXPECT_EQ(again.Spent().checks, n * (n + 1) + 2);
    }
}

// ---- CRLs whose issuers fail on every level ----

// A chain with so many CRLs of each CA, and a root that has expired.
Work OfFailingLevels(std::size_t levels, std::size_t crls)
{
    CleanPlan plan;
    Stores stores(plan);
    std::vector<CertSpec> chain = CaChain(levels - 1);
    chain[0].notAfter = UtcTime("251231235959Z");
    for (const CertSpec& ca : chain) {
        stores.Trust(ca);
        for (std::size_t i = 0; i < crls; ++i) {
            stores.AddCrl(With(CrlOf(ca), &CrlSpec::extensions, std::vector<Bytes>{Ext(oid::crlNumber, Number(i))}));
        }
    }
    const PELNIC_X509_CERT* const signer = stores.Cert(IssuedBy(Signer(), chain.back()));
    const Meter meter(plan);
    EXPECT_EQ(stores.Verify(signer), PELNIC_ERR_CRL_VERIFY);
    // Each CRL that is passed over has its record, but for the root's: an expired certificate is not logged.
    EXPECT_EQ(plan.Count(Call::Log), 1 + (levels - 1) * crls);
    return meter.Spent();
}

TEST(WorkLaws, FailingLevels)
{
    for (std::size_t n : Sizes(3, 6, 10)) {
        const std::size_t all = n * n; // CRLs, and each level looks at all of them
        ExpectLaw(
            Times(n, "levels with as many CRLs each, all failing"), OfFailingLevels(n, n),
            {all + n + 1, 18 * n * all + 50 * all + 60 * n + 50, 11 * all + 10 * n + 5, 2560, 2000 * all + 20000});
    }
}

// Certificates covered by indirect CRLs are walked to their root, and so are the issuers of those CRLs at each depth.
TEST(WorkLaws, IndirectChain)
{
    for (std::size_t n : Sizes(3, 6, 12)) {
        CleanPlan plan;
        Stores stores(plan);
        const std::vector<CertSpec> chain = CaChain(n);
        for (const CertSpec& ca : chain) stores.Trust(ca);
        stores.AddCrl(Indirect(CrlOf(chain.back())));
        stores.AddCrl(Indirect(CrlOf(chain.front())));
        const PELNIC_X509_CERT* const signer = stores.Cert(IssuedBy(Signer(), chain.back()));
        const Meter meter(plan);
        EXPECT_EQ(stores.Verify(signer), 0u);
        ExpectLaw("an indirect CRL by the last of " + Times(n, "CAs"), meter.Spent(),
                  {n + 4, 1000 * n + 250, 88 * n + 50, 2560, 3500 * n + 20000});
    }
}

// ---- What keeps these laws, answers remembered, changes no answer ----

class Remembered : public StoresTest {
protected:
    const DemoPki pki_;
};

TEST_F(Remembered, AnswersAreOfOneTime)
{
    stores_.Trust(With(pki_.root, &CertSpec::notAfter, UtcTime("251231235959Z")));
    stores_.Trust(pki_.signingCa);
    stores_.AddCrl(pki_.rootCrl);
    stores_.AddCrl(pki_.signingCrl);
    const PELNIC_X509_CERT* const signer = stores_.Cert(pki_.signer);
    for (int i = 0; i < 2; ++i) {
        stores_->base_time = k2026;
        EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CRL_VERIFY);
        stores_->base_time = k2026 - 1;
        EXPECT_EQ(stores_.Verify(signer), 0u);
    }
}

// The CA whose CRL is good after all has been found too deep before, on the way from a longer chain.
TEST_F(Remembered, AnswersAreOfOneDepth)
{
    const std::vector<CertSpec> chain = CaChain(11);
    for (const CertSpec& ca : chain) {
        stores_.Trust(ca);
        stores_.AddCrl(CrlOf(ca));
    }
    const PELNIC_X509_CERT* const signer = stores_.Cert(IssuedBy(Signer(), chain.back()));
    EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CRL_VERIFY);
    EXPECT_TRUE(LoggedError(plan_, 0, "The path of certificate is too deep."));
    stores_.AddCrl(Indirect(CrlOf(chain[3])));
    EXPECT_EQ(stores_.Verify(signer), 0u);
}

TEST_F(Remembered, AnswersAreOfTheStoresAsTheyWere)
{
    const PELNIC_X509_CERT* const signer = stores_.Cert(pki_.signer);
    EXPECT_EQ(_pnvFindCertRoot(stores_, signer), nullptr);
    stores_.Trust(pki_.signingCa);
    EXPECT_EQ(_pnvFindCertRoot(stores_, signer), nullptr);
    const PELNIC_X509_CERT* const root = stores_.Trust(pki_.root);
    EXPECT_EQ(_pnvFindCertRoot(stores_, signer), root);
    EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CRL_NOT_FOUND);
    stores_.AddCrl(pki_.signingCrl);
    EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CRL_VERIFY);
    stores_.AddCrl(pki_.rootCrl);
    EXPECT_EQ(stores_.Verify(signer), 0u);
}

TEST_F(Remembered, AnswersAreOfWhoBroughtTheRoot)
{
    PELNIC_X509_CERT* const root = stores_.Trust(pki_.root);
    root->bFromPackage = 1;
    stores_.SwitchCrlCheckOff();
    const PELNIC_X509_CERT* const ca = stores_.Cert(pki_.signingCa);
    EXPECT_EQ(_pnvFindCertRoot(stores_, ca), nullptr);
    EXPECT_EQ(stores_.Verify(ca), PELNIC_ERR_CERT_NO_ISSUER);
    EXPECT_EQ(pelnic_pki_store_add_trust_cert(stores_, stores_.Cert(pki_.root)), PELNIC_ERR_CERT_DUPLICATE);
    EXPECT_EQ(_pnvFindCertRoot(stores_, ca), root);
    EXPECT_EQ(stores_.Verify(ca), 0u);
}

TEST_F(Remembered, RefusalsHaveAnAnswerBehindThem)
{
    const PELNIC_X509_CERT* const root = stores_.Trust(pki_.root);
    const PELNIC_X509_CERT* const ca = stores_.Cert(pki_.signingCa);
    for (Call call : {Call::Malloc, Call::VerifyCreate, Call::VerifyFinal}) {
        plan_.Fail(call, 1);
        EXPECT_EQ(_pnvFindCertIssuer(stores_, ca), nullptr);
    }
    EXPECT_EQ(_pnvFindCertIssuer(stores_, ca), root);
}

// ---- Many certificates in one signature ----

CmsSpec WithCertificates(const DemoPki& pki, std::size_t count)
{
    CmsSpec cms = DemoCms(pki);
    const Bytes sample = Build(pki.signer);
    for (std::size_t i = 0; i < count; ++i) {
        cms.certificates.push_back(Replace(sample, {0, tbs::serial}, Number(i)));
    }
    return cms;
}

TEST(WorkLaws, CertificatesInASignature)
{
    for (std::size_t n : Sizes(250, 1000, 20000)) {
        CleanPlan plan;
        const DemoPki pki;
        const Bytes signature = DetachedCms({}, WithCertificates(pki, n));
        Context ctx(plan);
        Provide(ctx, AnchorsOf(pki));
        const Meter meter(plan);
        EXPECT_EQ(Begin(ctx, signature), 0u);
        ExpectLaw(Times(n, "certificates in a signature"), meter.Spent(),
                  {10, 24 * n + 900, 73 * n + 600, 16 * n + 2560, 4400 * n + 50000});
    }
}

// Whether such a one is a root is told by its signature.
TEST(WorkLaws, SelfIssuedCertificatesInASignature)
{
    for (std::size_t n : Sizes(50, 200, 5000)) {
        CleanPlan plan;
        const DemoPki pki;
        CertSpec selfIssued = pki.signer;
        selfIssued.subject = selfIssued.issuer;
        const Bytes sample = Build(selfIssued);
        CmsSpec cms = DemoCms(pki);
        for (std::size_t i = 0; i < n; ++i) cms.certificates.push_back(Replace(sample, {0, tbs::serial}, Number(i)));
        const Bytes signature = DetachedCms({}, cms);
        Context ctx(plan);
        Provide(ctx, AnchorsOf(pki));
        const Meter meter(plan);
        EXPECT_EQ(Begin(ctx, signature), 0u);
        ExpectLaw(Times(n, "self-issued certificates in a signature"), meter.Spent(),
                  {n + 10, 40 * n + 900, 79 * n + 600, 16 * n + 2560, 4400 * n + 50000});
    }
}

// ---- Signers of one signature ----

TEST(WorkLaws, Signers)
{
    for (std::size_t n : Sizes(2, 8, 64)) {
        for (const bool direct : {false, true}) {
            CleanPlan plan;
            const DemoPki pki;
            const Bytes content = Text("content");
            CmsSpec cms = DemoCms(pki);
            if (direct) cms = Direct(cms);
            cms.signers.assign(n, cms.signers[0]);
            const Bytes signature = DetachedCms(content, cms);
            Context ctx(plan);
            Provide(ctx, AnchorsOf(pki));
            const Meter meter(plan);
            EXPECT_EQ(Verify(ctx, signature, content), good);
            ExpectLaw(Times(n, direct ? "direct signers" : "signers"), meter.Spent(),
                      {2 * n + 8, 350 * n + 520, 290 * n + 250, 2560, 4000 * n + 40000});
            // Signers with attributes share one digest of the content; each of the others has its own.
            plan.StubVerification(0, 1);
            EXPECT_EQ(Begin(ctx, signature), 0u);
            const std::size_t before = plan.Count(Call::MdUpdate | Call::VerifyUpdate);
            EXPECT_EQ(Update(ctx, content), 0u);
            EXPECT_EQ(plan.Count(Call::MdUpdate | Call::VerifyUpdate) - before, direct ? n : 1);
            EXPECT_EQ(Final(ctx), good);
        }
    }
}

// ---- Many small elements ----

// A SignedData of these certificates and digest algorithms, without signers.
Bytes BareSignedData(const Bytes& digestAlgorithms, const Bytes& certificates)
{
    return Seq(Oid(oid::signedData), Ctx(0, Seq(Int(1), Tlv(0x31, digestAlgorithms), Seq(Oid(oid::data)),
                                                OptionalCtx(0, certificates), Set())));
}

Work OfBegin(const Bytes& signature, PELNIC_ERROR_CODE rc)
{
    CleanPlan plan;
    Context ctx(plan);
    const Meter meter(plan);
    EXPECT_EQ(Begin(ctx, signature), rc);
    return meter.Spent();
}

TEST(WorkLaws, RawCertificates)
{
    for (std::size_t n : Sizes(3000, 12000, 300000)) {
        const Bytes signature = BareSignedData({}, Repeat(n, [](std::size_t) { return Seq(); }));
        ExpectLaw(Times(n, "raw certificates of two octets"), OfBegin(signature, PELNIC_ERR_CMS_DECODE),
                  {0, 6, n + 40, 16 * n, 72 * n + 10000});
    }
}

TEST(WorkLaws, DigestAlgorithms)
{
    for (std::size_t n : Sizes(5000, 20000, 500000)) {
        const Bytes signature = BareSignedData(Repeat(n, [](std::size_t) { return Seq(Null()); }), {});
        ExpectLaw(Times(n, "digest algorithm identifiers"), OfBegin(signature, 0),
                  {0, 5, n + 40, 16 * n, 72 * n + 10000});
    }
}

TEST(WorkLaws, BadPemBlocks)
{
    const std::pair<const char*, std::string> kinds[] = {
        {"bad certificates", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"},
        {"foreign ends", "-----BEGIN CERTIFICATE-----\n-----END X509 CRL-----\n"},
        {"dashes", "-----BEGIN CERTIFICATE-----\n" + std::string(40, '-') + "-----END CERTIFICATE-----\n"},
        {"nothing", "-----BEGIN-----END-----\n"},
    };
    for (const auto& [content, block] : kinds) {
        for (std::size_t n : Sizes(500, 2000, 20000)) {
            const Bytes text = Repeat(n, [&, &one = block](std::size_t) { return Text(one); });
            CleanPlan plan;
            Context ctx(plan);
            const Meter meter(plan);
            EXPECT_EQ(pelnic_verify_add_cert(ctx, text.data(), Len(text)), PELNIC_ERR_CERT_INVALID);
            // A copy of the text, the octets of one block, and one log record at a time.
            ExpectAtMost(Times(n, "PEM blocks of ") + content, meter.Spent(),
                         {0, text.size(), 3 * n + 3, text.size() + 2048, text.size() + 3000});
        }
    }
}

// ---- Large CRLs ----

TEST(WorkLaws, CrlEntries)
{
    for (std::size_t n : Sizes(1000, 4000, 500000)) {
        CleanPlan plan;
        Stores stores(plan);
        const DemoPki pki;
        stores.Trust(pki.root);
        stores.AddCrl(pki.rootCrl);
        stores.Trust(pki.signingCa);
        CrlSpec spec = pki.signingCrl;
        spec.editTbs = [&](Bytes tbs) {
            return Replace(tbs, {tbscrl::revoked},
                           Cat(Seq(Repeat(n,
                                          [&](std::size_t i) {
                                              return Cat(Bytes{0x30, 0x15}, Number(i), UtcTime("250601000000Z"));
                                          })),
                               Extract(tbs, {tbscrl::revoked})));
        };
        const Bytes der = Build(spec);
        PELNIC_VRF* const vrf = stores;
        {
            const Meter meter(plan);
            const OwnedCrl crl = DecodeCrl(vrf, der);
            ExpectAtMost(Times(n, "entries of a CRL, decoded"), meter.Spent(),
                         {0, 0, n / 100 + 60, 4 * Len(der), Len(der) + 150 * n + 10000});
        }
        stores.AddCrl(der);
        // Serial numbers of one length: others differ without a comparison.
        const PELNIC_X509_CERT* const signer = stores.Cert(With(pki.signer, &CertSpec::serial, Content(Number(n), {})));
        const Meter meter(plan);
        EXPECT_EQ(stores.Verify(signer), 0u);
        ExpectLaw(Times(n, "entries of a CRL, searched for one signer"), meter.Spent(),
                  {5, n + 310, 44, 4 * Len(der), Len(der) + 150 * n + 15000});
    }
}

// ---- RSA exponents as long as the modulus ----

// Nothing in a key bounds its exponent but the room for it, and each check of a signature costs a squaring for each of
// its bits.
TEST(WorkLaws, LongExponent)
{
    const Bytes modulus = TestKey(KeyId::Rsa2048B).modulus;
    Bytes exponent = modulus;
    exponent.front() = static_cast<std::uint8_t>(exponent.front() - 1);
    CleanPlan plan;
    Stores stores(plan);
    const DemoPki pki;
    stores.Trust(With(pki.signingCa, &CertSpec::subjectPublicKey, RsaSpki(modulus, exponent)));
    const Meter meter(plan);
    EXPECT_EQ(_pnvFindCertIssuer(stores, stores.Cert(pki.signer)), nullptr);
    ExpectLaw("a key whose exponent is as long as its modulus", meter.Spent(), {1, 40, 80, 1024, 9000});
    ASSERT_EQ(plan.VerifyRequests().size(), 1u);
    EXPECT_EQ(plan.VerifyRequests()[0].exponent, exponent);
}

} // namespace
} // namespace pnvtest
