// Chains and CRLs from the builders, judged by the library and by OpenSSL at the same time: the same verdict wherever
// both have the same rule, and a case for each rule in which they differ on purpose.
#include "support/openssl_ptr.h"
#include "support/stores.h"

#include <openssl/err.h>

#include <functional>

namespace pnvtest {
namespace {

// The CAs, the trusted root first; what they issued; when it is judged.
struct Scene {
    std::vector<CertSpec> cas;
    CertSpec leaf;
    std::vector<CrlSpec> crls;
    PNV_TIME_T time = k2026;
};

Scene SceneOf(const std::vector<CertSpec>& cas)
{
    Scene scene{cas, IssuedBy(Signer(), cas.back()), {}};
    for (const CertSpec& ca : cas) scene.crls.push_back(CrlOf(ca));
    return scene;
}

// A root, a CA, a signer, and a CRL of both CAs.
Scene GoodScene()
{
    return SceneOf({Root(), SigningCa()});
}

// ---- The two judges ----

// The caller trusts the root; everything else came with a package. That an add is refused shows in the verdict.
bool Accepts(const Scene& scene)
{
    CleanPlan plan;
    Stores stores(plan);
    const Bytes root = Build(scene.cas[0]);
    (void)pelnic_verify_add_cert(static_cast<PELNIC_VRF*>(stores), root.data(), Len(root));
    for (std::size_t i = 1; i < scene.cas.size(); ++i) stores.Package(scene.cas[i]);
    for (const CrlSpec& crl : scene.crls) stores.AddCrl(crl);
    stores->base_time = scene.time;
    return stores.Verify(scene.leaf) == 0;
}

// X509_V_OK or why it is refused; every certificate against a CRL, any purpose.
int OpensslError(const Scene& scene)
{
    const Owned<X509_STORE> store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), Parse(d2i_X509, Build(scene.cas[0])).get());
    for (const CrlSpec& crl : scene.crls) X509_STORE_add_crl(store.get(), Parse(d2i_X509_CRL, Build(crl)).get());
    X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store.get()), static_cast<time_t>(scene.time));
    X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
    X509_STORE_set_flags(store.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);

    const Owned<STACK_OF(X509)> untrusted(sk_X509_new_null());
    for (std::size_t i = 1; i < scene.cas.size(); ++i) {
        sk_X509_push(untrusted.get(), Parse(d2i_X509, Build(scene.cas[i])).release());
    }
    const Owned<X509> leaf = Parse(d2i_X509, Build(scene.leaf));
    const Owned<X509_STORE_CTX> ctx(X509_STORE_CTX_new());
    X509_STORE_CTX_init(ctx.get(), store.get(), leaf.get(), untrusted.get());
    X509_verify_cert(ctx.get());
    ERR_clear_error();
    return X509_STORE_CTX_get_error(ctx.get());
}

// ---- The table ----

enum class Verdict { Accept, Refuse };

struct Case {
    const char* name;
    Verdict ours;
    void (*change)(Scene&); // of the good scene
};

const Bytes kPast = UtcTime("251231235959Z"); // the second before the check
const Bytes kNow = UtcTime("260101000000Z");
const Bytes kFuture = UtcTime("260101000001Z");

void Revoke(CrlSpec& crl, const CertSpec& cert, const Bytes& date = UtcTime("250601000000Z"),
            std::optional<int> reason = std::nullopt)
{
    crl.revoked.push_back({cert.serial, date, reason});
}

const Bytes kUnknownCritical = Ext(oid::testPolicy, Null(), true);

const Case kSameRule[] = {
    {"GoodChain", Verdict::Accept, [](Scene&) {}},
    {"Rsa4096Root", Verdict::Accept,
     [](Scene& s) {
         const CertSpec root = Root(KeyId::Rsa4096);
         s = SceneOf({root, IssuedBy(SigningCa(), root)});
     }},
    {"Rsa3072Ca", Verdict::Accept,
     [](Scene& s) {
         s = SceneOf({Root(), Intermediate("CA", KeyId::Rsa3072)});
     }},
    {"Sha384", Verdict::Accept,
     [](Scene& s) {
         s.leaf.hash = Hash::Sha384;
         s.crls[1].hash = Hash::Sha384;
     }},
    {"Sha512", Verdict::Accept,
     [](Scene& s) {
         s.cas[1].hash = Hash::Sha512;
         s.crls[0].hash = Hash::Sha512;
     }},
    {"LeafBelowTheRoot", Verdict::Accept, [](Scene& s) { s = SceneOf({Root()}); }},
    {"FiveCas", Verdict::Accept, [](Scene& s) { s = SceneOf(CaChain(4)); }},
    {"OtherCertificateRevoked", Verdict::Accept, [](Scene& s) { Revoke(s.crls[1], Tsa()); }},
    {"FirstSecondOfACertificate", Verdict::Accept, [](Scene& s) { s.leaf.notBefore = kNow; }},
    {"FirstSecondOfACrl", Verdict::Accept, [](Scene& s) { s.crls[1].thisUpdate = kNow; }},

    {"RevokedLeaf", Verdict::Refuse, [](Scene& s) { Revoke(s.crls[1], s.leaf); }},
    {"RevokedLeafWithReason", Verdict::Refuse, [](Scene& s) { Revoke(s.crls[1], s.leaf, kPast, 1); }},
    {"RevokedCa", Verdict::Refuse, [](Scene& s) { Revoke(s.crls[0], s.cas[1]); }},
    {"SupersededCa", Verdict::Refuse, [](Scene& s) { Revoke(s.crls[0], s.cas[1], kPast, 4); }},
    {"CaCompromisedInTheFuture", Verdict::Refuse, [](Scene& s) { Revoke(s.crls[0], s.cas[1], kFuture, 1); }},
    {"ExpiredLeaf", Verdict::Refuse, [](Scene& s) { s.leaf.notAfter = kPast; }},
    {"ExpiredCa", Verdict::Refuse, [](Scene& s) { s.cas[1].notAfter = kPast; }},
    {"ExpiredRoot", Verdict::Refuse, [](Scene& s) { s.cas[0].notAfter = kPast; }},
    {"LeafOfTheFuture", Verdict::Refuse, [](Scene& s) { s.leaf.notBefore = kFuture; }},
    {"CaOfTheFuture", Verdict::Refuse, [](Scene& s) { s.cas[1].notBefore = kFuture; }},
    {"RootOfTheFuture", Verdict::Refuse, [](Scene& s) { s.cas[0].notBefore = kFuture; }},
    {"NoCrls", Verdict::Refuse, [](Scene& s) { s.crls.clear(); }},
    {"NoCrlOfTheCa", Verdict::Refuse, [](Scene& s) { s.crls.pop_back(); }},
    {"NoCrlOfTheRoot", Verdict::Refuse, [](Scene& s) { s.crls.erase(s.crls.begin()); }},
    {"ExpiredCrl", Verdict::Refuse, [](Scene& s) { s.crls[1].nextUpdate = kPast; }},
    {"ExpiredCrlOfTheRoot", Verdict::Refuse, [](Scene& s) { s.crls[0].nextUpdate = kPast; }},
    {"RevokedByAnExpiredCrl", Verdict::Refuse,
     [](Scene& s) {
         Revoke(s.crls[1], s.leaf);
         s.crls[1].nextUpdate = kPast;
     }},
    {"RevokedByTheNewerCrl", Verdict::Refuse,
     [](Scene& s) {
         s.crls.push_back(With(s.crls[1], &CrlSpec::thisUpdate, kPast));
         Revoke(s.crls[2], s.leaf);
     }},
    {"ForgedLeaf", Verdict::Refuse, [](Scene& s) { s.leaf.brokenSignature = true; }},
    {"ForgedCa", Verdict::Refuse, [](Scene& s) { s.cas[1].brokenSignature = true; }},
    {"ForgedCrl", Verdict::Refuse, [](Scene& s) { s.crls[1].brokenSignature = true; }},
    {"CrlByAnotherKey", Verdict::Refuse, [](Scene& s) { s.crls[1].issuerKey = KeyId::Rsa2048H; }},
    {"UnknownCa", Verdict::Refuse, [](Scene& s) { s.cas.pop_back(); }},
    {"ForeignRootAlongside", Verdict::Refuse,
     [](Scene& s) {
         s = SceneOf({ForeignRoot()});
         s.cas.insert(s.cas.begin(), Root());
     }},
    {"CasThatIssueEachOther", Verdict::Refuse,
     [](Scene& s) {
         const CaPair pair;
         s = SceneOf({Root(), pair.left, pair.right});
     }},
    {"CaThatIsNone", Verdict::Refuse, [](Scene& s) { s.cas[1].basicConstraints = NotCa(); }},
    {"CaWithoutBasicConstraints", Verdict::Refuse, [](Scene& s) { s.cas[1].basicConstraints.reset(); }},
    {"CaWithoutKeyCertSign", Verdict::Refuse, [](Scene& s) { s.cas[1].keyUsage = usage::crlSign; }},
    {"CaWithoutCrlSign", Verdict::Refuse, [](Scene& s) { s.cas[1].keyUsage = usage::keyCertSign; }},
    {"AlgorithmsThatDisagree", Verdict::Refuse, [](Scene& s) { s.leaf.outerAlgorithm = AlgoId(oid::sha512WithRsa); }},
};

struct Difference {
    const char* name;
    Verdict ours;
    int openssl; // the rule of theirs that we do not have, or X509_V_OK where we have one that they do not
    void (*change)(Scene&);
};

const Difference kOtherRule[] = {
    // Both ends of a validity are inclusive (RFC 5280, 4.1.2.5); OpenSSL takes the last second for the first too late.
    {"LastSecondOfACertificate", Verdict::Accept, X509_V_ERR_CERT_HAS_EXPIRED,
     [](Scene& s) { s.leaf.notAfter = kNow; }},
    {"LastSecondOfACrl", Verdict::Accept, X509_V_ERR_CRL_HAS_EXPIRED, [](Scene& s) { s.crls[1].nextUpdate = kNow; }},
    // When a CRL was issued is not asked: CRLs come with the package, later than its signature.
    {"CrlOfTheFuture", Verdict::Accept, X509_V_ERR_CRL_NOT_YET_VALID, [](Scene& s) { s.crls[1].thisUpdate = kFuture; }},
    // Revocation counts from its date, so that signatures from before it stay good.
    {"LeafRevokedInTheFuture", Verdict::Accept, X509_V_ERR_CERT_REVOKED,
     [](Scene& s) { Revoke(s.crls[1], s.leaf, kFuture, 1); }},
    {"CaSupersededInTheFuture", Verdict::Accept, X509_V_ERR_CERT_REVOKED,
     [](Scene& s) { Revoke(s.crls[0], s.cas[1], kFuture, 4); }},
    // A self-signed certificate ends the walk, whatever its own CRL says.
    {"RevokedRoot", Verdict::Accept, X509_V_ERR_CERT_REVOKED, [](Scene& s) { Revoke(s.crls[0], s.cas[0]); }},
    {"SelfSignedLeaf", Verdict::Accept, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,
     [](Scene& s) { s.leaf = IssuedBy(s.leaf, s.leaf); }},
    // Path lengths, key identifiers, critical extensions and the scope of a CRL are not read.
    {"PathLengthExceeded", Verdict::Accept, X509_V_ERR_PATH_LENGTH_EXCEEDED,
     [](Scene& s) {
         s = SceneOf(CaChain(2));
         s.cas[1].basicConstraints = Ca(0);
     }},
    {"UnknownCriticalExtension", Verdict::Accept, X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION,
     [](Scene& s) { s.leaf.extraExtensions = {kUnknownCritical}; }},
    {"UnknownCriticalCrlExtension", Verdict::Accept, X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION,
     [](Scene& s) { s.crls[1].extensions.push_back(kUnknownCritical); }},
    {"OtherAuthorityKeyIdentifier", Verdict::Accept, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
     [](Scene& s) {
         s.leaf.keyIdentifiers = false;
         s.leaf.extraExtensions = {Ext(oid::authorityKeyIdentifier, Seq(CtxPrim(0, Bytes(20, 0x5A))))};
     }},
    {"CrlForCasOnly", Verdict::Accept, X509_V_ERR_DIFFERENT_CRL_SCOPE,
     [](Scene& s) {
         const Bytes casOnly = Ext(oid::issuingDistributionPoint, Seq(CtxPrim(2, {0xFF})), true);
         s.crls[1].extensions.push_back(casOnly);
     }},
    // OpenSSL reads indirect CRLs only when it is asked to.
    {"IndirectCrlOfTheRoot", Verdict::Accept, X509_V_ERR_UNABLE_TO_GET_CRL,
     [](Scene& s) { s.crls = {Indirect(s.crls[0])}; }},

    // A CA says what its key may do; silence is no permission.
    {"CaWithoutKeyUsage", Verdict::Refuse, X509_V_OK, [](Scene& s) { s.cas[1].keyUsage.reset(); }},
    {"RootWithoutKeyUsage", Verdict::Refuse, X509_V_OK, [](Scene& s) { s.cas[0].keyUsage.reset(); }},
    {"RootOfVersion1", Verdict::Refuse, X509_V_OK, [](Scene& s) { s.cas[0] = Version1(s.cas[0]); }},
    // Names are equal when their octets are.
    {"NameInOtherCase", Verdict::Refuse, X509_V_OK, [](Scene& s) { s.leaf.issuer = TestName("test signing ca"); }},
    {"NameOfAnotherStringType", Verdict::Refuse, X509_V_OK,
     [](Scene& s) {
         const NameAttribute cn = NameAttr(oid::commonName, Printable("Test Signing CA"));
         s.leaf.issuer = Name(C("ZZ"), O("Example"), cn);
     }},
    {"Sha1", Verdict::Refuse, X509_V_OK, [](Scene& s) { s.leaf.hash = Hash::Sha1; }},
    {"CrlWithoutNextUpdate", Verdict::Refuse, X509_V_OK, [](Scene& s) { s.crls[1].nextUpdate.reset(); }},
    // Of two CRLs the one that lists the certificate counts, for OpenSSL the newer one.
    {"RevokedByTheOlderCrl", Verdict::Refuse, X509_V_OK,
     [](Scene& s) {
         s.crls.push_back(With(s.crls[1], &CrlSpec::thisUpdate, kPast));
         Revoke(s.crls[1], s.leaf);
     }},
    // removeFromCRL, which stands only in delta CRLs, has no meaning of its own here.
    {"RemovedFromTheCrl", Verdict::Refuse, X509_V_OK, [](Scene& s) { Revoke(s.crls[1], s.leaf, kPast, 8); }},
    // Eleven nested verifications: a signer, nine CAs and the root.
    {"TenCasBelowTheRoot", Verdict::Refuse, X509_V_OK, [](Scene& s) { s = SceneOf(CaChain(10)); }},
};

template <typename Row> class Crosscheck : public ::testing::TestWithParam<Row> {
protected:
    Scene Judged() const
    {
        Scene scene = GoodScene();
        this->GetParam().change(scene);
        EXPECT_EQ(Accepts(scene), this->GetParam().ours == Verdict::Accept);
        return scene;
    }
};
const auto kCaseName = [](const auto& run) { return run.param.name; };

using SameRule = Crosscheck<Case>;
INSTANTIATE_TEST_SUITE_P(, SameRule, ::testing::ValuesIn(kSameRule), kCaseName);
TEST_P(SameRule, OpensslAgrees)
{
    EXPECT_EQ(OpensslError(Judged()) == X509_V_OK, GetParam().ours == Verdict::Accept);
}

using OtherRule = Crosscheck<Difference>;
INSTANTIATE_TEST_SUITE_P(, OtherRule, ::testing::ValuesIn(kOtherRule), kCaseName);
TEST_P(OtherRule, OpensslDisagrees)
{
    EXPECT_EQ(OpensslError(Judged()), GetParam().openssl);
    EXPECT_EQ(GetParam().openssl == X509_V_OK, GetParam().ours == Verdict::Refuse);
}

} // namespace
} // namespace pnvtest
