#include "dif_util/sgl/position.h"

#include "dif_util/core/limited_log.h"
#include "dif_util/core/section.h"
#include "dif_util/sgl/run_walk.h"

DIF_INSERT_TEXT SglPosition getStartSglByOffset(const SglRange &range) {
    static constinit ChainAssertions assertions;
    SglPosition start;
    const uint32_t residBytesPara = range.offsetByte + 1;
    if (DIF_ASSERT(residBytesPara > 0)) {
        positionInChain({__func__, &assertions}, range, residBytesPara, start);
    }
    return start;
}

DIF_INSERT_TEXT uint32_t getStartSglByOffsetWithReturn(const SglRange &range, SglPosition &start) {
    const uint32_t residBytesPara = range.offsetByte + 1;
    if (residBytesPara == 0) {
        DIF_LOG_LIMITED(EventLimiter, kLogError, "DIF_SGL_ERROR: invalid offsetByte:0x%x", range.offsetByte);
        return DIF_ERR_SGL;
    }
    return positionInChain({__func__, nullptr}, range, residBytesPara, start) ? DIF_OK : DIF_ERR_SGL;
}
