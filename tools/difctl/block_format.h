/* The two formats of protected blocks, and the names under which the command line knows formats and guards. */
#ifndef DIFCTL_BLOCK_FORMAT_H
#define DIFCTL_BLOCK_FORMAT_H

#include "dif/dif.h"

#include <cstdint>
#include <string_view>

namespace difctl {

struct BlockFormat {
    uint32_t type; /* DIF_DATA_* */
    DifTypeInfo geometry;
};

inline constexpr BlockFormat kFormat520 = {DIF_DATA_520,
                                           {.blockSize = 520, .dataSize = 512, .sectorShift = 0, .difOffset = 512}};
inline constexpr BlockFormat kFormat4160 = {DIF_DATA_4160,
                                            {.blockSize = 4160, .dataSize = 4096, .sectorShift = 3, .difOffset = 4096}};

/* For the block sizes 520 and 4160. */
inline const BlockFormat &formatOfBlockSize(uint32_t blockSize) {
    return blockSize == kFormat4160.geometry.blockSize ? kFormat4160 : kFormat520;
}

/* The tuple version with the guard "t10" or "crc32c". */
inline uint8_t versionOfCrcName(std::string_view name) {
    return name == "crc32c" ? DIF_VERSION_CRC32C : DIF_VERSION_T10;
}

} // namespace difctl

#endif
