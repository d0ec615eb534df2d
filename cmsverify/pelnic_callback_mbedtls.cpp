// The default crypto callbacks on mbedTLS: those of the example.
#include "examples/callbacks/mbedtls_crypto.h"
#include "pelnic_callback_fun.h"

void _pnvSetCryptoCallbacks(PELNIC_CALLBACK_FUNCS* funcs)
{
    mbedtls_crypto(funcs);
}
