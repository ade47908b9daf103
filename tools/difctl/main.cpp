/* difctl: protects, verifies and strips disk images. The command line, and the one place where errors end. */
#include "commands.h"
#include "interrupt.h"
#include "library.h"
#include "progress.h"

#include <charconv>
#include <csignal>
#include <functional>

#include <CLI/CLI.hpp>
#include <fcntl.h>

namespace {

using namespace difctl;

constexpr const char *kExitStatusText = "Exit status: 0 all well, 1 faults found, 2 could not be done.\n";

/* A closed standard stream's number must not go to an image. The wrong direction makes its use an error as before. */
void occupyStandardStreams() {
    for (const int stream : {0, 1, 2}) {
        if (::fcntl(stream, F_GETFD) == -1) {
            ::open("/dev/null", stream == 0 ? O_WRONLY : O_RDONLY);
        }
    }
}

void addBlockSize(CLI::App &command, uint32_t &blockSize) {
    command.add_option("--block", blockSize, "Bytes of a protected block: 520 (512 data + 8) or 4160 (4096 data + 64)")
        ->check(CLI::IsMember({520, 4160}))
        ->capture_default_str();
}

/* Decimal, or hexadecimal after 0x; in decimal. CLI11 itself would take a sign and wrap what is too large. */
std::string plainLba(const std::string &text) {
    const bool hexadecimal = text.starts_with("0x");
    const char *end = text.data() + text.size();
    uint64_t value = 0;
    const auto [rest, error] = std::from_chars(text.data() + (hexadecimal ? 2 : 0), end, value, hexadecimal ? 16 : 10);
    if (error != std::errc() || rest != end) {
        throw CLI::ValidationError("'" + text + "' is not a number from 0 to 2^64 - 1");
    }
    return std::to_string(value);
}

CLI::Option *addLba(CLI::App &command, uint64_t &lba, const char *text) {
    return command.add_option("--lba", lba, text)->transform(plainLba, "")->capture_default_str();
}

void addForce(CLI::App &command, bool &force) {
    command.add_flag("--force", force, "Replace DST if it exists");
}

void addProtectedImage(CLI::App &command, ProtectedImageOptions &options) {
    command.add_option("IMG", options.image, "Image of protected blocks; - is standard input")->required();
    addBlockSize(command, options.blockSize);
    command
        .add_option("--crc", options.crc,
                    "Require this guard: a block of another version is a version error.\n"
                    "By default every known version will do, each judged by its own guard")
        ->check(CLI::IsMember({"t10", "crc32c"}));
    addLba(command, options.lba, "LBA of the first block; a block without a valid LBA passes");
    command.add_flag("--no-lba", options.noLba, "Do not compare LBAs");
    command.add_flag("--all", options.all, "Go on after the first failed block and name every one");
}

CLI::App *addProtect(CLI::App &app, ProtectOptions &options) {
    auto *command = app.add_subcommand("protect", "Write a raw image out with an integrity field in every block");
    command->add_option("SRC", options.source, "Raw image, whole sectors; - is standard input")->required();
    command->add_option("DST", options.destination, "Protected image to write; - is standard output")->required();
    addBlockSize(*command, options.blockSize);
    command->add_option("--crc", options.crc, "Guard: t10 (CRC16 T10-DIF) or crc32c (its low 16 bits)")
        ->check(CLI::IsMember({"t10", "crc32c"}))
        ->capture_default_str();
    auto *lba = addLba(*command, options.lba, "LBA of the first block");
    command->add_flag("--no-lba", options.noLba, "Do not write LBAs")->excludes(lba);
    addForce(*command, options.force);
    command->footer(std::string("DST appears only when it is complete and on stable storage.\n") + kExitStatusText +
                    R"(
Examples:
  difctl protect disk.raw disk.dif
  difctl protect --block 4160 --crc crc32c --lba 2048 part.raw part.dif
  zcat disk.raw.gz | difctl protect - - | ssh host 'cat > disk.dif'
)");
    return command;
}

CLI::App *addVerify(CLI::App &app, VerifyOptions &options) {
    auto *command = app.add_subcommand("verify", "Check every block of a protected image against its integrity field");
    addProtectedImage(*command, options);
    command->add_flag("--report", options.report, "Tell what holds for the image as a whole; reads all of it");
    command->add_flag("--json", options.json, "Print one JSON object; it is whole if the exit status is 0 or 1");
    command->footer(std::string(kExitStatusText) + R"(
Examples:
  difctl verify disk.dif
  difctl verify --all --report --block 4160 --lba 2048 part.dif
  difctl verify --json --all --crc crc32c disk.dif | jq '.failed_blocks[].lba'
  ssh host 'cat disk.dif' | difctl verify -
)");
    return command;
}

CLI::App *addStrip(CLI::App &app, StripOptions &options) {
    auto *command = app.add_subcommand("strip", "Verify a protected image and write its data out without the fields");
    addProtectedImage(*command, options);
    command->add_option("DST", options.destination, "Raw image to write; - is standard output")->required();
    addForce(*command, options.force);
    command->footer(std::string("DST appears only if no block fails. Standard output gets the requests of about 1 MiB\n"
                                "before the one that fails.\n") +
                    kExitStatusText + R"(
Examples:
  difctl strip disk.dif disk.raw
  difctl strip --all --block 4160 --lba 2048 part.dif part.raw
  difctl strip disk.dif - | gzip > disk.raw.gz
)");
    return command;
}

int run(int argc, char **argv) {
    CLI::App app("Disk images whose blocks carry an 8-byte integrity field: a guard, a version, an LBA.", "difctl");
    app.set_version_flag("--version", "difctl " DIFCTL_VERSION, "Print the version and exit");
    app.failure_message([](const CLI::App *, const CLI::Error &error) {
        return std::string("difctl: ") + error.what() + "; --help tells more\n";
    });
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "Show the library's warnings and notices, not only its errors");
    app.footer(std::string(kExitStatusText) + R"(
Examples:
  difctl protect disk.raw disk.dif
  difctl verify disk.dif
  difctl strip disk.dif disk.raw
  difctl protect --help
)");

    ProtectOptions protect;
    VerifyOptions verify;
    StripOptions strip;
    std::function<int()> command;
    addProtect(app, protect)->fallthrough()->final_callback([&] { command = [&] { return runProtect(protect); }; });
    addVerify(app, verify)->fallthrough()->final_callback([&] { command = [&] { return runVerify(verify); }; });
    addStrip(app, strip)->fallthrough()->final_callback([&] { command = [&] { return runStrip(strip); }; });
    try {
        app.parse(argc, argv);
        if (!command) {
            throw CLI::RequiredError("a command: protect, verify or strip");
        }
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kAllWell : kNotDone;
    }
    /* The library's messages would cut through a bar. */
    protect.progress = verify.progress = strip.progress = !verbose;
    const Library library(verbose);
    return command();
}

} // namespace

int main(int argc, char **argv) {
    occupyStandardStreams();
    /* A closed pipe and a file size limit are errors of the write that meets them. */
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        watchInterrupts();
        return run(argc, argv);
    } catch (const std::exception &error) {
        printMessage(error.what());
    }
    return kNotDone;
}
