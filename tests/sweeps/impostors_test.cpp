// Packages of somebody who has no signer's key: certificates, CRLs and timestamps that look like the right ones, or are
// the right ones of somebody else, of another time, or in another place. Beside each stands what is still accepted.
#include "support/signature.h"

namespace pnvtest {
namespace {

// A signature, and what the device is given before it.
struct Attempt {
    CmsSpec cms;
    Anchors anchors;
};

// The test PKI, to change or leave; most attempts follow from it.
using Make = std::function<Attempt(DemoPki& pki)>;

struct Row {
    const char* name;
    Make make;
    Verdict verdict;
};
std::ostream& operator<<(std::ostream& out, const Row& row)
{
    return out << row.name;
}
constexpr auto kNameOf = [](const auto& row) { return std::string(row.param.name); };

constexpr Verdict kBadChain{PELNIC_ERR_CERT_VERIFY, 0};
constexpr Verdict kNoCertificate{PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND, 0};
constexpr Verdict kUnreadable{PELNIC_ERR_CMS_DECODE, 0};

class ImpostorTest : public SignatureTest {
protected:
    ImpostorTest() { plan_.RememberGoodSignatures(); }

    void Expect(const Attempt& attempt, const Verdict& verdict)
    {
        Renew();
        pnvtest::Provide(Current(), attempt.anchors);
        EXPECT_EQ(Verify(Current(), DetachedCms(payload_, attempt.cms), payload_), verdict);
        EXPECT_TRUE(verdict.code == 0 || LoggedError(plan_, verdict.code));
    }
};

class Impostor : public ImpostorTest, public ::testing::WithParamInterface<Row> {};

TEST_P(Impostor, GetsItsVerdict)
{
    Expect(GetParam().make(pki_), GetParam().verdict);
}

// ---- Rows ----

Attempt Of(const DemoPki& pki)
{
    return {DemoCms(pki), AnchorsOf(pki)};
}

Attempt With(const DemoPki& pki, const std::vector<Bytes>& certificates)
{
    Attempt attempt = Of(pki);
    attempt.cms.certificates = certificates;
    return attempt;
}

// One change of the PKI.
Row Changed(const char* name, std::function<void(DemoPki& pki)> change, const Verdict& verdict = kBadChain)
{
    return {name,
            [change = std::move(change)](DemoPki& pki) {
                change(pki);
                return Of(pki);
            },
            verdict};
}

// ---- Certificates ----

// A certificate with the signature bits of another one.
Bytes Borrowing(CertSpec cert, const CertSpec& lender)
{
    const Bytes bits = Content(Build(lender), {2});
    cert.signature = Bytes(bits.begin() + 1, bits.end());
    return Build(cert);
}

// The signer of another purpose, and who has the same issuer, serial number and key and says it signs code.
CertSpec Server(const DemoPki& pki)
{
    return With(pki.signer, &CertSpec::extendedKeyUsage, std::vector<std::string_view>{oid::serverAuth});
}
Bytes Twin(const DemoPki& pki)
{
    return Borrowing(pki.signer, Server(pki));
}

// A signer of this one's, who is no CA; whoever it is has a CRL.
Attempt Below(DemoPki& pki, const CertSpec& issuer)
{
    const CertSpec signer = IssuedBy(With(Signer(KeyId::Rsa2048F), &CertSpec::subject, TestName("Below")), issuer);
    Attempt attempt = Of(pki);
    attempt.anchors.crls = Cat(attempt.anchors.crls, Build(CrlOf(issuer)));
    attempt.cms.certificates.push_back(Build(signer));
    SignerSpec below = SignedBy(signer);
    below.unsignedAttributes = attempt.cms.signers[0].unsignedAttributes;
    attempt.cms.signers = {below};
    return attempt;
}

// Two CAs that issue each other, and the signer below one.
Attempt Cycle(DemoPki& pki)
{
    const CertSpec other = IssuedBy(Intermediate("Other CA", KeyId::Rsa2048F), pki.signingCa);
    pki.signingCa = IssuedBy(pki.signingCa, other);
    Attempt attempt = Of(pki);
    attempt.anchors.crls = Cat(attempt.anchors.crls, Build(CrlOf(other)));
    attempt.cms.certificates.push_back(Build(other));
    return attempt;
}

INSTANTIATE_TEST_SUITE_P(
    ByCertificate, Impostor,
    ::testing::Values(Row{"TwinOfAnotherPurpose",
                          [](DemoPki& pki) {
                              return With(pki, {Build(pki.signingCa), Twin(pki)});
                          },
                          kBadChain},
                      Row{"TwinBeforeTheGenuine",
                          [](DemoPki& pki) {
                              return With(pki, {Build(pki.signingCa), Twin(pki), Build(Server(pki))});
                          },
                          kBadChain},
                      Row{"TwinBehindTheGenuine",
                          [](DemoPki& pki) {
                              return With(pki, {Build(pki.signingCa), Build(Server(pki)), Twin(pki)});
                          },
                          {PELNIC_ERR_CERT_USAGE, 0}},
                      Row{"TwinBehindAGoodOne",
                          [](DemoPki& pki) {
                              return With(pki, {Build(pki.signingCa), Build(pki.signer), Twin(pki)});
                          },
                          good},
                      Row{"AnotherKeyUnderBorrowedBits",
                          [](DemoPki& pki) {
                              const CertSpec genuine = pki.signer;
                              pki.signer.key = KeyId::Rsa2048F;
                              return With(pki, {Build(pki.signingCa), Borrowing(pki.signer, genuine)});
                          },
                          kBadChain},
                      Row{"CaUnderBorrowedBits",
                          [](DemoPki& pki) {
                              const Bytes ca =
                                  Borrowing(With(pki.signer, &CertSpec::basicConstraints, Ca()), pki.signer);
                              return With(pki, {Build(pki.signingCa), ca});
                          },
                          kNoCertificate},
                      Row{"KeyIdentifierInsteadOfAName",
                          [](DemoPki& pki) {
                              Attempt attempt = Of(pki);
                              attempt.cms.signers[0].signerIdentifier = CtxPrim(0, Bytes(20, 0x5A));
                              return attempt;
                          },
                          kUnreadable},
                      Changed(
                          "SelfSigned", [](DemoPki& pki) { pki.signer = IssuedBy(pki.signer, pki.signer); },
                          kNoCertificate),
                      Changed("SelfIssuedByAnotherKey", [](DemoPki& pki) { pki.signer.issuer = pki.signer.subject; }),
                      Row{"BelowASigner", [](DemoPki& pki) { return Below(pki, pki.signer); }, kBadChain},
                      Row{"BelowATimestampAuthority", [](DemoPki& pki) { return Below(pki, pki.tsa); }, kBadChain},
                      Row{"BelowACa", [](DemoPki& pki) { return Below(pki, pki.signingCa); }, good},
                      Row{"BelowACycle", Cycle, kBadChain}),
    kNameOf);

// None of these may issue what it issued, or sign its CRL.
INSTANTIATE_TEST_SUITE_P(
    ByCa, Impostor,
    ::testing::Values(
        Changed("ThatSaysItIsNone", [](DemoPki& pki) { pki.signingCa.basicConstraints = NotCa(); }),
        Changed("ThatSaysFalse", [](DemoPki& pki) { pki.signingCa.basicConstraints = Seq(Bool(false)); }),
        Changed("WithoutBasicConstraints", [](DemoPki& pki) { pki.signingCa.basicConstraints.reset(); }),
        Changed("WithUnreadableBasicConstraints", [](DemoPki& pki) { pki.signingCa.basicConstraints = Octets({1}); }),
        Changed("OfVersion1", [](DemoPki& pki) { pki.signingCa = Version1(pki.signingCa); }),
        Changed("WithoutKeyUsage", [](DemoPki& pki) { pki.signingCa.keyUsage.reset(); }),
        Changed("WithNoUsageAtAll", [](DemoPki& pki) { pki.signingCa.keyUsage = 0; }),
        Changed("ThatMaySignCrlsOnly", [](DemoPki& pki) { pki.signingCa.keyUsage = usage::crlSign; }),
        Changed("ThatMaySignCertificatesOnly", [](DemoPki& pki) { pki.signingCa.keyUsage = usage::keyCertSign; }),
        Changed("ThatMaySignContentOnly", [](DemoPki& pki) { pki.signingCa.keyUsage = usage::digitalSignature; }),
        Changed("ForTimestampsThatMaySignCrlsOnly", [](DemoPki& pki) { pki.tsaCa.keyUsage = usage::crlSign; }),
        Changed("ForTimestampsThatSaysItIsNone", [](DemoPki& pki) { pki.tsaCa.basicConstraints = NotCa(); })),
    kNameOf);

// ---- Roots that are none ----

// All in order below a root of the device's root's name, wherever that comes from.
class FalseRoot : public ImpostorTest {
protected:
    void ExpectRefused(const Bytes& root)
    {
        const DemoPki genuine;
        TokenSpec token = DemoToken(rogue_);
        for (const bool inToken : {false, true}) {
            for (const bool inCms : {false, true}) {
                for (const bool inCrls : {false, true}) {
                    SCOPED_TRACE(::testing::Message() << inToken << inCms << inCrls);
                    token = DemoToken(rogue_);
                    if (inToken) token.cms.certificates.insert(token.cms.certificates.begin(), root);
                    Attempt attempt{DemoCms(rogue_, token), AnchorsOf(genuine)};
                    if (inCms) attempt.cms.certificates.insert(attempt.cms.certificates.begin(), root);
                    attempt.anchors.crls = Cat(inCrls ? root : Bytes{}, rogue_.Crls(), attempt.anchors.crls);
                    Expect(attempt, kBadChain);
                }
            }
        }
        Expect({DemoCms(rogue_), {root, rogue_.Crls()}}, good); // to whom trusts it
    }

    DemoPki rogue_{KeyId::Rsa2048H};
};

TEST_F(FalseRoot, SelfSignedIsRefusedInEveryPlace)
{
    ExpectRefused(Build(rogue_.root));
}

// Self-issued, it is not passed over with a warning, and no chain ends there.
TEST_F(FalseRoot, SignedByNobodyIsRefusedInEveryPlace)
{
    CertSpec root = rogue_.root;
    root.brokenSignature = true;
    for (const CertSpec& link : {root, With(root, &CertSpec::issuerKey, KeyId::Rsa2048G)}) {
        Attempt attempt{DemoCms(rogue_), AnchorsOf(DemoPki())};
        attempt.cms.certificates.insert(attempt.cms.certificates.begin(), Build(link));
        attempt.anchors.crls = Cat(Build(link), rogue_.Crls(), attempt.anchors.crls);
        Expect(attempt, kBadChain);
    }
}

// ---- Timestamps ----

Attempt Stamped(const DemoPki& pki, const TokenSpec& token)
{
    return {DemoCms(pki, token), AnchorsOf(pki)};
}

Row Token(const char* name, std::function<void(TokenSpec& token)> change, const Verdict& verdict)
{
    return {name,
            [change = std::move(change)](DemoPki& pki) {
                TokenSpec token = DemoToken(pki);
                change(token);
                return Stamped(pki, token);
            },
            verdict};
}

Row Time(const char* name, const Bytes& time, const Verdict& verdict)
{
    return Token(
        name, [time](TokenSpec& token) { token.time = time; }, verdict);
}

// The token says one thing and is signed as if it said another.
Row Exchanged(const char* name, bool isDirect)
{
    return {name,
            [isDirect](DemoPki& pki) {
                TokenSpec token = DemoToken(pki);
                if (isDirect) token.cms.signers[0].signedAttributes = nullptr;
                Attempt attempt = Stamped(pki, token);
                attempt.cms.signers[0].unsignedAttributes = {[token](const Bytes& stamped) {
                    TokenSpec exchanged = token;
                    TokenSpec other = token;
                    other.time = GenTime("20250601000000Z");
                    exchanged.eContent = Ctx(0, Octets(TstInfo(other, stamped)));
                    return Timestamp(exchanged)(stamped);
                }};
                return attempt;
            },
            {PELNIC_ERR_TSP_VERIFY, 0}};
}

constexpr Verdict kWrong{PELNIC_ERR_CMS_SIGNATURE, 0};
constexpr Verdict kNoLength{PELNIC_ERR_NULL_POINTER, 0}; // of a time
constexpr Verdict kNoTime{PELNIC_ERR_SYS_TIME_FORMAT, 0};

INSTANTIATE_TEST_SUITE_P(
    ByTimestamp, Impostor,
    ::testing::Values(Token(
                          "OfAnotherKey", [](TokenSpec& token) { token.cms.signers[0].key = KeyId::Rsa2048F; }, kWrong),
                      Token("OfAnotherKeyWithoutAttributes",
                            [](TokenSpec& token) {
                                token.cms.signers[0].key = KeyId::Rsa2048F;
                                token.cms.signers[0].signedAttributes = nullptr;
                            },
                            {PELNIC_ERR_TSP_VERIFY, 0}),
                      Token("OfTheSigner", [](TokenSpec& token) { token.cms.signers = {SignedBy(Signer())}; },
                            {PELNIC_ERR_CERT_USAGE, 0}),
                      Token("OfTheAuthorityAndAnother",
                            [](TokenSpec& token) {
                                token.cms.signers.push_back(token.cms.signers[0]);
                                token.cms.signers[1].serial = {0x7E};
                            },
                            {PELNIC_ERR_TSP_CERT_NOT_FOUND, 0}),
                      Token("OfAnotherAndTheAuthority",
                            [](TokenSpec& token) {
                                token.cms.signers.insert(token.cms.signers.begin(), token.cms.signers[0]);
                                token.cms.signers[0].serial = {0x7E};
                            },
                            {PELNIC_ERR_TSP_CERT_NOT_FOUND, 0}),
                      Token("Detached", [](TokenSpec& token) { token.eContent = Bytes{}; }, {PELNIC_ERR_TSP_DECODE, 0}),
                      Token(
                          "WithAnotherOneInside",
                          [](TokenSpec& token) {
                              token.cms.signers[0].unsignedAttributes = {
                                  [](const Bytes&) { return Attribute(oid::timestampToken, Octets(Bytes(40, 0x5A))); }};
                          },
                          good),
                      Exchanged("OverAnotherTime", false), Exchanged("OverAnotherTimeWithoutAttributes", true),
                      Time("WithoutTime", GenTime(""), kNoLength), Time("OfADay", GenTime("20260101"), kNoLength),
                      Time("OfAMinute", GenTime("202601010000Z"), kNoLength),
                      Time("OfTenthsOfASecond", GenTime("20260101000000.1Z"), kNoLength),
                      Time("OfAZone", GenTime("20260101000000+0100"), kNoLength),
                      Time("WithoutZ", GenTime("20260101000000z"), kNoTime),
                      Time("OfNoTimeAtAll", Octets(Bytes(15, 'Z')), kNoTime),
                      Time("OfTheYear0", GenTime("00000101000000Z"), kBadChain),
                      Time("OfTheYear9999", GenTime("99991231235959Z"), kBadChain),
                      Time("Of1950", UtcTime("500101000000Z"), kBadChain),
                      // The token itself as a signature of what it holds, and the other way round.
                      Row{"ThatIsTheSignature",
                          [](DemoPki& pki) {
                              Attempt attempt = Of(pki);
                              attempt.cms = DemoToken(pki).cms;
                              return attempt;
                          },
                          {PELNIC_ERR_NULL_POINTER, 0}},
                      Row{"ThatIsAStampedSignature",
                          [](DemoPki& pki) {
                              Attempt attempt = Of(pki);
                              SignerSpec authority = SignedBy(pki.tsa);
                              authority.unsignedAttributes = attempt.cms.signers[0].unsignedAttributes;
                              attempt.cms.signers = {authority};
                              return attempt;
                          },
                          {PELNIC_ERR_CERT_USAGE, 0}},
                      Row{"ByASignature",
                          [](DemoPki& pki) {
                              Attempt attempt = Of(pki);
                              const CmsSpec inner = attempt.cms;
                              attempt.cms.signers[0].unsignedAttributes = {[inner](const Bytes& stamped) {
                                  return Attribute(oid::timestampToken, DetachedCms(stamped, inner));
                              }};
                              return attempt;
                          },
                          {PELNIC_ERR_TSP_DECODE, 0}}),
    kNameOf);

// ---- The time, to the second ----

struct Dated {
    const char* name;
    std::function<void(DemoPki& pki, bool isIn)> change; // the time of verification is the last that is in, or the next
};
std::ostream& operator<<(std::ostream& out, const Dated& row)
{
    return out << row.name;
}

class Bounds : public ImpostorTest, public ::testing::WithParamInterface<Dated> {};

TEST_P(Bounds, AreIncluded)
{
    for (const bool isIn : {true, false}) {
        pki_ = DemoPki();
        GetParam().change(pki_, isIn);
        Expect(Of(pki_), isIn ? good : kBadChain);
    }
}

// All at 2026-01-01 00:00:00.
Dated NotBefore(const char* name, CertSpec DemoPki::*cert)
{
    return {name, [cert](DemoPki& pki, bool isIn) {
                (pki.*cert).notBefore = UtcTime(isIn ? "260101000000Z" : "260101000001Z");
            }};
}
Dated NotAfter(const char* name, CertSpec DemoPki::*cert)
{
    return {name, [cert](DemoPki& pki, bool isIn) {
                (pki.*cert).notAfter = UtcTime(isIn ? "260101000000Z" : "251231235959Z");
            }};
}
Dated NextUpdate(const char* name, CrlSpec DemoPki::*crl)
{
    return {name, [crl](DemoPki& pki, bool isIn) {
                (pki.*crl).nextUpdate = UtcTime(isIn ? "260101000000Z" : "251231235959Z");
            }};
}
Dated Revoked(const char* name, CrlSpec DemoPki::*crl, CertSpec DemoPki::*cert)
{
    return {name, [crl, cert](DemoPki& pki, bool isIn) {
                constexpr int superseded = 4; // counts from its date for CAs and timestamp authorities, too
                const Bytes date = UtcTime(isIn ? "260101000001Z" : "260101000000Z");
                (pki.*crl).revoked = {{(pki.*cert).serial, date, superseded}};
            }};
}

INSTANTIATE_TEST_SUITE_P(
    Of, Bounds,
    ::testing::Values(NotBefore("SignerBegins", &DemoPki::signer), NotAfter("SignerEnds", &DemoPki::signer),
                      NotBefore("SigningCaBegins", &DemoPki::signingCa), NotAfter("SigningCaEnds", &DemoPki::signingCa),
                      NotBefore("AuthorityBegins", &DemoPki::tsa), NotAfter("AuthorityEnds", &DemoPki::tsa),
                      NotBefore("AuthoritysCaBegins", &DemoPki::tsaCa), NotAfter("AuthoritysCaEnds", &DemoPki::tsaCa),
                      NotBefore("RootBegins", &DemoPki::root), NotAfter("RootEnds", &DemoPki::root),
                      NextUpdate("SigningCrl", &DemoPki::signingCrl), NextUpdate("AuthoritysCrl", &DemoPki::tsaCrl),
                      NextUpdate("RootCrl", &DemoPki::rootCrl),
                      Revoked("SignerRevoked", &DemoPki::signingCrl, &DemoPki::signer),
                      Revoked("SigningCaRevoked", &DemoPki::rootCrl, &DemoPki::signingCa),
                      Revoked("AuthorityRevoked", &DemoPki::tsaCrl, &DemoPki::tsa),
                      Revoked("AuthoritysCaRevoked", &DemoPki::rootCrl, &DemoPki::tsaCa)),
    kNameOf);

// ---- Two signers, two times: what is good at one of them is not so at the other ----

class TwoTimes : public ImpostorTest {
protected:
    // By one certificate or two below one CA, the earlier timestamp first and last. All is good at the earlier time.
    void ExpectRefused()
    {
        const TokenSpec early = DemoToken(pki_);
        const TokenSpec late = pnvtest::With(early, &TokenSpec::time, GenTime("20260201000000Z"));
        const CertSpec second =
            IssuedBy(pnvtest::With(Signer(KeyId::Rsa2048F), &CertSpec::subject, TestName("Second")), pki_.signingCa);
        for (const CertSpec& other : {pki_.signer, second}) {
            for (const bool isLateFirst : {false, true}) {
                Attempt attempt = Stamped(pki_, isLateFirst ? late : early);
                attempt.cms.certificates.push_back(Build(second));
                SignerSpec signer = SignedBy(other);
                signer.unsignedAttributes = {Timestamp(isLateFirst ? early : late)};
                attempt.cms.signers.push_back(signer);
                Expect(attempt, kBadChain);
                attempt.cms.signers[isLateFirst ? 0 : 1].unsignedAttributes = {Timestamp(early)};
                Expect(attempt, good);
            }
        }
    }
};

TEST_F(TwoTimes, OfWhichTheCaIsGoodAtOneAreRefused)
{
    pki_.signingCa.notAfter = UtcTime("260115000000Z");
    ExpectRefused();
}

TEST_F(TwoTimes, OfWhichTheCrlIsGoodAtOneAreRefused)
{
    pki_.signingCrl.nextUpdate = UtcTime("260115000000Z");
    ExpectRefused();
}

TEST_F(TwoTimes, OfWhichTheCrlOfTheRootIsGoodAtOneAreRefused)
{
    pki_.rootCrl.nextUpdate = UtcTime("260115000000Z");
    ExpectRefused();
}

TEST_F(TwoTimes, BetweenWhichTheCaIsRevokedAreRefused)
{
    constexpr int superseded = 4;
    pki_.rootCrl.revoked = {{pki_.signingCa.serial, UtcTime("260115000000Z"), superseded}};
    ExpectRefused();
}

// ---- CRLs ----

Attempt WithCrls(const DemoPki& pki, const Bytes& signingCrls)
{
    return {DemoCms(pki), {Build(pki.root), Cat(signingCrls, Build(pki.rootCrl), Build(pki.tsaCrl))}};
}

Row Crls(const char* name, std::function<Bytes(const CrlSpec& clean, const CrlSpec& revoking)> crls,
         const Verdict& verdict = kBadChain)
{
    return {name,
            [crls = std::move(crls)](DemoPki& pki) {
                const CrlSpec revoking =
                    With(pki.signingCrl, &CrlSpec::revoked, std::vector<RevokedSpec>{{pki.signer.serial}});
                return WithCrls(pki, crls(pki.signingCrl, revoking));
            },
            verdict};
}

CrlSpec Expired(const CrlSpec& crl)
{
    return With(crl, &CrlSpec::nextUpdate, UtcTime("251231235959Z"));
}
CrlSpec ByAnotherKey(const CrlSpec& crl)
{
    return With(crl, &CrlSpec::issuerKey, KeyId::Rsa2048H);
}
Bytes Armoured(const Bytes& crl)
{
    return Pem("X509 CRL", crl);
}

INSTANTIATE_TEST_SUITE_P(
    ByCrl, Impostor,
    ::testing::Values(
        Crls("ThatListsItLastOf501",
             [](const CrlSpec& clean, const CrlSpec& revoking) {
                 CrlSpec crl = clean;
                 for (std::uint8_t i = 0; i < 250; ++i) {
                     crl.revoked.push_back({{0x01, i}});
                     crl.revoked.push_back({{0x02, i}});
                 }
                 crl.revoked.push_back(revoking.revoked[0]);
                 return Build(crl);
             }),
        Crls("ThatPadsTheSerialNumber",
             [](const CrlSpec&, CrlSpec revoking) {
                 revoking.revoked[0].serial = Cat(Bytes(3), revoking.revoked[0].serial);
                 return Build(revoking);
             }),
        Crls("ThatRevokesAndExpiredBesideACurrentOne",
             [](const CrlSpec& clean, const CrlSpec& revoking) { return Cat(Build(clean), Build(Expired(revoking))); }),
        Crls("ThatRevokesAndExpiredBeforeACurrentOne",
             [](const CrlSpec& clean, const CrlSpec& revoking) { return Cat(Build(Expired(revoking)), Build(clean)); }),
        Crls("ThatIsMissing", [](const CrlSpec&, const CrlSpec&) { return Bytes{}; }),
        Crls("ByAnotherKey", [](const CrlSpec& clean, const CrlSpec&) { return Build(ByAnotherKey(clean)); }),
        Crls("ByAnotherKeyBeforeTheGenuineOne",
             [](const CrlSpec& clean, const CrlSpec& revoking) {
                 return Cat(Build(ByAnotherKey(clean)), Build(revoking));
             }),
        Crls(
            "ByAnotherKeyThatRevokes",
            [](const CrlSpec& clean, const CrlSpec& revoking) {
                return Cat(Build(ByAnotherKey(revoking)), Build(clean));
            },
            good),
        Crls("WithAnotherNextUpdate",
             [](const CrlSpec& clean, const CrlSpec&) {
                 return Replace(Build(Expired(clean)), {0, tbscrl::nextUpdate}, *clean.nextUpdate);
             }),
        Crls("WithAnEntryTakenOut",
             [](const CrlSpec&, const CrlSpec& revoking) {
                 return Replace(Build(revoking), {0, tbscrl::revoked}, {});
             }),
        Crls("WithAnotherRevocationDate",
             [](const CrlSpec&, const CrlSpec& revoking) {
                 return Replace(Build(revoking), {0, tbscrl::revoked, 0, 1}, UtcTime("300101000000Z"));
             }),
        Crls("OfAnotherAlgorithmInside",
             [](CrlSpec clean, const CrlSpec&) {
                 clean.innerAlgorithm = AlgoId(oid::sha512WithRsa);
                 return Build(clean);
             }),
        Crls("OfAnotherAlgorithmOutside",
             [](CrlSpec clean, const CrlSpec&) {
                 clean.outerAlgorithm = AlgoId(oid::sha512WithRsa);
                 return Build(clean);
             }),
        Crls(
            "WithAnEmptyBlockBefore",
            [](const CrlSpec& clean, const CrlSpec&) { return Cat(Armoured({}), Armoured(Build(clean))); },
            kBadChain), // the other CRLs behind are no PEM
        Row{"ThatComesInTheSignatureAlone",
            [](DemoPki& pki) {
                Attempt attempt = WithCrls(pki, {});
                attempt.cms.crls = {Build(pki.signingCrl)};
                return attempt;
            },
            kBadChain},
        Row{"ThatComesInTheSignatureAsACertificate",
            [](DemoPki& pki) {
                Attempt attempt = Of(pki);
                attempt.cms.certificates.push_back(Build(pki.signingCrl));
                return attempt;
            },
            kUnreadable},
        Row{"ThatIsACertificate",
            [](DemoPki& pki) {
                Attempt attempt = Of(pki);
                attempt.cms.crls = {Build(pki.signer)};
                return attempt;
            },
            kUnreadable},
        Row{"CutShort",
            [](DemoPki& pki) {
                Attempt attempt = Of(pki);
                attempt.anchors.crls.pop_back();
                return attempt;
            },
            kBadChain},
        Row{"InPemBehindAnEmptyBlock",
            [](DemoPki& pki) {
                Attempt attempt = Of(pki);
                attempt.anchors.crls = Cat(Armoured({}), Armoured(Build(pki.signingCrl)), Armoured(Build(pki.rootCrl)),
                                           Armoured(Build(pki.tsaCrl)));
                return attempt;
            },
            good},
        Row{"InPemBehindAnEmptyBlockThatRevokes",
            [](DemoPki& pki) {
                pki.signingCrl.revoked = {{pki.signer.serial}};
                Attempt attempt = Of(pki);
                attempt.anchors.crls = Cat(Armoured({}), Armoured(Build(pki.signingCrl)), Armoured(Build(pki.rootCrl)),
                                           Armoured(Build(pki.tsaCrl)));
                return attempt;
            },
            kBadChain}),
    kNameOf);

// ---- Certificates that nobody needs ----

struct Junk {
    const char* name;
    Bytes spki;
};
std::ostream& operator<<(std::ostream& out, const Junk& row)
{
    return out << row.name;
}

// A key that cannot be used is no failing callback: it costs a good package nothing.
class JunkKey : public ImpostorTest, public ::testing::WithParamInterface<Junk> {};

TEST_P(JunkKey, CostsAGoodPackageNothing)
{
    CertSpec selfIssued = ForeignRoot();
    selfIssued.subjectPublicKey = GetParam().spki;
    const Bytes stranger = Build(selfIssued);
    CertSpec sameName = pki_.signingCa;
    sameName.subjectPublicKey = GetParam().spki;
    const Bytes namesake = Build(sameName);
    for (const Bytes& junk : {stranger, namesake}) {
        Attempt attempt = Of(pki_);
        attempt.cms.certificates.insert(attempt.cms.certificates.begin(), junk);
        Expect(attempt, good);
        TokenSpec token = DemoToken(pki_);
        token.cms.certificates.insert(token.cms.certificates.begin(), junk);
        Expect(Stamped(pki_, token), good);
        attempt = Of(pki_);
        attempt.anchors.crls = Cat(junk, attempt.anchors.crls);
        Expect(attempt, good);
    }
}

Bytes KeyOf(const Bytes& numbers)
{
    return Seq(AlgoId(oid::rsaEncryption), Bits(0, Seq(numbers)));
}

INSTANTIATE_TEST_SUITE_P(
    Of, JunkKey,
    ::testing::Values(Junk{"AnotherAlgorithm", Spki(KeyId::EcP256)},
                      Junk{"AnUnknownAlgorithm", Seq(AlgoId(oid::testPolicy), Bits(0, {0x01}))},
                      Junk{"AnAlgorithmWithoutKeys", Seq(AlgoId(oid::sha256), Bits(0, {0x01}))},
                      Junk{"NoNumbers", KeyOf({})},
                      Junk{"Garbage", Seq(AlgoId(oid::rsaEncryption), Bits(0, Bytes(20, 0x5A)))},
                      Junk{"Modulus0", KeyOf(Cat(Int({0x00}), Int({0x03})))}, Junk{"Modulus1", RsaSpki({0x01})},
                      Junk{"AnEvenModulus", RsaSpki(Bytes(256, 0xC4))},
                      Junk{"AModulusOf513Octets", RsaSpki(Bytes(513, 0xC5))},
                      Junk{"Exponent0", KeyOf(Cat(Int({0x0F}), Int({0x00})))},
                      Junk{"Exponent1", RsaSpki(TestKey(KeyId::Rsa2048G).modulus, {0x01})},
                      Junk{"AnExponentOf513Octets", RsaSpki(Bytes(512, 0xC5), Bytes(513, 0x55))},
                      Junk{"AnExponentAboveTheModulus", RsaSpki(Bytes(255, 0xC5), Bytes(256, 0x55))}),
    kNameOf);

} // namespace
} // namespace pnvtest
