#include "pass/replica.h"

#include "io/error.h"
#include "io/source.h"

#include <algorithm>
#include <cstring>

namespace difctl {

namespace {

constexpr uint64_t kSample = 256;

} // namespace

Replica::Replica(const std::string &path, Claims &claims, const CheckOptions &check)
    : file_(path, ImageFile::Use::kRead), seen_(recognise(file_, claims, check)), check_(check),
      blockNum_(Source(file_, seen_.format.geometry.blockSize).unitNum()) {
    claims.blockSize = seen_.format.geometry.blockSize;
    claims.firstLba = seen_.firstLba;
    check_.imageLba = seen_.firstLba;
}

bool Replica::readGood(const ImageFile &file, uint64_t block, std::vector<uint8_t> &bytes) const {
    const uint32_t blockSize = seen_.format.geometry.blockSize;
    bytes.resize(blockSize);
    readAll(file, block * blockSize, bytes);
    Request request;
    request.format = &seen_.format;
    request.buf = bytes.data();
    request.firstBlock = block;
    request.blockNum = 1;
    CheckOptions check = check_;
    check.requireProtected = true;
    checkRequest(request, check);
    return request.faults.empty();
}

void Replica::requireLikeness(const ImageFile &image, bool force) {
    const uint64_t blockNum = Source(image, seen_.format.geometry.blockSize).unitNum();
    if (blockNum != blockNum_) {
        throw Error(name() + ": is no replica of " + image.name() + ": it has " + std::to_string(blockNum_) +
                    " blocks, not " + std::to_string(blockNum));
    }
    uint64_t good = 0;
    uint64_t same = 0;
    std::vector<uint8_t> ours;
    std::vector<uint8_t> theirs;
    for (uint64_t i = 0; i < std::min(kSample, blockNum_) && !force; ++i) {
        const uint64_t block = i * blockNum_ / std::min(kSample, blockNum_);
        if (readGood(image, block, ours) && readGood(file_, block, theirs)) {
            ++good;
            same += ours == theirs ? 1 : 0;
        }
    }
    if (2 * same < good) {
        throw Error(name() + ": is no replica of " + image.name() + ": of " + std::to_string(good) +
                    " blocks that pass in both, " + std::to_string(good - same) + " differ; --force goes ahead");
    }
}

void Replica::heal(Request &request) {
    checkRequest(request, check_);
    request.replaced.clear();
    std::vector<uint8_t> bytes;
    const auto takes = [&](const Fault &fault) {
        if (!readGood(file_, fault.block, bytes)) {
            return false;
        }
        request.replaceBlock(static_cast<uint32_t>(fault.block - request.firstBlock), bytes.data());
        ++taken_;
        return true;
    };
    request.faults.erase(std::remove_if(request.faults.begin(), request.faults.end(), takes), request.faults.end());
}

} // namespace difctl
