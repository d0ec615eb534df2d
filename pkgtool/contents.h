// The contents of a package, decoded as the checker does, or with OpenSSL where only OpenSSL can; without a verdict.
// docs/explain.md describes the members of these documents.
#ifndef PKGTOOL_CONTENTS_H
#define PKGTOOL_CONTENTS_H

#include "files.h"
#include "json.h"

#include <map>
#include <string>

namespace pkgtool {

// The source of a certificate or CRL.
namespace source {
constexpr const char* COMPILED_IN = "compiled in";
constexpr const char* ROOT_FILE = "root file";
constexpr const char* CRL_FILE = "crl file";
constexpr const char* SIGNATURE = "signature";
constexpr const char* TOKEN = "token";
} // namespace source

// The readers of reader.h that can decode an object.
namespace read_by {
constexpr const char* BOTH = "both";
constexpr const char* CHECKER = "checker";
constexpr const char* OPENSSL = "openssl";
} // namespace read_by

struct Contents {
    Json root;     // the trusted certificate, or null if it cannot be read
    Json header;   // its fields
    Json subFiles; // one per entry of the table that counts
    // Their certificates and CRLs and the root's, by signed part. Of equal ones the first in the checker's order: root,
    // CRLs, signature, its timestamps.
    std::map<Bytes, Json> objects;
};

// root: a certificate, DER or PEM, or nothing.
Contents readContents(ByteView package, const Bytes& root, const char* rootSource);

// A name's common name for people, as "CN=Demo CA", or the whole name if it has none. or when another of the names that
// were read has the same.
std::string briefName(const Json& name);

} // namespace pkgtool

#endif
