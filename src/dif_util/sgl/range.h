/* A range of a chain, and a place in it. */
#pragma once

#include "dif/sgl.h"

#include <cstdint>

/* The range that an operation was asked for, as its messages show it. */
struct SglRange {
    const Sgl *root;
    uint32_t offsetByte;
    uint32_t sectorNum;
    uint32_t blockSize;
};

/* A byte inside an entry. With a null node, no place: positioning could not deliver one. */
struct SglPosition {
    const Sgl *node = nullptr;
    uint32_t entryIndex = 0;
    uint32_t startIndex = 0;

    const SglEntry &entry() const { return node->entries[entryIndex]; }
};

/*
 * How many sectors, with their DIF, an entry's `bytes` hold: the number of 520-byte units for every length that is whole
 * blocks of either size (a 4160-byte block is eight of them), and for any other length no more than fit into it.
 */
constexpr uint32_t sglBytesToSectors(uint32_t bytes) {
    const uint32_t quotient = bytes / 512;
    return bytes % 512 < 8 * quotient ? bytes / 520 : quotient;
}
