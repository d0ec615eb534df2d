// The strict checker: what it refuses beyond the ordinary one, and that the rest of its answers are the same.
#include "support/checker.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <algorithm>

namespace pnvtest {
namespace {

Outcome Strictly(const std::string& reason)
{
    return {253, "Strict: " + reason + "\n"};
}

class StrictChecker : public ::testing::Test {
protected:
    PackageSpec Package(const CmsSpec& cms) const
    {
        return SignedPackage(payload_, DetachedCms(payload_, cms), pki_.Crls());
    }
    void Expect(const PackageSpec& package, const Outcome& ordinary, const Outcome& strict) const
    {
        const std::string path = dir_.Write("package", Build(package));
        EXPECT_EQ(RunChecker(PkgcheckTestRootPath(), path), ordinary);
        EXPECT_EQ(RunChecker(PkgcheckStrictPath(), path), strict);
    }
    void ExpectRefused(const PackageSpec& package, const std::string& reason) const
    {
        Expect(package, kAcceptedSilently, Strictly(reason));
    }
    void ExpectRefused(const CmsSpec& cms, const std::string& reason) const { ExpectRefused(Package(cms), reason); }
    void ExpectSame(const PackageSpec& package, const Outcome& outcome) const { Expect(package, outcome, outcome); }

    Bytes payload_ = Text("a firmware image");
    DemoPki pki_{KeyId::Rsa4096};
    TempDir dir_;
};

// ---- Refused by the strict checker alone ----

TEST_F(StrictChecker, RefusesOneSubFile)
{
    PackageSpec package;
    package.subFileCount = 1;
    Expect(package, {0, "Info: There is one subfile, Check signature passed\n"}, Strictly("the package is not signed"));
}

TEST_F(StrictChecker, RefusesAPackageWithoutSignature)
{
    PackageSpec package = Package(DemoCms(pki_));
    package.subFiles[1].type = 0x77;
    ExpectRefused(package, "the package is not signed");
    package = Package(DemoCms(pki_));
    package.subFiles[1].length = 0;
    ExpectRefused(package, "the package is not signed");
}

TEST_F(StrictChecker, RefusesATimestampThatNobodySigned)
{
    TokenSpec token = DemoToken(pki_);
    token.cms.signers.clear();
    ExpectRefused(DemoCms(pki_, token), "nobody signed the timestamp");
    CmsSpec cms = DemoCms(pki_);
    cms.signers.push_back(DemoCms(pki_, token).signers[0]); // whichever signer's it is
    ExpectRefused(cms, "nobody signed the timestamp");
}

TEST_F(StrictChecker, RefusesSeveralSignersWithoutSignedAttributes)
{
    CmsSpec cms = Direct(DemoCms(pki_));
    cms.signers.push_back(cms.signers[0]);
    ExpectRefused(cms, "several signers have no signed attributes");
    cms.signers[0].brokenSignature = true;
    ExpectRefused(cms, "several signers have no signed attributes");
}

TEST_F(StrictChecker, RefusesSignedAttributesWithoutTheContentType)
{
    const std::string reason = "signed attributes lack the content type";
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].signedAttributes = [](const Bytes& digest) {
        return std::vector<Bytes>{MessageDigestAttribute(digest)};
    };
    ExpectRefused(cms, reason);
    cms.signers[0].signedAttributes = UsualAttributes(oid::tstInfo);
    ExpectRefused(cms, reason);
    cms.signers[0].signedAttributes = [](const Bytes& digest) {
        const Bytes twoValues = Seq(Oid(oid::contentType), Set(Cat(Oid(oid::data), Oid(oid::data))));
        return std::vector<Bytes>{twoValues, MessageDigestAttribute(digest)};
    };
    ExpectRefused(cms, reason);
    cms.signers[0].signedAttributes = [](const Bytes& digest) {
        return std::vector<Bytes>{Attribute(oid::contentType), MessageDigestAttribute(digest)};
    };
    ExpectRefused(cms, reason);
    cms.signers[0].signedAttributes = UsualAttributes(oid::data);
    cms.encapContentInfo = Seq(Oid(oid::signedData)); // the other side of the comparison
    ExpectRefused(cms, reason);
}

TEST_F(StrictChecker, RefusesATimestampWhoseAttributesLackTheContentType)
{
    TokenSpec token = DemoToken(pki_);
    token.cms.signers[0].signedAttributes = UsualAttributes(oid::data);
    ExpectRefused(DemoCms(pki_, token), "a timestamp's signed attributes lack its content type");
}

TEST_F(StrictChecker, RefusesSignedAttributesReplayedAsAPayload)
{
    const Bytes genuine = DetachedCms(payload_, DemoCms(pki_));
    const Bytes attributes = Set(Content(genuine, {1, 0, 4, 0, 3}));
    const Bytes replayed = Replace(genuine, {1, 0, 4, 0, 3}, {});
    ExpectRefused(SignedPackage(attributes, replayed, pki_.Crls()),
                  "the payload is another signature's signed attributes");
}

TEST_F(StrictChecker, RefusesATimestampOfAnotherContentType)
{
    constexpr std::string_view receipt = "1.2.840.113549.1.9.16.1.1"; // differs in the last octet alone
    for (const std::string_view type : {oid::data, receipt}) {
        TokenSpec token = DemoToken(pki_);
        token.cms.edit = [type](Bytes signedData) { return Replace(signedData, {2, 0}, Oid(type)); };
        token.cms.signers[0].signedAttributes = UsualAttributes(type);
        ExpectRefused(DemoCms(pki_, token), "a timestamp's content is not of the type TSTInfo");
    }
}

Bytes Point(const Bytes& fields)
{
    return Ext(oid::issuingDistributionPoint, Seq(fields), true);
}
Bytes DeltaIndicator()
{
    return Ext("2.5.29.27", Int(1), true);
}

// Each lets a signer pass whom another CRL of the same CA revokes.
TEST_F(StrictChecker, RefusesCrlsThatMayLeaveOutARevocation)
{
    const std::vector<std::pair<Bytes, std::string>> cases = {
        {DeltaIndicator(), "a CRL is a delta CRL"},
        {Point(CtxPrim(2, {0xFF})), "a CRL speaks for CA certificates only, and its issuer issued another"},
        {Point(CtxPrim(5, {0xFF})), "a CRL speaks for attribute certificates only"},
        {Point(CtxPrim(3, {0x06, 0x40})), "a CRL speaks for some reasons only"},
        {Point(Ctx(0, Ctx(0, CtxPrim(6, Text("http://example.com/1.crl"))))),
         "a CRL speaks for one distribution point only"},
        {Point(CtxPrim(4, {0xFF})), "a CRL is an indirect one"},
        {Ext(oid::issuingDistributionPoint, Octets({0x01}), true), "a CRL does not tell what it speaks for"},
    };
    for (const auto& [extension, reason] : cases) {
        SCOPED_TRACE(reason);
        pki_ = DemoPki(KeyId::Rsa4096);
        pki_.signingCrl.extensions.push_back(extension);
        ExpectRefused(DemoCms(pki_), reason);
    }
    pki_ = DemoPki(KeyId::Rsa4096);
    pki_.rootCrl.extensions.push_back(Point(CtxPrim(1, {0xFF})));
    ExpectRefused(DemoCms(pki_), "a CRL speaks for no CA certificates, and its issuer issued one");
    pki_ = DemoPki(KeyId::Rsa4096);
    pki_.tsaCrl.extensions.push_back(Point(CtxPrim(2, {0xFF}))); // the other certificate is in the token alone
    ExpectRefused(DemoCms(pki_), "a CRL speaks for CA certificates only, and its issuer issued another");
    pki_ = DemoPki(KeyId::Rsa4096);
    pki_.signingCrl = Indirect(CrlOf(pki_.tsaCa)); // of another CA
    ExpectRefused(DemoCms(pki_), "a CRL is an indirect one");
}

TEST_F(StrictChecker, RefusesCrlsFromAfterTheSigningTime)
{
    pki_.signingCrl.thisUpdate = UtcTime("260101000001Z");
    ExpectRefused(DemoCms(pki_), "a CRL was issued after the signing time");
    pki_.signingCrl.thisUpdate = UtcTime("260101000000Z");
    ExpectSame(Package(DemoCms(pki_)), kAcceptedSilently);
    CmsSpec two = DemoCms(pki_);
    const TokenSpec earlier = With(DemoToken(pki_), &TokenSpec::time, GenTime("20251231235959Z"));
    two.signers.push_back(DemoCms(pki_, earlier).signers[0]);
    ExpectRefused(two, "a CRL was issued after the signing time"); // of either signer
    pki_.signingCrl.thisUpdate = UtcTime("2601010000Z");
    ExpectRefused(DemoCms(pki_), "a CRL does not tell its date");
}

// ---- Work ----

// 2^(8 * octets - 8) + 1, which no signature here was made for.
Bytes KeyWithExponent(std::size_t octets, std::uint8_t index)
{
    Bytes modulus(256, 0xC5);
    modulus[1] = index;
    Bytes exponent(octets, 0x00);
    exponent.front() = exponent.back() = 0x01;
    return Seq(AlgoId(oid::rsaEncryption), Bits(0, Seq(Int(Cat(Bytes{0x00}, modulus)), Int(exponent))));
}

// A CA that says it is its own issuer costs a check of its signature.
CertSpec SelfIssued(std::size_t exponent, std::size_t index)
{
    CertSpec cert = Root(KeyId::Rsa2048F);
    cert.subject = cert.issuer = TestName("Anybody");
    cert.serial = {0x01, static_cast<std::uint8_t>(index >> 8), static_cast<std::uint8_t>(index)};
    cert.subjectPublicKey = KeyWithExponent(exponent, static_cast<std::uint8_t>(index));
    return cert;
}

TEST_F(StrictChecker, RefusesExponentsAbove64Bits)
{
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.push_back(Build(SelfIssued(8, 0)));
    ExpectSame(Package(cms), kAcceptedSilently);
    cms.certificates.push_back(Build(SelfIssued(9, 1)));
    ExpectRefused(cms, "an RSA exponent has more than 64 bits");
}

// Under an exponent of 1 a block in the right form is its own signature; 2 has no inverse, and 0 is not even decoded.
TEST_F(StrictChecker, RefusesExponentsBelow3)
{
    const Bytes modulus = TestKey(KeyId::Rsa2048H).modulus;
    CertSpec stranger = SelfIssued(3, 0);
    CmsSpec cms = DemoCms(pki_);
    stranger.subjectPublicKey = RsaSpki(modulus, {0x03});
    cms.certificates.push_back(Build(stranger));
    ExpectSame(Package(cms), kAcceptedSilently);
    for (const Bytes& exponent : {Bytes{0x02}, Bytes{0x01}, Bytes{0x00, 0x00, 0x00, 0x01}}) {
        stranger.subjectPublicKey = RsaSpki(modulus, exponent);
        cms.certificates.back() = Build(stranger);
        ExpectRefused(cms, "an RSA exponent is below 3");
    }
    pki_.signer.subjectPublicKey = RsaSpki(modulus, {0x01});
    cms = Direct(DemoCms(pki_));
    const Bytes info = Seq(AlgoId(oid::sha256), Octets(Digest(Hash::Sha256, payload_)));
    const Bytes padding(modulus.size() - info.size() - 3, 0xFF);
    cms.signers[0].signature = Cat(Bytes{0x00, 0x01}, padding, Bytes{0x00}, info);
    ExpectRefused(cms, "an RSA exponent is below 3");
}

TEST_F(StrictChecker, StopsAfterAThousandSignatureChecks)
{
    CmsSpec cms = DemoCms(pki_);
    Bytes cert = Build(SelfIssued(3, 0));
    const Bytes serial{0x02, 0x03, 0x01, 0x00, 0x00};
    const auto at = std::search(cert.begin(), cert.end(), serial.begin(), serial.end());
    ASSERT_NE(at, cert.end());
    for (std::size_t i = 0; i < 990; ++i) {
        at[3] = static_cast<std::uint8_t>(i >> 8);
        at[4] = static_cast<std::uint8_t>(i);
        cms.certificates.push_back(cert);
    }
    ExpectSame(Package(cms), kAcceptedSilently);
    cms.certificates.push_back(Build(SelfIssued(3, 1001)));
    ExpectRefused(cms, "there are more than 1000 signatures to check");
}

TEST_F(StrictChecker, ReadsPem)
{
    TokenSpec token = DemoToken(pki_);
    token.cms.signers.clear();
    const Bytes pem = Pem("CMS", DetachedCms(payload_, DemoCms(pki_, token)));
    ExpectRefused(SignedPackage(payload_, pem, pki_.Crls()), "nobody signed the timestamp");
}

// ---- Accepted by both ----

TEST_F(StrictChecker, AcceptsWhatIsSignedInOrder)
{
    ExpectSame(Package(DemoCms(pki_)), kAcceptedSilently);
    ExpectSame(SignedPackage(payload_, Pem("PKCS7", DetachedCms(payload_, DemoCms(pki_))), pki_.Crls()),
               kAcceptedSilently);
}

TEST_F(StrictChecker, AcceptsOneSignerWithoutSignedAttributes)
{
    ExpectSame(Package(Direct(DemoCms(pki_))), kAcceptedSilently);
    CmsSpec cms = DemoCms(pki_);
    cms.signers.push_back(Direct(cms).signers[0]);
    ExpectSame(Package(cms), kAcceptedSilently);
}

TEST_F(StrictChecker, AcceptsATimestampSignedWithoutAttributes)
{
    TokenSpec token = DemoToken(pki_);
    token.cms.signers[0].signedAttributes = nullptr;
    ExpectSame(Package(DemoCms(pki_, token)), kAcceptedSilently);
}

// As a PKI has it that publishes CRLs for CAs and for others apart: each is for the certificates that it speaks for.
TEST_F(StrictChecker, AcceptsCrlsThatSpeakForTheirIssuersKindOfCertificates)
{
    pki_.rootCrl.extensions.push_back(Point(CtxPrim(2, {0xFF})));
    pki_.signingCrl.extensions.push_back(Point(CtxPrim(1, {0xFF})));
    pki_.tsaCrl.extensions.push_back(Point(CtxPrim(1, {0xFF})));
    ExpectSame(Package(DemoCms(pki_)), kAcceptedSilently);
}

// A SET, but not one of attributes alone.
TEST_F(StrictChecker, AcceptsAPayloadThatOnlyBeginsLikeSignedAttributes)
{
    for (const Bytes& payload : {Text("1"), Set(Octets({0x01})), Cat(Set(ContentTypeAttribute(oid::data)), Bytes{0})}) {
        payload_ = payload;
        ExpectSame(Package(Direct(DemoCms(pki_))), kAcceptedSilently);
    }
}

// ---- Refused by both, in the same words ----

TEST_F(StrictChecker, RefusesWhatTheOrdinaryOneRefuses)
{
    PackageSpec count;
    count.subFileCount = 2;
    ExpectSame(count, {254, "Error: Check cms fail for subfile num(2) is invalid\n"});
    PackageSpec flipped = Package(DemoCms(pki_));
    flipped.subFiles[0].content[0] ^= 0x01;
    ExpectSame(flipped, RefusedWith("0xffffffff"));
    pki_.signingCrl.revoked = {{pki_.signer.serial}};
    ExpectSame(Package(DemoCms(pki_)), RefusedWith("0x88200009"));
}

// Nothing that verifies nothing gets as far as final: feeding no octet is refused, and so is feeding nobody.
TEST_F(StrictChecker, RefusesAVerdictWithoutContent)
{
    PackageSpec package = Package(DemoCms(pki_));
    package.subFiles[0].length = 0;
    const std::string path = dir_.Write("package", Build(package));
    const Outcome outcome = RunChecker(PkgcheckStrictPath(), path);
    EXPECT_EQ(outcome.status, 255);
    EXPECT_EQ(outcome.out.rfind("Check cms fail for no sub file, bin ", 0), 0u) << outcome.out;
    CmsSpec nobody = DemoCms(pki_);
    nobody.signers.clear();
    ExpectSame(Package(nobody), RefusedWith("0x88200307"));
}

} // namespace
} // namespace pnvtest
