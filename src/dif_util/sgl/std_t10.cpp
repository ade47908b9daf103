/* The check of plain T10 tuples over a list. */
#include "dif_util/verify/std_t10.h"
#include "dif/sgl.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/limited_log.h"
#include "dif_util/core/settings.h"
#include "dif_util/sgl/chain_dump.h"
#include "dif_util/sgl/position.h"
#include "dif_util/sgl/run_walk.h"

uint32_t checkDifInSglWithStdT10(const Sgl *sgl, uint32_t offsetByte, uint32_t sectorNum, const DifCheckParam *param) {
    if (!isDifOn()) {
        return DIF_OK;
    }
    if (sgl == nullptr || param == nullptr) {
        DIF_LOG_LIMITED(EventLimiter, kLogError, "DIF_ARG_ERROR: sgl(%p), param(%p).", static_cast<const void *>(sgl),
                        static_cast<const void *>(param));
        return DIF_ERR_SGL;
    }
    if (!isCheckType(param->type)) {
        DIF_LOG_LIMITED(EventLimiter, kLogError, "DIF_ARG_ERROR: invalid type(%u).", param->type);
        return DIF_ERR_SGL;
    }
    const DifTypeInfo &info = kTypeInfo[param->type];
    const uint32_t blockNum = sectorNum >> info.sectorShift;
    const SglRange range{sgl, offsetByte, sectorNum, info.blockSize};
    if (blockNum == 0) {
        DIF_LOG_LIMITED(EventLimiter, kLogError, DIF_NO_BLOCKS_FORMAT, sectorNum, param->type, info.blockSize);
        difPrintSglDetail(range);
        return DIF_ERR_SGL;
    }
    SglPosition start;
    const uint32_t positioned = getStartSglByOffsetWithReturn(range, start);
    if (positioned != DIF_OK) {
        return positioned;
    }
    if (param->checkResult != nullptr) {
        *param->checkResult = 0;
    }
    uint32_t ret = DIF_OK;
    const uint32_t walked = walkRuns({__func__, nullptr}, range, start, info, blockNum,
                                     [&](uint8_t *data, uint32_t n, uint32_t startBlock) {
                                         for (uint32_t k = 0; k < n && ret == DIF_OK; ++k, data += info.blockSize) {
                                             ret = checkDifIntegrityWithStdT10({data, startBlock + k}, info, *param);
                                         }
                                         return ret == DIF_OK;
                                     });
    return walked == DIF_OK ? ret : walked;
}
