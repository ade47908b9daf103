/* Plain messages to the host log, from every source module. The build tells each file the name of its module. */
#pragma once

#include "dif/types.h"
#include "platform/hostlog.h"

/* Severities of the host log. */
enum : uint32_t { kLogAssert = 0, kLogError = 3, kLogWarning = 4, kLogNotice = 5, kLogInfo = 6 };

/* Log ids: of ordinary messages; of limited ones, suppression reports, assertions and the choice of an engine. */
enum : uint32_t { kLogId = 4660, kNoLogId = 0 };

/* DIF_LOG(level, format, ...) writes an ordinary message, DIF_LOG_WITH_ID one with another log id. */
#define DIF_LOG(level, ...) DIF_LOG_WITH_ID(level, kLogId, __VA_ARGS__)
#define DIF_LOG_WITH_ID(level, logId, ...)                                                                             \
    hostlog(DIF_MODULE_ID, (level), DIF_SOURCE_MODULE, __LINE__, __func__, (logId), __VA_ARGS__)
