// Decoding and releasing of certificates, CRLs, public keys and extension values. Nothing here logs. Unless a comment
// says otherwise: PELNIC_ERR_NULL_POINTER for a null argument or zero length, PELNIC_ERR_ASN_DECODE for malformed
// input. Results are written only on success.
#ifndef PELNIC_X509_PARSE_H
#define PELNIC_X509_PARSE_H

#include "pelnic_x509_templ.h"

typedef struct pelnic_rsa_prvkey_st PELNIC_RSA_PRVKEY; // no operation creates one

constexpr PNV_UINT32 PNV_RSA_PUBLIC_KEY = 1;

typedef struct pelnic_rsa_key_st {
    PNV_UINT32 keyType; // PNV_RSA_PUBLIC_KEY
    PNV_UINT32 bits;    // octets of the modulus times 8
    union {
        PELNIC_RSA_PUBKEY* pPubKey;
        PELNIC_RSA_PRVKEY* pPrvKey;
    } key;
} PELNIC_RSA_KEY;

typedef struct pelnic_pubkey_st {
    PNV_UINT32 type; // PELNIC_AOIDS of the key's algorithm
    void* pKey;      // owned PELNIC_RSA_KEY when type is AOID_RSA, else null
} PELNIC_PUBKEY;

// Decodes the certificate or CRL at the start of the input; *bytesDecoded is the length of its encoding. Octets after
// it are ignored. The record has one reference.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_decode_cert(const PELNIC_VRF* pVrf, const PNV_BYTE* pbEncodedCert,
                                                        PNV_UINT32 nEncodedLength, PELNIC_X509_CERT** ppCert,
                                                        PNV_UINT32* bytesDecoded);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_decode_crl(const PELNIC_VRF* pVrf, const PNV_BYTE* pbEncodedCrl,
                                                       PNV_UINT32 nEncodedLen, PELNIC_X509_CRL** ppCrl,
                                                       PNV_UINT32* bytesDecoded);
// The same from an element with separate tag and content; *bytesDecoded is the content's length.
// PELNIC_ERR_CERT_INVALID for a tag other than SEQUENCE.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_decode_cert_by_asnocts(const PELNIC_VRF* pVrf,
                                                                   const PELNIC_ASN_OCTS* pAsnOcts,
                                                                   PELNIC_X509_CERT** ppCert, PNV_UINT32* bytesDecoded);
// Releases one reference; the last one frees the record. Null is ignored.
void pelnic_x509_free_cert(const PELNIC_VRF* pVrf, PELNIC_X509_CERT* pCert);
void pelnic_x509_free_crl(const PELNIC_VRF* pVrf, PELNIC_X509_CRL* pCrl);

// For lists: releases one reference of each element.
void _pnvFreeCertElement(PELNIC_VRF* pVrf, void* pCert);
void _pnvFreeCrlElement(PELNIC_VRF* pVrf, void* pCrl);

// PELNIC_ERR_UNSUPPORTED_ALGO if the key's algorithm is not in the table of identifiers; a known algorithm other than
// RSA gives a record without key.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_decode_pubkey(const PELNIC_VRF* pVrf, const PELNIC_X509_PUBKEY_INFO* pPubKeyInfo,
                                                     PELNIC_PUBKEY** ppPubKey);
void pelnic_free_pubkey(const PELNIC_VRF* pVrf, PELNIC_PUBKEY* pPubKey);
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeRsaPubkey(const PELNIC_VRF* pVrf, const PNV_BYTE* pbEncoded,
                                                    PNV_UINT32 nEncoded, PELNIC_RSA_KEY** ppRsaKey);
void _pnvFreeRsaPubkey(const PELNIC_VRF* pVrf, PELNIC_RSA_KEY* pRsaKey);

// Decodes an extension's value into a new record of a type chosen by the identifier:
//     AUTHORITYKEYIDENTIFIER PELNIC_X509_AUTHORITY_KID       BASICCONSTRAINTS PELNIC_X509_BASIC_CONSTRAINTS
//     SUBJECTKEYIDENTIFIER   PELNIC_ASN_OCTS                 EXTKEYUSAGE      PELNIC_ASN_OID_BUNDLE
//     KEYUSAGE               PELNIC_ASN_BITS                 CRLREASONS       PELNIC_ASN_ENUM
//     ISSUINGDISTRIBUTIONPOINT PELNIC_X509_ISSUING_DIST_POINT
// PELNIC_ERR_FAILED for any other.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_decode_x509_extension(const PELNIC_VRF* pVrf,
                                                             const PELNIC_X509_EXTENSION_ENTRY* pExtnEntry,
                                                             void** pResult);
// Frees such a record; does nothing for another identifier or null.
void pelnic_free_x509_extension(const PELNIC_VRF* pVrf, PELNIC_AOIDS extenId, void* pExtn);

#endif
