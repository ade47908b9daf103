/* Buffers of blocks with tuples written in a short notation, guards computed apart from the library, and a check call. */
#ifndef DIF_TESTS_BLOCKS_H
#define DIF_TESTS_BLOCKS_H

#include "fake_host.h"

#include "platform/osal.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string_view>

inline uint16_t slowCrc16(uint16_t reg, const uint8_t *data, size_t size) {
    for (size_t bit = 0; bit < size * 8; ++bit) {
        const bool out = ((reg >> 15) ^ (data[bit / 8] >> (7 - bit % 8) & 1)) != 0;
        reg = static_cast<uint16_t>((reg << 1) ^ (out ? 0x8BB7 : 0));
    }
    return reg;
}

/* The guard as its two bytes read as a little-endian number. */
inline uint16_t slowGuard(uint8_t version, const uint8_t *data, size_t size) {
    if (version == DIF_VERSION_CRC32C)
        return static_cast<uint16_t>(osal_crc32c(data, static_cast<uint32_t>(size)));
    const uint16_t crc = slowCrc16(0, data, size);
    return static_cast<uint16_t>((crc >> 8) | (crc << 8));
}

using Bytes = std::initializer_list<uint8_t>;

/* Random numbers of a printed seed; DIF_TEST_SEED in the environment repeats a run. */
class Random {
public:
    Random() {
        const char *given = std::getenv("DIF_TEST_SEED");
        const uint32_t seed =
            given != nullptr ? static_cast<uint32_t>(std::strtoul(given, nullptr, 0)) : std::random_device{}();
        printf("DIF_TEST_SEED=%u\n", seed);
        engine_.seed(seed);
    }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(engine_() % limit); }
    bool oneIn(uint32_t n) { return below(n) == 0; }
    uint32_t of(std::initializer_list<uint32_t> values) {
        return values.begin()[below(static_cast<uint32_t>(values.size()))];
    }

private:
    std::mt19937 engine_;
};

/* `count` blocks of random data, every byte of the DIF areas 0xA5. */
class Blocks {
public:
    Blocks(uint32_t dataType, uint32_t count, uint32_t seed = 1)
        : info(dataType < 2 ? DifTypeInfo{520, 512, 0, 512} : DifTypeInfo{4160, 4096, 3, 4096}), type(dataType),
          bytes(size_t{count} * info.blockSize) {
        std::mt19937 random(seed);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
        for (uint32_t k = 0; k < count; ++k)
            memset(tuple(k), 0xA5, info.blockSize - info.dataSize);
    }

    uint8_t *data(uint32_t k) { return bytes.data() + size_t{k} * info.blockSize; }
    uint8_t *tuple(uint32_t k) { return data(k) + info.difOffset; }

    /*
     * The eight bytes that `notation` stands for: hex digits, blanks ignored; "gg" is a byte of the right guard for the
     * version given, ".." the byte that the tuple has now. "gggg 13 02 00000007" is a right T10 tuple of LBA 7.
     */
    std::array<uint8_t, 8> expand(uint32_t k, std::string_view notation) {
        std::string text(notation);
        std::erase(text, ' ');
        std::array<uint8_t, 8> result{};
        for (size_t i : {2, 3, 4, 5, 6, 7, 0, 1}) { // the guard depends on the version
            const std::string digits = text.substr(2 * i, 2);
            const std::vector<uint8_t> zeros(info.dataSize);
            if (digits == "..")
                result[i] = tuple(k)[i];
            else if (digits == "gg")
                result[i] = static_cast<uint8_t>(
                    slowGuard(result[2], (type & 1) != 0 ? zeros.data() : data(k), info.dataSize) >> (8 * i));
            else
                result[i] = static_cast<uint8_t>(std::stoul(digits, nullptr, 16));
        }
        return result;
    }

    void set(uint32_t k, std::string_view notation) { memcpy(tuple(k), expand(k, notation).data(), 8); }
    void zeroData(uint32_t k) { memset(data(k), 0, info.dataSize); }
    std::array<uint8_t, 8> get(uint32_t k) {
        std::array<uint8_t, 8> result;
        memcpy(result.data(), tuple(k), 8);
        return result;
    }

    DifTypeInfo info;
    uint32_t type;
    std::vector<uint8_t> bytes;
};

/* A check at point 1 of the cache module, both levels 2, with all outputs. */
struct Check {
    Check(uint32_t type, uint32_t ctrlFlag, uint64_t lba = 0)
        : param{type, ctrlFlag, 2, 2, DIF_MID_CACHE, 1, lba, &result, bitmap.data(), &index} {}
    Check(const Check &) = delete;
    Check &operator=(const Check &) = delete;

    uint32_t run(Blocks &blocks, uint32_t sectors) {
        return checkDif(blocks.bytes.data(), sectors, &param, "caller", 42);
    }
    uint32_t run(Blocks &blocks) {
        return run(blocks, static_cast<uint32_t>(blocks.bytes.size() / blocks.info.blockSize)
                               << blocks.info.sectorShift);
    }

    uint32_t result = 0x5A5A5A5A;
    uint32_t index = 7;
    std::array<uint32_t, 4> bitmap{};
    DifCheckParam param;
};

#endif
