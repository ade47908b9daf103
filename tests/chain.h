/* A chain whose nodes and buffers are heap blocks of exactly their size, so that a sanitizer sees every step too far. */
#pragma once

#include "blocks.h"
#include "dif/sgl.h"

using Lengths = std::vector<std::vector<uint32_t>>; /* of the entries of each node */

/* A random shape for `count` blocks. */
inline Lengths randomLengths(Random &random, uint32_t count, uint32_t blockSize) {
    Lengths lengths(1);
    for (uint32_t n; count > 0; count -= n) {
        if (!lengths.back().empty() && random.oneIn(3))
            lengths.emplace_back();
        n = random.from(1, std::min(count, random.of({1u, 3u, 16u})));
        lengths.back().push_back(n * blockSize);
    }
    return lengths;
}

class Chain {
public:
    /* Holds `bytes`, or zeros. Every buffer starts `misalignment` bytes behind an address that is a multiple of 16. */
    explicit Chain(const Lengths &lengths, const std::vector<uint8_t> &bytes = {}, uint32_t misalignment = 0)
        : misalignment_(misalignment) {
        for (const auto &node : lengths) {
            nodes_.emplace_back((sizeof(Sgl) + node.size() * sizeof(SglEntry)) / sizeof(uint64_t), 0xDEADBEEFDEADBEEF);
            Sgl *const sgl = at(nodes_.size() - 1);
            sgl->nextSgl = nullptr;
            sgl->entrySum = static_cast<uint16_t>(node.size());
            if (nodes_.size() > 1)
                at(nodes_.size() - 2)->nextSgl = sgl;
            for (size_t i = 0; i < node.size(); ++i) {
                buffers_.emplace_back(misalignment + node[i]);
                sgl->entries[i].buf = buffers_.back().data() + misalignment;
                sgl->entries[i].bytes = node[i];
            }
        }
        fill(bytes);
    }

    Sgl *at(size_t node) { return reinterpret_cast<Sgl *>(nodes_[node].data()); }
    uint8_t *buffer(size_t i) { return buffers_[i].data() + misalignment_; }

    /* The data of all entries, in order. */
    void fill(const std::vector<uint8_t> &bytes) {
        auto from = bytes.begin();
        for (auto &buffer : buffers_)
            for (auto to = buffer.begin() + misalignment_; to != buffer.end() && from != bytes.end();)
                *to++ = *from++;
    }
    std::vector<uint8_t> bytes() const {
        std::vector<uint8_t> result;
        for (const auto &buffer : buffers_)
            result.insert(result.end(), buffer.begin() + misalignment_, buffer.end());
        return result;
    }

private:
    uint32_t misalignment_;
    std::vector<std::vector<uint64_t>> nodes_;
    std::vector<std::vector<uint8_t>> buffers_;
};
