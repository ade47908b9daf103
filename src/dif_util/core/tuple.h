/*
 * Every reading and writing of a tuple's eight bytes. Blocks lie where the caller put them, 520 bytes apart, so nothing
 * here takes the tuple to be aligned.
 */
#pragma once

#include "dif/types.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

inline uint8_t *tupleBytes(DifTuple *tuple) {
    return reinterpret_cast<uint8_t *>(tuple);
}
inline const uint8_t *tupleBytes(const DifTuple *tuple) {
    return reinterpret_cast<const uint8_t *>(tuple);
}

/* The tuple of the block at `block`. */
inline DifTuple *tupleOf(uint8_t *block, const DifTypeInfo &info) {
    return reinterpret_cast<DifTuple *>(block + info.difOffset);
}

inline const DifTuple *tupleOf(const uint8_t *block, const DifTypeInfo &info) {
    return reinterpret_cast<const DifTuple *>(block + info.difOffset);
}

/* The guard bytes as a little-endian number, byte 0 low: the form in which guard functions return a guard. */
inline uint16_t tupleGuard(const DifTuple *tuple) {
    uint16_t guard;
    std::memcpy(&guard, tupleBytes(tuple) + offsetof(DifTuple, crc), sizeof guard);
    return guard;
}

inline uint8_t tupleVersion(const DifTuple *tuple) {
    return tupleBytes(tuple)[offsetof(DifTuple, version)];
}

inline uint8_t tupleApp(const DifTuple *tuple) {
    return tupleBytes(tuple)[offsetof(DifTuple, app)];
}

inline uint32_t tupleLba(const DifTuple *tuple) {
    uint32_t stored;
    std::memcpy(&stored, tupleBytes(tuple) + offsetof(DifTuple, lba), sizeof stored);
    return __builtin_bswap32(stored);
}

inline void setTupleGuard(DifTuple *tuple, uint16_t guard) {
    std::memcpy(tupleBytes(tuple) + offsetof(DifTuple, crc), &guard, sizeof guard);
}

inline void setTupleVersion(DifTuple *tuple, uint8_t version) {
    tupleBytes(tuple)[offsetof(DifTuple, version)] = version;
}

inline void setTupleApp(DifTuple *tuple, uint8_t app) {
    tupleBytes(tuple)[offsetof(DifTuple, app)] = app;
}

inline void setTupleAppFlag(DifTuple *tuple, uint8_t flag) {
    tupleBytes(tuple)[offsetof(DifTuple, app)] |= flag;
}

inline void clearTupleAppFlag(DifTuple *tuple, uint8_t flag) {
    uint8_t &app = tupleBytes(tuple)[offsetof(DifTuple, app)];
    app = static_cast<uint8_t>(app & ~flag);
}

/* Writes the low 32 bits of `lba`; the valid flag is the caller's. */
inline void setTupleLba(DifTuple *tuple, uint64_t lba) {
    const uint32_t stored = __builtin_bswap32(static_cast<uint32_t>(lba));
    std::memcpy(tupleBytes(tuple) + offsetof(DifTuple, lba), &stored, sizeof stored);
}

/* Writes the low 32 bits of `lba` and marks them valid. */
inline void setTupleValidLba(DifTuple *tuple, uint64_t lba) {
    setTupleAppFlag(tuple, DIF_APP_LBA_VALID);
    setTupleLba(tuple, lba);
}

/* Writes all of a tuple, of `lba` the low 32 bits. */
inline void setTuple(DifTuple *tuple, uint16_t guard, uint8_t version, uint8_t app, uint64_t lba) {
    const uint32_t head = guard | uint32_t{version} << 16 | uint32_t{app} << 24;
    std::memcpy(tuple, &head, sizeof head);
    setTupleLba(tuple, lba);
}

inline bool hasBst(const DifTuple *tuple) {
    return (tupleApp(tuple) & DIF_APP_BST) != 0;
}

inline bool hasValidLba(const DifTuple *tuple) {
    return (tupleApp(tuple) & DIF_APP_LBA_VALID) != 0;
}

/* Version and flag bytes both 0xFF, the application tag by which T10 excepts a tuple from checking. */
inline bool isExempt(const DifTuple *tuple) {
    return tupleVersion(tuple) == 0xFF && tupleApp(tuple) == 0xFF;
}

constexpr bool isKnownVersion(uint8_t version) {
    return version == 0x00 || version == DIF_VERSION_T10 || version == DIF_VERSION_CRC32C ||
           version == DIF_VERSION_NO_CRC;
}
