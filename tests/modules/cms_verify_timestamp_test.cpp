// The timestamp that every signer must carry: where it is found, who may have issued it, and that its time is the time
// at which everything is judged.
#include "cmsverify/cms_verify.h"

#include "support/signature.h"

namespace pnvtest {
namespace {

constexpr const char* kNotOurs = "the timestamp not match with target cms.";
constexpr const char* kBadToken = "verify timestamp failed.";

// A good signature whose timestamp the test changes.
class TimestampTest : public SignatureTest {
protected:
    CmsSpec Cms() { return DemoCms(pki_, token_); }
    CmsSpec Cms(std::vector<UnsignedAttribute> unsignedAttributes)
    {
        CmsSpec cms = Cms();
        cms.signers[0].unsignedAttributes = std::move(unsignedAttributes);
        return cms;
    }
    SignerSpec& Authority() { return token_.cms.signers[0]; }

    void ExpectAccepted() { SignatureTest::ExpectAccepted(Cms()); }
    void ExpectRefused(PELNIC_ERROR_CODE rc, const std::string& message = "")
    {
        SignatureTest::ExpectRefused(Cms(), rc, message);
    }
    void ExpectRefused(std::vector<UnsignedAttribute> unsignedAttributes, PELNIC_ERROR_CODE rc)
    {
        SignatureTest::ExpectRefused(Cms(std::move(unsignedAttributes)), rc);
    }
    // After a change of pki_.tsa: a token that it made.
    void Reissue() { token_ = DemoToken(pki_); }

    TokenSpec token_ = DemoToken(pki_);
};

UnsignedAttribute Fixed(const Bytes& attribute)
{
    return [attribute](const Bytes&) { return attribute; };
}

// ---- The attribute ----

TEST_F(TimestampTest, IsRequired)
{
    ExpectRefused({}, PELNIC_ERR_NULL_POINTER); // no unsigned attributes at all
    ExpectRefused({Fixed(SigningTimeAttribute(UtcTime("260101000000Z")))}, PELNIC_ERR_CMS_DECODE);
}

TEST_F(TimestampTest, IsRequiredOfADirectSignerToo)
{
    SignatureTest::ExpectRefused(Direct(Cms({})), PELNIC_ERR_NULL_POINTER);
}

TEST_F(TimestampTest, MayStandAmongOtherAttributes)
{
    const UnsignedAttribute other = Fixed(SigningTimeAttribute(UtcTime("260101000000Z")));
    SignatureTest::ExpectAccepted(Cms({other, Timestamp(token_), other}));
}

TEST_F(TimestampTest, ThatDoesNotDecodeIsRefused)
{
    for (const Bytes& token : {Bytes{}, Seq(), Octets({0x01}), Seq(Oid(oid::data), Ctx(0, Octets({0x01})))}) {
        ExpectRefused({Fixed(Attribute(oid::timestampToken, token))}, PELNIC_ERR_CMS_DECODE);
    }
    token_.cms.certificates.push_back(Seq(Int(1)));
    ExpectRefused(PELNIC_ERR_CMS_DECODE);
}

TEST_F(TimestampTest, IsTheFirstOfItsKind)
{
    const UnsignedAttribute garbage = Fixed(Attribute(oid::timestampToken, Seq()));
    ExpectRefused({garbage, Timestamp(token_)}, PELNIC_ERR_CMS_DECODE);
    SignatureTest::ExpectAccepted(Cms({Timestamp(token_), garbage}));
}

// ---- The token's content ----

TEST_F(TimestampTest, WithoutContentIsRefused)
{
    token_.eContent = Bytes{};
    ExpectRefused(PELNIC_ERR_TSP_DECODE);
}

TEST_F(TimestampTest, WithEmptyContentIsRefused)
{
    for (const Bytes& empty : {Ctx(0), Ctx(0, Octets({}))}) {
        token_.eContent = empty;
        ExpectRefused(PELNIC_ERR_NULL_POINTER);
    }
}

TEST_F(TimestampTest, WithContentThatIsNoElementIsRefused)
{
    for (const Bytes& garbage : {Bytes{0x04}, Tlv(0x04, 5, {0x01, 0x02}), Bytes{0x24, 0x80, 0x00, 0x00}}) {
        token_.eContent = Ctx(0, garbage);
        ExpectRefused(PELNIC_ERR_ASN_DECODE);
    }
}

TEST_F(TimestampTest, WithContentThatIsNoTstInfoIsRefused)
{
    for (const Bytes& garbage : {Octets({0x01, 0x02}), Octets(Seq()), Octets(Octets(Seq(Int(1)))), Seq(Int(1))}) {
        token_.eContent = Ctx(0, garbage);
        ExpectRefused(PELNIC_ERR_TSP_DECODE);
    }
}

// The octet string is read whatever its tag.
TEST_F(TimestampTest, MayHaveItsContentUnderAnyTag)
{
    CmsSpec cms = Cms({[this](const Bytes& stamped) {
        TokenSpec token = token_;
        token.eContent = Ctx(0, Tlv(0x0C, TstInfo(token_, stamped)));
        return Timestamp(token)(stamped);
    }});
    SignatureTest::ExpectAccepted(cms);
}

// The content type of the token says TSTInfo by custom only.
TEST_F(TimestampTest, MayCallItsContentAnything)
{
    CmsSpec cms = Cms({[this](const Bytes& stamped) {
        const Bytes token = TimestampToken(token_, stamped);
        return Attribute(oid::timestampToken, Replace(token, {1, 0, 2, 0}, Oid(oid::data)));
    }});
    SignatureTest::ExpectAccepted(cms);
}

TEST_F(TimestampTest, ChecksNoOtherField)
{
    token_.version = 7;
    token_.policy = Oid(oid::data);
    token_.serial = {0x7F};
    token_.accuracy = Accuracy(86400);
    token_.ordering = Bool(true);
    token_.nonce = Int(12345);
    token_.tsa = Ctx(0, Content(TestName("another authority"), {}));
    token_.extensions = Ctx(1, Ext(oid::testPolicy, Null(), true));
    ExpectAccepted();
}

TEST_F(TimestampTest, WithAnAccuracyWithoutSecondsIsRefused)
{
    token_.accuracy = Seq(CtxPrim(0, {0x05}));
    ExpectRefused(PELNIC_ERR_TSP_DECODE);
}

// ---- The imprint ----

TEST_F(TimestampTest, ImprintIsTheHashOfTheSignatureValue)
{
    ExpectAccepted();
    CmsSpec cms = Cms({[this](const Bytes&) { return Timestamp(token_)(Text("another signature")); }});
    SignatureTest::ExpectRefused(cms, PELNIC_ERR_TSP_IMPRINT_MISMATCH, kNotOurs);
    cms = Cms({[this](const Bytes& stamped) { return Timestamp(token_)(Octets(stamped)); }});
    SignatureTest::ExpectRefused(cms, PELNIC_ERR_TSP_IMPRINT_MISMATCH, kNotOurs);
}

TEST_F(TimestampTest, ImprintMayUseEveryShaTwoByEitherName)
{
    for (Hash hash : {Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
        for (std::string_view name : {HashOid(hash), RsaSignatureOid(hash)}) {
            token_.imprintHash = hash;
            token_.imprintAlgorithm = AlgoId(name);
            ExpectAccepted();
        }
    }
}

TEST_F(TimestampTest, ImprintMayUseNoOtherHash)
{
    for (std::string_view name : {oid::sha1, oid::md5, oid::rsaEncryption}) {
        token_.imprintAlgorithm = AlgoId(name);
        ExpectRefused(PELNIC_ERR_UNSUPPORTED_ALGO);
    }
}

TEST_F(TimestampTest, ImprintMustAgreeInItsLength)
{
    const auto stampedWith = [this](std::size_t length) {
        return Cms({[this, length](const Bytes& stamped) {
            TokenSpec token = token_;
            token.imprint = Digest(Hash::Sha256, stamped);
            token.imprint->resize(length);
            return Timestamp(token)(stamped);
        }});
    };
    SignatureTest::ExpectAccepted(stampedWith(32));
    for (std::size_t length : {0u, 1u, 31u, 33u, 64u}) {
        SignatureTest::ExpectRefused(stampedWith(length), PELNIC_ERR_TSP_IMPRINT_MISMATCH, kNotOurs);
    }
}

// ---- The time ----

TEST_F(TimestampTest, SetsTheTimeOfTheVerification)
{
    for (const Bytes& time : {GenTime("20260101000000Z"), UtcTime("260101000000Z")}) {
        token_.time = time;
        ExpectAccepted();
        EXPECT_EQ(Current()->base_time, k2026);
    }
}

TEST_F(TimestampTest, TimeStaysUntilTheNext)
{
    ExpectAccepted();
    EXPECT_EQ(Begin(Cms({})), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Current()->base_time, k2026);
    token_.time = GenTime("20260101000001Z");
    EXPECT_EQ(Begin(Cms()), 0u);
    EXPECT_EQ(Current()->base_time, k2026 + 1);
}

TEST_F(TimestampTest, TimeIsThatOfTheLastSigner)
{
    TokenSpec later = token_;
    later.time = GenTime("20260101000005Z");
    CmsSpec cms = Cms();
    cms.signers.push_back(cms.signers[0]);
    cms.signers[1].unsignedAttributes = {Timestamp(later)};
    SignatureTest::ExpectAccepted(cms);
    EXPECT_EQ(Current()->base_time, k2026 + 5);
    std::swap(cms.signers[0], cms.signers[1]);
    SignatureTest::ExpectAccepted(cms);
    EXPECT_EQ(Current()->base_time, k2026);
}

// The time is taken before the token's own signature is looked at.
TEST_F(TimestampTest, SetsTheTimeEvenOfABadToken)
{
    Authority().brokenSignature = true;
    ExpectRefused(PELNIC_ERR_CMS_SIGNATURE);
    EXPECT_EQ(Current()->base_time, k2026);
}

TEST_F(TimestampTest, WantsATimeInWholeSecondsAndUtc)
{
    token_.time = GenTime("20260101000000.5Z");
    ExpectRefused(PELNIC_ERR_NULL_POINTER);
    token_.time = GenTime("20260101000000+0000");
    ExpectRefused(PELNIC_ERR_NULL_POINTER);
    token_.time = GenTime("202601010000000");
    ExpectRefused(PELNIC_ERR_SYS_TIME_FORMAT);
    token_.time = Utf8("20260101000000Z");
    ExpectRefused(PELNIC_ERR_SYS_TIME_FORMAT);
    EXPECT_EQ(Current()->base_time, 0);
}

TEST_F(TimestampTest, DecidesWhetherTheSignerIsValid)
{
    pki_.signer.notBefore = UtcTime("210101000000Z");
    pki_.signer.notAfter = UtcTime("211231235959Z"); // expired for long, whatever the clock says
    for (const char* time : {"20210101000000Z", "20210601000000Z", "20211231235959Z"}) {
        token_.time = GenTime(time);
        ExpectAccepted();
    }
    for (const char* time : {"20201231235959Z", "20220101000000Z"}) {
        token_.time = GenTime(time);
        ExpectRefused(PELNIC_ERR_CERT_VERIFY);
    }
}

TEST_F(TimestampTest, DecidesWhetherTheAuthorityIsValid)
{
    pki_.tsa.notAfter = UtcTime("211231235959Z");
    Reissue();
    token_.time = GenTime("20211231235959Z");
    ExpectAccepted();
    token_.time = GenTime("20220101000000Z");
    ExpectRefused(PELNIC_ERR_CERT_VERIFY);
}

TEST_F(TimestampTest, DecidesWhetherTheCrlsAreCurrent)
{
    pki_.signingCrl.nextUpdate = UtcTime("260101000000Z");
    ExpectAccepted();
    token_.time = GenTime("20260101000001Z");
    ExpectRefused(PELNIC_ERR_CERT_VERIFY);
    EXPECT_TRUE(
        LoggedWarning(plan_, PELNIC_ERR_CRL_EXPIRED, "Found an expired CRL, it most likely cause NO CRL error."));
}

TEST_F(TimestampTest, DecidesWhetherTheSignerIsRevokedYet)
{
    pki_.signingCrl.revoked = {{pki_.signer.serial, UtcTime("260101000001Z"), 1}};
    ExpectAccepted();
    token_.time = GenTime("20260101000001Z");
    ExpectRefused(PELNIC_ERR_CERT_VERIFY);
}

// ---- The authority's certificate ----

TEST_F(TimestampTest, BringsTheAuthoritysCertificates)
{
    ExpectAccepted();
    const PELNIC_PKI_STORE& store = static_cast<const PELNIC_PKI*>(Current()->pki_ctx)->pki_store;
    EXPECT_EQ(store.local_store->local_certs.num, 2u); // signer and authority
    EXPECT_EQ(store.trust_store->ca_certs.num, 3u);    // the root and two CAs
}

TEST_F(TimestampTest, WithoutTheAuthoritysCertificateIsRefused)
{
    token_.cms.certificates.pop_back();
    ExpectRefused(PELNIC_ERR_TSP_CERT_NOT_FOUND);
}

TEST_F(TimestampTest, ByAnAuthorityThatIsACaIsRefused)
{
    pki_.tsa.basicConstraints = Ca();
    Reissue();
    ExpectRefused(PELNIC_ERR_TSP_CERT_NOT_FOUND);
}

TEST_F(TimestampTest, PassesASelfSignedCertificateOver)
{
    const DemoPki rogue(KeyId::Rsa2048H);
    token_ = DemoToken(rogue);
    token_.cms.certificates.push_back(Build(rogue.root));
    ExpectRefused(PELNIC_ERR_CERT_VERIFY);
    EXPECT_TRUE(LoggedWarning(plan_, PELNIC_ERR_CERT_ROOT_IN_CMS,
                              "found a root certificate in the signer info, which is not allowed."));
}

TEST_F(TimestampTest, WantsThePurposeTimeStamping)
{
    using Purposes = std::vector<std::string_view>;
    for (const Purposes& purposes : {Purposes{}, Purposes{oid::codeSigning}, Purposes{oid::serverAuth}}) {
        pki_.tsa.extendedKeyUsage = purposes;
        Reissue();
        ExpectRefused(PELNIC_ERR_CERT_USAGE);
    }
    pki_.tsa.extendedKeyUsage = {oid::codeSigning, oid::timeStamping};
    Reissue();
    ExpectAccepted();
}

TEST_F(TimestampTest, WantsTheUsageDigitalSignature)
{
    pki_.tsa.keyUsage = usage::nonRepudiation;
    Reissue();
    ExpectRefused(PELNIC_ERR_CERT_USAGE);
    pki_.tsa.keyUsage.reset();
    Reissue();
    ExpectRefused(PELNIC_ERR_NO_KEY_USAGE);
}

TEST_F(TimestampTest, ByARevokedAuthorityIsRefused)
{
    pki_.tsaCrl.revoked = {{pki_.tsa.serial}};
    ExpectRefused(PELNIC_ERR_CERT_VERIFY);
}

// ---- The token's own signature, over signed attributes ----

TEST_F(TimestampTest, OverAlteredAttributesIsRefused)
{
    Authority().edit = [](const Bytes& signer) { return Damage(signer, {3, 1, 1, 0}); };
    ExpectRefused(PELNIC_ERR_CMS_SIGNATURE);
}

TEST_F(TimestampTest, OfAWrongValueIsRefused)
{
    Authority().brokenSignature = true;
    ExpectRefused(PELNIC_ERR_CMS_SIGNATURE);
}

TEST_F(TimestampTest, WithAnyOtherDigestThanShaTwoIsWrong)
{
    for (std::string_view digest : {oid::sha1, oid::md5}) {
        Authority().digestAlgorithm = AlgoId(digest);
        ExpectRefused(PELNIC_ERR_CMS_SIGNATURE);
    }
}

TEST_F(TimestampTest, MayUseEveryShaTwo)
{
    for (const bool direct : {false, true}) {
        if (direct) Authority().signedAttributes = nullptr;
        for (Hash hash : {Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
            Authority().hash = hash;
            ExpectAccepted();
        }
    }
}

TEST_F(TimestampTest, WithoutAMessageDigestIsRefused)
{
    Authority().signedAttributes = [](const Bytes&) { return std::vector<Bytes>{ContentTypeAttribute(oid::tstInfo)}; };
    ExpectRefused(PELNIC_ERR_CMS_NO_MESSAGE_DIGEST);
}

TEST_F(TimestampTest, WithAnotherMessageDigestIsRefused)
{
    for (const auto& change : std::initializer_list<void (*)(Bytes&)>{[](Bytes& digest) { digest[31] ^= 0x01; },
                                                                      [](Bytes& digest) { digest.pop_back(); },
                                                                      [](Bytes& digest) { digest.push_back(0x00); }}) {
        Authority().signedAttributes = [change](Bytes digest) {
            change(digest);
            return std::vector<Bytes>{MessageDigestAttribute(digest)};
        };
        ExpectRefused(PELNIC_ERR_TSP_VERIFY, kBadToken);
    }
}

TEST_F(TimestampTest, OverAnAlteredTstInfoIsRefused)
{
    const CmsSpec cms = Cms({[this](const Bytes& stamped) {
        TokenSpec altered = token_;
        altered.time = GenTime("20210101000000Z");
        TokenSpec token = token_;
        token.eContent = Ctx(0, Octets(TstInfo(altered, stamped)));
        return Timestamp(token)(stamped);
    }});
    SignatureTest::ExpectRefused(cms, PELNIC_ERR_TSP_VERIFY, kBadToken);
}

// ---- The token's own signature, over the TSTInfo itself ----

TEST_F(TimestampTest, MayBeSignedDirectly)
{
    Authority().signedAttributes = nullptr;
    ExpectAccepted();
}

TEST_F(TimestampTest, SignedDirectlyMayUseNoOtherDigestThanShaTwo)
{
    Authority().signedAttributes = nullptr;
    for (std::string_view digest : {oid::sha1, oid::md5}) {
        Authority().digestAlgorithm = AlgoId(digest);
        ExpectRefused(PELNIC_ERR_CMS_HASH_ALGO);
    }
}

TEST_F(TimestampTest, SignedDirectlyWithAWrongValueIsRefused)
{
    Authority().signedAttributes = nullptr;
    Authority().brokenSignature = true;
    ExpectRefused(PELNIC_ERR_TSP_VERIFY);
}

TEST_F(TimestampTest, SignedDirectlyWithAKeyThatIsNotRsaIsRefused)
{
    pki_.tsa = Tsa(KeyId::EcP256);
    Reissue();
    Authority().key = KeyId::Rsa2048E;
    ExpectRefused(PELNIC_ERR_CMS_SIGNATURE);
    Authority().signedAttributes = nullptr;
    ExpectRefused(PELNIC_ERR_UNSUPPORTED_ALGO);
}

// ---- Several signers of a token ----

TEST_F(TimestampTest, NeedsEverySignerOfTheToken)
{
    token_.cms.signers.push_back(Authority());
    ExpectAccepted();
    token_.cms.signers[1].brokenSignature = true;
    ExpectRefused(PELNIC_ERR_CMS_SIGNATURE);
    std::swap(token_.cms.signers[0], token_.cms.signers[1]);
    ExpectRefused(PELNIC_ERR_CMS_SIGNATURE);
}

TEST_F(TimestampTest, WithoutSignersSetsTheTime)
{
    token_.cms.signers.clear();
    token_.cms.digestAlgorithms = std::vector<Bytes>{};
    ExpectAccepted();
    EXPECT_EQ(Current()->base_time, k2026);
}

// ---- What is looked at first ----

TEST_F(TimestampTest, IsAskedForItsImprintBeforeItsSignature)
{
    Authority().brokenSignature = true;
    token_.imprint = Bytes(32, 0x5A);
    ExpectRefused(PELNIC_ERR_TSP_IMPRINT_MISMATCH, kNotOurs);
    EXPECT_EQ(plan_.Count(Call::VerifyFinal), 0u);
}

// A token whose TSTInfo is refused brings no certificates.
TEST_F(TimestampTest, BringsItsCertificatesOnlyWithAGoodTstInfo)
{
    token_.imprint = Bytes(32, 0x5A);
    CmsSpec cms = Cms();
    cms.certificates.clear();
    SignatureTest::ExpectRefused(cms, PELNIC_ERR_TSP_IMPRINT_MISMATCH, kNotOurs);
    EXPECT_EQ(static_cast<const PELNIC_PKI*>(Current()->pki_ctx)->pki_store.local_store, nullptr);
}

// ---- The parts, called alone ----

// The signature with its token, decoded; begun before, so that the stores are filled and the time is set.
class TimestampParts : public TimestampTest {
protected:
    void Decode()
    {
        const CmsSpec spec = Cms();
        EXPECT_EQ(Begin(spec), 0u);
        plan_.ClearLogs();
        const Bytes der = DetachedCms(payload_, spec);
        cms_ = DecodeCms(Current().Record(), der);
        const Bytes token = Extract(der, {1, 0, 4, 0, 6, 0, 1, 0});
        tokenCms_ = DecodeCms(Current().Record(), token);
        tstInfo_ = Content(token, {1, 0, 2, 1, 0});
    }
    void TearDown() override
    {
        cms_.reset();
        tokenCms_.reset();
        TimestampTest::TearDown();
    }

    PELNIC_ASN_OCTS EncodedTstInfo()
    {
        PELNIC_ASN_OCTS octets{};
        octets.len = Len(tstInfo_);
        octets.octs = tstInfo_.data();
        return octets;
    }
    PELNIC_ERROR_CODE VerifyTokenSigner()
    {
        const PELNIC_ASN_OCTS octets = EncodedTstInfo();
        return _pnvVerifyTsSignerInfo(Current().Record(), SignerOf(tokenCms_), &octets);
    }
    PELNIC_ERROR_CODE VerifyTstInfo()
    {
        const PELNIC_ASN_OCTS octets = EncodedTstInfo();
        return _pnvVerifyTstInfo(Current().Record(), &octets, SignerOf(cms_));
    }

    OwnedCms cms_;
    OwnedCms tokenCms_;
    Bytes tstInfo_;
};

TEST_F(TimestampParts, AllAcceptAGoodToken)
{
    Decode();
    EXPECT_EQ(_pnvVerifyTimeStamp(Current().Record(), SignerOf(cms_)), 0u);
    EXPECT_EQ(VerifyTstInfo(), 0u);
    EXPECT_EQ(VerifyTokenSigner(), 0u);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(TimestampParts, RefuseAnAlteredTstInfoWithAMessage)
{
    Decode();
    tstInfo_.back() ^= 0x01;
    EXPECT_EQ(VerifyTokenSigner(), PELNIC_ERR_TSP_VERIFY);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_TSP_VERIFY, kBadToken));
}

TEST_F(TimestampParts, RefuseAnAlteredTstInfoSignedDirectlySilently)
{
    Authority().signedAttributes = nullptr;
    Decode();
    EXPECT_EQ(VerifyTokenSigner(), 0u);
    tstInfo_.back() ^= 0x01;
    EXPECT_EQ(VerifyTokenSigner(), PELNIC_ERR_TSP_VERIFY);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(TimestampParts, PassAFailedDirectCheckUp)
{
    Authority().signedAttributes = nullptr;
    Decode();
    Current()->vrf_params.no_check_crl = 1;
    plan_.Fail(Call::VerifyCreate, 1); // the chain's signatures are known already
    EXPECT_EQ(VerifyTokenSigner(), PELNIC_ERR_FAILED);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_FAILED));
}

// An empty set that is there counts as none here, other than for the signers of the content.
TEST_F(TimestampParts, TakeAnEmptySetOfAttributesForADirectSignature)
{
    Decode();
    PNV_UINT32& attributes = SignerOf(tokenCms_)->auth_attrs->attrs.num;
    const PNV_UINT32 all = std::exchange(attributes, 0);
    EXPECT_EQ(VerifyTokenSigner(), PELNIC_ERR_TSP_VERIFY);
    EXPECT_EQ(plan_.VerifyRequests().back().data, tstInfo_);
    attributes = all;
    EXPECT_EQ(VerifyTokenSigner(), 0u);
}

TEST_F(TimestampParts, LogTheCodeOfATstInfoThatDoesNotDecode)
{
    Decode();
    tstInfo_.pop_back();
    EXPECT_EQ(VerifyTstInfo(), PELNIC_ERR_TSP_DECODE);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_TSP_DECODE));
}

TEST_F(TimestampParts, LogTheCodeOfAHashThatFails)
{
    Decode();
    for (Call step : {Call::MdCreate, Call::MdInit, Call::MdUpdate, Call::MdFinal}) {
        plan_.ClearLogs();
        plan_.Fail(step, 1);
        EXPECT_EQ(VerifyTstInfo(), PELNIC_ERR_FAILED);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_FAILED));
        plan_.ClearLogs();
        plan_.Fail(step, 1); // of the TSTInfo, for the signed attributes
        EXPECT_EQ(VerifyTokenSigner(), PELNIC_ERR_FAILED);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_FAILED));
    }
    EXPECT_EQ(VerifyTokenSigner(), 0u);
}

// ---- Whether a certificate may be used ----

class IssuerCert : public TimestampTest {
protected:
    PELNIC_ERROR_CODE Check(const CertSpec& spec, PNV_UINT32 purpose)
    {
        plan_.ClearLogs();
        Renew();
        EXPECT_EQ(Begin(Cms()), 0u);
        const OwnedCert cert = DecodeCert(Current().Record(), Build(spec));
        return _pnvVerifyIssuerCert(Current().Record(), cert.get(), purpose);
    }
    void ExpectRefused(const CertSpec& spec, PNV_UINT32 purpose, PELNIC_ERROR_CODE rc)
    {
        EXPECT_EQ(Check(spec, purpose), rc);
        EXPECT_TRUE(LoggedError(plan_, rc));
    }

    static constexpr PNV_UINT32 kCodeSigning = 8;
    static constexpr PNV_UINT32 kTimeStamping = 64;
};

TEST_F(IssuerCert, IsGoodForItsPurposeOnly)
{
    EXPECT_EQ(Check(pki_.signer, kCodeSigning), 0u);
    EXPECT_EQ(Check(pki_.tsa, kTimeStamping), 0u);
    EXPECT_TRUE(plan_.Logs().empty());
    ExpectRefused(pki_.signer, kTimeStamping, PELNIC_ERR_CERT_USAGE);
    ExpectRefused(pki_.tsa, kCodeSigning, PELNIC_ERR_CERT_USAGE);
}

TEST_F(IssuerCert, IsAskedForItsUsageThenItsPurposeThenItsChain)
{
    CertSpec cert = pki_.signer;
    cert.brokenSignature = true;
    ExpectRefused(cert, kCodeSigning, PELNIC_ERR_CERT_VERIFY);
    cert.extendedKeyUsage = {oid::timeStamping};
    ExpectRefused(cert, kCodeSigning, PELNIC_ERR_CERT_USAGE);
    cert.extendedKeyUsage.clear();
    cert.extraExtensions = {Ext(oid::extKeyUsage, Int(5))};
    ExpectRefused(cert, kCodeSigning, PELNIC_ERR_ASN_DECODE);
    cert.keyUsage = usage::keyAgreement;
    ExpectRefused(cert, kCodeSigning, PELNIC_ERR_CERT_USAGE);
    cert.keyUsage.reset();
    ExpectRefused(cert, kCodeSigning, PELNIC_ERR_NO_KEY_USAGE);
}

} // namespace
} // namespace pnvtest
