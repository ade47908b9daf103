#include "commands/options.h"
#include "io/error.h"
#include "pass/in_place.h"

namespace difctl {

namespace {

struct InjectOptions : InPlaceOptions {
    std::string at;
    std::optional<uint64_t> version;
    std::optional<uint64_t> guard;
    std::optional<uint64_t> lba;
    bool bst = false;
};

int runInject(const InjectOptions &options) {
    DifInjectParam faults = {};
    faults.ctrlFlag = (options.version ? DIF_INJECT_VERSION : 0) | (options.guard ? DIF_INJECT_CRC : 0) |
                      (options.lba ? DIF_INJECT_LBA : 0) | (options.bst ? DIF_INJECT_BST : 0);
    faults.version = static_cast<uint8_t>(options.version.value_or(0));
    faults.crc = static_cast<uint16_t>(options.guard.value_or(0));
    faults.lba = options.lba.value_or(0);
    if (faults.ctrlFlag == 0) {
        throw Error(
            "inject: no fault is asked for; give at least one of --set-version, --set-guard, --set-lba and --set-bst");
    }
    const At at = parseAt(options.at);
    InPlaceImage image(options.image, options.claims, options.check, options.force);
    const BlockRange blocks = blocksAt(at, image.firstLba(), image.blockNum(), image.name());
    if (!image.mayChange()) {
        return kFaultsFound;
    }
    image.change([&](Request &request) { injectRequest(request, faults, blocks.first); }, blocks);
    return kAllWell;
}

} // namespace

void addInject(CLI::App &app, Command &chosen) {
    const auto [command, options] =
        addCommand(app, chosen, "inject", "Write faults into the fields of some blocks, in place", runInject);
    addInPlaceImage(command, options);
    addAt(command, options.at, "The block with this LBA, or COUNT blocks from there on")->required();
    addNumber(command, "--set-version", "BYTE", options.version, "Version to write", UINT8_MAX);
    addNumber(command, "--set-guard", "GUARD", options.guard,
              "Guard to write, low byte first: 0x1234 is stored as 34 12", UINT16_MAX);
    addNumber(command, "--set-lba", "LBA", options.lba,
              "LBA to write into the first of the blocks, one more into each further one");
    command.add_flag("--set-bst", options.bst, "Set the BST mark, which fails no check");
    command.footer(
        std::string(
            "Writes faults into fields, at least one of --set-version, --set-guard, --set-lba and --set-bst.\n") +
        kInPlaceText + kExitStatusText + R"(
Examples:
  difctl inject disk.dif --at 100 --set-version 0x1f
  difctl inject --force disk.dif --at 200,8 --set-guard 0xdead --set-lba 7
  difctl inject --first-lba 2048 --block 4160 part.dif --at 2050 --set-bst
)");
}

} // namespace difctl
