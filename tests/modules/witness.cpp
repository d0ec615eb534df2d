// The library with its witness compiled in: it tells of every decision and of the element that does not decode, and no
// code, verdict or log record is another for it. A program of its own, because the other tests have the library that a
// product has.
#include "cmsverify/pelnic_cms_parse.h"
#include "cmsverify/pelnic_witness.h"
#include "cmsverify/pelnic_x509_parse.h"
#include "support/signature_cases.h"
#include "support/vrf.h"

#include <gtest/gtest.h>

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

} // namespace
} // namespace pnvtest
