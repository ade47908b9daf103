/*
 * Start and stop, and the process-wide settings. Every setting is zero before difModuleInit: DIF is off, and no CRC
 * engine or guard is chosen. Setters may be called from any thread while operations run; no lock is taken, and an
 * operation that overlaps a change of CRC version may write some blocks with the old version and some with the new.
 */
#ifndef DIF_RUNTIME_H
#define DIF_RUNTIME_H

#include "dif/api.h"

#include <stdint.h>

DIF_BEGIN_DECLS

/* The record given to setDifAllConfig. */
typedef struct DifConfig {
    uint8_t repairType; /* 0 to 2 */
} DifConfig;

/*
 * Starts the library; the host's first call. Chooses the CRC16 engine, sets the defaults (CRC version 0x13, repair type
 * 0, DIF on, every verify level 2), empties the verify-point registry, registers the library's own point and clears the
 * counters. Always returns 0.
 */
DIF_API uint32_t difModuleInit(void);

/* Stops the library. Settings, levels, registry and counters stay as they are. */
DIF_API void difModuleExit(void);

/* The DIF switch: 0 = off, 1 = on. With DIF off, insertion and replacement do nothing and the checks answer for data
 * without a field. Any other value is stored, reads as on and is logged as "ON". */
DIF_API void setDifOn(uint8_t on);
DIF_API uint8_t getDifOn(void);

/* Always 0, whatever the switch holds; ask getDifOn. */
DIF_API uint32_t isDifDisable(void);

/* The system CRC version that insertion and replacement write: DIF_VERSION_T10 or DIF_VERSION_CRC32C. Any other value
 * changes nothing and is not reported. */
DIF_API void setSysDifCrcVersion(uint8_t version);
DIF_API uint8_t getSysDifCrcVersion(void);

/*
 * The repair type, 0 to 2, which the library keeps for its callers. `funcName` and `line` name the caller in the log.
 * Returns DIF_OK, or DIF_FAIL for a value of 3 or more, which leaves the setting unchanged.
 */
DIF_API uint32_t setDifRepairType(uint8_t repairType, const char *funcName, int32_t line);
DIF_API uint8_t getDifRepairType(void);

/* Sets everything in `configPtr`. Returns DIF_OK; DIF_FAIL for a null pointer or a refused repair type. */
DIF_API uint32_t setDifAllConfig(const DifConfig *configPtr, const char *funcName, int32_t line);

/*
 * The host's assertion service ("INFRA_ADAPTER_OS", "Adapt_OS_sysBugHandle"): null until the first failed assertion has
 * looked it up. A host may store the routine's address here itself.
 */
DIF_API extern void *g_baseServiceIntfRely;

DIF_END_DECLS

#endif
