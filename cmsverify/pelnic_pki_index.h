// An index of a store's objects by the fields that make two of them duplicates, so that adding thousands does not
// compare each with all others. The links lie in the objects: an insertion allocates nothing and cannot fail. The
// orderings are this module's own; they avoid the memcmp callback, whose sign has no meaning.
#ifndef PELNIC_PKI_INDEX_H
#define PELNIC_PKI_INDEX_H

#include "pelnic_x509_templ.h"

// An object has links for one index only. An object of another store is not entered; from then on duplicates that the
// index does not know are searched in the list.
template <typename Object> struct PkiIndex {
    Object* pRoot;
    PNV_BOOL bIncomplete;
};

// The stored duplicate of an object, or null: a certificate with the same issuer, serial number and key, or a CRL with
// the same signature.
[[nodiscard]] PELNIC_X509_CERT* _pnvFindDuplicateCert(const LIST_TYPE_PELNIC_X509_CERT* list,
                                                      const PkiIndex<PELNIC_X509_CERT>* pIndex,
                                                      const PELNIC_X509_CERT* cert);
[[nodiscard]] PELNIC_X509_CRL* _pnvFindDuplicateCrl(const LIST_TYPE_PELNIC_X509_CRL* list,
                                                    const PkiIndex<PELNIC_X509_CRL>* pIndex,
                                                    const PELNIC_X509_CRL* crl);

// Enters an object that has no duplicate in the index.
void _pnvIndexCert(PkiIndex<PELNIC_X509_CERT>* pIndex, PELNIC_X509_CERT* cert);
void _pnvIndexCrl(PkiIndex<PELNIC_X509_CRL>* pIndex, PELNIC_X509_CRL* crl);

#endif
