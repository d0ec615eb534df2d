// ASN.1 values as text, the same for both readers; null for a value without text.
#ifndef PKGTOOL_ASN1_TEXT_H
#define PKGTOOL_ASN1_TEXT_H

#include "json.h"

#include <openssl/asn1.h>

namespace pkgtool {

// The printed form of names (RFC 2253).
constexpr unsigned long NAME_FLAGS =
    ASN1_STRFLGS_ESC_2253 | ASN1_STRFLGS_ESC_CTRL | ASN1_STRFLGS_UTF8_CONVERT | ASN1_STRFLGS_DUMP_UNKNOWN;

// OpenSSL's short name of an identifier, else dotted numbers.
Json objectJson(const ASN1_OBJECT* object);
// The names of the bits of a key usage: the first octet in bits 0 to 7, the second in bits 8 to 15.
Json usageNames(unsigned bits);
// CRLReason (RFC 5280, 5.3.1).
Json reasonJson(long number);

} // namespace pkgtool

#endif
