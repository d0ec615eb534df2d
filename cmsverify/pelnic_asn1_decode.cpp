// The decoder. Recursion is as deep as the nesting of the tables, which contain no cycle.
#include "pelnic_asn1_decode.h"

#include "pelnic_asn1_utils.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_witness.h"

constexpr PNV_UINT32 HIGH_TAG_NUMBER = 31;
constexpr PNV_BYTE LONG_LENGTH = 0x80;
constexpr PNV_UINT32 MAX_LENGTH_OCTETS = 4;
constexpr PNV_UINT32 MAX_INPUT = 0x7FFFFFFF; // cursor arithmetic is signed
constexpr PNV_UINT32 MAX_INT_OCTETS = 4;
constexpr PNV_BYTE CONSTRUCTED_BIT = 0x20;
constexpr PNV_UINT32 MAX_BLOCK = sizeof(void*) > 4 ? 16 << 20 : 16320; // for huge pages, or for the pool of a board

static void rewindTo(PELNIC_BUF* b, PNV_UINT32 start)
{
    (void)pelnic_buf_seek(b, static_cast<PNV_INT32>(start), CBSW_SET); // start was a position before the end
}

// ---- Tags and lengths

static PELNIC_BER_TAG tagOf(PNV_BYTE octet)
{
    return pelnic_make_tag(static_cast<PELNIC_BER_CLASS>(octet >> 6), (octet & CONSTRUCTED_BIT) ? CBF_CONS : CBF_PRIM,
                           static_cast<PELNIC_BER_TAG_CODE>(octet & 0x1F));
}

static PELNIC_ERROR_CODE readTag(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32 start, PELNIC_BER_TAG* pTag,
                                 PNV_UINT32* decodedBytes)
{
    PNV_BYTE octet = 0;
    const PELNIC_ERROR_CODE rc = pelnic_buf_get(b, &octet);
    if (rc != 0) return rc;
    if ((octet & HIGH_TAG_NUMBER) == HIGH_TAG_NUMBER) {
        PNV_LOG(pVrf, PELNIC_LOG_TYPE_ERROR, PELNIC_ERR_FAILED, nullptr);
        return PNV_WHY(TagForm, PELNIC_ERR_ASN_TAG);
    }
    PNV_INT consumed = 0;
    if (pelnic_buf_get_offset(b, start, &consumed) != 0 || consumed < 0) {
        PNV_LOG(pVrf, PELNIC_LOG_TYPE_WARNING, PELNIC_ERR_SYS_BUF_POS, nullptr);
        return PELNIC_ERR_SYS_BUF_POS;
    }
    *pTag = tagOf(octet);
    *decodedBytes = static_cast<PNV_UINT32>(consumed);
    return 0;
}

PELNIC_ERROR_CODE pelnic_dec_tag(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_BER_TAG* pTag, PNV_UINT32* decodedBytes)
{
    if (pVrf == nullptr || b == nullptr || pTag == nullptr || decodedBytes == nullptr) return PELNIC_ERR_NULL_POINTER;
    PNV_UINT32 start = 0;
    if (pelnic_buf_tell(b, &start) != 0 || start == PNV_POS_AT_END) return PNV_WHY(End, PELNIC_ERR_ASN_TAG);
    const PELNIC_ERROR_CODE rc = readTag(pVrf, b, start, pTag, decodedBytes);
    if (rc != 0) rewindTo(b, start);
    return rc;
}

PELNIC_ERROR_CODE pelnic_peek_tag(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_BER_TAG* pTag)
{
    if (pVrf == nullptr || b == nullptr || pTag == nullptr) return PELNIC_ERR_NULL_POINTER;
    PNV_UINT32 start = 0;
    if (pelnic_buf_tell(b, &start) != 0 || start == PNV_POS_AT_END) return PNV_WHY(End, PELNIC_ERR_ASN_PEEK_TAG);
    PNV_UINT32 octets = 0;
    const PELNIC_ERROR_CODE rc = pelnic_dec_tag(pVrf, b, pTag, &octets);
    rewindTo(b, start);
    return rc;
}

PELNIC_ERROR_CODE _pnvGetAsnLongInt(const PELNIC_VRF*, PELNIC_BUF* b, PNV_UINT32 nLen, PNV_UINT32* lenTemp)
{
    PNV_UINT32 value = 0;
    for (PNV_UINT32 i = 0; i < nLen; ++i) {
        PNV_BYTE octet = 0;
        const PELNIC_ERROR_CODE rc = pelnic_buf_get(b, &octet);
        if (rc != 0) return PNV_WHY(End, rc);
        value = value << 8 | octet;
    }
    *lenTemp = value;
    return 0;
}

static PELNIC_ERROR_CODE readLength(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32 start, PNV_UINT32* nLength,
                                    PNV_UINT32* bytesDecoded)
{
    PNV_BYTE first = 0;
    PELNIC_ERROR_CODE rc = pelnic_buf_get(b, &first);
    if (rc != 0) return rc;
    PNV_UINT32 length = first;
    if ((first & LONG_LENGTH) != 0) {
        const PNV_UINT32 octets = first & 0x7Fu;
        // 0 is the indefinite form
        if (octets == 0 || octets > MAX_LENGTH_OCTETS) return PNV_WHY(LengthForm, PELNIC_ERR_ASN_LENGTH);
        rc = _pnvGetAsnLongInt(pVrf, b, octets, &length); // leading zeros are accepted
        if (rc != 0) return rc;
    }
    if (length > b->nBufLen - b->iCursor) return PNV_WHY(Length, PELNIC_ERR_ASN_LENGTH);
    PNV_INT consumed = 0;
    if (pelnic_buf_get_offset(b, start, &consumed) != 0 || consumed < 0) return PELNIC_ERR_ASN_LENGTH;
    *nLength = length;
    *bytesDecoded = static_cast<PNV_UINT32>(consumed);
    return 0;
}

PELNIC_ERROR_CODE pelnic_dec_len(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32* nLength, PNV_UINT32* bytesDecoded)
{
    if (pVrf == nullptr || b == nullptr || nLength == nullptr || bytesDecoded == nullptr) {
        return PELNIC_ERR_NULL_POINTER;
    }
    PNV_UINT32 start = 0;
    if (pelnic_buf_tell(b, &start) != 0 || start == PNV_POS_AT_END) return PNV_WHY(End, PELNIC_ERR_ASN_LENGTH);
    const PELNIC_ERROR_CODE rc = readLength(pVrf, b, start, nLength, bytesDecoded);
    if (rc != 0) rewindTo(b, start);
    return rc;
}

// The fast path for nearly every element: one octet each for tag and length, and the whole content behind them. The two
// functions above handle or refuse all others.
static inline bool readShortHeader(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_BER_TAG* pTag, PNV_UINT32* length)
{
    const PNV_UINT32 left = b->nBufLen - b->iCursor;
    if (pVrf == nullptr || b->iCursor > b->nBufLen || left < 2) return false;
    const PNV_BYTE* const octets = b->pVal + b->iCursor;
    if ((octets[0] & HIGH_TAG_NUMBER) == HIGH_TAG_NUMBER || octets[1] > left - 2 || octets[1] >= LONG_LENGTH)
        return false;
    *pTag = tagOf(octets[0]);
    *length = octets[1];
    b->iCursor += 2;
    return true;
}

static inline bool matches(const PELNIC_BER_TAG& expected, const PELNIC_BER_TAG& tag)
{
    return (expected.cls == CBC_ANY_CLASS || expected.cls == tag.cls) &&
           (expected.form == CBF_ANY_FORM || expected.form == tag.form) &&
           (expected.code == CBT_ANY_CODE || expected.code == tag.code);
}

PELNIC_ERROR_CODE _pnvCompareBerTag(const PELNIC_VRF*, const PELNIC_BER_TAG* tagTmp, const PELNIC_BER_TAG* pTag)
{
    return matches(*tagTmp, *pTag) ? 0 : PELNIC_ERR_ASN_TAG_MISMATCH;
}

// The templates of a constructed item.
static const PELNIC_ASN1_TEMPLATE* templatesOf(const PELNIC_ASN1_ITEM* pItem)
{
    return static_cast<const PELNIC_ASN1_TEMPLATE*>(pItem->asn_templ);
}

PELNIC_ERROR_CODE _pnvCheckChoiceTag(const PELNIC_VRF* pVrf, const PELNIC_ASN1_ITEM* pAsnItem,
                                     const PELNIC_BER_TAG* pTag)
{
    for (PNV_UINT32 i = 0; i < pAsnItem->templ_count; ++i) {
        if (_pnvCheckTag(pVrf, templatesOf(pAsnItem) + i, pTag) == 0) return 0;
    }
    return PELNIC_ERR_ASN_TAG_MISMATCH;
}

static PELNIC_BER_TAG contextTag(PELNIC_BER_FORM form, PNV_UINT32 code)
{
    return pelnic_make_tag(CBC_CNTX, form, static_cast<PELNIC_BER_TAG_CODE>(code));
}

static PELNIC_BER_TAG ownTag(const PELNIC_ASN1_ITEM* pItem)
{
    return pelnic_make_tag(pItem->ber_class, pItem->ber_form, pItem->ber_code);
}

PELNIC_ERROR_CODE _pnvCheckTag(const PELNIC_VRF* pVrf, const PELNIC_ASN1_TEMPLATE* pAsnTempl,
                               const PELNIC_BER_TAG* pTag)
{
    if (pAsnTempl == nullptr || pTag == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PELNIC_ASN1_ITEM* const pItem = pAsnTempl->asn1_item;
    const bool isOct = pItem->asn_func == &g_pnvAsnFuncOct;
    PELNIC_BER_TAG expected = ownTag(pItem);
    switch (pAsnTempl->tagType) {
    case PNV_TAG_EXPLICIT:
        expected = contextTag(CBF_CONS, pAsnTempl->tagCode);
        if (isOct) expected.cls = CBC_UNIV; // an explicitly tagged octet string is expected in this class
        break;
    case PNV_TAG_IMPLICIT:
        expected = contextTag(pItem->ber_form, pAsnTempl->tagCode);
        if (isOct && pTag->form == CBF_CONS) expected.form = CBF_CONS; // it may arrive constructed
        break;
    default:
        if (pItem->asn_func == &g_pnvAsnFuncChoice) return _pnvCheckChoiceTag(pVrf, pItem, pTag);
        break;
    }
    return _pnvCompareBerTag(pVrf, &expected, pTag);
}

// Reads a header that is not short; returns mismatch for another tag than the expected one.
[[gnu::noinline]] static PELNIC_ERROR_CODE readLongHeader(const PELNIC_VRF* pVrf, PELNIC_BUF* b,
                                                          const PELNIC_BER_TAG& expected, PELNIC_ERROR_CODE mismatch,
                                                          PELNIC_BER_TAG* pTag, PNV_UINT32* length)
{
    PNV_UINT32 octets = 0;
    const PELNIC_ERROR_CODE rc = pelnic_dec_tag(pVrf, b, pTag, &octets);
    if (rc != 0) return rc;
    if (!matches(expected, *pTag)) return PNV_WHY(Tag, mismatch);
    return pelnic_dec_len(pVrf, b, length, &octets);
}

// Reads a header with this tag. Results of the common case stay in registers.
static inline PELNIC_ERROR_CODE readExpectedHeader(const PELNIC_VRF* pVrf, PELNIC_BUF* b,
                                                   const PELNIC_BER_TAG& expected, PELNIC_ERROR_CODE mismatch,
                                                   PELNIC_BER_TAG* pTag, PNV_UINT32* length)
{
    if (readShortHeader(pVrf, b, pTag, length)) return matches(expected, *pTag) ? 0 : PNV_WHY(Tag, mismatch);
    PELNIC_BER_TAG tag = {};
    PNV_UINT32 octets = 0;
    const PELNIC_ERROR_CODE rc = readLongHeader(pVrf, b, expected, mismatch, &tag, &octets);
    *pTag = tag;
    *length = octets;
    return rc;
}

// Reads tag and length of any element, such as an explicit tag.
static inline PELNIC_ERROR_CODE readHeader(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_BER_TAG* pTag,
                                           PNV_UINT32* length)
{
    static constexpr PELNIC_BER_TAG ANY = {CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE};
    return readExpectedHeader(pVrf, b, ANY, 0, pTag, length);
}

// ---- The common beginning and end of every kind

// The octets between start, a result of pelnic_buf_tell, and the cursor.
static PELNIC_ERROR_CODE consumedSince(const PELNIC_BUF* b, PNV_UINT32 start, PELNIC_ERROR_CODE kindCode,
                                       PNV_UINT32* consumed)
{
    PNV_INT offset = 0;
    if (pelnic_buf_get_offset(b, start, &offset) != 0 || offset < 0) return kindCode;
    *consumed = static_cast<PNV_UINT32>(offset);
    return 0;
}

static bool isContentOnly(const PELNIC_ASN1_TEMPLATE* pTempl)
{
    return (pTempl->tagType & PNV_TAG_CONTENT_ONLY) != 0;
}

PELNIC_ERROR_CODE _pnvAsn1ParseContent(const PELNIC_VRF* pVrf, PELNIC_BUF* b, const PELNIC_ASN1_TEMPLATE* pTempl,
                                       PELNIC_BER_FORM form, PELNIC_BER_TAG_CODE code, PELNIC_BER_TAG* pTag,
                                       PNV_UINT32* contentLength)
{
    PELNIC_BER_TAG expected = pelnic_make_tag(CBC_UNIV, form, code);
    if ((pTempl->tagType & PNV_TAG_IMPLICIT) != 0) expected = contextTag(form, pTempl->tagCode);
    if (isContentOnly(pTempl)) {
        *pTag = expected;
        return 0;
    }
    return readExpectedHeader(pVrf, b, expected, PELNIC_ERR_ASN_TAG, pTag, contentLength);
}

// An element being decoded: resets the cursor to its start unless it is kept.
class Element {
public:
    Element(PELNIC_BUF* b, PELNIC_ERROR_CODE kindCode) : b_(b), kindCode_(kindCode) {}
    ~Element()
    {
        if (begun_) rewindTo(b_, start_);
    }
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

    PELNIC_ERROR_CODE begin(const void* pObj, const PNV_UINT32* nDecoded, const PELNIC_ASN1_TEMPLATE* pTempl)
    {
        if (pObj == nullptr || nDecoded == nullptr || pTempl == nullptr) return PELNIC_ERR_NULL_POINTER;
        if (pelnic_buf_tell(b_, &start_) != 0 || start_ == PNV_POS_AT_END) return PNV_WHY(End, kindCode_);
        begun_ = true;
        return 0;
    }
    // Reads the header. For bare content *nDecoded is the length.
    PELNIC_ERROR_CODE header(const PELNIC_VRF* pVrf, const PNV_UINT32* nDecoded, const PELNIC_ASN1_TEMPLATE* pTempl,
                             PELNIC_BER_FORM form, PELNIC_BER_TAG_CODE code)
    {
        if (isContentOnly(pTempl)) length = *nDecoded;
        return _pnvAsn1ParseContent(pVrf, b_, pTempl, form, code, &tag, &length);
    }
    // Begins a primitive element.
    PELNIC_ERROR_CODE open(const PELNIC_VRF* pVrf, const void* pObj, const PNV_UINT32* nDecoded,
                           const PELNIC_ASN1_TEMPLATE* pTempl, PELNIC_BER_TAG_CODE code)
    {
        const PELNIC_ERROR_CODE rc = begin(pObj, nDecoded, pTempl);
        return rc != 0 ? rc : header(pVrf, nDecoded, pTempl, CBF_PRIM, code);
    }
    // Reads any header that has content behind it, of *headerLength octets.
    PELNIC_ERROR_CODE peek(const PELNIC_VRF* pVrf, PNV_UINT32* headerLength)
    {
        if (readHeader(pVrf, b_, &tag, &length) != 0) return kindCode_;
        if (length == 0) return PNV_WHY(Value, kindCode_);
        return measure(headerLength);
    }
    // Fills a record of octets.
    void store(void* pObj, PNV_UINT32 len, PNV_BYTE* octs) const
    {
        PELNIC_ASN_OCTS* const pOcts = static_cast<PELNIC_ASN_OCTS*>(pObj);
        pOcts->len = len;
        pOcts->tag = tag;
        pOcts->octs = octs;
    }
    // The octets between the start and the cursor.
    PELNIC_ERROR_CODE measure(PNV_UINT32* octets) const { return consumedSince(b_, start_, kindCode_, octets); }
    // Leaves the cursor where it is.
    void keep() { begun_ = false; }
    PELNIC_ERROR_CODE keep(PNV_UINT32* nDecoded)
    {
        const PELNIC_ERROR_CODE rc = measure(nDecoded);
        if (rc == 0) keep();
        return rc;
    }

    PELNIC_BER_TAG tag = {};
    PNV_UINT32 length = 0; // of the content

private:
    PELNIC_BUF* b_;
    PELNIC_ERROR_CODE kindCode_;
    PNV_UINT32 start_ = 0;
    bool begun_ = false;
};

static PELNIC_ERROR_CODE skip(PELNIC_BUF* b, PNV_UINT32 length)
{
    return pelnic_buf_seek(b, static_cast<PNV_INT32>(length), CBSW_CURRENT);
}

// The length of an explicit tag is not compared with what the value inside consumes.
static PELNIC_ERROR_CODE readExplicitHeader(const PELNIC_VRF* pVrf, PELNIC_BUF* b, const PELNIC_ASN1_TEMPLATE* pTempl)
{
    PELNIC_BER_TAG tag = {};
    PNV_UINT32 length = 0;
    return readExpectedHeader(pVrf, b, contextTag(CBF_CONS, pTempl->tagCode), PELNIC_ERR_FAILED, &tag, &length);
}

// A copy of length octets, or null.
static PNV_BYTE* copyOctets(const PELNIC_VRF* pVrf, const PNV_BYTE* octets, PNV_UINT32 length,
                            PELNIC_ERROR_CODE kindCode, PELNIC_ERROR_CODE* rc)
{
    void* block = nullptr;
    *rc = kindCode;
    if (pelnic_malloc(pVrf, &block, length) != 0 || block == nullptr) return nullptr;
    *rc = pelnic_memcpy_s(pVrf, block, length, octets, length);
    if (*rc == 0) return static_cast<PNV_BYTE*>(block);
    pelnic_free(pVrf, block);
    return nullptr;
}

static void* newRecord(const PELNIC_VRF* pVrf, PNV_UINT32 size, PELNIC_ERROR_CODE* rc)
{
    void* block = nullptr;
    *rc = pelnic_malloc_with0(pVrf, &block, size);
    return *rc == 0 ? block : nullptr;
}

static void* at(void* pObj, PNV_UINT32 offset)
{
    return static_cast<PNV_BYTE*>(pObj) + offset;
}

static void*& pointerAt(void* pObj, PNV_UINT32 offset)
{
    return *static_cast<void**>(at(pObj, offset));
}

// ---- Octets

// Whether octets have the tag that their template expects. Inside an explicit tag, already consumed by the field's
// reader, this is the item's own tag.
static inline bool hasTagOf(const PELNIC_VRF* pVrf, const PELNIC_ASN1_TEMPLATE* pTempl, const PELNIC_BER_TAG& tag)
{
    if (pTempl->tagType != PNV_TAG_IMPLICIT) return matches(ownTag(pTempl->asn1_item), tag);
    const PELNIC_BER_TAG read = tag;
    return _pnvCheckTag(pVrf, pTempl, &read) == 0;
}

// Reads a whole element of octets; octs points into the input.
static inline PELNIC_ERROR_CODE readOctets(const PELNIC_VRF* pVrf, PELNIC_BUF* b, const PELNIC_ASN1_TEMPLATE* pTempl,
                                           Element* element, const PNV_BYTE** octs)
{
    PNV_UINT32& length = element->length;
    if (readHeader(pVrf, b, &element->tag, &length) != 0) return PELNIC_ERR_ASN_OCTS;
    if (pTempl->asn1_item != nullptr && !hasTagOf(pVrf, pTempl, element->tag)) return PNV_WHY(Tag, PELNIC_ERR_ASN_OCTS);
    *octs = pelnic_buf_get_point(b);
    if (skip(b, length) != 0) return PELNIC_ERR_ASN_OCTS;
    if (element->tag.code != CBT_INTEGER || length == 0) return 0;
    // An INTEGER of any class: the magnitude without leading zeros; 0 has no octets.
    for (; length != 0 && **octs == 0; ++*octs) --length;
    return length == 0 ? PNV_WHY(Value, PELNIC_ERR_ASN_OCTS) : 0;
}

PNV_UINT32 pelnic_dec_oct(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                          const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_OCTS);
    PELNIC_ERROR_CODE rc = element.begin(pObj, nDecoded, pTempl);
    if (rc != 0) return rc;
    const PNV_BYTE* octs = nullptr;
    rc = readOctets(pVrf, b, pTempl, &element, &octs);
    if (rc == 0) rc = element.measure(nDecoded);
    if (rc != 0) return rc;
    const PNV_UINT32 length = element.length;
    PNV_BYTE* copy = nullptr;
    if (length != 0) {
        copy = copyOctets(pVrf, octs, length, PELNIC_ERR_ASN_OCTS, &rc);
        if (copy == nullptr) return rc;
    }
    element.keep();
    element.store(pObj, length, copy);
    return 0;
}

// An owned record of octets and its copy share one block: lists of revoked certificates have two of them per entry.
static PNV_BYTE* octsBehind(PELNIC_ASN_OCTS* pOcts)
{
    return reinterpret_cast<PNV_BYTE*>(pOcts + 1);
}

static bool isOctets(const PELNIC_ASN1_TEMPLATE* pTempl)
{
    if (pTempl->asn1_item == nullptr) return false;
    const PELNIC_ASN1_FUNCTIONS* const pFunc = pTempl->asn1_item->asn_func;
    return pFunc == &g_pnvAsnFuncOct || pFunc == &g_pnvAsnFuncBigInt;
}

// pelnic_dec_oct into such a block.
static PELNIC_ERROR_CODE decodeOctetsRecord(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32* nDecoded,
                                            const PELNIC_ASN1_TEMPLATE* pTempl, void** ppRecord)
{
    Element element(b, PELNIC_ERR_ASN_OCTS);
    PELNIC_ERROR_CODE rc = element.begin(ppRecord, nDecoded, pTempl);
    if (rc != 0) return rc;
    const PNV_BYTE* octs = nullptr;
    rc = readOctets(pVrf, b, pTempl, &element, &octs);
    if (rc == 0) rc = element.measure(nDecoded);
    if (rc != 0) return rc;
    const PNV_UINT32 length = element.length;
    void* block = nullptr;
    rc = pelnic_malloc(pVrf, &block, PNV_UINT32{sizeof(PELNIC_ASN_OCTS)} + length); // length is below 2^31
    if (rc != 0 || block == nullptr) return rc != 0 ? rc : PELNIC_ERR_ASN_OCTS;
    PELNIC_ASN_OCTS* const pOcts = static_cast<PELNIC_ASN_OCTS*>(block);
    element.store(pOcts, length, length != 0 ? octsBehind(pOcts) : nullptr);
    if (length != 0) rc = pelnic_memcpy_s(pVrf, pOcts->octs, length, octs, length);
    if (rc != 0) {
        pelnic_free(pVrf, block);
        return rc;
    }
    element.keep();
    *ppRecord = block;
    return 0;
}

PNV_UINT32 pelnic_dec_bigint(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                             const PELNIC_ASN1_TEMPLATE* pTempl)
{
    return pelnic_dec_oct(pVrf, b, pObj, nDecoded, pTempl);
}

void pelnic_free_oct(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_TEMPLATE* pTempl)
{
    PELNIC_ASN_OCTS* const pOcts = static_cast<PELNIC_ASN_OCTS*>(pObj);
    if (pOcts == nullptr) return;
    const bool inOneBlock =
        (pTempl->flag & PNV_FLAG_POINTER) != 0 && isOctets(pTempl) && pOcts->octs == octsBehind(pOcts);
    if (!inOneBlock) pelnic_free(pVrf, pOcts->octs);
    pOcts->octs = nullptr;
}

static PNV_BYTE identifierOctet(const PELNIC_ASN1_ITEM* pItem)
{
    const PNV_UINT32 form = pItem->ber_form == CBF_CONS ? CONSTRUCTED_BIT : 0;
    return static_cast<PNV_BYTE>(static_cast<PNV_UINT32>(pItem->ber_class) << 6 | form |
                                 static_cast<PNV_UINT32>(pItem->ber_code));
}

PNV_UINT32 pelnic_peek_oct(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                           const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_PEEK_OCTS); // never kept: the next template decodes the same element
    PELNIC_ERROR_CODE rc = element.begin(pObj, nDecoded, pTempl);
    if (rc != 0) return rc;
    const bool retagged = (pTempl->tagType & PNV_TAG_IMPLICIT) != 0;
    const PELNIC_ASN1_ITEM* const becomes = static_cast<const PELNIC_ASN1_ITEM*>(pTempl->pDefaultVal);
    if (retagged && becomes == nullptr) return PELNIC_ERR_ASN_PEEK_OCTS;
    const PNV_BYTE* const encoding = pelnic_buf_get_point(b);
    PNV_UINT32 headerLength = 0;
    rc = element.peek(pVrf, &headerLength);
    if (rc != 0) return rc;
    const PNV_UINT32 length = headerLength + element.length; // within the input
    PNV_BYTE* const copy = copyOctets(pVrf, encoding, length, PELNIC_ERR_ASN_PEEK_OCTS, &rc);
    if (copy == nullptr) return PELNIC_ERR_ASN_PEEK_OCTS; // of a failed copy, too, whose code octets pass on
    if (retagged) copy[0] = identifierOctet(becomes);
    element.store(pObj, length, copy);
    *nDecoded = 0;
    return 0;
}

PNV_UINT32 pelnic_link_oct(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                           const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_PEEK_OCTS); // never kept
    PELNIC_ERROR_CODE rc = element.begin(pObj, nDecoded, pTempl);
    if (rc != 0) return rc;
    PNV_UINT32 headerLength = 0;
    rc = element.peek(pVrf, &headerLength);
    if (rc != 0) return rc;
    element.store(pObj, element.length, const_cast<PNV_BYTE*>(pelnic_buf_get_point(b)));
    *nDecoded = headerLength;
    return 0;
}

void pelnic_free_link_oct(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*) {}

static void freeRecord(const PELNIC_VRF* pVrf, void* pRecord, const PELNIC_ASN1_TEMPLATE* pTempl)
{
    pTempl->asn1_item->asn_func->pFree(pVrf, pRecord, pTempl);
    pelnic_free(pVrf, pRecord);
}

// Decodes a value into a new record; *ppRecord is written only on success.
static PELNIC_ERROR_CODE decodeRecord(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32* nDecoded,
                                      const PELNIC_ASN1_TEMPLATE* pTempl, void** ppRecord)
{
    if (isOctets(pTempl)) return decodeOctetsRecord(pVrf, b, nDecoded, pTempl, ppRecord);
    PELNIC_ERROR_CODE rc = 0;
    void* const pRecord = newRecord(pVrf, pTempl->asn1_item->item_szie, &rc);
    if (pRecord == nullptr) return rc;
    rc = pTempl->asn1_item->asn_func->pDecode(pVrf, b, pRecord, nDecoded, pTempl);
    if (rc != 0) {
        pelnic_free(pVrf, pRecord); // its contents were released by the failure
        return rc;
    }
    *ppRecord = pRecord;
    return 0;
}

// ---- BIT STRING, INTEGER, ENUMERATED, BOOLEAN

PNV_UINT32 pelnic_dec_bits(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                           const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_BITS);
    PELNIC_ERROR_CODE rc = element.open(pVrf, pObj, nDecoded, pTempl, CBT_BITSTRING);
    if (rc != 0) return rc;
    PNV_BYTE unused = 0;
    if (element.length == 0 || pelnic_buf_get(b, &unused) != 0) return PNV_WHY(Value, PELNIC_ERR_ASN_BITS);
    const PNV_UINT32 byteLen = element.length - 1;
    if (unused > 8 || unused > PNV_UINT64{byteLen} * 8) return PNV_WHY(Value, PELNIC_ERR_ASN_BITS);
    const PNV_BYTE* const octets = pelnic_buf_get_point(b);
    if (skip(b, byteLen) != 0) return PELNIC_ERR_ASN_BITS;
    PNV_BYTE* copy = nullptr;
    if (byteLen != 0) {
        copy = copyOctets(pVrf, octets, byteLen, PELNIC_ERR_ASN_BITS, &rc);
        if (copy == nullptr) return PELNIC_ERR_ASN_BITS;
    }
    rc = element.keep(nDecoded);
    if (rc != 0) {
        pelnic_free(pVrf, copy);
        return rc;
    }
    const PNV_UINT64 bitLen = PNV_UINT64{byteLen} * 8 - unused;
    PELNIC_ASN_BITS* const pBits = static_cast<PELNIC_ASN_BITS*>(pObj);
    pBits->bitLen = static_cast<PNV_UINT32>(bitLen);
    pBits->tag = element.tag;
    pBits->bits = copy;
    pBits->byteLen = byteLen;
    return 0;
}

void pelnic_free_bits(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_TEMPLATE*)
{
    PELNIC_ASN_BITS* const pBits = static_cast<PELNIC_ASN_BITS*>(pObj);
    if (pBits == nullptr) return;
    pelnic_free(pVrf, pBits->bits);
    pBits->bits = nullptr;
}

PELNIC_ERROR_CODE _pnvDecodeInteger(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_INT32* pValue, PNV_UINT32* nDecoded,
                                    const PELNIC_ASN1_TEMPLATE* pTempl, PELNIC_BER_TAG_CODE code)
{
    if (code != CBT_INTEGER && code != CBT_ENUM) return PELNIC_ERR_NULL_POINTER;
    Element element(b, PELNIC_ERR_ASN_INT);
    PELNIC_ERROR_CODE rc = element.open(pVrf, pValue, nDecoded, pTempl, code);
    if (rc != 0) return rc;
    if (element.length == 0 || element.length > MAX_INT_OCTETS) return PNV_WHY(Value, PELNIC_ERR_ASN_INT);
    const PNV_BYTE* const first = pelnic_buf_get_point(b);
    if (first == nullptr) return PELNIC_ERR_ASN_INT;
    PNV_UINT32 value = (*first & 0x80) != 0 ? 0xFFFFFFFFu : 0; // sign extension, in unsigned arithmetic
    for (PNV_UINT32 i = 0; i < element.length; ++i) {
        PNV_BYTE octet = 0;
        if (pelnic_buf_get(b, &octet) != 0) return PELNIC_ERR_ASN_INT;
        value = value << 8 | octet;
    }
    rc = element.keep(nDecoded);
    if (rc != 0) return rc;
    *pValue = static_cast<PNV_INT32>(value);
    return 0;
}

PNV_UINT32 pelnic_dec_int(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                          const PELNIC_ASN1_TEMPLATE* pTempl)
{
    return _pnvDecodeInteger(pVrf, b, static_cast<PELNIC_ASN_INT*>(pObj), nDecoded, pTempl, CBT_INTEGER);
}

PNV_UINT32 pelnic_dec_enum(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                           const PELNIC_ASN1_TEMPLATE* pTempl)
{
    return _pnvDecodeInteger(pVrf, b, static_cast<PELNIC_ASN_ENUM*>(pObj), nDecoded, pTempl, CBT_ENUM);
}

void pelnic_free_int(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*) {}

void pelnic_free_enum(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*) {}

PNV_UINT32 pelnic_dec_bool(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                           const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_BOOL);
    PELNIC_ERROR_CODE rc = element.open(pVrf, pObj, nDecoded, pTempl, CBT_BOOLEAN);
    if (rc != 0) return rc;
    PNV_BYTE octet = 0;
    if (element.length != 1 || pelnic_buf_get(b, &octet) != 0) return PNV_WHY(Value, PELNIC_ERR_ASN_BOOL);
    rc = element.keep(nDecoded);
    if (rc != 0) return rc;
    *static_cast<PELNIC_ASN_BOOL*>(pObj) = octet != 0 ? 1 : 0;
    return 0;
}

void pelnic_free_bool(const PELNIC_VRF*, void*, const PELNIC_ASN1_TEMPLATE*) {}

// ---- SEQUENCE

PELNIC_ERROR_CODE _pnvSeqCheckRemainOptional(const PELNIC_ASN1_ITEM* pItem, PNV_UINT32 index)
{
    for (PNV_UINT32 i = index; i < pItem->templ_count; ++i) {
        if ((templatesOf(pItem)[i].flag & (PNV_FLAG_OPTIONAL | PNV_FLAG_DEFAULT)) == 0) {
            return PNV_WHY_ROW(Missing, templatesOf(pItem) + i, PELNIC_ERR_ASN_SEQ);
        }
    }
    return 0;
}

// Decodes a field's value, its explicit tag consumed, into a new record or in place.
static PELNIC_ERROR_CODE decodeFieldValue(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                                          const PELNIC_ASN1_TEMPLATE* pTempl)
{
    void* const place = at(pObj, pTempl->offset_val);
    if ((pTempl->flag & PNV_FLAG_POINTER) == 0) {
        return pTempl->asn1_item->asn_func->pDecode(pVrf, b, place, nDecoded, pTempl);
    }
    return decodeRecord(pVrf, b, nDecoded, pTempl, &pointerAt(place, 0));
}

PELNIC_ERROR_CODE _pnvDecSeqValue(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                                  const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_PEEK_TAG);
    PELNIC_ERROR_CODE rc = element.begin(pObj, nDecoded, pTempl);
    if (rc != 0) return rc;
    if ((pTempl->flag & (PNV_FLAG_OPTIONAL | PNV_FLAG_DEFAULT)) != 0) {
        PELNIC_BER_TAG tag = {};
        rc = pelnic_peek_tag(pVrf, b, &tag);
        if (rc != 0) return rc;
        if (_pnvCheckTag(pVrf, pTempl, &tag) != 0) {
            if ((pTempl->flag & PNV_FLAG_POINTER) != 0) pointerAt(pObj, pTempl->offset_val) = nullptr;
            *nDecoded = 0;
            return 0;
        }
    }
    PNV_UINT32 outerOctets = 0;
    if (pTempl->tagType == PNV_TAG_EXPLICIT) {
        rc = readExplicitHeader(pVrf, b, pTempl);
        if (rc == 0) rc = element.measure(&outerOctets);
        if (rc != 0) return rc;
    }
    rc = decodeFieldValue(pVrf, b, pObj, nDecoded, pTempl);
    if (rc != 0) return rc;
    element.keep();
    *nDecoded += outerOctets;
    return 0;
}

// Whether a field's value comes first: there is no tag to check before it, and none to skip.
static bool isPlain(const PELNIC_ASN1_TEMPLATE* pTempl)
{
    return (pTempl->flag & (PNV_FLAG_OPTIONAL | PNV_FLAG_DEFAULT)) == 0 && pTempl->tagType != PNV_TAG_EXPLICIT;
}

// Whether the first row keeps the encoding of the element that the second one decodes. It is copied when that is done:
// most of what is not what it seems ends there, a long CRL tried as a certificate for instance. Encodings that the row
// refuses are left to it.
static bool isCopiedLater(const PELNIC_VRF* pVrf, PELNIC_BUF* b, const PELNIC_ASN1_TEMPLATE* field)
{
    if (field->asn1_item->asn_func != &g_pnvAsnFuncPeekOct || field->tagType != PNV_TAG_NONE || !isPlain(field + 1)) {
        return false;
    }
    const PNV_BYTE* const first = pelnic_buf_get_point(b);
    if (first == nullptr || (*first & HIGH_TAG_NUMBER) == HIGH_TAG_NUMBER) return false; // which is logged, once
    PNV_DECODING(b, field, field->name_val);
    const PNV_UINT32 start = b->iCursor;
    PELNIC_BER_TAG tag = {};
    PNV_UINT32 length = 0;
    const bool isReadable = readHeader(pVrf, b, &tag, &length) == 0 && length != 0;
    b->iCursor = start;
    return isReadable;
}

static inline PELNIC_ERROR_CODE decodeField(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj,
                                            const PELNIC_ASN1_TEMPLATE* field)
{
    PNV_DECODING(b, field, field->name_val);
    PNV_UINT32 octets = 0;
    if ((field->flag & PNV_FLAG_ANY) != 0) return pelnic_dec_any(pVrf, b, pObj, &octets, field);
    if (isPlain(field) && b->iCursor < b->nBufLen) return decodeFieldValue(pVrf, b, pObj, &octets, field);
    return _pnvDecSeqValue(pVrf, b, pObj, &octets, field);
}

static PELNIC_ERROR_CODE decodeAndCopy(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj,
                                       const PELNIC_ASN1_TEMPLATE* peek)
{
    const PNV_UINT32 start = b->iCursor;
    PELNIC_ERROR_CODE rc = decodeField(pVrf, b, pObj, peek + 1);
    if (rc != 0) return rc;
    const PNV_UINT32 end = b->iCursor;
    b->iCursor = start;
    rc = decodeField(pVrf, b, pObj, peek);
    b->iCursor = end;
    return rc;
}

// Decodes the fields in order into a record; on failure the caller frees the fields decoded so far.
static PELNIC_ERROR_CODE decodeFields(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj,
                                      const PELNIC_ASN1_TEMPLATE* pTempl, PNV_UINT32 contentLength)
{
    const PELNIC_ASN1_ITEM* const pItem = pTempl->asn1_item;
    const bool bounded = !isContentOnly(pTempl);
    PNV_UINT32 contentStart = 0;
    if (pelnic_buf_tell(b, &contentStart) != 0) return PELNIC_ERR_ASN_SEQ;
    PNV_UINT32 consumed = 0;
    PELNIC_ERROR_CODE rc = 0;
    for (PNV_UINT32 i = 0; i < pItem->templ_count; ++i) {
        const PELNIC_ASN1_TEMPLATE* const field = templatesOf(pItem) + i;
        rc = consumedSince(b, contentStart, PELNIC_ERR_ASN_SEQ, &consumed);
        if (rc != 0) return rc;
        if (bounded && consumed == contentLength) return _pnvSeqCheckRemainOptional(pItem, i);
        if (bounded && consumed > contentLength) return PNV_WHY(Overrun, PELNIC_ERR_ASN_SEQ);
        if (i == 0 && pItem->templ_count > 1 && isCopiedLater(pVrf, b, field)) {
            rc = decodeAndCopy(pVrf, b, pObj, field);
            ++i;
        } else {
            rc = decodeField(pVrf, b, pObj, field);
        }
        if (rc != 0) return rc;
    }
    if (!bounded) return 0;
    rc = consumedSince(b, contentStart, PELNIC_ERR_ASN_SEQ, &consumed);
    if (rc != 0 || consumed == contentLength) return rc;
    // If the last field extended beyond the content, decoded values could lie outside the signed octets.
    if (consumed > contentLength) return PNV_WHY(Overrun, PELNIC_ERR_ASN_SEQ);
    // Remaining content is not refused: one identifier octet of it is consumed and decoding continues after it.
    PELNIC_BER_TAG tag = {};
    return pelnic_dec_tag(pVrf, b, &tag, &consumed) != 0 ? PELNIC_ERR_ASN_SEQ : 0;
}

PNV_UINT32 pelnic_dec_seq(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                          const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_SEQ);
    PELNIC_ERROR_CODE rc = element.begin(pObj, nDecoded, pTempl);
    if (rc == 0) rc = element.header(pVrf, nDecoded, pTempl, CBF_CONS, pTempl->asn1_item->ber_code);
    if (rc != 0) return rc;
    rc = decodeFields(pVrf, b, pObj, pTempl, element.length);
    if (rc == 0) rc = element.keep(nDecoded);
    if (rc != 0) pelnic_free_seq(pVrf, pObj, pTempl);
    return rc;
}

// Frees a value in place or, with the pointer flag, together with its separate record.
static void freeValue(const PELNIC_VRF* pVrf, void* place, const PELNIC_ASN1_TEMPLATE* pTempl)
{
    if ((pTempl->flag & PNV_FLAG_POINTER) == 0) {
        pTempl->asn1_item->asn_func->pFree(pVrf, place, pTempl);
        return;
    }
    void*& pRecord = pointerAt(place, 0);
    if (pRecord != nullptr) freeRecord(pVrf, pRecord, pTempl);
    pRecord = nullptr;
}

void pelnic_free_seq(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_TEMPLATE* pTempl)
{
    if (pObj == nullptr) return;
    if (pVrf != nullptr && pVrf->pCarving != nullptr) return; // its contents are released with the blocks
    // In reverse order, so that an ANY still finds the field that selects its type.
    for (PNV_UINT32 i = pTempl->asn1_item->templ_count; i-- > 0;) {
        const PELNIC_ASN1_TEMPLATE* const field = templatesOf(pTempl->asn1_item) + i;
        if ((field->flag & PNV_FLAG_ANY) != 0) {
            pelnic_free_any(pVrf, pObj, field);
        } else {
            freeValue(pVrf, at(pObj, field->offset_val), field);
        }
    }
}

// ---- SET OF and SEQUENCE OF

// Each element is a record of its own, whatever the row's pointer flag says: that flag is about the list.
static PELNIC_ASN1_TEMPLATE ownedElement(const PELNIC_ASN1_TEMPLATE* pElement)
{
    PELNIC_ASN1_TEMPLATE element = *pElement;
    element.flag = static_cast<PNV_UINT16>(element.flag | PNV_FLAG_POINTER);
    return element;
}

// _pnv_dec_seq_elem with the row of an owned element, carved from the blocks if there are any.
static PELNIC_ERROR_CODE decodeElement(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_LIST_DUMMY* pList,
                                       CarvedBlocks* pBlocks, PNV_UINT32* nDecoded, const PELNIC_ASN1_TEMPLATE* pOwned)
{
    void* pRecord = nullptr;
    PELNIC_ERROR_CODE rc = 0;
    {
        const Carving carving(pVrf, pBlocks);
        rc = decodeRecord(pVrf, b, nDecoded, pOwned, &pRecord);
    }
    if (rc != 0) return rc;
    rc = pelnic_list_add(pVrf, pList, pRecord, CLSP_END);
    if (rc != 0) {
        const Carving carving(pVrf, pBlocks);
        freeRecord(pVrf, pRecord, pOwned);
    }
    return rc;
}

PELNIC_ERROR_CODE _pnv_dec_seq_elem(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PELNIC_LIST_DUMMY* pList,
                                    PNV_UINT32* nDecoded, const PELNIC_ASN1_TEMPLATE* pElement)
{
    const PELNIC_ASN1_TEMPLATE element = ownedElement(pElement);
    return decodeElement(pVrf, b, pList, pVrf == nullptr ? nullptr : pVrf->pCarving, nDecoded, &element);
}

// The list of an element template in its record, or null.
static PELNIC_LIST_DUMMY* listIn(void* pObj, const PELNIC_ASN1_TEMPLATE* pElement)
{
    const bool owned = (pElement->flag & PNV_FLAG_POINTER) != 0;
    return static_cast<PELNIC_LIST_DUMMY*>(owned ? pointerAt(pObj, pElement->offset_val)
                                                 : at(pObj, pElement->offset_val));
}

// A decoded CRL entry takes about four times its encoding: a block has room for the remaining entries, with little left
// over.
static PNV_UINT32 blockSize(PNV_UINT32 contentLeft)
{
    return contentLeft < MAX_BLOCK / 4 ? contentLeft * 4 : MAX_BLOCK;
}

// The blocks for a list's elements: its own if the row says so, else those of the list itself.
static CarvedBlocks* blocksOf(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_TEMPLATE* pElement)
{
    if ((pElement->flag & PNV_FLAG_CARVED) != 0) return static_cast<CarvedBlocks*>(at(pObj, pElement->offset_type));
    return pVrf == nullptr ? nullptr : pVrf->pCarving;
}

static PELNIC_ERROR_CODE decodeElements(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj,
                                        const PELNIC_ASN1_TEMPLATE* pElement, PNV_UINT32 contentLength)
{
    if ((pElement->flag & PNV_FLAG_POINTER) != 0) {
        PELNIC_ERROR_CODE rc = 0;
        pointerAt(pObj, pElement->offset_val) = newRecord(pVrf, PNV_UINT32{sizeof(PELNIC_LIST_DUMMY)}, &rc);
        if (rc != 0) return PELNIC_ERR_ASN_SETOF;
    }
    PELNIC_LIST_DUMMY* const pList = listIn(pObj, pElement);
    const PNV_UINT32 capacity = static_cast<PNV_UINT32>(reinterpret_cast<uintptr_t>(pElement->pDefaultVal));
    if (pelnic_list_init(pVrf, pList, capacity) != 0) return PELNIC_ERR_ASN_SETOF;

    PNV_UINT32 contentStart = 0;
    if (pelnic_buf_tell(b, &contentStart) != 0) return PELNIC_ERR_ASN_SETOF;
    CarvedBlocks* const pBlocks = blocksOf(pVrf, pObj, pElement);
    const PELNIC_ASN1_TEMPLATE owned = ownedElement(pElement);
    PNV_UINT32 consumed = 0;
    while (consumed < contentLength) {
        const PNV_UINT32 before = consumed;
        PNV_UINT32 octets = 0;
        if ((pElement->flag & PNV_FLAG_CARVED) != 0) pBlocks->nBlockSize = blockSize(contentLength - consumed);
        PNV_DECODING(b, pElement, pElement->name_val, pList->num);
        if (decodeElement(pVrf, b, pList, pBlocks, &octets, &owned) != 0) return PELNIC_ERR_ASN_SETOF;
        if (consumedSince(b, contentStart, PELNIC_ERR_ASN_SETOF, &consumed) != 0) return PELNIC_ERR_ASN_SETOF;
        if (consumed == before) return PELNIC_ERR_ASN_SETOF; // or it would never end
    }
    return consumed == contentLength ? 0 : PNV_WHY(Overrun, PELNIC_ERR_ASN_SETOF);
}

PNV_UINT32 pelnic_dec_setof(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                            const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_SETOF);
    PELNIC_ERROR_CODE rc = element.begin(pObj, nDecoded, pTempl);
    if (rc != 0) return rc;
    const PELNIC_ASN1_ITEM* const pItem = pTempl->asn1_item;
    if (pItem->templ_count != 1) return PELNIC_ERR_NULL_POINTER;
    rc = element.header(pVrf, nDecoded, pTempl, CBF_CONS, pItem->ber_code);
    if (rc != 0) return rc;
    rc = decodeElements(pVrf, b, pObj, templatesOf(pItem), element.length);
    if (rc == 0) rc = element.keep(nDecoded);
    if (rc != 0) pelnic_free_setof(pVrf, pObj, pTempl);
    return rc;
}

void pelnic_free_setof(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_TEMPLATE* pTempl)
{
    if (pObj == nullptr || pTempl->asn1_item->templ_count != 1) return;
    const PELNIC_ASN1_TEMPLATE* const pElement = templatesOf(pTempl->asn1_item);
    PELNIC_LIST_DUMMY* const pList = listIn(pObj, pElement);
    if (pList == nullptr) return;
    const PELNIC_ASN1_TEMPLATE element = ownedElement(pElement);
    CarvedBlocks* const pBlocks = blocksOf(pVrf, pObj, pElement);
    {
        const Carving carving(pVrf, pBlocks);
        for (PNV_UINT32 i = 0; pList->data != nullptr && i < pList->num; ++i) {
            freeRecord(pVrf, pList->data[i], &element);
        }
    }
    if ((pElement->flag & PNV_FLAG_CARVED) != 0) _pnvFreeBlocks(pVrf, pBlocks);
    pelnic_free(pVrf, pList->data);
    *pList = PELNIC_LIST_DUMMY{};
    if ((pElement->flag & PNV_FLAG_POINTER) == 0) return;
    pelnic_free(pVrf, pList);
    pointerAt(pObj, pElement->offset_val) = nullptr;
}

// ---- CHOICE

// The index of the first alternative that expects the tag, or templ_count.
static PNV_UINT32 findAlternative(const PELNIC_VRF* pVrf, const PELNIC_ASN1_ITEM* pItem, const PELNIC_BER_TAG* pTag)
{
    PNV_UINT32 index = 0;
    while (index < pItem->templ_count && _pnvCheckTag(pVrf, templatesOf(pItem) + index, pTag) != 0) ++index;
    return index;
}

PNV_UINT32 pelnic_dec_choice(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                             const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_CHOICE);
    PELNIC_ERROR_CODE rc = element.begin(pObj, nDecoded, pTempl);
    if (rc != 0) return rc;
    const PELNIC_ASN1_ITEM* const pItem = pTempl->asn1_item;
    if (pelnic_peek_tag(pVrf, b, &element.tag) != 0) return PELNIC_ERR_ASN_CHOICE;
    PELNIC_ASN_CHOICE* const pChoice = static_cast<PELNIC_ASN_CHOICE*>(pObj);
    const PNV_UINT32 index = findAlternative(pVrf, pItem, &element.tag);
    if (index == pItem->templ_count) return PNV_WHY(Tag, PELNIC_ERR_ASN_CHOICE);
    pChoice->index = index;

    // The value lies behind the index, whatever offset the alternative's row has.
    PELNIC_ASN1_TEMPLATE alternative = templatesOf(pItem)[index];
    alternative.offset_val = 0;
    ScopeExit freeChoice{[&] { pelnic_free_choice(pVrf, pObj, pTempl); }};
    if (alternative.tagType == PNV_TAG_EXPLICIT && readExplicitHeader(pVrf, b, &alternative) != 0) {
        return PELNIC_ERR_ASN_CHOICE;
    }
    if (decodeFieldValue(pVrf, b, &pChoice->value, nDecoded, &alternative) != 0) return PELNIC_ERR_ASN_CHOICE;
    rc = element.keep(nDecoded);
    freeChoice.armed = rc != 0;
    return rc;
}

void pelnic_free_choice(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_TEMPLATE* pTempl)
{
    PELNIC_ASN_CHOICE* const pChoice = static_cast<PELNIC_ASN_CHOICE*>(pObj);
    if (pChoice == nullptr || pChoice->index >= pTempl->asn1_item->templ_count) return;
    freeValue(pVrf, &pChoice->value, templatesOf(pTempl->asn1_item) + pChoice->index);
}

// ---- ANY

const PELNIC_ASN1_TEMPLATE* _pnvFindTemplateFromAnyMap(const PELNIC_VRF* pVrf, const void* pObj,
                                                       const PELNIC_ASN1_TEMPLATE* pField)
{
    const PELNIC_ASN_OID* const selector =
        reinterpret_cast<const PELNIC_ASN_OID*>(static_cast<const PNV_BYTE*>(pObj) + pField->offset_type);
    const PELNIC_ASN1_ANY_MAP* const map = static_cast<const PELNIC_ASN1_ANY_MAP*>(pField->asn1_item->asn_templ);
    const bool byNumber = (pField->flag & PNV_FLAG_ANY_NUMBER) != 0;
    for (PNV_UINT32 i = 0; i < pField->asn1_item->templ_count; ++i) {
        if (byNumber) {
            if (static_cast<PNV_UINT32>(map[i].iAnyId) == selector->len) return map[i].pstAnyTempl;
            continue;
        }
        const PELNIC_ASN_OID* const oid = pelnic_find_oid(pVrf, static_cast<PELNIC_AOIDS>(map[i].iAnyId));
        if (oid == nullptr) return nullptr; // an unknown identifier ends the search
        if (pelnic_compare_asn_octs(pVrf, oid, selector) == 0) return map[i].pstAnyTempl;
    }
    return nullptr;
}

PELNIC_ASN1_TEMPLATE _pnvAdaptTagOfAnyTempl(const PELNIC_ASN1_TEMPLATE* pField, const PELNIC_ASN1_TEMPLATE* pChosen)
{
    PELNIC_ASN1_TEMPLATE adapted = *pChosen;
    if (pField->tagType == PNV_TAG_NONE) return adapted;
    const bool implicit = pField->tagType == PNV_TAG_IMPLICIT && pChosen->asn1_item->asn_func != &g_pnvAsnFuncChoice;
    adapted.tagType = implicit ? PNV_TAG_IMPLICIT : PNV_TAG_EXPLICIT;
    adapted.tagCode = pField->tagCode;
    return adapted;
}

// The tag that begins an ANY field. It differs from _pnvCheckTag of the adapted template only for octet strings.
static bool beginsAny(const PELNIC_VRF* pVrf, const PELNIC_ASN1_TEMPLATE* pAdapted, const PELNIC_BER_TAG* pTag)
{
    if (pAdapted->tagType == PNV_TAG_NONE) return _pnvCheckTag(pVrf, pAdapted, pTag) == 0;
    const PELNIC_BER_FORM form = pAdapted->tagType == PNV_TAG_IMPLICIT ? pAdapted->asn1_item->ber_form : CBF_CONS;
    const PELNIC_BER_TAG expected = contextTag(form, pAdapted->tagCode);
    return _pnvCompareBerTag(pVrf, &expected, pTag) == 0;
}

PELNIC_ERROR_CODE _pnvDecAnyItem(const PELNIC_VRF* pVrf, PELNIC_BUF* b, PNV_UINT32* nDecoded,
                                 const PELNIC_ASN1_TEMPLATE* pField, const PELNIC_ASN1_TEMPLATE* pChosen,
                                 void** ppRecord)
{
    const PELNIC_ASN1_TEMPLATE adapted = _pnvAdaptTagOfAnyTempl(pField, pChosen);
    PELNIC_BER_TAG tag = {};
    PELNIC_ERROR_CODE rc = pelnic_peek_tag(pVrf, b, &tag);
    if (rc != 0) return rc;
    // The target's decoder handles a required field with another tag.
    if ((pField->flag & PNV_FLAG_OPTIONAL) != 0 && !beginsAny(pVrf, &adapted, &tag)) return PELNIC_ERR_ASN_ANY_ABSENT;

    const PELNIC_ASN1_ITEM* const pItem = adapted.asn1_item;
    void* const pRecord = newRecord(pVrf, pItem->item_szie, &rc);
    if (pRecord == nullptr) return PELNIC_ERR_ASN_ANY;
    ScopeExit releaseRecord{[&] { pelnic_free(pVrf, pRecord); }};
    PNV_UINT32 length = 0;
    if (adapted.tagType == PNV_TAG_EXPLICIT) {
        rc = readHeader(pVrf, b, &tag, &length); // skipped, whatever its tag
        if (rc != 0) return rc;
    }
    rc = pItem->asn_func->pDecode(pVrf, b, pRecord, nDecoded, &adapted);
    if (rc != 0) return rc;
    releaseRecord.armed = false;
    *ppRecord = pRecord;
    return 0;
}

PNV_UINT32 pelnic_dec_any(const PELNIC_VRF* pVrf, PELNIC_BUF* b, void* pObj, PNV_UINT32* nDecoded,
                          const PELNIC_ASN1_TEMPLATE* pTempl)
{
    Element element(b, PELNIC_ERR_ASN_ANY);
    PELNIC_ERROR_CODE rc = element.begin(pObj, nDecoded, pTempl);
    if (rc != 0) return rc;
    const PELNIC_ASN1_TEMPLATE* const pChosen = _pnvFindTemplateFromAnyMap(pVrf, pObj, pTempl);
    if (pChosen == nullptr) {
        const PELNIC_ERROR_CODE notFound = PNV_WHY(Type, PELNIC_ERR_ASN_ANY);
        return PNV_FAIL_MSG(pVrf, notFound, "map template not found.");
    }
    void* pRecord = nullptr;
    rc = _pnvDecAnyItem(pVrf, b, nDecoded, pTempl, pChosen, &pRecord);
    if (rc == PELNIC_ERR_ASN_ANY_ABSENT) {
        *nDecoded = 0;
        return 0;
    }
    if (rc != 0) return rc;
    pointerAt(pObj, pTempl->offset_val) = pRecord;
    const PELNIC_ERROR_CODE measured = element.measure(nDecoded);
    element.keep();
    return measured;
}

void pelnic_free_any(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_TEMPLATE* pTempl)
{
    if (pObj == nullptr) return;
    void*& pRecord = pointerAt(pObj, pTempl->offset_val);
    if (pRecord == nullptr) return;
    const PELNIC_ASN1_TEMPLATE* const pChosen = _pnvFindTemplateFromAnyMap(pVrf, pObj, pTempl);
    if (pChosen != nullptr) {
        PELNIC_ASN1_TEMPLATE chosen = *pChosen;
        chosen.flag = 0; // octets chosen by an ANY are a separate block
        chosen.asn1_item->asn_func->pFree(pVrf, pRecord, &chosen);
    }
    pelnic_free(pVrf, pRecord);
    pRecord = nullptr;
}

// ---- Entry points

// The template for a whole value.
static PELNIC_ASN1_TEMPLATE topLevel(const PELNIC_ASN1_ITEM* pAsnItem, PNV_BYTE flag)
{
    PELNIC_ASN1_TEMPLATE templ = {};
    templ.asn1_item = pAsnItem;
    templ.tagType = flag & PNV_TAG_CONTENT_ONLY;
    templ.flag = PNV_FLAG_POINTER | flag;
    return templ;
}

PELNIC_ERROR_CODE pelnic_asn_decode(const PELNIC_VRF* pVrf, const PNV_BYTE* pbBuf, PNV_UINT32 nBufLen,
                                    const PELNIC_ASN1_ITEM* pAsnItem, PNV_BYTE flag, void** ppResult,
                                    PNV_UINT32* nDecoded)
{
    if (pVrf == nullptr || pbBuf == nullptr || nBufLen == 0 || pAsnItem == nullptr || ppResult == nullptr ||
        nDecoded == nullptr) {
        return PELNIC_ERR_NULL_POINTER;
    }
    const PELNIC_ASN1_TEMPLATE templ = topLevel(pAsnItem, flag);
    if (isContentOnly(&templ)) *nDecoded = nBufLen;
    PELNIC_BUF b = {};
    if (nBufLen > MAX_INPUT || pelnic_buf_init(&b, pbBuf, nBufLen) != 0) return PELNIC_ERR_ASN_DECODE;
    void* pRecord = nullptr;
    PNV_UINT32 consumed = nBufLen; // the content's length, if there is no header
    PNV_DECODING(&b, &templ, nullptr);
    if (decodeRecord(pVrf, &b, &consumed, &templ, &pRecord) != 0) return PELNIC_ERR_ASN_DECODE;
    *ppResult = pRecord;
    *nDecoded = consumed;
    return 0;
}

void pelnic_asn_free(const PELNIC_VRF* pVrf, void* pObj, const PELNIC_ASN1_ITEM* pAsnItem, PNV_BYTE flag)
{
    if (pVrf == nullptr || pObj == nullptr || pAsnItem == nullptr) return;
    const PELNIC_ASN1_TEMPLATE templ = topLevel(pAsnItem, flag);
    freeRecord(pVrf, pObj, &templ);
}

// The item kinds named by the tables of pelnic_asn1_templ.h
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
