#include "dif_util/sgl/trim.h"

#include "dif_util/core/arguments.h"
#include "dif_util/sgl/position.h"
#include "dif_util/sgl/run_walk.h"
#include "dif_util/verify/trim.h"

void trimDataInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, const DifCheckParam *param) {
    if (!DIF_ASSERT_NOT_NULL(sgl) || !DIF_ASSERT_CHECK_TYPE(param)) {
        return;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    static_cast<void>(DIF_ASSERT(blockNum != 0));
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    static constinit ChainAssertions assertions;
    walkRuns({__func__, &assertions}, range, getStartSglByOffset(range), info, blockNum,
             [&](uint8_t *data, uint32_t n, uint32_t) {
                 trimBlocks(data, n, info);
                 return true;
             });
}
