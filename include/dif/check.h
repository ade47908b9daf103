/*
 * The check of contiguous buffers, and the answers for data without a field while DIF is off. Calls on distinct records
 * may run at once on any threads, and may share one failed-block bitmap.
 */
#ifndef DIF_CHECK_H
#define DIF_CHECK_H

#include "dif/api.h"
#include "dif/types.h"

#include <stdbool.h>

DIF_BEGIN_DECLS

/*
 * Checks `sectorNum` sectors of whole blocks at `buf` on behalf of the verify point (mid, subPid) of `param`; `funcName`
 * and `line` name the caller in the log.
 *
 * Each visited block is trimmed if asked, gives its answers to the report step, and goes through the integrity step:
 * version and LBA, then version and guard, each if asked for and if its level is on for the module. The guard is chosen
 * by the tuple's own version. The walk ends once neither step has anything left to learn. The first failed block of a
 * call is logged in detail; every failure kind found counts once per call at the verify point.
 *
 * Returns DIF_OK; DIF_ERR_CHECK if a block failed or `buf`, `param` or the type is unusable. With DIF off it answers
 * through noDifSetCheckResult and returns DIF_OK.
 */
DIF_API uint32_t checkDif(uint8_t *buf, uint32_t sectorNum, DifCheckParam *param, const char *funcName, int32_t line);

/* DIF_OK if `param` asks for no guard or LBA check, or names a registered verify point; otherwise logs and DIF_FAIL. */
DIF_API uint32_t checkDifParamCheck(const DifCheckParam *param, const char *funcName, int32_t line);

/*
 * Prepares a check call: the error index, the result word and the two completion flags. `checkResult` must not be null.
 * `resultSettled`: the report step has nothing left to learn. `integrityDone`: the integrity step has nothing left to do.
 */
DIF_API void initDifCheckResults(DifCheckParam *param, uint8_t *resultSettled, uint8_t *integrityDone);

/*
 * Checks a run of `blockNum` blocks whose first has index `startBlock` in the whole call; the engine of every check. A
 * caller sets DIF_CHECK_LOG_FIRST, calls initDifCheckResults once and this once per run, in order, while the flags are
 * not both 1, then clears DIF_CHECK_LOG_FIRST and restores `lba`, which advances by one per visited block.
 * Returns DIF_ERR_CHECK if a block of this run failed, else DIF_OK.
 */
DIF_API uint32_t checkDifInBlocks(uint8_t *data, uint32_t blockNum, const DifTypeInfo *typeInfo, DifCheckParam *param,
                                  uint32_t startBlock, uint8_t *resultSettled, uint8_t *integrityDone);

/* Sets DIF_RESULT_VERSION_ZERO if `ctrlFlag` asks for it and the tuple's version is 0x00 or 0xFF. */
DIF_API void checkDifVerZero(uint32_t ctrlFlag, const DifTuple *difPtr, uint32_t *checkResult);

/* True if all `size` bytes are zero. Ends at the first 64-bit word that is not: a page behind it is not touched. */
DIF_API bool noDifBlockAllZero(const uint8_t *data, uint32_t size);

/* True if the data of every block is zero; DIF areas are not looked at. */
DIF_API bool noDifZeroDataCheckInBlocks(const uint8_t *data, uint32_t blockNum, const DifTypeInfo *typeInfo);

/* The same over `sectorNum` sectors of the type in `param`; false for a null `buf` or an impossible type, after their
 * assertions, and true for no blocks. */
DIF_API bool noDifZeroDataCheck(const uint8_t *buf, uint32_t sectorNum, const DifCheckParam *param);

/* The answer of a check while DIF is off: result word DIF_RESULT_NOT_T10, with DIF_RESULT_ALL_ZERO if
 * DIF_CHECK_ZERO_DATA asks and the data is zero; error index 0xFFFFFFFF. */
DIF_API void noDifSetCheckResult(const uint8_t *buf, uint32_t sectorNum, const DifCheckParam *param);

/* 1 while the DIF switch is 0, 0 while it is 1. */
DIF_API uint32_t noDifUnreference(void);

/* Does nothing; kept for callers that link against it. */
DIF_API void noDifUnreference1(void);

DIF_END_DECLS

#endif
