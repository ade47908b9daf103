#include "commands/options.h"
#include "pass/checked_pass.h"

namespace difctl {

namespace {

struct StripOptions : CheckedImageOptions {
    std::string destination;
    bool force = false;
};

int runStrip(const StripOptions &options) {
    const BlockFormat format = formatOf(options.blockSize, options.entryBytes);
    const ImageFile file(options.image, ImageFile::Use::kRead);
    Source source(file, format.geometry.blockSize);
    Destination destination(options.destination, replacingIf(options.force), file.access());
    const auto process = [&](Request &request) { checkRequest(request, options.check); };
    return runCheckedCopy(source, destination, {format, options.check.allBlocks, process, &Request::dataOnly});
}

} // namespace

void addStrip(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "strip", "Verify a protected image and write its data out without the fields", runStrip);
    addCheckedImage(command, options);
    addDestination(command, options.destination, options.force, "Raw image to write");
    command.footer(std::string("DST appears only if no block fails. Standard output gets the requests of about 1 MiB\n"
                               "before the one that fails.\n") +
                   kExitStatusText + R"(
Examples:
  difctl strip disk.dif disk.raw
  difctl strip --all --block 4160 --lba 2048 part.dif part.raw
  difctl strip disk.dif - | gzip > disk.raw.gz
)");
}

} // namespace difctl
