#include "dif_util/verify/check_call.h"

#include "dif/verify_point.h"

void countFailures(const DifCheckParam &param) {
    struct Count {
        uint32_t resultBit;
        int32_t kind;
    };
    constexpr Count kCounts[] = {
        {DIF_RESULT_VERSION_ERROR, DIF_STAT_VERSION_ERROR},
        {DIF_RESULT_LBA_ERROR, DIF_STAT_LBA_ERROR},
        {DIF_RESULT_CRC_ERROR, DIF_STAT_CRC_ERROR},
    };
    const uint8_t point = static_cast<uint8_t>(param.subPid - 1);
    for (const Count &count : kCounts) {
        if ((*param.checkResult & count.resultBit) != 0) {
            difVerifyStatisticAdd(param.mid, point, count.kind);
        }
    }
}
