/* Verify levels, as the checks ask for them. */
#pragma once

#include "dif/verify_point.h"

#include <atomic>
#include <cstdint>

/* The current level of each module. */
extern std::atomic<uint8_t> g_difVerifyLevel[DIF_MID_BUTT];

/*
 * Whether a check requested at `level` is made for module `mid` now. Asserts that mid, subPid and level are in range, and
 * answers false if not.
 */
extern "C" bool isVerifyPointOn(uint8_t level, uint8_t mid, uint8_t subPid);

/* The same, for every block: with arguments in range it costs three comparisons and one table read. */
inline bool verifyPointOn(uint8_t level, uint8_t mid, uint8_t subPid) {
    if (mid >= DIF_MID_BUTT || subPid >= DIF_VERIFY_POINT_MAX || level == DIF_VERIFY_LEVEL_INVALID ||
        level >= DIF_VERIFY_LEVEL_BUTT) [[unlikely]] {
        return isVerifyPointOn(level, mid, subPid);
    }
    return level <= g_difVerifyLevel[mid].load(std::memory_order_relaxed);
}
