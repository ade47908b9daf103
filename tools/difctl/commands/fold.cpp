#include "commands/commands.h"
#include "io/error.h"
#include "pass/checked_pass.h"

namespace difctl {

int runFold(const FoldOptions &options) {
    const CheckOptions check = checkOptionsOf(options);
    setSysDifCrcVersion(versionOfCrcName(options.crc));
    Source source(options.image, kFormat520.geometry.blockSize);
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
    Destination destination(options.destination, options.force);
    const auto process = [&](Request &request) {
        requireGroups(request.blockNum); /* all but the last are full */
        checkRequest(request, check);
        if (request.faults.empty()) {
            foldRequest(request, options.newLba);
        }
    };
    return runCheckedCopy(source, destination, {kFormat520, options.all, process, &Request::wholeBlocks});
}

} // namespace difctl
