// The fixed order of library calls behind a package's verdict.
#include "verify_signature.h"

#include "rules.h"

// The operations on a context, up to the first failure.
static PELNIC_ERROR_CODE verifyWith(PELNIC_VRF_CTX ctx, const PELNIC_VERIFY_SIGNATURE_S& sig, PNV_INT32* VerifyRet)
{
    PELNIC_ERROR_CODE rc = pelnic_verify_add_cert(ctx, sig.pCert, sig.uiCertLength);
    if (rc == 0) rc = pelnic_verify_add_crl(ctx, sig.pCrl, sig.uiCrlLength);
    if (rc == 0) rc = pelnic_verify_detach_signature_begin(ctx, sig.pCms, sig.uiCmsLength);
    // The interface's length is signed, but only its bit pattern counts.
    if (rc == 0) rc = pelnic_verify_detach_signature_update(ctx, sig.pBin, static_cast<PNV_INT>(sig.uiBinLength));
    if (rc == 0) rc = pelnic_verify_detach_signature_final(ctx, VerifyRet);
    return rc;
}

PELNIC_ERROR_CODE Pelnic_Verify_Signature_Over(func_pelnic_give_table giveTable,
                                               const PELNIC_VERIFY_SIGNATURE_S* pstSig, func_pelnic_log_callback log)
{
    if (pstSig == nullptr) return PELNIC_ERR_FAILED;
    const PELNIC_VERIFY_SIGNATURE_S sig = *pstSig;
    if (sig.pCert == nullptr || sig.pCrl == nullptr || sig.pCms == nullptr || sig.pBin == nullptr) {
        return PELNIC_ERR_FAILED;
    }
    PELNIC_CTX_CREATE_PARAMS params = {};
    params.st_size = sizeof params;
    PELNIC_ERROR_CODE rc = giveTable(&params.callback_funcs);
    if (rc != 0) return rc;
    if (log != nullptr) params.callback_funcs.plt_funcs.log_funcs.log_func = log;
    pkgcheck_limit_work(&params.callback_funcs);
    PELNIC_VRF_CTX ctx = nullptr;
    rc = pelnic_verify_create_ctx(&ctx, &params);
    if (rc != 0) return rc;
    PNV_INT32 VerifyRet = 0;
    rc = verifyWith(ctx, sig, &VerifyRet);
    (void)pelnic_vrf_ctx_free(ctx); // a context made here can be freed
    if (rc != 0) return rc;
    return VerifyRet == 1 && pkgcheck_work_refusal() == nullptr ? 0 : PELNIC_ERR_FAILED;
}

PELNIC_ERROR_CODE Pelnic_Verify_Signature_Logged(const PELNIC_VERIFY_SIGNATURE_S* pstSig, func_pelnic_log_callback log)
{
    return Pelnic_Verify_Signature_Over(pelnic_set_callback_funcs, pstSig, log);
}

PELNIC_ERROR_CODE Pelnic_Verify_Signature_Integrity(const PELNIC_VERIFY_SIGNATURE_S* pstSig)
{
    return Pelnic_Verify_Signature_Logged(pstSig, nullptr);
}
