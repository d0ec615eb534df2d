// The checker's process.
#include "pkgcheck.h"

#ifdef PKGCHECK_OPENSSL
#include <openssl/crypto.h>
#endif

// Initialises only the parts of libcrypto that a check needs: no error texts, no names of ciphers and digests, and no
// clean-up of memory that the end of the process frees anyway. That lasts for the life of the process, so the program
// decides it and not the library.
static void startCrypto()
{
#ifdef PKGCHECK_OPENSSL
    (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS |
                                  OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS |
                                  OPENSSL_INIT_NO_ATEXIT,
                              nullptr); // the check meets a failure again
#endif
}

int main(int argc, char** argv)
{
    startCrypto();
    return pkgcheck_run(argc, argv);
}
