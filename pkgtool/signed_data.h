// SignedData (RFC 5652) in DER, for packages and for timestamp tokens. OpenSSL's own signing always puts the present
// time into the signed attributes; here a signature depends on nothing but what it is given, so the same inputs give
// the same bytes.
#ifndef PKGTOOL_SIGNED_DATA_H
#define PKGTOOL_SIGNED_DATA_H

#include "keys.h"

#include <functional>

namespace pkgtool {

// A SignedData without signers, over a content that stays outside.
Cms newDetached();
// The same around a content of this type.
Cms newAround(int contentType, const Bytes& content);

// The signature over these bytes, from wherever the key is.
using MakeSignature = std::function<Bytes(const Bytes& toBeSigned)>;

struct SignerOptions {
    const EVP_MD* md;
    Bytes contentDigest;                    // by md
    const ASN1_TIME* signingTime = nullptr; // no such attribute without it
    bool nameCertificate = false;           // adds signingCertificateV2 (RFC 5035), which a timestamp token wants
    MakeSignature makeSignature = {};       // when the identity has no key
};

// The signer's entry, signed; the certificate is not put into the SignedData. The SignedData owns the result.
CMS_SignerInfo* addSigner(CMS_ContentInfo* cms, const Identity& identity, const SignerOptions& options);
// Whether the signature is one by the certificate's key.
bool isSignature(X509* cert, const EVP_MD* md, const Bytes& message, const Bytes& signature);
Bytes signatureOf(CMS_SignerInfo* signer);
// Makes the token the signer's unsigned attribute (RFC 3161, appendix A), as it stands.
void attachTimestamp(CMS_SignerInfo* signer, const Bytes& token);
// Leaves out what is there already, and roots: nobody takes a root from a signature.
void addCertificate(CMS_ContentInfo* cms, X509* cert);

Bytes encode(CMS_ContentInfo* cms);
Bytes armour(const Bytes& der); // -----BEGIN CMS-----

} // namespace pkgtool

#endif
