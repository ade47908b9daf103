/* The block-run engine of every check, and its integrity step: is this block's tuple right? */
#include "dif_util/verify/check_blocks.h"

#include "crc16_t10dif/guard.h"
#include "dif/check.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/section.h"
#include "dif_util/core/tuple.h"
#include "dif_util/verify/check_messages.h"
#include "dif_util/verify/check_report.h"
#include "dif_util/verify/trim.h"

#include <atomic>

namespace {

DIF_CHECK_HELPER bool isDifLbaCorrect(CheckedBlock block, const DifTypeInfo &info, const DifTuple *tuple,
                                      DifCheckParam &param) {
    if (!hasValidLba(tuple) || tupleLba(tuple) == static_cast<uint32_t>(param.lba)) [[likely]] {
        return true;
    }
    warnOfLba(block, info, param);
    return false;
}

DIF_CHECK_HELPER bool isDifCrcCorrect(CheckedBlock block, const DifTypeInfo &info, const DifTuple *tuple,
                                      uint8_t version, DifCheckParam &param) {
    if (version == DIF_VERSION_NO_CRC) {
        return true;
    }
    const uint16_t expected = crcGuard(version, block.data, info.dataSize, false);
    if (tupleGuard(tuple) == expected) [[likely]] {
        return true;
    }
    warnOfCrc(block, info, param, expected);
    return false;
}

/* The integrity step of a tuple that is exempt or of no known version. */
DIF_CHECK_TEXT uint32_t checkUnknownVersion(CheckedBlock block, const DifTypeInfo &info, const CheckProgress &progress,
                                            DifCheckParam &param) {
    if ((param.ctrlFlag & DIF_CHECK_TRIM_ZERO) == 0 && isExempt(block.tuple(info))) {
        noteExemptFromIntegrity(block, info, param);
        return 0;
    }
    if (isOn<false>(progress, param, progress.lbaLevel)) {
        warnOfVersionInLbaCheck(block, info, param);
        return DIF_RESULT_VERSION_ERROR;
    }
    if (isOn<false>(progress, param, progress.crcLevel)) {
        warnOfVersionInCrcCheck(block, info, param);
        return DIF_RESULT_VERSION_ERROR;
    }
    return 0;
}

/*
 * The integrity step: the result bit of the first comparison that the block fails, or 0 if it passes. A passing CRC32C
 * tuple is converted if the caller asks for it. `kPlain`: that, and levels that assert, are ruled out.
 */
template <bool kPlain>
DIF_CHECK_HELPER uint32_t tryCheckDifIntegrity(CheckedBlock block, const DifTypeInfo &info, DifTuple *tuple,
                                               const CheckProgress &progress, DifCheckParam &param) {
    const uint8_t version = tupleVersion(tuple);
    if (!isKnownVersion(version)) [[unlikely]] {
        return checkUnknownVersion(block, info, progress, param);
    }
    if (isOn<kPlain>(progress, param, progress.lbaLevel) && !isDifLbaCorrect(block, info, tuple, param)) [[unlikely]] {
        return DIF_RESULT_LBA_ERROR;
    }
    if (isOn<kPlain>(progress, param, progress.crcLevel) && !isDifCrcCorrect(block, info, tuple, version, param))
        [[unlikely]] {
        return DIF_RESULT_CRC_ERROR;
    }
    if (!kPlain && (param.ctrlFlag & DIF_CHECK_CONVERT_T10) != 0 && version == DIF_VERSION_CRC32C) {
        setTupleGuard(tuple, crcGuardT10(block.data, info.dataSize, false));
        setTupleVersion(tuple, DIF_VERSION_T10);
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

/* A run that only the integrity step has to look at, without trim, conversion and levels that assert. */
DIF_CHECK_HELPER uint32_t walkPlainBlocks(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info,
                                          DifCheckParam &param, uint32_t startBlock, CheckProgress &progress) {
    uint32_t ret = DIF_OK;
    for (uint32_t left = blockNum; left != 0; --left, data += info.blockSize) {
        DifTuple *const tuple = tupleOf(data, info);
        const uint32_t index = startBlock + blockNum - left;
        const uint32_t error = tryCheckDifIntegrity<true>({data, index}, info, tuple, progress, param);
        const bool allBlocks = (param.ctrlFlag & DIF_CHECK_ALL_BLOCKS) != 0;
        if (error != 0) [[unlikely]] {
            recordFailedBlock(param, index, info.sectorShift, error);
            ret = DIF_ERR_CHECK;
            if (!allBlocks) {
                progress.integrityDone = 1;
                break;
            }
        } else if (allBlocks) {
            *param.checkResult &= ~DIF_RESULT_NONE_PASSED;
        }
        ++param.lba;
    }
    return ret;
}

} // namespace

DIF_CHECK_TEXT uint32_t checkAnyRun(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, DifCheckParam &param,
                                    uint32_t startBlock, CheckProgress &progress) {
    uint8_t &settled = progress.resultSettled;
    uint8_t &done = progress.integrityDone;
    uint32_t ret = DIF_OK;
    for (uint32_t index = startBlock; index != startBlock + blockNum; ++index, data += info.blockSize) {
        const CheckedBlock block{data, index};
        DifTuple *const tuple = tupleOf(data, info);
        if ((param.ctrlFlag & DIF_CHECK_TRIM_ZERO) != 0) {
            trimBlock(data, info.dataSize, tuple);
        }
        if (settled == 0) {
            tryCheckDifAppAndSetResult(block, info, param, settled);
        }
        if (done == 0) {
            const uint32_t error = tryCheckDifIntegrity<false>(block, info, tuple, progress, param);
            const bool allBlocks = (param.ctrlFlag & DIF_CHECK_ALL_BLOCKS) != 0;
            if (error != 0) [[unlikely]] {
                recordFailedBlock(param, index, info.sectorShift, error);
                ret = DIF_ERR_CHECK;
                done = allBlocks ? 0 : 1;
            } else if (allBlocks) {
                *param.checkResult &= ~DIF_RESULT_NONE_PASSED;
            }
        }
        if (done != 0 && settled != 0) {
            break;
        }
        ++param.lba;
    }
    return ret;
}

DIF_CHECK_TEXT uint32_t checkPlainRun(uint8_t *data, uint32_t blockNum, const DifTypeInfo &typeInfo,
                                      DifCheckParam &param, uint32_t startBlock, CheckProgress &progress) {
    return runForGeometry(typeInfo, [&](const DifTypeInfo &info) DIF_INLINE {
        return walkPlainBlocks(data, blockNum, info, param, startBlock, progress);
    });
}

DIF_CHECK_TEXT void initDifCheckResults(DifCheckParam *param, uint8_t *resultSettled, uint8_t *integrityDone) {
    CheckProgress progress;
    startCheck(*param, progress);
    *resultSettled = progress.resultSettled;
    *integrityDone = progress.integrityDone;
}

// NOLINTNEXTLINE(readability-non-const-parameter): the trim and the conversion write into the tuples of `data`
DIF_CHECK_TEXT uint32_t checkDifInBlocks(uint8_t *data, uint32_t blockNum, const DifTypeInfo *typeInfo,
                                         DifCheckParam *param, uint32_t startBlock, uint8_t *resultSettled,
                                         uint8_t *integrityDone) {
    if (blockNum == 0) {
        return DIF_OK;
    }
    CheckProgress progress;
    progress.resultSettled = *resultSettled;
    progress.integrityDone = *integrityDone != 0 ? 1 : 0;
    askLevels(*param, progress);
    const uint32_t ret = checkRun(data, blockNum, *typeInfo, *param, startBlock, progress);
    *resultSettled = progress.resultSettled;
    *integrityDone = progress.integrityDone;
    return ret;
}
