/* Which blocks of an image a command is about. */
#ifndef DIFCTL_BLOCK_RANGE_H
#define DIFCTL_BLOCK_RANGE_H

#include <cstdint>
#include <string>
#include <vector>

namespace difctl {

/* The blocks from `first` to before `end`, counted from 0 in the image. */
struct BlockRange {
    uint64_t first = 0;
    uint64_t end = UINT64_MAX;
};

/* What --at says: "LBA" or "LBA,COUNT". */
struct At {
    uint64_t lba = 0;
    uint64_t count = 1;
};

/* Throws Error for text that says something else. */
At parseAt(const std::string &text);

/* The blocks `at` of image `name`, whose `blockNum` blocks start at LBA `imageLba`. Throws Error if it has them not all. */
BlockRange blocksAt(const At &at, uint64_t imageLba, uint64_t blockNum, const std::string &name);

/* Those blocks of `ranges` that are among the `blockNum` from `firstBlock` on, as a bitmap: empty if there are none. */
std::vector<uint32_t> bitmapOf(const std::vector<BlockRange> &ranges, uint64_t firstBlock, uint32_t blockNum);

} // namespace difctl

#endif
