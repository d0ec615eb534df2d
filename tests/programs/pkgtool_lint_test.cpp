// pkgtool lint as a process: each finding by the package that has it and, in everything else, is one that devices
// accept.
#include "programs/pkgtool_json.h"
#include "support/cms.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <set>

namespace pnvtest {
namespace {

using Ids = std::set<std::string>;

constexpr int kClean = 0;
constexpr int kWarnings = 10;
constexpr int kErrors = 11;

// What the demo packages have and nobody minds.
const Ids kUsual = {"timestamp-without-accuracy"};

class PkgtoolLint : public ::testing::Test {
protected:
    PkgtoolLint()
    {
        // Of a year, so that nothing is found in them.
        for (CrlSpec* crl : {&pki_.rootCrl, &pki_.signingCrl, &pki_.tsaCrl}) {
            crl->thisUpdate = UtcTime("250701000000Z");
            crl->nextUpdate = UtcTime("260701000000Z");
            crl->revoked = {{Bytes{0x7F}}};
        }
    }

    PackageSpec Package(const CmsSpec& cms) const
    {
        return SignedPackage(payload_, DetachedCms(payload_, cms), pki_.Crls());
    }
    PackageSpec Package() const { return Package(DemoCms(pki_)); }

    Json Lint(const Bytes& package, int status, std::vector<std::string> options = {}) const
    {
        options.insert(options.begin(), {PkgtoolPath(), "lint", dir_.Write("package", package), "--json", "--root",
                                         DataPath("test_root.der")});
        const ProcessResult run = RunProcess(options);
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.status, status) << run.out;
        return ParseJson(run.out);
    }
    Ids Found(const PackageSpec& package, int status, const std::vector<std::string>& options = {}) const
    {
        const Json report = Lint(Build(package), status, options);
        Ids ids;
        for (const Json& finding : report["findings"]) ids.insert(finding["id"]);
        return ids;
    }
    void ExpectOnly(const PackageSpec& package, int status, const Ids& ids) const
    {
        EXPECT_EQ(Found(package, status), ids);
    }
    // These, and the usual ones.
    void ExpectFound(const PackageSpec& package, int status, Ids ids,
                     const std::vector<std::string>& options = {}) const
    {
        ids.insert(kUsual.begin(), kUsual.end());
        EXPECT_EQ(Found(package, status, options), ids);
    }

    const TempDir dir_;
    const Bytes payload_ = Text("a firmware image");
    DemoPki pki_{KeyId::Rsa4096};
};

TEST_F(PkgtoolLint, FindsNothingInAGoodPackage)
{
    ExpectFound(Package(), kClean, {});
    TokenSpec token = DemoToken(pki_);
    token.accuracy = Accuracy(1);
    ExpectOnly(Package(DemoCms(pki_, token)), kClean, {});
    EXPECT_EQ(RunProcess({PkgtoolPath(), "lint", dir_.Path("package"), "--root", DataPath("test_root.der")}).out, "");
}

TEST_F(PkgtoolLint, FindsUnsignedPackages)
{
    PackageSpec one;
    one.subFiles = {{subfile::payload, payload_, {}, {}}};
    ExpectOnly(one, kErrors, {"unsigned-by-count"});
    PackageSpec without = Package();
    without.subFiles[1] = {subfile::crl, {}, {}, {}};
    ExpectOnly(without, kErrors, {"unsigned-without-signature", "sub-file-twice"});
    PackageSpec empty = Package();
    empty.subFiles[1].content.clear();
    ExpectOnly(empty, kErrors, {"unsigned-without-signature"});
}

TEST_F(PkgtoolLint, FindsWhatTheCheckerRefuses)
{
    pki_.signingCrl.revoked = {{pki_.signer.serial}};
    ExpectFound(Package(), kErrors, {"refused"});
    PackageSpec two = Package();
    two.subFileCount = 2;
    ExpectFound(two, kErrors, {"refused", "bytes-outside-sub-files"});
    CmsSpec unstamped = DemoCms(pki_);
    unstamped.signers[0].unsignedAttributes.clear();
    pki_.signingCrl.revoked = {{Bytes{0x7F}}};
    ExpectOnly(Package(unstamped), kErrors, {"refused"});
}

TEST_F(PkgtoolLint, SaysNothingMoreOfOctetsThatAreNoPackage)
{
    const Json report = Lint(Bytes(3000, 0xEE), kErrors);
    ASSERT_EQ(report["findings"].size(), 1u) << report.dump(2);
    EXPECT_EQ(report["findings"][0]["id"], "refused");
}

TEST_F(PkgtoolLint, FindsSubFilesOutsideOverlappingUnknownAndUncovered)
{
    PackageSpec package = Package();
    package.subFiles.push_back({0x20000000, Bytes(5, 0x00), {}, {}});
    package.subFileCount = 3;
    ExpectFound(package, kWarnings, {"bytes-outside-sub-files"});

    package = Package();
    package.subFiles[2].content.push_back(0x00); // a byte that both of the next have
    package.subFiles[1].length = Len(package.subFiles[1].content) + 10;
    ExpectFound(package, kWarnings, {"sub-file-overlap", "crl-unread-bytes"});

    // In another order than in the table.
    const Bytes cms = package.subFiles[1].content;
    package = Package();
    package.subFiles[0] = {subfile::cms, payload_, Len(payload_), Len(cms)};
    package.subFiles[1] = {subfile::payload, cms, 0, Len(payload_)};
    ExpectFound(package, kClean, {});

    // Eight bytes of nothing known in the first place, far outside.
    PackageSpec unknown;
    unknown.subFiles = {
        {0x20000000, {}, 0x1000, 8}, {subfile::payload, payload_, {}, {}}, {subfile::payload, {}, 0, 0}};
    ExpectOnly(unknown, kErrors,
               {"unsigned-without-signature", "sub-file-outside", "sub-file-unknown", "sub-file-twice"});

    // As many as fit into the table.
    package = Package();
    package.subFiles.resize(8, {0x20000000, {}, {}, {}});
    ExpectFound(package, kErrors, {"refused", "sub-file-unknown", "sub-file-twice"});
}

// Of two that begin at one place the later one.
TEST_F(PkgtoolLint, NamesTheSubFileThatOverlapsAnother)
{
    PackageSpec package = Package();
    package.subFiles.push_back({0x20000000, {}, 0, 5});
    std::string at;
    const Json report = Lint(Build(package), kErrors);
    for (const Json& finding : report["findings"]) {
        if (finding["id"] == "sub-file-overlap") at += finding["at"].get<std::string>() + "\n";
    }
    EXPECT_EQ(at, "/sub_files/3\n");
}

// What lies behind a list, here an object's mark in every fresh octet (glibc's tunables, or AddressSanitizer's
// options), is not of it.
TEST_F(PkgtoolLint, ReadsListsToTheirEnd)
{
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.push_back(Build(pki_.tsaCa)); // the third, in memory for four
    const std::string path = dir_.Write("package", Build(Package(cms)));
    const ProcessResult run = RunProcess(
        {PkgtoolPath(), "lint", path, "--root", DataPath("test_root.der")},
        {"GLIBC_TUNABLES=glibc.malloc.perturb=254:glibc.malloc.tcache_count=0", "ASAN_OPTIONS=malloc_fill_byte=1"});
    EXPECT_EQ(run.status, kClean) << run.out << run.err;
}

TEST_F(PkgtoolLint, FindsAHeaderThatGivesAnotherLength)
{
    ExpectFound(With(Package(), &PackageSpec::length, 5u), kClean, {"header-length"});
}

TEST_F(PkgtoolLint, FindsATimestampThatNobodySigned)
{
    TokenSpec token = DemoToken(pki_);
    token.cms.signers.clear();
    ExpectFound(Package(DemoCms(pki_, token)), kErrors, {"timestamp-without-signers"});
}

TEST_F(PkgtoolLint, FindsASecondTimestamp)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].unsignedAttributes.push_back(cms.signers[0].unsignedAttributes[0]);
    ExpectFound(Package(cms), kWarnings, {"timestamp-twice"});
}

TEST_F(PkgtoolLint, FindsSignersWithoutSignedAttributes)
{
    CmsSpec cms = Direct(DemoCms(pki_));
    ExpectFound(Package(cms), kWarnings, {"signer-without-attributes"});
    cms.signers.push_back(cms.signers[0]);
    ExpectFound(Package(cms), kErrors, {"signer-without-attributes", "last-signer-decides"});
}

TEST_F(PkgtoolLint, FindsSignedAttributesWithoutContentType)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].signedAttributes = [](const Bytes& digest) {
        return std::vector<Bytes>{MessageDigestAttribute(digest)};
    };
    ExpectFound(Package(cms), kWarnings, {"no-content-type"});
    TokenSpec token = DemoToken(pki_);
    token.cms.signers[0].signedAttributes = cms.signers[0].signedAttributes;
    ExpectFound(Package(DemoCms(pki_, token)), kWarnings, {"no-content-type"});
}

// ---- What the checker reads, and OpenSSL does not ----

// A version with a leading zero, which DER does not have and only OpenSSL minds.
Edit PaddedVersion(std::uint8_t version)
{
    return [version](Bytes signedData) { return Replace(signedData, {0}, Tlv(0x02, Bytes{0x00, version})); };
}

TEST_F(PkgtoolLint, APaddedVersionHidesNoUnsignedToken)
{
    TokenSpec token = DemoToken(pki_);
    token.cms.signers.clear();
    CmsSpec cms = DemoCms(pki_, token);
    cms.edit = PaddedVersion(1);
    ExpectFound(Package(cms), kErrors, {"timestamp-without-signers", "read-by-checker-alone"});
    token.cms.edit = PaddedVersion(3);
    ExpectFound(Package(DemoCms(pki_, token)), kErrors, {"timestamp-without-signers", "read-by-checker-alone"});
}

TEST_F(PkgtoolLint, APaddedVersionHidesNoTwoDirectSigners)
{
    CmsSpec cms = Direct(DemoCms(pki_));
    cms.signers.push_back(cms.signers[0]);
    cms.signers[0].brokenSignature = true;
    cms.edit = PaddedVersion(1);
    ExpectFound(Package(cms), kErrors, {"signer-without-attributes", "last-signer-decides", "read-by-checker-alone"});
}

TEST_F(PkgtoolLint, FindsWhatOneReaderAloneTakes)
{
    const auto found = [&](const PackageSpec& package, int status) {
        std::map<std::string, std::string> places;
        const Json report = Lint(Build(package), status);
        for (const Json& finding : report["findings"]) {
            const std::string id = finding["id"];
            if (id.rfind("read-by-", 0) == 0) places[finding["at"]] = id + ": " + finding["message"].get<std::string>();
        }
        return places;
    };
    using Places = std::map<std::string, std::string>;
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.push_back(Build(With(Signer(KeyId::Rsa2048F), &CertSpec::editTbs, [](Bytes der) {
        return Replace(der, {tbs::version}, Ctx(0, Tlv(0x02, Bytes{0x00, 0x02})));
    })));
    EXPECT_EQ(found(Package(cms), kWarnings),
              (Places{{"/sub_files/1/content", "read-by-checker-alone: the signature can be decoded by the checker "
                                               "but not by OpenSSL"},
                      {"/sub_files/1/content/certificates/2",
                       "read-by-checker-alone: the certificate CN=Test Signer can be decoded by the checker but not by "
                       "OpenSSL"}}));
    // A serial number of 0: the checker refuses the signature that has it.
    cms = DemoCms(pki_);
    cms.certificates.push_back(Build(With(Signer(KeyId::Rsa2048F), &CertSpec::serial, Bytes{0x00})));
    EXPECT_EQ(found(Package(cms), kErrors),
              (Places{{"/sub_files/1/content", "read-by-openssl-alone: the signature can be decoded by OpenSSL but not "
                                               "by the checker"},
                      {"/sub_files/1/content/certificates/2",
                       "read-by-openssl-alone: the certificate CN=Test Signer can be decoded by OpenSSL but not by the "
                       "checker"}}));
    // A tsa name, which RFC 3161 allows.
    TokenSpec token = DemoToken(pki_);
    token.tsa = Ctx(0, Ctx(4, TestName("Test TSA")));
    EXPECT_EQ(found(Package(DemoCms(pki_, token)), kErrors),
              (Places{{"/sub_files/1/content/signers/0/timestamps/0",
                       "read-by-openssl-alone: the timestamp's TSTInfo can be decoded by OpenSSL but not by the "
                       "checker"}}));
    // A label that the checker does not look for.
    PackageSpec package = Package();
    package.subFiles[2].content = Cat(Pem("X509 CRL", Build(pki_.rootCrl)), Pem("X509 CRL", Build(pki_.signingCrl)),
                                      Pem("X509 CRL", Build(pki_.tsaCrl)));
    EXPECT_EQ(found(package, kClean), Places());
    package.subFiles[2].content = Cat(package.subFiles[2].content, Pem("CRL", Build(CrlOf(pki_.tsaCa))));
    EXPECT_EQ(found(package, kWarnings),
              (Places{{"/sub_files/2/content/crls/3",
                       "read-by-openssl-alone: the CRL of CN=Test TSA CA can be decoded by OpenSSL but not by the "
                       "checker"}}));
}

TEST_F(PkgtoolLint, FindsACarriedRootAndACaWithTwoKeys)
{
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.push_back(Build(pki_.root));
    ExpectFound(Package(cms), kClean, {"root-carried"});
    CertSpec renewed = pki_.signingCa;
    renewed.key = KeyId::Rsa2048G;
    renewed.serial = {0x55};
    cms = DemoCms(pki_);
    cms.certificates.push_back(Build(renewed));
    ExpectFound(Package(cms), kWarnings, {"ca-twice"});
}

// Of indefinite length, outside or inside (X.690, 8.1.3.6).
TEST_F(PkgtoolLint, KnowsCertificatesInBerApart)
{
    CertSpec ca = pki_.signingCa;
    ca.subject = TestName("Twice");
    for (const Path& path : {Path{}, Path{0}}) {
        Bytes pem;
        for (const Bytes& serial : {Bytes{0x01}, Bytes{0x02}}) {
            const Bytes der = Build(With(ca, &CertSpec::serial, serial));
            pem = Cat(pem, Pem("CERTIFICATE", WithIndefiniteLength(der, path)));
        }
        PackageSpec package = Package();
        package.subFiles[2].content = pem;
        EXPECT_EQ(Found(package, kErrors).count("ca-twice"), 1u) << path.size();
    }
}

// No octet of them is UTF-8.
TEST_F(PkgtoolLint, KnowsCasApartWhoseNamesAreNotUtf8)
{
    CmsSpec cms = DemoCms(pki_);
    const auto add = [&](const Bytes& name, KeyId key) {
        CertSpec ca = pki_.signingCa;
        ca.subject = Name(NameAttr(oid::commonName, Tlv(0x0C, name)));
        ca.serial = Cat(Bytes{0x01}, name, Bytes{static_cast<std::uint8_t>(key)});
        ca.key = key;
        cms.certificates.push_back(Build(ca));
    };
    add({0xA3}, KeyId::Rsa2048G);
    add({0xA4}, KeyId::Rsa2048G);
    ExpectFound(Package(cms), kWarnings, {"ca-carried", "read-by-checker-alone"});
    add({0xA3}, KeyId::Rsa2048F);
    ExpectFound(Package(cms), kWarnings, {"ca-carried", "ca-twice", "read-by-checker-alone"});
}

TEST_F(PkgtoolLint, FindsAWeakKey)
{
    CmsSpec cms = DemoCms(pki_);
    CertSpec weak = Signer(KeyId::Rsa2048F);
    weak.subjectPublicKey = RsaSpki(Bytes(128, 0xC5));
    cms.certificates.push_back(Build(weak));
    ExpectFound(Package(cms), kWarnings, {"weak-key"});
}

TEST_F(PkgtoolLint, FindsExponentsThatTheStrictCheckerRefuses)
{
    const Bytes modulus = TestKey(KeyId::Rsa2048H).modulus;
    CmsSpec cms = DemoCms(pki_);
    CertSpec odd = Signer(KeyId::Rsa2048F);
    cms.certificates.push_back({});
    const auto expect = [&](const Bytes& exponent, int status, const Ids& findings) {
        odd.subjectPublicKey = RsaSpki(modulus, exponent);
        cms.certificates.back() = Build(odd);
        ExpectFound(Package(cms), status, findings);
    };
    expect({0x01}, kErrors, {"no-exponent"});
    expect({0x02}, kErrors, {"no-exponent"});
    expect({0x03}, kClean, {});
    expect(Bytes(8, 0x11), kClean, {});
    expect(Bytes(9, 0x11), kWarnings, {"long-exponent"});
}

TEST_F(PkgtoolLint, FindsCrlsOfTheWrongLength)
{
    pki_.signingCrl.nextUpdate = UtcTime("260115000000Z");
    ExpectFound(Package(), kClean, {}); // everything is judged at the timestamp
    ExpectFound(Package(), kClean, {}, {"--crl-margin", "14"});
    ExpectFound(Package(), kWarnings, {"crl-ends-soon"}, {"--crl-margin", "15"});
    pki_.signingCrl.nextUpdate = UtcTime("280701000000Z");
    ExpectFound(Package(), kWarnings, {"crl-too-long"});
    ExpectFound(Package(), kClean, {}, {"--crl-days", "1096"});
    pki_.signingCrl.thisUpdate = UtcTime("280101000000Z");
    ExpectFound(Package(), kClean, {"crl-begins-later"});
}

// Of several timestamps the latest counts: until then the CRLs have to go on.
TEST_F(PkgtoolLint, HoldsCrlsAgainstTheLatestTimestamp)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers.push_back(cms.signers[0]);
    cms.signers[1].unsignedAttributes = {
        Timestamp(With(DemoToken(pki_), &TokenSpec::time, GenTime("20260615000000Z")))};
    ExpectFound(Package(cms), kWarnings, {"crl-ends-soon"}, {"--crl-margin", "30"}); // on 1 July
    std::swap(cms.signers[0], cms.signers[1]);
    ExpectFound(Package(cms), kWarnings, {"crl-ends-soon"}, {"--crl-margin", "30"});
}

TEST_F(PkgtoolLint, ACrlHoldsInItsFirstAndInItsLastSecond)
{
    pki_.signingCrl.thisUpdate = UtcTime("260101000000Z");
    ExpectFound(Package(), kClean, {});
    pki_.signingCrl.nextUpdate = UtcTime("260101000000Z");
    ExpectFound(Package(), kWarnings, {"crl-ends-soon"}, {"--crl-margin", "1"});
}

TEST_F(PkgtoolLint, SaysOfNoCrlThatHasEndedThatItEndsSoon)
{
    PackageSpec package = Package();
    CrlSpec ended = pki_.signingCrl;
    ended.nextUpdate = UtcTime("251231000000Z");
    package.subFiles[2].content = Cat(package.subFiles[2].content, Build(ended));
    ExpectFound(package, kClean, {}, {"--crl-margin", "30"});
}

// One that lists nothing is as good as any other.
TEST_F(PkgtoolLint, FindsCrlsThatSpeakForOthers)
{
    pki_.signingCrl.revoked.clear();
    ExpectFound(Package(), kClean, {});
    pki_.tsaCrl = Indirect(pki_.tsaCrl);
    ExpectFound(Package(), kWarnings, {"crl-indirect"});
}

// The one that issued the signer has to come along.
TEST_F(PkgtoolLint, FindsACaThatNobodyNeeds)
{
    CmsSpec cms = DemoCms(pki_);
    CertSpec other = pki_.signingCa;
    other.subject = Name(Cn("Another CA"));
    cms.certificates.push_back(Build(other));
    ExpectFound(Package(cms), kClean, {"ca-carried"});
}

TEST_F(PkgtoolLint, FindsLimitedCrls)
{
    const auto point = [](const Bytes& fields) { return Ext(oid::issuingDistributionPoint, Seq(fields), true); };
    const CrlSpec full = pki_.signingCrl;
    for (const Bytes& extension :
         {Ext("2.5.29.27", Int(1), true), point(CtxPrim(2, {0xFF})), point(CtxPrim(5, {0xFF})),
          point(CtxPrim(3, {0x06, 0x40})), point(Ctx(0, Ctx(0, CtxPrim(6, Text("http://example.com/1"))))),
          Ext(oid::issuingDistributionPoint, Octets({0x01}), true)}) {
        pki_.signingCrl = full;
        pki_.signingCrl.extensions.push_back(extension);
        ExpectFound(Package(), kWarnings, {"crl-limited"});
    }
    // For CAs and for others apart: each speaks for what its issuer issued, until they are exchanged.
    pki_.signingCrl = full;
    pki_.signingCrl.extensions.push_back(point(CtxPrim(1, {0xFF})));
    pki_.rootCrl.extensions.push_back(point(CtxPrim(2, {0xFF})));
    ExpectFound(Package(), kClean, {});
    std::swap(pki_.signingCrl.extensions.back(), pki_.rootCrl.extensions.back());
    ExpectFound(Package(), kWarnings, {"crl-limited"});
}

TEST_F(PkgtoolLint, PointsAtThePlaceAndPutsTheWorstFirst)
{
    pki_.signingCrl.nextUpdate = UtcTime("260115000000Z");
    pki_.tsaCrl.nextUpdate = UtcTime("260115000000Z");
    const Json report = Lint(Build(Package()), kWarnings, {"--crl-margin", "15"});
    EXPECT_EQ(report["schema"], 2);
    EXPECT_EQ(report["findings"][0], ParseJson(R"({"id": "crl-ends-soon", "severity": "warning",
        "at": "/sub_files/2/content/crls/1",
        "message": "the CRL of CN=Test Signing CA ends 2026-01-15, soon after the timestamp 2026-01-01"})"));
    EXPECT_EQ(report["findings"][1]["at"], "/sub_files/2/content/crls/2"); // equally bad, and behind it
    const ProcessResult words = RunProcess(
        {PkgtoolPath(), "lint", dir_.Path("package"), "--root", DataPath("test_root.der"), "--crl-margin", "15"});
    EXPECT_EQ(
        words.out.find("warning: the CRL of CN=Test Signing CA ends 2026-01-15, soon after the timestamp "
                       "2026-01-01 [crl-ends-soon]\nwarning: the CRL of CN=Test TSA CA ends 2026-01-15, soon after the "
                       "timestamp 2026-01-01 [crl-ends-soon]\nnote: "),
        0u)
        << words.out;
}

TEST_F(PkgtoolLint, ColoursErrorsOnATerminal)
{
    if (RunProcess({"script", "--version"}).status != 0) GTEST_SKIP() << "there is no script command";
    PackageSpec one;
    one.subFiles = {{subfile::payload, payload_, {}, {}}};
    const std::string command = PkgtoolPath() + " lint " + dir_.Write("package", Cat(Build(one), Bytes(1)));
    const std::string out = RunProcess({"script", "-qec", command, "/dev/null"}, {"NO_COLOR=", "TERM=xterm"}).out;
    EXPECT_NE(out.find("\033[1;31merror\033[0m: the header counts one sub-file"), std::string::npos) << out;
    EXPECT_NE(out.find("\nwarning: 1 byte of the file is in no sub-file and unsigned [bytes-outside-sub-files]"),
              std::string::npos)
        << out;
}

TEST_F(PkgtoolLint, WantsAPackage)
{
    const ProcessResult run = RunProcess({PkgtoolPath(), "lint", dir_.Write("short", Bytes(10, 0x00))});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "pkgtool: " + dir_.Path("short") + ": shorter than a package header of 352 octets\n");
    EXPECT_EQ(RunProcess({PkgtoolPath(), "lint", dir_.Path("missing")}).status, 2);
}

} // namespace
} // namespace pnvtest
