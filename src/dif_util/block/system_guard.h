/* The guard that insertion and replacement write. */
#pragma once

#include "crc16_t10dif/guard.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/section.h"
#include "dif_util/core/settings.h"
#include "dif_util/core/tuple.h"

/* A guard and the version that says which it is. */
struct SystemGuard {
    uint16_t crc;
    uint8_t version;
};

/* Of the current system CRC version, for `dataSize` bytes at `data`. */
DIF_INSERT_HELPER SystemGuard systemGuardOf(const uint8_t *data, uint32_t dataSize, uint32_t type) {
    const uint8_t version = sysDifCrcVersion.load(std::memory_order_relaxed);
    return {crcGuard(version, data, dataSize, isZeroDataType(type)), version};
}

DIF_INSERT_HELPER void writeSystemGuard(DifTuple *tuple, const uint8_t *data, uint32_t dataSize, uint32_t type) {
    const SystemGuard guard = systemGuardOf(data, dataSize, type);
    setTupleGuard(tuple, guard.crc);
    setTupleVersion(tuple, guard.version);
}
