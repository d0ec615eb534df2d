/* A limit on the signatures that one verification checks. Whoever hands packages to a board can make it check as many
 * as fit, with keys as slow as they like, and needs no key of anybody's for it. */
#ifndef EXAMPLE_CHECK_BUDGET_H
#define EXAMPLE_CHECK_BUDGET_H

#include "pelnic_cms_verify.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Wraps the table's verify_init, which has to be there: behind so many signatures, and for an RSA exponent of more than
 * 8 octets, it answers with a code. A code means "could not answer", so nothing is accepted. Callbacks know no context:
 * one verification at a time, on one thread. */
void check_budget(PELNIC_CALLBACK_FUNCS* funcs, PNV_UINT32 checks);

/* Whether the budget has refused a check. */
int check_budget_is_spent(void);

#ifdef __cplusplus
}
#endif

#endif
