#include "pass/request.h"

#include "pass/library.h"
#include "pass/request_list.h"

#include <cstddef>
#include <cstring>

namespace difctl {

namespace {

DifCheckParam checkParam(const BlockFormat &format, uint32_t ctrlFlag, uint64_t lba) {
    DifCheckParam param = {};
    param.type = format.type;
    param.ctrlFlag = ctrlFlag;
    param.crcLevel = DIF_VERIFY_LEVEL_CRITICAL;
    param.lbaLevel = DIF_VERIFY_LEVEL_CRITICAL;
    param.mid = kVerifyModule;
    param.subPid = kVerifyPoint;
    param.lba = lba;
    return param;
}

DifCheckParam checkParamOf(const Request &request, const CheckOptions &options) {
    return checkParam(*request.format, DIF_CHECK_CRC | (options.compareLbas ? DIF_CHECK_LBA : 0),
                      options.imageLba + request.firstBlock);
}

FaultKind kindOfFailure(const Request &request, uint32_t index, const CheckOptions &options) {
    const uint32_t result = checkBlock(request, index, checkParamOf(request, options).ctrlFlag,
                                       options.imageLba + request.firstBlock + index);
    if ((result & DIF_RESULT_VERSION_ERROR) != 0) {
        return FaultKind::kVersion;
    }
    return (result & DIF_RESULT_LBA_ERROR) != 0 ? FaultKind::kLba : FaultKind::kGuard;
}

void addFault(Request &request, uint32_t index, const CheckOptions &options, FaultKind kind) {
    const uint64_t block = request.firstBlock + index;
    Fault &fault = request.faults.emplace_back(Fault{block, options.imageLba + block, kind, {}});
    std::memcpy(fault.tuple.data(), request.tuple(index), fault.tuple.size());
}

uint8_t versionOf(const Request &request, uint32_t index) {
    return request.tuple(index)[offsetof(DifTuple, version)];
}

} // namespace

void Request::keepTuples() {
    kept.resize(blockNum * sizeof(DifTuple));
    for (uint32_t index = 0; index < blockNum; ++index) {
        std::memcpy(kept.data() + index * sizeof(DifTuple), tuple(index), sizeof(DifTuple));
    }
}

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
    insertDifInSgl(RequestList(request).root(), 0, request.sectorNum(), &param);
}

void checkRequest(Request &request, const CheckOptions &options) {
    std::vector<uint32_t> failed(request.blockNum / 32 + 1);
    DifCheckParam param = checkParamOf(request, options);
    param.ctrlFlag |= options.allBlocks ? DIF_CHECK_ALL_BLOCKS : 0;
    param.ctrlFlag |= options.report ? DIF_CHECK_REPORT_MASK : 0;
    param.ctrlFlag |= options.convertToT10 ? DIF_CHECK_CONVERT_T10 : 0;
    param.checkResult = &request.checkResult;
    param.errBlockBitmap = failed.data();
    request.faults.clear();
    const bool passed =
        checkDifInSgl(RequestList(request).root(), 0, request.sectorNum(), &param, __func__, __LINE__) == DIF_OK;
    if (passed && !options.requiredVersion) {
        return;
    }
    for (uint32_t index = 0; index < request.blockNum; ++index) {
        const bool checkFailed = (failed[index / 32] >> (index % 32) & 1U) != 0;
        const uint8_t version = versionOf(request, index);
        if (!checkFailed && version == options.requiredVersion.value_or(version)) {
            continue;
        }
        addFault(request, index, options, checkFailed ? kindOfFailure(request, index, options) : FaultKind::kVersion);
        if (!options.allBlocks) {
            return;
        }
    }
}

uint32_t checkBlock(const Request &request, uint32_t index, uint32_t ctrlFlag, uint64_t lba) {
    uint32_t result = 0;
    DifCheckParam param = checkParam(*request.format, ctrlFlag, lba);
    param.checkResult = &result;
    uint8_t resultSettled = 0;
    uint8_t integrityDone = 0;
    initDifCheckResults(&param, &resultSettled, &integrityDone);
    checkDifInBlocks(request.block(index), 1, &request.format->geometry, &param, index, &resultSettled, &integrityDone);
    return result;
}

void checkStandardRequest(Request &request, const CheckOptions &options) {
    const RequestList list(request);
    DifCheckParam param = checkParamOf(request, options);
    request.faults.clear();
    if (checkDifInSglWithStdT10(list.root(), 0, request.sectorNum(), &param) == DIF_OK) {
        return;
    }
    /* The call does not tell where it ended: one call a block does, and goes on behind each. */
    param.checkResult = &request.checkResult;
    const DifTypeInfo &geometry = request.format->geometry;
    for (uint32_t index = 0; index < request.blockNum; ++index, ++param.lba) {
        if (checkDifInSglWithStdT10(list.root(), index * geometry.blockSize, 1U << geometry.sectorShift, &param) ==
            DIF_OK) {
            continue;
        }
        const bool wrongLba = (request.checkResult & DIF_RESULT_LBA_ERROR) != 0;
        addFault(request, index, options, wrongLba ? FaultKind::kLba : FaultKind::kGuard);
        if (!options.allBlocks) {
            return;
        }
    }
}

void injectRequest(Request &request, const DifInjectParam &faults, uint64_t firstBlock) {
    DifInjectParam param = faults;
    param.type = request.format->type;
    param.lba += request.firstBlock - firstBlock;
    injectDifInSgl(RequestList(request).root(), 0, request.sectorNum(), &param);
}

void replaceRequest(Request &request, const ReplaceOptions &options) {
    std::vector<uint32_t> bitmap;
    DifOpParam param = {};
    if (options.blocks) {
        bitmap = options.blocks->bitmapOf(request.firstBlock, request.blockNum);
        param.blockBitmap = bitmap.data();
    }
    if (!options.blocks || !bitmap.empty()) {
        param.type = request.format->type;
        param.ctrlFlag = options.flags;
        param.lba = options.imageLba + request.firstBlock;
        replaceDifInSgl(RequestList(request).root(), 0, request.sectorNum(), &param);
    }
}

void foldRequest(Request &request, std::optional<uint64_t> imageLba) {
    Request folded;
    folded.format = &kFormat4160;
    folded.buf = request.buf;
    folded.firstBlock = request.firstBlock / kFoldedBlocks;
    folded.blockNum = request.blockNum / kFoldedBlocks;
    const DifTypeInfo &large = kFormat4160.geometry;
    const size_t dataSize = request.format->geometry.dataSize;
    for (uint32_t index = 0; index < folded.blockNum; ++index) {
        DifTuple tuple = {};
        trans2LSectorDif(folded.block(index), kFoldedBlocks, &tuple);
        for (uint32_t small = 1; small < kFoldedBlocks; ++small) {
            std::memmove(folded.block(index) + small * dataSize, request.block(index * kFoldedBlocks + small),
                         dataSize);
        }
        std::memset(folded.tuple(index), 0, large.blockSize - large.dataSize);
        std::memcpy(folded.tuple(index), &tuple, sizeof(tuple));
    }
    if (imageLba) {
        replaceRequest(folded, {DIF_REPLACE_LBA, *imageLba, {}});
    }
}

} // namespace difctl
