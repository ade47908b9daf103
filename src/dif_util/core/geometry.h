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
