// Tags and lengths (X.690, 8.1.2 and 8.1.3), narrower than BER on purpose: one-octet tags, definite lengths of at most
// four octets; and the table-driven decoder.
// A function that fails leaves the cursor of its PELNIC_BUF where it found it.
#ifndef PELNIC_ASN1_DECODE_H
#define PELNIC_ASN1_DECODE_H

#include "pelnic_asn1_templ.h"
#include "pelnic_list.h"

// Reads the identifier octet; *decodedBytes is always 1. PELNIC_ERR_NULL_POINTER, PELNIC_ERR_ASN_TAG at the end or for
// the high-tag-number form (logged), or the code of the read.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_dec_tag(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_BER_TAG* pTag,
                                               PNV_UINT32* decodedBytes);
// The same without consuming it; PELNIC_ERR_ASN_PEEK_TAG at the end.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_peek_tag(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_BER_TAG* pTag);
// Reads a length, which must not exceed the rest of the whole buffer; non-minimal forms are accepted.
// PELNIC_ERR_NULL_POINTER, PELNIC_ERR_ASN_LENGTH, or the code of a read.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_dec_len(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32* nLength,
                                               PNV_UINT32* bytesDecoded);
// nLen octets as a big-endian number, or the code of a read; the caller restores the cursor.
[[nodiscard]] PELNIC_ERROR_CODE _pnvGetAsnLongInt(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32 nLen,
                                                  PNV_UINT32* lenTemp);

// 0 if the tag is the one that the template field expects, else PELNIC_ERR_ASN_TAG_MISMATCH (PELNIC_ERR_NULL_POINTER
// for a null template or tag).
[[nodiscard]] PELNIC_ERROR_CODE _pnvCheckTag(const PELNIC_VRF* pVrf, const PELNIC_ASN1_TEMPLATE* pAsnTempl,
                                             const PELNIC_BER_TAG* pTag);
// 0 if one of the CHOICE's alternatives expects the tag.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCheckChoiceTag(const PELNIC_VRF* pVrf, const PELNIC_ASN1_ITEM* pAsnItem,
                                                   const PELNIC_BER_TAG* pTag);
// 0 if the tag matches the expected one, whose parts may be ANY.
[[nodiscard]] PELNIC_ERROR_CODE _pnvCompareBerTag(const PELNIC_VRF* pVrf, const PELNIC_BER_TAG* tagTmp,
                                                  const PELNIC_BER_TAG* pTag);

// Decodes one value into a new record that the caller releases with pelnic_asn_free; octets after the value are not an
// error. With flag 0x40 the range is the content of the outermost element, without its tag and length.
// PELNIC_ERR_NULL_POINTER for a null argument or zero length; PELNIC_ERR_ASN_DECODE for every other failure, including
// a range of more than 0x7FFFFFFF octets. *ppResult and *nDecoded are written only on success, except that with flag
// 0x40 *nDecoded is nBufLen from the start.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_asn_decode(const PELNIC_VRF* pVrf, const PNV_BYTE* pbBuf, PNV_UINT32 nBufLen,
                                                  const PELNIC_ASN1_ITEM* pAsnItem, PNV_BYTE flag, void** ppResult,
                                                  PNV_UINT32* nDecoded);
// Releases a record that pelnic_asn_decode made from the same item. Nulls are ignored.
void pelnic_asn_free(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_ITEM* pAsnItem, PNV_BYTE flag);

// pelnic_asn_decode for an item's own record type.
template <const PELNIC_ASN1_ITEM& item>
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecode(const PELNIC_VRF* pVrf, const PNV_BYTE* pbBuf, PNV_UINT32 nBufLen,
                                           PNV_BYTE flag, typename RecordOf<item>::type** ppRecord,
                                           PNV_UINT32* nDecoded)
{
    return pelnic_asn_decode(pVrf, pbBuf, nBufLen, &item, flag, reinterpret_cast<void**>(ppRecord), nDecoded);
}

// Decode and free functions of the item kinds; see PNV_ASN_DECODE_ITEM and PNV_ASN_FREE_ITEM.
PNV_UINT32 pelnic_dec_oct(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_dec_bigint(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_peek_oct(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_link_oct(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_dec_bits(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_dec_int(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_dec_enum(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_dec_bool(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_dec_seq(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_dec_setof(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
PNV_UINT32 pelnic_dec_choice(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);
// Unlike the others it takes the record that encloses the field.
PNV_UINT32 pelnic_dec_any(const PELNIC_VRF*, PELNIC_BUF*, void*, PNV_UINT32*, const PELNIC_ASN1_TEMPLATE*);

void pelnic_free_oct(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_link_oct(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_bits(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_int(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_enum(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_bool(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_seq(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_setof(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_choice(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*);
void pelnic_free_any(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*); // takes the enclosing record

// Parts of the decoder

// Reads and checks an element's header: context tag tagCode for an implicit field, else the universal tag code.
// For a PNV_TAG_CONTENT_ONLY field nothing is read and *contentLength keeps its value. The caller restores the cursor.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAsn1ParseContent(const PELNIC_VRF* pVrf, PELNIC_BUF* b,
                                                     const PELNIC_ASN1_TEMPLATE* pTempl, PELNIC_BER_FORM form,
                                                     PELNIC_BER_TAG_CODE code, PELNIC_BER_TAG* pTag,
                                                     PNV_UINT32* contentLength);
// 0 if every template from index on may be absent, else PELNIC_ERR_ASN_SEQ.
[[nodiscard]] PELNIC_ERROR_CODE _pnvSeqCheckRemainOptional(const PELNIC_ASN1_ITEM* pItem, PNV_UINT32 index);
// Decodes one field of a SEQUENCE into the enclosing record pObj.
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecSeqValue(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                                                const PELNIC_ASN1_TEMPLATE* pTempl);
// Decodes one element and appends it.
[[nodiscard]] PELNIC_ERROR_CODE _pnv_dec_seq_elem(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_LIST_DUMMY* pList,
                                                  PNV_UINT32* nDecoded, const PELNIC_ASN1_TEMPLATE* pElement);
// The template chosen by the selector in pObj for an ANY field, or null.
[[nodiscard]] const PELNIC_ASN1_TEMPLATE* _pnvFindTemplateFromAnyMap(const PELNIC_VRF* pVrf, const void* pObj,
                                                                     const PELNIC_ASN1_TEMPLATE* pField);
// The chosen template with its field's tagging.
[[nodiscard]] PELNIC_ASN1_TEMPLATE _pnvAdaptTagOfAnyTempl(const PELNIC_ASN1_TEMPLATE* pField,
                                                          const PELNIC_ASN1_TEMPLATE* pChosen);
// Decodes the chosen type into a new record *ppRecord; PELNIC_ERR_ASN_ANY_ABSENT for an absent optional field.
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecAnyItem(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32* nDecoded,
                                               const PELNIC_ASN1_TEMPLATE* pField, const PELNIC_ASN1_TEMPLATE* pChosen,
                                               void** ppRecord);
// A small INTEGER or ENUMERATED; code is CBT_INTEGER or CBT_ENUM, else PELNIC_ERR_NULL_POINTER.
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeInteger(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_INT32* pValue,
                                                  PNV_UINT32* nDecoded, const PELNIC_ASN1_TEMPLATE* pTempl,
                                                  PELNIC_BER_TAG_CODE code);

#endif
