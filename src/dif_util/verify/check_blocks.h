/* The block-run engine of every check, as a check call drives it. */
#pragma once

#include "dif/types.h"
#include "dif_util/core/section.h"
#include "dif_util/verify/verify_level.h"

#include <atomic>
#include <cstdint>

/*
 * What a check call has asked for and what it has still to do. What cannot change during a call is looked at once. The
 * levels can, and are asked for every block; but where their arguments are in range, as they are but for errors, that is
 * one read of the module's level and a comparison.
 */
struct CheckProgress {
    const std::atomic<uint8_t> *moduleLevel;
    uint16_t lbaLevel; /* kNever if the check is not asked for */
    uint16_t crcLevel;
    uint8_t resultSettled; /* 1: the report step has nothing left to learn */
    uint8_t integrityDone; /* 1: the integrity step has nothing left to do */
    bool levelsAssert;     /* an argument is out of range: isVerifyPointOn has to be asked */
    uint32_t ownResult;    /* the result word of a call whose caller has none */

    static constexpr uint16_t kNever = UINT8_MAX + 1;
};

/* Takes over what `param` asks of the levels. */
DIF_CHECK_HELPER void askLevels(const DifCheckParam &param, CheckProgress &progress) {
    const auto asked = [&](uint32_t flag, uint8_t level) -> uint16_t {
        return (param.ctrlFlag & flag) != 0 ? level : CheckProgress::kNever;
    };
    const auto asserts = [&](uint16_t level) {
        return level != CheckProgress::kNever &&
               invalidLevelArgument(static_cast<uint8_t>(level), param.mid, param.subPid) != LevelArgument::kNone;
    };
    progress.moduleLevel = &g_difVerifyLevel[param.mid % DIF_MID_BUTT];
    progress.lbaLevel = asked(DIF_CHECK_LBA, param.lbaLevel);
    progress.crcLevel = asked(DIF_CHECK_CRC, param.crcLevel);
    progress.levelsAssert = asserts(progress.lbaLevel) || asserts(progress.crcLevel);
}

/* Whether the check with that level is made now. `kPlain`: no level asserts. */
template <bool kPlain>
DIF_CHECK_HELPER bool isOn(const CheckProgress &progress, const DifCheckParam &param, uint16_t level) {
    if (!kPlain && progress.levelsAssert) [[unlikely]] {
        return level != CheckProgress::kNever && isVerifyPointOn(static_cast<uint8_t>(level), param.mid, param.subPid);
    }
    return level <= progress.moduleLevel->load(std::memory_order_relaxed);
}

/* Prepares the outputs of `param`, whose result word must be there, and the progress of a call. */
DIF_CHECK_HELPER void startCheck(DifCheckParam &param, CheckProgress &progress) {
    const uint32_t flags = param.ctrlFlag;
    if (param.errBlockIndex != nullptr) {
        *param.errBlockIndex = DIF_ERR_BLOCK_NONE;
    }
    *param.checkResult = ((flags & DIF_CHECK_ALL_LBA_VALID) != 0 ? DIF_RESULT_ALL_LBA_VALID : 0) |
                         ((flags & DIF_CHECK_ZERO_DATA) != 0 ? DIF_RESULT_ALL_ZERO : 0);
    progress.resultSettled = (flags & DIF_CHECK_REPORT_MASK) == 0 ? 1 : 0;
    askLevels(param, progress);
    const bool integrityOn = isOn<false>(progress, param, progress.lbaLevel) ||
                             isOn<false>(progress, param, progress.crcLevel) || (flags & DIF_CHECK_CONVERT_T10) != 0;
    progress.integrityDone = integrityOn ? 0 : 1;
    if (integrityOn && (flags & DIF_CHECK_ALL_BLOCKS) != 0) {
        *param.checkResult |= DIF_RESULT_NONE_PASSED;
    }
}

/* Check a run of blocks, whose first has index `startBlock` in the call. DIF_ERR_CHECK if one fails, else DIF_OK. */
uint32_t checkAnyRun(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, DifCheckParam &param,
                     uint32_t startBlock, CheckProgress &progress);
/* Of blocks that only the integrity step has to look at, without trim and conversion, at levels that do not assert. */
uint32_t checkPlainRun(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, DifCheckParam &param,
                       uint32_t startBlock, CheckProgress &progress);

DIF_CHECK_HELPER uint32_t checkRun(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, DifCheckParam &param,
                                   uint32_t startBlock, CheckProgress &progress) {
    const bool isPlain = progress.resultSettled != 0 && progress.integrityDone == 0 && !progress.levelsAssert &&
                         (param.ctrlFlag & (DIF_CHECK_TRIM_ZERO | DIF_CHECK_CONVERT_T10)) == 0;
    return isPlain ? checkPlainRun(data, blockNum, info, param, startBlock, progress)
                   : checkAnyRun(data, blockNum, info, param, startBlock, progress);
}
