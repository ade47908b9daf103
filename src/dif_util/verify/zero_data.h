/* Whether a stretch of bytes is all zero. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

/* Looks at the first 64-bit word, which settles it for most data, then compares every byte with the one a word before. */
inline bool isAllZero(const uint8_t *data, uint32_t size) {
    uint64_t word;
    if (size < sizeof word) {
        return std::all_of(data, data + size, [](uint8_t byte) { return byte == 0; });
    }
    std::memcpy(&word, data, sizeof word);
    return word == 0 && std::memcmp(data, data + sizeof word, size - sizeof word) == 0;
}
