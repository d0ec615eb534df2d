// The table of object identifiers and the signature algorithms among them.
#include "cmsverify/pelnic_asn1_def.h"

#include "cmsverify/pelnic_asn1_utils.h"
#include "support/vrf.h"

#include <type_traits>

namespace pnvtest {
namespace {

// ---- Tags ----

static_assert(sizeof(PELNIC_BER_CLASS) == 8 && sizeof(PELNIC_BER_FORM) == 8 && sizeof(PELNIC_BER_TAG_CODE) == 8);
static_assert(CBC_ANY_CLASS == -2 && CBC_NULL_CLASS == -1 && CBC_UNDEFINED == 0xFFFFFFFF);
static_assert(CBC_UNIV == 0 && CBC_APPL == 1 && CBC_CNTX == 2 && CBC_PRIV == 3);
static_assert(CBF_ANY_FORM == -2 && CBF_NULL_FORM == -1 && CBF_UNDEFINED == 0xFFFFFFFF);
static_assert(CBF_PRIM == 0 && CBF_CONS == 1);
static_assert(CBT_ANY_CODE == -2 && CBT_NULL_CODE == -1 && CBT_UNDEFINED == 0xFFFFFFFF);

// Comparisons of tags cover the whole record, so it must hold nothing but its three parts.
static_assert(sizeof(PELNIC_BER_TAG) == 24);
static_assert(offsetof(PELNIC_BER_TAG, cls) < offsetof(PELNIC_BER_TAG, form));
static_assert(offsetof(PELNIC_BER_TAG, form) < offsetof(PELNIC_BER_TAG, code));

TEST(BerTagCode, NumbersTheUniversalTypes)
{
    const std::vector<PELNIC_BER_TAG_CODE> codes{CBT_EOC,
                                                 CBT_BOOLEAN,
                                                 CBT_INTEGER,
                                                 CBT_BITSTRING,
                                                 CBT_OCTETSTRING,
                                                 CBT_NULLTYPE,
                                                 CBT_OID,
                                                 CBT_OBJECTDESCRIPTOR,
                                                 CBT_EXTERNAL,
                                                 CBT_REAL,
                                                 CBT_ENUM,
                                                 CBT_EMBEDDEDPDV,
                                                 CBT_UTF8STRING,
                                                 CBT_RELATIVE_OID,
                                                 CBT_RESERVED1,
                                                 CBT_RESERVED2,
                                                 CBT_SEQUENCES,
                                                 CBT_SETS,
                                                 CBT_NUMERICSTRING,
                                                 CBT_PRINTABLESTRING,
                                                 CBT_TELETEXSTRING,
                                                 CBT_VIDEOTEXSTRING,
                                                 CBT_IA5STRING,
                                                 CBT_UTCTIME,
                                                 CBT_GENERALIZEDTIME,
                                                 CBT_GRAPHICSTRING,
                                                 CBT_VISIBLESTRING,
                                                 CBT_GENERALSTRING,
                                                 CBT_UNIVERSALSTRING,
                                                 CBT_CHARACTERSTRING,
                                                 CBT_BMPSTRING_TAG_CODE,
                                                 CBT_LONG_FORM};
    ASSERT_EQ(codes.size(), 32u);
    for (std::size_t number = 0; number < codes.size(); ++number) EXPECT_EQ(codes[number], PNV_INT64(number));
}

// ---- Records ----

static_assert(offsetof(PELNIC_ASN_OCTS, len) < offsetof(PELNIC_ASN_OCTS, tag));
static_assert(offsetof(PELNIC_ASN_OCTS, tag) < offsetof(PELNIC_ASN_OCTS, octs));
static_assert(offsetof(PELNIC_ASN_BITS, bitLen) < offsetof(PELNIC_ASN_BITS, tag));
static_assert(offsetof(PELNIC_ASN_BITS, tag) < offsetof(PELNIC_ASN_BITS, bits));
static_assert(offsetof(PELNIC_ASN_BITS, bits) < offsetof(PELNIC_ASN_BITS, byteLen));
static_assert(std::is_same_v<PELNIC_ASN_OID, PELNIC_ASN_OCTS> && std::is_same_v<PELNIC_ASN_BIGINT, PELNIC_ASN_OCTS>);
static_assert(std::is_same_v<PELNIC_UTCTIME, PELNIC_ASN_OCTS> &&
              std::is_same_v<PELNIC_GENERALIZEDTIME, PELNIC_ASN_OCTS>);
static_assert(std::is_signed_v<PELNIC_ASN_INT> && sizeof(PELNIC_ASN_INT) == 4);
static_assert(std::is_signed_v<PELNIC_ASN_ENUM> && sizeof(PELNIC_ASN_ENUM) == 4);
static_assert(sizeof(PELNIC_ASN_BOOL) == 1);
static_assert(offsetof(PELNIC_OID_INFO, aoid) < offsetof(PELNIC_OID_INFO, stAsnOid));
static_assert(offsetof(PELNIC_OID_INFO, stAsnOid) < offsetof(PELNIC_OID_INFO, pucName));

// ---- The OID table ----

struct OidRow {
    PELNIC_AOIDS aoid;
    int number;
    const char* name;
    const char* dotted; // null for the placeholder
};
#define OID_ROW(aoid, number, dotted) \
    OidRow \
    { \
        aoid, number, #aoid, dotted \
    }
const OidRow kOidRows[] = {
    OID_ROW(AOID_UNKNOWN, 0, nullptr),
    OID_ROW(AOID_RSA, 34, "1.2.840.113549.1.1.1"),
    OID_ROW(AOID_SHA256, 43, "2.16.840.1.101.3.4.2.1"),
    OID_ROW(AOID_SHA384, 44, "2.16.840.1.101.3.4.2.2"),
    OID_ROW(AOID_SHA512, 45, "2.16.840.1.101.3.4.2.3"),
    OID_ROW(AOID_SHA256WITHRSAENCRYPTION, 63, "1.2.840.113549.1.1.11"),
    OID_ROW(AOID_SHA384WITHRSAENCRYPTION, 64, "1.2.840.113549.1.1.12"),
    OID_ROW(AOID_SHA512WITHRSAENCRYPTION, 65, "1.2.840.113549.1.1.13"),
    OID_ROW(AOID_AT_COMMONNAME, 161, "2.5.4.3"),
    OID_ROW(AOID_AT_LOCALITYNAME, 162, "2.5.4.7"),
    OID_ROW(AOID_AT_STATEORPROVINCENAME, 163, "2.5.4.8"),
    OID_ROW(AOID_AT_ORGANIZATIONNAME, 164, "2.5.4.10"),
    OID_ROW(AOID_AT_ORGANIZATIONALUNITNAME, 165, "2.5.4.11"),
    OID_ROW(AOID_AT_COUNTRYNAME, 168, "2.5.4.6"),
    OID_ROW(AOID_PKCS9_AT_EMAILADDRESS, 172, "1.2.840.113549.1.9.1"),
    OID_ROW(AOID_CE_AUTHORITYKEYIDENTIFIER, 174, "2.5.29.35"),
    OID_ROW(AOID_CE_SUBJECTKEYIDENTIFIER, 175, "2.5.29.14"),
    OID_ROW(AOID_CE_KEYUSAGE, 176, "2.5.29.15"),
    OID_ROW(AOID_CE_BASICCONSTRAINTS, 184, "2.5.29.19"),
    OID_ROW(AOID_CE_EXTKEYUSAGE, 188, "2.5.29.37"),
    OID_ROW(AOID_KP_CODESIGNING, 192, "1.3.6.1.5.5.7.3.3"),
    OID_ROW(AOID_KP_TIMESTAMPING, 193, "1.3.6.1.5.5.7.3.8"),
    OID_ROW(AOID_CE_ISSUINGDISTRIBUTIONPOINT, 202, "2.5.29.28"),
    OID_ROW(AOID_CE_CRLREASONS, 204, "2.5.29.21"),
    OID_ROW(AOID_PKCS7, 262, "1.2.840.113549.1.7"),
    OID_ROW(AOID_PKCS7_SIGNEDDATA, 264, "1.2.840.113549.1.7.2"),
    OID_ROW(AOID_PKCS9, 269, "1.2.840.113549.1.9"),
    OID_ROW(AOID_PKCS9_AT_CONTENTTYPE, 270, "1.2.840.113549.1.9.3"),
    OID_ROW(AOID_PKCS9_AT_MESSAGEDIGEST, 271, "1.2.840.113549.1.9.4"),
    OID_ROW(AOID_PKCS9_AT_SIGNINGTIME, 272, "1.2.840.113549.1.9.5"),
    OID_ROW(AOID_PKCS9_AT_TIMESTAMP_TOKEN, 307, "1.2.840.113549.1.9.16.2.14"),
};
#undef OID_ROW

// These two have no OID.
static_assert(AOID_ECDSA == 36 && AOID_AT == 155);

Bytes OidContent(const OidRow& row)
{
    return row.dotted == nullptr ? Bytes{0xFF, 0xFF} : Content(Oid(row.dotted), {});
}

Bytes OctetsOf(const PELNIC_ASN_OCTS& value)
{
    return Bytes(value.octs, value.octs + value.len);
}

// An OID as the decoder delivers it; reads the octets, which must outlive it.
PELNIC_ASN_OID DecodedOid(Bytes& content)
{
    return {Len(content), pelnic_make_tag(CBC_UNIV, CBF_PRIM, CBT_OID), content.data()};
}

class OidTable : public ::testing::Test {
protected:
    Vrf vrf_;
};

TEST_F(OidTable, HasThirtyOneEntries)
{
    EXPECT_EQ(g_pnvOidCount, 31u);
    EXPECT_EQ(std::size(kOidRows), 31u);
}

TEST_F(OidTable, HoldsEveryRowInOrder)
{
    for (std::size_t i = 0; i < std::size(kOidRows); ++i) {
        const OidRow& row = kOidRows[i];
        const PELNIC_OID_INFO& entry = g_pnvOIDTable[i];
        SCOPED_TRACE(row.name);
        EXPECT_EQ(int{row.aoid}, row.number);
        EXPECT_EQ(entry.aoid, row.aoid);
        EXPECT_EQ(OctetsOf(entry.stAsnOid), OidContent(row));
        EXPECT_EQ(entry.stAsnOid.tag.cls, CBC_UNIV);
        EXPECT_EQ(entry.stAsnOid.tag.form, CBF_PRIM);
        EXPECT_EQ(entry.stAsnOid.tag.code, CBT_OID);
        EXPECT_STREQ(entry.pucName, row.name);
    }
}

TEST_F(OidTable, FindsTheEntryOfEveryIdentifier)
{
    for (std::size_t i = 0; i < std::size(kOidRows); ++i) {
        EXPECT_EQ(pelnic_find_oid(vrf_, kOidRows[i].aoid), &g_pnvOIDTable[i].stAsnOid) << kOidRows[i].name;
    }
}

TEST_F(OidTable, FindsThePlaceholderForTheUnknownIdentifier)
{
    EXPECT_EQ(pelnic_find_oid(vrf_, AOID_UNKNOWN), &g_pnvOIDTable[0].stAsnOid);
}

TEST_F(OidTable, FindsNoOidForIdentifiersWithoutEntry)
{
    EXPECT_EQ(pelnic_find_oid(vrf_, AOID_ECDSA), nullptr);
    EXPECT_EQ(pelnic_find_oid(vrf_, AOID_AT), nullptr);
    EXPECT_EQ(pelnic_find_oid(vrf_, static_cast<PELNIC_AOIDS>(1)), nullptr);
}

TEST_F(OidTable, FindsTheIdentifierOfEveryOid)
{
    for (const OidRow& row : kOidRows) {
        Bytes content = OidContent(row);
        const PELNIC_ASN_OID oid = DecodedOid(content);
        EXPECT_EQ(pelnic_find_aoid(vrf_, &oid), row.aoid) << row.name;
    }
}

TEST_F(OidTable, FindsNoIdentifierForForeignOids)
{
    // A stranger, an attribute that has no entry, the beginning of an entry, and an entry with one more number.
    for (const char* dotted : {"1.3.14.3.2.26", "2.5.4.5", "1.2.840.113549.1.1", "2.5.4.3.1"}) {
        Bytes content = Content(Oid(dotted), {});
        const PELNIC_ASN_OID oid = DecodedOid(content);
        EXPECT_EQ(pelnic_find_aoid(vrf_, &oid), AOID_UNKNOWN) << dotted;
    }
}

TEST_F(OidTable, TheTagOfAnOidCounts)
{
    Bytes content = Content(Oid(oid::sha256), {});
    PELNIC_ASN_OID oid = DecodedOid(content);
    for (const PELNIC_BER_TAG& tag :
         {pelnic_make_tag(CBC_CNTX, CBF_PRIM, CBT_OID), pelnic_make_tag(CBC_UNIV, CBF_CONS, CBT_OID),
          pelnic_make_tag(CBC_UNIV, CBF_PRIM, CBT_OCTETSTRING), PELNIC_BER_TAG{}}) {
        oid.tag = tag;
        EXPECT_EQ(pelnic_find_aoid(vrf_, &oid), AOID_UNKNOWN);
    }
}

TEST_F(OidTable, NothingAndAnEmptyOidHaveNoIdentifier)
{
    PELNIC_ASN_OID empty{};
    EXPECT_EQ(pelnic_find_aoid(vrf_, nullptr), AOID_UNKNOWN);
    EXPECT_EQ(pelnic_find_aoid(vrf_, &empty), AOID_UNKNOWN);
    empty.tag = pelnic_make_tag(CBC_UNIV, CBF_PRIM, CBT_OID);
    EXPECT_EQ(pelnic_find_aoid(vrf_, &empty), AOID_UNKNOWN);
}

TEST_F(OidTable, LookupsNeitherAllocateNorLog)
{
    (void)pelnic_find_aoid(vrf_, pelnic_find_oid(vrf_, AOID_PKCS9_AT_TIMESTAMP_TOKEN));
    (void)pelnic_find_oid(vrf_, AOID_ECDSA);
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc | Call::Log), 0u);
}

// ---- Signature algorithms ----

struct SignatureRow {
    PELNIC_AOIDS algorithm, hash, key;
};
const SignatureRow kSignatureRows[] = {
    {AOID_SHA256WITHRSAENCRYPTION, AOID_SHA256, AOID_RSA},
    {AOID_SHA384WITHRSAENCRYPTION, AOID_SHA384, AOID_RSA},
    {AOID_SHA512WITHRSAENCRYPTION, AOID_SHA512, AOID_RSA},
    {AOID_SHA256, AOID_SHA256, AOID_UNKNOWN},
    {AOID_SHA384, AOID_SHA384, AOID_UNKNOWN},
    {AOID_SHA512, AOID_SHA512, AOID_UNKNOWN},
};

TEST(SignatureAlgorithm, GivesItsDigestAndItsKeyAlgorithm)
{
    for (const SignatureRow& row : kSignatureRows) {
        EXPECT_EQ(pelnic_get_hash_aoid_from_sign(row.algorithm), row.hash) << row.algorithm;
        EXPECT_EQ(pelnic_get_crypt_aoid_from_sign(row.algorithm), row.key) << row.algorithm;
    }
}

TEST(SignatureAlgorithm, AnythingElseIsUnknown)
{
    for (int number = 0; number < 400; ++number) {
        const auto aoid = static_cast<PELNIC_AOIDS>(number);
        bool listed = false;
        for (const SignatureRow& row : kSignatureRows) listed = listed || row.algorithm == aoid;
        if (listed) continue;
        EXPECT_EQ(pelnic_get_hash_aoid_from_sign(aoid), AOID_UNKNOWN) << number;
        EXPECT_EQ(pelnic_get_crypt_aoid_from_sign(aoid), AOID_UNKNOWN) << number;
    }
}

} // namespace
} // namespace pnvtest
