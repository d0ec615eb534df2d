// What the fuzz targets share. A target feeds one input to one entry of the library and is called alike by libFuzzer
// and by the replay of the corpora. It runs on a callback table that tracks every block and handle, with either of two
// cryptographies: the real one, and one under which every signature is good and every digest is the same, so that
// damaged inputs get behind the checks.
#ifndef PNVFUZZ_FUZZ_H
#define PNVFUZZ_FUZZ_H

#include "support/signature.h"

namespace pnvfuzz {

using namespace pnvtest;

enum class Crypto { Real, Lenient };

// What the lenient cryptography answers to any message, whatever the algorithm's size.
constexpr std::uint8_t kLenientDigestOctet = 0x00;

struct Trial {
    CallbackPlan& plan;
    Crypto crypto;            // of the plan
    const std::uint8_t* data; // the input; ends where its heap block ends
    PNV_UINT32 size;
};

// Whether the library took the input for what the target is about. Problems that the plan cannot see are thrown.
struct Target {
    const char* name; // of the corpus, too
    bool (*run)(const Trial& trial);
};

bool FuzzCertificate(const Trial& trial);
bool FuzzCrl(const Trial& trial);
bool FuzzExtension(const Trial& trial);
bool FuzzCms(const Trial& trial);
bool FuzzTimestamp(const Trial& trial);
bool FuzzPem(const Trial& trial);
bool FuzzBase64(const Trial& trial);
bool FuzzCrlBundle(const Trial& trial);
bool FuzzPackage(const Trial& trial);

constexpr Target kTargets[] = {
    {"certificate", FuzzCertificate}, {"crl", FuzzCrl}, {"extension", FuzzExtension}, {"cms", FuzzCms},
    {"timestamp", FuzzTimestamp},     {"pem", FuzzPem}, {"base64", FuzzBase64},       {"crl_bundle", FuzzCrlBundle},
    {"package", FuzzPackage},
};

struct Outcome {
    bool taken;
    std::vector<std::string> problems; // must be empty
};
Outcome RunInput(const Target& target, Crypto crypto, const std::uint8_t* data, std::size_t size);

// Throws, and so makes a problem, unless the condition holds.
void Require(bool condition, const char* promise);

// A signed object as it is, but for the last octet of the signature that it ends with.
Bytes WithOtherEnd(const std::uint8_t* data, std::size_t size);

// ---- What the inputs are judged by: the PKI whose root the tests' checker trusts

const DemoPki& Pki();
const Bytes& Payload();

// A context that trusts the root and judges in 2026.
class Device : public Context {
public:
    explicit Device(CallbackPlan& plan);
    // Adds the CRLs of all CAs.
    void AddCrls();
};

} // namespace pnvfuzz

#endif
