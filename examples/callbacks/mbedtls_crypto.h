/* The crypto part of a callback table on mbedTLS 2.28 or 3.6: SHA-2 and RSA PKCS #1 v1.5. */
#ifndef EXAMPLE_MBEDTLS_CRYPTO_H
#define EXAMPLE_MBEDTLS_CRYPTO_H

#include "pelnic_cms_verify.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fills in md_funcs and crypt_funcs and leaves the rest of the table as it is. */
void mbedtls_crypto(PELNIC_CALLBACK_FUNCS* funcs);

#ifdef __cplusplus
}
#endif

#endif
