#include "dif_util/verify/verify_level.h"

#include "dif_util/core/assertion.h"
#include "dif_util/core/section.h"
#include "log.h"

constinit std::atomic<uint8_t> g_difVerifyLevel[DIF_MID_BUTT]{};

extern "C" {
constexpr const char *const g_levelDescription[DIF_VERIFY_LEVEL_BUTT + 1] = {
    "DIF_VERIFY_LEVEL_INVALID", "DIF_VERIFY_LEVEL_CRITICAL", "DIF_VERIFY_LEVEL_MAJOR",
    "DIF_VERIFY_LEVEL_TRACE",   "DIF_VERIFY_LEVEL_DEBUG",    nullptr,
};
}

DIF_CHECK_TEXT bool isVerifyPointOn(uint8_t level, uint8_t mid, uint8_t subPid) {
    switch (invalidLevelArgument(level, mid, subPid)) {
    case LevelArgument::kMid:
        return assertionFailed(*DIF_ASSERTION_SITE("Dif error: mid is invalid(%u).", nullptr), __func__, mid);
    case LevelArgument::kSubPid:
        return assertionFailed(*DIF_ASSERTION_SITE("Dif error: subPid is invalid(%u).", nullptr), __func__, subPid);
    case LevelArgument::kLevel:
        return assertionFailed(*DIF_ASSERTION_SITE("Dif error: level is invalid(%u).", nullptr), __func__, level);
    case LevelArgument::kNone:
        break;
    }
    return level <= verifyLevelOf(mid);
}

void initVerifyPoint(void) {
    setSysDifVerifyLevel(DIF_VERIFY_LEVEL_MAJOR);
}

void setSysDifVerifyLevel(uint8_t level) {
    for (std::atomic<uint8_t> &moduleLevel : g_difVerifyLevel) {
        moduleLevel.store(level, std::memory_order_relaxed);
    }
}

void setDifVerifyLevelByMid(uint32_t mid, uint8_t level) {
    if (mid >= DIF_MID_BUTT) {
        DIF_LOG(kLogError, "mid(%u) is invalid.", mid);
        return;
    }
    g_difVerifyLevel[mid].store(level, std::memory_order_relaxed);
    DIF_LOG(kLogNotice, "SET_DIF_VERIFY_LEVEL: mid(%u), level(%u),", mid, level);
}

uint8_t getDifVerifyLevelByMid(uint32_t mid) {
    return verifyLevelOf(mid);
}
