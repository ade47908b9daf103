#include "pass/request.h"

#include "pass/library.h"
#include "pass/request_list.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include <endian.h>

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
    Fault fault = {block, options.imageLba + block, kind, request.fields(index), {}};
    if (kind == FaultKind::kGuard) {
        const uint8_t version = options.standard ? uint8_t{DIF_VERSION_T10} : fault.tuple.version;
        fault.expected = guardOf(version, request.block(index), request.format->geometry.dataSize);
    } else if (kind == FaultKind::kLba) {
        fault.expected = static_cast<uint32_t>(fault.lba);
    } else if (kind == FaultKind::kVersion && options.requiredVersion) {
        fault.expected = *options.requiredVersion;
    }
    request.faults.push_back(fault);
}

/* Of a tuple that has passed the check. */
bool isUnprotected(const DifTuple &tuple, bool standard) {
    if (isExempt(tuple)) {
        return true;
    }
    const bool isZero = tuple.crc == 0 && tuple.version == 0 && tuple.app == 0 && tuple.lba == 0;
    return !standard && (isZero || tuple.version == DIF_VERSION_NO_CRC);
}

/* Names the faults among the blocks, of which those in `failed` have failed. */
void judge(Request &request, const CheckOptions &options, const std::vector<uint32_t> &failed,
           FaultKind (*kindOf)(const Request &, uint32_t, const CheckOptions &)) {
    for (uint32_t index = 0; index < request.blockNum; ++index) {
        const DifTuple tuple = request.fields(index);
        std::optional<FaultKind> kind;
        if (std::ranges::binary_search(request.unreadable, index)) {
            kind = FaultKind::kUnreadable;
        } else if ((failed[index / 32] >> (index % 32) & 1U) != 0) {
            kind = kindOf(request, index, options);
        } else if (options.requiredVersion.value_or(tuple.version) != tuple.version) {
            kind = FaultKind::kVersion;
        } else if (isUnprotected(tuple, options.standard)) {
            ++request.unprotected;
            kind = options.requireProtected ? std::optional(FaultKind::kUnprotected) : std::nullopt;
        }
        if (kind) {
            addFault(request, index, options, *kind);
            if (!options.allBlocks) {
                return;
            }
        }
    }
}

/* The blocks that fail as plain T10 protection information. */
std::vector<uint32_t> failedStandard(Request &request, const CheckOptions &options) {
    std::vector<uint32_t> failed(request.blockNum / 32 + 1);
    const RequestList list(request);
    DifCheckParam param = checkParamOf(request, options);
    if (checkDifInSglWithStdT10(list.root(), 0, request.sectorNum(), &param) == DIF_OK) {
        return failed;
    }
    /* The call does not tell where it ended: one call a block does, and goes on behind each. */
    const DifTypeInfo &geometry = request.format->geometry;
    for (uint32_t index = 0; index < request.blockNum; ++index, ++param.lba) {
        const uint32_t passed =
            checkDifInSglWithStdT10(list.root(), index * geometry.blockSize, 1U << geometry.sectorShift, &param);
        failed[index / 32] |= (passed == DIF_OK ? 0U : 1U) << index % 32;
    }
    return failed;
}

FaultKind kindOfStandardFailure(const Request &request, uint32_t index, const CheckOptions &options) {
    const auto expected = static_cast<uint32_t>(options.imageLba + request.firstBlock + index);
    const bool wrongLba = options.compareLbas && be32toh(request.fields(index).lba) != expected;
    return wrongLba ? FaultKind::kLba : FaultKind::kGuard;
}

} // namespace

void Request::keepTuples() {
    kept.resize(blockNum * sizeof(DifTuple));
    for (uint32_t index = 0; index < blockNum; ++index) {
        std::memcpy(kept.data() + index * sizeof(DifTuple), tuple(index), sizeof(DifTuple));
    }
}

void Request::replaceBlock(uint32_t index, const uint8_t *bytes) {
    std::memcpy(block(index), bytes, format->geometry.blockSize);
    replaced.push_back(index);
}

Pieces Request::wholeBlocks(uint32_t blocks) const {
    const size_t bytes = size_t{blocks} * format->geometry.blockSize;
    return {buf, bytes, bytes, 1};
}

Pieces Request::dataOnly(uint32_t blocks) const {
    return {buf, format->geometry.dataSize, format->geometry.blockSize, blocks};
}

DifTuple Request::fields(uint32_t index) const {
    DifTuple tuple = {};
    std::memcpy(&tuple, this->tuple(index), sizeof(tuple));
    return tuple;
}

bool isExempt(const DifTuple &tuple) {
    return tuple.version == 0xFF && tuple.app == 0xFF;
}

void protectRequest(Request &request, const ProtectOptions &options) {
    DifOpParam param = {};
    param.type = request.format->type;
    param.ctrlFlag = options.flags;
    param.lba = options.imageLba + request.firstBlock;
    insertDifInSgl(RequestList(request).root(), 0, request.sectorNum(), &param);
    for (uint32_t index = 0; options.standard && index < request.blockNum; ++index) {
        std::memset(request.tuple(index) + offsetof(DifTuple, version), 0,
                    sizeof(DifTuple::version) + sizeof(DifTuple::app));
    }
}

void checkRequest(Request &request, const CheckOptions &options) {
    request.faults.clear();
    request.unprotected = 0;
    if (options.standard) {
        judge(request, options, failedStandard(request, options), kindOfStandardFailure);
        return;
    }
    std::vector<uint32_t> failed(request.blockNum / 32 + 1);
    DifCheckParam param = checkParamOf(request, options);
    param.ctrlFlag |= options.allBlocks ? DIF_CHECK_ALL_BLOCKS : 0;
    param.ctrlFlag |= options.report ? DIF_CHECK_REPORT_MASK : 0;
    param.ctrlFlag |= options.convertToT10 ? DIF_CHECK_CONVERT_T10 : 0;
    param.checkResult = &request.checkResult;
    param.errBlockBitmap = failed.data();
    checkDifInSgl(RequestList(request).root(), 0, request.sectorNum(), &param, __func__, __LINE__);
    judge(request, options, failed, kindOfFailure);
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

void injectRequest(Request &request, const DifInjectParam &faults, uint64_t firstBlock) {
    DifInjectParam param = faults;
    param.type = request.format->type;
    param.lba += request.firstBlock - firstBlock;
    injectDifInSgl(RequestList(request).root(), 0, request.sectorNum(), &param);
}

void replaceRequest(Request &request, const ReplaceOptions &options) {
    std::vector<uint32_t> bitmap = bitmapOf(options.blocks, request.firstBlock, request.blockNum);
    for (uint32_t index = 0; index < request.blockNum && !bitmap.empty() && !options.unwritten; ++index) {
        if (isZero(request.block(index), request.format->geometry.blockSize)) {
            bitmap[index / 32] &= ~(1U << index % 32);
        }
    }
    if (!bitmap.empty()) {
        DifOpParam param = {};
        param.blockBitmap = bitmap.data();
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
        replaceRequest(folded, {DIF_REPLACE_LBA, *imageLba});
    }
}

} // namespace difctl
