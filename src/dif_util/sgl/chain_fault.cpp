#include "dif_util/sgl/chain_fault.h"

#include "dif_util/sgl/chain_dump.h"
#include "log.h"

/* An ordinary error of the operation. */
#define DIF_LOG_FAULT(...)                                                                                             \
    hostlog(DIF_MODULE_ID, kLogError, DIF_SOURCE_MODULE, __LINE__, faults.opName, kLogId, __VA_ARGS__)

bool reportChainFault(ChainFaults faults, ChainFault fault, const SglRange &range, SglPosition at) {
    const void *const node = at.node;
    switch (fault) {
    case kEmptyRoot:
    case kNoEntry:
        DIF_LOG_FAULT("DIF_ERROR_SGL: sgl(%p),entrySumInSgl(%u),entryIndex(%u).", node, at.node->entrySum,
                      at.entryIndex);
        break;
    case kBadFirstEntry:
    case kBadEntry:
        DIF_LOG_FAULT("DIF_ERROR_SGL_ENTRY: sgl(%p),entryIndex(%u),entryLen(%u),blockSize(%u).", node, at.entryIndex,
                      at.entry().bytes, range.blockSize);
        break;
    case kBadStart:
        DIF_LOG_FAULT("DIF_ERROR_SGL_ENTRY_PART: sgl(%p),entryIndex(%u),entryLen(%u),startIndex(%u),blockSize(%u).",
                      node, at.entryIndex, at.bytesLeft(), at.startIndex, range.blockSize);
        break;
    default:
        DIF_LOG_FAULT("DIF_ERROR_SGL_PTR: sgl is NULL, blockSize(%u),rootSgl(%p),offsetByte(%u),sectorNum(%u).",
                      range.blockSize, static_cast<const void *>(range.root), range.offsetByte, range.sectorNum);
        break;
    }
    difPrintSglDetail(range);
    return faults.assertions == nullptr || assertionFailed(faults.assertions->of[fault], faults.opName);
}
