// Detached signatures from begin to final, and the quick call: which signature, which content, which signer, and what a
// context answers out of turn.
#include "cmsverify/cms_verify.h"

#include "cmsverify/pelnic_plt_proxy.h"
#include "support/exact_heap.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <sys/mman.h>

namespace pnvtest {
namespace {

constexpr PNV_INT32 kMark = 77;

// Signed attributes that claim this digest, whatever the content.
SignedAttributes Claiming(const Bytes& digest)
{
    return [digest](const Bytes&) {
        return std::vector<Bytes>{ContentTypeAttribute(oid::data), MessageDigestAttribute(digest)};
    };
}

class Signature : public SignatureTest {
protected:
    const PELNIC_PKI_STORE& Store() { return static_cast<const PELNIC_PKI*>(Current()->pki_ctx)->pki_store; }
    LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO& Entries() { return Current()->vrf_proc.md_info_list; }

    bool IsTrusted(const Bytes& cert) { return Holds(Store().trust_store->ca_certs, cert); }
    bool IsLocal(const Bytes& cert) { return Holds(Store().local_store->local_certs, cert); }

    // Another signer below the same CA, with a timestamp of its own.
    CmsSpec WithSecondSigner(CmsSpec cms) const
    {
        const CertSpec second = Signer(KeyId::Rsa2048F);
        cms.certificates.push_back(Build(second));
        cms.signers.push_back(SignedBy(second));
        cms.signers[1].unsignedAttributes = cms.signers[0].unsignedAttributes;
        return cms;
    }

    PELNIC_ERROR_CODE AddCrl()
    {
        const Bytes crl = Build(pki_.tsaCrl);
        return pelnic_verify_add_crl(Current(), crl.data(), Len(crl));
    }

private:
    static bool Holds(const LIST_TYPE_PELNIC_X509_CERT& certs, const Bytes& cert)
    {
        for (PNV_UINT32 i = 0; i < certs.num; ++i) {
            if (Encoding(*certs.data[i]) == cert) return true;
        }
        return false;
    }
};

// ---- Contexts ----

TEST_F(Signature, WantsAContextOfThisVersion)
{
    const Bytes octets(64, 0x30);
    PNV_INT32 result = kMark;
    const std::function<PELNIC_ERROR_CODE(PELNIC_VRF_CTX)> operations[] = {
        [&](PELNIC_VRF_CTX ctx) { return pnvtest::Begin(ctx, octets); },
        [&](PELNIC_VRF_CTX ctx) { return pnvtest::Update(ctx, octets); },
        [&](PELNIC_VRF_CTX ctx) { return pelnic_verify_detach_signature_final(ctx, &result); },
        [&](PELNIC_VRF_CTX ctx) { return pelnic_verify_detach_signature_quick(ctx, "content", "signature", &result); },
    };
    for (const auto& operation : operations) {
        EXPECT_EQ(operation(nullptr), PELNIC_ERR_NULL_POINTER);
        ++Current()->st_size;
        EXPECT_EQ(operation(Current()), PELNIC_ERR_INVALID_SIZE);
        --Current()->st_size;
        EXPECT_EQ(result, kMark);
    }
    EXPECT_TRUE(plan_.Logs().empty());
}

// ---- Begin: freezing the CRLs ----

TEST_F(Signature, NoneFreezesNothing)
{
    const Bytes octets(64, 0x30);
    EXPECT_EQ(pelnic_verify_detach_signature_begin(Current(), nullptr, 64), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_NULL_POINTER));
    plan_.ClearLogs();
    EXPECT_EQ(pelnic_verify_detach_signature_begin(Current(), octets.data(), 0), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_NULL_POINTER));
    EXPECT_EQ(Current()->crl_frozen, 0u);
    EXPECT_EQ(AddCrl(), 0u);
}

TEST_F(Signature, TooShortIsRefusedSilentlyAndYetFreezes)
{
    const ExactHeap octets(Bytes(37, 0x2D));
    EXPECT_EQ(pelnic_verify_detach_signature_begin(Current(), octets.data(), 37), PELNIC_ERR_CMS_FORMAT);
    EXPECT_TRUE(plan_.Logs().empty());
    EXPECT_EQ(Current()->crl_frozen, 1u);
    EXPECT_EQ(AddCrl(), PELNIC_ERR_CRL_FROZEN);
}

TEST_F(Signature, HandsTheCrlsOver)
{
    Provide();
    EXPECT_EQ(Current()->crl_list.num, 3u);
    EXPECT_EQ(Begin(Bytes(64, 0x30)), PELNIC_ERR_CMS_DECODE);
    EXPECT_EQ(Current()->crl_list.num, 0u);
    EXPECT_EQ(Store().trust_store->crl_store.num, 3u);
}

TEST_F(Signature, HandsACrlThatIsThereTwiceOverOnce)
{
    Provide();
    ASSERT_EQ(AddCrl(), 0u);
    EXPECT_EQ(Current()->crl_list.num, 4u);
    _pnvSyncCrl(Current().Record());
    EXPECT_EQ(Store().trust_store->crl_store.num, 3u);
    EXPECT_EQ(Current()->crl_frozen, 1u);
}

TEST_F(Signature, FreezesTheCrlsForGood)
{
    ExpectAccepted(DemoCms(pki_));
    EXPECT_EQ(AddCrl(), PELNIC_ERR_CRL_FROZEN);
    const Bytes root = Build(pki_.root); // certificates may still come
    EXPECT_EQ(pelnic_verify_add_cert(Current(), root.data(), Len(root)), 0u);
}

// ---- Begin: DER ----

TEST_F(Signature, InDerIsAccepted)
{
    ExpectAccepted(DemoCms(pki_));
    EXPECT_TRUE(plan_.Logs().empty());
    EXPECT_EQ(Current()->base_time, k2026);
}

TEST_F(Signature, MayBeFollowedByAnything)
{
    ExpectAccepted(Cat(DetachedCms(payload_, DemoCms(pki_)), Bytes{0x00, 0xFF}));
}

// The octet that is missed stands behind it.
TEST_F(Signature, EndsWhereItsLengthSays)
{
    const Bytes der = DetachedCms(payload_, DemoCms(pki_));
    Provide();
    EXPECT_EQ(pelnic_verify_detach_signature_begin(Current(), der.data(), Len(der) - 1), PELNIC_ERR_CMS_DECODE);
    EXPECT_EQ(pelnic_verify_detach_signature_begin(Current(), der.data(), Len(der)), 0u);
    const Bytes pem = Pem("CMS", der);
    EXPECT_EQ(pelnic_verify_detach_signature_begin(Current(), pem.data(), Len(pem) - 2), PELNIC_ERR_CMS_FORMAT);
    EXPECT_EQ(pelnic_verify_detach_signature_begin(Current(), pem.data(), Len(pem) - 1), 0u); // but for its line end
}

TEST_F(Signature, ThatDoesNotDecodeIsRefused)
{
    ExpectRefused(Bytes(38, 0x00), PELNIC_ERR_CMS_DECODE);
    ExpectRefused(With(DemoCms(pki_), &CmsSpec::contentType, oid::data), PELNIC_ERR_CMS_DECODE);
    ExpectRefused(Cat(Text("\n"), Pem("CMS", DetachedCms(payload_, DemoCms(pki_)))), PELNIC_ERR_CMS_DECODE);
}

TEST_F(Signature, MayBeReleasedAfterBegin)
{
    for (const CmsSpec& cms : {DemoCms(pki_), Direct(DemoCms(pki_))}) {
        Renew();
        Bytes signature = DetachedCms(payload_, cms);
        ASSERT_EQ(Begin(signature), 0u);
        std::fill(signature.begin(), signature.end(), std::uint8_t{0xEE});
        ASSERT_EQ(Update(payload_), 0u);
        EXPECT_EQ(Final(), good);
    }
}

// ---- Begin: PEM ----

class PemSignature : public Signature {
protected:
    // Exactly these characters, without a terminating zero.
    PELNIC_ERROR_CODE BeginText(const std::string& text)
    {
        Renew();
        const ExactHeap octets(Text(text));
        return pelnic_verify_detach_signature_begin(Current(), octets.data(), Len(octets));
    }
    void ExpectTextRefused(const std::string& text, PELNIC_ERROR_CODE rc)
    {
        SCOPED_TRACE(text);
        EXPECT_EQ(BeginText(text), rc);
        EXPECT_TRUE(LoggedError(plan_, rc));
    }

    const Bytes der_ = DetachedCms(payload_, DemoCms(pki_));
};

TEST_F(PemSignature, IsAcceptedWithEitherLabelAndAnyLineEnd)
{
    for (std::string_view label : {"CMS", "PKCS7"}) {
        for (std::string_view lineEnd : {"\n", "\r\n", ""}) ExpectAccepted(Pem(label, der_, lineEnd));
    }
}

TEST_F(PemSignature, MayBeFollowedByAnything)
{
    ExpectAccepted(Cat(Pem("CMS", der_), Text("more\n"), Pem("PKCS7", Bytes(100, 0x00))));
}

TEST_F(PemSignature, RefusesAMissingEndEachInItsOwnWay)
{
    for (const char* end : {"", "-----END CERTIFICATE-----\n", "-----END CMS ----\n", "-----end cms-----\n"}) {
        ExpectTextRefused(std::string("-----BEGIN CMS-----\nMIIBAAAAAAAAAAAAAAAAAAAA\n") + end, PELNIC_ERR_CMS_FORMAT);
        ExpectTextRefused(std::string("-----BEGIN PKCS7-----\nMIIBAAAAAAAAAAAAAAAAAAAA\n") + end, PELNIC_ERR_FAILED);
    }
    ExpectTextRefused("-----BEGIN CMS-----\nMIIB\n-----END PKCS7-----\n", PELNIC_ERR_CMS_FORMAT);
    ExpectTextRefused("-----BEGIN PKCS7-----\nMIIB\n-----END CMS-----\n", PELNIC_ERR_FAILED);
}

// The text ends at its first zero.
TEST_F(PemSignature, RefusesAnEndBehindAZero)
{
    const std::string text = std::string("-----BEGIN CMS-----\nMIIBAAAA\n") + '\0' + "-----END CMS-----\n";
    ExpectTextRefused(text, PELNIC_ERR_CMS_FORMAT);
}

TEST_F(PemSignature, RefusesAnyOtherLabel)
{
    for (const char* label : {"CERTIFICATE", "PKCS #7 SIGNED DATA", "SIGNATURE", "cms", "CMS2", "PKCS7 ", ""}) {
        const std::string armour = std::string(label) + "-----\n";
        ExpectTextRefused("-----BEGIN " + armour + "MIIBAAAA\n-----END " + armour, PELNIC_ERR_CMS_FORMAT);
    }
    ExpectTextRefused("-----BEGIN" + std::string(28, '-'), PELNIC_ERR_CMS_FORMAT);
}

TEST_F(PemSignature, RefusesAnUnknownArmourSilentlyWhereItReadsIt)
{
    PELNIC_PKCS7_CONTENT* content = nullptr;
    EXPECT_EQ(_pnvPemDecodeCms(Current().Record(), "-----BEGIN CMS2-----", 20, &content), PELNIC_ERR_CMS_FORMAT);
    EXPECT_EQ(content, nullptr);
    EXPECT_TRUE(plan_.Logs().empty());
}

// A body of less than nothing.
TEST_F(PemSignature, RefusesAnEndThatSharesItsDashes)
{
    ExpectTextRefused("-----BEGIN CMS-----END CMS-----         ", PELNIC_ERR_CMS_FORMAT);
    ExpectTextRefused("-----BEGIN PKCS7-----END PKCS7-----     ", PELNIC_ERR_CMS_FORMAT);
}

TEST_F(PemSignature, RefusesAnEmptyBody)
{
    for (const char* body : {"", "\n", "\r\n\r\n", "  \n", "=\n"}) {
        ExpectTextRefused(std::string("-----BEGIN CMS-----") + body + "-----END CMS-----\n\n", PELNIC_ERR_CMS_FORMAT);
        ExpectTextRefused(std::string("-----BEGIN PKCS7-----") + body + "-----END PKCS7-----", PELNIC_ERR_CMS_FORMAT);
    }
}

TEST_F(PemSignature, RefusesMalformedBase64)
{
    for (const char* body : {"MI IB", "MIIB===", "MI==MI==", "MI\xC3\xA4"}) {
        ExpectTextRefused(std::string("-----BEGIN CMS-----\n") + body + "\n-----END CMS-----\n", PELNIC_ERR_CMS_FORMAT);
    }
}

TEST_F(PemSignature, RefusesWhatDoesNotDecode)
{
    ExpectTextRefused("-----BEGIN CMS-----\nMIIB\n-----END CMS-----\n", PELNIC_ERR_CMS_DECODE);
    ExpectRefused(Pem("CMS", Build(pki_.root)), PELNIC_ERR_CMS_DECODE);
}

TEST_F(PemSignature, RefusesEveryPrefixUpToItsEnd)
{
    const Bytes pem = Pem("CMS", DetachedCms(payload_, FlatCms(FlatPki())));
    for (std::size_t length = 38; length + 1 < pem.size(); length += 7) {
        EXPECT_EQ(BeginText(std::string(pem.begin(), pem.begin() + static_cast<std::ptrdiff_t>(length))),
                  PELNIC_ERR_CMS_FORMAT);
    }
}

// The copy that gets the terminating zero: its failures are passed up as they are.
TEST_F(PemSignature, PassesAFailedCopyUpUnlogged)
{
    const Bytes pem = Pem("CMS", der_);
    ASSERT_EQ(Begin(Bytes(37, 0x00)), PELNIC_ERR_CMS_FORMAT); // no CRLs to hand over any more
    plan_.Fail(Call::Malloc, 1);
    EXPECT_EQ(Begin(pem), PELNIC_ERR_SYS_MEM_ALLOC);
    plan_.Fail(Call::Memcpy, 1);
    EXPECT_EQ(Begin(pem), injectedFault);
    EXPECT_TRUE(plan_.Logs().empty());
}

// ---- Begin: certificates in the signature ----

TEST_F(Signature, BringsItsCertificates)
{
    ExpectAccepted(DemoCms(pki_));
    EXPECT_TRUE(IsTrusted(Build(pki_.signingCa)));
    EXPECT_TRUE(IsLocal(Build(pki_.signer)));
    EXPECT_TRUE(IsTrusted(Build(pki_.tsaCa))); // out of the token
    EXPECT_TRUE(IsLocal(Build(pki_.tsa)));
}

TEST_F(Signature, MayComeWithoutCertificates)
{
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.clear();
    const Bytes chain = Cat(Build(pki_.signingCa), Build(pki_.signer));
    ASSERT_EQ(pelnic_verify_add_cert(Current(), chain.data(), Len(chain)), 0u);
    ASSERT_EQ(Begin(cms), 0u);
    ASSERT_EQ(Update(payload_), 0u);
    EXPECT_EQ(Final(), good);
}

constexpr const char* kRootInCms = "found a root certificate in the signer info, which is not allowed.";

TEST_F(Signature, PassesASelfSignedCertificateOver)
{
    CmsSpec cms = DemoCms(pki_);
    const Bytes other = Build(
        IssuedBy(With(pki_.root, &CertSpec::key, KeyId::Rsa2048H), With(pki_.root, &CertSpec::key, KeyId::Rsa2048H)));
    cms.certificates.insert(cms.certificates.begin(), other);
    ExpectAccepted(cms);
    EXPECT_TRUE(LoggedWarning(plan_, PELNIC_ERR_CERT_ROOT_IN_CMS, kRootInCms));
    EXPECT_FALSE(IsTrusted(other));
}

// Everything is in order below a root that only the signature knows.
TEST_F(Signature, DoesNotBringItsTrustAnchor)
{
    const DemoPki rogue(KeyId::Rsa2048H);
    CmsSpec cms = DemoCms(rogue);
    cms.certificates.push_back(Build(rogue.root));
    ExpectRefused(cms, PELNIC_ERR_CERT_VERIFY);
    EXPECT_TRUE(LoggedWarning(plan_, PELNIC_ERR_CERT_ROOT_IN_CMS, kRootInCms));
}

// Its names agree, and its key says nothing.
TEST_F(Signature, PassesACertificateOverSilentlyWhenItCannotTell)
{
    CmsSpec cms = DemoCms(pki_);
    const Bytes undecided = Build(With(pki_.root, &CertSpec::key, KeyId::EcP256));
    cms.certificates.push_back(undecided);
    ExpectAccepted(cms);
    EXPECT_TRUE(plan_.Logs().empty());
    EXPECT_FALSE(IsTrusted(undecided));
    EXPECT_FALSE(IsLocal(undecided));
}

TEST_F(Signature, KeepsACertificateOfVersion1AmongTheLocalOnes)
{
    CmsSpec cms = DemoCms(pki_);
    const Bytes old = Build(Version1(Signer(KeyId::Rsa2048F)));
    cms.certificates.push_back(old);
    ExpectAccepted(cms);
    EXPECT_TRUE(IsLocal(old));
}

TEST_F(Signature, MayBringACertificateTwice)
{
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.insert(cms.certificates.end(), {Build(pki_.signer), Build(pki_.signingCa)});
    ExpectAccepted(cms);
    EXPECT_TRUE(plan_.Logs().empty());
    EXPECT_EQ(Store().local_store->local_certs.num, 2u); // the signer and the timestamp authority
}

// ---- Begin: the signer's certificate ----

TEST_F(Signature, WithoutTheSignersCertificateIsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.pop_back();
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND);
}

TEST_F(Signature, NamesTheSignerByIssuerAndSerialNumber)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].serial = {0x7E};
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND);
    cms = DemoCms(pki_);
    cms.signers[0].issuer = pki_.root.subject;
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND);
    // The same characters in another string type are another name.
    cms.signers[0].issuer = Name(C("ZZ"), O("Example"), NameAttr(oid::commonName, Printable("Test Signing CA")));
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND);
}

// Signers are looked up among the local certificates.
TEST_F(Signature, ByACaIsRefused)
{
    pki_.signer.basicConstraints = Ca();
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND);
    EXPECT_TRUE(IsTrusted(Build(pki_.signer)));
}

TEST_F(Signature, WithoutIssuerAndSerialNumberHasNoCertificate)
{
    ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
    const OwnedCms cms = DecodeCms(Current().Record(), DetachedCms(payload_, DemoCms(pki_)));
    PELNIC_PKCS7_SIGNER_INFO si = *SignerOf(cms);
    EXPECT_NE(_pnvFindAuthorCertBySignerInfo(Current().Record(), &si), nullptr);
    si.issuer_sn = nullptr;
    EXPECT_EQ(_pnvFindAuthorCertBySignerInfo(Current().Record(), &si), nullptr);
}

TEST_F(Signature, OfOneNameIsJudgedByTheFirstCertificateOfThatName)
{
    CmsSpec cms = DemoCms(pki_);
    const Bytes sameName = Build(With(pki_.signer, &CertSpec::key, KeyId::Rsa2048F));
    cms.certificates.push_back(sameName);
    ExpectAccepted(cms);
    EXPECT_TRUE(IsLocal(sameName));
    std::swap(cms.certificates[1], cms.certificates[2]);
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNATURE);
}

TEST_F(Signature, WantsAKeyUsage)
{
    pki_.signer.keyUsage.reset();
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_NO_KEY_USAGE);
    pki_.signer.keyUsage = 0;
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_NO_KEY_USAGE);
}

TEST_F(Signature, WantsTheUsageDigitalSignature)
{
    pki_.signer.keyUsage = 0xFFFFu & ~usage::digitalSignature;
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_CERT_USAGE);
    pki_.signer.keyUsage = usage::nonRepudiation;
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_CERT_USAGE);
    pki_.signer.keyUsage = usage::nonRepudiation | usage::digitalSignature;
    ExpectAccepted(DemoCms(pki_));
}

TEST_F(Signature, WantsThePurposeCodeSigning)
{
    using Purposes = std::vector<std::string_view>;
    for (const Purposes& purposes : {Purposes{}, Purposes{oid::timeStamping}, Purposes{oid::serverAuth}}) {
        pki_.signer.extendedKeyUsage = purposes;
        ExpectRefused(DemoCms(pki_), PELNIC_ERR_CERT_USAGE);
    }
    for (const Purposes& purposes :
         {Purposes{oid::timeStamping, oid::codeSigning}, Purposes{oid::serverAuth, oid::codeSigning}}) {
        pki_.signer.extendedKeyUsage = purposes;
        ExpectAccepted(DemoCms(pki_));
    }
}

TEST_F(Signature, PassesAnUndecodablePurposeUp)
{
    pki_.signer.extendedKeyUsage.clear();
    pki_.signer.extraExtensions = {Ext(oid::extKeyUsage, Int(5))};
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_ASN_DECODE);
}

TEST_F(Signature, ByARevokedSignerIsRefused)
{
    pki_.signingCrl.revoked = {{pki_.signer.serial}};
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_CERT_VERIFY);
}

TEST_F(Signature, BelowARevokedCaIsRefused)
{
    pki_.rootCrl.revoked = {{pki_.signingCa.serial}};
    ExpectRefused(DemoCms(pki_), PELNIC_ERR_CERT_VERIFY);
}

TEST_F(Signature, WithoutACrlOfTheSignersCaIsRefused)
{
    const Bytes root = Build(pki_.root);
    const Bytes crls = Cat(Build(pki_.rootCrl), Build(pki_.tsaCrl));
    pnvtest::Provide(Current(), {root, crls});
    EXPECT_EQ(pnvtest::Begin(Current(), DetachedCms(payload_, DemoCms(pki_))), PELNIC_ERR_CERT_VERIFY);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CERT_VERIFY));
}

TEST_F(Signature, IsJudgedWithoutCrlsWhereTheCheckIsOff)
{
    pki_.signingCrl.revoked = {{pki_.signer.serial}};
    PELNIC_VRF_PARAMS params{};
    params.st_size = sizeof(params);
    params.no_check_crl = 1;
    ASSERT_EQ(pelnic_set_verify_params(Current(), &params), 0u);
    ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
    ASSERT_EQ(Update(payload_), 0u);
    EXPECT_EQ(Final(), good);
}

TEST_F(Signature, BelowAnotherRootIsRefused)
{
    ExpectRefused(DemoCms(DemoPki(KeyId::Rsa2048H)), PELNIC_ERR_CERT_VERIFY);
}

// ---- Begin: signers with signed attributes ----

TEST_F(Signature, OverAlteredAttributesIsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].edit = [](const Bytes& signer) { return Damage(signer, {3, 1, 1, 0}); };
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNATURE);
}

TEST_F(Signature, OfAWrongValueIsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].brokenSignature = true;
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNATURE);
}

// The signature over the attributes is checked first, and a failure to check it is a wrong signature.
TEST_F(Signature, WithAnyOtherDigestThanShaTwoIsWrong)
{
    CmsSpec cms = DemoCms(pki_);
    for (std::string_view digest : {oid::sha1, oid::md5, oid::sha1WithRsa}) {
        cms.signers[0].digestAlgorithm = AlgoId(digest);
        ExpectRefused(cms, PELNIC_ERR_CMS_SIGNATURE);
    }
    cms.signers[0].hash = Hash::Sha1;
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNATURE);
}

TEST_F(Signature, MayUseEveryShaTwoByEitherName)
{
    for (const bool direct : {false, true}) {
        for (Hash hash : {Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
            for (std::string_view name : {HashOid(hash), RsaSignatureOid(hash)}) {
                CmsSpec cms = DemoCms(pki_);
                cms.signers[0].hash = hash;
                cms.signers[0].digestAlgorithm = AlgoId(name);
                ExpectAccepted(direct ? Direct(cms) : cms);
            }
        }
    }
}

TEST_F(Signature, MayUseKeysOfEverySize)
{
    for (KeyId key : {KeyId::Rsa3072, KeyId::Rsa4096}) {
        pki_.signer = Signer(key);
        ExpectAccepted(DemoCms(pki_));
        ExpectAccepted(Direct(DemoCms(pki_)));
    }
}

TEST_F(Signature, WithAKeyThatIsNotRsaIsWrong)
{
    pki_.signer = Signer(KeyId::EcP256);
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].key = KeyId::Rsa2048D;
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNATURE);
    ExpectRefused(Direct(cms), PELNIC_ERR_CERT_INVALID);
}

TEST_F(Signature, WithoutAMessageDigestIsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].signedAttributes = [](const Bytes&) { return std::vector<Bytes>{ContentTypeAttribute(oid::data)}; };
    ExpectRefused(cms, PELNIC_ERR_CMS_NO_MESSAGE_DIGEST);
    cms.signers[0].signedAttributes = Claiming({});
    ExpectRefused(cms, PELNIC_ERR_CMS_NO_MESSAGE_DIGEST);
}

TEST_F(Signature, WithAMessageDigestLongerThanAnyIsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].signedAttributes = Claiming(Bytes(65, 0x5A));
    ExpectRefused(cms, PELNIC_ERR_SYS_MEM_OVERFLOW);
}

// What a signer claims is compared at the end, with its length.
TEST_F(Signature, WithAnotherMessageDigestIsBad)
{
    const Bytes digest = Digest(Hash::Sha256, payload_);
    CmsSpec cms = DemoCms(pki_);
    for (const Bytes& claim : {Bytes(32, 0x5A), Bytes(digest.begin(), digest.end() - 1), Cat(digest, Bytes{0x00}),
                               Digest(Hash::Sha384, payload_), Bytes(64, 0x00)}) {
        cms.signers[0].signedAttributes = Claiming(claim);
        ExpectVerdict(DetachedCms(payload_, cms), bad);
    }
}

// An empty set that is there counts as signed attributes, though no encoding of one decodes.
TEST_F(Signature, WithAnEmptySetOfAttributesLacksTheirMessageDigest)
{
    Provide();
    const OwnedCms cms = DecodeCms(Current().Record(), DetachedCms(payload_, DemoCms(pki_)));
    PNV_UINT32& attributes = SignerOf(cms)->auth_attrs->attrs.num;
    const PNV_UINT32 all = std::exchange(attributes, 0);
    _pnvSyncCrl(Current().Record());
    EXPECT_EQ(_pnvVerifyCms(Current().Record(), cms.get()), PELNIC_ERR_CMS_NO_MESSAGE_DIGEST);
    attributes = all;
    EXPECT_EQ(Entries().num, 0u);
}

TEST_F(Signature, ChecksNoOtherAttribute)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].signedAttributes = UsualAttributes(oid::tstInfo, {SigningTimeAttribute(UtcTime("700101000000Z"))});
    ExpectAccepted(cms);
    cms.signers[0].signedAttributes = [](const Bytes& digest) {
        return std::vector<Bytes>{MessageDigestAttribute(digest)};
    };
    ExpectAccepted(cms);
}

TEST_F(Signature, ChecksNoSignatureAlgorithm)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].signatureAlgorithm = AlgoId(oid::rsaPss, {});
    ExpectAccepted(cms);
}

// ---- Begin: the entry of a signer with signed attributes ----

class DigestEntry : public Signature {
protected:
    PELNIC_ERROR_CODE Make(const CmsSpec& spec)
    {
        const OwnedCms cms = DecodeCms(Current().Record(), DetachedCms(payload_, spec));
        return _pnvGetDigestFromSignerInfo(Current().Record(), SignerOf(cms), &entry_);
    }
    void ExpectNone(const CmsSpec& spec, PELNIC_ERROR_CODE rc)
    {
        EXPECT_EQ(Make(spec), rc);
        EXPECT_EQ(entry_, nullptr);
        EXPECT_TRUE(LoggedError(plan_, rc));
    }

    PELNIC_VERIFY_DIGEST_INFO* entry_ = nullptr;
};

TEST_F(DigestEntry, HoldsTheClaimAndNoContextYet)
{
    ASSERT_EQ(Make(DemoCms(pki_)), 0u);
    EXPECT_EQ(entry_->nDigestAlgID, AOID_SHA256);
    EXPECT_EQ(Bytes(entry_->pbDigest, entry_->pbDigest + entry_->nDigestSize), Digest(Hash::Sha256, payload_));
    EXPECT_EQ(entry_->digestCtx, nullptr);
    EXPECT_EQ(entry_->vrfCtx, nullptr);
    EXPECT_EQ(entry_->pbSignature, nullptr);
    _pnvFreeMdInfo(Current().Record(), entry_);
}

TEST_F(DigestEntry, IsNotMadeForAnotherDigestThanShaTwo)
{
    CmsSpec cms = DemoCms(pki_);
    for (std::string_view digest : {oid::sha1, oid::md5, oid::rsaEncryption}) {
        cms.signers[0].digestAlgorithm = AlgoId(digest);
        plan_.ClearLogs();
        ExpectNone(cms, PELNIC_ERR_CMS_DIGEST_ALGO);
    }
}

TEST_F(DigestEntry, IsNotMadeWithoutSignedAttributes)
{
    ExpectNone(Direct(DemoCms(pki_)), PELNIC_ERR_CMS_NO_MESSAGE_DIGEST);
}

TEST_F(DigestEntry, TakesTheFirstOfTwoMessageDigests)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].signedAttributes = [](const Bytes& digest) {
        return std::vector<Bytes>{MessageDigestAttribute(digest), MessageDigestAttribute(Bytes(32, 0x5A))};
    };
    ExpectAccepted(cms);
    EXPECT_EQ(Begin(cms), 0u);
    EXPECT_EQ(Entries().num, 1u);
}

TEST_F(DigestEntry, IsNotKeptWhenItsContextCannotBeMade)
{
    ASSERT_EQ(Begin(Bytes(37, 0x00)), PELNIC_ERR_CMS_FORMAT);
    const OwnedCms cms = DecodeCms(Current().Record(), DetachedCms(payload_, DemoCms(pki_)));
    for (Call step : {Call::MdCreate, Call::MdInit}) {
        plan_.ClearLogs();
        plan_.Fail(step, 1);
        EXPECT_EQ(_pnvAddSignerInfoToVerifyProcess(Current().Record(), SignerOf(cms)), PELNIC_ERR_FAILED);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_FAILED));
        EXPECT_EQ(Entries().num, 0u);
    }
    EXPECT_EQ(plan_.Count(Call::MdDestroy), 1u);
}

// ---- Begin: direct signers ----

TEST_F(Signature, OfADirectSignerCoversTheContent)
{
    ASSERT_EQ(Begin(Direct(DemoCms(pki_))), 0u);
    ASSERT_EQ(Entries().num, 1u);
    const PELNIC_VERIFY_DIGEST_INFO& entry = *Entries().data[0];
    EXPECT_EQ(entry.digestCtx, nullptr);
    EXPECT_EQ(entry.nDigestAlgID, AOID_UNKNOWN);
    EXPECT_NE(entry.vrfCtx, nullptr);
    const Bytes signature(entry.pbSignature, entry.pbSignature + entry.nSignature);
    EXPECT_EQ(signature, Sign(pki_.signer.key, Hash::Sha256, payload_));

    for (std::uint8_t octet : payload_) ASSERT_EQ(Update({octet}), 0u);
    EXPECT_EQ(Final(), good);
    const VerifyRequest& request = plan_.VerifyRequests().back();
    EXPECT_EQ(request.hashId, static_cast<PNV_UINT32>(AOID_SHA256));
    EXPECT_EQ(request.exponent, TestKey(pki_.signer.key).exponent);
    EXPECT_EQ(request.modulus, TestKey(pki_.signer.key).modulus);
    EXPECT_EQ(request.data, payload_);
    EXPECT_EQ(request.signature, signature);
}

TEST_F(Signature, OfADirectSignerIsJudgedAtTheEnd)
{
    CmsSpec cms = Direct(DemoCms(pki_));
    cms.signers[0].brokenSignature = true;
    ExpectVerdict(DetachedCms(payload_, cms), bad);
    ExpectVerdict(DetachedCms(Text("another image"), Direct(DemoCms(pki_))), bad);
}

TEST_F(Signature, OfADirectSignerMayHaveNoOtherDigestThanShaTwo)
{
    CmsSpec cms = Direct(DemoCms(pki_));
    for (std::string_view digest : {oid::sha1, oid::md5}) {
        cms.signers[0].digestAlgorithm = AlgoId(digest);
        ExpectRefused(cms, PELNIC_ERR_CMS_HASH_ALGO);
    }
}

TEST_F(Signature, OfADirectSignerAboveAllKeySizesIsRefused)
{
    pki_.signer.subjectPublicKey = RsaSpki(Bytes(513, 0xC1));
    ExpectRefused(Direct(DemoCms(pki_)), PELNIC_ERR_SYS_MEM_OVERFLOW);
}

TEST_F(Signature, OfADirectSignerMayNotBeEmpty)
{
    CmsSpec cms = Direct(DemoCms(pki_));
    cms.signers[0].signature = Bytes{};
    ExpectRefused(cms, PELNIC_ERR_NULL_POINTER);
    for (const LogRecord& record : plan_.Logs()) {
        EXPECT_EQ(record.rc, PELNIC_ERR_NULL_POINTER) << "no callback failed, and none is said to have";
    }
}

// ---- Begin: several signers ----

TEST_F(Signature, OfTwoSignersNeedsOneDigest)
{
    ASSERT_EQ(Begin(WithSecondSigner(DemoCms(pki_))), 0u);
    EXPECT_EQ(Entries().num, 1u);
    const std::size_t before = plan_.Count(Call::MdUpdate);
    ASSERT_EQ(Update(payload_), 0u);
    EXPECT_EQ(plan_.Count(Call::MdUpdate) - before, 1u);
    EXPECT_EQ(Final(), good);
}

TEST_F(Signature, OfTwoSignersNeedsADigestForEachAlgorithm)
{
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    cms.signers[1].hash = Hash::Sha384;
    ASSERT_EQ(Begin(cms), 0u);
    EXPECT_EQ(Entries().num, 2u);
    ASSERT_EQ(Update(payload_), 0u);
    EXPECT_EQ(Final(), good);
}

TEST_F(Signature, OfTwoSignersMustClaimOneDigest)
{
    const Bytes digest = Digest(Hash::Sha256, payload_);
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    for (const Bytes& claim : {Bytes(32, 0x5A), Bytes(digest.begin(), digest.end() - 1), Cat(digest, Bytes{0x00})}) {
        cms.signers[1].signedAttributes = Claiming(claim);
        ExpectRefused(cms, PELNIC_ERR_CMS_DIGEST_CONFLICT);
    }
}

TEST_F(Signature, OfADirectSignerAndAnotherHasAnEntryForEach)
{
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    for (std::size_t direct : {0u, 1u}) {
        CmsSpec mixed = cms;
        mixed.signers[direct].signedAttributes = nullptr;
        ExpectAccepted(mixed);
        ASSERT_EQ(Begin(mixed), 0u);
        EXPECT_EQ(Entries().num, 2u);
    }
}

TEST_F(Signature, OfTwoDirectSignersHasAnEntryForEach)
{
    const CmsSpec cms = Direct(WithSecondSigner(DemoCms(pki_)));
    ExpectAccepted(cms);
    ASSERT_EQ(Begin(cms), 0u);
    EXPECT_EQ(Entries().num, 2u);
}

TEST_F(Signature, NeedsEverySigner)
{
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    cms.signers[1].brokenSignature = true;
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNATURE);
    cms = WithSecondSigner(DemoCms(pki_));
    cms.certificates.pop_back();
    ExpectRefused(cms, PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND);
}

TEST_F(Signature, OfManySignersIsAccepted)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers = std::vector<SignerSpec>(7, cms.signers[0]);
    ExpectAccepted(cms);
    ExpectAccepted(Direct(cms));
}

// ---- Begin: what is looked at first ----

TEST_F(Signature, IsAskedForItsTimestampFirst)
{
    CmsSpec cms = DemoCms(pki_);
    cms.certificates.clear();
    cms.signers[0].brokenSignature = true;
    cms.signers[0].unsignedAttributes.clear();
    ExpectRefused(cms, PELNIC_ERR_NULL_POINTER);
}

TEST_F(Signature, IsAskedForItsSignersUsageBeforeItsValue)
{
    pki_.signer.extendedKeyUsage = {oid::timeStamping};
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].brokenSignature = true;
    ExpectRefused(cms, PELNIC_ERR_CERT_USAGE);
}

// ---- Update ----

TEST_F(Signature, IsFedInPartsOfAnySize)
{
    for (const CmsSpec& cms : {DemoCms(pki_), Direct(DemoCms(pki_))}) {
        Renew();
        ASSERT_EQ(Begin(cms), 0u);
        for (std::size_t from = 0, part = 1; from < payload_.size(); from += part, ++part) {
            const std::size_t to = std::min(from + part, payload_.size());
            ASSERT_EQ(Update(Bytes(payload_.begin() + static_cast<std::ptrdiff_t>(from),
                                   payload_.begin() + static_cast<std::ptrdiff_t>(to))),
                      0u);
        }
        EXPECT_EQ(Final(), good);
    }
}

TEST_F(Signature, UpdateWantsContent)
{
    ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
    EXPECT_EQ(pelnic_verify_detach_signature_update(Current(), nullptr, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_NULL_POINTER));
    plan_.ClearLogs();
    EXPECT_EQ(pelnic_verify_detach_signature_update(Current(), payload_.data(), 0), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_NULL_POINTER));
    ASSERT_EQ(Update(payload_), 0u);
    EXPECT_EQ(Final(), good);
}

TEST_F(Signature, UpdateWantsABegin)
{
    EXPECT_EQ(Update(payload_), PELNIC_ERR_CMS_NOT_BEGUN);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_NOT_BEGUN));
}

TEST_F(Signature, UpdateWantsASigner)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers.clear();
    ASSERT_EQ(Begin(cms), 0u);
    EXPECT_EQ(Update(payload_), PELNIC_ERR_CMS_NOT_BEGUN);
}

TEST_F(Signature, UpdateStopsAtTheFirstFailure)
{
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    cms.signers[1].hash = Hash::Sha512;
    for (const bool direct : {false, true}) {
        const Call update = direct ? Call::VerifyUpdate : Call::MdUpdate;
        Renew();
        ASSERT_EQ(Begin(direct ? Direct(cms) : cms), 0u);
        const std::size_t before = plan_.Count(update);
        plan_.Fail(update, 1);
        EXPECT_EQ(Update(payload_), PELNIC_ERR_FAILED);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_FAILED));
        EXPECT_EQ(plan_.Count(update) - before, 1u);
        EXPECT_EQ(Final(), bad);
    }
}

TEST_F(Signature, EntryWithoutContextIsFedNothingAndBad)
{
    ASSERT_EQ(Begin(Direct(DemoCms(pki_))), 0u);
    PELNIC_CRYPTO_VRF_CTX& context = Entries().data[0]->vrfCtx;
    const PELNIC_CRYPTO_VRF_CTX taken = std::exchange(context, nullptr);
    EXPECT_EQ(Update(payload_), PELNIC_ERR_CMS_NOT_BEGUN);
    EXPECT_TRUE(plan_.Logs().empty());
    context = taken;
    EXPECT_EQ(Update(payload_), 0u);
    EXPECT_EQ(Final(), good);
}

// A digest that counts what it is given and reads none of it.
std::vector<PNV_UINT32> g_given;
PELNIC_ERROR_CODE CountUpdate(void*, const PNV_BYTE*, PNV_UINT32 length)
{
    g_given.push_back(length);
    return 0;
}

// The length is a bit pattern: what is negative as a signed number is 2 GiB and more, fed whole and in one call.
TEST_F(Signature, UpdateTakesALengthWithTheTopBitSetWhole)
{
    if (sizeof(std::size_t) == 4) GTEST_SKIP() << "there is no room for such a content";
    for (PNV_UINT32 length : {0x80000000u, 0x80000001u, 0xFFFFFFFFu}) {
        void* const content = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        ASSERT_NE(content, MAP_FAILED);
        for (const CmsSpec& cms : {DemoCms(pki_), Direct(DemoCms(pki_))}) {
            Renew();
            ASSERT_EQ(Begin(cms), 0u);
            Current()->callback_funcs.md_funcs.pelnic_md_update = CountUpdate;
            Current()->callback_funcs.crypt_funcs.pelnic_verify_update = CountUpdate;
            g_given.clear();
            EXPECT_EQ(pelnic_verify_detach_signature_update(Current(), static_cast<const PNV_BYTE*>(content),
                                                            static_cast<PNV_INT>(length)),
                      0u);
            EXPECT_EQ(g_given, std::vector<PNV_UINT32>{length});
        }
        munmap(content, length);
    }
}

// ---- Final ----

constexpr const char* kFinalFailed = "Verify Signature Content failed.";

TEST_F(Signature, FinalWantsAResult)
{
    ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
    ASSERT_EQ(Update(payload_), 0u);
    EXPECT_EQ(pelnic_verify_detach_signature_final(Current(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_NULL_POINTER));
    EXPECT_EQ(Final(), good);
}

TEST_F(Signature, OverAnotherContentIsBad)
{
    Bytes altered = payload_;
    altered[3] ^= 0x01;
    for (const Bytes& content : {altered, Cat(payload_, payload_), Bytes(payload_.begin(), payload_.end() - 1)}) {
        for (const CmsSpec& cms : {DemoCms(pki_), Direct(DemoCms(pki_))}) {
            Renew();
            ASSERT_EQ(Begin(cms), 0u);
            ASSERT_EQ(Update(content), 0u);
            EXPECT_EQ(Final(), bad);
            EXPECT_TRUE(plan_.Logs().empty());
        }
    }
}

TEST_F(Signature, OverContentThatNeverCameIsBad)
{
    for (const CmsSpec& cms : {DemoCms(pki_), Direct(DemoCms(pki_))}) {
        Renew();
        ASSERT_EQ(Begin(cms), 0u);
        EXPECT_EQ(Final(), bad);
    }
}

TEST_F(Signature, OverNothingIsGoodWithoutContent)
{
    const Bytes signature = DetachedCms({}, DemoCms(pki_));
    ASSERT_EQ(Begin(signature), 0u);
    EXPECT_EQ(Final(), good);
}

// All that is left of a verification goes, so that the next final has nothing to judge.
TEST_F(Signature, FinalEndsTheVerificationWhateverItFinds)
{
    for (const Bytes& content : {payload_, Text("other")}) {
        Renew();
        ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
        ASSERT_EQ(Update(content), 0u);
        (void)Final();
        EXPECT_EQ(Entries().num, 0u);
        EXPECT_EQ(Update(payload_), PELNIC_ERR_CMS_NOT_BEGUN);
    }
}

// A mismatch of a digest ends the walk before the signatures behind it.
TEST_F(Signature, FinalStopsAtADigestThatDiffers)
{
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    cms.signers[1].signedAttributes = nullptr;
    cms.signers[0].signedAttributes = Claiming(Bytes(32, 0x5A));
    ASSERT_EQ(Begin(cms), 0u);
    ASSERT_EQ(Update(payload_), 0u);
    const std::size_t before = plan_.Count(Call::VerifyFinal);
    EXPECT_EQ(Final(), bad);
    EXPECT_EQ(plan_.Count(Call::VerifyFinal), before);
}

TEST_F(Signature, FinalJudgesADigestBehindASignature)
{
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    cms.signers[0].signedAttributes = nullptr;
    cms.signers[1].signedAttributes = Claiming(Bytes(32, 0x5A));
    ExpectVerdict(DetachedCms(payload_, cms), bad);
}

// A digest that agrees does not make up for a signature that does not.
TEST_F(Signature, FinalKeepsTheVerdictOfASignatureBeforeADigest)
{
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    cms.signers[0].signedAttributes = nullptr;
    cms.signers[0].brokenSignature = true;
    ExpectVerdict(DetachedCms(payload_, cms), bad);
}

TEST_F(Signature, FinalPassesAFailureOfTheCallbacksUp)
{
    for (const bool direct : {false, true}) {
        Renew();
        ASSERT_EQ(Begin(direct ? Direct(DemoCms(pki_)) : DemoCms(pki_)), 0u);
        ASSERT_EQ(Update(payload_), 0u);
        plan_.Fail(direct ? Call::VerifyFinal : Call::MdFinal, 1);
        EXPECT_EQ(Final(), (Verdict{PELNIC_ERR_FAILED, 0}));
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_FAILED, kFinalFailed));
        EXPECT_EQ(Entries().num, 0u);
    }
}

TEST_F(Signature, FinalRefusesASignatureEntryWithoutContext)
{
    ASSERT_EQ(Begin(Direct(DemoCms(pki_))), 0u);
    PELNIC_VERIFY_DIGEST_INFO& entry = *Entries().data[0];
    pelnic_free(Current().Record(), std::exchange(entry.pbSignature, nullptr)); // freed only together with a context
    Current()->callback_funcs.crypt_funcs.pelnic_verify_ctx_destory(std::exchange(entry.vrfCtx, nullptr));
    EXPECT_EQ(Final(), (Verdict{PELNIC_ERR_CMS_SIGNATURE, 0}));
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_SIGNATURE, kFinalFailed));
}

TEST_F(Signature, FinalPassesAMissingEntryOver)
{
    ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
    _pnvFreeMdInfo(Current().Record(), std::exchange(Entries().data[0], nullptr));
    EXPECT_EQ(Final(), good);
}

// ---- One verification after the other ----

TEST_F(Signature, OfTheNextVerificationIsJudgedForItself)
{
    const Bytes other = Text("another image");
    ExpectAccepted(DemoCms(pki_));
    EXPECT_EQ(Verify(Current(), DetachedCms(other, DemoCms(pki_)), payload_), bad);
    EXPECT_EQ(Verify(Current(), DetachedCms(other, Direct(DemoCms(pki_))), other), good);
    EXPECT_TRUE(plan_.Logs().empty());
}

// What came before the failure stays, until a final or the context's end takes it.
TEST_F(Signature, ThatIsRefusedLeavesTheEntriesOfItsFirstSigners)
{
    CmsSpec cms = WithSecondSigner(DemoCms(pki_));
    cms.signers[1].unsignedAttributes.clear();
    ExpectRefused(cms, PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Entries().num, 1u);
    EXPECT_EQ(Begin(DetachedCms(Text("another image"), DemoCms(pki_))), PELNIC_ERR_CMS_DIGEST_CONFLICT);
    EXPECT_EQ(Begin(DemoCms(pki_)), 0u);
    EXPECT_EQ(Entries().num, 1u);
    EXPECT_EQ(Final(), bad);
    EXPECT_EQ(Entries().num, 0u);
}

TEST_F(Signature, ThatIsNeverFinishedIsReleasedWithItsContext)
{
    for (const CmsSpec& cms : {DemoCms(pki_), Direct(DemoCms(pki_))}) {
        Renew();
        ASSERT_EQ(Begin(cms), 0u);
        ASSERT_EQ(Update(payload_), 0u);
        Renew();
        EXPECT_TRUE(plan_.Problems().empty());
    }
}

// ---- Quick ----

class QuickSignature : public Signature {
protected:
    Verdict Quick(const std::string& content, const std::string& signature)
    {
        Provide();
        Verdict verdict{0, kMark};
        verdict.code =
            pelnic_verify_detach_signature_quick(Current(), content.c_str(), signature.c_str(), &verdict.result);
        return verdict;
    }
    Verdict Quick(const Bytes& content, const Bytes& signature)
    {
        return Quick(dir_.Write("content", content), dir_.Write("signature", signature));
    }
    void ExpectFailed(const std::string& content, const std::string& signature, PELNIC_ERROR_CODE rc,
                      PELNIC_ERROR_CODE logged, const std::string& message)
    {
        plan_.ClearLogs();
        EXPECT_EQ(Quick(content, signature), (Verdict{rc, 0}));
        EXPECT_TRUE(LoggedError(plan_, logged, message));
        EXPECT_TRUE(LoggedError(plan_, rc));
    }

    TempDir dir_;
    const std::string content_ = dir_.Write("good", payload_);
    const std::string signature_ = dir_.Write("good.p7s", DetachedCms(payload_, DemoCms(pki_)));
};

TEST_F(QuickSignature, JudgesFiles)
{
    EXPECT_EQ(Quick(content_, signature_), good);
    EXPECT_EQ(Quick(content_, dir_.Write("direct", DetachedCms(payload_, Direct(DemoCms(pki_))))), good);
    EXPECT_EQ(Quick(content_, dir_.Write("pem", Pem("CMS", ReadWholeFile(signature_)))), good);
    EXPECT_EQ(Quick(dir_.Write("other", Text("another image")), signature_), bad);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(QuickSignature, ReadsTheContentInBlocks)
{
    const Bytes nothing = DetachedCms({}, DemoCms(pki_));
    EXPECT_EQ(Quick({}, nothing), good);
    const std::size_t ofBegin = plan_.Count(Call::MdUpdate);
    const std::pair<std::size_t, std::size_t> blocks[] = {{1, 1},    {4095, 1}, {4096, 1},
                                                          {4097, 2}, {8192, 2}, {10000, 3}};
    for (const auto& [length, expected] : blocks) {
        const Bytes content(length, 0x5A);
        const Bytes signature = DetachedCms(content, DemoCms(pki_));
        const std::size_t before = plan_.Count(Call::MdUpdate);
        EXPECT_EQ(Quick(content, signature), good);
        EXPECT_EQ(plan_.Count(Call::MdUpdate) - before - ofBegin, expected) << length;
    }
}

TEST_F(QuickSignature, WantsEveryArgument)
{
    PNV_INT32 result = kMark;
    const char* const path = content_.c_str();
    for (const PELNIC_ERROR_CODE rc : {pelnic_verify_detach_signature_quick(Current(), nullptr, path, &result),
                                       pelnic_verify_detach_signature_quick(Current(), path, nullptr, &result),
                                       pelnic_verify_detach_signature_quick(Current(), path, path, nullptr)}) {
        EXPECT_EQ(rc, PELNIC_ERR_NULL_POINTER);
    }
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_NULL_POINTER));
    EXPECT_EQ(result, kMark);
    EXPECT_EQ(Current()->crl_frozen, 0u);
}

TEST_F(QuickSignature, SaysWhichFileDoesNotOpen)
{
    const std::string none = dir_.Path("none");
    ExpectFailed(content_, none, PELNIC_ERR_SYS_FILE_OPEN, PELNIC_ERR_SYS_FILE_OPEN,
                 "Can not open file '" + none + "'.");
    ExpectFailed(none, signature_, PELNIC_ERR_SYS_FILE_OPEN, PELNIC_ERR_SYS_FILE_OPEN,
                 "Can't open file '" + none + "'.");
}

// An empty path is logged as one that does not open, and answered as no path.
TEST_F(QuickSignature, RefusesAnEmptyPath)
{
    ExpectFailed(content_, "", PELNIC_ERR_NULL_POINTER, PELNIC_ERR_SYS_FILE_OPEN, "Empty file path.");
    ExpectFailed("", signature_, PELNIC_ERR_NULL_POINTER, PELNIC_ERR_SYS_FILE_OPEN, "Empty file path.");
}

TEST_F(QuickSignature, RefusesASignatureFileOfNoUsableSize)
{
    ExpectFailed(content_, dir_.Write("empty", {}), PELNIC_ERR_SYS_FILE_EMPTY, PELNIC_ERR_SYS_FILE_EMPTY, "");
    ExpectFailed(content_, dir_.WriteSparse("large", 2000001), PELNIC_ERR_SYS_FILE_TOO_LARGE,
                 PELNIC_ERR_SYS_FILE_TOO_LARGE, "");
    EXPECT_EQ(Current()->crl_frozen, 0u);
}

TEST_F(QuickSignature, PassesARefusedSignatureUp)
{
    ExpectFailed(content_, dir_.Write("short", Bytes(37, 0x30)), PELNIC_ERR_CMS_FORMAT, PELNIC_ERR_CMS_FORMAT, "");
    ExpectFailed(content_, dir_.Write("garbage", Bytes(38, 0x30)), PELNIC_ERR_CMS_DECODE, PELNIC_ERR_CMS_DECODE, "");
}

// A signature is read in one piece, a content in as many as it comes.
TEST_F(QuickSignature, RefusesAShortReadOfTheSignatureOnly)
{
    Provide();
    plan_.Fail(Call::Fread, 1);
    EXPECT_EQ(Quick(content_, signature_), (Verdict{PELNIC_ERR_SYS_FILE_READ, 0}));
    plan_.Fail(Call::Fread, 2);
    EXPECT_EQ(Quick(content_, signature_), good);
}

// The signature is read as it is; what comes behind it is a count that no block can hold.
size_t ReadTooMuch(void* buf, size_t size, PNV_FILE_HANDLE h)
{
    PELNIC_CALLBACK_FUNCS defaults{};
    (void)pelnic_set_callback_funcs(&defaults);
    const size_t got = defaults.plt_funcs.sys_funcs.file_funcs.fread(buf, size, h);
    return size == 4096 ? static_cast<size_t>(-1) : got;
}

TEST_F(QuickSignature, TakesAnImpossibleCountForTheEnd)
{
    Provide();
    Current()->callback_funcs.plt_funcs.sys_funcs.file_funcs.fread = ReadTooMuch;
    EXPECT_EQ(Quick(content_, signature_), bad);
    EXPECT_EQ(Quick(content_, dir_.Write("nothing", DetachedCms({}, DemoCms(pki_)))), good);
}

TEST_F(QuickSignature, TakesAReadErrorForTheEnd)
{
    EXPECT_EQ(Quick(dir_.Path(), signature_), bad);
    EXPECT_EQ(Quick(dir_.Path(), dir_.Write("nothing", DetachedCms({}, DemoCms(pki_)))), good);
}

TEST_F(QuickSignature, TellsAnEmptyPathFromOneThatCannotBeOpened)
{
    ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
    for (const PNV_CHAR* path : {static_cast<const PNV_CHAR*>(nullptr), ""}) {
        plan_.ClearLogs();
        EXPECT_EQ(_pnvUpdateContent(Current().Record(), path), PELNIC_ERR_NULL_POINTER);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_FILE_OPEN, "Empty file path."));
    }
}

TEST_F(QuickSignature, ReportsThatThereIsNoReadBuffer)
{
    ASSERT_EQ(Begin(DemoCms(pki_)), 0u);
    plan_.Fail(Call::Malloc, 1);
    EXPECT_EQ(_pnvUpdateContent(Current().Record(), content_.c_str()), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_MEM_ALLOC));
}

TEST_F(QuickSignature, ReportsAnUpdateThatFails)
{
    EXPECT_EQ(_pnvUpdateContent(Current().Record(), content_.c_str()), PELNIC_ERR_CMS_NOT_BEGUN);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_NOT_BEGUN));
    EXPECT_EQ(plan_.Count(Call::Fclose), 1u);
}

// ---- The digest of a range ----

TEST_F(Signature, HashOfARangeIsTheDigest)
{
    for (const auto& [hash, aoid] : {std::pair{Hash::Sha256, AOID_SHA256}, std::pair{Hash::Sha384, AOID_SHA384},
                                     std::pair{Hash::Sha512, AOID_SHA512}}) {
        PNV_BYTE digest[64] = {};
        PNV_UINT32 length = 0;
        ASSERT_EQ(_pnvHashContent(Current().Record(), payload_.data(), Len(payload_), aoid, digest, &length), 0u);
        EXPECT_EQ(Bytes(digest, digest + length), Digest(hash, payload_));
    }
}

TEST_F(Signature, HashOfARangeReportsEveryFailure)
{
    PNV_BYTE digest[64] = {};
    PNV_UINT32 length = 0;
    for (Call step : {Call::MdCreate, Call::MdInit, Call::MdUpdate, Call::MdFinal}) {
        plan_.ClearLogs();
        plan_.Fail(step, 1);
        EXPECT_EQ(_pnvHashContent(Current().Record(), payload_.data(), Len(payload_), AOID_SHA256, digest, &length),
                  PELNIC_ERR_FAILED);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_FAILED));
    }
    EXPECT_EQ(plan_.Count(Call::MdDestroy), 3u);
    EXPECT_EQ(_pnvHashContent(Current().Record(), payload_.data(), Len(payload_), AOID_RSA, digest, &length),
              PELNIC_ERR_FAILED);
}

} // namespace
} // namespace pnvtest
