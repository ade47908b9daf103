/* The self-test of the CRC16 engines: do they agree, and how fast is each? */
#include "dif/crc16.h"
#include "dif/diagnose.h"
#include "platform/crc16_t10dif.h"
#include "platform/dbg_cmd.h"
#include "platform/osal.h"

#include <atomic>
#include <cstdlib>

namespace {

constexpr uint64_t kNanosecondsPerSecond = 1000000000;

/* The state of the test data's sequence, carried on from call to call. */
constinit std::atomic<int32_t> crcPerfSeed{1};

void fill(uint8_t *buffer, uint64_t len) {
    int32_t seed = crcPerfSeed.load(std::memory_order_relaxed);
    for (uint64_t i = 0; i < len; ++i) {
        seed = (seed + 1) * (seed + 1) % 25693;
        buffer[i] = static_cast<uint8_t>(seed);
    }
    crcPerfSeed.store(seed, std::memory_order_relaxed);
}

/* One engine's result, and the nanoseconds it has taken so far. */
struct Engine {
    uint64_t elapsed = 0;
    uint16_t result = 0;

    template <typename Crc>
    void run(Crc crc) {
        const uint64_t start = osal_time_getnanosec();
        result = crc();
        elapsed += osal_time_getnanosec() - start;
    }

    unsigned long long microseconds() const { return elapsed / 1000; }

    /* 0 if the clock saw nothing. */
    unsigned long long rate(uint64_t times, uint64_t len) const {
        return elapsed == 0 ? 0 : len * kNanosecondsPerSecond * times / elapsed;
    }
};

struct Engines {
    Engine t10;
    Engine asmT10;
    Engine tableT10;
};

/* Whether the engines agree on all test data; prints the first difference. */
bool runEngines(Engines &engines, uint8_t *buffer, uint64_t times, uint32_t len) {
    auto &[t10, asmT10, tableT10] = engines;
    for (uint64_t i = 0; i < times; ++i) {
        fill(buffer, len);
        t10.run([=] { return crc16T10Dif(0, buffer, len); });
        asmT10.run([=] { return crc16_t10dif(0, buffer, len); });
        tableT10.run([=] { return calcT10DifCrcByTable(0, buffer, len); });
        if (asmT10.result != tableT10.result || t10.result != __builtin_bswap16(asmT10.result)) {
            DBG_Print("t10:%x\nasm_t10:%x\ntable_t10:%x\n", t10.result, asmT10.result, tableT10.result);
            DBG_Print("Test FAIL:\ncrcT10 result is different, index(%llu)\n", static_cast<unsigned long long>(i));
            return false;
        }
    }
    return true;
}

} // namespace

void testCRCPerf(uint64_t times, uint64_t len) {
    if (len == 0) {
        DBG_Print("Test FAIL:len is not a positive number.\n");
        return;
    }
    if (len > UINT32_MAX) {
        DBG_Print("Test FAIL:len(%llu) is not below 2^32.\n", static_cast<unsigned long long>(len));
        return;
    }
    auto *const buffer = static_cast<uint8_t *>(std::malloc(len));
    if (buffer == nullptr) {
        DBG_Print("Test FAIL:data is NULL.\n");
        return;
    }
    Engines engines;
    const bool agree = runEngines(engines, buffer, times, static_cast<uint32_t>(len));
    std::free(buffer);
    if (agree) {
        const auto &[t10, asmT10, tableT10] = engines;
        DBG_Print("Test PASS:\nTime:\nt10_time: %llu us %llu B/s\nasm_t10_time: %llu us %llu B/s\n"
                  "table_t10_time: %llu us %llu B/s\n",
                  t10.microseconds(), t10.rate(times, len), asmT10.microseconds(), asmT10.rate(times, len),
                  tableT10.microseconds(), tableT10.rate(times, len));
    }
}
