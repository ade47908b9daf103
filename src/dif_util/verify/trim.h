/* The zero-data trim. */
#pragma once

#include "dif_util/core/section.h"
#include "dif_util/core/tuple.h"
#include "dif_util/verify/zero_data.h"

/* An all-ones tuple behind all-zero data becomes all zeros; every other block is left alone. */
DIF_CHECK_HELPER void trimBlock(const uint8_t *data, uint32_t dataSize, DifTuple *tuple) {
    uint64_t bytes;
    std::memcpy(&bytes, tupleBytes(tuple), sizeof bytes);
    if (bytes == ~uint64_t{0} && isAllZero(data, dataSize)) {
        std::memset(tupleBytes(tuple), 0, sizeof *tuple);
    }
}

/* The same for a run of blocks. */
inline void trimBlocks(uint8_t *block, uint32_t blockNum, const DifTypeInfo &info) {
    for (uint32_t k = 0; k < blockNum; ++k, block += info.blockSize) {
        trimBlock(block, info.dataSize, tupleOf(block, info));
    }
}
