/* One check call, whatever walks the blocks: prepare, run, count, and put the caller's record back. */
#pragma once

#include "dif/types.h"
#include "dif_util/core/restore.h"
#include "dif_util/core/scoped_flag.h"

#include <cstdint>

/*
 * Prepares the record when it is made: a result word of the call's own if the caller has none, the claim to one detailed
 * message, the outputs. Puts it back when it goes: `lba` and `checkResult` as they were, DIF_CHECK_LOG_FIRST clear.
 */
class CheckCall {
public:
    explicit CheckCall(DifCheckParam &param);

    /* Checks a run of blocks, the first of which has index `startBlock` in the range; runs come in order. */
    void run(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, uint32_t startBlock);

    /* Whether the rest of the range has nothing left to tell. */
    bool isDone() const { return resultSettled_ != 0 && integrityDone_ != 0; }

    /* Counts the failure kinds found at the caller's verify point, once each. Returns the result of the call. */
    uint32_t finish();

private:
    DifCheckParam &param_;
    const Restore<uint64_t> lba_;
    const Restore<uint32_t *> checkResult_;
    const ScopedFlag logFirst_;
    uint32_t ownResult_ = 0;
    uint8_t resultSettled_ = 0;
    uint8_t integrityDone_ = 0;
    bool integrityOn_ = false;
    uint32_t ret_ = DIF_OK;
};
