/*
 * verify_why ROOT CRLS SIGNATURE CONTENT
 * Shows: the reason of a refusal as 64 digits for the device's log, which "pkgtool code" reads. Needs a library that
 * was built with CMSVERIFY_WITNESS. Exit status: 0 accepted, 1 refused, 2 wrong command line.
 */
#include "pelnic_cms_witness.h"

#include <stdio.h>

static void log_reason(void* user, const PNV_BYTE* reason)
{
    FILE* const log = user;
    int i;
    fputs("reason ", log);
    for (i = 0; i < PELNIC_REASON_SIZE; ++i) fprintf(log, "%02x", reason[i]);
    fputs("\n", log);
}

int main(int argc, char** argv)
{
    if (argc != 5) return 2;
    PELNIC_CTX_CREATE_PARAMS params = {.st_size = sizeof params};
    pelnic_set_callback_funcs(&params.callback_funcs);
    pelnic_set_witness(log_reason, stdout);

    PELNIC_VRF_CTX ctx = NULL;
    PNV_INT32 result = 0;
    PELNIC_ERROR_CODE rc = pelnic_verify_create_ctx(&ctx, &params);
    if (rc == 0) rc = pelnic_verify_add_cert_file(ctx, argv[1]);
    if (rc == 0) rc = pelnic_verify_add_crl_file(ctx, argv[2]);
    if (rc == 0) rc = pelnic_verify_detach_signature_quick(ctx, argv[4], argv[3], &result);
    if (ctx != NULL) pelnic_vrf_ctx_free(ctx);
    pelnic_set_witness(NULL, NULL);

    if (rc == 0 && result == 1) {
        puts("accepted"); /* an empty content is kept away as in verify_files.c */
        return 0;
    }
    printf("refused: code 0x%08x, result %d\n", (unsigned)rc, (int)result);
    return 1;
}
