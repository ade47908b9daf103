#include "commands/options.h"

#include "io/error.h"
#include "io/nbd_connection.h"

namespace difctl {

namespace {

CLI::IsMember crcName() {
    return CLI::IsMember({"t10", "crc32c"});
}

CheckOptions withFirstLba(CheckOptions check, uint64_t firstLba) {
    check.imageLba = firstLba;
    return check;
}

} // namespace

OpenedImage::OpenedImage(const ImageOptions &options)
    : file(options.image, ImageFile::Use::kRead), seen(recognise(file, options.claims, options.check)),
      check(withFirstLba(options.check, seen.firstLba)), source(file, seen.format.geometry.blockSize) {}

CLI::Option *addForce(CLI::App &command, bool &force, const char *text) {
    return command.add_flag("-f,--force", force, text);
}

CLI::Option *addBlockSize(CLI::App &command, std::optional<uint32_t> &blockSize, const char *byDefault) {
    return addNumber(command, "--block", "BYTES", blockSize,
                     std::string("Bytes of a protected block: 520 (512 data + 8) or 4160 (4096 data + 64).\n") +
                         byDefault)
        ->check(CLI::IsMember({520, 4160}));
}

void addEntry(CLI::App &command, std::optional<uint64_t> &entryBytes) {
    addNumber(command, "--entry", "BYTES", entryBytes,
              "Bytes of an entry of the scatter-gather lists through which blocks go: whole blocks.\n"
              "By default 64 blocks of 520 or 16 of 4160",
              kMaxEntryBytes);
}

CLI::Option *addCrc(CLI::App &command, std::string &crc, const char *text) {
    return command.add_option("--crc", crc, text)->type_name("GUARD")->check(crcName());
}

CLI::Option *addRequiredCrc(CLI::App &command, CheckOptions &check) {
    const auto require = [&check](const std::string &crc) { check.requiredVersion = versionOfCrcName(crc); };
    return command
        .add_option_function<std::string>("--crc", require,
                                          "Require this guard: a block of another version is a version error.\n"
                                          "By default every known version will do, each judged by its own guard")
        ->type_name("GUARD")
        ->check(crcName());
}

void addDestination(CLI::App &command, std::string &destination, bool &force, const char *text) {
    command.add_option("DST", destination, std::string(text) + "; - is standard output")->required()->type_name("");
    addForce(command, force, "Replace DST if it exists");
}

void requireOther(const std::string &source, const std::string &destination) {
    if (isNbdUri(source) && source == destination) {
        throw Error(printable(source) + ": is the source and the destination");
    }
}

CLI::Option *addAt(CLI::App &command, std::string &at, const char *text) {
    return command.add_option("--at", at, text)->type_name("LBA[,COUNT]");
}

void addImage(CLI::App &command, ImageOptions &options, const char *text) {
    command.add_option("IMG", options.image, text)->required()->type_name("");
    addBlockSize(command, options.claims.blockSize, "By default as IMG shows");
    addNumber(command, "--first-lba", "LBA", options.claims.firstLba,
              "LBA of IMG's first block as it is. By default as most blocks of IMG say");
}

void addCheck(CLI::App &command, CheckOptions &check) {
    command.add_flag_callback(
        "--no-lba", [&check] { check.compareLbas = false; },
        "Do not compare LBAs; a block without a valid LBA passes anyway");
    command.add_flag("--all", check.allBlocks, "Go on after the first failed block and name every one");
}

CLI::Option *addStandard(CLI::App &command, ImageOptions &options) {
    options.claims.mayBeStandard = true;
    return command.add_flag("--standard", options.check.standard,
                            "Take the fields for plain T10 protection information: no version, no flags, a reference\n"
                            "tag in every block; a block with application tag 0xffff passes");
}

void addInPlaceImage(CLI::App &command, InPlaceOptions &options) {
    addImage(command, options, "Image of protected blocks: a file, block device or export");
    addCheck(command, options.check);
    addForce(command, options.force, "Go ahead without verifying IMG first");
}

} // namespace difctl
