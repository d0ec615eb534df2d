// Small inputs, all of them, against models that read like X.690 and this library's narrowing of it: what is taken,
// how many octets of it, and what the record then holds. The short form draws some by a seed that changes with the
// commit; CMSVERIFY_LONG=1 leaves none out.
#include "support/asn1.h"
#include "support/effort.h"
#include "support/random.h"
#include "support/seed.h"

#include "cmsverify/pelnic_asn1_utils.h"
#include "cmsverify/pelnic_base64.h"
#include "cmsverify/pelnic_plt_proxy.h"

#include <array>
#include <functional>
#include <limits>

namespace pnvtest {
namespace {

// ---- The model of the decoder ----

enum class Kind { Octets, BigInt, Peek, PeekAs, Bits, Int, Enum, Bool, Sequence, SetOf, SequenceOf, Choice };
constexpr Kind kKinds[] = {Kind::Octets, Kind::BigInt, Kind::Peek,     Kind::PeekAs, Kind::Bits,       Kind::Int,
                           Kind::Enum,   Kind::Bool,   Kind::Sequence, Kind::SetOf,  Kind::SequenceOf, Kind::Choice};
enum class Tagged { No, Explicit, Implicit };

struct Field {
    Kind kind;
    Tagged tagged = Tagged::No;
    bool mayBeAbsent = false;
    bool isPointer = false;
};
constexpr unsigned kTagNumber = 0; // of tagged fields

// What a record holds, number by number.
using Value = std::vector<std::int64_t>;
constexpr std::int64_t kAbsent = -77;

struct Tag {
    unsigned cls;
    unsigned form;
    unsigned code;
    bool Is(unsigned c, unsigned f, unsigned n) const { return cls == c && form == f && code == n; }
};

class Reader {
public:
    Reader(const std::uint8_t* octets, std::size_t size) : octets_(octets), size_(size) {}

    std::size_t at = 0;

    bool AtEnd() const { return at >= size_; }
    bool ReadTag(Tag* tag)
    {
        if (AtEnd()) return false;
        const unsigned octet = octets_[at++];
        *tag = {octet >> 6, octet >> 5 & 1, octet & 0x1F};
        return tag->code != 31;
    }
    bool PeekTag(Tag* tag)
    {
        const std::size_t start = at;
        const bool isRead = ReadTag(tag);
        at = start;
        return isRead;
    }
    bool ReadLength(std::size_t* length)
    {
        if (AtEnd()) return false;
        *length = octets_[at++];
        if (*length >= 0x80) {
            const std::size_t count = *length & 0x7F;
            if (count == 0 || count > 4) return false;
            *length = 0;
            for (std::size_t i = 0; i < count; ++i) {
                if (AtEnd()) return false;
                *length = *length << 8 | octets_[at++];
            }
        }
        return *length <= size_ - at;
    }
    bool ReadHeader(Tag* tag, std::size_t* length) { return ReadTag(tag) && ReadLength(length); }
    const std::uint8_t* Here() const { return octets_ + at; }

private:
    const std::uint8_t* octets_;
    std::size_t size_;
};

void PushOctets(const std::uint8_t* octets, std::size_t length, Value* value)
{
    value->insert(value->end(), octets, octets + length);
}

// The universal tag of a kind, where one is expected.
struct Expected {
    bool any;
    unsigned form;
    unsigned code;
};
Expected UniversalOf(Kind kind)
{
    switch (kind) {
    case Kind::BigInt:
    case Kind::Int:
    case Kind::Enum: // looked for as an INTEGER
        return {false, 0, 2};
    case Kind::Bits: return {false, 0, 3};
    case Kind::Bool: return {false, 0, 1};
    case Kind::Sequence:
    case Kind::SequenceOf: return {false, 1, 16};
    case Kind::SetOf: return {false, 1, 17};
    default: return {true, 0, 0};
    }
}

// Whether this tag can be the field's.
bool Accepts(const Field& field, const Tag& tag)
{
    const Expected own = UniversalOf(field.kind);
    if (field.tagged == Tagged::Explicit) return tag.Is(field.kind == Kind::Octets ? 0 : 2, 1, kTagNumber);
    if (field.tagged == Tagged::Implicit) {
        return tag.cls == 2 && tag.code == kTagNumber && (own.any || tag.form == own.form);
    }
    if (field.kind == Kind::Choice) return tag.Is(0, 0, 1) || tag.Is(2, 0, 1) || tag.Is(2, 1, 2);
    return own.any || tag.Is(0, own.form, own.code);
}

bool Decode(const Field& field, Reader& in, Value* value);

// The header of everything but octets and choices: universal, or the implicit tag in its place.
bool ReadExpectedHeader(const Field& field, unsigned form, unsigned code, Reader& in, std::size_t* length)
{
    Tag tag{};
    if (!in.ReadTag(&tag)) return false;
    const bool isImplicit = field.tagged == Tagged::Implicit;
    if (!tag.Is(isImplicit ? 2 : 0, form, isImplicit ? kTagNumber : code)) return false;
    return in.ReadLength(length);
}

bool DecodeOctets(const Field& field, Reader& in, Value* value)
{
    Tag tag{};
    std::size_t length = 0;
    Field own = field;
    if (own.tagged == Tagged::Explicit) own.tagged = Tagged::No; // that tag is behind us
    if (!in.ReadTag(&tag) || !Accepts(own, tag) || !in.ReadLength(&length)) return false;
    const std::uint8_t* octets = in.Here();
    in.at += length;
    if (tag.code == 2 && length != 0) {
        while (length != 0 && *octets == 0) {
            ++octets;
            --length;
        }
        if (length == 0) return false;
    }
    *value = {static_cast<std::int64_t>(length), tag.cls, tag.form, tag.code};
    PushOctets(octets, length, value);
    return true;
}

bool Peek(const Field& field, Reader& in, Value* value)
{
    const std::size_t start = in.at;
    const std::uint8_t* const whole = in.Here();
    Tag tag{};
    std::size_t length = 0;
    if (!in.ReadHeader(&tag, &length) || length == 0) return false;
    length += in.at - start;
    in.at = start;
    *value = {static_cast<std::int64_t>(length), tag.cls, tag.form, tag.code};
    PushOctets(whole, length, value);
    if (field.kind == Kind::PeekAs) (*value)[4] = 0x31;
    return true;
}

bool DecodeBits(const Field& field, Reader& in, Value* value)
{
    std::size_t length = 0;
    if (!ReadExpectedHeader(field, 0, 3, in, &length) || length == 0) return false;
    const unsigned unused = *in.Here();
    if (unused > 8 || unused > 8 * (length - 1)) return false;
    const bool isImplicit = field.tagged == Tagged::Implicit;
    *value = {static_cast<std::int64_t>(8 * (length - 1) - unused), static_cast<std::int64_t>(length - 1),
              isImplicit ? 2 : 0, 0, isImplicit ? std::int64_t{kTagNumber} : 3};
    PushOctets(in.Here() + 1, length - 1, value);
    in.at += length;
    return true;
}

bool DecodeInteger(const Field& field, Reader& in, Value* value)
{
    std::size_t length = 0;
    if (!ReadExpectedHeader(field, 0, field.kind == Kind::Enum ? 10 : 2, in, &length)) return false;
    if (length < 1 || length > 4) return false;
    std::int64_t number = *in.Here() >= 0x80 ? -1 : 0;
    for (std::size_t i = 0; i < length; ++i) number = number * 256 + *(in.Here() + i);
    in.at += length;
    *value = {static_cast<std::int32_t>(number)};
    return true;
}

bool DecodeBool(const Field& field, Reader& in, Value* value)
{
    std::size_t length = 0;
    if (!ReadExpectedHeader(field, 0, 1, in, &length) || length != 1) return false;
    *value = {*in.Here() != 0};
    in.at += 1;
    return true;
}

// What a field that is absent reads as.
Value AbsentValue(const Field& field)
{
    if (field.isPointer) return {kAbsent};
    switch (field.kind) {
    case Kind::Bits: return {0, 0, 0, 0, 0};
    case Kind::Int:
    case Kind::Enum:
    case Kind::Bool:
    case Kind::SetOf:
    case Kind::SequenceOf: return {0};
    case Kind::Sequence:
    case Kind::Choice: return {0, 0};
    default: return {0, 0, 0, 0};
    }
}

bool DecodeField(const Field& field, Reader& in, Value* value)
{
    if (field.mayBeAbsent) {
        Tag tag{};
        if (!in.PeekTag(&tag)) return false;
        if (!Accepts(field, tag)) {
            *value = AbsentValue(field);
            return true;
        }
    }
    if (field.tagged == Tagged::Explicit) {
        Tag tag{};
        std::size_t length = 0; // not compared with what stands inside
        if (!in.ReadTag(&tag) || !tag.Is(2, 1, kTagNumber) || !in.ReadLength(&length)) return false;
    }
    return Decode(field, in, value);
}

// A last field that ends behind the SEQUENCE is refused as well.
bool DecodeSequence(const Field& field, const std::vector<Field>& rows, Reader& in, Value* value)
{
    std::size_t length = 0;
    if (!ReadExpectedHeader(field, 1, 16, in, &length)) return false;
    const std::size_t start = in.at;
    value->clear();
    bool isOver = false;
    for (const Field& row : rows) {
        isOver = isOver || in.at - start == length;
        if (isOver && !row.mayBeAbsent) return false;
        if (in.at - start > length) return false;
        Value one = AbsentValue(row);
        if (!isOver && !DecodeField(row, in, &one)) return false;
        value->insert(value->end(), one.begin(), one.end());
    }
    if (in.at - start > length) return false;
    Tag next{};
    return in.at - start == length || in.ReadTag(&next); // what is left over costs one octet
}

bool DecodeList(const Field& field, unsigned code, const Field& element, Reader& in, Value* value)
{
    std::size_t length = 0;
    if (!ReadExpectedHeader(field, 1, code, in, &length)) return false;
    const std::size_t start = in.at;
    *value = {0};
    while (in.at - start < length) {
        Value one;
        if (!Decode(element, in, &one)) return false;
        ++value->front();
        value->insert(value->end(), one.begin(), one.end());
    }
    return in.at - start == length;
}

// CHOICE { BOOLEAN, [1] IMPLICIT INTEGER, [2] EXPLICIT BOOLEAN }
bool DecodeChoice(Reader& in, Value* value)
{
    Tag tag{};
    std::size_t length = 0;
    if (!in.ReadHeader(&tag, &length)) return false;
    const std::uint8_t first = length == 0 ? std::uint8_t{0} : *in.Here();
    if (tag.Is(0, 0, 1)) {
        in.at += 1;
        *value = {0, first != 0};
        return length == 1;
    }
    if (tag.Is(2, 0, 1)) {
        if (length < 1 || length > 4) return false;
        std::int64_t number = first >= 0x80 ? -1 : 0;
        for (std::size_t i = 0; i < length; ++i) number = number * 256 + *(in.Here() + i);
        in.at += length;
        *value = {1, static_cast<std::int32_t>(number)};
        return true;
    }
    if (!tag.Is(2, 1, 2)) return false;
    Value inner;
    if (!DecodeBool({Kind::Bool}, in, &inner)) return false;
    *value = {2, inner[0]};
    return true;
}

// SEQUENCE { number INTEGER OPTIONAL, flag BOOLEAN }
const std::vector<Field> kInnerRows = {{Kind::Int, Tagged::No, true}, {Kind::Bool}};

bool Decode(const Field& field, Reader& in, Value* value)
{
    if (in.AtEnd()) return false;
    switch (field.kind) {
    case Kind::Octets:
    case Kind::BigInt: return DecodeOctets(field, in, value);
    case Kind::Peek:
    case Kind::PeekAs: return Peek(field, in, value);
    case Kind::Bits: return DecodeBits(field, in, value);
    case Kind::Int:
    case Kind::Enum: return DecodeInteger(field, in, value);
    case Kind::Bool: return DecodeBool(field, in, value);
    case Kind::Sequence: return DecodeSequence(field, kInnerRows, in, value);
    case Kind::SetOf: return DecodeList(field, 17, {Kind::Bool}, in, value);
    case Kind::SequenceOf: return DecodeList(field, 16, {Kind::Octets}, in, value);
    default: return DecodeChoice(in, value);
    }
}

// ---- The library's tables for the same ----

struct INNER {
    PELNIC_ASN_INT number;
    PELNIC_ASN_BOOL flag;
};
const PELNIC_ASN1_TEMPLATE kInnerTemplates[] = {
    {&PELNIC_ASN_INT_item, 0, 0, PNV_FLAG_OPTIONAL, offsetof(INNER, number), "number", 0, nullptr},
    {&PELNIC_ASN_BOOL_item, 0, 0, 0, offsetof(INNER, flag), "flag", 0, nullptr},
};
const PELNIC_ASN1_ITEM kInnerItem = SequenceItem<INNER>(kInnerTemplates);

struct BOOLS {
    PNV_UINT32 num;
    PELNIC_ASN_BOOL** data;
    PNV_UINT32 capacity;
};
const PELNIC_ASN1_TEMPLATE kBoolElements[] = {FieldOf(PELNIC_ASN_BOOL_item)};
const PELNIC_ASN1_TEMPLATE kOctetElements[] = {FieldOf(PELNIC_ASN_OCTS_item)};
const PELNIC_ASN1_ITEM kSetItem = {kBoolElements, &g_pnvAsnFuncSetOf, CBC_UNIV, CBF_CONS, CBT_SETS, 1, sizeof(BOOLS)};
const PELNIC_ASN1_ITEM kListItem = {
    kOctetElements, &g_pnvAsnFuncSetOf, CBC_UNIV, CBF_CONS, CBT_SEQUENCES, 1, sizeof(LIST_TYPE_PELNIC_ASN_OCTS)};

struct CHOICE {
    PNV_UINT32 index;
    union {
        PNV_INT64 room; // as in every decoded CHOICE, whose value starts at one offset on every target
        PELNIC_ASN_INT value;
    };
};
const PELNIC_ASN1_TEMPLATE kAlternatives[] = {
    {&PELNIC_ASN_BOOL_item, 0, 0, 0, offsetof(CHOICE, value), "plain", 0, nullptr},
    {&PELNIC_ASN_INT_item, 1, PNV_TAG_IMPLICIT, 0, offsetof(CHOICE, value), "implicit", 0, nullptr},
    {&PELNIC_ASN_BOOL_item, 2, PNV_TAG_EXPLICIT, 0, offsetof(CHOICE, value), "explicit", 0, nullptr},
};
const PELNIC_ASN1_ITEM kChoiceItem = ChoiceItem<CHOICE>(kAlternatives);

const PELNIC_ASN1_ITEM& ItemOf(Kind kind)
{
    switch (kind) {
    case Kind::Octets: return PELNIC_ASN_OCTS_item;
    case Kind::BigInt: return PELNIC_ASN_BIGINT_item;
    case Kind::Peek:
    case Kind::PeekAs: return PELNIC_ASN_PEEK_OCTS_item;
    case Kind::Bits: return PELNIC_ASN_BITS_item;
    case Kind::Int: return PELNIC_ASN_INT_item;
    case Kind::Enum: return PELNIC_ASN_ENUM_item;
    case Kind::Bool: return PELNIC_ASN_BOOL_item;
    case Kind::Sequence: return kInnerItem;
    case Kind::SetOf: return kSetItem;
    case Kind::SequenceOf: return kListItem;
    default: return kChoiceItem;
    }
}

PELNIC_ASN1_TEMPLATE TemplateOf(const Field& field)
{
    PELNIC_ASN1_TEMPLATE row = FieldOf(ItemOf(field.kind));
    if (field.tagged != Tagged::No) row.tagCode = kTagNumber;
    if (field.tagged == Tagged::Explicit) row.tagType = PNV_TAG_EXPLICIT;
    if (field.tagged == Tagged::Implicit) row.tagType = PNV_TAG_IMPLICIT;
    if (field.kind == Kind::PeekAs) {
        row.tagType = PNV_TAG_IMPLICIT;
        row.pDefaultVal = &kSetItem;
    }
    if (field.mayBeAbsent) row.flag |= PNV_FLAG_OPTIONAL;
    if (field.isPointer) row.flag |= PNV_FLAG_POINTER;
    return row;
}

Value ValueOf(const PELNIC_ASN_OCTS& record)
{
    Value value{record.len, record.tag.cls, record.tag.form, record.tag.code};
    PushOctets(record.octs, record.len, &value);
    return value;
}

Value ValueOf(Kind kind, const void* record)
{
    switch (kind) {
    case Kind::Bits: {
        const auto& bits = *static_cast<const PELNIC_ASN_BITS*>(record);
        Value value{bits.bitLen, bits.byteLen, bits.tag.cls, bits.tag.form, bits.tag.code};
        PushOctets(bits.bits, bits.byteLen, &value);
        return value;
    }
    case Kind::Int:
    case Kind::Enum: return {*static_cast<const PELNIC_ASN_INT*>(record)};
    case Kind::Bool: return {*static_cast<const PELNIC_ASN_BOOL*>(record)};
    case Kind::Sequence: {
        const auto& inner = *static_cast<const INNER*>(record);
        return {inner.number, inner.flag};
    }
    case Kind::SetOf: {
        const auto& list = *static_cast<const BOOLS*>(record);
        Value value{list.num};
        for (PNV_UINT32 i = 0; i < list.num; ++i) value.push_back(*list.data[i]);
        return value;
    }
    case Kind::SequenceOf: {
        const auto& list = *static_cast<const LIST_TYPE_PELNIC_ASN_OCTS*>(record);
        Value value{list.num};
        for (PNV_UINT32 i = 0; i < list.num; ++i) {
            const Value one = ValueOf(*list.data[i]);
            value.insert(value.end(), one.begin(), one.end());
        }
        return value;
    }
    case Kind::Choice: {
        const auto& choice = *static_cast<const CHOICE*>(record);
        const bool isInteger = choice.index == 1;
        return {choice.index, isInteger ? choice.value : *reinterpret_cast<const PELNIC_ASN_BOOL*>(&choice.value)};
    }
    default: return ValueOf(*static_cast<const PELNIC_ASN_OCTS*>(record));
    }
}

// ---- Side by side ----

// A context of the default callbacks, which say nothing.
class BareVrf {
public:
    BareVrf()
    {
        vrf_.st_size = sizeof(vrf_);
        (void)pelnic_set_callback_funcs(&vrf_.callback_funcs);
    }
    operator PELNIC_VRF*() { return &vrf_; }
    PELNIC_VRF* operator->() { return &vrf_; }

private:
    PELNIC_VRF vrf_{};
};

class SmallInputs : public ::testing::Test {
protected:
    struct Subject {
        Field field;
        PELNIC_ASN1_TEMPLATE row;
        PELNIC_ASN1_ITEM sequence; // of that row alone
    };
    struct RECORD {
        alignas(8) PNV_BYTE field[64];
    };

    // Each kind in each way that a field of a SEQUENCE can have it.
    SmallInputs()
    {
        for (const Kind kind : kKinds) {
            for (const Tagged tagged : {Tagged::No, Tagged::Explicit, Tagged::Implicit}) {
                const bool isPeek = kind == Kind::Peek || kind == Kind::PeekAs;
                if (tagged != Tagged::No && (isPeek || kind == Kind::Choice)) continue;
                for (const bool mayBeAbsent : {false, true}) {
                    if (mayBeAbsent && isPeek) continue;
                    for (const bool isPointer : {false, true})
                        fields_.push_back({kind, tagged, mayBeAbsent, isPointer});
                }
            }
        }
        subjects_.resize(fields_.size());
        for (std::size_t i = 0; i < fields_.size(); ++i) {
            Subject& subject = subjects_[i];
            subject.field = fields_[i];
            subject.row = TemplateOf(subject.field);
            subject.sequence = {&subject.row, &g_pnvAsnFuncSeq, CBC_UNIV, CBF_CONS, CBT_SEQUENCES, 1, sizeof(RECORD)};
        }
    }

    void Fail(const Bytes& input, const Field& field, const std::string& what)
    {
        std::ostringstream text;
        text << what << ": kind " << static_cast<int>(field.kind) << ", tagged " << static_cast<int>(field.tagged)
             << (field.mayBeAbsent ? ", optional" : "") << (field.isPointer ? ", pointer" : "") << ", input"
             << std::hex;
        for (std::uint8_t octet : input) text << ' ' << static_cast<unsigned>(octet);
        ADD_FAILURE() << text.str();
    }

    // The item itself, as an outermost element.
    void TryAlone(Kind kind, const ExactHeap& heap, const Bytes& input)
    {
        if (kind == Kind::PeekAs) return; // is nothing without its row
        const Field field{kind};
        Reader in(heap.data(), heap.size());
        Value expected;
        const bool isTaken = Decode(field, in, &expected);
        void* record = nullptr;
        PNV_UINT32 consumed = 0;
        const PELNIC_ERROR_CODE rc =
            pelnic_asn_decode(vrf_, heap.data(), Len(heap), &ItemOf(kind), 0, &record, &consumed);
        ++tried_;
        if (rc != (isTaken ? 0 : PELNIC_ERR_ASN_DECODE)) return Fail(input, field, "alone, code");
        if (!isTaken) return;
        ++taken_;
        if (consumed != in.at || ValueOf(kind, record) != expected) Fail(input, field, "alone, value");
        pelnic_asn_free(vrf_, record, &ItemOf(kind), 0);
    }

    // As a field of a SEQUENCE, whose content it is.
    void TryInSequence(const Subject& subject, const ExactHeap& heap, const Bytes& input)
    {
        const Field& field = subject.field;
        Reader in(heap.data(), heap.size());
        Value expected;
        const bool isTaken = DecodeSequence({Kind::Sequence}, {field}, in, &expected);
        void* record = nullptr;
        PNV_UINT32 consumed = 0;
        const PELNIC_ERROR_CODE rc =
            pelnic_asn_decode(vrf_, heap.data(), Len(heap), &subject.sequence, 0, &record, &consumed);
        ++tried_;
        if (rc != (isTaken ? 0 : PELNIC_ERR_ASN_DECODE)) return Fail(input, field, "in a sequence, code");
        if (!isTaken) return;
        ++taken_;
        const void* value = record;
        if (field.isPointer) value = *static_cast<void**>(record);
        const Value actual = value == nullptr ? Value{kAbsent} : ValueOf(field.kind, value);
        if (consumed != in.at || actual != expected) Fail(input, field, "in a sequence, value");
        pelnic_asn_free(vrf_, record, &subject.sequence, 0);
    }

    void TryAll(const Bytes& input)
    {
        if (HasFailure()) return;
        if (!input.empty()) {
            const ExactHeap heap(input);
            for (const Kind kind : kKinds) TryAlone(kind, heap, input);
        }
        const Bytes whole = Seq(input);
        const ExactHeap heap(whole);
        for (const Subject& subject : subjects_) TryInSequence(subject, heap, whole);
    }

    void TearDown() override
    {
        Report("seed", Seed());
        Report("decoded", tried_);
        Report("taken", taken_);
        EXPECT_GT(taken_, 0u);
    }

    BareVrf vrf_;
    Random random_{Seed()};
    std::vector<Field> fields_;
    std::vector<Subject> subjects_;
    std::size_t tried_ = 0;
    std::size_t taken_ = 0;
};

std::uint8_t Octet(std::size_t value)
{
    return static_cast<std::uint8_t>(value);
}

TEST_F(SmallInputs, OfUpToThreeOctetsDecodeAsX690HasIt)
{
    TryAll({});
    for (std::size_t a = 0; a < 256; ++a) {
        TryAll({Octet(a)});
        if (!LongForm()) {
            TryAll({Octet(a), Octet(random_.Below(256))});
            TryAll({Octet(a), Octet(random_.Below(2)), Octet(random_.Below(256))});
            continue;
        }
        for (std::size_t b = 0; b < 256; ++b) {
            TryAll({Octet(a), Octet(b)});
            for (std::size_t c = 0; c < 256; ++c) TryAll({Octet(a), Octet(b), Octet(c)});
        }
    }
}

TEST_F(SmallInputs, BehindEveryHeaderDecodeAsX690HasIt)
{
    constexpr std::uint8_t kTelling[] = {0x00, 0x01, 0x02, 0x7F, 0x80, 0x81, 0xFF};
    const auto withContents = [&](Bytes header) {
        const std::size_t size = header.size();
        TryAll(header);
        for (std::uint8_t first : kTelling) {
            header.resize(size);
            header.push_back(first);
            TryAll(header);
            for (std::uint8_t second : kTelling) {
                header.resize(size + 1);
                header.push_back(second);
                TryAll(header);
            }
        }
    };
    constexpr std::uint8_t kTags[] = {0x01, 0x02, 0x03, 0x04, 0x0A, 0x30, 0x31, 0x80, 0x81, 0xA0, 0xA2, 0x20};
    if (!LongForm()) {
        for (std::uint8_t tag : kTags) withContents({tag, Octet(random_.Below(3))});
        return;
    }
    for (std::size_t a = 0; a < 256; ++a) {
        for (std::size_t b = 0; b < 256; ++b) withContents({Octet(a), Octet(b)});
    }
}

// Elements inside elements, which the inputs above are too short for.
TEST_F(SmallInputs, OfNestedElementsDecodeAsX690HasIt)
{
    const Bytes inners[] = {{},
                            Bool(true),
                            Int(5),
                            Int({0x00}),
                            Bits(0, {0x80}),
                            Octets({0x01}),
                            Enum(3),
                            Seq(),
                            Set(),
                            Bytes{0x01, 0x00},
                            Bytes{0x02},
                            Bytes{0x1F, 0x00},
                            Bytes{0x81},
                            Null(),
                            CtxPrim(1, {0xFF}),
                            Ctx(2, Bool(false)),
                            Ctx(2, Int(1)),
                            Bytes{0x01, 0x81, 0x01, 0x05}};
    constexpr std::uint8_t kConstructed[] = {0x30, 0x31, 0xA0, 0xA1, 0xA2, 0x20};
    for (const Bytes& first : inners) {
        for (const Bytes& second : inners) {
            const Bytes content = Cat(first, second);
            for (std::uint8_t tag : kConstructed) {
                TryAll(Tlv(tag, content));
                TryAll(Tlv(tag, content.size() + 1, content));
                if (!content.empty()) TryAll(Tlv(tag, content.size() - 1, content));
            }
        }
    }
}

// ---- Times ----

struct TimeAnswer {
    PELNIC_ERROR_CODE code;
    PNV_TIME_T seconds;
};

TimeAnswer SecondsOf(const Bytes& text, bool isGeneralized)
{
    const std::size_t years = isGeneralized ? 4 : 2;
    if (text.size() != years + 11) return {PELNIC_ERR_NULL_POINTER, 0};
    const auto digit = [&](std::size_t i) { return std::int64_t{text[i]} - '0'; };
    const auto two = [&](std::size_t i) { return static_cast<std::uint8_t>(digit(i) * 10 + digit(i + 1)); };
    std::int64_t year = 0;
    if (isGeneralized) {
        year = static_cast<std::uint16_t>(digit(0) * 1000 + digit(1) * 100 + digit(2) * 10 + digit(3));
    } else {
        year = two(0) + (two(0) >= 50 ? 1900 : 2000);
    }
    if (text.back() != 'Z') return {PELNIC_ERR_SYS_TIME_FORMAT, 0};
    if (year <= 1900) year += 1900;
    std::int64_t month = std::int64_t{two(years)} - 2;
    if (month < 1) {
        month += 12;
        year -= 1;
    }
    const std::int64_t days =
        year / 4 - year / 100 + year / 400 + 367 * month / 12 + two(years + 2) + year * 365 - 719499;
    return {0, ((days * 24 + two(years + 4)) * 60 + two(years + 6)) * 60 + two(years + 8)};
}

TEST(SmallTimes, WithinOneOctetOfAGoodOneAreWhatTheCalendarSays)
{
    BareVrf vrf;
    std::size_t tried = 0;
    const std::pair<const char*, bool> kGood[] = {{"260101000000Z", false},  {"991231235959Z", false},
                                                  {"000229120000Z", false},  {"500101000000Z", false},
                                                  {"20260101000000Z", true}, {"19991231235959Z", true}};
    for (const auto& [text, isGeneralized] : kGood) {
        const Bytes good = Text(text);
        for (std::size_t i = 0; i < good.size(); ++i) {
            for (std::size_t octet = 0; octet < 256; ++octet) {
                Bytes changed = good;
                changed[i] = Octet(octet);
                // Two characters that are no two-digit number have no year.
                const bool hasYear = isGeneralized || i > 1 || (octet >= '0' && octet <= '9');
                const ExactHeap heap(changed);
                PELNIC_ASN_OCTS time{Len(heap),
                                     {CBC_UNIV, CBF_PRIM, isGeneralized ? CBT_GENERALIZEDTIME : CBT_UTCTIME},
                                     const_cast<PNV_BYTE*>(heap.data())};
                PNV_TIME_T seconds = 0;
                const TimeAnswer expected = SecondsOf(changed, isGeneralized);
                EXPECT_EQ(pelnic_convert_datetime_to_time(vrf, &time, &seconds), expected.code) << text << " " << i;
                if (expected.code == 0 && hasYear) {
                    EXPECT_EQ(seconds, expected.seconds) << text << " " << i << " " << octet;
                }
                ++tried;
            }
        }
    }
    Report("times", tried);
}

// ---- Base64 ----

struct Base64Answer {
    PELNIC_ERROR_CODE code;
    std::int64_t size;
    Bytes decoded;
};

Base64Answer Base64Of(const std::string& text)
{
    const auto value = [](char c) -> unsigned {
        if (c >= 'A' && c <= 'Z') return static_cast<unsigned>(c - 'A');
        if (c >= 'a' && c <= 'z') return static_cast<unsigned>(c - 'a') + 26;
        if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0') + 52;
        return c == '+' ? 62 : c == '/' ? 63 : c == '=' ? 64 : 127;
    };
    const auto isLineEnd = [&](std::size_t i) {
        return text[i] == '\n' || (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n');
    };
    std::int64_t significant = 0;
    std::int64_t padding = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::size_t start = i;
        while (i < text.size() && text[i] == ' ') ++i;
        if (i == text.size()) break;
        if (isLineEnd(i)) continue;
        if (i != start) return {PELNIC_ERR_SYS_BASE64, 0, {}};
        if (text[i] == '=' && ++padding > 2) return {PELNIC_ERR_SYS_BASE64, 0, {}};
        if (static_cast<unsigned char>(text[i]) > 127) return {PELNIC_ERR_SYS_BASE64, 0, {}};
        if (value(text[i]) < 64 && padding > 0) return {PELNIC_ERR_SYS_BASE64, 0, {}};
        ++significant;
    }
    if (significant == 0) return {PELNIC_ERR_SYS_BASE64, 0, {}};
    Base64Answer answer{0, (6 * significant + 7) / 8 - padding, {}};
    unsigned group = 0;
    int count = 0;
    int octets = 3;
    for (char c : text) {
        if (c == '\r' || c == '\n' || c == ' ') continue;
        if (c == '=') --octets;
        group = group << 6 | (value(c) & 63);
        if (++count % 4 != 0) continue;
        for (int k = 0; k < octets; ++k) answer.decoded.push_back(Octet(group >> (16 - 8 * k) & 0xFF));
    }
    return answer;
}

TEST(SmallTexts, OfUpToFourSymbolsAreSizedAndDecoded)
{
    constexpr char kTelling[] = {'A', 'Q', '/', '=', ' ', '\n', '\r', '-', '\t', '\x80'};
    BareVrf vrf;
    std::size_t tried = 0;
    const std::function<void(const std::string&)> attempt = [&](const std::string& text) {
        if (!text.empty()) {
            const Base64Answer expected = Base64Of(text);
            const ExactHeap heap(Text(text));
            const auto* const encoded = reinterpret_cast<const PNV_CHAR*>(heap.data());
            PNV_UINT32 size = 77;
            EXPECT_EQ(pelnic_base64_decode(vrf, encoded, Len(heap), nullptr, &size), expected.code);
            ++tried;
            if (expected.code == 0) {
                EXPECT_EQ(size, static_cast<PNV_UINT32>(expected.size)) << ::testing::PrintToString(text);
                if (expected.size > 0) {
                    ExactHeap decoded(Bytes(static_cast<std::size_t>(expected.size), 0xEE));
                    EXPECT_EQ(pelnic_base64_decode(vrf, encoded, Len(heap), decoded.data(), &size), 0u);
                    const Bytes written(decoded.data(), decoded.data() + size);
                    EXPECT_EQ(written, expected.decoded) << ::testing::PrintToString(text);
                }
            }
        }
        if (text.size() == 4 || ::testing::Test::HasFailure()) return;
        for (char c : kTelling) attempt(text + c);
    };
    attempt("");
    Report("texts", tried);
}

// ---- Sequences of operations ----

// Runs check with every sequence of five operations out of so many.
void ForEverySequence(std::size_t operations, const std::function<void(const std::array<std::size_t, 5>&)>& check)
{
    std::array<std::size_t, 5> sequence{};
    std::size_t tried = 0;
    for (bool isLast = false; !isLast && !::testing::Test::HasFailure(); ++tried) {
        SCOPED_TRACE(::testing::PrintToString(sequence));
        check(sequence);
        std::size_t place = 0;
        while (place < sequence.size() && ++sequence[place] == operations) sequence[place++] = 0;
        isLast = place == sequence.size();
    }
    Report("sequences", tried);
}

TEST(SmallSequences, OfACursor)
{
    const ExactHeap octets(Bytes{0x11, 0x22, 0x33, 0x44});
    ForEverySequence(11, [&](const std::array<std::size_t, 5>& sequence) {
        PELNIC_BUF buf{};
        ASSERT_EQ(pelnic_buf_init(&buf, octets.data(), 4), 0u);
        PNV_UINT32 at = 0;
        PNV_UINT32 noted = 0;
        PNV_BYTE region[8]{};
        const auto seek = [&](PNV_INT32 position, PELNIC_BUF_SEEK_WAY way) {
            const PNV_INT32 to = way == CBSW_SET ? position : static_cast<PNV_INT32>(at) + position;
            const bool isAllowed = way == CBSW_SET ? to < 4 : to <= 4;
            EXPECT_EQ(pelnic_buf_seek(&buf, position, way), isAllowed ? 0u : PELNIC_ERR_FAILED);
            if (isAllowed) at = static_cast<PNV_UINT32>(to);
        };
        for (std::size_t operation : sequence) {
            switch (operation) {
            case 0:
                EXPECT_EQ(pelnic_buf_get(&buf, region), at == 4 ? PELNIC_ERR_SYS_BUF_END : 0u);
                if (at == 4) break;
                EXPECT_EQ(region[0], octets.data()[at++]);
                break;
            case 1:
            case 2:
            case 3: {
                const PNV_UINT32 size = operation == 1 ? 1 : operation == 2 ? 3 : 5;
                EXPECT_EQ(pelnic_buf_get_region(&buf, region, size), at + size > 4 ? PELNIC_ERR_FAILED : 0u);
                if (at + size > 4) break;
                EXPECT_TRUE(std::equal(region, region + size, octets.data() + at));
                at += size;
                break;
            }
            case 4: seek(0, CBSW_SET); break;
            case 5: seek(3, CBSW_SET); break;
            case 6: seek(4, CBSW_SET); break;
            case 7: seek(2, CBSW_CURRENT); break;
            case 8:
                if (at > 0) seek(-1, CBSW_CURRENT); // before the start it is the caller's mistake
                break;
            case 9:
                EXPECT_EQ(pelnic_buf_tell(&buf, &noted), 0u);
                EXPECT_EQ(noted, at == 4 ? 0xFFFFFFFFu : at);
                break;
            default: {
                PNV_INT offset = 77;
                const PNV_UINT32 start = noted == 0xFFFFFFFF ? 4 : noted;
                EXPECT_EQ(pelnic_buf_get_offset(&buf, noted, &offset), at < start ? PELNIC_ERR_SYS_BUF_POS : 0u);
                EXPECT_EQ(offset, at < start ? 77 : static_cast<PNV_INT>(at - start));
            }
            }
            EXPECT_EQ(buf.iCursor, at);
            EXPECT_EQ(pelnic_buf_get_point(&buf), at < 4 ? octets.data() + at : nullptr);
        }
    });
}

std::vector<int> g_freed;

TEST(SmallSequences, OfAList)
{
    BareVrf vrf;
    int items[] = {2, 1, 2, 0, 1};
    ForEverySequence(7, [&](const std::array<std::size_t, 5>& sequence) {
        PELNIC_LIST_DUMMY list{};
        std::vector<int*> held;
        std::size_t capacity = 0;
        const auto compare = [](const PELNIC_VRF*, const void* a, const void* b) {
            return static_cast<PNV_INT>(*static_cast<const int*>(a) - *static_cast<const int*>(b));
        };
        const auto release = [](PELNIC_VRF*, void* item) { g_freed.push_back(*static_cast<int*>(item)); };
        const auto grow = [&] {
            if (held.size() == capacity) capacity = capacity == 0 ? 5 : 2 * capacity;
        };
        const auto freeAll = [&] {
            g_freed.clear();
            pelnic_list_free(vrf, &list, release);
            std::vector<int> expected;
            for (const int* item : held) expected.push_back(*item);
            EXPECT_EQ(g_freed, expected);
            held.clear();
            capacity = 0;
        };
        for (std::size_t i = 0; i < sequence.size(); ++i) {
            switch (sequence[i]) {
            case 0:
            case 1: { // three at once, which makes it grow within five operations
                for (std::size_t k = sequence[i] == 0 ? 1 : 3; k > 0; --k) {
                    int* const item = &items[(i + k) % 5];
                    EXPECT_EQ(pelnic_list_add(vrf, &list, item, CLSP_END), 0u);
                    grow();
                    held.push_back(item);
                }
                break;
            }
            case 2:
                EXPECT_EQ(pelnic_list_add(vrf, &list, &items[i], CLSP_BEGIN), PELNIC_ERR_FAILED);
                grow();
                break;
            case 3: freeAll(); break;
            case 4:
                if (list.data != nullptr) break; // would be lost
                EXPECT_EQ(pelnic_list_init(vrf, &list, 2), 0u);
                capacity = 2;
                break;
            case 5:
                EXPECT_EQ(pelnic_list_sort(vrf, &list, compare), 0u);
                std::stable_sort(held.begin(), held.end(), [](const int* a, const int* b) { return *a < *b; });
                break;
            default: {
                const int wanted = 1;
                void* expected = nullptr;
                for (auto item = held.rbegin(); item != held.rend(); ++item) {
                    if (**item == wanted) expected = *item;
                }
                EXPECT_EQ(pelnic_list_search(vrf, &list, &wanted, compare), expected);
            }
            }
            EXPECT_EQ(list.num, held.size());
            EXPECT_EQ(list.capacity, capacity);
            EXPECT_EQ(list.data != nullptr, capacity != 0);
            for (std::size_t k = 0; k < held.size(); ++k) EXPECT_EQ(list.data[k], held[k]);
        }
        freeAll();
    });
}

// A block may be set once; then it is appended to, measured and freed, and that in any order.
TEST(SmallSequences, OfADataBlock)
{
    BareVrf vrf;
    const Bytes source(300, 0x5A);
    const auto roundedUp = [](std::size_t length) { return (length + 127) / 128 * 128; };
    for (const PNV_UINT32 set : {1u, 60u, 64u, 65u, 128u, 129u}) {
        ForEverySequence(5, [&](const std::array<std::size_t, 5>& sequence) {
            PELNIC_DATA_BLOCK block{};
            ASSERT_EQ(pelnic_db_set(vrf, &block, source.data(), set), 0u);
            Bytes held(set, 0x5A);
            std::size_t capacity = set > 64 ? roundedUp(set) : 0;
            for (std::size_t operation : sequence) {
                constexpr PNV_UINT32 kAppended[] = {0, 4, 70, 200};
                if (operation < 4) {
                    const PNV_UINT32 length = kAppended[operation];
                    const std::size_t total = held.size() + length;
                    // From inline storage the way to the heap is the allocator's to survive, see the tests of the
                    // block itself.
                    if (capacity == 0 && total > 64) continue;
                    EXPECT_EQ(pelnic_db_append(vrf, &block, source.data(), length), 0u);
                    held.insert(held.end(), length, 0x5A);
                    if (total > 64 && capacity < total) capacity = roundedUp(total);
                } else {
                    pelnic_db_free(vrf, &block);
                    held.clear();
                    capacity = 0;
                }
                EXPECT_EQ(pelnic_db_get_size(vrf, &block), held.size());
                EXPECT_EQ(block.capacity, capacity);
                EXPECT_EQ(block.pData == block.s_data, capacity == 0);
                EXPECT_EQ(Bytes(block.pData, block.pData + block.nLen), held);
            }
            pelnic_db_free(vrf, &block);
        });
    }
}

} // namespace
} // namespace pnvtest
