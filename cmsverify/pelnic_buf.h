// PELNIC_BUF, a read cursor over octets that it does not own, and PELNIC_DATA_BLOCK, an owned octet string with 64
// octets of inline storage. Nothing here logs. A buffer operation that fails leaves the cursor where it was.
#ifndef PELNIC_BUF_H
#define PELNIC_BUF_H

#include "pelnic_types.h"

typedef struct pelnic_buf_st {
    const PNV_BYTE* pVal;
    PNV_UINT32 nBufLen;
    PNV_UINT32 iCursor; // next octet to read; nBufLen at the end
} PELNIC_BUF;

typedef enum pelnic_buf_seek_way_em { CBSW_SET = 0, CBSW_CURRENT = 1 } PELNIC_BUF_SEEK_WAY;

constexpr PNV_UINT32 PNV_POS_AT_END = 0xFFFFFFFFu; // result of pelnic_buf_tell at the end

// PELNIC_ERR_NULL_POINTER for null arguments and a length of 0, here and in pelnic_buf_get_region.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_buf_init(PELNIC_BUF* pBuf, const PNV_BYTE* pVal, PNV_UINT32 nValLen);
// At the end: PELNIC_ERR_SYS_BUF_END.
[[nodiscard]] inline PELNIC_ERROR_CODE pelnic_buf_get(PELNIC_BUF* pBuf, PNV_BYTE* pByte)
{
    if (pBuf == nullptr || pByte == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (pBuf->iCursor == pBuf->nBufLen) return PELNIC_ERR_SYS_BUF_END;
    *pByte = pBuf->pVal[pBuf->iCursor++];
    return 0;
}

// More octets than are left: PELNIC_ERR_FAILED, and nothing is copied.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_buf_get_region(PELNIC_BUF* pBuf, PNV_BYTE* pbDst, PNV_UINT32 byteSize);
// The octet at the cursor inside the caller's range, or null at the end.
[[nodiscard]] inline const PNV_BYTE* pelnic_buf_get_point(const PELNIC_BUF* pBuf)
{
    if (pBuf == nullptr || pBuf->iCursor >= pBuf->nBufLen) return nullptr;
    return pBuf->pVal + pBuf->iCursor;
}

// CBSW_SET refuses the end position itself; CBSW_CURRENT allows it, and does not notice a move before the start: move
// backwards only over octets just read. PELNIC_ERR_FAILED for a refused move.
inline PELNIC_ERROR_CODE pelnic_buf_seek(PELNIC_BUF* pBuf, PNV_INT32 iPos, PELNIC_BUF_SEEK_WAY way)
{
    if (pBuf == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PNV_UINT32 position = static_cast<PNV_UINT32>(iPos);
    if (way == CBSW_SET && position < pBuf->nBufLen) {
        pBuf->iCursor = position;
        return 0;
    }
    const PNV_UINT32 moved = pBuf->iCursor + position;
    if (way == CBSW_CURRENT && static_cast<PNV_INT32>(pBuf->nBufLen) >= static_cast<PNV_INT32>(moved)) {
        pBuf->iCursor = moved;
        return 0;
    }
    return PELNIC_ERR_FAILED;
}

// Stores the cursor, PNV_POS_AT_END at the end.
[[nodiscard]] inline PELNIC_ERROR_CODE pelnic_buf_tell(const PELNIC_BUF* pBuf, PNV_UINT32* pos)
{
    if (pBuf == nullptr || pos == nullptr) return PELNIC_ERR_NULL_POINTER;
    *pos = pBuf->iCursor < pBuf->nBufLen ? pBuf->iCursor : PNV_POS_AT_END;
    return 0;
}

// Octets consumed since pos, a result of pelnic_buf_tell. PELNIC_ERR_SYS_BUF_POS if the cursor is before pos.
[[nodiscard]] inline PELNIC_ERROR_CODE pelnic_buf_get_offset(const PELNIC_BUF* pBuf, PNV_UINT pos, PNV_INT* offset)
{
    if (pBuf == nullptr || offset == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PNV_UINT32 start = pos == PNV_POS_AT_END ? pBuf->nBufLen : pos;
    if (pBuf->iCursor < start) return PELNIC_ERR_SYS_BUF_POS;
    *offset = static_cast<PNV_INT>(pBuf->iCursor - start);
    return 0;
}

typedef struct pelnic_data_block_st {
    PNV_BYTE* pData; // s_data, a heap area of capacity octets, or null in a block that was only zero-filled
    PNV_BYTE s_data[64];
    PNV_UINT32 nLen;
    PNV_UINT32 capacity; // of the heap area; 0 while there is none
} PELNIC_DATA_BLOCK;

// Stores nValLen octets in a zero-filled block. Set a block only once: a larger value releases the current pData.
// PELNIC_ERR_NULL_POINTER for a null argument or length 0, or the allocation's or copy's code.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_db_set(const PELNIC_VRF* pVrf, PELNIC_DATA_BLOCK* db, const PNV_BYTE* pVal,
                                              PNV_UINT32 nValLen);
// Appends. PELNIC_ERR_NULL_POINTER for a null argument, PELNIC_ERR_SYS_DB_APPEND for every other failure.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_db_append(const PELNIC_VRF* pVrf, PELNIC_DATA_BLOCK* db, const PNV_BYTE* pVal,
                                                 PNV_UINT32 nValLen);
[[nodiscard]] PNV_UINT32 pelnic_db_get_size(PELNIC_VRF* pVrf, const PELNIC_DATA_BLOCK* db); // 0 for a null block
// Releases the heap area, not the block, and empties it.
void pelnic_db_free(const PELNIC_VRF* pVrf, PELNIC_DATA_BLOCK* db);

#endif
