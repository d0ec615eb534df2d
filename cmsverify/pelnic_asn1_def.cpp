// The table of object identifiers. AOID_ECDSA and AOID_AT have no row, so that nothing that uses them is recognised.
#include "pelnic_asn1_def.h"

#include "pelnic_asn1_utils.h"

template <PNV_BYTE... octets> struct OID_CONTENT {
    static constexpr PNV_BYTE value[] = {octets...};
};

#define PNV_OID(aoid, ...) \
    { \
        aoid, \
            {PNV_UINT32{sizeof(OID_CONTENT<__VA_ARGS__>::value)}, \
             {CBC_UNIV, CBF_PRIM, CBT_OID}, \
             const_cast<PNV_BYTE*>(OID_CONTENT<__VA_ARGS__>::value)}, \
            #aoid \
    }

// clang-format off
const PELNIC_OID_INFO g_pnvOIDTable[] = {
    PNV_OID(AOID_UNKNOWN, 0xFF, 0xFF), // placeholder: no encoded OID is FF FF
    PNV_OID(AOID_RSA, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01), // 1.2.840.113549.1.1.1
    PNV_OID(AOID_SHA256, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01), // 2.16.840.1.101.3.4.2.1
    PNV_OID(AOID_SHA384, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02), // 2.16.840.1.101.3.4.2.2
    PNV_OID(AOID_SHA512, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03), // 2.16.840.1.101.3.4.2.3
    PNV_OID(AOID_SHA256WITHRSAENCRYPTION, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0B), // 1.2.840.113549.1.1.11
    PNV_OID(AOID_SHA384WITHRSAENCRYPTION, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0C), // 1.2.840.113549.1.1.12
    PNV_OID(AOID_SHA512WITHRSAENCRYPTION, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0D), // 1.2.840.113549.1.1.13
    PNV_OID(AOID_AT_COMMONNAME, 0x55, 0x04, 0x03), // 2.5.4.3
    PNV_OID(AOID_AT_LOCALITYNAME, 0x55, 0x04, 0x07), // 2.5.4.7
    PNV_OID(AOID_AT_STATEORPROVINCENAME, 0x55, 0x04, 0x08), // 2.5.4.8
    PNV_OID(AOID_AT_ORGANIZATIONNAME, 0x55, 0x04, 0x0A), // 2.5.4.10
    PNV_OID(AOID_AT_ORGANIZATIONALUNITNAME, 0x55, 0x04, 0x0B), // 2.5.4.11
    PNV_OID(AOID_AT_COUNTRYNAME, 0x55, 0x04, 0x06), // 2.5.4.6
    PNV_OID(AOID_PKCS9_AT_EMAILADDRESS, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01), // 1.2.840.113549.1.9.1
    PNV_OID(AOID_CE_AUTHORITYKEYIDENTIFIER, 0x55, 0x1D, 0x23), // 2.5.29.35
    PNV_OID(AOID_CE_SUBJECTKEYIDENTIFIER, 0x55, 0x1D, 0x0E), // 2.5.29.14
    PNV_OID(AOID_CE_KEYUSAGE, 0x55, 0x1D, 0x0F), // 2.5.29.15
    PNV_OID(AOID_CE_BASICCONSTRAINTS, 0x55, 0x1D, 0x13), // 2.5.29.19
    PNV_OID(AOID_CE_EXTKEYUSAGE, 0x55, 0x1D, 0x25), // 2.5.29.37
    PNV_OID(AOID_KP_CODESIGNING, 0x2B, 0x06, 0x01, 0x05, 0x05, 0x07, 0x03, 0x03), // 1.3.6.1.5.5.7.3.3
    PNV_OID(AOID_KP_TIMESTAMPING, 0x2B, 0x06, 0x01, 0x05, 0x05, 0x07, 0x03, 0x08), // 1.3.6.1.5.5.7.3.8
    PNV_OID(AOID_CE_ISSUINGDISTRIBUTIONPOINT, 0x55, 0x1D, 0x1C), // 2.5.29.28
    PNV_OID(AOID_CE_CRLREASONS, 0x55, 0x1D, 0x15), // 2.5.29.21
    PNV_OID(AOID_PKCS7, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07), // 1.2.840.113549.1.7
    PNV_OID(AOID_PKCS7_SIGNEDDATA, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02), // 1.2.840.113549.1.7.2
    PNV_OID(AOID_PKCS9, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09), // 1.2.840.113549.1.9
    PNV_OID(AOID_PKCS9_AT_CONTENTTYPE, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x03), // 1.2.840.113549.1.9.3
    PNV_OID(AOID_PKCS9_AT_MESSAGEDIGEST, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x04), // 1.2.840.113549.1.9.4
    PNV_OID(AOID_PKCS9_AT_SIGNINGTIME, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x05), // 1.2.840.113549.1.9.5
    PNV_OID(AOID_PKCS9_AT_TIMESTAMP_TOKEN, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x10, 0x02, 0x0E), // 1.2.840.113549.1.9.16.2.14
};
// clang-format on

const PNV_UINT32 g_pnvOidCount = PNV_UINT32{sizeof g_pnvOIDTable / sizeof g_pnvOIDTable[0]};

PELNIC_AOIDS pelnic_get_hash_aoid_from_sign(PELNIC_AOIDS signId)
{
    switch (signId) {
    case AOID_SHA256:
    case AOID_SHA256WITHRSAENCRYPTION: return AOID_SHA256;
    case AOID_SHA384:
    case AOID_SHA384WITHRSAENCRYPTION: return AOID_SHA384;
    case AOID_SHA512:
    case AOID_SHA512WITHRSAENCRYPTION: return AOID_SHA512;
    default: return AOID_UNKNOWN;
    }
}

PELNIC_AOIDS pelnic_get_crypt_aoid_from_sign(PELNIC_AOIDS signId)
{
    switch (signId) {
    case AOID_SHA256WITHRSAENCRYPTION:
    case AOID_SHA384WITHRSAENCRYPTION:
    case AOID_SHA512WITHRSAENCRYPTION: return AOID_RSA;
    default: return AOID_UNKNOWN;
    }
}

const PELNIC_ASN_OID* pelnic_find_oid(const PELNIC_VRF*, PELNIC_AOIDS aoid)
{
    for (PNV_UINT32 i = 0; i < g_pnvOidCount; ++i) {
        if (g_pnvOIDTable[i].aoid == aoid) return &g_pnvOIDTable[i].stAsnOid;
    }
    return nullptr;
}

PELNIC_AOIDS pelnic_find_aoid(const PELNIC_VRF* pVrf, const PELNIC_ASN_OID* pOid)
{
    for (PNV_UINT32 i = 0; i < g_pnvOidCount; ++i) {
        if (pelnic_compare_asn_octs(pVrf, &g_pnvOIDTable[i].stAsnOid, pOid) == 0) return g_pnvOIDTable[i].aoid;
    }
    return AOID_UNKNOWN;
}
