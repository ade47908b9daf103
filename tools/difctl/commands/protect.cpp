#include "commands/options.h"
#include "io/destination.h"
#include "io/error.h"
#include "io/progress.h"
#include "pass/pipeline.h"

namespace difctl {

namespace {

struct ProtectOptions {
    std::string source;
    std::string destination;
    uint32_t blockSize = 520;
    std::optional<uint64_t> entryBytes;
    std::string crc = "t10";
    uint64_t lba = 0;
    bool noLba = false;
    bool force = false;
};

int runProtect(const ProtectOptions &options) {
    const BlockFormat format = formatOf(options.blockSize, options.entryBytes);
    setSysDifCrcVersion(versionOfCrcName(options.crc));
    const uint32_t insertFlags = DIF_INSERT_CRC | (options.noLba ? 0 : DIF_INSERT_LBA);
    const ImageFile file(options.source, ImageFile::Use::kRead);
    Source source(file, format.geometry.dataSize);
    Destination destination(options.destination, replacingIf(options.force), file.access());
    if (source.length()) {
        destination.requireRoom(source.unitNum() * format.geometry.blockSize);
    }
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

} // namespace

void addProtect(CLI::App &app, Command &chosen) {
    const auto [command, options] =
        addCommand(app, chosen, "protect", "Write a raw image out with an integrity field in every block", runProtect);
    command.add_option("SRC", options.source, "Raw image, whole sectors; - is standard input")->required();
    addDestination(command, options.destination, options.force, "Protected image to write");
    addBlockSize(command, options.blockSize);
    addEntry(command, options.entryBytes);
    addCrc(command, options.crc, "Guard: t10 (CRC16 T10-DIF) or crc32c (its low 16 bits)")->capture_default_str();
    auto *lba = addNumber(command, "--lba,--first-lba", options.lba, "LBA of the first block")->capture_default_str();
    command.add_flag("--no-lba", options.noLba, "Do not write LBAs")->excludes(lba);
    command.footer(
        std::string("DST appears only when it is complete and on stable storage, readable to nobody who\n"
                    "may not read SRC. If only its name may not outlive a power failure, the status is 2 and the\n"
                    "message says that DST is complete.\n") +
        kExitStatusText + R"(
Examples:
  difctl protect disk.raw disk.dif
  difctl protect --block 4160 --crc crc32c --lba 2048 part.raw part.dif
  zcat disk.raw.gz | difctl protect - - | ssh host 'cat > disk.dif'
)");
}

} // namespace difctl
