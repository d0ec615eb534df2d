// The checker's trust anchor: one self-signed CA certificate in DER. The build generates its definition from
// PKGCHECK_ROOT_CERT in a separate file, so that a product sets its own root without changing a source file.
#ifndef PKGCHECK_ROOT_CERT_H
#define PKGCHECK_ROOT_CERT_H

#include "pelnic_cms_verify.h"

extern const PNV_BYTE szCert_F[];
extern const PNV_UINT32 szCert_F_size;

#endif
