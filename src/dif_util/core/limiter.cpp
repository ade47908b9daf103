#include "dif_util/core/limiter.h"

#include "log.h"
#include "platform/osal.h"

#include <algorithm>

namespace {

constexpr std::memory_order kRelaxed = std::memory_order_relaxed;

/* Writes the count of dropped messages and clears it, if there are any and the last report is ten intervals old. */
void reportSuppressed(LogSite site, uint32_t gate, uint64_t interval, uint64_t now, std::atomic<uint32_t> &suppressed,
                      std::atomic<uint64_t> &lastReport) {
    const uint32_t count = suppressed.load(kRelaxed);
    if (count == 0 || now < lastReport.load(kRelaxed) + 10 * interval) {
        return;
    }
    suppressed.store(0, kRelaxed);
    lastReport.store(osal_get_jiffies(), kRelaxed);
    hostlog(DIF_MODULE_ID, gate, DIF_SOURCE_MODULE, site.line, site.func, kNoLogId,
            "print: %u messages suppressed.%s,line=%d.", count, site.func, site.line);
}

} // namespace

template <uint64_t kInterval>
bool CreditLimiter<kInterval>::admit(LogSite site, uint32_t gate) {
    if (hostlog_level_check(DIF_MODULE_ID, gate) != 0) {
        return false;
    }
    const uint64_t now = osal_get_jiffies();
    const uint64_t credit = std::min(credit_.load(kRelaxed) + now - last_.load(kRelaxed), 3 * kInterval);
    if (credit < kInterval) {
        credit_.store(credit, kRelaxed);
        suppressed_.fetch_add(1, kRelaxed);
        last_.store(now, kRelaxed);
        return false;
    }
    credit_.store(credit - kInterval, kRelaxed);
    reportSuppressed(site, gate, kInterval, now, suppressed_, lastReport_);
    last_.store(now, kRelaxed);
    return true;
}

template <uint64_t kInterval, uint32_t kBurst>
bool BurstLimiter<kInterval, kBurst>::admit(LogSite site, uint32_t gate) {
    if (hostlog_level_check(DIF_MODULE_ID, gate) != 0) {
        return false;
    }
    const uint64_t now = osal_get_jiffies();
    if (static_cast<int64_t>(last_.load(kRelaxed) + kInterval - now) <= 0) {
        printed_.store(0, kRelaxed);
        last_.store(now, kRelaxed);
        reportSuppressed(site, gate, kInterval, now, suppressed_, lastReport_);
    }
    const uint32_t printed = printed_.load(kRelaxed);
    if (printed >= kBurst) {
        suppressed_.fetch_add(1, kRelaxed);
        return false;
    }
    printed_.store(printed + 1, kRelaxed);
    last_.store(now, kRelaxed);
    return true;
}

template class CreditLimiter<1250>;
template class CreditLimiter<75000>;
template class BurstLimiter<2500, 3>;
template class BurstLimiter<15000, 3>;
template class BurstLimiter<150000, 1>;
