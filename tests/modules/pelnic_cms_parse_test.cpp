// SignedData and TSTInfo out of their wrappings, and what is released when one of them does not decode.
#include "cmsverify/pelnic_cms_parse.h"

#include "support/exact_heap.h"
#include "support/signature.h"

namespace pnvtest {
namespace {

// ---- Back to DER ----

using pnvtest::Encoding;

template <typename List> Bytes Elements(const List& list)
{
    std::vector<Bytes> elements;
    for (PNV_UINT32 i = 0; i < list.num; ++i) elements.push_back(Encoding(*list.data[i]));
    return Cat(elements);
}

// The field of an implicitly tagged set, which a null pointer leaves out.
Bytes OptionalSet(unsigned tag, const PELNIC_X509_ATTR_BUNDLE* attributes)
{
    return attributes == nullptr ? Bytes{} : Ctx(tag, Elements(attributes->attrs));
}

Bytes Encoding(const PELNIC_PKCS7_SIGNER_INFO& signer)
{
    return Seq(Int(signer.version), Seq(Encoding(*signer.issuer_sn->issuer), IntegerEncoding(*signer.issuer_sn->sn)),
               Encoding(*signer.digest_algo), OptionalSet(0, signer.auth_attrs),
               Encoding(*signer.digest_encryption_algo), Encoding(*signer.encrypted_digest),
               OptionalSet(1, signer.unauth_attrs));
}

Bytes Encoding(const PELNIC_PKCS7_CONTENT_INFO& info)
{
    return Seq(Encoding(info.type), info.content == nullptr ? Bytes{} : Encoding(*info.content));
}

Bytes Encoding(const PELNIC_PKCS7_CONTENT& content)
{
    const PELNIC_PKCS7_SIGNED_DATA& data = *content.signed_data;
    std::vector<Bytes> signers;
    for (PNV_UINT32 i = 0; i < data.signer_infos->infos.num; ++i) {
        signers.push_back(Encoding(*data.signer_infos->infos.data[i]));
    }
    return Seq(Encoding(content.content_type),
               Ctx(0, Seq(Int(data.version), Set(Elements(data.digest_algo_set->algos)), Encoding(*data.content),
                          data.raw_certs == nullptr ? Bytes{} : Ctx(0, Elements(data.raw_certs->bundle)),
                          data.crls == nullptr ? Bytes{} : Ctx(1, Elements(data.crls->crls)), Set(Cat(signers)))));
}

Bytes Encoding(const PELNIC_TS_ACCURACY& accuracy)
{
    const auto part = [](unsigned tag, const PELNIC_ASN_INT* value) {
        return value == nullptr ? Bytes{} : CtxPrim(tag, Content(Int(*value), {}));
    };
    return Seq(Int(*accuracy.seconds), part(0, accuracy.millis), part(1, accuracy.micros));
}

Bytes Encoding(const PELNIC_TST_INFO& info)
{
    return Seq(Int(info.version), Encoding(*info.policy_id),
               Seq(Encoding(info.msg_imprint->hash_algo), Encoding(info.msg_imprint->hash_value)),
               IntegerEncoding(*info.serial), Encoding(*info.time),
               info.accuracy == nullptr ? Bytes{} : Encoding(*info.accuracy), info.ordering == 0 ? Bytes{} : Bool(true),
               info.nonce == nullptr ? Bytes{} : IntegerEncoding(*info.nonce),
               info.issuer == nullptr ? Bytes{} : Ctx(0, Content(Encoding(*info.issuer), {})),
               info.extensions == nullptr ? Bytes{} : Ctx(1, Content(Encoding(*info.extensions), {})));
}

// ---- Samples ----

const Bytes kContent = Text("content");

// Two certificates, a CRL, a signer with signed attributes and a direct one with unsigned attributes.
CmsSpec FullCms()
{
    const DemoPki pki = FlatPki();
    SignerSpec plain = SignedBy(pki.tsa);
    SignerSpec direct = SignedBy(pki.signer);
    direct.signedAttributes = nullptr;
    direct.unsignedAttributes = {[](const Bytes&) { return SigningTimeAttribute(UtcTime("260101000000Z")); }};

    CmsSpec cms;
    cms.certificates = {Build(pki.signer), Build(pki.tsa)};
    cms.crls = {Build(pki.rootCrl)};
    cms.signers = {plain, direct};
    cms.digestAlgorithms = {AlgoId(oid::sha256), AlgoId(oid::sha1, {})};
    return cms;
}

TokenSpec FullToken()
{
    TokenSpec token;
    token.serial = {0x00, 0xC0, 0xDE};
    token.accuracy = Seq(Int(1), CtxPrim(0, {0x01, 0xF4}), CtxPrim(1, {0x64}));
    token.ordering = Bool(true);
    token.nonce = Int(0x12345);
    token.tsa = Ctx(0, Content(TestName("TSA"), {}));
    token.extensions = Ctx(1, Ext(oid::testPolicy, Null()));
    return token;
}

struct SignedDataKind {
    using Record = PELNIC_PKCS7_CONTENT;
    static constexpr auto Decode = &pelnic_pkcs7_decode_signed;
    static constexpr auto Free = &pelnic_pkcs7_free_signed;
    static constexpr PELNIC_ERROR_CODE kMalformed = PELNIC_ERR_CMS_DECODE;
    static constexpr PELNIC_ERROR_CODE kEmpty = PELNIC_ERR_NULL_POINTER;
    static Bytes Sample() { return DetachedCms(kContent, FullCms()); }
};

struct TstInfoKind {
    using Record = PELNIC_TST_INFO;
    static constexpr auto Decode = &pelnic_decode_timestamp_token;
    static constexpr auto Free = &pelnic_free_timestamp_token;
    static constexpr PELNIC_ERROR_CODE kMalformed = PELNIC_ERR_TSP_DECODE;
    static constexpr PELNIC_ERROR_CODE kEmpty = PELNIC_ERR_TSP_DECODE; // the engine's own refusal, replaced
    static Bytes Sample() { return TstInfo(FullToken(), kContent); }
};

struct KindName {
    template <typename Kind> static std::string GetName(int)
    {
        return std::is_same_v<Kind, SignedDataKind> ? "SignedData" : "TstInfo";
    }
};
using Kinds = ::testing::Types<SignedDataKind, TstInfoKind>;

// What a decoding operation answered. Its out-parameters begin with marks that no operation writes.
template <typename Kind> struct Outcome {
    using Record = typename Kind::Record;
    static Record* Mark()
    {
        static Record mark{};
        return &mark;
    }
    static constexpr PNV_UINT32 kMark = 0xA5A5A5A5;

    PELNIC_ERROR_CODE rc = 0;
    Record* record = Mark();
    PNV_UINT32 octets = kMark;

    void ExpectRefused(PELNIC_ERROR_CODE code) const
    {
        EXPECT_EQ(rc, code);
        EXPECT_EQ(record, Mark());
        EXPECT_EQ(octets, kMark);
    }
};

template <typename Kind> Outcome<Kind> Decode(const PELNIC_VRF* vrf, const std::uint8_t* octets, std::size_t length)
{
    Outcome<Kind> outcome;
    outcome.rc = Kind::Decode(vrf, octets, static_cast<PNV_UINT32>(length), &outcome.record, &outcome.octets);
    return outcome;
}

// A record that the test knows to decode, released at its end.
template <typename Kind> class Decoded {
public:
    Decoded(const PELNIC_VRF* vrf, const Bytes& der) : vrf_(vrf)
    {
        outcome_ = Decode<Kind>(vrf, der.data(), der.size());
        if (outcome_.rc != 0) ThrowRefused(outcome_.rc);
    }
    ~Decoded() { Kind::Free(vrf_, outcome_.record); }
    Decoded(const Decoded&) = delete;
    Decoded& operator=(const Decoded&) = delete;

    const typename Kind::Record* operator->() const { return outcome_.record; }
    const typename Kind::Record& operator*() const { return *outcome_.record; }
    PNV_UINT32 Octets() const { return outcome_.octets; }

private:
    const PELNIC_VRF* vrf_;
    Outcome<Kind> outcome_;
};

// ---- Both alike ----

template <typename Kind> class CmsParse : public ::testing::Test {
protected:
    Vrf vrf_;
    const Bytes sample_ = Kind::Sample();
};
TYPED_TEST_SUITE(CmsParse, Kinds, KindName);

TYPED_TEST(CmsParse, HoldsEveryField)
{
    const Decoded<TypeParam> record(this->vrf_, this->sample_);
    EXPECT_EQ(Encoding(*record), this->sample_);
    EXPECT_TRUE(this->vrf_.Plan().Logs().empty());
}

TYPED_TEST(CmsParse, ReportsItsOwnLengthWhateverFollows)
{
    for (const Bytes& following : {Bytes{}, Bytes{0x00}, this->sample_}) {
        const Decoded<TypeParam> record(this->vrf_, Cat(this->sample_, following));
        EXPECT_EQ(record.Octets(), this->sample_.size());
    }
}

TYPED_TEST(CmsParse, DoesNotDependOnTheInput)
{
    Bytes input = this->sample_;
    const Decoded<TypeParam> record(this->vrf_, input);
    std::fill(input.begin(), input.end(), std::uint8_t{0xEE});
    EXPECT_EQ(Encoding(*record), this->sample_);
}

TYPED_TEST(CmsParse, RefusesEveryPrefix)
{
    ForEveryPrefix(this->sample_, [&](const ExactHeap& prefix) {
        SCOPED_TRACE(prefix.size());
        const auto outcome = Decode<TypeParam>(this->vrf_, prefix.data(), prefix.size());
        outcome.ExpectRefused(prefix.size() == 0 ? TypeParam::kEmpty : TypeParam::kMalformed);
        EXPECT_EQ(this->vrf_.Plan().LiveBlocks(), 0u);
    });
}

// Calls fn with the path of every element that a row of a table decodes.
template <typename Function> void ForEveryRow(const Bytes& der, const Path& path, Function fn)
{
    fn(path);
    const Element element = Find(der, path);
    const bool attributeValue = path.size() == 7; // {1, 0, 5, signer, field, attribute, 1}: kept as it is
    if ((element.tag & 0x20) == 0 || attributeValue) return;
    for (std::size_t child = 0; child < Children(der, element).size(); ++child) {
        Path childPath = path;
        childPath.push_back(child);
        ForEveryRow(der, childPath, fn);
    }
}

TYPED_TEST(CmsParse, ReleasesEverythingWhicheverRowFails)
{
    ForEveryRow(this->sample_, {}, [&](const Path& path) {
        SCOPED_TRACE(::testing::PrintToString(path));
        const Bytes unreadable{Find(this->sample_, path).tag, 0x84, 0x7F, 0xFF, 0xFF, 0xFF}; // longer than any input
        const Bytes der = Replace(this->sample_, path, unreadable);
        Decode<TypeParam>(this->vrf_, der.data(), der.size()).ExpectRefused(TypeParam::kMalformed);
        EXPECT_EQ(this->vrf_.Plan().LiveBlocks(), 0u);
    });
}

TYPED_TEST(CmsParse, RefusesTheIndefiniteLength)
{
    const Bytes der = WithIndefiniteLength(this->sample_);
    Decode<TypeParam>(this->vrf_, der.data(), der.size()).ExpectRefused(TypeParam::kMalformed);
}

TYPED_TEST(CmsParse, RefusesNull)
{
    const std::uint8_t* const octets = this->sample_.data();
    const PNV_UINT32 length = Len(this->sample_);
    Decode<TypeParam>(nullptr, octets, length).ExpectRefused(PELNIC_ERR_NULL_POINTER);
    Decode<TypeParam>(this->vrf_, nullptr, length).ExpectRefused(PELNIC_ERR_NULL_POINTER);

    typename TypeParam::Record* record = nullptr;
    PNV_UINT32 decoded = 0;
    EXPECT_EQ(TypeParam::Decode(this->vrf_, octets, length, nullptr, &decoded), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(TypeParam::Decode(this->vrf_, octets, length, &record, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(record, nullptr);
    EXPECT_TRUE(this->vrf_.Plan().Logs().empty());
}

TYPED_TEST(CmsParse, FreeIgnoresNull)
{
    const Decoded<TypeParam> record(this->vrf_, this->sample_);
    const std::size_t freed = this->vrf_.Plan().Count(Call::Free);
    TypeParam::Free(this->vrf_, nullptr);
    TypeParam::Free(nullptr, const_cast<typename TypeParam::Record*>(&*record));
    EXPECT_EQ(this->vrf_.Plan().Count(Call::Free), freed);
}

// A plan for each run, so none in the fixture.
template <typename Kind> class CmsParseFaults : public ::testing::Test {
};
TYPED_TEST_SUITE(CmsParseFaults, Kinds, KindName);

TYPED_TEST(CmsParseFaults, ReleaseEverythingWhicheverCallFails)
{
    const Bytes sample = TypeParam::Sample();
    const auto decode = [&](CallbackPlan& plan) {
        Vrf vrf(plan);
        const auto outcome = Decode<TypeParam>(vrf, sample.data(), sample.size());
        if (outcome.rc == 0) TypeParam::Free(vrf, outcome.record);
        return outcome;
    };
    SweepFaults(Call::Malloc | calls::copies, decode, [](const Outcome<TypeParam>& outcome, const FaultRun& run) {
        if (run.met) outcome.ExpectRefused(TypeParam::kMalformed);
        EXPECT_EQ(outcome.rc == 0, !run.met);
    });
}

// ---- SignedData ----

class SignedData : public ::testing::Test {
protected:
    using Cms = Decoded<SignedDataKind>;

    static Bytes Build(const CmsSpec& cms) { return DetachedCms(kContent, cms); }
    void ExpectRefused(const Bytes& der)
    {
        Decode<SignedDataKind>(vrf_, der.data(), der.size()).ExpectRefused(PELNIC_ERR_CMS_DECODE);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    }

    Vrf vrf_;
    CmsSpec spec_ = FullCms();
};

TEST_F(SignedData, IsTheOnlyContentThereIs)
{
    spec_.contentType = oid::data;
    ExpectRefused(Build(spec_));
    EXPECT_TRUE(LoggedError(vrf_.Plan(), PELNIC_ERR_ASN_ANY, "map template not found."));
}

TEST_F(SignedData, MayNotBeAbsent)
{
    ExpectRefused(Seq(Oid(oid::signedData)));
    ExpectRefused(Seq(Oid(oid::signedData), Ctx(0)));
}

TEST_F(SignedData, MayNotLackItsSignerInfos)
{
    spec_.edit = [](const Bytes& der) { return Replace(der, {5}, {}); };
    ExpectRefused(Build(spec_));
}

TEST_F(SignedData, MayHaveNoSigner)
{
    spec_.signers.clear();
    const Cms cms(vrf_, Build(spec_));
    ASSERT_NE(cms->signed_data->signer_infos, nullptr);
    EXPECT_EQ(cms->signed_data->signer_infos->infos.num, 0u);
}

TEST_F(SignedData, OfADetachedSignatureHasNoContent)
{
    const Cms cms(vrf_, Build(spec_));
    ASSERT_NE(cms->signed_data->content, nullptr);
    EXPECT_EQ(Encoding(cms->signed_data->content->type), Oid(oid::data));
    EXPECT_EQ(cms->signed_data->content->content, nullptr);
}

TEST_F(SignedData, KeepsWhateverFollowsTheContentType)
{
    for (const Bytes& content : {Ctx(0, Octets(kContent)), Octets(kContent), Null()}) {
        spec_.encapContentInfo = Seq(Oid(oid::tstInfo), content);
        const Cms cms(vrf_, Build(spec_));
        ASSERT_NE(cms->signed_data->content->content, nullptr);
        EXPECT_EQ(Encoding(*cms->signed_data->content->content), content);
    }
}

TEST_F(SignedData, ChecksNoVersion)
{
    spec_.version = -1;
    spec_.signers[0].version = 77;
    const Cms cms(vrf_, Build(spec_));
    EXPECT_EQ(cms->signed_data->version, -1);
    EXPECT_EQ(cms->signed_data->signer_infos->infos.data[0]->version, 77);
}

TEST_F(SignedData, KeepsSignedAttributesAsTheSetThatIsSigned)
{
    const Bytes der = Build(spec_);
    const Cms cms(vrf_, der);
    const PELNIC_PKCS7_SIGNER_INFO& signer = *cms->signed_data->signer_infos->infos.data[0];
    Bytes expected = Extract(der, {1, 0, 5, 0, 3}); // signedAttrs
    ASSERT_EQ(expected[0], 0xA0);
    expected[0] = 0x31;
    EXPECT_EQ(Content(*signer.raw_signed), expected);
    ASSERT_NE(signer.auth_attrs, nullptr);
    EXPECT_EQ(signer.unauth_attrs, nullptr);
}

TEST_F(SignedData, OfADirectSignerHasNoSignedAttributes)
{
    const Cms cms(vrf_, Build(spec_));
    const PELNIC_PKCS7_SIGNER_INFO& direct = *cms->signed_data->signer_infos->infos.data[1];
    EXPECT_EQ(direct.auth_attrs, nullptr);
    ASSERT_NE(direct.unauth_attrs, nullptr);
    EXPECT_EQ(direct.unauth_attrs->attrs.num, 1u);
}

// Issuer and serial number are the only way to name a signer here.
TEST_F(SignedData, RefusesASignerNamedByItsKeyIdentifier)
{
    spec_.signers[0].signerIdentifier = CtxPrim(0, Bytes(20, 0x5A));
    ExpectRefused(Build(spec_));
}

// ---- Certificates and CRLs in it ----

TEST_F(SignedData, DecodesItsCertificatesInTheirOrder)
{
    const Cms cms(vrf_, Build(spec_));
    const PELNIC_X509_CERT_BUNDLE* const certificates = cms->signed_data->certificates;
    ASSERT_NE(certificates, nullptr);
    ASSERT_EQ(certificates->certs.num, spec_.certificates.size());
    for (PNV_UINT32 i = 0; i < certificates->certs.num; ++i) {
        EXPECT_EQ(Encoding(*certificates->certs.data[i]), spec_.certificates[i]);
        EXPECT_EQ(certificates->certs.data[i]->iRef, 1);
        EXPECT_EQ(Encoding(*cms->signed_data->raw_certs->bundle.data[i]), spec_.certificates[i]);
    }
}

TEST_F(SignedData, TakesManyCertificates)
{
    spec_.certificates = std::vector<Bytes>(12, spec_.certificates[0]);
    const Cms cms(vrf_, Build(spec_));
    EXPECT_EQ(cms->signed_data->raw_certs->bundle.num, 12u);
    EXPECT_EQ(cms->signed_data->certificates->certs.num, 12u);
}

TEST_F(SignedData, WithoutCertificatesHasNeitherList)
{
    spec_.certificates.clear();
    const Cms cms(vrf_, Build(spec_));
    EXPECT_EQ(cms->signed_data->raw_certs, nullptr);
    EXPECT_EQ(cms->signed_data->certificates, nullptr);
}

TEST_F(SignedData, WithAnEmptyFieldOfCertificatesHasNoneDecoded)
{
    spec_.edit = [](const Bytes& der) { return Replace(der, {3}, Ctx(0)); };
    const Cms cms(vrf_, Build(spec_));
    ASSERT_NE(cms->signed_data->raw_certs, nullptr);
    EXPECT_EQ(cms->signed_data->raw_certs->bundle.num, 0u);
    EXPECT_EQ(cms->signed_data->certificates, nullptr);
}

TEST_F(SignedData, IsRefusedWithACertificateThatDoesNotDecode)
{
    const std::vector<Bytes> none{
        Seq(Int(1)),                           // no certificate at all
        Seq(),                                 // nothing
        Ctx(1, Content(Build(FullCms()), {})), // an attribute certificate or any other choice
        Set(Content(spec_.certificates[0], {})),
    };
    for (std::size_t position = 0; position <= 2; ++position) {
        for (const Bytes& garbage : none) {
            CmsSpec spec = spec_;
            spec.certificates.insert(spec.certificates.begin() + static_cast<std::ptrdiff_t>(position), garbage);
            vrf_.Plan().ClearLogs();
            ExpectRefused(Build(spec));
            EXPECT_TRUE(LoggedError(vrf_.Plan(), PELNIC_ERR_CMS_DECODE));
        }
    }
}

// Stores keep certificates of a signature beyond its release.
TEST_F(SignedData, ReleasesOneReferenceOfEachCertificate)
{
    PELNIC_X509_CERT* kept = nullptr;
    {
        const Cms cms(vrf_, Build(spec_));
        kept = cms->signed_data->certificates->certs.data[0];
        ++kept->iRef;
    }
    EXPECT_EQ(kept->iRef, 1);
    EXPECT_EQ(Encoding(*kept), spec_.certificates[0]);
    pelnic_x509_free_cert(vrf_, kept);
}

TEST_F(SignedData, DecodesItsCrls)
{
    const Cms cms(vrf_, Build(spec_));
    ASSERT_NE(cms->signed_data->crls, nullptr);
    ASSERT_EQ(cms->signed_data->crls->crls.num, 1u);
    EXPECT_EQ(Encoding(*cms->signed_data->crls->crls.data[0]), spec_.crls[0]);
    EXPECT_EQ(cms->signed_data->crls->crls.data[0]->iRef, 0);
}

TEST_F(SignedData, IsRefusedWithACrlThatDoesNotDecode)
{
    spec_.crls.push_back(Seq(Int(1)));
    ExpectRefused(Build(spec_));
}

TEST_F(SignedData, WithoutCrlsHasNoList)
{
    spec_.crls.clear();
    const Cms cms(vrf_, Build(spec_));
    EXPECT_EQ(cms->signed_data->crls, nullptr);
}

TEST_F(SignedData, RawCertificatesAreDecodedAllOrNone)
{
    const auto raw = DecodeItem<PELNIC_X509_CERT_RAW_BUNDLE_item>(vrf_, Seq(spec_.certificates[0], Seq(Int(1))));
    PELNIC_X509_CERT_BUNDLE* certificates = nullptr;
    EXPECT_EQ(_pnvDecodeCert(vrf_, raw.get(), &certificates), PELNIC_ERR_CMS_DECODE);
    EXPECT_EQ(certificates, nullptr);
    EXPECT_TRUE(LoggedError(vrf_.Plan(), PELNIC_ERR_CMS_DECODE));
}

TEST_F(SignedData, RawCertificatesAreDecodedIntoAListOfTheirNumber)
{
    for (std::size_t number : {1u, 3u, 7u}) {
        spec_.certificates = std::vector<Bytes>(number, spec_.certificates[0]);
        const Cms cms(vrf_, Build(spec_));
        EXPECT_EQ(cms->signed_data->certificates->certs.num, number);
        EXPECT_EQ(cms->signed_data->certificates->certs.capacity, number);
    }
}

TEST_F(SignedData, RawCertificatesWithoutMemoryAreUndecodable)
{
    const auto raw = DecodeItem<PELNIC_X509_CERT_RAW_BUNDLE_item>(vrf_, Seq(spec_.certificates[0]));
    for (const std::size_t nth : {1u, 2u, 3u}) { // the record, its list, and the certificate
        PELNIC_X509_CERT_BUNDLE* certificates = nullptr;
        vrf_.Plan().Fail(Call::Malloc, nth);
        EXPECT_EQ(_pnvDecodeCert(vrf_, raw.get(), &certificates), PELNIC_ERR_CMS_DECODE) << nth;
        EXPECT_EQ(certificates, nullptr);
    }
}

TEST_F(SignedData, RawCertificatesAreNotDecodedForNull)
{
    const auto raw = DecodeItem<PELNIC_X509_CERT_RAW_BUNDLE_item>(vrf_, Seq(spec_.certificates[0]));
    PELNIC_X509_CERT_BUNDLE* certificates = nullptr;
    EXPECT_EQ(_pnvDecodeCert(nullptr, raw.get(), &certificates), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(_pnvDecodeCert(vrf_, nullptr, &certificates), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(_pnvDecodeCert(vrf_, raw.get(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(certificates, nullptr);
}

// ---- TSTInfo ----

class TstInfoTest : public ::testing::Test {
protected:
    using Info = Decoded<TstInfoKind>;

    static Bytes Build(const TokenSpec& token) { return TstInfo(token, kContent); }
    void ExpectRefused(const TokenSpec& token)
    {
        const Bytes der = Build(token);
        Decode<TstInfoKind>(vrf_, der.data(), der.size()).ExpectRefused(PELNIC_ERR_TSP_DECODE);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
        EXPECT_TRUE(vrf_.Plan().Logs().empty());
    }

    Vrf vrf_;
    TokenSpec token_;
};

TEST_F(TstInfoTest, WithoutOptionalFieldsHasNulls)
{
    const Info info(vrf_, Build(token_));
    EXPECT_EQ(Encoding(*info), Build(token_));
    EXPECT_EQ(info->accuracy, nullptr);
    EXPECT_EQ(info->ordering, 0);
    EXPECT_EQ(info->nonce, nullptr);
    EXPECT_EQ(info->issuer, nullptr);
    EXPECT_EQ(info->extensions, nullptr);
}

TEST_F(TstInfoTest, KeepsTheTimeWithItsTag)
{
    for (const Bytes& time : {GenTime("20260101000000Z"), UtcTime("260101000000Z"), GenTime("20260101000000.5Z")}) {
        token_.time = time;
        const Info info(vrf_, Build(token_));
        EXPECT_EQ(Encoding(*info->time), time);
    }
}

TEST_F(TstInfoTest, EachOptionalFieldMayStandAlone)
{
    const TokenSpec full = FullToken();
    for (Bytes TokenSpec::*field :
         {&TokenSpec::accuracy, &TokenSpec::ordering, &TokenSpec::nonce, &TokenSpec::tsa, &TokenSpec::extensions}) {
        const TokenSpec token = With(token_, field, full.*field);
        const Info info(vrf_, Build(token));
        EXPECT_EQ(Encoding(*info), Build(token));
    }
}

TEST_F(TstInfoTest, AccuracyNeedsSeconds)
{
    token_.accuracy = Seq(Int(1));
    EXPECT_EQ(*Info(vrf_, Build(token_))->accuracy->seconds, 1);
    for (const Bytes& accuracy : {Seq(CtxPrim(0, {0x05})), Seq(CtxPrim(1, {0x05})), Seq()}) {
        token_.accuracy = accuracy;
        ExpectRefused(token_);
    }
}

// A big integer of nothing but zeros is no value.
TEST_F(TstInfoTest, RefusesASerialNumberOrNonceOfZero)
{
    ExpectRefused(With(token_, &TokenSpec::serial, Bytes{0x00}));
    ExpectRefused(With(token_, &TokenSpec::nonce, Int(0)));
}

// RFC 3161, 2.4.2, has the authority's name as an explicitly tagged GeneralName; an authority that puts it in is
// refused.
TEST_F(TstInfoTest, RefusesTheAuthoritysNameInItsUsualForm)
{
    token_.tsa = Ctx(0, Ctx(4, TestName("TSA")));
    ExpectRefused(token_);
}

TEST_F(TstInfoTest, RefusesAMissingField)
{
    for (std::size_t field = 0; field < 5; ++field) {
        token_.editTstInfo = [field](const Bytes& der) { return Replace(der, {field}, {}); };
        ExpectRefused(token_);
    }
}

TEST_F(TstInfoTest, RefusesWhatIsNoSequence)
{
    token_.editTstInfo = [](const Bytes& der) { return Octets(Content(der, {})); };
    ExpectRefused(token_);
}

} // namespace
} // namespace pnvtest
