// Certificates and CRLs of your own CA, as the checker needs them: RSA and SHA-256, with the extensions of each kind of
// certificate. Their validity begins now.
#ifndef PKGTOOL_PKI_ISSUE_H
#define PKGTOOL_PKI_ISSUE_H

#include "keys.h"

#include <string>

namespace pkgtool {

enum class CertKind { Root, Ca, Signer, Authority };

struct CertRequest {
    CertKind kind;
    std::string organization;
    std::string commonName;
    int days;
};

Pkey makeKey(unsigned bits);
// For the key's public half; a root issues itself, and the issuer argument is ignored.
Cert issueCertificate(const CertRequest& request, EVP_PKEY* key, const Identity& issuer);

struct Revocation {
    X509* cert;
    std::string reason; // as in RFC 5280, 5.3.1; empty for none
};

// The issuer's first CRL, or the successor of previous with the same entries, plus the revocation unless it is null.
Crl issueCrl(const Identity& issuer, X509_CRL* previous, const Revocation* revocation, int days);

bool isRevokedBy(X509_CRL* crl, X509* cert);

} // namespace pkgtool

#endif
