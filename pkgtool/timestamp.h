// Timestamps (RFC 3161) from wherever they come: made here with a local authority's key, from a response file, or from
// an authority's URL.
#ifndef PKGTOOL_TIMESTAMP_H
#define PKGTOOL_TIMESTAMP_H

#include "keys.h"

#include <functional>
#include <string>
#include <vector>

namespace pkgtool {

// 2026-01-31T12:00:00Z, as this tool prints times, or YYYYMMDDhhmmssZ.
Asn1Time parseTime(const std::string& text);

struct LocalAuthority {
    Identity identity;
    std::vector<Cert> chain;
    Asn1Time time; // every token gets this one
    Asn1Object policy;
};

// Each returns the token's ContentInfo in DER, unchecked as far as an authority made it.
// A token that depends on its arguments only: even its serial number is taken from the imprint.
Bytes makeToken(const LocalAuthority& authority, const Bytes& signature, const EVP_MD* md);
// A response (RFC 3161, 2.4.2), or a token alone.
Bytes tokenOfResponse(const Bytes& response, const std::string& origin);
Bytes fetchToken(const std::string& url, const Bytes& signature, const EVP_MD* md);

// A query to be carried to an authority. It has no nonce: whoever brings the response has only the signature to match.
Bytes makeQuery(const Bytes& signature, const EVP_MD* md);

// 2025-01-01T00:00:00Z; empty when there is none that can be read.
std::string timeOfToken(const Bytes& token);
// The TSTInfo inside a token; null when there is none.
TsTstInfo tstInfoOf(CMS_ContentInfo* token);

} // namespace pkgtool

#endif
