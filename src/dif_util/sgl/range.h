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
    uint32_t bytesLeft() const { return entry().bytes - startIndex; }
};

/*
 * How many sectors, with their DIF, an entry's `bytes` hold: its 520-byte units. A 4160-byte block is eight of them, and a
 * length that is not whole blocks gives no more than fit into it.
 */
constexpr uint32_t sglBytesToSectors(uint32_t bytes) {
    return bytes / 520;
}
