#include "bench/blocks.h"

#include "platform/crc16_t10dif.h"
#include "platform/osal.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <vector>

namespace bench {
namespace {

constexpr DifTypeInfo kSmallBlock{520, 512, 0, 512};
constexpr DifTypeInfo kLargeBlock{4160, 4096, 3, 4096};

constexpr size_t kPageSize = 4096;

/* Page-aligned, so that every run of the program sees the same alignment of blocks to cache lines. */
uint8_t *sharedBuffer() {
    static std::vector<uint8_t> storage(kMaxDataBytes / 512 * 520 + kPageSize);
    const auto address = reinterpret_cast<uintptr_t>(storage.data());
    return storage.data() + (kPageSize - address % kPageSize);
}

} /* namespace */

Blocks::Blocks(uint32_t blockType, uint8_t crcVersion, size_t totalData)
    : type(blockType), version(crcVersion), dataBytes(totalData),
      shape(blockType == DIF_DATA_520 ? kSmallBlock : kLargeBlock), buf(sharedBuffer()) {}

void Blocks::fill(Content content) const {
    std::mt19937_64 random(1);
    std::array<uint64_t, 64> sector{};
    for (size_t i = 0; i < count(); ++i) {
        for (uint32_t offset = 0; offset < shape.dataSize; offset += sizeof(sector)) {
            if (content == Content::kRandom) {
                std::generate(sector.begin(), sector.end(), std::ref(random));
            }
            std::memcpy(block(i) + offset, sector.data(), sizeof(sector));
        }
        std::memset(difArea(i), 0, shape.blockSize - shape.dataSize);
    }
}

template <typename Behind>
uint32_t Blocks::forEachCrc(Behind behind) const {
    uint32_t sum = 0;
    const uint8_t *end = block(count());
    if (version == DIF_VERSION_T10) {
        for (uint8_t *data = buf; data != end; data += shape.blockSize) {
            sum ^= crc16_t10dif(0, data, shape.dataSize);
            behind(data);
        }
    } else {
        for (uint8_t *data = buf; data != end; data += shape.blockSize) {
            sum ^= osal_crc32c(data, shape.dataSize);
            behind(data);
        }
    }
    return sum;
}

uint32_t Blocks::runEngine() const {
    return forEachCrc([](const uint8_t *) {});
}

uint32_t Blocks::runStream() const {
    return forEachCrc([this](uint8_t *data) {
        uint64_t tuple;
        std::memcpy(&tuple, data + shape.difOffset, sizeof tuple);
        benchmark::DoNotOptimize(tuple);
        std::memcpy(data + shape.difOffset, &tuple, sizeof tuple);
    });
}

bool Blocks::areProtected() const {
    for (size_t i = 0; i < count(); ++i) {
        const auto lba = static_cast<uint32_t>(kFirstLba + i);
        std::array<uint8_t, 64> expected{};
        if (version == DIF_VERSION_T10) {
            const uint16_t crc = crc16_t10dif(0, block(i), shape.dataSize);
            expected[0] = static_cast<uint8_t>(crc >> 8);
            expected[1] = static_cast<uint8_t>(crc);
        } else {
            const uint32_t crc = osal_crc32c(block(i), shape.dataSize);
            expected[0] = static_cast<uint8_t>(crc);
            expected[1] = static_cast<uint8_t>(crc >> 8);
        }
        expected[2] = version;
        expected[3] = DIF_APP_LBA_VALID;
        for (size_t byte = 0; byte < 4; ++byte) {
            expected[4 + byte] = static_cast<uint8_t>(lba >> (24 - 8 * byte));
        }
        if (std::memcmp(difArea(i), expected.data(), shape.blockSize - shape.dataSize) != 0) {
            return false;
        }
    }
    return true;
}

} /* namespace bench */
