#include "commands/options.h"
#include "io/error.h"
#include "pass/in_place.h"

namespace difctl {

namespace {

struct RelabelOptions : InPlaceOptions {
    std::optional<uint64_t> newLba;
    std::optional<std::string> crc;
    bool versionOnly = false;
    std::vector<std::string> at;
};

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
        throw Error("relabel: no field is asked for; give at least one of --set-lba, --crc and --version-only");
    }
    const std::string crc = options.crc.value_or("t10");
    setSysDifCrcVersion(versionOfCrcName(crc));
    InPlaceImage image(options.image, options.claims, options.check, options.force);
    replace.unwritten = options.force;
    if (!options.at.empty()) {
        replace.blocks.clear();
    }
    for (const std::string &at : options.at) {
        replace.blocks.push_back(blocksAt(parseAt(at), image.firstLba(), image.blockNum(), image.name()));
    }
    if (!image.mayChange()) {
        return kFaultsFound;
    }
    if (options.versionOnly && !options.force) {
        image.requireGuard(versionOfCrcName(crc), "--version-only with --crc " + crc);
    }
    image.change([&](Request &request) { replaceRequest(request, replace); });
    return kAllWell;
}

} // namespace

void addRelabel(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "relabel", "Rewrite LBAs, guards or versions of a protected image, in place", runRelabel);
    addInPlaceImage(command, options);
    auto *lba = addNumber(command, "--set-lba", "LBA", options.newLba,
                          "New LBA of IMG's first block; block N gets N more, also if --at names only some blocks");
    command.add_option("--crc", options.crc, "Write the version and compute the guard of the data as it is")
        ->type_name("GUARD")
        ->check(CLI::IsMember({"t10", "crc32c"}));
    command
        .add_flag("--version-only", options.versionOnly, "Write the version of --crc (else of t10) and leave the guard")
        ->excludes(lba);
    command
        .add_option("--at", options.at, "Only the block with this LBA, or COUNT blocks from there on; may be repeated")
        ->type_name("LBA[,COUNT]")
        ->allow_extra_args(false);
    command.footer(
        std::string("Rewrites fields, at least one of --set-lba, --crc and --version-only. Other fields stay as\n"
                    "they are; the BST mark too, which only a new protect clears. Blocks of zeros, which were\n"
                    "never written, get fields only with --force.\n") +
        kInPlaceText + kExitStatusText + R"(
Examples:
  difctl relabel disk.dif --set-lba 1048576
  difctl relabel --first-lba 2048 part.dif --crc crc32c
  difctl relabel --force disk.dif --crc t10 --set-lba 0 --at 100 --at 200,8
)");
}

} // namespace difctl
