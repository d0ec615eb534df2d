// Common to all modules of the library: the context's declaration, list types, the scope guard, log macros, and the
// allocation of a record. Includes only the public header.
#ifndef PELNIC_TYPES_H
#define PELNIC_TYPES_H

#include "include/pelnic_cms_verify.h"

typedef struct pelnic_vrf_st PELNIC_VRF;

// Every list type has these three fields in this order, so that all of them can be passed as PELNIC_LIST_DUMMY.
#define PNV_DECLARE_LIST(type) \
    typedef struct list_type_##type { \
        PNV_UINT32 num; \
        type** data; \
        PNV_UINT32 capacity; \
    } LIST_TYPE_##type

// Blocks from which the elements of a long list and their contents are carved (see Carving). They are released together
// with the list. All zero: none yet.
struct CarvedBlock;
struct CarvedBlocks {
    CarvedBlock* pNewest;
    PNV_UINT32 nBlockSize; // of the next block, for a request that fits
};

// Reports to the context's log callback, if there is one; levels below a warning are dropped. msg is a printf format or
// null for no message; decoded text must be an argument, never the format. rc is 0 if there is no code.
void pelnic_log_callback(const PELNIC_VRF* ctx, PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line,
                         const PNV_CHAR* function, PELNIC_ERROR_CODE rc, const PNV_CHAR* msg, ...)
    __attribute__((format(printf, 7, 8)));

#define PNV_LOG(pVrf, level, rc, ...) pelnic_log_callback(pVrf, level, __FILE__, __LINE__, __func__, rc, __VA_ARGS__)

// Logs a failure of this source file. Four arguments fit into registers: a call is half as long as one of the log
// itself.
[[maybe_unused]] static void _pnvLogFailure(const PELNIC_VRF* pVrf, PELNIC_ERROR_CODE rc, const PNV_CHAR* function,
                                            PNV_INT line)
{
    pelnic_log_callback(pVrf, PELNIC_LOG_TYPE_ERROR, __BASE_FILE__, line, function, rc, nullptr);
}

// The value is the code. rc is evaluated twice: pass a variable or a constant.
#define PNV_FAIL(pVrf, rc) (_pnvLogFailure(pVrf, rc, __func__, __LINE__), rc)
#define PNV_FAIL_MSG(pVrf, rc, ...) (PNV_LOG(pVrf, PELNIC_LOG_TYPE_ERROR, rc, __VA_ARGS__), rc)
// The end of an operation: 0, or a failure that is logged.
#define PNV_DONE(pVrf, rc) ((rc) == 0 ? 0 : PNV_FAIL(pVrf, rc))

// Undoes what the function has acquired so far, on every return until it is disarmed. Guards undo in reverse order.
template <typename Undo> struct ScopeExit {
    Undo undo;
    bool armed = true;
    [[gnu::always_inline]] ~ScopeExit() // or the captured variables would have to lie in memory
    {
        if (armed) undo();
    }
};
template <typename Undo> ScopeExit(Undo) -> ScopeExit<Undo>;

// Allocates and clears. If clearing fails, the block is released but *out still holds its address: pass a local and
// store it in a record only on success.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_malloc_with0(const PELNIC_VRF* ctx, void** out, PNV_UINT32 size);
// The same, but writes *ppBlock only on success; and for one record.
[[nodiscard]] PELNIC_ERROR_CODE _pnvNewBlock(const PELNIC_VRF* pVrf, void** ppBlock, PNV_UINT32 size);
template <typename Record> [[nodiscard]] PELNIC_ERROR_CODE _pnvNewRecord(const PELNIC_VRF* pVrf, Record** ppRecord)
{
    return _pnvNewBlock(pVrf, reinterpret_cast<void**>(ppRecord), PNV_UINT32{sizeof(Record)});
}

#endif
