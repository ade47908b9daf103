/* The verify-point registry, as module start and the checks use it. */
#pragma once

#include "dif/verify_point.h"

#include <atomic>
#include <cstdint>

/* Empties the registry and registers the library's own verify point. */
void initAllModVerifyPointMsg();

/* How many points `mid` has registered; 0 for a `mid` without a record. */
inline uint32_t verifyPointNumOf(uint32_t mid) {
    if (mid >= DIF_MID_BUTT) {
        return 0;
    }
    return std::atomic_ref{g_verifyPointMsg[mid].verifyPointNum}.load(std::memory_order_relaxed);
}
