/* The process-wide settings, as module start and the block loops use them. The guard that insertion and replacement write
 * is that of the version they write, so that no change of version can come between the two. */
#pragma once

#include <atomic>
#include <cstdint>

/* The DIF switch and the system CRC version; 0 before difModuleInit. */
extern std::atomic<uint8_t> difSwitch;
extern std::atomic<uint8_t> sysDifCrcVersion;

/* What getDifOn tells others. */
inline bool isDifOn() {
    return difSwitch.load(std::memory_order_relaxed) != 0;
}

/* The defaults that difModuleInit sets: CRC version 0x13, repair type 0, DIF on. Logs nothing. */
void resetSettings();
