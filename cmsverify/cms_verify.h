// What stands behind the public operations: the stages, and the verification of a detached signature. Failures are
// logged with their code at error level, and the code is returned, unless a line says otherwise.
#ifndef CMS_VERIFY_H
#define CMS_VERIFY_H

#include "cms_verify_add.h"
#include "cms_verify_context.h"
#include "cms_verify_crl.h"
#include "cms_verify_input.h"
#include "cms_verify_signer.h"
#include "cms_verify_timestamp.h"

// Verifies every signer and prepares the verification process.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyCms(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed);
// Adds the digest entry of a signer with signed attributes, or finds that there is one already.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddSignerInfoToVerifyProcess(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si);
// Adds the signature entry of a signer without them.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCreateVerifyHandle(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                                       const PELNIC_X509_CERT* cert);
// Feeds a file to the verification in progress, block by block; a read error looks like the file's end.
[[nodiscard]] PELNIC_ERROR_CODE _pnvUpdateContent(PELNIC_VRF* pVrf, const PNV_CHAR* srcfile);

#endif
