// The rows of which the decoding tables are made, and the items of primitive kinds.
#include "cmsverify/pelnic_asn1_templ.h"

#include "cmsverify/pelnic_asn1_decode.h"

#include <gtest/gtest.h>

#include <vector>

// ---- A record with one field of every sort; items are named in the global namespace, where their records are ----

typedef struct templ_test_leaf_st {
    PNV_BYTE padding[3];
    PELNIC_ASN_INT number;
} TEMPL_TEST_LEAF;
PNV_DECLARE_ITEM(TEMPL_TEST_LEAF_item, TEMPL_TEST_LEAF);
PNV_DECLARE_LIST(TEMPL_TEST_LEAF);

typedef struct templ_test_leaves_st {
    void* before;
    LIST_TYPE_TEMPL_TEST_LEAF leaves;
} TEMPL_TEST_LEAVES;
PNV_DECLARE_ITEM(TEMPL_TEST_SET_OF_LEAVES_item, TEMPL_TEST_LEAVES);
PNV_DECLARE_ITEM(TEMPL_TEST_SEQUENCE_OF_LEAVES_item, TEMPL_TEST_LEAVES);

typedef struct templ_test_tree_st {
    PELNIC_ASN_OCTS* encoding;
    PELNIC_ASN_OCTS* retagged;
    PELNIC_ASN_INT version;
    PELNIC_ASN_BIGINT* serial;
    PELNIC_ASN_BOOL flag;
    PELNIC_ASN_BITS* bits;
    PELNIC_ASN_OID type;
    void* value;
} TEMPL_TEST_TREE;
PNV_DECLARE_ITEM(TEMPL_TEST_TREE_item, TEMPL_TEST_TREE);

constexpr PELNIC_ASN1_TEMPLATE TEMPL_TEST_LEAF_templ[] = {
    PNV_FIELD(TEMPL_TEST_LEAF, number, PNV_UNTAGGED, PELNIC_ASN_INT_item),
};
constexpr PELNIC_ASN1_ITEM TEMPL_TEST_LEAF_item = _pnvSequence<TEMPL_TEST_LEAF_item>(TEMPL_TEST_LEAF_templ);

const PELNIC_ASN1_TEMPLATE TEMPL_TEST_LEAVES_templ[] = {
    PNV_ELEMENTS(TEMPL_TEST_LEAVES, leaves, TEMPL_TEST_LEAF_item, 3),
};
constexpr PELNIC_ASN1_ITEM TEMPL_TEST_SET_OF_LEAVES_item =
    _pnvSetOf<TEMPL_TEST_SET_OF_LEAVES_item>(TEMPL_TEST_LEAVES_templ);
constexpr PELNIC_ASN1_ITEM TEMPL_TEST_SEQUENCE_OF_LEAVES_item =
    _pnvSequenceOf<TEMPL_TEST_SEQUENCE_OF_LEAVES_item>(TEMPL_TEST_LEAVES_templ);

constexpr PELNIC_ASN1_ITEM TEMPL_TEST_VALUE_item = {
    nullptr, &g_pnvAsnFuncAny, CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE, 0, sizeof(void*)};

constexpr PELNIC_ASN1_TEMPLATE TEMPL_TEST_TREE_templ[] = {
    PNV_PEEK(TEMPL_TEST_TREE, encoding),
    PNV_PEEK_AS(TEMPL_TEST_TREE, retagged, TEMPL_TEST_SET_OF_LEAVES_item),
    PNV_FIELD(TEMPL_TEST_TREE, version, PNV_EXPLICIT(0), PELNIC_ASN_INT_item, PNV_DEFAULT),
    PNV_FIELD(TEMPL_TEST_TREE, serial, PNV_UNTAGGED, PELNIC_ASN_BIGINT_item),
    PNV_FIELD(TEMPL_TEST_TREE, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item, PNV_DEFAULT),
    PNV_FIELD(TEMPL_TEST_TREE, bits, PNV_IMPLICIT(7), PELNIC_ASN_BITS_item, PNV_OPTIONAL),
    PNV_FIELD(TEMPL_TEST_TREE, type, PNV_UNTAGGED, PELNIC_ASN_OCTS_item),
    PNV_ANY_DEFINED_BY(TEMPL_TEST_TREE, value, PNV_EXPLICIT(2), TEMPL_TEST_VALUE_item, type),
};
constexpr PELNIC_ASN1_ITEM TEMPL_TEST_TREE_item = _pnvSequence<TEMPL_TEST_TREE_item>(TEMPL_TEST_TREE_templ);

namespace pnvtest {
namespace {

// ---- What the interface fixes ----

static_assert(offsetof(PELNIC_ASN1_FUNCTIONS, pDecode) < offsetof(PELNIC_ASN1_FUNCTIONS, pFree));

static_assert(offsetof(PELNIC_ASN1_ITEM, asn_templ) < offsetof(PELNIC_ASN1_ITEM, asn_func));
static_assert(offsetof(PELNIC_ASN1_ITEM, asn_func) < offsetof(PELNIC_ASN1_ITEM, ber_class));
static_assert(offsetof(PELNIC_ASN1_ITEM, ber_class) < offsetof(PELNIC_ASN1_ITEM, ber_form));
static_assert(offsetof(PELNIC_ASN1_ITEM, ber_form) < offsetof(PELNIC_ASN1_ITEM, ber_code));
static_assert(offsetof(PELNIC_ASN1_ITEM, ber_code) < offsetof(PELNIC_ASN1_ITEM, templ_count));
static_assert(offsetof(PELNIC_ASN1_ITEM, templ_count) < offsetof(PELNIC_ASN1_ITEM, item_szie));

static_assert(offsetof(PELNIC_ASN1_TEMPLATE, asn1_item) < offsetof(PELNIC_ASN1_TEMPLATE, tagCode));
static_assert(offsetof(PELNIC_ASN1_TEMPLATE, tagCode) < offsetof(PELNIC_ASN1_TEMPLATE, tagType));
static_assert(offsetof(PELNIC_ASN1_TEMPLATE, tagType) < offsetof(PELNIC_ASN1_TEMPLATE, flag));
static_assert(offsetof(PELNIC_ASN1_TEMPLATE, flag) < offsetof(PELNIC_ASN1_TEMPLATE, offset_val));
static_assert(offsetof(PELNIC_ASN1_TEMPLATE, offset_val) < offsetof(PELNIC_ASN1_TEMPLATE, name_val));
static_assert(offsetof(PELNIC_ASN1_TEMPLATE, name_val) < offsetof(PELNIC_ASN1_TEMPLATE, offset_type));
static_assert(offsetof(PELNIC_ASN1_TEMPLATE, offset_type) < offsetof(PELNIC_ASN1_TEMPLATE, pDefaultVal));

static_assert(offsetof(PELNIC_ASN1_ANY_MAP, iAnyId) < offsetof(PELNIC_ASN1_ANY_MAP, pstAnyTempl));
static_assert(offsetof(PELNIC_ASN_CHOICE, index) == 0 && sizeof(PELNIC_ASN_CHOICE::index) == 4);

static_assert(PNV_TAG_NONE == 0 && PNV_TAG_EXPLICIT == 1 && PNV_TAG_IMPLICIT == 2 && PNV_TAG_CONTENT_ONLY == 0x40);
static_assert(PNV_FLAG_OPTIONAL == 0x08 && PNV_FLAG_DEFAULT == 0x10 && PNV_FLAG_POINTER == 0x80);
static_assert(PNV_FLAG_ANY_NUMBER == 0x20 && PNV_FLAG_ANY_OID == 0x40 && PNV_FLAG_ANY == 0x60);

// ---- Rows, which are constant expressions ----

enum RowNumber { kEncoding, kRetagged, kVersion, kSerial, kFlag, kBits, kType, kValue };

constexpr const PELNIC_ASN1_TEMPLATE& Row(RowNumber number)
{
    return TEMPL_TEST_TREE_templ[number];
}

static_assert(Row(kVersion).flag == PNV_FLAG_DEFAULT, "a field that holds its record");
static_assert(Row(kSerial).flag == PNV_FLAG_POINTER, "a field that owns its record");
static_assert(Row(kFlag).flag == PNV_FLAG_DEFAULT);
static_assert(Row(kBits).flag == (PNV_FLAG_OPTIONAL | PNV_FLAG_POINTER));
static_assert(Row(kType).flag == 0);
static_assert(Row(kEncoding).flag == PNV_FLAG_POINTER && Row(kRetagged).flag == PNV_FLAG_POINTER);
static_assert(Row(kValue).flag == PNV_FLAG_ANY_OID);

static_assert(Row(kVersion).tagType == PNV_TAG_EXPLICIT && Row(kVersion).tagCode == 0);
static_assert(Row(kSerial).tagType == PNV_TAG_NONE);
static_assert(Row(kBits).tagType == PNV_TAG_IMPLICIT && Row(kBits).tagCode == 7);
static_assert(Row(kValue).tagType == PNV_TAG_EXPLICIT && Row(kValue).tagCode == 2);
static_assert(Row(kEncoding).tagType == PNV_TAG_NONE && Row(kEncoding).pDefaultVal == nullptr);
static_assert(Row(kRetagged).tagType == PNV_TAG_IMPLICIT);
static_assert(Row(kRetagged).pDefaultVal == &TEMPL_TEST_SET_OF_LEAVES_item);

static_assert(Row(kEncoding).offset_val == offsetof(TEMPL_TEST_TREE, encoding));
static_assert(Row(kRetagged).offset_val == offsetof(TEMPL_TEST_TREE, retagged));
static_assert(Row(kVersion).offset_val == offsetof(TEMPL_TEST_TREE, version));
static_assert(Row(kSerial).offset_val == offsetof(TEMPL_TEST_TREE, serial));
static_assert(Row(kFlag).offset_val == offsetof(TEMPL_TEST_TREE, flag));
static_assert(Row(kBits).offset_val == offsetof(TEMPL_TEST_TREE, bits));
static_assert(Row(kType).offset_val == offsetof(TEMPL_TEST_TREE, type));
static_assert(Row(kValue).offset_val == offsetof(TEMPL_TEST_TREE, value));
static_assert(Row(kValue).offset_type == offsetof(TEMPL_TEST_TREE, type));

static_assert(Row(kEncoding).asn1_item == &PELNIC_ASN_PEEK_OCTS_item);
static_assert(Row(kRetagged).asn1_item == &PELNIC_ASN_PEEK_OCTS_item);
static_assert(Row(kVersion).asn1_item == &PELNIC_ASN_INT_item);
static_assert(Row(kSerial).asn1_item == &PELNIC_ASN_BIGINT_item);
static_assert(Row(kValue).asn1_item == &TEMPL_TEST_VALUE_item);

TEST(TemplateRow, CarriesTheNameOfItsField)
{
    const std::vector<const char*> names{"encoding", "retagged", "version", "serial", "flag", "bits", "type", "value"};
    ASSERT_EQ(names.size(), std::size(TEMPL_TEST_TREE_templ));
    for (std::size_t i = 0; i < names.size(); ++i) EXPECT_STREQ(TEMPL_TEST_TREE_templ[i].name_val, names[i]);
}

TEST(TemplateRow, OfAListHoldsItsCapacityAsANumber)
{
    const PELNIC_ASN1_TEMPLATE& row = TEMPL_TEST_LEAVES_templ[0];
    EXPECT_EQ(reinterpret_cast<uintptr_t>(row.pDefaultVal), 3u);
    EXPECT_EQ(row.asn1_item, &TEMPL_TEST_LEAF_item);
    EXPECT_EQ(row.offset_val, offsetof(TEMPL_TEST_LEAVES, leaves));
    EXPECT_EQ(row.tagType, PNV_TAG_NONE);
    EXPECT_EQ(row.flag, 0);
    EXPECT_STREQ(row.name_val, "leaves");
}

// ---- Items ----

constexpr bool Is(const PELNIC_ASN1_ITEM& item, PELNIC_BER_CLASS cls, PELNIC_BER_FORM form, PELNIC_BER_TAG_CODE code)
{
    return item.ber_class == cls && item.ber_form == form && item.ber_code == code;
}

static_assert(Is(TEMPL_TEST_TREE_item, CBC_UNIV, CBF_CONS, CBT_SEQUENCES));
static_assert(Is(TEMPL_TEST_SEQUENCE_OF_LEAVES_item, CBC_UNIV, CBF_CONS, CBT_SEQUENCES));
static_assert(Is(TEMPL_TEST_SET_OF_LEAVES_item, CBC_UNIV, CBF_CONS, CBT_SETS));
static_assert(TEMPL_TEST_TREE_item.asn_func == &g_pnvAsnFuncSeq);
static_assert(TEMPL_TEST_SEQUENCE_OF_LEAVES_item.asn_func == &g_pnvAsnFuncSetOf);
static_assert(TEMPL_TEST_SET_OF_LEAVES_item.asn_func == &g_pnvAsnFuncSetOf);
static_assert(TEMPL_TEST_TREE_item.templ_count == 8 && TEMPL_TEST_TREE_item.item_szie == sizeof(TEMPL_TEST_TREE));
static_assert(TEMPL_TEST_SET_OF_LEAVES_item.templ_count == 1);
static_assert(TEMPL_TEST_SET_OF_LEAVES_item.item_szie == sizeof(TEMPL_TEST_LEAVES));

struct PrimitiveItem {
    const char* name;
    const PELNIC_ASN1_ITEM* item;
    const PELNIC_ASN1_FUNCTIONS* functions;
    PELNIC_BER_TAG tag;
    std::size_t recordSize;
};
constexpr PELNIC_BER_TAG kAnyTag{CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE};
constexpr PELNIC_BER_TAG Primitive(PELNIC_BER_TAG_CODE code)
{
    return {CBC_UNIV, CBF_PRIM, code};
}
const PrimitiveItem kPrimitiveItems[] = {
    {"octets", &PELNIC_ASN_OCTS_item, &g_pnvAsnFuncOct, kAnyTag, sizeof(PELNIC_ASN_OCTS)},
    {"peek", &PELNIC_ASN_PEEK_OCTS_item, &g_pnvAsnFuncPeekOct, kAnyTag, sizeof(PELNIC_ASN_OCTS)},
    {"link", &PELNIC_ASN_LINK_OCTS_item, &g_pnvAsnFuncLinkOct, kAnyTag, sizeof(PELNIC_ASN_OCTS)},
    {"bits", &PELNIC_ASN_BITS_item, &g_pnvAsnFuncBits, Primitive(CBT_BITSTRING), sizeof(PELNIC_ASN_BITS)},
    {"integer", &PELNIC_ASN_INT_item, &g_pnvAsnFuncInt, Primitive(CBT_INTEGER), sizeof(PELNIC_ASN_INT)},
    // The tag of an INTEGER on purpose, although the kind decodes ENUMERATED.
    {"enumerated", &PELNIC_ASN_ENUM_item, &g_pnvAsnFuncEnum, Primitive(CBT_INTEGER), sizeof(PELNIC_ASN_ENUM)},
    {"big integer", &PELNIC_ASN_BIGINT_item, &g_pnvAsnFuncBigInt, Primitive(CBT_INTEGER), sizeof(PELNIC_ASN_BIGINT)},
    {"boolean", &PELNIC_ASN_BOOL_item, &g_pnvAsnFuncBool, Primitive(CBT_BOOLEAN), sizeof(PELNIC_ASN_BOOL)},
};

TEST(PrimitiveItems, HaveTheTagsAndRecordsOfTheirTypes)
{
    for (const PrimitiveItem& expected : kPrimitiveItems) {
        SCOPED_TRACE(expected.name);
        const PELNIC_ASN1_ITEM& item = *expected.item;
        EXPECT_EQ(item.asn_templ, nullptr);
        EXPECT_EQ(item.asn_func, expected.functions);
        EXPECT_TRUE(Is(item, expected.tag.cls, expected.tag.form, expected.tag.code));
        EXPECT_EQ(item.templ_count, 0u);
        EXPECT_EQ(item.item_szie, expected.recordSize);
    }
}

struct ItemKind {
    const PELNIC_ASN1_FUNCTIONS* functions;
    PNV_ASN_DECODE_ITEM decode;
    PNV_ASN_FREE_ITEM free;
};
const ItemKind kItemKinds[] = {
    {&g_pnvAsnFuncOct, pelnic_dec_oct, pelnic_free_oct},
    {&g_pnvAsnFuncPeekOct, pelnic_peek_oct, pelnic_free_oct},
    {&g_pnvAsnFuncLinkOct, pelnic_link_oct, pelnic_free_link_oct},
    {&g_pnvAsnFuncBits, pelnic_dec_bits, pelnic_free_bits},
    {&g_pnvAsnFuncAny, pelnic_dec_any, pelnic_free_any},
    {&g_pnvAsnFuncChoice, pelnic_dec_choice, pelnic_free_choice},
    {&g_pnvAsnFuncSeq, pelnic_dec_seq, pelnic_free_seq},
    {&g_pnvAsnFuncInt, pelnic_dec_int, pelnic_free_int},
    {&g_pnvAsnFuncEnum, pelnic_dec_enum, pelnic_free_enum},
    {&g_pnvAsnFuncBigInt, pelnic_dec_bigint, pelnic_free_oct},
    {&g_pnvAsnFuncSetOf, pelnic_dec_setof, pelnic_free_setof},
    {&g_pnvAsnFuncBool, pelnic_dec_bool, pelnic_free_bool},
};

TEST(ItemKinds, PairADecoderWithItsFree)
{
    for (const ItemKind& kind : kItemKinds) {
        EXPECT_EQ(kind.functions->pDecode, kind.decode);
        EXPECT_EQ(kind.functions->pFree, kind.free);
    }
}

// The expected tag depends on which table an item has, so no two kinds may share one.
TEST(ItemKinds, AreToldApartByTheirTables)
{
    for (const ItemKind& one : kItemKinds) {
        for (const ItemKind& other : kItemKinds) {
            EXPECT_EQ(one.functions == other.functions, &one == &other);
        }
    }
}

} // namespace
} // namespace pnvtest
