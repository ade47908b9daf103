#include "pass/in_place.h"

#include "io/error.h"
#include "io/interrupt.h"
#include "io/progress.h"
#include "pass/checked_pass.h"

namespace difctl {

InPlaceImage::InPlaceImage(const std::string &name, const BlockFormat &format)
    : name_(name), format_(format), file_(name), blockNum_(Source(name, format_.geometry.blockSize).unitNum()) {
    holdingInterrupts([this](Unfinished &unfinished) { unfinished.note = note_; });
}

InPlaceImage::~InPlaceImage() {
    holdingInterrupts([](Unfinished &unfinished) { unfinished = {}; });
}

bool InPlaceImage::passes(const CheckOptions &check) const {
    Source source(name_, format_.geometry.blockSize);
    const auto process = [&](Request &request) { checkRequest(request, check); };
    const Findings findings =
        runCheckedPass(source, {format_, check.allBlocks, process, [](Request &, const Findings &) {}});
    if (findings.failed() != 0) {
        printMessage(name_ + ": " + totalsText(findings) +
                     "; nothing is changed, --force goes ahead without this check");
    }
    return findings.failed() == 0;
}

Findings InPlaceImage::change(const std::function<void(Request &)> &change, const BlockRange &blocks) {
    try {
        Source source(name_, format_.geometry.blockSize);
        const auto consume = [this](Request &request, const Findings & /*findings*/) { writeBack(request); };
        const Findings findings = runCheckedPass(source, {format_, true, change, consume, blocks});
        file_.sync();
        return findings;
    } catch (const Error &error) {
        throw Error(error.what() + note_);
    }
}

void InPlaceImage::writeBack(const Request &request) {
    holdingInterrupts([&](Unfinished &unfinished) {
        if (request.changed) {
            file_.write(request.firstBlock * format_.geometry.blockSize, request.wholeBlocks(request.blockNum));
        }
        note_ = "; the blocks before block " + std::to_string(request.firstBlock + request.blockNum) + " of " +
                std::to_string(blockNum_) + " are done";
        unfinished.note = note_;
    });
}

} // namespace difctl
