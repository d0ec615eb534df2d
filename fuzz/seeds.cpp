// Writes the inputs that the fuzzers start from: fuzz_seeds DIRECTORY makes a directory for each target in it. The same
// inputs on every run.
#include "fuzz.h"

#include "support/crl_bundle.h"
#include "support/package.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace pnvfuzz {

namespace {

using Seeds = std::vector<Bytes>;

template <typename Spec> Seeds BuildAll(const std::vector<Spec>& specs)
{
    Seeds seeds;
    for (const Spec& spec : specs) seeds.push_back(Build(spec));
    return seeds;
}

// ---- Certificates, CRLs and their extensions

Seeds Certificates()
{
    const CertSpec& ca = Pki().signingCa;
    const CertSpec& signer = Pki().signer;
    CertSpec everyUsage = signer;
    everyUsage.keyUsage = 0x80FF;
    everyUsage.extendedKeyUsage = {oid::serverAuth, oid::codeSigning, oid::timeStamping};
    everyUsage.extraExtensions = {Ext(oid::subjectAltName, Seq(CtxPrim(2, Text("example.com"))))};
    CertSpec everyName = ca;
    everyName.subject = Name(C("ZZ"), St("S"), L("L"), O("O"), Rdn(Ou("U"), Cn("N")), Email("a@example.com"));
    return BuildAll<CertSpec>({
        Pki().root,
        ca,
        Pki().tsaCa,
        signer,
        Pki().tsa,
        everyUsage,
        everyName,
        Version1(ca),
        With(ca, &CertSpec::basicConstraints, Ca(3)),
        With(ca, &CertSpec::hash, Hash::Sha384),
        With(ca, &CertSpec::hash, Hash::Sha512),
        With(ca, &CertSpec::notAfter, GenTime("20250101000000Z")),
        With(ca, &CertSpec::brokenSignature, true),
        With(ca, &CertSpec::subjectPublicKey, RsaSpki({0xC1, 0x01}, {0x03})),
        With(signer, &CertSpec::key, KeyId::EcP256),
        With(signer, &CertSpec::keyUsage, 0u),
        With(ca, &CertSpec::subjectPublicKey, RsaSpki({0x00}, {0x03})),
    });
}

// Revokes a serial number of every kind: for each reason, without one, and the signing CA.
CrlSpec LongCrl(CrlSpec crl)
{
    for (int reason = 0; reason <= 10; ++reason) {
        RevokedSpec entry;
        entry.serial = {0x70, static_cast<std::uint8_t>(reason)};
        entry.reason = reason;
        crl.revoked.push_back(entry);
    }
    return Revoking({{0x7F}, Pki().signingCa.serial}, crl);
}

// Revokes the CA that is judged by it.
CrlSpec RevokingCa(CrlSpec crl, std::string_view date, std::optional<int> reason = {})
{
    crl.revoked = {With(RevokedSpec{Pki().signingCa.serial, UtcTime(date)}, &RevokedSpec::reason, reason)};
    return crl;
}

Seeds Crls()
{
    const CrlSpec& crl = Pki().rootCrl;
    CrlSpec unlike = With(crl, &CrlSpec::thisUpdate, GenTime("20250101000000Z"));
    unlike.nextUpdate.reset();
    unlike.version.reset();
    unlike.extensions.clear();
    CrlSpec ofAnotherRoot = crl;
    ofAnotherRoot.issuer = TestName("Another Root");
    return BuildAll<CrlSpec>({
        crl,
        Pki().signingCrl,
        LongCrl(crl),
        Indirect(crl),
        unlike,
        Revoking({{0x7F}}, crl),
        Revoking(std::vector<Bytes>(40, Bytes{0x7F}), crl), // more than the checker asks for ahead
        With(crl, &CrlSpec::hash, Hash::Sha512),
        With(crl, &CrlSpec::brokenSignature, true),
        With(crl, &CrlSpec::nextUpdate, UtcTime("250201000000Z")),
        RevokingCa(crl, "250601000000Z"),
        RevokingCa(crl, "270601000000Z", 3),
        RevokingCa(crl, "250601000000Z", 4),
        RevokingCa(crl, "270601000000Z", 5),
        RevokingCa(With(crl, &CrlSpec::nextUpdate, UtcTime("250201000000Z")), "250601000000Z"),
        RevokingCa(crl, "25060100000000"),
        Indirect(ofAnotherRoot),
    });
}

Seeds Extensions()
{
    const Bytes name = TestName("A");
    return {
        Ca(),
        Ca(3),
        NotCa(),
        KeyUsage(usage::digitalSignature),
        KeyUsage(usage::keyCertSign | usage::crlSign | usage::decipherOnly),
        Seq(Oid(oid::codeSigning), Oid(oid::timeStamping)),
        Octets(Bytes(20, 0x5A)),
        Seq(CtxPrim(0, Bytes(20, 0x5A))),
        Seq(CtxPrim(0, Bytes(4, 0x5A)), Ctx(1, Ctx(4, name)), CtxPrim(2, {0x01})),
        Enum(1),
        Seq(CtxPrim(4, {0xFF})),
        Seq(Ctx(0, Ctx(0, CtxPrim(6, Text("http://example.com/")))), CtxPrim(1, {0xFF}), CtxPrim(2, {0x00}),
            CtxPrim(3, {0x01, 0x02}), CtxPrim(4, {0xFF}), CtxPrim(5, {0x00})),
    };
}

// ---- Signatures and timestamps, each for both cryptographies

// Digests that the lenient cryptography finds right.
SignedAttributes LenientAttributes(const SignedAttributes& attributes)
{
    return [attributes](const Bytes& digest) { return attributes(Bytes(digest.size(), kLenientDigestOctet)); };
}

CmsSpec Lenient(CmsSpec cms)
{
    for (SignerSpec& signer : cms.signers) {
        if (signer.signedAttributes == nullptr) continue;
        signer.signedAttributes = LenientAttributes(signer.signedAttributes);
    }
    return cms;
}

TokenSpec Lenient(TokenSpec token)
{
    token.imprint = Bytes(Digest(token.imprintHash, {}).size(), kLenientDigestOctet);
    token.cms = Lenient(token.cms);
    return token;
}

std::vector<TokenSpec> Tokens()
{
    const TokenSpec token = DemoToken(Pki());
    TokenSpec complete = token;
    complete.accuracy = Accuracy(1);
    complete.ordering = Bool(true);
    complete.nonce = Int({0x12, 0x34, 0x56, 0x78});
    complete.extensions = Ctx(1, Ext(oid::subjectAltName, Null()));
    TokenSpec longer = With(token, &TokenSpec::imprintHash, Hash::Sha512);
    longer.cms.signers[0].hash = Hash::Sha512;
    TokenSpec two = token;
    two.cms.signers.push_back(two.cms.signers[0]);
    TokenSpec direct = token;
    direct.cms = Direct(direct.cms);
    TokenSpec broken = direct;
    broken.cms.signers[0].brokenSignature = true;
    TokenSpec noAttributes = token;
    noAttributes.cms.signers[0].signedAttributes = [](const Bytes&) { return std::vector<Bytes>{}; };
    const TokenSpec unknown = With(token, &TokenSpec::imprintAlgorithm, AlgoId(oid::sha1));
    return {token, complete, longer, two, direct, broken, noAttributes, unknown};
}

CmsSpec WithHash(CmsSpec cms, Hash hash)
{
    cms.signers[0].hash = hash;
    return cms;
}

std::vector<CmsSpec> CmsFor(const TokenSpec& token)
{
    const CmsSpec cms = DemoCms(Pki(), token);
    CmsSpec two = cms;
    two.signers.push_back(two.signers[0]);
    two.signers[1].hash = Hash::Sha384;
    CmsSpec alike = cms;
    alike.signers.push_back(alike.signers[0]);
    CmsSpec unknown = cms;
    unknown.signers[0].digestAlgorithm = AlgoId(oid::sha1);
    CmsSpec withCrl = cms;
    withCrl.crls = {Build(Pki().rootCrl)};
    CmsSpec ownRoot = cms;
    CertSpec strange = IssuedBy(With(Pki().signer, &CertSpec::key, KeyId::Rsa2048H), Root(KeyId::Rsa2048G));
    ownRoot.certificates = {Build(Root(KeyId::Rsa2048G)), Build(strange)};
    ownRoot.signers[0] = With(SignedBy(strange), &SignerSpec::unsignedAttributes, cms.signers[0].unsignedAttributes);
    CmsSpec empty = Direct(cms);
    empty.signers[0].signature = Bytes{};
    return {cms, two, alike, Direct(cms), Direct(alike), withCrl, WithHash(cms, Hash::Sha512), ownRoot, unknown, empty};
}

Seeds Signatures()
{
    Seeds seeds;
    const TokenSpec token = DemoToken(Pki());
    for (const CmsSpec& cms : CmsFor(token)) seeds.push_back(DetachedCms(Payload(), cms));
    for (const CmsSpec& cms : CmsFor(Lenient(token))) seeds.push_back(DetachedCms(Payload(), Lenient(cms)));
    seeds.push_back(Pem("CMS", seeds[0]));
    seeds.push_back(Pem("PKCS7", seeds[0], "\r\n"));
    return seeds;
}

// The value of the signature that FuzzTimestamp puts a token into.
Bytes StampedSignature()
{
    Bytes stamped;
    CmsSpec cms = DemoCms(Pki());
    cms.signers[0].unsignedAttributes = {[&](const Bytes& signature) { return stamped = signature; }};
    (void)DetachedCms(Payload(), cms);
    return stamped;
}

Seeds Timestamps()
{
    Seeds seeds;
    const Bytes stamped = StampedSignature();
    for (const TokenSpec& token : Tokens()) {
        seeds.push_back(TimestampToken(token, stamped));
        seeds.push_back(TimestampToken(Lenient(token), stamped));
        seeds.push_back(TstInfo(token, stamped));
    }
    return seeds;
}

// ---- Text

Seeds PemTexts()
{
    const Bytes cert = Pem("CERTIFICATE", Build(Pki().signingCa));
    const Bytes crl = Pem("X509 CRL", Build(Pki().rootCrl));
    const Bytes cms = DetachedCms(Payload(), DemoCms(Pki()));
    return {
        cert,
        crl,
        Pem("CMS", cms),
        Pem("PKCS7", cms),
        Cat(cert, crl, cert),
        Cat(Pem("CERTIFICATE", Build(Pki().root)), cert),
        Cat(crl, Text("a remark\n"), Pem("X509 CRL", Build(Pki().signingCrl), "\r\n")),
        Cat(Pem("CERTIFICATE", Bytes(40, 0x30)), cert),
        Bytes(cert.begin(), cert.end() - 10),
        Pem("CERTIFICATE", {}),
        Pem("SOMETHING ELSE", Bytes(40, 0x30)),
    };
}

Seeds Base64Texts()
{
    return {
        Text("QQ=="), Text("QUI="),  Text("QUJD"), Text("QUJD\nQUJD\n"), Text("QUJD  \r\nQQ=="), Text("QUJDREVGR0g="),
        Text("+/+/"), Text("QU JD"), Text("Q==="), Text("QQ==QQ=="),     Text("QU\xC3JD"),       Text("QUJDR"),
    };
}

// ---- Bundles and packages

Bytes Pair(const Bytes& offered, const Bytes& held)
{
    return Cat(Bytes{static_cast<std::uint8_t>(offered.size() >> 8), static_cast<std::uint8_t>(offered.size())},
               offered, held);
}

Seeds CrlBundles()
{
    const Bytes ca = Build(Pki().signingCa);
    const Bytes root = Build(Pki().rootCrl);
    const Bytes laterRoot = Build(UpdatedOn("260101", Pki().rootCrl));
    const Bytes revoking = Build(LongCrl(UpdatedOn("260101", Pki().rootCrl)));
    const Bytes signing = Build(Pki().signingCrl);
    const Bytes laterSigning = Build(UpdatedOn("260101", Pki().signingCrl));
    const Bytes tsaCa = Build(Pki().tsaCa);
    const Bytes tsa = Build(Pki().tsaCrl);
    const Bytes laterTsa = Build(UpdatedOn("260101", Pki().tsaCrl));
    const CrlSpec odd = Revoking({Bytes(33, 0x11), {0x21}, {0x22}}, Pki().rootCrl);
    const Bytes oddSerials = Build(odd);
    const Bytes laterOddSerials =
        Build(Revoking({Bytes(33, 0x11), {0x21}, {0x23}}, UpdatedOn("260101", Pki().rootCrl)));
    const Bytes laterBroken = Build(With(UpdatedOn("260101", Pki().rootCrl), &CrlSpec::brokenSignature, true));
    return {
        Pair(root, root),
        Pair(laterRoot, root),
        Pair(root, laterRoot),
        Pair(Cat(root, ca, laterSigning), Cat(ca, signing, root)),
        Pair(Cat(laterRoot, ca, signing), Cat(root, ca, laterSigning)),
        Pair(Cat(laterRoot, ca, signing), root),
        Pair(revoking, Cat(root, ca, signing)),
        Pair(Cat(root, laterRoot), root),
        Pair(Pem("X509 CRL", laterRoot), root),
        Pair(DailyCrls(Pki().rootCrl, 3), root),
        Pair(DailyCrls(Pki().rootCrl, PELNIC_CRL_BUNDLE_MAX + 1), root),
        Pair(Cat(laterRoot, ca, signing, tsaCa, laterTsa), Cat(root, ca, laterSigning, tsaCa, tsa)),
        Pair(Cat(root, ca, laterSigning), Cat(root, ca, signing)),
        Pair(oddSerials, laterOddSerials),
        Pair(root, laterBroken),
        Pair(Cat(root, ca, signing, laterSigning), Cat(root, ca, signing)),
    };
}

Seeds Packages()
{
    const DemoPki& pki = Pki();
    const Bytes cms = DetachedCms(Payload(), DemoCms(pki));
    const Bytes lenient = DetachedCms(Payload(), Lenient(DemoCms(pki, Lenient(DemoToken(pki)))));
    CmsSpec broken = Direct(DemoCms(pki));
    broken.signers[0].brokenSignature = true;
    const auto with = [&](const CrlSpec& root, const CrlSpec& tsa) {
        return SignedPackage(Payload(), lenient, Cat(Build(root), Build(pki.signingCrl), Build(tsa)));
    };
    CrlSpec superseded = pki.tsaCrl;
    superseded.revoked = {{pki.tsa.serial, UtcTime("250601000000Z"), 4}};
    CrlSpec compromised = pki.tsaCrl;
    compromised.revoked = {{pki.tsa.serial, UtcTime("270601000000Z"), 1}};
    const CrlSpec forged = With(pki.tsaCrl, &CrlSpec::brokenSignature, true);
    CrlSpec strangers = With(pki.tsaCrl, &CrlSpec::issuer, TestName("Another CA"));
    PackageSpec noSignature = SignedPackage(Payload(), {}, pki.Crls());
    PackageSpec liar = SignedPackage(Payload(), cms, pki.Crls());
    liar.subFiles[1].length = 0xFFFFFFF0;
    liar.subFiles[2].offset = 0xFFFFFEA0;
    PackageSpec header = SignedPackage(Payload(), cms, pki.Crls());
    header.subFiles[0].offset = 0xFFFFFEA0;
    PackageSpec longer = SignedPackage(Payload(), cms, pki.Crls());
    longer.subFiles[2].length = 0x00100000;
    PackageSpec unsignedPackage;
    unsignedPackage.subFiles = {{subfile::payload, Payload()}};
    return BuildAll<PackageSpec>({
        SignedPackage(Payload(), cms, pki.Crls()),
        SignedPackage(Payload(), lenient, pki.Crls()),
        SignedPackage(Payload(), cms, Build(LongCrl(pki.rootCrl))),
        noSignature,
        liar,
        header,
        longer,
        unsignedPackage,
        SignedPackage(Payload(), cms, Cat(pki.Crls(), Build(UpdatedOn("250601", pki.signingCrl)))),
        SignedPackage(Payload(), DetachedCms(Payload(), broken), pki.Crls()),
        with(pki.rootCrl, superseded),
        with(pki.rootCrl, compromised),
        with(pki.rootCrl, forged),
        with(pki.rootCrl, Indirect(strangers)),
        with(RevokingCa(pki.rootCrl, "250601000000Z"), pki.tsaCrl),
        with(With(pki.rootCrl, &CrlSpec::brokenSignature, true), pki.tsaCrl),
    });
}

// Each with what one of its rules refuses.
Seeds StrictPackages()
{
    const DemoPki& pki = Pki();
    Seeds seeds = Packages();
    const auto add = [&](const CmsSpec& cms, const Bytes& crls) {
        seeds.push_back(Build(SignedPackage(Payload(), DetachedCms(Payload(), Lenient(cms)), crls)));
    };
    const TokenSpec token = Lenient(DemoToken(pki));
    TokenSpec ofNobody = token;
    ofNobody.cms.signers.clear();
    TokenSpec ofAnotherType = With(token, &TokenSpec::cms, Direct(token.cms));
    ofAnotherType.cms.edit = [](Bytes signedData) { return Replace(signedData, {2, 0}, Oid(oid::data)); };
    TokenSpec withoutType = token;
    withoutType.cms.signers[0].signedAttributes = LenientAttributes(UsualAttributes(oid::data));
    for (const TokenSpec& odd : {ofNobody, ofAnotherType, withoutType}) add(DemoCms(pki, odd), pki.Crls());

    const CmsSpec cms = DemoCms(pki, token);
    CmsSpec two = Direct(cms);
    two.signers.push_back(two.signers[0]);
    CmsSpec noType = cms;
    noType.signers[0].signedAttributes = [](const Bytes& digest) {
        return std::vector<Bytes>{MessageDigestAttribute(digest)};
    };
    for (const CmsSpec& odd : {Direct(cms), two, noType}) add(odd, pki.Crls());
    for (const Bytes& exponent : {Bytes{0x01}, Bytes{0x00, 0x00, 0x01}, Bytes(9, 0x03)}) {
        CertSpec stranger = With(Root(KeyId::Rsa2048H), &CertSpec::subject, TestName("Stranger"));
        stranger.issuer = stranger.subject;
        stranger.subjectPublicKey = RsaSpki(TestKey(KeyId::Rsa2048H).modulus, exponent);
        CmsSpec odd = cms;
        odd.certificates.push_back(Build(stranger));
        add(odd, pki.Crls());
    }
    CrlSpec delta = pki.signingCrl;
    delta.extensions.push_back(Ext("2.5.29.27", Int(1), true));
    const CrlSpec late = With(pki.signingCrl, &CrlSpec::thisUpdate, UtcTime("300101000000Z"));
    // For users', CA or attribute certificates only.
    const auto only = [](CrlSpec crl, unsigned field) {
        crl.extensions = {Ext(oid::issuingDistributionPoint, Seq(CtxPrim(field, {0xFF})), true)};
        return crl;
    };
    const CrlSpec& usual = pki.signingCrl;
    for (const CrlSpec& odd : {delta, late, Indirect(usual), only(usual, 1), only(usual, 2), only(usual, 5)}) {
        add(cms, Cat(Build(pki.rootCrl), Build(odd), Build(pki.tsaCrl)));
    }
    add(cms, Cat(Build(only(pki.rootCrl, 1)), Build(usual), Build(pki.tsaCrl)));

    const Bytes genuine = DetachedCms(Payload(), DemoCms(pki));
    const Bytes replayed = Replace(genuine, {1, 0, 4, 0, 3}, {});
    seeds.push_back(Build(SignedPackage(Set(Content(genuine, {1, 0, 4, 0, 3})), replayed, pki.Crls())));
    return seeds;
}

// Each lie about each callback once, before a signature: in the first, the third and every call.
Seeds Callbacks()
{
    const TokenSpec token = Lenient(DemoToken(Pki()));
    const Bytes cms = DetachedCms(Payload(), Lenient(DemoCms(Pki(), token)));
    Seeds seeds{Cat(Bytes{0}, DetachedCms(Payload(), DemoCms(Pki()))), Cat(Bytes{0}, cms)};
    for (std::uint8_t liar = 0; liar < static_cast<std::uint8_t>(Liar::End); ++liar) {
        seeds.push_back(Cat(Bytes{1, liar, 0, 0, 0xFF, 0xFF}, cms));
        seeds.push_back(Cat(Bytes{2, liar, 2, 0, 0x00, 0x01, liar, 5, 1, 0x00, 0x00}, cms));
    }
    return seeds;
}

// Granted, with a token; refused, with a text; and a token alone (RFC 3161, 2.4.2).
Seeds Responses()
{
    const Bytes token = TimestampToken(DemoToken(Pki()), StampedSignature());
    return {
        Seq(Seq(Int(0)), token),
        Seq(Seq(Int(1)), token),
        Seq(Seq(Int(2), Seq(Utf8("come back later"), Utf8("or not")), Bits(3, {0x20}))),
        token,
    };
}

struct NamedSeeds {
    const char* target;
    Seeds (*make)();
};
constexpr NamedSeeds kSeeds[] = {
    {"certificate", Certificates}, {"crl", Crls},
    {"extension", Extensions},     {"cms", Signatures},
    {"timestamp", Timestamps},     {"pem", PemTexts},
    {"base64", Base64Texts},       {"crl_bundle", CrlBundles},
    {"package", Packages},         {"callbacks", Callbacks},
    {"strict", StrictPackages},    {"pkgtool", StrictPackages},
    {"response", Responses},
};

void Write(const std::filesystem::path& path, const Bytes& content)
{
    std::ofstream file(path, std::ios::binary);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

} // namespace

} // namespace pnvfuzz

int main(int argc, char** argv)
{
    using namespace pnvfuzz;
    if (argc != 2) {
        std::fputs("usage: fuzz_seeds DIRECTORY\n", stderr);
        return 1;
    }
    for (const NamedSeeds& seeds : kSeeds) {
        const std::filesystem::path directory = std::filesystem::path(argv[1]) / seeds.target;
        std::filesystem::create_directories(directory);
        std::size_t number = 0;
        for (const Bytes& seed : seeds.make()) Write(directory / ("seed" + std::to_string(++number)), seed);
    }
    return 0;
}
