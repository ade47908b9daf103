#include "commands/commands.h"
#include "io/error.h"
#include "io/progress.h"
#include "pass/pipeline.h"

namespace difctl {

int runProtect(const ProtectOptions &options) {
    const BlockFormat format = formatOf(options.blockSize, options.entryBytes);
    setSysDifCrcVersion(versionOfCrcName(options.crc));
    const uint32_t insertFlags = DIF_INSERT_CRC | (options.noLba ? 0 : DIF_INSERT_LBA);
    Source source(options.source, format.geometry.dataSize);
    Destination destination(options.destination, options.force);
    Progress progress(source.length());
    const auto process = [&](Request &request) { protectRequest(request, insertFlags, options.lba); };
    const auto consume = [&](Request &request) {
        destination.write(request.wholeBlocks(request.blockNum));
        progress.advance(request.dataOnly(request.blockNum).bytes());
        return true;
    };
    try {
        runPipeline(source, {format, &Request::dataOnly, process, consume});
    } catch (const Error &error) {
        throw Error(error.what() + destination.leftoverNote());
    }
    destination.commit();
    return kAllWell;
}

} // namespace difctl
