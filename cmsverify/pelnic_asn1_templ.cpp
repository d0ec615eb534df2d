// The item kinds and the items of the primitive types.
#include "pelnic_asn1_templ.h"

#include "pelnic_asn1_decode.h"

constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncOct = {pelnic_dec_oct, pelnic_free_oct};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncPeekOct = {pelnic_peek_oct, pelnic_free_oct};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncLinkOct = {pelnic_link_oct, pelnic_free_link_oct};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncBits = {pelnic_dec_bits, pelnic_free_bits};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncAny = {pelnic_dec_any, pelnic_free_any};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncChoice = {pelnic_dec_choice, pelnic_free_choice};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncSeq = {pelnic_dec_seq, pelnic_free_seq};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncInt = {pelnic_dec_int, pelnic_free_int};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncEnum = {pelnic_dec_enum, pelnic_free_enum};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncBigInt = {pelnic_dec_bigint, pelnic_free_oct};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncSetOf = {pelnic_dec_setof, pelnic_free_setof};
constexpr PELNIC_ASN1_FUNCTIONS g_pnvAsnFuncBool = {pelnic_dec_bool, pelnic_free_bool};

template <const PELNIC_ASN1_ITEM& item>
static constexpr PELNIC_ASN1_ITEM primitive(const PELNIC_ASN1_FUNCTIONS& func, PELNIC_BER_TAG_CODE code)
{
    return {nullptr, &func, CBC_UNIV, CBF_PRIM, code, 0, PNV_UINT32{sizeof(typename PNV_RECORD_OF<item>::type)}};
}

template <const PELNIC_ASN1_ITEM& item> static constexpr PELNIC_ASN1_ITEM anyElement(const PELNIC_ASN1_FUNCTIONS& func)
{
    return {nullptr,
            &func,
            CBC_ANY_CLASS,
            CBF_ANY_FORM,
            CBT_ANY_CODE,
            0,
            PNV_UINT32{sizeof(typename PNV_RECORD_OF<item>::type)}};
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
