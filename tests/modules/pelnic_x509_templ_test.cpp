// The tables of X.509, held against the ASN.1 of RFC 5280.
#include "support/asn1_table.h"
#include "support/pki.h"
#include "support/vrf.h"
#include "support/x509.h"

namespace pnvtest {
namespace {

// ---- The tables, line by line as their ASN.1 has them ----

template <typename Record> Table SequenceOf(const char* name, const PELNIC_ASN1_ITEM& item, const Row& row)
{
    return {name, &item, &g_pnvAsnFuncSetOf, CBT_SEQUENCES, sizeof(Record), {row}};
}

std::vector<Table> Tables()
{
    using Attribute = PELNIC_X509_ATTR_ENTRY;
    using Algorithm = PELNIC_X509_ALGO_IDENTIFIER;
    using Extension = PELNIC_X509_EXTENSION_ENTRY;
    using Tbs = PELNIC_X509_CERTINFO;
    using TbsCrl = PELNIC_X509_CRLINFO;
    using Revoked = PELNIC_X509_REVOKED_ENTRY;
    using Constraints = PELNIC_X509_BASIC_CONSTRAINTS;
    using AuthorityKid = PELNIC_X509_AUTHORITY_KID;
    using Idp = PELNIC_X509_ISSUING_DIST_POINT;
    const PELNIC_ASN1_ITEM* const raw = &PELNIC_ASN_OCTS_item;
    const PELNIC_ASN1_ITEM* const algorithm = &PELNIC_X509_ALGO_IDENTIFIER_item;
    const PELNIC_ASN1_ITEM* const name = &PELNIC_X509_NAME_item;
    const PELNIC_ASN1_ITEM* const extensions = &PELNIC_X509_EXTENSION_BUNDLE_item;
    constexpr PNV_UINT16 optionalPointer = kPointer | kOptional;

    return {
        Sequence<PELNIC_X509_CERT>(
            "Certificate", PELNIC_X509_CERT_item,
            {{FIELD(PELNIC_X509_CERT, raw_signed), &PELNIC_ASN_PEEK_OCTS_item, kUntagged, kPointer},
             {FIELD(PELNIC_X509_CERT, toBeSigned), &PELNIC_X509_CERTINFO_item, kUntagged, kPointer},
             {FIELD(PELNIC_X509_CERT, algorithm), algorithm, kUntagged, kPointer},
             {FIELD(PELNIC_X509_CERT, signature), &PELNIC_ASN_BITS_item, kUntagged, kPointer}}),
        Sequence<Tbs>("TbsCertificate", PELNIC_X509_CERTINFO_item,
                      {{FIELD(Tbs, version), &PELNIC_ASN_INT_item, Explicit(0), kDefault},
                       {FIELD(Tbs, serialNumber), &PELNIC_ASN_BIGINT_item, kUntagged, kPointer},
                       {FIELD(Tbs, signature), algorithm, kUntagged, kPointer},
                       {FIELD(Tbs, issuer), name, kUntagged, kPointer},
                       {FIELD(Tbs, validity), &PELNIC_X509_VALIDITY_item, kUntagged, kPointer},
                       {FIELD(Tbs, subject), name, kUntagged, kPointer},
                       {FIELD(Tbs, subjectPubKey), &PELNIC_X509_PUBKEY_INFO_item, kUntagged, kPointer},
                       {FIELD(Tbs, issuerUID), &PELNIC_ASN_BITS_item, Implicit(1), optionalPointer},
                       {FIELD(Tbs, subjectUID), &PELNIC_ASN_BITS_item, Implicit(2), optionalPointer},
                       {FIELD(Tbs, extensions), extensions, Explicit(3), optionalPointer}}),
        Sequence<PELNIC_ASN_VALIDITY>("Validity", PELNIC_X509_VALIDITY_item,
                                      {{FIELD(PELNIC_ASN_VALIDITY, notBefore), raw, kUntagged, kEmbedded},
                                       {FIELD(PELNIC_ASN_VALIDITY, notAfter), raw, kUntagged, kEmbedded}}),
        SequenceOf<PELNIC_X509_NAME>(
            "Name", PELNIC_X509_NAME_item,
            {FIELD(PELNIC_X509_NAME, names), &PELNIC_X509_ATTR_BUNDLE_item, kUntagged, kEmbedded, Capacity(5)}),
        SetOf<PELNIC_X509_ATTR_BUNDLE>("AttributeBundle", PELNIC_X509_ATTR_BUNDLE_item,
                                       {FIELD(PELNIC_X509_ATTR_BUNDLE, attrs), &PELNIC_X509_ATTRIBUTE_ENTRY_item,
                                        kUntagged, kEmbedded, Capacity(1)}),
        Sequence<Attribute>(
            "AttributeEntry", PELNIC_X509_ATTRIBUTE_ENTRY_item,
            {{FIELD(Attribute, id), raw, kUntagged, kEmbedded}, {FIELD(Attribute, value), raw, kUntagged, kEmbedded}}),
        Sequence<Algorithm>("AlgorithmIdentifier", PELNIC_X509_ALGO_IDENTIFIER_item,
                            {{FIELD(Algorithm, algorithm), raw, kUntagged, kEmbedded},
                             {FIELD(Algorithm, parameters), raw, kUntagged, optionalPointer}}),
        SetOf<PELNIC_X509_ALGO_IDENTIFIER_BUNDLE>(
            "AlgorithmIdentifierBundle", PELNIC_X509_ALGO_IDENTIFIER_BUNDLE_item,
            {FIELD(PELNIC_X509_ALGO_IDENTIFIER_BUNDLE, algos), algorithm, kUntagged, kEmbedded, Capacity(1)}),
        Sequence<PELNIC_X509_PUBKEY_INFO>(
            "PublicKeyInfo", PELNIC_X509_PUBKEY_INFO_item,
            {{FIELD(PELNIC_X509_PUBKEY_INFO, algorithm), algorithm, kUntagged, kEmbedded},
             {FIELD(PELNIC_X509_PUBKEY_INFO, subjectPublicKey), &PELNIC_ASN_BITS_item, kUntagged, kEmbedded}}),
        SequenceOf<PELNIC_X509_EXTENSION_BUNDLE>("ExtensionBundle", PELNIC_X509_EXTENSION_BUNDLE_item,
                                                 {FIELD(PELNIC_X509_EXTENSION_BUNDLE, extensions),
                                                  &PELNIC_X509_EXTN_item, kUntagged, kEmbedded, Capacity(5)}),
        Sequence<Extension>("Extension", PELNIC_X509_EXTN_item,
                            {{FIELD(Extension, extnId), raw, kUntagged, kEmbedded},
                             {FIELD(Extension, critical), &PELNIC_ASN_BOOL_item, kUntagged, kDefault},
                             {FIELD(Extension, extnValue), raw, kUntagged, kEmbedded}}),
        Sequence<PELNIC_X509_CRL>(
            "Crl", PELNIC_X509_CRL_item,
            {{FIELD(PELNIC_X509_CRL, raw_signed), &PELNIC_ASN_PEEK_OCTS_item, kUntagged, kPointer},
             {FIELD(PELNIC_X509_CRL, tbs_cert_list), &PELNIC_X509_CRLINFO_item, kUntagged, kPointer},
             {FIELD(PELNIC_X509_CRL, algorithm), algorithm, kUntagged, kPointer},
             {FIELD(PELNIC_X509_CRL, signature), &PELNIC_ASN_BITS_item, kUntagged, kPointer}}),
        // nextUpdate is required, other than in RFC 5280, 5.1.2.5.
        Sequence<TbsCrl>("TbsCertList", PELNIC_X509_CRLINFO_item,
                         {{FIELD(TbsCrl, version), &PELNIC_ASN_INT_item, kUntagged, optionalPointer},
                          {FIELD(TbsCrl, signature_algo), algorithm, kUntagged, kPointer},
                          {FIELD(TbsCrl, issuer), name, kUntagged, kPointer},
                          {FIELD(TbsCrl, this_update), raw, kUntagged, kPointer},
                          {FIELD(TbsCrl, next_update), raw, kUntagged, kPointer},
                          {FIELD(TbsCrl, revoked_certs), &PELNIC_SEQOF_X509_REVOKED_item, kUntagged, optionalPointer},
                          {FIELD(TbsCrl, extensions), extensions, Explicit(0), optionalPointer}}),
        SequenceOf<PELNIC_X509_REVOKED>("RevokedList", PELNIC_SEQOF_X509_REVOKED_item,
                                        {FIELD(PELNIC_X509_REVOKED, revoked_list), &PELNIC_X509_REVOKED_ENTRY_item,
                                         kUntagged, kCarved, Capacity(5), offsetof(PELNIC_X509_REVOKED, blocks)}),
        Sequence<Revoked>("RevokedEntry", PELNIC_X509_REVOKED_ENTRY_item,
                          {{FIELD(Revoked, user_cert), &PELNIC_ASN_BIGINT_item, kUntagged, kPointer},
                           {FIELD(Revoked, revocation_date), raw, kUntagged, kPointer},
                           {FIELD(Revoked, crl_entry_extensions), extensions, kUntagged, optionalPointer}}),
        SetOf<PELNIC_X509_CERT_BUNDLE>(
            "CertificateBundle", PELNIC_X509_CERT_BUNDLE_item,
            {FIELD(PELNIC_X509_CERT_BUNDLE, certs), &PELNIC_X509_CERT_item, kUntagged, kEmbedded, Capacity(5)}),
        SequenceOf<PELNIC_X509_CERT_RAW_BUNDLE>(
            "RawCertificateBundle", PELNIC_X509_CERT_RAW_BUNDLE_item,
            {FIELD(PELNIC_X509_CERT_RAW_BUNDLE, bundle), raw, kUntagged, kEmbedded, Capacity(5)}),
        SetOf<PELNIC_X509_CRL_BUNDLE>(
            "CrlBundle", PELNIC_X509_CRL_BUNDLE_item,
            {FIELD(PELNIC_X509_CRL_BUNDLE, crls), &PELNIC_X509_CRL_item, kUntagged, kEmbedded, Capacity(5)}),
        Sequence<AuthorityKid>(
            "AuthorityKeyIdentifier", PELNIC_X509_AUTHORITY_KID_item,
            {{FIELD(AuthorityKid, keyIdentifier), raw, Implicit(0), optionalPointer},
             {FIELD(AuthorityKid, authorityCertIssuer), raw, Implicit(1), optionalPointer},
             {FIELD(AuthorityKid, authorityCertSerialNumber), &PELNIC_ASN_BIGINT_item, Implicit(2), optionalPointer}}),
        Sequence<Constraints>("BasicConstraints", PELNIC_X509_BASIC_CONSTRAINTS_item,
                              {{FIELD(Constraints, is_ca), &PELNIC_ASN_BOOL_item, kUntagged, kDefault},
                               {FIELD(Constraints, max_path_len), &PELNIC_ASN_INT_item, kUntagged, optionalPointer}}),
        Sequence<Idp>("IssuingDistributionPoint", PELNIC_X509_ISSUING_DIST_POINT_item,
                      {{FIELD(Idp, distpoint), raw, Implicit(0), optionalPointer},
                       {FIELD(Idp, onlyuser), &PELNIC_ASN_BOOL_item, Implicit(1), kOptional},
                       {FIELD(Idp, onlyCA), &PELNIC_ASN_BOOL_item, Implicit(2), kOptional},
                       {FIELD(Idp, onlysomereasons), &PELNIC_ASN_BITS_item, Implicit(3), optionalPointer},
                       {FIELD(Idp, indirectCRL), &PELNIC_ASN_BOOL_item, Implicit(4), kOptional},
                       {FIELD(Idp, onlyattr), &PELNIC_ASN_BOOL_item, Implicit(5), kOptional}}),
        SequenceOf<PELNIC_ASN_OID_BUNDLE>(
            "OidBundle", PELNIC_ASN_OID_BUNDLE_item,
            {FIELD(PELNIC_ASN_OID_BUNDLE, oid_bundle), raw, kUntagged, kEmbedded, Capacity(3)}),
        Sequence<PELNIC_RSA_PUBKEY>(
            "RsaPublicKey", PELNIC_RSA_PUBKEY_item,
            {{FIELD(PELNIC_RSA_PUBKEY, modules), &PELNIC_ASN_BIGINT_item, kUntagged, kEmbedded},
             {FIELD(PELNIC_RSA_PUBKEY, publicExponent), &PELNIC_ASN_BIGINT_item, kUntagged, kEmbedded}}),
    };
}

class X509Table : public ::testing::TestWithParam<Table> {
protected:
    const PELNIC_ASN1_ITEM& item_ = *GetParam().item;
    const PELNIC_ASN1_TEMPLATE* const rows_ = static_cast<const PELNIC_ASN1_TEMPLATE*>(item_.asn_templ);
};

INSTANTIATE_TEST_SUITE_P(X509, X509Table, ::testing::ValuesIn(Tables()),
                         [](const auto& testInfo) { return std::string(testInfo.param.name); });

TEST_P(X509Table, IsThatOfTheAsn1)
{
    ExpectTable(GetParam());
}

// A record declares its fields in the order in which they are encoded, and none reaches into the next.
TEST_P(X509Table, FieldsFollowTheEncoding)
{
    for (PNV_UINT32 i = 0; i < item_.templ_count; ++i) {
        const PELNIC_ASN1_TEMPLATE& row = rows_[i];
        const bool list = item_.asn_func == &g_pnvAsnFuncSetOf;
        const std::size_t embedded = list ? sizeof(PELNIC_LIST_DUMMY) : row.asn1_item->item_szie;
        const std::size_t size = (row.flag & kPointer) != 0 ? sizeof(void*) : embedded;
        const std::size_t end = i + 1 < item_.templ_count ? rows_[i + 1].offset_val : item_.item_szie;
        EXPECT_LE(row.offset_val + size, end) << row.name_val;
    }
}

TEST(X509Types, HaveNoTypeInsideItself)
{
    EXPECT_EQ(Depth(&PELNIC_X509_CERT_item), 6u); // down to an attribute's value in a name
    EXPECT_EQ(Depth(&PELNIC_X509_CRL_item), 7u);  // down to an extension of an entry
    for (const PELNIC_ASN1_ITEM* item :
         {&PELNIC_X509_BASIC_CONSTRAINTS_item, &PELNIC_X509_AUTHORITY_KID_item, &PELNIC_X509_ISSUING_DIST_POINT_item,
          &PELNIC_ASN_OID_BUNDLE_item, &PELNIC_RSA_PUBKEY_item}) {
        EXPECT_EQ(Depth(item), 2u);
    }
}

// ---- Bundles ----

// Only the operations for one certificate or CRL count references: what lies in a bundle belongs to the bundle.
TEST(X509Bundle, ElementsHaveNoReference)
{
    Vrf vrf;
    const auto certs = DecodeItem<PELNIC_X509_CERT_BUNDLE_item>(vrf, Set(Build(Root()), Build(SigningCa())));
    ASSERT_EQ(certs->certs.num, 2u);
    EXPECT_EQ(certs->certs.data[0]->iRef, 0);
    EXPECT_EQ(Encoding(*certs->certs.data[1]), Build(SigningCa()));
    const auto crls = DecodeItem<PELNIC_X509_CRL_BUNDLE_item>(vrf, Set(Build(CrlOf(Root()))));
    ASSERT_EQ(crls->crls.num, 1u);
    EXPECT_EQ(crls->crls.data[0]->iRef, 0);
    EXPECT_EQ(Encoding(*crls->crls.data[0]), Build(CrlOf(Root())));
}

TEST(X509Bundle, RawCertificatesKeepTagAndContent)
{
    Vrf vrf;
    const Bytes other = CtxPrim(3, {0x01});
    const auto raw = DecodeItem<PELNIC_X509_CERT_RAW_BUNDLE_item>(vrf, Seq(Build(Root()), other));
    ASSERT_EQ(raw->bundle.num, 2u);
    EXPECT_EQ(Encoding(*raw->bundle.data[0]), Build(Root()));
    EXPECT_EQ(Encoding(*raw->bundle.data[1]), other);
}

TEST(X509Bundle, AlgorithmIdentifiersMayBeMany)
{
    Vrf vrf;
    const Bytes first = AlgoId(oid::sha256);
    const Bytes second = AlgoId(oid::sha384, {});
    const auto bundle = DecodeItem<PELNIC_X509_ALGO_IDENTIFIER_BUNDLE_item>(vrf, Set(first, second));
    ASSERT_EQ(bundle->algos.num, 2u);
    EXPECT_EQ(Encoding(*bundle->algos.data[0]), first);
    EXPECT_EQ(Encoding(*bundle->algos.data[1]), second);
}

} // namespace
} // namespace pnvtest
