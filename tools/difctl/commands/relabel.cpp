#include "commands/commands.h"
#include "io/error.h"
#include "pass/in_place.h"

namespace difctl {

int runRelabel(const RelabelOptions &options) {
    ReplaceOptions replace;
    replace.imageLba = options.newLba.value_or(0);
    replace.flags = options.newLba ? DIF_REPLACE_LBA : 0;
    if (options.versionOnly) {
        replace.flags |= DIF_REPLACE_VERSION;
    } else if (!options.crc.empty()) {
        replace.flags |= DIF_REPLACE_CRC;
    }
    if (replace.flags == 0) {
        throw Error("relabel: no field is asked for; give at least one of --lba, --crc and --version-only");
    }
    setSysDifCrcVersion(versionOfCrcName(options.crc));
    InPlaceImage image(options);
    if (!options.bitmap.empty()) {
        replace.blocks.emplace(options.bitmap);
        if (replace.blocks->last() >= image.blockNum()) {
            throw Error("--bitmap '" + options.bitmap + "': " + image.name() + " has no block " +
                        std::to_string(replace.blocks->last()) + ", its " + std::to_string(image.blockNum()) +
                        " blocks count from 0");
        }
    }
    if (!image.accept()) {
        return kFaultsFound;
    }
    image.change([&](Request &request) { replaceRequest(request, replace); });
    return kAllWell;
}

} // namespace difctl
