// X.509 certificates and CRLs (RFC 5280) as decoded records, and the items that decode them. Only the parts needed for
// verification are decoded: names, times, parameters and extension values stay tagged octets. Every record owns copies.
#ifndef PELNIC_X509_TEMPL_H
#define PELNIC_X509_TEMPL_H

#include "pelnic_asn1_templ.h"
#include "pelnic_list.h"
#include "pelnic_vrf.h"

typedef struct pelnic_x509_attr_entry_st {
    PELNIC_ASN_OID id;
    PELNIC_ASN_OCTS value; // with its own string tag; the SET of values of a CMS attribute
} PELNIC_X509_ATTR_ENTRY;
PNV_DECLARE_LIST(PELNIC_X509_ATTR_ENTRY);

// A RelativeDistinguishedName, or the attributes of a SignerInfo.
typedef struct pelnic_x509_attr_bundle_st {
    LIST_TYPE_PELNIC_X509_ATTR_ENTRY attrs;
} PELNIC_X509_ATTR_BUNDLE;
PNV_DECLARE_LIST(PELNIC_X509_ATTR_BUNDLE);

typedef struct pelnic_x509_name_st {
    LIST_TYPE_PELNIC_X509_ATTR_BUNDLE names;
} PELNIC_X509_NAME;

typedef struct pelnic_x509_algo_identifier_st {
    PELNIC_ASN_OID algorithm;
    PELNIC_ASN_OCTS* parameters; // null when absent
} PELNIC_X509_ALGO_IDENTIFIER;
PNV_DECLARE_LIST(PELNIC_X509_ALGO_IDENTIFIER);

typedef struct pelnic_x509_algo_identifier_bundle_st {
    LIST_TYPE_PELNIC_X509_ALGO_IDENTIFIER algos;
} PELNIC_X509_ALGO_IDENTIFIER_BUNDLE;

typedef struct pelnic_asn_validity_st {
    PELNIC_ASN_OCTS notBefore;
    PELNIC_ASN_OCTS notAfter;
} PELNIC_ASN_VALIDITY;

typedef struct pelnic_x509_pubkey_info_st {
    PELNIC_X509_ALGO_IDENTIFIER algorithm;
    PELNIC_ASN_BITS subjectPublicKey;
} PELNIC_X509_PUBKEY_INFO;

typedef struct pelnic_x509_extension_entry_st {
    PELNIC_ASN_OID extnId;
    PELNIC_ASN_BOOL critical;
    PNV_BYTE resv0[3];
    PELNIC_ASN_OCTS extnValue; // the DER of the extension's own value
} PELNIC_X509_EXTENSION_ENTRY;
PNV_DECLARE_LIST(PELNIC_X509_EXTENSION_ENTRY);

typedef struct pelnic_x509_extension_bundle_st {
    LIST_TYPE_PELNIC_X509_EXTENSION_ENTRY extensions;
} PELNIC_X509_EXTENSION_BUNDLE;

typedef struct pelnic_x509_certinfo_st {
    PELNIC_ASN_INT version; // 0 for version 1, 2 for version 3
    PELNIC_ASN_BIGINT* serialNumber;
    PELNIC_X509_ALGO_IDENTIFIER* signature;
    PELNIC_X509_NAME* issuer;
    PELNIC_ASN_VALIDITY* validity;
    PELNIC_X509_NAME* subject;
    PELNIC_X509_PUBKEY_INFO* subjectPubKey;
    PELNIC_ASN_BITS* issuerUID;
    PELNIC_ASN_BITS* subjectUID;
    PELNIC_X509_EXTENSION_BUNDLE* extensions; // null when absent
} PELNIC_X509_CERTINFO;

typedef struct pelnic_x509_cert_st PELNIC_X509_CERT;

// The PKI's findings on a record, so that each is computed once per run. Void in any other run or context.
struct PkiFindings {
    const PELNIC_VRF* pVrf; // context and number of the run
    PNV_UINT64 nRun;
    PNV_UINT32 nTrustTried;             // index of the first CA not yet tried as its issuer
    PNV_UINT32 nLocalTried;             // the same in the local store, for a CRL
    const PELNIC_X509_CERT* pCrlIssuer; // verified the CRL's signature
    PNV_BOOL bNotSelfSigned;            // its own key does not verify its signature
    PNV_UINT32 nVerification;           // number of the outermost verification to which the rest belongs
    PNV_UINT32 nVerifiedDepths;         // bit d: nResult[d] is the result of verifying it at depth d
    PELNIC_ERROR_CODE nResult[11];      // MAX_NESTED_VERIFICATIONS
};

// The PKI's notes on a record; no other module reads or writes them.
template <typename Record> struct PkiNotes {
    PkiFindings found;
    // The record's place in the index of its store; level 0 for none.
    Record* pBefore;
    Record* pAfter;
    PNV_UINT32 nLevel;
};

struct pelnic_x509_cert_st {
    PELNIC_ASN_OCTS* raw_signed; // the whole encoding of toBeSigned, covered by the signature
    PELNIC_X509_CERTINFO* toBeSigned;
    PELNIC_X509_ALGO_IDENTIFIER* algorithm;
    PELNIC_ASN_BITS* signature;
    mutable const PELNIC_X509_CERT* pIssuer; // not owned; never changes once set
    PNV_INT32 iRef;
    PNV_BOOL bFromPackage; // came with a signature, a token or a CRL: never ends a chain
    mutable PkiNotes<PELNIC_X509_CERT> pki;
};
PNV_DECLARE_LIST(PELNIC_X509_CERT);

typedef struct pelnic_x509_cert_bundle_st {
    LIST_TYPE_PELNIC_X509_CERT certs;
} PELNIC_X509_CERT_BUNDLE;

typedef struct pelnic_x509_cert_raw_bundle_st {
    LIST_TYPE_PELNIC_ASN_OCTS bundle;
} PELNIC_X509_CERT_RAW_BUNDLE;

typedef struct pelnic_x509_revoked_entry_st {
    PELNIC_ASN_BIGINT* user_cert; // serial number
    PELNIC_ASN_OCTS* revocation_date;
    PELNIC_X509_EXTENSION_BUNDLE* crl_entry_extensions; // null when absent
} PELNIC_X509_REVOKED_ENTRY;
PNV_DECLARE_LIST(PELNIC_X509_REVOKED_ENTRY);

typedef struct pelnic_x509_revoked_st {
    LIST_TYPE_PELNIC_X509_REVOKED_ENTRY revoked_list;
    CarvedBlocks blocks; // of the entries
} PELNIC_X509_REVOKED;

typedef struct pelnic_x509_crlinfo_st {
    PELNIC_ASN_INT* version; // null when absent
    PELNIC_X509_ALGO_IDENTIFIER* signature_algo;
    PELNIC_X509_NAME* issuer;
    PELNIC_ASN_OCTS* this_update;
    PELNIC_ASN_OCTS* next_update;
    PELNIC_X509_REVOKED* revoked_certs;       // null when absent
    PELNIC_X509_EXTENSION_BUNDLE* extensions; // null when absent
} PELNIC_X509_CRLINFO;

struct pelnic_x509_crl_st {
    PELNIC_ASN_OCTS* raw_signed; // the whole encoding of tbs_cert_list
    PELNIC_X509_CRLINFO* tbs_cert_list;
    PELNIC_X509_ALGO_IDENTIFIER* algorithm;
    PELNIC_ASN_BITS* signature;
    PNV_INT32 iRef;
    mutable PkiNotes<PELNIC_X509_CRL> pki;
};

typedef struct pelnic_x509_crl_bundle_st {
    LIST_TYPE_PELNIC_X509_CRL crls;
} PELNIC_X509_CRL_BUNDLE;

// Values of extensions (RFC 5280, 4.2.1 and 5.2)
typedef struct pelnic_x509_basic_constraints_st {
    PELNIC_ASN_BOOL is_ca;
    PNV_BYTE resv0[3];
    PELNIC_ASN_INT* max_path_len; // null when absent
} PELNIC_X509_BASIC_CONSTRAINTS;

typedef struct pelnic_x509_authority_kid_st {
    PELNIC_ASN_OCTS* keyIdentifier; // each null when absent
    PELNIC_ASN_OCTS* authorityCertIssuer;
    PELNIC_ASN_BIGINT* authorityCertSerialNumber;
} PELNIC_X509_AUTHORITY_KID;

typedef struct pelnic_x509_issuing_dist_point_st {
    PELNIC_ASN_OCTS* distpoint; // null when absent
    PELNIC_ASN_BOOL onlyuser;
    PELNIC_ASN_BOOL onlyCA;
    PNV_BYTE resv0[2];
    PELNIC_ASN_BITS* onlysomereasons; // null when absent
    PELNIC_ASN_BOOL indirectCRL;
    PELNIC_ASN_BOOL onlyattr;
    PNV_BYTE resv1[2];
} PELNIC_X509_ISSUING_DIST_POINT;

typedef struct pelnic_asn_oid_bundle_st {
    LIST_TYPE_PELNIC_ASN_OID oid_bundle;
} PELNIC_ASN_OID_BUNDLE;

// RSAPublicKey (RFC 8017, A.1.1)
typedef struct pelnic_rsa_pubkey_st {
    PELNIC_ASN_BIGINT modules; // the modulus; spelt so in the interface
    PELNIC_ASN_BIGINT publicExponent;
} PELNIC_RSA_PUBKEY;

PNV_DECLARE_ITEM(PELNIC_X509_ATTRIBUTE_ENTRY_item, PELNIC_X509_ATTR_ENTRY);
PNV_DECLARE_ITEM(PELNIC_X509_ATTR_BUNDLE_item, PELNIC_X509_ATTR_BUNDLE);
PNV_DECLARE_ITEM(PELNIC_X509_NAME_item, PELNIC_X509_NAME);
PNV_DECLARE_ITEM(PELNIC_X509_ALGO_IDENTIFIER_item, PELNIC_X509_ALGO_IDENTIFIER);
PNV_DECLARE_ITEM(PELNIC_X509_ALGO_IDENTIFIER_BUNDLE_item, PELNIC_X509_ALGO_IDENTIFIER_BUNDLE);
PNV_DECLARE_ITEM(PELNIC_X509_VALIDITY_item, PELNIC_ASN_VALIDITY);
PNV_DECLARE_ITEM(PELNIC_X509_PUBKEY_INFO_item, PELNIC_X509_PUBKEY_INFO);
PNV_DECLARE_ITEM(PELNIC_X509_EXTN_item, PELNIC_X509_EXTENSION_ENTRY);
PNV_DECLARE_ITEM(PELNIC_X509_EXTENSION_BUNDLE_item, PELNIC_X509_EXTENSION_BUNDLE);
PNV_DECLARE_ITEM(PELNIC_X509_CERTINFO_item, PELNIC_X509_CERTINFO);
PNV_DECLARE_ITEM(PELNIC_X509_CERT_item, PELNIC_X509_CERT);
PNV_DECLARE_ITEM(PELNIC_X509_CERT_BUNDLE_item, PELNIC_X509_CERT_BUNDLE);
PNV_DECLARE_ITEM(PELNIC_X509_CERT_RAW_BUNDLE_item, PELNIC_X509_CERT_RAW_BUNDLE);
PNV_DECLARE_ITEM(PELNIC_X509_REVOKED_ENTRY_item, PELNIC_X509_REVOKED_ENTRY);
PNV_DECLARE_ITEM(PELNIC_SEQOF_X509_REVOKED_item, PELNIC_X509_REVOKED);
PNV_DECLARE_ITEM(PELNIC_X509_CRLINFO_item, PELNIC_X509_CRLINFO);
PNV_DECLARE_ITEM(PELNIC_X509_CRL_item, PELNIC_X509_CRL);
PNV_DECLARE_ITEM(PELNIC_X509_CRL_BUNDLE_item, PELNIC_X509_CRL_BUNDLE);
PNV_DECLARE_ITEM(PELNIC_X509_BASIC_CONSTRAINTS_item, PELNIC_X509_BASIC_CONSTRAINTS);
PNV_DECLARE_ITEM(PELNIC_X509_AUTHORITY_KID_item, PELNIC_X509_AUTHORITY_KID);
PNV_DECLARE_ITEM(PELNIC_X509_ISSUING_DIST_POINT_item, PELNIC_X509_ISSUING_DIST_POINT);
PNV_DECLARE_ITEM(PELNIC_ASN_OID_BUNDLE_item, PELNIC_ASN_OID_BUNDLE);
PNV_DECLARE_ITEM(PELNIC_RSA_PUBKEY_item, PELNIC_RSA_PUBKEY);

#endif
