/*
 * Rate limiters for messages of failure and notice paths. Every site owns one; its state is shared by all threads
 * without a lock: concurrent callers may write a message too many or lose a count, which is accepted.
 */
#pragma once

#include "dif_util/core/log_site.h"

#include <atomic>
#include <cstdint>

/*
 * Credit grows by one a tick up to three intervals and a message costs one interval: three messages in a burst, then one
 * an interval.
 */
class CreditLimiter {
public:
    constexpr explicit CreditLimiter(uint64_t interval) : interval_{interval}, credit_{3 * interval} {}

    /* Whether the site may write now. Before a message that follows dropped ones, reports their count (at level `gate`)
     * unless it did so within ten intervals. With `gate` filtered by the host, answers false and changes nothing. */
    bool admit(const LogSite &site, uint32_t gate);

private:
    uint64_t interval_;
    std::atomic<uint64_t> credit_;
    std::atomic<uint64_t> last_{0};
    std::atomic<uint64_t> lastReport_{0};
    std::atomic<uint32_t> suppressed_{0};
};

/* `burst` messages, then silence until an interval has passed since the last of them. */
class BurstLimiter {
public:
    constexpr BurstLimiter(uint64_t interval, uint32_t burst) : interval_{interval}, burst_{burst} {}

    /* As CreditLimiter::admit, except that the count is reported when a new period starts. */
    bool admit(const LogSite &site, uint32_t gate);

private:
    uint64_t interval_;
    uint32_t burst_;
    std::atomic<uint32_t> printed_{0};
    std::atomic<uint32_t> suppressed_{0};
    std::atomic<uint64_t> last_{0};
    std::atomic<uint64_t> lastReport_{0};
};

/* The limits in use, in ticks of osal_get_jiffies. */

/* Faults found in data, and chain dumps. */
struct FaultLimiter : CreditLimiter {
    constexpr FaultLimiter() : CreditLimiter{1250} {}
};

/* Notes on exempt tuples. */
struct ExemptNoteLimiter : CreditLimiter {
    constexpr ExemptNoteLimiter() : CreditLimiter{75000} {}
};

/* Injected faults, and unusable input of the list operations that return errors. */
struct EventLimiter : BurstLimiter {
    constexpr EventLimiter() : BurstLimiter{2500, 3} {}
};

/* Unusable input of the other checks. */
struct InputErrorLimiter : BurstLimiter {
    constexpr InputErrorLimiter() : BurstLimiter{15000, 3} {}
};

/* Every assertion. */
struct AssertLimiter : BurstLimiter {
    constexpr AssertLimiter() : BurstLimiter{150000, 1} {}
};
