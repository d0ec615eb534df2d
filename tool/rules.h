// The last word on what would be accepted: the ordinary rules (rules_ordinary.cpp) accept it all, the strict ones
// (rules_strict.cpp, PKGCHECK_STRICT) refuse what SECURITY.md lists as weak. Neither accepts what was refused before.
#ifndef PKGCHECK_RULES_H
#define PKGCHECK_RULES_H

#include "verify_signature.h"

// Each says why it refuses, a sentence in static storage, or null when it does not.

// A package without a signature.
const char* pkgcheck_unsigned_refusal();

// A package whose signature has verified. The strict rules refuse
// - a timestamp that nobody signed, or whose content is not of the type TSTInfo;
// - several signers without signed attributes, of which only the last would decide;
// - signed attributes, of a signer or of its timestamp, without the content type that was signed (RFC 5652, 5.3);
// - a payload that is itself an encoding of signed attributes, under a signer without any (RFC 5652, 5.4);
// - a CRL that may leave out a revoked certificate of its issuer (crl_scope.h), or that was issued after a signing
// time.
const char* pkgcheck_signature_refusal(const PELNIC_VERIFY_SIGNATURE_S* pstSig);

// ---- The work of one verification, for which an attacker needs no key

// Puts the rules' limits into a table of callbacks, for one verification on one thread. The strict rules check no
// signature with an RSA exponent above 64 bits and at most 1,000 of them: their verify_init then answers with a code,
// which is "could not answer", so that nothing is accepted.
void pkgcheck_limit_work(PELNIC_CALLBACK_FUNCS* pFuncs);
// Which limit stopped the verification since then.
const char* pkgcheck_work_refusal();

#endif
