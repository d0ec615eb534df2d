// What OpenSSL says of a signed package: its parsers, its checks of certificates and CRLs (openssl_pki.h), of signers
// (CMS) and of timestamps (TS), put together as far as the rules want it otherwise.
#ifndef PNVTEST_OPENSSL_ORACLE_H
#define PNVTEST_OPENSSL_ORACLE_H

#include "oracle_rules.h"
#include "pelnic_cms_verify.h"

#include "der.h"

namespace pnvtest {

// What the checker hands to the verification.
struct SignedParts {
    Bytes root;
    Bytes crls;
    Bytes cms;
    Bytes payload;
};

struct Opinion {
    PELNIC_ERROR_CODE code; // 0: accepted
    std::string why;
    RuleSet met; // the rules that were asked for

    bool Accepts() const { return code == 0; }
};
Opinion AskOpenssl(const SignedParts& parts, RuleSet inForce);

} // namespace pnvtest

#endif
