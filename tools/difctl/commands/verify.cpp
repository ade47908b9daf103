#include "commands/options.h"
#include "io/destination.h"
#include "io/error.h"
#include "io/progress.h"
#include "pass/checked_pass.h"
#include "pass/library.h"

#include "dif_host.h"
#include "metrics_file.h"

#include <optional>

namespace difctl {

namespace {

struct VerifyOptions : ImageOptions {
    std::string at; /* empty: all */
    uint64_t maxFaults = kMaxFaults;
    std::optional<uint64_t> bytesPerSecond;
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
    const std::optional<At> at = options.at.empty() ? std::nullopt : std::optional(parseAt(options.at));
    OpenedImage image(options);
    Source &source = image.source;
    const CheckOptions &check = image.check;
    const BlockRange blocks = at ? blocksAt(*at, check.imageLba, source.unitNum(), source.name()) : BlockRange();
    /* Whole or not there, as who collects it expects. */
    std::optional<Destination> metrics;
    if (options.metrics) {
        metrics.emplace(*options.metrics,
                        Replacing{isMetricsFile, "only a file that --metrics has written is replaced"});
    }
    const std::string prefix = source.name() + ": ";
    if (options.json) {
        printResult(jsonBegin(options.image == "-" ? kStandardInput : options.image,
                              image.seen.format.geometry.blockSize, check.imageLba));
    }
    bool first = true;
    FaultRuns runs(options.maxFaults, [&](const FaultRun &run) {
        printResult(options.json ? jsonRun(run, first) : prefix + runText(run) + "\n");
        first = false;
    });
    const auto process = [&](Request &request) { checkRequest(request, check); };
    const auto consume = [](Request &, const Findings &) {};
    const Findings findings =
        runCheckedPass(source, {image.seen.format, check.allBlocks, process, consume, blocks, check.report, &runs,
                                options.bytesPerSecond, check.takesUnreadable && !check.report});
    std::string text;
    if (options.json) {
        text = jsonEnd(findings, runs.untold(), check.report);
    } else {
        text = runs.untold() != 0 ? prefix + untoldText(runs.untold()) + "\n" : "";
        text += check.report ? reportText(findings) : "";
        if (findings.failed() != 0 || !isQuiet()) {
            text += prefix + totalsText(findings) + "; " + image.seen.text(check.compareLbas) + "\n";
        }
    }
    if (options.stats) {
        difHostRunCommand(DIF_HOST_DIAGNOSE, "dif showverifyresult", collectText, &text);
    }
    printResult(text);
    if (metrics) {
        std::string rendered = renderedMetrics();
        const Pieces piece = {reinterpret_cast<uint8_t *>(rendered.data()), rendered.size(), rendered.size(), 1};
        if (const auto rest = metrics->write(piece)) {
            rest();
        }
        metrics->commit();
    }
    return findings.failed() == 0 ? kAllWell : kFaultsFound;
}

} // namespace

void addVerify(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "verify", "Check every block of a protected image against its integrity field", runVerify);
    options.check.takesUnreadable = true;
    addImage(command, options);
    addCheck(command, options.check);
    auto *crc = addRequiredCrc(command, options.check);
    command.add_flag("--require", options.check.requireProtected,
                     "Take a block that no guard protects, such as one that was never written, for a fault");
    addAt(command, options.at, "Only the block with this LBA, or COUNT blocks from there on");
    addNumber(command, "--max-faults", "N", options.maxFaults,
              "Name so many runs of failed blocks at most; the totals count all")
        ->capture_default_str();
    addNumber(command, "--rate", "BYTES", options.bytesPerSecond, "Read so many bytes a second at most");
    addEntry(command, options.claims.entryBytes);
    auto *report =
        command.add_flag("--report", options.check.report, "Tell what holds for the image as a whole; reads all of it")
            ->excludes(command.get_option("--at"));
    command.add_flag("--json", options.json, "Print one JSON object; it is whole if the exit status is 0 or 1");
    addStandard(command, options)->excludes(report)->excludes(crc);
    command.add_flag("--stats", options.stats, "Print the counters of the run's verify point at the end")
        ->excludes(command.get_option("--json"));
    command
        .add_option("--metrics", options.metrics,
                    "Write switch, levels and counters to this file at the end, in the Prometheus text format;\n"
                    "an existing file is replaced only if it is such a one")
        ->type_name("FILE");
    command.footer(std::string(kExitStatusText) + R"(
Examples:
  difctl verify disk.dif
  difctl verify --all --report --block 4160 --first-lba 2048 part.dif
  difctl verify --json --all --crc crc32c disk.dif | jq '.faults[].lba'
  difctl verify --at 0,1M --rate 200M disk.dif
  difctl verify --standard --all drive.pi
  difctl verify --metrics /var/lib/prometheus/node-exporter/disk.prom disk.dif
  ssh host 'cat disk.dif' | difctl verify -
)");
}

} // namespace difctl
