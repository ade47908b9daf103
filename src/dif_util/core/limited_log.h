/* How a message is written. Every use of a macro below that takes a limiter is a site with a limiter state of its own. */
#pragma once

#include "dif/types.h"
#include "dif_util/core/limiter.h"
#include "platform/hostlog.h"
#include "platform/osal.h"

/* Severities of the host log. */
enum : uint32_t { kLogAssert = 0, kLogError = 3, kLogWarning = 4, kLogNotice = 5, kLogInfo = 6 };

/* Log ids: ordinary messages; limited messages, suppression reports and assertions. */
enum : uint32_t { kLogId = 4660, kNoLogId = 0 };

/* A plain message: DIF_LOG(level, format, ...). */
#define DIF_LOG(level, ...) hostlog(DIF_MODULE_ID, (level), DIF_SOURCE_MODULE, __LINE__, __func__, kLogId, __VA_ARGS__)

/*
 * DIF_LIMITED(function, LimiterType, gate, statements): runs the statements, which know the `site`, if the limiter of this
 * place admits them. They are a closure that copies what it uses and lies with the cold code, so that a message costs the
 * path around it no more than a call.
 */
#define DIF_LIMITED(function, LimiterType, gate, ...)                                                                  \
    [=](const char *func) __attribute__((cold, noinline)) {                                                            \
        static constinit LimiterType limiter;                                                                          \
        const LogSite site{DIF_SOURCE_MODULE, func, __LINE__};                                                         \
        if (limiter.admit(site, (gate))) {                                                                             \
            __VA_ARGS__;                                                                                               \
        }                                                                                                              \
    }                                                                                                                  \
    (function)

/* A message behind a limiter: DIF_LOG_LIMITED(LimiterType, level, format, ...). */
#define DIF_LOG_LIMITED(LimiterType, level, ...)                                                                       \
    DIF_LIMITED(__func__, LimiterType, level,                                                                          \
                hostlog_standard(DIF_MODULE_ID, (level), site.func, site.line, kNoLogId, __VA_ARGS__))
