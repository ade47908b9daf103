#include "pass/in_place.h"

#include "io/error.h"
#include "io/interrupt.h"
#include "io/progress.h"
#include "pass/checked_pass.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

namespace difctl {

namespace {

/* Bytes of a tuple. */
struct Span {
    size_t first = sizeof(DifTuple);
    size_t end = 0;

    bool operator==(const Span &) const = default;
};

constexpr std::array<Span, 4> kFields = {{{offsetof(DifTuple, crc), offsetof(DifTuple, version)},
                                          {offsetof(DifTuple, version), offsetof(DifTuple, app)},
                                          {offsetof(DifTuple, app), offsetof(DifTuple, lba)},
                                          {offsetof(DifTuple, lba), sizeof(DifTuple)}}};

/* From the first to the last field that differs from what the request kept; empty, with no end, if none does. */
Span changedFields(const Request &request, uint32_t index) {
    Span span;
    const uint8_t *now = request.tuple(index);
    const uint8_t *kept = request.keptTuple(index);
    for (const Span &field : kFields) {
        if (!std::equal(now + field.first, now + field.end, kept + field.first)) {
            span = {std::min(span.first, field.first), field.end};
        }
    }
    return span;
}

class FileReader : public image::Reader {
public:
    explicit FileReader(const ImageFile &file) : file_(file) {}

    uint64_t length() override { return file_.length().value_or(0); }

    uint64_t read(uint64_t offset, uint8_t *bytes, uint64_t size) override {
        const Pieces pieces = {bytes, size, size, 1};
        for (uint64_t done = 0; done < size;) {
            const ssize_t moved = file_.read(offset + done, pieces, done);
            if (moved < 0) {
                throw systemError(file_.name(), "cannot read at offset " + std::to_string(offset + done), errno);
            }
            if (moved == 0) {
                return done;
            }
            done += static_cast<uint64_t>(moved);
        }
        return size;
    }

    uint64_t nextData(uint64_t offset) override { return file_.nextData(offset); }

private:
    const ImageFile &file_;
};

ImageFormat look(const ImageFile &file) {
    FileReader reader(file);
    return lookAtFormat(reader);
}

} // namespace

InPlaceImage::InPlaceImage(const std::string &path, const BlockFormat &format)
    : format_(format), file_(path, ImageFile::Use::kChange),
      blockNum_(Source(file_, format_.geometry.blockSize).unitNum()), looks_(look(file_)) {
    holdingInterrupts([this](Unfinished &unfinished) { unfinished.note = note(); });
}

std::string InPlaceImage::note() const {
    if (doneBlocks_ == 0 && !writing_) {
        return "; nothing is changed";
    }
    return "; the blocks before block " + std::to_string(doneBlocks_) + " of " + std::to_string(blockNum_) +
           " are done" + (writing_ ? ", some of those behind them may be" : "");
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
    const DifTypeInfo &geometry = format_.geometry;
    holdingInterrupts([&](Unfinished &unfinished) {
        file_.requireLength();
        for (uint32_t index = 0, count = 1; index < request.blockNum; index += count, count = 1) {
            const Span span = changedFields(request, index);
            while (index + count < request.blockNum && changedFields(request, index + count) == span) {
                ++count;
            }
            if (span.end != 0) {
                writing_ = true;
                const uint64_t offset =
                    (request.firstBlock + index) * geometry.blockSize + geometry.difOffset + span.first;
                file_.write(offset,
                            {request.tuple(index) + span.first, span.end - span.first, geometry.blockSize, count});
            }
        }
        doneBlocks_ = request.firstBlock + request.blockNum;
        writing_ = false;
        unfinished.note = note();
    });
}

} // namespace difctl
