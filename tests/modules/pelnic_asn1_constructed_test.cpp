// SEQUENCE, SET OF, CHOICE and ANY of the decoder, its two entry points, and its faults over a record of every kind.
#include "cmsverify/pelnic_asn1_decode.h"

#include "support/asn1.h"

#include <cstring>

// ---- Test types; items are named in the global namespace, where their records are ----

// Leaf ::= SEQUENCE { number INTEGER, text OCTET STRING }
typedef struct asn1_test_leaf_st {
    PELNIC_ASN_INT number;
    PELNIC_ASN_OCTS* text;
} ASN1_TEST_LEAF;
PNV_DECLARE_ITEM(ASN1_TEST_LEAF_item, ASN1_TEST_LEAF);
PNV_DECLARE_LIST(ASN1_TEST_LEAF);

constexpr PELNIC_ASN1_TEMPLATE ASN1_TEST_LEAF_templ[] = {
    PNV_FIELD(ASN1_TEST_LEAF, number, PNV_UNTAGGED, PELNIC_ASN_INT_item),
    PNV_FIELD(ASN1_TEST_LEAF, text, PNV_UNTAGGED, PELNIC_ASN_OCTS_item),
};
constexpr PELNIC_ASN1_ITEM ASN1_TEST_LEAF_item = _pnvSequence<ASN1_TEST_LEAF_item>(ASN1_TEST_LEAF_templ);

// Leaves ::= SET OF Leaf
typedef struct asn1_test_leaves_st {
    LIST_TYPE_ASN1_TEST_LEAF list;
} ASN1_TEST_LEAVES;
PNV_DECLARE_ITEM(ASN1_TEST_LEAVES_item, ASN1_TEST_LEAVES);

const PELNIC_ASN1_TEMPLATE ASN1_TEST_LEAVES_templ[] = {
    PNV_ELEMENTS(ASN1_TEST_LEAVES, list, ASN1_TEST_LEAF_item, 5),
};
constexpr PELNIC_ASN1_ITEM ASN1_TEST_LEAVES_item = _pnvSetOf<ASN1_TEST_LEAVES_item>(ASN1_TEST_LEAVES_templ);

// Selection ::= CHOICE {
//     leaf [1] EXPLICIT Leaf, number INTEGER, text [2] IMPLICIT OCTET STRING, bits BIT STRING, unreachable INTEGER }
typedef struct asn1_test_selection_st {
    PNV_UINT32 index;
    alignas(PNV_INT64) union {
        ASN1_TEST_LEAF* leaf;
        PELNIC_ASN_INT number;
        PELNIC_ASN_OCTS* text;
        PELNIC_ASN_BITS bits;
    } value;
} ASN1_TEST_SELECTION;
PNV_DECLARE_ITEM(ASN1_TEST_SELECTION_item, ASN1_TEST_SELECTION);
static_assert(offsetof(ASN1_TEST_SELECTION, value) == offsetof(PELNIC_ASN_CHOICE, value));

constexpr PELNIC_ASN1_TEMPLATE ASN1_TEST_SELECTION_templ[] = {
    pnvtest::FieldOf(ASN1_TEST_LEAF_item, PNV_EXPLICIT(1), PNV_FLAG_POINTER),
    pnvtest::FieldOf(PELNIC_ASN_INT_item),
    pnvtest::FieldOf(PELNIC_ASN_OCTS_item, PNV_IMPLICIT(2), PNV_FLAG_POINTER),
    pnvtest::FieldOf(PELNIC_ASN_BITS_item),
    pnvtest::FieldOf(PELNIC_ASN_INT_item),
};
constexpr PELNIC_ASN1_ITEM ASN1_TEST_SELECTION_item =
    pnvtest::ChoiceItem<ASN1_TEST_SELECTION>(ASN1_TEST_SELECTION_templ);

// What the type of an attribute selects: commonName an INTEGER, countryName a Leaf, localityName a Selection.
constexpr PELNIC_ASN1_TEMPLATE ASN1_TEST_NUMBER_templ = pnvtest::FieldOf(PELNIC_ASN_INT_item);
constexpr PELNIC_ASN1_TEMPLATE ASN1_TEST_FLAG_templ = pnvtest::FieldOf(PELNIC_ASN_BOOL_item);
constexpr PELNIC_ASN1_TEMPLATE ASN1_TEST_ANY_LEAF_templ = pnvtest::FieldOf(ASN1_TEST_LEAF_item);
constexpr PELNIC_ASN1_TEMPLATE ASN1_TEST_ANY_SELECTION_templ = pnvtest::FieldOf(ASN1_TEST_SELECTION_item);
constexpr PELNIC_ASN1_ANY_MAP ASN1_TEST_VALUE_map[] = {
    {AOID_AT_COMMONNAME, &ASN1_TEST_NUMBER_templ},
    {AOID_AT_COUNTRYNAME, &ASN1_TEST_ANY_LEAF_templ},
    {AOID_AT_LOCALITYNAME, &ASN1_TEST_ANY_SELECTION_templ},
    {AOID_AT_COMMONNAME, &ASN1_TEST_FLAG_templ},
};
constexpr PELNIC_ASN1_ITEM ASN1_TEST_VALUE_item = pnvtest::AnyItem(ASN1_TEST_VALUE_map);

// Tree ::= SEQUENCE {
//     version [0] EXPLICIT INTEGER DEFAULT 0, serial INTEGER, type OBJECT IDENTIFIER, value ANY DEFINED BY type,
//     leaf Leaf, leaves Leaves, selection Selection OPTIONAL, more [3] IMPLICIT Leaves OPTIONAL,
//     bits [4] EXPLICIT BIT STRING OPTIONAL, unused [5] IMPLICIT BIT STRING OPTIONAL, flag BOOLEAN DEFAULT FALSE }
typedef struct asn1_test_tree_st {
    PELNIC_ASN_INT version;
    PELNIC_ASN_OCTS* serialEncoding; // serial as it stands
    PELNIC_ASN_BIGINT* serial;
    PELNIC_ASN_OID type;
    void* value;
    ASN1_TEST_LEAF leaf;
    ASN1_TEST_LEAVES leaves;
    ASN1_TEST_SELECTION selection;
    ASN1_TEST_LEAVES* more;
    PELNIC_ASN_BITS* bits;
    PELNIC_ASN_BITS unused;
    PELNIC_ASN_BOOL flag;
} ASN1_TEST_TREE;
PNV_DECLARE_ITEM(ASN1_TEST_TREE_item, ASN1_TEST_TREE);

using Tree = ASN1_TEST_TREE;
constexpr PELNIC_ASN1_TEMPLATE ASN1_TEST_TREE_templ[] = {
    PNV_FIELD(Tree, version, PNV_EXPLICIT(0), PELNIC_ASN_INT_item, PNV_DEFAULT),
    PNV_PEEK(Tree, serialEncoding),
    PNV_FIELD(Tree, serial, PNV_UNTAGGED, PELNIC_ASN_BIGINT_item),
    PNV_FIELD(Tree, type, PNV_UNTAGGED, PELNIC_ASN_OCTS_item),
    PNV_ANY_DEFINED_BY(Tree, value, PNV_UNTAGGED, ASN1_TEST_VALUE_item, type),
    PNV_FIELD(Tree, leaf, PNV_UNTAGGED, ASN1_TEST_LEAF_item),
    PNV_FIELD(Tree, leaves, PNV_UNTAGGED, ASN1_TEST_LEAVES_item),
    PNV_FIELD(Tree, selection, PNV_UNTAGGED, ASN1_TEST_SELECTION_item, PNV_OPTIONAL),
    PNV_FIELD(Tree, more, PNV_IMPLICIT(3), ASN1_TEST_LEAVES_item, PNV_OPTIONAL),
    PNV_FIELD(Tree, bits, PNV_EXPLICIT(4), PELNIC_ASN_BITS_item, PNV_OPTIONAL),
    PNV_FIELD(Tree, unused, PNV_IMPLICIT(5), PELNIC_ASN_BITS_item, PNV_OPTIONAL),
    PNV_FIELD(Tree, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item, PNV_DEFAULT),
};
constexpr PELNIC_ASN1_ITEM ASN1_TEST_TREE_item = _pnvSequence<ASN1_TEST_TREE_item>(ASN1_TEST_TREE_templ);
constexpr PNV_UINT32 kFirstOptionalRow = 7;

namespace pnvtest {
namespace {

Bytes Leaf(int number, const Bytes& text)
{
    return Seq(Int(number), Octets(text));
}

std::vector<Bytes> Leaves(int count)
{
    std::vector<Bytes> leaves;
    for (int number = 0; number < count; ++number) leaves.push_back(Leaf(number, Bytes{'n'}));
    return leaves;
}

// The children of a Tree, as many as there are before its optional fields.
Bytes RequiredFields()
{
    return Cat(Int({0x00, 0xF2}), Oid(oid::countryName), Leaf(7, Text("any")), Leaf(8, Text("inline")),
               Set(Leaf(2, {}), Leaf(1, {0x00})));
}
Bytes FullTree()
{
    return Seq(Ctx(0, Int(2)), RequiredFields(), Ctx(1, Leaf(9, Text("choice"))), Ctx(3, Cat(Leaves(6))),
               Ctx(4, Bits(3, {0xF8})), CtxPrim(5, {0x00, 0xA5}), Bool(true));
}

using pnvtest::Encoding;
Bytes Encoding(const ASN1_TEST_LEAF& leaf)
{
    return Seq(Int(leaf.number), Encoding(*leaf.text));
}
Bytes Elements(const LIST_TYPE_ASN1_TEST_LEAF& list)
{
    Bytes all;
    for (PNV_UINT32 i = 0; i < list.num; ++i) all = Cat(all, Encoding(*list.data[i]));
    return all;
}
// Of a tree with every field, whose attribute and selection are leaves.
Bytes Encoding(const ASN1_TEST_TREE& tree)
{
    return Seq(Ctx(0, Int(tree.version)), Content(*tree.serialEncoding), Encoding(tree.type),
               Encoding(*static_cast<ASN1_TEST_LEAF*>(tree.value)), Encoding(tree.leaf),
               Set(Elements(tree.leaves.list)), Ctx(1, Encoding(*tree.selection.value.leaf)),
               Ctx(3, Elements(tree.more->list)), Ctx(4, Encoding(*tree.bits)),
               CtxPrim(5, Cat(Bytes{0x00}, Content(tree.unused))), Bool(tree.flag != 0));
}

constexpr PELNIC_ASN1_TEMPLATE kLeaf = FieldOf(ASN1_TEST_LEAF_item);
constexpr PELNIC_ASN1_TEMPLATE kLeaves = FieldOf(ASN1_TEST_LEAVES_item);
constexpr PELNIC_ASN1_TEMPLATE kSelection = FieldOf(ASN1_TEST_SELECTION_item);
constexpr PELNIC_ASN1_TEMPLATE kTree = FieldOf(ASN1_TEST_TREE_item);

class Constructed : public Asn1Test {
protected:
    // Cut at every length, with every tag but its own, and with lengths that it cannot have.
    void ExpectUsualRefusals(const PELNIC_ASN1_TEMPLATE& field, const Bytes& element)
    {
        const Bytes content = Content(element, {});
        ExpectRefusedWhenCut(field, element);
        ExpectRefusedWhenCut(field, TlvLong(element[0], 3, content));
        for (unsigned identifier = 0; identifier < 256; ++identifier) {
            if (identifier == element[0] || (identifier & 0x1F) == 0x1F) continue;
            ExpectRefused(field, Tlv(static_cast<std::uint8_t>(identifier), content), PELNIC_ERR_ASN_TAG);
        }
        for (std::size_t length : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
            ExpectRefused(field, Tlv(element[0], length, content), PELNIC_ERR_ASN_LENGTH);
        }
        ExpectRefused(field, Cat(Bytes{element[0], 0x80}, content, Bytes{0x00, 0x00}), PELNIC_ERR_ASN_LENGTH);
    }
};

TEST_F(Constructed, RefusesNullAndFreesNothing)
{
    for (const PELNIC_ASN1_TEMPLATE& field : {kLeaf, kLeaves, kSelection}) {
        Cursor input(FullTree());
        ASN1_TEST_TREE record{};
        PNV_UINT32 octets = 0;
        const PELNIC_ASN1_FUNCTIONS& functions = *field.asn1_item->asn_func;
        EXPECT_EQ(functions.pDecode(vrf_, input, nullptr, &octets, &field), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(functions.pDecode(vrf_, input, &record, nullptr, &field), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(functions.pDecode(vrf_, input, &record, &octets, nullptr), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(input.Moved(), 0u);
        functions.pFree(vrf_, nullptr, &field);
    }
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

// ---- SEQUENCE ----

using SequenceKind = Constructed;

struct Options {
    PELNIC_ASN_INT* number;
    PELNIC_ASN_BOOL flag;
};
constexpr PELNIC_ASN1_TEMPLATE kOptionRows[] = {
    PNV_FIELD(Options, number, PNV_UNTAGGED, PELNIC_ASN_INT_item, PNV_OPTIONAL),
    PNV_FIELD(Options, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item, PNV_DEFAULT),
};
constexpr PELNIC_ASN1_ITEM kOptions = SequenceItem<Options>(kOptionRows);

TEST_F(SequenceKind, DecodesEveryField)
{
    Decoding decoding(vrf_, kTree, Cat(FullTree(), Null()));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(Encoding(decoding.As<Tree>()), FullTree());
    EXPECT_EQ(Content(*decoding.As<Tree>().serial), Bytes{0xF2});
    EXPECT_EQ(decoding.Consumed(), FullTree().size());
    EXPECT_EQ(decoding.Input().Moved(), FullTree().size());
}

TEST_F(SequenceKind, IsRefusedWithoutATrace)
{
    ExpectUsualRefusals(kTree, FullTree());
    ExpectUsualRefusals(kLeaf, Leaf(1, Text("text")));
}

TEST_F(SequenceKind, RefusesTheEndWithItsOwnCode)
{
    ExpectRefused(kLeaf, {}, PELNIC_ERR_ASN_SEQ);
}

TEST_F(SequenceKind, MayEndBeforeOptionalAndDefaultFields)
{
    Decoding decoding(vrf_, kTree, Seq(RequiredFields()));
    ASSERT_EQ(decoding.Code(), 0u);
    const Tree& tree = decoding.As<Tree>();
    EXPECT_EQ(tree.version, 0);
    EXPECT_EQ(tree.more, nullptr);
    EXPECT_EQ(tree.bits, nullptr);
    EXPECT_EQ(tree.unused.bits, nullptr);
    EXPECT_EQ(tree.selection.value.leaf, nullptr);
    EXPECT_EQ(tree.flag, 0);
}

TEST_F(SequenceKind, MayOmitOptionalFieldsBeforeOthers)
{
    Decoding decoding(vrf_, kTree, Seq(RequiredFields(), CtxPrim(5, {0x00, 0xA5}), Bool(true)));
    ASSERT_EQ(decoding.Code(), 0u);
    const Tree& tree = decoding.As<Tree>();
    EXPECT_EQ(tree.more, nullptr);
    EXPECT_EQ(tree.bits, nullptr);
    EXPECT_EQ(Content(tree.unused), Bytes{0xA5});
    EXPECT_EQ(tree.flag, 1);
}

TEST_F(SequenceKind, MayNotEndBeforeARequiredField)
{
    ExpectRefused(kTree, Seq(), PELNIC_ERR_ASN_SEQ);
    ExpectRefused(kTree, Seq(Ctx(0, Int(2))), PELNIC_ERR_ASN_SEQ);
    ExpectRefused(kTree, Seq(Int(5), Oid(oid::commonName)), PELNIC_ERR_ASN_SEQ);
    ExpectRefused(kTree, Seq(Int(5), Oid(oid::commonName), Int(1), Leaf(1, {})), PELNIC_ERR_ASN_SEQ);
    ExpectRefused(kLeaf, Seq(Int(5)), PELNIC_ERR_ASN_SEQ);
    ExpectRefused(kTree, Seq(Int(5), Oid(oid::countryName), Seq(Int(1))), PELNIC_ERR_ASN_SEQ);
}

TEST_F(SequenceKind, KnowsWhereTheOptionalFieldsBegin)
{
    for (PNV_UINT32 row = 0; row <= std::size(ASN1_TEST_TREE_templ); ++row) {
        EXPECT_EQ(_pnvSeqCheckRemainOptional(&ASN1_TEST_TREE_item, row),
                  row < kFirstOptionalRow ? PELNIC_ERR_ASN_SEQ : 0);
    }
}

TEST_F(SequenceKind, MayBeEmptyAtTheEndOfTheInput)
{
    Decoding decoding(vrf_, FieldOf(kOptions), Seq());
    EXPECT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(decoding.Consumed(), 2u);
    EXPECT_EQ(decoding.As<Options>().number, nullptr);
}

TEST_F(SequenceKind, AnImplicitTagReplacesItsOwn)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(ASN1_TEST_LEAF_item, PNV_IMPLICIT(6));
    const Bytes element = Ctx(6, Int(1), Octets({'a'}));
    ExpectTaken(field, element);
    ExpectUsualRefusals(field, element);
}

// An indefinite length in each child of the tree: whatever was decoded before is given back.
TEST_F(SequenceKind, GivesBackWhatItHadWhenAFieldFails)
{
    const Bytes tree = FullTree();
    for (std::size_t child = 0; child < Children(tree, ElementAt(tree, 0)).size(); ++child) {
        SCOPED_TRACE(child);
        ExpectRefused(kTree, Replace(tree, {child}, {Extract(tree, {child})[0], 0x80}));
    }
}

TEST_F(SequenceKind, IsRefusedWhenSuccessBringsNoMemory)
{
    vrf_->callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc = MallocNothing;
    ExpectRefused(kLeaf, Leaf(1, Text("text")), PELNIC_ERR_ASN_OCTS);
    ExpectRefused(FieldOf(kOptions), Seq(Int(1)));
}

TEST_F(SequenceKind, PassesOnThatThereIsNoMemoryForARecord)
{
    vrf_.Plan().Fail(Call::Malloc, 1);
    ExpectRefused(FieldOf(kOptions), Seq(Int(1)), PELNIC_ERR_SYS_MEM_ALLOC);
}

TEST_F(SequenceKind, OwnedOctetsMayBeFreedBeforeTheirRecord)
{
    Decoding decoding(vrf_, kLeaf, Leaf(1, Text("text")));
    ASSERT_EQ(decoding.Code(), 0u);
    PELNIC_ASN_OCTS* const text = decoding.As<ASN1_TEST_LEAF>().text;
    pelnic_free_oct(vrf_, text, &ASN1_TEST_LEAF_templ[1]);
    EXPECT_EQ(text->octs, nullptr);
}

TEST_F(SequenceKind, OfZerosIsFreedWithoutACall)
{
    Tree tree{};
    pelnic_free_seq(vrf_, &tree, &kTree);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

// ---- SEQUENCE: where it ends ----

// Decoded extensions could otherwise lie behind the octets that were signed.
TEST_F(SequenceKind, RefusesFieldsThatReachBeyondIt)
{
    const Bytes content = Cat(Int(1), Octets(Text("beyond")));
    for (std::size_t claimed = 0; claimed < content.size(); ++claimed) {
        ExpectRefused(kLeaf, Tlv(0x30, claimed, content), PELNIC_ERR_ASN_SEQ);
    }
}

TEST_F(SequenceKind, RefusesAnOptionalFieldThatReachesBeyondIt)
{
    ExpectRefused(FieldOf(kOptions), Tlv(0x30, 2, Cat(Int(1), Bool(true))), PELNIC_ERR_ASN_SEQ);
    ExpectRefused(FieldOf(kOptions), Tlv(0x30, 5, Cat(Int(1), Bool(true))), PELNIC_ERR_ASN_SEQ);
}

TEST_F(SequenceKind, RefusesAnInnerOneThatReachesBeyondTheOuter)
{
    const Bytes tree = FullTree();
    const Bytes longer = Replace(tree, {3}, Tlv(0x30, Content(tree, {3}).size() + 1, Content(tree, {3})));
    ExpectRefused(kTree, longer);
}

// Content behind the last field is not refused, and not skipped either but for one identifier octet.
TEST_F(SequenceKind, ConsumesOneOctetOfWhatIsLeftOver)
{
    for (unsigned identifier = 0; identifier < 256; ++identifier) {
        if ((identifier & 0x1F) == 0x1F) continue;
        const Bytes leftOver{static_cast<std::uint8_t>(identifier), 0x00, 0x00};
        const Bytes element = Seq(Int(1), Octets({'a'}), leftOver);
        const Decoding decoding(vrf_, kLeaf, Cat(element, Null()));
        EXPECT_EQ(decoding.Code(), 0u);
        EXPECT_EQ(decoding.Consumed(), element.size() - 2);
        EXPECT_EQ(decoding.Input().Moved(), element.size() - 2);
    }
}

TEST_F(SequenceKind, MayHaveOneOctetLeftOver)
{
    ExpectTaken(kLeaf, Seq(Int(1), Octets({'a'}), Bytes{0x00}));
}

TEST_F(SequenceKind, RefusesALeftOverHighTagNumber)
{
    ExpectRefused(kLeaf, Seq(Int(1), Octets({'a'}), Bytes{0x1F, 0x20, 0x00}), PELNIC_ERR_ASN_SEQ);
    ExpectLogged(PELNIC_ERR_FAILED, "");
}

struct LeafAndFlag {
    ASN1_TEST_LEAF leaf;
    PELNIC_ASN_BOOL flag;
};
constexpr PELNIC_ASN1_TEMPLATE kLeafAndFlagRows[] = {
    PNV_FIELD(LeafAndFlag, leaf, PNV_UNTAGGED, ASN1_TEST_LEAF_item),
    PNV_FIELD(LeafAndFlag, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item),
};
constexpr PELNIC_ASN1_ITEM kLeafAndFlag = SequenceItem<LeafAndFlag>(kLeafAndFlagRows);

TEST_F(SequenceKind, TheNextFieldBeginsWithinWhatIsLeftOver)
{
    ExpectRefused(FieldOf(kLeafAndFlag), Seq(Seq(Int(1), Octets({'a'}), Null()), Bool(true)), PELNIC_ERR_ASN_TAG);
    Decoding decoding(vrf_, FieldOf(kLeafAndFlag), Seq(Seq(Int(1), Octets({'a'}), Bytes{0x05}, Bool(true))));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(decoding.As<LeafAndFlag>().flag, 1);
}

// ---- SEQUENCE: content whose header was consumed ----

constexpr Tagging kContentOnly{PNV_TAG_CONTENT_ONLY, 0};

TEST_F(SequenceKind, TakesContentWhoseHeaderWasConsumed)
{
    const Bytes content = Content(FullTree(), {});
    Decoding decoding(vrf_, FieldOf(ASN1_TEST_TREE_item, kContentOnly), content, Len(content));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(Encoding(decoding.As<Tree>()), FullTree());
    EXPECT_EQ(decoding.Consumed(), content.size());
}

TEST_F(SequenceKind, WithoutItsHeaderLeavesTheRestUntouched)
{
    const Bytes content = Cat(Int(1), Octets({'a'}));
    const Decoding decoding(vrf_, FieldOf(ASN1_TEST_LEAF_item, kContentOnly), Cat(content, Null()), Len(content) + 2);
    EXPECT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(decoding.Consumed(), content.size());
}

// Nothing is left over there, so a tag that cannot be read is not taken for an absent field.
TEST_F(SequenceKind, WithoutItsHeaderRefusesAHighTagNumberInPlaceOfAnOptionalField)
{
    struct Record {
        PELNIC_ASN_INT number;
        PELNIC_ASN_BOOL flag;
    };
    constexpr PELNIC_ASN1_TEMPLATE rows[] = {
        PNV_FIELD(Record, number, PNV_UNTAGGED, PELNIC_ASN_INT_item),
        PNV_FIELD(Record, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item, PNV_OPTIONAL),
    };
    const PELNIC_ASN1_ITEM item = SequenceItem<Record>(rows);
    const Bytes content = Cat(Int(1), Bytes{0x1F, 0x20, 0x00});
    const Decoding decoding(vrf_, FieldOf(item, kContentOnly), content, Len(content));
    ExpectRefused(decoding);
    EXPECT_EQ(decoding.Code(), PELNIC_ERR_ASN_TAG);
    ExpectLogged(PELNIC_ERR_FAILED, "");
}

// There is no length that would say that the content ends.
TEST_F(SequenceKind, WithoutItsHeaderMayNotEndBeforeOptionalFields)
{
    const Bytes content = RequiredFields();
    const Decoding decoding(vrf_, FieldOf(ASN1_TEST_TREE_item, kContentOnly), content, Len(content));
    EXPECT_EQ(decoding.Code(), PELNIC_ERR_ASN_PEEK_TAG);
    ExpectRefused(decoding);
}

// ---- SEQUENCE: explicit and optional fields ----

struct Wrapped {
    PELNIC_ASN_INT number;
    PELNIC_ASN_BOOL flag;
};
constexpr PELNIC_ASN1_TEMPLATE kWrappedRows[] = {
    PNV_FIELD(Wrapped, number, PNV_EXPLICIT(2), PELNIC_ASN_INT_item),
    PNV_FIELD(Wrapped, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item, PNV_DEFAULT),
};
constexpr PELNIC_ASN1_ITEM kWrapped = SequenceItem<Wrapped>(kWrappedRows);

TEST_F(SequenceKind, RefusesAnotherTagThanTheExplicitOne)
{
    ExpectTaken(FieldOf(kWrapped), Seq(Ctx(2, Int(1))));
    for (const Bytes& field : {Ctx(3, Int(1)), CtxPrim(2, Int(1)), Tlv(0x62, Int(1)), Int(1)}) {
        ExpectRefused(FieldOf(kWrapped), Seq(field), PELNIC_ERR_FAILED);
    }
}

TEST_F(SequenceKind, RefusesAnotherTagInsideTheExplicitOne)
{
    ExpectRefused(FieldOf(kWrapped), Seq(Ctx(2, Octets({0x01}))), PELNIC_ERR_ASN_TAG);
    ExpectRefused(FieldOf(kWrapped), Seq(Ctx(2)));
}

TEST_F(SequenceKind, DoesNotCompareTheLengthOfAnExplicitTag)
{
    for (std::size_t claimed = 0; claimed <= 6; ++claimed) {
        Decoding decoding(vrf_, FieldOf(kWrapped), Seq(Tlv(0xA2, claimed, Int(7)), Bool(true)));
        ASSERT_EQ(decoding.Code(), 0u);
        EXPECT_EQ(decoding.As<Wrapped>().number, 7);
        EXPECT_EQ(decoding.As<Wrapped>().flag, 1);
    }
    ExpectRefused(FieldOf(kWrapped), Seq(Tlv(0xA2, 7, Int(7)), Bool(true)), PELNIC_ERR_ASN_LENGTH);
}

struct WrappedOctets {
    PELNIC_ASN_OCTS* octets;
    PELNIC_ASN_BIGINT number;
};
constexpr PELNIC_ASN1_TEMPLATE kWrappedOctetsRows[] = {
    PNV_FIELD(WrappedOctets, octets, PNV_EXPLICIT(0), PELNIC_ASN_OCTS_item),
    PNV_FIELD(WrappedOctets, number, PNV_EXPLICIT(1), PELNIC_ASN_BIGINT_item, PNV_OPTIONAL),
};
constexpr PELNIC_ASN1_ITEM kWrappedOctets = SequenceItem<WrappedOctets>(kWrappedOctetsRows);

TEST_F(SequenceKind, HasExplicitOctetsAndBigIntegers)
{
    Decoding decoding(vrf_, FieldOf(kWrappedOctets), Seq(Ctx(0, Octets({'a'})), Ctx(1, Int({0x00, 0x80}))));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(Encoding(*decoding.As<WrappedOctets>().octets), Octets({'a'}));
    EXPECT_EQ(Content(decoding.As<WrappedOctets>().number), Bytes{0x80});
}

TEST_F(SequenceKind, RefusesAnOptionalFieldWhoseTagCannotBeRead)
{
    ExpectRefused(FieldOf(kOptions), Seq(Bytes{0x1F, 0x20, 0x00}), PELNIC_ERR_ASN_TAG);
    ExpectLogged(PELNIC_ERR_FAILED, "");
}

TEST_F(SequenceKind, AnAbsentFieldIsNull)
{
    PELNIC_ASN_INT other = 0;
    Options record{&other, 0};
    PNV_UINT32 octets = 0xA5A5A5A5;
    Cursor input(Bool(true));
    EXPECT_EQ(_pnvDecSeqValue(vrf_, input, &record, &octets, &kOptionRows[0]), 0u);
    EXPECT_EQ(record.number, nullptr);
    EXPECT_EQ(octets, 0u);
    EXPECT_EQ(input.Moved(), 0u);
}

TEST_F(SequenceKind, AFieldsOctetsIncludeItsExplicitHeader)
{
    constexpr PELNIC_ASN1_TEMPLATE row = PNV_FIELD(Tree, version, PNV_EXPLICIT(0), PELNIC_ASN_INT_item);
    Tree record{};
    PNV_UINT32 octets = 0xA5A5A5A5;
    Cursor input(Ctx(0, Int(7)));
    EXPECT_EQ(_pnvDecSeqValue(vrf_, input, &record, &octets, &row), 0u);
    EXPECT_EQ(record.version, 7);
    EXPECT_EQ(octets, 5u);
    EXPECT_EQ(_pnvDecSeqValue(vrf_, input, nullptr, &octets, &row), PELNIC_ERR_NULL_POINTER);
}

// Recognised by the tag of an INTEGER and decoded by its own.
TEST_F(SequenceKind, AnUntaggedOptionalEnumeratedIsNeverFound)
{
    struct Record {
        PELNIC_ASN_ENUM* reason;
        PELNIC_ASN_BOOL flag;
    };
    static constexpr PELNIC_ASN1_TEMPLATE rows[] = {
        PNV_FIELD(Record, reason, PNV_UNTAGGED, PELNIC_ASN_ENUM_item, PNV_OPTIONAL),
        PNV_FIELD(Record, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item, PNV_DEFAULT),
    };
    constexpr PELNIC_ASN1_ITEM item = SequenceItem<Record>(rows);
    ExpectRefused(FieldOf(item), Seq(Int(1)), PELNIC_ERR_ASN_TAG);
    Decoding decoding(vrf_, FieldOf(item), Seq(Enum(1)));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(decoding.As<Record>().reason, nullptr);
    EXPECT_EQ(decoding.Consumed(), 3u) << "the header and one octet left over";
}

// ---- SEQUENCE: fields that keep the encoding of the next one ----

TEST_F(SequenceKind, APeekedFieldIsDecodedAgain)
{
    struct Record {
        PELNIC_ASN_OCTS* encoding;
        PELNIC_ASN_OCTS link;
        PELNIC_ASN_OCTS* retagged;
        ASN1_TEST_LEAVES leaves;
    };
    static constexpr PELNIC_ASN1_TEMPLATE rows[] = {
        PNV_PEEK(Record, encoding),
        PNV_FIELD(Record, link, PNV_UNTAGGED, PELNIC_ASN_LINK_OCTS_item),
        PNV_PEEK_AS(Record, retagged, ASN1_TEST_LEAVES_item),
        PNV_FIELD(Record, leaves, PNV_IMPLICIT(0), ASN1_TEST_LEAVES_item),
    };
    constexpr PELNIC_ASN1_ITEM item = SequenceItem<Record>(rows);
    const Bytes leaf = Leaf(1, Text("leaf"));
    Decoding decoding(vrf_, FieldOf(item), Seq(Ctx(0, leaf)));
    ASSERT_EQ(decoding.Code(), 0u);
    const Record& record = decoding.As<Record>();
    EXPECT_EQ(Content(*record.encoding), Ctx(0, leaf));
    EXPECT_EQ(record.link.octs, decoding.Input().At(4)) << "behind both headers";
    EXPECT_EQ(Content(*record.retagged), Set(leaf));
    EXPECT_EQ(Elements(record.leaves.list), leaf);
}

TEST_F(SequenceKind, AnEncodingIsCopiedWhenItIsDecoded)
{
    struct Record {
        PELNIC_ASN_OCTS* encoding;
        ASN1_TEST_LEAF* leaf;
    };
    static constexpr PELNIC_ASN1_TEMPLATE rows[] = {
        PNV_PEEK(Record, encoding),
        PNV_FIELD(Record, leaf, PNV_UNTAGGED, ASN1_TEST_LEAF_item),
    };
    constexpr PELNIC_ASN1_ITEM item = SequenceItem<Record>(rows);
    ExpectRefused(FieldOf(item), Seq(Seq(Null())), PELNIC_ERR_ASN_TAG);
    EXPECT_EQ(vrf_.Plan().Count(Call::Memcpy), 0u) << "what is no leaf is not copied";
    ExpectRefused(FieldOf(item), Seq(Seq()), PELNIC_ERR_ASN_PEEK_OCTS);
    ExpectRefused(FieldOf(item), Seq(Bytes{0x30, 0x05}), PELNIC_ERR_ASN_PEEK_OCTS);

    const Bytes leaf = Leaf(1, Text("leaf"));
    Decoding decoding(vrf_, FieldOf(item), Seq(leaf));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(Content(*decoding.As<Record>().encoding), leaf);
    EXPECT_EQ(decoding.As<Record>().leaf->number, 1);
    EXPECT_EQ(decoding.Consumed(), Seq(leaf).size());
}

// ---- SET OF and SEQUENCE OF ----

using SetOfKind = Constructed;

TEST_F(SetOfKind, IsRefusedWithoutATrace)
{
    ExpectUsualRefusals(kLeaves, Set(Cat(Leaves(6))));
}

TEST_F(SetOfKind, RefusesTheEndWithItsOwnCode)
{
    ExpectRefused(kLeaves, {}, PELNIC_ERR_ASN_SETOF);
}

TEST_F(SetOfKind, KeepsItsElementsInTheirOrder)
{
    const Bytes content = Cat(Leaf(3, Text("c")), Leaf(1, Text("a")), Leaf(1, Text("a")), Leaf(2, {}));
    Decoding decoding(vrf_, kLeaves, Cat(Set(content), Null()));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(Elements(decoding.As<ASN1_TEST_LEAVES>().list), content);
    EXPECT_EQ(decoding.Consumed(), Set(content).size());
    EXPECT_EQ(decoding.Input().Moved(), Set(content).size());
}

TEST_F(SetOfKind, WithoutElementsIsAnEmptyList)
{
    Decoding decoding(vrf_, kLeaves, Set());
    ASSERT_EQ(decoding.Code(), 0u);
    const LIST_TYPE_ASN1_TEST_LEAF& list = decoding.As<ASN1_TEST_LEAVES>().list;
    EXPECT_EQ(list.num, 0u);
    EXPECT_EQ(list.capacity, 5u);
    EXPECT_EQ(decoding.Consumed(), 2u);
}

TEST_F(SetOfKind, GrowsOnceForSevenElements)
{
    for (const auto& [count, capacity] : {std::pair(5, 5u), std::pair(7, 10u), std::pair(21, 40u)}) {
        Decoding decoding(vrf_, kLeaves, Set(Cat(Leaves(count))));
        ASSERT_EQ(decoding.Code(), 0u);
        const LIST_TYPE_ASN1_TEST_LEAF& list = decoding.As<ASN1_TEST_LEAVES>().list;
        EXPECT_EQ(list.num, static_cast<PNV_UINT32>(count));
        EXPECT_EQ(list.capacity, capacity);
        EXPECT_EQ(Elements(list), Cat(Leaves(count)));
    }
}

TEST_F(SetOfKind, FreedIsAnEmptyListWithoutAnArray)
{
    Decoding decoding(vrf_, kLeaves, Set(Leaf(1, {})));
    decoding.Free();
    const LIST_TYPE_ASN1_TEST_LEAF& list = decoding.As<ASN1_TEST_LEAVES>().list;
    EXPECT_EQ(list.num, 0u);
    EXPECT_EQ(list.capacity, 0u);
    EXPECT_EQ(list.data, nullptr);
}

TEST_F(SetOfKind, OfZerosIsFreed)
{
    ASN1_TEST_LEAVES leaves{};
    pelnic_free_setof(vrf_, &leaves, &kLeaves);
    EXPECT_EQ(leaves.list.data, nullptr);
}

TEST_F(SetOfKind, RefusesAnElementWithItsOwnCode)
{
    ExpectRefused(kLeaves, Set(Leaf(1, {}), Int(1)), PELNIC_ERR_ASN_SETOF);
    ExpectRefused(kLeaves, Set(Leaf(1, {}), Seq()), PELNIC_ERR_ASN_SETOF);
    ExpectRefused(kLeaves, Set(Leaf(1, {}), Bytes{0x30}), PELNIC_ERR_ASN_SETOF);
}

TEST_F(SetOfKind, HasItsOwnCodeWithoutMemory)
{
    vrf_.Plan().Fail(Call::Malloc, 1);
    ExpectRefused(kLeaves, Set(Leaf(1, {})), PELNIC_ERR_ASN_SETOF);
}

TEST_F(SetOfKind, AddsOneElement)
{
    ASN1_TEST_LEAVES leaves{};
    PNV_UINT32 octets = 0;
    Cursor input(Leaf(1, Text("text")));
    const PELNIC_ASN1_TEMPLATE& row = ASN1_TEST_LEAVES_templ[0];
    EXPECT_EQ(_pnv_dec_seq_elem(vrf_, input, _pnvAsList(&leaves.list), &octets, &row), 0u);
    EXPECT_EQ(octets, input.Moved());
    EXPECT_EQ(Elements(leaves.list), Leaf(1, Text("text")));
    Cursor another(Leaf(2, {}));
    EXPECT_NE(_pnv_dec_seq_elem(nullptr, another, _pnvAsList(&leaves.list), &octets, &row), 0u);
    Cursor bad(Seq(Int(1)));
    EXPECT_EQ(_pnv_dec_seq_elem(vrf_, bad, _pnvAsList(&leaves.list), &octets, &row), PELNIC_ERR_ASN_SEQ);
    EXPECT_EQ(leaves.list.num, 1u);
    pelnic_free_setof(vrf_, &leaves, &kLeaves);
}

TEST_F(SetOfKind, RefusesElementsThatReachBeyondIt)
{
    const Bytes content = Cat(Leaves(2));
    for (std::size_t claimed = 1; claimed < content.size(); ++claimed) {
        if (claimed == content.size() / 2) continue; // the first of the two
        ExpectRefused(kLeaves, Tlv(0x31, claimed, content), PELNIC_ERR_ASN_SETOF);
    }
}

TEST_F(SetOfKind, AnImplicitTagReplacesItsOwn)
{
    const PELNIC_ASN1_TEMPLATE field = FieldOf(ASN1_TEST_LEAVES_item, PNV_IMPLICIT(1));
    ExpectTaken(field, Ctx(1, Leaf(1, {})));
    ExpectUsualRefusals(field, Ctx(1, Leaf(1, {})));
}

TEST_F(SetOfKind, TakesContentWhoseHeaderWasConsumed)
{
    const Bytes content = Cat(Leaves(3));
    Decoding decoding(vrf_, FieldOf(ASN1_TEST_LEAVES_item, kContentOnly), content, Len(content));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(Elements(decoding.As<ASN1_TEST_LEAVES>().list), content);
    EXPECT_EQ(decoding.Consumed(), content.size());
}

// A list of octets, of any tag, with what a test changes in its row and its item.
class OctetsListKind : public Asn1Test {
protected:
    struct Record {
        void* before;
        LIST_TYPE_PELNIC_ASN_OCTS list;
    };

    PELNIC_ASN1_TEMPLATE rows_[2] = {PNV_ELEMENTS(Record, list, PELNIC_ASN_OCTS_item, 3), {}};
    PELNIC_ASN1_ITEM item_{rows_, &g_pnvAsnFuncSetOf, CBC_UNIV, CBF_CONS, CBT_SEQUENCES, 1, sizeof(Record)};
    const PELNIC_ASN1_TEMPLATE field_ = FieldOf(item_);
};

TEST_F(OctetsListKind, HasTheCapacityOfItsRow)
{
    for (const auto& [capacity, expected] : {std::pair(1u, 4u), std::pair(3u, 3u), std::pair(0u, 5u)}) {
        rows_[0].pDefaultVal = reinterpret_cast<const void*>(uintptr_t{capacity});
        Decoding decoding(vrf_, field_, Seq(Int(1), Octets({'a'}), Null()));
        ASSERT_EQ(decoding.Code(), 0u);
        const LIST_TYPE_PELNIC_ASN_OCTS& list = decoding.As<Record>().list;
        ASSERT_EQ(list.num, 3u);
        EXPECT_EQ(list.capacity, expected);
        EXPECT_EQ(Encoding(*list.data[1]), Octets({'a'}));
        EXPECT_EQ(decoding.As<Record>().before, nullptr);
    }
}

TEST_F(OctetsListKind, MayOwnItsList)
{
    rows_[0].flag = PNV_FLAG_POINTER;
    rows_[0].offset_val = offsetof(Record, before);
    Decoding decoding(vrf_, field_, Seq(Int(1), Octets({'a'})));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(static_cast<LIST_TYPE_PELNIC_ASN_OCTS*>(decoding.As<Record>().before)->num, 2u);
    decoding.Free();
    EXPECT_EQ(decoding.As<Record>().before, nullptr);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

TEST_F(OctetsListKind, GivesBackAnOwnedListWhenAnElementFails)
{
    rows_[0].flag = PNV_FLAG_POINTER;
    rows_[0].offset_val = offsetof(Record, before);
    ExpectRefused(field_, Seq(Octets({'a'}), Int({0x00})), PELNIC_ERR_ASN_SETOF);
}

TEST_F(OctetsListKind, HasItsOwnCodeWithoutMemoryForAnOwnedList)
{
    rows_[0].flag = PNV_FLAG_POINTER;
    rows_[0].offset_val = offsetof(Record, before);
    vrf_.Plan().Fail(Call::Malloc, 1);
    ExpectRefused(field_, Seq(Octets({'a'})), PELNIC_ERR_ASN_SETOF);
}

TEST_F(OctetsListKind, RefusesElementsThatConsumeNothing)
{
    rows_[0].asn1_item = &PELNIC_ASN_PEEK_OCTS_item;
    ExpectRefused(field_, Seq(Int(1)), PELNIC_ERR_ASN_SETOF);
}

TEST_F(OctetsListKind, OfNullIsNotFreed)
{
    pelnic_free_setof(vrf_, nullptr, &field_);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

TEST_F(OctetsListKind, HasExactlyOneRow)
{
    for (PNV_UINT32 count : {0u, 2u}) {
        item_.templ_count = count;
        ExpectRefused(field_, Seq(Int(1)), PELNIC_ERR_NULL_POINTER);
    }
}

// ---- CHOICE ----

class ChoiceKind : public Constructed {
protected:
    enum Alternative : PNV_UINT32 { kLeafChosen, kNumberChosen, kTextChosen, kBitsChosen };

    static void ExpectChosen(const Decoding& decoding, const ASN1_TEST_SELECTION& selection, PNV_UINT32 index,
                             const Bytes& element)
    {
        ASSERT_EQ(decoding.Code(), 0u);
        EXPECT_EQ(selection.index, index);
        EXPECT_EQ(decoding.Consumed(), element.size());
        EXPECT_EQ(decoding.Input().Moved(), element.size());
    }
};

TEST_F(ChoiceKind, HasItsOwnCodeForATagThatCannotBeRead)
{
    ExpectRefused(kSelection, {0x1F, 0x20, 0x00}, PELNIC_ERR_ASN_CHOICE);
    ExpectLogged(PELNIC_ERR_FAILED, "");
}

TEST_F(ChoiceKind, DecodesTheAlternativeThatItsTagChooses)
{
    const Bytes leaf = Ctx(1, Leaf(5, Text("leaf")));
    Decoding explicitLeaf(vrf_, kSelection, leaf);
    const auto& ofLeaf = explicitLeaf.As<ASN1_TEST_SELECTION>();
    ExpectChosen(explicitLeaf, ofLeaf, kLeafChosen, leaf);
    EXPECT_EQ(Encoding(*ofLeaf.value.leaf), Leaf(5, Text("leaf")));

    const Bytes text = CtxPrim(2, {'a', 'b'});
    Decoding implicitText(vrf_, kSelection, text);
    const auto& ofText = implicitText.As<ASN1_TEST_SELECTION>();
    ExpectChosen(implicitText, ofText, kTextChosen, text);
    EXPECT_EQ(Encoding(*ofText.value.text), text);

    Decoding bits(vrf_, kSelection, Bits(0, {0x5A}));
    const auto& ofBits = bits.As<ASN1_TEST_SELECTION>();
    ExpectChosen(bits, ofBits, kBitsChosen, Bits(0, {0x5A}));
    EXPECT_EQ(Content(ofBits.value.bits), Bytes{0x5A});
}

TEST_F(ChoiceKind, TakesTheFirstOfTwoThatFit)
{
    Decoding decoding(vrf_, kSelection, Int(300));
    ExpectChosen(decoding, decoding.As<ASN1_TEST_SELECTION>(), kNumberChosen, Int(300));
    EXPECT_EQ(decoding.As<ASN1_TEST_SELECTION>().value.number, 300);
}

TEST_F(ChoiceKind, RefusesATagOfNoAlternative)
{
    for (const Bytes& element : {Bool(true), Ctx(0, Leaf(5, {})), CtxPrim(1, Leaf(5, {})), CtxPrim(3, {'a'}), Seq()}) {
        ExpectRefused(kSelection, element, PELNIC_ERR_ASN_CHOICE);
    }
}

TEST_F(ChoiceKind, RefusesTheEndWithItsOwnCode)
{
    ExpectRefused(kSelection, {}, PELNIC_ERR_ASN_CHOICE);
}

TEST_F(ChoiceKind, IsRefusedCutAtEveryLength)
{
    ExpectRefusedWhenCut(kSelection, Ctx(1, Leaf(5, Text("leaf"))));
    ExpectRefusedWhenCut(kSelection, CtxPrim(2, {'a', 'b'}));
    ExpectRefusedWhenCut(kSelection, Bits(0, {0x5A}));
}

TEST_F(ChoiceKind, RefusesAnAlternativeWithItsOwnCodeAndIsNullThen)
{
    for (const Bytes& element : {Ctx(1, Seq(Int(5))), Ctx(1, Int(5)), Ctx(1), Bytes{0xA1, 0x80}, Tlv(0x82, 5, {'a'})}) {
        Decoding decoding(vrf_, kSelection, element);
        EXPECT_EQ(decoding.Code(), PELNIC_ERR_ASN_CHOICE);
        EXPECT_EQ(decoding.As<ASN1_TEST_SELECTION>().value.leaf, nullptr);
        ExpectRefused(decoding);
    }
    ExpectRefused(kSelection, Int({}), PELNIC_ERR_ASN_CHOICE);
}

TEST_F(ChoiceKind, FreedIsNull)
{
    Decoding decoding(vrf_, kSelection, Ctx(1, Leaf(5, Text("leaf"))));
    decoding.Free();
    EXPECT_EQ(decoding.As<ASN1_TEST_SELECTION>().value.leaf, nullptr);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

TEST_F(ChoiceKind, OfZerosIsFreedWithoutACall)
{
    ASN1_TEST_SELECTION selection{};
    pelnic_free_choice(vrf_, &selection, &kSelection);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

TEST_F(ChoiceKind, WithAnIndexBeyondItsRowsIsNotFreed)
{
    Decoding decoding(vrf_, kSelection, Ctx(1, Leaf(5, Text("leaf"))));
    PNV_UINT32& index = decoding.As<ASN1_TEST_SELECTION>().index;
    for (PNV_UINT32 beyond : {PNV_UINT32{std::size(ASN1_TEST_SELECTION_templ)}, 0x80000000u, 0xFFFFFFFFu}) {
        index = beyond;
        decoding.Free();
    }
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
    index = kLeafChosen;
}

TEST_F(ChoiceKind, MayBeAnAlternativeOfAnother)
{
    static constexpr PELNIC_ASN1_TEMPLATE rows[] = {FieldOf(PELNIC_ASN_BOOL_item),
                                                    FieldOf(ASN1_TEST_SELECTION_item, PNV_UNTAGGED, PNV_FLAG_POINTER)};
    constexpr PELNIC_ASN1_ITEM item = ChoiceItem<PELNIC_ASN_CHOICE>(rows);
    const Bytes element = Ctx(1, Leaf(5, Text("leaf")));
    Decoding decoding(vrf_, FieldOf(item), element);
    ASSERT_EQ(decoding.Code(), 0u);
    const PELNIC_ASN_CHOICE& choice = decoding.As<PELNIC_ASN_CHOICE>();
    EXPECT_EQ(choice.index, 1u);
    EXPECT_EQ(Encoding(*static_cast<ASN1_TEST_SELECTION*>(choice.value.pRecord)->value.leaf), Leaf(5, Text("leaf")));
}

TEST_F(ChoiceKind, MayBeAbsentFromASequence)
{
    struct Record {
        ASN1_TEST_SELECTION* selection;
        PELNIC_ASN_BOOL flag;
    };
    static constexpr PELNIC_ASN1_TEMPLATE rows[] = {
        PNV_FIELD(Record, selection, PNV_UNTAGGED, ASN1_TEST_SELECTION_item, PNV_OPTIONAL),
        PNV_FIELD(Record, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item, PNV_DEFAULT),
    };
    constexpr PELNIC_ASN1_ITEM item = SequenceItem<Record>(rows);
    Decoding absent(vrf_, FieldOf(item), Seq(Bool(true)));
    EXPECT_EQ(absent.Code(), 0u);
    EXPECT_EQ(absent.As<Record>().selection, nullptr);
    Decoding present(vrf_, FieldOf(item), Seq(Int(7), Bool(true)));
    ASSERT_EQ(present.Code(), 0u);
    EXPECT_EQ(present.As<Record>().selection->value.number, 7);
}

// ---- ANY ----

constexpr const char* kNoTemplate = "map template not found.";

// SEQUENCE { type OBJECT IDENTIFIER, value ANY DEFINED BY type, flag BOOLEAN DEFAULT FALSE }
class AnyKind : public Constructed {
protected:
    struct Record {
        PELNIC_ASN_OID type;
        void* value;
        PELNIC_ASN_BOOL flag;
    };

    void Tag(Tagging tagging)
    {
        value_.tagType = tagging.tagType;
        value_.tagCode = tagging.tagCode;
    }
    static const ASN1_TEST_SELECTION& SelectionIn(Decoding& decoding)
    {
        return *static_cast<ASN1_TEST_SELECTION*>(decoding.As<Record>().value);
    }
    void ExpectNumber(const Bytes& element, int number)
    {
        Decoding decoding(vrf_, field_, element);
        ASSERT_EQ(decoding.Code(), 0u);
        EXPECT_EQ(*static_cast<PELNIC_ASN_INT*>(decoding.As<Record>().value), number);
        EXPECT_EQ(decoding.Consumed(), element.size());
    }
    void ExpectLeaf(const Bytes& element, const Bytes& leaf)
    {
        Decoding decoding(vrf_, field_, element);
        ASSERT_EQ(decoding.Code(), 0u);
        EXPECT_EQ(Encoding(*static_cast<ASN1_TEST_LEAF*>(decoding.As<Record>().value)), leaf);
        EXPECT_EQ(decoding.Consumed(), element.size());
    }
    void ExpectAbsent(const Bytes& element)
    {
        Decoding decoding(vrf_, field_, element);
        ASSERT_EQ(decoding.Code(), 0u);
        EXPECT_EQ(decoding.As<Record>().value, nullptr);
        EXPECT_EQ(decoding.As<Record>().flag, 1);
    }

    PELNIC_ASN1_TEMPLATE rows_[3] = {
        PNV_FIELD(Record, type, PNV_UNTAGGED, PELNIC_ASN_OCTS_item),
        PNV_ANY_DEFINED_BY(Record, value, PNV_UNTAGGED, ASN1_TEST_VALUE_item, type),
        PNV_FIELD(Record, flag, PNV_UNTAGGED, PELNIC_ASN_BOOL_item, PNV_DEFAULT),
    };
    PELNIC_ASN1_TEMPLATE& value_ = rows_[1];
    PELNIC_ASN1_ITEM item_ = SequenceItem<Record>(rows_);
    const PELNIC_ASN1_TEMPLATE field_ = FieldOf(item_);

    const Bytes asNumber_ = Oid(oid::commonName);
    const Bytes asLeaf_ = Oid(oid::countryName);
    const Bytes asSelection_ = Oid(oid::localityName);
    const Bytes leaf_ = Leaf(5, Text("leaf"));
};

TEST_F(AnyKind, HasTheTypeThatTheOidSelects)
{
    ExpectNumber(Seq(asNumber_, Int(300)), 300);
    ExpectLeaf(Seq(asLeaf_, leaf_, Bool(true)), leaf_);
    Decoding decoding(vrf_, field_, Seq(asSelection_, Int(7)));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(SelectionIn(decoding).value.number, 7);
}

TEST_F(AnyKind, IsRefusedWithoutATrace)
{
    ExpectUsualRefusals(field_, Seq(asLeaf_, leaf_));
}

TEST_F(AnyKind, TakesTheFirstEntryOfAnOid)
{
    ExpectRefused(field_, Seq(asNumber_, Bool(true)), PELNIC_ERR_ASN_TAG);
}

TEST_F(AnyKind, RefusesAnOidOfNoEntry)
{
    ExpectRefused(field_, Seq(Oid(oid::keyUsage), Int(1)), PELNIC_ERR_ASN_ANY);
    ExpectLogged(PELNIC_ERR_ASN_ANY, kNoTemplate);
    ExpectRefused(field_, Seq(Oid(oid::testPolicy), Int(1)), PELNIC_ERR_ASN_ANY);
    ExpectLogged(PELNIC_ERR_ASN_ANY, kNoTemplate);
}

TEST_F(AnyKind, ComparesTheTagOfTheSelectorToo)
{
    ExpectRefused(field_, Seq(Octets(Content(asNumber_, {})), Int(1)), PELNIC_ERR_ASN_ANY);
    ExpectLogged(PELNIC_ERR_ASN_ANY, kNoTemplate);
}

TEST_F(AnyKind, AnUnknownIdEndsTheSearch)
{
    constexpr PELNIC_ASN1_ANY_MAP map[] = {{AOID_AT_COUNTRYNAME, &ASN1_TEST_ANY_LEAF_templ},
                                           {AOID_ECDSA, &ASN1_TEST_FLAG_templ}, // not in the table of OIDs
                                           {AOID_AT_COMMONNAME, &ASN1_TEST_NUMBER_templ}};
    const PELNIC_ASN1_ITEM any = AnyItem(map);
    value_.asn1_item = &any;
    ExpectLeaf(Seq(asLeaf_, leaf_), leaf_);
    ExpectRefused(field_, Seq(asNumber_, Int(1)), PELNIC_ERR_ASN_ANY);
    ExpectLogged(PELNIC_ERR_ASN_ANY, kNoTemplate);
}

TEST_F(AnyKind, HasTheTypeThatTheLengthOfTheSelectorSelects)
{
    constexpr PELNIC_ASN1_ANY_MAP map[] = {{4, &ASN1_TEST_NUMBER_templ},
                                           {16, &ASN1_TEST_ANY_LEAF_templ},
                                           {0, &ASN1_TEST_FLAG_templ},
                                           {4, &ASN1_TEST_FLAG_templ}};
    const PELNIC_ASN1_ITEM any = AnyItem(map);
    value_.asn1_item = &any;
    value_.flag = PNV_FLAG_ANY_NUMBER;
    ExpectNumber(Seq(Octets(Bytes(4, 0x5A)), Int(300)), 300);
    ExpectLeaf(Seq(Octets(Bytes(16, 0x5A)), leaf_), leaf_);
    const Decoding empty(vrf_, field_, Seq(Octets({}), Bool(true)));
    EXPECT_EQ(empty.Code(), 0u);
}

TEST_F(AnyKind, RefusesALengthOfNoEntry)
{
    value_.flag = PNV_FLAG_ANY_NUMBER;
    ExpectRefused(field_, Seq(asNumber_, Int(1)), PELNIC_ERR_ASN_ANY);
    ExpectLogged(PELNIC_ERR_ASN_ANY, kNoTemplate);
}

TEST_F(AnyKind, TakesAnExplicitTag)
{
    Tag(PNV_EXPLICIT(3));
    ExpectNumber(Seq(asNumber_, Ctx(3, Int(300))), 300);
    ExpectLeaf(Seq(asLeaf_, Ctx(3, leaf_)), leaf_);
    Decoding decoding(vrf_, field_, Seq(asSelection_, Ctx(3, Ctx(1, leaf_))));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(Encoding(*SelectionIn(decoding).value.leaf), leaf_);
}

TEST_F(AnyKind, TakesAnImplicitTag)
{
    Tag(PNV_IMPLICIT(3));
    ExpectNumber(Seq(asNumber_, CtxPrim(3, {0x07})), 7);
    ExpectLeaf(Seq(asLeaf_, Ctx(3, Content(leaf_, {}))), leaf_);
}

// X.680, 31.2.7: a CHOICE has no tag of its own that could be replaced.
TEST_F(AnyKind, AnImplicitTagOfAChoiceIsExplicit)
{
    Tag(PNV_IMPLICIT(3));
    Decoding decoding(vrf_, field_, Seq(asSelection_, Ctx(3, Int(7))));
    ASSERT_EQ(decoding.Code(), 0u);
    EXPECT_EQ(SelectionIn(decoding).value.number, 7);
}

TEST_F(AnyKind, IsRefusedByTheTypeThatItHas)
{
    ExpectRefused(field_, Seq(asNumber_, Octets({0x01})), PELNIC_ERR_ASN_TAG);
    ExpectRefused(field_, Seq(asNumber_, Int(Bytes(5, 0x01))), PELNIC_ERR_ASN_INT);
    ExpectRefused(field_, Seq(asLeaf_, Seq(Int(1))), PELNIC_ERR_ASN_SEQ);
    ExpectRefused(field_, Seq(asSelection_, Bool(true)), PELNIC_ERR_ASN_CHOICE);
    Tag(PNV_IMPLICIT(3));
    ExpectRefused(field_, Seq(asNumber_, CtxPrim(4, {0x01})), PELNIC_ERR_ASN_TAG);
    ExpectRefused(field_, Seq(asNumber_, Int(1)), PELNIC_ERR_ASN_TAG);
    Tag(PNV_EXPLICIT(3));
    ExpectRefused(field_, Seq(asNumber_, Ctx(3, Octets({0x01}))), PELNIC_ERR_ASN_TAG);
    ExpectRefused(field_, Seq(asNumber_, Bytes{0xA3, 0x80}), PELNIC_ERR_ASN_LENGTH);
}

// A required field is judged by the tag inside alone.
TEST_F(AnyKind, DoesNotLookAtTheExplicitTagThatItSkips)
{
    Tag(PNV_EXPLICIT(3));
    ExpectNumber(Seq(asNumber_, Ctx(4, Int(7))), 7);
}

TEST_F(AnyKind, MayNotBeMissing)
{
    ExpectRefused(field_, Seq(asNumber_), PELNIC_ERR_ASN_SEQ);
    ExpectRefused(field_, Seq(asNumber_, Bool(true)), PELNIC_ERR_ASN_TAG);
}

TEST_F(AnyKind, MayBeAbsentWhenOptional)
{
    value_.flag |= PNV_FLAG_OPTIONAL;
    ExpectAbsent(Seq(asNumber_, Bool(true)));
    ExpectAbsent(Seq(asLeaf_, Bool(true)));
    const Decoding last(vrf_, field_, Seq(asNumber_));
    EXPECT_EQ(last.Code(), 0u);
    ExpectNumber(Seq(asNumber_, Int(7)), 7);
}

TEST_F(AnyKind, MayBeAbsentWhenOptionalAndTagged)
{
    value_.flag |= PNV_FLAG_OPTIONAL;
    for (Tagging tagging : {PNV_IMPLICIT(3), PNV_EXPLICIT(3)}) {
        Tag(tagging);
        ExpectAbsent(Seq(asNumber_, Bool(true)));
        ExpectAbsent(Seq(asSelection_, Bool(true)));
    }
    ExpectNumber(Seq(asNumber_, Ctx(3, Int(7))), 7);
    Tag(PNV_IMPLICIT(3));
    ExpectNumber(Seq(asNumber_, CtxPrim(3, {0x07})), 7);
}

TEST_F(AnyKind, IsNotAbsentForATagThatCannotBeRead)
{
    value_.flag |= PNV_FLAG_OPTIONAL;
    const Bytes content = Cat(asNumber_, Bytes{0x1F, 0x20, 0x00});
    item_.templ_count = 2; // nothing behind it that could refuse the tag
    ExpectRefused(Decoding(vrf_, FieldOf(item_, kContentOnly), content, Len(content)));
    ExpectLogged(PELNIC_ERR_FAILED, "");
}

TEST_F(AnyKind, OptionalIsRefusedByTheTypeThatItHas)
{
    value_.flag |= PNV_FLAG_OPTIONAL;
    ExpectRefused(field_, Seq(asNumber_, Int({})), PELNIC_ERR_ASN_INT);
}

TEST_F(AnyKind, RefusesTheEndWithItsOwnCode)
{
    Record record{};
    PNV_UINT32 octets = 0;
    Cursor input({});
    EXPECT_EQ(pelnic_dec_any(vrf_, input, &record, &octets, &value_), PELNIC_ERR_ASN_ANY);
    EXPECT_EQ(record.value, nullptr);
}

TEST_F(AnyKind, HasItsOwnCodeWithoutMemory)
{
    vrf_.Plan().Fail(Call::Malloc, 2); // the first is for the selector
    ExpectRefused(field_, Seq(asNumber_, Int(1)), PELNIC_ERR_ASN_ANY);
}

TEST_F(AnyKind, WhoseSelectorHasGoneIsReleasedAlone)
{
    Decoding decoding(vrf_, field_, Seq(asNumber_, Int(1)));
    Record& record = decoding.As<Record>();
    record.type.tag.code = CBT_EOC;
    pelnic_free_any(vrf_, &record, &value_);
    EXPECT_EQ(record.value, nullptr);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 1u) << "the selector";
}

TEST_F(AnyKind, OfNullIsNotFreed)
{
    pelnic_free_any(vrf_, nullptr, &value_);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

TEST_F(AnyKind, FreedIsNull)
{
    Decoding decoding(vrf_, field_, Seq(asLeaf_, leaf_));
    pelnic_free_any(vrf_, &decoding.As<Record>(), &value_);
    EXPECT_EQ(decoding.As<Record>().value, nullptr);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 1u) << "the selector";
}

TEST_F(AnyKind, FindsTheTemplateOfItsSelector)
{
    Decoding decoding(vrf_, field_, Seq(asLeaf_, leaf_));
    EXPECT_EQ(_pnvFindTemplateFromAnyMap(vrf_, &decoding.As<Record>(), &value_), &ASN1_TEST_ANY_LEAF_templ);
    const Record zeros{};
    EXPECT_EQ(_pnvFindTemplateFromAnyMap(vrf_, &zeros, &value_), nullptr);
}

TEST_F(AnyKind, PassesItsTagOn)
{
    Tag(PNV_IMPLICIT(9));
    const PELNIC_ASN1_TEMPLATE leaf = _pnvAdaptTagOfAnyTempl(&value_, &ASN1_TEST_ANY_LEAF_templ);
    EXPECT_EQ(leaf.tagType, PNV_TAG_IMPLICIT);
    EXPECT_EQ(leaf.tagCode, 9u);
    EXPECT_EQ(leaf.asn1_item, &ASN1_TEST_LEAF_item);
    const PELNIC_ASN1_TEMPLATE choice = _pnvAdaptTagOfAnyTempl(&value_, &ASN1_TEST_ANY_SELECTION_templ);
    EXPECT_EQ(choice.tagType, PNV_TAG_EXPLICIT);
    EXPECT_EQ(choice.tagCode, 9u);
    Tag(PNV_EXPLICIT(8));
    EXPECT_EQ(_pnvAdaptTagOfAnyTempl(&value_, &ASN1_TEST_ANY_LEAF_templ).tagType, PNV_TAG_EXPLICIT);
    EXPECT_EQ(_pnvAdaptTagOfAnyTempl(&value_, &ASN1_TEST_ANY_LEAF_templ).tagCode, 8u);
}

// ---- The entry points ----

class AsnDecode : public Asn1Test {
protected:
    static constexpr PNV_UINT32 kUntouched = 0xA5A5A5A5;

    PELNIC_ERROR_CODE Decode(const PELNIC_ASN1_ITEM& item, const PNV_BYTE* octets, PNV_UINT32 length, PNV_BYTE flag = 0)
    {
        record_ = &mark_;
        octets_ = kUntouched;
        return pelnic_asn_decode(vrf_, octets, length, &item, flag, &record_, &octets_);
    }
    PELNIC_ERROR_CODE Decode(const PELNIC_ASN1_ITEM& item, const Bytes& octets, PNV_BYTE flag = 0)
    {
        const ExactHeap input(octets);
        return Decode(item, input.data(), Len(octets), flag);
    }
    void ExpectUntouched(PNV_UINT32 octets = kUntouched)
    {
        EXPECT_EQ(record_, &mark_);
        EXPECT_EQ(octets_, octets);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    }

    int mark_ = 0;
    void* record_ = &mark_;
    PNV_UINT32 octets_ = kUntouched;
    const Bytes leaf_ = Leaf(5, Text("leaf"));
};

TEST_F(AsnDecode, MakesARecord)
{
    ASSERT_EQ(Decode(ASN1_TEST_TREE_item, FullTree()), 0u);
    EXPECT_EQ(Encoding(*static_cast<Tree*>(record_)), FullTree());
    EXPECT_EQ(octets_, FullTree().size());
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_TREE_item, 0);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

TEST_F(AsnDecode, MakesARecordOfAPrimitiveToo)
{
    ASSERT_EQ(Decode(PELNIC_ASN_OCTS_item, Octets({'a'})), 0u);
    EXPECT_EQ(Encoding(*static_cast<PELNIC_ASN_OCTS*>(record_)), Octets({'a'}));
    pelnic_asn_free(vrf_, record_, &PELNIC_ASN_OCTS_item, 0);
    ASSERT_EQ(Decode(PELNIC_ASN_INT_item, Int(-2)), 0u);
    EXPECT_EQ(*static_cast<PELNIC_ASN_INT*>(record_), -2);
    pelnic_asn_free(vrf_, record_, &PELNIC_ASN_INT_item, 0);
}

TEST_F(AsnDecode, KnowsTheRecordOfAnItem)
{
    ASN1_TEST_LEAF* leaf = nullptr;
    ASSERT_EQ(_pnvDecode<ASN1_TEST_LEAF_item>(vrf_, leaf_.data(), Len(leaf_), 0, &leaf, &octets_), 0u);
    EXPECT_EQ(Encoding(*leaf), leaf_);
    pelnic_asn_free(vrf_, leaf, &ASN1_TEST_LEAF_item, 0);

    ASN1_TEST_LEAF other{};
    leaf = &other;
    EXPECT_EQ(_pnvDecode<ASN1_TEST_LEAF_item>(vrf_, leaf_.data(), 1, 0, &leaf, &octets_), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(leaf, &other);
}

TEST_F(AsnDecode, LeavesWhatFollows)
{
    ASSERT_EQ(Decode(ASN1_TEST_LEAF_item, Cat(leaf_, leaf_, Bytes{0xFF})), 0u);
    EXPECT_EQ(octets_, leaf_.size());
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_LEAF_item, 0);
}

TEST_F(AsnDecode, KeepsNothingOfItsInput)
{
    ExactHeap input(FullTree());
    ASSERT_EQ(Decode(ASN1_TEST_TREE_item, input.data(), Len(input)), 0u);
    std::memset(input.data(), 0xEE, input.size());
    EXPECT_EQ(Encoding(*static_cast<Tree*>(record_)), FullTree());
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_TREE_item, 0);
}

TEST_F(AsnDecode, HasOneCodeForAllFailures)
{
    for (const Bytes& octets : {Bytes{0x1F, 0x1F}, Bytes{0x30}, Seq(), Seq(Octets({'a'})), Seq(Int({}), Null()), Set(),
                                Seq(Int(1), Bytes{0x04, 0x80})}) {
        EXPECT_EQ(Decode(ASN1_TEST_LEAF_item, octets), PELNIC_ERR_ASN_DECODE);
        ExpectUntouched();
    }
    vrf_.Plan().ClearLogs(); // of the reader of tags
    EXPECT_EQ(Decode(ASN1_TEST_LEAVES_item, Set(Int(1))), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Decode(ASN1_TEST_SELECTION_item, Bool(true)), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Decode(PELNIC_ASN_BITS_item, Bits(9, {0x80})), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Decode(PELNIC_ASN_INT_item, Int(Bytes(5, 0x01))), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Decode(PELNIC_ASN_BOOL_item, Tlv(0x01, {0x00, 0x00})), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Decode(PELNIC_ASN_BIGINT_item, Int({0x00})), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Decode(PELNIC_ASN_PEEK_OCTS_item, Seq()), PELNIC_ERR_ASN_DECODE);
    ExpectUntouched();
}

TEST_F(AsnDecode, RefusesATreeCutAtEveryLength)
{
    ForEveryPrefix(FullTree(), [&](const ExactHeap& prefix) {
        SCOPED_TRACE(prefix.size());
        EXPECT_EQ(Decode(ASN1_TEST_TREE_item, prefix.data(), Len(prefix)),
                  prefix.size() == 0 ? PELNIC_ERR_NULL_POINTER : PELNIC_ERR_ASN_DECODE);
        ExpectUntouched();
    });
}

TEST_F(AsnDecode, RefusesNullAndNoLength)
{
    const PELNIC_ASN1_ITEM* item = &ASN1_TEST_LEAF_item;
    const PNV_BYTE* octets = leaf_.data();
    const PNV_UINT32 length = Len(leaf_);
    EXPECT_EQ(pelnic_asn_decode(nullptr, octets, length, item, 0, &record_, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_asn_decode(vrf_, nullptr, length, item, 0, &record_, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_asn_decode(vrf_, octets, 0, item, 0, &record_, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_asn_decode(vrf_, octets, length, nullptr, 0, &record_, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_asn_decode(vrf_, octets, length, item, 0, nullptr, &octets_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_asn_decode(vrf_, octets, length, item, 0, &record_, nullptr), PELNIC_ERR_NULL_POINTER);
    ExpectUntouched();
    EXPECT_EQ(vrf_.Plan().LargestRequest(), 0u);
}

// Beyond that a position is no signed number any more. Only the leaf at the start is there to be read.
TEST_F(AsnDecode, RefusesTwoGigabytes)
{
    const ExactHeap input(leaf_);
    for (PNV_UINT32 length : {0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Decode(ASN1_TEST_LEAF_item, input.data(), length), PELNIC_ERR_ASN_DECODE);
        ExpectUntouched();
    }
    ASSERT_EQ(Decode(ASN1_TEST_LEAF_item, input.data(), 0x7FFFFFFF), 0u);
    EXPECT_EQ(octets_, leaf_.size());
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_LEAF_item, 0);
}

constexpr PNV_BYTE kContentFlag = PNV_TAG_CONTENT_ONLY;

TEST_F(AsnDecode, TakesTheContentOfTheOutermostElement)
{
    ASSERT_EQ(Decode(ASN1_TEST_TREE_item, Content(FullTree(), {}), kContentFlag), 0u);
    EXPECT_EQ(Encoding(*static_cast<Tree*>(record_)), FullTree());
    EXPECT_EQ(octets_, Content(FullTree(), {}).size());
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_TREE_item, kContentFlag);

    ASSERT_EQ(Decode(ASN1_TEST_LEAVES_item, Cat(Leaves(3)), kContentFlag), 0u);
    EXPECT_EQ(Elements(static_cast<ASN1_TEST_LEAVES*>(record_)->list), Cat(Leaves(3)));
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_LEAVES_item, kContentFlag);

    ASSERT_EQ(Decode(PELNIC_ASN_BITS_item, {0x00, 0x5A}, kContentFlag), 0u);
    EXPECT_EQ(Content(*static_cast<PELNIC_ASN_BITS*>(record_)), Bytes{0x5A});
    pelnic_asn_free(vrf_, record_, &PELNIC_ASN_BITS_item, kContentFlag);
}

TEST_F(AsnDecode, CountsTheContentThatItConsumed)
{
    const Bytes content = Content(leaf_, {});
    ASSERT_EQ(Decode(ASN1_TEST_LEAF_item, Cat(content, Null()), kContentFlag), 0u);
    EXPECT_EQ(octets_, content.size());
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_LEAF_item, kContentFlag);
}

TEST_F(AsnDecode, RefusesContentCutAtEveryLength)
{
    ForEveryPrefix(Content(leaf_, {}), [&](const ExactHeap& prefix) {
        if (prefix.size() == 0) return;
        EXPECT_EQ(Decode(ASN1_TEST_LEAF_item, prefix.data(), Len(prefix), kContentFlag), PELNIC_ERR_ASN_DECODE);
        ExpectUntouched(Len(prefix));
    });
}

TEST_F(AsnDecode, RefusesAWholeElementForItsContent)
{
    EXPECT_EQ(Decode(ASN1_TEST_LEAF_item, leaf_, kContentFlag), PELNIC_ERR_ASN_DECODE);
    ExpectUntouched(Len(leaf_));
}

// The length is stored before anything else can fail.
TEST_F(AsnDecode, PresetsTheLengthOfContentThatIsTooLong)
{
    EXPECT_EQ(Decode(ASN1_TEST_LEAF_item, leaf_.data(), 0x80000000u, kContentFlag), PELNIC_ERR_ASN_DECODE);
    ExpectUntouched(0x80000000u);
    EXPECT_EQ(Decode(ASN1_TEST_LEAF_item, leaf_.data(), 0, kContentFlag), PELNIC_ERR_NULL_POINTER);
    ExpectUntouched();
}

using AsnFree = AsnDecode;

TEST_F(AsnFree, IgnoresNull)
{
    ASSERT_EQ(Decode(ASN1_TEST_LEAF_item, leaf_), 0u);
    pelnic_asn_free(nullptr, record_, &ASN1_TEST_LEAF_item, 0);
    pelnic_asn_free(vrf_, nullptr, &ASN1_TEST_LEAF_item, 0);
    pelnic_asn_free(vrf_, record_, nullptr, 0);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
    EXPECT_EQ(Encoding(*static_cast<ASN1_TEST_LEAF*>(record_)), leaf_);
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_LEAF_item, 0);
}

// Fields whose content has gone already, as in a record of which only a part was decoded.
TEST_F(AsnFree, TakesAPartlyFilledRecord)
{
    ASSERT_EQ(Decode(ASN1_TEST_TREE_item, FullTree()), 0u);
    Tree& tree = *static_cast<Tree*>(record_);
    pelnic_free_seq(vrf_, &tree.leaf, &kLeaf);
    pelnic_free_setof(vrf_, &tree.leaves, &kLeaves);
    pelnic_free_choice(vrf_, &tree.selection, &kSelection);
    pelnic_asn_free(vrf_, std::exchange(tree.serial, nullptr), &PELNIC_ASN_BIGINT_item, 0);
    pelnic_asn_free(vrf_, std::exchange(tree.more, nullptr), &ASN1_TEST_LEAVES_item, 0);
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_TREE_item, 0);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

// A pool whose blocks follow one another without a gap.
struct Pool {
    static PELNIC_ERROR_CODE Take(void** out, PNV_UINT32 size)
    {
        *out = room + used;
        used += (size + 7) / 8 * 8;
        ++live;
        return used <= sizeof(room) ? 0 : PELNIC_ERR_SYS_MEM_ALLOC;
    }
    static void GiveBack(void*) { --live; }

    alignas(8) static inline PNV_BYTE room[4096];
    static inline std::size_t used = 0;
    static inline int live = 0;
};

TEST_F(AsnFree, GivesBackBlocksThatFollowOneAnother)
{
    Pool::used = 0;
    PELNIC_SYS_MEM_FUNCS& memory = vrf_->callback_funcs.plt_funcs.sys_funcs.mem_funcs;
    memory.malloc = Pool::Take;
    memory.free = Pool::GiveBack;
    ASSERT_EQ(Decode(ASN1_TEST_TREE_item, FullTree()), 0u);
    pelnic_asn_free(vrf_, record_, &ASN1_TEST_TREE_item, 0);
    EXPECT_EQ(Pool::live, 0);
}

// ---- Faults ----

TEST(DecodeFaults, LeaveNothingOfAnElementOfAnyKind)
{
    ExpectFaultsRefused(kTree, FullTree());
    ExpectFaultsRefused(kLeaf, Leaf(1, Text("text")));
    ExpectFaultsRefused(kLeaves, Set(Cat(Leaves(11))));
    ExpectFaultsRefused(kSelection, Ctx(1, Leaf(1, Text("text"))));
    ExpectFaultsRefused(kSelection, CtxPrim(2, {'a'}));
    ExpectFaultsRefused(kSelection, Bits(0, {0x5A}));
}

TEST(DecodeFaults, LeaveTheResultsUntouched)
{
    struct Outcome {
        PELNIC_ERROR_CODE code;
        bool recordStored;
        bool octetsStored;
    };
    const Bytes der = FullTree();
    SweepFaults(
        Call::Malloc | calls::copies,
        [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            void* record = nullptr;
            PNV_UINT32 octets = 0;
            const auto code = pelnic_asn_decode(vrf, der.data(), Len(der), &ASN1_TEST_TREE_item, 0, &record, &octets);
            pelnic_asn_free(vrf, record, &ASN1_TEST_TREE_item, 0);
            return Outcome{code, record != nullptr, octets != 0};
        },
        [](const Outcome& outcome, const FaultRun& run) {
            EXPECT_EQ(outcome.code, run.met ? PELNIC_ERR_ASN_DECODE : 0);
            EXPECT_EQ(outcome.recordStored, !run.met);
            EXPECT_EQ(outcome.octetsStored, !run.met);
        });
}

} // namespace
} // namespace pnvtest
