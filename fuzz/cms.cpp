// A detached signature, DER or PEM, over a known payload: begin, update and final.
#include "fuzz.h"

namespace pnvfuzz {

namespace {

Verdict VerdictOn(const Trial& trial, PELNIC_VRF* vrf, const Bytes& payload)
{
    if (pelnic_verify_detach_signature_begin(vrf, trial.data, trial.size) != 0) return bad;
    if (Update(vrf, payload) != 0) return bad;
    const Verdict verdict = Final(vrf);
    Require(verdict.result == 0 || verdict.result == 1, "a result is 0 or 1");
    return verdict;
}

} // namespace

bool FuzzCms(const Trial& trial)
{
    const bool accepted = VerdictOn(trial, trial.vrf, Payload()) == good;
    if (accepted && trial.crypto == Crypto::Real) {
        const Device device(Holding::Crls);
        Require(!(VerdictOn(trial, device, Text("a firmware imagf")) == good),
                "a signature is good for one payload only");
    }
    return accepted;
}

} // namespace pnvfuzz
