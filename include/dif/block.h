/*
 * Writing, spoiling and reading tuples in contiguous buffers of whole blocks. Block k starts at buf + k * blockSize; its data is the first
 * dataSize bytes and is only read. Calls on distinct records and buffers may run at once on any threads.
 */
#ifndef DIF_BLOCK_H
#define DIF_BLOCK_H

#include "dif/api.h"
#include "dif/types.h"

#include <stdbool.h>

DIF_BEGIN_DECLS

/*
 * Writes a fresh tuple into every block of `buf`: clears the DIF area, then writes what `param->ctrlFlag`
 * (DIF_INSERT_*) chooses. Does nothing while DIF is off. Null arguments, a bad type and a range of no whole block are
 * reported by assertions and leave the buffer untouched. `param->lba` is restored.
 */
DIF_API void insertDif(uint8_t *buf, uint32_t sectorNum, DifOpParam *param);

/*
 * Rewrites the chosen fields (DIF_REPLACE_*) of the tuples of `buf`, of all blocks or of those in `param->blockBitmap`.
 * Every block, processed or not, takes one LBA. Otherwise like insertDif.
 */
DIF_API void replaceDif(uint8_t *buf, uint32_t sectorNum, DifOpParam *param);

/*
 * The block-run routines behind the two above. They consult no switch, check nothing and leave `param->lba` advanced by
 * `blockNum`, so that calls over consecutive runs continue the LBA sequence. `startBlock` is the index of the run's
 * first block in the bitmap.
 */
DIF_API void insertDifInBlocks(uint8_t *buf, uint32_t blockNum, const DifTypeInfo *typeInfo, DifOpParam *param);
DIF_API void replaceDifInBlocks(uint8_t *buf, uint32_t blockNum, const DifTypeInfo *typeInfo, DifOpParam *param,
                                uint32_t startBlock);

/* Writes the chosen fields into the tuple at `difPtr` for `dataSize` bytes at `data`, without clearing it first. */
DIF_API void insertDifInOneBlock(const uint8_t *data, uint32_t dataSize, DifTuple *difPtr, const DifOpParam *param);

/* Writes `lba` into the tuple's LBA bytes and changes nothing else, the valid flag included. */
DIF_API void setDifLbaFast(DifTuple *difPtr, uint32_t lba);

/*
 * Writes the wrong values of `param` into every tuple of `buf`, whether DIF is on or off, and logs each. Computes nothing;
 * bytes that no DIF_INJECT_* bit covers are left alone.
 */
DIF_API void injectDif(uint8_t *buf, uint32_t sectorNum, DifInjectParam *param);

/* The routines behind it, which check nothing. The first leaves `param->lba` advanced by `blockCount`; `startBlock` and
 * `blockIndex` are the index in the whole operation. */
DIF_API void injectDifInBlocks(uint8_t *buf, uint32_t blockCount, const DifTypeInfo *typeInfo, DifInjectParam *param,
                               uint32_t startBlock);
DIF_API void injectDifInOneBlock(DifTuple *tuple, const DifInjectParam *param, uint32_t blockIndex);

/*
 * Whether `sectorNum` 520-byte blocks at `buf` may be evicted: false if one carries the BST mark. True at once while DIF
 * is off, if the first block is exempt, and for a null `buf` or no blocks, after their assertions.
 */
DIF_API bool isDifEvictable(const uint8_t *buf, uint32_t sectorNum);

/*
 * Reads the LBA of the 520-byte block at `buffer` into `*lba`, widened with zeros. Returns DIF_OK; DIF_FAIL for a null
 * pointer, a `bufSize` other than 520, an unknown version or an LBA not marked valid, and `*lba` stays as it is.
 */
DIF_API uint32_t getDifLba(const uint8_t *buffer, uint32_t bufSize, uint64_t *lba);

/* Whether every byte of a tuple but its version is zero. */
DIF_API bool isDifDataAllZero(const DifTuple *difBuf);

/* Sets a tuple's version byte to 0. */
DIF_API void clearDifVersion(DifTuple *difBuf);

/*
 * Writes into `dif` the tuple of one large sector whose data is that of `sectorNum` consecutive 520-byte blocks at `buf`:
 * guard over all of it, system CRC version, no flags, zero LBA. For 8 blocks, what insertion with DIF_INSERT_CRC writes
 * for a 4160-byte block of the same data. The blocks' own tuples are neither read nor changed. Does nothing with DIF off.
 */
DIF_API void trans2LSectorDif(const uint8_t *buf, uint32_t sectorNum, DifTuple *dif);

DIF_END_DECLS

#endif
