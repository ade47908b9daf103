#include "commands/options.h"
#include "pass/checked_pass.h"

namespace difctl {

namespace {

struct StripOptions : ImageOptions {
    std::string destination;
    bool force = false;
};

int runStrip(const StripOptions &options) {
    requireOther(options.image, options.destination);
    OpenedImage image(options);
    Destination destination(options.destination, replacingIf(options.force), image.file.access());
    const auto process = [&](Request &request) { checkRequest(request, image.check); };
    return runCheckedCopy(image.source, destination,
                          {image.seen.format, image.check.allBlocks, process, &Request::dataOnly});
}

} // namespace

void addStrip(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "strip", "Verify a protected image and write its data out without the fields", runStrip);
    addImage(command, options);
    addCheck(command, options.check);
    auto *crc = addRequiredCrc(command, options.check);
    addStandard(command, options)->excludes(crc);
    addEntry(command, options.claims.entryBytes);
    addDestination(command, options.destination, options.force, "Raw image to write");
    command.footer(std::string("DST appears only if no block fails. Standard output gets the requests of about 1 MiB\n"
                               "before the one that fails.\n") +
                   kExitStatusText + R"(
Examples:
  difctl strip disk.dif disk.raw
  difctl strip --all --block 4160 --first-lba 2048 part.dif part.raw
  difctl strip disk.dif - | gzip > disk.raw.gz
)");
}

} // namespace difctl
