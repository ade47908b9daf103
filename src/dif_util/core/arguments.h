/* The argument tests that operations share. Each use is an assertion site of its own. */
#pragma once

#include "dif_util/core/assertion.h"
#include "dif_util/core/geometry.h"
#include "log.h"

/* A pointer argument is not null. */
#define DIF_ASSERT_NOT_NULL(pointer)                                                                                   \
    DIF_ASSERT_AS((pointer) != nullptr, #pointer " != NULL", #pointer " != ((void *)0)")

/* The record of an insertion, replacement or injection has a valid type. */
#define DIF_ASSERT_OP_TYPE(param) DIF_ASSERT((param->type) < DIF_DATA_BUTT)

/* The record of a check has a type that checks accept. */
#define DIF_ASSERT_CHECK_TYPE(param) DIF_ASSERT(param->type == DIF_DATA_520 || param->type == DIF_DATA_4160)

/* What is logged about a range of no whole block: its sectors, type and block size. */
#define DIF_NO_BLOCKS_FORMAT "DIF_ERROR_BLOCK_NUM: sectorNum(%u),type(%u),blockSize(%u)."

/* A range has whole blocks; one without is logged, then asserted, and the operation goes on with no blocks. */
#define DIF_ASSERT_BLOCKS(blockNum, sectorNum, type, info)                                                             \
    do {                                                                                                               \
        if ((blockNum) == 0) {                                                                                         \
            DIF_LOG(kLogError, DIF_NO_BLOCKS_FORMAT, (sectorNum), (type), (info).blockSize);                           \
            DIF_ASSERT_NEVER();                                                                                        \
        }                                                                                                              \
    } while (0)

/* The same for the operations that fix 520-byte blocks, a sector each. */
#define DIF_ASSERT_SECTORS(sectorNum)                                                                                  \
    do {                                                                                                               \
        if ((sectorNum) == 0) {                                                                                        \
            DIF_LOG(kLogError, "DIF_ERROR_BLOCK_NUM: sectorNum(%u),blockSize(%u).", 0u,                                \
                    kTypeInfo[DIF_DATA_520].blockSize);                                                                \
            DIF_ASSERT_NEVER();                                                                                        \
        }                                                                                                              \
    } while (0)
