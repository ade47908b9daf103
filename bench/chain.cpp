#include "bench/chain.h"

#include <algorithm>

namespace bench {
namespace {

constexpr size_t kEntriesPerNode = 64; /* more than one node from small requests on, and nodes of over a kilobyte */

} /* namespace */

Chain::Chain(const Blocks &blocks, size_t blocksPerEntry)
    : entryCount_((blocks.count() + blocksPerEntry - 1) / blocksPerEntry) {
    size_t block = 0;
    Sgl *last = nullptr;
    for (size_t entry = 0; entry < entryCount_; entry += kEntriesPerNode) {
        const size_t entries = std::min(kEntriesPerNode, entryCount_ - entry);
        nodes_.emplace_back((sizeof(Sgl) + entries * sizeof(SglEntry)) / sizeof(uint64_t));
        Sgl *const node = reinterpret_cast<Sgl *>(nodes_.back().data());
        node->totalEntryNum = static_cast<uint16_t>(entryCount_);
        node->entrySum = static_cast<uint16_t>(entries);
        for (size_t i = 0; i < entries; ++i) {
            const size_t held = std::min(blocksPerEntry, blocks.count() - block);
            node->entries[i].buf = blocks.block(block);
            node->entries[i].bytes = static_cast<uint32_t>(held * blocks.shape.blockSize);
            block += held;
        }
        if (last != nullptr) {
            last->nextSgl = node;
        }
        last = node;
    }
}

} /* namespace bench */
