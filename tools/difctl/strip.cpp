#include "commands.h"
#include "error.h"
#include "pipeline.h"
#include "progress.h"
#include "report.h"

namespace difctl {

int runStrip(const StripOptions &options) {
    const BlockFormat &format = formatOfBlockSize(options.blockSize);
    const CheckOptions check = checkOptionsOf(options);
    Source source(options.image, format.geometry.blockSize);
    Destination destination(options.destination, options.force);
    Progress progress(source.length(), options.progress);
    Findings findings(options.all);
    const auto process = [&](Request &request) { checkRequest(request, check); };
    const auto consume = [&](Request &request) {
        findings.add(request);
        for (const Fault &fault : request.faults) {
            printMessage(source.name() + ": " + faultText(fault));
        }
        if (findings.failed() == 0) {
            destination.write(request.dataOnly(request.blockNum));
        }
        progress.advance(request.wholeBlocks(request.blockNum).bytes());
        return findings.complete();
    };
    try {
        runPipeline(source, {format, &Request::wholeBlocks, process, consume});
    } catch (const Error &error) {
        throw Error(error.what() + destination.leftoverNote());
    }
    if (findings.failed() != 0) {
        const std::string leftover = destination.leftoverNote();
        printMessage(source.name() + ": " + totalsText(findings) +
                     (leftover.empty() ? "; nothing is written to " + destination.name() : leftover));
        return kFaultsFound;
    }
    destination.commit();
    return kAllWell;
}

} // namespace difctl
