// The verify context.
#ifndef CMS_VERIFY_CONTEXT_H
#define CMS_VERIFY_CONTEXT_H

#include "pelnic_vrf.h"

// The argument checks of pelnic_verify_create_ctx, in order; unlogged.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCheckCreateParams(const PELNIC_CTX_CREATE_PARAMS* pParams);
// The check of the handle that begins every operation; never logged.
[[nodiscard]] PELNIC_ERROR_CODE checkContext(PELNIC_VRF_CTX ctx);

#endif
