/* Random numbers, blocks in one buffer, and their guards computed apart from the library. */
#pragma once

#include "dif/types.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

using Bytes = std::initializer_list<uint8_t>;

/* Both checksums a bit at a time, as registers. */
inline uint16_t slowCrc16(uint16_t reg, const uint8_t *data, uint64_t size) {
    for (uint64_t bit = 0; bit < size * 8; ++bit) {
        const bool out = ((reg >> 15) ^ (data[bit / 8] >> (7 - bit % 8) & 1)) != 0;
        reg = static_cast<uint16_t>((reg << 1) ^ (out ? 0x8BB7 : 0));
    }
    return reg;
}

inline uint32_t slowCrc32c(uint32_t reg, const uint8_t *data, uint64_t size) {
    for (uint64_t bit = 0; bit < size * 8; ++bit)
        reg = (reg >> 1) ^ (((reg ^ (data[bit / 8] >> (bit % 8))) & 1) != 0 ? 0x82F63B78u : 0u);
    return reg;
}

/* A guard is its two bytes read as a little-endian number, as the library's messages show it. */
inline uint16_t slowGuard(uint32_t version, const uint8_t *data, size_t size) {
    return version == DIF_VERSION_CRC32C ? static_cast<uint16_t>(~slowCrc32c(~0u, data, size))
                                         : __builtin_bswap16(slowCrc16(0, data, size));
}

/* Random numbers, by default of a printed seed; DIF_TEST_SEED in the environment repeats a run. */
struct Random {
    Random() {
        const char *given = std::getenv("DIF_TEST_SEED");
        const uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device{}();
        std::printf("DIF_TEST_SEED=%ju\n", uintmax_t{seed});
        engine = std::mt19937_64(seed);
    }
    explicit Random(std::function<uint64_t()> source) : engine(std::move(source)) {}
    uint32_t from(uint32_t least, uint32_t most) {
        return least + static_cast<uint32_t>(engine() % (most - least + 1));
    }
    bool oneIn(uint32_t n) { return engine() % n == 0; }
    template <typename T = uint32_t>
    T of(std::initializer_list<T> values) {
        return values.begin()[engine() % values.size()];
    }

    std::function<uint64_t()> engine;
};

struct Tuple {
    uint16_t guard;
    uint8_t version, app;
    uint32_t lba;
    bool isExempt() const { return version == 0xFF && app == 0xFF; }
    bool operator==(const Tuple &) const = default;
};

inline constexpr Tuple kOnes{0xFFFF, 0xFF, 0xFF, 0xFFFFFFFF};

inline Tuple tupleAt(const uint8_t *bytes) {
    Tuple tuple;
    memcpy(&tuple, bytes, sizeof tuple);
    return {tuple.guard, tuple.version, tuple.app, __builtin_bswap32(tuple.lba)};
}

inline void putTuple(uint8_t *bytes, Tuple tuple) {
    tuple.lba = __builtin_bswap32(tuple.lba);
    memcpy(bytes, &tuple, sizeof tuple);
}

inline DifTypeInfo infoOf(uint32_t type) {
    return (type & 2) == 0 ? DifTypeInfo{520, 512, 0, 512} : DifTypeInfo{4160, 4096, 3, 4096};
}

/* Blocks of random data, every byte of their DIF areas 0xA5. */
struct Blocks {
    Blocks(uint32_t dataType, uint32_t number, uint64_t seed = 1)
        : type(dataType), info(infoOf(dataType)), count(number), bytes(size_t{number} * info.blockSize) {
        std::mt19937_64 noise(seed);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(noise()); });
        for (uint32_t k = 0; k < count; ++k)
            memset(dif(k), 0xA5, info.blockSize - info.dataSize);
    }
    uint8_t *data(uint32_t k) { return &bytes[size_t{k} * info.blockSize]; }
    uint8_t *dif(uint32_t k) { return data(k) + info.difOffset; }
    DifTuple *difTuple(uint32_t k) { return reinterpret_cast<DifTuple *>(dif(k)); }
    Tuple tuple(uint32_t k) { return tupleAt(dif(k)); }
    void set(uint32_t k, const Tuple &tuple) { putTuple(dif(k), tuple); }
    void zeroData(uint32_t k) { memset(data(k), 0, info.dataSize); }
    bool isZero(uint32_t k) { return data(k)[0] == 0 && memcmp(data(k), data(k) + 1, info.dataSize - 1) == 0; }

    /* The right guard of a block's data, and the tuple of a block that is all right. */
    uint16_t guard(uint32_t k, uint32_t version = DIF_VERSION_T10) {
        return slowGuard(version, data(k), info.dataSize);
    }
    Tuple right(uint32_t k, uint64_t lba, uint8_t version = DIF_VERSION_T10) {
        return {guard(k, version), version, DIF_APP_LBA_VALID, static_cast<uint32_t>(lba)};
    }

    uint32_t type;
    DifTypeInfo info;
    uint32_t count;
    std::vector<uint8_t> bytes;
};
