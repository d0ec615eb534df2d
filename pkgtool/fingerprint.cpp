#include "fingerprint.h"

#include "container.h"
#include "openssl.h"
#include "text.h"

#include <optional>

namespace pkgtool {

namespace {

// An element at the start of the octets, whose length is told (X.690, 8.1.3.6 has another kind).
struct Element {
    int tag;
    int tagClass;
    ByteView whole;
    ByteView content;
};

std::optional<Element> elementAt(ByteView octets)
{
    const unsigned char* in = octets.data;
    long length = 0;
    Element element{0, 0, octets, octets};
    const int form = ASN1_get_object(&in, &length, &element.tag, &element.tagClass, static_cast<long>(octets.size));
    ERR_clear_error();
    constexpr int UNREADABLE_OR_INDEFINITE = 0x80 | 0x01;
    if ((form & UNREADABLE_OR_INDEFINITE) != 0) return std::nullopt;
    element.content = {in, static_cast<std::size_t>(length)};
    element.whole = {octets.data, static_cast<std::size_t>(in - octets.data) + element.content.size};
    return element;
}

} // namespace

std::string sha256Text(ByteView content)
{
    const Bytes digest = digestOf(EVP_sha256(), content);
    return hexText(digest.data(), digest.size());
}

Bytes publicKeyIn(const Bytes& signedPart)
{
    // RFC 5280, 4.1: [version], serialNumber, signature, issuer, validity, subject, subjectPublicKeyInfo
    constexpr int BEFORE_KEY = 5;
    const std::optional<Element> outer = elementAt(signedPart);
    if (!outer) return {};
    const unsigned char* at = outer->content.data;
    const unsigned char* const end = at + outer->content.size;
    for (int passed = 0; at < end;) {
        const std::optional<Element> element = elementAt({at, static_cast<std::size_t>(end - at)});
        if (!element) return {};
        const bool isVersion = passed == 0 && element->tagClass == V_ASN1_CONTEXT_SPECIFIC;
        if (passed == BEFORE_KEY) return Bytes(element->whole.data, element->whole.data + element->whole.size);
        passed += isVersion ? 0 : 1;
        at += element->whole.size;
    }
    return {};
}

void putFingerprints(Json& subFiles, const MappedFile& package)
{
    for (Json& subFile : subFiles) {
        if (subFile["is_inside"] != true) continue;
        const unsigned char* const begin =
            package.content().data + sizeof(Header) + subFile["offset"].get<std::size_t>();
        const Bytes digest = digestOf(EVP_sha256(), {begin, subFile["length"].get<std::size_t>()},
                                      [&](std::size_t) { package.forget(); });
        subFile["sha256"] = hexText(digest.data(), digest.size());
    }
}

} // namespace pkgtool
