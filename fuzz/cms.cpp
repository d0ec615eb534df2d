// A detached signature, DER or PEM, over a known payload: begin, update and final.
#include "fuzz.h"

namespace pnvfuzz {

bool FuzzCms(CallbackPlan& plan, const Input& input)
{
    Device device(plan);
    device.AddCrls();
    if (pelnic_verify_detach_signature_begin(device, input.data, input.size) != 0) return false;
    if (Update(device, Payload()) != 0) return false;
    const Verdict verdict = Final(device);
    Require(verdict.result == 0 || verdict.result == 1, "a result is 0 or 1");
    return verdict == good;
}

} // namespace pnvfuzz
