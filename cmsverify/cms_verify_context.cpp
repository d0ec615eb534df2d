// Creates, sets and frees the verify context.
#include "cms_verify_context.h"

#include "cms_verify_signer.h"
#include "pelnic_pki_impl.h"
#include "pelnic_plt_proxy.h"

PELNIC_ERROR_CODE _pnvCheckCreateParams(const PELNIC_CTX_CREATE_PARAMS* pParams)
{
    const PELNIC_CALLBACK_FUNCS& funcs = pParams->callback_funcs;
    const PELNIC_SYS_FUNCS& sys = funcs.plt_funcs.sys_funcs;
    if (pParams->st_size != sizeof(PELNIC_CTX_CREATE_PARAMS) || funcs.st_size != sizeof(PELNIC_CALLBACK_FUNCS) ||
        funcs.plt_funcs.st_size != sizeof(PELNIC_PLT_FUNCS) || sys.st_size != sizeof(PELNIC_SYS_FUNCS)) {
        return PELNIC_ERR_INVALID_SIZE;
    }
    // pf_vsnprintf_s, get_file_size, the log and the platform functions may be missing.
    const bool complete =
        sys.mem_funcs.malloc != nullptr && sys.mem_funcs.free != nullptr && sys.mem_funcs.memcmp != nullptr &&
        sys.mem_funcs.memcpy_s != nullptr && sys.mem_funcs.memmove_s != nullptr && sys.mem_funcs.memset_s != nullptr &&
        sys.str_funcs.pf_strcat_s != nullptr && sys.str_funcs.pf_strchr != nullptr &&
        sys.str_funcs.pf_strcmp != nullptr && sys.str_funcs.pf_strcpy_s != nullptr &&
        sys.str_funcs.pf_strlen != nullptr && sys.str_funcs.pf_strncmp != nullptr &&
        sys.str_funcs.pf_strstr != nullptr && sys.file_funcs.fclose != nullptr && sys.file_funcs.fopen != nullptr &&
        sys.file_funcs.fread != nullptr && funcs.md_funcs.pelnic_md_ctx_create != nullptr &&
        funcs.md_funcs.pelnic_md_init != nullptr && funcs.md_funcs.pelnic_md_update != nullptr &&
        funcs.md_funcs.pelnic_md_final != nullptr && funcs.md_funcs.pelnic_md_ctx_destory != nullptr &&
        funcs.crypt_funcs.pelnic_verify_ctx_create != nullptr && funcs.crypt_funcs.pelnic_verify_init != nullptr &&
        funcs.crypt_funcs.pelnic_verify_update != nullptr && funcs.crypt_funcs.pelnic_verify_final != nullptr &&
        funcs.crypt_funcs.pelnic_verify_ctx_destory != nullptr;
    return complete ? 0 : PELNIC_ERR_CALLBACK_MISSING;
}

PELNIC_ERROR_CODE pelnic_verify_create_ctx(PELNIC_VRF_CTX* pCtx, const PELNIC_CTX_CREATE_PARAMS* pParams)
{
    if (pCtx == nullptr || pParams == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_ERROR_CODE rc = _pnvCheckCreateParams(pParams);
    if (rc != 0) return rc;
    const PELNIC_SYS_MEM_FUNCS& mem = pParams->callback_funcs.plt_funcs.sys_funcs.mem_funcs;
    void* block = nullptr;
    rc = mem.malloc(&block, PNV_UINT32{sizeof(PELNIC_VRF)});
    if (rc != 0) return rc;
    *pCtx = nullptr;
    if (block == nullptr) return PELNIC_ERR_SYS_MEM_SET;
    if (mem.memset_s(block, sizeof(PELNIC_VRF), 0, sizeof(PELNIC_VRF)) != 0) {
        mem.free(block);
        return PELNIC_ERR_SYS_MEM_SET;
    }
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(block);
    pVrf->st_size = sizeof(PELNIC_VRF);
    pVrf->callback_funcs = pParams->callback_funcs;
    rc = pelnic_pki_init(pVrf);
    if (rc != 0) {
        mem.free(block);
        return rc;
    }
    *pCtx = pVrf;
    return 0;
}

PELNIC_ERROR_CODE checkContext(PELNIC_VRF_CTX ctx)
{
    if (ctx == nullptr) return PELNIC_ERR_NULL_POINTER;
    return static_cast<const PELNIC_VRF*>(ctx)->st_size == sizeof(PELNIC_VRF) ? 0 : PELNIC_ERR_INVALID_SIZE;
}

PELNIC_ERROR_CODE pelnic_set_verify_params(PELNIC_VRF_CTX ctx, const PELNIC_VRF_PARAMS* pParams)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pParams == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    if (pParams->st_size != sizeof(PELNIC_VRF_PARAMS)) return PNV_FAIL(pVrf, PELNIC_ERR_INVALID_SIZE);
    pVrf->vrf_params = *pParams;
    return 0;
}

PELNIC_ERROR_CODE pelnic_vrf_ctx_free(PELNIC_VRF_CTX ctx)
{
    const PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    pelnic_pki_uninit(pVrf);
    pelnic_list_free(pVrf, _pnvAsList(&pVrf->crl_list), _pnvFreeCrlElement);
    pelnic_list_free(pVrf, _pnvAsList(&pVrf->vrf_proc.md_info_list), freeMdElement);
    pelnic_free(pVrf, pVrf);
    return 0;
}

const PNV_CHAR* pelnic_get_version(void)
{
    return "4.2.0.300-build001";
}
