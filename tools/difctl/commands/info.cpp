#include "commands/options.h"
#include "io/error.h"
#include "pass/report.h"

#include <cstdio>

#include <nlohmann/json.hpp>

namespace difctl {

namespace {

struct InfoOptions {
    std::string image;
    bool all = false;
    bool json = false;
};

using Json = nlohmann::ordered_json;

/* What was seen; of blocks, how many of those looked at. */
Json described(const ImageFile &file, const image::ImageFormat &looks, bool all) {
    const FormatEvidence *best = looks.best();
    Json text = {{"image", file.name()}, {"bytes", *file.length()}, {"sample", !all}};
    if (best == nullptr) {
        text["fields"] = false;
        text["zeros"] = !looks.holdsData;
        return text;
    }
    const uint32_t blockSize = best->format->geometry.blockSize;
    const auto firstLba = best->firstLba();
    text.update({{"fields", true},
                 {"block_size", blockSize},
                 {"blocks", *file.length() / blockSize},
                 {"bytes_behind", *file.length() % blockSize},
                 {"guards", Json::array()},
                 {"first_lba", firstLba ? Json(*firstLba) : Json()},
                 {"standard", best->isStandard()},
                 {"looked_at", best->blocks + best->unwritten},
                 {"protected", best->fields},
                 {"unwritten", best->unwritten},
                 {"unknown", best->blocks - best->fields},
                 {"bst", best->bst}});
    if (best->t10 != 0) {
        text["guards"].push_back("t10");
    }
    if (best->crc32c != 0) {
        text["guards"].push_back("crc32c");
    }
    return text;
}

std::string shareText(const Json &seen, const char *key) {
    const auto part = seen[key].get<uint64_t>();
    const auto whole = seen["looked_at"].get<uint64_t>();
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%llu (%.4g%%)", static_cast<unsigned long long>(part),
                  100.0 * static_cast<double>(part) / static_cast<double>(whole));
    return text.data();
}

std::string peopleText(const Json &seen, const image::ImageFormat &looks) {
    const std::string name = seen["image"].get<std::string>() + ": ";
    if (looks.best() == nullptr) {
        return name + (looks.holdsData ? "data without fields of either block size\n" : "nothing but zeros\n");
    }
    const uint64_t behind = seen["bytes_behind"].get<uint64_t>();
    return name + looks.best()->text() + "\n" + //
           "length:            " + seen["bytes"].dump() + " bytes, " + seen["blocks"].dump() + " blocks" +
           (behind == 0 ? "" : " and " + std::to_string(behind) + " bytes") + "\n" +
           "blocks looked at:  " + seen["looked_at"].dump() +
           (seen["sample"].get<bool>() ? ", a sample\n" : ", all\n") +
           "with a field:      " + shareText(seen, "protected") + "\n" +
           "unwritten (zeros): " + shareText(seen, "unwritten") + "\n" +
           "of no known form:  " + shareText(seen, "unknown") + "\n" + //
           "with a BST mark:   " + shareText(seen, "bst") + "\n" +
           "plain T10 fields:  " + (looks.best()->isStandard() ? "yes" : "no") + "\n";
}

int runInfo(const InfoOptions &options) {
    const ImageFile file(options.image, ImageFile::Use::kRead);
    if (!file.length()) {
        throw Error(file.name() + ": has no known length; this command needs an image in a file");
    }
    if (*file.length() == 0) {
        throw Error(file.name() + ": is empty");
    }
    const auto looks = lookAt(file, options.all ? image::Extent::kAll : image::Extent::kSample, !options.all);
    const Json seen = described(file, looks, options.all);
    if (options.json) {
        Json text = {{"schema", kJsonSchema}};
        text.update(seen);
        printResult(jsonText(text) + "\n");
    } else {
        printResult(peopleText(seen, looks));
    }
    return kAllWell;
}

} // namespace

void addInfo(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(
        app, chosen, "info", "Tell what an image is: block size, guard, first LBA, what is protected", runInfo);
    command.add_option("IMG", options.image, "Image")->required()->type_name("");
    command.add_flag("--all", options.all, "Look at every block, not at a sample");
    command.add_flag("--json", options.json, "Print one JSON object");
    command.footer(
        std::string("Looks at blocks all over IMG, by default at some thousand bytes in each of 128 places.\n") +
        kExitStatusText + R"(
Examples:
  difctl info disk.dif
  difctl info --all --json disk.dif | jq .first_lba
)");
}

} // namespace difctl
