/* The blocks that a benchmark works on, and what the bare CRC engines make of them. */
#pragma once

#include "dif/dif.h"

#include <cstddef>
#include <cstdint>

namespace bench {

inline constexpr size_t kMaxDataBytes = size_t{64} << 20;
inline constexpr uint64_t kFirstLba = 0x1'2345'6789;

enum class Content { kRandom, kZero };

/* Whole blocks of one type at the start of the one buffer that all benchmarks use in turn. A view: copies share it. */
struct Blocks {
    uint32_t type;     /* DIF_DATA_520 or DIF_DATA_4160 */
    uint8_t version;   /* CRC version to protect them with */
    size_t dataBytes;  /* sum of the blocks' data */
    DifTypeInfo shape; /* of `type` */
    uint8_t *buf;

    Blocks(uint32_t blockType, uint8_t crcVersion, size_t totalData);

    size_t count() const { return dataBytes / shape.dataSize; }
    uint32_t sectors() const { return static_cast<uint32_t>(dataBytes / 512); }
    uint8_t *block(size_t index) const { return buf + index * shape.blockSize; }
    uint8_t *difArea(size_t index) const { return block(index) + shape.difOffset; }

    /* Fills all data and clears all DIF areas. */
    void fill(Content content) const;

    /* The engine of `version`, called per block over the data and nothing more; answers the XOR of its results. */
    uint32_t runEngine() const;

    /* The same, and stores a DIF area's first eight bytes, as they are, behind the data of each block. */
    uint32_t runStream() const;

    /* Whether every DIF area is what insertion of guard and LBA from kFirstLba on must have written. */
    bool areProtected() const;

private:
    template <typename Behind>
    uint32_t forEachCrc(Behind behind) const;
};

} /* namespace bench */
