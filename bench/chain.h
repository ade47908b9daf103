/* A scatter-gather list over the blocks that a benchmark works on. */
#pragma once

#include "bench/blocks.h"

#include <vector>

namespace bench {

/*
 * Every entry holds the same number of blocks, save perhaps the last. Entries point at consecutive pieces of the blocks' own memory,
 * so that a list and the contiguous form touch the same bytes in the same order.
 */
class Chain {
public:
    Chain(const Blocks &blocks, size_t blocksPerEntry);

    const Sgl *root() const { return reinterpret_cast<const Sgl *>(nodes_.front().data()); }
    size_t entryCount() const { return entryCount_; }

private:
    std::vector<std::vector<uint64_t>> nodes_; /* each a header and its entries */
    size_t entryCount_;
};

} /* namespace bench */
