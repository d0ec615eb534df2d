// What the fuzz targets share. A target feeds one input to one entry of the library and is called alike by libFuzzer
// and by the replay of the corpora. It runs on the table of table.h, with either of its two cryptographies.
#ifndef PNVFUZZ_FUZZ_H
#define PNVFUZZ_FUZZ_H

#include "table.h"

#include "support/signature.h"

namespace pnvfuzz {

using namespace pnvtest;

// What a target gets. The contexts are prepared once and put back for every input: each trusts the root, judges in 2026
// and holds what the target asked for.
struct Trial {
    const std::uint8_t* data; // the input; ends where its heap block ends
    PNV_UINT32 size;
    Crypto crypto;
    PELNIC_VRF* vrf;   // the context
    PELNIC_VRF* other; // and a second one, for the targets that ask for two
};

enum class Holding {
    Root,
    Crls,      // of all CAs, too
    CrlsInUse, // and as begin leaves them
};

struct Target {
    const char* name; // of the corpus, too
    // Whether the library took the input for what the target is about. What no table can see is thrown.
    bool (*run)(const Trial& trial);
    Holding holding = Holding::Root;
    bool isDouble = false;
    // For the mutator, which takes an input for DER: whether it is a package, and how many octets stand before the DER.
    bool isPackage = false;
    std::size_t (*prefix)(const Bytes& input) = nullptr;
};

bool FuzzCertificate(const Trial& trial);
bool FuzzCrl(const Trial& trial);
bool FuzzExtension(const Trial& trial);
bool FuzzCms(const Trial& trial);
bool FuzzTimestamp(const Trial& trial);
bool FuzzPem(const Trial& trial);
bool FuzzBase64(const Trial& trial);
bool FuzzCrlBundle(const Trial& trial);
bool FuzzCallbacks(const Trial& trial);
bool FuzzPackage(const Trial& trial);
bool FuzzPkgtool(const Trial& trial);
bool FuzzResponse(const Trial& trial);

std::size_t CrlBundlePrefix(const Bytes& input);
std::size_t CallbacksPrefix(const Bytes& input);

// Of the program: those of the library, or those of pkgtool.
const std::vector<Target>& Targets();

struct Outcome {
    bool taken;
    std::vector<std::string> problems; // must be empty
};
Outcome RunInput(const Target& target, Crypto crypto, const std::uint8_t* data, std::size_t size);

// Throws, and so makes a problem, unless the condition holds.
void Require(bool condition, const char* promise);

// While there is one, the checker's callbacks are the fuzzers' table.
class CheckersTurn {
public:
    CheckersTurn();
    ~CheckersTurn();
    CheckersTurn(const CheckersTurn&) = delete;
    CheckersTurn& operator=(const CheckersTurn&) = delete;
};

// A signed object as it is, but for the last octet of the signature that it ends with.
Bytes WithOtherEnd(const std::uint8_t* data, std::size_t size);

// ---- What the inputs are judged by: the PKI whose root the tests' checker trusts

const DemoPki& Pki();
const Bytes& Payload();

// A context like that of a trial, made now: for a second look at an input.
class Device {
public:
    explicit Device(Holding holding);
    ~Device() { (void)pelnic_vrf_ctx_free(vrf_); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    operator PELNIC_VRF*() const { return vrf_; }

private:
    PELNIC_VRF* vrf_;
};

} // namespace pnvfuzz

#endif
