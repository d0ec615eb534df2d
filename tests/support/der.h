// DER builders that let a test read like the ASN.1 it feeds, and a reader that finds the elements of a finished
// encoding again. Builders compute lengths and correct nothing else: what a test writes is what the decoder gets. A
// mistake of the test itself (a path that leads nowhere, a malformed OID text) ends the process with a message.
#ifndef PNVTEST_DER_H
#define PNVTEST_DER_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pnvtest {

using Bytes = std::vector<std::uint8_t>;

// Ends the process: the test asked for something that does not exist.
[[noreturn]] void Misuse(const std::string& message);

// The characters of a text, without a terminating zero.
Bytes Text(std::string_view text);

// The number of octets as the library's operations take it.
template <typename Container> std::uint32_t Len(const Container& octets)
{
    return static_cast<std::uint32_t>(octets.size());
}

template <typename... Parts> Bytes Cat(const Parts&... parts)
{
    Bytes all;
    all.reserve((std::size_t{0} + ... + parts.size()));
    (all.insert(all.end(), parts.begin(), parts.end()), ...);
    return all;
}
Bytes Cat(const std::vector<Bytes>& parts);

// ---- Elements (X.690, 8.1) ----

// The shortest definite form of a length.
Bytes Length(std::size_t length);

Bytes Tlv(std::uint8_t tag, const Bytes& content);
// A visible lie: claims claimedLength octets whatever the content holds.
Bytes Tlv(std::uint8_t tag, std::size_t claimedLength, const Bytes& content);
// The true length in exactly lengthOctets octets behind 0x80 + lengthOctets: BER, usually not DER.
Bytes TlvLong(std::uint8_t tag, std::size_t lengthOctets, const Bytes& content);

// ---- Universal types ----

template <typename... Parts> Bytes Seq(const Parts&... parts)
{
    return Tlv(0x30, Cat(parts...));
}
// Elements stay in the order given, which is DER only when the test orders them.
template <typename... Parts> Bytes Set(const Parts&... parts)
{
    return Tlv(0x31, Cat(parts...));
}
// [n], constructed: an explicit tag around whole elements, or an implicit tag of a SEQUENCE or SET around its contents.
template <typename... Parts> Bytes Ctx(unsigned n, const Parts&... parts)
{
    return Tlv(static_cast<std::uint8_t>(0xA0 | n), Cat(parts...));
}
// The same, or no element at all when there is no content.
Bytes OptionalCtx(unsigned n, const Bytes& content);
// [n], primitive: an implicit tag over content octets.
Bytes CtxPrim(unsigned n, const Bytes& content);

// An INTEGER of exactly these content octets, so Int({0x80}) is negative and Int({0x00, 0x01}) is not minimal.
Bytes Int(std::initializer_list<std::uint8_t> content);
Bytes Int(const Bytes& content);
// An INTEGER of this value, in the fewest octets.
Bytes Int(long long value);
Bytes Enum(long long value);
Bytes Bool(bool value); // 0xFF for true
Bytes Bits(unsigned unused, const Bytes& octets);
Bytes Octets(const Bytes& content);
Bytes Null();
Bytes Oid(std::string_view dotted);
Bytes Utf8(std::string_view text);
Bytes Printable(std::string_view text);
Bytes Ia5(std::string_view text);
Bytes UtcTime(std::string_view text); // "260101000000Z"
Bytes GenTime(std::string_view text); // "20260101000000Z"

// ---- Names (RFC 5280, 4.1.2.4) ----

// One AttributeTypeAndValue.
struct NameAttribute {
    Bytes der;
};
NameAttribute NameAttr(std::string_view oid, const Bytes& value); // value: the complete element, of any string type

NameAttribute Cn(std::string_view text); // UTF8String, as are the others but C and Email
NameAttribute O(std::string_view text);
NameAttribute Ou(std::string_view text);
NameAttribute L(std::string_view text);
NameAttribute St(std::string_view text);
NameAttribute C(std::string_view text);     // PrintableString
NameAttribute Email(std::string_view text); // IA5String

template <typename... Attributes> Bytes Rdn(const Attributes&... attributes)
{
    return Set(attributes.der...);
}
inline Bytes AsRdn(const NameAttribute& attribute)
{
    return Rdn(attribute);
}
inline Bytes AsRdn(const Bytes& rdn)
{
    return rdn;
}
// Each part is an attribute, which becomes an RDN of its own, or the result of Rdn.
template <typename... Parts> Bytes Name(const Parts&... parts)
{
    return Seq(AsRdn(parts)...);
}

// ---- Algorithms and extensions ----

// An AlgorithmIdentifier; AlgoId(oid, {}) has no parameters at all.
Bytes AlgoId(std::string_view oid, const Bytes& parameters = Null());
// An Extension; value is the element that goes into the OCTET STRING. critical is left out when false.
Bytes Ext(std::string_view oid, const Bytes& value, bool critical = false);
// A CMS Attribute with its SET OF values.
template <typename... Values> Bytes Attribute(std::string_view oid, const Values&... values)
{
    return Seq(Oid(oid), Set(values...));
}

namespace oid {
constexpr std::string_view rsaEncryption = "1.2.840.113549.1.1.1";
constexpr std::string_view md5WithRsa = "1.2.840.113549.1.1.4";
constexpr std::string_view sha1WithRsa = "1.2.840.113549.1.1.5";
constexpr std::string_view rsaPss = "1.2.840.113549.1.1.10";
constexpr std::string_view sha256WithRsa = "1.2.840.113549.1.1.11";
constexpr std::string_view sha384WithRsa = "1.2.840.113549.1.1.12";
constexpr std::string_view sha512WithRsa = "1.2.840.113549.1.1.13";
constexpr std::string_view ecPublicKey = "1.2.840.10045.2.1";
constexpr std::string_view ecdsaWithSha256 = "1.2.840.10045.4.3.2";

constexpr std::string_view md5 = "1.2.840.113549.2.5";
constexpr std::string_view sha1 = "1.3.14.3.2.26";
constexpr std::string_view sha256 = "2.16.840.1.101.3.4.2.1";
constexpr std::string_view sha384 = "2.16.840.1.101.3.4.2.2";
constexpr std::string_view sha512 = "2.16.840.1.101.3.4.2.3";

constexpr std::string_view commonName = "2.5.4.3";
constexpr std::string_view serialNumber = "2.5.4.5";
constexpr std::string_view countryName = "2.5.4.6";
constexpr std::string_view localityName = "2.5.4.7";
constexpr std::string_view stateOrProvinceName = "2.5.4.8";
constexpr std::string_view organizationName = "2.5.4.10";
constexpr std::string_view organizationalUnitName = "2.5.4.11";
constexpr std::string_view emailAddress = "1.2.840.113549.1.9.1";

constexpr std::string_view subjectKeyIdentifier = "2.5.29.14";
constexpr std::string_view keyUsage = "2.5.29.15";
constexpr std::string_view subjectAltName = "2.5.29.17";
constexpr std::string_view basicConstraints = "2.5.29.19";
constexpr std::string_view crlNumber = "2.5.29.20";
constexpr std::string_view crlReason = "2.5.29.21";
constexpr std::string_view issuingDistributionPoint = "2.5.29.28";
constexpr std::string_view authorityKeyIdentifier = "2.5.29.35";
constexpr std::string_view extKeyUsage = "2.5.29.37";
constexpr std::string_view serverAuth = "1.3.6.1.5.5.7.3.1";
constexpr std::string_view codeSigning = "1.3.6.1.5.5.7.3.3";
constexpr std::string_view timeStamping = "1.3.6.1.5.5.7.3.8";

constexpr std::string_view data = "1.2.840.113549.1.7.1";
constexpr std::string_view signedData = "1.2.840.113549.1.7.2";
constexpr std::string_view tstInfo = "1.2.840.113549.1.9.16.1.4";
constexpr std::string_view contentType = "1.2.840.113549.1.9.3";
constexpr std::string_view messageDigest = "1.2.840.113549.1.9.4";
constexpr std::string_view signingTime = "1.2.840.113549.1.9.5";
constexpr std::string_view timestampToken = "1.2.840.113549.1.9.16.2.14";
constexpr std::string_view signingCertificateV2 = "1.2.840.113549.1.9.16.2.47";

constexpr std::string_view testPolicy = "1.3.6.1.4.1.32473.1"; // the enterprise number reserved for examples
} // namespace oid

// ---- Reading a finished encoding ----

// Where an element lies in the encoding it was found in.
struct Element {
    std::uint8_t tag;
    std::size_t offset;       // of the identifier octet
    std::size_t headerLength; // identifier and length octets
    std::size_t contentLength;

    std::size_t ContentOffset() const { return offset + headerLength; }
    std::size_t End() const { return ContentOffset() + contentLength; }
};

// Child indices from the outermost element, which is {}. Constructed elements have children, and so have the DER inside
// an OCTET STRING and the DER behind the unused-bits octet of a BIT STRING: {0, 7, 0, 2, 2, 0} leads into the value of
// a certificate's third extension when that is critical.
using Path = std::vector<std::size_t>;

Element ElementAt(const Bytes& der, std::size_t offset);
std::vector<Element> Children(const Bytes& der, const Element& parent);
Element Find(const Bytes& der, const Path& path);

// The complete element, and its content alone.
Bytes Extract(const Bytes& der, const Path& path);
Bytes Content(const Bytes& der, const Path& path);
// Puts newTlv, which may be several elements or none, in the element's place; all enclosing lengths are rebuilt.
Bytes Replace(const Bytes& der, const Path& path, const Bytes& newTlv);
// Gives the element an indefinite length (X.690, 8.1.3.6): all of it is BER then, and no DER.
Bytes WithIndefiniteLength(const Bytes& der, const Path& path = {});
// Flips the lowest bit of the element's last content octet.
Bytes Damage(Bytes der, const Path& path);

} // namespace pnvtest

#endif
