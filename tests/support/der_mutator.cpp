#include "der_mutator.h"

#include "package.h"

#include <algorithm>

namespace pnvtest {

namespace {

// ---- The elements of an encoding

constexpr std::size_t kNoParent = SIZE_MAX;
constexpr unsigned kDepth = 40;
constexpr std::size_t kElements = 4000;

struct Node {
    Element element;
    std::size_t parent; // kNoParent, or before this one
    unsigned depth;
};

// Lengths in one to four octets; nothing for what is cut off or in another form.
bool ReadElement(const Bytes& octets, std::size_t offset, std::size_t end, Element* element)
{
    if (offset + 2 > end || (octets[offset] & 0x1F) == 0x1F) return false;
    std::size_t length = octets[offset + 1];
    std::size_t header = 2;
    if (length >= 0x80) {
        const std::size_t count = length & 0x7F;
        if (count == 0 || count > 4 || offset + 2 + count > end) return false;
        length = 0;
        for (std::size_t i = 0; i < count; ++i) length = length << 8 | octets[offset + 2 + i];
        header += count;
    }
    if (length > end - offset - header) return false;
    *element = {octets[offset], offset, header, length};
    return true;
}

class Elements {
public:
    // From start on, as many as there are in a row.
    Elements(const Bytes& octets, std::size_t start, std::size_t end) : octets_(octets)
    {
        nodes_.reserve(octets.size() / 8); // more than most have
        while (Append(start, end, kNoParent, 0)) start = nodes_[last_].element.End();
    }

    const std::vector<Node>& All() const { return nodes_; }

private:
    bool Append(std::size_t offset, std::size_t end, std::size_t parent, unsigned depth)
    {
        Element element{};
        if (nodes_.size() == kElements || depth == kDepth || !ReadElement(octets_, offset, end, &element)) return false;
        const std::size_t number = nodes_.size();
        nodes_.push_back({element, parent, depth});
        if ((element.tag & 0x20) != 0) {
            AppendRow(element.ContentOffset(), element.End(), number, depth);
        } else if (element.tag == 0x04) { // DER may hide in an OCTET STRING
            AppendHidden(element.ContentOffset(), element.End(), number, depth);
        } else if (element.tag == 0x03 && element.contentLength > 1) { // and behind the unused bits of a BIT STRING
            AppendHidden(element.ContentOffset() + 1, element.End(), number, depth);
        }
        last_ = number;
        return true;
    }

    void AppendRow(std::size_t offset, std::size_t end, std::size_t parent, unsigned depth)
    {
        while (offset < end && Append(offset, end, parent, depth + 1)) offset = nodes_[last_].element.End();
    }

    void AppendHidden(std::size_t offset, std::size_t end, std::size_t parent, unsigned depth)
    {
        Element element{};
        if (ReadElement(octets_, offset, end, &element) && element.End() == end) {
            (void)Append(offset, end, parent, depth + 1);
        }
    }

    const Bytes& octets_;
    std::vector<Node> nodes_;
    std::size_t last_ = 0; // the number of the element that Append read
};

Bytes Part(const Bytes& octets, std::size_t begin, std::size_t end)
{
    return Bytes(octets.begin() + static_cast<std::ptrdiff_t>(begin),
                 octets.begin() + static_cast<std::ptrdiff_t>(end));
}

Bytes Whole(const Bytes& octets, const Element& element)
{
    return Part(octets, element.offset, element.End());
}

Bytes ContentOf(const Bytes& octets, const Element& element)
{
    return Part(octets, element.ContentOffset(), element.End());
}

// Puts other octets in an element's place and repairs the lengths around it, from the inside out.
Bytes Splice(Bytes octets, const std::vector<Node>& nodes, std::size_t number, const Bytes& replacement)
{
    const Element& element = nodes[number].element;
    const auto at = [&octets](std::size_t offset) { return octets.begin() + static_cast<std::ptrdiff_t>(offset); };
    octets.erase(at(element.offset), at(element.End()));
    octets.insert(at(element.offset), replacement.begin(), replacement.end());
    std::ptrdiff_t grown = static_cast<std::ptrdiff_t>(replacement.size()) -
                           static_cast<std::ptrdiff_t>(element.headerLength + element.contentLength);
    for (std::size_t up = nodes[number].parent; up != kNoParent; up = nodes[up].parent) {
        const Element& parent = nodes[up].element;
        const auto length = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(parent.contentLength) + grown);
        const Bytes lengthOctets = Length(length);
        octets.erase(at(parent.offset + 1), at(parent.ContentOffset()));
        octets.insert(at(parent.offset + 1), lengthOctets.begin(), lengthOctets.end());
        grown +=
            static_cast<std::ptrdiff_t>(1 + lengthOctets.size()) - static_cast<std::ptrdiff_t>(parent.headerLength);
    }
    return octets;
}

// ---- Telling values

const std::vector<Bytes>& KnownOids()
{
    static const std::vector<Bytes> oids = [] {
        std::vector<Bytes> all;
        for (std::string_view dotted : {oid::rsaEncryption,
                                        oid::md5WithRsa,
                                        oid::sha1WithRsa,
                                        oid::rsaPss,
                                        oid::sha256WithRsa,
                                        oid::sha384WithRsa,
                                        oid::sha512WithRsa,
                                        oid::ecPublicKey,
                                        oid::ecdsaWithSha256,
                                        oid::sha1,
                                        oid::sha256,
                                        oid::sha384,
                                        oid::sha512,
                                        oid::commonName,
                                        oid::countryName,
                                        oid::localityName,
                                        oid::stateOrProvinceName,
                                        oid::organizationName,
                                        oid::organizationalUnitName,
                                        oid::emailAddress,
                                        oid::subjectKeyIdentifier,
                                        oid::keyUsage,
                                        oid::subjectAltName,
                                        oid::basicConstraints,
                                        oid::crlNumber,
                                        oid::crlReason,
                                        oid::issuingDistributionPoint,
                                        oid::authorityKeyIdentifier,
                                        oid::extKeyUsage,
                                        oid::serverAuth,
                                        oid::codeSigning,
                                        oid::timeStamping,
                                        oid::data,
                                        oid::signedData,
                                        oid::tstInfo,
                                        oid::contentType,
                                        oid::messageDigest,
                                        oid::signingTime,
                                        oid::timestampToken,
                                        oid::signingCertificateV2,
                                        oid::testPolicy}) {
            all.push_back(Content(Oid(dotted), Path{}));
        }
        return all;
    }();
    return oids;
}

Bytes TellingInteger(Random& random)
{
    if (random.Percent(30))
        return Bytes(random.Of({1u, 4u, 5u, 20u, 21u, 32u, 33u, 512u, 513u}), random.Of<std::uint8_t>({0x00, 0x7F}));
    static const std::vector<Bytes> values{{0x00},       {0x01},       {0x02},
                                           {0x03},       {0x04},       {0x7F},
                                           {0x80},       {0xFF},       {0x00, 0x80},
                                           {0x00, 0x01}, {0x01, 0x00}, {0x7F, 0xFF, 0xFF, 0xFF},
                                           {},           {0x80, 0, 0}, {0x00, 0xFF, 0xFF, 0xFF, 0xFF}};
    return random.Of(values);
}

// On and around the bounds of the tests' certificates and CRLs, and no times at all.
Bytes TellingTime(Random& random)
{
    return Text(random.Of<const char*>({"20260101000000Z",
                                        "260101000000Z",
                                        "20250101000000Z",
                                        "250101000000Z",
                                        "20240101000000Z",
                                        "240101000000Z",
                                        "20350101000000Z",
                                        "350101000000Z",
                                        "20341231235959Z",
                                        "341231235959Z",
                                        "20250201000000Z",
                                        "250201000000Z",
                                        "19700101000000Z",
                                        "700101000000Z",
                                        "500101000000Z",
                                        "491231235959Z",
                                        "99991231235959Z",
                                        "00000101000000Z",
                                        "20260101000000.5Z",
                                        "20260101000000.999999Z",
                                        "20260101000000+0100",
                                        "202601010000Z",
                                        "2601010000Z",
                                        "20261301000000Z",
                                        "20260230000000Z",
                                        "20240229000000Z",
                                        "20260101240000Z",
                                        "20260101006000Z",
                                        "20260101000060Z",
                                        "20260101000000",
                                        "Z",
                                        ""}));
}

Bytes TellingContent(const Bytes& octets, const Element& element, Random& random, const Scramble& scramble)
{
    if (random.Percent(80)) {
        switch (element.tag) {
        case 0x01: return {random.Of<std::uint8_t>({0x00, 0x01, 0x7F, 0xFF})};
        case 0x02:
        case 0x0A: return TellingInteger(random);
        case 0x06: return random.Of(KnownOids());
        case 0x17:
        case 0x18: return TellingTime(random);
        default: break;
        }
    }
    Bytes content = ContentOf(octets, element);
    scramble(&content, content.size() + 64);
    return content;
}

// ---- Edits of one element: what stands in its place

Bytes WithAnotherTag(const Bytes& octets, const Element& element, Random& random)
{
    Bytes other = Whole(octets, element);
    static const std::vector<std::uint8_t> tags{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0A, 0x0C, 0x13, 0x16,
                                                0x17, 0x18, 0x30, 0x31, 0x80, 0x81, 0x82, 0x83, 0x84, 0x85,
                                                0x86, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0x1F, 0x00};
    other[0] = random.Percent(30) ? static_cast<std::uint8_t>(other[0] ^ 0x20) : random.Of(tags);
    return other;
}

// In more octets than it takes, indefinite, or simply wrong.
Bytes WithAnotherLength(const Bytes& octets, const Element& element, Random& random)
{
    const Bytes content = ContentOf(octets, element);
    switch (random.Below(6)) {
    case 0: return TlvLong(element.tag, 1 + random.Below(5), content);
    case 1: return Tlv(element.tag, content.size() + 1, content);
    case 2: return Tlv(element.tag, content.empty() ? 1 : content.size() - 1, content);
    case 3:
        return Tlv(element.tag, random.Of<std::size_t>({0x7F, 0x80, 0xFF, 0x10000, 0x7FFFFFFF, 0xFFFFFFFF}), content);
    case 4: return Cat(std::vector<Bytes>{{element.tag, 0x80}, content});
    default: return Cat(std::vector<Bytes>{{element.tag, 0x80}, content, {0, 0}});
    }
}

Bytes Wrapped(const Bytes& whole, Random& random)
{
    return Tlv(random.Of<std::uint8_t>({0x30, 0x31, 0xA0, 0xA1, 0x04}), whole);
}

// So many times, to see what grows with it.
Bytes Repeated(const Bytes& whole, std::size_t times)
{
    Bytes all;
    for (std::size_t i = 0; i < times && all.size() + whole.size() < 4000; ++i) all = Cat(all, whole);
    return all;
}

std::size_t AnyOf(const std::vector<Node>& nodes, Random& random)
{
    return random.Below(nodes.size());
}

// An element of the donor with the same tag, if a few tries find one.
Bytes Graft(const Element& element, const Bytes& donor, Random& random)
{
    const Elements others(donor, 0, donor.size());
    if (others.All().empty()) return {};
    std::size_t number = 0;
    for (int tries = 0; tries < 8; ++tries) {
        number = AnyOf(others.All(), random);
        if (others.All()[number].element.tag == element.tag) break;
    }
    return Whole(donor, others.All()[number].element);
}

Bytes EditOne(const Bytes& octets, const Elements& elements, const Bytes& donor, Random& random,
              const Scramble& scramble)
{
    const std::vector<Node>& nodes = elements.All();
    const std::size_t number = AnyOf(nodes, random);
    const Element& element = nodes[number].element;
    const Bytes whole = Whole(octets, element);
    const auto with = [&](const Bytes& replacement) { return Splice(octets, nodes, number, replacement); };
    switch (random.Below(12)) {
    case 0: return with({});
    case 1: return with(Cat(whole, whole));
    case 2: return with(Graft(element, donor, random));
    case 3: return with(Cat(whole, Graft(element, donor, random)));
    case 4: return with(WithAnotherTag(octets, element, random));
    case 5: return with(WithAnotherLength(octets, element, random));
    case 6: return with(random.Percent(50) ? Wrapped(whole, random) : ContentOf(octets, element));
    case 7: return with(random.Percent(50) ? Tlv(element.tag, {}) : Repeated(whole, 2 + random.Below(60)));
    default: return with(Tlv(element.tag, TellingContent(octets, element, random, scramble)));
    }
}

// Two elements that follow each other, the other way round.
Bytes SwapNeighbours(const Bytes& octets, const Elements& elements, Random& random)
{
    const std::vector<Node>& nodes = elements.All();
    const std::size_t first = AnyOf(nodes, random);
    const Element& left = nodes[first].element;
    for (std::size_t second = first + 1; second < nodes.size(); ++second) {
        const Element& right = nodes[second].element;
        if (nodes[second].parent != nodes[first].parent) continue;
        return Cat(Part(octets, 0, left.offset), Whole(octets, right), Whole(octets, left),
                   Part(octets, right.End(), octets.size()));
    }
    return octets;
}

// ---- Packages

std::uint32_t WordAt(const Bytes& octets, std::size_t at)
{
    return std::uint32_t{octets[at]} << 24 | std::uint32_t{octets[at + 1]} << 16 | std::uint32_t{octets[at + 2]} << 8 |
           octets[at + 3];
}

constexpr std::size_t kCountAt = 16;
constexpr std::size_t kTableAt = 20;
constexpr std::size_t kEntrySize = 12;
constexpr std::size_t kEntries = 3;

// The entries as the header has them; nothing if one lies outside.
bool ReadPackage(const Bytes& input, PackageSpec* spec)
{
    if (input.size() < packageHeaderSize || WordAt(input, kCountAt) != kEntries) return false;
    for (std::size_t i = 0; i < kEntries; ++i) {
        const std::size_t at = kTableAt + i * kEntrySize;
        const std::size_t start = packageHeaderSize + std::size_t{WordAt(input, at + 4)};
        const std::size_t length = WordAt(input, at + 8);
        if (start > input.size() || length > input.size() - start) return false;
        spec->subFiles.push_back({WordAt(input, at), Part(input, start, start + length), {}, {}});
    }
    return true;
}

void LieInTheTable(PackageSpec* spec, Random& random)
{
    SubFileSpec& entry = random.Of(spec->subFiles);
    const std::uint32_t value = random.Of({0u, 1u, 0x160u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFEA0u, 0xFFFFFFFFu});
    switch (random.Below(4)) {
    case 0: entry.offset = value; break;
    case 1: entry.length = value; break;
    case 2: entry.type = random.Of({subfile::payload, subfile::cms, subfile::crl, 7u}); break;
    default: spec->subFileCount = random.Of({0u, 1u, 2u, 3u, 4u, 8u, 9u}); break;
    }
}

} // namespace

Bytes MutateDer(const Bytes& input, const Bytes& donor, Random& random, const Scramble& scramble)
{
    const Elements elements(input, 0, input.size());
    if (elements.All().empty()) return input;
    if (random.Percent(10)) return SwapNeighbours(input, elements, random);
    return EditOne(input, elements, donor, random, scramble);
}

Bytes MutatePackage(const Bytes& input, const Bytes& donor, Random& random, const Scramble& scramble)
{
    PackageSpec spec;
    PackageSpec other;
    if (!ReadPackage(input, &spec)) return input;
    if (!ReadPackage(donor, &other)) other = spec;
    if (random.Percent(10)) {
        LieInTheTable(&spec, random);
    } else {
        Bytes& content = random.Of(spec.subFiles).content;
        content = MutateDer(content, random.Of(other.subFiles).content, random, scramble);
    }
    return Build(spec);
}

} // namespace pnvtest
