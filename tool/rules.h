// Further rules for packages that would be accepted: the ordinary rules (rules_ordinary.cpp) accept them all, the
// strict ones (rules_strict.cpp, PKGCHECK_STRICT) refuse what SECURITY.md lists as weak. Neither accepts a refused
// package.
#ifndef PKGCHECK_RULES_H
#define PKGCHECK_RULES_H

#include "verify_signature.h"

// Each returns the reason of a refusal, a sentence in static storage, or null.

// A package without a signature.
const char* pkgcheck_unsigned_refusal();

// A package whose signature has verified. The strict rules refuse
// - a timestamp without signers, or whose content is not of the type TSTInfo;
// - several signers without signed attributes, of which only the last would decide;
// - signed attributes, of a signer or of its timestamp, without the signed content type (RFC 5652, 5.3);
// - a payload that is itself an encoding of signed attributes, under a signer without any (RFC 5652, 5.4);
// - a CRL that may omit a revoked certificate of its issuer (crl_scope.h), or that was issued after a signing time.
const char* pkgcheck_signature_refusal(const PELNIC_VERIFY_SIGNATURE_S* pstSig);

// ---- The work of one verification, which an attacker can cause without a key

// Puts the rules' limits into a table of callbacks, for one verification on one thread. The strict rules check at most
// 1,000 signatures, and none with an RSA exponent above 64 bits: beyond that their verify_init returns a code, which
// means "could not answer", so that nothing is accepted.
void pkgcheck_limit_work(PELNIC_CALLBACK_FUNCS* pFuncs);
// The limit that has stopped the verification since then.
const char* pkgcheck_work_refusal();

#endif
