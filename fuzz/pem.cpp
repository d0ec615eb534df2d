// PEM text, or whatever else is not DER, where certificates, CRLs and signatures are read.
#include "fuzz.h"

namespace pnvfuzz {

bool FuzzPem(CallbackPlan& plan, const Input& input)
{
    Device device(plan);
    device.AddCrls();
    const bool isCert = pelnic_verify_add_cert(device, input.data, input.size) == 0;
    const bool isCrl = pelnic_verify_add_crl(device, input.data, input.size) == 0;
    return pelnic_verify_detach_signature_begin(device, input.data, input.size) == 0 || isCert || isCrl;
}

} // namespace pnvfuzz
