// The limits of a CRL's scope (RFC 5280, 5.2.4 and 5.2.5). The library treats every CRL of an issuer as a full one; the
// strict rules and pkgtool lint do not.
#ifndef PKGCHECK_CRL_SCOPE_H
#define PKGCHECK_CRL_SCOPE_H

#include "cmsverify/pelnic_x509_templ.h"

constexpr PNV_UINT32 PKGCHECK_CRL_DELTA = 0x01;           // only changes since another CRL
constexpr PNV_UINT32 PKGCHECK_CRL_USERS_ONLY = 0x02;      // only certificates of non-CAs
constexpr PNV_UINT32 PKGCHECK_CRL_CAS_ONLY = 0x04;        // only certificates of CAs
constexpr PNV_UINT32 PKGCHECK_CRL_ATTRIBUTES_ONLY = 0x08; // only attribute certificates
constexpr PNV_UINT32 PKGCHECK_CRL_SOME_REASONS = 0x10;    // only certificates revoked for some reasons
constexpr PNV_UINT32 PKGCHECK_CRL_ONE_POINT = 0x20;       // only certificates that name its distribution point
constexpr PNV_UINT32 PKGCHECK_CRL_INDIRECT = 0x40;        // certificates of other issuers as well
constexpr PNV_UINT32 PKGCHECK_CRL_UNREADABLE = 0x80;      // undecodable issuing distribution point

// Any combination of these; 0 for a full CRL.
[[nodiscard]] PNV_UINT32 pkgcheck_crl_scope(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl);

#endif
