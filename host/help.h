/* The help of a command word. */
#ifndef DIF_HOST_HELP_H
#define DIF_HOST_HELP_H

#include "platform/dbg_cmd.h"

/* What a DbgHelpFunc does with its two texts. */
inline int32_t printHelp(uint32_t detail, const char *brief, const char *detailed) {
    DBG_Print("%s", detail == 0 ? brief : detailed);
    return 0;
}

#endif
