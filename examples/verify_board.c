/*
 * verify_board ROOT CRLS SIGNATURE CONTENT [POOL]
 * Shows: the library without OpenSSL, heap and files. What the board has in flash is read from files here; from then on
 * the library's memory is a pool of POOL octets, and the peak of its use is printed.
 * Exit status: 0 accepted, 1 refused, 2 wrong command line.
 */
#include "callbacks/board_platform.h"
#include "callbacks/check_budget.h"
#include "callbacks/mbedtls_crypto.h"

#include <stdio.h>
#include <stdlib.h>

#define PART 4096
#define CHECKS 200 /* a package takes 10, and 2 for each signer more */

static max_align_t pool[(256 << 10) / sizeof(max_align_t)];

/* An image in flash. */
typedef struct {
    PNV_BYTE octets[1 << 20];
    PNV_UINT32 length;
} IMAGE;
static IMAGE root, crls, signature, content;

static void load(IMAGE* image, const char* path)
{
    FILE* const file = fopen(path, "rb");
    if (file == NULL) return;
    image->length = (PNV_UINT32)fread(image->octets, 1, sizeof image->octets, file);
    fclose(file);
}

static PELNIC_ERROR_CODE feed(PELNIC_VRF_CTX ctx)
{
    PELNIC_ERROR_CODE rc = PELNIC_ERR_FAILED;
    for (PNV_UINT32 from = 0; from < content.length; from += PART) {
        const PNV_UINT32 left = content.length - from;
        rc = pelnic_verify_detach_signature_update(ctx, content.octets + from, (PNV_INT)(left < PART ? left : PART));
        if (rc != 0) return rc;
    }
    return rc;
}

static PELNIC_ERROR_CODE verify(const PELNIC_CTX_CREATE_PARAMS* params, PNV_INT32* result)
{
    PELNIC_VRF_CTX ctx = NULL;
    PELNIC_ERROR_CODE rc = pelnic_verify_create_ctx(&ctx, params);
    if (rc != 0) return rc;
    rc = pelnic_verify_add_cert(ctx, root.octets, root.length);
    if (rc == 0) rc = pelnic_verify_add_crl(ctx, crls.octets, crls.length);
    if (rc == 0) rc = pelnic_verify_detach_signature_begin(ctx, signature.octets, signature.length);
    if (rc == 0) rc = feed(ctx);
    if (rc == 0) rc = pelnic_verify_detach_signature_final(ctx, result);
    pelnic_vrf_ctx_free(ctx);
    return rc;
}

int main(int argc, char** argv)
{
    if (argc != 5 && argc != 6) return 2;
    const size_t size = argc == 6 ? strtoul(argv[5], NULL, 10) : sizeof pool;
    if (size > sizeof pool) return 2;
    load(&root, argv[1]);
    load(&crls, argv[2]);
    load(&signature, argv[3]);
    load(&content, argv[4]);

    PELNIC_CTX_CREATE_PARAMS params = {.st_size = sizeof params};
    board_platform(&params.callback_funcs, pool, size);
    mbedtls_crypto(&params.callback_funcs);
    check_budget(&params.callback_funcs, CHECKS);
    PNV_INT32 result = 0;
    const PELNIC_ERROR_CODE rc = verify(&params, &result);

    const int accepted = rc == 0 && result == 1;
    printf("%s: code 0x%08x, result %d\n", accepted ? "accepted" : "refused", (unsigned)rc, (int)result);
    if (check_budget_is_spent()) printf("stopped: more signatures to check, or larger exponents, than allowed\n");
    printf("pool: %zu of %zu octets at the peak, %zu now\n", board_pool_peak(), size, board_pool_in_use());
    return accepted ? 0 : 1;
}
