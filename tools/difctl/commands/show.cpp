#include "commands/options.h"
#include "io/number.h"
#include "pass/pipeline.h"
#include "pass/report.h"

#include <array>

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

std::string flagsText(uint8_t app) {
    return "flags 0x" + hexText(&app, 1) + ((app & DIF_APP_BST) != 0 ? " bst" : "") +
           ((app & DIF_APP_LBA_VALID) != 0 ? " lba-valid" : "");
}

/* The line of a block: every field, what it should be where that is known, and which fields are wrong. */
class Line {
public:
    Line(const Request &request, uint32_t index, uint64_t imageLba)
        : request_(request), index_(index), tuple_(request.fields(index)), lba_(imageLba + request.firstBlock + index),
          text_(placeText(request.firstBlock + index, lba_)) {}

    std::string ofOwnFields() {
        const Version version = versionOf(tuple_);
        const bool exempt = isExempt(tuple_);
        wrong_ = exempt || version.known ? "" : " version";
        addGuard(version.known && version.value != DIF_VERSION_NO_CRC, tuple_.version);
        text_ += ", version 0x" + hexText(&tuple_.version, 1) + " " + version.name + ", " + flagsText(tuple_.app);
        addLba("LBA", !exempt && (tuple_.app & DIF_APP_LBA_VALID) != 0);
        return ended(exempt);
    }

    std::string ofStandardFields() {
        const bool exempt = isExempt(tuple_);
        addGuard(!exempt, DIF_VERSION_T10);
        text_ += ", application tag 0x" + hexText(&tuple_.version, 1) + hexText(&tuple_.app, 1);
        addLba("reference tag", !exempt);
        return ended(exempt);
    }

private:
    void addGuard(bool compared, uint8_t version) {
        const auto bytes = [](uint16_t guard) {
            return hexText(reinterpret_cast<const uint8_t *>(&guard), sizeof(guard));
        };
        text_ += ": guard " + bytes(tuple_.crc);
        if (compared) {
            const uint16_t expected = guardOf(version, request_.block(index_), request_.format->geometry.dataSize);
            text_ += " (expected " + bytes(expected) + ")";
            wrong_ += expected == tuple_.crc ? "" : " guard";
        }
    }

    void addLba(const char *name, bool compared) {
        const uint32_t found = be32toh(tuple_.lba);
        text_ += std::string(", ") + name + " " + std::to_string(found);
        if (compared) {
            const auto expected = static_cast<uint32_t>(lba_);
            text_ += " (expected " + std::to_string(expected) + ")";
            wrong_ += expected == found ? "" : std::string(" ") + name;
        }
    }

    std::string ended(bool exempt) const {
        return text_ + (exempt ? "; exempt from checks" : "") + (wrong_.empty() ? "" : "; wrong:" + wrong_) + "\n";
    }

    const Request &request_;
    uint32_t index_;
    DifTuple tuple_;
    uint64_t lba_;
    std::string text_;
    std::string wrong_;
};

int runShow(const ShowOptions &options) {
    const At at = parseAt(options.at);
    OpenedImage image(options);
    const BlockRange blocks = blocksAt(at, image.check.imageLba, image.source.unitNum(), image.source.name());
    const auto consume = [&](Request &request) {
        std::string text;
        for (uint32_t index = 0; index < request.blockNum; ++index) {
            Line line(request, index, image.check.imageLba);
            text += image.check.standard ? line.ofStandardFields() : line.ofOwnFields();
        }
        printResult(text);
        return true;
    };
    runPipeline(image.source, {image.seen.format, &Request::wholeBlocks, [](Request &) {}, consume, blocks});
    return kAllWell;
}

} // namespace

void addShow(CLI::App &app, Command &chosen) {
    const auto [command, options] =
        addCommand(app, chosen, "show", "Print the fields of some blocks beside what they should be", runShow);
    options.check.takesUnreadable = true;
    addImage(command, options, "Image of protected blocks");
    addAt(command, options.at, "The block with this LBA, or COUNT blocks from there on")->required();
    addStandard(command, options);
    command.footer(std::string("One line a block: guard (its two bytes as stored), version, flags and LBA, what guard "
                               "and LBA should be,\nand at the end which of them are wrong.\n") +
                   kExitStatusText + R"(
Examples:
  difctl show disk.dif --at 12345
  difctl show --block 4160 --first-lba 2048 part.dif --at 0x900,16
  difctl show disk.dif --at 0,1000 | grep wrong:
)");
}

} // namespace difctl
