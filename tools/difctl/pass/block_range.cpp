#include "pass/block_range.h"

#include "io/error.h"
#include "io/number.h"

#include <algorithm>

namespace difctl {
namespace {

Error notBlocks(const std::string &text, const std::string &item) {
    return Error("--bitmap '" + text + "': '" + item + "' is neither a block nor a range FIRST-LAST");
}

} // namespace

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

BlockSet::BlockSet(const std::string &text) {
    for (size_t at = 0; at <= text.size();) {
        const std::string item = text.substr(at, text.find(',', at) - at);
        const size_t dash = item.find('-');
        const auto first = parseNumber(item.substr(0, dash));
        const auto last = dash == std::string::npos ? first : parseNumber(item.substr(dash + 1));
        if (!first || !last || *last < *first || *last == UINT64_MAX) {
            throw notBlocks(text, item);
        }
        ranges_.push_back({*first, *last + 1});
        at += item.size() + 1;
    }
}

uint64_t BlockSet::last() const {
    return std::max_element(ranges_.begin(), ranges_.end(),
                            [](const BlockRange &a, const BlockRange &b) { return a.end < b.end; })
               ->end -
           1;
}

std::vector<uint32_t> BlockSet::bitmapOf(uint64_t firstBlock, uint32_t blockNum) const {
    std::vector<uint32_t> bitmap;
    for (const BlockRange &range : ranges_) {
        const uint64_t end = std::min(range.end, firstBlock + blockNum);
        for (uint64_t block = std::max(range.first, firstBlock); block < end; ++block) {
            bitmap.resize(blockNum / 32 + 1);
            bitmap[(block - firstBlock) / 32] |= 1U << (block - firstBlock) % 32;
        }
    }
    return bitmap;
}

} // namespace difctl
