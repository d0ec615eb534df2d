#include "pki.h"

namespace pnvtest {

namespace {

Bytes Algorithm(const std::optional<Bytes>& instead, Hash hash)
{
    return instead ? *instead : AlgoId(RsaSignatureOid(hash));
}

// SIGNED{...}: the signed part, the algorithm, the signature.
Bytes Signed(const IssuanceSpec& spec, Bytes toBeSigned)
{
    if (spec.editTbs) toBeSigned = spec.editTbs(std::move(toBeSigned));
    Bytes signature = spec.signature ? *spec.signature : Sign(spec.issuerKey, spec.hash, toBeSigned);
    if (spec.brokenSignature) signature.back() ^= 0x01;
    return Seq(toBeSigned, Algorithm(spec.outerAlgorithm, spec.hash), Bits(0, signature));
}

// SHA-1 of the subjectPublicKey bits (RFC 5280, 4.2.1.2, method 1).
Bytes KeyIdentifier(KeyId key)
{
    const Bytes withUnusedBits = Content(Spki(key), {1});
    return Digest(Hash::Sha1, Bytes(withUnusedBits.begin() + 1, withUnusedBits.end()));
}

Bytes AuthorityKeyIdentifier(KeyId issuerKey)
{
    return Ext(oid::authorityKeyIdentifier, Seq(CtxPrim(0, KeyIdentifier(issuerKey))));
}

Bytes ExtendedKeyUsage(const std::vector<std::string_view>& purposes)
{
    Bytes oids;
    for (std::string_view purpose : purposes) oids = Cat(oids, Oid(purpose));
    return Ext(oid::extKeyUsage, Seq(oids));
}

std::vector<Bytes> Extensions(const CertSpec& spec)
{
    std::vector<Bytes> extensions;
    if (spec.basicConstraints) extensions.push_back(Ext(oid::basicConstraints, *spec.basicConstraints, true));
    if (spec.keyUsage) extensions.push_back(Ext(oid::keyUsage, KeyUsage(*spec.keyUsage), true));
    if (!spec.extendedKeyUsage.empty()) extensions.push_back(ExtendedKeyUsage(spec.extendedKeyUsage));
    if (spec.keyIdentifiers) {
        extensions.push_back(Ext(oid::subjectKeyIdentifier, Octets(KeyIdentifier(spec.key))));
        extensions.push_back(AuthorityKeyIdentifier(spec.issuerKey));
    }
    extensions.insert(extensions.end(), spec.extraExtensions.begin(), spec.extraExtensions.end());
    return extensions;
}

// Extensions ::= SEQUENCE SIZE (1..MAX) OF Extension: none means no field.
Bytes OptionalExtensions(const std::vector<Bytes>& extensions)
{
    return extensions.empty() ? Bytes{} : Seq(Cat(extensions));
}

Bytes RevokedEntry(const RevokedSpec& spec)
{
    std::vector<Bytes> extensions;
    if (spec.reason) extensions.push_back(Ext(oid::crlReason, Enum(*spec.reason)));
    extensions.insert(extensions.end(), spec.extensions.begin(), spec.extensions.end());
    return Seq(Int(spec.serial), spec.date, spec.rawExtensions ? *spec.rawExtensions : OptionalExtensions(extensions));
}

Bytes RevokedList(const std::vector<RevokedSpec>& revoked)
{
    if (revoked.empty()) return {};
    std::vector<Bytes> entries;
    for (const RevokedSpec& entry : revoked) entries.push_back(RevokedEntry(entry));
    return Seq(Cat(entries));
}

CertSpec Subject(std::string_view cn, KeyId key, unsigned firstSerial)
{
    CertSpec cert;
    cert.subject = TestName(cn);
    cert.key = key;
    cert.serial = {static_cast<std::uint8_t>(firstSerial + static_cast<unsigned>(key))};
    return cert;
}

CertSpec Authority(std::string_view cn, KeyId key)
{
    CertSpec ca = Subject(cn, key, 0x10);
    ca.basicConstraints = Ca();
    ca.keyUsage = usage::keyCertSign | usage::crlSign;
    return ca;
}

CertSpec EndEntity(std::string_view cn, KeyId key, std::string_view purpose)
{
    CertSpec cert = Subject(cn, key, 0x20);
    cert.basicConstraints = NotCa();
    cert.keyUsage = usage::digitalSignature;
    cert.extendedKeyUsage = {purpose};
    return cert;
}

} // namespace

Bytes Build(const CertSpec& spec)
{
    return Signed(spec, Seq(spec.version ? Ctx(0, Int(*spec.version - 1)) : Bytes{},         // version
                            Int(spec.serial),                                                // serialNumber
                            Algorithm(spec.innerAlgorithm, spec.hash),                       // signature
                            spec.issuer,                                                     // issuer
                            Seq(spec.notBefore, spec.notAfter),                              // validity
                            spec.subject,                                                    // subject
                            spec.subjectPublicKey ? *spec.subjectPublicKey : Spki(spec.key), // subjectPublicKeyInfo
                            OptionalCtx(3, OptionalExtensions(Extensions(spec)))));          // extensions
}

Bytes Ca()
{
    return Seq(Bool(true));
}

Bytes Ca(int pathLength)
{
    return Seq(Bool(true), Int(pathLength));
}

Bytes NotCa()
{
    return Seq();
}

// A named bit list: trailing zero bits are left out (X.690, 11.2.2).
Bytes KeyUsage(unsigned bits)
{
    Bytes octets{static_cast<std::uint8_t>(bits), static_cast<std::uint8_t>(bits >> 8)};
    while (!octets.empty() && octets.back() == 0) octets.pop_back();
    unsigned unused = 0;
    while (!octets.empty() && (octets.back() >> unused & 1) == 0) ++unused;
    return Bits(unused, octets);
}

Bytes TestName(std::string_view cn)
{
    return Name(C("ZZ"), O("Example"), Cn(cn));
}

CertSpec Root(KeyId key)
{
    CertSpec root = Authority("Test Root", key);
    return IssuedBy(root, root);
}

CertSpec Intermediate(std::string_view cn, KeyId key)
{
    return IssuedBy(Authority(cn, key), Root());
}

CertSpec SigningCa()
{
    return Intermediate("Test Signing CA");
}

CertSpec TsaCa()
{
    return Intermediate("Test TSA CA", KeyId::Rsa2048C);
}

CertSpec Signer(KeyId key)
{
    return IssuedBy(EndEntity("Test Signer", key, oid::codeSigning), SigningCa());
}

CertSpec Tsa(KeyId key)
{
    return IssuedBy(EndEntity("Test TSA", key, oid::timeStamping), TsaCa());
}

CertSpec IssuedBy(CertSpec cert, const CertSpec& issuer)
{
    cert.issuer = issuer.subject;
    cert.issuerKey = issuer.key;
    return cert;
}

CertSpec Version1(CertSpec cert)
{
    cert.version.reset();
    cert.basicConstraints.reset();
    cert.keyUsage.reset();
    cert.extendedKeyUsage.clear();
    cert.keyIdentifiers = false;
    cert.extraExtensions.clear();
    return cert;
}

Bytes Build(const CrlSpec& spec)
{
    return Signed(spec, Seq(spec.version ? Int(*spec.version - 1) : Bytes{},       // version
                            Algorithm(spec.innerAlgorithm, spec.hash),             // signature
                            spec.issuer,                                           // issuer
                            spec.thisUpdate,                                       // thisUpdate
                            spec.nextUpdate ? *spec.nextUpdate : Bytes{},          // nextUpdate
                            RevokedList(spec.revoked),                             // revokedCertificates
                            OptionalCtx(0, OptionalExtensions(spec.extensions)))); // crlExtensions
}

CrlSpec CrlOf(const CertSpec& ca)
{
    CrlSpec crl;
    crl.issuer = ca.subject;
    crl.issuerKey = ca.key;
    crl.extensions = {AuthorityKeyIdentifier(ca.key), Ext(oid::crlNumber, Int(1))};
    return crl;
}

Bytes IssuingDistPoint(bool indirectCrl)
{
    return Ext(oid::issuingDistributionPoint, Seq(indirectCrl ? CtxPrim(4, {0xFF}) : Bytes{}), true);
}

CrlSpec Indirect(CrlSpec crl)
{
    crl.extensions.push_back(IssuingDistPoint(true));
    return crl;
}

DemoPki::DemoPki(KeyId rootKey)
    : root(Root(rootKey)), signingCa(IssuedBy(SigningCa(), root)), signer(Signer()), tsaCa(IssuedBy(TsaCa(), root)),
      tsa(Tsa()), rootCrl(CrlOf(root)), signingCrl(CrlOf(signingCa)), tsaCrl(CrlOf(tsaCa))
{
}

Bytes DemoPki::Crls() const
{
    return Cat(Build(rootCrl), Build(signingCrl), Build(tsaCrl));
}

} // namespace pnvtest
