// PEM text, or whatever else is not DER, where certificates, CRLs and signatures are read.
#include "fuzz.h"

namespace pnvfuzz {

bool FuzzPem(const Trial& trial)
{
    const bool isCert = pelnic_verify_add_cert(trial.vrf, trial.data, trial.size) == 0;
    const bool isCrl = pelnic_verify_add_crl(trial.vrf, trial.data, trial.size) == 0;
    return pelnic_verify_detach_signature_begin(trial.vrf, trial.data, trial.size) == 0 || isCert || isCrl;
}

} // namespace pnvfuzz
