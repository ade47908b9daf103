/* Verify levels, as the checks ask for them. */
#pragma once

#include "dif/verify_point.h"

#include <atomic>
#include <cstdint>

/* The current level of each module. */
extern std::atomic<uint8_t> g_difVerifyLevel[DIF_MID_BUTT];

/* The level of a module; for a `mid` without one, the level at which nothing is checked. */
inline uint8_t verifyLevelOf(uint32_t mid) {
    return mid < DIF_MID_BUTT ? g_difVerifyLevel[mid].load(std::memory_order_relaxed)
                              : uint8_t{DIF_VERIFY_LEVEL_INVALID};
}

/*
 * Whether a check requested at `level` is made for module `mid` now. Asserts that mid, subPid and level are in range, and
 * answers false if not.
 */
extern "C" bool isVerifyPointOn(uint8_t level, uint8_t mid, uint8_t subPid);

/*
 * One check's question to isVerifyPointOn, asked again for every block, because a level may change during a call. What
 * cannot change is looked at once: with arguments in range, a question costs one table read and one comparison.
 */
class LevelGate {
public:
    /* `asked`: whether the caller wants the check at all. */
    LevelGate(bool asked, uint8_t level, uint8_t mid, uint8_t subPid)
        : level_{level}, mid_{mid}, subPid_{subPid}, isRefused_{asked && (mid >= DIF_MID_BUTT ||
                                                                          subPid >= DIF_VERIFY_POINT_MAX ||
                                                                          level == DIF_VERIFY_LEVEL_INVALID ||
                                                                          level >= DIF_VERIFY_LEVEL_BUTT)},
          current_{asked && !isRefused_ ? &g_difVerifyLevel[mid] : nullptr} {}

    bool isOn() const {
        if (current_ != nullptr) [[likely]] {
            return level_ <= current_->load(std::memory_order_relaxed);
        }
        return isRefused_ && isVerifyPointOn(level_, mid_, subPid_);
    }

private:
    uint8_t level_;
    uint8_t mid_;
    uint8_t subPid_;
    bool isRefused_;
    const std::atomic<uint8_t> *current_;
};
