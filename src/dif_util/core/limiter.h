/*
 * Rate limiters for messages of failure and notice paths. Every site owns one; its state is shared by all threads
 * without a lock: concurrent callers may write a message too many or lose a count, which is accepted. Intervals are in
 * ticks of osal_get_jiffies.
 */
#pragma once

#include <atomic>
#include <cstdint>

/* The place in the source that a message names. */
struct LogSite {
    const char *func;
    int32_t line;
};

/*
 * Credit grows by one a tick up to three intervals and a message costs one interval: three messages in a burst, then one
 * an interval.
 */
template <uint64_t kInterval>
class CreditLimiter {
public:
    /* Whether the site may write now. Before a message that follows dropped ones, reports their count (at level `gate`)
     * unless it did so within ten intervals. With `gate` filtered by the host, answers false and changes nothing. */
    [[gnu::cold]] bool admit(LogSite site, uint32_t gate);

private:
    std::atomic<uint64_t> credit_{3 * kInterval};
    std::atomic<uint64_t> last_{0};
    std::atomic<uint64_t> lastReport_{0};
    std::atomic<uint32_t> suppressed_{0};
};

/* `kBurst` messages, then silence until an interval has passed since the last of them. */
template <uint64_t kInterval, uint32_t kBurst>
class BurstLimiter {
public:
    /* As CreditLimiter::admit, except that the count is reported when a new period starts. */
    [[gnu::cold]] bool admit(LogSite site, uint32_t gate);

private:
    std::atomic<uint32_t> printed_{0};
    std::atomic<uint32_t> suppressed_{0};
    std::atomic<uint64_t> last_{0};
    std::atomic<uint64_t> lastReport_{0};
};

using FaultLimiter = CreditLimiter<1250>;         /* faults found in data, and chain dumps */
using ExemptNoteLimiter = CreditLimiter<75000>;   /* notes on exempt tuples */
using EventLimiter = BurstLimiter<2500, 3>;       /* injections; unusable input of the lists that return errors */
using InputErrorLimiter = BurstLimiter<15000, 3>; /* unusable input of the other checks */
using AssertionLimiter = BurstLimiter<150000, 1>; /* every assertion */
