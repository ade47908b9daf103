/* The answers given while DIF is off: tuples are not maintained then, so only the data of each block is looked at. */
#include "dif/check.h"

#include "dif/runtime.h"
#include "dif_util/core/arguments.h"
#include "dif_util/verify/no_dif.h"
#include "dif_util/verify/zero_data.h"

bool noDifBlockAllZero(const uint8_t *data, uint32_t size) {
    return isAllZero(data, size);
}

bool noDifZeroDataCheckInBlocks(const uint8_t *data, uint32_t blockNum, const DifTypeInfo *typeInfo) {
    for (uint32_t k = 0; k < blockNum; ++k, data += typeInfo->blockSize) {
        if (!isAllZero(data, typeInfo->dataSize)) {
            return false;
        }
    }
    return true;
}

bool noDifZeroDataCheck(const uint8_t *buf, uint32_t sectorNum, const DifCheckParam *param) {
    if (!DIF_ASSERT_NOT_NULL(buf)) {
        return false;
    }
    static_cast<void>(DIF_ASSERT_CHECK_TYPE(param));
    if (param->type >= DIF_DATA_BUTT) {
        return false; /* no type's geometry */
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    static_cast<void>(DIF_ASSERT(blockNum != 0));
    return noDifZeroDataCheckInBlocks(buf, blockNum, &info);
}

void noDifSetCheckResult(const uint8_t *buf, uint32_t sectorNum, const DifCheckParam *param) {
    if (!DIF_ASSERT_NOT_NULL(param)) {
        return;
    }
    setNoDifResult(*param, [&] { return noDifZeroDataCheck(buf, sectorNum, param); });
}

uint32_t noDifUnreference(void) {
    return getDifOn() ^ 1u;
}

void noDifUnreference1(void) {}
