/* Which blocks may reach a client. The checks of a storage stack let more through than a disk may. */
#ifndef DIF_NBDKIT_RULE_H
#define DIF_NBDKIT_RULE_H

#include "image/block_format.h"

#include <cstring>
#include <endian.h>

namespace nbd {

enum class BlockState : uint8_t {
    kGood,
    kUnwritten, /* all zeros, field included */
    kNoField,   /* the version names no guard, or the LBA is not marked valid */
    kWrongLba,
    kWrongGuard
};

inline DifTuple tupleOf(const uint8_t *block, const DifTypeInfo &geometry) {
    DifTuple tuple;
    std::memcpy(&tuple, block + geometry.difOffset, sizeof tuple);
    return tuple;
}

inline BlockState stateOf(const uint8_t *block, const DifTypeInfo &geometry, uint64_t lba) {
    const DifTuple tuple = tupleOf(block, geometry);
    if ((tuple.version != DIF_VERSION_T10 && tuple.version != DIF_VERSION_CRC32C) ||
        (tuple.app & DIF_APP_LBA_VALID) == 0) {
        return noDifBlockAllZero(block, geometry.blockSize) ? BlockState::kUnwritten : BlockState::kNoField;
    }
    if (be32toh(tuple.lba) != static_cast<uint32_t>(lba)) {
        return BlockState::kWrongLba;
    }
    return tuple.crc == image::guardOf(tuple.version, block, geometry.dataSize) ? BlockState::kGood
                                                                                : BlockState::kWrongGuard;
}

} // namespace nbd

#endif
