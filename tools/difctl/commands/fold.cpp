#include "commands/options.h"
#include "io/error.h"
#include "pass/checked_pass.h"

namespace difctl {

namespace {

struct FoldOptions : ImageOptions {
    std::string destination;
    std::string crc = "t10";
    std::optional<uint64_t> newLba;
    bool force = false;
};

int runFold(const FoldOptions &options) {
    requireOther(options.image, options.destination);
    setSysDifCrcVersion(versionOfCrcName(options.crc));
    OpenedImage image(options);
    Source &source = image.source;
    if (image.seen.format.type != kFormat520.type) {
        throw Error(source.name() + ": looks like " + image.seen.looks.best()->text() +
                    "; fold takes blocks of 520 bytes");
    }
    const auto requireGroups = [&source](uint64_t blockNum) {
        if (blockNum % kFoldedBlocks != 0) {
            throw Error(source.name() + ": has " + std::to_string(blockNum % kFoldedBlocks) +
                        " blocks beyond a multiple of " + std::to_string(kFoldedBlocks) +
                        ", which do not fill a block of 4160 bytes");
        }
    };
    if (source.length()) {
        requireGroups(source.unitNum());
    }
    Destination destination(options.destination, replacingIf(options.force), image.file.access());
    const auto process = [&](Request &request) {
        requireGroups(request.blockNum); /* all but the last are full */
        checkRequest(request, image.check);
        if (request.faults.empty()) {
            foldRequest(request, options.newLba);
        }
    };
    return runCheckedCopy(source, destination, {kFormat520, image.check.allBlocks, process, &Request::wholeBlocks});
}

} // namespace

void addFold(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "fold", "Verify an image of 520-byte blocks and write it out in blocks of 4160 bytes", runFold);
    command.add_option("SRC", options.image, "Image of 520-byte blocks, a multiple of 8; - is standard input")
        ->required()
        ->type_name("");
    addNumber(command, "--first-lba", "LBA", options.claims.firstLba,
              "LBA of SRC's first block as it is. By default as most blocks of SRC say");
    addCheck(command, options.check);
    addStandard(command, options);
    addDestination(command, options.destination, options.force, "Image of 4160-byte blocks to write");
    addCrc(command, options.crc, "Guard of the 4160-byte blocks")->capture_default_str();
    addNumber(command, "--set-lba", "LBA", options.newLba,
              "LBA of DST's first block; by default DST's blocks carry no LBAs");
    command.footer(
        std::string("Every 8 blocks of SRC are verified and become one: their data, a guard over all of it, "
                    "no flags, and an LBA\nonly if --set-lba asks for one. DST appears only if no block fails.\n") +
        kExitStatusText + R"(
Examples:
  difctl fold disk.dif disk.large && difctl verify disk.large
  difctl fold --first-lba 16384 part.dif --set-lba 2048 --crc crc32c part.large
  ssh host 'cat disk.dif' | difctl fold - disk.large
)");
}

} // namespace difctl
