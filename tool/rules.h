// The last word on what would be accepted: the ordinary rules (rules_ordinary.cpp) accept it all, the strict ones
// (rules_strict.cpp, PKGCHECK_STRICT) refuse what SECURITY.md lists as weak. Neither accepts what was refused before.
#ifndef PKGCHECK_RULES_H
#define PKGCHECK_RULES_H

#include "verify_signature.h"

// Each says why it refuses, a sentence in static storage, or null when it does not.

// A package without a signature.
const char* pkgcheck_unsigned_refusal();

// A package whose signature has verified. The strict rules refuse
// - a timestamp that nobody signed;
// - several signers without signed attributes, of which only the last would decide;
// - signed attributes, of a signer or of its timestamp, without the content type that was signed (RFC 5652, 5.3);
// - a payload that is itself an encoding of signed attributes, under a signer without any (RFC 5652, 5.4).
const char* pkgcheck_signature_refusal(const PELNIC_VERIFY_SIGNATURE_S* pstSig);

#endif
