/* Positioning of the list operations. */
#pragma once

#include "dif_util/sgl/range.h"

/* Where the range starts; faults of the chain are asserted. */
SglPosition getStartSglByOffset(const SglRange &range);

/* The same for the operations that return errors: DIF_OK, or DIF_ERR_SGL with `start` untouched. */
uint32_t getStartSglByOffsetWithReturn(const SglRange &range, SglPosition &start);
