/* On whose behalf a check is made. */
#pragma once

#include "dif/types.h"
#include "dif_util/core/section.h"
#include "dif_util/verify/verify_point_registry.h"

#include <cstdint>

/* Logs that `param` names no registered verify point. Returns DIF_FAIL. */
[[gnu::cold]] uint32_t refuseIdentity(const DifCheckParam &param, const char *funcName, int32_t line);

/* What checkDifParamCheck tells others: a check of guard or LBA is made for a registered verify point. */
DIF_CHECK_HELPER uint32_t checkIdentity(const DifCheckParam &param, const char *funcName, int32_t line) {
    if ((param.ctrlFlag & (DIF_CHECK_CRC | DIF_CHECK_LBA)) == 0 ||
        (param.subPid != 0 && param.subPid <= verifyPointNumOf(param.mid))) [[likely]] {
        return DIF_OK;
    }
    return refuseIdentity(param, funcName, line);
}
