// What a good verdict does not promise. Each of these rules is weaker than a reader may expect, on purpose, and each is
// pinned here so that it changes only knowingly. A package that is accepted unsigned is tested with the checker.
#include "support/signature.h"
#include "support/temp_dir.h"

namespace pnvtest {
namespace {

class KnownLimit : public SignatureTest {
protected:
    // A token that says any time, signed by nobody.
    static TokenSpec UnsignedToken(std::string_view time)
    {
        TokenSpec token;
        token.time = GenTime(time);
        return token;
    }
    CmsSpec StampedWith(const TokenSpec& token) { return DemoCms(pki_, token); }

    CmsSpec TwoDirectSigners()
    {
        CmsSpec cms = Direct(DemoCms(pki_));
        cms.signers.push_back(cms.signers[0]);
        return cms;
    }
    CmsSpec WithoutSigners()
    {
        CmsSpec cms = DemoCms(pki_);
        cms.signers.clear();
        return cms;
    }
    void ExpectVerdict(const CmsSpec& cms, Verdict verdict)
    {
        SignatureTest::ExpectVerdict(DetachedCms(payload_, cms), verdict);
    }
};

// ---- Whoever makes the package can choose the time of the verification ----

TEST_F(KnownLimit, TokenWithoutSignersPasses)
{
    ExpectAccepted(StampedWith(UnsignedToken("20260101000000Z")));
}

TEST_F(KnownLimit, TokenWithoutSignersMovesTheTimeBeforeARevocation)
{
    pki_.signingCrl.revoked = {{pki_.signer.serial, UtcTime("250601000000Z"), 1}};
    ExpectRefused(StampedWith(DemoToken(pki_)), PELNIC_ERR_CERT_VERIFY);
    ExpectAccepted(StampedWith(UnsignedToken("20250531235959Z")));
}

TEST_F(KnownLimit, TokenWithoutSignersMovesTheTimeIntoAValidity)
{
    pki_.signer.notAfter = UtcTime("251231235959Z");
    ExpectRefused(StampedWith(DemoToken(pki_)), PELNIC_ERR_CERT_VERIFY);
    ExpectAccepted(StampedWith(UnsignedToken("20251231235959Z")));
}

// ---- The CRL comes with the package ----

TEST_F(KnownLimit, OldGenuineCrlHidesARevocationUpToItsNextUpdate)
{
    const CrlSpec old = pki_.signingCrl; // before the revocation, and current until 2035
    pki_.signingCrl.revoked = {{pki_.signer.serial, UtcTime("250601000000Z"), 1}};
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_CERT_VERIFY);
    pki_.signingCrl = old;
    ExpectAccepted(DemoCms(pki_));
    pki_.signingCrl.nextUpdate = UtcTime("251231235959Z");
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_CERT_VERIFY);
}

// Any CRL of the CA will do, and an indirect one of any CA.
TEST_F(KnownLimit, CrlOfAnotherScopeHidesARevocation)
{
    const CrlSpec full = pki_.signingCrl;
    pki_.signingCrl.revoked = {{pki_.signer.serial, UtcTime("250601000000Z"), 1}};
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_CERT_VERIFY);
    const auto point = [](const Bytes& fields) { return Ext(oid::issuingDistributionPoint, Seq(fields), true); };
    for (const Bytes& extension : {Ext("2.5.29.27", Int(1), true),                                     // delta
                                   point(CtxPrim(1, {0xFF})),                                          // users
                                   point(CtxPrim(2, {0xFF})),                                          // CAs
                                   point(CtxPrim(5, {0xFF})),                                          // attributes
                                   point(CtxPrim(3, {0x06, 0x40})),                                    // some reasons
                                   point(Ctx(0, Ctx(0, CtxPrim(6, Text("http://example.com/1")))))}) { // one point
        pki_.signingCrl = full;
        pki_.signingCrl.extensions.push_back(extension);
        ExpectAccepted(DemoCms(pki_));
    }
    pki_.signingCrl = Indirect(CrlOf(pki_.tsaCa));
    ExpectAccepted(DemoCms(pki_));
}

// Whoever was revoked, and has expired since, need not be on it any more.
TEST_F(KnownLimit, CrlFromAfterTheSigningTimeHidesARevocation)
{
    pki_.signingCrl.thisUpdate = UtcTime("340101000000Z");
    ExpectAccepted(DemoCms(pki_));
}

// ---- What comes first in a context stays ----

// CRLs with the same signature bits are one CRL to the store, whatever they say; nobody signed the second.
TEST_F(KnownLimit, ForgedTwinShutsTheNewestCrlOut)
{
    const Bytes old = Build(pki_.signingCrl);
    pki_.signingCrl.thisUpdate = UtcTime("250701000000Z");
    pki_.signingCrl.revoked = {{pki_.signer.serial, UtcTime("250601000000Z"), 1}};
    const Bytes newest = Build(pki_.signingCrl);
    const Bytes twin = Replace(old, {2}, Tlv(0x03, Content(newest, {2})));
    const Bytes others = Cat(Build(pki_.rootCrl), Build(pki_.tsaCrl));
    const auto verify = [&](const std::vector<Bytes>& inOrder) {
        Renew();
        const Bytes root = Build(pki_.root);
        EXPECT_EQ(pelnic_verify_add_cert(Current(), root.data(), Len(root)), 0u);
        for (const Bytes& crls : inOrder) EXPECT_EQ(pelnic_verify_add_crl(Current(), crls.data(), Len(crls)), 0u);
        return Verify(Current(), DetachedCms(payload_, DemoCms(pki_)), payload_);
    };
    EXPECT_EQ(verify({Cat(twin, old, others), newest}), good);
    EXPECT_EQ(verify({newest, Cat(twin, old, others)}), (Verdict{PELNIC_ERR_CERT_VERIFY, 0})); // the caller's first
    EXPECT_EQ(verify({Cat(old, others), newest}), (Verdict{PELNIC_ERR_CERT_VERIFY, 0}));       // no twin
}

// The other way round: a good package is refused for what an earlier one left behind.
TEST_F(KnownLimit, BogusCertificateOfAnEarlierSignatureIsFoundFirst)
{
    CmsSpec bogus = DemoCms(pki_);
    CertSpec impostor = pki_.signer;
    impostor.key = KeyId::Rsa2048F;
    impostor.brokenSignature = true;
    bogus.certificates = {Build(impostor)};
    ExpectRefused(bogus, PELNIC_ERR_CERT_VERIFY);
    EXPECT_EQ(Verify(Current(), DetachedCms(payload_, DemoCms(pki_)), payload_), (Verdict{PELNIC_ERR_CERT_VERIFY, 0}));
    ExpectAccepted(DemoCms(pki_)); // in a context of its own
}

// ---- The chain ends at a direct CRL ----

// A CA with a second certificate for another key. Its CRL is signed with the first key and proves the first
// certificate; the second one, which issued the signer, is used as a key and never judged itself.
class ReKeyedCa : public KnownLimit {
protected:
    ReKeyedCa()
    {
        newCa_.key = KeyId::Rsa2048G;
        newCa_.serial = {0x55};
        pki_.signer = IssuedBy(pki_.signer, newCa_);
    }
    CmsSpec Cms()
    {
        CmsSpec cms = DemoCms(pki_);
        cms.certificates.push_back(Build(newCa_));
        return cms;
    }

    CertSpec newCa_ = pki_.signingCa;
};

TEST_F(ReKeyedCa, IsNotCheckedForRevocation)
{
    pki_.rootCrl.revoked = {{newCa_.serial, UtcTime("250601000000Z"), 1}};
    ExpectAccepted(Cms());
    pki_.signingCrl.issuerKey = newCa_.key; // now the CRL proves the revoked certificate
    ExpectRefused(Cms(), PELNIC_ERR_CERT_VERIFY);
}

TEST_F(ReKeyedCa, IsNotCheckedForItsDates)
{
    newCa_.notAfter = UtcTime("251231235959Z");
    ExpectAccepted(Cms());
    pki_.signingCrl.issuerKey = newCa_.key;
    ExpectRefused(Cms(), PELNIC_ERR_CERT_VERIFY);
}

// ---- Of several direct signers only the last one counts ----

TEST_F(KnownLimit, LastOfSeveralDirectSignersDecides)
{
    CmsSpec cms = TwoDirectSigners();
    cms.signers[0].brokenSignature = true;
    ExpectVerdict(cms, good);
    cms = TwoDirectSigners();
    cms.signers[1].brokenSignature = true;
    ExpectVerdict(cms, bad);
}

TEST_F(KnownLimit, LastOfThreeDirectSignersDecides)
{
    CmsSpec cms = TwoDirectSigners();
    cms.signers.push_back(cms.signers[0]);
    cms.signers[0].brokenSignature = cms.signers[1].brokenSignature = true;
    ExpectVerdict(cms, good);
}

// ---- A signature over attributes is a signature over a payload that looks like attributes ----

TEST_F(KnownLimit, SignedAttributesCanBeReplayedAsAPayload)
{
    const Bytes genuine = DetachedCms(payload_, DemoCms(pki_));
    const Bytes attributes = Set(Content(genuine, {1, 0, 4, 0, 3}));
    // The SignerInfo without its attributes, and nothing else changed: value and timestamp are those of before.
    const Bytes replayed = Replace(genuine, {1, 0, 4, 0, 3}, {});
    Provide();
    EXPECT_EQ(Verify(Current(), replayed, attributes), good);
    EXPECT_EQ(Verify(Current(), replayed, payload_), bad);
}

// ---- A CA vouches for the keys that it certifies ----

// Under an exponent of 1 a block in the right form (RFC 8017, 9.2) is its own signature.
TEST_F(KnownLimit, CertifiedExponentOf1LetsAnybodySign)
{
    const Bytes& modulus = TestKey(KeyId::Rsa2048H).modulus;
    pki_.signer.subjectPublicKey = RsaSpki(modulus, {0x01});
    CmsSpec cms = Direct(DemoCms(pki_));
    const Bytes info = Seq(AlgoId(oid::sha256), Octets(Digest(Hash::Sha256, payload_)));
    const Bytes padding(modulus.size() - info.size() - 3, 0xFF);
    cms.signers[0].signature = Cat(Bytes{0x00, 0x01}, padding, Bytes{0x00}, info);
    ExpectVerdict(cms, good);
    cms.signers[0].brokenSignature = true;
    ExpectVerdict(cms, bad);
}

// ---- Nothing to judge is good ----

TEST_F(KnownLimit, FinalWithNothingBegunYields1)
{
    EXPECT_EQ(Final(), good);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(KnownLimit, FinalAfterARefusedBeginYields1)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].brokenSignature = true;
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNATURE);
    EXPECT_EQ(Final(), good);
}

TEST_F(KnownLimit, SecondFinalYields1)
{
    ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
    ASSERT_EQ(Update(Text("another image")), 0u);
    EXPECT_EQ(Final(), bad);
    EXPECT_EQ(Final(), good);
}

TEST_F(KnownLimit, SignatureWithoutSignersYields1WhenNothingIsFed)
{
    ASSERT_EQ(Begin(WithoutSigners()), 0u);
    EXPECT_EQ(Final(), good);
    ASSERT_EQ(Begin(WithoutSigners()), 0u);
    EXPECT_EQ(Update(payload_), PELNIC_ERR_CMS_NOT_BEGUN);
}

TEST_F(KnownLimit, QuickOnAnEmptyFileWithASignatureWithoutSignersYields1)
{
    const TempDir dir;
    const std::string signature = dir.Write("signature", DetachedCms({}, WithoutSigners()));
    const auto quick = [&](const std::string& path) {
        Verdict verdict{0, 77};
        verdict.code =
            pelnic_verify_detach_signature_quick(Current(), path.c_str(), signature.c_str(), &verdict.result);
        return verdict;
    };
    EXPECT_EQ(quick(dir.Write("empty", {})), good);
    const std::string fifo = dir.Path("fifo"); // without a writer there is nothing in it, and nobody is waited for
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(quick(fifo), good);
    EXPECT_EQ(quick(dir.Write("content", payload_)), (Verdict{PELNIC_ERR_CMS_NOT_BEGUN, 0}));
}

} // namespace
} // namespace pnvtest
