/* Messages behind a rate limiter. Every use of the macros is a site with a limiter of its own. */
#pragma once

#include "dif_util/core/limiter.h"
#include "log.h"

/* DIF_LOG_LIMITED(Limiter, level, format, ...): a message that the limiter may drop. */
#define DIF_LOG_LIMITED(Limiter, level, ...) DIF_LOG_LIMITED_IN(__func__, Limiter, level, __VA_ARGS__)

/* The same on behalf of the function of that name. */
#define DIF_LOG_LIMITED_IN(function, Limiter, level, ...)                                                              \
    do {                                                                                                               \
        static constinit Limiter limiter;                                                                              \
        if (limiter.admit({(function), __LINE__}, (level))) {                                                          \
            hostlog_standard(DIF_MODULE_ID, (level), (function), __LINE__, kNoLogId, __VA_ARGS__);                     \
        }                                                                                                              \
    } while (0)
