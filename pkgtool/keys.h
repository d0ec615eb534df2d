// Certificates and private keys from files and tokens. Keys are read into memory or stay in their token; nothing here
// writes one.
#ifndef PKGTOOL_KEYS_H
#define PKGTOOL_KEYS_H

#include "openssl.h"

#include <string>
#include <vector>

namespace pkgtool {

// A certificate with its private key, which is null if it is elsewhere.
struct Identity {
    Cert cert;
    Pkey key;
};

// passwordSource: "env:NAME", "file:PATH" (its first line), or empty for none.
// A key from a PEM, DER or PKCS #12 file, or from the token that a PKCS #11 URI (RFC 7512) names.
Pkey loadKey(const std::string& location, const std::string& passwordSource);
// All certificates of a PEM, DER or PKCS #12 file, at least one, in their order.
std::vector<Cert> loadCertificates(const std::string& location, const std::string& passwordSource = {});
// Appends the certificates of these files.
void appendCertificates(const std::vector<std::string>& locations, std::vector<Cert>& certs);
// The certificate is the first one in its file. Throws if the key belongs to another certificate.
Identity loadIdentity(const std::string& certLocation, const std::string& keyLocation,
                      const std::string& passwordSource);
// A certificate whose key is elsewhere.
Identity loadCertificate(const std::string& certLocation);
// A PKCS #12 file with one key; its other certificates are appended to chain.
Identity loadPkcs12(const std::string& path, const std::string& passwordSource, std::vector<Cert>& chain);

// The subject, for messages.
std::string nameOf(const X509* cert);

} // namespace pkgtool

#endif
