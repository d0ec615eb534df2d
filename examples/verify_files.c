/*
 * verify_files ROOT CRLS SIGNATURE CONTENT
 * Shows: the shortest program on the library. All inputs are files, the callbacks are the default ones.
 * Exit status: 0 accepted, 1 refused, 2 wrong command line.
 */
#include "pelnic_cms_verify.h"

#include <stdio.h>

/* An empty content with a signature that nobody signed is "good" to the library, so it has to be kept away. */
static int is_empty(const char* path)
{
    FILE* const file = fopen(path, "rb");
    const int empty = file == NULL || fgetc(file) == EOF;
    if (file != NULL) fclose(file);
    return empty;
}

int main(int argc, char** argv)
{
    if (argc != 5) return 2;
    if (is_empty(argv[4])) {
        puts("refused: no content");
        return 1;
    }

    PELNIC_CTX_CREATE_PARAMS params = {.st_size = sizeof params};
    pelnic_set_callback_funcs(&params.callback_funcs);

    PELNIC_VRF_CTX ctx = NULL;
    PNV_INT32 result = 0;
    PELNIC_ERROR_CODE rc = pelnic_verify_create_ctx(&ctx, &params);
    if (rc == 0) rc = pelnic_verify_add_cert_file(ctx, argv[1]);
    if (rc == 0) rc = pelnic_verify_add_crl_file(ctx, argv[2]);
    if (rc == 0) rc = pelnic_verify_detach_signature_quick(ctx, argv[4], argv[3], &result);
    if (ctx != NULL) pelnic_vrf_ctx_free(ctx);

    if (rc == 0 && result == 1) {
        puts("accepted");
        return 0;
    }
    printf("refused: code 0x%08x, result %d\n", (unsigned)rc, (int)result);
    return 1;
}
