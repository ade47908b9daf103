#include "commands/options.h"

namespace difctl {

CLI::IsMember crcName() {
    return CLI::IsMember({"t10", "crc32c"});
}

void addBlockSize(CLI::App &command, uint32_t &blockSize) {
    command.add_option("--block", blockSize, "Bytes of a protected block: 520 (512 data + 8) or 4160 (4096 data + 64)")
        ->check(CLI::IsMember({520, 4160}))
        ->capture_default_str();
}

void addEntry(CLI::App &command, std::optional<uint64_t> &entryBytes) {
    addNumber(command, "--entry", entryBytes,
              "Bytes of an entry of the scatter-gather lists through which blocks go: whole blocks.\n"
              "By default 64 blocks of 520 or 16 of 4160",
              kMaxEntryBytes);
}

CLI::Option *addCrc(CLI::App &command, std::string &crc, const char *text) {
    return command.add_option("--crc", crc, text)->check(crcName());
}

void addDestination(CLI::App &command, std::string &destination, bool &force, const char *text) {
    command.add_option("DST", destination, std::string(text) + "; - is standard output")->required();
    command.add_flag("--force", force, "Replace DST if it exists");
}

void addAt(CLI::App &command, std::string &at) {
    command.add_option("--at", at, "LBA[,COUNT]: the block with this LBA, or COUNT blocks from there on")->required();
}

void addImage(CLI::App &command, ImageOptions &options, const char *lbaNames) {
    command.add_option("IMG", options.image, "Image of protected blocks; - is standard input")->required();
    addBlockSize(command, options.blockSize);
    addNumber(command, lbaNames, options.check.imageLba, "LBA of IMG's first block as it is")->capture_default_str();
}

void addCheck(CLI::App &command, CheckOptions &check) {
    command.add_flag_callback(
        "--no-lba", [&check] { check.compareLbas = false; },
        "Do not compare LBAs; a block without a valid LBA passes anyway");
    command.add_flag("--all", check.allBlocks, "Go on after the first failed block and name every one");
}

void addCheckedImage(CLI::App &command, CheckedImageOptions &options) {
    addImage(command, options);
    addCheck(command, options.check);
    addEntry(command, options.entryBytes);
    const auto require = [&options](const std::string &crc) { options.check.requiredVersion = versionOfCrcName(crc); };
    command
        .add_option_function<std::string>("--crc", require,
                                          "Require this guard: a block of another version is a version error.\n"
                                          "By default every known version will do, each judged by its own guard")
        ->check(crcName());
}

void addInPlaceImage(CLI::App &command, InPlaceOptions &options, const char *lbaNames) {
    addImage(command, options, lbaNames);
    command.get_option("IMG")->description("Image of protected blocks: a file or block device");
    addCheck(command, options.check);
    command.add_flag("--force", options.force, "Go ahead without verifying IMG first");
}

} // namespace difctl
