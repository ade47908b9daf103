#include "dif_util/verify/failed_block.h"

#include "dif_util/core/tuple.h"
#include "log.h"

void dumpFailedBlock(LogSite site, CheckedBlock block, const DifTypeInfo &info) {
    const uint8_t *const head = block.data;
    const uint8_t *const tail = block.data + info.dataSize - 8;
    const uint8_t *const dif = tupleBytes(block.tuple(info));
    hostlog_standard(DIF_MODULE_ID, kLogWarning, site.func, site.line, kNoLogId,
                     "DIF_WARNING_CHECK_DIF_FAIL_BLOCK: data(size=%u): 0x%02x %02x %02x %02x %02x %02x %02x %02x..."
                     "%02x %02x %02x %02x %02x %02x %02x %02x; dif: 0x%02x %02x %02x %02x %02x %02x %02x %02x.",
                     info.dataSize, head[0], head[1], head[2], head[3], head[4], head[5], head[6], head[7], tail[0],
                     tail[1], tail[2], tail[3], tail[4], tail[5], tail[6], tail[7], dif[0], dif[1], dif[2], dif[3],
                     dif[4], dif[5], dif[6], dif[7]);
}
