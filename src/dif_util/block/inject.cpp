/* Fault injection: wrong values, on demand, into the tuples of protected data. */
#include "dif/block.h"

#include "dif_util/core/arguments.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/limited_log.h"
#include "dif_util/core/restore.h"
#include "dif_util/core/scoped_flag.h"
#include "dif_util/core/tuple.h"

void injectDifInOneBlock(DifTuple *tuple, const DifInjectParam *param, uint32_t /*blockIndex*/) {
    const uint32_t ctrlFlag = param->ctrlFlag;
    if ((ctrlFlag & DIF_INJECT_VERSION) != 0) {
        setTupleVersion(tuple, param->version);
        DIF_LOG_LIMITED(EventLimiter, kLogInfo, "DIF_INFO_INJECT_DIF: inject invalid version(0x%x).", param->version);
    }
    if ((ctrlFlag & DIF_INJECT_CRC) != 0) {
        setTupleGuard(tuple, param->crc);
        DIF_LOG_LIMITED(EventLimiter, kLogInfo, "DIF_INFO_INJECT_DIF: inject invalid crc(0x%x).", param->crc);
    }
    if ((ctrlFlag & DIF_INJECT_LBA) != 0) {
        setTupleValidLba(tuple, param->lba);
        DIF_LOG_LIMITED(EventLimiter, kLogInfo, "DIF_INFO_INJECT_DIF: inject invalid lba(%llu).",
                        static_cast<unsigned long long>(param->lba));
    }
    if ((ctrlFlag & DIF_INJECT_BST) != 0) {
        setTupleAppFlag(tuple, DIF_APP_BST);
        DIF_LOG_LIMITED(EventLimiter, kLogInfo, "DIF_INFO_INJECT_DIF: inject app BST.");
    }
}

void injectDifInBlocks(uint8_t *buf, uint32_t blockCount, const DifTypeInfo *typeInfo, DifInjectParam *param,
                       uint32_t startBlock) {
    for (uint32_t k = 0; k < blockCount; ++k, buf += typeInfo->blockSize) {
        injectDifInOneBlock(tupleOf(buf, *typeInfo), param, startBlock + k);
        ++param->lba;
    }
}

void injectDif(uint8_t *buf, uint32_t sectorNum, DifInjectParam *param) {
    if (!DIF_ASSERT_NOT_NULL(buf) || !DIF_ASSERT_NOT_NULL(param) || !DIF_ASSERT_OP_TYPE(param)) {
        return;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockCount = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockCount, sectorNum, param->type, info);
    const ScopedFlag logFirst{param->ctrlFlag, DIF_CHECK_LOG_FIRST};
    const Restore lba{param->lba};
    injectDifInBlocks(buf, blockCount, &info, param, 0);
}
