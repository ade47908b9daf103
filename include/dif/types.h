/*
 * The records, constants and result codes that every operation shares.
 *
 * Units. A sector is 512 data bytes; operations take their length as a count of sectors (`sectorNum`). A block is what
 * carries one protection tuple: 520 bytes (512 data + 8 DIF) or 4160 bytes (4096 data + 64 DIF, the tuple first). A
 * 4160-byte block counts as 8 sectors; trailing sectors that do not fill a block are not processed. LBAs count blocks
 * and are 64 bits wide; a tuple stores the low 32.
 *
 * All data, lists and records belong to the caller, who keeps them alive for the call. The library works on them in
 * place. Except for the tuple's fields as stated, integers are in the machine's (little-endian) order.
 *
 * The headers are plain C of 2011, whose static_assert holds the layouts, and C++.
 */
#ifndef DIF_TYPES_H
#define DIF_TYPES_H

#include <assert.h>
#include <stdint.h>

/* Module id under which the library logs. */
#define DIF_MODULE_ID 250u

/* ---- Result codes ------------------------------------------------------------------------------------------------ */

#define DIF_OK 0u
#define DIF_FAIL 0xFFFFFFFFu      /* configuration, registration or input test refused its input */
#define DIF_ERR_CHECK 0x80007D00u /* a check found a fault, or was given unusable input */
#define DIF_ERR_SGL 0x80007D02u   /* a scatter-gather list does not cover the range in whole blocks */

/* ---- Data types and geometry ------------------------------------------------------------------------------------- */

/* Values of the `type` field of every parameter record. The _ZERO types state that the data of every block is all zero
 * bytes: insertion and replacement then write the known guard of zero data without reading it. */
enum {
    DIF_DATA_520 = 0,
    DIF_DATA_520_ZERO = 1,
    DIF_DATA_4160 = 2,
    DIF_DATA_4160_ZERO = 3,
    DIF_DATA_BUTT = 4 /* end marker: no valid type is equal to or above it */
};

/* Geometry of one data type. */
typedef struct DifTypeInfo {
    uint32_t blockSize;   /* bytes from one block's start to the next, DIF included */
    uint32_t dataSize;    /* data bytes at the start of the block; the guard covers exactly these */
    uint32_t sectorShift; /* block count = sectorNum >> sectorShift */
    uint32_t difOffset;   /* offset of the DIF area, and of the tuple in it, from the block's start */
} DifTypeInfo;

static_assert(sizeof(DifTypeInfo) == 16, "geometry row layout");

/* ---- The protection tuple ---------------------------------------------------------------------------------------- */

/*
 * The eight bytes behind the data of a block. The shape is that of the T10 protection information tuple (guard,
 * application tag, reference tag) with the application tag read as a version byte and a flag byte.
 */
typedef struct DifTuple {
    uint16_t crc;    /* guard: CRC16 T10-DIF, big-endian; or the low 16 bits of CRC32C, little-endian */
    uint8_t version; /* which guard: DIF_VERSION_* */
    uint8_t app;     /* flags: DIF_APP_* */
    uint32_t lba;    /* low 32 bits of the block's LBA, big-endian */
} DifTuple;

static_assert(sizeof(DifTuple) == 8, "tuple layout");

/* `version`. Known versions are these and 0x00, a zeroed DIF area. Bytes 2 and 3 both 0xFF exempt a tuple from checks. */
#define DIF_VERSION_T10 0x13u     /* guard is CRC16 T10-DIF */
#define DIF_VERSION_CRC32C 0x29u  /* guard is the low half of CRC32C */
#define DIF_VERSION_NO_CRC 0x34u  /* no guard and no LBA */
#define DIF_VERSION_INVALID 0x1Fu /* not a known version: version checks reject it */

/* `app` */
#define DIF_APP_BST 0x01u       /* the BST mark */
#define DIF_APP_LBA_VALID 0x02u /* `lba` holds an LBA */

/* ---- Insertion and replacement ----------------------------------------------------------------------------------- */

/*
 * What to write into the tuples of a range. One record serves one call at a time: operations advance `lba` while they
 * run and restore it before they return (the block-run routines leave it advanced).
 */
typedef struct DifOpParam {
    uint32_t type;         /* DIF_DATA_*, below DIF_DATA_BUTT */
    uint32_t ctrlFlag;     /* DIF_INSERT_* or DIF_REPLACE_* */
    uint64_t lba;          /* LBA of the first block; each further block has one more */
    uint32_t *blockBitmap; /* replacement only: block i is processed if bit i % 32 of word i / 32 is set; null = all */
} DifOpParam;

static_assert(sizeof(DifOpParam) == 24, "operation record layout");

#define DIF_INSERT_NO_CRC 0x1u /* version := 0x34 and nothing else */
#define DIF_INSERT_CRC 0x2u    /* guard of the data, system CRC version */
#define DIF_INSERT_LBA 0x4u    /* LBA and its valid flag */

/* Applied to each processed block in this order. */
#define DIF_REPLACE_CRC 0x20u              /* guard of the data, system CRC version */
#define DIF_REPLACE_LBA 0x40u              /* LBA and its valid flag */
#define DIF_REPLACE_LBA_IF_VALID 0x80u     /* LBA, if the valid flag is set */
#define DIF_REPLACE_SET_BST 0x10u          /* set the BST mark */
#define DIF_REPLACE_INVALID_VERSION 0x8u   /* version := 0x1F */
#define DIF_REPLACE_CLEAR_LBA_VALID 0x100u /* clear the valid flag; the LBA bytes stay */
#define DIF_REPLACE_VERSION 0x200u         /* version := system CRC version */

/* ---- Fault injection --------------------------------------------------------------------------------------------- */

/*
 * The wrong values to write into the tuples of a range. One record serves one call at a time: injection changes `lba` and
 * bit 30 of `ctrlFlag` while it runs; it restores the first and clears the second.
 */
typedef struct DifInjectParam {
    uint32_t type;     /* DIF_DATA_*, below DIF_DATA_BUTT */
    uint32_t ctrlFlag; /* DIF_INJECT_* */
    uint64_t lba;      /* LBA for the first block; each further block has one more */
    uint16_t crc;      /* stored in the machine's order, byte 0 low */
    uint8_t version;
} DifInjectParam;

static_assert(sizeof(DifInjectParam) == 24, "injection record layout");

/* Applied to each block in this order. */
#define DIF_INJECT_VERSION 0x1u /* write `version` */
#define DIF_INJECT_CRC 0x2u     /* write `crc` over the guard */
#define DIF_INJECT_LBA 0x4u     /* write `lba` and set its valid flag */
#define DIF_INJECT_BST 0x8u     /* set the BST mark */

/* ---- Checks ------------------------------------------------------------------------------------------------------ */

/*
 * What to check, on whose behalf, and where the answers go. One record serves one call at a time: a check changes `lba`
 * and bit 30 of `ctrlFlag`, and `checkResult` if it is null, while it runs, and restores them before it returns.
 */
typedef struct DifCheckParam {
    uint32_t type;            /* DIF_DATA_520 or DIF_DATA_4160 */
    uint32_t ctrlFlag;        /* DIF_CHECK_* */
    uint8_t crcLevel;         /* verify level at which the guard check applies */
    uint8_t lbaLevel;         /* verify level at which the LBA check applies */
    uint8_t mid;              /* calling module, below 16 */
    uint8_t subPid;           /* the module's verify point, from 1 */
    uint64_t lba;             /* expected LBA of the first block */
    uint32_t *checkResult;    /* result word: DIF_RESULT_*, written fresh by every call; may be null */
    uint32_t *errBlockBitmap; /* may be null; bit i % 32 of word i / 32 is set by atomic OR for each failed block i */
    uint32_t *errBlockIndex;  /* may be null; sector index of the first failed block, or DIF_ERR_BLOCK_NONE */
} DifCheckParam;

static_assert(sizeof(DifCheckParam) == 48, "check record layout");

/* The integrity step: verify tuples. A block that fails makes the call fail. */
#define DIF_CHECK_CRC 0x10000u         /* verify the guard, if `crcLevel` is on for the module */
#define DIF_CHECK_LBA 0x20000u         /* verify the LBA, if `lbaLevel` is on for the module */
#define DIF_CHECK_ALL_BLOCKS 0x40000u  /* go on after a failed block */
#define DIF_CHECK_CONVERT_T10 0x80000u /* rewrite passing CRC32C tuples as T10 tuples */

/* The report step: questions about the range as a whole, answered in the result word. Never fails the call. */
#define DIF_CHECK_BST 0x100000u
#define DIF_CHECK_ALL_LBA_VALID 0x200000u
#define DIF_CHECK_ZERO_DATA 0x400000u
#define DIF_CHECK_NOT_T10 0x800000u
#define DIF_CHECK_UNKNOWN_VERSION 0x1000000u
#define DIF_CHECK_VERSION_ZERO 0x4000000u
#define DIF_CHECK_REPORT_MASK 0x5F00000u

/* An all-ones tuple behind all-zero data becomes all zeros before it is checked; withdraws the 0xFFFF exemption. */
#define DIF_CHECK_TRIM_ZERO 0x8000000u

/* Internal: the next failure of this call is logged in detail. Callers leave it clear. */
#define DIF_CHECK_LOG_FIRST 0x40000000u

/* The error index while no block has failed. */
#define DIF_ERR_BLOCK_NONE 0xFFFFFFFFu

/* The result word. */
#define DIF_RESULT_CRC_ERROR 0x1u        /* some block has a wrong guard */
#define DIF_RESULT_LBA_ERROR 0x2u        /* some block has a wrong LBA */
#define DIF_RESULT_VERSION_ERROR 0x4u    /* some checked block has a version outside the known four */
#define DIF_RESULT_NONE_PASSED 0x8u      /* with DIF_CHECK_ALL_BLOCKS: no visited block passed */
#define DIF_RESULT_UNKNOWN_VERSION 0x80u /* some block has a version outside the known four */
#define DIF_RESULT_HAVE_BST 0x100u       /* some block has the BST mark */
#define DIF_RESULT_ALL_LBA_VALID 0x200u  /* every visited block has a valid LBA */
#define DIF_RESULT_ALL_ZERO 0x400u       /* every visited block is zero data */
#define DIF_RESULT_NOT_T10 0x800u        /* some version is neither 0x00 nor 0x13; always, with DIF off */
#define DIF_RESULT_VERSION_ZERO 0x1000u  /* some version byte is 0x00 or 0xFF */

#endif
