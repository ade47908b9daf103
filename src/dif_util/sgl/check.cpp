/* The check over lists, asserting and returning errors. */
#include "dif/check.h"
#include "dif/sgl.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/limited_log.h"
#include "dif_util/core/section.h"
#include "dif_util/core/settings.h"
#include "dif_util/sgl/chain_dump.h"
#include "dif_util/sgl/position.h"
#include "dif_util/sgl/run_walk.h"
#include "dif_util/sgl/trim.h"
#include "dif_util/verify/check_call.h"
#include "dif_util/verify/check_identity.h"

namespace {

DIF_CHECK_HELPER bool isUsable(const Sgl *sgl, const DifCheckParam *param) {
    return sgl != nullptr && param != nullptr && isCheckType(param->type);
}

} // namespace

uint32_t checkDifInSglInputCheck(const Sgl *sgl, const DifCheckParam *param, const char *funcName) {
    if (isUsable(sgl, param)) {
        return DIF_OK;
    }
    if (sgl == nullptr || param == nullptr) {
        DIF_LOG_LIMITED(InputErrorLimiter, kLogError, "Input err, sgl:%p, param:%p, func: %s.",
                        static_cast<const void *>(sgl), static_cast<const void *>(param), funcName);
    } else {
        DIF_LOG_LIMITED(InputErrorLimiter, kLogError, "Dif type err, data type: %u, func: %s.", param->type, funcName);
    }
    return DIF_FAIL;
}

DIF_CHECK_TEXT uint32_t checkDifInSgl(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifCheckParam *param,
                                      const char *funcName, int32_t line) {
    if (!isDifOn()) {
        noDifSetCheckResultInSgl(sgl, offsetByte, sectorNum, param);
        return DIF_OK;
    }
    if (!isUsable(sgl, param)) {
        checkDifInSglInputCheck(sgl, param, funcName);
        return DIF_ERR_CHECK;
    }
    if (param->ctrlFlag == DIF_CHECK_TRIM_ZERO) {
        trimDataInSgl(sgl, offsetByte, sectorNum, param);
        return DIF_OK;
    }
    if (checkIdentity(*param, funcName, line) != DIF_OK) {
        DIF_ASSERT_NEVER();
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    DIF_ASSERT_BLOCKS(blockNum, sectorNum, param->type, info);
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    const SglPosition start = getStartSglByOffset(range);
    CheckProgress progress;
    CheckCall call{*param, progress};
    static constinit ChainAssertions assertions;
    walkRuns({__func__, &assertions}, range, start, info, blockNum,
             [&](uint8_t *data, uint32_t n, uint32_t startBlock) {
                 call.run(data, n, info, startBlock);
                 return !call.isDone();
             });
    return call.finish();
}

uint32_t checkDifInSglWithErrRetInputCheck(const Sgl *sgl, const DifCheckParam *param, const char *funcName) {
    if (isUsable(sgl, param)) {
        return DIF_OK;
    }
    if (sgl == nullptr || param == nullptr) {
        DIF_LOG(kLogError, "DIF_ARG_ERROR: sgl(%p), param(%p), func(%s).", static_cast<const void *>(sgl),
                static_cast<const void *>(param), funcName);
    } else {
        DIF_LOG(kLogError, "DIF_ARG_ERROR: type(%u), func(%s).", param->type, funcName);
    }
    return DIF_FAIL;
}

uint32_t checkDifInSglWithErrorReturn(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, DifCheckParam *param,
                                      const char *funcName, int32_t line) {
    if (!isDifOn()) {
        noDifSetCheckResultInSgl(sgl, offsetByte, sectorNum, param);
        return DIF_OK;
    }
    if (checkDifInSglWithErrRetInputCheck(sgl, param, funcName) != DIF_OK ||
        checkIdentity(*param, funcName, line) != DIF_OK) {
        return DIF_ERR_SGL;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    if (blockNum == 0) {
        DIF_LOG(kLogError, DIF_NO_BLOCKS_FORMAT, sectorNum, param->type, info.blockSize);
        difPrintSglDetail(range);
        return DIF_ERR_SGL;
    }
    SglPosition start;
    const uint32_t positioned = getStartSglByOffsetWithReturn(range, start);
    if (positioned != DIF_OK) {
        return positioned;
    }
    CheckProgress progress;
    CheckCall call{*param, progress};
    const uint32_t walked = walkRuns({__func__, nullptr}, range, start, info, blockNum,
                                     [&](uint8_t *data, uint32_t n, uint32_t startBlock) {
                                         call.run(data, n, info, startBlock);
                                         return !call.isDone();
                                     });
    return walked == DIF_OK ? call.finish() : walked;
}
