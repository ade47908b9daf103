/* The chosen CRC16 engine, and what every call of a checksum engine leaves to be cleaned. */
#pragma once

#include <atomic>
#include <cstdint>

/* CRC16 T10-DIF of `len` bytes continued from `seed`, plain. */
using Crc16Engine = uint16_t (*)(uint16_t seed, const uint8_t *buf, uint64_t len);

/* Null until one is chosen. */
extern std::atomic<Crc16Engine> crc16Engine;

/* Whether vector registers have upper halves. Found with the engine. */
extern std::atomic<bool> hasAvx;

/*
 * To follow a call of a checksum engine. Those that use AVX-512 leave the upper halves of the vector registers in use, and
 * some processors then take more than a hundred nanoseconds for the next SSE instruction, the caller's or ours.
 */
[[gnu::always_inline]] inline void releaseUpperHalves() {
    if (hasAvx.load(std::memory_order_relaxed)) {
        asm volatile("vzeroupper" ::
                         : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10",
                           "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
    }
}

/* crc16T10Dif, inlined into the guards of the data path. */
inline uint16_t storedCrc16(uint16_t seed, const uint8_t *buf, uint32_t len) {
    if (buf == nullptr || len == 0) {
        return seed;
    }
    const uint16_t crc = crc16Engine.load(std::memory_order_relaxed)(seed, buf, len);
    releaseUpperHalves();
    return __builtin_bswap16(crc);
}
