// CMS SignedData (RFC 5652) and the timestamp's TSTInfo (RFC 3161) as decoded records, and the items that decode them.
#ifndef PELNIC_CMS_TEMPL_H
#define PELNIC_CMS_TEMPL_H

#include "pelnic_x509_templ.h"

// EncapsulatedContentInfo
typedef struct pelnic_pkcs7_content_info_st {
    PELNIC_ASN_OID type;
    PELNIC_ASN_OCTS* content; // the element after the type; null in a detached signature
} PELNIC_PKCS7_CONTENT_INFO;

typedef struct pelnic_pkcs7_issuer_and_serial_st {
    PELNIC_X509_NAME* issuer;
    PELNIC_ASN_BIGINT* sn;
} PELNIC_PKCS7_ISSUER_AND_SERIAL;

typedef struct pelnic_pkcs7_signer_info_st {
    PELNIC_ASN_INT version;
    PELNIC_PKCS7_ISSUER_AND_SERIAL* issuer_sn;
    PELNIC_X509_ALGO_IDENTIFIER* digest_algo;
    PELNIC_ASN_OCTS* raw_signed; // the signed attributes as the SET that the signature covers; only with auth_attrs
    PELNIC_X509_ATTR_BUNDLE* auth_attrs; // null when absent
    PELNIC_X509_ALGO_IDENTIFIER* digest_encryption_algo;
    PELNIC_ASN_OCTS* encrypted_digest;     // the signature value
    PELNIC_X509_ATTR_BUNDLE* unauth_attrs; // null when absent
} PELNIC_PKCS7_SIGNER_INFO;
PNV_DECLARE_LIST(PELNIC_PKCS7_SIGNER_INFO);

typedef struct pelnic_pkcs7_signer_info_bundle_st {
    LIST_TYPE_PELNIC_PKCS7_SIGNER_INFO infos;
} PELNIC_PKCS7_SIGNER_INFO_BUNDLE;

typedef struct pelnic_pkcs7_signed_data_st {
    PELNIC_ASN_INT version;
    PELNIC_X509_ALGO_IDENTIFIER_BUNDLE* digest_algo_set;
    PELNIC_PKCS7_CONTENT_INFO* content;
    PELNIC_X509_CERT_RAW_BUNDLE* raw_certs; // null when absent
    PELNIC_X509_CERT_BUNDLE* certificates;  // raw_certs decoded, after the table-driven decoding
    PELNIC_X509_CRL_BUNDLE* crls;           // null when absent; its records are not counted (iRef 0)
    PELNIC_PKCS7_SIGNER_INFO_BUNDLE* signer_infos;
} PELNIC_PKCS7_SIGNED_DATA;

// ContentInfo
typedef struct pelnic_pkcs7_content_st {
    PELNIC_ASN_OID content_type;
    PELNIC_PKCS7_SIGNED_DATA* signed_data;
} PELNIC_PKCS7_CONTENT;

typedef struct pelnic_ts_msg_imprint_st {
    PELNIC_X509_ALGO_IDENTIFIER hash_algo;
    PELNIC_ASN_OCTS hash_value;
} PELNIC_TS_MSG_IMPRINT;

typedef struct pelnic_ts_accuracy_st {
    PELNIC_ASN_INT* seconds;
    PELNIC_ASN_INT* millis; // null when absent
    PELNIC_ASN_INT* micros; // null when absent
} PELNIC_TS_ACCURACY;

typedef struct pelnic_tst_info_st {
    PELNIC_ASN_INT version;
    PELNIC_ASN_OCTS* policy_id;
    PELNIC_TS_MSG_IMPRINT* msg_imprint;
    PELNIC_ASN_BIGINT* serial;
    PELNIC_ASN_OCTS* time;
    PELNIC_TS_ACCURACY* accuracy; // null when absent, like the fields below
    PELNIC_ASN_BOOL ordering;
    PNV_BYTE resv0[3];
    PELNIC_ASN_BIGINT* nonce;
    PELNIC_X509_NAME* issuer;
    PELNIC_X509_EXTENSION_BUNDLE* extensions;
} PELNIC_TST_INFO;

PNV_DECLARE_ITEM(PELNIC_PKCS7_CONTENT_INFO_item, PELNIC_PKCS7_CONTENT_INFO);
PNV_DECLARE_ITEM(PELNIC_PKCS7_ISSUER_AND_SERIAL_item, PELNIC_PKCS7_ISSUER_AND_SERIAL);
PNV_DECLARE_ITEM(PELNIC_PKCS7_SIGNER_INFO_item, PELNIC_PKCS7_SIGNER_INFO);
PNV_DECLARE_ITEM(PELNIC_PKCS7_SIGNER_INFO_BUNDLE_item, PELNIC_PKCS7_SIGNER_INFO_BUNDLE);
PNV_DECLARE_ITEM(PELNIC_PKCS7_SIGNED_DATA_item, PELNIC_PKCS7_SIGNED_DATA);
PNV_DECLARE_ITEM(PELNIC_PKCS7_CONTENT_item, PELNIC_PKCS7_CONTENT);
PNV_DECLARE_ITEM(PELNIC_TS_MSG_IMPRINT_item, PELNIC_TS_MSG_IMPRINT);
PNV_DECLARE_ITEM(PELNIC_TS_ACCURACY_item, PELNIC_TS_ACCURACY);
PNV_DECLARE_ITEM(PELNIC_TST_INFO_item, PELNIC_TST_INFO);

// Selected by ContentInfo's content type: only SignedData.
extern const PELNIC_ASN1_ITEM PELNIC_PKCS7_CONTENT_INFO_ANY_item;

#endif
