#include "cms.h"

#include <openssl/evp.h>

#include <algorithm>

namespace pnvtest {

namespace {

Bytes SignerIdentifier(const SignerSpec& spec)
{
    return spec.signerIdentifier ? *spec.signerIdentifier : Seq(spec.issuer, Int(spec.serial));
}

Bytes DigestAlgorithm(const SignerSpec& spec)
{
    return spec.digestAlgorithm ? *spec.digestAlgorithm : AlgoId(HashOid(spec.hash));
}

Bytes SignatureValue(const SignerSpec& spec, const Bytes& message)
{
    Bytes signature = spec.signature ? *spec.signature : Sign(spec.key, spec.hash, message);
    if (spec.brokenSignature) signature.back() ^= 0x01;
    return signature;
}

Bytes SignerInfo(const SignerSpec& spec, const Bytes& content)
{
    const bool direct = spec.signedAttributes == nullptr;
    const Bytes attributes = direct ? Bytes{} : Cat(spec.signedAttributes(Digest(spec.hash, content)));
    // What is signed is the SET OF, though the message carries it under [0] (RFC 5652, 5.4).
    const Bytes signature = SignatureValue(spec, direct ? content : Set(attributes));

    Bytes unsignedAttributes;
    for (const UnsignedAttribute& attribute : spec.unsignedAttributes) {
        unsignedAttributes = Cat(unsignedAttributes, attribute(signature));
    }
    const Bytes info = Seq(Int(spec.version),                     // version
                           SignerIdentifier(spec),                // sid
                           DigestAlgorithm(spec),                 // digestAlgorithm
                           direct ? Bytes{} : Ctx(0, attributes), // signedAttrs
                           spec.signatureAlgorithm,               // signatureAlgorithm
                           Octets(signature),                     // signature
                           OptionalCtx(1, unsignedAttributes));   // unsignedAttrs
    return spec.edit ? spec.edit(info) : info;
}

std::vector<Bytes> DigestAlgorithms(const CmsSpec& spec)
{
    if (spec.digestAlgorithms) return *spec.digestAlgorithms;
    std::vector<Bytes> algorithms;
    for (const SignerSpec& signer : spec.signers) {
        const Bytes algorithm = DigestAlgorithm(signer);
        if (std::find(algorithms.begin(), algorithms.end(), algorithm) == algorithms.end()) {
            algorithms.push_back(algorithm);
        }
    }
    return algorithms;
}

} // namespace

Bytes ContentTypeAttribute(std::string_view contentType)
{
    return Attribute(oid::contentType, Oid(contentType));
}

Bytes MessageDigestAttribute(const Bytes& digest)
{
    return Attribute(oid::messageDigest, Octets(digest));
}

Bytes SigningTimeAttribute(const Bytes& time)
{
    return Attribute(oid::signingTime, time);
}

Bytes SigningCertificateV2Attribute(const Bytes& certificate)
{
    // SigningCertificateV2 { certs { ESSCertIDv2 { certHash } } }: the hash algorithm defaults to SHA-256.
    const Bytes certId = Seq(Octets(Digest(Hash::Sha256, certificate)));
    return Attribute(oid::signingCertificateV2, Seq(Seq(certId)));
}

SignedAttributes UsualAttributes(std::string_view contentType, std::vector<Bytes> others)
{
    return [contentType, others = std::move(others)](const Bytes& digest) {
        std::vector<Bytes> attributes{ContentTypeAttribute(contentType), MessageDigestAttribute(digest)};
        attributes.insert(attributes.end(), others.begin(), others.end());
        return attributes;
    };
}

SignerSpec SignedBy(const CertSpec& cert)
{
    SignerSpec signer;
    signer.issuer = cert.issuer;
    signer.serial = cert.serial;
    signer.key = cert.key;
    return signer;
}

Bytes DetachedCms(const Bytes& content, const CmsSpec& spec)
{
    std::vector<Bytes> signerInfos;
    for (const SignerSpec& signer : spec.signers) signerInfos.push_back(SignerInfo(signer, content));
    const Bytes signedData = Seq(Int(spec.version),                      // version
                                 Set(Cat(DigestAlgorithms(spec))),       // digestAlgorithms
                                 spec.encapContentInfo,                  // encapContentInfo
                                 OptionalCtx(0, Cat(spec.certificates)), // certificates
                                 OptionalCtx(1, Cat(spec.crls)),         // crls
                                 Set(Cat(signerInfos)));                 // signerInfos
    return Seq(Oid(spec.contentType), Ctx(0, spec.edit ? spec.edit(signedData) : signedData));
}

Bytes TstInfo(const TokenSpec& spec, const Bytes& stamped)
{
    const Bytes algorithm = spec.imprintAlgorithm ? *spec.imprintAlgorithm : AlgoId(HashOid(spec.imprintHash));
    const Bytes imprint = spec.imprint ? *spec.imprint : Digest(spec.imprintHash, stamped);
    const Bytes info = Seq(Int(spec.version),               // version
                           spec.policy,                     // policy
                           Seq(algorithm, Octets(imprint)), // messageImprint
                           Int(spec.serial),                // serialNumber
                           spec.time,                       // genTime
                           spec.accuracy, spec.ordering, spec.nonce, spec.tsa, spec.extensions);
    return spec.editTstInfo ? spec.editTstInfo(info) : info;
}

Bytes TimestampToken(const TokenSpec& spec, const Bytes& stamped)
{
    const Bytes info = TstInfo(spec, stamped);
    CmsSpec cms = spec.cms;
    cms.encapContentInfo = Seq(Oid(oid::tstInfo), spec.eContent ? *spec.eContent : Ctx(0, Octets(info)));
    return DetachedCms(info, cms);
}

UnsignedAttribute Timestamp(const TokenSpec& spec)
{
    return [spec](const Bytes& signature) { return Attribute(oid::timestampToken, TimestampToken(spec, signature)); };
}

Bytes Accuracy(int seconds)
{
    return Seq(Int(seconds));
}

TokenSpec DemoToken(const DemoPki& pki)
{
    const Bytes tsa = Build(pki.tsa);
    SignerSpec signer = SignedBy(pki.tsa);
    signer.signedAttributes = UsualAttributes(oid::tstInfo, {SigningCertificateV2Attribute(tsa)});

    TokenSpec token;
    token.cms.version = 3; // the content type is not id-data (RFC 5652, 5.1)
    token.cms.certificates = {Build(pki.tsaCa), tsa};
    token.cms.signers = {signer};
    return token;
}

CmsSpec DemoCms(const DemoPki& pki, const TokenSpec& token)
{
    SignerSpec signer = SignedBy(pki.signer);
    signer.unsignedAttributes = {Timestamp(token)};

    CmsSpec cms;
    cms.certificates = {Build(pki.signingCa), Build(pki.signer)};
    cms.signers = {signer};
    return cms;
}

CmsSpec DemoCms(const DemoPki& pki)
{
    return DemoCms(pki, DemoToken(pki));
}

Bytes Pem(std::string_view label, const Bytes& der, std::string_view lineEnd)
{
    constexpr std::size_t octetsPerLine = 48;
    std::string text = "-----BEGIN " + std::string(label) + "-----" + std::string(lineEnd);
    for (std::size_t begin = 0; begin < der.size(); begin += octetsPerLine) {
        const std::size_t octets = std::min(octetsPerLine, der.size() - begin);
        std::uint8_t line[octetsPerLine / 3 * 4 + 1];
        const int characters = EVP_EncodeBlock(line, der.data() + begin, static_cast<int>(octets));
        text.append(line, line + characters).append(lineEnd);
    }
    text += "-----END " + std::string(label) + "-----" + std::string(lineEnd);
    return Text(text);
}

} // namespace pnvtest
