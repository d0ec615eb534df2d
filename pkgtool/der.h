// Encodings, recognised as the checker does.
#ifndef PKGTOOL_DER_H
#define PKGTOOL_DER_H

#include "openssl.h"

#include <string>

namespace pkgtool {

// Whether it begins with "-----BEGIN"; anything else is DER.
bool isPem(const Bytes& content);
// Throws if there is text before a line that begins PEM: the checker recognises PEM only at the first octet. The
// content's kind, such as "x509", is the openssl command that removes the text.
void requireNothingBeforePem(const Bytes& content, const std::string& origin, const std::string& kind);
// The DER inside a PEM block labelled CMS or PKCS7; throws if there is none.
Bytes withoutArmour(const Bytes& pem, const std::string& origin);
// Throws if an element has an indefinite length (X.690, 8.1.3.6). Other malformed input passes.
void requireDefiniteLengths(const Bytes& ber, const std::string& what);

} // namespace pkgtool

#endif
