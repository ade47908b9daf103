/* The warning about a failed block: one line that says what failed, one that dumps the block. */
#pragma once

#include "dif_util/core/limited_log.h"
#include "dif_util/core/tuple.h"

#include <cstdint>

/* One block as the checks see it. */
struct CheckedBlock {
    uint8_t *data;
    const DifTypeInfo *info;
    uint32_t index; /* in the whole check call */

    uint32_t dataSize() const { return info->dataSize; }
    DifTuple *tuple() const { return tupleOf(data, *info); }
};

/* Writes the first and last data bytes of the block and its tuple. */
void dumpFailedBlock(LogSite site, const CheckedBlock &block);

/* DIF_WARN_BLOCK(function, block, format, ...): warning and dump, both behind the one limiter of the site. */
#define DIF_WARN_BLOCK(function, block, ...)                                                                           \
    do {                                                                                                               \
        static constinit FaultLimiter limiter;                                                                         \
        const LogSite site{(function), __LINE__};                                                                      \
        if (limiter.admit(site, kLogWarning)) {                                                                        \
            hostlog_standard(DIF_MODULE_ID, kLogWarning, site.func, site.line, kNoLogId, __VA_ARGS__);                 \
            dumpFailedBlock(site, (block));                                                                            \
        }                                                                                                              \
    } while (0)
