// The items of the primitive types.
#include "pelnic_asn1_templ.h"

template <const PELNIC_ASN1_ITEM& item>
static constexpr PELNIC_ASN1_ITEM primitive(const PELNIC_ASN1_FUNCTIONS& func, PELNIC_BER_TAG_CODE code)
{
    return {nullptr, &func, CBC_UNIV, CBF_PRIM, code, 0, PNV_UINT32{sizeof(typename RecordOf<item>::type)}};
}

template <const PELNIC_ASN1_ITEM& item> static constexpr PELNIC_ASN1_ITEM anyElement(const PELNIC_ASN1_FUNCTIONS& func)
{
    return {nullptr,
            &func,
            CBC_ANY_CLASS,
            CBF_ANY_FORM,
            CBT_ANY_CODE,
            0,
            PNV_UINT32{sizeof(typename RecordOf<item>::type)}};
}

constexpr PELNIC_ASN1_ITEM PELNIC_ASN_OCTS_item = anyElement<PELNIC_ASN_OCTS_item>(g_pnvAsnFuncOct);
constexpr PELNIC_ASN1_ITEM PELNIC_ASN_PEEK_OCTS_item = anyElement<PELNIC_ASN_PEEK_OCTS_item>(g_pnvAsnFuncPeekOct);
constexpr PELNIC_ASN1_ITEM PELNIC_ASN_LINK_OCTS_item = anyElement<PELNIC_ASN_LINK_OCTS_item>(g_pnvAsnFuncLinkOct);
constexpr PELNIC_ASN1_ITEM PELNIC_ASN_BITS_item = primitive<PELNIC_ASN_BITS_item>(g_pnvAsnFuncBits, CBT_BITSTRING);
constexpr PELNIC_ASN1_ITEM PELNIC_ASN_INT_item = primitive<PELNIC_ASN_INT_item>(g_pnvAsnFuncInt, CBT_INTEGER);
// INTEGER's code, although it decodes ENUMERATED: an untagged optional field of this type is recognised by tag 2.
constexpr PELNIC_ASN1_ITEM PELNIC_ASN_ENUM_item = primitive<PELNIC_ASN_ENUM_item>(g_pnvAsnFuncEnum, CBT_INTEGER);
constexpr PELNIC_ASN1_ITEM PELNIC_ASN_BIGINT_item = primitive<PELNIC_ASN_BIGINT_item>(g_pnvAsnFuncBigInt, CBT_INTEGER);
constexpr PELNIC_ASN1_ITEM PELNIC_ASN_BOOL_item = primitive<PELNIC_ASN_BOOL_item>(g_pnvAsnFuncBool, CBT_BOOLEAN);
