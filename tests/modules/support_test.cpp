// The test support judged by a second opinion: what the builders make, OpenSSL reads and verifies.
#include "support/callbacks.h"
#include "support/cms.h"
#include "support/exact_heap.h"
#include "support/package.h"
#include "support/vrf.h"

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>

#include <gtest/gtest-spi.h>

#include <cstring>

using namespace pnvtest;

namespace {

struct OpensslFree {
    void operator()(ASN1_OBJECT* object) const { ASN1_OBJECT_free(object); }
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(CMS_ContentInfo* cms) const { CMS_ContentInfo_free(cms); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(PKCS7* pkcs7) const { PKCS7_free(pkcs7); }
    void operator()(STACK_OF(X509) * certs) const { sk_X509_free(certs); }
    void operator()(TS_TST_INFO* info) const { TS_TST_INFO_free(info); }
    void operator()(TS_VERIFY_CTX* ctx) const { TS_VERIFY_CTX_free(ctx); }
    void operator()(X509* cert) const { X509_free(cert); }
    void operator()(X509_CRL* crl) const { X509_CRL_free(crl); }
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
    void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
};
template <typename Type> using Owned = std::unique_ptr<Type, OpensslFree>;

constexpr time_t k2026 = 1767225600;

// Decodes with one of OpenSSL's d2i functions, which must use every octet.
template <typename Type> Owned<Type> Parse(Type* (*d2i)(Type**, const unsigned char**, long), const Bytes& der)
{
    const unsigned char* at = der.data();
    Owned<Type> parsed(d2i(nullptr, &at, static_cast<long>(der.size())));
    EXPECT_EQ(at, der.data() + der.size());
    return parsed;
}

Owned<X509> ParseCert(const Bytes& der)
{
    return Parse(d2i_X509, der);
}

Owned<EVP_PKEY> PublicKey(KeyId key)
{
    return Parse(d2i_PUBKEY, Spki(key));
}

Owned<BIO> Reader(const Bytes& octets)
{
    return Owned<BIO>(BIO_new_mem_buf(octets.data(), static_cast<int>(octets.size())));
}

bool SignedWith(const Bytes& cert, KeyId key)
{
    return X509_verify(ParseCert(cert).get(), PublicKey(key).get()) == 1;
}

// Trusts one certificate, judges in 2026, for any purpose, and checks CRLs of the whole chain when there are any.
Owned<X509_STORE> Store(const CertSpec& root, const std::vector<CrlSpec>& crls = {})
{
    Owned<X509_STORE> store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), ParseCert(Build(root)).get());
    for (const CrlSpec& crl : crls) X509_STORE_add_crl(store.get(), Parse(d2i_X509_CRL, Build(crl)).get());
    X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store.get()), k2026);
    X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
    if (!crls.empty()) X509_STORE_set_flags(store.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    return store;
}

int ChainError(X509_STORE* store, const CertSpec& cert, const CertSpec& intermediate)
{
    const Owned<X509> leaf = ParseCert(Build(cert));
    const Owned<X509> ca = ParseCert(Build(intermediate));
    const Owned<STACK_OF(X509)> untrusted(sk_X509_new_null());
    sk_X509_push(untrusted.get(), ca.get());
    const Owned<X509_STORE_CTX> ctx(X509_STORE_CTX_new());
    X509_STORE_CTX_init(ctx.get(), store, leaf.get(), untrusted.get());
    X509_verify_cert(ctx.get());
    return X509_STORE_CTX_get_error(ctx.get());
}

bool CmsVerifies(const Bytes& cms, const Bytes& payload, const DemoPki& pki)
{
    const Owned<CMS_ContentInfo> parsed = Parse(d2i_CMS_ContentInfo, cms);
    const bool good =
        CMS_verify(parsed.get(), nullptr, Store(pki.root).get(), Reader(payload).get(), nullptr, CMS_BINARY) == 1;
    ERR_clear_error();
    return good;
}

bool TokenVerifies(const Bytes& token, const Bytes& stamped, const DemoPki& pki)
{
    const Owned<PKCS7> parsed = Parse(d2i_PKCS7, token);
    const Owned<TS_VERIFY_CTX> ctx(TS_VERIFY_CTX_new());
    TS_VERIFY_CTX_set_flags(ctx.get(), TS_VFY_SIGNATURE | TS_VFY_VERSION | TS_VFY_DATA);
    TS_VERIFY_CTX_set_data(ctx.get(), Reader(stamped).release());
    TS_VERIFY_CTX_set_store(ctx.get(), Store(pki.root).release());
    const bool good = TS_RESP_verify_token(ctx.get(), parsed.get()) == 1;
    ERR_clear_error();
    return good;
}

const Bytes kPayload = Text("a firmware image");

} // namespace

// ---- der ----

TEST(Der, ReadsLikeAsn1)
{
    EXPECT_EQ(Seq(Ctx(0, Int({0x02})), Int({0x12, 0x34})),
              (Bytes{0x30, 0x09, 0xA0, 0x03, 0x02, 0x01, 0x02, 0x02, 0x02, 0x12, 0x34}));
    EXPECT_EQ(Name(Cn("A")),
              (Bytes{0x30, 0x0C, 0x31, 0x0A, 0x30, 0x08, 0x06, 0x03, 0x55, 0x04, 0x03, 0x0C, 0x01, 0x41}));
}

TEST(Der, NameTakesMultiValuedRdns)
{
    const Bytes name = Name(C("ZZ"), Rdn(O("Example"), Ou("Unit")));
    EXPECT_EQ(Children(name, Find(name, {})).size(), 2u);
    EXPECT_EQ(Children(name, Find(name, {1})).size(), 2u);
    EXPECT_EQ(Content(name, {1, 1, 1}), Text("Unit"));
}

TEST(Der, LengthsAreMinimal)
{
    EXPECT_EQ(Length(0), (Bytes{0x00}));
    EXPECT_EQ(Length(127), (Bytes{0x7F}));
    EXPECT_EQ(Length(128), (Bytes{0x81, 0x80}));
    EXPECT_EQ(Length(256), (Bytes{0x82, 0x01, 0x00}));
    EXPECT_EQ(Length(65536), (Bytes{0x83, 0x01, 0x00, 0x00}));
}

TEST(Der, LiesAndDetoursAreKept)
{
    EXPECT_EQ(Tlv(0x02, 3, {0x01, 0x02}), (Bytes{0x02, 0x03, 0x01, 0x02}));
    EXPECT_EQ(TlvLong(0x04, 2, {0x01}), (Bytes{0x04, 0x82, 0x00, 0x01, 0x01}));
    EXPECT_EQ(TlvLong(0x04, 0, {}), (Bytes{0x04, 0x80}));
}

TEST(Der, IntegersByValueAreMinimal)
{
    EXPECT_EQ(Int(0), (Bytes{0x02, 0x01, 0x00}));
    EXPECT_EQ(Int(127), (Bytes{0x02, 0x01, 0x7F}));
    EXPECT_EQ(Int(128), (Bytes{0x02, 0x02, 0x00, 0x80}));
    EXPECT_EQ(Int(-1), (Bytes{0x02, 0x01, 0xFF}));
    EXPECT_EQ(Int(-128), (Bytes{0x02, 0x01, 0x80}));
    EXPECT_EQ(Int(-129), (Bytes{0x02, 0x02, 0xFF, 0x7F}));
    EXPECT_EQ(Enum(4), (Bytes{0x0A, 0x01, 0x04}));
}

TEST(Der, IntegersByContentAreLeftAlone)
{
    EXPECT_EQ(Int({0x80}), (Bytes{0x02, 0x01, 0x80}));
    EXPECT_EQ(Int({0x00, 0x01}), (Bytes{0x02, 0x02, 0x00, 0x01}));
    EXPECT_EQ(Int(Bytes{}), (Bytes{0x02, 0x00}));
}

TEST(Der, ObjectIdentifiersAgreeWithOpenssl)
{
    for (std::string_view dotted : {oid::sha256WithRsa, oid::sha512, oid::timestampToken, oid::commonName}) {
        const Owned<ASN1_OBJECT> object(OBJ_txt2obj(std::string(dotted).c_str(), 1));
        const Bytes content(OBJ_get0_data(object.get()), OBJ_get0_data(object.get()) + OBJ_length(object.get()));
        EXPECT_EQ(Oid(dotted), Tlv(0x06, content));
    }
}

TEST(Der, FindLooksIntoConstructedAndWrappedElements)
{
    const Bytes der = Seq(Int(1), Seq(Octets(Seq(Int(5), Null())), Bits(0, Seq(Int(7)))));
    EXPECT_EQ(Extract(der, {}), der);
    EXPECT_EQ(Extract(der, {1, 0, 0, 1}), Null());
    EXPECT_EQ(Extract(der, {1, 1, 0, 0}), Int(7));
    const Element seven = Find(der, {1, 1, 0, 0});
    EXPECT_EQ(seven.offset, der.size() - 3);
    EXPECT_EQ(seven.headerLength, 2u);
    EXPECT_EQ(seven.contentLength, 1u);
    EXPECT_EQ(seven.End(), der.size());
}

TEST(Der, FindReadsLongLengths)
{
    const Bytes der = Seq(Octets(Bytes(300, 0x55)), Int(9));
    EXPECT_EQ(Find(der, {0}).headerLength, 4u);
    EXPECT_EQ(Extract(der, {1}), Int(9));
}

TEST(Der, ReplaceRebuildsEnclosingLengths)
{
    const Bytes der = Seq(Int(1), Seq(Octets(Seq(Int(5))), Bits(0, Seq(Int(7)))), Null());
    EXPECT_EQ(Replace(der, {1, 0, 0, 0}, Octets(Bytes(200, 0))),
              Seq(Int(1), Seq(Octets(Seq(Octets(Bytes(200, 0)))), Bits(0, Seq(Int(7)))), Null()));
    EXPECT_EQ(Replace(der, {1, 1, 0, 0}, {}), Seq(Int(1), Seq(Octets(Seq(Int(5))), Bits(0, Seq())), Null()));
}

TEST(Der, DamageChangesOneOctet)
{
    EXPECT_EQ(Damage(Seq(Int(1), Int(4)), {1}), Seq(Int(1), Int(5)));
}

TEST(Der, MisuseEndsTheProcess)
{
    EXPECT_DEATH(Find(Seq(Int(1)), {1}), "no child 1");
    EXPECT_DEATH(Oid("1.2.x"), "not an object identifier");
}

// ---- test_keys ----

TEST(TestKeys, SignaturesVerify)
{
    for (KeyId key : {KeyId::Rsa2048A, KeyId::Rsa2048B, KeyId::Rsa2048C, KeyId::Rsa2048D, KeyId::Rsa2048E,
                      KeyId::Rsa2048F, KeyId::Rsa2048G, KeyId::Rsa2048H, KeyId::Rsa3072, KeyId::Rsa4096}) {
        EXPECT_TRUE(SignedWith(Build(Root(key)), key));
    }
}

TEST(TestKeys, SignaturesVerifyWithEveryHash)
{
    for (Hash hash : {Hash::Sha1, Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
        EXPECT_TRUE(SignedWith(Build(With(Root(), &CertSpec::hash, hash)), KeyId::Rsa2048A));
    }
}

TEST(TestKeys, AreDifferentAndOfTheirSize)
{
    EXPECT_NE(TestKey(KeyId::Rsa2048A).modulus, TestKey(KeyId::Rsa2048B).modulus);
    EXPECT_EQ(TestKey(KeyId::Rsa2048H).modulus.size(), 256u);
    EXPECT_EQ(TestKey(KeyId::Rsa3072).modulus.size(), 384u);
    EXPECT_EQ(TestKey(KeyId::Rsa4096).modulus.size(), 512u);
    EXPECT_EQ(TestKey(KeyId::Rsa4096).exponent, (Bytes{0x01, 0x00, 0x01}));
    EXPECT_EQ(EVP_PKEY_get_base_id(PublicKey(KeyId::EcP256).get()), EVP_PKEY_EC);
}

TEST(TestKeys, RsaSpkiIsWhatOpensslWrites)
{
    EXPECT_EQ(RsaSpki(TestKey(KeyId::Rsa3072).modulus), Spki(KeyId::Rsa3072));
}

// ---- pki ----

TEST(Pki, DemoChainsVerifyWithCrls)
{
    for (KeyId rootKey : {KeyId::Rsa2048A, KeyId::Rsa4096}) {
        const DemoPki pki(rootKey);
        const Owned<X509_STORE> store = Store(pki.root, {pki.rootCrl, pki.signingCrl, pki.tsaCrl});
        EXPECT_EQ(ChainError(store.get(), pki.signer, pki.signingCa), X509_V_OK);
        EXPECT_EQ(ChainError(store.get(), pki.tsa, pki.tsaCa), X509_V_OK);
    }
}

TEST(Pki, CrlsRevoke)
{
    DemoPki pki;
    pki.signingCrl.revoked = {{{0x77}}, {pki.signer.serial, GenTime("20250301000000Z"), 1}};
    const Owned<X509_STORE> store = Store(pki.root, {pki.rootCrl, pki.signingCrl});
    EXPECT_EQ(ChainError(store.get(), pki.signer, pki.signingCa), X509_V_ERR_CERT_REVOKED);
}

TEST(Pki, IntermediateWithoutCrlSign)
{
    const Bytes ca = Build(With(Intermediate("Test CA"), &CertSpec::keyUsage, usage::keyCertSign));
    EXPECT_EQ(X509_get_key_usage(ParseCert(ca).get()), static_cast<unsigned>(KU_KEY_CERT_SIGN));
}

TEST(Pki, FieldsReadBackAsDescribed)
{
    const Owned<X509> signer = ParseCert(Build(Signer()));
    EXPECT_EQ(X509_get_version(signer.get()), X509_VERSION_3);
    EXPECT_EQ(X509_get_key_usage(signer.get()), static_cast<unsigned>(KU_DIGITAL_SIGNATURE));
    EXPECT_EQ(X509_get_extended_key_usage(signer.get()), static_cast<unsigned>(XKU_CODE_SIGN));
    EXPECT_EQ(X509_check_ca(signer.get()), 0);
    EXPECT_EQ(X509_get_extended_key_usage(ParseCert(Build(Tsa())).get()), static_cast<unsigned>(XKU_TIMESTAMP));
    EXPECT_EQ(X509_check_ca(ParseCert(Build(SigningCa())).get()), 1);
    EXPECT_EQ(X509_get_pathlen(ParseCert(Build(With(SigningCa(), &CertSpec::basicConstraints, Ca(3)))).get()), 3);
}

TEST(Pki, Version1HasNoExtensions)
{
    const Owned<X509> cert = ParseCert(Build(Version1(Signer())));
    EXPECT_EQ(X509_get_version(cert.get()), X509_VERSION_1);
    EXPECT_EQ(X509_get_ext_count(cert.get()), 0);
}

TEST(Pki, AbsentExtensionsAreAbsent)
{
    const Owned<X509> cert = ParseCert(Build(With(Signer(), &CertSpec::keyUsage, std::nullopt)));
    EXPECT_EQ(X509_get_ext_by_NID(cert.get(), NID_key_usage, -1), -1);
    EXPECT_GE(X509_get_ext_by_NID(cert.get(), NID_ext_key_usage, -1), 0);
}

TEST(Pki, KeyUsageIsANamedBitList)
{
    EXPECT_EQ(KeyUsage(0), (Bytes{0x03, 0x01, 0x00}));
    EXPECT_EQ(KeyUsage(usage::digitalSignature), (Bytes{0x03, 0x02, 0x07, 0x80}));
    EXPECT_EQ(KeyUsage(usage::keyCertSign | usage::crlSign), (Bytes{0x03, 0x02, 0x01, 0x06}));
    EXPECT_EQ(KeyUsage(usage::decipherOnly | usage::keyAgreement), (Bytes{0x03, 0x03, 0x07, 0x08, 0x80}));
}

TEST(Pki, BrokenSignatureDoesNotVerify)
{
    EXPECT_FALSE(SignedWith(Build(With(Signer(), &CertSpec::brokenSignature, true)), KeyId::Rsa2048B));
    EXPECT_TRUE(SignedWith(Build(Signer()), KeyId::Rsa2048B));
    ERR_clear_error();
}

TEST(Pki, EditedTbsIsSigned)
{
    const Edit replaceSubject = [](const Bytes& tbs) { return Replace(tbs, {tbs::subject}, Name(Cn("Other"))); };
    const Bytes cert = Build(With(Signer(), &CertSpec::editTbs, replaceSubject));
    EXPECT_EQ(Extract(cert, {0, tbs::subject}), Name(Cn("Other")));
    EXPECT_TRUE(SignedWith(cert, KeyId::Rsa2048B));
}

TEST(Pki, AlgorithmFieldsCanDisagree)
{
    const Bytes cert = Build(With(Signer(), &CertSpec::innerAlgorithm, AlgoId(oid::sha1WithRsa)));
    EXPECT_EQ(Extract(cert, {0, tbs::signature}), AlgoId(oid::sha1WithRsa));
    EXPECT_EQ(Extract(cert, {1}), AlgoId(oid::sha256WithRsa));
}

TEST(Pki, CrlVerifiesAndReadsBack)
{
    CrlSpec spec = Indirect(CrlOf(SigningCa()));
    spec.revoked = {{{0x05}, UtcTime("250601000000Z"), 4}, {{0x06}}};
    const Owned<X509_CRL> crl = Parse(d2i_X509_CRL, Build(spec));
    EXPECT_EQ(X509_CRL_verify(crl.get(), PublicKey(KeyId::Rsa2048B).get()), 1);
    EXPECT_EQ(X509_CRL_get_version(crl.get()), X509_CRL_VERSION_2);
    EXPECT_EQ(sk_X509_REVOKED_num(X509_CRL_get_REVOKED(crl.get())), 2);
    EXPECT_EQ(X509_REVOKED_get_ext_count(sk_X509_REVOKED_value(X509_CRL_get_REVOKED(crl.get()), 0)), 1);
    EXPECT_EQ(X509_REVOKED_get_ext_count(sk_X509_REVOKED_value(X509_CRL_get_REVOKED(crl.get()), 1)), 0);
    auto* idp = static_cast<ISSUING_DIST_POINT*>(
        X509_CRL_get_ext_d2i(crl.get(), NID_issuing_distribution_point, nullptr, nullptr));
    ASSERT_NE(idp, nullptr);
    EXPECT_NE(idp->indirectCRL, 0);
    ISSUING_DIST_POINT_free(idp);
}

TEST(Pki, CrlFieldsCanBeLeftOut)
{
    CrlSpec spec = CrlOf(Root());
    spec.version.reset();
    spec.nextUpdate.reset();
    spec.extensions.clear();
    const Owned<X509_CRL> crl = Parse(d2i_X509_CRL, Build(spec));
    EXPECT_EQ(X509_CRL_get_version(crl.get()), X509_CRL_VERSION_1);
    EXPECT_EQ(X509_CRL_get0_nextUpdate(crl.get()), nullptr);
    EXPECT_EQ(X509_CRL_get0_extensions(crl.get()), nullptr);
}

TEST(Pki, BuildsAreRepeatable)
{
    EXPECT_EQ(Build(Signer()), Build(Signer()));
    EXPECT_EQ(DetachedCms(kPayload, DemoCms(DemoPki())), DetachedCms(kPayload, DemoCms(DemoPki())));
}

// ---- cms ----

TEST(Cms, DemoSignatureVerifies)
{
    const DemoPki pki(KeyId::Rsa4096);
    const Bytes cms = DetachedCms(kPayload, DemoCms(pki));
    EXPECT_TRUE(CmsVerifies(cms, kPayload, pki));
    EXPECT_FALSE(CmsVerifies(cms, Text("another image"), pki));
}

TEST(Cms, EveryHashVerifies)
{
    const DemoPki pki;
    for (Hash hash : {Hash::Sha1, Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
        CmsSpec cms = DemoCms(pki);
        cms.signers[0].hash = hash;
        EXPECT_TRUE(CmsVerifies(DetachedCms(kPayload, cms), kPayload, pki));
    }
}

TEST(Cms, SignerWithoutSignedAttributesVerifies)
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    cms.signers[0].signedAttributes = nullptr;
    EXPECT_TRUE(CmsVerifies(DetachedCms(kPayload, cms), kPayload, pki));
}

TEST(Cms, TwoSignersVerify)
{
    const DemoPki pki;
    const CertSpec second = Signer(KeyId::Rsa2048F);
    CmsSpec cms = DemoCms(pki);
    cms.certificates.push_back(Build(second));
    cms.signers.push_back(SignedBy(second));
    EXPECT_TRUE(CmsVerifies(DetachedCms(kPayload, cms), kPayload, pki));
}

TEST(Cms, BrokenSignatureDoesNotVerify)
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    cms.signers[0].brokenSignature = true;
    EXPECT_FALSE(CmsVerifies(DetachedCms(kPayload, cms), kPayload, pki));
}

TEST(Cms, WrongMessageDigestDoesNotVerify)
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    cms.signers[0].signedAttributes = [](const Bytes&) {
        return std::vector{ContentTypeAttribute(oid::data), MessageDigestAttribute(Bytes(32, 0x00))};
    };
    EXPECT_FALSE(CmsVerifies(DetachedCms(kPayload, cms), kPayload, pki));
}

TEST(Cms, CarriesCrls)
{
    const DemoPki pki;
    CmsSpec cms = DemoCms(pki);
    cms.crls = {Build(pki.rootCrl), Build(pki.signingCrl)};
    const Owned<CMS_ContentInfo> parsed = Parse(d2i_CMS_ContentInfo, DetachedCms(kPayload, cms));
    STACK_OF(X509_CRL)* crls = CMS_get1_crls(parsed.get());
    EXPECT_EQ(sk_X509_CRL_num(crls), 2);
    sk_X509_CRL_pop_free(crls, X509_CRL_free);
}

TEST(Cms, DemoTokenVerifies)
{
    const DemoPki pki;
    const Bytes stamped = Text("a signature value");
    const Bytes token = TimestampToken(DemoToken(pki), stamped);
    EXPECT_TRUE(TokenVerifies(token, stamped, pki));
    EXPECT_FALSE(TokenVerifies(token, Text("another value"), pki));
}

TEST(Cms, TokenStampsTheSignature)
{
    const DemoPki pki;
    const Owned<CMS_ContentInfo> parsed = Parse(d2i_CMS_ContentInfo, DetachedCms(kPayload, DemoCms(pki)));
    CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(parsed.get()), 0);
    const ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(signer);
    const ASN1_STRING* token = static_cast<const ASN1_STRING*>(
        CMS_unsigned_get0_data_by_OBJ(signer, OBJ_nid2obj(NID_id_smime_aa_timeStampToken), -3, V_ASN1_SEQUENCE));
    ASSERT_NE(token, nullptr);
    const unsigned char* tokenData = ASN1_STRING_get0_data(token);
    const unsigned char* signatureData = ASN1_STRING_get0_data(signature);
    EXPECT_TRUE(TokenVerifies(Bytes(tokenData, tokenData + ASN1_STRING_length(token)),
                              Bytes(signatureData, signatureData + ASN1_STRING_length(signature)), pki));
}

TEST(Cms, TstInfoWithEveryFieldReadsBack)
{
    TokenSpec spec = DemoToken(DemoPki());
    spec.imprintHash = Hash::Sha512;
    spec.accuracy = Accuracy(7);
    spec.ordering = Bool(true);
    spec.nonce = Int(99);
    spec.tsa = Ctx(0, Ctx(4, TestName("Test TSA"))); // GeneralName is a CHOICE, hence the explicit [0] around it
    spec.extensions = Ctx(1, Ext("1.3.6.1.4.1.32473.2", Null()));
    const Owned<TS_TST_INFO> info = Parse(d2i_TS_TST_INFO, TstInfo(spec, Text("stamped")));
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(ASN1_INTEGER_get(TS_ACCURACY_get_seconds(TS_TST_INFO_get_accuracy(info.get()))), 7);
    EXPECT_EQ(TS_TST_INFO_get_ordering(info.get()), 1);
    EXPECT_EQ(ASN1_INTEGER_get(TS_TST_INFO_get_nonce(info.get())), 99);
    EXPECT_NE(TS_TST_INFO_get_tsa(info.get()), nullptr);
    EXPECT_EQ(TS_TST_INFO_get_ext_count(info.get()), 1);
    EXPECT_EQ(ASN1_STRING_length(TS_MSG_IMPRINT_get_msg(TS_TST_INFO_get_msg_imprint(info.get()))), 64);
}

TEST(Cms, PemIsReadByOpenssl)
{
    for (const char* lineEnd : {"\n", "\r\n"}) {
        const Bytes der = Build(Signer());
        char* label = nullptr;
        char* header = nullptr;
        unsigned char* data = nullptr;
        long length = 0;
        ASSERT_EQ(PEM_read_bio(Reader(Pem("CMS", der, lineEnd)).get(), &label, &header, &data, &length), 1);
        EXPECT_STREQ(label, "CMS");
        EXPECT_EQ(Bytes(data, data + length), der);
        OPENSSL_free(label);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
}

TEST(Cms, PemOfNothingHasNoLines)
{
    EXPECT_EQ(Pem("CMS", {}), Text("-----BEGIN CMS-----\n-----END CMS-----\n"));
}

// ---- package ----

TEST(Package, LaysOutHeaderAndSubFiles)
{
    const Bytes package = Build(SignedPackage({0x11}, {0x22, 0x22}, {0x33}));
    ASSERT_EQ(package.size(), packageHeaderSize + 4);
    const auto word = [&](std::size_t offset) {
        return Bytes(package.begin() + static_cast<std::ptrdiff_t>(offset),
                     package.begin() + static_cast<std::ptrdiff_t>(offset) + 4);
    };
    EXPECT_EQ(word(16), (Bytes{0, 0, 0, 3}));
    EXPECT_EQ(word(20), (Bytes{0, 0, 0, 1}));
    EXPECT_EQ(word(32), (Bytes{0x10, 0, 0, 1}));
    EXPECT_EQ(word(36), (Bytes{0, 0, 0, 1}));
    EXPECT_EQ(word(40), (Bytes{0, 0, 0, 2}));
    EXPECT_EQ(word(44), (Bytes{0x10, 0, 0, 2}));
    EXPECT_EQ(word(48), (Bytes{0, 0, 0, 3}));
    EXPECT_EQ(word(340), (Bytes{0, 0, 0x01, 0x64}));
    EXPECT_EQ(word(352), (Bytes{0x11, 0x22, 0x22, 0x33}));
}

TEST(Package, EveryFieldCanLie)
{
    PackageSpec spec = SignedPackage({}, {}, {});
    spec.subFileCount = 0x01020304;
    spec.subFiles[2].offset = 0xFFFFFFFF;
    spec.subFiles[2].length = 0x80000000;
    spec.length = 7;
    spec.compressType = 9;
    const Bytes package = Build(spec);
    EXPECT_EQ(package.size(), packageHeaderSize);
    EXPECT_EQ(Bytes(package.begin() + 16, package.begin() + 20), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(Bytes(package.begin() + 48, package.begin() + 56), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0, 0, 0}));
    EXPECT_EQ(Bytes(package.begin() + 340, package.begin() + 344), (Bytes{0, 0, 0, 7}));
    EXPECT_EQ(package.back(), 9);
}

// ---- exact_heap ----

TEST(ExactHeap, EveryPrefixIsVisitedOnce)
{
    std::vector<Bytes> seen;
    ForEveryPrefix({1, 2, 3}, [&](const ExactHeap& cut) { seen.emplace_back(cut.data(), cut.data() + cut.size()); });
    EXPECT_EQ(seen, (std::vector<Bytes>{{}, {1}, {1, 2}}));
}

// ---- callbacks ----

namespace {

PELNIC_SYS_MEM_FUNCS& Mem(CallbackPlan& plan)
{
    return plan.Table().plt_funcs.sys_funcs.mem_funcs;
}

PELNIC_SYS_FILE_FUNCS& File(CallbackPlan& plan)
{
    return plan.Table().plt_funcs.sys_funcs.file_funcs;
}

void* Allocate(CallbackPlan& plan, PNV_UINT32 size)
{
    void* block = nullptr;
    (void)Mem(plan).malloc(&block, size);
    return block;
}

PELNIC_BIGINT BigInt(const Bytes& magnitude)
{
    PELNIC_BIGINT number{};
    number.uiLength = Len(magnitude);
    std::memcpy(number.aVal, magnitude.data(), magnitude.size());
    return number;
}

struct Verdict {
    PELNIC_ERROR_CODE code;
    PNV_INT result;
};

// One whole verification by a plan's table; the result starts as neither good nor bad.
Verdict VerifySignature(CallbackPlan& plan, const Bytes& message, const Bytes& signature, KeyId key = KeyId::Rsa2048A)
{
    const PELNIC_CRYPTO_FUNCS& crypt = plan.Table().crypt_funcs;
    const PELNIC_BIGINT e = BigInt(TestKey(key).exponent);
    const PELNIC_BIGINT n = BigInt(TestKey(key).modulus);
    Verdict verdict{0, -7};
    PELNIC_CRYPTO_VRF_CTX ctx = nullptr;
    verdict.code = crypt.pelnic_verify_ctx_create(&ctx);
    if (verdict.code != 0) return verdict;
    verdict.code = crypt.pelnic_verify_init(ctx, &e, &n, AOID_SHA256);
    if (verdict.code == 0) verdict.code = crypt.pelnic_verify_update(ctx, message.data(), Len(message));
    if (verdict.code == 0) {
        verdict.code = crypt.pelnic_verify_final(ctx, signature.data(), Len(signature), &verdict.result);
    }
    crypt.pelnic_verify_ctx_destory(ctx);
    return verdict;
}

Verdict Verify(CallbackPlan& plan)
{
    return VerifySignature(plan, kPayload, Sign(KeyId::Rsa2048A, Hash::Sha256, kPayload));
}

// Two blocks and a copy between them.
PELNIC_ERROR_CODE CopyBlocks(CallbackPlan& plan)
{
    void* a = nullptr;
    void* b = nullptr;
    PELNIC_ERROR_CODE rc = Mem(plan).malloc(&a, 8);
    if (rc == 0) rc = Mem(plan).malloc(&b, 8);
    if (rc == 0) rc = Mem(plan).memset_s(a, 8, 0, 8);
    if (rc == 0) rc = Mem(plan).memcpy_s(b, 8, a, 8);
    if (a != nullptr) Mem(plan).free(a);
    if (b != nullptr) Mem(plan).free(b);
    return rc;
}

} // namespace

TEST(CallbackPlan, PassesCreationChecksOfEverySize)
{
    CallbackPlan plan;
    EXPECT_EQ(plan.Table().st_size, sizeof(PELNIC_CALLBACK_FUNCS));
    EXPECT_EQ(plan.Table().plt_funcs.st_size, sizeof(PELNIC_PLT_FUNCS));
    EXPECT_EQ(plan.Table().plt_funcs.sys_funcs.st_size, sizeof(PELNIC_SYS_FUNCS));
    EXPECT_EQ(plan.Table().md_funcs.size, sizeof(PELNIC_MD_FUNCS));
    EXPECT_EQ(plan.Table().crypt_funcs.size, sizeof(PELNIC_CRYPTO_FUNCS));
    EXPECT_EQ(plan.Table().plt_funcs.sys_funcs.plt_funcs.get_utc_time, nullptr);
}

TEST(CallbackPlan, HandsOutDirtyBlocks)
{
    CallbackPlan plan;
    auto* block = static_cast<std::uint8_t*>(Allocate(plan, 3));
    EXPECT_EQ(Bytes(block, block + 3), Bytes(3, 0xA5));
    Mem(plan).free(block);
}

TEST(CallbackPlan, MeasuresMemory)
{
    CallbackPlan plan;
    void* small = Allocate(plan, 10);
    void* large = Allocate(plan, 100);
    Mem(plan).free(large);
    EXPECT_EQ(plan.LiveBlocks(), 1u);
    EXPECT_EQ(plan.LiveBytes(), 10u);
    EXPECT_EQ(plan.PeakBytes(), 110u);
    EXPECT_EQ(plan.LargestRequest(), 100u);
    Mem(plan).free(small);
    EXPECT_TRUE(plan.Problems().empty());
}

TEST(CallbackPlan, ReportsLeaks)
{
    CallbackPlan plan;
    (void)Allocate(plan, 12);
    EXPECT_EQ(plan.Problems(), std::vector<std::string>{"a block of 12 octets was not given back"});
}

TEST(CallbackPlan, ReportsForeignAndDoubleFree)
{
    CallbackPlan plan;
    int foreign = 0;
    Mem(plan).free(&foreign);
    void* block = Allocate(plan, 1);
    Mem(plan).free(block);
    Mem(plan).free(block);
    EXPECT_EQ(plan.Problems().size(), 2u);
}

TEST(CallbackPlan, CountsByKind)
{
    CallbackPlan plan;
    EXPECT_EQ(CopyBlocks(plan), 0u);
    EXPECT_EQ(plan.Count(Call::Malloc), 2u);
    EXPECT_EQ(plan.Count(calls::copies), 2u);
    EXPECT_EQ(plan.Count(Call::Free), 2u);
    EXPECT_EQ(plan.Count(calls::crypto | calls::files), 0u);
}

TEST(CallbackPlan, FailsOnce)
{
    CallbackPlan plan;
    plan.Fail(Call::Malloc, 2);
    void* blocks[3];
    for (void*& block : blocks) block = Allocate(plan, 4);
    EXPECT_NE(blocks[0], nullptr);
    EXPECT_EQ(blocks[1], nullptr);
    EXPECT_NE(blocks[2], nullptr);
    EXPECT_EQ(plan.FaultsMet(), 1u);
    Mem(plan).free(blocks[0]);
    Mem(plan).free(blocks[2]);
}

TEST(CallbackPlan, FailsOnward)
{
    CallbackPlan plan;
    plan.Fail(Call::Malloc, 2, FaultMode::Onward);
    void* block = Allocate(plan, 4);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(Mem(plan).malloc(&block, 4), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(Allocate(plan, 4), nullptr);
    EXPECT_EQ(plan.FaultsMet(), 2u);
}

TEST(CallbackPlan, ExemptStepsDoNotCount)
{
    CallbackPlan plan;
    plan.Fail(Call::Malloc, 1);
    plan.WithoutFaults([&] { EXPECT_EQ(CopyBlocks(plan), 0u); });
    EXPECT_EQ(CopyBlocks(plan), PELNIC_ERR_SYS_MEM_ALLOC);
}

TEST(CallbackPlan, EachStringCallFailsInItsOwnWay)
{
    CallbackPlan plan;
    const PELNIC_SYS_STR_FUNCS& str = plan.Table().plt_funcs.sys_funcs.str_funcs;
    char buffer[8] = "ab";
    EXPECT_EQ(str.pf_strlen(buffer), 2u);
    EXPECT_EQ(str.pf_strcmp("ab", buffer), 0);
    plan.Fail(calls::copies | Call::Strlen | Call::Strcmp | Call::Strncmp | Call::Strstr | Call::Strchr, 1,
              FaultMode::Onward);
    EXPECT_EQ(str.pf_strlen(buffer), 0u);
    EXPECT_NE(str.pf_strcmp("ab", buffer), 0);
    EXPECT_NE(str.pf_strncmp("ab", buffer, 1), 0);
    EXPECT_EQ(str.pf_strstr(buffer, "b"), nullptr);
    EXPECT_EQ(str.pf_strchr(buffer, 'b'), nullptr);
    EXPECT_EQ(str.pf_strcpy_s(buffer, sizeof(buffer), "x"), injectedFault);
    EXPECT_EQ(str.pf_strcat_s(buffer, sizeof(buffer), "x"), injectedFault);
    EXPECT_STREQ(buffer, "ab");
}

TEST(CallbackPlan, FilesFailAndAreTracked)
{
    CallbackPlan plan;
    const PNV_FILE_HANDLE file = File(plan).fopen("/dev/zero", "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(plan.Problems().size(), 1u);
    char buffer[8];
    EXPECT_EQ(File(plan).fread(buffer, sizeof(buffer), file), 8u);
    plan.Fail(calls::files, 1, FaultMode::Onward);
    EXPECT_EQ(File(plan).fread(buffer, sizeof(buffer), file), 4u);
    EXPECT_EQ(File(plan).get_file_size(file), 0xFFFFFFFFu);
    EXPECT_EQ(File(plan).fopen("/dev/zero", "rb"), nullptr);
    EXPECT_EQ(File(plan).fclose(file), injectedFault);
    EXPECT_TRUE(plan.Problems().empty());
}

TEST(CallbackPlan, DigestsComputeAndAreTracked)
{
    CallbackPlan plan;
    const PELNIC_MD_FUNCS& md = plan.Table().md_funcs;
    PELNIC_CRYPTO_MD_CTX ctx = nullptr;
    ASSERT_EQ(md.pelnic_md_ctx_create(&ctx), 0u);
    EXPECT_EQ(plan.Problems().size(), 1u);
    EXPECT_EQ(md.pelnic_md_init(ctx, AOID_SHA256), 0u);
    EXPECT_EQ(md.pelnic_md_update(ctx, kPayload.data(), Len(kPayload)), 0u);
    PNV_BYTE digest[64];
    PNV_UINT32 length = 0;
    EXPECT_EQ(md.pelnic_md_final(ctx, digest, &length), 0u);
    EXPECT_EQ(Bytes(digest, digest + length), Digest(Hash::Sha256, kPayload));
    md.pelnic_md_ctx_destory(ctx);
    EXPECT_TRUE(plan.Problems().empty());
    md.pelnic_md_ctx_destory(ctx);
    EXPECT_EQ(plan.Problems().size(), 1u);
}

TEST(CallbackPlan, VerificationsRunAndAreRecorded)
{
    CallbackPlan plan;
    const Bytes signature = Sign(KeyId::Rsa2048A, Hash::Sha256, kPayload);
    const Verdict good = VerifySignature(plan, kPayload, signature);
    EXPECT_EQ(good.code, 0u);
    EXPECT_EQ(good.result, 1);
    EXPECT_EQ(VerifySignature(plan, Text("other"), signature).result, 0);
    ASSERT_EQ(plan.VerifyRequests().size(), 2u);
    EXPECT_EQ(plan.VerifyRequests()[0].hashId, static_cast<PNV_UINT32>(AOID_SHA256));
    EXPECT_EQ(plan.VerifyRequests()[0].modulus, TestKey(KeyId::Rsa2048A).modulus);
    EXPECT_EQ(plan.VerifyRequests()[0].exponent, TestKey(KeyId::Rsa2048A).exponent);
    EXPECT_EQ(plan.VerifyRequests()[0].data, kPayload);
    EXPECT_EQ(plan.VerifyRequests()[0].signature, signature);
    EXPECT_TRUE(plan.Problems().empty());
}

TEST(CallbackPlan, VerificationFailsAsErrorOrAsBadVerdict)
{
    CallbackPlan plan;
    plan.Fail(Call::VerifyFinal, 1);
    EXPECT_EQ(Verify(plan).code, PELNIC_ERR_FAILED);
    plan.Fail(Call::VerifyVerdict, 1);
    const Verdict bad = Verify(plan);
    EXPECT_EQ(bad.code, 0u);
    EXPECT_EQ(bad.result, 0);
    EXPECT_EQ(Verify(plan).result, 1);
}

TEST(CallbackPlan, StubAnswersWithoutRsa)
{
    CallbackPlan plan;
    plan.StubVerification(0, 2);
    const Verdict odd = VerifySignature(plan, kPayload, {0x00});
    EXPECT_EQ(odd.code, 0u);
    EXPECT_EQ(odd.result, 2);
    plan.StubVerification(0x1234, 1);
    EXPECT_EQ(VerifySignature(plan, kPayload, {0x00}).code, 0x1234u);
    EXPECT_EQ(plan.VerifyRequests().size(), 2u);
    EXPECT_TRUE(plan.Problems().empty());
}

TEST(CallbackPlan, RecordsLogs)
{
    CallbackPlan plan;
    PNV_THREAD_ID thread = &plan;
    const func_pelnic_log_callback log = plan.Table().plt_funcs.log_funcs.log_func;
    log(PELNIC_LOG_TYPE_WARNING, "file.cpp", 7, "function", thread, 99, 0x88100001u, "message");
    log(PELNIC_LOG_TYPE_ERROR, nullptr, 8, nullptr, nullptr, 0, 0, nullptr);
    ASSERT_EQ(plan.Logs().size(), 2u);
    EXPECT_EQ(plan.Logs()[0].level, PELNIC_LOG_TYPE_WARNING);
    EXPECT_EQ(plan.Logs()[0].file, "file.cpp");
    EXPECT_EQ(plan.Logs()[0].line, 7);
    EXPECT_EQ(plan.Logs()[0].function, "function");
    EXPECT_EQ(plan.Logs()[0].thread, thread);
    EXPECT_EQ(plan.Logs()[0].time, 99);
    EXPECT_EQ(plan.Logs()[0].rc, 0x88100001u);
    EXPECT_EQ(plan.Logs()[0].message, "message");
    EXPECT_EQ(plan.Logs()[1].message, std::nullopt);
}

TEST(CallbackPlan, ClockAnswersAsSet)
{
    CallbackPlan plan;
    plan.InstallClock(&plan, 1234);
    EXPECT_EQ(plan.Table().plt_funcs.sys_funcs.plt_funcs.get_thread_id(), &plan);
    EXPECT_EQ(plan.Table().plt_funcs.sys_funcs.plt_funcs.get_utc_time(), 1234);
}

TEST(CallbackPlan, IsAloneOnItsThread)
{
    CallbackPlan plan;
    EXPECT_DEATH(CallbackPlan second, "two callback plans");
}

// ---- vrf ----

TEST(Vrf, CarriesThePlansTable)
{
    Vrf vrf;
    EXPECT_EQ(vrf->st_size, sizeof(PELNIC_VRF));
    EXPECT_EQ(vrf->pki_ctx, nullptr);
    EXPECT_EQ(vrf->callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc, Mem(vrf.Plan()).malloc);
    vrf.Plan().Silence();
    vrf.TakeTable();
    EXPECT_EQ(vrf->callback_funcs.plt_funcs.log_funcs.log_func, nullptr);
}

TEST(Vrf, ReportsLeaksAtItsEnd)
{
    EXPECT_NONFATAL_FAILURE(
        {
            Vrf vrf;
            (void)Allocate(vrf.Plan(), 4);
        },
        "a block of 4 octets was not given back");
}

TEST(SweepFaults, FailsEveryCallInTurn)
{
    std::vector<PELNIC_ERROR_CODE> outcomes;
    SweepFaults(Call::Malloc | calls::copies, CopyBlocks, [&](PELNIC_ERROR_CODE rc, const FaultRun& run) {
        outcomes.push_back(rc);
        EXPECT_EQ(rc == 0, !run.met);
    });
    const std::vector<PELNIC_ERROR_CODE> oneMode{PELNIC_ERR_SYS_MEM_ALLOC, PELNIC_ERR_SYS_MEM_ALLOC, injectedFault,
                                                 injectedFault, 0};
    std::vector<PELNIC_ERROR_CODE> expected = oneMode;
    expected.insert(expected.end(), oneMode.begin(), oneMode.end());
    EXPECT_EQ(outcomes, expected);
}
