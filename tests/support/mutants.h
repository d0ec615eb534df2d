// Encodings with something changed: where there is something to change, and what may be anything in a signature because
// no rule looks at it.
#ifndef PNVTEST_MUTANTS_H
#define PNVTEST_MUTANTS_H

#include "der.h"

namespace pnvtest {

inline Path Join(Path path, const Path& below)
{
    path.insert(path.end(), below.begin(), below.end());
    return path;
}

// ---- What is unchecked ----

// Octets [from, to) of the signature, and why it is no harm that they may be anything.
struct Unchecked {
    std::size_t from;
    std::size_t to;
    const char* why;
};

enum class Part { Tag, Header, Content, FirstContentOctet, Whole };

class UncheckedList {
public:
    explicit UncheckedList(const Bytes& der) : der_(der) {}

    void Add(const Path& path, Part part, const char* why)
    {
        const Element element = Find(der_, path);
        const std::size_t content = element.ContentOffset();
        switch (part) {
        case Part::Tag: ranges_.push_back({element.offset, element.offset + 1, why}); break;
        case Part::Header: ranges_.push_back({element.offset, content, why}); break;
        case Part::Content: ranges_.push_back({content, element.End(), why}); break;
        case Part::FirstContentOctet: ranges_.push_back({content, content + 1, why}); break;
        case Part::Whole: ranges_.push_back({element.offset, element.End(), why}); break;
        }
    }
    // In a SignedData with its one certificate and one signer, who has no signed attributes when direct.
    void AddSignedData(const Path& contentInfo, bool direct)
    {
        const auto at = [&](const Path& below) { return Join(contentInfo, below); };
        const std::size_t algorithm = direct ? 3 : 4;
        Add(at({1}), Part::Header,
            "explicit tag of the SignedData: stepped over with its length, which nothing ends by");
        Add(at({1, 0, 0}), Part::Content, "version of the SignedData: one table decodes all of them");
        Add(at({1, 0, 1, 0}), Part::Content,
            "digestAlgorithms: a hint to whom reads in one pass; signers name their own");
        Add(at({1, 0, 2, 0}), Part::Whole, "content type: what the content is called changes no octet that is hashed");
        Add(at({1, 0, 3, 0, 1, 1}), Part::Tag, "parameters of a certificate's algorithm: its OID says all");
        Add(at({1, 0, 3, 0, 2}), Part::FirstContentOctet,
            "unused bits of a certificate's signature: no octet of it changes");
        Add(at({1, 0, 4, 0, 0}), Part::Content, "version of the SignerInfo: one table decodes all of them");
        Add(at({1, 0, 4, 0, 2, 1}), Part::Tag, "parameters of the digest algorithm: its OID says all");
        Add(at({1, 0, 4, 0, algorithm}), Part::Content,
            "signatureAlgorithm: it is RSA PKCS #1 v1.5 with the digest algorithm");
        Add(at({1, 0, 4, 0, algorithm + 1}), Part::Tag, "tag of the signature value: its octets are what counts");
    }
    void AddTimestamp(const Path& attribute)
    {
        const Path token = Join(attribute, {1, 0});
        Add(Join(attribute, {1}), Part::Tag, "tag of an attribute's values: kept as they are");
        AddSignedData(token, false);
        Add(Join(token, {1, 0, 2, 1}), Part::Tag,
            "explicit tag of the TSTInfo: kept as it is, whatever follows the type");
        Add(Join(token, {1, 0, 2, 1, 0}), Part::Tag,
            "tag of the octet string around the TSTInfo: its octets are hashed");
    }

    const std::vector<Unchecked>& Ranges() const { return ranges_; }

private:
    const Bytes& der_;
    std::vector<Unchecked> ranges_;
};

// ---- Where the elements are ----

// Whether the octets [from, to) are whole elements, one at least.
inline bool AreElements(const Bytes& der, std::size_t from, std::size_t to)
{
    if (from == to) return false;
    while (from < to) {
        if (to - from < 2) return false;
        const std::size_t lengthOctets = der[from + 1] < 0x80 ? 0 : der[from + 1] & 0x7Fu;
        if (lengthOctets > 3 || der[from + 1] == 0x80 || to - from < 2 + lengthOctets) return false;
        std::size_t length = lengthOctets == 0 ? der[from + 1] : 0;
        for (std::size_t i = 0; i < lengthOctets; ++i) length = length << 8 | der[from + 2 + i];
        from += 2 + lengthOctets;
        if (length > to - from) return false;
        from += length;
    }
    return true;
}

// Appends the paths of an element and of all below it.
inline void AddPaths(const Bytes& der, const Path& path, std::vector<Path>* paths)
{
    paths->push_back(path);
    const Element element = Find(der, path);
    const bool wrapsBits = element.tag == 0x03;
    const bool mayHold = (element.tag & 0x20) != 0 || element.tag == 0x04 || (wrapsBits && element.contentLength != 0);
    if (!mayHold || !AreElements(der, element.ContentOffset() + (wrapsBits ? 1 : 0), element.End())) return;
    const std::size_t children = Children(der, element).size();
    for (std::size_t i = 0; i < children; ++i) {
        Path child = path;
        child.push_back(i);
        AddPaths(der, child, paths);
    }
}

// Every element, those inside octet and bit strings included.
inline std::vector<Path> PathsOf(const Bytes& der)
{
    std::vector<Path> paths;
    AddPaths(der, {}, &paths);
    return paths;
}

} // namespace pnvtest

#endif
