#include "dif_util/verify/check_identity.h"

#include "dif/check.h"
#include "log.h"

uint32_t checkDifParamCheck(const DifCheckParam *param, const char *funcName, int32_t line) {
    return checkIdentity(*param, funcName, line);
}

uint32_t refuseIdentity(const DifCheckParam &param, const char *funcName, int32_t line) {
    hostlog(DIF_MODULE_ID, kLogError, DIF_SOURCE_MODULE, __LINE__, "checkDifParamCheck", kLogId,
            "DIF_ERROR_MID_OR_VERIFY_POINT: mid(%u), verify_point(%u), verify_point_num(%u), funcName(%s), line(%d).",
            param.mid, param.subPid, verifyPointNumOf(param.mid), funcName, line);
    return DIF_FAIL;
}
