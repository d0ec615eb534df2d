// Timestamps (RFC 3161) from a local authority's key, from a response file, or from an authority's URL.
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

// Each returns the token's ContentInfo in DER; tokens of an authority are not checked.
// A token that depends only on its arguments: even its serial number comes from the imprint.
Bytes makeToken(const LocalAuthority& authority, const Bytes& signature, const EVP_MD* md);
// A response (RFC 3161, 2.4.2), or a token alone.
Bytes tokenOfResponse(const Bytes& response, const std::string& origin);
Bytes fetchToken(const std::string& url, const Bytes& signature, const EVP_MD* md);

// A query for an authority, carried as a file. It has no nonce: only the signature links the response to it.
Bytes makeQuery(const Bytes& signature, const EVP_MD* md);

// 2025-01-01T00:00:00Z; empty if there is no readable one.
std::string timeOfToken(const Bytes& token);
// The TSTInfo inside a token; null if there is none.
TsTstInfo tstInfoOf(CMS_ContentInfo* token);

} // namespace pkgtool

#endif
