#include "commands/options.h"
#include "io/destination.h"
#include "io/error.h"
#include "io/progress.h"
#include "pass/library.h"
#include "pass/pipeline.h"
#include "pass/report.h"

#include "dif_host.h"
#include "metrics_file.h"

#include <optional>

namespace difctl {

namespace {

struct VerifyOptions : CheckedImageOptions {
    bool standard = false;
    bool json = false;
    bool stats = false;
    std::optional<std::string> metrics; /* file to write */
};

std::string renderedMetrics() {
    std::string text;
    if (const int error = difHostRenderMetrics(collectText, &text); error != 0) {
        throw systemError("metrics", "cannot be rendered", error);
    }
    return text;
}

int runVerify(const VerifyOptions &options) {
    const BlockFormat format = formatOf(options.blockSize, options.entryBytes);
    const CheckOptions &check = options.check;
    const ImageFile file(options.image, ImageFile::Use::kRead);
    Source source(file, format.geometry.blockSize);
    /* Whole or not there, as who collects it expects. */
    std::optional<Destination> metrics;
    if (options.metrics) {
        metrics.emplace(*options.metrics,
                        Replacing{isMetricsFile, "only a file that --metrics has written is replaced"});
    }
    Progress progress(source.length());
    Findings findings(options.check.allBlocks);
    const std::string prefix = source.name() + ": ";
    std::string text = options.json ? jsonBegin(options.image == "-" ? kStandardInput : options.image,
                                                options.blockSize, options.check.imageLba)
                                    : "";

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
        return options.check.report || findings.complete();
    };
    runPipeline(source, {format, &Request::wholeBlocks, process, consume});
    progress.clear();
    if (options.json) {
        text = jsonEnd(findings, options.check.report);
    } else {
        text = (options.check.report ? reportText(findings) : "") + prefix + totalsText(findings) + "\n";
    }
    if (options.stats) {
        difHostRunCommand(DIF_HOST_DIAGNOSE, "dif showverifyresult", collectText, &text);
    }
    printResult(text);
    if (metrics) {
        std::string rendered = renderedMetrics();
        metrics->write({reinterpret_cast<uint8_t *>(rendered.data()), rendered.size(), rendered.size(), 1});
        metrics->commit();
    }
    return findings.failed() == 0 ? kAllWell : kFaultsFound;
}

} // namespace

void addVerify(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "verify", "Check every block of a protected image against its integrity field", runVerify);
    addCheckedImage(command, options);
    auto *report =
        command.add_flag("--report", options.check.report, "Tell what holds for the image as a whole; reads all of it");
    command.add_flag("--json", options.json, "Print one JSON object; it is whole if the exit status is 0 or 1");
    command
        .add_flag("--standard", options.standard,
                  "Take the fields for plain T10 protection information: no version, no flags, a reference tag\n"
                  "in every block; a block with application tag 0xffff passes")
        ->excludes(report)
        ->excludes(command.get_option("--crc"));
    command.add_flag("--stats", options.stats, "Print the counters of the run's verify point at the end")
        ->excludes(command.get_option("--json"));
    command.add_option("--metrics", options.metrics,
                       "Write switch, levels and counters to this file at the end, in the Prometheus text format;\n"
                       "an existing file is replaced only if it is such a one");
    command.footer(std::string(kExitStatusText) + R"(
Examples:
  difctl verify disk.dif
  difctl verify --all --report --block 4160 --lba 2048 part.dif
  difctl verify --json --all --crc crc32c disk.dif | jq '.failed_blocks[].lba'
  difctl verify --standard --all drive.pi
  difctl verify --metrics /var/lib/prometheus/node-exporter/disk.prom disk.dif
  ssh host 'cat disk.dif' | difctl verify -
)");
}

} // namespace difctl
