// The list: how it grows, what its cursor does, and that a failed growth loses nothing.
#include "cmsverify/pelnic_list.h"

#include "support/vrf.h"

#include <algorithm>
#include <random>

namespace pnvtest {
namespace {

// What the lists of these tests hold; they do not own it.
struct Item {
    int key;
    int place;
};

PNV_DECLARE_LIST(Item);

PNV_INT CompareKeys(const PELNIC_VRF*, const void* first, const void* second)
{
    return static_cast<const Item*>(first)->key - static_cast<const Item*>(second)->key;
}

// Elements that a free callback received, in order; callbacks carry no user pointer.
std::vector<const void*> g_freed;
PELNIC_VRF* g_freedFor = nullptr;

void RememberFreed(PELNIC_VRF* vrf, void* item)
{
    g_freedFor = vrf;
    g_freed.push_back(item);
}

class List : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_freed.clear();
        g_freedFor = nullptr;
    }
    void TearDown() override { pelnic_list_free(vrf_, Generic(), RememberFreed); }

    PELNIC_LIST_DUMMY* Generic() { return _pnvAsList(&list_); }
    PELNIC_ERROR_CODE Add(Item* item) { return pelnic_list_add(vrf_, Generic(), item, CLSP_END); }

    // Items with these keys, numbered in this order.
    void Fill(const std::vector<int>& keys)
    {
        for (int key : keys) items_.push_back({key, static_cast<int>(items_.size())});
        for (Item& item : items_) ASSERT_EQ(Add(&item), 0u);
    }

    void AddItems(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(Add(&item_), 0u);
    }

    Vrf vrf_;
    LIST_TYPE_Item list_{};
    std::vector<Item> items_;
    Item item_{1, 0};
};

TEST_F(List, InitMakesRoom)
{
    ASSERT_EQ(pelnic_list_init(vrf_, Generic(), 3), 0u);
    EXPECT_EQ(list_.num, 0u);
    EXPECT_EQ(list_.capacity, 3u);
    EXPECT_EQ(vrf_.Plan().LiveBytes(), 3 * sizeof(void*));
    for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(list_.data[i], nullptr);
}

TEST_F(List, InitTakesCapacityZeroForFive)
{
    ASSERT_EQ(pelnic_list_init(vrf_, Generic(), 0), 0u);
    EXPECT_EQ(list_.capacity, 5u);
}

TEST_F(List, InitRefusesNull)
{
    EXPECT_EQ(pelnic_list_init(vrf_, nullptr, 3), PELNIC_ERR_NULL_POINTER);
}

TEST_F(List, InitThatFailsLeavesAnEmptyListWithoutArray)
{
    for (Call failing : {Call::Malloc, Call::Memset}) {
        list_.num = 7;
        vrf_.Plan().Fail(failing, 1);
        const PELNIC_ERROR_CODE rc = pelnic_list_init(vrf_, Generic(), 3);
        EXPECT_EQ(rc, failing == Call::Malloc ? PELNIC_ERR_SYS_MEM_ALLOC : injectedFault);
        EXPECT_EQ(list_.data, nullptr);
        EXPECT_EQ(list_.num, 0u);
        EXPECT_EQ(list_.capacity, 0u);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
    }
}

TEST_F(List, InitRefusesAnArrayBeyond32Bits)
{
    constexpr PNV_UINT32 tooMany = static_cast<PNV_UINT32>(0x100000000ull / sizeof(void*));
    EXPECT_EQ(pelnic_list_init(vrf_, Generic(), tooMany), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
    EXPECT_EQ(list_.data, nullptr);
    EXPECT_EQ(list_.capacity, 0u);
}

TEST_F(List, GrowsFromFiveToTenToTwenty)
{
    ASSERT_EQ(pelnic_list_init(vrf_, Generic(), 0), 0u);
    AddItems(5);
    EXPECT_EQ(list_.capacity, 5u);
    AddItems(1);
    EXPECT_EQ(list_.capacity, 10u);
    AddItems(4);
    EXPECT_EQ(list_.capacity, 10u);
    AddItems(1);
    EXPECT_EQ(list_.capacity, 20u);
    EXPECT_EQ(list_.num, 11u);
}

TEST_F(List, GrowsFromAZeroFilledRecord)
{
    ASSERT_EQ(Add(&item_), 0u);
    EXPECT_EQ(list_.capacity, 5u);
    EXPECT_EQ(list_.num, 1u);
    EXPECT_EQ(list_.data[0], &item_);
}

TEST_F(List, KeepsTheOrderOfAdding)
{
    Fill({4, 2, 9, 2, 7, 1, 8, 3, 3, 6, 5, 0});
    ASSERT_EQ(list_.num, items_.size());
    for (unsigned i = 0; i < list_.num; ++i) EXPECT_EQ(list_.data[i], &items_[i]);
}

TEST_F(List, ClearsTheSlotsItGrowsBy)
{
    AddItems(6);
    for (unsigned i = 6; i < 10; ++i) EXPECT_EQ(list_.data[i], nullptr);
}

TEST_F(List, AddRefusesNull)
{
    EXPECT_EQ(pelnic_list_add(vrf_, nullptr, &item_, CLSP_END), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_list_add(vrf_, Generic(), nullptr, CLSP_END), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(list_.data, nullptr);
}

TEST_F(List, AddOnlyAtTheEndThoughAFullListHasGrownByThen)
{
    for (PELNIC_LIST_SEEK_POS pos : {CLSP_BEFORE, CLSP_AFTER, CLSP_BEGIN}) {
        EXPECT_EQ(pelnic_list_add(vrf_, Generic(), &item_, pos), PELNIC_ERR_FAILED) << pos;
        EXPECT_EQ(list_.num, 0u);
        EXPECT_EQ(list_.capacity, 5u);
    }
    AddItems(5);
    EXPECT_EQ(pelnic_list_add(vrf_, Generic(), &item_, CLSP_BEGIN), PELNIC_ERR_FAILED);
    EXPECT_EQ(list_.num, 5u);
    EXPECT_EQ(list_.capacity, 10u);
}

TEST_F(List, AGrowthThatFailsLeavesTheListUnchanged)
{
    Fill({5, 4, 3, 2, 1});
    for (Call failing : {Call::Malloc, Call::Memset, Call::Memcpy}) {
        vrf_.Plan().Fail(failing, 1);
        EXPECT_EQ(Add(&item_), failing == Call::Malloc ? PELNIC_ERR_SYS_MEM_ALLOC : injectedFault);
        EXPECT_EQ(list_.num, 5u);
        EXPECT_EQ(list_.capacity, 5u);
        for (unsigned i = 0; i < 5; ++i) EXPECT_EQ(list_.data[i], &items_[i]);
        EXPECT_EQ(vrf_.Plan().LiveBlocks(), 1u);
    }
    EXPECT_EQ(Add(&item_), 0u);
    EXPECT_EQ(list_.num, 6u);
}

TEST_F(List, AFirstGrowthThatFailsLeavesNoArray)
{
    for (Call failing : {Call::Malloc, Call::Memset}) {
        vrf_.Plan().Fail(failing, 1);
        EXPECT_NE(Add(&item_), 0u);
        EXPECT_EQ(list_.data, nullptr);
        EXPECT_EQ(list_.capacity, 0u);
        EXPECT_EQ(list_.num, 0u);
    }
}

TEST_F(List, GrowthRefusesAnArrayBeyond32Bits)
{
    void* slot = &item_;
    constexpr PNV_UINT32 half = static_cast<PNV_UINT32>(0x100000000ull / sizeof(void*) / 2);
    for (PNV_UINT32 capacity : {half, 0x80000000u, 0xFFFFFFFFu}) {
        PELNIC_LIST_DUMMY huge{1, &slot, capacity};
        EXPECT_EQ(_pnvListIncreaseCapacity(vrf_, &huge), PELNIC_ERR_SYS_MEM_ALLOC) << capacity;
        EXPECT_EQ(huge.data, &slot);
        EXPECT_EQ(huge.capacity, capacity);
    }
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
}

TEST_F(List, GrowthAloneDoublesTheRoom)
{
    EXPECT_EQ(_pnvListIncreaseCapacity(vrf_, Generic()), 0u);
    EXPECT_EQ(list_.capacity, 5u);
    AddItems(2);
    EXPECT_EQ(_pnvListIncreaseCapacity(vrf_, Generic()), 0u);
    EXPECT_EQ(list_.capacity, 10u);
    EXPECT_EQ(list_.num, 2u);
    EXPECT_EQ(list_.data[1], &item_);
}

TEST_F(List, FreeHandsOverEveryElementInOrder)
{
    Fill({3, 1, 2});
    pelnic_list_free(vrf_, Generic(), RememberFreed);
    EXPECT_EQ(g_freed, (std::vector<const void*>{&items_[0], &items_[1], &items_[2]}));
    EXPECT_EQ(g_freedFor, static_cast<PELNIC_VRF*>(vrf_));
    EXPECT_EQ(list_.data, nullptr);
    EXPECT_EQ(list_.num, 0u);
    EXPECT_EQ(list_.capacity, 0u);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 0u);
}

TEST_F(List, FreeWithoutCallbackLeavesEverything)
{
    Fill({3, 1, 2});
    pelnic_list_free(vrf_, Generic(), nullptr);
    EXPECT_EQ(list_.num, 3u);
    EXPECT_EQ(list_.capacity, 5u);
    EXPECT_EQ(list_.data[2], &items_[2]);
    EXPECT_EQ(vrf_.Plan().LiveBlocks(), 1u);
    pelnic_list_free(vrf_, nullptr, RememberFreed);
    EXPECT_TRUE(g_freed.empty());
}

TEST_F(List, FreeOfAListWithoutArrayClearsItsNumbers)
{
    list_.num = 3;
    list_.capacity = 5;
    pelnic_list_free(vrf_, Generic(), RememberFreed);
    EXPECT_TRUE(g_freed.empty());
    EXPECT_EQ(list_.num, 0u);
    EXPECT_EQ(list_.capacity, 0u);
}

TEST_F(List, CanBeUsedAgainAfterFree)
{
    Fill({1});
    pelnic_list_free(vrf_, Generic(), RememberFreed);
    ASSERT_EQ(pelnic_list_init(vrf_, Generic(), 2), 0u);
    EXPECT_EQ(Add(&item_), 0u);
    EXPECT_EQ(list_.data[0], &item_);
}

TEST_F(List, SearchFindsTheFirstMatch)
{
    Fill({3, 1, 2, 1});
    const Item wanted{1, -1};
    EXPECT_EQ(pelnic_list_search(vrf_, Generic(), &wanted, CompareKeys), &items_[1]);
}

TEST_F(List, SearchFindsNothing)
{
    const Item wanted{9, -1};
    EXPECT_EQ(pelnic_list_search(vrf_, Generic(), &wanted, CompareKeys), nullptr);
    Fill({3, 1, 2});
    EXPECT_EQ(pelnic_list_search(vrf_, Generic(), &wanted, CompareKeys), nullptr);
}

TEST_F(List, SearchGivesTheKeyFirst)
{
    Fill({3});
    static const void* compared[2];
    const Item wanted{3, -1};
    const pelnic_cmp_cb remember = [](const PELNIC_VRF*, const void* first, const void* second) {
        compared[0] = first;
        compared[1] = second;
        return PNV_INT{0};
    };
    EXPECT_EQ(pelnic_list_search(vrf_, Generic(), &wanted, remember), &items_[0]);
    EXPECT_EQ(compared[0], &wanted);
    EXPECT_EQ(compared[1], &items_[0]);
}

TEST_F(List, SearchRefusesNull)
{
    Fill({1});
    EXPECT_EQ(pelnic_list_search(nullptr, Generic(), &item_, CompareKeys), nullptr);
    EXPECT_EQ(pelnic_list_search(vrf_, nullptr, &item_, CompareKeys), nullptr);
    EXPECT_EQ(pelnic_list_search(vrf_, Generic(), nullptr, CompareKeys), nullptr);
    EXPECT_EQ(pelnic_list_search(vrf_, Generic(), &item_, nullptr), nullptr);
}

TEST_F(List, SortsAscending)
{
    Fill({3, 1, 2});
    ASSERT_EQ(pelnic_list_sort(vrf_, Generic(), CompareKeys), 0u);
    for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(list_.data[i]->key, static_cast<int>(i) + 1);
}

TEST_F(List, SortKeepsTheOrderOfEqualElements)
{
    Fill({2, 1, 2, 1, 2, 1});
    ASSERT_EQ(pelnic_list_sort(vrf_, Generic(), CompareKeys), 0u);
    const int places[] = {1, 3, 5, 0, 2, 4};
    for (unsigned i = 0; i < 6; ++i) EXPECT_EQ(list_.data[i]->place, places[i]);
}

TEST_F(List, SortAgreesWithAnyStableSort)
{
    std::mt19937 random(3);
    std::vector<int> keys(40);
    for (int& key : keys) key = static_cast<int>(random() % 12);
    Fill(keys);
    std::vector<Item> sorted = items_;
    std::stable_sort(sorted.begin(), sorted.end(), [](const Item& a, const Item& b) { return a.key < b.key; });
    ASSERT_EQ(pelnic_list_sort(vrf_, Generic(), CompareKeys), 0u);
    for (unsigned i = 0; i < list_.num; ++i) EXPECT_EQ(list_.data[i]->place, sorted[i].place) << i;
}

int g_comparisons = 0;

PNV_INT CountComparisons(const PELNIC_VRF* vrf, const void* first, const void* second)
{
    ++g_comparisons;
    return CompareKeys(vrf, first, second);
}

TEST_F(List, SortStopsAfterAPassWithoutExchange)
{
    Fill({1, 2, 3, 4, 5});
    g_comparisons = 0;
    ASSERT_EQ(pelnic_list_sort(vrf_, Generic(), CountComparisons), 0u);
    EXPECT_EQ(g_comparisons, 4);
}

TEST_F(List, SortComparesNothingInListsOfNoneAndOne)
{
    g_comparisons = 0;
    EXPECT_EQ(pelnic_list_sort(vrf_, Generic(), CountComparisons), 0u);
    Fill({1});
    EXPECT_EQ(pelnic_list_sort(vrf_, Generic(), CountComparisons), 0u);
    EXPECT_EQ(g_comparisons, 0);
}

TEST_F(List, SortRefusesNull)
{
    EXPECT_EQ(pelnic_list_sort(vrf_, nullptr, CompareKeys), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_list_sort(vrf_, Generic(), nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST_F(List, SortAndSearchNeitherAllocateNorFree)
{
    Fill({3, 1, 2});
    const std::size_t calls = vrf_.Plan().Count(Call::Malloc | Call::Free);
    EXPECT_EQ(pelnic_list_sort(vrf_, Generic(), CompareKeys), 0u);
    EXPECT_NE(pelnic_list_search(vrf_, Generic(), &item_, CompareKeys), nullptr);
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc | Call::Free), calls);
    EXPECT_TRUE(g_freed.empty());
}

TEST_F(List, IsSilent)
{
    vrf_.Plan().Fail(Call::Malloc, 1);
    EXPECT_NE(Add(&item_), 0u);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

} // namespace
} // namespace pnvtest
