#include "oracle_rules.h"

namespace pnvtest {

const RuleText& TextOf(Rule rule)
{
    static const RuleText texts[kRules] = {
        {"LastSecondCounts", "notAfter and nextUpdate are inclusive (RFC 5280, 4.1.2.5)"},
        {"ThisUpdateIsUnread", "CRLs come with the package, later than its signature: when they began is not asked"},
        {"PathLengthIsUnread", "pathLenConstraint is not read"},
        {"CriticalIsUnread", "an unknown critical extension of a certificate is passed over"},
        {"CrlExtensionsAreUnread", "of a CRL's extensions only indirectCRL is read"},
        {"KeyIdentifiersAreUnread", "a key identifier that fits no issuer is no matter"},
        {"RevocationHasADate", "a revocation counts from its date, so that signatures from before it stay good; of CAs "
                               "and time-stamping authorities only one for a benign reason"},
        {"RootIsNotRevoked", "a self-signed certificate ends the walk, whatever its own CRL says"},
        {"AnchorsBelowOthersAreNoEnd",
         "above a caller's CA that is not self-signed stands any CA, be it the caller's or of the package"},
        {"UnsignedTokenPasses", "a timestamp token without any signer passes"},
        {"LastDirectSignerDecides", "of several signers without signed attributes the last one's signature decides"},
        {"SilenceIsNoPermission", "issuers of certificates and CRLs need a key usage that says so"},
        {"PurposeIsAsked", "signers need digitalSignature and code signing, authorities the same and time stamping"},
        {"NamesAreOctets", "names are equal when their octets are"},
        {"Sha2Only", "SHA-256, SHA-384 and SHA-512 and no other digest"},
        {"NextUpdateIsRequired", "a CRL without nextUpdate is never used"},
        {"RemovalRevokes", "removeFromCRL, which stands only in delta CRLs, is a reason like any other"},
        {"ExpiredCrlRevokes", "an expired CRL still counts against the certificates that it lists"},
        {"OldCertificatesStopTheRest",
         "a certificate below version 3 is an error among the caller's, and ends those that stand beside CRLs"},
        {"SignersAreNoCas", "signers are looked up among the certificates that are no CAs"},
        {"SerialNumberIsNotZero", "what has or names the serial number 0 does not decode"},
        {"WholeSecondsOnly", "a timestamp with a fraction of a second is an error"},
        {"NestingIsLimited", "a chain of more than eleven verifications, each of a CRL's issuer, is too deep"},
        {"FirstIssuerThatVerifies", "the issuer is the first CA of that name whose key verifies the certificate"},
        {"FirstCopyCounts", "of certificates with one issuer, number and key, and of CRLs with one signature, the "
                            "first one counts"},
        {"CrlsByScore", "of several CRLs one that lists the certificate comes first, then one that is current; its "
                        "issuer must be below the same root and is verified in turn"},
        {"IndirectCrlSpeaksForItsRoot",
         "an indirect CRL speaks for every certificate below its root, by serial number"},
        {"CrlIssuerVouches", "the dates of the CRL's issuer count in place of those of the certificate's own issuer"},
    };
    return texts[static_cast<std::size_t>(rule)];
}

} // namespace pnvtest
