/*
 * A host to run libdif in. libdif_host implements everything that libdif.so expects of the process that loads it, so
 * that a program linked with -ldif -ldif_host is complete (in this order: linkers that drop unused libraries do not see
 * the use of libdif_host before libdif). These are its settings; all of them may be changed at any time from any thread,
 * and have working defaults.
 */
#ifndef DIF_HOST_H
#define DIF_HOST_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Log: one line a message through to standard error, and to a file if one is set ------------------------------ */

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

/*
 * Writes the log to `path` too, starting a new file before it outgrows `maxBytes` and keeping `maxFiles` old ones
 * (dif.1.log, dif.2.log, ... for dif.log). A null `path` stops that. Returns 0 or an errno value (EINVAL for no bytes or
 * over 200000 files); on an error the log goes on as before. A file that later cannot be written is given up with a line
 * on standard error.
 */
int difHostSetLogFile(const char *path, size_t maxBytes, size_t maxFiles);

/* ---- Assertions -------------------------------------------------------------------------------------------------- */

/* What the default assertion service answers: go on, or stop the process. Default: DIF_HOST_ASSERT_STOP. */
enum { DIF_HOST_ASSERT_GO_ON = 0, DIF_HOST_ASSERT_STOP = 1 };
void difHostSetAssertPolicy(int policy);

/* ---- Services and names ------------------------------------------------------------------------------------------ */

/*
 * Registers `method` as the routine that lookupIntfMethod finds under the two names, in the place of an earlier one; null
 * takes it out. The assertion service is ("INFRA_ADAPTER_OS", "Adapt_OS_sysBugHandle"); libdif keeps the address of the
 * first one it has found. Returns 0, EINVAL for a null name, or ENOMEM.
 */
int difHostRegisterService(const char *interfaceName, const char *methodName, void *method);

/* Copies the short name registered for `moduleId` ("DIF" for 250) into `name`, cut to `size`. False if there is none. */
bool difHostModuleName(uint32_t moduleId, char *name, size_t size);

#ifdef __cplusplus
}
#endif

#endif
