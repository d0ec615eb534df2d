#include "generated_package.h"

#include "cms.h"
#include "random.h"

#include <algorithm>
#include <ctime>

namespace pnvtest {

namespace {

// ---- What is generated ----

enum class Place { Anchor, Cms, Token, Crls, Missing };

struct PlacedCert {
    CertSpec spec;
    Place place = Place::Cms;
    bool issues = false;
    bool damaged = false;
};

struct PlacedCrl {
    CrlSpec spec;
    bool damaged = false;
};

struct Signature {
    std::size_t cert = 0;
    std::size_t authority = 0;
    SignerSpec signer{};
    TokenSpec token{};
    SignerSpec tokenSigner{};
    bool stamped = true;
    bool tokenSigned = true;
    bool attributesDamaged = false;
    bool tokenDamaged = false;
};

struct World {
    time_t now = 0;
    std::vector<PlacedCert> certs; // the first one is the root
    std::vector<PlacedCrl> crls;
    std::vector<Signature> signatures;
    Bytes payload = Text("a firmware image");
    bool payloadChanged = false;
    bool reversed = false; // the certificates, everywhere
    bool pem = false;

    CertSpec& Cert(std::size_t i) { return certs[i].spec; }
};

// ---- Pieces ----

constexpr time_t kYear = 365 * 24 * 60 * 60;

std::string Digits(time_t time, const char* format)
{
    tm broken{};
    gmtime_r(&time, &broken);
    char text[32];
    return std::string(text, std::strftime(text, sizeof(text), format, &broken));
}

Bytes TimeElement(Random& random, time_t time)
{
    return random.Percent(80) ? UtcTime(Digits(time, "%y%m%d%H%M%SZ")) : GenTime(Digits(time, "%Y%m%d%H%M%SZ"));
}

// A moment at which something may change: the second before the verification, that second, the next, or far away.
Bytes Around(Random& random, time_t now)
{
    return TimeElement(random, now + random.Of<time_t>({-3 * kYear, -1, 0, 1, 3 * kYear}));
}

Hash AnySha2(Random& random)
{
    return random.Of({Hash::Sha256, Hash::Sha256, Hash::Sha256, Hash::Sha384, Hash::Sha512});
}

KeyId AnyKey(Random& random)
{
    return random.Of({KeyId::Rsa2048A, KeyId::Rsa2048B, KeyId::Rsa2048C, KeyId::Rsa2048D, KeyId::Rsa2048E,
                      KeyId::Rsa2048F, KeyId::Rsa2048G, KeyId::Rsa2048H});
}

// A serial number of its own, so that it says which certificate is meant.
std::size_t Put(World& world, CertSpec cert, const CertSpec& issuer, Place place = Place::Cms)
{
    cert.serial = {0x51, static_cast<std::uint8_t>(world.certs.size() + 1)};
    world.certs.push_back({IssuedBy(std::move(cert), issuer), place});
    return world.certs.size() - 1;
}

std::size_t PutCa(World& world, const CertSpec& ca, const CertSpec& issuer)
{
    const std::size_t at = Put(world, ca, issuer);
    world.certs[at].issues = true;
    world.crls.push_back({CrlOf(world.Cert(at))});
    return at;
}

std::size_t PutOtherRoot(World& world, Random& random, Place place)
{
    const CertSpec root = With(Root(AnyKey(random)), &CertSpec::subject, TestName("Other Root"));
    const std::size_t at = PutCa(world, root, root);
    world.certs[at].place = place;
    return at;
}

CertSpec AnyCa(World& world, Random& random)
{
    std::vector<const CertSpec*> issuers;
    for (const PlacedCert& cert : world.certs) {
        if (cert.issues) issuers.push_back(&cert.spec);
    }
    return *random.Of(issuers);
}

CrlSpec& AnyCrl(World& world, Random& random)
{
    return random.Of(world.crls).spec;
}

// One that a signature hangs on, nine times out of ten.
std::size_t UsedCert(World& world, Random& random)
{
    const Signature& signature = random.Of(world.signatures);
    return random.Percent(10) ? random.Below(world.certs.size()) : random.Of({signature.cert, signature.authority});
}

// The certificate itself or one above it.
CertSpec& UsedOrAbove(World& world, Random& random)
{
    CertSpec* cert = &world.Cert(UsedCert(world, random));
    while (random.Percent(50)) {
        for (PlacedCert& above : world.certs) {
            if (above.spec.subject == cert->issuer) {
                cert = &above.spec;
                break;
            }
        }
    }
    return *cert;
}

std::vector<CrlSpec*> CrlsNamed(World& world, const Bytes& issuer)
{
    std::vector<CrlSpec*> found;
    for (PlacedCrl& crl : world.crls) {
        if (crl.spec.issuer == issuer) found.push_back(&crl.spec);
    }
    return found;
}

void Redate(Random& random, time_t now, CertSpec& cert)
{
    (random.Percent(50) ? cert.notBefore : cert.notAfter) = Around(random, now);
}

// One of the certificates of this subject.
void Redate(World& world, Random& random, const Bytes& subject)
{
    std::vector<CertSpec*> named;
    for (PlacedCert& cert : world.certs) {
        if (cert.spec.subject == subject) named.push_back(&cert.spec);
    }
    Redate(random, world.now, *random.Of(named));
}

RevokedSpec Entry(World& world, Random& random, const CertSpec& cert)
{
    RevokedSpec entry{cert.serial, Around(random, world.now)};
    if (random.Percent(75)) entry.reason = random.Of({0, 1, 2, 3, 4, 5, 6, 8, 9, 10});
    return entry;
}

// By its issuer's CRL, if it has one.
void Revoke(World& world, Random& random, const CertSpec& cert)
{
    const std::vector<CrlSpec*> crls = CrlsNamed(world, cert.issuer);
    if (!crls.empty()) random.Of(crls)->revoked.push_back(Entry(world, random, cert));
}

std::size_t PutEndEntity(World& world, Random& random, CertSpec cert, Place place)
{
    cert.key = AnyKey(random);
    return Put(world, std::move(cert), AnyCa(world, random), place);
}

void PutSignature(World& world, Random& random)
{
    Signature signature;
    signature.cert = PutEndEntity(world, random, Signer(), Place::Cms);
    signature.authority = PutEndEntity(world, random, Tsa(), Place::Token);
    signature.signer.hash = AnySha2(random);
    if (random.Percent(25)) signature.signer.signedAttributes = nullptr;
    signature.signer.signatureAlgorithm =
        AlgoId(random.Of({oid::rsaEncryption, oid::rsaEncryption, oid::sha512WithRsa}));
    signature.token.time = GenTime(Digits(world.now, "%Y%m%d%H%M%SZ"));
    signature.token.imprintHash = AnySha2(random);
    signature.token.cms.version = 3;
    signature.tokenSigner.hash = AnySha2(random);
    signature.tokenSigner.signedAttributes = UsualAttributes(oid::tstInfo);
    if (random.Percent(10)) signature.tokenSigner.signedAttributes = nullptr;
    world.signatures.push_back(signature);
}

// ---- A package in order ----

World Sound(Random& random)
{
    World world;
    world.now = random.Of<time_t>({1767225600, 1767225600, 1742000000, 1900000000});
    world.certs.push_back({Root(random.Percent(10) ? KeyId::Rsa4096 : KeyId::Rsa2048A), Place::Anchor, true});
    world.crls.push_back({CrlOf(world.Cert(0))});
    for (std::size_t cas = random.Below(5); cas > 0; --cas) {
        const CertSpec issuer = AnyCa(world, random);
        const std::string name = "Test CA " + std::to_string(world.certs.size());
        const std::size_t ca = PutCa(world, Intermediate(name, AnyKey(random)), issuer);
        world.Cert(ca).hash = AnySha2(random);
        world.crls.back().spec.hash = AnySha2(random);
    }
    PutSignature(world, random);
    if (random.Percent(15)) PutSignature(world, random);
    world.pem = random.Percent(10);
    return world;
}

// ---- Changes ----

const Bytes kUnknownCritical = Ext(oid::testPolicy, Null(), true);

struct Change {
    const char* name;
    unsigned weight;
    void (*apply)(World&, Random&);
};

const Change kChanges[] = {
    {"validity of a certificate", 6, [](World& w, Random& r) { Redate(r, w.now, UsedOrAbove(w, r)); }},
    {"validity of a CRL", 5,
     [](World& w, Random& r) {
         CrlSpec& crl = AnyCrl(w, r);
         if (r.Percent(40)) {
             crl.thisUpdate = Around(r, w.now);
         } else {
             crl.nextUpdate = Around(r, w.now);
         }
     }},
    {"a revoked certificate", 12, [](World& w, Random& r) { Revoke(w, r, UsedOrAbove(w, r)); }},
    {"another number revoked", 2,
     [](World& w, Random& r) {
         AnyCrl(w, r).revoked.push_back({{0x7F, 0x01}, Around(r, w.now)});
     }},
    {"a second CRL of an issuer", 5,
     [](World& w, Random& r) {
         PlacedCrl second = r.Of(w.crls);
         const Bytes date = Around(r, w.now);
         if (r.Percent(50)) {
             second.spec.thisUpdate = date;
         } else {
             second.spec.nextUpdate = date;
         }
         const CertSpec cert = w.Cert(UsedCert(w, r));
         if (second.spec.issuer == cert.issuer) second.spec.revoked.push_back(Entry(w, r, cert));
         w.crls.insert(w.crls.begin() + static_cast<std::ptrdiff_t>(r.Below(w.crls.size() + 1)), second);
     }},
    {"a CRL missing", 4,
     [](World& w, Random& r) { w.crls.erase(w.crls.begin() + static_cast<std::ptrdiff_t>(r.Below(w.crls.size()))); }},
    {"a CRL by another key", 3, [](World& w, Random& r) { AnyCrl(w, r).issuerKey = AnyKey(r); }},
    {"a CRL without nextUpdate", 1, [](World& w, Random& r) { AnyCrl(w, r).nextUpdate.reset(); }},
    {"an extension of a CRL", 2,
     [](World& w, Random& r) {
         const Bytes casOnly = Ext(oid::issuingDistributionPoint, Seq(CtxPrim(2, {0xFF})), true);
         AnyCrl(w, r).extensions = {r.Of({casOnly, kUnknownCritical})};
     }},
    {"an indirect CRL", 4,
     [](World& w, Random& r) {
         CrlSpec& crl = AnyCrl(w, r);
         crl.extensions = {IssuingDistPoint(true)};
         if (r.Percent(30)) crl.revoked.push_back(Entry(w, r, UsedOrAbove(w, r)));
     }},
    {"an indirect CRL and no other", 3,
     [](World& w, Random& r) {
         PlacedCrl only{With(AnyCrl(w, r), &CrlSpec::extensions, std::vector<Bytes>{IssuingDistPoint(true)})};
         if (r.Percent(30)) only.spec.revoked.push_back(Entry(w, r, UsedOrAbove(w, r)));
         w.crls = {only};
     }},
    {"key usage", 5,
     [](World& w, Random& r) {
         UsedOrAbove(w, r).keyUsage = r.Of<std::optional<unsigned>>(
             {std::nullopt, usage::digitalSignature, usage::keyCertSign, usage::crlSign, usage::nonRepudiation,
              usage::keyCertSign | usage::crlSign, usage::digitalSignature | usage::decipherOnly});
     }},
    {"extended key usage", 5,
     [](World& w, Random& r) {
         using Purposes = std::vector<std::string_view>;
         w.Cert(UsedCert(w, r)).extendedKeyUsage = r.Of<Purposes>({{},
                                                                   {oid::serverAuth},
                                                                   {oid::codeSigning},
                                                                   {oid::timeStamping},
                                                                   {oid::codeSigning, oid::timeStamping},
                                                                   {oid::serverAuth, oid::timeStamping}});
     }},
    {"basic constraints", 3,
     [](World& w, Random& r) {
         UsedOrAbove(w, r).basicConstraints = r.Of<std::optional<Bytes>>({std::nullopt, NotCa(), Ca(), Ca(0), Ca(1)});
     }},
    {"version 1", 2,
     [](World& w, Random& r) {
         CertSpec& cert = UsedOrAbove(w, r);
         cert = Version1(cert);
     }},
    {"issuer's name written otherwise", 2,
     [](World& w, Random& r) {
         CertSpec& cert = UsedOrAbove(w, r);
         if (cert.issuer == TestName("Test CA 1")) {
             const NameAttribute cn = NameAttr(oid::commonName, Printable("Test CA 1"));
             cert.issuer = r.Of({TestName("TEST CA 1"), Name(C("ZZ"), O("Example"), cn)});
         } else {
             cert.issuer = TestName("test root");
         }
     }},
    {"key identifiers", 2,
     [](World& w, Random& r) {
         CertSpec& cert = w.Cert(UsedCert(w, r));
         cert.keyIdentifiers = false;
         if (r.Percent(60)) {
             cert.extraExtensions = {Ext(oid::authorityKeyIdentifier, Seq(CtxPrim(0, Bytes(20, 0x5A))))};
         }
     }},
    {"unknown critical extension", 2,
     [](World& w, Random& r) { UsedOrAbove(w, r).extraExtensions.push_back(kUnknownCritical); }},
    {"SHA-1 in a certificate", 2, [](World& w, Random& r) { w.Cert(UsedCert(w, r)).hash = Hash::Sha1; }},
    {"SHA-1 in a CRL", 1, [](World& w, Random& r) { AnyCrl(w, r).hash = Hash::Sha1; }},
    {"algorithms that disagree", 1,
     [](World& w, Random& r) { UsedOrAbove(w, r).outerAlgorithm = AlgoId(oid::sha384WithRsa); }},
    {"an elliptic curve", 1,
     [](World& w, Random& r) { w.Cert(UsedCert(w, r)).subjectPublicKey = Spki(KeyId::EcP256); }},
    {"serial number 0", 1, [](World& w, Random& r) { w.Cert(UsedCert(w, r)).serial = {0x00}; }},
    {"one serial number for two", 1,
     [](World& w, Random& r) { w.Cert(UsedCert(w, r)).serial = r.Of(w.certs).spec.serial; }},

    {"a namesake of a CA", 8,
     [](World& w, Random& r) {
         const CertSpec issuer = AnyCa(w, r);
         CertSpec namesake = AnyCa(w, r);
         namesake.key = AnyKey(r);
         const std::size_t at = PutCa(w, namesake, issuer);
         if (r.Percent(50)) Redate(w, r, namesake.subject);
         if (r.Percent(50)) std::swap(w.certs[at], w.certs[1 + r.Below(at)]);
         if (r.Percent(50)) {
             // OpenSSL tells a self-signed CA from a re-keyed one by them.
             for (PlacedCert& cert : w.certs) cert.spec.keyIdentifiers = cert.spec.subject == cert.spec.issuer;
         }
     }},
    {"a CA certified a second time", 5,
     [](World& w, Random& r) {
         const CertSpec issuer = AnyCa(w, r);
         const CertSpec again = AnyCa(w, r);
         Put(w, again, issuer);
         if (r.Percent(60)) Redate(w, r, again.subject);
     }},
    {"two versions of a certificate", 4,
     [](World& w, Random& r) {
         const std::size_t at = 1 + r.Below(w.certs.size() - 1);
         w.certs.push_back(PlacedCert(w.certs[at]));
         CertSpec& version = (r.Percent(50) ? w.certs[at] : w.certs.back()).spec;
         if (r.Percent(50)) {
             Redate(r, w.now, version);
         } else {
             version.keyUsage = usage::crlSign;
         }
     }},
    {"a damaged copy of a CRL", 2,
     [](World& w, Random& r) {
         PlacedCrl copy = r.Of(w.crls);
         copy.damaged = true;
         w.crls.insert(w.crls.begin(), copy);
     }},
    {"another root", 3,
     [](World& w, Random& r) {
         const CertSpec root = w.Cert(PutOtherRoot(w, r, r.Of({Place::Anchor, Place::Cms})));
         if (r.Percent(15)) w.certs.back().spec = Version1(root);
         if (r.Percent(50)) {
             CertSpec& cert = w.Cert(UsedCert(w, r));
             cert = IssuedBy(cert, root);
         }
         if (r.Percent(50)) Put(w, AnyCa(w, r), root);
     }},
    {"only a CRL of a namesake below another root", 3,
     [](World& w, Random& r) {
         const std::size_t root = PutOtherRoot(w, r, Place::Anchor);
         const Bytes name = w.Cert(UsedCert(w, r)).issuer;
         w.crls.erase(std::remove_if(w.crls.begin(), w.crls.end(),
                                     [&](const PlacedCrl& crl) { return crl.spec.issuer == name; }),
                      w.crls.end());
         PutCa(w, With(Intermediate("", AnyKey(r)), &CertSpec::subject, name), CertSpec(w.Cert(root)));
     }},
    {"a long chain", 2,
     [](World& w, Random& r) {
         CertSpec last = w.Cert(0);
         for (std::size_t left = 8 + r.Below(4); left > 0; --left) {
             const KeyId key = left % 2 == 0 ? KeyId::Rsa2048B : KeyId::Rsa2048C;
             last = w.Cert(PutCa(w, Intermediate("Link " + std::to_string(left), key), last));
         }
         CertSpec& cert = w.Cert(w.signatures[0].cert);
         cert = IssuedBy(cert, last);
     }},
    {"a certificate missing", 4, [](World& w, Random& r) { r.Of(w.certs).place = Place::Missing; }},
    {"a certificate elsewhere", 5,
     [](World& w, Random& r) {
         PlacedCert& cert = r.Of(w.certs);
         cert.place = r.Of({Place::Cms, Place::Crls, Place::Token, Place::Anchor});
     }},
    {"another order", 4,
     [](World& w, Random& r) {
         r.Shuffle(w.crls);
         w.reversed = true;
     }},

    {"a forged certificate", 4, [](World& w, Random& r) { UsedOrAbove(w, r).brokenSignature = true; }},
    {"a damaged certificate", 4, [](World& w, Random& r) { w.certs[UsedCert(w, r)].damaged = true; }},
    {"a forged CRL", 3, [](World& w, Random& r) { AnyCrl(w, r).brokenSignature = true; }},
    {"a damaged CRL", 3, [](World& w, Random& r) { r.Of(w.crls).damaged = true; }},
    {"another payload", 4, [](World& w, Random&) { w.payloadChanged = true; }},
    {"a forged signature", 4, [](World& w, Random& r) { r.Of(w.signatures).signer.brokenSignature = true; }},
    {"a digest of something else", 3,
     [](World& w, Random& r) {
         r.Of(w.signatures).signer.signedAttributes = [](const Bytes&) {
             return UsualAttributes(oid::data)(Digest(Hash::Sha256, Text("something else")));
         };
     }},
    {"damaged attributes", 3, [](World& w, Random& r) { r.Of(w.signatures).attributesDamaged = true; }},
    {"a weak digest", 3,
     [](World& w, Random& r) {
         Signature& signature = r.Of(w.signatures);
         (r.Percent(50) ? signature.signer : signature.tokenSigner).hash = Hash::Sha1;
     }},
    {"another digest algorithm named", 2,
     [](World& w, Random& r) { r.Of(w.signatures).signer.digestAlgorithm = AlgoId(oid::sha384); }},
    {"signers without attributes", 4,
     [](World& w, Random& r) {
         if (w.signatures.size() < 2) PutSignature(w, r);
         for (Signature& signature : w.signatures) signature.signer.signedAttributes = nullptr;
         if (r.Percent(60)) w.signatures[r.Below(2)].signer.brokenSignature = true;
     }},
    {"a signer for code and time", 2,
     [](World& w, Random&) {
         Signature& signature = w.signatures[0];
         w.Cert(signature.cert).extendedKeyUsage = {oid::codeSigning, oid::timeStamping};
         signature.authority = signature.cert;
     }},
    {"no signer", 1, [](World& w, Random&) { w.signatures.clear(); }},

    {"no timestamp", 2, [](World& w, Random& r) { r.Of(w.signatures).stamped = false; }},
    {"a timestamp of another signature", 4,
     [](World& w, Random& r) {
         TokenSpec& token = r.Of(w.signatures).token;
         token.imprint = Digest(token.imprintHash, Text("another signature"));
     }},
    {"a timestamp's weak imprint", 2, [](World& w, Random& r) { r.Of(w.signatures).token.imprintHash = Hash::Sha1; }},
    {"a forged timestamp", 4, [](World& w, Random& r) { r.Of(w.signatures).tokenSigner.brokenSignature = true; }},
    {"a damaged timestamp", 4, [](World& w, Random& r) { r.Of(w.signatures).tokenDamaged = true; }},
    {"a timestamp that nobody signed", 2, [](World& w, Random& r) { r.Of(w.signatures).tokenSigned = false; }},
    {"a timestamp without content", 1, [](World& w, Random& r) { r.Of(w.signatures).token.eContent = Bytes{}; }},
    {"a fraction of a second", 1,
     [](World& w, Random& r) { r.Of(w.signatures).token.time = GenTime("20260101000000.5Z"); }},
    {"a timestamp of another time", 6,
     [](World& w, Random& r) {
         const char* const times[] = {"20191231235959Z", "20200101000000Z", "20241231235959Z", "20250101000000Z",
                                      "20250601000000Z", "20350101000000Z", "20350101000001Z"};
         r.Of(w.signatures).token.time = GenTime(r.Of(times));
     }},
};

const Change& AnyChange(Random& random)
{
    std::size_t total = 0;
    for (const Change& change : kChanges) total += change.weight;
    std::size_t at = random.Below(total);
    const Change* change = kChanges;
    while (at >= change->weight) at -= change++->weight;
    return *change;
}

// ---- Encodings ----

// Flips a bit of a primitive element somewhere below the path; no object identifier, which would become another one.
Bytes DamageBelow(const Bytes& der, const Path& path, Random& random)
{
    constexpr std::uint8_t constructed = 0x20;
    constexpr std::uint8_t objectIdentifier = 0x06;
    for (;;) {
        Path at = path;
        Element element = Find(der, at);
        while ((element.tag & constructed) != 0 && element.contentLength != 0) {
            at.push_back(random.Below(Children(der, element).size()));
            element = Find(der, at);
        }
        if (element.contentLength != 0 && element.tag != objectIdentifier) return Damage(der, at);
    }
}

class Encoder {
public:
    Encoder(const World& world, Random& random) : world_(world), random_(random) {}

    SignedParts Parts()
    {
        SignedParts parts;
        parts.root = Cat(CertsAt(Place::Anchor));
        for (const Bytes& cert : CertsAt(Place::Crls)) parts.crls = Cat(parts.crls, Armoured("CERTIFICATE", cert));
        for (const PlacedCrl& crl : world_.crls) parts.crls = Cat(parts.crls, Armoured("X509 CRL", Encoding(crl)));
        const Bytes cms = Cms();
        parts.cms = Armoured(random_.Of({"CMS", "PKCS7"}), cms);
        parts.payload = world_.payload;
        if (world_.payloadChanged) parts.payload.back() ^= 0x01;
        return parts;
    }

private:
    template <typename Placed> Bytes Encoding(const Placed& placed)
    {
        const Bytes der = Build(placed.spec);
        return placed.damaged ? DamageBelow(der, {0}, random_) : der;
    }

    std::vector<Bytes> CertsAt(Place place)
    {
        std::vector<Bytes> certs;
        for (const PlacedCert& cert : world_.certs) {
            if (cert.place == place) certs.push_back(Encoding(cert));
        }
        if (world_.reversed) std::reverse(certs.begin(), certs.end());
        return certs;
    }

    Bytes Armoured(std::string_view label, const Bytes& der) const { return world_.pem ? Pem(label, der) : der; }

    SignerSpec As(SignerSpec signer, std::size_t cert) const
    {
        const SignerSpec identity = SignedBy(world_.certs[cert].spec);
        signer.issuer = identity.issuer;
        signer.serial = identity.serial;
        signer.key = identity.key;
        return signer;
    }

    UnsignedAttribute Token(const Signature& signature)
    {
        TokenSpec token = signature.token;
        token.cms.certificates = CertsAt(Place::Token);
        if (signature.tokenSigned) token.cms.signers = {As(signature.tokenSigner, signature.authority)};
        const bool damaged = signature.tokenDamaged && !token.eContent;
        return [this, token, damaged](const Bytes& stamped) {
            const Path tstInfo{1, 0, 2, 1, 0, 0};
            const Bytes der = TimestampToken(token, stamped);
            return Attribute(oid::timestampToken, damaged ? DamageBelow(der, tstInfo, random_) : der);
        };
    }

    Bytes Cms()
    {
        CmsSpec cms;
        cms.certificates = CertsAt(Place::Cms);
        for (const Signature& signature : world_.signatures) {
            SignerSpec signer = As(signature.signer, signature.cert);
            if (signature.stamped) signer.unsignedAttributes = {Token(signature)};
            if (signature.attributesDamaged && signer.signedAttributes != nullptr) {
                const Path messageDigest{3, 1, 1, 0};
                signer.edit = [messageDigest](Bytes info) { return Damage(std::move(info), messageDigest); };
            }
            cms.signers.push_back(signer);
        }
        return DetachedCms(world_.payload, cms);
    }

    const World& world_;
    Random& random_;
};

} // namespace

GeneratedPackage GeneratePackage(std::uint64_t seed)
{
    Random random(seed);
    World world = Sound(random);
    GeneratedPackage package;
    for (std::size_t changes = random.Of<std::size_t>({0, 1, 1, 1, 1, 1, 2, 2, 3}); changes > 0; --changes) {
        if (world.signatures.empty() || world.crls.empty()) break; // nothing left to change
        const Change& change = AnyChange(random);
        change.apply(world, random);
        package.changes.push_back(change.name);
    }
    package.parts = Encoder(world, random).Parts();
    return package;
}

} // namespace pnvtest
