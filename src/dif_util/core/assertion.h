/* Assertions: logged, then handed to the host, which decides whether the process stops. */
#pragma once

#include "dif_util/core/limiter.h"

#include <cstdint>

/* One assertion in the source. */
struct AssertionSite {
    const char *text;       /* for the log; may show one number with %u */
    const char *expression; /* for the host's assertion service; may be null */
    int32_t line;
    AssertionLimiter limiter{};
};

/*
 * Reports that what `site` asserts does not hold, at most once in 150000 ticks: writes the text, with `value` for its %u,
 * on behalf of the function `func`, asks the host, and stops the process if that says so. Otherwise returns false.
 */
[[gnu::cold, gnu::noinline]] bool assertionFailed(AssertionSite &site, const char *func, uint32_t value = 0);

/* The site of this line. */
#define DIF_ASSERTION_SITE(text, expression)                                                                           \
    __extension__({                                                                                                    \
        static constinit AssertionSite assertionSite{(text), (expression), __LINE__};                                  \
        &assertionSite;                                                                                                \
    })

/* True if `condition` holds; otherwise a failed assertion with the text for the log and the one for the host. */
#define DIF_ASSERT_AS(condition, text, expression)                                                                     \
    ((condition) || assertionFailed(*DIF_ASSERTION_SITE(text, expression), __func__))

/* The same with the condition as written for both texts. */
#define DIF_ASSERT(condition) DIF_ASSERT_AS(condition, #condition, #condition)

/* The unconditional assertion. */
#define DIF_ASSERT_NEVER() static_cast<void>(DIF_ASSERT_AS(false, "0", "0"))
