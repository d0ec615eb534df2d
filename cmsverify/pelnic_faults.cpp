// Runs, and their reports on failing callbacks.
#include "pelnic_faults.h"

bool _pnvIsDisturbed(const PELNIC_VRF* pVrf)
{
    return pVrf->run.nInProgress != 0 && pVrf->nCallbackFaults != pVrf->run.nFaultsBefore;
}

bool _pnvMayAccept(const PELNIC_VRF* pVrf)
{
    return pVrf->bInputLost == 0 && !_pnvIsDisturbed(pVrf);
}

void _pnvReportFaults(const PELNIC_VRF* pVrf, const PNV_CHAR* function)
{
    if (_pnvMayAccept(pVrf)) return;
    const PNV_CHAR* const reason =
        pVrf->bInputLost != 0
            ? "A callback failed while certificates or CRLs were added: this context accepts nothing any more."
            : "A callback failed during this operation: nothing is accepted.";
    pelnic_log_callback(pVrf, PELNIC_LOG_TYPE_ERROR, __FILE__, __LINE__, function, PELNIC_ERR_SYS_MEM_ALLOC, "%s",
                        reason);
}
