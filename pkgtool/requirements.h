// Finds what the checker will refuse, while it can still be corrected. Each function returns or throws a UserError with
// a hint. A signature that passes here can still be refused on the device: only the device judges chains and CRLs.
#ifndef PKGTOOL_REQUIREMENTS_H
#define PKGTOOL_REQUIREMENTS_H

#include "openssl.h"

#include <string>

namespace pkgtool {

void requireSigner(X509* cert);
void requireTimestampAuthority(X509* cert);
// A signature, DER or PEM, and the timestamp of every signer, for any payload.
void requireSigners(const Bytes& signature, const std::string& origin);
// The same for a signature whose signers may lack a timestamp. Signatures over signed attributes must verify.
void requireStampable(const Bytes& signature, const std::string& origin);
// A detached signature over the payload, DER or PEM, and the timestamp of every signer.
void requireSignature(const Bytes& signature, ByteView payload, const std::string& origin);
// Null for a signer without one.
const ASN1_STRING* timestampOf(const CMS_SignerInfo* signer);
// One or more CRLs, DER or PEM.
void requireCrls(const Bytes& crls, const std::string& origin);

} // namespace pkgtool

#endif
