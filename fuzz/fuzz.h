// What the fuzz targets share. A target feeds one input to one entry of the library and is called alike by libFuzzer
// and by the replay of the corpora. It runs on a callback table that tracks every block and handle, with either of two
// cryptographies: the real one, and one under which every signature is good and every digest is the same, so that
// damaged inputs get behind the checks.
#ifndef PNVFUZZ_FUZZ_H
#define PNVFUZZ_FUZZ_H

#include "support/signature.h"

namespace pnvfuzz {

using namespace pnvtest;

// Borrowed; ends where its heap block ends.
struct Input {
    const std::uint8_t* data;
    PNV_UINT32 size;
};

enum class Crypto { Real, Lenient };

// What the lenient cryptography answers to any message, whatever the algorithm's size.
constexpr std::uint8_t kLenientDigestOctet = 0x00;

struct Target {
    const char* name; // of the corpus, too
    // Whether the library took the input for what the target is about. Problems that the table cannot see are thrown.
    bool (*run)(CallbackPlan& plan, const Input& input);
};

bool FuzzCertificate(CallbackPlan& plan, const Input& input);
bool FuzzCrl(CallbackPlan& plan, const Input& input);
bool FuzzExtension(CallbackPlan& plan, const Input& input);
bool FuzzCms(CallbackPlan& plan, const Input& input);
bool FuzzTimestamp(CallbackPlan& plan, const Input& input);
bool FuzzPem(CallbackPlan& plan, const Input& input);
bool FuzzBase64(CallbackPlan& plan, const Input& input);
bool FuzzCrlBundle(CallbackPlan& plan, const Input& input);
bool FuzzPackage(CallbackPlan& plan, const Input& input);

const std::vector<Target>& Targets();
const Target& TargetOf(std::string_view name);

struct Outcome {
    bool taken;
    std::vector<std::string> problems; // must be empty
};
Outcome RunInput(const Target& target, Crypto crypto, const Input& input);

// Throws, and so makes a problem, unless the condition holds.
void Require(bool condition, const char* promise);

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
