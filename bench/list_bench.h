/* How close the list operations come to their contiguous forms, and what finding a place in a long chain costs. */
#pragma once

#include <cstdint>

namespace bench {

/* Verify point (mid, subPid) is the one that the checks are made for. */
void registerListBenchmarks(uint8_t mid, uint8_t subPid);

} /* namespace bench */
