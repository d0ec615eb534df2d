// Signatures to judge: what the device has, what the package brings. Two kinds are in order; of the others each has one
// thing wrong.
#ifndef PNVTEST_SIGNATURE_CASES_H
#define PNVTEST_SIGNATURE_CASES_H

#include "signature.h"

namespace pnvtest {

struct Case {
    std::string name;
    Anchors anchors;
    Bytes signature;
    Bytes content = Text("a firmware image");
};
void PrintTo(const Case& input, std::ostream* out);

namespace cases {

// Accepted.
Case Good();
Case GoodDirect();   // without signed attributes, and with a token that nobody signed, to keep it short
Case GoodBelowCas(); // the other cases know no CAs but the root

// Bad signatures.
Case OtherContent(Case input);
Case AlteredAttributes();
Case OtherStampedSignature();

// Bad certificates.
Case RevokedSigner();
Case RevokedByOneOfTwoCrls();
Case RevokedByTheFirstOfTwoCrls();
Case RevokedAmongDuplicates(); // each certificate and CRL comes twice
Case RevokedByAnIndirectCrl(); // whose issuer comes with it
Case ExpiredSigner();
Case SignerOfAnotherPurpose();
Case SignerBelowNoCa();
Case OwnRoot(); // all in order below a root of the device's root's name that comes with the signature
Case NoCrl();
Case ExpiredCrl();
// A CA expired and was certified again: who finds the expired certificate first goes no further.
Case ExpiredCaBeforeTheGoodOne();
Case ExpiredCaOfTheCaller(); // who trusts it, and the package brings the good one

} // namespace cases

} // namespace pnvtest

#endif
