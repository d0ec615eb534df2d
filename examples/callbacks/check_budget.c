#include "check_budget.h"

#define MAX_EXPONENT 8 /* octets; 65537 has three */

static pfunc_pelnic_verify_init unlimited;
static PNV_UINT32 left;
static int spent;

static PELNIC_ERROR_CODE verify_init(PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e, const PELNIC_BIGINT* n,
                                     PNV_UINT32 hash_id)
{
    if (left == 0 || e->uiLength > MAX_EXPONENT) spent = 1;
    if (spent) return PELNIC_ERR_FAILED;
    --left;
    return unlimited(ctx, e, n, hash_id);
}

void check_budget(PELNIC_CALLBACK_FUNCS* funcs, PNV_UINT32 checks)
{
    unlimited = funcs->crypt_funcs.pelnic_verify_init;
    funcs->crypt_funcs.pelnic_verify_init = verify_init;
    left = checks;
    spent = 0;
}

int check_budget_is_spent(void)
{
    return spent;
}
