// One growable array of pointers for every collection of the library. A list owns its array and, through the free
// callback, its elements.
#ifndef PELNIC_LIST_H
#define PELNIC_LIST_H

#include "pelnic_types.h"

typedef struct pelnic_list_dummy_st {
    PNV_UINT32 num; // elements held
    void** data;    // capacity slots
    PNV_UINT32 capacity;
} PELNIC_LIST_DUMMY;

// The generic form of a typed list. Relies on -fno-strict-aliasing; the whole library is compiled with it.
template <typename List> PELNIC_LIST_DUMMY* _pnvAsList(List* list)
{
    static_assert(sizeof(List) == sizeof(PELNIC_LIST_DUMMY) &&
                      offsetof(List, num) == offsetof(PELNIC_LIST_DUMMY, num) &&
                      offsetof(List, data) == offsetof(PELNIC_LIST_DUMMY, data) &&
                      offsetof(List, capacity) == offsetof(PELNIC_LIST_DUMMY, capacity),
                  "not a list type");
    return reinterpret_cast<PELNIC_LIST_DUMMY*>(list);
}
template <typename List> const PELNIC_LIST_DUMMY* _pnvAsList(const List* list)
{
    return _pnvAsList(const_cast<List*>(list));
}

typedef enum pelnic_list_seek_pos_em {
    CLSP_BEFORE = 0,
    CLSP_AFTER = 1,
    CLSP_BEGIN = 2,
    CLSP_END = 3 // the only implemented position
} PELNIC_LIST_SEEK_POS;

typedef void (*pelnic_list_free_cb)(PELNIC_VRF* pVrf, void* pItem);
// 0 for equal, positive if the first sorts after the second.
typedef PNV_INT (*pelnic_cmp_cb)(const PELNIC_VRF* pVrf, const void* p1, const void* p2);

// Makes an empty list with room for nCapacity elements, 5 if it is 0. PELNIC_ERR_NULL_POINTER for a null list, or the
// allocation's code and a list without array and with capacity 0.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_list_init(const PELNIC_VRF* pVrf, PELNIC_LIST_DUMMY* pList,
                                                 PNV_UINT32 nCapacity);

// Appends pItem and takes ownership of it. PELNIC_ERR_NULL_POINTER for a null list or element, PELNIC_ERR_FAILED for a
// position other than CLSP_END (a full list has grown by then), or the growth's code; on failure the caller keeps the
// element.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_list_add(const PELNIC_VRF* pVrf, PELNIC_LIST_DUMMY* pList, void* pItem,
                                                PELNIC_LIST_SEEK_POS pos);

// Passes every element to free_cb in order and releases the array; the list can be initialised again. Without a list or
// a callback it does nothing and does not release the array.
void pelnic_list_free(PELNIC_VRF* pVrf, PELNIC_LIST_DUMMY* pList, pelnic_list_free_cb free_cb);

// The first element for which cmp_cb(pVrf, pSearchFor, element) is 0, or null.
void* pelnic_list_search(const PELNIC_VRF* pVrf, const PELNIC_LIST_DUMMY* pList, const void* pSearchFor,
                         pelnic_cmp_cb cmp_cb);

// Stable ascending sort in place. PELNIC_ERR_NULL_POINTER for a null list or comparator.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_list_sort(const PELNIC_VRF* pVrf, const PELNIC_LIST_DUMMY* pList,
                                                 pelnic_cmp_cb cmp_cb);

// Doubles the capacity of a full list, or makes it 5 from 0. On failure the list is unchanged.
[[nodiscard]] PELNIC_ERROR_CODE _pnvListIncreaseCapacity(const PELNIC_VRF* pVrf, PELNIC_LIST_DUMMY* pList);

#endif
