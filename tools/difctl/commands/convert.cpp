#include "commands/commands.h"
#include "io/progress.h"
#include "pass/in_place.h"

namespace difctl {

int runConvert(const InPlaceOptions &options) {
    CheckOptions check = checkOptionsOf(options);
    check.allBlocks = true;
    check.convertToT10 = true;
    InPlaceImage image(options);
    if (!image.accept()) {
        return kFaultsFound;
    }
    const Findings findings = image.change([&](Request &request) { checkRequest(request, check); });
    if (findings.failed() != 0) {
        printMessage(image.name() + ": " + totalsText(findings) + "; these are left as they were");
        return kFaultsFound;
    }
    return kAllWell;
}

} // namespace difctl
