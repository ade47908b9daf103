#include "commands/command_line.h"

#include "commands/commands.h"
#include "io/number.h"

#include <limits>
#include <memory>

#include <CLI/CLI.hpp>

namespace difctl {

namespace {

constexpr const char *kExitStatusText = "Exit status: 0 all well, 1 faults found, 2 could not be done.\n";
constexpr const char *kInPlaceText =
    "IMG is changed where it is, in requests of about 1 MiB. An interrupt ends between two of them and says where.\n"
    "First all of IMG is verified, and if a block fails nothing is changed. --force does not help against a length of\n"
    "not whole blocks.\n";

/* A number from 0 to `max` for `target`. CLI11 itself would take a sign and wrap what is too large. */
template <typename Target>
CLI::Option *addNumber(CLI::App &command, const std::string &names, Target &target, const std::string &text,
                       uint64_t max = std::numeric_limits<uint64_t>::max()) {
    const auto plain = [max](const std::string &word) {
        const auto number = parseNumber(word, max);
        if (!number) {
            throw CLI::ValidationError("'" + word + "' is not a number from 0 to " + std::to_string(max));
        }
        return std::to_string(*number);
    };
    return command.add_option(names, target, text)->transform(plain, "");
}

void addBlockSize(CLI::App &command, uint32_t &blockSize) {
    command.add_option("--block", blockSize, "Bytes of a protected block: 520 (512 data + 8) or 4160 (4096 data + 64)")
        ->check(CLI::IsMember({520, 4160}))
        ->capture_default_str();
}

void addEntry(CLI::App &command, std::optional<uint64_t> &entryBytes) {
    addNumber(command, "--entry", entryBytes,
              "Bytes of an entry of the scatter-gather lists through which blocks go: whole blocks.\n"
              "By default 64 blocks of 520 or 16 of 4160");
}

CLI::Option *addCrc(CLI::App &command, std::string &crc, const char *text) {
    return command.add_option("--crc", crc, text)->check(CLI::IsMember({"t10", "crc32c"}));
}

void addDestination(CLI::App &command, std::string &destination, bool &force, const char *text) {
    command.add_option("DST", destination, std::string(text) + "; - is standard output")->required();
    command.add_flag("--force", force, "Replace DST if it exists");
}

/* `lbaNames`: --first-lba everywhere, and --lba where that has no meaning of its own. */
void addImage(CLI::App &command, ImageOptions &options, const char *lbaNames = "--lba,--first-lba") {
    command.add_option("IMG", options.image, "Image of protected blocks; - is standard input")->required();
    addBlockSize(command, options.blockSize);
    addNumber(command, lbaNames, options.imageLba, "LBA of IMG's first block as it is")->capture_default_str();
}

void addCheck(CLI::App &command, ImageOptions &options) {
    command.add_flag("--no-lba", options.noLba, "Do not compare LBAs; a block without a valid LBA passes anyway");
    command.add_flag("--all", options.all, "Go on after the first failed block and name every one");
}

void addCheckedImage(CLI::App &command, CheckedImageOptions &options) {
    addImage(command, options);
    addCheck(command, options);
    addEntry(command, options.entryBytes);
    addCrc(command, options.crc,
           "Require this guard: a block of another version is a version error.\n"
           "By default every known version will do, each judged by its own guard");
}

void addInPlaceImage(CLI::App &command, InPlaceOptions &options, const char *lbaNames) {
    addImage(command, options, lbaNames);
    command.get_option("IMG")->description("Image of protected blocks: a file or block device");
    addCheck(command, options);
    command.add_flag("--force", options.force, "Go ahead without verifying IMG first");
}

void addAt(CLI::App &command, std::string &at) {
    command.add_option("--at", at, "LBA[,COUNT]: the block with this LBA, or COUNT blocks from there on")->required();
}

void addProtect(CLI::App &command, ProtectOptions &options) {
    command.add_option("SRC", options.source, "Raw image, whole sectors; - is standard input")->required();
    addDestination(command, options.destination, options.force, "Protected image to write");
    addBlockSize(command, options.blockSize);
    addEntry(command, options.entryBytes);
    addCrc(command, options.crc, "Guard: t10 (CRC16 T10-DIF) or crc32c (its low 16 bits)")->capture_default_str();
    auto *lba = addNumber(command, "--lba,--first-lba", options.lba, "LBA of the first block")->capture_default_str();
    command.add_flag("--no-lba", options.noLba, "Do not write LBAs")->excludes(lba);
    command.footer(std::string("DST appears only when it is complete and on stable storage.\n") + kExitStatusText + R"(
Examples:
  difctl protect disk.raw disk.dif
  difctl protect --block 4160 --crc crc32c --lba 2048 part.raw part.dif
  zcat disk.raw.gz | difctl protect - - | ssh host 'cat > disk.dif'
)");
}

void addVerify(CLI::App &command, VerifyOptions &options) {
    addCheckedImage(command, options);
    auto *report =
        command.add_flag("--report", options.report, "Tell what holds for the image as a whole; reads all of it");
    command.add_flag("--json", options.json, "Print one JSON object; it is whole if the exit status is 0 or 1");
    command
        .add_flag("--standard", options.standard,
                  "Take the fields for plain T10 protection information: no version, no flags, a reference tag\n"
                  "in every block; a block with application tag 0xffff passes")
        ->excludes(report)
        ->excludes(command.get_option("--crc"));
    command.add_flag("--stats", options.stats, "Print the counters of the run's verify point at the end")
        ->excludes(command.get_option("--json"));
    command.add_option("--metrics", options.metrics,
                       "Write switch, levels and counters to this file at the end, in the Prometheus text format");
    command.footer(std::string(kExitStatusText) + R"(
Examples:
  difctl verify disk.dif
  difctl verify --all --report --block 4160 --lba 2048 part.dif
  difctl verify --json --all --crc crc32c disk.dif | jq '.failed_blocks[].lba'
  difctl verify --standard --all drive.pi
  difctl verify --metrics /var/lib/prometheus/node-exporter/disk.prom disk.dif
  ssh host 'cat disk.dif' | difctl verify -
)");
}

void addStrip(CLI::App &command, StripOptions &options) {
    addCheckedImage(command, options);
    addDestination(command, options.destination, options.force, "Raw image to write");
    command.footer(std::string("DST appears only if no block fails. Standard output gets the requests of about 1 MiB\n"
                               "before the one that fails.\n") +
                   kExitStatusText + R"(
Examples:
  difctl strip disk.dif disk.raw
  difctl strip --all --block 4160 --lba 2048 part.dif part.raw
  difctl strip disk.dif - | gzip > disk.raw.gz
)");
}

void addShow(CLI::App &command, ShowOptions &options) {
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

void addInject(CLI::App &command, InjectOptions &options) {
    addInPlaceImage(command, options, "--first-lba");
    addAt(command, options.at);
    addNumber(command, "--version", options.version, "Version byte to write", UINT8_MAX);
    addNumber(command, "--crc", options.guard, "Guard to write, low byte first: 0x1234 is stored as 34 12", UINT16_MAX);
    addNumber(command, "--lba", options.lba,
              "LBA to write into the first of the blocks, one more into each further one");
    command.add_flag("--bst", options.bst, "Set the BST mark, which fails no check");
    command.footer(std::string("Writes faults into fields, at least one of --version, --crc, --lba and --bst.\n") +
                   kInPlaceText + kExitStatusText + R"(
Examples:
  difctl inject disk.dif --at 100 --version 0x1f
  difctl inject --force disk.dif --at 200,8 --crc 0xdead --lba 7
  difctl inject --first-lba 2048 --block 4160 part.dif --at 2050 --bst
)");
}

void addRelabel(CLI::App &command, RelabelOptions &options) {
    addInPlaceImage(command, options, "--first-lba");
    auto *lba = addNumber(command, "--lba", options.newLba, "New LBA of IMG's first block; block N gets N more");
    addCrc(command, options.crc, "Write the version and compute the guard of the data as it is");
    command
        .add_flag("--version-only", options.versionOnly, "Write the version of --crc (else of t10) and leave the guard")
        ->excludes(lba);
    command.add_option("--bitmap", options.bitmap, "Only these blocks, counted from 0 in IMG: like 0,5,9-20");
    command.footer(
        std::string("Rewrites fields, at least one of --lba, --crc and --version-only. Other fields stay as\n"
                    "they are; the BST mark too, which only a new protect clears.\n") +
        kInPlaceText + kExitStatusText + R"(
Examples:
  difctl relabel disk.dif --lba 1048576
  difctl relabel --first-lba 2048 part.dif --crc crc32c
  difctl relabel --force disk.dif --crc t10 --lba 0 --bitmap 100,200-207
)");
}

void addConvert(CLI::App &command, InPlaceOptions &options) {
    addInPlaceImage(command, options, "--lba,--first-lba");
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

void addFold(CLI::App &command, FoldOptions &options) {
    command.add_option("SRC", options.image, "Image of 520-byte blocks, a multiple of 8; - is standard input")
        ->required();
    addNumber(command, "--first-lba", options.imageLba, "LBA of SRC's first block")->capture_default_str();
    addCheck(command, options);
    addDestination(command, options.destination, options.force, "Image of 4160-byte blocks to write");
    addCrc(command, options.crc, "Guard of the 4160-byte blocks")->capture_default_str();
    addNumber(command, "--lba", options.newLba, "LBA of DST's first block; by default DST's blocks carry no LBAs");
    command.footer(
        std::string("Every 8 blocks of SRC are verified and become one: their data, a guard over all of it, "
                    "no flags, and an LBA\nonly if --lba asks for one. DST appears only if no block fails.\n") +
        kExitStatusText + R"(
Examples:
  difctl fold disk.dif disk.large && difctl verify --block 4160 disk.large
  difctl fold --first-lba 16384 part.dif --lba 2048 --crc crc32c part.large
  ssh host 'cat disk.dif' | difctl fold - disk.large
)");
}

void addShell(CLI::App &command, ShellOptions &options) {
    command.add_flag("--cli", options.cli, "The commands of the CLI instead of those of the diagnose shell");
    command.footer(
        R"(Runs operator commands in a process of its own, line by line from standard input; 'help' lists them, 'exit' or the
end of the input leaves. At a terminal there are line editing, history and completion by the tab key.
Exit status: 0 every command of a script was done, 2 one could not be.

Examples:
  difctl shell
  echo 'dif showverifylevel' | difctl shell --cli
)");
}

void addAttach(CLI::App &command, AttachOptions &options) {
    command.add_option("SOCKET", options.socket, "Control socket of the process")->required();
    command.add_option("COMMAND", options.words, "Operator command and its words; 'help' lists the commands")
        ->required();
    command.add_flag("--cli", options.cli, "The commands of the CLI instead of those of the diagnose shell");
    command.footer(
        R"(Runs one operator command in a live process, whose data path goes on meanwhile, and prints its output.
Exit status: 0 the command was done, 2 it could not be.

Examples:
  difctl attach /run/store/dif.sock dif showverifyresult
  difctl attach /run/store/dif.sock metrics
)");
}

void addSelftest(CLI::App &command, SelftestOptions &options) {
    addNumber(command, "--times", options.times, "How often")->capture_default_str();
    addNumber(command, "--len", options.len, "Over how many bytes, below 2^32")->capture_default_str();
    command.footer(
        R"(Compares the chosen CRC16 engine, the hardware engine and the table over generated data, and tells how fast each is.
Exit status: 0 they agree, 1 they do not or the test could not run.

Examples:
  difctl selftest
  difctl selftest --times 100000 --len 512
)");
}

/* A subcommand with options of its own, which live as long as the command that `line` gets if it is the one. */
template <typename Options>
void addCommand(CLI::App &app, CommandLine &line, const char *name, const char *text,
                void (*addOptions)(CLI::App &, Options &), int (*runCommand)(const Options &)) {
    auto *command = app.add_subcommand(name, text);
    const auto options = std::make_shared<Options>();
    addOptions(*command, *options);
    command->fallthrough()->final_callback([=, &line] { line.command = [=] { return runCommand(*options); }; });
}

} // namespace

CommandLine parseCommandLine(int argc, char **argv) {
    CommandLine line = {{}, kAllWell, false};
    CLI::App app("Disk images whose blocks carry an 8-byte integrity field: a guard, a version, an LBA.", "difctl");
    app.set_version_flag("--version", "difctl " DIFCTL_VERSION, "Print the version and exit");
    app.failure_message([](const CLI::App *, const CLI::Error &error) {
        return std::string("difctl: ") + error.what() + "; --help tells more\n";
    });
    app.add_flag("-v,--verbose", line.verbose, "Show the library's warnings and notices, not only its errors");
    app.footer(std::string(kExitStatusText) + R"(
Examples:
  difctl protect disk.raw disk.dif
  difctl verify disk.dif
  difctl strip disk.dif disk.raw
  difctl protect --help
)");
    addCommand(app, line, "protect", "Write a raw image out with an integrity field in every block", addProtect,
               runProtect);
    addCommand(app, line, "verify", "Check every block of a protected image against its integrity field", addVerify,
               runVerify);
    addCommand(app, line, "strip", "Verify a protected image and write its data out without the fields", addStrip,
               runStrip);
    addCommand(app, line, "show", "Print the fields of some blocks beside what they should be", addShow, runShow);
    addCommand(app, line, "inject", "Write faults into the fields of some blocks, in place", addInject, runInject);
    addCommand(app, line, "relabel", "Rewrite LBAs, guards or versions of a protected image, in place", addRelabel,
               runRelabel);
    addCommand(app, line, "convert", "Make blocks with the guard crc32c blocks with the guard t10, in place",
               addConvert, runConvert);
    addCommand(app, line, "fold", "Verify an image of 520-byte blocks and write it out in blocks of 4160 bytes",
               addFold, runFold);
    addCommand(app, line, "shell", "Run operator commands in this process", addShell, runShell);
    addCommand(app, line, "attach", "Run an operator command in a live process", addAttach, runAttach);
    addCommand(app, line, "selftest", "Compare and time the CRC16 engines", addSelftest, runSelftest);
    try {
        app.parse(argc, argv);
        if (!line.command) {
            throw CLI::RequiredError("a command: protect, verify, strip, show, inject, relabel, convert, fold, "
                                     "shell, attach or selftest");
        }
    } catch (const CLI::ParseError &error) {
        line.command = nullptr;
        line.status = app.exit(error) == 0 ? kAllWell : kNotDone;
    }
    return line;
}

} // namespace difctl
