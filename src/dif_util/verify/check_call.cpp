#include "dif_util/verify/check_call.h"

#include "dif/check.h"
#include "dif/verify_point.h"
#include "dif_util/core/section.h"

DIF_CHECK_TEXT CheckCall::CheckCall(DifCheckParam &param)
    : param_{param}, lba_{param.lba}, checkResult_{param.checkResult}, logFirst_{param.ctrlFlag, DIF_CHECK_LOG_FIRST} {
    if (param_.checkResult == nullptr) {
        param_.checkResult = &ownResult_;
    }
    initDifCheckResults(&param_, &resultSettled_, &integrityDone_);
    integrityOn_ = integrityDone_ == 0;
}

DIF_CHECK_TEXT void CheckCall::run(uint8_t *data, uint32_t blockNum, const DifTypeInfo &info, uint32_t startBlock) {
    const uint32_t ret = checkDifInBlocks(data, blockNum, &info, &param_, startBlock, &resultSettled_, &integrityDone_);
    if (ret != DIF_OK) {
        ret_ = ret;
    }
}

DIF_CHECK_TEXT uint32_t CheckCall::finish() {
    if (!integrityOn_ || ret_ == DIF_OK) {
        return ret_;
    }
    struct Count {
        uint32_t resultBit;
        int32_t kind;
    };
    constexpr Count kCounts[] = {
        {DIF_RESULT_VERSION_ERROR, DIF_STAT_VERSION_ERROR},
        {DIF_RESULT_LBA_ERROR, DIF_STAT_LBA_ERROR},
        {DIF_RESULT_CRC_ERROR, DIF_STAT_CRC_ERROR},
    };
    const uint8_t point = static_cast<uint8_t>(param_.subPid - 1);
    for (const Count &count : kCounts) {
        if ((*param_.checkResult & count.resultBit) != 0) {
            difVerifyStatisticAdd(param_.mid, point, count.kind);
        }
    }
    return ret_;
}
