// Timestamps. Unless a comment says otherwise, failures are logged with their code at error level and the code is
// returned.
#ifndef CMS_VERIFY_TIMESTAMP_H
#define CMS_VERIFY_TIMESTAMP_H

#include "pelnic_cms_templ.h"
#include "pelnic_vrf.h"

// Verifies the timestamp that a signer must carry; its time becomes base_time.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyTimeStamp(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si);
// Compares the imprint with the signer's signature value. Sets base_time, before the token's signature is checked.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyTstInfo(PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* encoded_ts_info,
                                                  const PELNIC_PKCS7_SIGNER_INFO* si);
// Verifies one signer of the token.
[[nodiscard]] PELNIC_ERROR_CODE _pnvVerifyTsSignerInfo(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si_ts,
                                                       const PELNIC_ASN_OCTS* encoded_ts_info);

#endif
