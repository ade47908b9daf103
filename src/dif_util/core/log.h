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
 * A message behind a limiter: DIF_LOG_LIMITED(LimiterType, level, format, ...). The arguments are copied into a closure
 * that is called out of line, so that a message costs the path around it no more than the call.
 */
#define DIF_LOG_LIMITED(LimiterType, level, ...)                                                                       \
    [=](const char *func) __attribute__((cold, noinline)) {                                                            \
        static constinit LimiterType limiter;                                                                          \
        const LogSite site{DIF_SOURCE_MODULE, func, __LINE__};                                                         \
        if (limiter.admit(site, (level))) {                                                                            \
            hostlog_standard(DIF_MODULE_ID, (level), site.func, site.line, kNoLogId, __VA_ARGS__);                     \
        }                                                                                                              \
    }                                                                                                                  \
    (__func__)
