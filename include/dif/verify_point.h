/*
 * Who checks, how thoroughly, and what was found: module ids, verify levels, the registry of verify points, and four
 * counters per point. All of it is static and process-wide; nothing here allocates or locks.
 */
#ifndef DIF_VERIFY_POINT_H
#define DIF_VERIFY_POINT_H

#include "dif/api.h"

#include <assert.h>
#include <stdint.h>

DIF_BEGIN_DECLS

enum {
    DIF_MID_DEBUG = 0, /* the library's own */
    DIF_MID_FC = 1,
    DIF_MID_LUN = 2,
    DIF_MID_VOLUME = 3,
    DIF_MID_CACHE = 4,
    DIF_MID_POOL = 5,
    DIF_MID_BDM = 6,
    DIF_MID_RSS = 7,
    DIF_MID_LOGZONE = 8,
    DIF_MID_SASINI = 9,
    DIF_MID_BUTT = 16 /* ids 10 to 15 are reserved */
};

/* A check requested at a level is made when the module's level is at least that. A module at INVALID makes none. */
enum {
    DIF_VERIFY_LEVEL_INVALID = 0,
    DIF_VERIFY_LEVEL_CRITICAL = 1,
    DIF_VERIFY_LEVEL_MAJOR = 2,
    DIF_VERIFY_LEVEL_TRACE = 3,
    DIF_VERIFY_LEVEL_DEBUG = 4,
    DIF_VERIFY_LEVEL_BUTT = 5
};

/* Counter kinds, in storage order. */
enum {
    DIF_STAT_VERIFY_OK = 0, /* never counted by the library's checks */
    DIF_STAT_VERSION_ERROR = 1,
    DIF_STAT_LBA_ERROR = 2,
    DIF_STAT_CRC_ERROR = 3,
    DIF_STAT_BUTT = 4
};

#define DIF_VERIFY_POINT_MAX 64u
#define DIF_VERIFY_POINT_NAME_SIZE 40u
#define DIF_VERIFY_POINT_FREE 0xFFu

/* One slot of the registry; slot k describes the point with id k + 1. */
typedef struct VerifyPointSlot {
    uint8_t pointId;                            /* 1 to 64, or DIF_VERIFY_POINT_FREE */
    char pointName[DIF_VERIFY_POINT_NAME_SIZE]; /* NUL-terminated; not meaningful in a free slot */
} VerifyPointSlot;

/* The registry record of one module, byte-packed. */
typedef struct VerifyPointMsg {
    uint8_t verifyPointNum;
    VerifyPointSlot verifyPoints[DIF_VERIFY_POINT_MAX];
} VerifyPointMsg;

static_assert(sizeof(VerifyPointMsg) == 2625, "registry record layout");

/* A caller's description of one point; the name is copied. */
typedef struct VerifyPointDesc {
    uint8_t pointId; /* 1 to the number of points in the same call */
    const char *pointName;
} VerifyPointDesc;

/* The registry, one record per module id. */
DIF_API extern VerifyPointMsg g_verifyPointMsg[DIF_MID_BUTT];

/* Names by module id (short name, description) and by level, each ended by a null pointer. */
DIF_API extern const char *const g_difModuleName[DIF_MID_BUTT + 1];
DIF_API extern const char *const g_midDescription[DIF_MID_BUTT + 1];
DIF_API extern const char *const g_levelDescription[DIF_VERIFY_LEVEL_BUTT + 1];

/* Sets every module's level to DIF_VERIFY_LEVEL_MAJOR. */
DIF_API void initVerifyPoint(void);

/* Levels, of all modules or of one. Any value is stored; above 4 every valid request passes. For a `mid` of 16 or more,
 * the setter logs an error and stores nothing, and the getter answers 0. */
DIF_API void setSysDifVerifyLevel(uint8_t level);
DIF_API void setDifVerifyLevelByMid(uint32_t mid, uint8_t level);
DIF_API uint8_t getDifVerifyLevelByMid(uint32_t mid);

/*
 * Registers the `num` (0 to 64) points of module `mid` in one call, at its start and before its checks run; calls for
 * one module must not overlap. `funcName` and `line` name the caller in the log. Returns DIF_OK or DIF_FAIL. A bad mid,
 * a `num` above 64 or a null array leave the registry unchanged; an id of 0 or above `num`, or one that is taken, empties
 * the module's record.
 */
DIF_API uint32_t difRegistVerifyPoint(uint32_t mid, const VerifyPointDesc *verifyPointPtr, uint32_t num,
                                      const char *funcName, int32_t line);

/*
 * The module's record, to be read in place; null for a `mid` of 16 or more. The library writes its bytes one by one and
 * atomically, names through the host's strncpy_s: who reads while the module registers loads each byte atomically too,
 * and may see a point whose name is not there yet.
 */
DIF_API VerifyPointMsg *difVerifyMsgGetByMid(uint8_t mid);

/* All three set every counter to 0. An increment that overlaps the clearing may survive it or be lost. */
DIF_API void difVerifyStatisticInit(void);
DIF_API void difVerifyStatisticClean(void);
DIF_API void difStatisticInit(void);

/* Does nothing: the counters are static. */
DIF_API void difStatisticExit(void);

/* Adds 1 to a counter, atomically. `point` is the point's id minus 1. Indexes outside the table are ignored. */
DIF_API void difVerifyStatisticAdd(uint8_t mid, uint8_t point, int32_t kind);

/* Copies the four counters of a point into `counters`, in kind order; each is read on its own. Indexes outside the
 * table give zeros. */
DIF_API void difVerifyStatisticGet(uint8_t mid, uint32_t point, uint64_t counters[DIF_STAT_BUTT]);

DIF_END_DECLS

#endif
