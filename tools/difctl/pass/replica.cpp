#include "pass/replica.h"

#include "io/error.h"
#include "io/source.h"

#include <algorithm>

namespace difctl {

namespace {

constexpr uint64_t kSample = 1024;

} // namespace

Replica::Replica(const std::string &path, const ImageFile &image, const Recognition &seen, const CheckOptions &check,
                 bool force)
    : file_(path, ImageFile::Use::kRead), format_(seen.format), check_(check) {
    const auto refuse = [&](const std::string &why) {
        return Error(name() + ": is no replica of " + image.name() + ": " + why);
    };
    if (seen.looks.best() == nullptr) {
        throw Error(image.name() + ": shows no fields, so that all of it would be another image; copy " + name());
    }
    const uint64_t blockNum = Source(image, format_.geometry.blockSize).unitNum();
    const auto looks = lookAt(file_, image::Extent::kSample, true);
    const FormatEvidence *best = looks.best();
    const bool isOther =
        best != nullptr && (best->format->type != format_.type || best->isStandard() != check.standard ||
                            (check.compareLbas && best->firstLba() && !best->allowsFirstLba(check.imageLba)));
    if (isOther) {
        throw refuse("it looks like " + best->text() + ", not " + seen.text(check.compareLbas));
    }
    if (const uint64_t own = Source(file_, format_.geometry.blockSize).unitNum(); own != blockNum) {
        throw refuse("it has " + std::to_string(own) + " blocks, not " + std::to_string(blockNum));
    }
    if (!force) {
        requireLikeness(image, blockNum);
    }
}

bool Replica::readGood(const ImageFile &file, uint64_t block, std::vector<uint8_t> &bytes) const {
    const uint32_t blockSize = format_.geometry.blockSize;
    bytes.resize(blockSize);
    try {
        if (readAll(file, block * blockSize, bytes) != blockSize) {
            throw Error(file.name() + ": has no block " + std::to_string(block) + " any more");
        }
    } catch (const Unreadable &) {
        return false;
    }
    Request request;
    request.format = &format_;
    request.buf = bytes.data();
    request.firstBlock = block;
    request.blockNum = 1;
    CheckOptions check = check_;
    check.requireProtected = true;
    checkRequest(request, check);
    return request.faults.empty();
}

void Replica::requireLikeness(const ImageFile &image, uint64_t blockNum) const {
    uint64_t good = 0;
    uint64_t same = 0;
    std::vector<uint8_t> ours;
    std::vector<uint8_t> theirs;
    const uint64_t sample = std::min(kSample, blockNum);
    for (uint64_t i = 0; i < sample; ++i) {
        const uint64_t block = i * blockNum / sample;
        if (readGood(image, block, ours) && readGood(file_, block, theirs) &&
            !isZero(ours.data(), format_.geometry.dataSize)) { /* empty blocks are the same in every image */
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
        request.unprotected -= fault.kind == FaultKind::kUnprotected ? 1 : 0;
        ++taken_;
        return true;
    };
    request.faults.erase(std::remove_if(request.faults.begin(), request.faults.end(), takes), request.faults.end());
}

} // namespace difctl
