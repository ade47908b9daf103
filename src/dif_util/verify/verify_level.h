/* Verify levels, as the checks ask for them. */
#pragma once

#include "dif/verify_point.h"
#include "dif_util/core/section.h"

#include <atomic>
#include <cstdint>

/* The current level of each module. */
extern std::atomic<uint8_t> g_difVerifyLevel[DIF_MID_BUTT];

/* The level of a module; for a `mid` without one, the level at which nothing is checked. */
DIF_CHECK_HELPER uint8_t verifyLevelOf(uint32_t mid) {
    return mid < DIF_MID_BUTT ? g_difVerifyLevel[mid].load(std::memory_order_relaxed)
                              : uint8_t{DIF_VERIFY_LEVEL_INVALID};
}

/* Which argument of a level question, if any, is out of range. */
enum class LevelArgument : uint8_t { kNone, kMid, kSubPid, kLevel };

DIF_CHECK_HELPER LevelArgument invalidLevelArgument(uint8_t level, uint8_t mid, uint8_t subPid) {
    if (mid >= DIF_MID_BUTT) {
        return LevelArgument::kMid;
    }
    if (subPid >= DIF_VERIFY_POINT_MAX) {
        return LevelArgument::kSubPid;
    }
    return level == DIF_VERIFY_LEVEL_INVALID || level >= DIF_VERIFY_LEVEL_BUTT ? LevelArgument::kLevel
                                                                               : LevelArgument::kNone;
}

/*
 * Whether a check requested at `level` is made for module `mid` now. Asserts that mid, subPid and level are in range, and
 * answers false if not.
 */
extern "C" bool isVerifyPointOn(uint8_t level, uint8_t mid, uint8_t subPid);
