#include "commands/commands.h"
#include "io/error.h"
#include "pass/in_place.h"

namespace difctl {

int runInject(const InjectOptions &options) {
    DifInjectParam faults = {};
    faults.ctrlFlag = (options.version ? DIF_INJECT_VERSION : 0) | (options.guard ? DIF_INJECT_CRC : 0) |
                      (options.lba ? DIF_INJECT_LBA : 0) | (options.bst ? DIF_INJECT_BST : 0);
    faults.version = static_cast<uint8_t>(options.version.value_or(0));
    faults.crc = static_cast<uint16_t>(options.guard.value_or(0));
    faults.lba = options.lba.value_or(0);
    if (faults.ctrlFlag == 0) {
        throw Error("inject: no fault is asked for; give at least one of --version, --crc, --lba and --bst");
    }
    const At at = parseAt(options.at);
    InPlaceImage image(options);
    const BlockRange blocks = blocksAt(at, options.imageLba, image.blockNum(), image.name());
    if (!image.accept()) {
        return kFaultsFound;
    }
    image.change([&](Request &request) { injectRequest(request, faults, blocks.first); }, blocks);
    return kAllWell;
}

} // namespace difctl
