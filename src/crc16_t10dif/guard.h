/*
 * The guard of a block's data, one function a CRC version. Both return it in the form that a little-endian 16-bit store
 * puts into a tuple. With `zeroData` and a `len` of 512 or 4096 the data is taken to be zero and is not read.
 */
#pragma once

#include "crc16_t10dif/engine.h"
#include "dif/types.h"
#include "platform/osal.h"

#include <cstdint>

/* The guards of all-zero data, as returned. */
enum : uint16_t { kZeroGuardT10 = 0, kZeroGuardCrc32c512 = 0xEDC0, kZeroGuardCrc32c4096 = 0x4189 };

/* CRC16 T10-DIF, stored big-endian. */
inline uint16_t crcGuardT10(const uint8_t *data, uint32_t len, bool zeroData) {
    if (zeroData && (len == 512 || len == 4096)) {
        return kZeroGuardT10;
    }
    return storedCrc16(0, data, len);
}

/* The low 16 bits of CRC32C, stored little-endian. */
inline uint16_t crcGuardCrc32c(const uint8_t *data, uint32_t len, bool zeroData) {
    if (zeroData && len == 512) {
        return kZeroGuardCrc32c512;
    }
    if (zeroData && len == 4096) {
        return kZeroGuardCrc32c4096;
    }
    const uint32_t crc = osal_crc32c(data, len);
    releaseUpperHalves();
    return static_cast<uint16_t>(crc);
}

/* The guard that a tuple of `version` carries. */
inline uint16_t crcGuard(uint8_t version, const uint8_t *data, uint32_t len, bool zeroData) {
    return version == DIF_VERSION_CRC32C ? crcGuardCrc32c(data, len, zeroData) : crcGuardT10(data, len, zeroData);
}
