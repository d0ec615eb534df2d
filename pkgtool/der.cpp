#include "der.h"

#include "error.h"

#include <algorithm>

namespace pkgtool {

namespace {

// Bits of what ASN1_get_object returns.
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
        if ((form & CONSTRUCTED) == 0) in += length; // the elements inside a constructed one come next
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

void requireDefiniteLengths(const Bytes& ber, const std::string& what)
{
    if (!hasIndefiniteLength(ber)) return;
    throw UserError(what + " has indefinite lengths; the checker reads DER",
                    "make it without streaming (no -stream or -indef), or rewrite it: "
                    "openssl cms -cmsout -inform DER -outform DER");
}

} // namespace pkgtool
