/* The warning about a failed block: one line that says what failed, one that dumps the block. */
#pragma once

#include "dif_util/core/log.h"

#include <cstdint>

/* One block as the checks see it. */
struct CheckedBlock {
    uint8_t *data;
    uint32_t dataSize;
    DifTuple *tuple;
    uint32_t index; /* in the whole check call */
};

/* Writes the first and last data bytes of the block and its tuple. */
void logFailedBlock(const LogSite &site, const CheckedBlock &block);

/* DIF_WARN_BLOCK(block, format, ...): warning and dump, both behind the one limiter of the site. */
#define DIF_WARN_BLOCK(block, ...)                                                                                     \
    [=](const char *func) __attribute__((cold, noinline)) {                                                            \
        static constinit FaultLimiter limiter;                                                                         \
        const LogSite site{DIF_SOURCE_MODULE, func, __LINE__};                                                         \
        if (limiter.admit(site, kLogWarning)) {                                                                        \
            hostlog_standard(DIF_MODULE_ID, kLogWarning, site.func, site.line, kNoLogId, __VA_ARGS__);                 \
            logFailedBlock(site, (block));                                                                             \
        }                                                                                                              \
    }                                                                                                                  \
    (__func__)
