// A decoder table written down a second time, line by line as its ASN.1 has it, and compared with the library's.
#ifndef PNVTEST_ASN1_TABLE_H
#define PNVTEST_ASN1_TABLE_H

#include "cmsverify/pelnic_asn1_templ.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

namespace pnvtest {

struct Tagging {
    PNV_UINT16 type;
    PNV_UINT32 code;
};
constexpr Tagging kUntagged{0, 0};
constexpr Tagging Explicit(PNV_UINT32 n)
{
    return {1, n};
}
constexpr Tagging Implicit(PNV_UINT32 n)
{
    return {2, n};
}

constexpr PNV_UINT16 kEmbedded = 0x00;
constexpr PNV_UINT16 kOptional = 0x08;
constexpr PNV_UINT16 kDefault = 0x10;
constexpr PNV_UINT16 kAnyByOid = 0x40;
constexpr PNV_UINT16 kPointer = 0x80;
constexpr PNV_UINT16 kCarved = 0x100;

// What a row's default value is taken for: a list's capacity, or the item that a peeked encoding becomes.
inline const void* Capacity(std::uintptr_t elements)
{
    return reinterpret_cast<const void*>(elements);
}

struct Row {
    const char* field;
    std::size_t offset;
    const PELNIC_ASN1_ITEM* item;
    Tagging tagging;
    PNV_UINT16 flag;
    const void* defaultValue = nullptr;
    std::size_t selector = 0; // offset of the field that selects an ANY, or of the blocks of carved elements
};
#define FIELD(record, field) #field, offsetof(record, field)

struct Table {
    const char* name;
    const PELNIC_ASN1_ITEM* item;
    const PELNIC_ASN1_FUNCTIONS* functions;
    PELNIC_BER_TAG_CODE code;
    std::size_t recordSize;
    std::vector<Row> rows;
};

template <typename Record> Table Sequence(const char* name, const PELNIC_ASN1_ITEM& item, std::vector<Row> rows)
{
    return {name, &item, &g_pnvAsnFuncSeq, CBT_SEQUENCES, sizeof(Record), std::move(rows)};
}
template <typename Record> Table SetOf(const char* name, const PELNIC_ASN1_ITEM& item, const Row& row)
{
    return {name, &item, &g_pnvAsnFuncSetOf, CBT_SETS, sizeof(Record), {row}};
}

inline void ExpectRow(const PELNIC_ASN1_TEMPLATE& actual, const Row& expected)
{
    SCOPED_TRACE(expected.field);
    EXPECT_STREQ(actual.name_val, expected.field);
    EXPECT_EQ(actual.offset_val, expected.offset);
    EXPECT_EQ(actual.asn1_item, expected.item);
    EXPECT_EQ(actual.tagType, expected.tagging.type);
    EXPECT_EQ(actual.tagCode, expected.tagging.code);
    EXPECT_EQ(actual.flag, expected.flag);
    EXPECT_EQ(actual.pDefaultVal, expected.defaultValue);
    EXPECT_EQ(actual.offset_type, expected.selector);
}

inline void ExpectTable(const Table& expected)
{
    const PELNIC_ASN1_ITEM& item = *expected.item;
    EXPECT_EQ(item.asn_func, expected.functions);
    EXPECT_EQ(item.ber_class, CBC_UNIV);
    EXPECT_EQ(item.ber_form, CBF_CONS);
    EXPECT_EQ(item.ber_code, expected.code);
    EXPECT_EQ(item.item_szie, expected.recordSize);
    ASSERT_EQ(item.templ_count, expected.rows.size());
    const auto* const rows = static_cast<const PELNIC_ASN1_TEMPLATE*>(item.asn_templ);
    for (std::size_t i = 0; i < expected.rows.size(); ++i) ExpectRow(rows[i], expected.rows[i]);
}

// How many types stand inside each other at most. Nothing bounds the decoder's recursion but that it ends.
inline std::size_t Depth(const PELNIC_ASN1_ITEM* item, std::vector<const PELNIC_ASN1_ITEM*> around = {})
{
    if (item->asn_templ == nullptr) return around.size() + 1;
    if (std::find(around.begin(), around.end(), item) != around.end()) return SIZE_MAX;
    around.push_back(item);
    std::size_t deepest = 0;
    for (PNV_UINT32 i = 0; i < item->templ_count; ++i) {
        const PELNIC_ASN1_TEMPLATE* row = static_cast<const PELNIC_ASN1_TEMPLATE*>(item->asn_templ) + i;
        if (item->asn_func == &g_pnvAsnFuncAny) {
            row = static_cast<const PELNIC_ASN1_ANY_MAP*>(item->asn_templ)[i].pstAnyTempl;
        }
        deepest = std::max(deepest, Depth(row->asn1_item, around));
    }
    return deepest;
}

} // namespace pnvtest

#endif
