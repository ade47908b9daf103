/* One check call, whatever walks the blocks: prepare, run, count, and put the caller's record back. */
#pragma once

#include "dif/types.h"
#include "dif_util/core/restore.h"
#include "dif_util/core/scoped_flag.h"
#include "dif_util/verify/check_blocks.h"

#include <cstdint>

/* Counts the failure kinds in the result word at the caller's verify point, once each. */
[[gnu::cold]] void countFailures(const DifCheckParam &param);

/*
 * Prepares the record when it is made: a result word of the call's own if the caller has none, the claim to one detailed
 * message, the outputs. Puts it back when it goes: `lba` and `checkResult` as they were, DIF_CHECK_LOG_FIRST clear.
 * What the runs work with lies in `progress`, apart, so that all else stays in registers.
 */
class CheckCall {
public:
    [[gnu::always_inline]] CheckCall(DifCheckParam &param, CheckProgress &progress)
        : param_{param}, progress_{progress}, lba_{param.lba},
          checkResult_{param.checkResult}, logFirst_{param.ctrlFlag, DIF_CHECK_LOG_FIRST} {
        if (param.checkResult == nullptr) {
            param.checkResult = &progress.ownResult;
        }
        startCheck(param, progress);
        integrityOn_ = progress.integrityDone == 0;
    }

    /* Checks a run of blocks, the first of which has index `startBlock` in the range; runs come in order. */
    [[gnu::always_inline]] void run(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, uint32_t startBlock) {
        const uint32_t ret = checkRun(data, blockNum, info, param_, startBlock, progress_);
        ret_ = ret != DIF_OK ? ret : ret_;
    }

    /* Whether the rest of the range has nothing left to tell. */
    [[gnu::always_inline]] bool isDone() const { return progress_.resultSettled != 0 && progress_.integrityDone != 0; }

    /* Counts what was found. Returns the result of the call. */
    [[gnu::always_inline]] uint32_t finish() const {
        if (integrityOn_ && ret_ != DIF_OK) [[unlikely]] {
            countFailures(param_);
        }
        return ret_;
    }

private:
    DifCheckParam &param_;
    CheckProgress &progress_;
    const Restore<uint64_t> lba_;
    const Restore<uint32_t *> checkResult_;
    const ScopedFlag logFirst_;
    bool integrityOn_;
    uint32_t ret_ = DIF_OK;
};
