/* What several commands know, and how their command lines say it. */
#ifndef DIFCTL_OPTIONS_H
#define DIFCTL_OPTIONS_H

#include "commands/commands.h"
#include "io/number.h"
#include "io/source.h"
#include "pass/recognition.h"
#include "pass/request.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

namespace difctl {

/* What every command on an image of protected blocks knows about it, and about its check of them. */
struct ImageOptions {
    std::string image;
    Claims claims;
    CheckOptions check;
};

/* What the commands that change an image where it is know beyond that; all that convert knows. */
struct InPlaceOptions : ImageOptions {
    bool force = false;
};

/* An image that a command reads and checks: `check` knows what the image shows where the command line says nothing. */
struct OpenedImage {
    explicit OpenedImage(const ImageOptions &options);

    ImageFile file;
    Recognition seen;
    CheckOptions check;
    Source source;
};

/* Ends of help texts. */
inline constexpr const char *kExitStatusText = "Exit status: 0 all well, 1 faults found, 2 could not be done.\n";
inline constexpr const char *kInPlaceText =
    "IMG is changed where it is, in requests of about 1 MiB. An interrupt ends between two of them and says where.\n"
    "First all of IMG is verified, and if a block fails nothing is changed. --force leaves that out; it does not\n"
    "help against fields of another block size, data without fields, or a length of not whole blocks. Data is not\n"
    "written.\n";

/* Adds the subcommand `name`, and returns it with the record, of `app`'s lifetime, that its options are to fill. */
template <typename Options>
std::pair<CLI::App &, Options &> addCommand(CLI::App &app, Command &chosen, const char *name, const char *text,
                                            int (*run)(const Options &)) {
    const auto options = std::make_shared<Options>();
    auto *command = app.add_subcommand(name, text)->fallthrough();
    command->final_callback([=, &chosen] { chosen = [=] { return run(*options); }; });
    return {*command, *options};
}

/* A number from 0 to `max` for `target`. CLI11 itself would take a sign and wrap what is too large. */
template <typename Target>
CLI::Option *addNumber(CLI::App &command, const std::string &names, const char *placeholder, Target &target,
                       const std::string &text, uint64_t max = UINT64_MAX) {
    const auto plain = [max](const std::string &word) {
        const auto number = parseNumber(word, max);
        if (!number) {
            throw CLI::ValidationError("'" + word + "' is not a number from 0 to " + std::to_string(max));
        }
        return std::to_string(*number);
    };
    return command.add_option(names, target, text)->type_name(placeholder)->transform(plain, "");
}

CLI::Option *addForce(CLI::App &command, bool &force, const char *text);
CLI::Option *addBlockSize(CLI::App &command, std::optional<uint32_t> &blockSize, const char *byDefault);
void addEntry(CLI::App &command, std::optional<uint64_t> &entryBytes);
CLI::Option *addCrc(CLI::App &command, std::string &crc, const char *text);
CLI::Option *addRequiredCrc(CLI::App &command, CheckOptions &check);
void addDestination(CLI::App &command, std::string &destination, bool &force, const char *text);
/* Throws Error if an export is to be read and overwritten at once. */
void requireOther(const std::string &source, const std::string &destination);

CLI::Option *addAt(CLI::App &command, std::string &at, const char *text);

void addImage(CLI::App &command, ImageOptions &options,
              const char *text = "Image of protected blocks; - is standard input");
void addCheck(CLI::App &command, CheckOptions &check);
CLI::Option *addStandard(CLI::App &command, ImageOptions &options);
void addInPlaceImage(CLI::App &command, InPlaceOptions &options);

} // namespace difctl

#endif
