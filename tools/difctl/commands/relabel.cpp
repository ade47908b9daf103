#include "commands/options.h"
#include "io/error.h"
#include "pass/in_place.h"

namespace difctl {

namespace {

struct RelabelOptions : InPlaceOptions {
    std::optional<uint64_t> newLba;
    std::optional<std::string> crc;
    bool versionOnly = false;
    std::optional<std::string> bitmap;
};

/* Throws Error if a version would say that the guards are what none of them is. */
void requireGuardOf(const InPlaceImage &image, uint8_t version) {
    const FormatEvidence *looks = image.looks().best();
    const auto [asked, other] =
        version == DIF_VERSION_T10 ? std::pair(looks->t10, looks->crc32c) : std::pair(looks->crc32c, looks->t10);
    if (asked == 0 && other != 0) {
        const uint8_t fitting = version == DIF_VERSION_T10 ? DIF_VERSION_CRC32C : DIF_VERSION_T10;
        throw Error(image.name() + ": --version-only with --crc " + crcNameOfVersion(version) +
                    " contradicts its guards; --crc " + crcNameOfVersion(fitting) + " fits, --force goes ahead");
    }
}

int runRelabel(const RelabelOptions &options) {
    ReplaceOptions replace;
    replace.imageLba = options.newLba.value_or(0);
    replace.flags = options.newLba ? DIF_REPLACE_LBA : 0;
    if (options.versionOnly) {
        replace.flags |= DIF_REPLACE_VERSION;
    } else if (options.crc) {
        replace.flags |= DIF_REPLACE_CRC;
    }
    if (replace.flags == 0) {
        throw Error("relabel: no field is asked for; give at least one of --lba, --crc and --version-only");
    }
    setSysDifCrcVersion(versionOfCrcName(options.crc.value_or("t10")));
    InPlaceImage image(options.image, formatOf(options.blockSize));
    if (options.bitmap) {
        replace.blocks.emplace(*options.bitmap);
        if (replace.blocks->last() >= image.blockNum()) {
            throw Error("--bitmap '" + *options.bitmap + "': " + image.name() + " has no block " +
                        std::to_string(replace.blocks->last()) + ", its " + std::to_string(image.blockNum()) +
                        " blocks count from 0");
        }
    }
    if (!image.mayChange(options.check, options.force)) {
        return kFaultsFound;
    }
    if (options.versionOnly && !options.force) {
        requireGuardOf(image, versionOfCrcName(options.crc.value_or("t10")));
    }
    image.change([&](Request &request) { replaceRequest(request, replace); });
    return kAllWell;
}

} // namespace

void addRelabel(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "relabel", "Rewrite LBAs, guards or versions of a protected image, in place", runRelabel);
    addInPlaceImage(command, options, "--first-lba");
    auto *lba = addNumber(command, "--lba", options.newLba, "New LBA of IMG's first block; block N gets N more");
    command.add_option("--crc", options.crc, "Write the version and compute the guard of the data as it is")
        ->check(crcName());
    command
        .add_flag("--version-only", options.versionOnly, "Write the version of --crc (else of t10) and leave the guard")
        ->excludes(lba);
    command.add_option("--bitmap", options.bitmap, "Only these blocks, counted from 0 in IMG: like 0,5,9-20");
    command.footer(
        std::string("Rewrites fields, at least one of --lba, --crc and --version-only. Other fields stay as\n"
                    "they are; the BST mark too, which only a new protect clears.\n") +
        kInPlaceText + kExitStatusText + R"(
Examples:
  difctl relabel disk.dif --lba 1048576
  difctl relabel --first-lba 2048 part.dif --crc crc32c
  difctl relabel --force disk.dif --crc t10 --lba 0 --bitmap 100,200-207
)");
}

} // namespace difctl
