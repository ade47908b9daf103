#include "dif_util/sgl/chain_dump.h"

#include "dif_util/core/limiter.h"
#include "log.h"

namespace {

constexpr unsigned long long wide(uint64_t value) {
    return value;
}

} // namespace

void difPrintSglDetail(const SglRange &range) {
    static constinit FaultLimiter limiter;
    if (!limiter.admit({__func__, __LINE__}, kLogWarning)) {
        return;
    }
    const Sgl *const root = range.root;
    DIF_LOG(kLogNotice,
            "DIF_SGL_INFO_BEGIN: srcSgl(%p), offsetByte(%u), sectorNum(%u), blockSize(%u), totalEntryNum(%u), "
            "flag(0x%x), serialNum(0x%llx).",
            static_cast<const void *>(root), range.offsetByte, range.sectorNum, range.blockSize, root->totalEntryNum,
            root->flag, wide(root->serialNum));
    uint32_t entryTotal = 0;
    uint64_t sectors = 0;
    uint32_t sglIndex = 0;
    for (const Sgl *node = root; node != nullptr && sectors < range.sectorNum; node = node->nextSgl, ++sglIndex) {
        DIF_LOG(kLogNotice,
                "DIF_SGL_INFO: sglIndex(%u), sgl(%p), entrySum(%u), nextSgl(%p), flag(0x%x), serialNum(0x%llx).",
                sglIndex, static_cast<const void *>(node), node->entrySum, static_cast<const void *>(node->nextSgl),
                node->flag, wide(node->serialNum));
        for (uint32_t entryIndex = 0; entryIndex < node->entrySum; ++entryIndex) {
            const SglEntry &entry = node->entries[entryIndex];
            DIF_LOG(kLogNotice, "DIF_SGL_INFO_ENTRY: sglIndex(%u), sgl(%p), entryIndex(%u), bytes(%u), buf(%p).",
                    sglIndex, static_cast<const void *>(node), entryIndex, entry.bytes,
                    static_cast<const void *>(entry.buf));
            sectors += sglBytesToSectors(entry.bytes);
        }
        entryTotal += node->entrySum;
    }
    DIF_LOG(kLogNotice, "DIF_SGL_INFO_END: srcSgl(%p), actualTotalEntrySum(%u).", static_cast<const void *>(root),
            entryTotal);
}
