/* Values of a check's outputs that have no name in the interface. */
#pragma once

#include <cstdint>

/* The error index while no block has failed. */
constexpr uint32_t kNoErrBlock = 0xFFFFFFFF;
