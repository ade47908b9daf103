/* Ticks and nanoseconds, both of the monotonic clock. */
#include "platform/osal.h"

#include <ctime>

namespace {

constexpr uint64_t kNanosecPerSec = 1'000'000'000;
constexpr uint64_t kTicksPerSec = 250;

} // namespace

uint64_t osal_time_getnanosec(void) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kNanosecPerSec + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t osal_get_jiffies(void) {
    return osal_time_getnanosec() / (kNanosecPerSec / kTicksPerSec);
}
