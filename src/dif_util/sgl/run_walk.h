/*
 * Positioning in a chain and the walk over a range: written once, for every operation and for both ways of reporting a
 * malformed chain. A fault is logged with a dump of the chain; then, by the policy,
 *   FaultsAssert: the operation asserts, and goes on as far as there is an entry to go on with;
 *   FaultsReturn: the operation ends with DIF_ERR_SGL.
 *
 * The code is inlined into each operation. `Op` is a type of the operation's own (for a walk, that of its step), which
 * makes the assertion sites inside its own; `opName` is its name, which the messages carry.
 */
#pragma once

#include "dif_util/core/assertion.h"
#include "dif_util/sgl/chain_dump.h"
#include "dif_util/sgl/range.h"

#include <algorithm>

struct FaultsAssert {
    static constexpr bool kReturn = false;
};

struct FaultsReturn {
    static constexpr bool kReturn = true;
};

/*
 * DIF_SGL_FAULT(Policy, function, range, format, ...): reports a fault of the chain on behalf of the function of that
 * name. Evaluates to whether the operation must end for it.
 */
#define DIF_SGL_FAULT(Policy, function, range, ...)                                                                    \
    [=](const char *caller) __attribute__((cold, noinline)) {                                                          \
        hostlog(DIF_MODULE_ID, kLogError, DIF_SOURCE_MODULE, __LINE__, caller, kLogId, __VA_ARGS__);                   \
        difPrintSglDetail(range);                                                                                      \
        return Policy::kReturn || DIF_ASSERT_FAILED_IN(caller, "0", "0");                                              \
    }                                                                                                                  \
    (function)

/* Whether an entry's length, or the part of it behind a position, is whole blocks and not nothing. */
inline bool isWholeBlocks(uint32_t bytes, uint32_t blockSize) {
    return bytes != 0 && bytes % blockSize == 0;
}

/* Moves to the next entry of the chain. False if the operation must end, or there is no entry to go on with. */
template <typename Policy, typename Op>
[[gnu::always_inline]] inline bool moveToNextEntry(const char *opName, const SglRange &range, SglPosition &at) {
    ++at.entryIndex;
    at.startIndex = 0;
    if (at.entryIndex == at.node->entrySum) {
        at.node = at.node->nextSgl;
        at.entryIndex = 0;
        if (at.node == nullptr) [[unlikely]] {
            DIF_SGL_FAULT(Policy, opName, range,
                          "DIF_ERROR_SGL_PTR: sgl is NULL, blockSize(%u),rootSgl(%p),offsetByte(%u),sectorNum(%u).",
                          range.blockSize, static_cast<const void *>(range.root), range.offsetByte, range.sectorNum);
            return false;
        }
    }
    if (at.entryIndex >= at.node->entrySum) [[unlikely]] {
        DIF_SGL_FAULT(Policy, opName, range, "DIF_ERROR_SGL: sgl(%p),entrySumInSgl(%u),entryIndex(%u).",
                      static_cast<const void *>(at.node), at.node->entrySum, at.entryIndex);
        return false;
    }
    if (!isWholeBlocks(at.entry().bytes, range.blockSize)) [[unlikely]] {
        return !DIF_SGL_FAULT(Policy, opName, range,
                              "DIF_ERROR_SGL_ENTRY: sgl(%p),entryIndex(%u),entryLen(%u),blockSize(%u).",
                              static_cast<const void *>(at.node), at.entryIndex, at.entry().bytes, range.blockSize);
    }
    return true;
}

/*
 * Finds the entry and the byte in it where the range starts; a start between two entries is byte 0 of the second. Looks
 * at no entry behind it. `residBytes` is `offsetByte` + 1, not 0. False, and no position, if there is none or the
 * operation must end.
 */
template <typename Policy, typename Op>
[[gnu::always_inline]] inline bool positionInChain(const char *opName, const SglRange &range, uint32_t residBytes,
                                                   SglPosition &start) {
    SglPosition at{range.root, 0, 0};
    if (at.node->entrySum == 0) [[unlikely]] {
        DIF_SGL_FAULT(Policy, opName, range, "DIF_ERROR_SGL: sgl(%p),entrySumInSgl(%u),entryIndex(%u).",
                      static_cast<const void *>(at.node), at.node->entrySum, at.entryIndex);
        return false;
    }
    if (!isWholeBlocks(at.entry().bytes, range.blockSize)) [[unlikely]] {
        if (DIF_SGL_FAULT(Policy, opName, range,
                          "DIF_ERROR_SGL_ENTRY: sgl(%p),entryIndex(%u),entryLen(%u),blockSize(%u).",
                          static_cast<const void *>(at.node), at.entryIndex, at.entry().bytes, range.blockSize)) {
            return false;
        }
    }
    while (residBytes > at.entry().bytes) {
        residBytes -= at.entry().bytes;
        if (!moveToNextEntry<Policy, Op>(opName, range, at)) [[unlikely]] {
            return false;
        }
    }
    at.startIndex = residBytes - 1;
    const uint32_t rest = at.entry().bytes - at.startIndex;
    if (!isWholeBlocks(rest, range.blockSize)) [[unlikely]] {
        if (DIF_SGL_FAULT(Policy, opName, range,
                          "DIF_ERROR_SGL_ENTRY_PART: "
                          "sgl(%p),entryIndex(%u),entryLen(%u),startIndex(%u),blockSize(%u).",
                          static_cast<const void *>(at.node), at.entryIndex, rest, at.startIndex, range.blockSize)) {
            return false;
        }
    }
    start = at;
    return true;
}

/*
 * Visits the range's `blockNum` blocks as runs of whole blocks inside one entry: `step(data, n, startBlock)` handles `n`
 * blocks at `data`, the first of which has index `startBlock` in the range, and answers whether to go on. Never looks
 * behind the range's last block. Returns DIF_OK, also when the step ended the walk, or DIF_ERR_SGL if the chain did.
 */
template <typename Policy, typename Step>
[[gnu::always_inline]] inline uint32_t walkRuns(const char *opName, const SglRange &range, SglPosition at,
                                                const DifTypeInfo &info, uint32_t blockNum, Step step) {
    if (at.node == nullptr) [[unlikely]] {
        return DIF_ERR_SGL;
    }
    uint32_t startBlock = 0;
    while (true) {
        const SglEntry &entry = at.entry();
        const uint32_t n =
            std::min(blockNum - startBlock, sglBytesToSectors(entry.bytes - at.startIndex) >> info.sectorShift);
        const bool goOn = step(entry.buf + at.startIndex, n, startBlock);
        startBlock += n;
        if (startBlock == blockNum || !goOn) {
            return DIF_OK;
        }
        if (!moveToNextEntry<Policy, Step>(opName, range, at)) [[unlikely]] {
            return DIF_ERR_SGL;
        }
    }
}
