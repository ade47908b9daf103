/* Four event counters per verify point. */
#include "dif/verify_point.h"

#include <algorithm>
#include <atomic>

namespace {

constexpr std::memory_order kRelaxed = std::memory_order_relaxed;

using PointCounters = std::atomic<uint64_t>[DIF_STAT_BUTT];

/* By module id and point index, which is the point's id minus 1. */
constinit PointCounters g_difVerifyStatistic[DIF_MID_BUTT][DIF_VERIFY_POINT_MAX]{};

} // namespace

void difVerifyStatisticInit(void) {
    for (auto &module : g_difVerifyStatistic) {
        for (PointCounters &counters : module) {
            for (std::atomic<uint64_t> &counter : counters) {
                counter.store(0, kRelaxed);
            }
        }
    }
}

void difVerifyStatisticClean(void) {
    difVerifyStatisticInit();
}

void difStatisticInit(void) {
    difVerifyStatisticInit();
}

void difStatisticExit(void) {}

void difVerifyStatisticAdd(uint8_t mid, uint8_t point, int32_t kind) {
    if (mid < DIF_MID_BUTT && point < DIF_VERIFY_POINT_MAX && kind >= 0 && kind < DIF_STAT_BUTT) {
        g_difVerifyStatistic[mid][point][kind].fetch_add(1, kRelaxed);
    }
}

void difVerifyStatisticGet(uint8_t mid, uint32_t point, uint64_t counters[DIF_STAT_BUTT]) {
    const bool inTable = mid < DIF_MID_BUTT && point < DIF_VERIFY_POINT_MAX;
    for (uint32_t kind = 0; kind < DIF_STAT_BUTT; ++kind) {
        counters[kind] = inTable ? g_difVerifyStatistic[mid][point][kind].load(kRelaxed) : 0;
    }
}
