/* The word "set", by which an operator changes what the library's own words only show. */
#ifndef DIF_HOST_SET_COMMAND_H
#define DIF_HOST_SET_COMMAND_H

#include <cstdint>

int32_t runSet(int32_t argc, char **argv);
int32_t printHelpOfSet(const char *name, uint32_t detail);

#endif
