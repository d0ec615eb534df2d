// pkgtool explain held against the checker: for every reason to refuse a package both give the same verdict and code,
// and the explanation marks one place of its report, with what to do about it.
#include "programs/pkgtool_json.h"
#include "support/checker.h"
#include "support/cms.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/screen.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <regex>

namespace pnvtest {
namespace {

// A package with everything in order; a case changes something and packs it.
struct Bench {
    const Bytes payload = Text("a firmware image");
    DemoPki pki{KeyId::Rsa4096};

    TokenSpec Token(std::string_view time) const { return With(DemoToken(pki), &TokenSpec::time, GenTime(time)); }
    PackageSpec Package(const CmsSpec& cms) const
    {
        return SignedPackage(payload, DetachedCms(payload, cms), pki.Crls());
    }
    PackageSpec Package(const TokenSpec& token) const { return Package(DemoCms(pki, token)); }
    PackageSpec Package() const { return Package(DemoCms(pki)); }
    PackageSpec WithCrls(const Bytes& crls) const
    {
        PackageSpec package = Package();
        package.subFiles[2].content = crls;
        return package;
    }
    // Stamped with any bytes in place of a token.
    PackageSpec Stamped(const UnsignedAttribute& attribute) const
    {
        CmsSpec cms = DemoCms(pki);
        cms.signers[0].unsignedAttributes = {attribute};
        return Package(cms);
    }
};

struct Refusal {
    const char* title;
    std::function<PackageSpec(Bench&)> make;
    const char* kind;
    const char* at;      // the marked place
    const char* subject; // its CN, or empty
    const char* advice;  // a part of it
};

const char* const kSigner = "/signers/0";
const char* const kSignerCert = "/signers/0/chain/0";
const char* const kSignerCrl = "/signers/0/chain/0/crls/0";
const char* const kTimestamp = "/signers/0/timestamp";
const char* const kAuthority = "/signers/0/timestamp/authorities/0";
const char* const kAuthorityCert = "/signers/0/timestamp/authorities/0/chain/0";
const char* const kAuthorityCrl = "/signers/0/timestamp/authorities/0/chain/0/crls/0";

const std::vector<Refusal> kRefusals = {
    // ---- dates ----
    {"expired signer",
     [](Bench& b) {
         b.pki.signer.notAfter = UtcTime("251231000000Z");
         return b.Package();
     },
     "certificate-expired", kSignerCert, "Test Signer", "renew the certificate"},
    {"signer not yet valid",
     [](Bench& b) {
         b.pki.signer.notBefore = UtcTime("260102000000Z");
         return b.Package();
     },
     "certificate-not-yet-valid", kSignerCert, "Test Signer", "check the clocks"},
    {"expired CA",
     [](Bench& b) {
         b.pki.signingCa.notAfter = UtcTime("251231000000Z");
         return b.Package();
     },
     "certificate-expired", "/signers/0/chain/1", "Test Signing CA", "renew the certificate"},
    {"expired authority",
     [](Bench& b) {
         b.pki.tsa.notAfter = UtcTime("251231000000Z");
         return b.Package();
     },
     "certificate-expired", kAuthorityCert, "Test TSA", "renew the certificate"},
    {"dates that cannot be read",
     [](Bench& b) {
         b.pki.signer.notAfter = UtcTime("4001010000Z");
         return b.Package();
     },
     "certificate-undecodable", kSignerCert, "Test Signer", "whole seconds"},
    // ---- revocation ----
    {"revoked signer",
     [](Bench& b) {
         b.pki.signingCrl.revoked = {{b.pki.signer.serial, UtcTime("250601000000Z"), 1}};
         return b.Package();
     },
     "certificate-revoked", kSignerCrl, "Test Signer", "not revoked"},
    {"revoked CA",
     [](Bench& b) {
         b.pki.rootCrl.revoked = {{b.pki.signingCa.serial, UtcTime("250601000000Z"), 2}};
         return b.Package();
     },
     "certificate-revoked", "/signers/0/chain/1/crls/0", "Test Signing CA", "not revoked"},
    {"revoked authority",
     [](Bench& b) {
         b.pki.tsaCrl.revoked = {{b.pki.tsa.serial, UtcTime("250601000000Z"), 1}};
         return b.Package();
     },
     "certificate-revoked", kAuthorityCrl, "Test TSA", "not revoked"},
    {"revoked by an expired CRL",
     [](Bench& b) {
         b.pki.signingCrl.revoked = {{b.pki.signer.serial, UtcTime("250601000000Z"), 1}};
         b.pki.signingCrl.nextUpdate = UtcTime("251231000000Z");
         return b.Package();
     },
     "certificate-revoked", kSignerCrl, "Test Signer", "not revoked"},
    // ---- CRLs ----
    {"no CRL of the signer's CA", [](Bench& b) { return b.WithCrls(Cat(Build(b.pki.rootCrl), Build(b.pki.tsaCrl))); },
     "crl-missing", kSignerCert, "Test Signer", "CN=Test Signing CA that covers 2026-01-01"},
    {"no CRL of the authority's CA",
     [](Bench& b) { return b.WithCrls(Cat(Build(b.pki.rootCrl), Build(b.pki.signingCrl))); }, "crl-missing",
     kAuthorityCert, "Test TSA", "CN=Test TSA CA that covers 2026-01-01"},
    {"no CRL of the root", [](Bench& b) { return b.WithCrls(Cat(Build(b.pki.signingCrl), Build(b.pki.tsaCrl))); },
     "crl-missing", "/signers/0/timestamp/authorities/0/chain/1", "Test TSA CA", "CN=Test Root"},
    {"expired CRL",
     [](Bench& b) {
         b.pki.signingCrl.nextUpdate = UtcTime("251221000000Z");
         return b.Package();
     },
     "crl-expired", kSignerCrl, "Test Signing CA", "publish a CRL of CN=Test Signing CA that covers the signing time"},
    {"expired CRL of the root",
     [](Bench& b) {
         b.pki.rootCrl.nextUpdate = UtcTime("251221000000Z");
         return b.Package();
     },
     "crl-expired", "/signers/0/timestamp/authorities/0/chain/1/crls/0", "Test Root", "publish a CRL of CN=Test Root"},
    {"CRL with a wrong signature",
     [](Bench& b) {
         b.pki.signingCrl.brokenSignature = true;
         return b.Package();
     },
     "crl-signature", kSignerCrl, "Test Signing CA", "pack the one of this CA"},
    {"CRL by another key",
     [](Bench& b) {
         b.pki.tsaCrl.issuerKey = KeyId::Rsa2048H;
         return b.Package();
     },
     "crl-signature", kAuthorityCrl, "Test TSA CA", "pack the one of this CA"},
    {"CA that may not sign CRLs",
     [](Bench& b) {
         b.pki.signingCa.keyUsage = usage::keyCertSign;
         return b.Package();
     },
     "crl-issuer-usage", kSignerCrl, "Test Signing CA", "keyUsage = critical,keyCertSign,cRLSign"},
    {"CRL whose end cannot be read",
     [](Bench& b) {
         b.pki.signingCrl.nextUpdate = UtcTime("3501010000Z");
         return b.Package();
     },
     "crl-undecodable", kSignerCrl, "Test Signing CA", "whole seconds"},
    {"CRL without an end",
     [](Bench& b) {
         b.pki.signingCrl.nextUpdate.reset();
         return b.Package();
     },
     "crl-undecodable", kSignerCrl, "Test Signing CA", "-crldays"},
    {"bytes for a CRL", [](Bench& b) { return b.WithCrls(Bytes(64, 0x00)); }, "crl-file-undecodable", "/sub_files/2",
     "", "nextUpdate"},
    {"empty CRL sub-file", [](Bench& b) { return b.WithCrls({}); }, "crl-file-undecodable", "/sub_files/2", "", "CRL"},
    {"indirect CRL of nobody known",
     [](Bench& b) {
         const CrlSpec other = Indirect(CrlOf(Intermediate("Other CA")));
         return b.WithCrls(Cat(Build(b.pki.rootCrl), Build(b.pki.tsaCrl), Build(other)));
     },
     "crl-issuer-missing", kSignerCrl, "Other CA", "put the certificate of CN=Other CA"},
    {"no CRL sub-file",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[2].type = 0x20000000;
         return package;
     },
     "crl-file-missing", "/sub_files", "", "--crl"},
    // ---- the way to the root ----
    {"another root of the same name",
     [](Bench& b) {
         b.pki = DemoPki(KeyId::Rsa2048A);
         return b.Package();
     },
     "wrong-root", "/signers/0/timestamp/authorities/0/chain/1", "Test TSA CA", "below the root"},
    {"another root that came along",
     [](Bench& b) {
         CertSpec root = Root(KeyId::Rsa2048A);
         root.subject = root.issuer = TestName("Other Root");
         b.pki.signingCa = IssuedBy(b.pki.signingCa, root);
         CmsSpec cms = DemoCms(b.pki);
         cms.certificates.push_back(Build(root));
         return b.Package(cms);
     },
     "wrong-root", "/signers/0/chain/1", "Test Signing CA", "sign below CN=Test Root"},
    {"missing CA",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.certificates = {Build(b.pki.signer)};
         return b.Package(cms);
     },
     "issuer-missing", kSignerCert, "Test Signer", "put the certificate of CN=Test Signing CA into the signature"},
    {"CA that may not sign certificates",
     [](Bench& b) {
         b.pki.signingCa.keyUsage = usage::crlSign;
         return b.Package();
     },
     "issuer-usage", kSignerCert, "Test Signer", "keyUsage = critical,keyCertSign,cRLSign"},
    {"issuer that is not a CA",
     [](Bench& b) {
         b.pki.signingCa.basicConstraints = NotCa();
         return b.Package();
     },
     "issuer-missing", kSignerCert, "Test Signer", "CN=Test Signing CA"},
    {"certificate with a wrong signature",
     [](Bench& b) {
         b.pki.signer.brokenSignature = true;
         return b.Package();
     },
     "issuer-signature", kSignerCert, "Test Signer", "altered"},
    {"chain of twelve CAs",
     [](Bench& b) {
         Bytes crls = Cat(Build(b.pki.rootCrl), Build(b.pki.tsaCrl));
         CmsSpec cms = DemoCms(b.pki);
         CertSpec issuer = b.pki.root;
         for (int i = 1; i <= 12; ++i) {
             issuer = With(IssuedBy(Intermediate("CA " + std::to_string(i)), issuer), &CertSpec::serial,
                           Bytes{0x60, static_cast<std::uint8_t>(i)});
             cms.certificates.push_back(Build(issuer));
             crls = Cat(crls, Build(CrlOf(issuer)));
         }
         b.pki.signer = IssuedBy(b.pki.signer, issuer);
         cms.certificates.push_back(Build(b.pki.signer));
         cms.signers[0] =
             With(SignedBy(b.pki.signer), &SignerSpec::unsignedAttributes, cms.signers[0].unsignedAttributes);
         return SignedPackage(b.payload, DetachedCms(b.payload, cms), crls);
     },
     "path-too-deep", "/signers/0/chain/11", "CA 2", "nearer to the root"},
    {"CA with the serial number and the key of another",
     [](Bench& b) {
         const CertSpec ca = IssuedBy(Intermediate("Second CA"), b.pki.root);
         CmsSpec cms = DemoCms(b.pki);
         b.pki.signer = IssuedBy(b.pki.signer, ca);
         cms.certificates.push_back(Build(ca));
         cms.certificates.push_back(Build(b.pki.signer));
         cms.signers[0] =
             With(SignedBy(b.pki.signer), &SignerSpec::unsignedAttributes, cms.signers[0].unsignedAttributes);
         return b.Package(cms);
     },
     "issuer-missing", kSignerCert, "Test Signer", "its own serial number"},
    // ---- what a certificate is for ----
    {"signer without a key usage",
     [](Bench& b) {
         b.pki.signer.keyUsage.reset();
         return b.Package();
     },
     "key-usage", kSignerCert, "Test Signer", "digitalSignature"},
    {"signer without digitalSignature",
     [](Bench& b) {
         b.pki.signer.keyUsage = usage::keyCertSign;
         return b.Package();
     },
     "key-usage", kSignerCert, "Test Signer", "digitalSignature"},
    {"signer without codeSigning",
     [](Bench& b) {
         b.pki.signer.extendedKeyUsage = {oid::serverAuth};
         return b.Package();
     },
     "purpose", kSignerCert, "Test Signer", "codeSigning"},
    {"authority without timeStamping",
     [](Bench& b) {
         b.pki.tsa.extendedKeyUsage = {oid::codeSigning};
         return b.Package();
     },
     "purpose", kAuthorityCert, "Test TSA", "timeStamping"},
    {"signer that is a CA",
     [](Bench& b) {
         b.pki.signer.basicConstraints = Ca();
         return b.Package();
     },
     "signer-certificate-missing", kSigner, "Test Signing CA", "CA"},
    {"no certificate of the signer",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.certificates = {Build(b.pki.signingCa)};
         return b.Package(cms);
     },
     "signer-certificate-missing", kSigner, "Test Signing CA", "-nocerts"},
    {"no certificate of the authority",
     [](Bench& b) {
         TokenSpec token = DemoToken(b.pki);
         token.cms.certificates.clear();
         return b.Package(token);
     },
     "authority-certificate-missing", kAuthority, "Test TSA CA", "-cert"},
    // ---- timestamps ----
    {"no timestamp",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.signers[0].unsignedAttributes.clear();
         return b.Package(cms);
     },
     "timestamp-missing", kSigner, "Test Signing CA", "--tsa-url"},
    {"another unsigned attribute only",
     [](Bench& b) { return b.Stamped([](const Bytes&) { return SigningTimeAttribute(UtcTime("260101000000Z")); }); },
     "timestamp-missing", kSigner, "Test Signing CA", "--tsa-url"},
    {"timestamp that does not decode",
     [](Bench& b) { return b.Stamped([](const Bytes&) { return Seq(Oid(oid::timestampToken), Set(Seq())); }); },
     "timestamp-undecodable", kSigner, "Test Signing CA", ""},
    {"timestamp of another signature",
     [](Bench& b) { return b.Stamped([&](const Bytes&) { return Timestamp(DemoToken(b.pki))(b.payload); }); },
     "timestamp-imprint", kTimestamp, "", "timestamp of this signature"},
    {"timestamp by SHA-1",
     [](Bench& b) { return b.Package(With(DemoToken(b.pki), &TokenSpec::imprintHash, Hash::Sha1)); },
     "timestamp-undecodable", kTimestamp, "", "another digest"},
    {"timestamp with fractions of a second", [](Bench& b) { return b.Package(b.Token("20260101000000.5Z")); },
     "timestamp-undecodable", kTimestamp, "", "clock_precision_digits"},
    {"timestamp without content",
     [](Bench& b) { return b.Package(With(DemoToken(b.pki), &TokenSpec::eContent, Bytes())); }, "timestamp-undecodable",
     kTimestamp, "", ""},
    {"timestamp with a wrong signature",
     [](Bench& b) {
         TokenSpec token = DemoToken(b.pki);
         token.cms.signers[0].brokenSignature = true;
         return b.Package(token);
     },
     "timestamp-signature", kAuthority, "Test TSA", "new"},
    {"timestamp over other attributes",
     [](Bench& b) {
         TokenSpec token = DemoToken(b.pki);
         token.cms.signers[0].signedAttributes = [](const Bytes&) {
             return std::vector<Bytes>{ContentTypeAttribute(oid::tstInfo), MessageDigestAttribute(Bytes(32, 0x5A))};
         };
         return b.Package(token);
     },
     "timestamp-signature", kAuthority, "Test TSA", "new"},
    // ---- signatures ----
    {"altered signature",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.signers[0].brokenSignature = true;
         return b.Package(cms);
     },
     "signature-value", kSigner, "Test Signer", "sign again"},
    {"signature by SHA-1",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.signers[0].hash = Hash::Sha1;
         return b.Package(cms);
     },
     "signature-value", kSigner, "Test Signer", "sha256"},
    {"direct signature by SHA-1",
     [](Bench& b) {
         CmsSpec cms = Direct(DemoCms(b.pki));
         cms.signers[0].hash = Hash::Sha1;
         return b.Package(cms);
     },
     "signature-algorithm", kSigner, "Test Signer", "sha256"},
    {"key that is not RSA",
     [](Bench& b) {
         b.pki.signer = Signer(KeyId::EcP256);
         CmsSpec cms = DemoCms(b.pki);
         cms.signers[0].key = KeyId::Rsa2048D;
         return b.Package(cms);
     },
     "signature-value", kSigner, "Test Signer", "RSA PKCS #1 v1.5"},
    {"signer named by key identifier",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.signers[0].version = 3;
         cms.signers[0].signerIdentifier = Tlv(0x80, Bytes(20, 0x5A));
         return b.Package(cms);
     },
     "signature-undecodable", "/sub_files/1", "", "-keyid"},
    {"no message digest",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.signers[0].signedAttributes = [](const Bytes&) {
             return std::vector<Bytes>{ContentTypeAttribute(oid::data)};
         };
         return b.Package(cms);
     },
     "message-digest", kSigner, "Test Signer", "message-digest"},
    {"signers of different payloads",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.signers.push_back(cms.signers[0]);
         cms.signers[1].signedAttributes = [](const Bytes&) {
             return std::vector<Bytes>{ContentTypeAttribute(oid::data), MessageDigestAttribute(Bytes(32, 0x5A))};
         };
         return b.Package(cms);
     },
     "digest-conflict", "/signers/1", "Test Signer", "same payload"},
    {"signature of nobody",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.signers.clear();
         return b.Package(cms);
     },
     "signature-without-signers", "/sub_files/1", "", "sign the payload"},
    {"short signature",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[1].content.resize(37);
         return package;
     },
     "signature-undecodable", "/sub_files/1", "", "it was cut off, or is none"},
    {"word for a signature",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[1].content = Text("hello");
         return package;
     },
     "signature-undecodable", "/sub_files/1", "", "it was cut off, or is none"},
    {"signature of something else",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[1].content = Seq(Octets(Bytes(60, 0x01)));
         return package;
     },
     "signature-undecodable", "/sub_files/1", "", "PEM begins at the first octet"},
    {"PEM without an end",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[1].content = Pem("CMS", package.subFiles[1].content);
         package.subFiles[1].content.resize(package.subFiles[1].content.size() - 10);
         return package;
     },
     "signature-undecodable", "/sub_files/1", "", "that line is its last"},
    {"PEM whose end shares dashes with its begin",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[1].content = Text("-----BEGIN CMS-----END CMS-----\nMAAwADAAMAAwADAA\n");
         return package;
     },
     "signature-undecodable", "/sub_files/1", "", "on a line of its own"},
    {"certificate with serial number 0",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.certificates.push_back(Build(With(Signer(KeyId::Rsa2048F), &CertSpec::serial, Bytes{0x00})));
         return b.Package(cms);
     },
     "signature-undecodable", "/sub_files/1", "", "positive serial number"},
    {"element that is no certificate",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.certificates.push_back(Seq(Int(1)));
         return b.Package(cms);
     },
     "signature-undecodable", "/sub_files/1", "", "only X.509 certificates"},
    {"empty message digest",
     [](Bench& b) {
         CmsSpec cms = DemoCms(b.pki);
         cms.signers[0].signedAttributes = [](const Bytes&) {
             return std::vector<Bytes>{ContentTypeAttribute(oid::data), MessageDigestAttribute({})};
         };
         return b.Package(cms);
     },
     "message-digest", kSigner, "Test Signer", "message-digest"},
    {"cut signature",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[1].content.resize(38); // the fewest that the checker decodes
         return package;
     },
     "signature-undecodable", "/sub_files/1", "", "it was cut off"},
    // ---- payload and container ----
    {"altered payload",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[0].content[0] ^= 0x01;
         return package;
     },
     "payload-altered", "/sub_files/0", "", "signed payload unchanged"},
    {"altered payload of a direct signer",
     [](Bench& b) {
         PackageSpec package = b.Package(Direct(DemoCms(b.pki)));
         package.subFiles[0].content[0] ^= 0x01;
         return package;
     },
     "payload-altered", "/sub_files/0", "", "signed payload unchanged"},
    {"sub-file outside",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[2].length = 0x7FFFFFFF;
         return package;
     },
     "sub-file-outside", "/sub_files/2", "", "pack again"},
    {"no payload",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[0].type = 0x20000000;
         return package;
     },
     "payload-missing", "/sub_files", "", "pack the payload"},
    {"empty payload",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFiles[0].length = 0;
         return package;
     },
     "payload-missing", "/sub_files/0", "", "pack the payload"},
    {"two sub-files",
     [](Bench& b) {
         PackageSpec package = b.Package();
         package.subFileCount = 2;
         return package;
     },
     "sub-file-count", "/header/sub_file_count", "", "pack a payload"},
};

class PkgtoolExplain : public ::testing::Test {
protected:
    static ProcessResult Explain(const std::string& path, std::vector<std::string> options = {})
    {
        options.insert(options.begin(), {PkgtoolPath(), "explain", path, "--root", DataPath("test_root.der")});
        return RunProcess(options);
    }
    std::string Write(const PackageSpec& package) const { return dir_.Write("package", Build(package)); }

    // The report, after what it has to have in common with the checker.
    static Json ExplainLikeTheChecker(const std::string& path)
    {
        const Outcome checker = RunChecker(PkgcheckTestRootPath(), path);
        const ProcessResult run = Explain(path, {"--json"});
        EXPECT_EQ(run.err, "");
        const Json report = ParseJson(run.out);
        if (report.is_discarded()) throw std::runtime_error(run.out);
        EXPECT_EQ(run.status, checker.status != 0 ? 1 : report["signed"] == true ? 0 : 3);
        EXPECT_EQ(report["verdict"], checker.status == 0 ? "accepted" : "refused");
        EXPECT_EQ(report["status"], checker.status);
        EXPECT_EQ(WithoutAddresses(report["message"].is_null() ? "" : report["message"].get<std::string>() + "\n"),
                  WithoutAddresses(checker.out));
        std::smatch code;
        const bool hasCode = std::regex_search(checker.out, code, std::regex(R"(\(err (0x[0-9a-f]+)\))"));
        EXPECT_EQ(report["code"], hasCode ? Json(code[1].str()) : Json());
        return report;
    }
    std::string WithoutDirectory(const std::string& text) const
    {
        return std::regex_replace(text, std::regex(dir_.Path() + "/"), "");
    }
    std::string Screen(const std::string& path) const { return WithoutDirectory(WithoutAddresses(Explain(path).out)); }
    static std::string WithoutAddresses(const std::string& line)
    {
        return std::regex_replace(line, std::regex("(bin|cms) 0x[0-9a-f]+"), "$1 ADDRESS");
    }

    const TempDir dir_;
    Bench bench_;
};

// On record is the whole screen of a good package, and what is different in those of others.
TEST_F(PkgtoolExplain, EveryRefusalHasItsVerdictItsPlaceAndItsAdvice)
{
    const std::string good = Screen(Write(bench_.Package()));
    std::string screens = good;
    for (const Refusal& refusal : kRefusals) {
        SCOPED_TRACE(refusal.title);
        Bench bench;
        const std::string path = Write(refusal.make(bench));
        const Json report = ExplainLikeTheChecker(path);
        EXPECT_EQ(report["verdict"], "refused");
        const Json& failure = report["failure"];
        ASSERT_TRUE(failure.is_object()) << report.dump(2);
        EXPECT_EQ(failure["kind"], refusal.kind) << failure;
        EXPECT_EQ(failure["at"], refusal.at) << failure;
        EXPECT_TRUE(report.contains(Json::json_pointer(failure["at"].get<std::string>()))) << failure;
        const std::string subject = failure["subject"].is_null() ? "" : failure["subject"].get<std::string>();
        EXPECT_EQ(subject, *refusal.subject == '\0' ? "" : std::string("C=ZZ,O=Example,CN=") + refusal.subject);
        EXPECT_NE(failure["advice"].get<std::string>().find(refusal.advice), std::string::npos) << failure;

        const std::string screen = Screen(path);
        screens += std::string("\n") + refusal.title + "\n";
        std::istringstream lines(screen);
        for (std::string line; std::getline(lines, line);) {
            if (good.find("\n" + line + "\n") == std::string::npos) screens += line + "\n";
        }
        const std::regex mark("\n> ");
        EXPECT_EQ(std::distance(std::sregex_iterator(screen.begin(), screen.end(), mark), std::sregex_iterator()), 1)
            << screen;
        EXPECT_NE(screen.find("\nwhy:  " + failure["reason"].get<std::string>() + "\n"), std::string::npos) << screen;
        EXPECT_EQ(screen.find('\033'), std::string::npos);
    }
    ExpectScreen("explain", screens);
}

TEST_F(PkgtoolExplain, AcceptedPackagesHaveNoFailure)
{
    CmsSpec two = DemoCms(bench_.pki);
    two.signers.push_back(two.signers[0]);
    CrlSpec late = bench_.pki.signingCrl;
    late.thisUpdate = UtcTime("300101000000Z");
    PackageSpec unsignedPackage;
    unsignedPackage.subFiles = {{subfile::payload, bench_.payload, {}, {}}};
    PackageSpec emptySignature = bench_.Package();
    emptySignature.subFiles[1].content.clear();
    for (const PackageSpec& package :
         {bench_.Package(), bench_.Package(Direct(DemoCms(bench_.pki))), bench_.Package(two), unsignedPackage,
          emptySignature, bench_.WithCrls(Cat(Build(bench_.pki.rootCrl), Build(late), Build(bench_.pki.tsaCrl)))}) {
        const std::string path = Write(package);
        const Json report = ExplainLikeTheChecker(path);
        EXPECT_EQ(report["verdict"], "accepted");
        EXPECT_EQ(report["failure"], Json());
        EXPECT_EQ(Explain(path).out.find("\n> "), std::string::npos);
    }
}

TEST_F(PkgtoolExplain, SaysWhatNobodySigned)
{
    PackageSpec one;
    one.subFiles = {{subfile::payload, bench_.payload, {}, {}}};
    PackageSpec empty = bench_.Package();
    empty.subFiles[1].content.clear();
    TokenSpec token = DemoToken(bench_.pki);
    token.cms.signers.clear();
    for (const PackageSpec& package : {one, empty, bench_.Package(token)}) {
        const std::string path = Write(package);
        EXPECT_EQ(ExplainLikeTheChecker(path)["signed"], false);
        const ProcessResult run = Explain(path);
        EXPECT_EQ(run.status, 3);
        EXPECT_NE(run.out.find(": ACCEPTED, NOT SIGNED\n"), std::string::npos) << run.out;
        EXPECT_NE(run.out.find("\n  nobody signed"), std::string::npos) << run.out;
        EXPECT_EQ(Explain(path, {"--allow-unsigned"}).status, 0);
    }
    const std::string good = Write(bench_.Package());
    EXPECT_EQ(ExplainLikeTheChecker(good)["signed"], true);
    EXPECT_EQ(Explain(good).out.find("NOT SIGNED"), std::string::npos);
    bench_.pki.signer.notAfter = UtcTime("251231000000Z");
    EXPECT_EQ(ExplainLikeTheChecker(Write(bench_.Package()))["signed"], Json());
}

// Wherever a package is damaged, the verdict is the checker's, and if it refuses there is a place that is marked.
TEST_F(PkgtoolExplain, AgreesOnDamagedPackages)
{
    const Bytes good = Build(bench_.Package());
    const std::size_t step = good.size() / 37; // some tens of places, in every part
    for (std::size_t at = 16; at < good.size(); at += step) {
        SCOPED_TRACE(at);
        Bytes flipped = good;
        flipped[at] ^= 0x01;
        const Json report = ExplainLikeTheChecker(dir_.Write("package", flipped));
        EXPECT_EQ(report["failure"].is_object(), report["verdict"] == "refused") << report.dump(2);
        Bytes cut = good;
        cut.resize(std::max(at, packageHeaderSize));
        EXPECT_EQ(ExplainLikeTheChecker(dir_.Write("package", cut))["failure"]["kind"], "sub-file-outside");
    }
}

TEST_F(PkgtoolExplain, IsColouredOnATerminalOnly)
{
    const std::string path = Write(bench_.Package());
    const auto onTerminal = [&](const std::vector<std::string>& environment) {
        const std::string command = PkgtoolPath() + " explain " + path;
        return RunProcess({"script", "-qec", command, "/dev/null"}, environment).out;
    };
    if (RunProcess({"script", "--version"}).status != 0) GTEST_SKIP() << "there is no script command";
    EXPECT_NE(onTerminal({"NO_COLOR=", "TERM=xterm"}).find("\033[1;31mREFUSED\033[0m"), std::string::npos);
    for (const char* setting : {"NO_COLOR=1", "TERM=dumb"}) {
        const std::string plain = onTerminal({"TERM=xterm", setting});
        EXPECT_NE(plain.find("REFUSED"), std::string::npos);
        EXPECT_EQ(plain.find('\033'), std::string::npos) << setting;
    }
}

TEST_F(PkgtoolExplain, TellsTheWholeChain)
{
    bench_.pki.signingCrl.revoked = {{Bytes{0x7F}}, {bench_.pki.signer.serial, UtcTime("300101000000Z"), 5}};
    const Json report = ExplainLikeTheChecker(Write(bench_.Package()));
    EXPECT_EQ(report["schema"], 2);
    EXPECT_EQ(report["root"]["subject"], "C=ZZ,O=Example,CN=Test Root");
    EXPECT_EQ(report["root"]["source"], "root file");
    const Json signer = report["signers"][0];
    EXPECT_EQ(signer["subject"], "C=ZZ,O=Example,CN=Test Signer");
    EXPECT_EQ(signer["timestamp"]["time"], "2026-01-01T00:00:00Z");
    const Json authority = signer["timestamp"]["authorities"][0];
    EXPECT_EQ(authority["subject"], "C=ZZ,O=Example,CN=Test TSA");
    EXPECT_EQ(authority["chain"].size(), 3u);
    EXPECT_EQ(authority["chain"][0]["source"], "token");
    ASSERT_EQ(signer["chain"].size(), 3u);
    EXPECT_EQ(signer["chain"][0]["source"], "signature");
    EXPECT_EQ(signer["chain"][2]["source"], "root file");
    EXPECT_EQ(signer["chain"][2]["crls"], Json::array());
    Json crls = signer["chain"][0]["crls"];
    EXPECT_EQ(crls[0]["sha256"].get<std::string>().size(), 64u);
    crls[0].erase("sha256");
    EXPECT_EQ(crls, ParseJson(R"([{"issuer": "C=ZZ,O=Example,CN=Test Signing CA",
        "this_update": "2025-01-01T00:00:00Z", "next_update": "2035-01-01T00:00:00Z",
        "signature_algorithm": "RSA-SHA256", "is_indirect": false, "scope": [], "source": "crl file",
        "read_by": "both", "score": 224, "is_chosen": true, "says": "revokes it only later, as of 2030-01-01",
        "revocation": {"serial": ")" +
                              signer["serial"].get<std::string>() + R"(",
                       "date": "2030-01-01T00:00:00Z", "reason": "cessationOfOperation"}}])"));
    EXPECT_EQ(signer["chain"][1]["crls"][0]["says"], "does not list it");
    EXPECT_EQ(signer["chain"][1]["crls"][0]["score"], 96);
    EXPECT_EQ(signer["chain"][1]["crls"][0].at("revocation"), nullptr);
}

// One cannot tell a namesake's signature from an altered one.
TEST_F(PkgtoolExplain, DoesNotTakeAnAlteredCertificateForAnotherRoots)
{
    CmsSpec cms = DemoCms(bench_.pki);
    for (Bytes& cert : cms.certificates) {
        if (cert == Build(bench_.pki.signingCa)) cert[cert.size() - 10] ^= 1; // in its signature
    }
    const Json failure = ExplainLikeTheChecker(Write(bench_.Package(cms)))["failure"];
    EXPECT_EQ(failure["kind"], "wrong-root");
    EXPECT_EQ(failure["reason"], "the signature on CN=Test Signing CA does not verify with the key of CN=Test Root, "
                                 "the root that the checker trusts: another root of that name issued it, or it was "
                                 "altered");
}

// One that came along, whatever CRL there is of it.
TEST_F(PkgtoolExplain, KnowsASelfSignedCertificateThatIsNoRoot)
{
    CertSpec own = bench_.pki.signingCa;
    own.issuer = own.subject;
    own.issuerKey = own.key;
    CmsSpec cms = DemoCms(bench_.pki);
    for (Bytes& cert : cms.certificates) {
        if (cert == Build(bench_.pki.signingCa)) cert = Build(own);
    }
    const Json failure = ExplainLikeTheChecker(Write(bench_.Package(cms)))["failure"];
    EXPECT_EQ(failure["kind"], "wrong-root");
    EXPECT_EQ(failure["reason"], "the chain ends at CN=Test Signing CA, which came with the package and is not CN=Test "
                                 "Root, the root that the checker trusts");
}

// In either order, for it is the one to renew.
TEST_F(PkgtoolExplain, ReportsTheExpiredOneOfSeveralUnfitCrls)
{
    const CrlSpec expired = With(bench_.pki.signingCrl, &CrlSpec::nextUpdate, UtcTime("251221000000Z"));
    const CrlSpec foreign = Indirect(CrlOf(Intermediate("Other CA")));
    for (const auto& [first, second] : {std::pair(expired, foreign), std::pair(foreign, expired)}) {
        const Bytes crls = Cat(Build(bench_.pki.rootCrl), Build(bench_.pki.tsaCrl), Build(first), Build(second));
        const Json report = ExplainLikeTheChecker(Write(bench_.WithCrls(crls)));
        EXPECT_EQ(report["failure"]["kind"], "crl-expired");
        EXPECT_EQ(report["signers"][0]["chain"][0]["crls"].size(), 2u);
    }
}

TEST_F(PkgtoolExplain, SaysWhatTheDecoderExpectedAndFound)
{
    const Bytes other = Octets(Text("xy"));
    const Bytes cms = DetachedCms(bench_.payload, DemoCms(bench_.pki));
    const struct {
        Path place;
        Bytes element; // in its place
        const char* path;
        const char* found;
        const char* expected;
        const char* fault;
    } cases[] = {
        {{1}, Octets(Bytes(64, 'x')), "signed_data", "04407878", "[0]", "it is no [0]"},
        {{1, 0, 0}, other, "signed_data.version", "04027879", "INTEGER", "it is no INTEGER"},
        {{1, 0, 1}, other, "signed_data.digest_algo_set", "04027879", "SET", "it is no SET"},
        {{1, 0, 4, 0},
         Tlv(0x30, Int(1)),
         "signed_data.signer_infos.infos[0]",
         "3003020101",
         "SEQUENCE",
         "it ends before issuer_sn"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.path);
        PackageSpec package = bench_.Package();
        package.subFiles[1].content = Replace(cms, one.place, one.element);
        const Json element = ExplainLikeTheChecker(Write(package))["failure"]["element"];
        ASSERT_TRUE(element.is_object());
        EXPECT_EQ(element["path"], one.path);
        EXPECT_EQ(element["expected"], one.expected);
        EXPECT_EQ(element["fault"], one.fault);
        EXPECT_EQ(element["offset"], Find(package.subFiles[1].content, one.place).offset);
        EXPECT_EQ(element["found"].get<std::string>().rfind(one.found, 0), 0u) << element;
        package.subFiles[1].content = Pem("CMS", package.subFiles[1].content);
        EXPECT_EQ(ExplainLikeTheChecker(Write(package))["failure"]["element"], element);
    }
    // Of CRLs in PEM there is no offset.
    const Bytes crl = Pem("X509 CRL", Replace(Build(bench_.pki.rootCrl), {0, 2}, other));
    const Json element = ExplainLikeTheChecker(Write(bench_.WithCrls(crl)))["failure"]["element"];
    EXPECT_EQ(element["path"], "tbs_cert_list.issuer");
    EXPECT_EQ(element.at("offset"), nullptr);
    // An element of a list whose elements are decoded one by one.
    CmsSpec foreign = DemoCms(bench_.pki);
    foreign.certificates.push_back(Ctx(1, Int(1)));
    EXPECT_EQ(ExplainLikeTheChecker(Write(bench_.Package(foreign)))["failure"]["element"],
              ParseJson(R"({"path": "certificates[2]", "offset": null, "expected": null, "found": "",
                            "fault": "it is not the expected element"})"));
    // The same octets twice do not tell their place.
    for (const bool isTwice : {false, true}) {
        foreign.certificates.back() = AlgoId(isTwice ? oid::sha256 : "1.3.6.1.4.1.32473.1");
        const PackageSpec package = bench_.Package(foreign);
        const Json undecodable = ExplainLikeTheChecker(Write(package))["failure"]["element"];
        EXPECT_EQ(undecodable["path"], "certificates[2].toBeSigned");
        const std::size_t place = Find(package.subFiles[1].content, {1, 0, 3, 2, 0}).offset;
        EXPECT_EQ(undecodable["offset"], isTwice ? Json() : Json(place));
    }
}

// Of several entries for a certificate the one that decided, and a reason that leaves no earlier timestamp good.
TEST_F(PkgtoolExplain, TellsTheRevocationThatDecided)
{
    const Bytes serial = bench_.pki.signingCa.serial;
    bench_.pki.rootCrl.revoked = {{serial, UtcTime("270101000000Z"), 4}, {serial, UtcTime("280101000000Z"), 2}};
    const Json report = ExplainLikeTheChecker(Write(bench_.Package()));
    EXPECT_EQ(report["failure"]["reason"], "the CRL of CN=Test Root revokes certificate CN=Test Signing CA as of "
                                           "2028-01-01 (cACompromise), and for all earlier times");
    const Json crl = report["signers"][0]["chain"][1]["crls"][0];
    EXPECT_EQ(crl["says"], "revokes it as of 2028-01-01 (cACompromise), and for all earlier times");
    EXPECT_EQ(crl["revocation"]["date"], "2028-01-01T00:00:00Z");
    EXPECT_EQ(crl["revocation"]["reason"], "cACompromise");

    // As of the very second of the timestamp.
    bench_.pki.rootCrl.revoked.clear();
    bench_.pki.signingCrl.revoked = {{bench_.pki.signer.serial, UtcTime("260101000000Z"), 1}};
    EXPECT_EQ(ExplainLikeTheChecker(Write(bench_.Package()))["signers"][0]["chain"][0]["crls"][0]["says"],
              "revokes it as of 2026-01-01T00:00:00Z (keyCompromise)");
}

TEST_F(PkgtoolExplain, SaysThatARevocationCannotBeRead)
{
    bench_.pki.signingCrl.revoked = {{bench_.pki.signer.serial, UtcTime("2506010000Z"), 1}}; // without seconds
    const Json report = ExplainLikeTheChecker(Write(bench_.Package()));
    EXPECT_EQ(report["failure"]["kind"], "crl-undecodable");
    EXPECT_EQ(report["failure"]["at"], kSignerCrl);
    EXPECT_EQ(report["failure"]["reason"], "the revocation of CN=Test Signer cannot be determined");
    EXPECT_EQ(report["signers"][0]["chain"][0]["crls"][0]["says"], "cannot be applied");
}

// ---- The next certificate of a chain ----

Json EachOf(const Json& chain, const char* member)
{
    Json all = Json::array();
    for (const Json& link : chain) all.push_back(link[member]);
    return all;
}

// Under its old name it has a new key, and a CRL by the old one.
TEST_F(PkgtoolExplain, ShowsTheCaWhoseCrlDecided)
{
    CertSpec newCa = With(bench_.pki.signingCa, &CertSpec::key, KeyId::Rsa2048G);
    newCa.serial = {0x55};
    bench_.pki.signer = IssuedBy(bench_.pki.signer, newCa);
    const auto package = [&] {
        CmsSpec cms = DemoCms(bench_.pki); // has the old one
        cms.certificates.push_back(Build(newCa));
        return bench_.Package(cms);
    };
    const Json ofOldCrl = ExplainLikeTheChecker(Write(package()));
    EXPECT_EQ(ofOldCrl["verdict"], "accepted");
    EXPECT_EQ(EachOf(ofOldCrl["signers"][0]["chain"], "serial"), Json({"23", "11", "19"}));

    // With a CRL by either key, and both certificates expired, the first one counts.
    newCa.notAfter = bench_.pki.signingCa.notAfter = UtcTime("251231000000Z");
    PackageSpec expired = package();
    expired.subFiles[2].content = Cat(bench_.pki.Crls(), Build(CrlOf(newCa)));
    const Json report = ExplainLikeTheChecker(Write(expired));
    EXPECT_EQ(report["failure"]["kind"], "certificate-expired");
    EXPECT_EQ(report["failure"]["at"], "/signers/0/chain/1");
    EXPECT_EQ(report["failure"]["serial"], "11");
}

TEST_F(PkgtoolExplain, ShowsTheIssuerOfACertificateThatAnIndirectCrlCovers)
{
    bench_.pki.signingCrl = Indirect(CrlOf(bench_.pki.tsaCa));
    const Json report = ExplainLikeTheChecker(Write(bench_.Package()));
    EXPECT_EQ(report["verdict"], "accepted");
    EXPECT_EQ(
        EachOf(report["signers"][0]["chain"], "subject"),
        Json({"C=ZZ,O=Example,CN=Test Signer", "C=ZZ,O=Example,CN=Test Signing CA", "C=ZZ,O=Example,CN=Test Root"}));
}

TEST_F(PkgtoolExplain, KnowsCasThatIssueEachOther)
{
    const CertSpec other = IssuedBy(Intermediate("Other CA", KeyId::Rsa2048G), bench_.pki.signingCa);
    bench_.pki.signingCa = IssuedBy(bench_.pki.signingCa, other);
    CmsSpec cms = DemoCms(bench_.pki);
    cms.certificates.push_back(Build(other));
    const Json failure = ExplainLikeTheChecker(Write(bench_.Package(cms)))["failure"];
    EXPECT_EQ(failure["kind"], "wrong-root");
    EXPECT_EQ(failure["at"], "/signers/0/chain/2");
    EXPECT_EQ(failure["subject"], "C=ZZ,O=Example,CN=Other CA");
    EXPECT_EQ(failure["reason"], "the certificates above issue each other, and lead to no root");
}

// By its names alone it is its own issuer.
TEST_F(PkgtoolExplain, SeeksNoIssuerOfASelfIssuedCertificateAfterTheFailure)
{
    bench_.pki.signer.subject = bench_.pki.signingCa.subject;
    bench_.pki.signer.notAfter = UtcTime("251231000000Z");
    const Json report = ExplainLikeTheChecker(Write(bench_.Package()));
    EXPECT_EQ(report["failure"]["kind"], "certificate-expired");
    EXPECT_EQ(report["signers"][0]["chain"].size(), 1u);
}

TEST_F(PkgtoolExplain, ShowsOneScreen)
{
    bench_.pki.signingCrl.nextUpdate = UtcTime("251221000000Z");
    const std::string path = Write(bench_.Package());
    EXPECT_EQ(Explain(path).out, path + R"(: REFUSED 0x88200009 PELNIC_ERR_CERT_VERIFY
  Check cms file fail for file(err 0x88200009)
  package with 3 sub-files
    payload    offset          0  length         16
      SHA-256 8354D20F1A8AC4E9DD7B7A9DCBA2A2BE34A5FFBEF65EEEB688885E00CC403810
    signature  offset         16  length       5103
    crl        offset       5119  length       1563
  trusts CN=Test Root (root file)
    SHA-256 F1433405B2214E3C2E12A765F7BBDA21D13C122A4795689C87AA0A922FE1764E
  signer CN=Test Signer, SHA256
    timestamp 2026-01-01T00:00:00Z, by
      authority CN=Test TSA
        CN=Test TSA, 2020-01-01 to 2040-01-01 (token)
          CRL of CN=Test TSA CA, 2025-01-01 to 2035-01-01, score 0x60, chosen: does not list it
        CN=Test TSA CA, 2020-01-01 to 2040-01-01 (token)
          CRL of CN=Test Root, 2025-01-01 to 2035-01-01, score 0x60, chosen: does not list it
        CN=Test Root, 2020-01-01 to 2040-01-01 (root file)
    CN=Test Signer, 2020-01-01 to 2040-01-01 (signature)
>     CRL of CN=Test Signing CA, 2025-01-01 to 2025-12-21, score 0x00: ended 2025-12-21, before the timestamp 2026-01-01
    CN=Test Signing CA, 2020-01-01 to 2040-01-01 (signature)
    CN=Test Root, 2020-01-01 to 2040-01-01 (root file)

why:  CRL of CN=Test Signing CA ended 2025-12-21, before the timestamp 2026-01-01
do:   publish a CRL of CN=Test Signing CA that covers the signing time, and pack it
)");
}

// Two CAs of one common name are not to be taken for each other.
TEST_F(PkgtoolExplain, NamesInFullWhoseCommonNamesCoincide)
{
    bench_.pki.signingCrl.nextUpdate = UtcTime("251221000000Z");
    CertSpec other = bench_.pki.signingCa;
    other.subject = Name(Cn("Test Signing CA"));
    CmsSpec cms = DemoCms(bench_.pki);
    cms.certificates.push_back(Build(other));
    const std::string out = Explain(Write(bench_.Package(cms))).out;
    EXPECT_NE(out.find("why:  CRL of C=ZZ,O=Example,CN=Test Signing CA ended"), std::string::npos) << out;
    EXPECT_NE(out.find("signer CN=Test Signer, "), std::string::npos) << out;
    // Nor if there is only a CRL of the other.
    const Bytes crl = Build(With(bench_.pki.tsaCrl, &CrlSpec::issuer, other.subject));
    const std::string ofCrl = Explain(Write(bench_.WithCrls(Cat(bench_.pki.Crls(), crl)))).out;
    EXPECT_NE(ofCrl.find("why:  CRL of C=ZZ,O=Example,CN=Test Signing CA ended"), std::string::npos) << ofCrl;
}

// Wherever it stands in a name, and what looks like one.
TEST_F(PkgtoolExplain, NamesByTheCommonName)
{
    bench_.pki.signer.subject = Name(Cn("Signer, first"), O("ACN=B"));
    const std::string out = Explain(Write(bench_.Package())).out;
    EXPECT_NE(out.find("signer CN=Signer\\, first, SHA256\n"), std::string::npos) << out;
}

// What comes from a package is text in the page, wherever a hostile certificate puts it.
TEST_F(PkgtoolExplain, WritesAPageWithoutAnythingOfThePackagesOwn)
{
    const std::string nasty = "<script>alert(1)</script>\"'&\x1B[2J";
    bench_.pki.signer.subject = Name(Cn(nasty));
    bench_.pki.signingCrl.nextUpdate = UtcTime("251221000000Z");
    const std::string package = Write(bench_.Package());
    const std::string file = dir_.Path("page<b>.html");
    const ProcessResult run = Explain(package, {"--html", file});
    EXPECT_EQ(run.status, 1) << run.err;
    const Bytes octets = ReadWholeFile(file);
    const std::string page(octets.begin(), octets.end());
    EXPECT_EQ(page.rfind("<!DOCTYPE html>\n<html lang=\"en\">", 0), 0u);
    EXPECT_NE(page.find("content=\"default-src 'none'; style-src 'unsafe-inline'\""), std::string::npos);
    for (const char* active : {"<script", "javascript:", "http:", "https:", "<img", "<link", "<a ", "\x1B"}) {
        EXPECT_EQ(page.find(active), std::string::npos) << active;
    }
    EXPECT_NE(page.find(R"(CN=\&lt;script\&gt;alert(1)\&lt;/script\&gt;\&quot;'&amp;\1B[2J)"), std::string::npos)
        << page;
    for (const char* part :
         {">REFUSED</p>", "<p><code>Check cms file fail for file(err 0x88200009)</code>",
          "<dt>Why</dt>\n<dd>CRL of CN=Test Signing CA ended 2025-12-21", "<dt>What to do</dt>", "<h2>Time line</h2>",
          "<svg role=\"img\" aria-label=", "<h2>Fingerprints</h2>", "<h2>Trusted root</h2>",
          "8354D20F1A8AC4E9DD7B7A9DCBA2A2BE34A5FFBEF65EEEB688885E00CC403810"}) {
        EXPECT_NE(page.find(part), std::string::npos) << part;
    }
    const std::size_t marked = page.find("<li class=\"failed\"><strong>It failed here. </strong>");
    EXPECT_NE(marked, std::string::npos);
    EXPECT_EQ(page.find("It failed here", marked + 60), std::string::npos);
    // As many ends as beginnings of every element.
    const auto count = [&](const std::string& text) {
        std::size_t found = 0;
        for (std::size_t at = 0; (at = page.find(text, at)) != std::string::npos; ++at) ++found;
        return found;
    };
    for (const std::string tag :
         {"p", "li", "ol", "ul", "table", "tr", "td", "h1", "h2", "h3", "h4", "svg", "code", "dl"}) {
        EXPECT_EQ(count("<" + tag + ">") + count("<" + tag + " "), count("</" + tag + ">")) << tag;
    }
    EXPECT_EQ(Explain(package, {"--html", file}).status, 2); // it is there
    const ProcessResult alone = Explain(package, {"--html", "-"});
    EXPECT_EQ(alone.out, page);
}

// Certificates of 2020 to 2040 take the whole width, from 300 to 1000.
TEST_F(PkgtoolExplain, DrawsRevocationsOnTheTimeLine)
{
    const auto pageOf = [&](const std::string& date) {
        bench_.pki.signingCrl.revoked = {{bench_.pki.signer.serial, UtcTime(date), 1}};
        return Explain(Write(bench_.Package()), {"--html", "-"}).out;
    };
    const std::string later = pageOf("300101000000Z");
    EXPECT_NE(later.find("<path d=\"M650 "), std::string::npos) << later;
    EXPECT_EQ(later.find("<path"), later.rfind("<path"));
    ExpectScreen("page", WithoutDirectory(later));
    // Whatever the date, it is in the picture.
    EXPECT_NE(pageOf("600101000000Z").find("<path d=\"M300 "), std::string::npos);
    EXPECT_NE(pageOf("491231000000Z").find("<path d=\"M1000 "), std::string::npos);
    EXPECT_EQ(pageOf("30<b>01000000Z").find("<path"), std::string::npos);
    bench_.pki.signingCrl.revoked.clear();
    EXPECT_EQ(Explain(Write(bench_.Package()), {"--html", "-"}).out.find("<path"), std::string::npos);
}

TEST_F(PkgtoolExplain, DrawsOneBarForEqualNamesAndDates)
{
    const auto page = [&](const CmsSpec& cms) { return Explain(Write(bench_.Package(cms)), {"--html", "-"}).out; };
    const auto barsIn = [](const std::string& text) {
        const std::regex bar("stroke-width=\"8\"");
        return std::distance(std::sregex_iterator(text.begin(), text.end(), bar), std::sregex_iterator());
    };
    CmsSpec cms = DemoCms(bench_.pki);
    const auto bars = barsIn(page(cms));
    // A second signer of the same name, whose certificate is revoked later.
    const CertSpec second = Signer(KeyId::Rsa2048F);
    cms.certificates.push_back(Build(second));
    cms.signers.push_back(cms.signers[0]);
    cms.signers[1].serial = second.serial;
    cms.signers[1].key = second.key;
    bench_.pki.signingCrl.revoked = {{second.serial, UtcTime("300101000000Z")}};
    const std::string both = page(cms);
    EXPECT_NE(both.find("<path d=\"M650 "), std::string::npos) << both;
    EXPECT_EQ(barsIn(both), bars);
    // A moment is a bar, too.
    bench_.pki.tsaCrl.nextUpdate = bench_.pki.tsaCrl.thisUpdate = UtcTime("260101000000Z");
    EXPECT_EQ(barsIn(page(DemoCms(bench_.pki))), bars);
}

// What the package says of them.
TEST_F(PkgtoolExplain, ShowsTheSignersAfterTheOneThatFailed)
{
    CmsSpec cms = DemoCms(bench_.pki);
    cms.signers.resize(4, cms.signers[0]);
    cms.signers[0].brokenSignature = true;
    cms.signers[2].unsignedAttributes.clear();
    cms.signers[3].serial = {0x7F};
    const Json report = ExplainLikeTheChecker(Write(bench_.Package(cms)));
    EXPECT_EQ(report["failure"]["at"], "/signers/0");
    const Json& signers = report["signers"];
    ASSERT_EQ(signers.size(), 4u);
    EXPECT_EQ(signers[1]["subject"], "C=ZZ,O=Example,CN=Test Signer");
    EXPECT_EQ(signers[1]["timestamp"]["time"], "2026-01-01T00:00:00Z");
    EXPECT_EQ(signers[1]["timestamp"]["authorities"][0]["subject"], "C=ZZ,O=Example,CN=Test TSA");
    EXPECT_EQ(signers[1]["chain"].size(), 3u);
    EXPECT_EQ(signers[2].at("timestamp"), nullptr);
    EXPECT_EQ(signers[2]["chain"], Json::array());
    EXPECT_EQ(signers[3].at("subject"), nullptr);
    EXPECT_EQ(signers[3]["timestamp"]["time"], "2026-01-01T00:00:00Z");
    EXPECT_EQ(signers[3]["chain"], Json::array());
}

TEST_F(PkgtoolExplain, SaysNothingOfSignersThatWereNotLookedAt)
{
    const std::string fractions = Write(bench_.Package(bench_.Token("20260101000000.5Z")));
    const std::string out = Explain(fractions).out;
    EXPECT_NE(out.find("\n>   timestamp ?, whose signers were not looked at\n"), std::string::npos) << out;
    const std::string page = Explain(fractions, {"--html", "-"}).out;
    EXPECT_NE(page.find("Its signers were not looked at."), std::string::npos) << page;
    EXPECT_EQ(page.find("Nobody signed it."), std::string::npos) << page;
    TokenSpec unsignedToken = DemoToken(bench_.pki);
    unsignedToken.cms.signers.clear();
    const std::string accepted = Explain(Write(bench_.Package(unsignedToken))).out;
    EXPECT_NE(accepted.find("Z, signed by nobody\n"), std::string::npos) << accepted;

    // Beside a signer with a good timestamp, whose time alone is drawn.
    CmsSpec two = DemoCms(bench_.pki);
    two.signers.push_back(DemoCms(bench_.pki, bench_.Token("20260101000000.5Z")).signers[0]);
    const std::string drawn = Explain(Write(bench_.Package(two)), {"--html", "-"}).out;
    EXPECT_NE(drawn.find("stroke-dasharray"), std::string::npos) << drawn;
    EXPECT_EQ(drawn.find("stroke-dasharray"), drawn.rfind("stroke-dasharray")) << drawn;

    CmsSpec unstamped = DemoCms(bench_.pki);
    unstamped.signers[0].unsignedAttributes.clear();
    const std::string signersOnly = Explain(Write(bench_.Package(unstamped)), {"--html", "-"}).out;
    EXPECT_NE(signersOnly.find("Signer "), std::string::npos) << signersOnly;
    EXPECT_EQ(signersOnly.find("Timestamp "), std::string::npos) << signersOnly;
    // No chain leads to the root.
    EXPECT_NE(signersOnly.find("<td>C=ZZ,O=Example,CN=Test Root</td>"), std::string::npos) << signersOnly;
}

TEST_F(PkgtoolExplain, TrustsTheCheckersRootUnlessToldOtherwise)
{
    const ProcessResult run = RunProcess({PkgtoolPath(), "explain", Write(bench_.Package()), "--json"});
    EXPECT_EQ(run.status, 1);
    const Json report = ParseJson(run.out);
    EXPECT_EQ(report["root"]["source"], "compiled in");
    EXPECT_EQ(report["failure"]["kind"], "issuer-missing");
    EXPECT_EQ(report["code"], "0x88200009");
}

TEST_F(PkgtoolExplain, NamesARootThatIsNone)
{
    const std::string path = Write(bench_.Package());
    const auto explain = [&](const Bytes& root) {
        return RunProcess({PkgtoolPath(), "explain", path, "--json", "--root", dir_.Write("root", root)});
    };
    const Json garbage = ParseJson(explain(Bytes(64, 0x00)).out);
    EXPECT_EQ(garbage["failure"]["kind"], "root-unusable");
    EXPECT_EQ(garbage["failure"]["at"], "/root");
    EXPECT_EQ(garbage["code"], "0x88200008");
    // Not a CA, so the package's own CA leads nowhere.
    const Json signer = ParseJson(explain(Build(bench_.pki.signer)).out);
    EXPECT_EQ(signer["failure"]["kind"], "issuer-missing");
    EXPECT_NE(signer["failure"]["reason"].get<std::string>().find("trusts CN=Test Signer"), std::string::npos);
    // The chain leads there, and no further.
    const Json sha1 = ParseJson(explain(Build(With(bench_.pki.root, &CertSpec::hash, Hash::Sha1))).out);
    EXPECT_EQ(sha1["failure"]["kind"], "wrong-root");
    EXPECT_EQ(sha1["failure"]["reason"], "the signature of CN=Test Root on itself cannot be checked");
    EXPECT_EQ(explain({}).status, 2);
}

TEST_F(PkgtoolExplain, KeepsTheLibrarysLog)
{
    bench_.pki.signingCrl.nextUpdate = UtcTime("251221000000Z");
    Json record = ExplainLikeTheChecker(Write(bench_.Package()))["log"][0];
    EXPECT_GT(record["line"], 0);
    record.erase("line");
    EXPECT_EQ(record, ParseJson(R"({"level": "warning", "code": "0x88200103",
        "message": "Found an expired CRL, it most likely cause NO CRL error.",
        "file": "cmsverify/pelnic_pki_impl.cpp", "function": "_pnvCrlGetScore"})"));
}

TEST_F(PkgtoolExplain, ShortFilesAreRefusedLikeTheChecker)
{
    const std::string path = dir_.Write("package", Bytes(351, 0x00));
    const ProcessResult run = Explain(path, {"--json"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(ParseJson(run.out)["status"], 255);
    EXPECT_EQ(Screen(path), "package: REFUSED\n  shorter than a package header of 352 octets\n");
    EXPECT_EQ(Explain(path).status, 1);
    EXPECT_EQ(Explain(dir_.Path("missing")).status, 2);
}

} // namespace
} // namespace pnvtest
