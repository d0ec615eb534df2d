// A certificate's chain as the library judges it, told link by link.
#ifndef PKGTOOL_CHAIN_H
#define PKGTOOL_CHAIN_H

#include "contents.h"

#include "cmsverify/pelnic_pki_impl.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pkgtool {

// What is wrong and what helps. The kind is a word for programs.
struct Reason {
    std::string kind;
    std::string sentence;
    std::string advice;
};

// A reason and the place in the report that it is about, as a JSON pointer (RFC 6901).
struct Failure {
    std::string at;
    Json about; // the certificate, CRL or signer
    Reason reason;
};

bool hasKeyUsage(const PELNIC_VRF* vrf, const PELNIC_X509_CERT* cert, PNV_UINT32 bit);

// Follows a certificate up its chain the way the library does, at the context's time.
class ChainWalk {
public:
    ChainWalk(PELNIC_VRF* vrf, const Contents& contents) : vrf_(vrf), contents_(contents) {}

    // Appends the links to a report's array at this place; the first failure, if any, says why the chain is refused.
    std::optional<Failure> walk(const PELNIC_X509_CERT* cert, Json& links, const std::string& at);

private:
    struct Candidate {
        const PELNIC_X509_CRL* crl;
        PNV_UINT32 score;
    };

    std::string now() const { return timeText(vrf_->base_time); }
    Json describe(const PELNIC_X509_CERT* cert) const;
    Json describe(const PELNIC_X509_CRL* crl) const;
    // Both read with one decoder, so that what one has the other has too.
    const Json& find(const PELNIC_ASN_OCTS& signedPart) const;

    // The first entry for that serial number, or null. A CRL's entries are gone through once, however many signers it
    // speaks for.
    const Json* entryFor(const PELNIC_X509_CRL* crl, const Json& serial);

    std::optional<Reason> judgeDates(const PELNIC_X509_CERT* cert, const Json& link) const;
    Reason judgeTop(const PELNIC_X509_CERT* cert, const Json& link) const;
    Reason judgeUnusable(const PELNIC_X509_CRL* crl, const PELNIC_X509_CERT* root, const Json& json) const;
    std::vector<Candidate> candidatesFor(const PELNIC_X509_CERT* cert, const PELNIC_X509_CERT* root) const;
    // Each leaves where the chain goes on in next_.
    std::optional<Failure> visit(const PELNIC_X509_CERT* cert, Json& link, const std::string& at);
    std::optional<Failure> visitCrls(const PELNIC_X509_CERT* cert, const PELNIC_X509_CERT* root, Json& link,
                                     const std::string& at);
    std::optional<Failure> readBest(const PELNIC_X509_CERT* cert, const PELNIC_X509_CRL* best, const Json& link,
                                    Json& json, const std::string& at);

    PELNIC_VRF* vrf_;
    const Contents& contents_;
    std::map<const PELNIC_X509_CRL*, std::map<std::string, const Json*>> entries_;
    const PELNIC_X509_CERT* next_ = nullptr;
};

} // namespace pkgtool

#endif
