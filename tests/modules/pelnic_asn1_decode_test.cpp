// Tags, lengths, headers and the primitive kinds. The constructed kinds and the two entry points have
// pelnic_asn1_constructed_test.cpp.
#include "cmsverify/pelnic_asn1_decode.h"

#include "support/asn1.h"

#include <limits>

namespace pnvtest {
namespace {

constexpr PNV_UINT32 kMark = 0xA5A5A5A5;

bool operator==(const PELNIC_BER_TAG& a, const PELNIC_BER_TAG& b)
{
    return a.cls == b.cls && a.form == b.form && a.code == b.code;
}

constexpr PELNIC_BER_TAG Tag(PELNIC_BER_CLASS cls, PELNIC_BER_FORM form, int number)
{
    return {cls, form, static_cast<PELNIC_BER_TAG_CODE>(number)};
}

// What an identifier octet says (X.690, 8.1.2.2 to 8.1.2.4).
constexpr PELNIC_BER_TAG TagOf(unsigned identifier)
{
    return {static_cast<PELNIC_BER_CLASS>(identifier >> 6), static_cast<PELNIC_BER_FORM>(identifier >> 5 & 1),
            static_cast<PELNIC_BER_TAG_CODE>(identifier & 0x1F)};
}

// All that can begin an element: tag numbers from 31 on need further octets.
std::vector<std::uint8_t> Identifiers()
{
    std::vector<std::uint8_t> all;
    for (unsigned octet = 0; octet < 256; ++octet) {
        if ((octet & 0x1F) != 0x1F) all.push_back(static_cast<std::uint8_t>(octet));
    }
    return all;
}

const std::uint8_t kHighTagNumbers[] = {0x1F, 0x3F, 0x5F, 0x7F, 0x9F, 0xBF, 0xDF, 0xFF};

// ---- Reading a tag ----

class DecTag : public Asn1Test {
protected:
    PELNIC_ERROR_CODE Read(Cursor& input) { return pelnic_dec_tag(vrf_, input, &tag_, &octets_); }

    PELNIC_BER_TAG tag_ = Tag(CBC_UNDEFINED, CBF_UNDEFINED, -1);
    PNV_UINT32 octets_ = kMark;
};

TEST_F(DecTag, SplitsTheIdentifierOctet)
{
    Cursor sequence({0x30});
    ASSERT_EQ(Read(sequence), 0u);
    EXPECT_TRUE(tag_ == Tag(CBC_UNIV, CBF_CONS, CBT_SEQUENCES));
    Cursor context({0xA0});
    ASSERT_EQ(Read(context), 0u);
    EXPECT_TRUE(tag_ == Tag(CBC_CNTX, CBF_CONS, 0));
    Cursor application({0x5E});
    ASSERT_EQ(Read(application), 0u);
    EXPECT_TRUE(tag_ == Tag(CBC_APPL, CBF_PRIM, 30));
}

TEST_F(DecTag, ReadsEveryOneOctetTag)
{
    for (std::uint8_t identifier : Identifiers()) {
        Cursor input({identifier, 0x00});
        EXPECT_EQ(Read(input), 0u);
        EXPECT_TRUE(tag_ == TagOf(identifier)) << int{identifier};
        EXPECT_EQ(octets_, 1u);
        EXPECT_EQ(input.Moved(), 1u);
    }
}

TEST_F(DecTag, RefusesTheHighTagNumberForm)
{
    for (std::uint8_t identifier : kHighTagNumbers) {
        Cursor input({identifier, 0x1F, 0x00});
        EXPECT_EQ(Read(input), PELNIC_ERR_ASN_TAG);
        EXPECT_EQ(input.Moved(), 0u);
        ExpectLogged(PELNIC_ERR_FAILED, "");
    }
}

TEST_F(DecTag, RefusesTheEnd)
{
    Cursor input({});
    EXPECT_EQ(Read(input), PELNIC_ERR_ASN_TAG);
    EXPECT_EQ(input.Moved(), 0u);
}

TEST_F(DecTag, RefusesNull)
{
    Cursor input({0x30});
    EXPECT_EQ(pelnic_dec_tag(nullptr, input, &tag_, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_dec_tag(vrf_, nullptr, &tag_, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_dec_tag(vrf_, input, nullptr, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_dec_tag(vrf_, input, &tag_, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(input.Moved(), 0u);
}

class PeekTag : public Asn1Test {
protected:
    PELNIC_ERROR_CODE Peek(Cursor& input) { return pelnic_peek_tag(vrf_, input, &tag_); }

    PELNIC_BER_TAG tag_ = Tag(CBC_UNDEFINED, CBF_UNDEFINED, -1);
};

TEST_F(PeekTag, ConsumesNothing)
{
    // In front of others and as the last octet, behind which the cursor is at the end.
    for (const Bytes& octets : {Bytes{0xA3, 0x00}, Bytes{0xA3}}) {
        Cursor input(octets);
        EXPECT_EQ(Peek(input), 0u);
        EXPECT_TRUE(tag_ == Tag(CBC_CNTX, CBF_CONS, 3));
        EXPECT_EQ(input.Moved(), 0u);
    }
}

TEST_F(PeekTag, RefusesTheEnd)
{
    Cursor input({});
    EXPECT_EQ(Peek(input), PELNIC_ERR_ASN_PEEK_TAG);
    EXPECT_EQ(input.Moved(), 0u);
}

TEST_F(PeekTag, RefusesWhatCannotBeRead)
{
    Cursor input({0x9F, 0x20});
    EXPECT_EQ(Peek(input), PELNIC_ERR_ASN_TAG);
    EXPECT_EQ(input.Moved(), 0u);
    ExpectLogged(PELNIC_ERR_FAILED, "");
}

TEST_F(PeekTag, RefusesNull)
{
    Cursor input({0x30});
    EXPECT_EQ(pelnic_peek_tag(nullptr, input, &tag_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_peek_tag(vrf_, nullptr, &tag_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_peek_tag(vrf_, input, nullptr), PELNIC_ERR_NULL_POINTER);
}

// ---- Reading a length ----

class DecLen : public Asn1Test {
protected:
    PELNIC_ERROR_CODE Read(Cursor& input) { return pelnic_dec_len(vrf_, input, &length_, &octets_); }
    // The length octets, with as much content behind them as they say.
    void ExpectLength(const Bytes& lengthOctets, PNV_UINT32 length)
    {
        Cursor input(Cat(lengthOctets, Bytes(length, 0x00)));
        EXPECT_EQ(Read(input), 0u);
        EXPECT_EQ(length_, length);
        EXPECT_EQ(octets_, lengthOctets.size());
        EXPECT_EQ(input.Moved(), lengthOctets.size());
    }
    void ExpectRefused(const Bytes& octets, PELNIC_ERROR_CODE code)
    {
        Cursor input(octets);
        EXPECT_EQ(Read(input), code);
        EXPECT_EQ(input.Moved(), 0u);
    }

    PNV_UINT32 length_ = kMark;
    PNV_UINT32 octets_ = kMark;
};

TEST_F(DecLen, ReadsTheShortForm)
{
    ExpectLength({0x00}, 0);
    ExpectLength({0x01}, 1);
    ExpectLength({0x7F}, 127);
}

TEST_F(DecLen, ReadsTheLongForm)
{
    ExpectLength({0x81, 0x80}, 128);
    ExpectLength({0x82, 0x01, 0x02}, 0x102);
    ExpectLength({0x83, 0x01, 0x02, 0x03}, 0x10203);
    ExpectLength({0x84, 0x00, 0x01, 0x02, 0x03}, 0x10203);
}

TEST_F(DecLen, AcceptsFormsThatAreNotMinimal)
{
    ExpectLength({0x81, 0x05}, 5);
    ExpectLength({0x81, 0x00}, 0);
    ExpectLength({0x82, 0x00, 0x05}, 5);
    ExpectLength({0x84, 0x00, 0x00, 0x00, 0x05}, 5);
}

TEST_F(DecLen, RefusesTheIndefiniteForm)
{
    ExpectRefused({0x80, 0x00, 0x00}, PELNIC_ERR_ASN_LENGTH);
}

TEST_F(DecLen, RefusesMoreThanFourOctets)
{
    ExpectRefused({0x85, 0x00, 0x00, 0x00, 0x00, 0x01, 0xAA}, PELNIC_ERR_ASN_LENGTH);
    for (unsigned first = 0x85; first <= 0xFF; ++first) {
        ExpectRefused(Cat(Bytes{static_cast<std::uint8_t>(first)}, Bytes(127, 0x00)), PELNIC_ERR_ASN_LENGTH);
    }
}

TEST_F(DecLen, RefusesOneMoreThanIsLeft)
{
    ExpectRefused({0x03, 0xAA, 0xAA}, PELNIC_ERR_ASN_LENGTH);
    ExpectRefused({0x01}, PELNIC_ERR_ASN_LENGTH);
    ExpectRefused({0x82, 0x00, 0x03, 0xAA, 0xAA}, PELNIC_ERR_ASN_LENGTH);
}

TEST_F(DecLen, RefusesHugeLengths)
{
    ExpectRefused({0x84, 0x7F, 0xFF, 0xFF, 0xFF, 0xAA}, PELNIC_ERR_ASN_LENGTH);
    ExpectRefused({0x84, 0x80, 0x00, 0x00, 0x00, 0xAA}, PELNIC_ERR_ASN_LENGTH);
    ExpectRefused({0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0xAA}, PELNIC_ERR_ASN_LENGTH);
}

// No such input is read here, only its length octets.
TEST_F(DecLen, ComparesHugeLengthsWithoutSign)
{
    const ExactHeap rest({0x84, 0xFF, 0xFF, 0xFF, 0xFA}); // 0xFFFFFFFF less the five octets
    PELNIC_BUF buf{rest.data(), 0xFFFFFFFF, 0};
    EXPECT_EQ(pelnic_dec_len(vrf_, &buf, &length_, &octets_), 0u);
    EXPECT_EQ(length_, 0xFFFFFFFA);
    EXPECT_EQ(buf.iCursor, 5u);

    const ExactHeap oneMore({0x84, 0xFF, 0xFF, 0xFF, 0xFB});
    buf = {oneMore.data(), 0xFFFFFFFF, 0};
    EXPECT_EQ(pelnic_dec_len(vrf_, &buf, &length_, &octets_), PELNIC_ERR_ASN_LENGTH);
    EXPECT_EQ(buf.iCursor, 0u);
}

// An enclosing element may end before: that is for whoever decodes it.
TEST_F(DecLen, IsBoundedByTheBufferAlone)
{
    Cursor input({0x30, 0x02, 0x04, 0x02, 0xAA, 0xAA});
    ASSERT_EQ(pelnic_buf_seek(input, 3, CBSW_CURRENT), 0u);
    ASSERT_EQ(Read(input), 0u);
    EXPECT_EQ(length_, 2u);
}

TEST_F(DecLen, RefusesTheEnd)
{
    ExpectRefused({}, PELNIC_ERR_ASN_LENGTH);
}

TEST_F(DecLen, RefusesMissingLengthOctets)
{
    ForEveryPrefix({0x84, 0x00, 0x00, 0x00, 0x05}, [&](const ExactHeap& prefix) {
        if (prefix.size() == 0) return;
        ExpectRefused(Bytes(prefix.data(), prefix.data() + prefix.size()), PELNIC_ERR_SYS_BUF_END);
    });
}

TEST_F(DecLen, RefusesNull)
{
    Cursor input({0x00});
    EXPECT_EQ(pelnic_dec_len(nullptr, input, &length_, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_dec_len(vrf_, nullptr, &length_, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_dec_len(vrf_, input, nullptr, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_dec_len(vrf_, input, &length_, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(input.Moved(), 0u);
}

using GetAsnLongInt = DecLen;

TEST_F(GetAsnLongInt, IsBigEndian)
{
    Cursor input({0x80, 0x01, 0x02, 0xFF, 0xAA});
    ASSERT_EQ(_pnvGetAsnLongInt(vrf_, input, 4, &length_), 0u);
    EXPECT_EQ(length_, 0x800102FF);
    EXPECT_EQ(input.Moved(), 4u);
}

TEST_F(GetAsnLongInt, PassesOnAFailedRead)
{
    Cursor input({0x01, 0x02});
    EXPECT_EQ(_pnvGetAsnLongInt(vrf_, input, 3, &length_), PELNIC_ERR_SYS_BUF_END);
}

// ---- Comparing a tag with the one expected ----

using Tags = std::vector<int>; // as identifier octets

class ExpectedTag : public Asn1Test {
protected:
    // Those that the field accepts.
    Tags Accepted(const PELNIC_ASN1_TEMPLATE& field)
    {
        Tags accepted;
        for (std::uint8_t identifier : Identifiers()) {
            const PELNIC_BER_TAG tag = TagOf(identifier);
            const PELNIC_ERROR_CODE rc = _pnvCheckTag(vrf_, &field, &tag);
            if (rc == 0) accepted.push_back(identifier);
            EXPECT_TRUE(rc == 0 || rc == PELNIC_ERR_ASN_TAG_MISMATCH);
        }
        return accepted;
    }
    PELNIC_ERROR_CODE Compare(const PELNIC_BER_TAG& expected, const PELNIC_BER_TAG& read)
    {
        return _pnvCompareBerTag(vrf_, &expected, &read);
    }
};

TEST_F(ExpectedTag, EveryPartMustBeEqual)
{
    const PELNIC_BER_TAG expected = Tag(CBC_CNTX, CBF_CONS, 3);
    EXPECT_EQ(Compare(expected, Tag(CBC_CNTX, CBF_CONS, 3)), 0u);
    EXPECT_EQ(Compare(expected, Tag(CBC_UNIV, CBF_CONS, 3)), PELNIC_ERR_ASN_TAG_MISMATCH);
    EXPECT_EQ(Compare(expected, Tag(CBC_CNTX, CBF_PRIM, 3)), PELNIC_ERR_ASN_TAG_MISMATCH);
    EXPECT_EQ(Compare(expected, Tag(CBC_CNTX, CBF_CONS, 4)), PELNIC_ERR_ASN_TAG_MISMATCH);
}

TEST_F(ExpectedTag, AnAnyPartMatchesAll)
{
    const PELNIC_BER_TAG read = Tag(CBC_PRIV, CBF_CONS, 29);
    EXPECT_EQ(Compare(Tag(CBC_ANY_CLASS, CBF_CONS, 29), read), 0u);
    EXPECT_EQ(Compare(Tag(CBC_PRIV, CBF_ANY_FORM, 29), read), 0u);
    EXPECT_EQ(Compare(Tag(CBC_PRIV, CBF_CONS, CBT_ANY_CODE), read), 0u);
    EXPECT_EQ(Compare(Tag(CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE), read), 0u);
}

TEST_F(ExpectedTag, AnAnyPartFreesNoOther)
{
    const PELNIC_BER_TAG read = Tag(CBC_PRIV, CBF_CONS, 29);
    EXPECT_EQ(Compare(Tag(CBC_ANY_CLASS, CBF_PRIM, CBT_ANY_CODE), read), PELNIC_ERR_ASN_TAG_MISMATCH);
    EXPECT_EQ(Compare(Tag(CBC_APPL, CBF_ANY_FORM, CBT_ANY_CODE), read), PELNIC_ERR_ASN_TAG_MISMATCH);
    EXPECT_EQ(Compare(Tag(CBC_ANY_CLASS, CBF_ANY_FORM, 28), read), PELNIC_ERR_ASN_TAG_MISMATCH);
}

TEST_F(ExpectedTag, AnAnyPartThatWasReadMatchesOnlyItself)
{
    EXPECT_EQ(Compare(Tag(CBC_UNIV, CBF_PRIM, 2), Tag(CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE)),
              PELNIC_ERR_ASN_TAG_MISMATCH);
}

TEST_F(ExpectedTag, AllSixtyFourBitsCount)
{
    PELNIC_BER_TAG read = Tag(CBC_UNIV, CBF_PRIM, 2);
    read.code = static_cast<PELNIC_BER_TAG_CODE>(PNV_INT64{2} + (PNV_INT64{1} << 32));
    EXPECT_EQ(Compare(Tag(CBC_UNIV, CBF_PRIM, 2), read), PELNIC_ERR_ASN_TAG_MISMATCH);
}

// Only their tags matter here.
constexpr PELNIC_ASN1_ITEM kSet{nullptr, &g_pnvAsnFuncSetOf, CBC_UNIV, CBF_CONS, CBT_SETS, 0, 1};
constexpr PELNIC_ASN1_ITEM kOctetString{nullptr, &g_pnvAsnFuncOct,       CBC_UNIV, CBF_PRIM, CBT_OCTETSTRING,
                                        0,       sizeof(PELNIC_ASN_OCTS)};

TEST_F(ExpectedTag, UntaggedIsTheItemsOwn)
{
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_INT_item)), Tags{0x02});
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_BITS_item)), Tags{0x03});
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_BOOL_item)), Tags{0x01});
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_BIGINT_item)), Tags{0x02});
    EXPECT_EQ(Accepted(FieldOf(kSet)), Tags{0x31});
    EXPECT_EQ(Accepted(FieldOf(kOctetString)), Tags{0x04});
}

TEST_F(ExpectedTag, OfAnUntaggedEnumeratedIsThatOfAnInteger)
{
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_ENUM_item)), Tags{0x02});
}

TEST_F(ExpectedTag, OfUntaggedOctetsIsAnyAtAll)
{
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_OCTS_item)).size(), Identifiers().size());
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_PEEK_OCTS_item)).size(), Identifiers().size());
}

TEST_F(ExpectedTag, ExplicitIsAConstructedContextTag)
{
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_INT_item, PNV_EXPLICIT(0))), Tags{0xA0});
    EXPECT_EQ(Accepted(FieldOf(kSet, PNV_EXPLICIT(3))), Tags{0xA3});
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_BIGINT_item, PNV_EXPLICIT(30))), Tags{0xBE});
}

TEST_F(ExpectedTag, OfExplicitOctetsIsUniversal)
{
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_OCTS_item, PNV_EXPLICIT(3))), Tags{0x23});
    EXPECT_EQ(Accepted(FieldOf(kOctetString, PNV_EXPLICIT(0))), Tags{0x20});
}

TEST_F(ExpectedTag, ImplicitIsAContextTagInTheItemsForm)
{
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_INT_item, PNV_IMPLICIT(0))), Tags{0x80});
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_BIGINT_item, PNV_IMPLICIT(5))), Tags{0x85});
    EXPECT_EQ(Accepted(FieldOf(kSet, PNV_IMPLICIT(1))), Tags{0xA1});
}

TEST_F(ExpectedTag, OfImplicitOctetsHasEitherForm)
{
    EXPECT_EQ(Accepted(FieldOf(PELNIC_ASN_OCTS_item, PNV_IMPLICIT(0))), (Tags{0x80, 0xA0}));
    EXPECT_EQ(Accepted(FieldOf(kOctetString, PNV_IMPLICIT(0))), (Tags{0x80, 0xA0}));
}

TEST_F(ExpectedTag, OfConsumedTagsIsTheItemsOwn)
{
    EXPECT_EQ(Accepted(FieldOf(kSet, {PNV_TAG_CONTENT_ONLY, 1})), Tags{0x31});
}

constexpr PELNIC_ASN1_TEMPLATE kInnerAlternatives[] = {FieldOf(PELNIC_ASN_BOOL_item),
                                                       FieldOf(PELNIC_ASN_INT_item, PNV_IMPLICIT(7))};
constexpr PELNIC_ASN1_ITEM kInnerChoice = ChoiceItem<PELNIC_ASN_CHOICE>(kInnerAlternatives);
constexpr PELNIC_ASN1_TEMPLATE kAlternatives[] = {FieldOf(PELNIC_ASN_OCTS_item, PNV_IMPLICIT(1)),
                                                  FieldOf(kSet, PNV_EXPLICIT(0)), FieldOf(kInnerChoice)};
constexpr PELNIC_ASN1_ITEM kChoice = ChoiceItem<PELNIC_ASN_CHOICE>(kAlternatives);

TEST_F(ExpectedTag, OfAnUntaggedChoiceIsThatOfAnyAlternative)
{
    const Tags expected{0x01, 0x81, 0x87, 0xA0, 0xA1};
    EXPECT_EQ(Accepted(FieldOf(kChoice)), expected);
    for (std::uint8_t identifier : Identifiers()) {
        const PELNIC_BER_TAG tag = TagOf(identifier);
        const bool accepted = std::find(expected.begin(), expected.end(), identifier) != expected.end();
        EXPECT_EQ(_pnvCheckChoiceTag(vrf_, &kChoice, &tag), accepted ? 0 : PELNIC_ERR_ASN_TAG_MISMATCH);
    }
}

TEST_F(ExpectedTag, OfAnExplicitChoiceIsTheContextTag)
{
    EXPECT_EQ(Accepted(FieldOf(kChoice, PNV_EXPLICIT(4))), Tags{0xA4});
}

TEST_F(ExpectedTag, OfNothingIsRefused)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(PELNIC_ASN_INT_item);
    const PELNIC_BER_TAG tag = TagOf(0x02);
    EXPECT_EQ(_pnvCheckTag(vrf_, nullptr, &tag), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(_pnvCheckTag(vrf_, &field, nullptr), PELNIC_ERR_NULL_POINTER);
}

// ---- Reading a header ----

class ParseContent : public Asn1Test {
protected:
    PELNIC_ERROR_CODE Parse(Cursor& input, const PELNIC_ASN1_TEMPLATE& field, PELNIC_BER_FORM form,
                            PELNIC_BER_TAG_CODE code)
    {
        return _pnvAsn1ParseContent(vrf_, input, &field, form, code, &tag_, &length_);
    }
    void ExpectRefused(const Bytes& octets, PELNIC_ERROR_CODE code)
    {
        Cursor input(octets);
        EXPECT_EQ(Parse(input, FieldOf(PELNIC_ASN_BITS_item), CBF_PRIM, CBT_BITSTRING), code);
    }

    PELNIC_BER_TAG tag_ = Tag(CBC_UNDEFINED, CBF_UNDEFINED, -1);
    PNV_UINT32 length_ = kMark;
};

TEST_F(ParseContent, StopsAtTheContent)
{
    Cursor input(TlvLong(0x03, 2, {0x00, 0xAA}));
    ASSERT_EQ(Parse(input, FieldOf(PELNIC_ASN_BITS_item), CBF_PRIM, CBT_BITSTRING), 0u);
    EXPECT_EQ(length_, 2u);
    EXPECT_EQ(input.Moved(), 4u);
    EXPECT_TRUE(tag_ == TagOf(0x03));
}

TEST_F(ParseContent, ReadsAnEmptyElementAtTheEnd)
{
    Cursor input(Seq());
    ASSERT_EQ(Parse(input, FieldOf(PELNIC_ASN_BITS_item), CBF_CONS, CBT_SEQUENCES), 0u);
    EXPECT_EQ(length_, 0u);
    EXPECT_EQ(input.Moved(), 2u);
}

TEST_F(ParseContent, ExpectsTheTagOfAnImplicitField)
{
    Cursor input(CtxPrim(6, {0xAA}));
    ASSERT_EQ(Parse(input, FieldOf(PELNIC_ASN_BITS_item, PNV_IMPLICIT(6)), CBF_PRIM, CBT_BITSTRING), 0u);
    EXPECT_TRUE(tag_ == TagOf(0x86));
}

// The outer tag of an explicit field was read before.
TEST_F(ParseContent, ExpectsTheUniversalTagInAnExplicitField)
{
    Cursor input(Bits(0, {0xAA}));
    EXPECT_EQ(Parse(input, FieldOf(PELNIC_ASN_BITS_item, PNV_EXPLICIT(6)), CBF_PRIM, CBT_BITSTRING), 0u);
}

TEST_F(ParseContent, ReadsNothingWhenTheHeaderWasConsumed)
{
    Cursor input({0xAA, 0xBB});
    length_ = 2;
    ASSERT_EQ(Parse(input, FieldOf(PELNIC_ASN_BITS_item, {PNV_TAG_CONTENT_ONLY, 0}), CBF_PRIM, CBT_BITSTRING), 0u);
    EXPECT_EQ(length_, 2u);
    EXPECT_EQ(input.Moved(), 0u);
}

TEST_F(ParseContent, RefusesAnotherTag)
{
    ExpectRefused(Octets({0xAA}), PELNIC_ERR_ASN_TAG);
    ExpectRefused(Tlv(0x23, {0xAA}), PELNIC_ERR_ASN_TAG);
    ExpectRefused(CtxPrim(3, {0xAA}), PELNIC_ERR_ASN_TAG);
}

TEST_F(ParseContent, PassesOnTheCodesOfTagAndLength)
{
    ExpectRefused({}, PELNIC_ERR_ASN_TAG);
    ExpectRefused({0x03}, PELNIC_ERR_ASN_LENGTH);
    ExpectRefused({0x03, 0x80, 0x00, 0x00}, PELNIC_ERR_ASN_LENGTH);
    ExpectRefused({0x03, 0x82, 0x01}, PELNIC_ERR_SYS_BUF_END);
    ExpectRefused({0x03, 0x02, 0x01}, PELNIC_ERR_ASN_LENGTH);
}

// ---- What all primitive kinds have in common ----

enum class Consumes { Element, Header, Nothing };

struct Kind {
    const char* name;
    const PELNIC_ASN1_ITEM* item;
    std::uint8_t identifier;
    Bytes content; // of a valid element
    PELNIC_ERROR_CODE ownCode;
    Consumes consumes;
    bool movesCursor;

    PELNIC_ASN1_TEMPLATE Field() const { return FieldOf(*item); }
    Bytes Element() const { return Tlv(identifier, content); }
};
const Kind kKinds[] = {
    {"Octets", &PELNIC_ASN_OCTS_item, 0x04, {'a', 'b', 'c'}, PELNIC_ERR_ASN_OCTS, Consumes::Element, true},
    {"BigInt", &PELNIC_ASN_BIGINT_item, 0x02, {0x00, 0xF2, 0x01}, PELNIC_ERR_ASN_OCTS, Consumes::Element, true},
    {"Peek", &PELNIC_ASN_PEEK_OCTS_item, 0x31, {0x05, 0x00}, PELNIC_ERR_ASN_PEEK_OCTS, Consumes::Nothing, false},
    {"Link", &PELNIC_ASN_LINK_OCTS_item, 0x0C, {'a', 'b'}, PELNIC_ERR_ASN_PEEK_OCTS, Consumes::Header, false},
    {"Bits", &PELNIC_ASN_BITS_item, 0x03, {0x03, 0xAB, 0xC8}, PELNIC_ERR_ASN_BITS, Consumes::Element, true},
    {"Int", &PELNIC_ASN_INT_item, 0x02, {0x12, 0x34}, PELNIC_ERR_ASN_INT, Consumes::Element, true},
    {"Enum", &PELNIC_ASN_ENUM_item, 0x0A, {0x12, 0x34}, PELNIC_ERR_ASN_INT, Consumes::Element, true},
    {"Bool", &PELNIC_ASN_BOOL_item, 0x01, {0xFF}, PELNIC_ERR_ASN_BOOL, Consumes::Element, true},
};
void PrintTo(const Kind& kind, std::ostream* out)
{
    *out << kind.name;
}
std::string NameOfKind(const ::testing::TestParamInfo<Kind>& test)
{
    return test.param.name;
}

class PrimitiveKind : public Asn1Test, public ::testing::WithParamInterface<Kind> {
protected:
    static PNV_UINT32 Consumed(std::size_t header, std::size_t content)
    {
        switch (GetParam().consumes) {
        case Consumes::Element: return static_cast<PNV_UINT32>(header + content);
        case Consumes::Header: return static_cast<PNV_UINT32>(header);
        case Consumes::Nothing: break;
        }
        return 0;
    }

    const Kind& kind_ = GetParam();
    const PELNIC_ASN1_TEMPLATE field_ = kind_.Field();
    const Bytes element_ = kind_.Element();
};
INSTANTIATE_TEST_SUITE_P(Kinds, PrimitiveKind, ::testing::ValuesIn(kKinds), NameOfKind);

TEST_P(PrimitiveKind, TakesItsElementAndNotWhatFollows)
{
    const Decoding decoding(vrf_, field_, Cat(element_, Null()));
    EXPECT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(decoding.Consumed(), Consumed(2, kind_.content.size()));
    EXPECT_EQ(decoding.Input().Moved(), kind_.movesCursor ? element_.size() : 0);
}

TEST_P(PrimitiveKind, TakesLengthsThatAreNotMinimal)
{
    for (std::size_t lengthOctets = 1; lengthOctets <= 4; ++lengthOctets) {
        const Decoding decoding(vrf_, field_, TlvLong(kind_.identifier, lengthOctets, kind_.content));
        EXPECT_EQ(decoding.Code(), 0u);
        EXPECT_EQ(decoding.Consumed(), Consumed(2 + lengthOctets, kind_.content.size()));
    }
}

TEST_P(PrimitiveKind, IsRefusedCutAtEveryLength)
{
    ExpectRefusedWhenCut(field_, element_);
    ExpectRefusedWhenCut(field_, TlvLong(kind_.identifier, 4, kind_.content));
}

TEST_P(PrimitiveKind, RefusesTheEndWithItsOwnCode)
{
    ExpectRefused(field_, {}, kind_.ownCode);
}

TEST_P(PrimitiveKind, RefusesTheIndefiniteFormAndAFifthLengthOctet)
{
    ExpectRefused(field_, Cat(Bytes{kind_.identifier, 0x80}, kind_.content, Bytes{0x00, 0x00}));
    // Not the length 128 either, where so many octets follow.
    ExpectRefused(field_, Cat(Bytes{kind_.identifier, 0x80, 0x00}, Bytes(127, 0x01)));
    ExpectRefused(field_, TlvLong(kind_.identifier, 5, kind_.content));
}

TEST_P(PrimitiveKind, RefusesHugeLengthsWithoutAskingForMemory)
{
    for (std::size_t length : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        ExpectRefused(field_, Tlv(kind_.identifier, length, kind_.content));
    }
    EXPECT_EQ(vrf_.Plan().LargestRequest(), 0u);
}

TEST_P(PrimitiveKind, RefusesTheHighTagNumberForm)
{
    for (std::size_t behind : {1u, 40u}) { // it is not the length 31 either
        ExpectRefused(field_, Cat(Bytes{0x1F, kind_.identifier, 0x01}, Bytes(behind, 0x00)));
        ExpectLogged(PELNIC_ERR_FAILED, "");
    }
}

TEST_P(PrimitiveKind, AsksForNoMoreMemoryThanItsElementHas)
{
    const Decoding decoding(vrf_, field_, element_);
    EXPECT_LE(vrf_.Plan().PeakBytes(), element_.size());
}

TEST_P(PrimitiveKind, CanBeFreedTwice)
{
    Decoding decoding(vrf_, field_, element_);
    decoding.Free();
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

TEST_P(PrimitiveKind, RefusesNullAndFreesNothing)
{
    Cursor input(element_);
    PELNIC_ASN_BITS record{};
    PNV_UINT32 octets = 0;
    const PELNIC_ASN1_FUNCTIONS& functions = *kind_.item->asn_func;
    EXPECT_EQ(functions.pDecode(vrf_, input, nullptr, &octets, &field_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(functions.pDecode(vrf_, input, &record, nullptr, &field_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(functions.pDecode(vrf_, input, &record, &octets, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(input.Moved(), 0u);
    functions.pFree(vrf_, nullptr, &field_);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

class PrimitiveKindFaults : public ::testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(Kinds, PrimitiveKindFaults, ::testing::ValuesIn(kKinds), NameOfKind);

TEST_P(PrimitiveKindFaults, AreRefusedWithoutATrace)
{
    ExpectFaultsRefused(GetParam().Field(), GetParam().Element());
}

// ---- The kinds that expect one universal tag ----

const Kind kHeaderKinds[] = {kKinds[4], kKinds[5], kKinds[6], kKinds[7]};

using HeaderKind = PrimitiveKind;
INSTANTIATE_TEST_SUITE_P(Kinds, HeaderKind, ::testing::ValuesIn(kHeaderKinds), NameOfKind);

TEST_P(HeaderKind, RefusesEveryOtherTag)
{
    for (std::uint8_t identifier : Identifiers()) {
        if (identifier != kind_.identifier) ExpectRefused(field_, Tlv(identifier, kind_.content), PELNIC_ERR_ASN_TAG);
    }
}

TEST_P(HeaderKind, AnImplicitTagReplacesItsOwn)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(*kind_.item, PNV_IMPLICIT(9));
    ExpectTaken(field, CtxPrim(9, kind_.content));
    ExpectRefused(field, Ctx(9, kind_.content), PELNIC_ERR_ASN_TAG);
    ExpectRefused(field, CtxPrim(8, kind_.content), PELNIC_ERR_ASN_TAG);
    ExpectRefused(field, element_, PELNIC_ERR_ASN_TAG);
}

TEST_P(HeaderKind, TakesContentWhoseHeaderWasConsumed)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(*kind_.item, {PNV_TAG_CONTENT_ONLY, 0});
    const Decoding decoding(vrf_, field, kind_.content, Len(kind_.content));
    EXPECT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(decoding.Consumed(), kind_.content.size());
    EXPECT_EQ(decoding.Input().Moved(), kind_.content.size());
}

TEST_P(HeaderKind, RefusesContentThatIsNotThere)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(*kind_.item, {PNV_TAG_CONTENT_ONLY, 0});
    for (std::size_t size = 0; size < kind_.content.size(); ++size) {
        const Bytes cut(kind_.content.begin(), kind_.content.begin() + static_cast<std::ptrdiff_t>(size));
        const Decoding decoding(vrf_, field, cut, Len(kind_.content));
        EXPECT_EQ(decoding.Code(), kind_.ownCode);
        ExpectRefused(decoding);
    }
}

TEST_P(HeaderKind, PassesOnTheCodeOfTheHeader)
{
    ExpectRefused(field_, {kind_.identifier}, PELNIC_ERR_ASN_LENGTH);
    ExpectRefused(field_, {kind_.identifier, 0x84, 0x00}, PELNIC_ERR_SYS_BUF_END);
    ExpectRefused(field_, Tlv(kind_.identifier, kind_.content.size() + 1, kind_.content), PELNIC_ERR_ASN_LENGTH);
}

// ---- Octets and big integers ----

class OctetsKind : public Asn1Test {
protected:
    Decoding Decode(const Bytes& octets, Tagging tagging = PNV_UNTAGGED)
    {
        return Decoding(vrf_, FieldOf(PELNIC_ASN_OCTS_item, tagging), octets);
    }
    static void ExpectValue(Decoding&& decoding, std::uint8_t identifier, const Bytes& content)
    {
        ASSERT_EQ(decoding.Code(), 0u);
        const PELNIC_ASN_OCTS& value = decoding.As<PELNIC_ASN_OCTS>();
        EXPECT_EQ(Content(value), content);
        EXPECT_EQ(value.octs == nullptr, content.empty());
        EXPECT_TRUE(value.tag == TagOf(identifier));
    }
};

TEST_F(OctetsKind, KeepsAnyTag)
{
    for (std::uint8_t identifier : Identifiers()) ExpectValue(Decode(Tlv(identifier, {0x5A})), identifier, {0x5A});
}

TEST_F(OctetsKind, KeepsACopy)
{
    const Decoding decoding = Decode(Octets({'a', 'b'}));
    EXPECT_EQ(vrf_.Plan().LiveBytes(), 2u);
}

TEST_F(OctetsKind, OfNoLengthAreNull)
{
    for (std::uint8_t identifier : Identifiers()) ExpectValue(Decode(Tlv(identifier, {})), identifier, {});
    EXPECT_EQ(vrf_.Plan().LargestRequest(), 0u);
}

TEST_F(OctetsKind, LongerThanOneLengthOctetSays)
{
    const Bytes content(70000, 0xC3);
    ExpectValue(Decode(Octets(content)), 0x04, content);
}

TEST_F(OctetsKind, LoseLeadingZerosWhereverTheTagNumberIsTwo)
{
    for (std::uint8_t identifier : Identifiers()) {
        if (TagOf(identifier).code != CBT_INTEGER) continue;
        ExpectValue(Decode(Tlv(identifier, {0x00, 0x00, 0x80, 0x00})), identifier, {0x80, 0x00});
    }
    ExpectValue(Decode(CtxPrim(2, {0x00, 'a'}), PNV_IMPLICIT(2)), 0x82, {'a'});
}

TEST_F(OctetsKind, KeepLeadingZerosWithAnyOtherTagNumber)
{
    ExpectValue(Decode(Octets({0x00, 0x00})), 0x04, {0x00, 0x00});
    ExpectValue(Decode(CtxPrim(1, {0x00, 0x80})), 0x81, {0x00, 0x80});
}

TEST_F(OctetsKind, OfNothingButZerosAreNoInteger)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(PELNIC_ASN_OCTS_item);
    ExpectRefused(field, Int({0x00}), PELNIC_ERR_ASN_OCTS);
    ExpectRefused(field, CtxPrim(2, {0x00, 0x00, 0x00}), PELNIC_ERR_ASN_OCTS);
}

TEST_F(OctetsKind, WithAnImplicitTagHaveEitherForm)
{
    ExpectValue(Decode(CtxPrim(0, {'a'}), PNV_IMPLICIT(0)), 0x80, {'a'});
    ExpectValue(Decode(Ctx(0, Octets({'a'})), PNV_IMPLICIT(0)), 0xA0, Octets({'a'}));
}

TEST_F(OctetsKind, WithAnImplicitTagRefuseAnyOther)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(PELNIC_ASN_OCTS_item, PNV_IMPLICIT(0));
    ExpectRefused(field, CtxPrim(1, {'a'}));
    ExpectRefused(field, Octets({'a'}));
}

TEST_F(OctetsKind, WithoutAnItemHaveAnyTag)
{
    PELNIC_ASN1_TEMPLATE field = FieldOf(PELNIC_ASN_OCTS_item, PNV_IMPLICIT(0));
    field.asn1_item = nullptr;
    Cursor input(CtxPrim(5, {'a'}));
    PELNIC_ASN_OCTS value{};
    PNV_UINT32 octets = 0;
    ASSERT_EQ(pelnic_dec_oct(vrf_, input, &value, &octets, &field), 0u);
    EXPECT_EQ(Content(value), Bytes{'a'});
    pelnic_free_oct(vrf_, &value, &field);
    EXPECT_EQ(value.octs, nullptr);
}

TEST_F(OctetsKind, HaveTheirOwnCodeWithoutMemory)
{
    vrf_.Plan().Fail(Call::Malloc, 1);
    ExpectRefused(FieldOf(PELNIC_ASN_OCTS_item), Octets({'a'}), PELNIC_ERR_ASN_OCTS);
}

TEST_F(OctetsKind, AreRefusedWhenSuccessBringsNoMemory)
{
    vrf_->callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc = MallocNothing;
    ExpectRefused(FieldOf(PELNIC_ASN_OCTS_item), Octets({'a'}), PELNIC_ERR_ASN_OCTS);
}

TEST_F(OctetsKind, HaveTheirOwnCodeForAHeaderThatCannotBeRead)
{
    ExpectRefused(FieldOf(PELNIC_ASN_OCTS_item), {0x04}, PELNIC_ERR_ASN_OCTS);
    ExpectRefused(FieldOf(PELNIC_ASN_OCTS_item), {0x04, 0x80}, PELNIC_ERR_ASN_OCTS);
}

TEST_F(OctetsKind, PassOnTheCodeOfTheCopy)
{
    vrf_.Plan().Fail(Call::Memcpy, 1);
    ExpectRefused(FieldOf(PELNIC_ASN_OCTS_item), Octets({'a'}), injectedFault);
}

class BigIntKind : public OctetsKind {
protected:
    Decoding Decode(const Bytes& octets, Tagging tagging = PNV_UNTAGGED)
    {
        return Decoding(vrf_, FieldOf(PELNIC_ASN_BIGINT_item, tagging), octets);
    }
};

TEST_F(BigIntKind, IsAMagnitudeWithoutLeadingZeros)
{
    ExpectValue(Decode(Int({0x00, 0x80})), 0x02, {0x80});
    ExpectValue(Decode(Int({0x00, 0x00, 0x00, 0x01, 0x00})), 0x02, {0x01, 0x00});
    ExpectValue(Decode(Int({0x7F})), 0x02, {0x7F});
}

TEST_F(BigIntKind, KeepsTheOctetsOfANegativeNumber)
{
    ExpectValue(Decode(Int({0xFF, 0x00})), 0x02, {0xFF, 0x00});
}

TEST_F(BigIntKind, IsNeverZero)
{
    ExpectRefused(FieldOf(PELNIC_ASN_BIGINT_item), Int({0x00}), PELNIC_ERR_ASN_OCTS);
    ExpectRefused(FieldOf(PELNIC_ASN_BIGINT_item), Int({0x00, 0x00}), PELNIC_ERR_ASN_OCTS);
}

// X.690, 8.3.1, wants one octet at least.
TEST_F(BigIntKind, OfNoLengthIsTaken)
{
    ExpectValue(Decode(Int({})), 0x02, {});
}

TEST_F(BigIntKind, RefusesEveryOtherTag)
{
    for (std::uint8_t identifier : Identifiers()) {
        if (identifier != 0x02) ExpectRefused(FieldOf(PELNIC_ASN_BIGINT_item), Tlv(identifier, {0x01}));
    }
}

TEST_F(BigIntKind, WithAnImplicitTagIsPrimitive)
{
    ExpectValue(Decode(CtxPrim(0, {0x01}), PNV_IMPLICIT(0)), 0x80, {0x01});
    ExpectRefused(FieldOf(PELNIC_ASN_BIGINT_item, PNV_IMPLICIT(0)), Ctx(0, Bytes{0x01}));
    ExpectRefused(FieldOf(PELNIC_ASN_BIGINT_item, PNV_IMPLICIT(0)), Int({0x01}));
}

// The tag that was read decides, not the type.
TEST_F(BigIntKind, WithAnotherTagNumberKeepsLeadingZeros)
{
    ExpectValue(Decode(CtxPrim(1, {0x00, 0x80}), PNV_IMPLICIT(1)), 0x81, {0x00, 0x80});
    ExpectValue(Decode(CtxPrim(1, {0x00}), PNV_IMPLICIT(1)), 0x81, {0x00});
}

// ---- Whole encodings ----

class PeekKind : public Asn1Test {
protected:
    static PELNIC_ASN1_TEMPLATE Becoming(const PELNIC_ASN1_ITEM* item)
    {
        PELNIC_ASN1_TEMPLATE field = FieldOf(PELNIC_ASN_PEEK_OCTS_item, PNV_IMPLICIT(0));
        field.pDefaultVal = item;
        return field;
    }
    void ExpectKept(const PELNIC_ASN1_TEMPLATE& field, const Bytes& octets, const Bytes& kept)
    {
        Decoding decoding(vrf_, field, Cat(octets, Null()));
        ASSERT_EQ(decoding.Code(), 0u);
        const PELNIC_ASN_OCTS& value = decoding.As<PELNIC_ASN_OCTS>();
        EXPECT_EQ(Content(value), kept);
        EXPECT_TRUE(value.tag == TagOf(octets[0]));
        EXPECT_EQ(decoding.Consumed(), 0u);
        EXPECT_EQ(decoding.Input().Moved(), 0u);
    }
};

TEST_F(PeekKind, KeepsTheWholeEncodingWithAnyTag)
{
    for (std::uint8_t identifier : Identifiers()) {
        const Bytes element = Tlv(identifier, {0x00, 0x5A});
        ExpectKept(FieldOf(PELNIC_ASN_PEEK_OCTS_item), element, element);
    }
}

TEST_F(PeekKind, KeepsTheLengthOctetsAsTheyStand)
{
    const Bytes element = TlvLong(0x30, 3, Null());
    ExpectKept(FieldOf(PELNIC_ASN_PEEK_OCTS_item), element, element);
}

TEST_F(PeekKind, RefusesAnEmptyElement)
{
    ExpectRefused(FieldOf(PELNIC_ASN_PEEK_OCTS_item), Seq(), PELNIC_ERR_ASN_PEEK_OCTS);
    ExpectRefused(Becoming(&kSet), Ctx(0), PELNIC_ERR_ASN_PEEK_OCTS);
}

// As the signed attributes of RFC 5652, 5.4, which are digested as a SET OF.
TEST_F(PeekKind, AnImplicitTagBecomesThatOfTheItem)
{
    ExpectKept(Becoming(&kSet), Ctx(0, Null()), Set(Null()));
    ExpectKept(Becoming(&kOctetString), CtxPrim(0, {0x5A}), Octets({0x5A}));
    constexpr PELNIC_ASN1_ITEM application{nullptr, &g_pnvAsnFuncSeq, CBC_APPL, CBF_CONS, CBT_BMPSTRING_TAG_CODE, 0, 1};
    ExpectKept(Becoming(&application), Ctx(0, Null()), Tlv(0x7E, Null()));
}

TEST_F(PeekKind, DoesNotLookAtTheImplicitTag)
{
    ExpectKept(Becoming(&kSet), Ctx(9, Null()), Set(Null()));
}

TEST_F(PeekKind, AnImplicitTagWithoutAnItemIsRefused)
{
    ExpectRefused(Becoming(nullptr), Ctx(0, Null()), PELNIC_ERR_ASN_PEEK_OCTS);
}

TEST_F(PeekKind, HasItsOwnCodeForACopyThatFails)
{
    for (Call failing : {Call::Malloc, Call::Memcpy}) {
        vrf_.Plan().Fail(failing, 1);
        ExpectRefused(FieldOf(PELNIC_ASN_PEEK_OCTS_item), Octets({'a'}), PELNIC_ERR_ASN_PEEK_OCTS);
    }
}

class LinkKind : public Asn1Test {
protected:
    const PELNIC_ASN1_TEMPLATE field_ = FieldOf(PELNIC_ASN_LINK_OCTS_item);
};

TEST_F(LinkKind, PointsIntoTheInput)
{
    for (std::uint8_t identifier : Identifiers()) {
        Decoding decoding(vrf_, field_, Cat(TlvLong(identifier, 1, {0x00, 0x5A}), Null()));
        ASSERT_EQ(decoding.Code(), 0u);
        const PELNIC_ASN_OCTS& value = decoding.As<PELNIC_ASN_OCTS>();
        EXPECT_EQ(value.octs, decoding.Input().At(3));
        EXPECT_EQ(value.len, 2u);
        EXPECT_TRUE(value.tag == TagOf(identifier));
        EXPECT_EQ(decoding.Consumed(), 3u) << "the header";
        EXPECT_EQ(decoding.Input().Moved(), 0u);
    }
    EXPECT_EQ(vrf_.Plan().LargestRequest(), 0u);
}

TEST_F(LinkKind, IsNotFreed)
{
    Decoding decoding(vrf_, field_, Octets({'a'}));
    decoding.Free();
    EXPECT_EQ(decoding.As<PELNIC_ASN_OCTS>().octs, decoding.Input().At(2));
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

TEST_F(LinkKind, RefusesAnEmptyElement)
{
    ExpectRefused(field_, Octets({}), PELNIC_ERR_ASN_PEEK_OCTS);
}

// ---- Bit strings ----

class BitsKind : public Asn1Test {
protected:
    void ExpectBits(const Bytes& content, const Bytes& bits, PNV_UINT32 bitLen)
    {
        Decoding decoding(vrf_, field_, Tlv(0x03, content));
        ASSERT_EQ(decoding.Code(), 0u);
        const PELNIC_ASN_BITS& value = decoding.As<PELNIC_ASN_BITS>();
        EXPECT_EQ(Content(value), bits);
        EXPECT_EQ(value.bitLen, bitLen);
        EXPECT_EQ(value.bits == nullptr, bits.empty());
        EXPECT_TRUE(value.tag == TagOf(0x03));
    }

    const PELNIC_ASN1_TEMPLATE field_ = FieldOf(PELNIC_ASN_BITS_item);
};

TEST_F(BitsKind, CountsTheBitsInUse)
{
    ExpectBits({0x07, 0x80}, {0x80}, 1);
    ExpectBits({0x00, 0xFF}, {0xFF}, 8);
    ExpectBits({0x05, 0x01, 0x02, 0xE0}, {0x01, 0x02, 0xE0}, 19);
}

TEST_F(BitsKind, KeepsWhatStandsInUnusedBits)
{
    ExpectBits({0x07, 0xFF}, {0xFF}, 1);
}

// X.690, 8.6.2.2, allows seven.
TEST_F(BitsKind, MayLeaveAWholeOctetUnused)
{
    ExpectBits({0x08, 0x80}, {0x80}, 0);
    ExpectBits({0x08, 0x80, 0x40}, {0x80, 0x40}, 8);
}

TEST_F(BitsKind, MayBeEmptyAndIsThenNull)
{
    ExpectBits({0x00}, {}, 0);
    EXPECT_EQ(vrf_.Plan().LargestRequest(), 0u);
}

TEST_F(BitsKind, RefusesMoreUnusedBitsThanThereAre)
{
    for (unsigned unused = 9; unused < 256; ++unused)
        ExpectRefused(field_, Bits(unused, {0x80, 0x80}), PELNIC_ERR_ASN_BITS);
    for (unsigned unused = 1; unused < 9; ++unused) ExpectRefused(field_, Bits(unused, {}), PELNIC_ERR_ASN_BITS);
}

TEST_F(BitsKind, RefusesNoContent)
{
    ExpectRefused(field_, Tlv(0x03, {}), PELNIC_ERR_ASN_BITS);
}

TEST_F(BitsKind, RefusesAConstructedEncoding)
{
    ExpectRefused(field_, Tlv(0x23, Bits(0, {0x80})), PELNIC_ERR_ASN_TAG);
}

TEST_F(BitsKind, KeepsAnImplicitTag)
{
    Decoding decoding(vrf_, FieldOf(PELNIC_ASN_BITS_item, PNV_IMPLICIT(1)), CtxPrim(1, {0x00, 0x5A}));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_TRUE(decoding.As<PELNIC_ASN_BITS>().tag == TagOf(0x81));
}

TEST_F(BitsKind, FaultsHaveItsOwnCode)
{
    vrf_.Plan().Fail(Call::Malloc, 1);
    ExpectRefused(field_, Bits(0, {0x80}), PELNIC_ERR_ASN_BITS);
    vrf_.Plan().Fail(Call::Memcpy, 1);
    ExpectRefused(field_, Bits(0, {0x80}), PELNIC_ERR_ASN_BITS);
}

TEST_F(BitsKind, AFreedValueIsNull)
{
    Decoding decoding(vrf_, field_, Bits(0, {0x80}));
    decoding.Free();
    EXPECT_EQ(decoding.As<PELNIC_ASN_BITS>().bits, nullptr);
}

// ---- Small numbers ----

struct NumberKind {
    const char* name;
    const PELNIC_ASN1_ITEM* item;
    std::uint8_t identifier;
};
void PrintTo(const NumberKind& kind, std::ostream* out)
{
    *out << kind.name;
}

class Number : public Asn1Test, public ::testing::WithParamInterface<NumberKind> {
protected:
    PNV_INT32 Value(const Bytes& content)
    {
        Decoding decoding(vrf_, field_, Tlv(GetParam().identifier, content));
        EXPECT_EQ(decoding.Code(), 0u);
        return decoding.As<PNV_INT32>();
    }
    void ExpectRefused(const Bytes& content)
    {
        Asn1Test::ExpectRefused(field_, Tlv(GetParam().identifier, content), PELNIC_ERR_ASN_INT);
    }

    const PELNIC_ASN1_TEMPLATE field_ = FieldOf(*GetParam().item);
};
INSTANTIATE_TEST_SUITE_P(Kinds, Number,
                         ::testing::Values(NumberKind{"Integer", &PELNIC_ASN_INT_item, 0x02},
                                           NumberKind{"Enumerated", &PELNIC_ASN_ENUM_item, 0x0A}),
                         [](const auto& test) { return test.param.name; });

TEST_P(Number, HasOneToFourOctets)
{
    EXPECT_EQ(Value({0x00}), 0);
    EXPECT_EQ(Value({0x7F}), 127);
    EXPECT_EQ(Value({0x01, 0x02}), 0x102);
    EXPECT_EQ(Value({0x01, 0x02, 0x03}), 0x10203);
    EXPECT_EQ(Value({0x7F, 0xFF, 0xFF, 0xFF}), std::numeric_limits<PNV_INT32>::max());
}

TEST_P(Number, TakesItsSignFromTheFirstBit)
{
    EXPECT_EQ(Value({0xFF}), -1);
    EXPECT_EQ(Value({0x80}), -128);
    EXPECT_EQ(Value({0x00, 0x80}), 128);
    EXPECT_EQ(Value({0xFF, 0x7F}), -129);
    EXPECT_EQ(Value({0x80, 0x00, 0x00, 0x00}), std::numeric_limits<PNV_INT32>::min());
}

TEST_P(Number, NeedNotBeMinimal)
{
    EXPECT_EQ(Value({0x00, 0x00, 0x00, 0x01}), 1);
    EXPECT_EQ(Value({0xFF, 0xFF, 0xFF, 0xFF}), -1);
}

TEST_P(Number, RefusesNoOctetAndAFifth)
{
    ExpectRefused({});
    ExpectRefused({0x00, 0x00, 0x00, 0x00, 0x01});
    ExpectRefused(Bytes(300, 0x01));
}

TEST_P(Number, NeedsNoMemory)
{
    EXPECT_EQ(Value({0x01}), 1);
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
}

TEST_P(Number, OfARangeLongerThanFourOctetsIsRefusedWithoutAHeaderToo)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(*GetParam().item, {PNV_TAG_CONTENT_ONLY, 0});
    const Decoding decoding(vrf_, field, Bytes(5, 0x01), 5);
    EXPECT_EQ(decoding.Code(), PELNIC_ERR_ASN_INT);
    Asn1Test::ExpectRefused(decoding);
}

class DecodeInteger : public Asn1Test {};

TEST_F(DecodeInteger, KnowsTwoTypes)
{
    PNV_INT32 value = 0;
    PNV_UINT32 octets = 0;
    for (std::uint8_t identifier : Identifiers()) {
        if (identifier >= 0x20 || identifier == CBT_INTEGER || identifier == CBT_ENUM) continue;
        Cursor input(Tlv(identifier, {0x01}));
        const PELNIC_ASN1_TEMPLATE field = FieldOf(PELNIC_ASN_INT_item);
        EXPECT_EQ(_pnvDecodeInteger(vrf_, input, &value, &octets, &field, TagOf(identifier).code),
                  PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(input.Moved(), 0u);
    }
}

// ---- Booleans ----

class BoolKind : public Asn1Test {
protected:
    int Value(const Bytes& content)
    {
        Decoding decoding(vrf_, field_, Tlv(0x01, content));
        EXPECT_EQ(decoding.Code(), 0u);
        return decoding.As<PELNIC_ASN_BOOL>();
    }

    const PELNIC_ASN1_TEMPLATE field_ = FieldOf(PELNIC_ASN_BOOL_item);
};

TEST_F(BoolKind, IsOneForEveryOctetButZero)
{
    EXPECT_EQ(Value({0x00}), 0);
    for (unsigned octet = 1; octet < 256; ++octet) EXPECT_EQ(Value({static_cast<std::uint8_t>(octet)}), 1);
}

TEST_F(BoolKind, HasExactlyOneOctet)
{
    ExpectRefused(field_, Tlv(0x01, {}), PELNIC_ERR_ASN_BOOL);
    ExpectRefused(field_, Tlv(0x01, {0x01, 0x01}), PELNIC_ERR_ASN_BOOL);
}

} // namespace
} // namespace pnvtest
