/* One check call, whatever walks the blocks: prepare, run, count, and put the caller's record back. */
#pragma once

#include "dif/types.h"

#include <cstdint>

class CheckCall {
public:
    /* Prepares the record: a result word of the call's own if the caller has none, the detailed-log claim, the outputs. */
    explicit CheckCall(DifCheckParam &param);
    CheckCall(const CheckCall &) = delete;
    CheckCall &operator=(const CheckCall &) = delete;

    /* Checks the next `blockNum` blocks of the range. */
    void run(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info);

    /* Whether the rest of the range has nothing left to tell. */
    bool isDone() const { return resultSettled_ != 0 && integrityDone_ != 0; }

    /* Counts the failure kinds found at the caller's verify point, once each. Returns the result of the call. */
    uint32_t finish();

    /* Puts the record back: the detailed-log bit clear, `lba` and `checkResult` as they were given. */
    ~CheckCall();

private:
    DifCheckParam &param_;
    const uint64_t lba_;
    uint32_t *const checkResult_;
    uint32_t ownResult_ = 0;
    uint8_t resultSettled_ = 0;
    uint8_t integrityDone_ = 0;
    bool integrityOn_ = false;
    uint32_t nextBlock_ = 0;
    uint32_t ret_ = DIF_OK;
};
