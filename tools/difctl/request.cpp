#include "request.h"

#include "library.h"

#include <cstddef>
#include <cstring>

namespace difctl {

namespace {

DifCheckParam checkParamOf(const Request &request, const CheckOptions &options) {
    DifCheckParam param = {};
    param.type = request.format->type;
    param.ctrlFlag = DIF_CHECK_CRC | (options.compareLbas ? DIF_CHECK_LBA : 0);
    param.crcLevel = DIF_VERIFY_LEVEL_CRITICAL;
    param.lbaLevel = DIF_VERIFY_LEVEL_CRITICAL;
    param.mid = kVerifyModule;
    param.subPid = kVerifyPoint;
    param.lba = options.imageLba + request.firstBlock;
    return param;
}

/* Why block `index` fails. The block engine on a result word of its own: it counts and logs nothing. */
FaultKind kindOfFailure(const Request &request, uint32_t index, const CheckOptions &options) {
    uint32_t result = 0;
    DifCheckParam param = checkParamOf(request, options);
    param.lba += index;
    param.checkResult = &result;
    uint8_t resultSettled = 0;
    uint8_t integrityDone = 0;
    initDifCheckResults(&param, &resultSettled, &integrityDone);
    const DifTypeInfo &geometry = request.format->geometry;
    checkDifInBlocks(request.buf + size_t{index} * geometry.blockSize, 1, &geometry, &param, index, &resultSettled,
                     &integrityDone);
    if ((result & DIF_RESULT_VERSION_ERROR) != 0) {
        return FaultKind::kVersion;
    }
    return (result & DIF_RESULT_LBA_ERROR) != 0 ? FaultKind::kLba : FaultKind::kGuard;
}

const uint8_t *tupleOf(const Request &request, uint32_t index) {
    const DifTypeInfo &geometry = request.format->geometry;
    return request.buf + size_t{index} * geometry.blockSize + geometry.difOffset;
}

} // namespace

Pieces Request::wholeBlocks(uint32_t blocks) const {
    const size_t bytes = size_t{blocks} * format->geometry.blockSize;
    return {buf, bytes, bytes, 1};
}

Pieces Request::dataOnly(uint32_t blocks) const {
    return {buf, format->geometry.dataSize, format->geometry.blockSize, blocks};
}

void protectRequest(Request &request, uint32_t insertFlags, uint64_t imageLba) {
    DifOpParam param = {};
    param.type = request.format->type;
    param.ctrlFlag = insertFlags;
    param.lba = imageLba + request.firstBlock;
    insertDif(request.buf, request.sectorNum(), &param);
}

void checkRequest(Request &request, const CheckOptions &options) {
    std::vector<uint32_t> failed(request.blockNum / 32 + 1);
    DifCheckParam param = checkParamOf(request, options);
    param.ctrlFlag |= options.allBlocks ? DIF_CHECK_ALL_BLOCKS : 0;
    param.ctrlFlag |= options.report ? DIF_CHECK_REPORT_MASK : 0;
    param.checkResult = &request.checkResult;
    param.errBlockBitmap = failed.data();
    request.faults.clear();
    const bool passed = checkDif(request.buf, request.sectorNum(), &param, __func__, __LINE__) == DIF_OK;
    if (passed && !options.requiredVersion) {
        return;
    }
    for (uint32_t index = 0; index < request.blockNum; ++index) {
        const uint8_t *tuple = tupleOf(request, index);
        const uint8_t version = tuple[offsetof(DifTuple, version)];
        const bool checkFailed = (failed[index / 32] >> (index % 32) & 1U) != 0;
        if (!checkFailed && version == options.requiredVersion.value_or(version)) {
            continue;
        }
        Fault fault = {request.firstBlock + index, param.lba + index, FaultKind::kVersion, {}};
        if (checkFailed) {
            fault.kind = kindOfFailure(request, index, options);
        }
        std::memcpy(fault.tuple.data(), tuple, fault.tuple.size());
        request.faults.push_back(fault);
        if (!options.allBlocks) {
            return;
        }
    }
}

} // namespace difctl
