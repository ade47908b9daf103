#include "commands/options.h"
#include "io/number.h"
#include "pass/pipeline.h"
#include "pass/report.h"

#include <array>
#include <cstring>

#include <endian.h>

namespace difctl {

namespace {

struct ShowOptions : ImageOptions {
    std::string at;
};

struct Version {
    uint8_t value;
    bool known;
    const char *name;
};

constexpr std::array<Version, 5> kVersions = {{{0, true, "none"},
                                               {DIF_VERSION_T10, true, "t10"},
                                               {DIF_VERSION_CRC32C, true, "crc32c"},
                                               {DIF_VERSION_NO_CRC, true, "no-crc"},
                                               {DIF_VERSION_INVALID, false, "invalid"}}};

Version versionOf(const DifTuple &tuple) {
    for (const Version &version : kVersions) {
        if (version.value == tuple.version) {
            return version;
        }
    }
    return {tuple.version, false, "unknown"};
}

std::string guardText(const DifTuple &tuple) {
    return hexText(reinterpret_cast<const uint8_t *>(&tuple.crc), sizeof(tuple.crc));
}

std::string flagsText(uint8_t app) {
    return "flags 0x" + hexText(&app, 1) + ((app & DIF_APP_BST) != 0 ? " bst" : "") +
           ((app & DIF_APP_LBA_VALID) != 0 ? " lba-valid" : "");
}

/* The line of block `index`: every field, what it should be where that is known, and which fields are wrong. */
std::string blockText(const Request &request, uint32_t index, uint64_t imageLba) {
    DifTuple tuple = {};
    std::memcpy(&tuple, request.tuple(index), sizeof(tuple));
    const uint64_t block = request.firstBlock + index;
    const bool exempt = tuple.version == 0xFF && tuple.app == 0xFF;
    const Version version = versionOf(tuple);
    std::string wrong = exempt || version.known ? "" : " version";

    std::string text = placeText(block, imageLba + block) + ": guard " + guardText(tuple);
    if (version.known && version.value != DIF_VERSION_NO_CRC) {
        /* The guard that the library would write under the tuple's own version. */
        setSysDifCrcVersion(tuple.version == 0 ? uint8_t{DIF_VERSION_T10} : tuple.version);
        const DifOpParam param = {request.format->type, DIF_INSERT_CRC, 0, nullptr};
        DifTuple expected = {};
        insertDifInOneBlock(request.block(index), request.format->geometry.dataSize, &expected, &param);
        text += " (expected " + guardText(expected) + ")";
        wrong += expected.crc == tuple.crc ? "" : " guard";
    }
    text += ", version 0x" + hexText(&tuple.version, 1) + " " + version.name + ", " + flagsText(tuple.app);
    const uint32_t lba = be32toh(tuple.lba);
    const auto expectedLba = static_cast<uint32_t>(imageLba + block);
    text += ", LBA " + std::to_string(lba);
    if (!exempt && (tuple.app & DIF_APP_LBA_VALID) != 0) {
        text += " (expected " + std::to_string(expectedLba) + ")";
        wrong += lba == expectedLba ? "" : " LBA";
    }
    return text + (exempt ? "; exempt from checks" : "") + (wrong.empty() ? "" : "; wrong:" + wrong) + "\n";
}

int runShow(const ShowOptions &options) {
    const BlockFormat format = formatOf(options.blockSize);
    const At at = parseAt(options.at);
    const ImageFile file(options.image, ImageFile::Use::kRead);
    Source source(file, format.geometry.blockSize);
    const BlockRange blocks = blocksAt(at, options.check.imageLba, source.unitNum(), source.name());
    const auto consume = [&](Request &request) {
        std::string text;
        for (uint32_t index = 0; index < request.blockNum; ++index) {
            text += blockText(request, index, options.check.imageLba);
        }
        printResult(text);
        return true;
    };
    runPipeline(source, {format, &Request::wholeBlocks, [](Request &) {}, consume, blocks});
    return kAllWell;
}

} // namespace

void addShow(CLI::App &app, Command &chosen) {
    const auto [command, options] =
        addCommand(app, chosen, "show", "Print the fields of some blocks beside what they should be", runShow);
    addImage(command, options);
    addAt(command, options.at);
    command.footer(std::string("One line a block: guard (its two bytes as stored), version, flags and LBA, what guard "
                               "and LBA should be,\nand at the end which of them are wrong.\n") +
                   kExitStatusText + R"(
Examples:
  difctl show disk.dif --at 12345
  difctl show --block 4160 --lba 2048 part.dif --at 0x900,16
  difctl show disk.dif --at 0,1000 | grep wrong:
)");
}

} // namespace difctl
