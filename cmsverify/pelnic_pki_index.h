// The objects of a store in the order of what makes two of them duplicates, so that thousands are added without
// comparing each with all others. The links lie in the objects: an insertion allocates nothing and cannot fail. Orders
// are this module's own and compare octets without the memcmp callback, whose sign nobody promises.
#ifndef PELNIC_PKI_INDEX_H
#define PELNIC_PKI_INDEX_H

#include "pelnic_x509_templ.h"

// The indexed duplicate of an object, or null: a certificate of the same issuer, serial number and key, or a CRL with
// the same signature.
[[nodiscard]] PELNIC_X509_CERT* _pnvFindDuplicateCert(PELNIC_X509_CERT* index, const PELNIC_X509_CERT* cert);
[[nodiscard]] PELNIC_X509_CRL* _pnvFindDuplicateCrl(PELNIC_X509_CRL* index, const PELNIC_X509_CRL* crl);

// Puts in an object that has no duplicate there.
void _pnvIndexCert(PELNIC_X509_CERT** pIndex, PELNIC_X509_CERT* cert);
void _pnvIndexCrl(PELNIC_X509_CRL** pIndex, PELNIC_X509_CRL* crl);

#endif
