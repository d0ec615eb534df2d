// pkgtool crl as a process. Its verdicts are held against the library's, and its explanations against its verdicts.
#include "cmsverify/include/pelnic_cms_verify.h"
#include "programs/pkgtool_json.h"

#include "support/cms.h"
#include "support/crl_bundle.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

namespace pnvtest {
namespace {

using Words = std::vector<std::string>;

constexpr int kUserError = 2;

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

struct Verdict {
    std::string name;
    PELNIC_ERROR_CODE code;

    bool operator==(const Verdict& other) const { return name == other.name && code == other.code; }
};
std::ostream& operator<<(std::ostream& out, const Verdict& verdict)
{
    return out << verdict.name << " 0x" << std::hex << verdict.code << std::dec;
}

int StatusOf(const std::string& verdict)
{
    return verdict == "NEW" ? 0 : verdict == "SAME" ? 10 : verdict == "OLD" ? 11 : 12;
}

// What follows from the explanation.
Verdict Implied(const Json& issuers)
{
    const auto count = [&](auto is) { return std::count_if(issuers.begin(), issuers.end(), is); };
    const auto has = [&](const char* relation) {
        return count([&](const Json& issuer) { return issuer["relation"] == relation; }) != 0;
    };
    if (has("unverified")) return {"MIX", PELNIC_ERR_CRL_INVALID_ENTRY};
    if (has("duplicate")) return {"MIX", PELNIC_ERR_CRL_DUPLICATE_ISSUER};
    const auto isLost = [](const Json& issuer) {
        return issuer["relation"] == "dropped" && issuer["excused_by"].is_null();
    };
    if (count(isLost) != 0) return {"MIX", PELNIC_ERR_CRL_ISSUER_DROPPED};
    if (has("newer") && has("older")) return {"MIX", 0};
    if (has("newer")) return {"NEW", 0};
    if (has("older")) return {"OLD", 0};
    const auto offered = count([](const Json& issuer) { return issuer["in_offered"].get<bool>(); });
    const auto device = count([](const Json& issuer) { return issuer["on_device"].get<bool>(); });
    return {offered > device ? "NEW" : offered < device ? "OLD" : "SAME", 0};
}

class PkgtoolCrl : public ::testing::Test {
protected:
    static ProcessResult Run(const Words& arguments) { return RunProcess(Words{PkgtoolPath(), "crl"} + arguments); }

    std::string WriteCert(const std::string& name, const CertSpec& cert) const
    {
        return dir_.Write(name, Pem("CERTIFICATE", Build(cert)));
    }
    Words TheRoot() const { return {"--root", WriteCert("root.pem", pki_.root)}; }
    Words AllCas() const
    {
        return TheRoot() + Words{"--intermediate", WriteCert("ca.pem", pki_.signingCa), "--intermediate",
                                 WriteCert("tsa-ca.pem", pki_.tsaCa)};
    }
    ProcessResult Show(const Bytes& bundle, const Words& options = {}) const
    {
        return Run(Words{"show", dir_.Write("bundle", bundle)} + options);
    }
    ProcessResult Compare(const Bytes& offered, const Bytes& device, const Words& options) const
    {
        return Run(Words{"compare", dir_.Write("offered", offered), dir_.Write("device", device)} + options);
    }

    // The library's own verdict on the same files.
    Verdict Judge(const Bytes& offered, const Bytes& device) const
    {
        const Judged toUpdate(*this, offered);
        const Judged onDevice(*this, device);
        PELNIC_CRL_PERIOD_STAT stat = SCPS_MIX;
        const PELNIC_ERROR_CODE code = pelnic_crl_compare(toUpdate.ctx, toUpdate.bundle, onDevice.bundle, &stat);
        const char* const names[] = {"SAME", "NEW", "OLD", "MIX"};
        return {names[stat], code};
    }

    Json ExpectVerdict(const Verdict& verdict, const Bytes& offered, const Bytes& device) const
    {
        const ProcessResult run = Compare(offered, device, AllCas() + Words{"--json"});
        EXPECT_EQ(run.status, StatusOf(verdict.name));
        EXPECT_EQ(run.err, "");
        const Json json = ParseJson(run.out);
        const Verdict said{json["verdict"], json["code"].is_null()
                                                ? 0
                                                : static_cast<PELNIC_ERROR_CODE>(
                                                      std::stoul(json["code"].get<std::string>(), nullptr, 16))};
        EXPECT_EQ(said, verdict);
        EXPECT_EQ(Implied(json["issuers"]), verdict);
        return json["issuers"];
    }

    const TempDir dir_;
    const DemoPki pki_;
    // Of an issuer and a day that the verifier cannot read.
    const CrlSpec foreign_ = [this] {
        CrlSpec crl = pki_.rootCrl;
        crl.issuer = Name(NameAttr(oid::serialNumber, Printable("1")));
        crl.thisUpdate = GenTime("20250101000000.5Z");
        return crl;
    }();
    const Bytes rootCrl_ = Build(pki_.rootCrl);
    const Bytes caCrl_ = Build(pki_.signingCrl);
    const Bytes tsaCrl_ = Build(pki_.tsaCrl);
    const Bytes newRootCrl_ = Build(UpdatedOn("260101", pki_.rootCrl));
    const Bytes newCaCrl_ = Build(UpdatedOn("260101", pki_.signingCrl));
    const Bytes oldCaCrl_ = Build(UpdatedOn("240101", pki_.signingCrl));
    const Bytes newRootCrlWithoutTsa_ = Build(UpdatedOn("260101", Revoking({pki_.tsaCa.serial}, pki_.rootCrl)));

private:
    struct Judged {
        Judged(const PkgtoolCrl& test, const Bytes& crls)
        {
            PELNIC_CTX_CREATE_PARAMS params{};
            params.st_size = sizeof params;
            (void)pelnic_set_callback_funcs(&params.callback_funcs);
            (void)pelnic_verify_create_ctx(&ctx, &params);
            for (const CertSpec& ca : {test.pki_.root, test.pki_.signingCa, test.pki_.tsaCa}) {
                const Bytes der = Build(ca);
                (void)pelnic_verify_add_cert(ctx, der.data(), Len(der));
            }
            (void)pelnic_decode_crl(ctx, crls.data(), Len(crls), &bundle);
        }
        ~Judged()
        {
            (void)pelnic_crl_free(ctx, bundle);
            (void)pelnic_vrf_ctx_free(ctx);
        }
        Judged(const Judged&) = delete;
        Judged& operator=(const Judged&) = delete;

        PELNIC_VRF_CTX ctx = nullptr;
        PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
    };
};

// ---- compare ----

TEST_F(PkgtoolCrl, VerdictsAreTheLibrarysAndFollowFromTheExplanation)
{
    const Bytes none;
    for (const Bytes& device : {Cat(rootCrl_, caCrl_, tsaCrl_), Cat(rootCrl_, tsaCrl_)}) {
        for (const Bytes& root : {rootCrl_, newRootCrlWithoutTsa_}) {
            for (const Bytes& ca : {none, oldCaCrl_, caCrl_, newCaCrl_}) {
                for (const Bytes& tsa : {none, tsaCrl_}) {
                    const Bytes offered = Cat(root, ca, tsa);
                    ExpectVerdict(Judge(offered, device), offered, device);
                    ExpectVerdict(Judge(device, offered), device, offered);
                }
            }
        }
    }
}

TEST_F(PkgtoolCrl, SaysSame)
{
    const Json issuers = ExpectVerdict({"SAME", 0}, Cat(rootCrl_, caCrl_), Cat(caCrl_, rootCrl_));
    ASSERT_EQ(issuers.size(), 2u);
    EXPECT_EQ(issuers[0], ParseJson(R"({"issuer": "C=ZZ,O=Example,CN=Test Root", "relation": "equal",
        "in_offered": true, "on_device": true, "offered_this_update": "2025-01-01T00:00:00Z",
        "device_this_update": "2025-01-01T00:00:00Z", "excused_by": null})"));
}

TEST_F(PkgtoolCrl, ExplainsADroppedIssuer)
{
    const Bytes device = Cat(rootCrl_, caCrl_, tsaCrl_);
    const Json lost = ExpectVerdict({"MIX", PELNIC_ERR_CRL_ISSUER_DROPPED}, Cat(newRootCrl_, newCaCrl_), device);
    EXPECT_EQ(lost[2], ParseJson(R"({"issuer": "C=ZZ,O=Example,CN=Test TSA CA", "relation": "dropped",
        "in_offered": false, "on_device": true, "offered_this_update": null,
        "device_this_update": "2025-01-01T00:00:00Z", "excused_by": null})"));

    const Json excused = ExpectVerdict({"NEW", 0}, Cat(newRootCrlWithoutTsa_, newCaCrl_), device);
    EXPECT_EQ(excused[2]["relation"], "dropped");
    EXPECT_EQ(excused[2]["excused_by"], "C=ZZ,O=Example,CN=Test Root");
    const Json rootLast = ExpectVerdict({"NEW", 0}, Cat(newCaCrl_, newRootCrlWithoutTsa_), device);
    EXPECT_EQ(rootLast[2]["excused_by"], "C=ZZ,O=Example,CN=Test Root");
}

TEST_F(PkgtoolCrl, AnAddedIssuerIsMissingOnTheDevice)
{
    const Json issuers = ExpectVerdict({"NEW", 0}, Cat(rootCrl_, caCrl_), rootCrl_);
    EXPECT_EQ(issuers[1]["relation"], "missing");
    EXPECT_EQ(issuers[1]["on_device"], false);
}

TEST_F(PkgtoolCrl, DuplicatesAndUnverifiedIssuersAreNamed)
{
    const Json twice =
        ExpectVerdict({"MIX", PELNIC_ERR_CRL_DUPLICATE_ISSUER}, Cat(rootCrl_, newRootCrl_, caCrl_), rootCrl_);
    ASSERT_EQ(twice.size(), 2u);
    EXPECT_EQ(twice[0]["relation"], "duplicate");

    const Json revoked =
        ExpectVerdict({"MIX", PELNIC_ERR_CRL_INVALID_ENTRY}, Cat(newRootCrlWithoutTsa_, tsaCrl_), rootCrl_);
    EXPECT_EQ(revoked[0]["relation"], "newer");
    EXPECT_EQ(revoked[1]["relation"], "unverified");
}

// The device's root CRL would cover the offered bundle's issuer, but each bundle stands for itself.
TEST_F(PkgtoolCrl, BundlesAreVerifiedApart)
{
    const Json issuers = ExpectVerdict({"MIX", PELNIC_ERR_CRL_INVALID_ENTRY}, newCaCrl_, Cat(rootCrl_, caCrl_));
    EXPECT_EQ(issuers[0]["relation"], "unverified");
}

TEST_F(PkgtoolCrl, ComparesInWords)
{
    const ProcessResult run = Compare(Cat(newRootCrlWithoutTsa_, oldCaCrl_), Cat(rootCrl_, caCrl_, tsaCrl_), AllCas());
    EXPECT_EQ(run.status, 12);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(
        run.out,
        "Offered: " + dir_.Path("offered") +
            "\n"
            "  this update           valid until           verified  issuer\n"
            "  2026-01-01T00:00:00Z  2035-01-01T00:00:00Z  yes       C=ZZ,O=Example,CN=Test Root, serial 10\n"
            "      revokes 12\n"
            "  2024-01-01T00:00:00Z  2035-01-01T00:00:00Z  yes       C=ZZ,O=Example,CN=Test Signing CA, serial 11\n"
            "\n"
            "On the device: " +
            dir_.Path("device") +
            "\n"
            "  this update           valid until           verified  issuer\n"
            "  2025-01-01T00:00:00Z  2035-01-01T00:00:00Z  yes       C=ZZ,O=Example,CN=Test Root, serial 10\n"
            "  2025-01-01T00:00:00Z  2035-01-01T00:00:00Z  yes       C=ZZ,O=Example,CN=Test Signing CA, serial 11\n"
            "  2025-01-01T00:00:00Z  2035-01-01T00:00:00Z  yes       C=ZZ,O=Example,CN=Test TSA CA, serial 12\n"
            "\n"
            "newer       C=ZZ,O=Example,CN=Test Root: 2026-01-01T00:00:00Z after 2025-01-01T00:00:00Z\n"
            "older       C=ZZ,O=Example,CN=Test Signing CA: 2024-01-01T00:00:00Z before 2025-01-01T00:00:00Z\n"
            "missing     C=ZZ,O=Example,CN=Test TSA CA: only on the device\n"
            "MIX: the offered bundle is newer for one issuer and older for another\n");
}

TEST_F(PkgtoolCrl, TellsTheReasonsInWords)
{
    const Bytes device = Cat(rootCrl_, caCrl_, tsaCrl_);
    const std::string excused = Compare(Cat(newRootCrlWithoutTsa_, caCrl_), device, AllCas()).out;
    EXPECT_NE(
        excused.find("\nequal       C=ZZ,O=Example,CN=Test Signing CA: 2025-01-01T00:00:00Z\n"
                     "dropped     C=ZZ,O=Example,CN=Test TSA CA: only on the device, but its issuer is revoked by "
                     "C=ZZ,O=Example,CN=Test Root\n"
                     "NEW: the offered bundle is newer\n"),
        std::string::npos)
        << excused;

    const std::string lost = Compare(Cat(newRootCrl_, caCrl_), device, AllCas()).out;
    EXPECT_NE(lost.find("\ndropped     C=ZZ,O=Example,CN=Test TSA CA: only on the device, and the other bundle's first "
                        "revoke list lacks its issuer\n"
                        "MIX: the newer bundle dropped an issuer that its root did not revoke\n"),
              std::string::npos)
        << lost;

    const std::string spoilt = Compare(Cat(rootCrl_, rootCrl_), caCrl_, AllCas()).out;
    EXPECT_NE(spoilt.find("\nduplicate   C=ZZ,O=Example,CN=Test Root: more than one CRL\n"
                          "unverified  C=ZZ,O=Example,CN=Test Signing CA: its issuer did not verify\n"
                          "MIX: the issuer of a CRL did not verify\n"),
              std::string::npos)
        << spoilt;
}

// ---- show ----

TEST_F(PkgtoolCrl, ShowsBundles)
{
    const Words bundles{dir_.Write("one", Cat(newRootCrlWithoutTsa_, caCrl_, tsaCrl_)),
                        dir_.Write("two", Build(foreign_))};
    const ProcessResult run = Run(Words{"show"} + bundles + AllCas());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(
        run.out,
        dir_.Path("one") +
            "\n"
            "  this update           valid until           verified  issuer\n"
            "  2026-01-01T00:00:00Z  2035-01-01T00:00:00Z  yes       C=ZZ,O=Example,CN=Test Root, serial 10\n"
            "      revokes 12\n"
            "  2025-01-01T00:00:00Z  2035-01-01T00:00:00Z  yes       C=ZZ,O=Example,CN=Test Signing CA, serial 11\n"
            "  2025-01-01T00:00:00Z  2035-01-01T00:00:00Z  no        C=ZZ,O=Example,CN=Test TSA CA, serial 12\n"
            "      not verified: its issuer was not valid or was revoked, is below no known root, or lacks the root's "
            "CRL here\n" +
            dir_.Path("two") +
            "\n"
            "  this update           valid until           verified  issuer\n"
            "  -                     2035-01-01T00:00:00Z  no        (a name that the verifier cannot read)\n"
            "      not verified: no certificate of its issuer matches it\n");
}

TEST_F(PkgtoolCrl, ShowsBundlesInJson)
{
    const ProcessResult run = Show(Cat(newRootCrlWithoutTsa_, tsaCrl_, Build(foreign_)), AllCas() + Words{"--json"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    Json expected = ParseJson(R"({"schema": 2, "bundles": [{"crls": [
        {"issuer": "C=ZZ,O=Example,CN=Test Root", "issuer_serial": "10", "this_update": "2026-01-01T00:00:00Z",
         "next_update": "2035-01-01T00:00:00Z", "verified": true, "revoked": [{"serial": "12"}]},
        {"issuer": "C=ZZ,O=Example,CN=Test TSA CA", "issuer_serial": "12", "this_update": "2025-01-01T00:00:00Z",
         "next_update": "2035-01-01T00:00:00Z", "verified": false, "revoked": []},
        {"issuer": null, "issuer_serial": null, "this_update": null,
         "next_update": "2035-01-01T00:00:00Z", "verified": false, "revoked": []}]}]})");
    expected["bundles"][0]["bundle"] = dir_.Path("bundle");
    EXPECT_EQ(ParseJson(run.out), expected);
}

// Certificates of the bundle count, but for a root.
TEST_F(PkgtoolCrl, TakesIntermediatesFromTheBundle)
{
    const Bytes bundle = Cat(rootCrl_, caCrl_, Build(pki_.signingCa), Build(pki_.root));
    const Json trusted = ParseJson(Show(bundle, TheRoot() + Words{"--json"}).out)["bundles"][0]["crls"];
    EXPECT_EQ(trusted[0]["verified"], true);
    EXPECT_EQ(trusted[1]["verified"], true);
    const Json untrusted = ParseJson(Show(bundle, {"--json"}).out)["bundles"][0]["crls"];
    EXPECT_EQ(untrusted[0]["verified"], false);
    EXPECT_EQ(untrusted[1]["verified"], false);
}

TEST_F(PkgtoolCrl, CutsLongRevokeListsInWordsOnly)
{
    std::vector<Bytes> serials;
    for (std::uint8_t i = 1; i <= 100; ++i) serials.push_back({0x01, i});
    const Bytes bundle = Build(Revoking(serials, pki_.rootCrl));
    EXPECT_NE(Show(bundle, TheRoot()).out.find("revokes 0101, 0102, 0103, 0104, 0105, 0106, 0107, 0108 and 92 more\n"),
              std::string::npos);
    const Json json = ParseJson(Show(bundle, TheRoot() + Words{"--json"}).out);
    EXPECT_EQ(json["bundles"][0]["crls"][0]["revoked"].size(), 100u);
    serials.resize(8);
    EXPECT_NE(Show(Build(Revoking(serials, pki_.rootCrl)), TheRoot()).out.find("0107, 0108\n"), std::string::npos);
}

// Of equal dates and counts the device's bundle counts as the newer one, which has to have what the offered one has.
TEST_F(PkgtoolCrl, OfEqualBundlesTheOfferedOnesIssuerIsDropped)
{
    const Json issuers =
        ExpectVerdict({"MIX", PELNIC_ERR_CRL_ISSUER_DROPPED}, Cat(rootCrl_, caCrl_), Cat(rootCrl_, tsaCrl_));
    ASSERT_EQ(issuers.size(), 3u);
    EXPECT_EQ(issuers[0]["relation"], "equal");
    EXPECT_EQ(issuers[1]["issuer"], "C=ZZ,O=Example,CN=Test Signing CA") << issuers;
    EXPECT_EQ(issuers[1]["relation"], "dropped");
    EXPECT_EQ(issuers[2]["relation"], "missing");
    // The library agrees: a root that revokes the issuer excuses its loss on the device, and none in the offered
    // bundle.
    const Bytes withoutCa = Build(Revoking({pki_.signingCa.serial}, pki_.rootCrl));
    ExpectVerdict({"SAME", 0}, Cat(rootCrl_, caCrl_), Cat(withoutCa, tsaCrl_));
    const Bytes withoutTsa = Build(Revoking({pki_.tsaCa.serial}, pki_.rootCrl));
    ExpectVerdict({"MIX", PELNIC_ERR_CRL_ISSUER_DROPPED}, Cat(withoutTsa, caCrl_), Cat(rootCrl_, tsaCrl_));
}

// 1B 5B 32 4A clears a terminal; E9 alone is no UTF-8.
TEST_F(PkgtoolCrl, ForeignNamesCannotSpoilTheOutput)
{
    CrlSpec crl = pki_.rootCrl;
    crl.issuer = Name(NameAttr(oid::commonName, Tlv(0x14, {0x1B, 0x5B, 0x32, 0x4A, 0x22, 0xE9})));
    EXPECT_NE(Show(Build(crl)).out.find("CN=\\x1b[2J\""), std::string::npos);
    EXPECT_EQ(ParseJson(Show(Build(crl), {"--json"}).out)["bundles"][0]["crls"][0]["issuer"], "CN=\x1B[2J\"\uFFFD");
}

// ---- What users get wrong ----

TEST_F(PkgtoolCrl, RefusesFilesWithTheReason)
{
    const std::string good = dir_.Write("good", rootCrl_);
    const std::string version1 = WriteCert("version1.pem", Version1(pki_.root));
    const struct {
        Words arguments;
        std::string message;
    } cases[] = {
        {{"show", dir_.Path("missing")}, "cannot open " + dir_.Path("missing")},
        {{"show", dir_.Write("empty", {})}, "' is empty"},
        {{"show", dir_.Write("junk", Bytes(100, 0x00))}, "' holds no usable CRL"},
        {{"show", dir_.Write("many", DailyCrls(pki_.rootCrl, 17))}, "' holds more than 16 CRLs"},
        {{"show", good, "--root", good}, "' holds no certificate"},
        {{"show", good, "--intermediate", version1}, "' holds a certificate of version 1 or 2"},
        {Words{"compare", good, dir_.Path("missing")} + TheRoot(), "cannot open " + dir_.Path("missing")},
        {{"show", "-"}, "read from files, not from standard input"},
        {{"compare", good}, "device is missing"},
        {{"show"}, "bundle is missing"},
        {{}, "a command is missing"},
    };
    for (const auto& [arguments, message] : cases) {
        const ProcessResult run = Run(arguments);
        EXPECT_EQ(run.status, kUserError) << message;
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    }
}

TEST_F(PkgtoolCrl, HelpTellsTheExitStatuses)
{
    const ProcessResult run = Run({"compare", "--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("0 NEW, 10 SAME, 11 OLD, 12 MIX"), std::string::npos);
}

} // namespace
} // namespace pnvtest
