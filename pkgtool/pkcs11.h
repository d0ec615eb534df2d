// Keys that never leave a PKCS #11 token.
#ifndef PKGTOOL_PKCS11_H
#define PKGTOOL_PKCS11_H

#include "openssl.h"

#include <openssl/ui.h>

#include <optional>
#include <string>

namespace pkgtool {

bool isPkcs11Uri(const std::string& location);
// For messages: a URI may contain a PIN.
std::string withoutPin(const std::string& location);
// The key named by the URI (RFC 7512), through OpenSSL's pkcs11 engine; null if a PIN is requested and the method has
// none. The PIN is the URI's unless given here.
Pkey loadEngineKey(const std::string& uri, const std::optional<std::string>& pin, UI_METHOD* askPin, void* asked);

} // namespace pkgtool

#endif
