// Comparisons of decoded values, and times: text into calendar fields and back.
#include "cmsverify/pelnic_asn1_utils.h"

#include "support/vrf.h"

#include <cstring>

namespace pnvtest {
namespace {

class AsnUtils : public ::testing::Test {
protected:
    Vrf vrf_;
};

// ---- Tags ----

const PELNIC_BER_TAG kOctetString{CBC_UNIV, CBF_PRIM, CBT_OCTETSTRING};

class CompareTag : public AsnUtils {};

TEST_F(CompareTag, MakeTagKeepsItsThreeParts)
{
    const PELNIC_BER_TAG tag = pelnic_make_tag(CBC_CNTX, CBF_CONS, CBT_ENUM);
    EXPECT_EQ(tag.cls, CBC_CNTX);
    EXPECT_EQ(tag.form, CBF_CONS);
    EXPECT_EQ(tag.code, CBT_ENUM);
}

TEST_F(CompareTag, EqualTagsAreEqual)
{
    const PELNIC_BER_TAG same = kOctetString;
    EXPECT_EQ(pelnic_compare_tag(vrf_, &kOctetString, &same), 0);
}

TEST_F(CompareTag, EveryPartCounts)
{
    for (const PELNIC_BER_TAG& other :
         {pelnic_make_tag(CBC_CNTX, CBF_PRIM, CBT_OCTETSTRING), pelnic_make_tag(CBC_UNIV, CBF_CONS, CBT_OCTETSTRING),
          pelnic_make_tag(CBC_UNIV, CBF_PRIM, CBT_OID)}) {
        EXPECT_NE(pelnic_compare_tag(vrf_, &kOctetString, &other), 0);
    }
}

// Unlike the decoder's comparison with an expected tag.
TEST_F(CompareTag, AnyMatchesOnlyItself)
{
    const PELNIC_BER_TAG any = pelnic_make_tag(CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE);
    EXPECT_NE(pelnic_compare_tag(vrf_, &any, &kOctetString), 0);
}

TEST_F(CompareTag, TheUpperHalvesCount)
{
    PELNIC_BER_TAG other = kOctetString;
    other.code = static_cast<PELNIC_BER_TAG_CODE>(PNV_INT64{CBT_OCTETSTRING} + (PNV_INT64{1} << 32));
    EXPECT_NE(pelnic_compare_tag(vrf_, &kOctetString, &other), 0);
}

TEST_F(CompareTag, OneRecordIsEqualWithoutAComparison)
{
    EXPECT_EQ(pelnic_compare_tag(vrf_, &kOctetString, &kOctetString), 0);
    EXPECT_EQ(vrf_.Plan().Count(Call::Memcmp), 0u);
}

TEST_F(CompareTag, PassesOnWhatMemcmpSays)
{
    const PELNIC_BER_TAG same = kOctetString;
    vrf_.Plan().Fail(Call::Memcmp, 1);
    EXPECT_EQ(pelnic_compare_tag(vrf_, &kOctetString, &same), -1);
}

// ---- Octets and big integers, which share their rules ----

PELNIC_ASN_OCTS Octs(Bytes& content, const PELNIC_BER_TAG& tag = kOctetString)
{
    return {Len(content), tag, content.empty() ? nullptr : content.data()};
}

struct OctetsComparison {
    const char* name;
    PNV_INT32 (*compare)(const PELNIC_VRF*, const PELNIC_ASN_OCTS*, const PELNIC_ASN_OCTS*);
};

class CompareOctets : public ::testing::TestWithParam<OctetsComparison> {
protected:
    PNV_INT32 Compare(const PELNIC_ASN_OCTS* expected, const PELNIC_ASN_OCTS* actual)
    {
        return GetParam().compare(vrf_, expected, actual);
    }
    PNV_INT32 Compare(const PELNIC_ASN_OCTS& expected, const PELNIC_ASN_OCTS& actual)
    {
        return Compare(&expected, &actual);
    }

    Vrf vrf_;
    Bytes content_{1, 2, 3};
    PELNIC_ASN_OCTS value_ = Octs(content_);
};
INSTANTIATE_TEST_SUITE_P(Kinds, CompareOctets,
                         ::testing::Values(OctetsComparison{"Octs", pelnic_compare_asn_octs},
                                           OctetsComparison{"Bigint", pelnic_compare_asn_bigint}),
                         [](const auto& test) { return test.param.name; });

TEST_P(CompareOctets, NullArgumentsAreDifferent)
{
    EXPECT_EQ(GetParam().compare(nullptr, &value_, &value_), -1);
    EXPECT_EQ(Compare(nullptr, &value_), -1);
    EXPECT_EQ(Compare(&value_, nullptr), -1);
    EXPECT_EQ(Compare(nullptr, nullptr), -1);
}

TEST_P(CompareOctets, OneRecordIsEqualWithoutAComparison)
{
    EXPECT_EQ(Compare(value_, value_), 0);
    EXPECT_EQ(vrf_.Plan().Count(Call::Memcmp), 0u);
}

TEST_P(CompareOctets, CopiesAreEqual)
{
    Bytes copy = content_;
    EXPECT_EQ(Compare(value_, Octs(copy)), 0);
}

TEST_P(CompareOctets, TheTagCounts)
{
    EXPECT_EQ(Compare(value_, Octs(content_, pelnic_make_tag(CBC_UNIV, CBF_PRIM, CBT_OID))), -1);
}

TEST_P(CompareOctets, TheLengthCounts)
{
    Bytes longer{1, 2, 3, 4};
    EXPECT_EQ(Compare(value_, Octs(longer)), -1);
    EXPECT_EQ(Compare(Octs(longer), value_), -1);
}

TEST_P(CompareOctets, DifferentOctetsHaveTheSignOfMemcmp)
{
    Bytes lower{1, 2, 2};
    Bytes higher{1, 2, 0xFF};
    EXPECT_GT(Compare(value_, Octs(lower)), 0);
    EXPECT_LT(Compare(value_, Octs(higher)), 0);
}

// Wherever the octets differ: no result is made here.
TEST_P(CompareOctets, TheResultIsTheCallbacksOwn)
{
    vrf_->callback_funcs.plt_funcs.sys_funcs.mem_funcs.memcmp = [](const void* a, const void* b, std::size_t size) {
        return std::memcmp(a, b, size) == 0 ? PNV_INT{0} : PNV_INT{7};
    };
    Bytes first{0xFF, 2, 3};
    Bytes last{1, 2, 0};
    EXPECT_EQ(Compare(value_, Octs(first)), 7);
    EXPECT_EQ(Compare(value_, Octs(last)), 7);
    EXPECT_EQ(Compare(value_, Octs(first, pelnic_make_tag(CBC_UNIV, CBF_PRIM, CBT_OID))), -1);
}

TEST_P(CompareOctets, SharedOctetsAreNotCompared)
{
    const PELNIC_ASN_OCTS shared = value_;
    EXPECT_EQ(Compare(value_, shared), 0);
    EXPECT_EQ(vrf_.Plan().Count(Call::Memcmp), 1u) << "the tags and nothing else";
}

TEST_P(CompareOctets, EmptyValuesAreEqual)
{
    Bytes none;
    EXPECT_EQ(Compare(Octs(none), Octs(none)), 0);
    EXPECT_EQ(Compare(PELNIC_ASN_OCTS{}, PELNIC_ASN_OCTS{}), 0);
}

// ---- Bit strings ----

class CompareBits : public AsnUtils {
protected:
    static PELNIC_ASN_BITS BitString(Bytes& octets, PNV_UINT32 unused)
    {
        return {8 * Len(octets) - unused, pelnic_make_tag(CBC_UNIV, CBF_PRIM, CBT_BITSTRING), octets.data(),
                Len(octets)};
    }
    PNV_INT32 Compare(const PELNIC_ASN_BITS& expected, const PELNIC_ASN_BITS& actual)
    {
        return pelnic_compare_asn_bits(vrf_, &expected, &actual);
    }

    Bytes octets_{0xA0, 0x80};
    PELNIC_ASN_BITS value_ = BitString(octets_, 0);
};

TEST_F(CompareBits, NullArgumentsAreDifferent)
{
    EXPECT_EQ(pelnic_compare_asn_bits(nullptr, &value_, &value_), -1);
    EXPECT_EQ(pelnic_compare_asn_bits(vrf_, nullptr, &value_), -1);
    EXPECT_EQ(pelnic_compare_asn_bits(vrf_, &value_, nullptr), -1);
}

TEST_F(CompareBits, OneRecordIsEqualWithoutAComparison)
{
    EXPECT_EQ(Compare(value_, value_), 0);
    EXPECT_EQ(vrf_.Plan().Count(Call::Memcmp), 0u);
}

TEST_F(CompareBits, CopiesAreEqual)
{
    Bytes copy = octets_;
    EXPECT_EQ(Compare(value_, BitString(copy, 0)), 0);
}

TEST_F(CompareBits, TheCountOfUnusedBitsDoesNotCount)
{
    Bytes copy = octets_;
    EXPECT_EQ(Compare(value_, BitString(copy, 7)), 0);
}

TEST_F(CompareBits, TheTagCounts)
{
    PELNIC_ASN_BITS tagged = value_;
    tagged.tag.cls = CBC_CNTX;
    EXPECT_EQ(Compare(value_, tagged), -1);
}

TEST_F(CompareBits, TheOctetCountCounts)
{
    Bytes shorter{0xA0};
    EXPECT_EQ(Compare(value_, BitString(shorter, 0)), -1);
}

TEST_F(CompareBits, DifferentBitsHaveTheSignOfMemcmp)
{
    Bytes lower{0xA0, 0x00};
    EXPECT_GT(Compare(value_, BitString(lower, 0)), 0);
    EXPECT_LT(Compare(BitString(lower, 0), value_), 0);
}

TEST_F(CompareBits, SharedBitsAreNotCompared)
{
    const PELNIC_ASN_BITS shared = value_;
    EXPECT_EQ(Compare(value_, shared), 0);
    EXPECT_EQ(vrf_.Plan().Count(Call::Memcmp), 1u) << "the tags and nothing else";
}

TEST_F(CompareBits, EmptyBitStringsAreEqual)
{
    EXPECT_EQ(Compare(PELNIC_ASN_BITS{}, PELNIC_ASN_BITS{}), 0);
}

// ---- Times ----

// The fields of a date and nothing else, for one comparison.
std::vector<int> Fields(const PELNIC_DATETIME& date)
{
    return {date.uYear,   date.uMonth,      date.uDay,     date.uHour,    date.uMinute,
            date.uSecond, date.uMillSecond, date.uUtcFlag, date.uUtcHour, date.uUtcMinute};
}
std::vector<int> Date(int year, int month, int day, int hour = 0, int minute = 0, int second = 0)
{
    return {year, month, day, hour, minute, second, 0, 0, 0, 0};
}

using TimeConversion = PELNIC_ERROR_CODE (*)(const PELNIC_VRF*, const PELNIC_ASN_OCTS*, PELNIC_DATETIME*);

class Times : public AsnUtils {
protected:
    // Into a dirty record, so that a field which is not written shows.
    PELNIC_ERROR_CODE Convert(TimeConversion convert, const PELNIC_ASN_OCTS& time)
    {
        std::memset(&date_, 0xEE, sizeof(date_));
        return convert(vrf_, &time, &date_);
    }
    PELNIC_ERROR_CODE Convert(TimeConversion convert, Bytes octets)
    {
        return Convert(convert, PELNIC_ASN_OCTS{Len(octets), {}, octets.data()});
    }
    std::vector<int> Utc(std::string_view text)
    {
        EXPECT_EQ(Convert(pelnic_convert_from_utctime, Text(text)), 0u) << text;
        return Fields(date_);
    }
    std::vector<int> Generalized(std::string_view text)
    {
        EXPECT_EQ(Convert(pelnic_convert_from_generalizedtime, Text(text)), 0u) << text;
        return Fields(date_);
    }
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    PELNIC_DATETIME date_{};
};

using UtcTimes = Times;
using GeneralizedTimes = Times;

TEST_F(UtcTimes, EveryFieldIsTaken)
{
    EXPECT_EQ(Utc("260704123456Z"), Date(2026, 7, 4, 12, 34, 56));
}

TEST_F(UtcTimes, TheCenturyTurnsAtFifty)
{
    EXPECT_EQ(Utc("491231235959Z"), Date(2049, 12, 31, 23, 59, 59));
    EXPECT_EQ(Utc("500101000000Z"), Date(1950, 1, 1));
    EXPECT_EQ(Utc("000101000000Z"), Date(2000, 1, 1));
    EXPECT_EQ(Utc("991231235959Z"), Date(1999, 12, 31, 23, 59, 59));
}

TEST_F(UtcTimes, FieldsAreNotRangeChecked)
{
    EXPECT_EQ(Utc("269999999999Z"), Date(2026, 99, 99, 99, 99, 99));
}

TEST_F(UtcTimes, CharactersAreNotCheckedToBeDigits)
{
    // ':' follows '9' and '/' precedes '0': 10 and -1, of which a field keeps the lowest octet.
    EXPECT_EQ(Utc("26:://000000Z"), Date(2026, 110, 256 - 11));
}

TEST_F(UtcTimes, AnyOtherLengthIsRefused)
{
    for (std::string_view text : {"", "2", "2607041234Z", "26070412345Z", "260704123456", "260704123456.5Z",
                                  "260704123456ZZ", "230101000000+0100", "20260704123456Z"}) {
        EXPECT_EQ(Convert(pelnic_convert_from_utctime, Text(text)), PELNIC_ERR_NULL_POINTER) << text;
    }
}

TEST_F(UtcTimes, WithoutZIsRefusedThoughItsFieldsAreFilled)
{
    for (std::string_view text : {"2301020304056", "230102030405z", "230102030405+"}) {
        EXPECT_EQ(Convert(pelnic_convert_from_utctime, Text(text)), PELNIC_ERR_SYS_TIME_FORMAT) << text;
        EXPECT_EQ(Fields(date_), Date(2023, 1, 2, 3, 4, 5)) << text;
    }
}

TEST_F(GeneralizedTimes, EveryFieldIsTaken)
{
    EXPECT_EQ(Generalized("20260704123456Z"), Date(2026, 7, 4, 12, 34, 56));
    EXPECT_EQ(Generalized("20500101000000Z"), Date(2050, 1, 1));
    EXPECT_EQ(Generalized("99991231235959Z"), Date(9999, 12, 31, 23, 59, 59));
    EXPECT_EQ(Generalized("00000000000000Z"), Date(0, 0, 0));
}

TEST_F(GeneralizedTimes, FieldsAreNotRangeChecked)
{
    EXPECT_EQ(Generalized("20269999999999Z"), Date(2026, 99, 99, 99, 99, 99));
}

TEST_F(GeneralizedTimes, CharactersAreTakenAsOctets)
{
    // 0xFF is 207 above '0', wherever plain char is signed: 207 * 1111 and 207 * 11, of which 16 and 8 bits are kept.
    EXPECT_EQ(Convert(pelnic_convert_from_generalizedtime, Cat(Bytes(14, 0xFF), Text("Z"))), 0u);
    const int two = 207 * 11 % 256;
    EXPECT_EQ(Fields(date_), Date(207 * 1111 % 65536, two, two, two, two, two));
}

TEST_F(GeneralizedTimes, AnyOtherLengthIsRefused)
{
    for (std::string_view text : {"", "260704123456Z", "202607041234Z", "20260704123456", "20500101000000.5Z",
                                  "20260704123456.Z", "20260704123456+0100", "20260704123456ZZ"}) {
        EXPECT_EQ(Convert(pelnic_convert_from_generalizedtime, Text(text)), PELNIC_ERR_NULL_POINTER) << text;
    }
}

TEST_F(GeneralizedTimes, WithoutZIsRefusedThoughItsFieldsAreFilled)
{
    EXPECT_EQ(Convert(pelnic_convert_from_generalizedtime, Text("202301020304056")), PELNIC_ERR_SYS_TIME_FORMAT);
    EXPECT_EQ(Fields(date_), Date(2023, 1, 2, 3, 4, 5));
}

constexpr TimeConversion kConversions[] = {pelnic_convert_from_utctime, pelnic_convert_from_generalizedtime,
                                           pelnic_convert_from_time};

TEST_F(Times, NullArgumentsAreRefused)
{
    Bytes text = Text("260704123456Z");
    const PELNIC_ASN_OCTS time{Len(text), {CBC_UNIV, CBF_PRIM, CBT_UTCTIME}, text.data()};
    for (TimeConversion convert : kConversions) {
        EXPECT_EQ(convert(nullptr, &time, &date_), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(convert(vrf_, nullptr, &date_), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(convert(vrf_, &time, nullptr), PELNIC_ERR_NULL_POINTER);
    }
}

TEST_F(Times, AZeroFilledValueIsRefused)
{
    const PELNIC_ASN_OCTS empty{};
    EXPECT_EQ(Convert(pelnic_convert_from_utctime, empty), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Convert(pelnic_convert_from_generalizedtime, empty), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Convert(pelnic_convert_from_time, empty), PELNIC_ERR_SYS_TIME_FORMAT);
}

TEST_F(Times, AFailureToClearTheResultIsPassedOn)
{
    vrf_.Plan().Fail(Call::Memset, 1, FaultMode::Onward);
    EXPECT_EQ(Convert(pelnic_convert_from_utctime, Text("260704123456Z")), injectedFault);
    EXPECT_EQ(Convert(pelnic_convert_from_generalizedtime, Text("20260704123456Z")), injectedFault);
}

// ---- Times by tag, and in seconds ----

// A time as the decoder delivers it.
struct DecodedTime {
    DecodedTime(PELNIC_BER_TAG_CODE code, std::string_view text, PELNIC_BER_CLASS cls = CBC_UNIV,
                PELNIC_BER_FORM form = CBF_PRIM)
        : octets(Text(text)), value{Len(octets), {cls, form, code}, octets.data()}
    {
    }

    Bytes octets;
    PELNIC_ASN_OCTS value;
};

class TaggedTimes : public Times {
protected:
    PELNIC_ERROR_CODE Convert(const DecodedTime& time) { return Times::Convert(pelnic_convert_from_time, time.value); }

    static constexpr PNV_TIME_T kUntouched = 0x1122334455667788;
    PELNIC_ERROR_CODE ToSeconds(const DecodedTime& time)
    {
        seconds_ = kUntouched;
        return pelnic_convert_datetime_to_time(vrf_, &time.value, &seconds_);
    }
    PNV_TIME_T Seconds(const DecodedTime& time)
    {
        EXPECT_EQ(ToSeconds(time), 0u);
        return seconds_;
    }

    PNV_TIME_T seconds_ = 0;
};

TEST_F(TaggedTimes, TheTagCodeSelectsTheForm)
{
    EXPECT_EQ(Convert({CBT_UTCTIME, "490101000000Z"}), 0u);
    EXPECT_EQ(Fields(date_), Date(2049, 1, 1));
    EXPECT_EQ(Convert({CBT_GENERALIZEDTIME, "19490101000000Z"}), 0u);
    EXPECT_EQ(Fields(date_), Date(1949, 1, 1));
    EXPECT_EQ(Convert({CBT_UTCTIME, "19490101000000Z"}), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Convert({CBT_GENERALIZEDTIME, "490101000000Z"}), PELNIC_ERR_NULL_POINTER);
}

TEST_F(TaggedTimes, ClassAndFormAreNotLookedAt)
{
    EXPECT_EQ(Convert({CBT_UTCTIME, "490101000000Z", CBC_CNTX, CBF_CONS}), 0u);
    EXPECT_EQ(Convert({CBT_GENERALIZEDTIME, "20490101000000Z", CBC_PRIV, CBF_CONS}), 0u);
}

TEST_F(TaggedTimes, OtherTagsAreRefused)
{
    for (PELNIC_BER_TAG_CODE code : {CBT_EOC, CBT_OCTETSTRING, CBT_IA5STRING, CBT_GRAPHICSTRING, CBT_ANY_CODE}) {
        EXPECT_EQ(Convert({code, "490101000000Z"}), PELNIC_ERR_SYS_TIME_FORMAT) << code;
    }
}

TEST_F(TaggedTimes, BecomeSecondsSince1970)
{
    EXPECT_EQ(Seconds({CBT_UTCTIME, "700101000000Z"}), 0);
    EXPECT_EQ(Seconds({CBT_UTCTIME, "691231235959Z"}), -1);
    EXPECT_EQ(Seconds({CBT_UTCTIME, "500101000000Z"}), -631152000);
    EXPECT_EQ(Seconds({CBT_UTCTIME, "240229120000Z"}), 1709208000);
    EXPECT_EQ(Seconds({CBT_UTCTIME, "491231235959Z"}), 2524607999);
    EXPECT_EQ(Seconds({CBT_GENERALIZEDTIME, "20500101000000Z"}), 2524608000);
}

TEST_F(TaggedTimes, SecondsGoBeyond2038)
{
    EXPECT_EQ(Seconds({CBT_GENERALIZEDTIME, "20380119031408Z"}), PNV_TIME_T{1} << 31);
    EXPECT_EQ(Seconds({CBT_GENERALIZEDTIME, "99991231235959Z"}), 253402300799);
}

TEST_F(TaggedTimes, SecondsNeedNoCallbackForTheCalendar)
{
    vrf_->callback_funcs.plt_funcs.sys_funcs.plt_funcs.mktime = nullptr;
    EXPECT_EQ(Seconds({CBT_UTCTIME, "260101000000Z"}), 1767225600);
}

TEST_F(TaggedTimes, AFailedConversionStoresNoSeconds)
{
    EXPECT_EQ(ToSeconds({CBT_UTCTIME, "2301010000000"}), PELNIC_ERR_SYS_TIME_FORMAT);
    EXPECT_EQ(seconds_, kUntouched);
    EXPECT_EQ(ToSeconds({CBT_OCTETSTRING, "230101000000Z"}), PELNIC_ERR_SYS_TIME_FORMAT);
    EXPECT_EQ(seconds_, kUntouched);
    EXPECT_EQ(ToSeconds({CBT_UTCTIME, "230101000000+0100"}), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(seconds_, kUntouched);
}

TEST_F(TaggedTimes, SecondsOfNothingAreRefused)
{
    const DecodedTime time(CBT_UTCTIME, "230101000000Z");
    EXPECT_EQ(pelnic_convert_datetime_to_time(nullptr, &time.value, &seconds_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_convert_datetime_to_time(vrf_, nullptr, &seconds_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_convert_datetime_to_time(vrf_, &time.value, nullptr), PELNIC_ERR_NULL_POINTER);
}

} // namespace
} // namespace pnvtest
