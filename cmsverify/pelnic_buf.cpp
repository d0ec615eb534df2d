// Byte buffer and data block.
#include "pelnic_buf.h"

#include "pelnic_plt_proxy.h"

constexpr PNV_UINT32 HEAP_STEP = 128;

PELNIC_ERROR_CODE pelnic_buf_init(PELNIC_BUF* pBuf, const PNV_BYTE* pVal, PNV_UINT32 nValLen)
{
    if (pBuf == nullptr || pVal == nullptr || nValLen == 0) return PELNIC_ERR_NULL_POINTER;
    *pBuf = PELNIC_BUF{pVal, nValLen, 0};
    return 0;
}

PELNIC_ERROR_CODE pelnic_buf_get_region(PELNIC_BUF* pBuf, PNV_BYTE* pbDst, PNV_UINT32 byteSize)
{
    if (pBuf == nullptr || pbDst == nullptr || byteSize == 0) return PELNIC_ERR_NULL_POINTER;
    if (pBuf->iCursor > pBuf->nBufLen || byteSize > pBuf->nBufLen - pBuf->iCursor) return PELNIC_ERR_FAILED;
    for (PNV_UINT32 i = 0; i < byteSize; ++i) pbDst[i] = pBuf->pVal[pBuf->iCursor + i];
    pBuf->iCursor += byteSize;
    return 0;
}

// The size of a heap area for nLen octets; 64 bits wide, because rounding up may exceed the 32 of a block's fields.
static PNV_UINT64 heapSize(PNV_UINT64 nLen)
{
    return (nLen + (HEAP_STEP - 1)) & ~PNV_UINT64{HEAP_STEP - 1};
}

static PELNIC_ERROR_CODE allocate(const PELNIC_VRF* pVrf, PNV_UINT64 size, PNV_BYTE** pArea)
{
    if (size > 0xFFFFFFFFu) return PELNIC_ERR_SYS_MEM_ALLOC;
    void* block = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_malloc(pVrf, &block, static_cast<PNV_UINT32>(size));
    if (rc == 0) *pArea = static_cast<PNV_BYTE*>(block);
    return rc;
}

PELNIC_ERROR_CODE pelnic_db_set(const PELNIC_VRF* pVrf, PELNIC_DATA_BLOCK* db, const PNV_BYTE* pVal, PNV_UINT32 nValLen)
{
    if (pVrf == nullptr || db == nullptr || pVal == nullptr || nValLen == 0) return PELNIC_ERR_NULL_POINTER;
    PELNIC_ERROR_CODE rc = 0;
    if (nValLen <= sizeof db->s_data) {
        pelnic_db_free(pVrf, db);
        rc = pelnic_memcpy_s(pVrf, db->s_data, sizeof db->s_data, pVal, nValLen);
        if (rc != 0) return rc;
        db->pData = db->s_data;
    } else {
        if (db->capacity < nValLen) {
            // Releases pData even if it is the inline storage: a block is zero-filled at first and set only once.
            pelnic_free(pVrf, db->pData);
            db->pData = nullptr;
            db->nLen = 0;
            db->capacity = 0;
            rc = allocate(pVrf, heapSize(nValLen), &db->pData);
            if (rc != 0) return rc;
            db->capacity = static_cast<PNV_UINT32>(heapSize(nValLen));
        }
        rc = pelnic_memcpy_s(pVrf, db->pData, db->capacity, pVal, nValLen);
        if (rc != 0) return rc;
    }
    db->nLen = nValLen;
    return 0;
}

// Moves the contents to a heap area of the given size.
static PELNIC_ERROR_CODE moveToHeap(const PELNIC_VRF* pVrf, PELNIC_DATA_BLOCK* db, PNV_UINT64 size)
{
    PNV_BYTE* area = nullptr;
    PELNIC_ERROR_CODE rc = allocate(pVrf, size, &area);
    if (rc != 0) return rc;
    const PNV_BYTE* const held = db->capacity != 0 ? db->pData : db->s_data;
    if (db->nLen != 0) rc = pelnic_memcpy_s(pVrf, area, static_cast<size_t>(size), held, db->nLen);
    if (rc != 0) {
        pelnic_free(pVrf, area);
        return rc;
    }
    if (db->capacity != 0) pelnic_free(pVrf, db->pData);
    db->pData = area;
    db->capacity = static_cast<PNV_UINT32>(size);
    return 0;
}

PELNIC_ERROR_CODE pelnic_db_append(const PELNIC_VRF* pVrf, PELNIC_DATA_BLOCK* db, const PNV_BYTE* pVal,
                                   PNV_UINT32 nValLen)
{
    if (pVrf == nullptr || db == nullptr || pVal == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (nValLen == 0) return 0;
    const PNV_UINT64 total = PNV_UINT64{db->nLen} + nValLen;
    if (total <= sizeof db->s_data && db->capacity == 0) {
        PNV_BYTE* const end = db->s_data + db->nLen;
        if (pelnic_memcpy_s(pVrf, end, sizeof db->s_data - db->nLen, pVal, nValLen) != 0) {
            return PELNIC_ERR_SYS_DB_APPEND;
        }
    } else {
        if (db->capacity < total && moveToHeap(pVrf, db, heapSize(total)) != 0) return PELNIC_ERR_SYS_DB_APPEND;
        PNV_BYTE* const end = db->pData + db->nLen;
        if (pelnic_memcpy_s(pVrf, end, db->capacity - db->nLen, pVal, nValLen) != 0) return PELNIC_ERR_SYS_DB_APPEND;
    }
    db->nLen = static_cast<PNV_UINT32>(total);
    return 0;
}

PNV_UINT32 pelnic_db_get_size(PELNIC_VRF*, const PELNIC_DATA_BLOCK* db)
{
    return db == nullptr ? 0 : db->nLen;
}

void pelnic_db_free(const PELNIC_VRF* pVrf, PELNIC_DATA_BLOCK* db)
{
    if (pVrf == nullptr || db == nullptr) return;
    if (db->pData != db->s_data) {
        pelnic_free(pVrf, db->pData);
        db->capacity = 0;
        db->pData = db->s_data;
    }
    db->nLen = 0;
}
