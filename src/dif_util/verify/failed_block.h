/* The warning about a failed block: one line that says what failed, one that dumps the block. */
#pragma once

#include "dif_util/core/limited_log.h"
#include "dif_util/core/tuple.h"

#include <cstdint>

/* One block as the checks see it. Small enough to go by registers: its geometry goes beside it. */
struct CheckedBlock {
    uint8_t *data;
    uint32_t index; /* in the whole check call */

    DifTuple *tuple(const DifTypeInfo &info) const { return tupleOf(data, info); }
};

/* Writes the first and last data bytes of the block and its tuple. */
void dumpFailedBlock(LogSite site, CheckedBlock block, const DifTypeInfo &info);

/* DIF_WARN_BLOCK(function, block, info, format, ...): warning and dump, both behind the one limiter of the site. */
#define DIF_WARN_BLOCK(function, block, info, ...)                                                                     \
    do {                                                                                                               \
        static constinit FaultLimiter limiter;                                                                         \
        const LogSite site{(function), __LINE__};                                                                      \
        if (limiter.admit(site, kLogWarning)) {                                                                        \
            hostlog_standard(DIF_MODULE_ID, kLogWarning, site.func, site.line, kNoLogId, __VA_ARGS__);                 \
            dumpFailedBlock(site, (block), (info));                                                                    \
        }                                                                                                              \
    } while (0)
