/* Access to single tuples. */
#include "dif_util/core/tuple.h"

#include "dif/block.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/limited_log.h"

/* The end of a message about a tuple, and its arguments. */
#define DIF_TUPLE_FORMAT "dif:0x%02x 0x%02x 0x%02x 0x%02x 0x%02x 0x%02x 0x%02x 0x%02x"
#define DIF_TUPLE_ARGS(b) (b)[0], (b)[1], (b)[2], (b)[3], (b)[4], (b)[5], (b)[6], (b)[7]

void setDifLbaFast(DifTuple *difPtr, uint32_t lba) {
    setTupleLba(difPtr, lba);
}

uint32_t getDifLba(const uint8_t *buffer, uint32_t bufSize, uint64_t *lba) {
    constexpr const DifTypeInfo &info = kTypeInfo[DIF_DATA_520];
    if (buffer == nullptr || lba == nullptr || bufSize != info.blockSize) {
        DIF_LOG_LIMITED(FaultLimiter, kLogError, "buffer(%p), lba(%p), bufSize(%u).", static_cast<const void *>(buffer),
                        static_cast<const void *>(lba), bufSize);
        return DIF_FAIL;
    }
    const DifTuple *const tuple = tupleOf(buffer, info);
    const uint8_t *const bytes = tupleBytes(tuple);
    if (!isKnownVersion(tupleVersion(tuple))) {
        DIF_LOG_LIMITED(FaultLimiter, kLogWarning, "Dif version error," DIF_TUPLE_FORMAT, DIF_TUPLE_ARGS(bytes));
        return DIF_FAIL;
    }
    if (!hasValidLba(tuple)) {
        DIF_LOG_LIMITED(FaultLimiter, kLogWarning, "Lba valid flag error," DIF_TUPLE_FORMAT, DIF_TUPLE_ARGS(bytes));
        return DIF_FAIL;
    }
    *lba = tupleLba(tuple);
    return DIF_OK;
}

bool isDifDataAllZero(const DifTuple *difBuf) {
    if (!DIF_ASSERT_AS(difBuf != nullptr, "difBuf != ((void *)0)", "difBuf != ((void *)0)")) {
        return false;
    }
    return tupleGuard(difBuf) == 0 && tupleApp(difBuf) == 0 && tupleLba(difBuf) == 0;
}

void clearDifVersion(DifTuple *difBuf) {
    if (DIF_ASSERT_AS(difBuf != nullptr, "difBuf != ((void *)0)", "difBuf != ((void *)0)")) {
        setTupleVersion(difBuf, 0);
    }
}
