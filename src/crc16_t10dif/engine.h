/* The chosen CRC16 engine. */
#pragma once

#include <atomic>
#include <cstdint>

/* CRC16 T10-DIF of `len` bytes continued from `seed`, plain. */
using Crc16Engine = uint16_t (*)(uint16_t seed, const uint8_t *buf, uint64_t len);

/* Null until one is chosen. */
extern std::atomic<Crc16Engine> crc16Engine;

/* crc16T10Dif, inlined into the guards of the data path. */
inline uint16_t storedCrc16(uint16_t seed, const uint8_t *buf, uint32_t len) {
    if (buf == nullptr || len == 0) {
        return seed;
    }
    return __builtin_bswap16(crc16Engine.load(std::memory_order_relaxed)(seed, buf, len));
}
