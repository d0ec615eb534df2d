// Questions to a certificate: is it self-signed, what may its key be used for.
#include "cmsverify/pelnic_x509_cert.h"

#include "support/pki.h"
#include "support/vrf.h"
#include "support/x509.h"

namespace pnvtest {
namespace {

// What an operation answered; the result was preset to a value that no certificate yields.
struct Answer {
    PELNIC_ERROR_CODE rc;
    PNV_UINT32 value = 0x77777777;
};

// ---- Self-signed certificates ----

Answer IsSelfSigned(const PELNIC_VRF* vrf, const PELNIC_X509_CERT* cert)
{
    Answer answer{};
    answer.rc = pelnic_x509_is_self_signed(vrf, cert, &answer.value);
    return answer;
}

class SelfSigned : public ::testing::Test {
protected:
    OwnedCert Decode(const CertSpec& spec) { return DecodeCert(vrf_, Build(spec)); }
    void Expect(const OwnedCert& cert, PELNIC_ERROR_CODE rc, PNV_BOOL value)
    {
        const Answer answer = IsSelfSigned(vrf_, cert.get());
        EXPECT_EQ(answer.rc, rc);
        EXPECT_EQ(answer.value, value);
    }
    std::size_t Verifications() { return vrf_.Plan().Count(Call::VerifyCreate); }

    Vrf vrf_;
};

TEST_F(SelfSigned, ARootIs)
{
    for (KeyId id : {KeyId::Rsa2048A, KeyId::Rsa3072, KeyId::Rsa4096}) {
        const OwnedCert root = Decode(Root(id));
        Expect(root, 0, 1);
        EXPECT_EQ(root->pIssuer, root.get());
    }
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(SelfSigned, VerifiesTheSignatureOnlyOnce)
{
    const OwnedCert root = Decode(Root());
    Expect(root, 0, 1);
    ASSERT_EQ(Verifications(), 1u);
    Expect(root, 0, 1);
    EXPECT_EQ(Verifications(), 1u);
}

TEST_F(SelfSigned, ACertificateThatIsItsOwnIssuerIsWithoutACheck)
{
    const OwnedCert cert = Decode(Intermediate("Test CA"));
    cert->pIssuer = cert.get();
    Expect(cert, 0, 1);
    EXPECT_EQ(Verifications(), 0u);
}

TEST_F(SelfSigned, ACertificateOfAnotherIssuerIsNot)
{
    const OwnedCert cert = Decode(Intermediate("Test CA"));
    Expect(cert, 0, 0);
    EXPECT_EQ(cert->pIssuer, nullptr);
    EXPECT_EQ(Verifications(), 0u);
}

// Self-issued, as in a key change (RFC 5280, 6.1), but signed with the old key.
TEST_F(SelfSigned, ACertificateSignedWithAnotherKeyIsNot)
{
    const OwnedCert cert = Decode(With(Root(), &CertSpec::key, KeyId::Rsa2048B));
    Expect(cert, 0, 0);
    EXPECT_EQ(cert->pIssuer, nullptr);
    EXPECT_EQ(Verifications(), 1u);
    Expect(cert, 0, 0);
    EXPECT_EQ(Verifications(), 2u);
}

TEST_F(SelfSigned, ADamagedRootIsNot)
{
    Expect(Decode(With(Root(), &CertSpec::brokenSignature, true)), 0, 0);
}

TEST_F(SelfSigned, NamesAreComparedOctetForOctet)
{
    Expect(Decode(With(Root(), &CertSpec::issuer, Name(C("ZZ"), O("Example"), Cn("Test root")))), 0, 0);
    EXPECT_EQ(Verifications(), 0u);
}

TEST_F(SelfSigned, AnotherKnownIssuerDoesNotMatter)
{
    const OwnedCert other = Decode(Intermediate("Test CA"));
    const OwnedCert root = Decode(Root());
    root->pIssuer = other.get();
    Expect(root, 0, 1);
    EXPECT_EQ(root->pIssuer, root.get());
}

TEST_F(SelfSigned, OnlyVerdictOneCounts)
{
    ForEveryVerdict(vrf_.Plan(), [&](PELNIC_ERROR_CODE code, PNV_INT verdict) {
        SCOPED_TRACE(::testing::Message() << code << " with " << verdict);
        const OwnedCert root = Decode(Root());
        const bool good = code == 0 && verdict == 1;
        Expect(root, code, good ? 1 : 0);
        EXPECT_EQ(root->pIssuer, good ? root.get() : nullptr);
    });
}

TEST_F(SelfSigned, ReturnsWhatMakesTheKeyUnusable)
{
    const Bytes noKey = Seq(AlgoId(oid::rsaEncryption), Bits(0, Null()));
    Expect(Decode(With(Root(), &CertSpec::key, KeyId::EcP256)), PELNIC_ERR_UNSUPPORTED_ALGO, 0);
    Expect(Decode(With(Root(), &CertSpec::subjectPublicKey, noKey)), PELNIC_ERR_ASN_DECODE, 0);
    EXPECT_EQ(Verifications(), 0u);
}

TEST_F(SelfSigned, ReturnsWhatMakesTheSignatureUncheckable)
{
    Expect(Decode(With(Root(), &CertSpec::hash, Hash::Sha1)), PELNIC_ERR_UNSUPPORTED_DIGEST, 0);
    Expect(Decode(With(Root(), &CertSpec::outerAlgorithm, AlgoId(oid::sha384WithRsa))), PELNIC_ERR_CERT_VERIFY, 0);
    for (Call failing : {Call::VerifyCreate, Call::VerifyInit, Call::VerifyUpdate, Call::VerifyFinal}) {
        const OwnedCert root = Decode(Root());
        vrf_.Plan().Fail(failing, 1);
        Expect(root, PELNIC_ERR_FAILED, 0);
        EXPECT_EQ(root->pIssuer, nullptr);
    }
}

TEST_F(SelfSigned, RefusesNull)
{
    const OwnedCert root = Decode(Root());
    EXPECT_EQ(IsSelfSigned(nullptr, root.get()).rc, PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(IsSelfSigned(vrf_, nullptr).rc, PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_is_self_signed(vrf_, root.get(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(root->pIssuer, nullptr);
}

TEST(SelfSignedFaults, ReleasesEverythingWhicheverCallFails)
{
    SweepFaults(
        Call::Malloc | calls::copies | calls::verification,
        [](CallbackPlan& plan) {
            Vrf vrf(plan);
            OwnedCert root;
            plan.WithoutFaults([&] { root = DecodeCert(vrf, Build(Root())); });
            const Answer answer = IsSelfSigned(vrf, root.get());
            EXPECT_EQ(answer.value, answer.rc == 0 ? 1u : 0u);
            EXPECT_EQ(root->pIssuer, answer.rc == 0 ? root.get() : nullptr);
            return answer.rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc != 0, run.met); });
}

// ---- Key usage and extended key usage ----

using GetUsage = PELNIC_ERROR_CODE (*)(const PELNIC_VRF*, const PELNIC_X509_CERT*, PNV_UINT32*);

// An end entity's certificate with these extensions and no others.
CertSpec WithExtensions(const std::vector<Bytes>& extensions)
{
    CertSpec spec = Version1(Signer());
    spec.version = 3;
    spec.extraExtensions = extensions;
    return spec;
}

class Usage : public ::testing::Test {
protected:
    Answer Get(GetUsage get, const CertSpec& spec)
    {
        const OwnedCert cert = DecodeCert(vrf_, Build(spec));
        Answer answer{};
        answer.rc = get(vrf_, cert.get(), &answer.value);
        return answer;
    }
    void ExpectRefusesNull(GetUsage get)
    {
        const OwnedCert cert = DecodeCert(vrf_, Build(Signer()));
        PNV_UINT32 usage = 0;
        EXPECT_EQ(get(nullptr, cert.get(), &usage), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(get(vrf_, nullptr, &usage), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(get(vrf_, cert.get(), nullptr), PELNIC_ERR_NULL_POINTER);
    }
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    Vrf vrf_;
};

// Every failing call fails the query, and nothing is left behind.
void ExpectReleasesEverything(GetUsage get, PNV_UINT32 expected)
{
    SweepFaults(
        Call::Malloc | calls::copies,
        [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            OwnedCert cert;
            plan.WithoutFaults([&] { cert = DecodeCert(vrf, Build(Signer())); });
            PNV_UINT32 usage = 0;
            const PELNIC_ERROR_CODE rc = get(vrf, cert.get(), &usage);
            EXPECT_EQ(usage, rc == 0 ? expected : 0);
            return rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc, run.met ? PELNIC_ERR_ASN_DECODE : 0u); });
}

class KeyUsageQuery : public Usage {
protected:
    // Of a key usage extension with this value.
    Answer Of(const Bytes& value)
    {
        return Get(pelnic_x509_cert_get_keyusage, WithExtensions({Ext(oid::keyUsage, value, true)}));
    }
    void Expect(const Bytes& value, PNV_UINT32 usage)
    {
        const Answer answer = Of(value);
        EXPECT_EQ(answer.rc, 0u);
        EXPECT_EQ(answer.value, usage);
    }
};

TEST_F(KeyUsageQuery, EveryBitHasItsValue)
{
    for (PNV_UINT32 bit : {0x80u, 0x40u, 0x20u, 0x10u, 0x08u, 0x04u, 0x02u, 0x01u, 0x8000u}) {
        Expect(KeyUsage(bit), bit);
    }
    EXPECT_EQ(PNV_KU_DIGITAL_SIGNATURE, usage::digitalSignature);
    EXPECT_EQ(PNV_KU_KEY_CERT_SIGN, usage::keyCertSign);
    EXPECT_EQ(PNV_KU_CRL_SIGN, usage::crlSign);
}

TEST_F(KeyUsageQuery, EightBitsAreTheLowOctet)
{
    Expect(Bits(0, {0x07}), 0x07);
}

TEST_F(KeyUsageQuery, NineBitsAreBothOctets)
{
    Expect(Bits(7, {0x07, 0x80}), 0x8007);
}

// 03 03 08 07 80: two octets, but the second has no bit that is used.
TEST_F(KeyUsageQuery, ASecondOctetWithoutBitsIsNotRead)
{
    Expect(Bits(8, {0x07, 0x80}), 0x07);
}

TEST_F(KeyUsageQuery, FurtherOctetsAreIgnored)
{
    Expect(Bits(0, {0x07, 0x80, 0xFF, 0xFF}), 0x8007);
}

TEST_F(KeyUsageQuery, UnusedBitsAreNotMasked)
{
    Expect(Bits(7, {0xFF}), 0xFF);
}

TEST_F(KeyUsageQuery, AMissingOrEmptyExtensionIsAnError)
{
    EXPECT_EQ(Get(pelnic_x509_cert_get_keyusage, WithExtensions({})).rc, PELNIC_ERR_NO_KEY_USAGE);
    EXPECT_EQ(Get(pelnic_x509_cert_get_keyusage, WithExtensions({Ext(oid::basicConstraints, Ca())})).rc,
              PELNIC_ERR_NO_KEY_USAGE);
    EXPECT_EQ(Get(pelnic_x509_cert_get_keyusage, Version1(Signer())).rc, PELNIC_ERR_NO_KEY_USAGE);
    EXPECT_EQ(Of(Bits(0, {})).rc, PELNIC_ERR_NO_KEY_USAGE);     // 03 01 00
    EXPECT_EQ(Of(Bits(8, {0x80})).rc, PELNIC_ERR_NO_KEY_USAGE); // 03 02 08 80: no bit is used
}

TEST_F(KeyUsageQuery, AnUndecodableExtensionIsAnError)
{
    EXPECT_EQ(Of(Octets({0x80})).rc, PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Of(Tlv(0x03, {})).rc, PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Of(Bits(9, {0x80, 0x80})).rc, PELNIC_ERR_ASN_DECODE);
}

TEST_F(KeyUsageQuery, TheFirstExtensionCounts)
{
    const Answer answer = Get(pelnic_x509_cert_get_keyusage,
                              WithExtensions({Ext(oid::keyUsage, KeyUsage(0x04)), Ext(oid::keyUsage, KeyUsage(0x80))}));
    EXPECT_EQ(answer.value, 0x04u);
}

TEST_F(KeyUsageQuery, RefusesNull)
{
    ExpectRefusesNull(pelnic_x509_cert_get_keyusage);
}

TEST(KeyUsageFaults, ReleasesEverythingWhicheverCallFails)
{
    ExpectReleasesEverything(pelnic_x509_cert_get_keyusage, PNV_KU_DIGITAL_SIGNATURE);
}

class ExtKeyUsageQuery : public Usage {
protected:
    Answer OfValue(const Bytes& value)
    {
        return Get(pelnic_x509_cert_get_extend_keyusage, WithExtensions({Ext(oid::extKeyUsage, value)}));
    }
    void Expect(const std::vector<std::string_view>& purposes, PNV_UINT32 usage)
    {
        std::vector<Bytes> oids;
        for (std::string_view purpose : purposes) oids.push_back(Oid(purpose));
        const Answer answer = OfValue(Seq(Cat(oids)));
        EXPECT_EQ(answer.rc, 0u);
        EXPECT_EQ(answer.value, usage);
    }
};

TEST_F(ExtKeyUsageQuery, KnowsCodeSigningAndTimeStamping)
{
    Expect({oid::codeSigning}, 0x08);
    Expect({oid::timeStamping}, 0x40);
    Expect({oid::timeStamping, oid::codeSigning}, 0x48);
    EXPECT_EQ(PNV_EKU_CODE_SIGNING, 0x08u);
    EXPECT_EQ(PNV_EKU_TIME_STAMPING, 0x40u);
}

TEST_F(ExtKeyUsageQuery, IgnoresOtherPurposes)
{
    Expect({oid::serverAuth}, 0);
    Expect({"2.5.29.37.0"}, 0); // anyExtendedKeyUsage
    Expect({oid::serverAuth, oid::codeSigning, oid::testPolicy, oid::codeSigning}, 0x08);
}

TEST_F(ExtKeyUsageQuery, ReadsAllThatTheListHolds)
{
    Expect({oid::serverAuth, oid::testPolicy, oid::timeStamping}, 0x40); // the list is just full
    Expect({oid::serverAuth, oid::testPolicy, oid::serverAuth, oid::testPolicy, oid::timeStamping}, 0x40);
}

TEST_F(ExtKeyUsageQuery, APurposeIsAnObjectIdentifier)
{
    const Answer answer = OfValue(Seq(Octets(Content(Oid(oid::codeSigning), {})), Null()));
    EXPECT_EQ(answer.rc, 0u);
    EXPECT_EQ(answer.value, 0u);
}

TEST_F(ExtKeyUsageQuery, NoPurposeIsAUsageOfZero)
{
    Expect({}, 0);
}

TEST_F(ExtKeyUsageQuery, AMissingExtensionIsAUsageOfZero)
{
    for (const CertSpec& spec :
         {WithExtensions({}), WithExtensions({Ext(oid::basicConstraints, Ca())}), Version1(Signer())}) {
        const Answer answer = Get(pelnic_x509_cert_get_extend_keyusage, spec);
        EXPECT_EQ(answer.rc, 0u);
        EXPECT_EQ(answer.value, 0u);
    }
}

TEST_F(ExtKeyUsageQuery, AnUndecodableExtensionIsAnErrorAndAUsageOfZero)
{
    for (const Bytes& value : {Oid(oid::codeSigning), Seq(Oid(oid::codeSigning), Bytes{0x06})}) {
        const Answer answer = OfValue(value);
        EXPECT_EQ(answer.rc, PELNIC_ERR_ASN_DECODE);
        EXPECT_EQ(answer.value, 0u);
    }
}

TEST_F(ExtKeyUsageQuery, RefusesNull)
{
    ExpectRefusesNull(pelnic_x509_cert_get_extend_keyusage);
}

TEST(ExtKeyUsageFaults, ReleasesEverythingWhicheverCallFails)
{
    ExpectReleasesEverything(pelnic_x509_cert_get_extend_keyusage, PNV_EKU_CODE_SIGNING);
}

// ---- Extensions by identifier ----

TEST(CertExtension, IsFoundInsideTheRecord)
{
    Vrf vrf;
    const OwnedCert cert = DecodeCert(vrf, Build(Signer()));
    const auto& list = cert->toBeSigned->extensions->extensions;
    EXPECT_EQ(pelnic_x509_cert_get_extn_by_aoid(vrf, cert.get(), AOID_CE_BASICCONSTRAINTS), list.data[0]);
    EXPECT_EQ(pelnic_x509_cert_get_extn_by_aoid(vrf, cert.get(), AOID_CE_AUTHORITYKEYIDENTIFIER), list.data[4]);
    EXPECT_EQ(pelnic_x509_cert_get_extn_by_aoid(vrf, cert.get(), AOID_CE_CRLREASONS), nullptr);
}

TEST(CertExtension, IsNullWithoutWhatCouldHoldIt)
{
    Vrf vrf;
    const OwnedCert cert = DecodeCert(vrf, Build(Signer()));
    EXPECT_EQ(pelnic_x509_cert_get_extn_by_aoid(nullptr, cert.get(), AOID_CE_KEYUSAGE), nullptr);
    EXPECT_EQ(pelnic_x509_cert_get_extn_by_aoid(vrf, nullptr, AOID_CE_KEYUSAGE), nullptr);
    EXPECT_EQ(pelnic_x509_cert_get_extn_by_aoid(vrf, cert.get(), AOID_UNKNOWN), nullptr);

    const OwnedCert version1 = DecodeCert(vrf, Build(Version1(Signer())));
    EXPECT_EQ(pelnic_x509_cert_get_extn_by_aoid(vrf, version1.get(), AOID_CE_KEYUSAGE), nullptr);
    const PELNIC_X509_CERT empty{};
    EXPECT_EQ(pelnic_x509_cert_get_extn_by_aoid(vrf, &empty, AOID_CE_KEYUSAGE), nullptr);
}

} // namespace
} // namespace pnvtest
