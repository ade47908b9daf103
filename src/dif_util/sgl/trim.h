/* The zero-data trim over a range of a list. */
#pragma once

#include "dif/sgl.h"

/* Trims every block of the range; reads nothing of `param` but its type. */
void trimDataInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, const DifCheckParam *param);
