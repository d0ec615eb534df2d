// The witness's report on one verification, kept after it.
#ifndef PKGTOOL_TESTIMONY_H
#define PKGTOOL_TESTIMONY_H

#include "files.h"

#include "cmsverify/pelnic_witness.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace pkgtool {

// A certificate or CRL by its signed part, its key in Contents; null for none.
using Part = const Bytes*;

// The codes of the decisions made, 0 for yes.
using Codes = std::map<Decision, PELNIC_ERROR_CODE>;

// The undecodable element.
struct ElementFault {
    DecodeFault fault;
    std::string path;     // by the names of the tables' rows; empty for the whole input
    std::string expected; // as ASN.1 writes it, or empty
    std::string missing;  // the name of a field that is not there
    Bytes found;          // the first octets that stand there
    Bytes input;          // the beginning of what was decoded
    std::size_t offset;   // in the input
};

struct CrlTestimony {
    Part crl;
    CrlUnfit unfit;
    PNV_UINT32 score;
};

// The checks of a certificate in a chain.
struct LinkTestimony {
    Codes codes;
    std::vector<CrlTestimony> crls;
    Part chosen = nullptr; // CRL
    std::size_t entry = 0; // of the chosen CRL: the one that decided
    Part issuer = nullptr;
};

// The checks of a signer or a timestamp authority.
struct SignerTestimony {
    Codes codes;
    Part cert = nullptr;
    bool isPurposeAsked = false; // the failing usage is the extended key usage
    PNV_TIME_T time = 0;
    std::map<Part, LinkTestimony> links;
    std::map<Part, Part> crlIssuers;
    std::vector<SignerTestimony> authorities;
};

struct Testimony {
    Codes codes; // of the inputs and the payload
    std::vector<SignerTestimony> signers;
    std::optional<ElementFault> element; // the last one before the end
    std::set<Part> taken;                // certificates of a signature that were added to a store
    std::set<Bytes> parts;               // the storage that the others point to
};

// 0 also for a decision that was not reached.
inline PELNIC_ERROR_CODE codeOf(const Codes& codes, Decision decision)
{
    const auto found = codes.find(decision);
    return found != codes.end() ? found->second : 0;
}

// Records the report on this thread's one verification during its life.
class Listening {
public:
    explicit Listening(Testimony& testimony) : testimony_(testimony), before_(_pnvSetWitness({keep, this})) {}
    ~Listening() { (void)_pnvSetWitness(before_); }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

private:
    static void keep(void* listening, const WitnessEvent& event);
    template <typename Record> Part partOf(const Record* record);
    CrlTestimony& crlIn(LinkTestimony& link, const PELNIC_X509_CRL* record);
    void keepLink(LinkTestimony& link, const WitnessEvent& event);
    void keepSigner(SignerTestimony& signer, const WitnessEvent& event);
    void keepInput(const WitnessEvent& event);

    Testimony& testimony_;
    std::map<const void*, Part> known_; // the library's records, whose addresses do not change
    Witness before_;
};

} // namespace pkgtool

#endif
