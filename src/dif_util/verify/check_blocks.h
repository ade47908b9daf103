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
    bool resultSettled; /* the report step has nothing left to learn */
    bool integrityDone; /* the integrity step has nothing left to do */
    bool levelsAssert;  /* an argument is out of range: isVerifyPointOn has to be asked */

    static constexpr uint16_t kNever = UINT8_MAX + 1;
};

/* Prepares the outputs of `param`, whose result word must be there, and the progress of a call. */
CheckProgress startCheck(DifCheckParam &param);

/* Check a run of blocks, whose first has index `startBlock` in the call. DIF_ERR_CHECK if one fails, else DIF_OK. */
uint32_t checkAnyRun(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, DifCheckParam &param,
                     uint32_t startBlock, CheckProgress &progress);
/* Of blocks that only the integrity step has to look at, without trim and conversion, at levels that do not assert. */
uint32_t checkPlainRun(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, DifCheckParam &param,
                       uint32_t startBlock, CheckProgress &progress);

DIF_CHECK_HELPER uint32_t checkRun(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, DifCheckParam &param,
                                   uint32_t startBlock, CheckProgress &progress) {
    const bool isPlain = progress.resultSettled && !progress.integrityDone && !progress.levelsAssert &&
                         (param.ctrlFlag & (DIF_CHECK_TRIM_ZERO | DIF_CHECK_CONVERT_T10)) == 0;
    return isPlain ? checkPlainRun(data, blockNum, info, param, startBlock, progress)
                   : checkAnyRun(data, blockNum, info, param, startBlock, progress);
}
