// What is in a package, decoded as the checker decodes it, and by OpenSSL where only that can; judged by nobody. The
// members of these documents are described in docs/explain.md.
#ifndef PKGTOOL_CONTENTS_H
#define PKGTOOL_CONTENTS_H

#include "files.h"
#include "json.h"

#include <map>
#include <string>

namespace pkgtool {

// Where a certificate or CRL came from.
namespace source {
constexpr const char* COMPILED_IN = "compiled in";
constexpr const char* ROOT_FILE = "root file";
constexpr const char* CRL_FILE = "crl file";
constexpr const char* SIGNATURE = "signature";
constexpr const char* TOKEN = "token";
} // namespace source

// Which of the two readers of reader.h takes an object.
namespace read_by {
constexpr const char* BOTH = "both";
constexpr const char* CHECKER = "checker";
constexpr const char* OPENSSL = "openssl";
} // namespace read_by

struct Contents {
    Json root;     // the certificate that is trusted, or null when it cannot be read
    Json header;   // its fields
    Json subFiles; // one for each entry of the table that counts
    // The certificates and CRLs among them and the root's, by their signed part. Of equal ones the first that the
    // checker takes in: from the root, the CRLs, the signature, its timestamps.
    std::map<Bytes, Json> objects;
};

// root: a certificate, DER or PEM, or nothing.
Contents readContents(ByteView package, const Bytes& root, const char* rootSource);

// A name's common name for people, as "CN=Demo CA", or all of it when there is none, or when another of the names that
// were read has the same.
std::string briefName(const Json& name);

} // namespace pkgtool

#endif
