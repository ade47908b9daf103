/* Access to single tuples. */
#include "dif_util/core/tuple.h"

#include "dif/block.h"

void setDifLbaFast(DifTuple *difPtr, uint32_t lba) {
    setTupleLba(difPtr, lba);
}
