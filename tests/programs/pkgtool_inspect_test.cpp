// pkgtool inspect as a process: it shows what is there and judges nothing.
#include "programs/pkgtool_json.h"
#include "support/cms.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/screen.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>

namespace pnvtest {
namespace {

std::string Sha256(const Bytes& octets)
{
    unsigned char digest[32];
    EVP_Digest(octets.data(), octets.size(), digest, nullptr, EVP_sha256(), nullptr);
    std::string text;
    for (unsigned char octet : digest) {
        for (int digit : {octet >> 4, octet & 15}) text += "0123456789ABCDEF"[digit];
    }
    return text;
}

Json WithoutFingerprints(Json object)
{
    object.erase("sha256");
    object.erase("key_sha256");
    return object;
}

class PkgtoolInspect : public ::testing::Test {
protected:
    ProcessResult Inspect(const Bytes& package, std::vector<std::string> options = {}) const
    {
        options.insert(options.begin(), {PkgtoolPath(), "inspect", dir_.Write("package", package)});
        return RunProcess(options);
    }
    Json InspectJson(const PackageSpec& package) const
    {
        const ProcessResult run = Inspect(Build(package), {"--json"});
        EXPECT_EQ(run.status, 0) << run.err;
        return ParseJson(run.out);
    }
    PackageSpec Package() const { return SignedPackage(payload_, DetachedCms(payload_, DemoCms(pki_)), pki_.Crls()); }

    const TempDir dir_;
    const Bytes payload_ = Text("a firmware image");
    DemoPki pki_;
};

TEST_F(PkgtoolInspect, ShowsHeaderAndTable)
{
    PackageSpec package;
    package.version = 7;
    package.description = "board\033";
    package.subFiles = {{0x20000000, Bytes(3, 0x00), {}, {}}, {subfile::payload, {}, 100, 200}};
    const Json json = InspectJson(package);
    EXPECT_EQ(json["schema"], 2);
    EXPECT_EQ(json["size"], 355);
    EXPECT_EQ(json["header"], ParseJson(R"({"file_id": 0, "version": 7, "length": 355, "compress_type": 0,
        "header_crc": 0, "file_crc": 0, "reserved": 0, "description": "board\u001b", "sub_file_count": 2})"));
    EXPECT_EQ(json["sub_files"], ParseJson(R"([
        {"type": "0x20000000", "offset": 0, "length": 3, "is_inside": true,
         "sha256": "709E80C88487A2411E1EE4DFB9F22A861492D20C4765150C0C794ABD70F8147C"},
        {"type": "payload", "offset": 100, "length": 200, "is_inside": false}])"));
    EXPECT_NE(Inspect(Build(package)).out.find("description  board\\x1b\n"), std::string::npos);
}

TEST_F(PkgtoolInspect, ShowsTheSignature)
{
    const Json signature = InspectJson(Package())["sub_files"][1]["content"];
    EXPECT_EQ(signature["form"], "DER");
    EXPECT_EQ(signature["problem"], Json());
    EXPECT_EQ(WithoutFingerprints(signature["certificates"][1]),
              ParseJson(R"({"subject": "C=ZZ,O=Example,CN=Test Signer",
        "issuer": "C=ZZ,O=Example,CN=Test Signing CA", "serial": "23", "not_before": "2020-01-01T00:00:00Z",
        "not_after": "2040-01-01T00:00:00Z", "key": "RSA", "key_bits": 2048,
        "key_exponent": "010001", "signature_algorithm": "RSA-SHA256",
        "is_ca": false, "is_self_issued": false, "usage": ["digitalSignature", "codeSigning"],
        "source": "signature", "read_by": "both"})"));
    const Json signer = signature["signers"][0];
    EXPECT_EQ(signer["issuer"], "C=ZZ,O=Example,CN=Test Signing CA");
    EXPECT_EQ(signer["serial"], "23");
    EXPECT_EQ(signer["digest"], "SHA256");
    EXPECT_EQ(signer["signed_attributes"], Json({"contentType", "messageDigest"}));
    const Json token = signer["timestamps"][0];
    EXPECT_EQ(token["time"], "2026-01-01T00:00:00Z");
    EXPECT_EQ(token["has_accuracy"], false);
    EXPECT_EQ(token["has_tsa_name"], false);
    EXPECT_EQ(token["certificates"][0]["source"], "token");
    EXPECT_EQ(token["signers"][0]["timestamps"], Json::array());
}

TEST_F(PkgtoolInspect, ShowsCrls)
{
    pki_.signingCrl.revoked = {{pki_.signer.serial, UtcTime("250601000000Z"), 1}, {Bytes{0x7F}}};
    const Json der = InspectJson(Package())["sub_files"][2]["content"];
    EXPECT_EQ(der["crls"].size(), 3u);
    EXPECT_EQ(WithoutFingerprints(der["crls"][1]), ParseJson(R"({"issuer": "C=ZZ,O=Example,CN=Test Signing CA",
        "this_update": "2025-01-01T00:00:00Z", "next_update": "2035-01-01T00:00:00Z",
        "signature_algorithm": "RSA-SHA256", "is_indirect": false, "scope": [], "revoked": [
            {"serial": "23", "date": "2025-06-01T00:00:00Z", "reason": "keyCompromise"},
            {"serial": "7F", "date": "2025-06-01T00:00:00Z", "reason": null}], "source": "crl file",
        "read_by": "both"})"));

    PackageSpec package = Package();
    package.subFiles[2].content = Cat(Pem("X509 CRL", Build(pki_.rootCrl)), Pem("CERTIFICATE", Build(pki_.tsaCa)));
    const Json pem = InspectJson(package)["sub_files"][2]["content"];
    EXPECT_EQ(pem["form"], "PEM");
    EXPECT_EQ(pem["crls"].size(), 1u);
    EXPECT_EQ(pem["certificates"].size(), 1u);

    // A label that the checker does not look for.
    package.subFiles[2].content = Cat(Pem("X509 CRL", Build(pki_.rootCrl)), Pem("CRL", Build(pki_.signingCrl)));
    Json foreign = InspectJson(package)["sub_files"][2]["content"]["crls"][1];
    EXPECT_EQ(foreign["read_by"], "openssl");
    EXPECT_EQ(foreign["revoked"], der["crls"][1]["revoked"]);

    // An algorithm without a name, and the first and the last reason (RFC 5280, 5.3.1), and none.
    pki_.signingCrl.innerAlgorithm = pki_.signingCrl.outerAlgorithm = AlgoId("1.3.6.1.4.1.32473.1");
    pki_.signingCrl.revoked = {{Bytes{0x01}, UtcTime("250601000000Z"), 0},
                               {Bytes{0x02}, UtcTime("250601000000Z"), 10},
                               {Bytes{0x03}, UtcTime("250601000000Z"), 11}};
    for (const char* label : {"X509 CRL", "CRL"}) {
        package.subFiles[2].content = Pem(label, Build(pki_.signingCrl));
        const Json crl = InspectJson(package)["sub_files"][2]["content"]["crls"][0];
        EXPECT_EQ(crl["signature_algorithm"], "1.3.6.1.4.1.32473.1");
        EXPECT_EQ(crl["revoked"][0]["reason"], "unspecified");
        EXPECT_EQ(crl["revoked"][1]["reason"], "aACompromise");
        EXPECT_EQ(crl["revoked"][2]["reason"], Json());
    }
}

// The checker takes 38 octets and more of anything.
TEST_F(PkgtoolInspect, ShowsWhatIsTooShortForTheChecker)
{
    const Bytes algorithm = AlgoId("0.0", {});
    const auto crl = [&](std::size_t octets) {
        return Seq(Seq(algorithm, Seq(), UtcTime(""), UtcTime("")), algorithm, Bits(0, Bytes(octets)));
    };
    const auto signature = [](std::string_view type) {
        return Seq(Oid(oid::signedData), Ctx(0, Seq(Int(1), Set(), Seq(Oid(type)), Set())));
    };
    PackageSpec package = Package();
    package.subFiles[1].content = signature(oid::data);
    package.subFiles[2].content = crl(14);
    Json subFiles = InspectJson(package)["sub_files"];
    for (int i : {1, 2}) EXPECT_EQ(subFiles[i]["length"], 37);
    EXPECT_EQ(subFiles[1]["content"]["read_by"], "openssl");
    EXPECT_EQ(subFiles[2]["content"]["crls"][0]["read_by"], "openssl");

    package.subFiles[1].content = signature("1.2.840.113549.1.7.1.1");
    package.subFiles[2].content = crl(15);
    subFiles = InspectJson(package)["sub_files"];
    for (int i : {1, 2}) EXPECT_EQ(subFiles[i]["length"], 38);
    EXPECT_EQ(subFiles[1]["content"]["read_by"], "both");
    EXPECT_EQ(subFiles[2]["content"]["crls"][0]["read_by"], "both");
}

// Of indefinite length (X.690, 8.1.3.6) are all of it, its signed part, or an element before the key.
TEST_F(PkgtoolInspect, ShowsTheFingerprintOfAKeyInBerOnlyWhereItIsTold)
{
    const Bytes der = Build(pki_.signer);
    PackageSpec package = Package();
    const auto keyOf = [&](const Bytes& changed) {
        package.subFiles[2].content = Pem("CERTIFICATE", changed);
        const Json cert = InspectJson(package)["sub_files"][2]["content"]["certificates"][0];
        EXPECT_EQ(cert["sha256"], Sha256(changed));
        return cert.at("key_sha256");
    };
    const Json key = keyOf(der);
    EXPECT_TRUE(key.is_string());
    for (const auto& [path, told] : {std::pair(Path{}, key), {Path{0}, Json()}, {Path{0, 2}, Json()}}) {
        EXPECT_EQ(keyOf(WithIndefiniteLength(der, path)), told) << path.size();
    }
}

// As sha256sum and openssl tell them of the same octets, DER or PEM.
TEST_F(PkgtoolInspect, HasFingerprints)
{
    const Bytes der = Build(pki_.signer);
    const std::string key = dir_.Path("key");
    RunProcess({"sh", "-c",
                "openssl x509 -inform DER -in " + dir_.Write("cert", der) +
                    " -noout -pubkey | openssl pkey -pubin -outform DER -out " + key});
    const Json report = InspectJson(Package());
    EXPECT_EQ(report["sub_files"][0]["sha256"], Sha256(payload_));
    const Json cert = report["sub_files"][1]["content"]["certificates"][1];
    EXPECT_EQ(cert["sha256"], Sha256(der));
    EXPECT_EQ(cert["key_sha256"], Sha256(ReadWholeFile(key)));
    EXPECT_EQ(report["sub_files"][2]["content"]["crls"][1]["sha256"], Sha256(Build(pki_.signingCrl)));

    PackageSpec package = Package();
    package.subFiles[2].content = Cat(Pem("X509 CRL", Build(pki_.rootCrl)), Pem("CERTIFICATE", der));
    const Json pem = InspectJson(package)["sub_files"][2]["content"];
    EXPECT_EQ(pem["certificates"][0]["sha256"], Sha256(der));
    EXPECT_EQ(pem["certificates"][0]["key_sha256"], cert["key_sha256"]);
    EXPECT_EQ(pem["crls"][0]["sha256"], Sha256(Build(pki_.rootCrl)));
}

TEST_F(PkgtoolInspect, ScreensAreThoseOnRecord)
{
    pki_.signingCrl.revoked = {{pki_.signer.serial, UtcTime("250601000000Z"), 1}};
    const PackageSpec good = Package();
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.push_back(Seq(Int(1)));
    cms.signers[0].signedAttributes = [](const Bytes&) {
        return std::vector<Bytes>{ContentTypeAttribute(oid::data), MessageDigestAttribute({})};
    };
    PackageSpec odd = good;
    odd.description = "board\033";
    odd.subFiles[1].content = Cat(DetachedCms(payload_, cms), Bytes{0x00});
    pki_.rootCrl.extensions = {Ext(oid::issuingDistributionPoint, Seq(CtxPrim(2, {0xFF})), true)};
    odd.subFiles[2].content = Cat(Pem("X509 CRL", Build(pki_.rootCrl)), Pem("CRL", Build(pki_.signingCrl)),
                                  Pem("CERTIFICATE", Build(pki_.tsaCa)));
    PackageSpec unreadable = good;
    unreadable.subFiles[1].content = Bytes(40, 0x30);
    unreadable.subFiles[2].content.push_back(0x00);
    unreadable.subFiles.push_back({0x20000000, {}, 100, 2000});
    PackageSpec armoured = good;
    cms.signers.clear();
    armoured.subFiles[1].content = Pem("CMS", DetachedCms(payload_, cms));
    // A certificate that the checker alone decodes, and a timestamp that nobody does.
    PackageSpec foreign = good;
    cms = DemoCms(pki_);
    cms.certificates.push_back(Build(With(Signer(KeyId::Rsa2048F), &CertSpec::editTbs, [](const Bytes& der) {
        return Replace(der, {tbs::version}, Ctx(0, Tlv(0x02, Bytes{0x00, 0x02})));
    })));
    cms.signers[0].unsignedAttributes = {
        [](const Bytes&) { return Attribute(oid::timestampToken, Seq(Oid(oid::data))); }};
    foreign.subFiles[1].content = DetachedCms(payload_, cms);
    // A signature that OpenSSL alone decodes, for its indefinite length.
    PackageSpec ber = good;
    ber.subFiles[1].content = WithIndefiniteLength(DetachedCms(payload_, DemoCms(pki_)));
    std::string screens;
    for (const PackageSpec& package : {good, odd, unreadable, armoured, foreign, ber})
        screens += Inspect(Build(package)).out + "\n";
    ExpectScreen("inspect", screens);
}

// In BER, which OpenSSL alone decodes.
TEST_F(PkgtoolInspect, ShowsSignersAndTimestampsInBer)
{
    const auto inBer = [](const Bytes& der) { return WithIndefiniteLength(der); };
    TokenSpec named = DemoToken(pki_);
    named.tsa = Ctx(0, Ctx(4, TestName("Test TSA")));
    CmsSpec cms = DemoCms(pki_);
    cms.signers.resize(3, cms.signers[0]);
    cms.signers[0].signedAttributes = nullptr;
    cms.signers[1].signedAttributes = [](const Bytes&) { return std::vector<Bytes>(); };
    cms.signers[2].unsignedAttributes = {
        [](const Bytes&) { return Attribute("1.3.6.1.4.1.32473.1", Seq()); },
        [&](const Bytes& signature) {
            return Attribute(oid::timestampToken, inBer(TimestampToken(DemoToken(pki_), signature)));
        },
        Timestamp(With(DemoToken(pki_), &TokenSpec::editTstInfo, inBer)),
        Timestamp(named),
        Timestamp(With(named, &TokenSpec::accuracy, Accuracy(1))),
        Timestamp(With(named, &TokenSpec::accuracy, Seq(CtxPrim(0, {0x01})))),
    };
    PackageSpec package = Package();
    package.subFiles[1].content = inBer(DetachedCms(payload_, cms));
    const Json signers = InspectJson(package)["sub_files"][1]["content"]["signers"];
    ASSERT_EQ(signers.size(), 3u);
    EXPECT_EQ(signers[0]["signed_attributes"], Json());
    EXPECT_EQ(signers[1]["signed_attributes"], Json::array());
    std::string shown;
    for (Json token : signers[2]["timestamps"]) { // which gets what it lacks, as null
        for (const char* member :
             {"read_by", "tst_info_read_by", "time", "has_accuracy", "has_accuracy_seconds", "has_tsa_name"}) {
            shown += token[member].dump() + " ";
        }
        shown += "\n";
    }
    EXPECT_EQ(shown, "\"openssl\" \"both\" \"2026-01-01T00:00:00Z\" false false false \n"
                     "\"both\" \"openssl\" \"2026-01-01T00:00:00Z\" false false false \n"
                     "\"both\" \"openssl\" \"2026-01-01T00:00:00Z\" false false true \n"
                     "\"both\" \"openssl\" \"2026-01-01T00:00:00Z\" true true true \n"
                     "\"both\" \"openssl\" \"2026-01-01T00:00:00Z\" true false true \n");
    EXPECT_EQ(signers[2]["timestamps"][1]["problem"], "no TSTInfo that the checker can decode");
}

// Each range of what is escaped, and of what is no UTF-8, with its neighbours.
TEST_F(PkgtoolInspect, EscapesWhatIsDangerousAndNothingBesides)
{
    PackageSpec package = Package();
    package.description = "\xC2\x80 \xC2\x9F \xC2\xA0 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF \xED\xA0\x80 \xED\xBF\xBF "
                          "\xEE\x80\x80 \xF0\x90\x80\x80 \xF4\x8F\xBF\xBF \xF4\x90\x80\x80 "
                          "\xE2\x80\xA7 \xE2\x80\xA8 \xE2\x80\xAE \xE2\x80\xAF "
                          "\xE2\x81\xA5 \xE2\x81\xA6 \xE2\x81\xA9 \xE2\x81\xAA";
    const std::string shown = "description  \\u0080 \\u009f \xC2\xA0 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF "
                              "\\xed\\xa0\\x80 \\xed\\xbf\\xbf "
                              "\xEE\x80\x80 \xF0\x90\x80\x80 \xF4\x8F\xBF\xBF \\xf4\\x90\\x80\\x80 "
                              "\xE2\x80\xA7 \\u2028 \\u202e \xE2\x80\xAF "
                              "\xE2\x81\xA5 \\u2066 \\u2069 \xE2\x81\xAA\n";
    const std::string out = Inspect(Build(package)).out;
    EXPECT_NE(out.find(shown), std::string::npos) << out;
}

// The number 12 means UTF8String only in a universal, primitive tag.
TEST_F(PkgtoolInspect, ShowsNamesWithoutACharacterAndWithoutText)
{
    pki_.signer.subject = Name(Cn(""), NameAttr(oid::organizationName, CtxPrim(12, Text("ab"))),
                               NameAttr(oid::localityName, Tlv(0x2C, Utf8("cd"))));
    EXPECT_EQ(InspectJson(Package())["sub_files"][1]["content"]["certificates"][1]["subject"],
              "CN=,O=#6162,L=#0C026364");
}

// Timestamps inside timestamps, as deep as a file allows: nobody looks at the second one.
TEST_F(PkgtoolInspect, ShowsTimestampsInsideTimestampsOnlyOnce)
{
    CmsSpec cms = DemoCms(pki_);
    TokenSpec token = DemoToken(pki_);
    token.cms.certificates.clear();
    token.cms.signers[0].signature = Bytes(1, 0x01);
    Bytes innermost = Seq();
    for (int depth = 0; depth < 20; ++depth) {
        token.cms.signers[0].unsignedAttributes = {
            [&](const Bytes&) { return Attribute(oid::timestampToken, innermost); }};
        innermost = TimestampToken(token, {});
    }
    cms.signers[0].unsignedAttributes = {[&](const Bytes&) { return Attribute(oid::timestampToken, innermost); }};
    PackageSpec package = Package();
    package.subFiles[1].content = DetachedCms(payload_, cms);
    const Json outer = InspectJson(package)["sub_files"][1]["content"]["signers"][0]["timestamps"][0];
    EXPECT_EQ(outer["time"], "2026-01-01T00:00:00Z");
    EXPECT_EQ(outer["signers"][0]["timestamps"], Json::array());
}

TEST_F(PkgtoolInspect, ShowsWhatItCannotDecode)
{
    PackageSpec package = Package();
    package.subFiles[1].content = Bytes(40, 0x30);
    package.subFiles[2].content.push_back(0x00);
    const Json json = InspectJson(package);
    EXPECT_EQ(json["sub_files"][1]["content"]["problem"], "not a CMS signature that the checker can decode");
    EXPECT_EQ(json["sub_files"][2]["content"]["unread_bytes"], 1);

    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].unsignedAttributes = {
        [](const Bytes&) { return Seq(Oid("1.2.840.113549.1.9.16.2.14"), Set(Seq(Oid(oid::data)))); }};
    package.subFiles[1].content = DetachedCms(payload_, cms);
    EXPECT_NE(InspectJson(package)["sub_files"][1]["content"]["signers"][0]["timestamps"][0]["problem"], Json());

    const ProcessResult run = Inspect(Bytes(351, 0x00));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("shorter than a package header"), std::string::npos) << run.err;
}

TEST_F(PkgtoolInspect, ShowsWhatIsAroundASignatureAndAmongItsCertificates)
{
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.push_back(Seq(Int(1)));
    cms.signers[0].signedAttributes = [](const Bytes&) {
        return std::vector<Bytes>{ContentTypeAttribute(oid::data), MessageDigestAttribute({})};
    };
    PackageSpec package = Package();
    package.subFiles[1].content = DetachedCms(payload_, cms);
    const auto length = package.subFiles[1].content.size();
    package.subFiles[1].content.push_back(0x00);
    const Json signature = InspectJson(package)["sub_files"][1]["content"];
    EXPECT_EQ(signature["claimed_length"], length);
    EXPECT_EQ(signature["certificates"][2], ParseJson(R"({"problem": "not a certificate", "read_by": null})"));
    EXPECT_EQ(signature["signers"][0]["message_digest"], "");
    const std::string out = Inspect(Build(package)).out;
    for (const std::string& line :
         {"  it claims " + std::to_string(length) + " bytes, and the sub-file has " + std::to_string(length + 1) + "\n",
          std::string("  not a certificate among the certificates\n"),
          std::string("  the message digest is empty\n")}) {
        EXPECT_NE(out.find(line), std::string::npos) << line << "is not in\n" << out;
    }
    package.subFiles[1].content = Pem("CMS", DetachedCms(payload_, DemoCms(pki_)));
    const Json pem = InspectJson(package)["sub_files"][1]["content"];
    EXPECT_EQ(pem["pem_label"], "CMS");
    EXPECT_EQ(pem["pem_end"], "present");
    EXPECT_EQ(pem["signers"][0]["message_digest"].get<std::string>().size(), 64u);
    EXPECT_NE(Inspect(Build(package)).out.find("  armoured as CMS, end present\n"), std::string::npos);
}

// A length is told in up to four octets more (X.690, 8.1.3.5).
TEST_F(PkgtoolInspect, ShowsTheFrameOfWhatIsNoSignature)
{
    PackageSpec package = Package();
    const auto inspect = [&](const Bytes& content) {
        package.subFiles[1].content = content;
        return InspectJson(package)["sub_files"][1]["content"];
    };
    EXPECT_EQ(inspect({0x30}).at("claimed_length"), Json());
    EXPECT_EQ(inspect({0x30, 0x10}).at("claimed_length"), 18);
    EXPECT_EQ(inspect({0x30, 0x84, 0x00, 0x00, 0x00}).at("claimed_length"), Json());
    EXPECT_EQ(inspect({0x30, 0x84, 0x00, 0x00, 0x00, 0x10}).at("claimed_length"), 22);
    EXPECT_EQ(inspect({0x30, 0x85, 0x00, 0x00, 0x00, 0x00, 0x10}).at("claimed_length"), Json());
    for (const char* begin : {"-----BEGIN", "-----BEGIN CMS", "-----BEGIN CMS----"}) {
        const Json content = inspect(Text(begin));
        EXPECT_EQ(content["form"], "PEM");
        EXPECT_FALSE(content.contains("pem_label")) << content;
    }
    EXPECT_EQ(inspect(Text("-----BEGIN CMS----------END CMS-----")).at("pem_end"), "present");
    EXPECT_EQ(inspect(Text("-----BEGIN CMS---------END CMS-----")).at("pem_end"), "shares dashes");
}

// ---- Whatever only reads packages ----

// A configuration that would have foreign code loaded, and SHA-256 not found.
TEST_F(PkgtoolInspect, IsLikeEveryReadingCommandUnderAHostileOpenSslConfiguration)
{
    const std::string package = dir_.Write("package", Build(Package()));
    const std::string crls = dir_.Write("crls", pki_.Crls());
    const std::string foreign = dir_.Path("foreign.so");
    const std::string configuration =
        dir_.Write("hostile.cnf", Text("openssl_conf = init\n[init]\nalg_section = algorithms\nproviders = providers\n"
                                       "[algorithms]\ndefault_properties = fips=yes\n"
                                       "[providers]\nforeign = foreign\n[foreign]\nmodule = " +
                                       foreign + "\nactivate = 1\n"));
    const std::vector<std::string> environment{"OPENSSL_CONF=" + configuration};
    const std::string root = DataPath("test_root.der");
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"inspect", package},
                                               {"list", package},
                                               {"explain", package, "--root", root},
                                               {"lint", package, "--root", root},
                                               {"verify", package},
                                               {"crl", "show", "--root", root, crls}}) {
        SCOPED_TRACE(command[0]);
        std::vector<std::string> argv = command;
        argv.insert(argv.begin(), PkgtoolPath());
        const ProcessResult plain = RunProcess(argv);
        const ProcessResult run = RunProcess(argv, environment);
        EXPECT_EQ(run.status, plain.status);
        EXPECT_EQ(run.out, plain.out);
        EXPECT_EQ(run.err, plain.err);
        if (!CanTrace()) continue;
        const std::string files = RunTraced(argv, environment).files;
        EXPECT_EQ(files.find(configuration), std::string::npos) << files;
        EXPECT_EQ(files.find(foreign), std::string::npos) << files;
    }
    if (!CanTrace()) GTEST_SKIP() << "nobody saw which files were opened: needs strace";
}

// ---- pkgtool root ----

ProcessResult Root(const std::vector<std::string>& arguments)
{
    std::vector<std::string> argv{PkgtoolPath(), "root"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return RunProcess(argv);
}

TEST(PkgtoolRoot, FindsTheRootThatIsCompiledIn)
{
    const std::string sha256 = Sha256(ReadWholeFile(DataPath("test_root.der")));
    const ProcessResult run = Root({"--json", PkgcheckTestRootPath()});
    EXPECT_EQ(run.status, 0) << run.err;
    const Json report = ParseJson(run.out);
    EXPECT_EQ(report["checker"], PkgcheckTestRootPath());
    ASSERT_EQ(report["roots"].size(), 1u);
    EXPECT_EQ(report["roots"][0]["subject"], "C=ZZ,O=Example,CN=Test Root");
    EXPECT_EQ(report["roots"][0]["sha256"], sha256);
    const ProcessResult words = Root({PkgcheckTestRootPath()});
    EXPECT_EQ(words.out.find("C=ZZ,O=Example,CN=Test Root\n  2020-01-01T00:00:00Z to 2040-01-01T00:00:00Z, RSA 4096\n"
                             "  SHA-256 " +
                             sha256 + "\n  key     "),
              0u)
        << words.out;
    EXPECT_EQ(ParseJson(Root({"--json"}).out)["roots"], ParseJson(Root({"--json", PkgcheckPath()}).out)["roots"]);
}

TEST(PkgtoolRoot, ReadsCertificates)
{
    const TempDir dir;
    const Bytes root = Build(DemoPki().root);
    for (const Bytes& file : {root, Pem("CERTIFICATE", root), Cat(Pem("CERTIFICATE", root), Text("text behind"))}) {
        const Json report = ParseJson(Root({"--json", dir.Write("root", file)}).out);
        ASSERT_EQ(report["roots"].size(), 1u);
        EXPECT_EQ(report["roots"][0]["sha256"], Sha256(root));
    }
    const Bytes nameless = Build(With(DemoPki().signer, &CertSpec::subject, Seq()));
    EXPECT_EQ(ParseJson(Root({"--json", dir.Write("nameless", nameless)}).out)["roots"][0]["subject"], "");
}

// Certificates are read by OpenSSL here.
TEST(PkgtoolRoot, CertificatesAreThoseOnRecord)
{
    const TempDir dir;
    const DemoPki pki;
    Bytes file;
    for (const CertSpec& cert : {pki.root, pki.signingCa, pki.signer, pki.tsa}) {
        file = Cat(file, Pem("CERTIFICATE", Build(cert)));
    }
    Json report = ParseJson(Root({"--json", dir.Write("certificates", file)}).out);
    report.erase("checker");
    ExpectScreen("root", report.dump(2) + "\n");
}

TEST(PkgtoolRoot, FindsOneThatEndsAFileAndEachOnce)
{
    const TempDir dir;
    const Bytes root = Build(DemoPki().root);
    for (const Bytes& file : {Cat(Bytes(8, 0x00), root), Cat(Bytes(8, 0x00), root, root, Bytes(8, 0x00))}) {
        const Json report = ParseJson(Root({"--json", dir.Write("program", file)}).out);
        ASSERT_EQ(report["roots"].size(), 1u);
        EXPECT_EQ(report["roots"][0]["sha256"], Sha256(root));
    }
    const ProcessResult run = Root({dir.WriteSparse("large", (64u << 20) + 1)});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("more than 64 MiB"), std::string::npos) << run.err;
    const std::string searched = Root({dir.WriteSparse("largest", 64u << 20)}).err;
    EXPECT_NE(searched.find("no root certificate in "), std::string::npos) << searched;
}

// A root whose outermost SEQUENCE has that many octets.
Bytes RootOfLength(std::size_t length)
{
    CertSpec root = DemoPki().root;
    root.version.reset(); // it then begins with its serial number
    const auto filled = [&](std::size_t octets) {
        root.extraExtensions = {Ext("1.3.6.1.4.1.32473.1", Octets(Bytes(octets)))};
        return Build(root);
    };
    const std::size_t header = 4;
    const std::size_t some = length / 2;
    return filled(some + header + length - filled(some).size());
}

TEST(PkgtoolRoot, FindsThoseOfAUsualLengthInDer)
{
    const TempDir dir;
    const auto find = [&](const Bytes& root) { return Root({dir.Write("program", Cat(Bytes(8), root))}); };
    EXPECT_NE(find(RootOfLength(16384)).out.find("CN=Test Root\n"), std::string::npos);
    EXPECT_EQ(find(RootOfLength(16385)).out, "");
    // Of indefinite length (X.690, 8.1.3.6), whose third and fourth octet look like a length all the same.
    const Bytes der = RootOfLength(0x3082);
    EXPECT_NE(find(der).out, "");
    EXPECT_EQ(find(Cat(Bytes{0x30, 0x80}, Bytes(der.begin() + 4, der.end()), Bytes(2))).out, "");
}

// What only looks like a root is none: nobody may have its key.
TEST(PkgtoolRoot, FindsNoneElsewhere)
{
    const TempDir dir;
    CertSpec damaged = DemoPki().root;
    Bytes forged = Build(damaged);
    forged.back() ^= 1;
    for (const Bytes& file : {Bytes(), Bytes(100000, 0x30), Cat(Bytes(8, 0x00), forged)}) {
        const ProcessResult run = Root({dir.Write("file", file)});
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find("no root certificate in "), std::string::npos) << run.err;
    }
}

} // namespace
} // namespace pnvtest
