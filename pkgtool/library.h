// Owners of the library's objects.
#ifndef PKGTOOL_LIBRARY_H
#define PKGTOOL_LIBRARY_H

#include "cmsverify/pelnic_asn1_decode.h"
#include "cmsverify/pelnic_cms_parse.h"
#include "cmsverify/pelnic_x509_parse.h"

#include <memory>

namespace pkgtool {

template <auto release> struct ReleaseRecord {
    const PELNIC_VRF* vrf;
    template <typename T> void operator()(T* record) const { release(vrf, record); }
};
template <typename T, auto release> using LibraryRecord = std::unique_ptr<T, ReleaseRecord<release>>;

template <const PELNIC_ASN1_ITEM& item> void freeItem(const PELNIC_VRF* vrf, void* record)
{
    pelnic_asn_free(vrf, record, &item, 0);
}
template <PELNIC_AOIDS aoid> void freeExtension(const PELNIC_VRF* vrf, void* record)
{
    pelnic_free_x509_extension(vrf, aoid, record);
}

using CertRecord = LibraryRecord<PELNIC_X509_CERT, pelnic_x509_free_cert>;
using CrlRecord = LibraryRecord<PELNIC_X509_CRL, pelnic_x509_free_crl>;
using KeyRecord = LibraryRecord<PELNIC_PUBKEY, pelnic_free_pubkey>;
using OctetsRecord = LibraryRecord<PELNIC_ASN_OCTS, freeItem<PELNIC_ASN_OCTS_item>>;
using SignatureRecord = LibraryRecord<PELNIC_PKCS7_CONTENT, pelnic_pkcs7_free_signed>;
using TstInfoRecord = LibraryRecord<PELNIC_TST_INFO, pelnic_free_timestamp_token>;

} // namespace pkgtool

#endif
