/* The public header in a program written in C11, compiled and linked as such. */
#include "pelnic_cms_verify.h"

#include <string.h>

#define TEXT(macro) TEXT_OF(macro)
#define TEXT_OF(value) #value

_Static_assert(sizeof(PNV_UINT32) == 4 && (PNV_UINT32)-1 > 0, "unsigned, 32 bits");
_Static_assert(sizeof(PNV_TIME_T) == 8 && (PNV_TIME_T)-1 < 0, "signed, 64 bits");
_Static_assert(sizeof(PNV_BOOL) == 4, "an enumeration would have no fixed size");
_Static_assert(offsetof(PELNIC_CALLBACK_FUNCS, st_size) == 0, "the callee reads the size first");
_Static_assert(offsetof(PELNIC_CTX_CREATE_PARAMS, st_size) == 0, "the callee reads the size first");
_Static_assert(offsetof(PELNIC_VRF_PARAMS, st_size) == 0, "the callee reads the size first");

/* Each failure has an exit status of its own. */
int main(void)
{
    PELNIC_CALLBACK_FUNCS funcs;
    PELNIC_SYS_MEM_FUNCS* mem = &funcs.plt_funcs.sys_funcs.mem_funcs;
    void* block = NULL;

    if (pelnic_set_callback_funcs(NULL) == 0) return 1;
    if (pelnic_set_callback_funcs(&funcs) != 0) return 2;
    if (funcs.st_size != sizeof funcs) return 3;
    if (mem->malloc(&block, 16) != 0 || block == NULL) return 4;
    if (mem->memset_s(block, 16, 0, 17) == 0) return 5;
    mem->free(block);
    if (strcmp(CMSVERIFY_VERSION,
               TEXT(CMSVERIFY_VERSION_MAJOR) "." TEXT(CMSVERIFY_VERSION_MINOR) "." TEXT(CMSVERIFY_VERSION_PATCH)) != 0)
        return 6;
    return 0;
}
