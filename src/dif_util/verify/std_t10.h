/* The check of one block against a plain T10 protection information tuple. */
#pragma once

#include "dif_util/verify/failed_block.h"

/* DIF_OK if the block passes or is exempt; DIF_ERR_CHECK, with the error bit added to the result word if there is one. The
 * block's index counts from the first block of the range, whose LBA is that of `param`. */
uint32_t checkDifIntegrityWithStdT10(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param);
