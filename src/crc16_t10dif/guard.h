/*
 * The guard of a block's data, one function a CRC version. Both return it in the form that a little-endian 16-bit store
 * puts into a tuple. With `zeroData` and a `len` of 512 or 4096 the data is taken to be zero and is not read.
 */
#pragma once

#include <cstdint>

using GuardFunc = uint16_t (*)(const uint8_t *data, uint32_t len, bool zeroData);

/* CRC16 T10-DIF, stored big-endian. */
uint16_t crcGuardT10(const uint8_t *data, uint32_t len, bool zeroData);

/* The low 16 bits of CRC32C, stored little-endian. */
uint16_t crcGuardCrc32c(const uint8_t *data, uint32_t len, bool zeroData);

/* The guards of all-zero data, as returned. */
enum : uint16_t { kZeroGuardT10 = 0, kZeroGuardCrc32c512 = 0xEDC0, kZeroGuardCrc32c4096 = 0x4189 };
