/* Running a command line on someone's behalf. */
#ifndef DIF_HOST_SESSION_H
#define DIF_HOST_SESSION_H

#include "dif_host.h"

/* difHostRunCommand for `who`, as difHostOperator tells the command. */
int runCommandFor(const char *who, int registry, const char *line, DifHostPrint print, void *context);

#endif
