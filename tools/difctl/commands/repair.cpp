#include "commands/options.h"
#include "io/error.h"
#include "pass/checked_pass.h"
#include "pass/in_place.h"
#include "pass/replica.h"

#include <filesystem>
#include <system_error>

namespace difctl {

namespace {

struct RepairOptions : InPlaceOptions {
    std::string replica;
    bool dryRun = false;
};

/* How a repair has ended, or would end: the status and a line. */
int told(const std::string &name, const Replica &replica, const Findings &findings, bool dryRun) {
    const uint64_t taken = replica.taken();
    const uint64_t left = findings.failed();
    printResult(name + ": blocks checked " + std::to_string(findings.checked()) +
                (dryRun ? ", to be taken from " : ", taken from ") + replica.name() + " " + std::to_string(taken) +
                ", failing in both and left " + std::to_string(left) + ", unprotected " +
                std::to_string(findings.unprotected()) + "\n");
    return left == 0 && (taken == 0 || !dryRun) ? kAllWell : kFaultsFound;
}

int runRepair(const RepairOptions &options) {
    std::error_code unknown;
    if (options.image == options.replica || std::filesystem::equivalent(options.image, options.replica, unknown)) {
        throw Error(options.replica + ": is IMG itself, not a replica of it");
    }
    if (options.dryRun) {
        OpenedImage image(options);
        Replica replica(options.replica, image.file, image.seen, image.check, options.force);
        const auto heal = [&replica](Request &request) { replica.heal(request); };
        const auto consume = [](Request &, const Findings &) {};
        const Findings findings = runCheckedPass(image.source, {.format = image.seen.format,
                                                                .allBlocks = true,
                                                                .process = heal,
                                                                .consume = consume,
                                                                .takesUnreadable = true});
        return told(image.source.name(), replica, findings, true);
    }
    InPlaceImage image(options.image, options.claims, options.check, false);
    Replica replica(options.replica, image.file(), image.seen(), image.check(), options.force);
    const Findings findings = image.change([&replica](Request &request) { replica.heal(request); });
    return told(image.name(), replica, findings, false);
}

} // namespace

void addRepair(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "repair", "Take the blocks that fail from a replica in which they pass, in place", runRepair);
    options.check.allBlocks = true;
    options.check.takesUnreadable = true;
    addImage(command, options, "Image of protected blocks: a file, block device or export");
    command.add_option("--from", options.replica, "Replica of IMG")->required()->type_name("REPLICA");
    command.add_flag_callback(
        "--no-lba", [&options = options] { options.check.compareLbas = false; },
        "Do not compare LBAs; a block without a valid LBA passes anyway");
    command.add_flag("--require", options.check.requireProtected,
                     "Take blocks that no guard protects, such as lost ones of zeros, from REPLICA, too");
    addStandard(command, options);
    command.add_flag("-n,--dry-run", options.dryRun, "Change nothing and tell what would be done");
    addForce(command, options.force, "Go ahead although a sample of blocks differs");
    command.footer(
        std::string(
            "Verifies all of IMG. A block that fails or cannot be read is taken from the same place of REPLICA,\n"
            "data and field, if it passes there and a guard protects it; blocks that fail in both are "
            "named and left. What\npasses in IMG is not compared with REPLICA, but for a sample that "
            "tells a replica from another image.\n") +
        R"(Exit status: 0 no block of IMG fails any more, 1 some do, 2 it could not be done.

Examples:
  difctl repair disk.dif --from replica.dif --dry-run
  difctl repair disk.dif --from nbd://replica.example/disk
)");
}

} // namespace difctl
