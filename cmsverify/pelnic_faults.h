// The effect of failing callbacks on verdicts: the whole rule, enforced here and by class FaultWatch of the proxies.
//
// The proxies count failing memory, copy and verification callbacks, because a failure can look like an ordinary
// answer: "not equal", "no CA", "no CRL".
//
// - A run is one public operation, or one internal entry of the PKI called on its own. A run with a failed callback
//   accepts nothing, says so in the log, and leaves nothing behind that a later run relies on.
// - An operation that reports its failure has lost nothing without its caller's knowledge. It spoils the context only
//   if it added an object after one that it had to leave out: the order matters and cannot be repaired.
// - An operation that returns 0 although a failing callback cost it a certificate or CRL spoils the context: the
//   missing object may be the one that revokes, so nothing is accepted from then on.
// - A failure that cost nothing is forgiven: a log record, or an attempt to read a CRL as a certificate.
#ifndef PELNIC_FAULTS_H
#define PELNIC_FAULTS_H

#include "pelnic_plt_proxy.h"

// In scope during a run. Runs nest; the outermost one counts.
class OperationRun {
public:
    explicit OperationRun(const PELNIC_VRF* ctx) : pVrf(ctx)
    {
        if (pVrf->run.nInProgress++ != 0) return;
        ++pVrf->run.nNumber;
        pVrf->run.nFaultsBefore = pVrf->nCallbackFaults;
    }
    ~OperationRun() { --pVrf->run.nInProgress; }
    OperationRun(const OperationRun&) = delete;
    OperationRun& operator=(const OperationRun&) = delete;

    bool isOutermost() const { return pVrf->run.nInProgress == 1; }
    PNV_UINT64 number() const { return pVrf->run.nNumber; }

private:
    const PELNIC_VRF* const pVrf;
};

// Whether a callback has failed in the run in progress.
[[nodiscard]] bool _pnvIsDisturbed(const PELNIC_VRF* pVrf);
// Whether anything can be accepted at all.
[[nodiscard]] bool _pnvMayAccept(const PELNIC_VRF* pVrf);
// If nothing can be accepted, logs one record at error level with PELNIC_ERR_SYS_MEM_ALLOC and the name of the function
// that gives the verdict. Called where an outermost run refuses.
void _pnvReportFaults(const PELNIC_VRF* pVrf, const PNV_CHAR* function);

#endif
