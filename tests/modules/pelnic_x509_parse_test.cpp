// Certificates, CRLs, public keys and extensions decoded, each with all its prefixes and faults.
#include "cmsverify/pelnic_x509_parse.h"

#include "support/exact_heap.h"
#include "support/pki.h"
#include "support/vrf.h"
#include "support/x509.h"

namespace pnvtest {
namespace {

// An identifier octet with a length that no input has.
Bytes Unreadable(std::uint8_t tag)
{
    return {tag, 0x84, 0x7F, 0xFF, 0xFF, 0xFF};
}

// What a decoding operation answered. Its out-parameters begin with marks that no operation writes.
template <typename Record> struct Outcome {
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

// ---- Certificates and CRLs alike ----

RevokedSpec Entry(const Bytes& serial, std::optional<int> reason = std::nullopt)
{
    RevokedSpec entry;
    entry.serial = serial;
    entry.reason = reason;
    return entry;
}

CrlSpec Revoking(const std::vector<RevokedSpec>& entries)
{
    return With(CrlOf(Root()), &CrlSpec::revoked, entries);
}

struct CertKind {
    using Record = PELNIC_X509_CERT;
    static constexpr auto Decode = &pelnic_x509_decode_cert;
    static constexpr auto Free = &pelnic_x509_free_cert;
    // With every field there is.
    static Bytes Sample()
    {
        return Build(With(Intermediate("Test CA"), &CertSpec::editTbs, [](const Bytes& der) {
            const Bytes uids = Cat(CtxPrim(1, {0x00, 0x5A}), CtxPrim(2, {0x04, 0xC0}));
            return Replace(der, {tbs::extensions}, Cat(uids, Extract(der, {tbs::extensions})));
        }));
    }
};

struct CrlKind {
    using Record = PELNIC_X509_CRL;
    static constexpr auto Decode = &pelnic_x509_decode_crl;
    static constexpr auto Free = &pelnic_x509_free_crl;
    static Bytes Sample() { return Build(Revoking({Entry({0x21}), Entry({0x00, 0xF2}, 1)})); }
};

struct KindName {
    template <typename Kind> static std::string GetName(int)
    {
        return std::is_same_v<Kind, CertKind> ? "Certificate" : "Crl";
    }
};

using Kinds = ::testing::Types<CertKind, CrlKind>;

template <typename Kind>
Outcome<typename Kind::Record> Decode(const PELNIC_VRF* vrf, const std::uint8_t* octets, std::size_t length)
{
    Outcome<typename Kind::Record> outcome;
    outcome.rc = Kind::Decode(vrf, octets, static_cast<PNV_UINT32>(length), &outcome.record, &outcome.octets);
    return outcome;
}

template <typename Kind> class SignedRecord : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    template <typename Input> Outcome<typename Kind::Record> Decode(const Input& input)
    {
        return pnvtest::Decode<Kind>(vrf_, input.data(), input.size());
    }

    void ExpectRefused(const Bytes& der)
    {
        Decode(der).ExpectRefused(PELNIC_ERR_ASN_DECODE);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    }
    void ExpectTaken(const Bytes& der, std::size_t ownLength)
    {
        const auto outcome = Decode(der);
        ASSERT_EQ(outcome.rc, 0u);
        EXPECT_EQ(outcome.octets, ownLength);
        Kind::Free(vrf_, outcome.record);
    }

    Vrf vrf_;
    const Bytes sample_ = Kind::Sample();
};
TYPED_TEST_SUITE(SignedRecord, Kinds, KindName);

TYPED_TEST(SignedRecord, HoldsEveryField)
{
    const auto outcome = this->Decode(this->sample_);
    ASSERT_EQ(outcome.rc, 0u);
    EXPECT_EQ(Encoding(*outcome.record), this->sample_);
    TypeParam::Free(this->vrf_, outcome.record);
}

TYPED_TEST(SignedRecord, KeepsTheSignedPartWithItsHeader)
{
    const auto outcome = this->Decode(this->sample_);
    ASSERT_EQ(outcome.rc, 0u);
    EXPECT_EQ(outcome.record->raw_signed->octs[0], 0x30);
    EXPECT_EQ(Content(*outcome.record->raw_signed), Extract(this->sample_, {0}));
    EXPECT_EQ(outcome.record->raw_signed->tag.cls, CBC_UNIV);
    EXPECT_EQ(outcome.record->raw_signed->tag.form, CBF_CONS);
    EXPECT_EQ(outcome.record->raw_signed->tag.code, CBT_SEQUENCES);
    TypeParam::Free(this->vrf_, outcome.record);
}

// The header of the signed part is kept as it came, not as DER would have it.
TYPED_TEST(SignedRecord, KeepsTheSignedPartAsItWasEncoded)
{
    const Bytes longHeader = TlvLong(0x30, 4, Content(this->sample_, {0}));
    const auto outcome = this->Decode(Replace(this->sample_, {0}, longHeader));
    ASSERT_EQ(outcome.rc, 0u);
    EXPECT_EQ(Content(*outcome.record->raw_signed), longHeader);
    TypeParam::Free(this->vrf_, outcome.record);
}

// The signed part is looked at before and after it is decoded.
TYPED_TEST(SignedRecord, LogsATagWithAHighNumberOnce)
{
    const Bytes beginsWithIt = Seq(Bytes{0x1F, 0x02, 0x05, 0x00, 0x00});
    this->ExpectRefused(beginsWithIt);
    ASSERT_EQ(this->vrf_.Plan().Logs().size(), 1u);
    EXPECT_EQ(this->vrf_.Plan().Logs()[0].rc, PELNIC_ERR_FAILED);
    this->vrf_.Plan().ClearLogs();
}

TYPED_TEST(SignedRecord, HasOneReference)
{
    const auto outcome = this->Decode(this->sample_);
    ASSERT_EQ(outcome.rc, 0u);
    EXPECT_EQ(outcome.record->iRef, 1);
    TypeParam::Free(this->vrf_, outcome.record);
}

TYPED_TEST(SignedRecord, ReportsItsOwnLengthWhateverFollows)
{
    this->ExpectTaken(this->sample_, this->sample_.size());
    this->ExpectTaken(Cat(this->sample_, this->sample_), this->sample_.size());
    this->ExpectTaken(Cat(this->sample_, Bytes{0x00}), this->sample_.size());
    this->ExpectTaken(Cat(this->sample_, Unreadable(0x30)), this->sample_.size());
}

TYPED_TEST(SignedRecord, ReportsTheLengthOfANonMinimalHeader)
{
    const Bytes der = TlvLong(0x30, 4, Content(this->sample_, {}));
    this->ExpectTaken(Cat(der, Bytes{0x30, 0x00}), der.size());
}

// Elements after the signature are passed over; the count still covers them.
TYPED_TEST(SignedRecord, ReportsItsOwnLengthWithContentLeftOver)
{
    for (const Bytes& leftOver : {Null(), Bytes{0x00}, Octets(Bytes(300, 0xEE)), Unreadable(0x30)}) {
        const Bytes der = Seq(Content(this->sample_, {}), leftOver);
        this->ExpectTaken(Cat(der, this->sample_), der.size());
    }
}

// One identifier octet is read behind content that is left over, and it has to be one.
TYPED_TEST(SignedRecord, RefusesContentLeftOverThatBeginsWithALongTag)
{
    this->ExpectRefused(Seq(Content(this->sample_, {}), Bytes{0x1F}));
    EXPECT_EQ(this->vrf_.Plan().Logs().size(), 1u); // by the reader of tags
    this->vrf_.Plan().ClearLogs();
}

TYPED_TEST(SignedRecord, RefusesAnElementThatEndsBeforeItsContent)
{
    const Bytes content = Content(this->sample_, {});
    this->ExpectRefused(Tlv(0x30, content.size() - 1, content));
}

// Otherwise the last fields would be decoded from octets that no signature covers.
TYPED_TEST(SignedRecord, RefusesASignedPartThatEndsBeforeItsFields)
{
    const Bytes content = Content(this->sample_, {0});
    for (std::size_t missing = 1; missing < content.size(); ++missing) {
        SCOPED_TRACE(missing);
        this->ExpectRefused(Replace(this->sample_, {0}, Tlv(0x30, content.size() - missing, content)));
    }
    this->vrf_.Plan().ClearLogs();
}

TYPED_TEST(SignedRecord, RefusesAnotherOuterTag)
{
    for (std::uint8_t tag : Bytes{0x31, 0x10, 0xB0, 0x70, 0xA0, 0x04}) {
        this->ExpectRefused(Tlv(tag, Content(this->sample_, {})));
    }
}

TYPED_TEST(SignedRecord, RefusesTheIndefiniteLength)
{
    this->ExpectRefused(WithIndefiniteLength(this->sample_));
}

TYPED_TEST(SignedRecord, RefusesEveryPrefix)
{
    ForEveryPrefix(this->sample_, [&](const ExactHeap& prefix) {
        SCOPED_TRACE(prefix.size());
        this->Decode(prefix).ExpectRefused(prefix.size() == 0 ? PELNIC_ERR_NULL_POINTER : PELNIC_ERR_ASN_DECODE);
        EXPECT_EQ(this->vrf_.Plan().LiveBlocks(), 0u);
    });
    this->vrf_.Plan().ClearLogs();
}

// Taken or refused, but never crashing, and a record that is handed out can be read to its last octet.
TYPED_TEST(SignedRecord, SurvivesEveryFlippedBit)
{
    ExactHeap input(this->sample_);
    for (std::size_t i = 0; i < input.size(); ++i) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            input.data()[i] = static_cast<std::uint8_t>(this->sample_[i] ^ 1u << bit);
            const auto outcome = this->Decode(input);
            if (outcome.rc == 0) {
                EXPECT_LE(outcome.octets, input.size());
                EXPECT_FALSE(Encoding(*outcome.record).empty());
                TypeParam::Free(this->vrf_, outcome.record);
            } else {
                outcome.ExpectRefused(PELNIC_ERR_ASN_DECODE);
            }
            ASSERT_EQ(this->vrf_.Plan().LiveBlocks(), 0u) << "bit " << bit << " of octet " << i;
        }
        input.data()[i] = this->sample_[i];
    }
    this->vrf_.Plan().ClearLogs();
}

// Calls fn with the path of every element that a row of a table decodes: all but what strings contain.
template <typename Function> void ForEveryRow(const Bytes& der, const Path& path, Function fn)
{
    fn(path);
    const Element element = Find(der, path);
    if ((element.tag & 0x20) == 0) return;
    for (std::size_t child = 0; child < Children(der, element).size(); ++child) {
        Path childPath = path;
        childPath.push_back(child);
        ForEveryRow(der, childPath, fn);
    }
}

TYPED_TEST(SignedRecord, ReleasesEverythingWhicheverRowFails)
{
    std::size_t rows = 0;
    ForEveryRow(this->sample_, {}, [&](const Path& path) {
        SCOPED_TRACE(::testing::PrintToString(path));
        this->ExpectRefused(Replace(this->sample_, path, Unreadable(Find(this->sample_, path).tag)));
        ++rows;
    });
    EXPECT_GT(rows, 40u);
}

TYPED_TEST(SignedRecord, DoesNotDependOnTheInput)
{
    Bytes input = this->sample_;
    const auto outcome = this->Decode(input);
    ASSERT_EQ(outcome.rc, 0u);
    std::fill(input.begin(), input.end(), std::uint8_t{0xEE});
    EXPECT_EQ(Encoding(*outcome.record), this->sample_);
    EXPECT_EQ(Content(*outcome.record->raw_signed), Extract(this->sample_, {0}));
    TypeParam::Free(this->vrf_, outcome.record);
}

TYPED_TEST(SignedRecord, RefusesNullAndLengthZero)
{
    const std::uint8_t* const octets = this->sample_.data();
    const PNV_UINT32 length = Len(this->sample_);
    Decode<TypeParam>(this->vrf_, nullptr, length).ExpectRefused(PELNIC_ERR_NULL_POINTER);
    Decode<TypeParam>(this->vrf_, octets, 0).ExpectRefused(PELNIC_ERR_NULL_POINTER);
    Decode<TypeParam>(nullptr, octets, length).ExpectRefused(PELNIC_ERR_NULL_POINTER);

    typename TypeParam::Record* record = nullptr;
    PNV_UINT32 decoded = 0;
    EXPECT_EQ(TypeParam::Decode(this->vrf_, octets, length, nullptr, &decoded), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(TypeParam::Decode(this->vrf_, octets, length, &record, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(decoded, 0u);
}

// Without looking at the input, which is far shorter here.
TYPED_TEST(SignedRecord, RefusesALengthThatIsNegativeWhenSigned)
{
    for (std::size_t length : {0x80000000u, 0xFFFFFFFFu}) {
        Decode<TypeParam>(this->vrf_, this->sample_.data(), length).ExpectRefused(PELNIC_ERR_ASN_DECODE);
    }
}

TYPED_TEST(SignedRecord, FreeGivesBackOneReference)
{
    const auto outcome = this->Decode(this->sample_);
    ASSERT_EQ(outcome.rc, 0u);
    outcome.record->iRef = 2;
    TypeParam::Free(this->vrf_, outcome.record);
    EXPECT_EQ(outcome.record->iRef, 1);
    EXPECT_EQ(Encoding(*outcome.record), this->sample_);
    TypeParam::Free(this->vrf_, outcome.record);
    EXPECT_EQ(this->vrf_.Plan().LiveBlocks(), 0u);
}

TYPED_TEST(SignedRecord, FreeIgnoresNull)
{
    TypeParam::Free(this->vrf_, nullptr);
    EXPECT_EQ(this->vrf_.Plan().Count(Call::Free), 0u);
}

// A plan for each run, so none in the fixture.
template <typename Kind> class SignedRecordFaults : public ::testing::Test {
};
TYPED_TEST_SUITE(SignedRecordFaults, Kinds, KindName);

TYPED_TEST(SignedRecordFaults, ReleasesEverythingWhicheverCallFails)
{
    const Bytes sample = TypeParam::Sample();
    SweepFaults(
        Call::Malloc | calls::copies,
        [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            const auto outcome = Decode<TypeParam>(vrf, sample.data(), sample.size());
            if (outcome.rc == 0) {
                EXPECT_EQ(Encoding(*outcome.record), sample);
                TypeParam::Free(vrf, outcome.record);
            } else {
                outcome.ExpectRefused(PELNIC_ERR_ASN_DECODE);
            }
            EXPECT_TRUE(plan.Logs().empty());
            return outcome.rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc != 0, run.met); });
}

TEST(FreeElement, GivesBackOneReference)
{
    Vrf vrf;
    const OwnedCert cert = DecodeCert(vrf, CertKind::Sample());
    const OwnedCrl crl = DecodeCrl(vrf, CrlKind::Sample());
    cert->iRef = 2;
    crl->iRef = 2;
    _pnvFreeCertElement(vrf, cert.get());
    _pnvFreeCrlElement(vrf, crl.get());
    EXPECT_EQ(cert->iRef, 1);
    EXPECT_EQ(crl->iRef, 1);
}

// ---- Certificates ----

class CertDecoding : public SignedRecord<CertKind> {
protected:
    void ExpectSerial(const Bytes& content, const Bytes& expected)
    {
        const OwnedCert cert = DecodeCert(vrf_, Build(With(Root(), &CertSpec::serial, content)));
        EXPECT_EQ(Content(*cert->toBeSigned->serialNumber), expected);
    }
};

TEST_F(CertDecoding, VersionsCountFromZero)
{
    EXPECT_EQ(DecodeCert(vrf_, Build(Root()))->toBeSigned->version, 2);
    EXPECT_EQ(DecodeCert(vrf_, Build(With(Root(), &CertSpec::version, 2)))->toBeSigned->version, 1);
}

TEST_F(CertDecoding, Version1HasVersionZeroAndNoExtensions)
{
    const OwnedCert cert = DecodeCert(vrf_, Build(Version1(Root())));
    EXPECT_EQ(cert->toBeSigned->version, 0);
    EXPECT_EQ(cert->toBeSigned->issuerUID, nullptr);
    EXPECT_EQ(cert->toBeSigned->subjectUID, nullptr);
    EXPECT_EQ(cert->toBeSigned->extensions, nullptr);
    EXPECT_EQ(Encoding(*cert), Build(Version1(Root())));
}

TEST_F(CertDecoding, HasNoIssuerYet)
{
    EXPECT_EQ(DecodeCert(vrf_, Build(Root()))->pIssuer, nullptr);
}

TEST_F(CertDecoding, JudgesNothingButTheStructure)
{
    CertSpec odd = With(Root(), &CertSpec::version, 200);
    odd.notBefore = Utf8("yesterday");
    odd.notAfter = Null();
    odd.innerAlgorithm = AlgoId(oid::md5);
    odd.outerAlgorithm = AlgoId("1.2.3", {});
    odd.subject = Seq();
    odd.subjectPublicKey = Seq(Seq(Null()), Bits(0, {}));
    odd.extraExtensions = {Ext("1.2.3", Unreadable(0x30), true)};
    odd.brokenSignature = true;
    EXPECT_EQ(Encoding(*DecodeCert(vrf_, Build(odd))), Build(odd));
}

TEST_F(CertDecoding, SerialNumbersLoseLeadingZeros)
{
    ExpectSerial({0x00, 0x80}, {0x80});
    ExpectSerial({0x00, 0x00, 0x00, 0x07}, {0x07});
    ExpectSerial({0x01, 0x00}, {0x01, 0x00});
}

TEST_F(CertDecoding, NegativeSerialNumbersKeepTheirOctets)
{
    ExpectSerial({0x80}, {0x80});
    ExpectSerial({0xFF, 0x00}, {0xFF, 0x00});
}

// A rule of this decoder: RFC 5280, 4.1.2.2 only asks users to handle it gracefully.
TEST_F(CertDecoding, RefusesSerialNumberZero)
{
    ExpectRefused(Build(With(Root(), &CertSpec::serial, Bytes{0x00})));
    ExpectRefused(Build(With(Root(), &CertSpec::serial, Bytes(20, 0x00))));
}

TEST_F(CertDecoding, TakesASerialNumberWithoutOctets)
{
    ExpectSerial({}, {});
}

TEST_F(CertDecoding, KeepsTimesWithTheirTags)
{
    const OwnedCert cert = DecodeCert(vrf_, Build(With(Root(), &CertSpec::notAfter, GenTime("20500101000000Z"))));
    EXPECT_EQ(cert->toBeSigned->validity->notBefore.tag.code, CBT_UTCTIME);
    EXPECT_EQ(cert->toBeSigned->validity->notAfter.tag.code, CBT_GENERALIZEDTIME);
}

TEST_F(CertDecoding, KeepsRelativeNamesInOrder)
{
    const Bytes name = Name(O("Example"), Rdn(Cn("one"), Email("two@example.org")), C("ZZ"));
    const OwnedCert cert = DecodeCert(vrf_, Build(With(Root(), &CertSpec::subject, name)));
    const PELNIC_X509_NAME& subject = *cert->toBeSigned->subject;
    ASSERT_EQ(subject.names.num, 3u);
    EXPECT_EQ(subject.names.data[1]->attrs.num, 2u);
    EXPECT_EQ(Encoding(subject), name);
}

TEST_F(CertDecoding, NamesMayBeLongerThanTheListBegins)
{
    const Bytes name = Name(Cn("1"), Cn("2"), Cn("3"), Cn("4"), Cn("5"), Cn("6"), Cn("7"));
    const OwnedCert cert = DecodeCert(vrf_, Build(With(Root(), &CertSpec::subject, name)));
    EXPECT_EQ(cert->toBeSigned->subject->names.num, 7u);
    EXPECT_EQ(cert->toBeSigned->subject->names.capacity, 10u);
    EXPECT_EQ(Encoding(*cert->toBeSigned->subject), name);
}

TEST_F(CertDecoding, ParametersAreNullOnlyWhenAbsent)
{
    CertSpec spec = Root();
    spec.innerAlgorithm = AlgoId(oid::sha256WithRsa, {});
    const OwnedCert cert = DecodeCert(vrf_, Build(spec));
    EXPECT_EQ(cert->toBeSigned->signature->parameters, nullptr);
    ASSERT_NE(cert->algorithm->parameters, nullptr);
    EXPECT_EQ(cert->algorithm->parameters->tag.code, CBT_NULLTYPE);
    EXPECT_EQ(cert->algorithm->parameters->len, 0u);
    EXPECT_EQ(cert->algorithm->parameters->octs, nullptr);
}

TEST_F(CertDecoding, ExtensionsAreCriticalOnlyWhenTheySaySo)
{
    const Bytes explicitFalse = Seq(Oid("1.2.4"), Bool(false), Octets(Null()));
    const Bytes berTrue = Seq(Oid("1.2.5"), Tlv(0x01, {0x01}), Octets(Null()));
    CertSpec spec = Version1(Root());
    spec.extraExtensions = {Ext("1.2.3", Null()), explicitFalse, berTrue};
    const OwnedCert cert = DecodeCert(vrf_, Build(spec));
    const auto& list = cert->toBeSigned->extensions->extensions;
    ASSERT_EQ(list.num, 3u);
    EXPECT_EQ(list.data[0]->critical, 0);
    EXPECT_EQ(list.data[1]->critical, 0);
    EXPECT_EQ(list.data[2]->critical, 1);
    EXPECT_EQ(Content(list.data[1]->extnValue), Null());
}

TEST_F(CertDecoding, AnEmptyExtensionListIsNotNull)
{
    const auto withEmptyList = [](const Bytes& der) { return Replace(der, {tbs::extensions}, Ctx(3, Seq())); };
    const OwnedCert cert = DecodeCert(vrf_, Build(With(Root(), &CertSpec::editTbs, withEmptyList)));
    ASSERT_NE(cert->toBeSigned->extensions, nullptr);
    EXPECT_EQ(cert->toBeSigned->extensions->extensions.num, 0u);
}

// 03 01 00: no bits at all.
TEST_F(CertDecoding, AnEmptySignatureHasNoOctets)
{
    const OwnedCert cert = DecodeCert(vrf_, Replace(Build(Root()), {2}, Bits(0, {})));
    EXPECT_EQ(cert->signature->byteLen, 0u);
    EXPECT_EQ(cert->signature->bitLen, 0u);
    EXPECT_EQ(cert->signature->bits, nullptr);
}

TEST_F(CertDecoding, RefusesAnotherTypeInATypedField)
{
    for (const Path& path : std::vector<Path>{{0},
                                              {0, tbs::version, 0},
                                              {0, tbs::serial},
                                              {0, tbs::signature},
                                              {0, tbs::issuer},
                                              {0, tbs::issuer, 0},
                                              {0, tbs::issuer, 0, 0},
                                              {0, tbs::validity},
                                              {0, tbs::subject},
                                              {0, tbs::publicKey},
                                              {0, tbs::publicKey, 0},
                                              {0, tbs::publicKey, 1},
                                              {0, tbs::extensions, 0},
                                              {0, tbs::extensions, 0, 0},
                                              {1},
                                              {2}}) {
        SCOPED_TRACE(::testing::PrintToString(path));
        ExpectRefused(Replace(Build(Root()), path, Null()));
    }
}

TEST_F(CertDecoding, RefusesAMissingField)
{
    for (const Path& path : std::vector<Path>{{0},
                                              {0, tbs::serial},
                                              {0, tbs::signature},
                                              {0, tbs::issuer},
                                              {0, tbs::issuer, 0, 0, 1},
                                              {0, tbs::validity},
                                              {0, tbs::validity, 1},
                                              {0, tbs::subject},
                                              {0, tbs::publicKey},
                                              {0, tbs::publicKey, 0},
                                              {0, tbs::publicKey, 1},
                                              {0, tbs::extensions, 0, 0, 2},
                                              {1},
                                              {2}}) {
        SCOPED_TRACE(::testing::PrintToString(path));
        ExpectRefused(Replace(Build(Root()), path, {}));
    }
}

// ---- Certificates whose tag and content are kept apart ----

Outcome<PELNIC_X509_CERT> DecodeByOcts(const PELNIC_VRF* vrf, const PELNIC_ASN_OCTS* element)
{
    Outcome<PELNIC_X509_CERT> outcome;
    outcome.rc = pelnic_x509_decode_cert_by_asnocts(vrf, element, &outcome.record, &outcome.octets);
    return outcome;
}

// A SEQUENCE of this content, which it does not own.
template <typename Input> PELNIC_ASN_OCTS AsElement(Input& content)
{
    return {Len(content), {CBC_UNIV, CBF_CONS, CBT_SEQUENCES}, content.data()};
}

class CertByOcts : public ::testing::Test {
protected:
    Vrf vrf_;
    const Bytes sample_ = CertKind::Sample();
    Bytes content_ = Content(sample_, {});
};

TEST_F(CertByOcts, DecodesTheContent)
{
    const PELNIC_ASN_OCTS element = AsElement(content_);
    const auto outcome = DecodeByOcts(vrf_, &element);
    ASSERT_EQ(outcome.rc, 0u);
    EXPECT_EQ(outcome.octets, content_.size());
    EXPECT_EQ(outcome.record->iRef, 1);
    EXPECT_EQ(outcome.record->pIssuer, nullptr);
    EXPECT_EQ(Encoding(*outcome.record), sample_);
    EXPECT_EQ(Content(*outcome.record->raw_signed), Extract(sample_, {0}));
    pelnic_x509_free_cert(vrf_, outcome.record);
}

TEST_F(CertByOcts, DoesNotDependOnTheInput)
{
    const PELNIC_ASN_OCTS element = AsElement(content_);
    const auto outcome = DecodeByOcts(vrf_, &element);
    ASSERT_EQ(outcome.rc, 0u);
    std::fill(content_.begin(), content_.end(), std::uint8_t{0xEE});
    EXPECT_EQ(Encoding(*outcome.record), sample_);
    pelnic_x509_free_cert(vrf_, outcome.record);
}

// The count is the content's length here, whatever of it the fields took.
TEST_F(CertByOcts, CountsContentLeftOver)
{
    Bytes longer = Cat(content_, Null());
    const PELNIC_ASN_OCTS element = AsElement(longer);
    const auto outcome = DecodeByOcts(vrf_, &element);
    ASSERT_EQ(outcome.rc, 0u);
    EXPECT_EQ(outcome.octets, longer.size());
    pelnic_x509_free_cert(vrf_, outcome.record);
}

TEST_F(CertByOcts, RefusesAnythingButASequence)
{
    for (const PELNIC_BER_TAG& tag :
         {PELNIC_BER_TAG{CBC_CNTX, CBF_CONS, CBT_SEQUENCES}, PELNIC_BER_TAG{CBC_UNIV, CBF_PRIM, CBT_SEQUENCES},
          PELNIC_BER_TAG{CBC_UNIV, CBF_CONS, CBT_SETS}, PELNIC_BER_TAG{CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE}}) {
        PELNIC_ASN_OCTS element = AsElement(content_);
        element.tag = tag;
        DecodeByOcts(vrf_, &element).ExpectRefused(PELNIC_ERR_CERT_INVALID);
    }
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(CertByOcts, RefusesNullAndEmptyContent)
{
    const PELNIC_ASN_OCTS element = AsElement(content_);
    DecodeByOcts(nullptr, &element).ExpectRefused(PELNIC_ERR_NULL_POINTER);
    DecodeByOcts(vrf_, nullptr).ExpectRefused(PELNIC_ERR_NULL_POINTER);

    PELNIC_ASN_OCTS empty = element;
    empty.len = 0;
    empty.octs = nullptr; // as an element without content is decoded
    DecodeByOcts(vrf_, &empty).ExpectRefused(PELNIC_ERR_NULL_POINTER);

    PELNIC_X509_CERT* cert = nullptr;
    PNV_UINT32 octets = 0;
    EXPECT_EQ(pelnic_x509_decode_cert_by_asnocts(vrf_, &element, nullptr, &octets), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_decode_cert_by_asnocts(vrf_, &element, &cert, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(cert, nullptr);
}

TEST_F(CertByOcts, RefusesEveryPrefix)
{
    for (std::size_t size = 1; size < content_.size(); ++size) {
        SCOPED_TRACE(size);
        ExactHeap prefix(content_, size);
        const PELNIC_ASN_OCTS element = AsElement(prefix);
        DecodeByOcts(vrf_, &element).ExpectRefused(PELNIC_ERR_ASN_DECODE);
        ASSERT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    }
}

TEST(CertByOctsFaults, ReleasesEverythingWhicheverCallFails)
{
    Bytes content = Content(CertKind::Sample(), {});
    const PELNIC_ASN_OCTS element = AsElement(content);
    SweepFaults(
        Call::Malloc | calls::copies,
        [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            const auto outcome = DecodeByOcts(vrf, &element);
            if (outcome.rc == 0) {
                pelnic_x509_free_cert(vrf, outcome.record);
            } else {
                outcome.ExpectRefused(PELNIC_ERR_ASN_DECODE);
            }
            return outcome.rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc != 0, run.met); });
}

// ---- CRLs ----

class CrlDecoding : public SignedRecord<CrlKind> {
protected:
    const CrlSpec revokingOne_ = Revoking({Entry({0x21})});
};

TEST_F(CrlDecoding, VersionIsNullOnlyWhenAbsent)
{
    const OwnedCrl crl = DecodeCrl(vrf_, Build(CrlOf(Root())));
    ASSERT_NE(crl->tbs_cert_list->version, nullptr);
    EXPECT_EQ(*crl->tbs_cert_list->version, 1);
    CrlSpec version1 = CrlOf(Root());
    version1.version.reset();
    EXPECT_EQ(DecodeCrl(vrf_, Build(version1))->tbs_cert_list->version, nullptr);
}

TEST_F(CrlDecoding, WithoutRevokedCertificatesThereIsNoList)
{
    const OwnedCrl crl = DecodeCrl(vrf_, Build(CrlOf(Root())));
    EXPECT_EQ(crl->tbs_cert_list->revoked_certs, nullptr);
    EXPECT_NE(crl->tbs_cert_list->extensions, nullptr);
}

TEST_F(CrlDecoding, WithoutExtensionsThereIsNoBundle)
{
    const OwnedCrl crl = DecodeCrl(vrf_, Build(With(CrlOf(Root()), &CrlSpec::extensions, std::vector<Bytes>{})));
    EXPECT_EQ(crl->tbs_cert_list->extensions, nullptr);
}

TEST_F(CrlDecoding, AnEmptyRevokedListIsNotNull)
{
    const auto withEmptyList = [](const Bytes& der) {
        return Replace(der, {tbscrl::nextUpdate}, Cat(Extract(der, {tbscrl::nextUpdate}), Seq()));
    };
    const OwnedCrl crl = DecodeCrl(vrf_, Build(With(CrlOf(Root()), &CrlSpec::editTbs, withEmptyList)));
    ASSERT_NE(crl->tbs_cert_list->revoked_certs, nullptr);
    EXPECT_EQ(crl->tbs_cert_list->revoked_certs->revoked_list.num, 0u);
}

TEST_F(CrlDecoding, EntriesHaveExtensionsOnlyWhenTheyCarryThem)
{
    const OwnedCrl crl = DecodeCrl(vrf_, CrlKind::Sample());
    const auto& list = crl->tbs_cert_list->revoked_certs->revoked_list;
    ASSERT_EQ(list.num, 2u);
    EXPECT_EQ(Content(*list.data[0]->user_cert), Bytes{0x21});
    EXPECT_EQ(list.data[0]->crl_entry_extensions, nullptr);
    EXPECT_EQ(Content(*list.data[1]->user_cert), Bytes{0xF2}); // 02 02 00 F2
    ASSERT_NE(list.data[1]->crl_entry_extensions, nullptr);
    EXPECT_EQ(list.data[1]->crl_entry_extensions->extensions.num, 1u);
}

TEST_F(CrlDecoding, TakesManyEntries)
{
    std::vector<RevokedSpec> entries;
    for (unsigned i = 0; i < 1000; ++i) {
        entries.push_back(Entry({0x01, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)}));
    }
    const Bytes der = Build(Revoking(entries));
    const OwnedCrl crl = DecodeCrl(vrf_, der);
    EXPECT_EQ(crl->tbs_cert_list->revoked_certs->revoked_list.num, 1000u);
    EXPECT_EQ(Encoding(*crl), der);
}

// They never leave their list, which gives the blocks back that they are carved from.
TEST_F(CrlDecoding, EntriesShareBlocks)
{
    std::vector<RevokedSpec> entries;
    for (unsigned i = 0; i < 1000; ++i) {
        entries.push_back(Entry({0x01, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)}));
        entries.back().reason = 1;
    }
    const Bytes none = Build(CrlOf(Root()));
    const Bytes thousand = Build(Revoking(entries));
    const auto allocations = [&](const Bytes& der) {
        const std::size_t before = vrf_.Plan().Count(Call::Malloc);
        const OwnedCrl crl = DecodeCrl(vrf_, der);
        return vrf_.Plan().Count(Call::Malloc) - before;
    };
    EXPECT_LE(allocations(thousand), allocations(none) + 50);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

// One entry that is larger than any block for entries.
TEST_F(CrlDecoding, TakesAnEntryLargerThanABlock)
{
    RevokedSpec large = Entry({0x22});
    large.extensions = {Ext("1.2.3.4", Octets(Bytes(100000, 0x5A)))};
    const Bytes der = Build(Revoking({Entry({0x21}), large, Entry({0x23})}));
    const OwnedCrl crl = DecodeCrl(vrf_, der);
    ASSERT_EQ(crl->tbs_cert_list->revoked_certs->revoked_list.num, 3u);
    EXPECT_EQ(Encoding(*crl), der);
}

TEST_F(CrlDecoding, RefusesARevokedSerialNumberZero)
{
    ExpectRefused(Build(Revoking({Entry({0x00})})));
}

// nextUpdate is required and takes any tag.
TEST_F(CrlDecoding, RefusesACrlThatEndsBeforeNextUpdate)
{
    CrlSpec spec = CrlOf(Root());
    spec.nextUpdate.reset();
    spec.extensions.clear();
    ExpectRefused(Build(spec));
}

TEST_F(CrlDecoding, WithoutNextUpdateTheRevokedListTakesItsPlace)
{
    CrlSpec spec = revokingOne_;
    spec.nextUpdate.reset();
    const OwnedCrl crl = DecodeCrl(vrf_, Build(spec));
    EXPECT_EQ(Encoding(*crl->tbs_cert_list->next_update), Seq(Seq(Int(0x21), UtcTime("250601000000Z"))));
    EXPECT_EQ(crl->tbs_cert_list->revoked_certs, nullptr);
    EXPECT_NE(crl->tbs_cert_list->extensions, nullptr);
}

TEST_F(CrlDecoding, WithoutNextUpdateAndListTheExtensionsTakeItsPlace)
{
    CrlSpec spec = CrlOf(Root());
    spec.nextUpdate.reset();
    const OwnedCrl crl = DecodeCrl(vrf_, Build(spec));
    EXPECT_EQ(crl->tbs_cert_list->next_update->tag.cls, CBC_CNTX);
    EXPECT_EQ(crl->tbs_cert_list->next_update->tag.code, 0);
    EXPECT_EQ(crl->tbs_cert_list->revoked_certs, nullptr);
    EXPECT_EQ(crl->tbs_cert_list->extensions, nullptr);
}

TEST_F(CrlDecoding, RefusesAnotherTypeInATypedField)
{
    for (const Path& path : std::vector<Path>{{0},
                                              {0, tbscrl::signature},
                                              {0, tbscrl::issuer},
                                              {0, tbscrl::revoked, 0},
                                              {0, tbscrl::revoked, 0, 0},
                                              {0, tbscrl::extensions, 0},
                                              {0, tbscrl::extensions, 0, 0},
                                              {1},
                                              {2}}) {
        SCOPED_TRACE(::testing::PrintToString(path));
        ExpectRefused(Replace(Build(revokingOne_), path, Null()));
    }
}

TEST_F(CrlDecoding, RefusesAMissingField)
{
    for (const Path& path : std::vector<Path>{{0},
                                              {0, tbscrl::signature},
                                              {0, tbscrl::issuer},
                                              {0, tbscrl::revoked, 0, 0},
                                              {0, tbscrl::revoked, 0, 1},
                                              {1},
                                              {2}}) {
        SCOPED_TRACE(::testing::PrintToString(path));
        ExpectRefused(Replace(Build(revokingOne_), path, {}));
    }
}

// ---- Public keys ----

Outcome<PELNIC_PUBKEY> DecodePubkey(const PELNIC_VRF* vrf, const PELNIC_X509_PUBKEY_INFO* info)
{
    Outcome<PELNIC_PUBKEY> outcome;
    outcome.rc = pelnic_decode_pubkey(vrf, info, &outcome.record);
    return outcome;
}

class PubkeyDecoding : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    void ExpectRefused(const Bytes& spki, PELNIC_ERROR_CODE code)
    {
        const auto info = DecodeItem<PELNIC_X509_PUBKEY_INFO_item>(vrf_, spki);
        const std::size_t before = vrf_.Plan().LiveBlocks();
        DecodePubkey(vrf_, info.get()).ExpectRefused(code);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), before);
    }
    static Bytes Rsa(const Bytes& key) { return Seq(AlgoId(oid::rsaEncryption), Bits(0, key)); }
    static const PELNIC_RSA_KEY& RsaKey(const OwnedKey& key) { return *static_cast<PELNIC_RSA_KEY*>(key->pKey); }

    Vrf vrf_;
};

TEST_F(PubkeyDecoding, RsaKeysAreTakenApart)
{
    for (KeyId id : {KeyId::Rsa2048A, KeyId::Rsa3072, KeyId::Rsa4096}) {
        const OwnedKey key = DecodeKey(vrf_, Spki(id));
        EXPECT_EQ(key->type, PNV_UINT32{AOID_RSA});
        ASSERT_NE(key->pKey, nullptr);
        EXPECT_EQ(RsaKey(key).keyType, 1u);
        EXPECT_EQ(Content(RsaKey(key).key.pPubKey->modules), TestKey(id).modulus);
        EXPECT_EQ(Content(RsaKey(key).key.pPubKey->publicExponent), TestKey(id).exponent);
    }
}

TEST_F(PubkeyDecoding, BitsAreTheOctetsOfTheModulusTimesEight)
{
    EXPECT_EQ(RsaKey(DecodeKey(vrf_, Spki(KeyId::Rsa2048A))).bits, 2048u);
    EXPECT_EQ(RsaKey(DecodeKey(vrf_, Spki(KeyId::Rsa4096))).bits, 4096u);
    EXPECT_EQ(RsaKey(DecodeKey(vrf_, RsaSpki({0x01}))).bits, 8u);
    EXPECT_EQ(RsaKey(DecodeKey(vrf_, Rsa(Seq(Int({0x00, 0x00, 0x7F, 0x01}), Int(3))))).bits, 16u);
}

// 02 00 is no INTEGER of X.690, but it decodes.
TEST_F(PubkeyDecoding, AModulusWithoutOctetsHasNoBits)
{
    const OwnedKey key = DecodeKey(vrf_, Rsa(Seq(Tlv(0x02, {}), Int(3))));
    EXPECT_EQ(RsaKey(key).bits, 0u);
    EXPECT_EQ(RsaKey(key).key.pPubKey->modules.octs, nullptr);
}

TEST_F(PubkeyDecoding, KeyLengthsAreNotJudgedHere)
{
    EXPECT_EQ(RsaKey(DecodeKey(vrf_, RsaSpki(Bytes(2000, 0x81)))).bits, 16000u);
}

TEST_F(PubkeyDecoding, ParametersDoNotMatter)
{
    const Bytes key = Content(Spki(KeyId::Rsa2048A), {1});
    const Bytes withoutParameters = Seq(AlgoId(oid::rsaEncryption, {}), Tlv(0x03, key));
    EXPECT_EQ(DecodeKey(vrf_, withoutParameters)->type, PNV_UINT32{AOID_RSA});
}

TEST_F(PubkeyDecoding, OctetsAfterTheKeyAreIgnored)
{
    EXPECT_EQ(RsaKey(DecodeKey(vrf_, Rsa(Cat(Seq(Int(33), Int(3)), Bytes{0xEE})))).bits, 8u);
}

TEST_F(PubkeyDecoding, RefusesAnUnknownAlgorithm)
{
    ExpectRefused(Spki(KeyId::EcP256), PELNIC_ERR_UNSUPPORTED_ALGO);
    ExpectRefused(Seq(AlgoId(oid::rsaPss), Bits(0, Seq(Int(33), Int(3)))), PELNIC_ERR_UNSUPPORTED_ALGO);
}

// The tag counts, not only the octets.
TEST_F(PubkeyDecoding, RefusesAnAlgorithmThatIsNoObjectIdentifier)
{
    const Bytes rsa = Content(Oid(oid::rsaEncryption), {});
    ExpectRefused(Seq(Seq(Octets(rsa), Null()), Bits(0, Seq(Int(33), Int(3)))), PELNIC_ERR_UNSUPPORTED_ALGO);
}

TEST_F(PubkeyDecoding, AKnownAlgorithmOtherThanRsaHasNoKey)
{
    const OwnedKey key = DecodeKey(vrf_, Seq(AlgoId(oid::sha256), Bits(0, {0x01})));
    EXPECT_EQ(key->type, PNV_UINT32{AOID_SHA256});
    EXPECT_EQ(key->pKey, nullptr);
}

TEST_F(PubkeyDecoding, RefusesARsaKeyThatIsNone)
{
    ExpectRefused(Rsa(Null()), PELNIC_ERR_ASN_DECODE);
    ExpectRefused(Rsa(Seq()), PELNIC_ERR_ASN_DECODE);
    ExpectRefused(Rsa(Seq(Int(33))), PELNIC_ERR_ASN_DECODE);
    ExpectRefused(Rsa(Seq(Null(), Int(3))), PELNIC_ERR_ASN_DECODE);
    ExpectRefused(Rsa(Seq(Int(33), Null())), PELNIC_ERR_ASN_DECODE);
    ExpectRefused(Rsa(Seq(Int(33), Unreadable(0x02))), PELNIC_ERR_ASN_DECODE);
}

TEST_F(PubkeyDecoding, RefusesARsaKeyOfZeros)
{
    ExpectRefused(Rsa(Seq(Int(0), Int(3))), PELNIC_ERR_ASN_DECODE);
    ExpectRefused(Rsa(Seq(Int(33), Int(0))), PELNIC_ERR_ASN_DECODE);
}

TEST_F(PubkeyDecoding, RefusesARsaKeyWithoutOctets)
{
    ExpectRefused(Rsa({}), PELNIC_ERR_NULL_POINTER);
}

TEST_F(PubkeyDecoding, DoesNotDependOnTheCertificate)
{
    OwnedKey key;
    {
        const OwnedCert cert = DecodeCert(vrf_, Build(Root()));
        const auto outcome = DecodePubkey(vrf_, cert->toBeSigned->subjectPubKey);
        ASSERT_EQ(outcome.rc, 0u);
        key = OwnedKey(outcome.record, {vrf_});
    }
    EXPECT_EQ(Content(RsaKey(key).key.pPubKey->modules), TestKey(KeyId::Rsa2048A).modulus);
}

TEST_F(PubkeyDecoding, RefusesNull)
{
    const auto info = DecodeItem<PELNIC_X509_PUBKEY_INFO_item>(vrf_, Spki(KeyId::Rsa2048A));
    DecodePubkey(nullptr, info.get()).ExpectRefused(PELNIC_ERR_NULL_POINTER);
    DecodePubkey(vrf_, nullptr).ExpectRefused(PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_decode_pubkey(vrf_, info.get(), nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST_F(PubkeyDecoding, FreeIgnoresNull)
{
    pelnic_free_pubkey(vrf_, nullptr);
    _pnvFreeRsaPubkey(vrf_, nullptr);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

// The allocator's code for the two records, the decoder's for everything inside it.
TEST(PubkeyDecodingFaults, ReleasesEverythingWhicheverCallFails)
{
    constexpr std::size_t kCallsForTheRecords = 4; // each allocated, then cleared
    SweepFaults(
        Call::Malloc | calls::copies,
        [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            OwnedItem<PELNIC_X509_PUBKEY_INFO_item> info;
            plan.WithoutFaults([&] { info = DecodeItem<PELNIC_X509_PUBKEY_INFO_item>(vrf, Spki(KeyId::Rsa2048A)); });
            const auto outcome = DecodePubkey(vrf, info.get());
            if (outcome.rc == 0) {
                pelnic_free_pubkey(vrf, outcome.record);
            } else {
                outcome.ExpectRefused(outcome.rc);
            }
            EXPECT_TRUE(plan.Logs().empty());
            return outcome.rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) {
            const PELNIC_ERROR_CODE ofRecord = run.nth % 2 == 1 ? PELNIC_ERR_SYS_MEM_ALLOC : injectedFault;
            const PELNIC_ERROR_CODE fault = run.nth <= kCallsForTheRecords ? ofRecord : PELNIC_ERR_ASN_DECODE;
            EXPECT_EQ(rc, run.met ? fault : 0u);
        });
}

class RsaPubkeyDecoding : public PubkeyDecoding {
protected:
    template <typename Input> Outcome<PELNIC_RSA_KEY> Decode(const Input& input)
    {
        Outcome<PELNIC_RSA_KEY> outcome;
        outcome.rc = _pnvDecodeRsaPubkey(vrf_, input.data(), Len(input), &outcome.record);
        return outcome;
    }

    const Bytes key_ = Extract(Spki(KeyId::Rsa2048A), {1, 0});
};

TEST_F(RsaPubkeyDecoding, MakesAPublicKey)
{
    const auto outcome = Decode(key_);
    ASSERT_EQ(outcome.rc, 0u);
    EXPECT_EQ(outcome.record->keyType, 1u);
    EXPECT_EQ(outcome.record->bits, 2048u);
    EXPECT_EQ(IntegerEncoding(outcome.record->key.pPubKey->modules), Extract(key_, {0}));
    EXPECT_EQ(IntegerEncoding(outcome.record->key.pPubKey->publicExponent), Extract(key_, {1}));
    _pnvFreeRsaPubkey(vrf_, outcome.record);
}

TEST_F(RsaPubkeyDecoding, RefusesEveryPrefix)
{
    ForEveryPrefix(key_, [&](const ExactHeap& prefix) {
        SCOPED_TRACE(prefix.size());
        Decode(prefix).ExpectRefused(prefix.size() == 0 ? PELNIC_ERR_NULL_POINTER : PELNIC_ERR_ASN_DECODE);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    });
}

TEST_F(RsaPubkeyDecoding, RefusesNull)
{
    PELNIC_RSA_KEY* key = nullptr;
    EXPECT_EQ(_pnvDecodeRsaPubkey(nullptr, key_.data(), Len(key_), &key), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(_pnvDecodeRsaPubkey(vrf_, nullptr, Len(key_), &key), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(_pnvDecodeRsaPubkey(vrf_, key_.data(), Len(key_), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(key, nullptr);
}

// ---- Extensions: what is common to all kinds ----

struct ExtensionCase {
    const char* name;
    PELNIC_AOIDS aoid;
    std::string_view oid;
    Bytes value;
};

std::vector<ExtensionCase> ExtensionCases()
{
    return {
        {"AuthorityKeyIdentifier", AOID_CE_AUTHORITYKEYIDENTIFIER, oid::authorityKeyIdentifier,
         Seq(CtxPrim(0, {0x0A, 0x0B}), Ctx(1, Ctx(4, TestName("CA"))), CtxPrim(2, {0x11}))},
        {"SubjectKeyIdentifier", AOID_CE_SUBJECTKEYIDENTIFIER, oid::subjectKeyIdentifier, Octets({0x0A, 0x0B})},
        {"KeyUsage", AOID_CE_KEYUSAGE, oid::keyUsage, KeyUsage(usage::digitalSignature | usage::decipherOnly)},
        {"BasicConstraints", AOID_CE_BASICCONSTRAINTS, oid::basicConstraints, Ca(3)},
        {"ExtKeyUsage", AOID_CE_EXTKEYUSAGE, oid::extKeyUsage,
         Seq(Oid(oid::serverAuth), Oid(oid::codeSigning), Oid(oid::timeStamping), Oid("2.5.29.37.0"))},
        {"IssuingDistributionPoint", AOID_CE_ISSUINGDISTRIBUTIONPOINT, oid::issuingDistributionPoint,
         Seq(Ctx(0, Ctx(0, CtxPrim(6, Text("http://example.org")))), CtxPrim(1, {0xFF}), CtxPrim(2, {0xFF}),
             CtxPrim(3, {0x01, 0x40}), CtxPrim(4, {0xFF}), CtxPrim(5, {0xFF}))},
        {"CrlReason", AOID_CE_CRLREASONS, oid::crlReason, Enum(4)},
    };
}

struct ExtensionOutcome {
    PELNIC_ERROR_CODE rc = 0;
    void* record = Mark();

    static void* Mark()
    {
        static char mark;
        return &mark;
    }
    void ExpectRefused(PELNIC_ERROR_CODE code) const
    {
        EXPECT_EQ(rc, code);
        EXPECT_EQ(record, Mark());
    }
};

ExtensionOutcome DecodeExtension(const PELNIC_VRF* vrf, const PELNIC_X509_EXTENSION_ENTRY* extension)
{
    ExtensionOutcome outcome;
    outcome.rc = pelnic_decode_x509_extension(vrf, extension, &outcome.record);
    return outcome;
}

// An extension around these octets, which it does not own.
template <typename Input>
PELNIC_X509_EXTENSION_ENTRY ExtensionAround(const PELNIC_VRF* vrf, PELNIC_AOIDS aoid, Input& value)
{
    PELNIC_X509_EXTENSION_ENTRY extension{};
    extension.extnId = *pelnic_find_oid(vrf, aoid);
    extension.extnValue = {Len(value), {CBC_UNIV, CBF_PRIM, CBT_OCTETSTRING}, value.data()};
    return extension;
}

class ExtensionKind : public ::testing::TestWithParam<ExtensionCase> {
protected:
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    template <typename Input> PELNIC_X509_EXTENSION_ENTRY Around(Input& value)
    {
        return ExtensionAround(vrf_, GetParam().aoid, value);
    }

    Vrf vrf_;
    Bytes value_ = GetParam().value;
};

const auto kExtensionName = [](const ::testing::TestParamInfo<ExtensionCase>& testInfo) {
    return std::string(testInfo.param.name);
};
INSTANTIATE_TEST_SUITE_P(X509, ExtensionKind, ::testing::ValuesIn(ExtensionCases()), kExtensionName);

TEST_P(ExtensionKind, DecodesAndIsFreed)
{
    const auto extension = DecodeItem<PELNIC_X509_EXTN_item>(vrf_, Ext(GetParam().oid, value_));
    const std::size_t before = vrf_.Plan().LiveBlocks();
    const auto outcome = DecodeExtension(vrf_, extension.get());
    ASSERT_EQ(outcome.rc, 0u);
    EXPECT_GT(vrf_.Plan().LiveBlocks(), before);
    pelnic_free_x509_extension(vrf_, GetParam().aoid, outcome.record);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), before);
}

TEST_P(ExtensionKind, TakesOctetsAfterTheValue)
{
    Bytes longer = Cat(value_, Unreadable(0x30));
    const PELNIC_X509_EXTENSION_ENTRY extension = Around(longer);
    const auto outcome = DecodeExtension(vrf_, &extension);
    ASSERT_EQ(outcome.rc, 0u);
    pelnic_free_x509_extension(vrf_, GetParam().aoid, outcome.record);
}

TEST_P(ExtensionKind, RefusesEveryPrefix)
{
    for (std::size_t size = 1; size < value_.size(); ++size) {
        SCOPED_TRACE(size);
        ExactHeap prefix(value_, size);
        const PELNIC_X509_EXTENSION_ENTRY extension = Around(prefix);
        DecodeExtension(vrf_, &extension).ExpectRefused(PELNIC_ERR_ASN_DECODE);
        ASSERT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    }
}

TEST_P(ExtensionKind, RefusesAnEmptyValue)
{
    PELNIC_X509_EXTENSION_ENTRY extension = Around(value_);
    extension.extnValue.len = 0;
    extension.extnValue.octs = nullptr; // as an OCTET STRING without content is decoded
    DecodeExtension(vrf_, &extension).ExpectRefused(PELNIC_ERR_NULL_POINTER);
}

TEST_P(ExtensionKind, SurvivesEveryFlippedBit)
{
    ExactHeap input(value_);
    const PELNIC_X509_EXTENSION_ENTRY extension = Around(input);
    for (std::size_t i = 0; i < input.size(); ++i) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            input.data()[i] = static_cast<std::uint8_t>(value_[i] ^ 1u << bit);
            const auto outcome = DecodeExtension(vrf_, &extension);
            if (outcome.rc == 0) {
                pelnic_free_x509_extension(vrf_, GetParam().aoid, outcome.record);
            } else {
                outcome.ExpectRefused(PELNIC_ERR_ASN_DECODE);
            }
            ASSERT_EQ(vrf_.Plan().LiveBlocks(), 0u) << "bit " << bit << " of octet " << i;
        }
        input.data()[i] = value_[i];
    }
    vrf_.Plan().ClearLogs(); // of the reader of tags
}

TEST_P(ExtensionKind, ReleasesEverythingWhicheverRowFails)
{
    ForEveryRow(value_, {}, [&](const Path& path) {
        if (path.size() > 1) return; // inside a raw field
        SCOPED_TRACE(::testing::PrintToString(path));
        Bytes damaged = Replace(value_, path, Unreadable(Find(value_, path).tag));
        const PELNIC_X509_EXTENSION_ENTRY extension = Around(damaged);
        DecodeExtension(vrf_, &extension).ExpectRefused(PELNIC_ERR_ASN_DECODE);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    });
}

TEST_P(ExtensionKind, RefusesNull)
{
    const PELNIC_X509_EXTENSION_ENTRY extension = Around(value_);
    DecodeExtension(nullptr, &extension).ExpectRefused(PELNIC_ERR_NULL_POINTER);
    DecodeExtension(vrf_, nullptr).ExpectRefused(PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_decode_x509_extension(vrf_, &extension, nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST_P(ExtensionKind, FreeIgnoresNull)
{
    pelnic_free_x509_extension(vrf_, GetParam().aoid, nullptr);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

class ExtensionKindFaults : public ::testing::TestWithParam<ExtensionCase> {};
INSTANTIATE_TEST_SUITE_P(X509, ExtensionKindFaults, ::testing::ValuesIn(ExtensionCases()), kExtensionName);

TEST_P(ExtensionKindFaults, ReleasesEverythingWhicheverCallFails)
{
    Bytes value = GetParam().value;
    SweepFaults(
        Call::Malloc | calls::copies,
        [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            const PELNIC_X509_EXTENSION_ENTRY extension = ExtensionAround(vrf, GetParam().aoid, value);
            const auto outcome = DecodeExtension(vrf, &extension);
            if (outcome.rc == 0) {
                pelnic_free_x509_extension(vrf, GetParam().aoid, outcome.record);
            } else {
                outcome.ExpectRefused(PELNIC_ERR_ASN_DECODE);
            }
            return outcome.rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc != 0, run.met); });
}

// ---- Extensions: what each kind holds ----

template <typename Record> struct ReleaseExtension {
    const PELNIC_VRF* vrf;
    PELNIC_AOIDS aoid;
    void operator()(Record* record) const { pelnic_free_x509_extension(vrf, aoid, record); }
};

class ExtensionValue : public ::testing::Test {
protected:
    // Null when the value is refused. It is overwritten before the record is handed out.
    template <typename Record> std::unique_ptr<Record, ReleaseExtension<Record>> As(PELNIC_AOIDS aoid, Bytes value)
    {
        const PELNIC_X509_EXTENSION_ENTRY extension = ExtensionAround(vrf_, aoid, value);
        void* record = nullptr;
        const PELNIC_ERROR_CODE rc = pelnic_decode_x509_extension(vrf_, &extension, &record);
        EXPECT_EQ(rc, record == nullptr ? PELNIC_ERR_ASN_DECODE : 0u);
        std::fill(value.begin(), value.end(), std::uint8_t{0xEE});
        return {static_cast<Record*>(record), {vrf_, aoid}};
    }
    auto AuthorityKid(const Bytes& value)
    {
        return As<PELNIC_X509_AUTHORITY_KID>(AOID_CE_AUTHORITYKEYIDENTIFIER, value);
    }
    auto KeyIdentifier(const Bytes& value) { return As<PELNIC_ASN_OCTS>(AOID_CE_SUBJECTKEYIDENTIFIER, value); }
    auto Usage(const Bytes& value) { return As<PELNIC_ASN_BITS>(AOID_CE_KEYUSAGE, value); }
    auto Constraints(const Bytes& value) { return As<PELNIC_X509_BASIC_CONSTRAINTS>(AOID_CE_BASICCONSTRAINTS, value); }
    auto Purposes(const Bytes& value) { return As<PELNIC_ASN_OID_BUNDLE>(AOID_CE_EXTKEYUSAGE, value); }
    auto DistPoint(const Bytes& value)
    {
        return As<PELNIC_X509_ISSUING_DIST_POINT>(AOID_CE_ISSUINGDISTRIBUTIONPOINT, value);
    }
    auto Reason(const Bytes& value) { return As<PELNIC_ASN_ENUM>(AOID_CE_CRLREASONS, value); }

    Vrf vrf_;
};

TEST_F(ExtensionValue, AuthorityKeyIdentifierKeepsItsThreeFields)
{
    const Bytes issuer = Ctx(4, TestName("CA"));
    const auto kid = AuthorityKid(Seq(CtxPrim(0, {0x00, 0x0B}), Ctx(1, issuer), CtxPrim(2, {0x11, 0x12})));
    ASSERT_NE(kid, nullptr);
    EXPECT_EQ(Content(*kid->keyIdentifier), (Bytes{0x00, 0x0B}));
    EXPECT_EQ(Content(*kid->authorityCertIssuer), issuer);
    EXPECT_EQ(Content(*kid->authorityCertSerialNumber), (Bytes{0x11, 0x12}));
}

TEST_F(ExtensionValue, AuthorityKeyIdentifierMayLackEachField)
{
    const auto empty = AuthorityKid(Seq());
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->keyIdentifier, nullptr);
    EXPECT_EQ(empty->authorityCertIssuer, nullptr);
    EXPECT_EQ(empty->authorityCertSerialNumber, nullptr);

    const auto serialAlone = AuthorityKid(Seq(CtxPrim(2, {0x11})));
    ASSERT_NE(serialAlone, nullptr);
    EXPECT_EQ(serialAlone->keyIdentifier, nullptr);
    EXPECT_NE(serialAlone->authorityCertSerialNumber, nullptr);
}

// As in the certificate that it points to.
TEST_F(ExtensionValue, AuthorityCertSerialNumberLosesLeadingZeros)
{
    const auto kid = AuthorityKid(Seq(CtxPrim(2, {0x00, 0x80})));
    ASSERT_NE(kid, nullptr);
    EXPECT_EQ(Content(*kid->authorityCertSerialNumber), Bytes{0x80});
    EXPECT_EQ(AuthorityKid(Seq(CtxPrim(2, {0x00}))), nullptr);
}

TEST_F(ExtensionValue, SubjectKeyIdentifierIsTheContentOfAnyElement)
{
    const auto octets = KeyIdentifier(Octets({0x0A, 0x0B}));
    ASSERT_NE(octets, nullptr);
    EXPECT_EQ(Content(*octets), (Bytes{0x0A, 0x0B}));
    const auto other = KeyIdentifier(Utf8("key"));
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(Encoding(*other), Utf8("key"));
}

TEST_F(ExtensionValue, KeyUsageIsABitString)
{
    const auto bits = Usage(Bits(7, {0x06, 0x80}));
    ASSERT_NE(bits, nullptr);
    EXPECT_EQ(bits->byteLen, 2u);
    EXPECT_EQ(bits->bitLen, 9u);
    EXPECT_EQ(Content(*bits), (Bytes{0x06, 0x80}));
    EXPECT_EQ(Usage(Octets({0x00, 0x06})), nullptr);
}

TEST_F(ExtensionValue, KeyUsageMayBeEmpty)
{
    const auto bits = Usage(Bits(0, {}));
    ASSERT_NE(bits, nullptr);
    EXPECT_EQ(bits->byteLen, 0u);
    EXPECT_EQ(bits->bitLen, 0u);
    EXPECT_EQ(bits->bits, nullptr);
}

TEST_F(ExtensionValue, BasicConstraintsOfNoCaAreEmpty)
{
    const auto constraints = Constraints(NotCa());
    ASSERT_NE(constraints, nullptr);
    EXPECT_EQ(constraints->is_ca, 0);
    EXPECT_EQ(constraints->max_path_len, nullptr);
}

TEST_F(ExtensionValue, BasicConstraintsOfACa)
{
    const auto unlimited = Constraints(Ca());
    ASSERT_NE(unlimited, nullptr);
    EXPECT_EQ(unlimited->is_ca, 1);
    EXPECT_EQ(unlimited->max_path_len, nullptr);

    for (int pathLength : {0, 3, 1000, -1}) {
        const auto limited = Constraints(Ca(pathLength));
        ASSERT_NE(limited, nullptr);
        ASSERT_NE(limited->max_path_len, nullptr);
        EXPECT_EQ(*limited->max_path_len, pathLength);
    }
}

TEST_F(ExtensionValue, BasicConstraintsRefuseAPathLengthOfMoreThanFourOctets)
{
    EXPECT_EQ(Constraints(Seq(Bool(true), Int({0x00, 0x00, 0x00, 0x00, 0x01}))), nullptr);
}

TEST_F(ExtensionValue, PurposesKeepTheirOrder)
{
    const std::vector<std::string_view> oids{oid::timeStamping, oid::serverAuth, oid::codeSigning, oid::testPolicy};
    std::vector<Bytes> encoded;
    for (std::string_view purpose : oids) encoded.push_back(Oid(purpose));
    const auto purposes = Purposes(Seq(Cat(encoded)));
    ASSERT_NE(purposes, nullptr);
    ASSERT_EQ(purposes->oid_bundle.num, oids.size());
    for (std::size_t i = 0; i < oids.size(); ++i) EXPECT_EQ(Encoding(*purposes->oid_bundle.data[i]), encoded[i]);
}

TEST_F(ExtensionValue, PurposesMayBeNone)
{
    const auto purposes = Purposes(Seq());
    ASSERT_NE(purposes, nullptr);
    EXPECT_EQ(purposes->oid_bundle.num, 0u);
}

TEST_F(ExtensionValue, IssuingDistributionPointMayLackEachField)
{
    const auto point = DistPoint(Seq());
    ASSERT_NE(point, nullptr);
    EXPECT_EQ(point->distpoint, nullptr);
    EXPECT_EQ(point->onlyuser, 0);
    EXPECT_EQ(point->onlyCA, 0);
    EXPECT_EQ(point->onlysomereasons, nullptr);
    EXPECT_EQ(point->indirectCRL, 0);
    EXPECT_EQ(point->onlyattr, 0);
}

TEST_F(ExtensionValue, IssuingDistributionPointTellsItsFieldsApart)
{
    const Bytes name = Ctx(0, CtxPrim(6, Text("http://example.org")));
    const auto outer = DistPoint(Seq(Ctx(0, name), CtxPrim(2, {0xFF}), CtxPrim(5, {0x01})));
    ASSERT_NE(outer, nullptr);
    EXPECT_EQ(Content(*outer->distpoint), name);
    EXPECT_EQ(outer->onlyuser, 0);
    EXPECT_EQ(outer->onlyCA, 1);
    EXPECT_EQ(outer->onlysomereasons, nullptr);
    EXPECT_EQ(outer->indirectCRL, 0);
    EXPECT_EQ(outer->onlyattr, 1);

    const auto inner = DistPoint(Seq(CtxPrim(1, {0xFF}), CtxPrim(3, {0x06, 0x40}), CtxPrim(4, {0xFF})));
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->distpoint, nullptr);
    EXPECT_EQ(inner->onlyuser, 1);
    EXPECT_EQ(inner->onlyCA, 0);
    ASSERT_NE(inner->onlysomereasons, nullptr);
    EXPECT_EQ(inner->onlysomereasons->bitLen, 2u);
    EXPECT_EQ(inner->indirectCRL, 1);
    EXPECT_EQ(inner->onlyattr, 0);
}

TEST_F(ExtensionValue, ReasonsAreEnumerated)
{
    for (int code : {0, 1, 10, 127, -1}) {
        const auto reason = Reason(Enum(code));
        ASSERT_NE(reason, nullptr);
        EXPECT_EQ(*reason, code);
    }
    EXPECT_EQ(Reason(Int(1)), nullptr);
}

TEST_F(ExtensionValue, OtherExtensionsAreRefusedWithoutALook)
{
    for (std::string_view other : {oid::subjectAltName, oid::crlNumber, oid::rsaEncryption, oid::codeSigning}) {
        const auto extension = DecodeItem<PELNIC_X509_EXTN_item>(vrf_, Ext(other, Seq()));
        const std::size_t before = vrf_.Plan().Count(Call::Malloc);
        DecodeExtension(vrf_, extension.get()).ExpectRefused(PELNIC_ERR_FAILED);
        EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), before);
    }
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(ExtensionValue, FreeLeavesRecordsOfOtherIdentifiersAlone)
{
    const auto reason = Reason(Enum(1));
    ASSERT_NE(reason, nullptr);
    for (PELNIC_AOIDS other : {AOID_UNKNOWN, AOID_RSA, AOID_KP_CODESIGNING}) {
        pelnic_free_x509_extension(vrf_, other, reason.get());
    }
    EXPECT_EQ(*reason, 1);
}

} // namespace
} // namespace pnvtest
