// PKIs of every shape from a seed: equal names, shared and renewed keys, cross-certificates, circles, forgeries,
// copies, long chains with a CRL of each CA, and whatever else a certificate or CRL can have wrong. Each object comes
// twice, as the model's description and as an encoding for the library.
//
// Nothing is signed: a signature is good when it names the key and the digest that it is checked with, which a
// verification callback of this module says. Thousands of PKIs take a second that way.
#ifndef PNVTEST_RANDOM_PKI_H
#define PNVTEST_RANDOM_PKI_H

#include "pki_model.h"
#include "random.h"

namespace pnvtest {

struct RandomPki {
    std::vector<model::Cert> certs;
    std::vector<model::Crl> crls;
    std::vector<Bytes> certEncodings;
    std::vector<Bytes> crlEncodings;
    std::vector<PNV_TIME_T> times; // at which something changes
};

RandomPki MakeRandomPki(Random& random);

// Installs verification callbacks that take such a signature's word.
void TrustNamedSignatures(PELNIC_CALLBACK_FUNCS* funcs);

} // namespace pnvtest

#endif
