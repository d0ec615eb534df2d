// SignedData (RFC 5652) in DER, for packages and for timestamp tokens. OpenSSL's own signing always puts the current
// time into the signed attributes; here a signature depends only on its inputs, so the same inputs give the same
// octets.
#ifndef PKGTOOL_SIGNED_DATA_H
#define PKGTOOL_SIGNED_DATA_H

#include "keys.h"

#include <functional>

namespace pkgtool {

// A SignedData without signers, over detached content.
Cms newDetached();
// The same with encapsulated content of this type.
Cms newAround(int contentType, const Bytes& content);

// The signature over these octets, from the place of the key.
using MakeSignature = std::function<Bytes(const Bytes& toBeSigned)>;

struct SignerOptions {
    const EVP_MD* md;
    Bytes contentDigest;                    // with md
    const ASN1_TIME* signingTime = nullptr; // null for no such attribute
    bool nameCertificate = false;           // adds signingCertificateV2 (RFC 5035), required in a timestamp token
    MakeSignature makeSignature = {};       // if the identity has no key
};

// Adds the signer's signed entry, without its certificate. The SignedData owns the result.
CMS_SignerInfo* addSigner(CMS_ContentInfo* cms, const Identity& identity, const SignerOptions& options);
// Whether the certificate's key made the signature.
bool isSignature(X509* cert, const EVP_MD* md, const Bytes& message, const Bytes& signature);
Bytes signatureOf(CMS_SignerInfo* signer);
// Adds the token, unchanged, as the signer's unsigned attribute (RFC 3161, appendix A).
void attachTimestamp(CMS_SignerInfo* signer, const Bytes& token);
// Skips duplicates and roots: nobody accepts a root from a signature.
void addCertificate(CMS_ContentInfo* cms, X509* cert);

Bytes encode(CMS_ContentInfo* cms);
Bytes armour(const Bytes& der); // -----BEGIN CMS-----

} // namespace pkgtool

#endif
