/* The platform part of a callback table on ISO C alone: memory, strings and files. */
#ifndef EXAMPLE_LIBC_PLATFORM_H
#define EXAMPLE_LIBC_PLATFORM_H

#include "pelnic_cms_verify.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Clears the table and fills in its sizes and its platform part. The log stays out: the library is silent. */
void libc_platform(PELNIC_CALLBACK_FUNCS* funcs);

#ifdef __cplusplus
}
#endif

#endif
