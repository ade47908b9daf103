/* The host's debug-command framework: two registries of command words, one of the diagnose shell and one of the CLI. */
#ifndef DIF_PLATFORM_DBG_CMD_H
#define DIF_PLATFORM_DBG_CMD_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DBG_CMD_NAME_SIZE 20
#define DBG_CMD_DESCRIPTION_SIZE 64

/* Runs a command line split into words; argv[0] is the command word. Returns 0, or what DBG_ShowUsageAndErrMsg did. */
typedef int32_t (*DbgCmdFunc)(int32_t argc, char **argv);

/* Prints the help of the command word `name`: brief for a `detail` of 0, else detailed. */
typedef int32_t (*DbgHelpFunc)(const char *name, uint32_t detail);

/* A command word as it is registered; the framework keeps a copy. */
typedef struct DbgCmdReg {
    char name[DBG_CMD_NAME_SIZE];               /* NUL-padded */
    char description[DBG_CMD_DESCRIPTION_SIZE]; /* NUL-padded */
    DbgCmdFunc doCmd;
    DbgHelpFunc doHelp;
} DbgCmdReg;

static_assert(sizeof(DbgCmdReg) == 104, "command record layout");
static_assert(offsetof(DbgCmdReg, description) == 20, "command record layout");
static_assert(offsetof(DbgCmdReg, doCmd) == 88, "command record layout");
static_assert(offsetof(DbgCmdReg, doHelp) == 96, "command record layout");

/* Register a word with the diagnose shell or the CLI, and take it out again. Return 0 on success. */
int32_t DBG_RegCmd(const DbgCmdReg *cmd);
int32_t DBG_RegCmdToCLI(const DbgCmdReg *cmd);
int32_t DBG_UnRegCmd(const char *name);
int32_t DBG_UnRegCmdToCLI(const char *name);

/* Called by a command that cannot run as typed: shows `message`, if there is one, and the usage. Returns the result for
 * the command to return. */
int32_t DBG_ShowUsageAndErrMsg(const char *message);

/* Prints to whoever typed the command. */
void DBG_Print(const char *format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif
