/* The answers over lists while DIF is off. */
#include "dif_util/verify/no_dif.h"
#include "dif/check.h"
#include "dif/sgl.h"
#include "dif_util/core/arguments.h"
#include "dif_util/sgl/position.h"
#include "dif_util/sgl/run_walk.h"
#include "dif_util/sgl/trim.h"

bool noDifZeroDataCheckInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, const DifCheckParam *param) {
    if (!DIF_ASSERT_NOT_NULL(sgl) || !DIF_ASSERT_CHECK_TYPE(param)) {
        return false;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    static_cast<void>(DIF_ASSERT(blockNum != 0));
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    bool isZero = true;
    static constinit ChainAssertions assertions;
    const uint32_t walked = walkRuns({__func__, &assertions}, range, getStartSglByOffset(range), info, blockNum,
                                     [&](const uint8_t *data, uint32_t n, uint32_t) {
                                         isZero = noDifZeroDataCheckInBlocks(data, n, &info);
                                         return isZero;
                                     });
    return walked == DIF_OK && isZero;
}

void noDifSetCheckResultInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, const DifCheckParam *param) {
    if (!DIF_ASSERT_NOT_NULL(param)) {
        return;
    }
    setNoDifResult(*param, [=] { return noDifZeroDataCheckInSgl(sgl, offsetByte, sectorNum, param); });
    if ((param->ctrlFlag & DIF_CHECK_TRIM_ZERO) != 0) {
        trimDataInSgl(sgl, offsetByte, sectorNum, param);
    }
}
