#include "pass/block_range.h"

#include "io/error.h"
#include "io/number.h"

#include <algorithm>

namespace difctl {

At parseAt(const std::string &text) {
    const size_t comma = text.find(',');
    const auto lba = parseNumber(text.substr(0, comma));
    const auto count = comma == std::string::npos ? std::optional<uint64_t>(1) : parseNumber(text.substr(comma + 1));
    if (!lba || !count || *count == 0) {
        throw Error("--at '" + text + "': is not an LBA or LBA,COUNT with a COUNT from 1 on");
    }
    return {*lba, *count};
}

BlockRange blocksAt(const At &at, uint64_t imageLba, uint64_t blockNum, const std::string &name) {
    const uint64_t first = at.lba - imageLba;
    if (at.lba < imageLba || first >= blockNum || at.count > blockNum - first) {
        throw Error("--at " + std::to_string(at.lba) + "," + std::to_string(at.count) + ": is not all in " + name +
                    ", whose " + std::to_string(blockNum) + " blocks start at LBA " + std::to_string(imageLba));
    }
    return {first, first + at.count};
}

std::vector<uint32_t> bitmapOf(const std::vector<BlockRange> &ranges, uint64_t firstBlock, uint32_t blockNum) {
    std::vector<uint32_t> bitmap;
    for (const BlockRange &range : ranges) {
        const uint64_t end = std::min(range.end, firstBlock + blockNum);
        for (uint64_t block = std::max(range.first, firstBlock); block < end; ++block) {
            bitmap.resize(blockNum / 32 + 1);
            bitmap[(block - firstBlock) / 32] |= 1U << (block - firstBlock) % 32;
        }
    }
    return bitmap;
}

} // namespace difctl
