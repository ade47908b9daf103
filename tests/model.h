/* What the operations must make of blocks, worked out from their rules one block at a time. */
#ifndef DIF_TESTS_MODEL_H
#define DIF_TESTS_MODEL_H

#include "blocks.h"

#include <array>

/* The guard that writing gives a block: of zeros, if the data type declares zeros. */
inline uint16_t writtenGuard(Blocks &blocks, uint32_t k, uint32_t type, uint8_t version) {
    const std::vector<uint8_t> zeros(blocks.info.dataSize);
    return slowGuard(version, (type & 1) != 0 ? zeros.data() : blocks.data(k), blocks.info.dataSize);
}

/* One block of an insertion, a replacement and an injection; `k` counts in the blocks, `i` in the operation. */
inline void modelInsert(Blocks &blocks, uint32_t k, uint32_t i, const DifOpParam &op, uint8_t version) {
    Tuple tuple{};
    if ((op.ctrlFlag & DIF_INSERT_NO_CRC) != 0) {
        tuple.version = DIF_VERSION_NO_CRC;
    } else {
        if ((op.ctrlFlag & DIF_INSERT_CRC) != 0)
            tuple = {.guard = writtenGuard(blocks, k, op.type, version), .version = version, .app = 0, .lba = 0};
        if ((op.ctrlFlag & DIF_INSERT_LBA) != 0) {
            tuple.app = DIF_APP_LBA_VALID;
            tuple.lba = static_cast<uint32_t>(op.lba + i);
        }
    }
    memset(blocks.dif(k), 0, blocks.info.blockSize - blocks.info.dataSize);
    blocks.set(k, tuple);
}

inline void modelReplace(Blocks &blocks, uint32_t k, uint32_t i, const DifOpParam &op, uint8_t version) {
    if (op.blockBitmap != nullptr && (op.blockBitmap[i / 32] >> (i % 32) & 1) == 0)
        return;
    const auto has = [&](uint32_t flag) { return (op.ctrlFlag & flag) != 0; };
    Tuple tuple = blocks.tuple(k);
    if (has(DIF_REPLACE_CRC))
        tuple.guard = writtenGuard(blocks, k, op.type, version);
    if (has(DIF_REPLACE_LBA) || (has(DIF_REPLACE_LBA_IF_VALID) && (tuple.app & DIF_APP_LBA_VALID) != 0))
        tuple.lba = static_cast<uint32_t>(op.lba + i);
    const unsigned set = (has(DIF_REPLACE_LBA) ? DIF_APP_LBA_VALID : 0) | (has(DIF_REPLACE_SET_BST) ? DIF_APP_BST : 0);
    tuple.app = static_cast<uint8_t>((tuple.app | set) & ~(has(DIF_REPLACE_CLEAR_LBA_VALID) ? DIF_APP_LBA_VALID : 0));
    if (has(DIF_REPLACE_VERSION) || (has(DIF_REPLACE_CRC) && !has(DIF_REPLACE_INVALID_VERSION)))
        tuple.version = version;
    else if (has(DIF_REPLACE_INVALID_VERSION))
        tuple.version = DIF_VERSION_INVALID;
    blocks.set(k, tuple);
}

inline void modelInject(Blocks &blocks, uint32_t k, uint32_t i, const DifInjectParam &inject) {
    const auto has = [&](uint32_t flag) { return (inject.ctrlFlag & flag) != 0; };
    Tuple tuple = blocks.tuple(k);
    tuple.version = has(DIF_INJECT_VERSION) ? inject.version : tuple.version;
    tuple.guard = has(DIF_INJECT_CRC) ? inject.crc : tuple.guard;
    tuple.lba = has(DIF_INJECT_LBA) ? static_cast<uint32_t>(inject.lba + i) : tuple.lba;
    tuple.app = static_cast<uint8_t>(tuple.app | (has(DIF_INJECT_LBA) ? DIF_APP_LBA_VALID : 0) |
                                     (has(DIF_INJECT_BST) ? DIF_APP_BST : 0));
    blocks.set(k, tuple);
}

inline void modelTrim(Blocks &blocks, uint32_t k) {
    if (blocks.isZero(k) && blocks.tuple(k) == kOnes)
        blocks.set(k, Tuple{});
}

/* The answer to a check that may come in several runs, for a module of a given level. */
class CheckModel {
public:
    CheckModel(const DifCheckParam &asked, uint8_t moduleLevel) : param_(asked), level_(moduleLevel) {
        settled = (askedOfSome() | askedOfAll()) == 0;
        isIntegrityOn_ = lbaMade() || crcMade() || has(DIF_CHECK_CONVERT_T10);
        done = !isIntegrityOn_;
        result = askedOfAll() | when(isIntegrityOn_ && has(DIF_CHECK_ALL_BLOCKS), DIF_RESULT_NONE_PASSED);
    }

    /* Blocks `k` and on of a buffer, which are blocks `i` and on of the check. Returns the answer about this run. */
    uint32_t run(Blocks &blocks, uint32_t k, uint32_t i, uint32_t count) {
        uint32_t runCode = DIF_OK;
        for (const uint32_t end = i + count; i < end; ++i, ++k) {
            if (has(DIF_CHECK_TRIM_ZERO))
                modelTrim(blocks, k);
            if (!settled)
                report(blocks, k);
            if (!done && verify(blocks, k, i) != 0)
                code = runCode = DIF_ERR_CHECK;
            if (done && settled)
                break;
        }
        return runCode;
    }

    /* How often each kind is counted for the verify point. */
    std::array<uint64_t, DIF_STAT_BUTT> counted() const {
        const bool counts = isIntegrityOn_ && code == DIF_ERR_CHECK;
        return {0, counts ? result >> 2 & 1 : 0, counts ? result >> 1 & 1 : 0, counts ? result & 1 : 0};
    }

    uint32_t code = DIF_OK, result = 0, index = DIF_ERR_BLOCK_NONE;
    std::array<uint32_t, 8> bitmap{};
    bool settled, done;

private:
    static uint32_t when(bool condition, uint32_t bits) { return condition ? bits : 0; }
    static bool isKnown(uint8_t version) {
        return version == 0 || version == 0x13 || version == 0x29 || version == 0x34;
    }
    bool has(uint32_t flag) const { return (param_.ctrlFlag & flag) != 0; }
    bool made(uint32_t flag, uint8_t level) const {
        return has(flag) && level >= 1 && level <= 4 && level <= level_ && param_.mid < 16 && param_.subPid < 64;
    }
    bool lbaMade() const { return made(DIF_CHECK_LBA, param_.lbaLevel); }
    bool crcMade() const { return made(DIF_CHECK_CRC, param_.crcLevel); }

    /* The bits of the result word that tell of some block, and those that tell of all blocks. */
    uint32_t askedOfSome() const {
        return when(has(DIF_CHECK_BST), DIF_RESULT_HAVE_BST) | when(has(DIF_CHECK_NOT_T10), DIF_RESULT_NOT_T10) |
               when(has(DIF_CHECK_UNKNOWN_VERSION), DIF_RESULT_UNKNOWN_VERSION) |
               when(has(DIF_CHECK_VERSION_ZERO), DIF_RESULT_VERSION_ZERO);
    }
    uint32_t askedOfAll() const {
        return when(has(DIF_CHECK_ALL_LBA_VALID), DIF_RESULT_ALL_LBA_VALID) |
               when(has(DIF_CHECK_ZERO_DATA), DIF_RESULT_ALL_ZERO);
    }

    void report(Blocks &blocks, uint32_t k) {
        const Tuple tuple = blocks.tuple(k);
        const uint8_t version = tuple.version;
        const bool isExempt = version == 0xFF && tuple.app == 0xFF, hasGuard = version == 0x13 || version == 0x29;
        uint32_t ofSome = when(version == 0 || version == 0xFF, DIF_RESULT_VERSION_ZERO), ofAll = 0;
        if (!isExempt) {
            ofSome |= when(version != 0 && version != 0x13, DIF_RESULT_NOT_T10) |
                      when(!isKnown(version), DIF_RESULT_UNKNOWN_VERSION) |
                      when((tuple.app & DIF_APP_BST) != 0 && level_ != 0, DIF_RESULT_HAVE_BST);
            ofAll =
                when((tuple.app & DIF_APP_LBA_VALID) != 0, DIF_RESULT_ALL_LBA_VALID) |
                when(blocks.isZero(k) && (!hasGuard || tuple.guard == blocks.guard(k, version)), DIF_RESULT_ALL_ZERO);
        }
        result |= ofSome & askedOfSome();
        result &= ofAll | ~(DIF_RESULT_ALL_LBA_VALID | DIF_RESULT_ALL_ZERO);
        settled = !isExempt && (askedOfSome() & ~result) == 0 && (askedOfAll() & result) == 0;
    }

    uint32_t faultOf(Blocks &blocks, uint32_t k, uint32_t i) {
        const Tuple tuple = blocks.tuple(k);
        if (tuple.version == 0xFF && tuple.app == 0xFF && !has(DIF_CHECK_TRIM_ZERO))
            return 0;
        if (!isKnown(tuple.version))
            return when(lbaMade() || crcMade(), DIF_RESULT_VERSION_ERROR);
        if (lbaMade() && (tuple.app & DIF_APP_LBA_VALID) != 0 && tuple.lba != static_cast<uint32_t>(param_.lba + i))
            return DIF_RESULT_LBA_ERROR;
        return when(crcMade() && tuple.version != 0x34 && tuple.guard != blocks.guard(k, tuple.version),
                    DIF_RESULT_CRC_ERROR);
    }

    uint32_t verify(Blocks &blocks, uint32_t k, uint32_t i) {
        const uint32_t fault = faultOf(blocks, k, i);
        Tuple tuple = blocks.tuple(k);
        if (fault != 0) {
            result |= fault;
            index = std::min(index, i << blocks.info.sectorShift);
            bitmap[i / 32] |= 1u << (i % 32);
            done = !has(DIF_CHECK_ALL_BLOCKS);
            return fault;
        }
        if (has(DIF_CHECK_CONVERT_T10) && tuple.version == DIF_VERSION_CRC32C) {
            tuple.guard = blocks.guard(k);
            tuple.version = DIF_VERSION_T10;
            blocks.set(k, tuple);
        }
        result &= ~when(has(DIF_CHECK_ALL_BLOCKS), DIF_RESULT_NONE_PASSED);
        return 0;
    }

    DifCheckParam param_;
    uint8_t level_;
    bool isIntegrityOn_;
};

/* A check at point 1 of the cache module, both levels 2, with all outputs. */
struct Check {
    Check(uint32_t type, uint32_t ctrlFlag, uint64_t lba = 0)
        : param{type, ctrlFlag, 2, 2, DIF_MID_CACHE, 1, lba, &result, bitmap.data(), &index} {}
    Check(const Check &) = delete;
    Check &operator=(const Check &) = delete;

    static constexpr uint32_t kUntouched = 0x5A5A5A5A;
    uint32_t result = kUntouched, index = kUntouched;
    std::array<uint32_t, 8> bitmap{};
    DifCheckParam param;
};

#endif
