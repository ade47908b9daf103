#include "pass/in_place.h"

#include "io/error.h"
#include "io/interrupt.h"
#include "io/progress.h"
#include "pass/checked_pass.h"

#include <algorithm>
#include <cstring>

namespace difctl {

InPlaceImage::InPlaceImage(const std::string &path, const BlockFormat &format)
    : format_(format), file_(path, ImageFile::Use::kChange),
      blockNum_(Source(file_, format_.geometry.blockSize).unitNum()), looks_(lookAtFormat(file_)) {
    holdingInterrupts([this](Unfinished &unfinished) { unfinished.note = note(); });
}

std::string InPlaceImage::note() const {
    return doneBlocks_ == 0 ? "; nothing is changed"
                            : "; the blocks before block " + std::to_string(doneBlocks_) + " of " +
                                  std::to_string(blockNum_) + " are done";
}

void InPlaceImage::requireFormat(const CheckOptions &check, bool force) const {
    const FormatEvidence *best = looks_.best();
    if (best == nullptr && looks_.holdsData) {
        throw Error(name() + ": holds data but shows no fields to change, of either block size; protect writes fields");
    }
    if (best == nullptr && !force) {
        throw Error(name() + ": holds nothing but zeros, no fields; --force writes fields into it");
    }
    if (best == nullptr) {
        return;
    }
    const uint32_t blockSize = format_.geometry.blockSize;
    if (const uint32_t fitting = best->format->geometry.blockSize; fitting != blockSize) {
        throw Error(name() + ": --block " + std::to_string(blockSize) + " contradicts its fields, which look like " +
                    best->text() + "; --block " + std::to_string(fitting) + " fits");
    }
    const auto firstLba = best->firstLba();
    if (!force && check.compareLbas && firstLba && !best->allowsFirstLba(check.imageLba)) {
        throw Error(name() + ": --first-lba " + std::to_string(check.imageLba) +
                    " contradicts its fields, which look like " + best->text() + "; --first-lba " +
                    std::to_string(*firstLba) + " fits, --no-lba leaves LBAs out of the check");
    }
}

bool InPlaceImage::mayChange(const CheckOptions &check, bool force) const {
    requireFormat(check, force);
    if (force) {
        return true;
    }
    Source source(file_, format_.geometry.blockSize);
    const auto process = [&](Request &request) { checkRequest(request, check); };
    const Findings findings =
        runCheckedPass(source, {format_, check.allBlocks, process, [](Request &, const Findings &) {}});
    if (findings.failed() != 0) {
        printMessage(name() + ": " + totalsText(findings) + "; it looks like " + looks_.best()->text() +
                     "; nothing is changed, --force goes ahead without this check");
    }
    return findings.failed() == 0;
}

Findings InPlaceImage::change(const std::function<void(Request &)> &change, const BlockRange &blocks) {
    try {
        Source source(file_, format_.geometry.blockSize);
        const auto process = [&change](Request &request) {
            request.keepTuples();
            change(request);
        };
        const auto consume = [this](Request &request, const Findings & /*findings*/) { writeBack(request); };
        const Findings findings = runCheckedPass(source, {format_, true, process, consume, blocks});
        file_.requireLength();
        file_.sync();
        return findings;
    } catch (const Error &error) {
        throw Error(error.what() + note());
    }
}

void InPlaceImage::writeBack(const Request &request) {
    holdingInterrupts([&](Unfinished &unfinished) {
        for (uint32_t index = 0; index < request.blockNum; ++index) {
            const uint8_t *tuple = request.tuple(index);
            const uint8_t *before = request.keptTuple(index);
            const uint8_t *end = tuple + sizeof(DifTuple);
            const uint8_t *first = std::mismatch(tuple, end, before).first;
            if (first == end) {
                continue;
            }
            while (end[-1] == before[end - 1 - tuple]) {
                --end;
            }
            const uint64_t block = request.firstBlock + index;
            const uint64_t offset = block * format_.geometry.blockSize + format_.geometry.difOffset;
            /* A write behind the end would bring back what another process has cut off. */
            file_.requireLength();
            file_.write(offset + static_cast<uint64_t>(first - tuple), first, static_cast<size_t>(end - first));
            doneBlocks_ = block + 1;
        }
        doneBlocks_ = request.firstBlock + request.blockNum;
        unfinished.note = note();
    });
}

} // namespace difctl
