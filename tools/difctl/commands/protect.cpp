#include "commands/options.h"
#include "io/destination.h"
#include "io/error.h"
#include "io/progress.h"
#include "pass/pipeline.h"

namespace difctl {

namespace {

struct ProtectCommand {
    std::string source;
    std::string destination;
    std::optional<uint32_t> blockSize;
    std::optional<uint64_t> entryBytes;
    std::string crc = "t10";
    uint64_t firstLba = 0;
    bool noLba = false;
    bool standard = false;
    bool force = false;
};

int runProtect(const ProtectCommand &options) {
    requireOther(options.source, options.destination);
    const BlockFormat format = formatOf(options.blockSize.value_or(kFormat520.geometry.blockSize), options.entryBytes);
    setSysDifCrcVersion(versionOfCrcName(options.crc));
    const ProtectOptions protect = {DIF_INSERT_CRC | (options.noLba ? 0 : DIF_INSERT_LBA), options.firstLba,
                                    options.standard};
    const ImageFile file(options.source, ImageFile::Use::kRead);
    Source source(file, format.geometry.dataSize);
    Destination destination(options.destination, replacingIf(options.force), file.access());
    if (source.length()) {
        destination.requireRoom(source.unitNum() * format.geometry.blockSize);
    }
    Progress progress(source.length());
    const auto process = [&](Request &request) { protectRequest(request, protect); };
    const auto consume = [&](Request &request) {
        request.rest = destination.write(request.wholeBlocks(request.blockNum));
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

} // namespace

void addProtect(CLI::App &app, Command &chosen) {
    const auto [command, options] =
        addCommand(app, chosen, "protect", "Write a raw image out with an integrity field in every block", runProtect);
    command.add_option("SRC", options.source, "Raw image, whole sectors; - is standard input")
        ->required()
        ->type_name("");
    addDestination(command, options.destination, options.force, "Protected image to write");
    addBlockSize(command, options.blockSize, "By default 520");
    addEntry(command, options.entryBytes);
    auto *crc =
        addCrc(command, options.crc, "Guard: t10 (CRC16 T10-DIF) or crc32c (its low 16 bits)")->capture_default_str();
    auto *lba =
        addNumber(command, "--first-lba", "LBA", options.firstLba, "LBA of the first block")->capture_default_str();
    auto *noLba = command.add_flag("--no-lba", options.noLba, "Do not write LBAs")->excludes(lba);
    command
        .add_flag("--standard", options.standard,
                  "Write plain T10 protection information: a guard t10, application tag 0, the LBA as reference tag")
        ->excludes(crc)
        ->excludes(noLba);
    command.footer(
        std::string("DST appears only when it is complete and on stable storage, readable to nobody who\n"
                    "may not read SRC. If only its name may not outlive a power failure, the status is 2 and the\n"
                    "message says that DST is complete.\n") +
        kExitStatusText + R"(
Examples:
  difctl protect disk.raw disk.dif
  difctl protect --block 4160 --crc crc32c --first-lba 2048 part.raw part.dif
  zcat disk.raw.gz | difctl protect - - | ssh host 'cat > disk.dif'
)");
}

} // namespace difctl
