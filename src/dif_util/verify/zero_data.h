/* Whether a stretch of bytes is all zero. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

/* Looks at 64-bit words in order, eight at a time, and stops at the first eight that are not all zero. */
inline bool isAllZero(const uint8_t *data, uint32_t size) {
    const uint8_t *const end = data + size;
    uint64_t words[8];
    for (; end - data >= static_cast<std::ptrdiff_t>(sizeof words); data += sizeof words) {
        std::memcpy(words, data, sizeof words);
        uint64_t any = 0;
        for (const uint64_t word : words) {
            any |= word;
        }
        if (any != 0) {
            return false;
        }
    }
    return std::all_of(data, end, [](uint8_t byte) { return byte == 0; });
}
