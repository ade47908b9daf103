/* The choice of the CRC16 engine, and the library's way into it. */
#include "crc16_t10dif/engine.h"

#include "dif/crc16.h"
#include "log.h"
#include "platform/crc16_t10dif.h"

#include <cpuid.h>

constinit std::atomic<Crc16Engine> crc16Engine{nullptr};
constinit std::atomic<bool> hasAvx{false};

namespace {

/* Whether the processor has all of these features, bits of ECX in CPUID's leaf 1. */
bool cpuHas(uint32_t features) {
    uint32_t eax = 0;
    uint32_t ebx = 0;
    uint32_t ecx = 0;
    uint32_t edx = 0;
    __cpuid_count(1, 0, eax, ebx, ecx, edx);
    return (ecx & features) == features;
}

/* Whether the operating system keeps the 256-bit registers, without which their instructions are illegal. */
bool isAvxEnabled() {
    if (!cpuHas(bit_OSXSAVE | bit_AVX)) {
        return false;
    }
    uint32_t enabled;
    asm volatile("xgetbv" : "=a"(enabled) : "c"(0) : "edx");
    return (enabled & 0x6) == 0x6;
}

} // namespace

uint32_t _cpu_has_sse3_clmul(void) { // NOLINT(bugprone-reserved-identifier)
    return cpuHas(bit_SSE3 | bit_PCLMUL) ? 1 : 0;
}

void setCrc16Func(void) {
    crc16Engine.store(crc16_t10dif, std::memory_order_relaxed);
}

void initCrc16T10Func(void) {
    hasAvx.store(isAvxEnabled(), std::memory_order_relaxed);
    if (_cpu_has_sse3_clmul() != 0) {
        DIF_LOG_WITH_ID(kLogNotice, kNoLogId, "Use Intel CPU hardware for crc16T10");
        setCrc16Func();
    } else {
        DIF_LOG_WITH_ID(kLogNotice, kNoLogId, "Use software for crc16T10");
        crc16Engine.store(calcT10DifCrcByTable, std::memory_order_relaxed);
    }
}

uint16_t crc16T10Dif(uint16_t seed, const uint8_t *buf, uint32_t len) {
    return storedCrc16(seed, buf, len);
}
