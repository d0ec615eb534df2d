// One call that verifies a signed payload with the library.
#ifndef PKGCHECK_VERIFY_SIGNATURE_H
#define PKGCHECK_VERIFY_SIGNATURE_H

#include "pelnic_cms_verify.h"

// Four borrowed byte ranges.
typedef struct pelnic_verify_signature_st {
    const PNV_BYTE* pCert; // the trusted root certificate
    PNV_UINT32 uiCertLength;
    const PNV_BYTE* pCrl;
    PNV_UINT32 uiCrlLength;
    const PNV_BYTE* pCms; // the detached signature over pBin
    PNV_UINT32 uiCmsLength;
    const PNV_BYTE* pBin; // the payload
    PNV_UINT32 uiBinLength;
} PELNIC_VERIFY_SIGNATURE_S;

// 0 if the signature is valid. PELNIC_ERR_FAILED for a null record or pointer and for any result but valid; the
// library's code if one of its operations fails. The lengths are not checked.
PELNIC_ERROR_CODE Pelnic_Verify_Signature_Integrity(const PELNIC_VERIFY_SIGNATURE_S* pstSig);
// The same with a log for the library's records; null keeps the default log, which writes nowhere.
PELNIC_ERROR_CODE Pelnic_Verify_Signature_Logged(const PELNIC_VERIFY_SIGNATURE_S* pstSig, func_pelnic_log_callback log);

// Fills a callback table, or returns the code with which the verification ends.
typedef PELNIC_ERROR_CODE (*func_pelnic_give_table)(PELNIC_CALLBACK_FUNCS* funcs);
// The same with another table than the default one.
PELNIC_ERROR_CODE Pelnic_Verify_Signature_Over(func_pelnic_give_table giveTable,
                                               const PELNIC_VERIFY_SIGNATURE_S* pstSig, func_pelnic_log_callback log);

#endif
