/* The block-run engine of every check, and its integrity step: is this block's tuple right? */
#include "dif/check.h"

#include "crc16_t10dif/guard.h"
#include "dif_util/core/section.h"
#include "dif_util/core/tuple.h"
#include "dif_util/verify/check_messages.h"
#include "dif_util/verify/check_report.h"
#include "dif_util/verify/trim.h"
#include "dif_util/verify/verify_level.h"

#include <atomic>

namespace {

/* The two level-gated checks of a call. */
struct LevelGates {
    LevelGate lba;
    LevelGate crc;
};

DIF_CHECK_HELPER LevelGates levelGatesOf(const DifCheckParam &param) {
    return {levelGateOf((param.ctrlFlag & DIF_CHECK_LBA) != 0, param.lbaLevel, param.mid, param.subPid),
            levelGateOf((param.ctrlFlag & DIF_CHECK_CRC) != 0, param.crcLevel, param.mid, param.subPid)};
}

DIF_CHECK_HELPER bool isDifLbaCorrect(const CheckedBlock &block, DifCheckParam &param) {
    const DifTuple *const tuple = block.tuple();
    if (!hasValidLba(tuple) || tupleLba(tuple) == static_cast<uint32_t>(param.lba)) [[likely]] {
        return true;
    }
    warnOfLba(block, param);
    return false;
}

DIF_CHECK_HELPER bool isDifCrcCorrect(const CheckedBlock &block, DifCheckParam &param) {
    const uint8_t version = tupleVersion(block.tuple());
    if (version == DIF_VERSION_NO_CRC) {
        return true;
    }
    const uint16_t expected = crcGuard(version, block.data, block.dataSize(), false);
    if (tupleGuard(block.tuple()) == expected) [[likely]] {
        return true;
    }
    warnOfCrc(block, param, expected);
    return false;
}

/* The integrity step of a tuple that is exempt or of no known version. */
DIF_CHECK_TEXT uint32_t checkUnknownVersion(const CheckedBlock &block, const LevelGates &gates, DifCheckParam &param) {
    if ((param.ctrlFlag & DIF_CHECK_TRIM_ZERO) == 0 && isExempt(block.tuple())) {
        noteExemptFromIntegrity(block, param);
        return 0;
    }
    if (gates.lba.isOn()) {
        warnOfVersionInLbaCheck(block, param);
        return DIF_RESULT_VERSION_ERROR;
    }
    if (gates.crc.isOn()) {
        warnOfVersionInCrcCheck(block, param);
        return DIF_RESULT_VERSION_ERROR;
    }
    return 0;
}

/*
 * The integrity step: the result bit of the first comparison that the block fails, or 0 if it passes. A passing CRC32C
 * tuple is converted if the caller asks for it.
 */
DIF_CHECK_HELPER uint32_t tryCheckDifIntegrity(const CheckedBlock &block, const LevelGates &gates,
                                               DifCheckParam &param) {
    const uint8_t version = tupleVersion(block.tuple());
    if (!isKnownVersion(version)) [[unlikely]] {
        return checkUnknownVersion(block, gates, param);
    }
    if (gates.lba.isOn() && !isDifLbaCorrect(block, param)) [[unlikely]] {
        return DIF_RESULT_LBA_ERROR;
    }
    if (gates.crc.isOn() && !isDifCrcCorrect(block, param)) [[unlikely]] {
        return DIF_RESULT_CRC_ERROR;
    }
    if ((param.ctrlFlag & DIF_CHECK_CONVERT_T10) != 0 && version == DIF_VERSION_CRC32C) {
        setTupleGuard(block.tuple(), crcGuardT10(block.data, block.dataSize(), false));
        setTupleVersion(block.tuple(), DIF_VERSION_T10);
    }
    return 0;
}

/* Marks a failed block in the caller's outputs. Calls may share one bitmap. */
DIF_CHECK_TEXT void recordFailedBlock(const DifCheckParam &param, uint32_t index, uint32_t sectorShift,
                                      uint32_t error) {
    if (param.errBlockIndex != nullptr && *param.errBlockIndex == DIF_ERR_BLOCK_NONE) {
        *param.errBlockIndex = index << sectorShift;
    }
    if (param.errBlockBitmap != nullptr) {
        std::atomic_ref{param.errBlockBitmap[index / 32]}.fetch_or(1u << (index % 32), std::memory_order_relaxed);
    }
    *param.checkResult |= error;
}

} // namespace

DIF_CHECK_TEXT void initDifCheckResults(DifCheckParam *param, uint8_t *resultSettled, uint8_t *integrityDone) {
    const uint32_t asked = param->ctrlFlag;
    if (param->errBlockIndex != nullptr) {
        *param->errBlockIndex = DIF_ERR_BLOCK_NONE;
    }
    *param->checkResult = ((asked & DIF_CHECK_ALL_LBA_VALID) != 0 ? DIF_RESULT_ALL_LBA_VALID : 0) |
                          ((asked & DIF_CHECK_ZERO_DATA) != 0 ? DIF_RESULT_ALL_ZERO : 0);
    *resultSettled = (asked & DIF_CHECK_REPORT_MASK) == 0 ? 1 : 0;
    const LevelGates gates = levelGatesOf(*param);
    const bool integrityOn = gates.lba.isOn() || gates.crc.isOn() || (asked & DIF_CHECK_CONVERT_T10) != 0;
    *integrityDone = integrityOn ? 0 : 1;
    if (integrityOn && (asked & DIF_CHECK_ALL_BLOCKS) != 0) {
        *param->checkResult |= DIF_RESULT_NONE_PASSED;
    }
}

// NOLINTNEXTLINE(readability-non-const-parameter): the trim and the conversion write into the tuples of `data`
DIF_CHECK_TEXT uint32_t checkDifInBlocks(uint8_t *data, uint32_t blockNum, const DifTypeInfo *typeInfo,
                                         DifCheckParam *param, uint32_t startBlock, uint8_t *resultSettled,
                                         uint8_t *integrityDone) {
    if (blockNum == 0) {
        return DIF_OK;
    }
    const LevelGates gates = levelGatesOf(*param);
    uint8_t settled = *resultSettled;
    bool done = *integrityDone != 0;
    uint32_t ret = DIF_OK;
    for (uint32_t index = startBlock; index != startBlock + blockNum; ++index) {
        const CheckedBlock block{data, typeInfo, index};
        __builtin_prefetch(tupleBytes(block.tuple()) + typeInfo->blockSize);
        if ((param->ctrlFlag & DIF_CHECK_TRIM_ZERO) != 0) {
            trimBlock(block.data, block.dataSize(), block.tuple());
        }
        if (settled == 0) {
            tryCheckDifAppAndSetResult(block, *param, settled);
        }
        if (!done) {
            const uint32_t error = tryCheckDifIntegrity(block, gates, *param);
            const bool allBlocks = (param->ctrlFlag & DIF_CHECK_ALL_BLOCKS) != 0;
            if (error != 0) [[unlikely]] {
                recordFailedBlock(*param, index, typeInfo->sectorShift, error);
                ret = DIF_ERR_CHECK;
                done = !allBlocks;
            } else if (allBlocks) {
                *param->checkResult &= ~DIF_RESULT_NONE_PASSED;
            }
        }
        if (done && settled != 0) {
            break;
        }
        ++param->lba;
        data += typeInfo->blockSize;
    }
    *resultSettled = settled;
    *integrityDone = done ? 1 : 0;
    return ret;
}
