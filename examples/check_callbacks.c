/*
 * check_callbacks FILE
 * Shows: the conformance test, on a table of the C library and mbedTLS. Put your own table in their place. FILE holds
 * the ten octets "0123456789".
 * Exit status: 0 the table conforms, 1 it does not, 2 wrong command line.
 */
#include "callbacks/libc_platform.h"
#include "callbacks/mbedtls_crypto.h"
#include "conformance/callback_conformance.h"

#include <stdio.h>

static void print_failure(const char* failure)
{
    printf("does not hold: %s\n", failure);
}

int main(int argc, char** argv)
{
    if (argc != 2) return 2;
    PELNIC_CALLBACK_FUNCS funcs;
    libc_platform(&funcs);
    mbedtls_crypto(&funcs);
    const unsigned failures = callback_conformance(&funcs, argv[1], print_failure);
    printf("%u failures\n", failures);
    return failures == 0 ? 0 : 1;
}
