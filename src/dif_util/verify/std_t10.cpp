#include "dif_util/verify/std_t10.h"

#include "crc16_t10dif/guard.h"
#include "dif_util/core/limited_log.h"
#include "dif_util/core/tuple.h"
#include "log.h"

namespace {

uint32_t fail(const DifCheckParam &param, uint32_t error) {
    if (param.checkResult != nullptr) {
        *param.checkResult |= error;
    }
    return DIF_ERR_CHECK;
}

} // namespace

uint32_t checkDifIntegrityWithStdT10(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param) {
    const void *const difPtr = block.tuple(info);
    if (isExempt(block.tuple(info))) {
        DIF_LOG_LIMITED(ExemptNoteLimiter, kLogInfo,
                        "DIF_CHECK_WITH_STDT10_INFO: version(0xFF), app(0xFF), difPtr(%p),type(%u), ctrlFlag(0x%x), "
                        "mid(%u), subPid(%u), crcLevel(%u), lbaLevel(%u).",
                        difPtr, param.type, param.ctrlFlag, param.mid, param.subPid, param.crcLevel, param.lbaLevel);
        return DIF_OK;
    }
    if ((param.ctrlFlag & DIF_CHECK_LBA) != 0) {
        const uint32_t expected = static_cast<uint32_t>(param.lba) + block.index;
        const uint32_t actual = tupleLba(block.tuple(info));
        if (actual != expected) {
            DIF_WARN_BLOCK(__func__, block, info,
                           "DIF_WARNING_CHECK_DIF_WITH_STD_T10: LBA error: expected(%u), actual(%u),block(%u), "
                           "difPtr(%p), type(%u), ctrlFlag(0x%x).",
                           expected, actual, block.index, difPtr, param.type, param.ctrlFlag);
            return fail(param, DIF_RESULT_LBA_ERROR);
        }
    }
    if ((param.ctrlFlag & DIF_CHECK_CRC) != 0) {
        const uint16_t expected = crcGuardT10(block.data, info.dataSize, false);
        const uint16_t actual = tupleGuard(block.tuple(info));
        if (actual != expected) {
            DIF_WARN_BLOCK(__func__, block, info,
                           "DIF_WARNING_CHECK_DIF_WITH_STD_T10: CRC error: expected(0x%x), actual(0x%x),block(%u), "
                           "difPtr(%p), type(%u), ctrlFlag(0x%x).",
                           expected, actual, block.index, difPtr, param.type, param.ctrlFlag);
            return fail(param, DIF_RESULT_CRC_ERROR);
        }
    }
    return DIF_OK;
}
