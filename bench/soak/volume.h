/* Blocks in a random list, what their tuples must read and what is wrong with them. */
#ifndef DIF_TESTS_SOAK_VOLUME_H
#define DIF_TESTS_SOAK_VOLUME_H

#include "chain.h"
#include "dif/dif.h"
#include "platform/crc16_t10dif.h"
#include "platform/osal.h"

#include <array>
#include <cstring>
#include <random>
#include <span>
#include <stdexcept>

/* Ends the run if the library did what it must not. */
inline void require(bool holds, const char *what) {
    if (!holds)
        throw std::runtime_error(what);
}

/* Random choices, all from the seed of the run. */
class Random {
public:
    explicit Random(uint64_t seed) : engine_(seed) {}
    uint64_t bits() { return engine_(); }
    uint32_t from(uint32_t low, uint32_t high) { return low + static_cast<uint32_t>(bits() % (high - low + 1)); }
    bool oneIn(uint32_t n) { return bits() % n == 0; }

private:
    std::mt19937_64 engine_;
};

/* The one thing wrong with a block. */
enum class Fault : uint8_t { kNone, kVersion, kLba, kCrc };

struct Block {
    void setLba(uint64_t lba) {
        const uint32_t bytes = __builtin_bswap32(static_cast<uint32_t>(lba));
        tuple[3] |= DIF_APP_LBA_VALID;
        std::memcpy(&tuple[4], &bytes, sizeof bytes);
    }
    uint8_t *data;
    std::array<uint8_t, 8> tuple{}; /* as it must read */
    Fault fault = Fault::kNone;
    bool isHidden = false; /* no check has reported the fault yet; until then nothing may overwrite it */
};

struct Range {
    std::span<Block> blocks;
    uint32_t count, offsetByte, sectorNum;
    uint64_t lba;
};

struct Volume {
    explicit Volume(Random &random)
        : type(random.oneIn(4) ? DIF_DATA_4160 : DIF_DATA_520), dataSize(type == DIF_DATA_520 ? 512 : 4096),
          blockSize(dataSize / 64 * 65), sectorShift(type == DIF_DATA_520 ? 0 : 3),
          chain(randomLengths(random), random.oneIn(2) ? random.from(0, 15) : 0), sgl(chain.at(0)), lba(random.bits()) {
        for (const Sgl *node = sgl; node != nullptr; node = node->nextSgl)
            for (uint32_t i = 0; i < node->entrySum; ++i)
                for (uint32_t at = 0; at < node->entries[i].bytes; at += blockSize)
                    blocks.push_back({node->entries[i].buf + at});
    }
    Lengths randomLengths(Random &random) const {
        Lengths lengths(random.from(1, 4));
        for (auto &node : lengths) {
            node.resize(random.from(1, 6));
            for (uint32_t &bytes : node)
                bytes = random.from(1, sectorShift == 0 ? 8 : 2) * blockSize;
        }
        return lengths;
    }
    Range range(uint32_t first, uint32_t count) {
        return {{&blocks[first], count}, count, first * blockSize, count << sectorShift, lba + first};
    }
    Range range() { return range(0, static_cast<uint32_t>(blocks.size())); }
    Range range(Random &random, uint32_t maxCount) {
        const uint32_t first = random.from(0, range().count - 1);
        return range(first, random.from(1, std::min(maxCount, range().count - first)));
    }
    uint8_t *tupleAt(const Block &block) const { return block.data + dataSize; }

    /* The right guard of a block's data for its version, byte 0 low. */
    uint16_t guard(const Block &block) const {
        return block.tuple[2] == DIF_VERSION_CRC32C ? static_cast<uint16_t>(osal_crc32c(block.data, dataSize))
                                                    : __builtin_bswap16(crc16_t10dif(0, block.data, dataSize));
    }
    /* The library has written a guard, of either version: expects the right one of that version from now on. */
    void takeGuard(Block &block) const {
        block.tuple[2] = tupleAt(block)[2];
        require(block.tuple[2] == DIF_VERSION_T10 || block.tuple[2] == DIF_VERSION_CRC32C, "a guard has no version");
        const uint16_t bytes = guard(block);
        std::memcpy(block.tuple.data(), &bytes, sizeof bytes);
    }
    void verify() const {
        for (const Block &block : blocks)
            require(std::memcmp(tupleAt(block), block.tuple.data(), sizeof block.tuple) == 0, "a tuple is wrong");
    }

    const uint32_t type, dataSize, blockSize, sectorShift;
    Chain chain;
    const Sgl *const sgl;
    std::vector<Block> blocks;
    uint64_t lba; /* of block 0 */
};

#endif
