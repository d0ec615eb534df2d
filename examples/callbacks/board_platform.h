/* The platform part of a callback table for a board without files, whose memory is one block of fixed size. */
#ifndef EXAMPLE_BOARD_PLATFORM_H
#define EXAMPLE_BOARD_PLATFORM_H

#include "pelnic_cms_verify.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Like libc_platform, but with this pool and without files. Callbacks know no context, so there is one pool at a time,
 * for one thread; memory is aligned for any type and belongs to the pool from here on. */
void board_platform(PELNIC_CALLBACK_FUNCS* funcs, void* memory, size_t size);

/* How many octets, from the first one on, the pool has ever had in use: a pool of that size would have done. */
size_t board_pool_peak(void);
/* Octets in use; 0 when everything came back. */
size_t board_pool_in_use(void);

#ifdef __cplusplus
}
#endif

#endif
