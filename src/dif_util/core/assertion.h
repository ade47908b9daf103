/* Assertions: logged, then handed to the host, which decides whether the process stops. */
#pragma once

#include "dif_util/core/log.h"

/*
 * DIF_ASSERT_FAILED(expression, format, ...) reports a failed assertion, at most once in 150000 ticks a site: writes the
 * message, hands `expression` (a text, may be null) to the host's assertion service and stops the process if that says
 * so. Evaluates to false, the answer of a condition that does not hold.
 */
#define DIF_ASSERT_FAILED(expression, ...) DIF_ASSERT_FAILED_IN(__func__, expression, __VA_ARGS__)

/* The same on behalf of the function named `function`. */
#define DIF_ASSERT_FAILED_IN(function, expression, ...)                                                                \
    (DIF_LIMITED(function, AssertLimiter, kLogError,                                                                   \
                 hostlog(DIF_MODULE_ID, kLogAssert, site.file, site.line, site.func, kNoLogId, __VA_ARGS__);           \
                 askHostWhetherToStop(site, expression)),                                                              \
     false)

/* True if `condition` holds; otherwise a failed assertion with the text for the log and the one for the host. */
#define DIF_ASSERT_AS(condition, text, expression) ((condition) || DIF_ASSERT_FAILED(expression, text))

/* The same with the condition as written for both texts. */
#define DIF_ASSERT(condition) DIF_ASSERT_AS(condition, #condition, #condition)

/* Asks the host's assertion service about a fired assertion, and stops the process if it answers yes. */
void askHostWhetherToStop(const LogSite &site, const char *expression);
