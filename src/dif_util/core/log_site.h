/* The place in the source that a message names. */
#pragma once

#include <cstdint>

struct LogSite {
    const char *file; /* the source module, not the path */
    const char *func;
    int32_t line;
};
