// Single elements, decoded the way the engine decodes them for a field.
#ifndef PNVTEST_ASN1_H
#define PNVTEST_ASN1_H

#include "cmsverify/pelnic_asn1_decode.h"
#include "exact_heap.h"
#include "vrf.h"
#include "x509.h"

namespace pnvtest {

// A field at the start of its record.
constexpr PELNIC_ASN1_TEMPLATE FieldOf(const PELNIC_ASN1_ITEM& item, Tagging tagging = PNV_UNTAGGED,
                                       PNV_UINT16 flag = 0)
{
    return {&item, tagging.tagCode, tagging.tagType, flag, 0, "field", 0, nullptr};
}

// Types without a declaration of their own.
template <typename Record, std::size_t N> constexpr PELNIC_ASN1_ITEM SequenceItem(const PELNIC_ASN1_TEMPLATE (&rows)[N])
{
    return {rows, &g_pnvAsnFuncSeq, CBC_UNIV, CBF_CONS, CBT_SEQUENCES, PNV_UINT32{N}, PNV_UINT32{sizeof(Record)}};
}
template <typename Record, std::size_t N> constexpr PELNIC_ASN1_ITEM ChoiceItem(const PELNIC_ASN1_TEMPLATE (&rows)[N])
{
    return {rows,          &g_pnvAsnFuncChoice,       CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE,
            PNV_UINT32{N}, PNV_UINT32{sizeof(Record)}};
}
template <std::size_t N> constexpr PELNIC_ASN1_ITEM AnyItem(const PELNIC_ASN1_ANY_MAP (&map)[N])
{
    return {map, &g_pnvAsnFuncAny, CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE, PNV_UINT32{N}, PNV_UINT32{sizeof(void*)}};
}

// A malloc callback that succeeds without a block.
inline PELNIC_ERROR_CODE MallocNothing(void** out, PNV_UINT32)
{
    *out = nullptr;
    return 0;
}

// Has one octet behind it, so that going back to the element is not going back to the start of the buffer. What it
// reads ends where its heap block ends.
class Cursor {
public:
    explicit Cursor(const Bytes& octets) : block_(Cat(Bytes{0xEE}, octets)), buf_{block_.data(), Len(block_), kStart} {}
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;

    operator PELNIC_BUF*() { return &buf_; }
    PNV_UINT32 Moved() const { return buf_.iCursor - kStart; }
    const PNV_BYTE* At(std::size_t offset) const { return block_.data() + kStart + offset; }

private:
    static constexpr PNV_UINT32 kStart = 1;
    ExactHeap block_;
    PELNIC_BUF buf_;
};

// A call of the field's decode function, and of its free function at the end, whatever came of it.
class Decoding {
public:
    // contentLength matters to PNV_TAG_CONTENT_ONLY alone.
    Decoding(const PELNIC_VRF* vrf, const PELNIC_ASN1_TEMPLATE& field, const Bytes& octets,
             PNV_UINT32 contentLength = 0xA5A5A5A5)
        : vrf_(vrf), field_(field), input_(octets), record_(new PNV_BYTE[field.asn1_item->item_szie]()),
          consumed_(contentLength)
    {
        code_ = field_.asn1_item->asn_func->pDecode(vrf_, input_, record_.get(), &consumed_, &field_);
    }
    ~Decoding() { Free(); }
    Decoding(const Decoding&) = delete;
    Decoding& operator=(const Decoding&) = delete;

    PELNIC_ERROR_CODE Code() const { return code_; }
    PNV_UINT32 Consumed() const { return consumed_; }
    const Cursor& Input() const { return input_; }
    template <typename Record> Record& As() { return *reinterpret_cast<Record*>(record_.get()); }
    void Free() { field_.asn1_item->asn_func->pFree(vrf_, record_.get(), &field_); }

private:
    const PELNIC_VRF* vrf_;
    PELNIC_ASN1_TEMPLATE field_;
    Cursor input_;
    std::unique_ptr<PNV_BYTE[]> record_;
    PNV_UINT32 consumed_;
    PELNIC_ERROR_CODE code_;
};

// The engine logs next to nothing: a test that expects a line takes it.
class Asn1Test : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    void ExpectLogged(PELNIC_ERROR_CODE rc, const std::string& message)
    {
        ASSERT_EQ(vrf_.Plan().Logs().size(), 1u);
        const LogRecord log = vrf_.Plan().Logs().front();
        EXPECT_EQ(log.level, PELNIC_LOG_TYPE_ERROR);
        EXPECT_EQ(log.rc, rc);
        EXPECT_EQ(log.message, message);
        vrf_.Plan().ClearLogs();
    }

    // Refused without a trace: the cursor stands at the element and nothing is allocated.
    void ExpectRefused(const Decoding& decoding)
    {
        EXPECT_NE(decoding.Code(), 0u);
        EXPECT_EQ(decoding.Input().Moved(), 0u);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    }
    void ExpectRefused(const PELNIC_ASN1_TEMPLATE& field, const Bytes& octets)
    {
        ExpectRefused(Decoding(vrf_, field, octets));
    }
    void ExpectRefused(const PELNIC_ASN1_TEMPLATE& field, const Bytes& octets, PELNIC_ERROR_CODE code)
    {
        const Decoding decoding(vrf_, field, octets);
        ExpectRefused(decoding);
        EXPECT_EQ(decoding.Code(), code);
    }
    void ExpectRefusedWhenCut(const PELNIC_ASN1_TEMPLATE& field, const Bytes& octets)
    {
        ForEveryPrefix(octets, [&](const ExactHeap& prefix) {
            SCOPED_TRACE(prefix.size());
            ExpectRefused(field, Bytes(prefix.data(), prefix.data() + prefix.size()));
        });
    }
    void ExpectTaken(const PELNIC_ASN1_TEMPLATE& field, const Bytes& octets)
    {
        const Decoding decoding(vrf_, field, octets);
        EXPECT_EQ(decoding.Code(), 0u);
        EXPECT_EQ(decoding.Consumed(), octets.size());
        EXPECT_EQ(decoding.Input().Moved(), octets.size());
    }

    Vrf vrf_;
};

// Every allocation and every copy fails once, and on from there: the element is refused without a trace. Not for an
// Asn1Test, whose context has a plan already.
inline void ExpectFaultsRefused(const PELNIC_ASN1_TEMPLATE& field, const Bytes& octets)
{
    struct Outcome {
        PELNIC_ERROR_CODE code;
        PNV_UINT32 moved;
        std::size_t blocks;
    };
    SweepFaults(
        Call::Malloc | calls::copies,
        [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            const Decoding decoding(vrf, field, octets);
            return Outcome{decoding.Code(), decoding.Input().Moved(), plan.LiveBlocks()};
        },
        [](const Outcome& outcome, const FaultRun& run) {
            EXPECT_EQ(outcome.code != 0, run.met);
            if (!run.met) return;
            EXPECT_EQ(outcome.moved, 0u);
            EXPECT_EQ(outcome.blocks, 0u);
        });
}

} // namespace pnvtest

#endif
