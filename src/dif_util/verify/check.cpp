/* The check of a contiguous buffer. */
#include "dif/check.h"

#include "dif/runtime.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/limited_log.h"
#include "dif_util/verify/check_call.h"
#include "dif_util/verify/verify_point_registry.h"

uint32_t checkDifParamCheck(const DifCheckParam *param, const char *funcName, int32_t line) {
    if ((param->ctrlFlag & (DIF_CHECK_CRC | DIF_CHECK_LBA)) == 0) {
        return DIF_OK;
    }
    const uint32_t registered = verifyPointNumOf(param->mid);
    if (param->subPid != 0 && param->subPid <= registered) {
        return DIF_OK;
    }
    DIF_LOG(kLogError,
            "DIF_ERROR_MID_OR_VERIFY_POINT: mid(%u), verify_point(%u), verify_point_num(%u), funcName(%s), line(%d).",
            param->mid, param->subPid, registered, funcName, line);
    return DIF_FAIL;
}

uint32_t checkDif(uint8_t *buf, uint32_t sectorNum, DifCheckParam *param, const char *funcName, int32_t line) {
    if (getDifOn() == 0) {
        noDifSetCheckResult(buf, sectorNum, param);
        return DIF_OK;
    }
    if (buf == nullptr || param == nullptr) {
        DIF_LOG_LIMITED(InputErrorLimiter, kLogError, "Input error, buf is %p, param is %p.",
                        static_cast<const void *>(buf), static_cast<const void *>(param));
        return DIF_ERR_CHECK;
    }
    if (!isCheckType(param->type)) {
        DIF_LOG_LIMITED(InputErrorLimiter, kLogError, "Dif data type error, cur dif data type is %u.", param->type);
        return DIF_ERR_CHECK;
    }
    if (checkDifParamCheck(param, funcName, line) != DIF_OK) {
        DIF_ASSERT_NEVER();
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockNum, sectorNum, param->type, info);
    CheckCall call{*param};
    call.run(buf, blockNum, info, 0);
    return call.finish();
}
