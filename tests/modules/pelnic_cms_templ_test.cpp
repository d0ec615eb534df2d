// The tables of CMS and of timestamps, held against the ASN.1 of RFC 5652 and RFC 3161.
#include "cmsverify/pelnic_cms_templ.h"

#include "support/asn1_table.h"
#include "support/cms.h"
#include "support/vrf.h"
#include "support/x509.h"

namespace pnvtest {
namespace {

// ---- The tables, line by line as their ASN.1 has them ----

std::vector<Table> Tables()
{
    using Content = PELNIC_PKCS7_CONTENT;
    using SignedData = PELNIC_PKCS7_SIGNED_DATA;
    using ContentInfo = PELNIC_PKCS7_CONTENT_INFO;
    using SignerInfo = PELNIC_PKCS7_SIGNER_INFO;
    using Signers = PELNIC_PKCS7_SIGNER_INFO_BUNDLE;
    using IssuerAndSerial = PELNIC_PKCS7_ISSUER_AND_SERIAL;
    using TstInfo = PELNIC_TST_INFO;
    using Imprint = PELNIC_TS_MSG_IMPRINT;
    using Accuracy = PELNIC_TS_ACCURACY;
    const PELNIC_ASN1_ITEM* const raw = &PELNIC_ASN_OCTS_item;
    const PELNIC_ASN1_ITEM* const integer = &PELNIC_ASN_INT_item;
    const PELNIC_ASN1_ITEM* const bigInteger = &PELNIC_ASN_BIGINT_item;
    const PELNIC_ASN1_ITEM* const algorithm = &PELNIC_X509_ALGO_IDENTIFIER_item;
    const PELNIC_ASN1_ITEM* const attributes = &PELNIC_X509_ATTR_BUNDLE_item;
    constexpr PNV_UINT16 optionalPointer = kPointer | kOptional;

    return {
        Sequence<Content>("ContentInfo", PELNIC_PKCS7_CONTENT_item,
                          {{FIELD(Content, content_type), raw, kUntagged, kEmbedded},
                           {FIELD(Content, signed_data), &PELNIC_PKCS7_CONTENT_INFO_ANY_item, Explicit(0), kAnyByOid,
                            nullptr, offsetof(Content, content_type)}}),
        // raw_certs: no SET OF Certificate, for the elements stay as they came until all else is decoded.
        Sequence<SignedData>(
            "SignedData", PELNIC_PKCS7_SIGNED_DATA_item,
            {{FIELD(SignedData, version), integer, kUntagged, kEmbedded},
             {FIELD(SignedData, digest_algo_set), &PELNIC_X509_ALGO_IDENTIFIER_BUNDLE_item, kUntagged, kPointer},
             {FIELD(SignedData, content), &PELNIC_PKCS7_CONTENT_INFO_item, kUntagged, kPointer},
             {FIELD(SignedData, raw_certs), &PELNIC_X509_CERT_RAW_BUNDLE_item, Implicit(0), optionalPointer},
             {FIELD(SignedData, crls), &PELNIC_X509_CRL_BUNDLE_item, Implicit(1), optionalPointer},
             {FIELD(SignedData, signer_infos), &PELNIC_PKCS7_SIGNER_INFO_BUNDLE_item, kUntagged, kPointer}}),
        // content: whatever follows the type, not only [0] EXPLICIT OCTET STRING.
        Sequence<ContentInfo>("EncapsulatedContentInfo", PELNIC_PKCS7_CONTENT_INFO_item,
                              {{FIELD(ContentInfo, type), raw, kUntagged, kEmbedded},
                               {FIELD(ContentInfo, content), raw, kUntagged, optionalPointer}}),
        SetOf<Signers>("SignerInfos", PELNIC_PKCS7_SIGNER_INFO_BUNDLE_item,
                       {FIELD(Signers, infos), &PELNIC_PKCS7_SIGNER_INFO_item, kUntagged, kEmbedded, Capacity(1)}),
        Sequence<SignerInfo>(
            "SignerInfo", PELNIC_PKCS7_SIGNER_INFO_item,
            {{FIELD(SignerInfo, version), integer, kUntagged, kEmbedded},
             {FIELD(SignerInfo, issuer_sn), &PELNIC_PKCS7_ISSUER_AND_SERIAL_item, kUntagged, kPointer},
             {FIELD(SignerInfo, digest_algo), algorithm, kUntagged, kPointer},
             {FIELD(SignerInfo, raw_signed), &PELNIC_ASN_PEEK_OCTS_item, Implicit(0), kPointer, attributes},
             {FIELD(SignerInfo, auth_attrs), attributes, Implicit(0), optionalPointer},
             {FIELD(SignerInfo, digest_encryption_algo), algorithm, kUntagged, kPointer},
             {FIELD(SignerInfo, encrypted_digest), raw, kUntagged, kPointer},
             {FIELD(SignerInfo, unauth_attrs), attributes, Implicit(1), optionalPointer}}),
        Sequence<IssuerAndSerial>("IssuerAndSerialNumber", PELNIC_PKCS7_ISSUER_AND_SERIAL_item,
                                  {{FIELD(IssuerAndSerial, issuer), &PELNIC_X509_NAME_item, kUntagged, kPointer},
                                   {FIELD(IssuerAndSerial, sn), bigInteger, kUntagged, kPointer}}),
        // issuer: an implicitly tagged Name, where RFC 3161, 2.4.2, has an explicitly tagged GeneralName.
        Sequence<TstInfo>(
            "TstInfo", PELNIC_TST_INFO_item,
            {{FIELD(TstInfo, version), integer, kUntagged, kEmbedded},
             {FIELD(TstInfo, policy_id), raw, kUntagged, kPointer},
             {FIELD(TstInfo, msg_imprint), &PELNIC_TS_MSG_IMPRINT_item, kUntagged, kPointer},
             {FIELD(TstInfo, serial), bigInteger, kUntagged, kPointer},
             {FIELD(TstInfo, time), raw, kUntagged, kPointer},
             {FIELD(TstInfo, accuracy), &PELNIC_TS_ACCURACY_item, kUntagged, optionalPointer},
             {FIELD(TstInfo, ordering), &PELNIC_ASN_BOOL_item, kUntagged, kDefault},
             {FIELD(TstInfo, nonce), bigInteger, kUntagged, optionalPointer},
             {FIELD(TstInfo, issuer), &PELNIC_X509_NAME_item, Implicit(0), optionalPointer},
             {FIELD(TstInfo, extensions), &PELNIC_X509_EXTENSION_BUNDLE_item, Implicit(1), optionalPointer}}),
        Sequence<Imprint>("MessageImprint", PELNIC_TS_MSG_IMPRINT_item,
                          {{FIELD(Imprint, hash_algo), algorithm, kUntagged, kEmbedded},
                           {FIELD(Imprint, hash_value), raw, kUntagged, kEmbedded}}),
        // seconds is required, other than in RFC 3161, 2.4.2.
        Sequence<Accuracy>("Accuracy", PELNIC_TS_ACCURACY_item,
                           {{FIELD(Accuracy, seconds), integer, kUntagged, kPointer},
                            {FIELD(Accuracy, millis), integer, Implicit(0), optionalPointer},
                            {FIELD(Accuracy, micros), integer, Implicit(1), optionalPointer}}),
    };
}

class CmsTable : public ::testing::TestWithParam<Table> {};

INSTANTIATE_TEST_SUITE_P(Cms, CmsTable, ::testing::ValuesIn(Tables()),
                         [](const auto& testInfo) { return std::string(testInfo.param.name); });

TEST_P(CmsTable, IsTheTypeThatTheAsn1Names)
{
    ExpectTable(GetParam());
}

// Data, EnvelopedData and the others have no entry, and so cannot be decoded.
TEST(CmsTable, ContentCanOnlyBeSignedData)
{
    const PELNIC_ASN1_ITEM& any = PELNIC_PKCS7_CONTENT_INFO_ANY_item;
    EXPECT_EQ(any.asn_func, &g_pnvAsnFuncAny);
    ASSERT_EQ(any.templ_count, 1u);
    const auto& entry = *static_cast<const PELNIC_ASN1_ANY_MAP*>(any.asn_templ);
    EXPECT_EQ(entry.iAnyId, AOID_PKCS7_SIGNEDDATA);
    EXPECT_EQ(entry.pstAnyTempl->asn1_item, &PELNIC_PKCS7_SIGNED_DATA_item);
}

TEST(CmsTable, HasNoTypeInsideItself)
{
    EXPECT_EQ(Depth(&PELNIC_PKCS7_CONTENT_item), 11u); // down to an extension of a CRL's entry
    EXPECT_EQ(Depth(&PELNIC_TST_INFO_item), 5u);
}

// ---- What the rows of a SignerInfo make of it ----

// A SignerInfo from the serial number on.
Bytes SignerInfo(const Bytes& attributes, const Bytes& signatureAlgorithm)
{
    return Seq(Int(1), Seq(Name(Cn("CA")), Int(7)), AlgoId(oid::sha256), attributes, signatureAlgorithm,
               Octets({0x5A}));
}

TEST(SignerInfoRows, KeepSignedAttributesAsTheSetThatIsSigned)
{
    const Bytes attributes = MessageDigestAttribute(Bytes(32, 0x11));
    for (const Bytes& encoded : {Ctx(0, attributes), TlvLong(0xA0, 4, attributes)}) {
        Vrf vrf;
        const auto signer =
            DecodeItem<PELNIC_PKCS7_SIGNER_INFO_item>(vrf, SignerInfo(encoded, AlgoId(oid::rsaEncryption)));
        Bytes expected = encoded;
        expected[0] = 0x31;
        EXPECT_EQ(Content(*signer->raw_signed), expected);
        ASSERT_NE(signer->auth_attrs, nullptr);
        EXPECT_EQ(Encoding(*signer->auth_attrs), Set(attributes));
    }
}

// The peek takes what comes next; that it is no attributes, only auth_attrs tells.
TEST(SignerInfoRows, WithoutSignedAttributesKeepTheSignatureAlgorithmInTheirPlace)
{
    Vrf vrf;
    const Bytes algorithm = AlgoId(oid::sha256WithRsa);
    const auto signer = DecodeItem<PELNIC_PKCS7_SIGNER_INFO_item>(vrf, SignerInfo({}, algorithm));
    Bytes expected = algorithm;
    expected[0] = 0x31;
    EXPECT_EQ(Content(*signer->raw_signed), expected);
    EXPECT_EQ(signer->auth_attrs, nullptr);
    EXPECT_EQ(Encoding(*signer->digest_encryption_algo), algorithm);
}

// An empty element cannot be peeked, so signed attributes are never an empty set when they come from an encoding.
TEST(SignerInfoRows, RefuseAnEmptySetOfSignedAttributes)
{
    Vrf vrf;
    const Bytes der = SignerInfo(Ctx(0), AlgoId(oid::rsaEncryption));
    PELNIC_PKCS7_SIGNER_INFO* signer = nullptr;
    PNV_UINT32 octets = 0;
    EXPECT_EQ(_pnvDecode<PELNIC_PKCS7_SIGNER_INFO_item>(vrf, der.data(), Len(der), 0, &signer, &octets),
              PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(signer, nullptr);
}

} // namespace
} // namespace pnvtest
