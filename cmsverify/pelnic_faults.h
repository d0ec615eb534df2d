// What failing callbacks do to verdicts: the whole rule, and what keeps it, with the class FaultWatch of the proxies.
//
// The proxies count failing memory, copy and verification callbacks, because where one fails its failure can look like
// an ordinary answer: "not equal", "no CA", "no CRL".
//
// - A run is one public operation, or one internal entry of the PKI called on its own. A run in which a callback failed
//   accepts nothing, says so in the log, and leaves nothing behind that a later run would go by.
// - An operation that reports its failure has lost nothing that its caller does not know of. It spoils the context only
//   where it took something in behind what it had to leave out: the order counts, and cannot be made good.
// - An operation that returns 0 although a failing callback cost it a certificate or CRL spoils the context: what is
//   missing may be what revokes, so nothing is accepted from then on.
// - A failure that cost nothing is forgiven: a log record, or an attempt to read a CRL as a certificate.
#ifndef PELNIC_FAULTS_H
#define PELNIC_FAULTS_H

#include "pelnic_plt_proxy.h"

// In scope during a run. Runs nest: the outermost one is what counts.
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
// Where nothing can be, says so in one record at error level, with PELNIC_ERR_SYS_MEM_ALLOC and the name of the
// function that gives the verdict. Called where an outermost run refuses.
void _pnvReportFaults(const PELNIC_VRF* pVrf, const PNV_CHAR* function);

#endif
