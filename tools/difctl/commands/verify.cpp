#include "commands/commands.h"
#include "io/error.h"
#include "io/progress.h"
#include "pass/pipeline.h"
#include "pass/report.h"

#include "dif_host.h"

#include <optional>

namespace difctl {

namespace {

std::string renderedMetrics() {
    std::string text;
    const auto collect = [](void *context, const char *piece, size_t size) {
        static_cast<std::string *>(context)->append(piece, size);
    };
    if (const int error = difHostRenderMetrics(collect, &text); error != 0) {
        throw systemError("metrics", "cannot be rendered", error);
    }
    return text;
}

} // namespace

int runVerify(const VerifyOptions &options) {
    const BlockFormat format = formatOf(options.blockSize, options.entryBytes);
    CheckOptions check = checkOptionsOf(options);
    check.report = options.report;
    Source source(options.image, format.geometry.blockSize);
    /* Whole or not there, as who collects it expects. */
    std::optional<Destination> metrics;
    if (!options.metrics.empty()) {
        metrics.emplace(options.metrics, true);
    }
    Progress progress(source.length());
    Findings findings(options.all);
    const std::string prefix = source.name() + ": ";
    std::string text = options.json ? jsonBegin(source.name(), options.blockSize, options.imageLba) : "";

    const auto process = [&](Request &request) {
        options.standard ? checkStandardRequest(request, check) : checkRequest(request, check);
    };
    const auto consume = [&](Request &request) {
        bool first = findings.failed() == 0;
        findings.add(request);
        for (const Fault &fault : request.faults) {
            text += options.json ? jsonFault(fault, first) : prefix + faultText(fault) + "\n";
            first = false;
        }
        if (!text.empty()) {
            progress.clear();
            printResult(text);
            text.clear();
        }
        progress.advance(request.wholeBlocks(request.blockNum).bytes());
        return options.report || findings.complete();
    };
    runPipeline(source, {format, &Request::wholeBlocks, process, consume});
    progress.clear();
    if (options.json) {
        text = jsonEnd(findings, options.report);
    } else {
        text = (options.report ? reportText(findings) : "") + prefix + totalsText(findings) + "\n";
    }
    printResult(text);
    if (options.stats) {
        difHostRunCommand(DIF_HOST_DIAGNOSE, "dif showverifyresult", nullptr, nullptr);
    }
    if (metrics) {
        std::string rendered = renderedMetrics();
        metrics->write({reinterpret_cast<uint8_t *>(rendered.data()), rendered.size(), rendered.size(), 1});
        metrics->commit();
    }
    return findings.failed() == 0 ? kAllWell : kFaultsFound;
}

} // namespace difctl
