// A detached signature, DER or PEM, over a known payload: begin, update and final.
#include "fuzz.h"

namespace pnvfuzz {

namespace {

Verdict VerdictOn(const Trial& trial, const Bytes& payload)
{
    Device device(trial.plan);
    device.AddCrls();
    if (pelnic_verify_detach_signature_begin(device, trial.data, trial.size) != 0) return bad;
    if (Update(device, payload) != 0) return bad;
    const Verdict verdict = Final(device);
    Require(verdict.result == 0 || verdict.result == 1, "a result is 0 or 1");
    return verdict;
}

} // namespace

bool FuzzCms(const Trial& trial)
{
    const bool accepted = VerdictOn(trial, Payload()) == good;
    if (accepted && trial.crypto == Crypto::Real) {
        Require(!(VerdictOn(trial, Text("a firmware imagf")) == good), "a signature is good for one payload only");
    }
    return accepted;
}

} // namespace pnvfuzz
