/* The two formats of protected blocks, the names of their guards, and the guard of a block. */
#ifndef IMAGE_BLOCK_FORMAT_H
#define IMAGE_BLOCK_FORMAT_H

#include "dif/dif.h"
#include "platform/osal.h"

#include <cstdint>
#include <string_view>

namespace image {

struct BlockFormat {
    uint32_t type; /* DIF_DATA_* */
    DifTypeInfo geometry;
    uint64_t entryBytes; /* of the lists over blocks: whole blocks */
};

inline constexpr BlockFormat kFormat520 = {
    DIF_DATA_520, {.blockSize = 520, .dataSize = 512, .sectorShift = 0, .difOffset = 512}, uint64_t{64} * 520};
inline constexpr BlockFormat kFormat4160 = {
    DIF_DATA_4160, {.blockSize = 4160, .dataSize = 4096, .sectorShift = 3, .difOffset = 4096}, uint64_t{16} * 4160};

/* The tuple version with the guard "t10" or "crc32c". */
inline uint8_t versionOfCrcName(std::string_view name) {
    return name == "crc32c" ? DIF_VERSION_CRC32C : DIF_VERSION_T10;
}

inline const char *crcNameOfVersion(uint8_t version) {
    return version == DIF_VERSION_CRC32C ? "crc32c" : "t10";
}

/* The guard that a tuple of `version` has in its `crc` if `size` bytes at `data` are right. */
inline uint16_t guardOf(uint8_t version, const uint8_t *data, uint32_t size) {
    return version == DIF_VERSION_CRC32C ? static_cast<uint16_t>(osal_crc32c(data, size)) : crc16T10Dif(0, data, size);
}

} // namespace image

#endif
