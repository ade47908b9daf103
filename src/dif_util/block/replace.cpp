/* Replacement: chosen fields of the tuples that are there. */
#include "dif/block.h"

#include "dif_util/block/system_guard.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/restore.h"
#include "dif_util/core/section.h"
#include "dif_util/core/settings.h"
#include "dif_util/core/tuple.h"

namespace {

DIF_INSERT_HELPER void replaceDifInOneBlock(const uint8_t *data, uint32_t dataSize, DifTuple *tuple,
                                            const DifOpParam &param) {
    const uint32_t ctrlFlag = param.ctrlFlag;
    if ((ctrlFlag & DIF_REPLACE_CRC) != 0) {
        writeSystemGuard(tuple, data, dataSize, param.type);
    }
    if ((ctrlFlag & DIF_REPLACE_LBA) != 0) {
        setTupleValidLba(tuple, param.lba);
    }
    if ((ctrlFlag & DIF_REPLACE_LBA_IF_VALID) != 0 && hasValidLba(tuple)) {
        setTupleLba(tuple, param.lba);
    }
    if ((ctrlFlag & DIF_REPLACE_SET_BST) != 0) {
        setTupleAppFlag(tuple, DIF_APP_BST);
    }
    if ((ctrlFlag & DIF_REPLACE_INVALID_VERSION) != 0) {
        setTupleVersion(tuple, DIF_VERSION_INVALID);
    }
    if ((ctrlFlag & DIF_REPLACE_CLEAR_LBA_VALID) != 0) {
        clearTupleAppFlag(tuple, DIF_APP_LBA_VALID);
    }
    if ((ctrlFlag & DIF_REPLACE_VERSION) != 0) {
        setTupleVersion(tuple, sysDifCrcVersion.load(std::memory_order_relaxed));
    }
}

DIF_INSERT_HELPER bool isBlockChosen(const uint32_t *bitmap, uint32_t block) {
    return bitmap == nullptr || (bitmap[block / 32] >> (block % 32) & 1) != 0;
}

} // namespace

DIF_INSERT_TEXT void replaceDifInBlocks(uint8_t *buf, uint32_t blockNum, const DifTypeInfo *typeInfo, DifOpParam *param,
                                        uint32_t startBlock) {
    const uint32_t *const bitmap = param->blockBitmap;
    runForGeometry(*typeInfo, [=](const DifTypeInfo &info) DIF_INLINE {
        uint8_t *block = buf;
        for (uint32_t k = 0; k < blockNum; ++k, block += info.blockSize) {
            if (isBlockChosen(bitmap, startBlock + k)) {
                replaceDifInOneBlock(block, info.dataSize, tupleOf(block, info), *param);
            }
            ++param->lba;
        }
    });
}

void replaceDif(uint8_t *buf, uint32_t sectorNum, DifOpParam *param) {
    if (!isDifOn()) {
        return;
    }
    if (!DIF_ASSERT_NOT_NULL(param) || !DIF_ASSERT_NOT_NULL(buf) || !DIF_ASSERT_OP_TYPE(param)) {
        return;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockNum, sectorNum, param->type, info);
    const Restore lba{param->lba};
    replaceDifInBlocks(buf, blockNum, &info, param, 0);
}
