#include "pass/checked_pass.h"

#include "io/error.h"
#include "io/progress.h"
#include "pass/pipeline.h"

#include <chrono>
#include <thread>

namespace difctl {

namespace {

/* Lets its caller wait until so many bytes a second have not been more than that. */
class Throttle {
public:
    explicit Throttle(std::optional<uint64_t> bytesPerSecond) : bytesPerSecond_(bytesPerSecond) {}

    void advance(uint64_t bytes) {
        bytes_ += bytes;
        if (bytesPerSecond_.value_or(0) != 0) {
            const std::chrono::duration<double> due(static_cast<double>(bytes_) /
                                                    static_cast<double>(*bytesPerSecond_));
            std::this_thread::sleep_until(start_ + std::chrono::duration_cast<Clock::duration>(due));
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    std::optional<uint64_t> bytesPerSecond_;
    uint64_t bytes_ = 0;
    Clock::time_point start_ = Clock::now();
};

} // namespace

Findings runCheckedPass(Source &source, const CheckedPass &pass) {
    const bool whole = pass.blocks.end == BlockRange().end;
    Progress progress(whole ? source.length() : (pass.blocks.end - pass.blocks.first) * pass.format.geometry.blockSize);
    Throttle throttle(pass.bytesPerSecond);
    Findings findings(pass.allBlocks);
    FaultRuns spoken(kMaxFaults, [&source](const FaultRun &run) { printMessage(source.name() + ": " + runText(run)); });
    FaultRuns &runs = pass.runs != nullptr ? *pass.runs : spoken;
    const auto consume = [&](Request &request) {
        findings.add(request);
        if (!request.faults.empty()) {
            progress.clear();
        }
        runs.add(request);
        pass.consume(request, findings);
        const uint64_t bytes = request.wholeBlocks(request.blockNum).bytes();
        progress.advance(bytes);
        throttle.advance(bytes);
        return pass.wholeImage || findings.complete();
    };
    try {
        runPipeline(source,
                    {pass.format, &Request::wholeBlocks, pass.process, consume, pass.blocks, pass.takesUnreadable});
    } catch (...) {
        runs.end();
        throw;
    }
    runs.end();
    if (spoken.untold() != 0) {
        printMessage(source.name() + ": " + untoldText(spoken.untold()));
    }
    return findings;
}

int runCheckedCopy(Source &source, Destination &destination, const CheckedCopy &copy) {
    const auto consume = [&](Request &request, const Findings &findings) {
        if (findings.failed() == 0) {
            request.rest = destination.write((request.*copy.layout)(request.blockNum));
        }
    };
    if (source.length()) {
        Request block;
        block.format = &copy.format;
        destination.requireRoom(source.unitNum() * (block.*copy.layout)(1).bytes());
    }
    try {
        const Findings findings = runCheckedPass(source, {copy.format, copy.allBlocks, copy.process, consume});
        if (findings.failed() != 0) {
            const std::string leftover = destination.leftoverNote();
            printMessage(source.name() + ": " + totalsText(findings) +
                         (leftover.empty() ? "; nothing is written to " + destination.name() : leftover));
            return kFaultsFound;
        }
    } catch (const Error &error) {
        throw Error(error.what() + destination.leftoverNote());
    }
    destination.commit();
    return kAllWell;
}

} // namespace difctl
