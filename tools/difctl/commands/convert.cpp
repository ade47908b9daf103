#include "commands/options.h"
#include "io/error.h"
#include "io/progress.h"
#include "pass/in_place.h"

namespace difctl {

namespace {

int runConvert(const InPlaceOptions &options) {
    InPlaceImage image(options.image, options.claims, options.check, options.force);
    if (!image.mayChange()) {
        return kFaultsFound;
    }
    CheckOptions check = options.check;
    check.imageLba = image.firstLba();
    check.allBlocks = true;
    check.convertToT10 = true;
    const Findings findings = image.change([&](Request &request) { checkRequest(request, check); });
    if (findings.failed() != 0) {
        printMessage(image.name() + ": " + totalsText(findings) + "; these are left as they were");
        return kFaultsFound;
    }
    return kAllWell;
}

} // namespace

void addConvert(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "convert", "Make blocks with the guard crc32c blocks with the guard t10, in place", runConvert);
    addInPlaceImage(command, options);
    command.footer(
        std::string("Every block is checked; one with the guard crc32c that passes gets version and guard t10. "
                    "With --force,\nblocks that fail are named and left as they are, and the others are "
                    "converted.\n") +
        kInPlaceText + kExitStatusText + R"(
Examples:
  difctl convert disk.dif
  difctl convert --block 4160 --first-lba 2048 part.dif
)");
}

} // namespace difctl
