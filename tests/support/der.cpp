#include "der.h"

#include <cstdio>
#include <cstdlib>

namespace pnvtest {

namespace {

constexpr std::uint8_t kBitString = 0x03;
constexpr std::uint8_t kOctetString = 0x04;
constexpr std::uint8_t kConstructed = 0x20;

Bytes BigEndian(std::size_t value, std::size_t octets)
{
    Bytes encoded(octets);
    for (auto octet = encoded.rbegin(); octet != encoded.rend(); ++octet, value >>= 8) {
        *octet = static_cast<std::uint8_t>(value);
    }
    return encoded;
}

// Two's complement in the fewest octets (X.690, 8.3).
Bytes MinimalInteger(long long value)
{
    Bytes reversed;
    do {
        reversed.push_back(static_cast<std::uint8_t>(value));
        value >>= 8;
    } while (value != ((reversed.back() & 0x80) != 0 ? -1 : 0));
    return Bytes(reversed.rbegin(), reversed.rend());
}

// Base 128, every octet but the last with the top bit set (X.690, 8.19.2).
Bytes SubIdentifier(unsigned long value)
{
    Bytes reversed{static_cast<std::uint8_t>(value & 0x7F)};
    while ((value >>= 7) != 0) reversed.push_back(static_cast<std::uint8_t>(0x80 | (value & 0x7F)));
    return Bytes(reversed.rbegin(), reversed.rend());
}

std::vector<unsigned long> Arcs(std::string_view dotted)
{
    std::vector<unsigned long> arcs{0};
    for (char c : dotted) {
        if (c == '.') {
            arcs.push_back(0);
        } else if (c >= '0' && c <= '9') {
            arcs.back() = arcs.back() * 10 + static_cast<unsigned long>(c - '0');
        } else {
            Misuse("not an object identifier: " + std::string(dotted));
        }
    }
    if (arcs.size() < 2) Misuse("an object identifier has two arcs at least: " + std::string(dotted));
    return arcs;
}

// Where the DER inside an element begins: the unused-bits octet of a BIT STRING comes first.
std::size_t ChildrenOffset(const Element& parent)
{
    if ((parent.tag & kConstructed) != 0 || parent.tag == kOctetString) return parent.ContentOffset();
    if (parent.tag == kBitString && parent.contentLength > 0) return parent.ContentOffset() + 1;
    return parent.End();
}

void Append(Bytes& out, const Bytes& from, std::size_t begin, std::size_t end)
{
    out.insert(out.end(), from.begin() + static_cast<std::ptrdiff_t>(begin),
               from.begin() + static_cast<std::ptrdiff_t>(end));
}

} // namespace

void Misuse(const std::string& message)
{
    std::fprintf(stderr, "misuse of the test support: %s\n", message.c_str());
    std::abort();
}

Bytes Text(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}

Bytes Cat(const std::vector<Bytes>& parts)
{
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes Length(std::size_t length)
{
    if (length < 0x80) return {static_cast<std::uint8_t>(length)};
    std::size_t octets = 1;
    while (octets < sizeof(length) && (length >> (8 * octets)) != 0) ++octets;
    return Cat(Bytes{static_cast<std::uint8_t>(0x80 | octets)}, BigEndian(length, octets));
}

Bytes Tlv(std::uint8_t tag, const Bytes& content)
{
    return Tlv(tag, content.size(), content);
}

Bytes Tlv(std::uint8_t tag, std::size_t claimedLength, const Bytes& content)
{
    return Cat(Bytes{tag}, Length(claimedLength), content);
}

Bytes TlvLong(std::uint8_t tag, std::size_t lengthOctets, const Bytes& content)
{
    return Cat(Bytes{tag, static_cast<std::uint8_t>(0x80 | lengthOctets)}, BigEndian(content.size(), lengthOctets),
               content);
}

Bytes OptionalCtx(unsigned n, const Bytes& content)
{
    return content.empty() ? Bytes{} : Ctx(n, content);
}

Bytes CtxPrim(unsigned n, const Bytes& content)
{
    return Tlv(static_cast<std::uint8_t>(0x80 | n), content);
}

Bytes Int(std::initializer_list<std::uint8_t> content)
{
    return Tlv(0x02, content);
}

Bytes Int(const Bytes& content)
{
    return Tlv(0x02, content);
}

Bytes Int(long long value)
{
    return Tlv(0x02, MinimalInteger(value));
}

Bytes Enum(long long value)
{
    return Tlv(0x0A, MinimalInteger(value));
}

Bytes Bool(bool value)
{
    return Tlv(0x01, {static_cast<std::uint8_t>(value ? 0xFF : 0x00)});
}

Bytes Bits(unsigned unused, const Bytes& octets)
{
    return Tlv(kBitString, Cat(Bytes{static_cast<std::uint8_t>(unused)}, octets));
}

Bytes Octets(const Bytes& content)
{
    return Tlv(kOctetString, content);
}

Bytes Null()
{
    return Tlv(0x05, {});
}

Bytes Oid(std::string_view dotted)
{
    const std::vector<unsigned long> arcs = Arcs(dotted);
    Bytes content = SubIdentifier(arcs[0] * 40 + arcs[1]);
    for (std::size_t i = 2; i < arcs.size(); ++i) content = Cat(content, SubIdentifier(arcs[i]));
    return Tlv(0x06, content);
}

Bytes Utf8(std::string_view text)
{
    return Tlv(0x0C, Text(text));
}

Bytes Printable(std::string_view text)
{
    return Tlv(0x13, Text(text));
}

Bytes Ia5(std::string_view text)
{
    return Tlv(0x16, Text(text));
}

Bytes UtcTime(std::string_view text)
{
    return Tlv(0x17, Text(text));
}

Bytes GenTime(std::string_view text)
{
    return Tlv(0x18, Text(text));
}

NameAttribute NameAttr(std::string_view oid, const Bytes& value)
{
    return {Seq(Oid(oid), value)};
}

NameAttribute Cn(std::string_view text)
{
    return NameAttr(oid::commonName, Utf8(text));
}

NameAttribute O(std::string_view text)
{
    return NameAttr(oid::organizationName, Utf8(text));
}

NameAttribute Ou(std::string_view text)
{
    return NameAttr(oid::organizationalUnitName, Utf8(text));
}

NameAttribute L(std::string_view text)
{
    return NameAttr(oid::localityName, Utf8(text));
}

NameAttribute St(std::string_view text)
{
    return NameAttr(oid::stateOrProvinceName, Utf8(text));
}

NameAttribute C(std::string_view text)
{
    return NameAttr(oid::countryName, Printable(text));
}

NameAttribute Email(std::string_view text)
{
    return NameAttr(oid::emailAddress, Ia5(text));
}

Bytes AlgoId(std::string_view oid, const Bytes& parameters)
{
    return Seq(Oid(oid), parameters);
}

Bytes Ext(std::string_view oid, const Bytes& value, bool critical)
{
    return Seq(Oid(oid), critical ? Bool(true) : Bytes{}, Octets(value));
}

Element ElementAt(const Bytes& der, std::size_t offset)
{
    if (der.size() < offset + 2) Misuse("no element at offset " + std::to_string(offset));
    Element element{der[offset], offset, 2, der[offset + 1]};
    if (element.contentLength >= 0x80) {
        const std::size_t lengthOctets = element.contentLength & 0x7F;
        element.headerLength += lengthOctets;
        element.contentLength = 0;
        if (der.size() < element.ContentOffset()) Misuse("length octets end early");
        for (std::size_t i = offset + 2; i < element.ContentOffset(); ++i) {
            element.contentLength = element.contentLength << 8 | der[i];
        }
    }
    if (element.contentLength > der.size() - element.ContentOffset()) {
        Misuse("the element at offset " + std::to_string(offset) + " is longer than the encoding");
    }
    return element;
}

std::vector<Element> Children(const Bytes& der, const Element& parent)
{
    std::vector<Element> children;
    for (std::size_t offset = ChildrenOffset(parent); offset < parent.End(); offset = children.back().End()) {
        children.push_back(ElementAt(der, offset));
    }
    return children;
}

Element Find(const Bytes& der, const Path& path)
{
    Element element = ElementAt(der, 0);
    for (std::size_t index : path) {
        const std::vector<Element> children = Children(der, element);
        if (index >= children.size()) Misuse("an element has no child " + std::to_string(index));
        element = children[index];
    }
    return element;
}

Bytes Extract(const Bytes& der, const Path& path)
{
    const Element element = Find(der, path);
    Bytes found;
    Append(found, der, element.offset, element.End());
    return found;
}

Bytes Content(const Bytes& der, const Path& path)
{
    const Element element = Find(der, path);
    Bytes found;
    Append(found, der, element.ContentOffset(), element.End());
    return found;
}

Bytes Replace(const Bytes& der, const Path& path, const Bytes& newTlv)
{
    if (path.empty()) return newTlv;
    const Path outerPath(path.begin(), path.end() - 1);
    const Element old = Find(der, path);
    const Element outer = Find(der, outerPath);
    Bytes content;
    Append(content, der, outer.ContentOffset(), old.offset);
    content.insert(content.end(), newTlv.begin(), newTlv.end());
    Append(content, der, old.End(), outer.End());
    return Replace(der, outerPath, Tlv(outer.tag, content));
}

Bytes WithIndefiniteLength(const Bytes& der, const Path& path)
{
    const Bytes header{Find(der, path).tag, 0x80};
    return Replace(der, path, Cat(header, Content(der, path), Bytes{0x00, 0x00}));
}

Bytes Damage(Bytes der, const Path& path)
{
    const Element element = Find(der, path);
    if (element.contentLength == 0) Misuse("an element without content cannot be damaged");
    der[element.End() - 1] ^= 0x01;
    return der;
}

} // namespace pnvtest
