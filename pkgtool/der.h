// Encodings as the checker tells them apart.
#ifndef PKGTOOL_DER_H
#define PKGTOOL_DER_H

#include "openssl.h"

#include <string>

namespace pkgtool {

// What begins with "-----BEGIN" is PEM, and anything else DER.
bool isPem(const Bytes& content);
// The DER inside a PEM block labelled CMS or PKCS7; throws when there is none.
Bytes withoutArmour(const Bytes& pem, const std::string& origin);
// Throws when an element has an indefinite length (X.690, 8.1.3.6). Anything else that is malformed passes.
void requireDefiniteLengths(const Bytes& ber, const std::string& what);

} // namespace pkgtool

#endif
