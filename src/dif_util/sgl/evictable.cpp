/* Evictability of a list of 520-byte blocks. */
#include "dif/block.h"
#include "dif/sgl.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/settings.h"
#include "dif_util/sgl/position.h"
#include "dif_util/sgl/run_walk.h"

bool isDifEvictableInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum) {
    if (!isDifOn()) {
        return true;
    }
    if (!DIF_ASSERT_NOT_NULL(sgl)) {
        return false;
    }
    DIF_ASSERT_SECTORS(sectorNum);
    const DifTypeInfo &info = kTypeInfo[DIF_DATA_520];
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    bool isEvictable = true;
    static constinit ChainAssertions assertions;
    const uint32_t walked = walkRuns({__func__, &assertions}, range, getStartSglByOffset(range), info, sectorNum,
                                     [&](const uint8_t *data, uint32_t n, uint32_t) {
                                         isEvictable = n == 0 || isDifEvictable(data, n);
                                         return isEvictable;
                                     });
    return walked == DIF_OK && isEvictable;
}
