/* The host's service registry, and the assertion service that the library looks up in it. */
#ifndef DIF_PLATFORM_INTF_LOOKUP_H
#define DIF_PLATFORM_INTF_LOOKUP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The address of a registered routine, or null: without the one below, no failed assertion stops the process. The last two
 * arguments are always 0. */
void *lookupIntfMethod(const char *interfaceName, const char *methodName, uint64_t reserved0, uint64_t reserved1);

/*
 * Routine "Adapt_OS_sysBugHandle" of interface "INFRA_ADAPTER_OS": told of a failed assertion, answers nonzero if the
 * process must stop. `expression` may be null; the reserved arguments are always 0.
 */
typedef uint8_t (*AssertionService)(const char *expression, uint64_t reserved0, uint64_t reserved1, uint32_t moduleId,
                                    const char *funcName, int32_t line);

#ifdef __cplusplus
}
#endif

#endif
