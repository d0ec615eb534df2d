// CMS SignedData (RFC 5652) and RFC 3161 timestamp tokens from plain descriptions, like pki.h. The usual test changes
// one field of a valid whole:
//
//     DemoPki pki;
//     CmsSpec cms = DemoCms(pki);
//     cms.signers[0].digestAlgorithm = AlgoId(oid::sha1);
//     Bytes signature = DetachedCms(payload, cms);
#ifndef PNVTEST_CMS_H
#define PNVTEST_CMS_H

#include "pki.h"

namespace pnvtest {

// The signed attributes for a content with this digest; elements of the SET OF Attribute, in order.
using SignedAttributes = std::function<std::vector<Bytes>(const Bytes& digest)>;
// One unsigned attribute for a signer with this signature value.
using UnsignedAttribute = std::function<Bytes(const Bytes& signature)>;

Bytes ContentTypeAttribute(std::string_view contentType);
Bytes MessageDigestAttribute(const Bytes& digest);
Bytes SigningTimeAttribute(const Bytes& time); // UtcTime(...) or GenTime(...)
// The ESS signingCertificateV2 of RFC 5035, with the SHA-256 of the certificate.
Bytes SigningCertificateV2Attribute(const Bytes& certificate);

// contentType and messageDigest, and any others after them.
SignedAttributes UsualAttributes(std::string_view contentType, std::vector<Bytes> others = {});

struct SignerSpec {
    int version = 1;
    Bytes issuer;                            // Name
    Bytes serial;                            // content octets
    std::optional<Bytes> signerIdentifier{}; // the whole element, instead of issuer and serial
    KeyId key = KeyId::Rsa2048D;
    Hash hash = Hash::Sha256;                                       // digested and signed with
    std::optional<Bytes> digestAlgorithm{};                         // an AlgorithmIdentifier that says something else
    SignedAttributes signedAttributes = UsualAttributes(oid::data); // nullptr: none, the content is signed directly
    Bytes signatureAlgorithm = AlgoId(oid::rsaEncryption);
    std::optional<Bytes> signature{}; // a value that is not computed
    bool brokenSignature = false;
    std::vector<UnsignedAttribute> unsignedAttributes{}; // none: no field
    Edit edit{};                                         // of the complete SignerInfo
};

// The signer with this certificate: its issuer, serial number and key.
SignerSpec SignedBy(const CertSpec& cert);

struct CmsSpec {
    std::string_view contentType = oid::signedData;
    int version = 1;
    std::optional<std::vector<Bytes>> digestAlgorithms{}; // AlgorithmIdentifiers; the signers' own otherwise
    Bytes encapContentInfo = Seq(Oid(oid::data));         // as it is in a detached signature
    std::vector<Bytes> certificates{};                    // none: no field
    std::vector<Bytes> crls{};                            // none: no field
    std::vector<SignerSpec> signers{};
    Edit edit{}; // of the complete SignedData
};

// The ContentInfo of a signature over content, which is not put into it.
Bytes DetachedCms(const Bytes& content, const CmsSpec& spec);

struct TokenSpec {
    int version = 1;
    Bytes policy = Oid(oid::testPolicy);
    Hash imprintHash = Hash::Sha256;
    std::optional<Bytes> imprintAlgorithm{}; // an AlgorithmIdentifier that says something else
    std::optional<Bytes> imprint{};          // octets instead of the hash of the stamped signature
    Bytes serial{0x01};
    Bytes time = GenTime("20260101000000Z");
    // Optional fields, each the complete element as it shall stand, or empty for none.
    Bytes accuracy{};
    Bytes ordering{};
    Bytes nonce{};
    Bytes tsa{};        // [0]
    Bytes extensions{}; // [1]
    Edit editTstInfo{};
    std::optional<Bytes> eContent{}; // the [0] element, or empty for none, instead of the TSTInfo in an OCTET STRING
    CmsSpec cms;                     // the token's SignedData; its encapContentInfo is replaced
};

Bytes TstInfo(const TokenSpec& spec, const Bytes& stamped);
// The ContentInfo of a token that stamps these octets, usually a signature value.
Bytes TimestampToken(const TokenSpec& spec, const Bytes& stamped);
// The token as unsigned attribute of the signer it stamps.
UnsignedAttribute Timestamp(const TokenSpec& spec);

// Accuracy of whole seconds (RFC 3161, 2.4.2).
Bytes Accuracy(int seconds);

// A token by pki.tsa with its chain, without the root.
TokenSpec DemoToken(const DemoPki& pki);
// A signature by pki.signer with its chain, without the root, and with this token.
CmsSpec DemoCms(const DemoPki& pki, const TokenSpec& token);
CmsSpec DemoCms(const DemoPki& pki); // with DemoToken(pki)

// PEM armour (RFC 7468): "-----BEGIN label-----" and so on, lines of 64 characters, the last one ended as well.
Bytes Pem(std::string_view label, const Bytes& der, std::string_view lineEnd = "\n");

} // namespace pnvtest

#endif
