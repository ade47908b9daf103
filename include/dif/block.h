/*
 * Writing tuples into contiguous buffers of whole blocks. Block k starts at buf + k * blockSize; its data is the first
 * dataSize bytes and is only read. Calls on distinct records and buffers may run at once on any threads.
 */
#ifndef DIF_BLOCK_H
#define DIF_BLOCK_H

#include "dif/api.h"
#include "dif/types.h"

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

DIF_END_DECLS

#endif
