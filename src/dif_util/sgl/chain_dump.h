/* The dump of a chain into the log, written when an operation finds it malformed. */
#pragma once

#include "dif_util/sgl/range.h"

/* Writes the nodes and entries of the chain from its start, as far as the range's sectors reach; rate-limited as a
 * whole. */
void difPrintSglDetail(const SglRange &range);
