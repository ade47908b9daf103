#include "commands/commands.h"
#include "pass/checked_pass.h"

namespace difctl {

int runStrip(const StripOptions &options) {
    const BlockFormat format = formatOf(options.blockSize, options.entryBytes);
    const CheckOptions check = checkOptionsOf(options);
    Source source(options.image, format.geometry.blockSize);
    Destination destination(options.destination, options.force);
    const auto process = [&](Request &request) { checkRequest(request, check); };
    return runCheckedCopy(source, destination, {format, options.all, process, &Request::dataOnly});
}

} // namespace difctl
