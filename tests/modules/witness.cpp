// The library with its witness compiled in: it tells of every decision and of the element that does not decode, and no
// code, verdict or log record is another for it. A program of its own, because the other tests have the library that a
// product has.
#include "cmsverify/include/pelnic_cms_witness.h"
#include "cmsverify/pelnic_cms_parse.h"
#include "cmsverify/pelnic_witness.h"
#include "cmsverify/pelnic_x509_parse.h"
#include "support/signature_cases.h"
#include "support/stores.h"
#include "support/vrf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace pnvtest {
namespace {

std::string PathOf(const DecodeStep* step)
{
    if (step == nullptr) return "";
    std::string path = PathOf(step->above);
    if (step->name == nullptr) return path;
    path += (path.empty() ? "" : ".") + std::string(step->name);
    return step->index == DecodeStep::NO_INDEX ? path : path + "[" + std::to_string(step->index) + "]";
}

struct Fault {
    DecodeFault fault = DecodeFault::None;
    std::string path;
    PNV_UINT32 offset = 0;
    std::string missing; // a field of another row than the element's own
    int tag = -1;        // what stands there
    int times = 0;

    bool operator==(const Fault& other) const
    {
        return fault == other.fault && path == other.path && offset == other.offset && missing == other.missing &&
               tag == other.tag && times == other.times;
    }
};
std::ostream& operator<<(std::ostream& out, const Fault& fault)
{
    return out << "fault " << static_cast<int>(fault.fault) << " at " << fault.path << " offset " << fault.offset
               << " missing " << fault.missing << " tag " << fault.tag << " times " << fault.times;
}

// Everything that is told while it lives.
class Notes {
public:
    Notes() : before_(_pnvSetWitness({Note, this})) {}
    ~Notes() { (void)_pnvSetWitness(before_); }

    std::vector<Decision> decisions;
    std::vector<PELNIC_ERROR_CODE> codes;
    Fault fault;

    std::vector<Decision> Refusals() const
    {
        std::vector<Decision> refusals;
        for (std::size_t i = 0; i < codes.size(); ++i) {
            if (codes[i] != 0) refusals.push_back(decisions[i]);
        }
        return refusals;
    }
    // The codes of this decision each time that it was made.
    std::vector<PELNIC_ERROR_CODE> CodesOf(Decision decision) const
    {
        std::vector<PELNIC_ERROR_CODE> found;
        for (std::size_t i = 0; i < codes.size(); ++i) {
            if (decisions[i] == decision) found.push_back(codes[i]);
        }
        return found;
    }

private:
    static void Note(void* user, const WitnessEvent& event)
    {
        auto& notes = *static_cast<Notes*>(user);
        if (event.decision != Decision::Undecodable) {
            notes.decisions.push_back(event.decision);
            notes.codes.push_back(event.code);
            return;
        }
        const DecodeStep& step = *event.step;
        notes.fault = {event.fault, PathOf(&step), step.offset, "", -1, notes.fault.times + 1};
        if (event.row != step.row) notes.fault.missing = event.row->name_val;
        if (step.input != nullptr && step.offset < step.input->nBufLen) notes.fault.tag = step.input->pVal[step.offset];
    }

    Witness before_;
};

Fault FaultOfCert(const Bytes& der)
{
    Vrf vrf;
    const Notes notes;
    PELNIC_X509_CERT* cert = nullptr;
    PNV_UINT32 consumed = 0;
    EXPECT_EQ(pelnic_x509_decode_cert(vrf, der.data(), Len(der), &cert, &consumed), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(cert, nullptr);
    pelnic_x509_free_cert(vrf, cert);
    return notes.fault;
}

Fault FaultOfCms(const Bytes& der)
{
    Vrf vrf;
    const Notes notes;
    PELNIC_PKCS7_CONTENT* content = nullptr;
    PNV_UINT32 consumed = 0;
    EXPECT_EQ(pelnic_pkcs7_decode_signed(vrf, der.data(), Len(der), &content, &consumed), PELNIC_ERR_CMS_DECODE);
    pelnic_pkcs7_free_signed(vrf, content);
    return notes.fault;
}

PNV_UINT32 OffsetOf(const Bytes& der, const Path& path)
{
    return static_cast<PNV_UINT32>(Find(der, path).offset);
}

TEST(DecodeWitness, NamesTheElementThatDoesNotDecode)
{
    const Bytes good = Build(Signer());
    const auto with = [&](const Path& path, const Bytes& element) { return Replace(good, path, element); };
    const auto at = [&](const Path& path) { return OffsetOf(good, path); };
    EXPECT_EQ(FaultOfCert(with({0, tbs::serial}, Octets({0x01}))),
              (Fault{DecodeFault::Tag, "toBeSigned.serialNumber", at({0, tbs::serial}), "", 0x04, 1}));
    EXPECT_EQ(FaultOfCert(with({0, tbs::serial}, Int({0x00}))),
              (Fault{DecodeFault::Value, "toBeSigned.serialNumber", at({0, tbs::serial}), "", 0x02, 1}));
    EXPECT_EQ(FaultOfCert(with({0, tbs::version}, Ctx(0, Int({})))),
              (Fault{DecodeFault::Value, "toBeSigned.version", at({0, tbs::version}), "", 0xA0, 1}));
    EXPECT_EQ(FaultOfCert(with({2}, Bits(9, {0x01}))), (Fault{DecodeFault::Value, "signature", at({2}), "", 0x03, 1}));
    EXPECT_EQ(FaultOfCert(with({0, tbs::validity}, Seq(UtcTime("260101000000Z")))),
              (Fault{DecodeFault::Missing, "toBeSigned.validity", at({0, tbs::validity}), "notAfter", 0x30, 1}));
    EXPECT_EQ(FaultOfCert(with({2}, {0x03, 0x80, 0x00, 0x00})),
              (Fault{DecodeFault::LengthForm, "signature", at({2}), "", 0x03, 1}));
    EXPECT_EQ(FaultOfCert(with({2}, {0x1F, 0x01, 0x00})),
              (Fault{DecodeFault::TagForm, "signature", at({2}), "", 0x1F, 1}));
    EXPECT_EQ(FaultOfCert({0x02, 0x01, 0x01}), (Fault{DecodeFault::Tag, "", 0, "", 0x02, 1}));
}

TEST(DecodeWitness, NamesWhereACutElementEnds)
{
    Bytes cut = Build(Signer());
    cut.resize(cut.size() - 1);
    EXPECT_EQ(FaultOfCert(cut), (Fault{DecodeFault::Length, "", 0, "", 0x30, 1}));
    // An element that claims more than the one around it.
    const Bytes names = Seq(Tlv(0x31, 5, Seq()));
    const Bytes good = Build(Signer());
    const Fault fault = FaultOfCert(Replace(good, {0, tbs::issuer}, names));
    EXPECT_EQ(fault.path.substr(0, 17), "toBeSigned.issuer");
    EXPECT_EQ(fault.times, 1);
}

TEST(DecodeWitness, NamesTheElementOfASet)
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    cms.certificates.push_back(Build(With(Signer(KeyId::Rsa2048F), &CertSpec::serial, Bytes{0x00})));
    Fault fault = FaultOfCms(DetachedCms(Text("x"), cms));
    EXPECT_EQ(fault.fault, DecodeFault::Value);
    EXPECT_EQ(fault.path, "certificates[" + std::to_string(cms.certificates.size() - 1) + "].toBeSigned.serialNumber");
    EXPECT_EQ(fault.tag, 0x02);
    cms.certificates.back() = Octets({0x01});
    fault = FaultOfCms(DetachedCms(Text("x"), cms));
    EXPECT_EQ(fault.fault, DecodeFault::Tag);
    EXPECT_EQ(fault.path, "certificates[" + std::to_string(cms.certificates.size() - 1) + "]");
    // A signer without an issuer.
    cms = DemoCms(pki);
    cms.signers[0].edit = [](const Bytes& signer) { return Replace(signer, {1}, Int(1)); };
    fault = FaultOfCms(DetachedCms(Text("x"), cms));
    EXPECT_EQ(fault.fault, DecodeFault::Tag);
    EXPECT_EQ(fault.path, "signed_data.signer_infos.infos[0].issuer_sn");
}

// Each cut of a certificate at any place names one element, and it begins in what is left or at its end.
TEST(DecodeWitness, TellsOnceForEachCut)
{
    const Bytes good = Build(Signer());
    for (std::size_t length = 1; length < good.size(); ++length) {
        SCOPED_TRACE(length);
        const Fault fault = FaultOfCert(Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_EQ(fault.times, 1);
        EXPECT_NE(fault.fault, DecodeFault::None);
    }
}

std::vector<Case> AllCases()
{
    using namespace cases;
    return {Good(),
            GoodDirect(),
            GoodBelowCas(),
            OtherContent(Good()),
            OtherContent(GoodDirect()),
            AlteredAttributes(),
            OtherStampedSignature(),
            RevokedSigner(),
            RevokedByOneOfTwoCrls(),
            RevokedByTheFirstOfTwoCrls(),
            RevokedAmongDuplicates(),
            RevokedByAnIndirectCrl(),
            ExpiredSigner(),
            SignerOfAnotherPurpose(),
            SignerBelowNoCa(),
            OwnRoot(),
            NoCrl(),
            ExpiredCrl(),
            ExpiredCaBeforeTheGoodOne(),
            ExpiredCaOfTheCaller()};
}

// A signature by a changed PKI or with another timestamp.
Case Signed(const char* name, const DemoPki& pki, const CmsSpec& cms)
{
    const Bytes content = Text("a firmware image");
    return {name, {Build(pki.root), pki.Crls()}, DetachedCms(content, cms), content};
}

struct Judged {
    Verdict verdict;
    std::size_t logged;
};

Judged Judge(const Case& input)
{
    CallbackPlan plan;
    Judged judged{};
    {
        Context ctx(plan);
        Provide(ctx, input.anchors);
        judged.verdict = Verify(ctx, input.signature, input.content);
    }
    judged.logged = plan.Logs().size();
    ExpectNoProblems(plan);
    return judged;
}

TEST(VerificationWitness, TellsOfARefusalWhateverItsReasonAndChangesNothing)
{
    for (const Case& input : AllCases()) {
        SCOPED_TRACE(input.name);
        const Judged alone = Judge(input);
        const Notes notes;
        const Judged seen = Judge(input);
        EXPECT_EQ(seen.verdict, alone.verdict);
        EXPECT_EQ(seen.logged, alone.logged);
        const bool isAccepted = alone.verdict == good;
        EXPECT_EQ(notes.decisions.back() == Decision::Payload, alone.verdict.code == 0);
        if (alone.verdict.code != 0) {
            ASSERT_FALSE(notes.Refusals().empty());
        }
        if (isAccepted) {
            EXPECT_EQ(notes.decisions[0], Decision::Roots);
            EXPECT_EQ(notes.decisions[1], Decision::Crls);
            EXPECT_EQ(notes.decisions[2], Decision::Signature);
            EXPECT_EQ(notes.decisions[3], Decision::CertTaken);
        }
    }
}

TEST(VerificationWitness, TheFirstRefusalIsTheReason)
{
    const std::vector<std::pair<Case, Decision>> reasons = {
        {cases::AlteredAttributes(), Decision::Value},
        {cases::OtherStampedSignature(), Decision::Time},
        {cases::RevokedSigner(), Decision::Revocation},
        {cases::ExpiredSigner(), Decision::Dates},
        {cases::SignerOfAnotherPurpose(), Decision::Usage},
        {cases::SignerBelowNoCa(), Decision::Issuer},
        {cases::NoCrl(), Decision::CrlChosen},
        {cases::ExpiredCrl(), Decision::CrlUnfit},
        {cases::RevokedByAnIndirectCrl(), Decision::Revocation},
    };
    for (const auto& [input, decision] : reasons) {
        SCOPED_TRACE(input.name);
        const Notes notes;
        (void)Judge(input);
        ASSERT_FALSE(notes.Refusals().empty());
        EXPECT_EQ(static_cast<int>(notes.Refusals()[0]), static_cast<int>(decision));
    }
}

using Codes = std::vector<PELNIC_ERROR_CODE>;

TEST(VerificationWitness, TellsEachDecisionOnceAndInOrder)
{
    CleanPlan plan;
    Stores stores(plan);
    DemoPki pki;
    pki.signingCrl.revoked = {{pki.signer.serial}};
    stores.AddSigningBranch(pki);
    const Notes notes;
    EXPECT_EQ(stores.Verify(pki.signer), PELNIC_ERR_CERT_REVOKED);
    using D = Decision;
    const std::vector<Decision> expected = {
        D::Dates,                                                  // the signer
        D::Issuer,     D::Issuer,     D::SelfSigned,               // its root
        D::Issuer,     D::SelfSigned, D::CrlScored,  D::CrlIssuer, // that of its CRL
        D::Dates,      D::Issuer,     D::SelfSigned,               // the CA, and its root
        D::SelfSigned, D::CrlScored,  D::CrlIssuer,                // that of its CRL
        D::Dates,      D::SelfSigned, D::Link,                     // the root
        D::CrlChosen,  D::Revocation, D::Link,                     // the CA
        D::CrlChosen,  D::Revocation, D::Link,                     // the signer
    };
    EXPECT_EQ(notes.decisions, expected);
    EXPECT_EQ(notes.Refusals(), (std::vector{D::Revocation, D::Link}));
    EXPECT_EQ(notes.CodesOf(D::Revocation), (Codes{0, PELNIC_ERR_CERT_REVOKED}));
    EXPECT_EQ(notes.CodesOf(D::Link), (Codes{0, 0, PELNIC_ERR_CERT_REVOKED}));
}

// The search for a root and the walk judge alike.
TEST(VerificationWitness, TellsWhyACertificateEndsNoChain)
{
    CleanPlan plan;
    Stores stores(plan);
    PELNIC_X509_CERT* const smuggled = stores.Cert(Root());
    smuggled->bFromPackage = 1;
    const std::pair<const PELNIC_X509_CERT*, PELNIC_ERROR_CODE> ends[] = {
        {stores.Cert(Root()), 0},
        {smuggled, PELNIC_ERR_CERT_NO_ISSUER},
        {stores.Cert(With(Root(), &CertSpec::key, KeyId::EcP256)), PELNIC_ERR_UNSUPPORTED_ALGO}};
    for (const auto& [cert, rc] : ends) {
        const Notes found;
        EXPECT_EQ(_pnvFindCertRoot(stores, cert), rc == 0 ? cert : nullptr);
        EXPECT_EQ(found.decisions, std::vector{Decision::SelfSigned});
        EXPECT_EQ(found.codes, Codes{rc});
        const Notes walked;
        EXPECT_EQ(stores.Verify(cert), rc);
        EXPECT_EQ(walked.decisions, (std::vector{Decision::Dates, Decision::SelfSigned, Decision::Link}));
        EXPECT_EQ(walked.codes, (Codes{0, rc, rc}));
    }
    const Notes notes;
    EXPECT_EQ(_pnvFindCertRoot(nullptr, smuggled), nullptr);
    EXPECT_EQ(notes.decisions, std::vector{Decision::SelfSigned});
    EXPECT_EQ(notes.codes, Codes{PELNIC_ERR_NULL_POINTER});
}

TEST(VerificationWitness, TellsOfAVerificationThatIsTooDeep)
{
    CleanPlan plan;
    Stores stores(plan);
    stores->curr_depth = MAX_NESTED_VERIFICATIONS;
    const Notes notes;
    PNV_BOOL result = 1;
    EXPECT_EQ(pelnic_pki_verify_cert(stores, stores.Cert(Root()), 0, &result), PELNIC_ERR_PATH_TOO_DEEP);
    EXPECT_EQ(notes.decisions, std::vector{Decision::TooDeep});
    EXPECT_EQ(notes.codes, Codes{PELNIC_ERR_PATH_TOO_DEEP});
}

TEST(VerificationWitness, TellsWhereSignersAuthoritiesAndChainsBeginAndEnd)
{
    const Notes notes;
    EXPECT_EQ(Judge(cases::Good()).verdict, good);
    const std::set<Decision> bounds{Decision::Signer,        Decision::SignerDone, Decision::Authority,
                                    Decision::AuthorityDone, Decision::Chain,      Decision::ChainDone};
    std::vector<Decision> told;
    for (Decision decision : notes.decisions) {
        if (bounds.count(decision) != 0) told.push_back(decision);
    }
    EXPECT_EQ(told, (std::vector<Decision>{Decision::Signer, Decision::Authority, Decision::Chain, Decision::ChainDone,
                                           Decision::AuthorityDone, Decision::Chain, Decision::ChainDone,
                                           Decision::SignerDone}));
}

TEST(VerificationWitness, TellsOfATimestampWhoseContentCannotBeRead)
{
    const DemoPki pki;
    TokenSpec token = DemoToken(pki);
    for (const auto& [content, code] :
         {std::pair(Bytes{}, PELNIC_ERR_TSP_DECODE), {Ctx(0, Bytes{0x04}), PELNIC_ERR_ASN_DECODE}}) {
        token.eContent = content;
        const CmsSpec cms = DemoCms(pki, token);
        const Notes notes;
        EXPECT_EQ(Judge(Signed("StampedWithoutContent", pki, cms)).verdict.code, code);
        EXPECT_EQ(notes.Refusals(), (std::vector<Decision>{Decision::Time, Decision::Begun}));
        EXPECT_EQ(notes.codes.back(), code);
    }
}

TEST(VerificationWitness, TellsOfContentWithoutASignature)
{
    CallbackPlan plan;
    Context ctx(plan);
    const Notes notes;
    const Bytes content{0x00};
    EXPECT_EQ(pelnic_verify_detach_signature_update(ctx, content.data(), 1), PELNIC_ERR_CMS_NOT_BEGUN);
    EXPECT_EQ(notes.decisions, std::vector<Decision>{Decision::Payload});
    EXPECT_EQ(notes.codes, std::vector<PELNIC_ERROR_CODE>{PELNIC_ERR_CMS_NOT_BEGUN});
}

TEST(VerificationWitness, IsOfItsThreadAndGoesWithItsOwner)
{
    {
        const Notes outer;
        {
            const Notes inner;
            (void)FaultOfCert({0x02, 0x01, 0x01});
        }
        (void)Judge(cases::Good());
        EXPECT_FALSE(outer.decisions.empty());
    }
    EXPECT_EQ(_pnvSetWitness({nullptr, nullptr}).func, nullptr);
}

// ---- The reason code

struct Reasons {
    std::vector<Bytes> all;
    Reasons() { pelnic_set_witness(Keep, this); }
    ~Reasons() { pelnic_set_witness(nullptr, nullptr); }
    static void Keep(void* user, const PNV_BYTE* reason)
    {
        static_cast<Reasons*>(user)->all.emplace_back(reason, reason + PELNIC_REASON_SIZE);
    }
};

PNV_UINT32 NumberAt(const Bytes& octets, std::size_t at)
{
    return PNV_UINT32{octets[at]} << 24 | PNV_UINT32{octets[at + 1]} << 16 | PNV_UINT32{octets[at + 2]} << 8 |
           octets[at + 3];
}

Case StampedWithGarbage()
{
    const DemoPki pki;
    TokenSpec token = DemoToken(pki);
    token.editTstInfo = [](const Bytes&) { return Seq(Int(1)); };
    return Signed("StampedWithGarbage", pki, DemoCms(pki, token));
}

Case StampedWithoutContent()
{
    const DemoPki pki;
    TokenSpec token = DemoToken(pki);
    token.eContent = Bytes{};
    return Signed("StampedWithoutContent", pki, DemoCms(pki, token));
}

// Its certificates come twice, and the second of each is refused on the way.
Case NotStamped()
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    for (const Bytes& cert : DemoCms(pki).certificates) cms.certificates.push_back(cert);
    cms.signers[0].unsignedAttributes.clear();
    return Signed("NotStamped", pki, cms);
}

Case WithoutMessageDigest()
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    cms.signers[0].signedAttributes = [](const Bytes&) { return std::vector<Bytes>{ContentTypeAttribute(oid::data)}; };
    return Signed("WithoutMessageDigest", pki, cms);
}

// The last CRL is of another CA, and where it says whose certificates it lists it does not decode.
Case NoCrlButAnUnreadableOne()
{
    DemoPki pki;
    pki.tsaCrl.extensions = {Ext(oid::issuingDistributionPoint, Int(5))};
    Case input = Signed("NoCrlButAnUnreadableOne", pki, DemoCms(pki));
    input.anchors.crls = Cat(Build(pki.rootCrl), Build(pki.tsaCrl));
    return input;
}

Case StampedByNobodyKnown()
{
    const DemoPki pki;
    TokenSpec token = DemoToken(pki);
    token.cms.certificates.clear();
    return Signed("StampedByNobodyKnown", pki, DemoCms(pki, token));
}

Case SignedByNobodyKnown()
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    cms.certificates.clear();
    return Signed("SignedByNobodyKnown", pki, cms);
}

Case TooShort()
{
    const DemoPki pki;
    Case input = Signed("TooShort", pki, DemoCms(pki));
    input.signature.resize(4);
    return input;
}

Case SignerWithoutDigitalSignature()
{
    DemoPki pki;
    pki.signer.keyUsage = usage::keyCertSign;
    return Signed("SignerWithoutDigitalSignature", pki, DemoCms(pki));
}

TEST(ReasonCode, TellsExpiredFromUnknown)
{
    struct {
        Case input;
        Decision decision;
        PELNIC_ERROR_CODE operation;
        PELNIC_ERROR_CODE code;
    } const refusals[] = {
        {cases::ExpiredSigner(), Decision::Dates, PELNIC_ERR_CERT_VERIFY, PELNIC_ERR_CERT_EXPIRED},
        {cases::SignerBelowNoCa(), Decision::Issuer, PELNIC_ERR_CERT_VERIFY, PELNIC_ERR_CERT_NO_ISSUER},
        {cases::OwnRoot(), Decision::Issuer, PELNIC_ERR_CERT_VERIFY, PELNIC_ERR_CERT_NO_ISSUER},
        {cases::RevokedSigner(), Decision::Revocation, PELNIC_ERR_CERT_VERIFY, PELNIC_ERR_CERT_REVOKED},
        {cases::NoCrl(), Decision::CrlChosen, PELNIC_ERR_CERT_VERIFY, PELNIC_ERR_CRL_NOT_FOUND},
        {cases::ExpiredCrl(), Decision::CrlUnfit, PELNIC_ERR_CERT_VERIFY, PELNIC_ERR_CRL_EXPIRED},
        {cases::SignerOfAnotherPurpose(), Decision::Usage, PELNIC_ERR_CERT_USAGE, PELNIC_ERR_CERT_USAGE},
        {cases::AlteredAttributes(), Decision::Value, PELNIC_ERR_CMS_SIGNATURE, PELNIC_ERR_CMS_SIGNATURE},
        {cases::OtherStampedSignature(), Decision::Time, PELNIC_ERR_TSP_IMPRINT_MISMATCH,
         PELNIC_ERR_TSP_IMPRINT_MISMATCH},
        {SignerWithoutDigitalSignature(), Decision::Usage, PELNIC_ERR_CERT_USAGE, PELNIC_ERR_CERT_USAGE},
        {SignedByNobodyKnown(), Decision::SignerCert, PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND,
         PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND},
        {TooShort(), Decision::Signature, PELNIC_ERR_CMS_FORMAT, PELNIC_ERR_CMS_FORMAT},
        {NoCrlButAnUnreadableOne(), Decision::CrlChosen, PELNIC_ERR_CERT_VERIFY, PELNIC_ERR_CRL_NOT_FOUND},
        {NotStamped(), Decision::Token, PELNIC_ERR_NULL_POINTER, PELNIC_ERR_NULL_POINTER},
        {WithoutMessageDigest(), Decision::SignerDone, PELNIC_ERR_CMS_NO_MESSAGE_DIGEST,
         PELNIC_ERR_CMS_NO_MESSAGE_DIGEST},
        {StampedWithoutContent(), Decision::Time, PELNIC_ERR_TSP_DECODE, PELNIC_ERR_TSP_DECODE},
        {StampedWithGarbage(), Decision::Undecodable, PELNIC_ERR_TSP_DECODE, 0},
        {StampedByNobodyKnown(), Decision::SignerCert, PELNIC_ERR_TSP_CERT_NOT_FOUND, PELNIC_ERR_TSP_CERT_NOT_FOUND},
        {cases::OtherContent(cases::Good()), Decision::Payload, 0, 0},
    };
    for (const auto& refusal : refusals) {
        SCOPED_TRACE(refusal.input.name);
        const Reasons reasons;
        const Judged judged = Judge(refusal.input);
        EXPECT_EQ(judged.verdict.code, refusal.operation);
        ASSERT_EQ(reasons.all.size(), 1u);
        const Bytes& reason = reasons.all[0];
        EXPECT_EQ(reason[0], 1);
        EXPECT_EQ(static_cast<int>(reason[1]), static_cast<int>(refusal.decision));
        EXPECT_EQ(NumberAt(reason, 4), refusal.operation);
        EXPECT_EQ(NumberAt(reason, 8), refusal.code);
    }
}

TEST(ReasonCode, NamesCertificateTimeAndElement)
{
    const Case expired = cases::ExpiredSigner();
    {
        const Reasons reasons;
        (void)Judge(expired);
        ASSERT_EQ(reasons.all.size(), 1u);
        const Bytes& reason = reasons.all[0];
        EXPECT_EQ(reason[2], 1);
        EXPECT_EQ(reason[3], 0);
        EXPECT_EQ(NumberAt(reason, 12), 1767225600u); // 2026-01-01
        EXPECT_NE(Bytes(reason.begin() + 24, reason.end()), Bytes(8, 0x00));
    }
    CallbackPlan plan;
    Context ctx(plan);
    const Reasons reasons;
    const Bytes signature = Seq(Oid(oid::signedData), Ctx(0, Seq(Octets({0x01, 0x02}), Bytes(64, 0x05))));
    EXPECT_EQ(pnvtest::Begin(ctx, signature), PELNIC_ERR_CMS_DECODE);
    ASSERT_EQ(reasons.all.size(), 1u);
    const Bytes& reason = reasons.all[0];
    EXPECT_EQ(reason[1], static_cast<PNV_BYTE>(Decision::Undecodable));
    EXPECT_EQ(NumberAt(reason, 4), PELNIC_ERR_CMS_DECODE);
    EXPECT_EQ(reason[20], static_cast<PNV_BYTE>(DecodeFault::Tag));
    EXPECT_EQ(Bytes(reason.begin() + 24, reason.begin() + 28), (Bytes{0x04, 0x02, 0x01, 0x02}));
    EXPECT_EQ(signature[NumberAt(reason, 16)], 0x04);
}

TEST(ReasonCode, HoldsNoMoreThanTheEndOfASerialNumberOrElement)
{
    DemoPki pki;
    pki.signer.serial = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x21, 0x32, 0x43};
    pki.signer.notAfter = UtcTime("251231235959Z");
    const Reasons reasons;
    (void)Judge(Signed("LongSerialNumber", pki, DemoCms(pki)));
    pki.signer.serial = {0x11, 0x22};
    (void)Judge(Signed("ShortSerialNumber", pki, DemoCms(pki)));
    // The last element is no SEQUENCE, and what stands behind the signature is not its.
    const Bytes algorithms = Set(AlgoId(oid::sha256), AlgoId(oid::sha384), AlgoId(oid::sha512));
    const Bytes signature = Seq(Oid(oid::signedData), Ctx(0, Seq(Int(1), algorithms, Octets({0x07}))));
    const Bytes followed = Cat(signature, Bytes(8, 0xEE));
    CallbackPlan plan;
    const Context ctx(plan);
    EXPECT_EQ(pelnic_verify_detach_signature_begin(ctx, followed.data(), Len(signature)), PELNIC_ERR_CMS_DECODE);
    ASSERT_EQ(reasons.all.size(), 3u);
    const auto endOf = [&](std::size_t i) { return Bytes(reasons.all[i].begin() + 22, reasons.all[i].end()); };
    EXPECT_EQ(endOf(0), (Bytes{0, 0, 0x33, 0x44, 0x55, 0x66, 0x77, 0x21, 0x32, 0x43}));
    EXPECT_EQ(endOf(1), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0x11, 0x22}));
    EXPECT_EQ(endOf(2), (Bytes{0, 0, 0x04, 0x01, 0x07, 0, 0, 0, 0, 0}));
}

TEST(ReasonCode, TellsAnAuthorityFromASignerAndWhenACrlEnded)
{
    const Reasons reasons;
    (void)Judge(StampedByNobodyKnown());
    (void)Judge(cases::ExpiredCrl());
    ASSERT_EQ(reasons.all.size(), 2u);
    for (const Bytes& reason : reasons.all) {
        EXPECT_EQ(reason[2], 1);
        EXPECT_EQ(NumberAt(reason, 12), 1767225600u);
    }
    EXPECT_EQ(reasons.all[0][3], 1);
    EXPECT_EQ(reasons.all[1][3], 0);
    EXPECT_EQ(NumberAt(reasons.all[1], 16), 1767225599u); // 2025-12-31, 23:59:59
    EXPECT_EQ(reasons.all[1][20], static_cast<PNV_BYTE>(CrlUnfit::Expired));
}

// No signer, time or refusal of an operation is that of the next one; but content is judged at the signature's time.
TEST(ReasonCode, IsOfItsOperationAlone)
{
    const Case input = cases::OtherContent(cases::Good());
    CallbackPlan plan;
    const Context ctx(plan);
    Provide(ctx, input.anchors);
    const Reasons reasons;
    EXPECT_EQ(Verify(ctx, input.signature, input.content), bad);
    EXPECT_EQ(pelnic_verify_add_crl(ctx, input.anchors.crls.data(), Len(input.anchors.crls)), PELNIC_ERR_CRL_FROZEN);
    ASSERT_EQ(reasons.all.size(), 2u);
    Bytes expected(PELNIC_REASON_SIZE, 0x00);
    expected[0] = 1;
    expected[1] = static_cast<PNV_BYTE>(Decision::Payload);
    Bytes content = reasons.all[0];
    EXPECT_EQ(NumberAt(content, 12), 1767225600u);
    std::fill_n(content.begin() + 12, 4, std::uint8_t{0});
    EXPECT_EQ(content, expected);
    Bytes crls = reasons.all[1];
    EXPECT_EQ(NumberAt(crls, 4), PELNIC_ERR_CRL_FROZEN);
    EXPECT_EQ(NumberAt(crls, 8), PELNIC_ERR_CRL_FROZEN);
    std::fill_n(crls.begin() + 4, 8, std::uint8_t{0});
    expected[1] = static_cast<PNV_BYTE>(Decision::Crls);
    EXPECT_EQ(crls, expected);
}

TEST(ReasonCode, OfNothingThatIsAccepted)
{
    for (const Case& input : {cases::Good(), cases::GoodDirect(), cases::GoodBelowCas()}) {
        const Reasons reasons;
        EXPECT_EQ(Judge(input).verdict, good);
        EXPECT_TRUE(reasons.all.empty());
    }
}

} // namespace
} // namespace pnvtest
