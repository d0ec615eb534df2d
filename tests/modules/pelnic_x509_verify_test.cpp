// The signature of a CRL, by the key of its issuer.
#include "cmsverify/pelnic_x509_verify.h"

#include "support/pki.h"
#include "support/vrf.h"
#include "support/x509.h"

namespace pnvtest {
namespace {

// ---- Certificates and CRLs: one procedure, with one code and one null check that differ ----

struct CertKind {
    using Record = PELNIC_X509_CERT;
    using Spec = CertSpec;
    static constexpr PELNIC_ERROR_CODE kAlgorithmsDiffer = PELNIC_ERR_CERT_VERIFY;
    static constexpr auto Verify = &pelnic_x509_cert_verify;
    // Issued by Rsa2048A.
    static CertSpec Sample() { return Intermediate("Test CA"); }
    static OwnedCert Decode(const PELNIC_VRF* vrf, const Bytes& der) { return DecodeCert(vrf, der); }
};

struct CrlKind {
    using Record = PELNIC_X509_CRL;
    using Spec = CrlSpec;
    static constexpr PELNIC_ERROR_CODE kAlgorithmsDiffer = PELNIC_ERR_FAILED;
    static constexpr auto Verify = &pelnic_x509_crl_verify;
    static CrlSpec Sample() { return Indirect(CrlOf(Root())); }
    static OwnedCrl Decode(const PELNIC_VRF* vrf, const Bytes& der) { return DecodeCrl(vrf, der); }
};

struct KindName {
    template <typename Kind> static std::string GetName(int)
    {
        return std::is_same_v<Kind, CertKind> ? "Certificate" : "Crl";
    }
};
using Kinds = ::testing::Types<CertKind, CrlKind>;

template <typename Kind> class SignedVerify : public ::testing::Test {
protected:
    using Record = typename Kind::Record;

    // With the result preset to what no check yields.
    PELNIC_ERROR_CODE Verify(const Record* record, const PELNIC_PUBKEY* key)
    {
        result_ = 77;
        return Kind::Verify(vrf_, record, key, &result_);
    }
    void Expect(const Record* record, const PELNIC_PUBKEY* key, PELNIC_ERROR_CODE rc, PNV_BOOL result)
    {
        EXPECT_EQ(Verify(record, key), rc);
        if (rc == 0) {
            EXPECT_EQ(result_, result);
        } else {
            EXPECT_NE(result_, 1u);
        }
    }
    void Expect(const typename Kind::Spec& spec, PELNIC_ERROR_CODE rc, PNV_BOOL result)
    {
        const OwnedKey key = DecodeKey(vrf_, Spki(spec.issuerKey));
        Expect(Kind::Decode(vrf_, Build(spec)).get(), key.get(), rc, result);
    }
    // With the two algorithm fields saying this, while the signature is one of sha256WithRSAEncryption.
    void ExpectWith(const Bytes& inner, const Bytes& outer, PELNIC_ERROR_CODE rc, PNV_BOOL result = 0)
    {
        typename Kind::Spec spec = Kind::Sample();
        spec.innerAlgorithm = inner;
        spec.outerAlgorithm = outer;
        Expect(spec, rc, result);
    }

    Vrf vrf_;
    const Bytes sample_ = Build(Kind::Sample());
    const OwnedKey key_ = DecodeKey(vrf_, Spki(KeyId::Rsa2048A));
    PNV_BOOL result_ = 77;
};
TYPED_TEST_SUITE(SignedVerify, Kinds, KindName);

TYPED_TEST(SignedVerify, AcceptsGoodSignatures)
{
    for (KeyId id : {KeyId::Rsa2048A, KeyId::Rsa3072, KeyId::Rsa4096}) {
        for (Hash hash : {Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
            typename TypeParam::Spec spec = TypeParam::Sample();
            spec.issuerKey = id;
            spec.hash = hash;
            this->Expect(spec, 0, 1);
        }
    }
    EXPECT_TRUE(this->vrf_.Plan().Logs().empty());
}

TYPED_TEST(SignedVerify, HashesTheSignedPartAsItWasEncoded)
{
    const auto record = TypeParam::Decode(this->vrf_, this->sample_);
    ASSERT_EQ(this->Verify(record.get(), this->key_.get()), 0u);
    ASSERT_EQ(this->vrf_.Plan().VerifyRequests().size(), 1u);
    const VerifyRequest& request = this->vrf_.Plan().VerifyRequests()[0];
    EXPECT_EQ(request.hashId, PNV_UINT32{AOID_SHA256});
    EXPECT_EQ(request.exponent, TestKey(KeyId::Rsa2048A).exponent);
    EXPECT_EQ(request.modulus, TestKey(KeyId::Rsa2048A).modulus);
    EXPECT_EQ(request.data, Extract(this->sample_, {0}));
    EXPECT_EQ(request.signature, Content(*record->signature));
}

// BER is signed as it stands: 30 84 00 00 .. ..
TYPED_TEST(SignedVerify, AcceptsASignedPartWithANonMinimalHeader)
{
    typename TypeParam::Spec spec = TypeParam::Sample();
    spec.editTbs = [](const Bytes& der) { return TlvLong(0x30, 4, Content(der, {})); };
    this->Expect(spec, 0, 1);
}

TYPED_TEST(SignedVerify, ABadSignatureIsNoError)
{
    typename TypeParam::Spec spec = TypeParam::Sample();
    spec.brokenSignature = true;
    this->Expect(spec, 0, 0);
    EXPECT_TRUE(this->vrf_.Plan().Logs().empty());
}

TYPED_TEST(SignedVerify, TheKeyOfAnotherIssuerIsNoError)
{
    const OwnedKey other = DecodeKey(this->vrf_, Spki(KeyId::Rsa2048B));
    this->Expect(TypeParam::Decode(this->vrf_, this->sample_).get(), other.get(), 0, 0);
}

TYPED_TEST(SignedVerify, EveryOctetOfTheSignedPartCounts)
{
    const auto record = TypeParam::Decode(this->vrf_, this->sample_);
    PELNIC_ASN_OCTS& covered = *record->raw_signed;
    for (PNV_UINT32 i = 0; i < covered.len; ++i) {
        covered.octs[i] ^= 0x01;
        EXPECT_EQ(this->Verify(record.get(), this->key_.get()), 0u);
        ASSERT_EQ(this->result_, 0u) << "octet " << i;
        covered.octs[i] ^= 0x01;
    }
    this->Expect(record.get(), this->key_.get(), 0, 1);
}

TYPED_TEST(SignedVerify, OnlyVerdictOneIsGood)
{
    const auto record = TypeParam::Decode(this->vrf_, this->sample_);
    ForEveryVerdict(this->vrf_.Plan(), [&](PELNIC_ERROR_CODE code, PNV_INT verdict) {
        SCOPED_TRACE(::testing::Message() << code << " with " << verdict);
        this->Expect(record.get(), this->key_.get(), code, code == 0 && verdict == 1 ? 1 : 0);
    });
}

// ---- Algorithms ----

TYPED_TEST(SignedVerify, RefusesAlgorithmsThatDiffer)
{
    this->ExpectWith(AlgoId(oid::sha256WithRsa), AlgoId(oid::sha384WithRsa), TypeParam::kAlgorithmsDiffer);
    this->ExpectWith(AlgoId(oid::sha384WithRsa), AlgoId(oid::sha256WithRsa), TypeParam::kAlgorithmsDiffer);
    this->ExpectWith(AlgoId(oid::sha256), AlgoId(oid::sha256WithRsa), TypeParam::kAlgorithmsDiffer);
    this->ExpectWith(AlgoId(oid::ecdsaWithSha256), AlgoId(oid::sha256WithRsa), TypeParam::kAlgorithmsDiffer);
    EXPECT_EQ(this->vrf_.Plan().Count(calls::verification), 0u);
}

TYPED_TEST(SignedVerify, ParametersAreNotCompared)
{
    this->ExpectWith(AlgoId(oid::sha256WithRsa), AlgoId(oid::sha256WithRsa, {}), 0, 1);
    this->ExpectWith(AlgoId(oid::sha256WithRsa, Int(1)), AlgoId(oid::sha256WithRsa), 0, 1);
}

TYPED_TEST(SignedVerify, RefusesAlgorithmsWithoutADigest)
{
    for (std::string_view algorithm :
         {oid::ecdsaWithSha256, oid::sha1WithRsa, oid::md5WithRsa, oid::rsaPss, oid::rsaEncryption, oid::testPolicy}) {
        this->ExpectWith(AlgoId(algorithm), AlgoId(algorithm), PELNIC_ERR_UNSUPPORTED_DIGEST);
    }
    EXPECT_EQ(this->vrf_.Plan().Count(calls::verification), 0u);
}

// Identifiers are compared after they were looked up, so all that are not in the table are the same.
TYPED_TEST(SignedVerify, TwoUnknownAlgorithmsDoNotDiffer)
{
    this->ExpectWith(AlgoId(oid::ecdsaWithSha256), AlgoId(oid::rsaPss), PELNIC_ERR_UNSUPPORTED_DIGEST);
}

TYPED_TEST(SignedVerify, RefusesBareDigests)
{
    for (std::string_view digest : {oid::sha256, oid::sha384, oid::sha512}) {
        this->ExpectWith(AlgoId(digest), AlgoId(digest), PELNIC_ERR_UNSUPPORTED_ALGO);
    }
    EXPECT_EQ(this->vrf_.Plan().Count(calls::verification), 0u);
}

// ---- Keys and signatures that cannot be used ----

TYPED_TEST(SignedVerify, RefusesAKeyThatIsNotRsa)
{
    const auto record = TypeParam::Decode(this->vrf_, this->sample_);
    const OwnedKey other = DecodeKey(this->vrf_, Seq(AlgoId(oid::sha256), Bits(0, {0x01})));
    this->Expect(record.get(), other.get(), PELNIC_ERR_UNSUPPORTED_ALGO, 0);
    const PELNIC_PUBKEY empty{AOID_RSA, nullptr};
    this->Expect(record.get(), &empty, PELNIC_ERR_CERT_VERIFY, 0);
}

TYPED_TEST(SignedVerify, RefusesAndLogsAKeyOf513Octets)
{
    const auto record = TypeParam::Decode(this->vrf_, this->sample_);
    const OwnedKey key = DecodeKey(this->vrf_, RsaSpki(Bytes(513, 0x81)));
    this->Expect(record.get(), key.get(), PELNIC_ERR_NULL_POINTER, 0);
    ASSERT_EQ(this->vrf_.Plan().Logs().size(), 1u);
    EXPECT_EQ(this->vrf_.Plan().Logs()[0].rc, PELNIC_ERR_FAILED);
    EXPECT_EQ(this->vrf_.Plan().Logs()[0].message, "Unsupported key length 4104");
}

// 03 01 00: there are no octets to point to.
TYPED_TEST(SignedVerify, RefusesAnEmptySignature)
{
    const auto record = TypeParam::Decode(this->vrf_, Replace(this->sample_, {2}, Bits(0, {})));
    this->Expect(record.get(), this->key_.get(), PELNIC_ERR_NULL_POINTER, 0);
    EXPECT_EQ(this->vrf_.Plan().Count(calls::verification), 0u);
}

TYPED_TEST(SignedVerify, RefusesNull)
{
    const auto record = TypeParam::Decode(this->vrf_, this->sample_);
    EXPECT_EQ(TypeParam::Verify(this->vrf_, nullptr, this->key_.get(), &this->result_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(TypeParam::Verify(this->vrf_, record.get(), nullptr, &this->result_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(TypeParam::Verify(this->vrf_, record.get(), this->key_.get(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(this->vrf_.Plan().Count(calls::verification), 0u);
    EXPECT_TRUE(this->vrf_.Plan().Logs().empty());
}

TYPED_TEST(SignedVerify, NothingVerifiesWithoutAContext)
{
    const auto record = TypeParam::Decode(this->vrf_, this->sample_);
    EXPECT_NE(TypeParam::Verify(nullptr, record.get(), this->key_.get(), &this->result_), 0u);
    EXPECT_NE(this->result_, 1u);
}

TEST(CrlVerify, RefusesANullContextAsSuch)
{
    Vrf vrf;
    const OwnedCrl crl = DecodeCrl(vrf, Build(CrlKind::Sample()));
    const OwnedKey key = DecodeKey(vrf, Spki(KeyId::Rsa2048A));
    PNV_BOOL result = 0;
    EXPECT_EQ(pelnic_x509_crl_verify(nullptr, crl.get(), key.get(), &result), PELNIC_ERR_NULL_POINTER);
}

// ---- Faults ----

// The context is destroyed once it exists; the plan complains otherwise.
template <typename Kind> class SignedVerifyFaults : public ::testing::Test {
};
TYPED_TEST_SUITE(SignedVerifyFaults, Kinds, KindName);

TYPED_TEST(SignedVerifyFaults, EveryFailingCallIsReturnedAndNeverGood)
{
    for (Calls kinds : {calls::verification, Call::Malloc | calls::copies}) {
        SweepFaults(
            kinds,
            [](CallbackPlan& plan) {
                Vrf vrf(plan);
                decltype(TypeParam::Decode(vrf, {})) record;
                OwnedKey key;
                plan.WithoutFaults([&] {
                    record = TypeParam::Decode(vrf, Build(TypeParam::Sample()));
                    key = DecodeKey(vrf, Spki(KeyId::Rsa2048A));
                });
                PNV_BOOL result = 77;
                const PELNIC_ERROR_CODE rc = TypeParam::Verify(vrf, record.get(), key.get(), &result);
                EXPECT_EQ(result, rc == 0 ? 1u : 0u);
                EXPECT_TRUE(plan.Logs().empty());
                return rc;
            },
            [&](PELNIC_ERROR_CODE rc, const FaultRun& run) {
                const PELNIC_ERROR_CODE fault = kinds.Has(Call::VerifyCreate) ? PELNIC_ERR_FAILED : injectedFault;
                EXPECT_EQ(rc, run.met ? fault : 0u);
            });
    }
}

} // namespace
} // namespace pnvtest
