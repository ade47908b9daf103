/* The argument tests that operations share. Each use is an assertion site of its own. */
#pragma once

#include "dif_util/core/assertion.h"
#include "dif_util/core/geometry.h"

/* A pointer argument is not null. */
#define DIF_ASSERT_NOT_NULL(pointer)                                                                                   \
    DIF_ASSERT_AS((pointer) != nullptr, #pointer " != NULL", #pointer " != ((void *)0)")

/* The record of an insertion, replacement or injection has a valid type. */
#define DIF_ASSERT_OP_TYPE(param) DIF_ASSERT((param->type) < DIF_DATA_BUTT)

/* The record of a check has a type that checks accept. */
#define DIF_ASSERT_CHECK_TYPE(param) DIF_ASSERT(param->type == DIF_DATA_520 || param->type == DIF_DATA_4160)

/* The unconditional assertion. */
#define DIF_ASSERT_NEVER() DIF_ASSERT_FAILED("0", "0")

/* What is logged about a range of no whole block. */
#define DIF_NO_BLOCKS_FORMAT "DIF_ERROR_BLOCK_NUM: sectorNum(%u),type(%u),blockSize(%u)."
#define DIF_LOG_NO_BLOCKS(sectorNum, type, info)                                                                       \
    DIF_LOG(kLogError, DIF_NO_BLOCKS_FORMAT, (sectorNum), (type), (info).blockSize)

/* A range of no whole block: logged, then asserted. The operation goes on with no blocks. */
#define DIF_ASSERT_BLOCKS(blockNum, sectorNum, type, info)                                                             \
    do {                                                                                                               \
        if ((blockNum) == 0) {                                                                                         \
            DIF_LOG_NO_BLOCKS(sectorNum, type, info);                                                                  \
            DIF_ASSERT_NEVER();                                                                                        \
        }                                                                                                              \
    } while (0)

/* The same without a message of its own. */
#define DIF_ASSERT_ANY_BLOCKS(blockNum) static_cast<void>(DIF_ASSERT(blockNum != 0))

/* The same for the operations that fix 520-byte blocks, as a condition. */
#define DIF_ASSERT_SECTORS(sectorNum)                                                                                  \
    ((sectorNum) != 0 ||                                                                                               \
     (DIF_LOG(kLogError, "DIF_ERROR_BLOCK_NUM: sectorNum(%u),blockSize(%u).", 0u, kTypeInfo[DIF_DATA_520].blockSize),  \
      DIF_ASSERT_NEVER()))
