// The checker's process.
#include "pkgcheck.h"

#ifdef PKGCHECK_OPENSSL
#include <openssl/crypto.h>
#endif

// Starts libcrypto with what a check needs: no texts of errors, no names of ciphers and digests, and no clean-up of
// what the end of the process frees anyway. That holds for the life of the process, so it is the program's to decide
// and none of the library's business.
static void startCrypto()
{
#ifdef PKGCHECK_OPENSSL
    (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS |
                                  OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS |
                                  OPENSSL_INIT_NO_ATEXIT,
                              nullptr); // where it fails, the check meets it again
#endif
}

int main(int argc, char** argv)
{
    startCrypto();
    return pkgcheck_run(argc, argv);
}
