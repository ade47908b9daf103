/*
 * Positioning in a chain and the walk over a range: written once, for every operation and for both ways of meeting a
 * malformed chain. The code is inlined into each operation.
 */
#pragma once

#include "dif_util/sgl/chain_fault.h"
#include "dif_util/sgl/range.h"

#include <algorithm>

/* Whether an entry's length, or the part of it behind a position, is whole blocks and not nothing. */
[[gnu::always_inline]] inline bool isWholeBlocks(uint32_t bytes, uint32_t blockSize) {
    /* Remainders by constants, of which the first is the other geometry's too: no division. */
    return bytes != 0 && bytes % 520 == 0 && (blockSize == 520 || bytes % 4160 == 0);
}

/* Moves to the next entry of the chain. False if the operation must end, or there is no entry to go on with. */
[[gnu::always_inline]] inline bool moveToNextEntry(ChainFaults faults, const SglRange &range, SglPosition &at) {
    ++at.entryIndex;
    at.startIndex = 0;
    if (at.entryIndex == at.node->entrySum) {
        at.node = at.node->nextSgl;
        at.entryIndex = 0;
        if (at.node == nullptr) [[unlikely]] {
            reportChainFault(faults, kNoNode, range, at);
            return false;
        }
    }
    if (at.entryIndex >= at.node->entrySum) [[unlikely]] {
        reportChainFault(faults, kNoEntry, range, at);
        return false;
    }
    if (!isWholeBlocks(at.entry().bytes, range.blockSize)) [[unlikely]] {
        return !reportChainFault(faults, kBadEntry, range, at);
    }
    return true;
}

/*
 * Finds the entry and the byte in it where the range starts; a start between two entries is byte 0 of the second. Looks
 * at no entry behind it. `residBytes` is `offsetByte` + 1, not 0. False, and no position, if there is none or the
 * operation must end.
 */
[[gnu::always_inline]] inline bool positionInChain(ChainFaults faults, const SglRange &range, uint32_t residBytes,
                                                   SglPosition &start) {
    SglPosition at{range.root, 0, 0};
    if (at.node->entrySum == 0) [[unlikely]] {
        reportChainFault(faults, kEmptyRoot, range, at);
        return false;
    }
    if (!isWholeBlocks(at.entry().bytes, range.blockSize) && reportChainFault(faults, kBadFirstEntry, range, at))
        [[unlikely]] {
        return false;
    }
    while (residBytes > at.entry().bytes) {
        residBytes -= at.entry().bytes;
        if (!moveToNextEntry(faults, range, at)) [[unlikely]] {
            return false;
        }
    }
    at.startIndex = residBytes - 1;
    if (!isWholeBlocks(at.bytesLeft(), range.blockSize) && reportChainFault(faults, kBadStart, range, at))
        [[unlikely]] {
        return false;
    }
    start = at;
    return true;
}

/*
 * Visits the range's `blockNum` blocks as runs of whole blocks inside one entry: `step(data, n, startBlock)` handles `n`
 * blocks at `data`, the first of which has index `startBlock` in the range, and answers whether to go on. Never looks
 * behind the range's last block. Returns DIF_OK, also when the step ended the walk, or DIF_ERR_SGL if the chain did.
 */
template <typename Step>
[[gnu::always_inline]] inline uint32_t walkRuns(ChainFaults faults, const SglRange &range, SglPosition at,
                                                const DifTypeInfo &info, uint32_t blockNum, Step step) {
    if (at.node == nullptr) [[unlikely]] {
        return DIF_ERR_SGL;
    }
    uint32_t startBlock = 0;
    while (true) {
        const uint32_t n = std::min(blockNum - startBlock, sglBytesToSectors(at.bytesLeft()) >> info.sectorShift);
        const bool goOn = step(at.entry().buf + at.startIndex, n, startBlock);
        startBlock += n;
        if (startBlock == blockNum || !goOn) {
            return DIF_OK;
        }
        if (!moveToNextEntry(faults, range, at)) [[unlikely]] {
            return DIF_ERR_SGL;
        }
    }
}
