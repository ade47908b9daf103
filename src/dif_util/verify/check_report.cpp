#include "dif_util/verify/check_report.h"

#include "crc16_t10dif/guard.h"
#include "dif/check.h"
#include "dif_util/core/section.h"
#include "dif_util/core/tuple.h"
#include "dif_util/verify/check_messages.h"
#include "dif_util/verify/verify_level.h"
#include "dif_util/verify/zero_data.h"

namespace {

/* Data all zero, and a guard that says so where the version has one. */
DIF_CHECK_HELPER bool isZeroDataBlock(CheckedBlock block, const DifTypeInfo &info) {
    const uint16_t guard = tupleGuard(block.tuple(info));
    switch (tupleVersion(block.tuple(info))) {
    case DIF_VERSION_T10:
        if (guard != kZeroGuardT10) {
            return false;
        }
        break;
    case DIF_VERSION_CRC32C:
        if (guard != (info.dataSize == 512 ? kZeroGuardCrc32c512 : kZeroGuardCrc32c4096)) {
            return false;
        }
        break;
    default:
        break;
    }
    return isAllZero(block.data, info.dataSize);
}

DIF_CHECK_HELPER bool isBstReported(const DifCheckParam &param) {
    return (param.ctrlFlag & DIF_CHECK_BST) != 0 && verifyLevelOf(param.mid) != DIF_VERIFY_LEVEL_INVALID;
}

/*
 * Each report bit asked for has one answer that further blocks cannot change: a bit that tells of some block, once set; a
 * bit that tells of all blocks, once cleared.
 */
DIF_CHECK_HELPER bool isSettled(uint32_t asked, uint32_t result) {
    struct Question {
        uint32_t ask;
        uint32_t answer;
        bool settledWhenSet;
    };
    constexpr Question kQuestions[] = {
        {DIF_CHECK_NOT_T10, DIF_RESULT_NOT_T10, true},
        {DIF_CHECK_UNKNOWN_VERSION, DIF_RESULT_UNKNOWN_VERSION, true},
        {DIF_CHECK_BST, DIF_RESULT_HAVE_BST, true},
        {DIF_CHECK_ALL_LBA_VALID, DIF_RESULT_ALL_LBA_VALID, false},
        {DIF_CHECK_ZERO_DATA, DIF_RESULT_ALL_ZERO, false},
        {DIF_CHECK_VERSION_ZERO, DIF_RESULT_VERSION_ZERO, true},
    };
    for (const Question &question : kQuestions) {
        if ((asked & question.ask) != 0 && ((result & question.answer) != 0) != question.settledWhenSet) {
            return false;
        }
    }
    return true;
}

} // namespace

DIF_CHECK_TEXT void checkDifVerZero(uint32_t ctrlFlag, const DifTuple *difPtr, uint32_t *checkResult) {
    const uint8_t version = tupleVersion(difPtr);
    if ((ctrlFlag & DIF_CHECK_VERSION_ZERO) != 0 && (version == 0x00 || version == 0xFF)) {
        *checkResult |= DIF_RESULT_VERSION_ZERO;
    }
}

DIF_CHECK_TEXT void tryCheckDifAppAndSetResult(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param,
                                               uint8_t &resultSettled) {
    const DifTuple *const tuple = block.tuple(info);
    const uint32_t asked = param.ctrlFlag;
    uint32_t &result = *param.checkResult;
    checkDifVerZero(asked, tuple, &result);
    if (isExempt(tuple)) {
        result &= ~(DIF_RESULT_ALL_LBA_VALID | DIF_RESULT_ALL_ZERO);
        noteExemptFromReport(block, info, param);
        return;
    }
    const uint8_t version = tupleVersion(tuple);
    if ((asked & DIF_CHECK_NOT_T10) != 0 && version != 0x00 && version != DIF_VERSION_T10) {
        result |= DIF_RESULT_NOT_T10;
    }
    if ((asked & DIF_CHECK_UNKNOWN_VERSION) != 0 && !isKnownVersion(version)) {
        result |= DIF_RESULT_UNKNOWN_VERSION;
    }
    if (isBstReported(param) && hasBst(tuple)) {
        warnOfBst(block, info, param);
        result |= DIF_RESULT_HAVE_BST;
    }
    if ((asked & DIF_CHECK_ALL_LBA_VALID) != 0 && !hasValidLba(tuple)) {
        result &= ~DIF_RESULT_ALL_LBA_VALID;
    }
    if ((asked & DIF_CHECK_ZERO_DATA) != 0 && !isZeroDataBlock(block, info)) {
        result &= ~DIF_RESULT_ALL_ZERO;
    }
    resultSettled = isSettled(asked, result) ? 1 : 0;
}
