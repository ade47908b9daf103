/* Insertion: a fresh tuple behind the data of every block. */
#include "dif/block.h"

#include "dif_util/block/system_guard.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/restore.h"
#include "dif_util/core/section.h"
#include "dif_util/core/settings.h"
#include "dif_util/core/tuple.h"

namespace {

/* Writes what `ctrlFlag` makes of a cleared tuple, in whole words. */
DIF_INSERT_HELPER void writeFreshTuple(DifTuple *tuple, const uint8_t *data, uint32_t dataSize,
                                       const DifOpParam &param) {
    const uint32_t flags = param.ctrlFlag;
    if ((flags & DIF_INSERT_NO_CRC) != 0) {
        setTuple(tuple, 0, DIF_VERSION_NO_CRC, 0, 0);
        return;
    }
    const SystemGuard guard = (flags & DIF_INSERT_CRC) != 0 ? systemGuardOf(data, dataSize, param.type) : SystemGuard{};
    if ((flags & DIF_INSERT_LBA) != 0) {
        setTuple(tuple, guard.crc, guard.version, DIF_APP_LBA_VALID, param.lba);
    } else {
        setTuple(tuple, guard.crc, guard.version, 0, 0);
    }
}

/* Writes what `ctrlFlag` chooses into a tuple. */
DIF_INSERT_HELPER void insertTuple(DifTuple *tuple, const uint8_t *data, uint32_t dataSize, const DifOpParam &param) {
    if ((param.ctrlFlag & DIF_INSERT_NO_CRC) != 0) {
        setTupleVersion(tuple, DIF_VERSION_NO_CRC);
        return;
    }
    if ((param.ctrlFlag & DIF_INSERT_CRC) != 0) {
        writeSystemGuard(tuple, data, dataSize, param.type);
    }
    if ((param.ctrlFlag & DIF_INSERT_LBA) != 0) {
        setTupleValidLba(tuple, param.lba);
    }
}

/*
 * Clears the DIF area of a block and writes its tuple. A small area is its tuple, written in one piece behind the data
 * once the guard is known; a large one is cleared first, so that the processor fetches the next page's lines meanwhile. An
 * area of any other size is not cleared.
 */
DIF_INSERT_HELPER void insertBlock(uint8_t *block, const DifTypeInfo &info, const DifOpParam &param) {
    const uint32_t areaSize = info.blockSize - info.dataSize;
    const bool isTupleFirst = info.difOffset == info.dataSize;
    if (areaSize == 64) {
        // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): a null block was asserted against
        std::memset(block + info.dataSize, 0, 64);
    }
    if (isTupleFirst && (areaSize == 8 || areaSize == 64)) {
        writeFreshTuple(tupleOf(block, info), block, info.dataSize, param);
        return;
    }
    if (areaSize == 8) {
        // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): likewise
        std::memset(block + info.dataSize, 0, 8);
    }
    insertTuple(tupleOf(block, info), block, info.dataSize, param);
}

} // namespace

DIF_INSERT_TEXT void insertDifInOneBlock(const uint8_t *data, uint32_t dataSize, DifTuple *difPtr,
                                         const DifOpParam *param) {
    insertTuple(difPtr, data, dataSize, *param);
}

DIF_INSERT_TEXT void insertDifInBlocks(uint8_t *buf, uint32_t blockNum, const DifTypeInfo *typeInfo,
                                       DifOpParam *param) {
    runForGeometry(*typeInfo, [=](const DifTypeInfo &info) DIF_INLINE {
        uint8_t *block = buf;
        for (uint32_t left = blockNum; left != 0; --left, block += info.blockSize) {
            insertBlock(block, info, *param);
            ++param->lba;
        }
    });
}

DIF_INSERT_TEXT void insertDif(uint8_t *buf, uint32_t sectorNum, DifOpParam *param) {
    if (!isDifOn()) {
        return;
    }
    if (!DIF_ASSERT_NOT_NULL(buf) || !DIF_ASSERT_NOT_NULL(param) || !DIF_ASSERT_OP_TYPE(param)) {
        return;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockNum, sectorNum, param->type, info);
    const Restore lba{param->lba};
    insertDifInBlocks(buf, blockNum, &info, param);
}
