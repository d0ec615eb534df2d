// The signature of one signer over a digest or its attributes.
#include "cmsverify/pelnic_pkcs7_verify.h"

#include "support/signature.h"

namespace pnvtest {
namespace {

constexpr PNV_INT kMark = 77;

// A signer with signed attributes, as its SignerInfo and the certificate to judge it by.
struct SignerAndCert {
    CmsSpec cms = FlatCms(FlatPki());
    CertSpec cert = FlatPki().signer;

    SignerSpec& Signer() { return cms.signers[0]; }
    Bytes SignerInfo() const { return Extract(DetachedCms(Text("content"), cms), {1, 0, 4, 0}); }
};

struct Answer {
    PELNIC_ERROR_CODE rc;
    PNV_INT result; // kMark when untouched
};

Answer Check(const PELNIC_VRF* vrf, const PELNIC_PKCS7_SIGNER_INFO* si, const PELNIC_X509_CERT* cert)
{
    Answer answer{0, kMark};
    answer.rc = pelnic_pkcs7_detached_signature_verify(vrf, si, cert, &answer.result);
    return answer;
}

class DetachedSignature : public ::testing::Test {
protected:
    Answer Check() { return Check(spec_.SignerInfo()); }
    Answer Check(const Bytes& signerInfo)
    {
        const auto si = DecodeItem<PELNIC_PKCS7_SIGNER_INFO_item>(vrf_, signerInfo);
        const OwnedCert cert = DecodeCert(vrf_, Build(spec_.cert));
        return pnvtest::Check(vrf_, si.get(), cert.get());
    }
    // With the answer of an operation that never got to the signature: its code, no log, the result untouched.
    void ExpectEarly(PELNIC_ERROR_CODE rc)
    {
        const Answer answer = Check();
        EXPECT_EQ(answer.rc, rc);
        EXPECT_EQ(answer.result, kMark);
        EXPECT_TRUE(vrf_.Plan().Logs().empty());
    }
    void ExpectGood()
    {
        const Answer answer = Check();
        EXPECT_EQ(answer.rc, 0u);
        EXPECT_EQ(answer.result, 1);
        EXPECT_TRUE(vrf_.Plan().Logs().empty());
    }
    void ExpectBad(const Bytes& signerInfo)
    {
        const Answer answer = Check(signerInfo);
        EXPECT_EQ(answer.rc, 0u);
        EXPECT_EQ(answer.result, 0);
        EXPECT_TRUE(vrf_.Plan().Logs().empty());
    }

    Vrf vrf_;
    SignerAndCert spec_;
};

TEST_F(DetachedSignature, CoversTheSignedAttributesAsASet)
{
    const Bytes signerInfo = spec_.SignerInfo();
    EXPECT_EQ(Check(signerInfo).result, 1);
    ASSERT_EQ(vrf_.Plan().VerifyRequests().size(), 1u);
    const VerifyRequest& request = vrf_.Plan().VerifyRequests()[0];
    EXPECT_EQ(request.hashId, static_cast<PNV_UINT32>(AOID_SHA256));
    EXPECT_EQ(request.exponent, TestKey(spec_.cert.key).exponent);
    EXPECT_EQ(request.modulus, TestKey(spec_.cert.key).modulus);
    EXPECT_EQ(request.data, Set(Content(signerInfo, {3})));
    EXPECT_EQ(request.signature, Content(signerInfo, {5}));
}

TEST_F(DetachedSignature, DoesNotLookAtTheContent)
{
    spec_.Signer().signedAttributes = [](const Bytes&) { return std::vector<Bytes>{ContentTypeAttribute(oid::data)}; };
    ExpectGood();
}

TEST_F(DetachedSignature, IsBadWhenAnAttributeWasAltered)
{
    ExpectBad(Damage(spec_.SignerInfo(), {3, 1, 1, 0}));
}

TEST_F(DetachedSignature, IsBadWhenItWasAltered)
{
    spec_.Signer().brokenSignature = true;
    ExpectBad(spec_.SignerInfo());
}

TEST_F(DetachedSignature, IsBadWithAnotherKey)
{
    spec_.cert.key = KeyId::Rsa2048F;
    ExpectBad(spec_.SignerInfo());
}

// A value of any length, none included, is the callback's to judge.
TEST_F(DetachedSignature, IsBadWithALengthThatNoSignatureHas)
{
    for (std::size_t length : {0u, 1u, 255u, 257u, 1000u}) {
        spec_.Signer().signature = Bytes(length, 0x5A);
        ExpectBad(spec_.SignerInfo());
    }
}

TEST_F(DetachedSignature, TakesEveryShaTwoByEitherName)
{
    for (Hash hash : {Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
        spec_.Signer().hash = hash;
        for (std::string_view name : {HashOid(hash), RsaSignatureOid(hash)}) {
            spec_.Signer().digestAlgorithm = AlgoId(name);
            ExpectGood();
        }
    }
}

TEST_F(DetachedSignature, IgnoresParametersAndSignatureAlgorithm)
{
    spec_.Signer().digestAlgorithm = AlgoId(oid::sha256, Int(5));
    spec_.Signer().signatureAlgorithm = AlgoId(oid::ecdsaWithSha256, {});
    ExpectGood();
}

TEST_F(DetachedSignature, RefusesAnyOtherDigest)
{
    for (std::string_view name : {oid::sha1, oid::md5, oid::sha1WithRsa, oid::rsaEncryption, oid::data}) {
        spec_.Signer().digestAlgorithm = AlgoId(name);
        ExpectEarly(PELNIC_ERR_CMS_HASH_ALGO);
    }
    EXPECT_EQ(vrf_.Plan().Count(calls::crypto), 0u);
}

TEST_F(DetachedSignature, RefusesAKeyThatIsNotRsa)
{
    spec_.cert.key = KeyId::EcP256;
    ExpectEarly(PELNIC_ERR_CERT_INVALID);
}

TEST_F(DetachedSignature, RefusesAKeyAbove4096Bits)
{
    spec_.cert.subjectPublicKey = RsaSpki(Bytes(513, 0xC1));
    ExpectEarly(PELNIC_ERR_SYS_MEM_OVERFLOW);
}

TEST_F(DetachedSignature, RefusesNull)
{
    const auto si = DecodeItem<PELNIC_PKCS7_SIGNER_INFO_item>(vrf_, spec_.SignerInfo());
    const OwnedCert cert = DecodeCert(vrf_, Build(spec_.cert));
    for (const Answer& answer : {pnvtest::Check(vrf_, nullptr, cert.get()), pnvtest::Check(vrf_, si.get(), nullptr)}) {
        EXPECT_EQ(answer.rc, PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(answer.result, kMark);
    }
    EXPECT_EQ(pelnic_pkcs7_detached_signature_verify(vrf_, si.get(), cert.get(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

// ---- What the crypto callbacks say ----

TEST_F(DetachedSignature, HasTheVerdictOfTheCallback)
{
    for (PNV_INT verdict : {-1, 0, 1, 2, 256}) {
        vrf_.Plan().StubVerification(0, verdict);
        const Answer answer = Check();
        EXPECT_EQ(answer.rc, 0u);
        EXPECT_EQ(answer.result, verdict);
    }
}

TEST_F(DetachedSignature, HasNoVerdictNextToACode)
{
    vrf_.Plan().StubVerification(injectedFault, 1);
    const Answer answer = Check();
    EXPECT_EQ(answer.rc, injectedFault);
    EXPECT_EQ(answer.result, 0);
    EXPECT_TRUE(LoggedError(vrf_.Plan(), injectedFault, "Failed to get verify result."));
}

// Nothing was created, so nothing is destroyed.
TEST_F(DetachedSignature, PassesAFailedCreationUpUnlogged)
{
    vrf_.Plan().Fail(Call::VerifyCreate, 1);
    ExpectEarly(PELNIC_ERR_FAILED);
    EXPECT_EQ(vrf_.Plan().Count(Call::VerifyDestroy), 0u);
}

TEST_F(DetachedSignature, SaysWhichStepFailed)
{
    const std::pair<Call, const char*> steps[] = {
        {Call::VerifyInit, "Failed to init verify context."},
        {Call::VerifyUpdate, "Failed updating data to verify context."},
        {Call::VerifyFinal, "Failed to get verify result."},
    };
    std::size_t destroyed = 0;
    for (const auto& [step, message] : steps) {
        SCOPED_TRACE(message);
        vrf_.Plan().ClearLogs();
        vrf_.Plan().Fail(step, 1);
        const Answer answer = Check();
        EXPECT_EQ(answer.rc, PELNIC_ERR_FAILED);
        EXPECT_EQ(answer.result, 0);
        EXPECT_TRUE(LoggedError(vrf_.Plan(), PELNIC_ERR_FAILED, message));
        EXPECT_EQ(vrf_.Plan().Count(Call::VerifyDestroy), ++destroyed);
    }
}

// A plan for each run, so none in the fixture.
TEST(DetachedSignatureFaults, NeverMakeABadSignatureGood)
{
    SignerAndCert spec;
    for (bool broken : {false, true}) {
        spec.Signer().brokenSignature = broken;
        const Bytes signerInfo = spec.SignerInfo();
        const Bytes encodedCert = Build(spec.cert);
        const auto check = [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            OwnedItem<PELNIC_PKCS7_SIGNER_INFO_item> si;
            OwnedCert cert;
            plan.WithoutFaults([&] {
                si = DecodeItem<PELNIC_PKCS7_SIGNER_INFO_item>(vrf, signerInfo);
                cert = DecodeCert(vrf, encodedCert);
            });
            return Check(vrf, si.get(), cert.get());
        };
        const Calls kinds = Call::Malloc | calls::copies | Call::Memcmp | calls::verification | Call::VerifyVerdict;
        SweepFaults(kinds, check, [broken](const Answer& answer, const FaultRun& run) {
            const bool accepted = answer.rc == 0 && answer.result == 1;
            EXPECT_TRUE(accepted || run.met || broken);
            EXPECT_FALSE(accepted && broken);
            EXPECT_FALSE(answer.rc != 0 && answer.result == 1);
        });
    }
}

} // namespace
} // namespace pnvtest
