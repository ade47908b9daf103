/* The format that a command line asks for. */
#ifndef DIFCTL_BLOCK_FORMAT_H
#define DIFCTL_BLOCK_FORMAT_H

#include "image/block_format.h"
#include "io/error.h"

#include <cstdint>
#include <optional>
#include <string>

namespace difctl {

using namespace image;

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

} // namespace difctl

#endif
