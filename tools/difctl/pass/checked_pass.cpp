#include "pass/checked_pass.h"

#include "io/error.h"
#include "io/progress.h"
#include "pass/pipeline.h"

namespace difctl {

Findings runCheckedPass(Source &source, const CheckedPass &pass) {
    const bool whole = pass.blocks.end == BlockRange().end;
    Progress progress(whole ? source.length() : (pass.blocks.end - pass.blocks.first) * pass.format.geometry.blockSize);
    Findings findings(pass.allBlocks);
    const auto consume = [&](Request &request) {
        findings.add(request);
        for (const Fault &fault : request.faults) {
            printMessage(source.name() + ": " + faultText(fault));
        }
        pass.consume(request, findings);
        progress.advance(request.wholeBlocks(request.blockNum).bytes());
        return findings.complete();
    };
    runPipeline(source, {pass.format, &Request::wholeBlocks, pass.process, consume, pass.blocks});
    return findings;
}

int runCheckedCopy(Source &source, Destination &destination, const CheckedCopy &copy) {
    const auto consume = [&](Request &request, const Findings &findings) {
        if (findings.failed() == 0) {
            destination.write((request.*copy.layout)(request.blockNum));
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
