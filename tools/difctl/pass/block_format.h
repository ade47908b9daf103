/* The two formats of protected blocks, and the names under which the command line knows formats and guards. */
#ifndef DIFCTL_BLOCK_FORMAT_H
#define DIFCTL_BLOCK_FORMAT_H

#include "io/error.h"

#include "dif/dif.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace difctl {

struct BlockFormat {
    uint32_t type; /* DIF_DATA_* */
    DifTypeInfo geometry;
    uint64_t entryBytes; /* of the lists over blocks: whole blocks */
};

inline constexpr BlockFormat kFormat520 = {
    DIF_DATA_520, {.blockSize = 520, .dataSize = 512, .sectorShift = 0, .difOffset = 512}, uint64_t{64} * 520};
inline constexpr BlockFormat kFormat4160 = {
    DIF_DATA_4160, {.blockSize = 4160, .dataSize = 4096, .sectorShift = 3, .difOffset = 4096}, uint64_t{16} * 4160};

/* For the block sizes 520 and 4160, with list entries of another size if one is given. */
inline BlockFormat formatOf(uint32_t blockSize, std::optional<uint64_t> entryBytes = {}) {
    BlockFormat format = blockSize == kFormat4160.geometry.blockSize ? kFormat4160 : kFormat520;
    format.entryBytes = entryBytes.value_or(format.entryBytes);
    if (format.entryBytes == 0 || format.entryBytes % blockSize != 0) {
        throw Error("--entry " + std::to_string(format.entryBytes) + ": a list entry holds whole blocks of " +
                    std::to_string(blockSize) + " bytes, at least one");
    }
    return format;
}

/* The most bytes that a list entry can say it has. */
inline constexpr uint64_t kMaxEntryBytes = UINT32_MAX;

/* The tuple version with the guard "t10" or "crc32c". */
inline uint8_t versionOfCrcName(std::string_view name) {
    return name == "crc32c" ? DIF_VERSION_CRC32C : DIF_VERSION_T10;
}

inline const char *crcNameOfVersion(uint8_t version) {
    return version == DIF_VERSION_CRC32C ? "crc32c" : "t10";
}

} // namespace difctl

#endif
