/* A chain whose nodes and buffers are heap blocks of exactly their size, so that a sanitizer sees every step too far. */
#ifndef DIF_TESTS_CHAIN_H
#define DIF_TESTS_CHAIN_H

#include "dif/sgl.h"

#include <algorithm>
#include <vector>

using Lengths = std::vector<std::vector<uint32_t>>; /* of the entries of each node */

class Chain {
public:
    /* Every buffer starts `misalignment` bytes behind an address that is a multiple of 16. */
    explicit Chain(const Lengths &lengths, uint32_t misalignment = 0) : misalignment_(misalignment) {
        constexpr uint64_t kOwners = 0xDEADBEEFDEADBEEF;
        for (const auto &node : lengths) {
            nodes_.emplace_back((sizeof(Sgl) + node.size() * sizeof(SglEntry)) / sizeof(uint64_t), kOwners);
            Sgl *const sgl = at(nodes_.size() - 1);
            sgl->nextSgl = nullptr;
            sgl->entrySum = static_cast<uint16_t>(node.size());
            if (nodes_.size() > 1)
                at(nodes_.size() - 2)->nextSgl = sgl;
            for (size_t i = 0; i < node.size(); ++i) {
                std::vector<uint8_t> &buffer = buffers_.emplace_back(misalignment + node[i]);
                sgl->entries[i].buf = buffer.data() + misalignment;
                sgl->entries[i].bytes = node[i];
            }
        }
    }

    Sgl *at(size_t node) { return reinterpret_cast<Sgl *>(nodes_[node].data()); }

    /* The data of all entries, in order. */
    void fill(const std::vector<uint8_t> &bytes) {
        auto from = bytes.begin();
        for (std::vector<uint8_t> &buffer : buffers_) {
            const auto size = static_cast<ptrdiff_t>(buffer.size() - misalignment_);
            std::copy(from, from + size, buffer.begin() + misalignment_);
            from += size;
        }
    }
    std::vector<uint8_t> bytes() const {
        std::vector<uint8_t> result;
        for (const std::vector<uint8_t> &buffer : buffers_)
            result.insert(result.end(), buffer.begin() + misalignment_, buffer.end());
        return result;
    }

private:
    uint32_t misalignment_;
    std::vector<std::vector<uint64_t>> nodes_;
    std::vector<std::vector<uint8_t>> buffers_;
};

#endif
