/* The guard that insertion and replacement write. */
#pragma once

#include "crc16_t10dif/guard.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/section.h"
#include "dif_util/core/settings.h"
#include "dif_util/core/tuple.h"

/* Writes the guard of the current system CRC version for `dataSize` bytes at `data`, and that version. */
DIF_INSERT_HELPER void writeSystemGuard(DifTuple *tuple, const uint8_t *data, uint32_t dataSize, uint32_t type) {
    const uint8_t version = sysDifCrcVersion.load(std::memory_order_relaxed);
    setTupleGuard(tuple, crcGuard(version, data, dataSize, isZeroDataType(type)));
    setTupleVersion(tuple, version);
}
