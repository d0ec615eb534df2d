// The growable array of pointers behind every typed list.
#include "pelnic_list.h"

#include "pelnic_plt_proxy.h"

constexpr PNV_UINT32 DEFAULT_CAPACITY = 5;

// A zero-filled array of capacity pointers.
static PELNIC_ERROR_CODE newSlots(const PELNIC_VRF* pVrf, PNV_UINT64 capacity, void*** pSlots)
{
    const PNV_UINT64 size = capacity * sizeof(void*);
    if (size > 0xFFFFFFFFu) return PELNIC_ERR_SYS_MEM_ALLOC;
    return _pnvNewBlock(pVrf, reinterpret_cast<void**>(pSlots), static_cast<PNV_UINT32>(size));
}

PELNIC_ERROR_CODE pelnic_list_init(const PELNIC_VRF* pVrf, PELNIC_LIST_DUMMY* pList, PNV_UINT32 nCapacity)
{
    if (pList == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PNV_UINT32 capacity = nCapacity == 0 ? DEFAULT_CAPACITY : nCapacity;
    *pList = PELNIC_LIST_DUMMY{};
    const PELNIC_ERROR_CODE rc = newSlots(pVrf, capacity, &pList->data);
    if (rc == 0) pList->capacity = capacity;
    return rc;
}

PELNIC_ERROR_CODE _pnvListIncreaseCapacity(const PELNIC_VRF* pVrf, PELNIC_LIST_DUMMY* pList)
{
    const PNV_UINT64 capacity = pList->capacity == 0 ? DEFAULT_CAPACITY : PNV_UINT64{pList->capacity} * 2;
    void** slots = nullptr;
    PELNIC_ERROR_CODE rc = newSlots(pVrf, capacity, &slots);
    if (rc != 0) return rc;
    if (pList->capacity != 0) {
        rc = pelnic_memcpy_s(pVrf, slots, static_cast<size_t>(capacity) * sizeof(void*), pList->data,
                             size_t{pList->num} * sizeof(void*));
        if (rc != 0) {
            pelnic_free(pVrf, slots);
            return rc;
        }
        pelnic_free(pVrf, pList->data);
    }
    pList->data = slots;
    pList->capacity = static_cast<PNV_UINT32>(capacity);
    return 0;
}

PELNIC_ERROR_CODE pelnic_list_add(const PELNIC_VRF* pVrf, PELNIC_LIST_DUMMY* pList, void* pItem,
                                  PELNIC_LIST_SEEK_POS pos)
{
    if (pList == nullptr || pItem == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (pList->capacity == pList->num) {
        const PELNIC_ERROR_CODE rc = _pnvListIncreaseCapacity(pVrf, pList);
        if (rc != 0) return rc;
    }
    if (pos != CLSP_END) return PELNIC_ERR_FAILED;
    pList->data[pList->num++] = pItem;
    return 0;
}

void pelnic_list_free(PELNIC_VRF* pVrf, PELNIC_LIST_DUMMY* pList, pelnic_list_free_cb free_cb)
{
    if (pList == nullptr || free_cb == nullptr) return;
    if (pList->data != nullptr) {
        for (PNV_UINT32 i = 0; i < pList->num; ++i) free_cb(pVrf, pList->data[i]);
        pelnic_free(pVrf, pList->data);
        pList->data = nullptr;
    }
    pList->num = 0;
    pList->capacity = 0;
}

void* pelnic_list_search(const PELNIC_VRF* pVrf, const PELNIC_LIST_DUMMY* pList, const void* pSearchFor,
                         pelnic_cmp_cb cmp_cb)
{
    if (pVrf == nullptr || pList == nullptr || pSearchFor == nullptr || cmp_cb == nullptr) return nullptr;
    for (PNV_UINT32 i = 0; i < pList->num; ++i) {
        if (cmp_cb(pVrf, pSearchFor, pList->data[i]) == 0) return pList->data[i];
    }
    return nullptr;
}

PELNIC_ERROR_CODE pelnic_list_sort(const PELNIC_VRF* pVrf, const PELNIC_LIST_DUMMY* pList, pelnic_cmp_cb cmp_cb)
{
    if (pList == nullptr || cmp_cb == nullptr) return PELNIC_ERR_NULL_POINTER;
    bool swapped = true;
    for (PNV_UINT32 i = 0; i < pList->num && swapped; ++i) {
        swapped = false;
        for (PNV_UINT32 second = pList->num - 1; second > i; --second) {
            void** const pair = pList->data + second - 1;
            if (cmp_cb(pVrf, pair[0], pair[1]) > 0) {
                void* const first = pair[0];
                pair[0] = pair[1];
                pair[1] = first;
                swapped = true;
            }
        }
    }
    return 0;
}
