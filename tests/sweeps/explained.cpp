// Every package that the tests can make, in order and damaged, explained: the reason is held against the verdict's
// code, against what the library decided in another verification of the same package, and where a package was damaged
// in one place, against that place. A program of its own, because it has the library with its witness.
#include "cmsverify/include/pelnic_cms_witness.h"
#include "pkgtool/diagnosis.h"
#include "pkgtool/reason_code.h"
#include "pkgtool/text.h"
#include "support/der_mutator.h"
#include "support/effort.h"
#include "support/generated_package.h"
#include "support/package.h"
#include "support/seed.h"
#include "support/signature.h"
#include "tool/pkgcheck.h"

#include <gtest/gtest.h>

#include <map>

namespace pnvtest {
namespace {

using pkgtool::Json;

struct Heard {
    Decision decision;
    PELNIC_ERROR_CODE code;
    std::string serial; // of the certificate, as reports have it
    PNV_UINT32 number;
    CrlUnfit unfit;
};

std::string SerialOf(const PELNIC_X509_CERT* cert)
{
    if (cert == nullptr) return "";
    const PELNIC_ASN_BIGINT& serial = *cert->toBeSigned->serialNumber;
    return pkgtool::hexText(serial.octs, serial.len);
}

void Hear(void* user, const WitnessEvent& event)
{
    static_cast<std::vector<Heard>*>(user)->push_back(
        {event.decision, event.code, SerialOf(event.cert), event.number, event.unfit});
}

// What one kind of failure must have been decided by.
struct Ground {
    Decision decision;
    PELNIC_ERROR_CODE code = 0; // 0: any but 0
    CrlUnfit unfit = CrlUnfit::None;
    bool isOfSubject = false; // the certificate of the report is the decision's
};

const std::multimap<std::string, Ground> kGrounds = {
    {"root-unusable", {Decision::Roots}},
    {"crl-file-undecodable", {Decision::Crls}},
    {"signature-undecodable", {Decision::Signature}},
    {"signature-without-signers", {Decision::Payload, PELNIC_ERR_CMS_NOT_BEGUN}},
    {"timestamp-missing", {Decision::Token}},
    {"timestamp-undecodable", {Decision::Token}},
    {"timestamp-undecodable", {Decision::Time}},
    {"timestamp-imprint", {Decision::Time, PELNIC_ERR_TSP_IMPRINT_MISMATCH}},
    {"timestamp-signature", {Decision::AuthorityDone}},
    {"signer-certificate-missing", {Decision::SignerCert, PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND}},
    {"authority-certificate-missing", {Decision::SignerCert, PELNIC_ERR_TSP_CERT_NOT_FOUND}},
    {"key-usage", {Decision::Usage, 0, CrlUnfit::None, true}},
    {"purpose", {Decision::Usage, 0, CrlUnfit::None, true}},
    {"certificate-expired", {Decision::Dates, PELNIC_ERR_CERT_EXPIRED, CrlUnfit::None, true}},
    {"certificate-not-yet-valid", {Decision::Dates, PELNIC_ERR_CERT_NOT_YET_VALID, CrlUnfit::None, true}},
    {"certificate-undecodable", {Decision::Dates, 0, CrlUnfit::None, true}},
    {"certificate-revoked", {Decision::Revocation, PELNIC_ERR_CERT_REVOKED, CrlUnfit::None, true}},
    {"crl-missing", {Decision::CrlChosen, PELNIC_ERR_CRL_NOT_FOUND, CrlUnfit::None, true}},
    {"crl-expired", {Decision::CrlUnfit, 0, CrlUnfit::Expired}},
    {"crl-undecodable", {Decision::CrlUnfit, 0, CrlUnfit::NoEnd}},
    {"crl-undecodable", {Decision::Revocation}},
    {"crl-signature", {Decision::CrlUnfit, 0, CrlUnfit::NoIssuer}},
    {"crl-issuer-missing", {Decision::CrlUnfit, 0, CrlUnfit::NoIssuer}},
    {"crl-issuer-usage", {Decision::CrlUnfit, 0, CrlUnfit::NoIssuer}},
    {"crl-other-root", {Decision::CrlUnfit, 0, CrlUnfit::OtherRoot}},
    {"issuer-missing", {Decision::Issuer, PELNIC_ERR_CERT_NO_ISSUER, CrlUnfit::None, true}},
    {"issuer-usage", {Decision::Issuer, PELNIC_ERR_CERT_NO_ISSUER, CrlUnfit::None, true}},
    {"issuer-signature", {Decision::Issuer, PELNIC_ERR_CERT_NO_ISSUER, CrlUnfit::None, true}},
    {"wrong-root", {Decision::Issuer, PELNIC_ERR_CERT_NO_ISSUER, CrlUnfit::None, true}},
    {"wrong-root", {Decision::SelfSigned, 0, CrlUnfit::None, true}},
    {"wrong-root", {Decision::ChainDone, PELNIC_ERR_CERT_NO_ISSUER}},
    {"wrong-root", {Decision::CrlChosen, PELNIC_ERR_CERT_NO_ISSUER}}, // CAs that issue each other
    {"path-too-deep", {Decision::TooDeep, 0, CrlUnfit::None, true}},
    {"signature-algorithm", {Decision::SignerDone}},
    {"signature-value", {Decision::Value}},
    {"message-digest", {Decision::SignerDone}},
    {"digest-conflict", {Decision::SignerDone, PELNIC_ERR_CMS_DIGEST_CONFLICT}},
    {"payload-altered", {Decision::Payload}},
};

// Those that the library is not asked about.
const std::set<std::string> kContainer = {"sub-file-count", "sub-file-outside", "payload-missing", "crl-file-missing"};

bool Meets(const Heard& heard, const Ground& ground, const Json& failure)
{
    if (heard.decision != ground.decision) return false;
    const bool isNo =
        heard.code != 0 || heard.unfit != CrlUnfit::None || (heard.decision == Decision::Payload && heard.number == 0);
    if (!isNo || (ground.code != 0 && heard.code != ground.code)) return false;
    if (ground.unfit != CrlUnfit::None && heard.unfit != ground.unfit) return false;
    return !ground.isOfSubject || failure["serial"] == heard.serial;
}

struct Explained {
    pkgtool::Verdict verdict;
    pkgtool::Contents contents;
    pkgtool::Diagnosis diagnosis;
    std::string kind;
};

class Explanations : public ::testing::Test {
protected:
    Explained Explain(const Bytes& package, const Bytes& root)
    {
        const pkgtool::Root trusted{root, pkgtool::source::ROOT_FILE};
        Explained all{pkgtool::judge(package, trusted), {}, {}, {}};
        if (package.size() < packageHeaderSize) return all;
        all.contents = pkgtool::readContents(package, root, trusted.source);
        all.diagnosis = pkgtool::diagnose(package, all.contents, all.verdict);
        if (all.diagnosis.failure.is_object()) all.kind = all.diagnosis.failure["kind"];
        return all;
    }

    // What the library decides of it, alone.
    static std::vector<Heard> Listen(const Bytes& package, const Bytes& root)
    {
        std::vector<Heard> heard;
        const Witness before = _pnvSetWitness({Hear, &heard});
        (void)VerifyAlone(package, root);
        (void)_pnvSetWitness(before);
        return heard;
    }

    // What a device would log of it.
    static std::vector<std::string> ReasonsOf(const Bytes& package, const Bytes& root)
    {
        std::vector<std::string> reasons;
        pelnic_set_witness(
            [](void* user, const PNV_BYTE* reason) {
                static_cast<std::vector<std::string>*>(user)->push_back(pkgtool::hexText(reason, PELNIC_REASON_SIZE));
            },
            &reasons);
        (void)VerifyAlone(package, root);
        pelnic_set_witness(nullptr, nullptr);
        return reasons;
    }

    static PELNIC_ERROR_CODE VerifyAlone(const Bytes& package, const Bytes& root)
    {
        SProgramFileHeader_S header;
        std::copy_n(package.begin(), sizeof header, reinterpret_cast<unsigned char*>(&header));
        PELNIC_VERIFY_SIGNATURE_S sig = pkgcheck_locate(package.data(), &header);
        sig.pCert = root.data();
        sig.uiCertLength = Len(root);
        return Pelnic_Verify_Signature_Integrity(&sig);
    }

    static std::string ListText(const std::vector<Heard>& heard)
    {
        std::string text;
        for (const Heard& h : heard) {
            text += "\ndecision " + std::to_string(static_cast<int>(h.decision)) + " " + pkgtool::hexadecimal(h.code) +
                    " " + h.serial;
        }
        return text;
    }

    // One reason, of the same decision.
    static void JudgeReason(const std::vector<std::string>& reasons, const Explained& all,
                            const std::vector<Heard>& heard)
    {
        if (heard.size() < 2 && reasons.empty()) return; // nothing was looked at
        ASSERT_EQ(reasons.size(), 1u) << all.kind;
        const auto reason = pkgtool::readReasonCode("log: " + reasons[0]);
        ASSERT_TRUE(reason) << reasons[0];
        const auto decision = static_cast<Decision>(std::stoul(reasons[0].substr(2, 2), nullptr, 16));
        if (decision == Decision::Undecodable || decision == Decision::CrlUnfit) return; // says more than the kind
        // Where several CRLs could be used but for their issuers, explain tells of the best, and the code of the last.
        const bool areSeveral = std::any_of(heard.begin(), heard.end(), [](const Heard& h) {
            return h.decision == Decision::CrlChosen && h.code == PELNIC_ERR_CRL_VERIFY;
        });
        if (areSeveral) return;
        // And a CRL that does not decode hides what was wrong with the one before it.
        const auto is = [](Decision which) { return [which](const Heard& h) { return h.decision == which; }; };
        const auto unfit = std::find_if(heard.begin(), heard.end(), is(Decision::CrlUnfit));
        const bool isHidden = std::any_of(unfit, heard.end(), is(Decision::Undecodable));
        if (decision == Decision::CrlChosen && isHidden) return;
        const auto grounds = kGrounds.equal_range(all.kind);
        EXPECT_TRUE(std::any_of(grounds.first, grounds.second,
                                [&](const auto& ground) { return ground.second.decision == decision; }))
            << all.kind << ": " << reason->text << ListText(heard);
    }

    // Everything but the place of damage.
    Explained Judge(const Bytes& package, const Bytes& root)
    {
        Explained all = Explain(package, root);
        const Json& failure = all.diagnosis.failure;
        EXPECT_EQ(failure.is_object(), !all.verdict.isAccepted() && package.size() >= packageHeaderSize)
            << all.verdict.message << ListText(Listen(package, root));
        ++kinds_[all.kind];
        if (!failure.is_object()) return all;
        const Json report = {{"header", all.contents.header},
                             {"sub_files", all.contents.subFiles},
                             {"root", all.contents.root},
                             {"signers", all.diagnosis.signers}};
        EXPECT_TRUE(report.contains(Json::json_pointer(failure["at"].get<std::string>()))) << failure;
        if (kContainer.count(all.kind) != 0) return all;
        const std::vector<Heard> heard = Listen(package, root);
        const auto grounds = kGrounds.equal_range(all.kind);
        // Empty ones are not looked at.
        bool isMet =
            (all.kind == "root-unusable" && heard.empty()) || (all.kind == "crl-file-undecodable" && heard.size() == 1);
        for (auto ground = grounds.first; ground != grounds.second; ++ground) {
            for (const Heard& h : heard) isMet = isMet || Meets(h, ground->second, failure);
        }
        EXPECT_TRUE(isMet) << failure.dump(2);
        JudgeReason(ReasonsOf(package, root), all, heard);
        return all;
    }

    std::map<std::string, std::size_t> kinds_;
};

TEST_F(Explanations, HaveTheLibrarysGrounds)
{
    const std::size_t packages = LongForm() ? 20000 : 40;
    Random random{Seed()};
    const Scramble scramble = [&](Bytes* octets, std::size_t) {
        if (!octets->empty()) random.Of(*octets) ^= static_cast<std::uint8_t>(1u << random.Below(8));
    };
    for (std::size_t i = 0; i < packages && !HasFailure(); ++i) {
        SCOPED_TRACE(Seed() + i);
        const GeneratedPackage generated = GeneratePackage(Seed() + i);
        const SignedParts& parts = generated.parts;
        Bytes package = Build(SignedPackage(parts.payload, parts.cms, parts.crls));
        (void)Judge(package, parts.root);
        for (int left = 2; left > 0; --left) {
            package = MutatePackage(package, package, random, scramble);
            (void)Judge(package, parts.root);
        }
    }
    for (const auto& [kind, times] : kinds_) RecordProperty(kind.empty() ? "accepted" : kind, static_cast<int>(times));
}

// ---- Damage in one place

// Where a byte lies in a good package, and what may then be wrong with it; behind a slash, a part of the place that is
// marked.
struct Region {
    const char* name;
    std::size_t begin;
    std::size_t end;
    std::set<std::string> kinds;
};

class Damages : public Explanations {
protected:
    Damages()
    {
        const Bytes cms = DetachedCms(payload_, DemoCms(pki_));
        const PackageSpec spec = SignedPackage(payload_, cms, pki_.Crls());
        package_ = Build(spec);
        signature_ = packageHeaderSize + payload_.size();
        crls_ = signature_ + cms.size();
        // What decoding, certificates and chains can say; any damage of them can be damage of a name or a key.
        const std::set<std::string> chain = {"certificate-expired",
                                             "certificate-not-yet-valid",
                                             "certificate-undecodable",
                                             "crl-missing",
                                             "crl-signature",
                                             "crl-issuer-usage",
                                             "crl-issuer-missing",
                                             "issuer-missing",
                                             "issuer-usage",
                                             "issuer-signature",
                                             "wrong-root",
                                             "key-usage",
                                             "purpose"};
        const auto with = [](std::set<std::string> kinds, const std::set<std::string>& others) {
            kinds.insert(others.begin(), others.end());
            return kinds;
        };
        const Path signer = {1, 0, 4, 0};
        const auto below = [&](Path path, const Path& rest) {
            path.insert(path.end(), rest.begin(), rest.end());
            return path;
        };
        const Path token = below(signer, {6, 0, 1, 0});
        Add("payload", packageHeaderSize, signature_, {"payload-altered"});
        AddCms(cms, "token signature", below(token, {1, 0, 4, 0, 5}), {"timestamp-signature", "timestamp-undecodable"});
        AddCms(cms, "token attributes", below(token, {1, 0, 4, 0, 3}),
               {"timestamp-signature", "timestamp-undecodable"});
        AddCms(cms, "token certificates", below(token, {1, 0, 3}),
               with(chain, {"timestamp-undecodable", "authority-certificate-missing"}));
        AddCms(cms, "TSTInfo", below(token, {1, 0, 2}), // whose time may be moved
               with(chain, {"timestamp-undecodable", "timestamp-imprint", "timestamp-signature", "crl-expired"}));
        AddCms(cms, "token", token, {"timestamp-undecodable", "timestamp-signature", "authority-certificate-missing"});
        AddCms(cms, "unsigned attributes", below(signer, {6}),
               {"timestamp-missing", "timestamp-undecodable", "signature-undecodable"});
        AddCms(cms, "signature value", below(signer, {5}), {"timestamp-imprint", "signature-undecodable"});
        AddCms(cms, "signed attributes", below(signer, {3}),
               {"signature-value", "message-digest", "signature-undecodable", "signature-algorithm"});
        AddCms(cms, "signer", signer,
               {"signature-value", "signer-certificate-missing", "signature-undecodable", "timestamp-missing"});
        AddCms(cms, "certificates", {1, 0, 3}, with(chain, {"signature-undecodable", "signer-certificate-missing"}));
        AddCms(cms, "signature", {}, {"signature-undecodable", "signature-without-signers"});
        Add("CRLs", crls_, package_.size(),
            {"crl-file-undecodable", "crl-missing", "crl-signature", "crl-issuer-missing", "crl-undecodable"});
    }

    void Add(const char* name, std::size_t begin, std::size_t end, std::set<std::string> kinds)
    {
        regions_.push_back({name, begin, end, std::move(kinds)});
    }
    void AddCms(const Bytes& cms, const char* name, const Path& path, std::set<std::string> kinds)
    {
        const Element element = Find(cms, path);
        Add(name, signature_ + element.offset, signature_ + element.End(), std::move(kinds));
    }
    // The first that has it: the inner ones come first.
    const Region& RegionOf(std::size_t place) const
    {
        return *std::find_if(regions_.begin(), regions_.end(),
                             [&](const Region& region) { return region.begin <= place && place < region.end; });
    }

    // What does not decode cannot lie wholly before the damage, and lies in the same sub-file.
    void JudgeElement(const Bytes& package, std::size_t place, const Json& element) const
    {
        if (element.is_null() || element["offset"].is_null()) return;
        const std::size_t subFile = place < crls_ ? signature_ : crls_;
        const std::size_t end = place < crls_ ? crls_ : package.size();
        const std::size_t begin = subFile + element["offset"].get<std::size_t>();
        EXPECT_LE(begin, end) << element;
        if (begin + 2 > package.size() || begin > place) return;
        std::size_t length = package[begin + 1];
        std::size_t header = 2;
        if (length >= 0x80) {
            header += length & 0x7F;
            length = 0;
            for (std::size_t i = begin + 2; i < begin + header && i < package.size(); ++i) {
                length = length << 8 | package[i];
            }
        }
        EXPECT_GT(begin + header + length, place) << element;
    }

    void JudgeFlip(std::size_t place, std::uint8_t mask)
    {
        Bytes package = package_;
        package[place] ^= mask;
        const Explained all = Judge(package, Build(pki_.root));
        const Region& region = RegionOf(place);
        if (all.verdict.isAccepted()) return; // parameters of algorithms, for instance
        EXPECT_EQ(region.kinds.count(all.kind), 1u) << region.name << ": " << all.diagnosis.failure.dump(2);
        JudgeElement(package, place, all.diagnosis.failure["element"]);
        ++judged_[region.name];
    }

    const Bytes payload_ = Text("a firmware image");
    const DemoPki pki_;
    Bytes package_;
    std::size_t signature_ = 0;
    std::size_t crls_ = 0;
    std::vector<Region> regions_;
    std::map<std::string, std::size_t> judged_;
};

TEST_F(Damages, AreFoundWhereTheyAre)
{
    const std::size_t step = LongForm() ? 1 : 61;
    for (std::size_t place = packageHeaderSize + Seed() % step; place < package_.size(); place += step) {
        SCOPED_TRACE(place);
        JudgeFlip(place, static_cast<std::uint8_t>(1u << (Seed() + place) % 8));
        if (HasFailure()) return;
    }
    for (const Region& region : regions_) EXPECT_TRUE(LongForm() ? judged_[region.name] != 0 : true) << region.name;
}

TEST_F(Damages, OfTheLengthAreCuts)
{
    const std::size_t step = LongForm() ? 7 : 401;
    for (std::size_t place = packageHeaderSize; place < package_.size(); place += step) {
        const Explained all =
            Judge(Bytes(package_.begin(), package_.begin() + static_cast<std::ptrdiff_t>(place)), Build(pki_.root));
        EXPECT_EQ(all.kind, "sub-file-outside");
    }
}

} // namespace
} // namespace pnvtest
