/* Insertion, replacement and injection over lists. */
#include "dif/block.h"
#include "dif/sgl.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/restore.h"
#include "dif_util/core/scoped_flag.h"
#include "dif_util/core/section.h"
#include "dif_util/core/settings.h"
#include "dif_util/sgl/position.h"
#include "dif_util/sgl/run_walk.h"

void insertDifInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifOpParam *param) {
    if (!isDifOn()) {
        return;
    }
    if (!DIF_ASSERT_NOT_NULL(sgl) || !DIF_ASSERT_NOT_NULL(param) || !DIF_ASSERT_OP_TYPE(param)) {
        return;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockNum, sectorNum, param->type, info);
    const Restore lba{param->lba};
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    static constinit ChainAssertions assertions;
    walkRuns({__func__, &assertions}, range, getStartSglByOffset(range), info, blockNum,
             [&](uint8_t *data, uint32_t n, uint32_t) {
                 insertDifInBlocks(data, n, &info, param);
                 return true;
             });
}

DIF_INSERT_TEXT void replaceDifInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifOpParam *param) {
    if (!isDifOn()) {
        return;
    }
    if (!DIF_ASSERT_NOT_NULL(param) || !DIF_ASSERT_NOT_NULL(sgl) || !DIF_ASSERT_OP_TYPE(param)) {
        return;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockNum, sectorNum, param->type, info);
    const Restore lba{param->lba};
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    static constinit ChainAssertions assertions;
    walkRuns({__func__, &assertions}, range, getStartSglByOffset(range), info, blockNum,
             [&](uint8_t *data, uint32_t n, uint32_t startBlock) {
                 replaceDifInBlocks(data, n, &info, param, startBlock);
                 return true;
             });
}

void injectDifInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifInjectParam *param) {
    if (!DIF_ASSERT_NOT_NULL(param) || !DIF_ASSERT_NOT_NULL(sgl) || !DIF_ASSERT_OP_TYPE(param)) {
        return;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockNum, sectorNum, param->type, info);
    const ScopedFlag logFirst{param->ctrlFlag, DIF_CHECK_LOG_FIRST};
    const Restore lba{param->lba};
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    static constinit ChainAssertions assertions;
    walkRuns({__func__, &assertions}, range, getStartSglByOffset(range), info, blockNum,
             [&](uint8_t *data, uint32_t n, uint32_t startBlock) {
                 injectDifInBlocks(data, n, &info, param, startBlock);
                 return true;
             });
}
