#include "der.h"

#include "error.h"

#include <openssl/pem.h>

#include <algorithm>
#include <cstring>

namespace pkgtool {

namespace {

// Bits of the result of ASN1_get_object.
constexpr int INDEFINITE = 0x01;
constexpr int CONSTRUCTED = 0x20;
constexpr int MALFORMED = 0x80;

bool hasIndefiniteLength(const Bytes& ber)
{
    const unsigned char* in = ber.data();
    const unsigned char* const end = in + ber.size();
    while (in < end) {
        long length = 0;
        int tag = 0;
        int tagClass = 0;
        const int form = ASN1_get_object(&in, &length, &tag, &tagClass, end - in);
        if ((form & MALFORMED) != 0) break;
        if ((form & INDEFINITE) != 0) return true;
        if ((form & CONSTRUCTED) == 0) in += length; // next are the elements inside a constructed one
    }
    ERR_clear_error();
    return false;
}

const std::string PEM_BEGIN = "-----BEGIN";

} // namespace

bool isPem(const Bytes& content)
{
    return content.size() >= PEM_BEGIN.size() && std::equal(PEM_BEGIN.begin(), PEM_BEGIN.end(), content.begin());
}

void requireNothingBeforePem(const Bytes& content, const std::string& origin, const std::string& kind)
{
    const bool isDer = content.size() > 1 && content[0] == V_ASN1_SEQUENCE + V_ASN1_CONSTRUCTED && content[1] >= 0x80;
    const std::string begin = "\n" + PEM_BEGIN + " ";
    if (isDer || std::search(content.begin(), content.end(), begin.begin(), begin.end()) == content.end()) return;
    if (isPem(content)) return;
    throw Refusal(origin + " has text before -----BEGIN, and the checker reads PEM from the first octet",
                  "remove the text: openssl " + kind + " -in FILE -out NEW");
}

void requireDefiniteLengths(const Bytes& ber, const std::string& what)
{
    if (!hasIndefiniteLength(ber)) return;
    throw Refusal(what + " has indefinite lengths; the checker reads DER",
                  "make it without streaming (no -stream or -indef), or rewrite it: "
                  "openssl cms -cmsout -inform DER -outform DER");
}

Bytes withoutArmour(const Bytes& pem, const std::string& origin)
{
    const Bio bio = memoryBio(pem);
    char* label = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    const bool read = PEM_read_bio(bio.get(), &label, &header, &data, &length) == 1;
    ERR_clear_error();
    const bool known = read && (std::strcmp(label, PEM_STRING_CMS) == 0 || std::strcmp(label, PEM_STRING_PKCS7) == 0);
    const Bytes der = read ? Bytes(data, data + length) : Bytes();
    OPENSSL_free(label);
    OPENSSL_free(header);
    OPENSSL_free(data);
    if (!known) throw Refusal(origin + " is PEM, but neither CMS nor PKCS7");
    return der;
}

} // namespace pkgtool
