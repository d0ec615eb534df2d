// The stages behind the public operations, and the verification of a detached signature. Unless a comment says
// otherwise, failures are logged with their code at error level and the code is returned.
//
// If several codes apply, the order of the checks decides which one begin returns. For one signer after the other:
//   1. the encoding                  PELNIC_ERR_CMS_FORMAT, PELNIC_ERR_CMS_DECODE, PELNIC_ERR_CMS_NO_SIGNER
//   2. the timestamp's imprint       PELNIC_ERR_CMS_DECODE, PELNIC_ERR_TSP_DECODE, PELNIC_ERR_UNSUPPORTED_ALGO,
//                                    PELNIC_ERR_TSP_IMPRINT_MISMATCH            (RFC 3161, 2.4.2)
//   3. each token signer's certificate  PELNIC_ERR_TSP_CERT_NOT_FOUND, PELNIC_ERR_NO_KEY_USAGE,
//                                    PELNIC_ERR_CERT_USAGE, PELNIC_ERR_CERT_VERIFY (RFC 3161, 2.3)
//   4. each token signer's signature PELNIC_ERR_CMS_SIGNATURE, PELNIC_ERR_TSP_VERIFY
//   5. the signer's certificate      PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND, then as in 3 (RFC 5652, 5.3)
//   6. its signed attributes         PELNIC_ERR_CMS_SIGNATURE, PELNIC_ERR_CMS_NO_MESSAGE_DIGEST,
//                                    PELNIC_ERR_CMS_DIGEST_CONFLICT               (RFC 5652, 5.4 and 11.2)
// 3 and 5 judge at the time from 2.
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
// Adds the digest entry of a signer with signed attributes, unless one exists already.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddSignerInfoToVerifyProcess(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si);
// Adds the signature entry of a signer without signed attributes.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCreateVerifyHandle(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                                       const PELNIC_X509_CERT* cert);
// Feeds a file to the verification in progress, block by block; a read error counts as the end of the file.
[[nodiscard]] PELNIC_ERROR_CODE _pnvUpdateContent(PELNIC_VRF* pVrf, const PNV_CHAR* srcfile);

#endif
