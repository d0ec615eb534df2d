/*
 * verify_stream ROOT CRLS SIGNATURE <CONTENT
 * Shows: a content that comes in parts and is never in memory as a whole. The signature is judged before the first part
 * is taken, so a download that nobody may sign can be given up at once. A log callback says why something is refused.
 * Exit status: 0 accepted, 1 refused, 2 wrong command line.
 */
#include "pelnic_cms_verify.h"

#include <stdio.h>

static PNV_BYTE input[1 << 20];

static void print_failure(PELNIC_LOG_TYPE level, const PNV_CHAR* file, PNV_INT line, const PNV_CHAR* function,
                          PNV_THREAD_ID thread, PNV_TIME_T time, PELNIC_ERROR_CODE rc, const PNV_CHAR* message)
{
    (void)file;
    (void)line;
    (void)thread;
    (void)time;
    fprintf(stderr, "%s: %s: %s (0x%08x)\n", level == PELNIC_LOG_TYPE_ERROR ? "error" : "warning", function,
            message == NULL ? "" : message, (unsigned)rc);
}

/* The octets of a file in `input`; 0 when it is too large, empty or not readable, which the library refuses. */
static PNV_UINT32 load(const char* path)
{
    FILE* const file = fopen(path, "rb");
    if (file == NULL) return 0;
    const size_t length = fread(input, 1, sizeof input, file);
    const int whole = !ferror(file) && fgetc(file) == EOF;
    fclose(file);
    return whole ? (PNV_UINT32)length : 0;
}

/* The library takes no empty part, so a stream without a single octet is refused here. */
static PELNIC_ERROR_CODE feed(PELNIC_VRF_CTX ctx, FILE* content)
{
    PELNIC_ERROR_CODE rc = PELNIC_ERR_FAILED;
    size_t length = fread(input, 1, sizeof input, content);
    while (length > 0) {
        rc = pelnic_verify_detach_signature_update(ctx, input, (PNV_INT)length);
        if (rc != 0) return rc;
        length = fread(input, 1, sizeof input, content);
    }
    return ferror(content) ? PELNIC_ERR_FAILED : rc;
}

/* `final` comes only after everything before it has returned 0: with nothing begun it would say "good". */
static PELNIC_ERROR_CODE verify(PELNIC_VRF_CTX ctx, char** files, FILE* content, PNV_INT32* result)
{
    PELNIC_ERROR_CODE rc = pelnic_verify_add_cert(ctx, input, load(files[0]));
    if (rc == 0) rc = pelnic_verify_add_crl(ctx, input, load(files[1]));
    if (rc == 0) rc = pelnic_verify_detach_signature_begin(ctx, input, load(files[2]));
    if (rc == 0) rc = feed(ctx, content);
    if (rc == 0) rc = pelnic_verify_detach_signature_final(ctx, result);
    return rc;
}

int main(int argc, char** argv)
{
    if (argc != 4) return 2;

    PELNIC_CTX_CREATE_PARAMS params = {.st_size = sizeof params};
    pelnic_set_callback_funcs(&params.callback_funcs);
    params.callback_funcs.plt_funcs.log_funcs.log_func = print_failure;

    PELNIC_VRF_CTX ctx = NULL;
    PELNIC_ERROR_CODE rc = pelnic_verify_create_ctx(&ctx, &params);
    if (rc != 0) return 1;
    PNV_INT32 result = 0;
    rc = verify(ctx, argv + 1, stdin, &result);
    pelnic_vrf_ctx_free(ctx);

    if (rc == 0 && result == 1) {
        puts("accepted");
        return 0;
    }
    printf("refused: code 0x%08x, result %d\n", (unsigned)rc, (int)result);
    return 1;
}
