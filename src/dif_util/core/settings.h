/* The process-wide settings, as module start and the block loops use them. The guard that insertion and replacement write
 * is that of the version they write, so that no change of version can come between the two. */
#pragma once

#include <atomic>
#include <cstdint>

/* The system CRC version; 0 before difModuleInit. */
extern std::atomic<uint8_t> sysDifCrcVersion;

/* The defaults that difModuleInit sets: CRC version 0x13, repair type 0, DIF on. Logs nothing. */
void resetSettings();
