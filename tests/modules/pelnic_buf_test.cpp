// The cursor over the input, and the data block that holds short values in itself and long ones on the heap.
#include "cmsverify/pelnic_buf.h"

#include "support/exact_heap.h"
#include "support/vrf.h"

#include <algorithm>

namespace pnvtest {
namespace {

// ---- PELNIC_BUF ----

// A cursor over the octets 10, 11, 12, 13 in a block of their size.
class Buf : public ::testing::Test {
protected:
    static constexpr PNV_UINT32 kLength = 4;

    void SetUp() override { ASSERT_EQ(pelnic_buf_init(&buf_, octets_.data(), kLength), 0u); }

    void MoveTo(PNV_UINT32 cursor) { buf_.iCursor = cursor; }

    ExactHeap octets_{Bytes{0x10, 0x11, 0x12, 0x13}};
    PELNIC_BUF buf_{};
};

TEST_F(Buf, BeginsAtTheStart)
{
    EXPECT_EQ(buf_.pVal, octets_.data());
    EXPECT_EQ(buf_.nBufLen, kLength);
    EXPECT_EQ(buf_.iCursor, 0u);
}

TEST_F(Buf, InitRefusesNullAndAnEmptyRange)
{
    EXPECT_EQ(pelnic_buf_init(nullptr, octets_.data(), kLength), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_buf_init(&buf_, nullptr, kLength), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_buf_init(&buf_, octets_.data(), 0), PELNIC_ERR_NULL_POINTER);
}

TEST_F(Buf, GetReadsOctetAfterOctetToTheEnd)
{
    for (unsigned i = 0; i < kLength; ++i) {
        PNV_BYTE octet = 0;
        ASSERT_EQ(pelnic_buf_get(&buf_, &octet), 0u);
        EXPECT_EQ(octet, 0x10 + i);
        EXPECT_EQ(buf_.iCursor, i + 1);
    }
    PNV_BYTE octet = 0xA5;
    EXPECT_EQ(pelnic_buf_get(&buf_, &octet), PELNIC_ERR_SYS_BUF_END);
    EXPECT_EQ(octet, 0xA5);
    EXPECT_EQ(buf_.iCursor, kLength);
}

TEST_F(Buf, GetTestsForTheEndItselfOnly)
{
    buf_.nBufLen = 2;
    MoveTo(3);
    PNV_BYTE octet = 0;
    EXPECT_EQ(pelnic_buf_get(&buf_, &octet), 0u);
    EXPECT_EQ(octet, 0x13);
}

TEST_F(Buf, GetRefusesNull)
{
    PNV_BYTE octet = 0;
    EXPECT_EQ(pelnic_buf_get(nullptr, &octet), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_buf_get(&buf_, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(buf_.iCursor, 0u);
}

TEST_F(Buf, GetRegionTakesAllThatIsLeft)
{
    MoveTo(1);
    Bytes region(3);
    EXPECT_EQ(pelnic_buf_get_region(&buf_, region.data(), 3), 0u);
    EXPECT_EQ(region, (Bytes{0x11, 0x12, 0x13}));
    EXPECT_EQ(buf_.iCursor, kLength);
}

TEST_F(Buf, GetRegionRefusesOneOctetMore)
{
    MoveTo(1);
    Bytes region(4, 0xA5);
    EXPECT_EQ(pelnic_buf_get_region(&buf_, region.data(), 4), PELNIC_ERR_FAILED);
    EXPECT_EQ(region, Bytes(4, 0xA5));
    EXPECT_EQ(buf_.iCursor, 1u);
}

TEST_F(Buf, GetRegionRefusesASizeThatWrapsAround)
{
    MoveTo(2);
    Bytes region(4, 0xA5);
    for (PNV_UINT32 size : {0xFFFFFFFEu, 0xFFFFFFFFu, 0x80000000u}) {
        EXPECT_EQ(pelnic_buf_get_region(&buf_, region.data(), size), PELNIC_ERR_FAILED) << size;
    }
    EXPECT_EQ(region, Bytes(4, 0xA5));
    EXPECT_EQ(buf_.iCursor, 2u);
}

TEST_F(Buf, GetRegionRefusesNullAndSizeZero)
{
    PNV_BYTE octet = 0;
    EXPECT_EQ(pelnic_buf_get_region(nullptr, &octet, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_buf_get_region(&buf_, nullptr, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_buf_get_region(&buf_, &octet, 0), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(buf_.iCursor, 0u);
}

TEST_F(Buf, GetPointPointsIntoTheRange)
{
    MoveTo(3);
    EXPECT_EQ(pelnic_buf_get_point(&buf_), octets_.data() + 3);
    EXPECT_EQ(buf_.iCursor, 3u);
}

TEST_F(Buf, GetPointIsNullAtAndBeyondTheEnd)
{
    MoveTo(kLength);
    EXPECT_EQ(pelnic_buf_get_point(&buf_), nullptr);
    MoveTo(kLength + 1);
    EXPECT_EQ(pelnic_buf_get_point(&buf_), nullptr);
    EXPECT_EQ(pelnic_buf_get_point(nullptr), nullptr);
}

TEST_F(Buf, SeekSetMovesToAnyOctet)
{
    for (PNV_INT32 position : {3, 0, 2}) {
        EXPECT_EQ(pelnic_buf_seek(&buf_, position, CBSW_SET), 0u);
        EXPECT_EQ(buf_.iCursor, static_cast<PNV_UINT32>(position));
    }
}

TEST_F(Buf, SeekSetRefusesTheEnd)
{
    MoveTo(1);
    EXPECT_EQ(pelnic_buf_seek(&buf_, kLength, CBSW_SET), PELNIC_ERR_FAILED);
    EXPECT_EQ(buf_.iCursor, 1u);
}

TEST_F(Buf, SeekSetTakesANegativePositionForAHugeOne)
{
    MoveTo(1);
    EXPECT_EQ(pelnic_buf_seek(&buf_, -1, CBSW_SET), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_buf_seek(&buf_, INT32_MIN, CBSW_SET), PELNIC_ERR_FAILED);
    EXPECT_EQ(buf_.iCursor, 1u);
}

TEST_F(Buf, SeekCurrentReachesTheEnd)
{
    MoveTo(1);
    EXPECT_EQ(pelnic_buf_seek(&buf_, 3, CBSW_CURRENT), 0u);
    EXPECT_EQ(buf_.iCursor, kLength);
}

TEST_F(Buf, SeekCurrentRefusesAMoveBeyondTheEnd)
{
    MoveTo(1);
    EXPECT_EQ(pelnic_buf_seek(&buf_, 4, CBSW_CURRENT), PELNIC_ERR_FAILED);
    EXPECT_EQ(buf_.iCursor, 1u);
}

TEST_F(Buf, SeekCurrentMovesBack)
{
    MoveTo(3);
    EXPECT_EQ(pelnic_buf_seek(&buf_, -3, CBSW_CURRENT), 0u);
    EXPECT_EQ(buf_.iCursor, 0u);
    EXPECT_EQ(pelnic_buf_seek(&buf_, 0, CBSW_CURRENT), 0u);
    EXPECT_EQ(buf_.iCursor, 0u);
}

// Callers move backwards only over octets they have just read, so nobody tests for the start.
TEST_F(Buf, SeekCurrentDoesNotCatchAMoveBeforeTheStart)
{
    MoveTo(1);
    EXPECT_EQ(pelnic_buf_seek(&buf_, -2, CBSW_CURRENT), 0u);
    EXPECT_EQ(buf_.iCursor, 0xFFFFFFFFu);
}

TEST_F(Buf, SeekCurrentComparesASumThatWrapsAsANegativeNumber)
{
    MoveTo(1);
    EXPECT_EQ(pelnic_buf_seek(&buf_, INT32_MAX, CBSW_CURRENT), 0u);
    EXPECT_EQ(buf_.iCursor, 0x80000000u);
}

TEST_F(Buf, SeekRefusesNull)
{
    EXPECT_EQ(pelnic_buf_seek(nullptr, 0, CBSW_SET), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_buf_seek(nullptr, 0, CBSW_CURRENT), PELNIC_ERR_NULL_POINTER);
}

TEST_F(Buf, TellStoresTheCursorAndAMarkAtTheEnd)
{
    PNV_UINT32 position = 0;
    MoveTo(3);
    EXPECT_EQ(pelnic_buf_tell(&buf_, &position), 0u);
    EXPECT_EQ(position, 3u);
    MoveTo(kLength);
    EXPECT_EQ(pelnic_buf_tell(&buf_, &position), 0u);
    EXPECT_EQ(position, 0xFFFFFFFFu);
}

TEST_F(Buf, TellRefusesNull)
{
    PNV_UINT32 position = 0;
    EXPECT_EQ(pelnic_buf_tell(nullptr, &position), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_buf_tell(&buf_, nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST_F(Buf, OffsetIsWhatWasReadSince)
{
    PNV_INT offset = -1;
    MoveTo(3);
    EXPECT_EQ(pelnic_buf_get_offset(&buf_, 1, &offset), 0u);
    EXPECT_EQ(offset, 2);
    EXPECT_EQ(pelnic_buf_get_offset(&buf_, 3, &offset), 0u);
    EXPECT_EQ(offset, 0);
}

TEST_F(Buf, OffsetReadsTheMarkAsTheEnd)
{
    PNV_INT offset = -1;
    MoveTo(kLength);
    EXPECT_EQ(pelnic_buf_get_offset(&buf_, 0xFFFFFFFFu, &offset), 0u);
    EXPECT_EQ(offset, 0);
    MoveTo(3);
    EXPECT_EQ(pelnic_buf_get_offset(&buf_, 0xFFFFFFFFu, &offset), PELNIC_ERR_SYS_BUF_POS);
}

TEST_F(Buf, OffsetRefusesAPositionAheadOfTheCursor)
{
    PNV_INT offset = -1;
    MoveTo(1);
    EXPECT_EQ(pelnic_buf_get_offset(&buf_, 2, &offset), PELNIC_ERR_SYS_BUF_POS);
    EXPECT_EQ(pelnic_buf_get_offset(nullptr, 0, &offset), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_buf_get_offset(&buf_, 0, nullptr), PELNIC_ERR_NULL_POINTER);
}

// ---- PELNIC_DATA_BLOCK ----

// count different octets, beginning with first.
Bytes Counting(std::size_t count, std::uint8_t first = 0)
{
    Bytes octets(count);
    for (std::size_t i = 0; i < count; ++i) octets[i] = static_cast<std::uint8_t>(first + i);
    return octets;
}

class DataBlock : public ::testing::Test {
protected:
    void TearDown() override { pelnic_db_free(vrf_, &db_); }

    PELNIC_ERROR_CODE Set(const Bytes& octets) { return pelnic_db_set(vrf_, &db_, octets.data(), Len(octets)); }
    PELNIC_ERROR_CODE Append(const Bytes& octets) { return pelnic_db_append(vrf_, &db_, octets.data(), Len(octets)); }

    bool Inline() const { return db_.pData == db_.s_data; }
    Bytes Held() const { return Bytes(db_.pData, db_.pData + db_.nLen); }

    Vrf vrf_;
    PELNIC_DATA_BLOCK db_{};
};

TEST_F(DataBlock, SetKeeps64OctetsInline)
{
    ASSERT_EQ(Set(Counting(64)), 0u);
    EXPECT_TRUE(Inline());
    EXPECT_EQ(db_.capacity, 0u);
    EXPECT_EQ(Held(), Counting(64));
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
}

TEST_F(DataBlock, SetTakesAHeapAreaInStepsOf128)
{
    struct {
        std::size_t length;
        PNV_UINT32 capacity;
    } const steps[] = {{65, 128}, {128, 128}, {129, 256}, {256, 256}, {257, 384}};
    for (const auto& step : steps) {
        PELNIC_DATA_BLOCK fresh{};
        const Bytes octets = Counting(step.length);
        ASSERT_EQ(pelnic_db_set(vrf_, &fresh, octets.data(), Len(octets)), 0u);
        EXPECT_EQ(fresh.capacity, step.capacity);
        EXPECT_EQ(vrf_.Plan().LiveBytes(), step.capacity);
        EXPECT_EQ(Bytes(fresh.pData, fresh.pData + fresh.nLen), octets);
        pelnic_db_free(vrf_, &fresh);
    }
}

TEST_F(DataBlock, SetRefusesNullAndLengthZero)
{
    const PNV_BYTE octet = 1;
    EXPECT_EQ(pelnic_db_set(nullptr, &db_, &octet, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_db_set(vrf_, nullptr, &octet, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_db_set(vrf_, &db_, nullptr, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_db_set(vrf_, &db_, &octet, 0), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(db_.pData, nullptr);
}

TEST_F(DataBlock, SetOfAShortValueDropsTheHeapArea)
{
    ASSERT_EQ(Set(Counting(65)), 0u);
    ASSERT_EQ(Set(Counting(10, 7)), 0u);
    EXPECT_TRUE(Inline());
    EXPECT_EQ(db_.capacity, 0u);
    EXPECT_EQ(Held(), Counting(10, 7));
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

TEST_F(DataBlock, SetReusesAHeapAreaThatIsLargeEnough)
{
    ASSERT_EQ(Set(Counting(65)), 0u);
    ASSERT_EQ(Set(Counting(128, 7)), 0u);
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 1u);
    EXPECT_EQ(Held(), Counting(128, 7));
}

TEST_F(DataBlock, SetReplacesAHeapAreaThatIsTooSmall)
{
    ASSERT_EQ(Set(Counting(65)), 0u);
    ASSERT_EQ(Set(Counting(129, 7)), 0u);
    EXPECT_EQ(Held(), Counting(129, 7));
    EXPECT_EQ(vrf_.Plan().LiveBytes(), 256u);
}

TEST_F(DataBlock, SetPassesTheFailureOfACopyOn)
{
    for (PNV_UINT32 length : {64u, 65u}) {
        PELNIC_DATA_BLOCK fresh{};
        vrf_.Plan().Fail(Call::Memcpy, 1);
        EXPECT_EQ(pelnic_db_set(vrf_, &fresh, Counting(length).data(), length), injectedFault) << length;
        pelnic_db_free(vrf_, &fresh);
    }
}

// A block is set once: what a larger value finds in pData it releases, the block's own storage included.
TEST_F(DataBlock, SetOfALongValueReleasesWhateverItFinds)
{
    static const void* released = nullptr;
    ASSERT_EQ(Set(Counting(10)), 0u);
    vrf_->callback_funcs.plt_funcs.sys_funcs.mem_funcs.free = [](void* p) { released = p; };
    ASSERT_EQ(Set(Counting(65)), 0u);
    EXPECT_EQ(released, db_.s_data);
    vrf_.TakeTable();
}

TEST_F(DataBlock, SetWithoutMemoryLeavesNoAreaBehind)
{
    ASSERT_EQ(Set(Counting(65)), 0u);
    vrf_.Plan().Fail(Call::Malloc, 1);
    EXPECT_EQ(Set(Counting(129)), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(db_.pData, nullptr);
    EXPECT_EQ(db_.nLen, 0u);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    EXPECT_EQ(Set(Counting(100)), 0u) << "there is no area of 128 octets any more";
}

TEST_F(DataBlock, SetRefusesALengthThatRoundsBeyond32Bits)
{
    const PNV_BYTE octet = 1;
    EXPECT_EQ(pelnic_db_set(vrf_, &db_, &octet, 0xFFFFFF81u), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(pelnic_db_set(vrf_, &db_, &octet, 0xFFFFFFFFu), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
}

TEST_F(DataBlock, SetAsksForTheLargestAreaThatCanBeNamed)
{
    const PNV_BYTE octet = 1;
    vrf_.Plan().Fail(Call::Malloc, 1);
    EXPECT_EQ(pelnic_db_set(vrf_, &db_, &octet, 0xFFFFFF80u), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(vrf_.Plan().LargestRequest(), 0xFFFFFF80u);
}

TEST_F(DataBlock, AppendFillsTheInlineStorage)
{
    ASSERT_EQ(Append(Counting(10)), 0u);
    ASSERT_EQ(Append(Counting(54, 10)), 0u);
    EXPECT_EQ(db_.nLen, 64u);
    EXPECT_EQ(Bytes(db_.s_data, db_.s_data + 64), Counting(64));
    EXPECT_EQ(db_.pData, nullptr); // left as it was
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
}

TEST_F(DataBlock, AppendMovesInlineOctetsToTheHeap)
{
    ASSERT_EQ(Append(Counting(60)), 0u);
    ASSERT_EQ(Append(Counting(10, 60)), 0u);
    EXPECT_EQ(db_.capacity, 128u);
    EXPECT_EQ(Held(), Counting(70));
    EXPECT_FALSE(Inline());
}

TEST_F(DataBlock, AppendMovesASetValueToTheHeap)
{
    ASSERT_EQ(Set(Counting(60)), 0u);
    ASSERT_EQ(Append(Counting(10, 60)), 0u);
    EXPECT_EQ(db_.capacity, 128u);
    EXPECT_EQ(Held(), Counting(70));
    EXPECT_FALSE(Inline());
}

TEST_F(DataBlock, AppendBeginsOnTheHeapWithALongValue)
{
    ASSERT_EQ(Append(Counting(65)), 0u);
    EXPECT_EQ(db_.capacity, 128u);
    EXPECT_EQ(Held(), Counting(65));
}

TEST_F(DataBlock, AppendFillsTheHeapAreaBeforeItGrows)
{
    ASSERT_EQ(Set(Counting(65)), 0u);
    ASSERT_EQ(Append(Counting(63, 65)), 0u);
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 1u);
    ASSERT_EQ(Append(Counting(1, 128)), 0u);
    EXPECT_EQ(db_.capacity, 256u);
    EXPECT_EQ(Held(), Counting(129));
    EXPECT_EQ(vrf_.Plan().LiveBytes(), 256u);
}

TEST_F(DataBlock, AppendUsesTheHeapAreaThatAFailedSetLeft)
{
    vrf_.Plan().Fail(Call::Memcpy, 1);
    ASSERT_NE(Set(Counting(65)), 0u);
    ASSERT_EQ(Append(Counting(5)), 0u);
    EXPECT_EQ(db_.capacity, 128u);
    EXPECT_EQ(Held(), Counting(5));
    EXPECT_FALSE(Inline());
}

// Every copy is bounded by what is left behind the octets held.
TEST_F(DataBlock, AppendCopiesIntoTheRoomThatIsLeft)
{
    static std::size_t room = 0;
    ASSERT_EQ(Set(Counting(10)), 0u);
    vrf_->callback_funcs.plt_funcs.sys_funcs.mem_funcs.memcpy_s = [](void* dest, size_t destMax, const void* src,
                                                                     size_t count) {
        room = destMax;
        std::copy_n(static_cast<const PNV_BYTE*>(src), count, static_cast<PNV_BYTE*>(dest));
        return PELNIC_ERROR_CODE{0};
    };
    ASSERT_EQ(Append(Counting(5, 10)), 0u);
    EXPECT_EQ(room, 54u);
    ASSERT_EQ(Append(Counting(65, 15)), 0u);
    EXPECT_EQ(room, 113u);
    EXPECT_EQ(Held(), Counting(80));
}

TEST_F(DataBlock, AppendOfNothingChangesNothing)
{
    ASSERT_EQ(Set(Counting(64)), 0u);
    const PNV_BYTE octet = 1;
    EXPECT_EQ(pelnic_db_append(vrf_, &db_, &octet, 0), 0u);
    EXPECT_EQ(Held(), Counting(64));
}

TEST_F(DataBlock, AppendRefusesNull)
{
    const PNV_BYTE octet = 1;
    EXPECT_EQ(pelnic_db_append(nullptr, &db_, &octet, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_db_append(vrf_, nullptr, &octet, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_db_append(vrf_, &db_, nullptr, 1), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_db_append(vrf_, &db_, nullptr, 0), PELNIC_ERR_NULL_POINTER);
}

TEST_F(DataBlock, AppendRefusesATotalBeyond32Bits)
{
    const PNV_BYTE octet = 1;
    ASSERT_EQ(Set(Counting(65)), 0u);
    const std::size_t allocations = vrf_.Plan().Count(Call::Malloc);
    for (PNV_UINT32 more : {0xFFFFFFFFu, 0xFFFFFFFFu - 64, 0xFFFFFF81u - 65}) { // the last one only when rounded up
        EXPECT_EQ(pelnic_db_append(vrf_, &db_, &octet, more), PELNIC_ERR_SYS_DB_APPEND) << more;
        EXPECT_EQ(Held(), Counting(65));
    }
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), allocations);
}

TEST_F(DataBlock, AppendToInlineOctetsRefusesATotalBeyond32Bits)
{
    const PNV_BYTE octet = 1;
    ASSERT_EQ(Set(Counting(10)), 0u);
    EXPECT_EQ(pelnic_db_append(vrf_, &db_, &octet, 0xFFFFFFFFu), PELNIC_ERR_SYS_DB_APPEND);
    EXPECT_EQ(Held(), Counting(10));
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
}

TEST(DataBlockFaults, AppendReportsEveryFailureAsItsOwnAndKeepsWhatItHeld)
{
    for (std::size_t held : {10u, 60u, 120u}) { // in place, to the heap, to a larger area
        SweepFaults(
            Call::Malloc | calls::copies,
            [held](CallbackPlan& plan) {
                Vrf vrf(plan);
                PELNIC_DATA_BLOCK db{};
                const Bytes octets = Counting(held + 20);
                plan.WithoutFaults([&] { EXPECT_EQ(pelnic_db_set(vrf, &db, octets.data(), Len(octets) - 20), 0u); });
                const PELNIC_ERROR_CODE rc = pelnic_db_append(vrf, &db, octets.data() + held, 20);
                const std::size_t length = pelnic_db_get_size(vrf, &db);
                EXPECT_EQ(length, rc == 0 ? held + 20 : held);
                EXPECT_TRUE(std::equal(db.pData, db.pData + length, octets.begin()));
                pelnic_db_free(vrf, &db);
                return rc;
            },
            [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc, run.met ? PELNIC_ERR_SYS_DB_APPEND : 0u); });
    }
}

TEST_F(DataBlock, SizeIsTheNumberOfOctetsHeld)
{
    EXPECT_EQ(pelnic_db_get_size(vrf_, &db_), 0u);
    ASSERT_EQ(Set(Counting(70)), 0u);
    EXPECT_EQ(pelnic_db_get_size(vrf_, &db_), 70u);
    EXPECT_EQ(pelnic_db_get_size(vrf_, nullptr), 0u);
}

TEST_F(DataBlock, FreeOfAnInlineValueOnlyForgetsItsLength)
{
    ASSERT_EQ(Set(Counting(64)), 0u);
    pelnic_db_free(vrf_, &db_);
    EXPECT_TRUE(Inline());
    EXPECT_EQ(db_.nLen, 0u);
    EXPECT_EQ(Bytes(db_.s_data, db_.s_data + 64), Counting(64));
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

TEST_F(DataBlock, FreeReleasesTheHeapArea)
{
    ASSERT_EQ(Set(Counting(65)), 0u);
    pelnic_db_free(vrf_, &db_);
    EXPECT_TRUE(Inline());
    EXPECT_EQ(db_.nLen, 0u);
    EXPECT_EQ(db_.capacity, 0u);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

TEST_F(DataBlock, FreeOfAZeroFilledBlockReleasesNothing)
{
    pelnic_db_free(vrf_, &db_);
    EXPECT_TRUE(Inline());
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

TEST_F(DataBlock, FreeDoesNothingWithoutContextOrBlock)
{
    ASSERT_EQ(Set(Counting(65)), 0u);
    pelnic_db_free(nullptr, &db_);
    pelnic_db_free(vrf_, nullptr);
    EXPECT_EQ(Held(), Counting(65));
}

TEST_F(DataBlock, IsSilent)
{
    vrf_.Plan().Fail(Call::Malloc, 1, FaultMode::Onward);
    EXPECT_NE(Set(Counting(65)), 0u);
    EXPECT_NE(Append(Counting(65)), 0u);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

} // namespace
} // namespace pnvtest
