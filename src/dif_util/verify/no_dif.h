/* What a check answers while DIF is off, for buffers and for lists. */
#pragma once

#include "dif/types.h"

/* Writes the error index and, if there is one, the result word. `isAllZero` looks through the range's data; it is asked
 * only if the record wants to know. */
template <typename ZeroTest>
void setNoDifResult(const DifCheckParam &param, ZeroTest isAllZero) {
    if (param.errBlockIndex != nullptr) {
        *param.errBlockIndex = DIF_ERR_BLOCK_NONE;
    }
    if (param.checkResult == nullptr) {
        return;
    }
    *param.checkResult = DIF_RESULT_NOT_T10;
    if ((param.ctrlFlag & DIF_CHECK_ZERO_DATA) != 0 && isAllZero()) {
        *param.checkResult |= DIF_RESULT_ALL_ZERO;
    }
}
