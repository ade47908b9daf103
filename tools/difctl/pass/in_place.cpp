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

} // namespace

InPlaceImage::InPlaceImage(const std::string &path, const Claims &claims, const CheckOptions &check, bool force)
    : file_(path, ImageFile::Use::kChange), seen_(recognise(file_, claims, check, force)), check_(check), force_(force),
      blockNum_(Source(file_, seen_.format.geometry.blockSize).unitNum()) {
    check_.imageLba = seen_.firstLba;
    const bool showsFields = seen_.looks.best() != nullptr;
    if (!showsFields && seen_.looks.holdsData) {
        throw Error(name() + ": holds data but shows no fields to change, of either block size; protect writes fields");
    }
    if (!showsFields && !force) {
        throw Error(name() +
                    ": holds nothing but zeros, no fields; relabel and inject write fields into it with --force");
    }
    holdingInterrupts([this](Unfinished &unfinished) { unfinished.note = note(); });
}

std::string InPlaceImage::note() const {
    if (doneBlocks_ == 0 && !writing_) {
        return "; nothing is changed";
    }
    return "; the blocks before block " + std::to_string(doneBlocks_) + " of " + std::to_string(blockNum_) +
           " are done" + (writing_ ? ", some of those behind them may be" : "");
}

void InPlaceImage::requireGuard(uint8_t version, const std::string &said) const {
    difctl::requireGuard(file_, *seen_.looks.best(), version, said);
}

bool InPlaceImage::mayChange() const {
    if (force_) {
        return true;
    }
    Source source(file_, seen_.format.geometry.blockSize);
    const auto process = [this](Request &request) { checkRequest(request, check_); };
    const Findings findings =
        runCheckedPass(source, {seen_.format, check_.allBlocks, process, [](Request &, const Findings &) {}});
    if (findings.failed() != 0) {
        printMessage(name() + ": " + totalsText(findings) + "; it looks like " + seen_.looks.best()->text() +
                     "; nothing is changed, --force goes ahead without this check");
    }
    return findings.failed() == 0;
}

Findings InPlaceImage::change(const std::function<void(Request &)> &change, const BlockRange &blocks) {
    try {
        Source source(file_, seen_.format.geometry.blockSize);
        const auto process = [&change](Request &request) {
            request.keepTuples();
            change(request);
        };
        const auto consume = [this](Request &request, const Findings & /*findings*/) { writeBack(request); };
        CheckedPass pass = {seen_.format, true, process, consume, blocks};
        pass.takesUnreadable = check_.takesUnreadable;
        const Findings findings = runCheckedPass(source, pass);
        file_.requireLength();
        file_.sync();
        return findings;
    } catch (const Error &error) {
        throw Error(error.what() + note());
    }
}

void InPlaceImage::writeBack(const Request &request) {
    const DifTypeInfo &geometry = seen_.format.geometry;
    holdingInterrupts([&](Unfinished &unfinished) {
        file_.requireLength();
        /* Neighbours together: what a device cannot read, it takes when it need not read it first. */
        for (size_t at = 0, count = 1; at < request.replaced.size(); at += count, count = 1) {
            const uint32_t first = request.replaced[at];
            while (at + count < request.replaced.size() && request.replaced[at + count] == first + count) {
                ++count;
            }
            writing_ = true;
            const size_t bytes = count * geometry.blockSize;
            file_.write((request.firstBlock + first) * geometry.blockSize, {request.block(first), bytes, bytes, 1});
        }
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
