// The report on a certificate's chain, link by link: from the library's witness, and after a failure from the names in
// the package.
#ifndef PKGTOOL_CHAIN_H
#define PKGTOOL_CHAIN_H

#include "contents.h"
#include "testimony.h"

#include <optional>
#include <string>
#include <vector>

namespace pkgtool {

// A problem and its remedy. The kind is a word for programs.
struct Reason {
    std::string kind;
    std::string sentence;
    std::string advice;
};

// A reason and its place in the report, as a JSON pointer (RFC 6901).
struct Failure {
    std::string at;
    Json about; // the certificate, CRL or signer
    Reason reason;
};

class ChainStory {
public:
    // signer: or a timestamp authority; time: the time of the verification.
    ChainStory(const Contents& contents, const Testimony& testimony, const SignerTestimony& signer,
               const std::string& time)
        : contents_(contents), testimony_(testimony), signer_(signer), now_(time)
    {
    }

    // Appends the links from a certificate upwards to a report's array at this place; the first failure, if any, is the
    // reason of the refusal.
    std::optional<Failure> tell(Part cert, Json& links, const std::string& at) const;

private:
    using Entry = std::map<Bytes, Json>::value_type;

    std::optional<Failure> judge(const LinkTestimony& link, Json& json, const std::string& at) const;
    std::optional<Reason> judgeDates(const LinkTestimony& link, const Json& json) const;
    Reason judgeSelfSigned(PELNIC_ERROR_CODE rc, const Json& json) const;
    Reason judgeTop(const Json& json) const;
    std::optional<Failure> tellCrls(const LinkTestimony& link, Json& json, const std::string& at) const;
    const Json& revocationOf(const LinkTestimony& link, const Json& json) const;
    std::optional<Reason> readChosen(const LinkTestimony& link, const Json& json, Json& crl) const;
    Reason judgeUnfit(const CrlTestimony& testimony, const Json& crl) const;
    Part above(const LinkTestimony& link, const Json& json) const;
    Part namedIssuer(const Json& json) const;
    std::vector<const Entry*> casNamed(const Json& name) const;
    std::vector<const Entry*> casAsked(const Json& name) const;

    const Contents& contents_;
    const Testimony& testimony_;
    const SignerTestimony& signer_;
    const std::string now_;
};

} // namespace pkgtool

#endif
