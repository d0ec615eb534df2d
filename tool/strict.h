// What the strict checker (PKGCHECK_STRICT) asks of a signature that has verified. It only ever refuses: the verdict of
// the library comes first and stands.
#ifndef PKGCHECK_STRICT_H
#define PKGCHECK_STRICT_H

#include "verify_signature.h"

// Why the strict checker refuses the verified signature, as a sentence in static storage; null when it does not:
// - a timestamp that nobody signed;
// - several signers without signed attributes, of which only the last would decide;
// - signed attributes, of a signer or of its timestamp, without the content type that was signed (RFC 5652, 5.3);
// - a payload that is itself an encoding of signed attributes, under a signer without any (RFC 5652, 5.4).
const char* pkgcheck_strict_refusal(const PELNIC_VERIFY_SIGNATURE_S* pstSig);

#endif
