// The tables that describe ASN.1 types to the decoder, and the builders of their rows.
//
// An item is a type: a pair of functions and, for a constructed type, one template for each field. A row of a table
// reads field, tagging, type, presence, in the order of the ASN.1 line. Offset, name and pointer flag follow from the
// field; a field of another type than its item decodes into does not compile. Tables are constant-initialised.
#ifndef PELNIC_ASN1_TEMPL_H
#define PELNIC_ASN1_TEMPL_H

#include <type_traits>

#include "pelnic_asn1_def.h"
#include "pelnic_buf.h"

typedef struct pelnic_asn1_template_st PELNIC_ASN1_TEMPLATE;

// Decodes into *pObj, a zero-filled record, and stores the octets consumed. On failure the cursor is back at the start
// and what the call allocated is released.
typedef PNV_UINT32 (*PNV_ASN_DECODE_ITEM)(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                                          const PELNIC_ASN1_TEMPLATE* pTempl);
// Releases the contents of a record, not the record. Accepts partly decoded records.
typedef void (*PNV_ASN_FREE_ITEM)(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_TEMPLATE* pTempl);

typedef struct pelnic_asn1_functions_st {
    PNV_ASN_DECODE_ITEM pDecode;
    PNV_ASN_FREE_ITEM pFree;
} PELNIC_ASN1_FUNCTIONS;

typedef struct pelnic_asn1_item_st {
    const void* asn_templ; // PELNIC_ASN1_TEMPLATE[], for an ANY item PELNIC_ASN1_ANY_MAP[], for primitives null
    const PELNIC_ASN1_FUNCTIONS* asn_func;
    PELNIC_BER_CLASS ber_class;
    PELNIC_BER_FORM ber_form;
    PELNIC_BER_TAG_CODE ber_code;
    PNV_UINT32 templ_count;
    PNV_UINT32 item_szie; // of the decoded record; spelt so in the interface
} PELNIC_ASN1_ITEM;

struct pelnic_asn1_template_st {
    const PELNIC_ASN1_ITEM* asn1_item;
    PNV_UINT32 tagCode;       // context tag number of a tagged field
    PNV_UINT16 tagType;       // PNV_TAG_*
    PNV_UINT16 flag;          // PNV_FLAG_*
    PNV_UINT32 offset_val;    // of the field in its record
    const PNV_CHAR* name_val; // for diagnostics
    PNV_UINT32 offset_type;   // ANY: of the field that selects the type; carved elements: of the blocks
    const void* pDefaultVal;  // list element: the initial capacity as a number; retagging peek: the item it becomes
};

typedef struct pelnic_asn1_any_map_st {
    PELNIC_ASN_INT iAnyId; // PELNIC_AOIDS, or a plain number with PNV_FLAG_ANY_NUMBER
    const PELNIC_ASN1_TEMPLATE* pstAnyTempl;
} PELNIC_ASN1_ANY_MAP;

constexpr PNV_UINT16 PNV_TAG_NONE = 0;
constexpr PNV_UINT16 PNV_TAG_EXPLICIT = 1;
constexpr PNV_UINT16 PNV_TAG_IMPLICIT = 2;        // tested as a bit
constexpr PNV_UINT16 PNV_TAG_CONTENT_ONLY = 0x40; // tag and length were consumed before; top level only

constexpr PNV_UINT16 PNV_FLAG_OPTIONAL = 0x08;
constexpr PNV_UINT16 PNV_FLAG_DEFAULT = 0x10; // an absent field keeps the zero of its record
constexpr PNV_UINT16 PNV_FLAG_ANY_NUMBER = 0x20;
constexpr PNV_UINT16 PNV_FLAG_ANY_OID = 0x40;
constexpr PNV_UINT16 PNV_FLAG_ANY = PNV_FLAG_ANY_NUMBER | PNV_FLAG_ANY_OID;
constexpr PNV_UINT16 PNV_FLAG_POINTER = 0x80; // the field is a pointer to a separate record
constexpr PNV_UINT16 PNV_FLAG_CARVED =
    0x100; // a list's elements are carved from blocks, because they never leave the list

// The layout of a decoded CHOICE; the value starts at the same offset on every target.
typedef struct pelnic_asn_choice_st {
    PNV_UINT32 index; // of the chosen template
    union {
        void* pRecord; // with PNV_FLAG_POINTER
        PNV_INT64 inlineRecord;
    } value;
} PELNIC_ASN_CHOICE;

// Item kinds
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncOct;     // content octets, copied
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncPeekOct; // whole encoding, copied, nothing consumed
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncLinkOct; // content octets, pointed to
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncBits;
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncAny;
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncChoice;
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncSeq;
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncInt;
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncEnum;
extern const PELNIC_ASN1_FUNCTIONS
    g_pnvAsnFuncBigInt; // same functions as octets; a separate table, recognised by its address
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncSetOf;
extern const PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncBool;

// The record that an item decodes into.
template <const PELNIC_ASN1_ITEM& item> struct RecordOf;
#define PNV_DECLARE_ITEM(item, record) \
    extern const PELNIC_ASN1_ITEM item; \
    template <> struct RecordOf<item> { \
        using type = record; \
    }

PNV_DECLARE_ITEM(PELNIC_ASN_OCTS_item, PELNIC_ASN_OCTS);
PNV_DECLARE_ITEM(PELNIC_ASN_PEEK_OCTS_item, PELNIC_ASN_OCTS);
PNV_DECLARE_ITEM(PELNIC_ASN_LINK_OCTS_item, PELNIC_ASN_OCTS);
PNV_DECLARE_ITEM(PELNIC_ASN_BITS_item, PELNIC_ASN_BITS);
PNV_DECLARE_ITEM(PELNIC_ASN_INT_item, PELNIC_ASN_INT);
PNV_DECLARE_ITEM(PELNIC_ASN_ENUM_item, PELNIC_ASN_ENUM);
PNV_DECLARE_ITEM(PELNIC_ASN_BIGINT_item, PELNIC_ASN_BIGINT);
PNV_DECLARE_ITEM(PELNIC_ASN_BOOL_item, PELNIC_ASN_BOOL);

// Rows
struct Tagging {
    PNV_UINT16 tagType;
    PNV_UINT32 tagCode;
};
#define PNV_UNTAGGED (Tagging{PNV_TAG_NONE, 0})
#define PNV_EXPLICIT(n) (Tagging{PNV_TAG_EXPLICIT, n})
#define PNV_IMPLICIT(n) (Tagging{PNV_TAG_IMPLICIT, n})

enum Presence : PNV_UINT16 { PNV_REQUIRED = 0, PNV_OPTIONAL = PNV_FLAG_OPTIONAL, PNV_DEFAULT = PNV_FLAG_DEFAULT };

template <typename Field, const PELNIC_ASN1_ITEM& item, Presence presence = PNV_REQUIRED>
constexpr PELNIC_ASN1_TEMPLATE _pnvRow(Tagging tagging, std::size_t offset, const PNV_CHAR* name)
{
    using Record = typename RecordOf<item>::type;
    constexpr bool owned = std::is_same_v<Field, Record*>;
    static_assert(owned || std::is_same_v<Field, Record>, "the field's type is not what its item decodes into");
    return {&item,
            tagging.tagCode,
            tagging.tagType,
            static_cast<PNV_UINT16>(presence | (owned ? PNV_FLAG_POINTER : 0)),
            static_cast<PNV_UINT32>(offset),
            name,
            0,
            nullptr};
}
#define PNV_FIELD(record, field, tagging, ...) \
    _pnvRow<decltype(record::field), __VA_ARGS__>(tagging, offsetof(record, field), #field)

// Copies the encoding of the next element into an owned record, without consuming it.
template <typename Field> constexpr PELNIC_ASN1_TEMPLATE _pnvPeekRow(std::size_t offset, const PNV_CHAR* name)
{
    static_assert(std::is_same_v<Field, PELNIC_ASN_OCTS*>, "a peeked encoding is an owned record");
    return _pnvRow<Field, PELNIC_ASN_PEEK_OCTS_item>(PNV_UNTAGGED, offset, name);
}
#define PNV_PEEK(record, field) _pnvPeekRow<decltype(record::field)>(offsetof(record, field), #field)

// The same, but the copy gets the universal identifier octet of an item, as for the implicitly tagged attributes of RFC
// 5652, 5.4.
template <typename Field, const PELNIC_ASN1_ITEM& becomes>
constexpr PELNIC_ASN1_TEMPLATE _pnvPeekAsRow(std::size_t offset, const PNV_CHAR* name)
{
    PELNIC_ASN1_TEMPLATE row = _pnvPeekRow<Field>(offset, name);
    row.tagType = PNV_TAG_IMPLICIT;
    row.pDefaultVal = &becomes;
    return row;
}
#define PNV_PEEK_AS(record, field, item) _pnvPeekAsRow<decltype(record::field), item>(offsetof(record, field), #field)

// The element row of a list: field is a typed list of the records that the item decodes into. Its capacity, a number in
// a pointer, is not a constant expression, so the row is an initialiser and its table const, not constexpr.
template <typename List, const PELNIC_ASN1_ITEM& item> constexpr PNV_UINT16 _pnvListFlag(PNV_UINT16 flag = 0)
{
    using Record = typename RecordOf<item>::type;
    static_assert(std::is_same_v<decltype(List::data), Record**>, "the list's elements are not what the item decodes");
    return flag;
}
#define PNV_ELEMENTS(record, field, item, capacity) \
    { \
        &item, 0, PNV_TAG_NONE, _pnvListFlag<decltype(record::field), item>(), offsetof(record, field), #field, 0, \
            reinterpret_cast<const void*>(uintptr_t{capacity}) \
    }

// The same for a list whose elements are never taken out; names the field for the blocks that they are carved from. Not
// inside another such list, because the contents of carved elements are not visited on release.
#define PNV_CARVED_ELEMENTS(record, field, blocks, item, capacity) \
    { \
        &item, 0, PNV_TAG_NONE, _pnvListFlag<decltype(record::field), item>(PNV_FLAG_CARVED), offsetof(record, field), \
            #field, _pnvBlocksAt<decltype(record::blocks)>(offsetof(record, blocks)), \
            reinterpret_cast<const void*>(uintptr_t{capacity}) \
    }
template <typename Field> constexpr PNV_UINT32 _pnvBlocksAt(std::size_t offset)
{
    static_assert(std::is_same_v<Field, CarvedBlocks>, "not the field for blocks");
    return static_cast<PNV_UINT32>(offset);
}

// An owned field whose type is selected from the ANY item's map by the OID in another field.
template <typename Field>
constexpr PELNIC_ASN1_TEMPLATE _pnvAnyRow(Tagging tagging, std::size_t offset, const PNV_CHAR* name,
                                          const PELNIC_ASN1_ITEM* item, std::size_t offsetOfSelector)
{
    static_assert(std::is_pointer_v<Field>, "an ANY field is a pointer");
    return {item,
            tagging.tagCode,
            tagging.tagType,
            PNV_FLAG_ANY_OID,
            static_cast<PNV_UINT32>(offset),
            name,
            static_cast<PNV_UINT32>(offsetOfSelector),
            nullptr};
}
#define PNV_ANY_DEFINED_BY(record, field, tagging, item, selector) \
    _pnvAnyRow<decltype(record::field)>(tagging, offsetof(record, field), #field, &item, offsetof(record, selector))

// Items of constructed types
template <const PELNIC_ASN1_ITEM& item, std::size_t N>
constexpr PELNIC_ASN1_ITEM _pnvConstructed(const PELNIC_ASN1_TEMPLATE (&templ)[N], const PELNIC_ASN1_FUNCTIONS& func,
                                           PELNIC_BER_TAG_CODE code)
{
    using Record = typename RecordOf<item>::type;
    return {templ, &func, CBC_UNIV, CBF_CONS, code, PNV_UINT32{N}, PNV_UINT32{sizeof(Record)}};
}
template <const PELNIC_ASN1_ITEM& item, std::size_t N>
constexpr PELNIC_ASN1_ITEM _pnvSequence(const PELNIC_ASN1_TEMPLATE (&templ)[N])
{
    return _pnvConstructed<item>(templ, g_pnvAsnFuncSeq, CBT_SEQUENCES);
}
template <const PELNIC_ASN1_ITEM& item>
constexpr PELNIC_ASN1_ITEM _pnvSequenceOf(const PELNIC_ASN1_TEMPLATE (&templ)[1])
{
    return _pnvConstructed<item>(templ, g_pnvAsnFuncSetOf, CBT_SEQUENCES);
}
template <const PELNIC_ASN1_ITEM& item> constexpr PELNIC_ASN1_ITEM _pnvSetOf(const PELNIC_ASN1_TEMPLATE (&templ)[1])
{
    return _pnvConstructed<item>(templ, g_pnvAsnFuncSetOf, CBT_SETS);
}

#endif
