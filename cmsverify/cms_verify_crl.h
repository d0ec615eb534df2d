// CRL bundles. Nothing is logged except the allocation in _pnvGetCrlInfo.
#ifndef CMS_VERIFY_CRL_H
#define CMS_VERIFY_CRL_H

#include "pelnic_x509_templ.h"

[[nodiscard]] PELNIC_ERROR_CODE _pnvGetCrlInfo(PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl,
                                               PELNIC_CRL_INFO** ppCrlInfo);
[[nodiscard]] PELNIC_ERROR_CODE _pnvGetRevokeList(const PELNIC_VRF* pVrf, PELNIC_REVOKE_LIST* pRevokeList,
                                                  const PELNIC_X509_REVOKED* pX509Revoke);
void _pnvDestoryRevokeList(const PELNIC_VRF* pVrf, PELNIC_REVOKE_LIST* pRevokeList); // spelt so in the interface
// -1 for different issuers; else 0, and *state now reflects whether psi1 is newer or older than psi2.
[[nodiscard]] PNV_INT _pnvCompareCrlInfo(const PELNIC_VRF* pVrf, const PELNIC_CRL_INFO* psi1,
                                         const PELNIC_CRL_INFO* psi2, PELNIC_CRL_PERIOD_STAT* state);
// Compares each entry of s1 with the entry of s2 for the same issuer.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCompareIntercrossCrl(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* s1,
                                                         const PELNIC_CRL_BUNDLE_INFO* s2,
                                                         PELNIC_CRL_PERIOD_STAT* curState);
// 1 if two entries have the same issuer, else 0.
[[nodiscard]] PNV_INT _pnvFindDuplicateCrlIssuer(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* bundle);
// 1 if the root's revoke list has the serial number of the missing CRL's issuer, else 0.
[[nodiscard]] PNV_INT _pnvIsCrlIssuerRevoked(const PELNIC_VRF* pVrf, const PELNIC_CRL_INFO* pciRoot,
                                             const PELNIC_CRL_INFO* pciMissing);
// 0 if the newer bundle covers or revokes every issuer of the older one, else -1.
[[nodiscard]] PNV_INT _pnvCheckNewCrl(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* newCrlBi,
                                      const PELNIC_CRL_BUNDLE_INFO* oldCrlBi);

#endif
