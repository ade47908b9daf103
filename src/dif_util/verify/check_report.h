/* The report step of the check: what the result word says about the range as a whole. */
#pragma once

#include "dif_util/verify/failed_block.h"

/* Takes one block into the result word, and tells by `resultSettled` whether there is anything left to learn. */
void tryCheckDifAppAndSetResult(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param,
                                uint8_t &resultSettled);
