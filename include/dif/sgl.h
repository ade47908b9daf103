/*
 * The scatter-gather list forms. A list is a chain of nodes, each carrying entries that point at the caller's buffers;
 * the library reads it and works on the buffers in place. Every block lies inside one entry: an entry's length is a
 * multiple of the block size. `offsetByte` is where the range's first block starts, counted from the start of the first
 * entry through the chain; `sectorNum` is the length of the range in sectors. The chain may be longer than the range.
 *
 * Malformed lists are logged with a dump of the chain. Most operations then assert; if the host lets them go on, they
 * stay inside the entries whatever those say, and end where the chain does. The *WithErrorReturn and *WithStdT10 checks
 * return DIF_ERR_SGL instead. Two faults are not looked for: an entry of the range with a null `buf` is read through, and
 * a chain that leads back into itself is followed for as long as the range needs blocks, without end if its entries have
 * none to give.
 */
#ifndef DIF_SGL_H
#define DIF_SGL_H

#include "dif/api.h"
#include "dif/types.h"

#include <assert.h>
#include <stdbool.h>
#include <stddef.h>

DIF_BEGIN_DECLS

typedef struct SglEntry {
    uint8_t *buf;
    uint64_t owner0; /* the owner's; never read */
    uint32_t bytes;  /* length of the data at `buf` */
    uint32_t owner1; /* the owner's; never read */
} SglEntry;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* C++ has no flexible array member but by extension */

/* One node of a chain; its entries follow it in the same memory block. */
typedef struct Sgl {
    struct Sgl *nextSgl;    /* null in the last node */
    uint16_t totalEntryNum; /* first node: entries declared for the chain; only printed */
    uint16_t entrySum;      /* valid entries in this node, at least 1 */
    uint32_t flag;          /* the owner's; only printed */
    uint64_t serialNum;     /* the owner's; only printed */
    SglEntry entries[];
} Sgl;

#pragma GCC diagnostic pop

static_assert(sizeof(SglEntry) == 24, "list entry layout");
static_assert(offsetof(Sgl, entries) == 24, "list node layout");

/* As insertDif, replaceDif and injectDif, over a list. A bitmap covers the range as a whole. */
DIF_API void insertDifInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifOpParam *param);
DIF_API void replaceDifInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifOpParam *param);
DIF_API void injectDifInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifInjectParam *param);

/*
 * As checkDif, over a list. A `ctrlFlag` of DIF_CHECK_TRIM_ZERO alone trims the range and touches no output.
 * Returns DIF_OK or DIF_ERR_CHECK. If the chain ends before the range, it asserts, and answers for the blocks it reached.
 */
DIF_API uint32_t checkDifInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifCheckParam *param,
                               const char *funcName, int32_t line);

/* 0 if list and record are there and the type is one that checks accept; otherwise logs and DIF_FAIL. */
DIF_API uint32_t checkDifInSglInputCheck(const Sgl *sgl, const DifCheckParam *param, const char *funcName);

/*
 * As checkDifInSgl, for callers that must not be stopped by an assertion: unusable input, an unregistered verify point, a
 * range of no block and a malformed list return DIF_ERR_SGL. There is no special case for the trim.
 */
DIF_API uint32_t checkDifInSglWithErrorReturn(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum,
                                              DifCheckParam *param, const char *funcName, int32_t line);
DIF_API uint32_t checkDifInSglWithErrRetInputCheck(const Sgl *sgl, const DifCheckParam *param, const char *funcName);

/*
 * Checks plain T10 protection information: guard CRC16, application tag 0xFFFF exempt, reference tag the low 32 bits of
 * the LBA. Only DIF_CHECK_CRC, DIF_CHECK_LBA, `type`, `lba` and `checkResult` of `param` are used; levels, registry,
 * counters, index and bitmap are not. Returns DIF_OK (always with DIF off), DIF_ERR_SGL, or DIF_ERR_CHECK at the first
 * block that fails.
 */
DIF_API uint32_t checkDifInSglWithStdT10(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum,
                                         const DifCheckParam *param);

/* As noDifZeroDataCheck, over a list; false if the chain ends before the range. */
DIF_API bool noDifZeroDataCheckInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum,
                                     const DifCheckParam *param);

/* As noDifSetCheckResult, over a list; also trims the range if DIF_CHECK_TRIM_ZERO asks for it. */
DIF_API void noDifSetCheckResultInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum,
                                      const DifCheckParam *param);

/* As isDifEvictable, over a list of 520-byte blocks; false for a null list and if the chain ends before the range. */
DIF_API bool isDifEvictableInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum);

DIF_END_DECLS

#endif
