// Decoded ASN.1 values (X.690), their tags, and the object identifiers the library knows.
#ifndef PELNIC_ASN1_DEF_H
#define PELNIC_ASN1_DEF_H

#include "pelnic_types.h"

// The three parts of a tag are 64 bits wide; the ANY members of an expected tag match everything.
typedef enum pelnic_ber_class_em : PNV_INT64 {
    CBC_ANY_CLASS = -2,
    CBC_NULL_CLASS = -1,
    CBC_UNIV = 0,
    CBC_APPL = 1,
    CBC_CNTX = 2,
    CBC_PRIV = 3,
    CBC_UNDEFINED = 4294967295
} PELNIC_BER_CLASS;

typedef enum pelnic_ber_form_em : PNV_INT64 {
    CBF_ANY_FORM = -2,
    CBF_NULL_FORM = -1,
    CBF_PRIM = 0,
    CBF_CONS = 1,
    CBF_UNDEFINED = 4294967295
} PELNIC_BER_FORM;

typedef enum pelnic_ber_tag_code_em : PNV_INT64 {
    CBT_ANY_CODE = -2,
    CBT_NULL_CODE = -1,
    CBT_EOC = 0,
    CBT_BOOLEAN = 1,
    CBT_INTEGER = 2,
    CBT_BITSTRING = 3,
    CBT_OCTETSTRING = 4,
    CBT_NULLTYPE = 5,
    CBT_OID = 6,
    CBT_OBJECTDESCRIPTOR = 7,
    CBT_EXTERNAL = 8,
    CBT_REAL = 9,
    CBT_ENUM = 10,
    CBT_EMBEDDEDPDV = 11,
    CBT_UTF8STRING = 12,
    CBT_RELATIVE_OID = 13,
    CBT_RESERVED1 = 14,
    CBT_RESERVED2 = 15,
    CBT_SEQUENCES = 16,
    CBT_SETS = 17,
    CBT_NUMERICSTRING = 18,
    CBT_PRINTABLESTRING = 19,
    CBT_TELETEXSTRING = 20,
    CBT_VIDEOTEXSTRING = 21,
    CBT_IA5STRING = 22,
    CBT_UTCTIME = 23,
    CBT_GENERALIZEDTIME = 24,
    CBT_GRAPHICSTRING = 25,
    CBT_VISIBLESTRING = 26,
    CBT_GENERALSTRING = 27,
    CBT_UNIVERSALSTRING = 28,
    CBT_CHARACTERSTRING = 29,
    CBT_BMPSTRING_TAG_CODE = 30,
    CBT_LONG_FORM = 31, // the high-tag-number escape
    CBT_UNDEFINED = 4294967295
} PELNIC_BER_TAG_CODE;

typedef struct pelnic_ber_tag_st {
    PELNIC_BER_CLASS cls;
    PELNIC_BER_FORM form;
    PELNIC_BER_TAG_CODE code;
} PELNIC_BER_TAG;

// One decoded primitive. octs is null if len is 0.
typedef struct pelnic_asn_octs_st {
    PNV_UINT32 len;
    PELNIC_BER_TAG tag; // as read
    PNV_BYTE* octs;     // owned copy; for the link kind a pointer into the input
} PELNIC_ASN_OCTS;

typedef PELNIC_ASN_OCTS PELNIC_ASN_OID;
typedef PELNIC_ASN_OCTS PELNIC_ASN_BIGINT; // magnitude without leading zero octets
typedef PELNIC_ASN_OCTS PELNIC_UTCTIME;
typedef PELNIC_ASN_OCTS PELNIC_GENERALIZEDTIME;

typedef struct pelnic_asn_bits_st {
    PNV_UINT32 bitLen;
    PELNIC_BER_TAG tag;
    PNV_BYTE* bits; // without the octet that counts the unused bits; null if byteLen is 0
    PNV_UINT32 byteLen;
} PELNIC_ASN_BITS;

typedef PNV_INT32 PELNIC_ASN_INT;
typedef PNV_INT32 PELNIC_ASN_ENUM;
typedef PNV_BYTE PELNIC_ASN_BOOL; // 1 or 0

PNV_DECLARE_LIST(PELNIC_ASN_OCTS);
// OIDs have the layout of octets, and their lists that of lists of octets.
typedef LIST_TYPE_PELNIC_ASN_OCTS LIST_TYPE_PELNIC_ASN_OID;

typedef struct pelnic_oid_info_st {
    PELNIC_AOIDS aoid;
    PELNIC_ASN_OID stAsnOid;
    const PNV_CHAR* pucName; // the enumerator's name
} PELNIC_OID_INFO;

extern const PELNIC_OID_INFO g_pnvOIDTable[];
extern const PNV_UINT32 g_pnvOidCount;

// The digest of a signature algorithm or of a bare SHA-2 identifier; AOID_UNKNOWN for anything else.
[[nodiscard]] PELNIC_AOIDS pelnic_get_hash_aoid_from_sign(PELNIC_AOIDS signId);
// AOID_RSA for the three RSA signature algorithms, else AOID_UNKNOWN.
[[nodiscard]] PELNIC_AOIDS pelnic_get_crypt_aoid_from_sign(PELNIC_AOIDS signId);
// The encoded OID in the table, or null.
[[nodiscard]] const PELNIC_ASN_OID* pelnic_find_oid(const PELNIC_VRF* pVrf, PELNIC_AOIDS aoid);
// The identifier of an encoded OID, tag included, or AOID_UNKNOWN.
[[nodiscard]] PELNIC_AOIDS pelnic_find_aoid(const PELNIC_VRF* pVrf, const PELNIC_ASN_OID* pOid);

#endif
