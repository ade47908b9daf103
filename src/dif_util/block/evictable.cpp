/* Whether blocks may be evicted: not while one carries the BST mark. */
#include "dif/block.h"

#include "dif_util/core/arguments.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/limited_log.h"
#include "dif_util/core/settings.h"
#include "dif_util/core/tuple.h"

bool isDifEvictable(const uint8_t *buf, uint32_t sectorNum) {
    constexpr const DifTypeInfo &info = kTypeInfo[DIF_DATA_520];
    if (!isDifOn() || !DIF_ASSERT_NOT_NULL(buf)) {
        return true;
    }
    DIF_ASSERT_SECTORS(sectorNum);
    if (sectorNum == 0) {
        return true;
    }
    const DifTuple *const first = tupleOf(buf, info);
    if (isExempt(first)) {
        DIF_LOG_LIMITED(ExemptNoteLimiter, kLogInfo,
                        "DIF_ISDIFEVICTABLE_INFO: version(0xFF),app(0xFF), difPtr(%p),type(%u).",
                        static_cast<const void *>(first), info.dataSize);
        return true;
    }
    for (uint32_t k = 0; k < sectorNum; ++k, buf += info.blockSize) {
        if (hasBst(tupleOf(buf, info))) {
            return false;
        }
    }
    return true;
}
