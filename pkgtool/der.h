// Encodings as the checker tells them apart.
#ifndef PKGTOOL_DER_H
#define PKGTOOL_DER_H

#include "openssl.h"

#include <string>

namespace pkgtool {

// What begins with "-----BEGIN" is PEM, and anything else DER.
bool isPem(const Bytes& content);
// Throws when a line that begins PEM stands in the content, and text before it: nothing but PEM's own first line tells
// the checker that it is not DER. The content's kind is "x509", say, as openssl calls the command that mends it.
void requireNothingBeforePem(const Bytes& content, const std::string& origin, const std::string& kind);
// The DER inside a PEM block labelled CMS or PKCS7; throws when there is none.
Bytes withoutArmour(const Bytes& pem, const std::string& origin);
// Throws when an element has an indefinite length (X.690, 8.1.3.6). Anything else that is malformed passes.
void requireDefiniteLengths(const Bytes& ber, const std::string& what);

} // namespace pkgtool

#endif
