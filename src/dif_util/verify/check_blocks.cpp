/* The block-run engine of every check, and its integrity step: is this block's tuple right? */
#include "dif/check.h"

#include "crc16_t10dif/guard.h"
#include "dif_util/core/section.h"
#include "dif_util/core/tuple.h"
#include "dif_util/verify/check_report.h"
#include "dif_util/verify/trim.h"
#include "dif_util/verify/verify_level.h"

#include <atomic>

namespace {

/* The two level-gated checks of a call. */
struct LevelGates {
    explicit LevelGates(const DifCheckParam &param)
        : lba{(param.ctrlFlag & DIF_CHECK_LBA) != 0, param.lbaLevel, param.mid, param.subPid},
          crc{(param.ctrlFlag & DIF_CHECK_CRC) != 0, param.crcLevel, param.mid, param.subPid} {}
    LevelGate lba;
    LevelGate crc;
};

/* Whether a failure is the first of its call, which is logged in detail. There is one such claim a call, used up whether
 * or not the message then passes its limiter. */
inline bool claimDetailedLog(DifCheckParam &param) {
    const bool first = (param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0;
    param.ctrlFlag &= ~DIF_CHECK_LOG_FIRST;
    return first;
}

DIF_CHECK_HELPER bool isDifLbaCorrect(const CheckedBlock &block, DifCheckParam &param) {
    const uint32_t expected = static_cast<uint32_t>(param.lba);
    const uint32_t actual = tupleLba(block.tuple());
    if (!hasValidLba(block.tuple()) || actual == expected) [[likely]] {
        return true;
    }
    if (claimDetailedLog(param)) {
        DIF_WARN_BLOCK(block,
                       "DIF_WARNING_CHECK_DIF: LBA error: expected(%u), actual(%u), block(%u), difPtr(%p), type(%u), "
                       "ctrlFlag(0x%x), mid(%u), lbaLevel(%u).",
                       expected, actual, block.index, static_cast<const void *>(block.tuple()), param.type,
                       param.ctrlFlag, param.mid, param.lbaLevel);
    }
    return false;
}

DIF_CHECK_HELPER bool isDifCrcCorrect(const CheckedBlock &block, DifCheckParam &param) {
    const uint8_t version = tupleVersion(block.tuple());
    if (version == DIF_VERSION_NO_CRC) {
        return true;
    }
    const uint16_t expected = crcGuard(version, block.data, block.dataSize(), false);
    const uint16_t actual = tupleGuard(block.tuple());
    if (actual == expected) [[likely]] {
        return true;
    }
    if (!claimDetailedLog(param)) {
        return false;
    }
    if (tupleVersion(block.tuple()) == DIF_VERSION_CRC32C) {
        DIF_WARN_BLOCK(block,
                       "DIF_WARNING_CHECK_DIF: CRC error: expected(0x%x), actual(0x%x), ver(CRC32C),block(%u), "
                       "difPtr(%p), type(%u), ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                       expected, actual, block.index, static_cast<const void *>(block.tuple()), param.type,
                       param.ctrlFlag, param.mid, param.subPid, param.crcLevel);
    } else {
        DIF_WARN_BLOCK(block,
                       "DIF_WARNING_CHECK_DIF: CRC error:expected(0x%x), actual(0x%x), ver(T10),block(%u), "
                       "difPtr(%p), type(%u), ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                       expected, actual, block.index, static_cast<const void *>(block.tuple()), param.type,
                       param.ctrlFlag, param.mid, param.subPid, param.crcLevel);
    }
    return false;
}

/*
 * The integrity step: the result bit of the first comparison that the block fails, or 0 if it passes. A passing CRC32C
 * tuple is converted if the caller asks for it.
 */
DIF_CHECK_HELPER uint32_t tryCheckDifIntegrity(const CheckedBlock &block, const LevelGates &gates,
                                               DifCheckParam &param) {
    const uint8_t version = tupleVersion(block.tuple());
    if (!isKnownVersion(version)) [[unlikely]] {
        if ((param.ctrlFlag & DIF_CHECK_TRIM_ZERO) == 0 && isExempt(block.tuple())) {
            DIF_LOG_LIMITED(ExemptNoteLimiter, kLogInfo,
                            "DIF_INTEGRITY_CHECK_INFO: version(0xFF), app(0xFF), difPtr(%p), type(%u),ctrlFlag(0x%x), "
                            "mid(%u), subPid(%u), crcLevel(%u), lbaLevel(%u).",
                            static_cast<const void *>(block.tuple()), param.type, param.ctrlFlag, param.mid,
                            param.subPid, param.crcLevel, param.lbaLevel);
            return 0;
        }
        if (gates.lba.isOn()) {
            if (claimDetailedLog(param)) {
                DIF_WARN_BLOCK(block,
                               "DIF_WARNING_CHECK_DIF: VERSION error: version(0x%x), block(%u),difPtr(%p), type(%u), "
                               "ctrlFlag(0x%x), mid(%u), subPid(%u), lbaLevel(%u).",
                               version, block.index, static_cast<const void *>(block.tuple()), param.type,
                               param.ctrlFlag, param.mid, param.subPid, param.lbaLevel);
            }
            return DIF_RESULT_VERSION_ERROR;
        }
        if (gates.crc.isOn()) {
            if (claimDetailedLog(param)) {
                DIF_WARN_BLOCK(block,
                               "DIF_WARNING_CHECK_DIF: VERSION error: version(0x%x), block(%u),difPtr(%p), type(%u), "
                               "ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                               version, block.index, static_cast<const void *>(block.tuple()), param.type,
                               param.ctrlFlag, param.mid, param.subPid, param.crcLevel);
            }
            return DIF_RESULT_VERSION_ERROR;
        }
        return 0;
    }
    if (gates.lba.isOn() && !isDifLbaCorrect(block, param)) [[unlikely]] {
        return DIF_RESULT_LBA_ERROR;
    }
    if (gates.crc.isOn() && !isDifCrcCorrect(block, param)) [[unlikely]] {
        return DIF_RESULT_CRC_ERROR;
    }
    if ((param.ctrlFlag & DIF_CHECK_CONVERT_T10) != 0 && tupleVersion(block.tuple()) == DIF_VERSION_CRC32C) {
        setTupleGuard(block.tuple(), crcGuardT10(block.data, block.dataSize(), false));
        setTupleVersion(block.tuple(), DIF_VERSION_T10);
    }
    return 0;
}

/* Marks a failed block in the caller's outputs. Calls may share one bitmap. */
void recordFailedBlock(const DifCheckParam &param, uint32_t index, uint32_t sectorShift, uint32_t error) {
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
    uint32_t result = 0;
    if ((asked & DIF_CHECK_ALL_LBA_VALID) != 0) {
        result |= DIF_RESULT_ALL_LBA_VALID;
    }
    if ((asked & DIF_CHECK_ZERO_DATA) != 0) {
        result |= DIF_RESULT_ALL_ZERO;
    }
    *resultSettled = (asked & DIF_CHECK_REPORT_MASK) == 0 ? 1 : 0;
    const LevelGates gates{*param};
    const bool integrityOn = gates.lba.isOn() || gates.crc.isOn() || (asked & DIF_CHECK_CONVERT_T10) != 0;
    if (integrityOn && (asked & DIF_CHECK_ALL_BLOCKS) != 0) {
        result |= DIF_RESULT_NONE_PASSED;
    }
    *integrityDone = integrityOn ? 0 : 1;
    *param->checkResult = result;
}

// NOLINTNEXTLINE(readability-non-const-parameter): the trim and the conversion write into the tuples of `data`
DIF_CHECK_TEXT uint32_t checkDifInBlocks(uint8_t *data, uint32_t blockNum, const DifTypeInfo *typeInfo,
                                         DifCheckParam *param, uint32_t startBlock, uint8_t *resultSettled,
                                         uint8_t *integrityDone) {
    const LevelGates gates{*param};
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
