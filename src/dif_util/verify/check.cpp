/* The check of a contiguous buffer. */
#include "dif/check.h"

#include "dif_util/core/arguments.h"
#include "dif_util/core/limited_log.h"
#include "dif_util/core/settings.h"
#include "dif_util/verify/check_call.h"
#include "dif_util/verify/check_identity.h"

uint32_t checkDif(uint8_t *buf, uint32_t sectorNum, DifCheckParam *param, const char *funcName, int32_t line) {
    if (!isDifOn()) {
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
    if (checkIdentity(*param, funcName, line) != DIF_OK) {
        DIF_ASSERT_NEVER();
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockNum, sectorNum, param->type, info);
    CheckProgress progress;
    CheckCall call{*param, progress};
    call.run(buf, blockNum, info, 0);
    return call.finish();
}
