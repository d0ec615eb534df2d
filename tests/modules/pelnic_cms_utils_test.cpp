// Attributes looked up in a set, and what is copied out of them.
#include "cmsverify/pelnic_cms_utils.h"

#include "support/signature.h"

namespace pnvtest {
namespace {

const Bytes kDigest = Bytes(32, 0xD1); // no real one: libcrypto must not start before main
const Bytes kOther = Bytes(32, 0x5A);

Bytes MessageDigest(const Bytes& value)
{
    return Attribute(oid::messageDigest, value);
}
Bytes Token()
{
    return TimestampToken(FlatToken(FlatPki()), Text("stamped"));
}

class CmsAttribute : public ::testing::Test {
protected:
    using Attributes = OwnedItem<PELNIC_X509_ATTR_BUNDLE_item>;

    template <typename... Encodings> Attributes Bundle(const Encodings&... attributes)
    {
        return DecodeItem<PELNIC_X509_ATTR_BUNDLE_item>(vrf_, Set(attributes...));
    }

    // The result begins with a mark that no failure writes.
    void* Mark() { return this; }
    PELNIC_ERROR_CODE Take(const Attributes& attributes, PELNIC_AOIDS aoid)
    {
        result_ = Mark();
        return pelnic_x509_extract_attribute(vrf_, attributes.get(), aoid, &result_);
    }
    void ExpectRefused(const Attributes& attributes, PELNIC_AOIDS aoid, PELNIC_ERROR_CODE rc = PELNIC_ERR_CMS_DECODE)
    {
        const std::size_t before = vrf_.Plan().LiveBlocks();
        EXPECT_EQ(Take(attributes, aoid), rc);
        EXPECT_EQ(result_, Mark());
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), before);
    }
    void ExpectDigest(const Attributes& attributes, const Bytes& digest)
    {
        ASSERT_EQ(Take(attributes, AOID_PKCS9_AT_MESSAGEDIGEST), 0u);
        const auto* const block = static_cast<const PELNIC_DATA_BLOCK*>(result_);
        EXPECT_EQ(Bytes(block->pData, block->pData + block->nLen), digest);
        pelnic_x509_free_attribute(vrf_, result_, AOID_PKCS9_AT_MESSAGEDIGEST);
    }

    Vrf vrf_;
    void* result_ = nullptr;
};

// ---- Message digest ----

TEST_F(CmsAttribute, MessageDigestIsADataBlock)
{
    ExpectDigest(Bundle(ContentTypeAttribute(oid::data), MessageDigestAttribute(kDigest)), kDigest);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(CmsAttribute, TakesTheFirstOfTwoMessageDigests)
{
    ExpectDigest(Bundle(MessageDigestAttribute(kOther), MessageDigestAttribute(kDigest)), kOther);
}

TEST_F(CmsAttribute, TakesTheFirstValueOfAMessageDigest)
{
    ExpectDigest(Bundle(Attribute(oid::messageDigest, Octets(kOther), Octets(kDigest))), kOther);
    ExpectDigest(Bundle(Attribute(oid::messageDigest, Octets(kOther), Bytes{0xFF})), kOther);
}

TEST_F(CmsAttribute, MessageDigestMayHaveAnyTag)
{
    for (const Bytes& value : {Utf8("digest"), CtxPrim(0, Text("digest")), Seq(Text("digest"))}) {
        ExpectDigest(Bundle(MessageDigest(value)), Text("digest"));
    }
}

// Up to 64 octets a data block needs no memory of its own.
TEST_F(CmsAttribute, MessageDigestMayHaveAnyLengthButNone)
{
    for (std::size_t length : {1u, 64u, 65u, 1000u}) {
        ExpectDigest(Bundle(MessageDigestAttribute(Bytes(length, 0x5A))), Bytes(length, 0x5A));
    }
    ExpectRefused(Bundle(MessageDigestAttribute({})), AOID_PKCS9_AT_MESSAGEDIGEST);
}

TEST_F(CmsAttribute, RefusesAMessageDigestThatDoesNotDecode)
{
    ExpectRefused(Bundle(Attribute(oid::messageDigest)), AOID_PKCS9_AT_MESSAGEDIGEST);
    ExpectRefused(Bundle(MessageDigest(Tlv(0x04, 33, kDigest))), AOID_PKCS9_AT_MESSAGEDIGEST);
    ExpectRefused(Bundle(MessageDigest({0x04})), AOID_PKCS9_AT_MESSAGEDIGEST);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

// Only the first attribute is looked at, good or not.
TEST_F(CmsAttribute, RefusesABadMessageDigestBeforeAGoodOne)
{
    ExpectRefused(Bundle(Attribute(oid::messageDigest), MessageDigestAttribute(kDigest)), AOID_PKCS9_AT_MESSAGEDIGEST);
}

// ---- Timestamp token ----

TEST_F(CmsAttribute, TimestampTokenIsASignedData)
{
    const Attributes attributes =
        Bundle(SigningTimeAttribute(UtcTime("260101000000Z")), Attribute(oid::timestampToken, Token()));
    ASSERT_EQ(Take(attributes, AOID_PKCS9_AT_TIMESTAMP_TOKEN), 0u);
    const auto* const token = static_cast<const PELNIC_PKCS7_CONTENT*>(result_);
    EXPECT_EQ(Encoding(token->signed_data->content->type), Oid(oid::tstInfo));
    EXPECT_EQ(token->signed_data->certificates->certs.num, 1u);
    pelnic_x509_free_attribute(vrf_, result_, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(CmsAttribute, TakesTheFirstOfTwoTimestampTokens)
{
    ExpectRefused(Bundle(Attribute(oid::timestampToken, Seq()), Attribute(oid::timestampToken, Token())),
                  AOID_PKCS9_AT_TIMESTAMP_TOKEN);
}

TEST_F(CmsAttribute, RefusesATimestampTokenThatDoesNotDecode)
{
    ExpectRefused(Bundle(Attribute(oid::timestampToken)), AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    ExpectRefused(Bundle(Attribute(oid::timestampToken, Octets(Token()))), AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    ExpectRefused(Bundle(Attribute(oid::timestampToken, Replace(Token(), {0}, Oid(oid::data)))),
                  AOID_PKCS9_AT_TIMESTAMP_TOKEN);
}

// ---- Finding ----

TEST_F(CmsAttribute, RefusesOneThatIsNotThere)
{
    const Attributes attributes = Bundle(ContentTypeAttribute(oid::data));
    for (PELNIC_AOIDS aoid : {AOID_PKCS9_AT_MESSAGEDIGEST, AOID_PKCS9_AT_TIMESTAMP_TOKEN, AOID_PKCS9_AT_SIGNINGTIME}) {
        ExpectRefused(attributes, aoid);
        ExpectRefused(Bundle(), aoid);
    }
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

// Identifiers compare with their tag.
TEST_F(CmsAttribute, RefusesOneWhoseIdentifierIsNoOid)
{
    const Bytes identifier = Octets(Content(Oid(oid::messageDigest), {}));
    ExpectRefused(Bundle(Seq(identifier, Set(Octets(kDigest)))), AOID_PKCS9_AT_MESSAGEDIGEST);
}

TEST_F(CmsAttribute, RefusesAnIdentifierThatTheTableLacks)
{
    for (PELNIC_AOIDS aoid : {AOID_ECDSA, AOID_AT}) ExpectRefused(Bundle(MessageDigestAttribute(kDigest)), aoid);
}

TEST_F(CmsAttribute, AnyOtherThatIsThereIsFoundAndNotDecoded)
{
    const Attributes attributes = Bundle(ContentTypeAttribute(oid::data), SigningTimeAttribute({}));
    for (PELNIC_AOIDS aoid : {AOID_PKCS9_AT_CONTENTTYPE, AOID_PKCS9_AT_SIGNINGTIME}) {
        EXPECT_EQ(Take(attributes, aoid), 0u);
        EXPECT_EQ(result_, Mark());
    }
}

// A signer without unsigned attributes has a null bundle.
TEST_F(CmsAttribute, RefusesNull)
{
    const Attributes attributes = Bundle(MessageDigestAttribute(kDigest));
    ExpectRefused(Attributes(nullptr, {vrf_}), AOID_PKCS9_AT_TIMESTAMP_TOKEN, PELNIC_ERR_NULL_POINTER);
    void* result = Mark();
    EXPECT_EQ(pelnic_x509_extract_attribute(nullptr, attributes.get(), AOID_PKCS9_AT_MESSAGEDIGEST, &result),
              PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(result, Mark());
    EXPECT_EQ(pelnic_x509_extract_attribute(vrf_, attributes.get(), AOID_PKCS9_AT_MESSAGEDIGEST, nullptr),
              PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

// ---- Freeing ----

TEST_F(CmsAttribute, FreeIgnoresNullAndOtherIdentifiers)
{
    int record = 0;
    pelnic_x509_free_attribute(vrf_, nullptr, AOID_PKCS9_AT_MESSAGEDIGEST);
    pelnic_x509_free_attribute(vrf_, nullptr, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    pelnic_x509_free_attribute(nullptr, &record, AOID_PKCS9_AT_MESSAGEDIGEST);
    pelnic_x509_free_attribute(vrf_, &record, AOID_PKCS9_AT_CONTENTTYPE);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

// ---- Parts ----

TEST_F(CmsAttribute, ComparisonIsOfTheWholeIdentifier)
{
    const Attributes attributes = Bundle(MessageDigestAttribute(kDigest));
    const PELNIC_X509_ATTR_ENTRY* const entry = attributes->attrs.data[0];
    EXPECT_EQ(_pnvCmpP7AttrType(vrf_, pelnic_find_oid(vrf_, AOID_PKCS9_AT_MESSAGEDIGEST), entry), 0);
    EXPECT_NE(_pnvCmpP7AttrType(vrf_, pelnic_find_oid(vrf_, AOID_PKCS9_AT_CONTENTTYPE), entry), 0);
    EXPECT_NE(_pnvCmpP7AttrType(vrf_, pelnic_find_oid(vrf_, AOID_PKCS9), entry), 0);
}

TEST_F(CmsAttribute, EachKindIsExtractedFromOneEntry)
{
    const Attributes attributes = Bundle(MessageDigestAttribute(kDigest), Attribute(oid::timestampToken, Token()));
    void* digest = nullptr;
    EXPECT_EQ(_pnvExtractP9MessageDigest(vrf_, attributes->attrs.data[0], &digest), 0u);
    pelnic_x509_free_attribute(vrf_, digest, AOID_PKCS9_AT_MESSAGEDIGEST);
    void* token = nullptr;
    EXPECT_EQ(_pnvExtractP9TimeStampToken(vrf_, attributes->attrs.data[1], &token), 0u);
    pelnic_x509_free_attribute(vrf_, token, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
}

// A plan for each run, so none in the fixture.
TEST(CmsAttributeFaults, ReleaseEverythingWhicheverCallFails)
{
    const Bytes longDigest(65, 0x5A);
    const Bytes encoded = Set(MessageDigestAttribute(longDigest), Attribute(oid::timestampToken, Token()));
    for (PELNIC_AOIDS aoid : {AOID_PKCS9_AT_MESSAGEDIGEST, AOID_PKCS9_AT_TIMESTAMP_TOKEN}) {
        const auto extract = [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            OwnedItem<PELNIC_X509_ATTR_BUNDLE_item> attributes;
            plan.WithoutFaults([&] { attributes = DecodeItem<PELNIC_X509_ATTR_BUNDLE_item>(vrf, encoded); });
            void* result = nullptr;
            const PELNIC_ERROR_CODE rc = pelnic_x509_extract_attribute(vrf, attributes.get(), aoid, &result);
            EXPECT_EQ(result != nullptr, rc == 0);
            pelnic_x509_free_attribute(vrf, result, aoid);
            return rc;
        };
        SweepFaults(Call::Malloc | calls::copies, extract, [](PELNIC_ERROR_CODE rc, const FaultRun& run) {
            EXPECT_EQ(rc, run.met ? PELNIC_ERR_CMS_DECODE : 0u);
        });
    }
}

} // namespace
} // namespace pnvtest
