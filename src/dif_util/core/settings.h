/* The process-wide settings, as the operations read them. */
#pragma once

#include "crc16_t10dif/guard.h"

#include <cstdint>

/* The system CRC version and the guard function that belongs to it. They change together, by one pointer, so that a
 * tuple written during a change carries a version and a guard that agree. */
struct SystemCrc {
    uint8_t sysDifCrcVersion;
    GuardFunc difGuardFunc;
};

/* The current one; version 0 and no guard function before difModuleInit. */
const SystemCrc &systemCrc();

/* The defaults that difModuleInit sets: CRC version 0x13, repair type 0, DIF on. Logs nothing. */
void resetSettings();
