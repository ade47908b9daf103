/*
 * A host to run libdif in. libdif_host implements everything that libdif.so expects of the process that loads it, so
 * that a program linked with -ldif_host is complete. These are its settings, which may be changed at any time from any
 * thread and have working defaults, and the ways in for an operator.
 */
#ifndef DIF_HOST_H
#define DIF_HOST_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The library stays in a process that has loaded it: dlclose does not unload it, and loading it again finds it as it was.
 * It may run threads of its own, one for each place that the log goes to and one for the control socket. They take no
 * signals of the process; a child of fork has none of them and starts those that it needs.
 */

/* ---- Log: one line a message through to standard error, and to a file if one is set ------------------------------ */

/*
 * Whoever logs does not wait: each of the two places has a queue of 4096 lines and a thread that writes them. When a queue
 * is full its oldest line is dropped, and a line "N log lines are missing here" stands in its place. exit, a failed
 * assertion that stops the process, and fork wait until the queues are written, a second for a place that takes nothing;
 * _exit and a signal that kills do not, so that lines of the last moment may be lost. Control characters in a message are
 * escaped.
 *
 * The log tells, once, of messages of the library before difModuleInit: until then checks pass whatever the data.
 */

/* Severities of log messages, 0 the most severe. */
enum {
    DIF_HOST_LOG_ASSERT = 0,
    DIF_HOST_LOG_ERROR = 3,
    DIF_HOST_LOG_WARNING = 4,
    DIF_HOST_LOG_NOTICE = 5,
    DIF_HOST_LOG_INFO = 6
};

/* Messages of severities 0 to `level` are written, others filtered. Default: DIF_HOST_LOG_NOTICE. */
void difHostSetLogLevel(uint32_t level);
uint32_t difHostGetLogLevel(void);

/* Whether the log is written to standard error. Default: true. */
void difHostSetLogStderr(bool on);

/*
 * Writes the log to `path` too, starting a new file before it outgrows `maxBytes` and keeping `maxFiles` old ones
 * (dif.1.log, dif.2.log, ... for dif.log). A null `path` stops that. Returns 0 or an errno value (EINVAL for no bytes or
 * over 200000 files, EAGAIN for want of a thread); on an error the log goes on as before. A file that later cannot be
 * written is given up with a line on standard error. A child of fork writes to the same file.
 */
int difHostSetLogFile(const char *path, size_t maxBytes, size_t maxFiles);

/* Waits until what was logged so far is written. False if a place takes nothing: it is waited for once, for a second. */
bool difHostFlushLog(void);

/* How many lines were dropped or could not be written, each counted for every place that lacks it. */
uint64_t difHostLogDropped(void);

/* ---- Assertions -------------------------------------------------------------------------------------------------- */

/*
 * What the default assertion service answers to a failed assertion of the library's (a null argument, an impossible type,
 * a check for a verify point that is not registered). DIF_HOST_ASSERT_STOP, the default: the log says what was asserted and where, and the process
 * stops: libdif raises SIGILL, of which a shell says "Illegal instruction". DIF_HOST_ASSERT_GO_ON: the assertion is logged
 * and the call goes on, refused or as far as it can.
 */
enum { DIF_HOST_ASSERT_GO_ON = 0, DIF_HOST_ASSERT_STOP = 1 };
void difHostSetAssertPolicy(int policy);

/* ---- Checksum engines -------------------------------------------------------------------------------------------- */

/*
 * Compares crc16_t10dif, where the processor can run it, and osal_crc32c, as this process has been given them, with known
 * answers. Returns 0; or EIO, and in `why`, cut to `size`, the engine and what it answered: some other library of the
 * process has a function of that name, and guards would be wrong.
 */
int difHostTestEngines(char *why, size_t size);

/* ---- Services and names ------------------------------------------------------------------------------------------ */

/*
 * Registers `method` as the routine that lookupIntfMethod finds under the two names, in the place of an earlier one; null
 * takes it out. The assertion service is ("INFRA_ADAPTER_OS", "Adapt_OS_sysBugHandle"); libdif keeps the address of the
 * first one it has found. Returns 0, EINVAL for a null name, or ENOMEM.
 */
int difHostRegisterService(const char *interfaceName, const char *methodName, void *method);

/* Copies the short name registered for `moduleId` ("DIF" for 250) into `name`, cut to `size`. False if there is none. */
bool difHostModuleName(uint32_t moduleId, char *name, size_t size);

/* ---- Operator commands: the words registered through DBG_RegCmd and DBG_RegCmdToCLI ------------------------------ */

/*
 * The two registries. Each also has words of its own: "help", "metrics", and "set", which changes a verify level, the
 * switch or the counters and logs who did it.
 */
enum { DIF_HOST_DIAGNOSE = 0, DIF_HOST_CLI = 1 };

/* Takes `size` bytes of output, which no NUL ends. Where a print routine is wanted, null is standard output. */
typedef void (*DifHostPrint)(void *context, const char *text, size_t size);

/*
 * Runs a command line on the calling thread. It is split as a shell splits words, with quotes and backslashes but without
 * expansion; its output, error lines included, goes to `print`. Returns 0, for an empty line too, or what the command did;
 * EINVAL for a bad registry, a null line or an open quote and, of most commands, for a line that they cannot run; ENOENT
 * for an unknown word; ENOMEM. A word that is taken out may still be running elsewhere.
 */
int difHostRunCommand(int registry, const char *line, DifHostPrint print, void *context);

/* Who gave the command line that the calling thread is running, for the log: "user 0, process 4711" for a client of the
 * control socket, else "this process". Good until the command returns. */
const char *difHostOperator(void);

/* Tells `each` every command word and its description, in the order of the words. Returns 0, EINVAL or ENOMEM. */
typedef void (*DifHostWord)(void *context, const char *name, const char *description);
int difHostForEachCommand(int registry, DifHostWord each, void *context);

/*
 * Prints the DIF switch, the system CRC version, every module's verify level, the counters of every registered verify
 * point and the log's dropped lines in the Prometheus text format 0.0.4, in one piece. Modules may register meanwhile; the
 * name of a point that is being registered may then be shown in part. Returns 0 or ENOMEM.
 */
int difHostRenderMetrics(DifHostPrint print, void *context);

/*
 * Adds metrics of the program's own to what is printed: `render` gives their text in the same format to `print`. It is
 * called on any thread, one call at a time, until the process ends, and registers nothing. Returns 0, EINVAL or ENOMEM.
 */
typedef void (*DifHostMetrics)(void *context, DifHostPrint print, void *printContext);
int difHostRegisterMetrics(DifHostMetrics render, void *context);

/* ---- Control socket: the commands of this process for others of its user ----------------------------------------- */

/*
 * Serves the commands on the Unix stream socket `path`, mode 0600 whatever the umask, to processes of this process's
 * effective user and of root, on a thread of its own. The name of a server that is gone is taken over. Clients cannot make
 * the process wait: they are dropped when they try its patience, and of more than eight at once the longest idle one goes.
 * A child of fork has no control socket, but may open one. Returns 0 or an errno value, and then leaves nothing behind:
 * EADDRINUSE if a server is alive there or this process has a control socket already, ENOTSOCK if `path` is something
 * else, which is left alone, EISDIR if it ends in a slash, ENAMETOOLONG (a temporary name of 9 bytes must fit in the
 * directory too), EINVAL for null, EAGAIN for want of a thread, EMFILE, ENFILE, ENOMEM, or what the directory says.
 */
int difHostOpenControlSocket(const char *path);

/* How long the control socket waits for a client's line, and for the client to read the answer; and difHostAttach in
 * this process for its answer. Default: 5000. */
void difHostSetControlPatience(uint32_t milliseconds);

/* Ends the service, after the command that is running, and removes the socket. Does nothing if there is none, in a
 * child of the process that opened it, or in a command that came through it. */
void difHostCloseControlSocket(void);

/*
 * Runs a command line in the process that serves the control socket `path` and prints its output, in one piece, also
 * that of an incomplete answer. Returns 0, and in `*status` what difHostRunCommand returned over there; or an errno value:
 * EINVAL for a null argument, a bad registry or a newline in the line, EMSGSIZE for more than 4 KiB, ETIMEDOUT if
 * the answer tries the patience, EPROTO if it is incomplete, else why the socket cannot be reached.
 */
int difHostAttach(const char *path, int registry, const char *line, DifHostPrint print, void *context, int *status);

#ifdef __cplusplus
}
#endif

#endif
