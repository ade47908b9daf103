/* The geometry of the data types. */
#pragma once

#include "dif/types.h"

/* Indexed by data type. */
inline constexpr DifTypeInfo kTypeInfo[DIF_DATA_BUTT] = {
    {520, 512, 0, 512},    /* DIF_DATA_520 */
    {520, 512, 0, 512},    /* DIF_DATA_520_ZERO */
    {4160, 4096, 3, 4096}, /* DIF_DATA_4160 */
    {4160, 4096, 3, 4096}, /* DIF_DATA_4160_ZERO */
};

constexpr bool isZeroDataType(uint32_t type) {
    return type == DIF_DATA_520_ZERO || type == DIF_DATA_4160_ZERO;
}

/* The types that the checks accept: DIF_DATA_520 and DIF_DATA_4160. */
constexpr bool isCheckType(uint32_t type) {
    return (type & ~uint32_t{DIF_DATA_4160}) == 0;
}

constexpr bool isSameGeometry(const DifTypeInfo &a, const DifTypeInfo &b) {
    return a.blockSize == b.blockSize && a.dataSize == b.dataSize && a.sectorShift == b.sectorShift &&
           a.difOffset == b.difOffset;
}

/*
 * Runs `loop(info)`, which is inlined once for each geometry that a data type has, with sizes that are constants then, and
 * once for any other.
 */
template <typename Loop>
[[gnu::always_inline]] inline auto runForGeometry(const DifTypeInfo &info, Loop loop) {
    if (isSameGeometry(info, kTypeInfo[DIF_DATA_520])) {
        return loop(kTypeInfo[DIF_DATA_520]);
    }
    if (isSameGeometry(info, kTypeInfo[DIF_DATA_4160])) {
        return loop(kTypeInfo[DIF_DATA_4160]);
    }
    return loop(info);
}

/* Makes a lambda part of the function that calls it. */
#define DIF_INLINE __attribute__((always_inline))
