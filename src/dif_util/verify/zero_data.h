/* Whether a stretch of bytes is all zero. */
#pragma once

#include "dif_util/core/section.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

DIF_CHECK_HELPER bool isZeroWord(const uint8_t *data) {
    uint64_t word;
    std::memcpy(&word, data, sizeof word);
    return word == 0;
}

/* What is looked at in one go. */
inline constexpr size_t kChunkBytes = 128;

DIF_CHECK_HELPER bool isZeroChunk(const uint8_t *data) {
    using Vector [[gnu::vector_size(16)]] = uint64_t;
    const auto part = [data](size_t index) {
        Vector vector;
        std::memcpy(&vector, data + index * sizeof vector, sizeof vector);
        return vector;
    };
    const Vector all = ((part(0) | part(1)) | (part(2) | part(3))) | ((part(4) | part(5)) | (part(6) | part(7)));
    return (all[0] | all[1]) == 0;
}

DIF_CHECK_HELPER bool isChunkInOnePage(const uint8_t *data) {
    constexpr size_t kPageBytes = 4096; /* the smallest that there is */
    return reinterpret_cast<uintptr_t>(data) % kPageBytes <= kPageBytes - kChunkBytes;
}

/*
 * Stops at the first 64-bit word that is not zero and touches no page that the words up to it do not lie in: goes by
 * chunks inside a page, by words where a chunk would reach into the next one.
 */
inline bool isAllZero(const uint8_t *data, uint32_t size) {
    const uint8_t *const end = data + size;
    const auto hasLeft = [&](size_t bytes) { return static_cast<size_t>(end - data) >= bytes; };
    while (hasLeft(sizeof(uint64_t))) {
        if (hasLeft(kChunkBytes) && isChunkInOnePage(data)) [[likely]] {
            if (!isZeroChunk(data)) {
                return false;
            }
            data += kChunkBytes;
        } else {
            if (!isZeroWord(data)) {
                return false;
            }
            data += sizeof(uint64_t);
        }
    }
    for (; data != end; ++data) {
        if (*data != 0) {
            return false;
        }
    }
    return true;
}
