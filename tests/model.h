/* What the operations must make of blocks, worked out from their rules one block at a time. */
#pragma once

#include "blocks.h"
#include "dif/dif.h"

#include <array>

/* One block of a replacement: block `k` of the blocks, block `i` of the operation. */
inline void modelReplace(Blocks &blocks, uint32_t k, uint32_t i, const DifOpParam &op, uint8_t version) {
    const auto has = [&](uint32_t flag) { return (op.ctrlFlag & flag) != 0; };
    const std::vector<uint8_t> zeros(blocks.info.dataSize);
    Tuple tuple = blocks.tuple(k);
    if (op.blockBitmap != nullptr && (op.blockBitmap[i / 32] >> (i % 32) & 1) == 0)
        return;
    if (has(DIF_REPLACE_CRC)) /* the data of some types is declared to be zeros */
        tuple.guard = slowGuard(version, (op.type & 1) != 0 ? zeros.data() : blocks.data(k), zeros.size());
    if (has(DIF_REPLACE_LBA) || (has(DIF_REPLACE_LBA_IF_VALID) && (tuple.app & DIF_APP_LBA_VALID) != 0))
        tuple.lba = static_cast<uint32_t>(op.lba + i);
    const uint32_t set = (has(DIF_REPLACE_LBA) ? DIF_APP_LBA_VALID : 0) | (has(DIF_REPLACE_SET_BST) ? DIF_APP_BST : 0);
    tuple.app = static_cast<uint8_t>((tuple.app | set) & ~(has(DIF_REPLACE_CLEAR_LBA_VALID) ? DIF_APP_LBA_VALID : 0));
    if (has(DIF_REPLACE_VERSION) || (has(DIF_REPLACE_CRC) && !has(DIF_REPLACE_INVALID_VERSION)))
        tuple.version = version;
    else if (has(DIF_REPLACE_INVALID_VERSION))
        tuple.version = DIF_VERSION_INVALID;
    blocks.set(k, tuple);
}

inline void modelInsert(Blocks &blocks, uint32_t k, uint32_t i, const DifOpParam &op, uint8_t version) {
    memset(blocks.dif(k), 0, blocks.info.blockSize - blocks.info.dataSize);
    if ((op.ctrlFlag & DIF_INSERT_NO_CRC) != 0)
        return blocks.set(k, {.guard = 0, .version = DIF_VERSION_NO_CRC, .app = 0, .lba = 0});
    const uint32_t flags = ((op.ctrlFlag & DIF_INSERT_CRC) != 0 ? DIF_REPLACE_CRC : 0) |
                           ((op.ctrlFlag & DIF_INSERT_LBA) != 0 ? DIF_REPLACE_LBA : 0);
    modelReplace(blocks, k, i, {op.type, flags, op.lba, nullptr}, version);
}

inline void modelInject(Blocks &blocks, uint32_t k, uint32_t i, const DifInjectParam &inject, uint8_t /*version*/ = 0) {
    const auto has = [&](uint32_t flag) { return (inject.ctrlFlag & flag) != 0; };
    const uint32_t set = (has(DIF_INJECT_LBA) ? DIF_APP_LBA_VALID : 0) | (has(DIF_INJECT_BST) ? DIF_APP_BST : 0);
    const Tuple old = blocks.tuple(k);
    blocks.set(k, {.guard = has(DIF_INJECT_CRC) ? inject.crc : old.guard,
                   .version = has(DIF_INJECT_VERSION) ? inject.version : old.version,
                   .app = static_cast<uint8_t>(old.app | set),
                   .lba = has(DIF_INJECT_LBA) ? static_cast<uint32_t>(inject.lba + i) : old.lba});
}

inline void modelTrim(Blocks &blocks, uint32_t k) {
    if (blocks.isZero(k) && blocks.tuple(k) == kOnes)
        blocks.set(k, Tuple{});
}

/* The answer to a check on behalf of a module of a given level. */
struct CheckModel {
    CheckModel(const DifCheckParam &param, uint8_t moduleLevel) : asked(param), level_(moduleLevel) {
        isIntegrityOn_ = lbaMade() || crcMade() || has(DIF_CHECK_CONVERT_T10);
        result = when(has(DIF_CHECK_ALL_LBA_VALID), DIF_RESULT_ALL_LBA_VALID) |
                 when(has(DIF_CHECK_ZERO_DATA), DIF_RESULT_ALL_ZERO) |
                 when(isIntegrityOn_ && has(DIF_CHECK_ALL_BLOCKS), DIF_RESULT_NONE_PASSED);
    }

    /* The blocks of the check are those from `first` on. */
    void run(Blocks &blocks, uint32_t first, uint32_t count) {
        bool settled = !has(DIF_CHECK_REPORT_MASK), done = !isIntegrityOn_;
        for (uint32_t i = 0; i < count; ++i) {
            if (has(DIF_CHECK_TRIM_ZERO))
                modelTrim(blocks, first + i);
            if (!settled)
                settled = report(blocks, first + i);
            if (!done)
                done = !verify(blocks, first + i, i) && !has(DIF_CHECK_ALL_BLOCKS);
            if (done && settled)
                break;
        }
    }

    /* How often each kind is counted for the verify point. */
    std::array<uint64_t, DIF_STAT_BUTT> counted() const {
        const uint32_t faults = isIntegrityOn_ && code == DIF_ERR_CHECK ? result : 0;
        return {0, faults >> 2 & 1, faults >> 1 & 1, faults & 1};
    }

    DifCheckParam asked;
    uint32_t code = DIF_OK, result = 0, index = DIF_ERR_BLOCK_NONE;
    std::array<uint32_t, 8> bitmap{};

private:
    static uint32_t when(bool condition, uint32_t bits) { return condition ? bits : 0; }
    static bool isKnown(uint8_t version) {
        return version == 0 || version == 0x13 || version == 0x29 || version == 0x34;
    }
    bool has(uint32_t flag) const { return (asked.ctrlFlag & flag) != 0; }
    bool made(uint32_t flag, uint8_t level) const {
        return has(flag) && level >= 1 && level <= 4 && level <= level_ && asked.mid < 16 && asked.subPid < 64;
    }
    bool lbaMade() const { return made(DIF_CHECK_LBA, asked.lbaLevel); }
    bool crcMade() const { return made(DIF_CHECK_CRC, asked.crcLevel); }

    /* Whether no further block can change an answer. */
    bool report(Blocks &blocks, uint32_t k) {
        const Tuple t = blocks.tuple(k);
        const bool counts = !t.isExempt(), hasGuard = t.version == 0x13 || t.version == 0x29;
        const bool isZero = blocks.isZero(k) && (!hasGuard || t.guard == blocks.guard(k, t.version));
        const struct {
            uint32_t flag, bit;
            bool ofAll, holds; /* whether the bit tells of all blocks or of some, and what this one says */
        } questions[] = {
            {DIF_CHECK_VERSION_ZERO, DIF_RESULT_VERSION_ZERO, false, t.version == 0 || t.version == 0xFF},
            {DIF_CHECK_NOT_T10, DIF_RESULT_NOT_T10, false, counts && t.version != 0 && t.version != 0x13},
            {DIF_CHECK_UNKNOWN_VERSION, DIF_RESULT_UNKNOWN_VERSION, false, counts && !isKnown(t.version)},
            {DIF_CHECK_BST, DIF_RESULT_HAVE_BST, false, counts && (t.app & DIF_APP_BST) != 0 && level_ != 0},
            {DIF_CHECK_ALL_LBA_VALID, DIF_RESULT_ALL_LBA_VALID, true, counts && (t.app & DIF_APP_LBA_VALID) != 0},
            {DIF_CHECK_ZERO_DATA, DIF_RESULT_ALL_ZERO, true, counts && isZero},
        };
        bool settled = counts;
        for (const auto &question : questions) {
            if (has(question.flag) && question.holds != question.ofAll)
                result = question.ofAll ? result & ~question.bit : result | question.bit;
            settled = settled && (!has(question.flag) || ((result & question.bit) == 0) == question.ofAll);
        }
        return settled;
    }

    /* Whether the block passes. */
    bool verify(Blocks &blocks, uint32_t k, uint32_t i) {
        const Tuple t = blocks.tuple(k);
        uint32_t fault = 0;
        if (!isKnown(t.version) && (!t.isExempt() || has(DIF_CHECK_TRIM_ZERO)))
            fault = when(lbaMade() || crcMade(), DIF_RESULT_VERSION_ERROR);
        else if (lbaMade() && (t.app & DIF_APP_LBA_VALID) != 0 && t.lba != static_cast<uint32_t>(asked.lba + i))
            fault = when(!t.isExempt(), DIF_RESULT_LBA_ERROR);
        else if (crcMade() && t.version != 0x34 && t.guard != blocks.guard(k, t.version))
            fault = when(!t.isExempt(), DIF_RESULT_CRC_ERROR);
        if (fault == 0) {
            if (has(DIF_CHECK_CONVERT_T10) && t.version == DIF_VERSION_CRC32C)
                blocks.set(k, {blocks.guard(k), DIF_VERSION_T10, t.app, t.lba});
            result &= ~when(has(DIF_CHECK_ALL_BLOCKS), DIF_RESULT_NONE_PASSED);
            return true;
        }
        code = DIF_ERR_CHECK;
        result |= fault;
        index = std::min(index, i << blocks.info.sectorShift);
        bitmap[i / 32] |= 1u << (i % 32);
        return false;
    }

    uint8_t level_;
    bool isIntegrityOn_;
};

/* A check at point 1 of the cache module, both levels 2, with all outputs. */
struct Check {
    Check(uint32_t type, uint32_t ctrlFlag, uint64_t lba = 0)
        : param{type, ctrlFlag, 2, 2, DIF_MID_CACHE, 1, lba, &result, bitmap.data(), &index} {}

    static constexpr uint32_t kUntouched = 0x5A5A5A5A;
    uint32_t result = kUntouched, index = kUntouched;
    std::array<uint32_t, 8> bitmap{};
    DifCheckParam param;
};

/* The checks, called by line 42 of "caller". */
inline uint32_t checkBuffer(uint8_t *buf, uint32_t sectors, DifCheckParam *param) {
    return checkDif(buf, sectors, param, "caller", 42);
}
inline uint32_t checkList(const Sgl *sgl, uint32_t offset, uint32_t sectors, DifCheckParam *param) {
    return checkDifInSgl(sgl, offset, sectors, param, "caller", 42);
}
inline uint32_t checkListReturning(const Sgl *sgl, uint32_t offset, uint32_t sectors, DifCheckParam *param) {
    return checkDifInSglWithErrorReturn(sgl, offset, sectors, param, "caller", 42);
}
